#include <gtest/gtest.h>

#include "support/backend_fixture.hpp"
#include "support/test_util.hpp"

namespace quorvel {
namespace {

using testing::BackendTest;
using testing::failureOf;
using testing::tagged;
using Filtering = RenderBackend::ImageFiltering;
using Format = RenderBackend::ImageFormatType;
using Id = std::vector<unsigned char>;

constexpr char kGetEnvelopes[] =
    "DataEnvelopes SoftwareRenderBackendInstance::dataEnvelopes(  std::string const& id)";

EnvelopeData envelopes(std::vector<std::vector<uint32_t>> rects) {
  return {{{1, 2}, std::move(rects)}};
}

class Envelopes : public BackendTest {
 protected:
  Envelopes() : BackendTest(1000) {}
};

TEST_F(Envelopes, StoreReplaceLockAndEvict) {
  Id const a = {'a'}, b = {'b'};
  EXPECT_FALSE(instance_->dataEnvelopesSet(a));
  EXPECT_EQ(failureOf([&] { instance_->dataEnvelopes(a); }),
            tagged("Requested DataEnvelopes doesn't exist", kGetEnvelopes));
  instance_->lockDataEnvelopes(a);  // absent: ignored

  instance_->dataEnvelopes(a, {{{1}, {{0, 1, 0, 1}, {2, 3, 2, 3}}}, {{2}, {{5, 5, 5, 5}}}});
  EXPECT_EQ(instance_->dataEnvelopes(a)->count(), 3u);
  EXPECT_EQ(software().envelopeCacheStats().totalCost, 3 * 112u);
  instance_->dataEnvelopes(a, envelopes({{0, 9, 0, 9}, {1, 1, 1, 1}, {2, 2, 2, 2}, {3, 3, 3, 3}}));
  EXPECT_EQ(instance_->dataEnvelopes(a)->count(), 4u);
  EXPECT_EQ(software().envelopeCacheStats().totalCost, 4 * 112u);

  // Invalid data is refused and the stored set stays.
  for (std::vector<uint32_t> const& bad : {std::vector<uint32_t>{0, 1, 0}, {5, 1, 0, 1}}) {
    EXPECT_NE(
        failureOf([&] { instance_->dataEnvelopes(a, envelopes({bad})); }).find("Invalid envelope"),
        std::string::npos)
        << bad.size();
  }
  EXPECT_EQ(instance_->dataEnvelopes(a)->count(), 4u);

  // Two locks, one unlock: unlocked. A second store of 5 entries (560) then evicts it.
  instance_->lockDataEnvelopes(a);
  instance_->lockDataEnvelopes(a);
  instance_->unlockDataEnvelopes(a);
  EXPECT_EQ(software().envelopeCacheStats().lockedCost, 0u);
  instance_->dataEnvelopes(
      b, envelopes({{0, 0, 0, 0}, {1, 1, 1, 1}, {2, 2, 2, 2}, {3, 3, 3, 3}, {4, 4, 4, 4}}));
  EXPECT_FALSE(instance_->dataEnvelopesSet(a));
  EXPECT_TRUE(instance_->dataEnvelopesSet(b));

  // Locked, it survives the same pressure.
  instance_->dataEnvelopes(a, envelopes({{0, 0, 0, 0}, {1, 1, 1, 1}, {2, 2, 2, 2}, {3, 3, 3, 3}}));
  instance_->lockDataEnvelopes(a);
  instance_->dataEnvelopes(
      Id{'c'}, envelopes({{0, 0, 0, 0}, {1, 1, 1, 1}, {2, 2, 2, 2}, {3, 3, 3, 3}, {4, 4, 4, 4}}));
  EXPECT_TRUE(instance_->dataEnvelopesSet(a));
}

TEST(DataEnvelopes, QueryFindsIntersectingEnvelopesInOrderAmongMany) {
  EnvelopeData data(1);
  for (uint32_t i = 0; i < 100000; ++i) {
    uint32_t const x = (i % 1000) * 10, y = (i / 1000) * 10;
    data[0].second.push_back({x, x + 4, y, y + 4});
  }
  DataEnvelopes e;
  e.set({'z'}, data);
  EXPECT_EQ(e.count(), 100000u);
  auto hits = e.intersecting({12, 24, 3, 3});
  ASSERT_EQ(hits.size(), 2u);
  EXPECT_EQ(hits[0].xmin, 10);
  EXPECT_EQ(hits[1].xmin, 20);
  EXPECT_TRUE(e.intersecting({5, 9, 0, 100000}).empty());
}

// Filling staging buffers on other threads and drawing the tiles is the stress tests' job;
// here, the buffer's own state and the refusals.
TEST_F(Envelopes, StagingBufferBecomesATileAndRefusesWrongSizesAndForeignBuffers) {
  auto staging =
      instance_->concurrentStagingBuffer(4, RenderBackend::BufferType::kTile, {256, 256, 3});
  EXPECT_EQ(staging->targetOrTileId(), 4u);
  EXPECT_TRUE(staging->isReady());
  EXPECT_FALSE(staging->isMapped());
  EXPECT_TRUE(staging->mappedData().empty());
  staging->setPixels(std::vector<unsigned char>(256 * 256 * 3, 7), 0);
  EXPECT_TRUE(instance_->synchronizeConcurrentStagingBuffer(std::move(staging)));
  EXPECT_EQ(staging, nullptr);
  EXPECT_TRUE(instance_->tileSet(4));
  EXPECT_EQ(software().tileCacheStats().totalCost, 196608u);

  EXPECT_EQ(
      failureOf([&] {
        instance_->concurrentStagingBuffer(1, RenderBackend::BufferType::kTile, {256, 256, 2});
      }),
      tagged("Can't set tile pixels with the required size",
             "void SoftwareConcurrentStagingBuffer::SoftwareConcurrentStagingBuffer(size_t "
             "targetOrTileId, RenderBackend::BufferType type,SoftwareRenderBackendInstance& "
             "instance)"));
  class Foreign : public ConcurrentStagingBuffer {
   public:
    Foreign() : ConcurrentStagingBuffer(1) {}
    void setPixels(std::vector<unsigned char> const&, size_t) override {}
    bool isReady() const override { return true; }
    bool isMapped() const override { return false; }
    std::vector<unsigned char> mappedData() override { return {}; }
  };
  std::unique_ptr<ConcurrentStagingBuffer> foreign = std::make_unique<Foreign>();
  EXPECT_EQ(failureOf([&] { instance_->synchronizeConcurrentStagingBuffer(std::move(foreign)); }),
            tagged("could cast ConcurrentStagingBuffer to this backend",
                   "bool SoftwareRenderBackendInstance::synchronizeConcurrentStagingBuffer(std::"
                   "unique_ptr<ConcurrentStagingBuffer>&& buffer)"));
}

// Masks copy a 6x5 region (image x 10..15, y 20..24) from a patterned source into a
// sentinel-filled target; only pixels inside the envelopes change.
class Masks : public BackendTest {
 protected:
  void SetUp() override {
    source_ = instance_->createTarget({6, 5}, 32, false, Filtering::kNone, Format::kRgba8);
    target_ = instance_->createTarget({6, 5}, 32, false, Filtering::kNone, Format::kRgba8);
    std::vector<PixelRgba8> px(30);
    for (size_t i = 0; i < 30; ++i) px[i] = {uint8_t(i), 1, 2, 3};
    instance_->setTile(0, bytesOf(px), {6, 5, 4}, 0);
    blit_ = filter("BlitFilter4x8");
    mask_ = filter("MaskFilter4x8");
    instance_->drawTiles(source_, *blit_, {0, 6, 0, 5}, {0, 6, 0, 5}, {6, 5}, {{0, 0}}, {0}, {});
    instance_->clear(target_, {200, 200, 200, 200});
  }

  // The target after masking with `rects`, as a map: true where the source was copied.
  std::vector<bool> copiedWith(std::vector<std::vector<uint32_t>> rects) {
    instance_->dataEnvelopes({'m'}, envelopes(std::move(rects)));
    instance_->maskRange(source_, target_, *mask_, {'m'}, {10, 15, 20, 24});
    auto out = read<PixelRgba8>(target_, 0, 6, 0, 5);
    std::vector<bool> copied(30);
    for (size_t i = 0; i < 30; ++i) {
      copied[i] = out[i] == PixelRgba8{uint8_t(i), 1, 2, 3};
      EXPECT_TRUE(copied[i] || (out[i] == PixelRgba8({200, 200, 200, 200}))) << i;
    }
    return copied;
  }

  size_t source_ = 0, target_ = 0;
  std::unique_ptr<Filter> blit_, mask_;
};

// Each step copies more of the same source, so the target keeps what earlier steps copied.
TEST_F(Masks, CopiesExactlyThePixelsInsideTheEnvelopes) {
  EXPECT_EQ(copiedWith({{0, 9, 0, 100}, {16, 30, 20, 24}}), std::vector<bool>(30, false));
  // Partial, one-pixel and overlapping envelopes.
  auto copied = copiedWith({{14, 40, 23, 40}, {11, 11, 20, 20}, {14, 14, 23, 23}});
  for (size_t y = 0; y < 5; ++y) {
    for (size_t x = 0; x < 6; ++x) {
      bool const expected = (x >= 4 && y >= 3) || (x == 1 && y == 0);
      EXPECT_EQ(copied[y * 6 + x], expected) << x << "," << y;
    }
  }
  EXPECT_EQ(copiedWith({{0, 100, 0, 100}}), std::vector<bool>(30, true));
}

TEST_F(Masks, MaskRangeChecksItsArgumentsInOrder) {
  constexpr char kMask[] =
      "void SoftwareRenderBackend::Instance::maskRange(size_t source, size_t target, Filter "
      "const& maskFilter, std::vector<unsigned char> const& envelopesId, std::vector<size_t> "
      "const& range)";
  instance_->dataEnvelopes({'m'}, envelopes({{0, 1, 0, 1}}));
  auto mask = [&](size_t source, Filter const& f, Id const& id, std::vector<size_t> range) {
    return failureOf([&] { instance_->maskRange(source, target_, f, id, range); });
  };
  Filter notInstantiated = pointFilter("MaskFilter4x8");
  EXPECT_EQ(mask(77, *mask_, {'m'}, {0, 1, 0, 1}), tagged("Target does not exist", kMask));
  EXPECT_EQ(mask(source_, notInstantiated, {'m'}, {0, 1, 0, 1}),
            tagged("Instance for Filter <MaskFilter4x8> not available", kMask));
  EXPECT_EQ(mask(source_, *blit_, {'m'}, {0, 1, 0, 1}),
            tagged("Filter <BlitFilter4x8> not supported", kMask));
  EXPECT_EQ(mask(source_, *mask_, {'m'}, {2, 1, 0, 1}), tagged("Invalid range", kMask));
  EXPECT_EQ(mask(source_, *mask_, {'x'}, {0, 1, 0, 1}),
            tagged("Requested DataEnvelopes doesn't exist", kMask));
}

TEST_F(Envelopes, TileStoreFollowsTheWorkedLruExample) {
  // Capacity 1000 samples here; three 16x16x1 tiles of cost 256 fit, a fourth evicts the first.
  std::vector<unsigned char> pixels(16 * 16 * 2, 1);
  for (size_t t = 0; t < 4; ++t) instance_->setTile(t, pixels, {16, 16, 1}, 0);
  EXPECT_FALSE(instance_->tileSet(0));
  EXPECT_TRUE(instance_->tileSet(3));
  // A locked tile's cost comes on top of the capacity: tile 4 fits beside it, tile 5 evicts
  // the oldest unlocked tile (2), never the locked one.
  instance_->lockTile(1);
  instance_->setTile(4, pixels, {16, 16, 1}, 0);
  EXPECT_TRUE(instance_->tileSet(2));
  instance_->setTile(5, pixels, {16, 16, 1}, 0);
  EXPECT_TRUE(instance_->tileSet(1));
  EXPECT_FALSE(instance_->tileSet(2));
  EXPECT_EQ(software().tileCacheStats().totalCost, 1024u);
  EXPECT_EQ(instance_->eraseTile(1), 256u);
  EXPECT_EQ(software().tileCacheStats().lockedCost, 0u);

  EXPECT_EQ(failureOf([&] {
              instance_->setTile(9, pixels, {16, 16, 2}, 0);
            }),
            tagged("Can't set tile pixels with the required size",
                   "void SoftwareRenderBackendInstance::setTile(size_t tile, std::vector<unsigned "
                   "char> const& pixels, std::vector<size_t> const& size, size_t offset)"));
  EXPECT_TRUE(instance_->tileSet(9));  // the refused upload leaves an empty entry

  // Same tile ids in two instances are separate entries that compete for one capacity: the
  // other instance's tile 3 pushes out this instance's oldest tile, also numbered 3.
  auto other = backend_.createInstance(context_);
  EXPECT_FALSE(other->tileSet(3));
  other->setTile(3, pixels, {16, 16, 1}, 0);
  EXPECT_FALSE(instance_->tileSet(3));
  EXPECT_EQ(other->eraseTiles(0, 3), 0u);
  EXPECT_EQ(other->clearTiles(), 256u);
  EXPECT_EQ(instance_->eraseTiles(3, 5), 256u);  // tile 4; tile 5 is kept
  EXPECT_TRUE(instance_->tileSet(5));
}

}  // namespace
}  // namespace quorvel
