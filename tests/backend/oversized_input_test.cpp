// Host calls with sizes too large to exist (their pixel or byte counts wrap around size_t):
// each fails with a library exception and never reaches memory through a wrapped count.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/backend_fixture.hpp"
#include "support/test_util.hpp"

namespace quorvel {
namespace {

using testing::failureOf;
using testing::tagged;
using Filtering = RenderBackend::ImageFiltering;
using Format = RenderBackend::ImageFormatType;

constexpr size_t k2to32 = size_t{1} << 32;
constexpr char kSetTile[] =
    "void SoftwareRenderBackendInstance::setTile(size_t tile, std::vector<unsigned char> const& "
    "pixels, std::vector<size_t> const& size, size_t offset)";
constexpr char kStaging[] =
    "void SoftwareConcurrentStagingBuffer::SoftwareConcurrentStagingBuffer(size_t "
    "targetOrTileId, RenderBackend::BufferType type,SoftwareRenderBackendInstance& instance)";
constexpr char kBufferGetPixels[] =
    "void Buffer2D<PixelType>::getPixels(void* buffer, size_t bufferSize,size_t x, size_t y, "
    "size_t width, size_t height)";

class OversizedInput : public testing::BackendTest {};

TEST_F(OversizedInput, TileAndStagingSizesThatWrapAreRefused) {
  for (std::vector<size_t> size : {std::vector<size_t>{k2to32 + 1, k2to32 - 1, 1},
                                   {k2to32, k2to32, 3},
                                   {(size_t{1} << 63) + 1, 2, 4},
                                   {SIZE_MAX, SIZE_MAX, 1}}) {
    EXPECT_EQ(failureOf([&] {
                instance_->setTile(4, {1, 2, 3}, size, 0);
              }),
              tagged("Can't set tile pixels with the required size", kSetTile))
        << size[0] << "x" << size[1] << "x" << size[2];
    EXPECT_EQ(failureOf([&] {
                (void)instance_->concurrentStagingBuffer(4, RenderBackend::BufferType::kTile, size);
              }),
              tagged("Can't set tile pixels with the required size", kStaging));
  }
}

TEST_F(OversizedInput, HugeTargetFailsItsJobsAndItsReads) {
  size_t const huge =
      instance_->createTarget({k2to32, k2to32}, 32, false, Filtering::kLinear, Format::kRgba8);
  auto blit = filter("BlitFilter4x8");
  instance_->setTile(1, std::vector<unsigned char>(8 * 8 * 4, 9), {8, 8, 4}, 0);
  instance_->drawTiles(huge, *blit, {0, 8, 0, 8}, {0, 8, 0, 8}, {8, 8}, {{0, 0}}, {1}, {});
  instance_->finalizeDrawSequence();
  // The allocation fails on the worker; the draw after it finds no storage.
  EXPECT_NE(failureOf([&] { instance_->waitForTarget(huge); }).find("in error state"),
            std::string::npos);
  // A fresh huge target with no jobs: a read that fits its size finds no data (and does
  // not try to make a vector of 2^66 bytes).
  size_t const idle =
      instance_->createTarget({k2to32, k2to32}, 32, false, Filtering::kLinear, Format::kRgba8);
  for (std::vector<size_t> const& rect :
       {std::vector<size_t>{0, k2to32, 0, k2to32}, std::vector<size_t>{0, 2, 0, 2}}) {
    EXPECT_EQ(failureOf([&] { (void)instance_->getPixels(idle, rect); }),
              tagged("buffer data does not exist", kBufferGetPixels))
        << rect[1];
  }
}

}  // namespace
}  // namespace quorvel
