// Sizes whose pixel or byte count wraps around size_t: storage is refused instead of
// being made a few pixels long under huge dimensions, and the kernels' storage check does
// not mistake such a buffer for an empty one.

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <new>

#include "filters/kernel_frame.hpp"
#include "quorvel/render.hpp"
#include "support/test_util.hpp"

namespace quorvel {
namespace {

constexpr size_t k2to32 = size_t{1} << 32;
constexpr size_t k2to63 = size_t{1} << 63;

TEST(Buffer2DSizeOverflow, StorageForAWrappingSizeIsRefused) {
  // (2^63 + 1) * 2 wraps to 2 pixels; 2^32 * 2^32 wraps to none; the byte count of the
  // last one wraps only after multiplying by the pixel size.
  EXPECT_THROW(Buffer2DVector<uint8_t>(k2to63 + 1, 2, true), std::bad_array_new_length);
  EXPECT_THROW(Buffer2DVector<int16_t>(k2to32, k2to32, true), std::bad_array_new_length);
  EXPECT_THROW(Buffer2DVector<PixelRgba8>(k2to32, size_t{1} << 30, true),
               std::bad_array_new_length);
  Buffer2DVector<PixelRgb16> lazy(k2to63 + 1, 2, false);  // a description costs nothing
  EXPECT_EQ(lazy.pixelCount(), 0u);
  EXPECT_THROW(lazy.allocate(), std::bad_array_new_length);
  EXPECT_EQ(lazy.data(), nullptr);
  Buffer2DVector<uint8_t> small(3, 3, true);
  EXPECT_THROW(small.resize(k2to32, k2to32), std::bad_array_new_length);
  EXPECT_EQ(small.pixelCount(), 9u) << "a refused resize keeps the old storage";
}

TEST(Buffer2DSizeOverflow, KernelsSeeAHugeStoragelessBufferAsMissingData) {
  auto huge = std::make_shared<Buffer2DVector<PixelRgba8>>(k2to32, k2to32, false);
  auto target = std::make_shared<Buffer2DVector<PixelRgba8>>(8, 8, true);
  std::string const noData = testing::tagged("buffer data does not exist", kernel::kApplyLocation);
  EXPECT_EQ(testing::failureOf([&] { (void)kernel::typed<PixelRgba8>({huge}, 0); }), noData);
  SoftwareBlitFilter<PixelRgba8, PixelRgba8> blit(pointFilter("BlitFilter4x8"));
  EXPECT_EQ(
      testing::failureOf([&] {
        blit.apply({huge}, {{0, 0, 8, 8}}, {target}, {{0, 0, 8, 8}}, FilterEmptyParams::instance());
      }),
      noData);
}

}  // namespace
}  // namespace quorvel
