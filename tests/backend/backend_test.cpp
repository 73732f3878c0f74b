#include <gtest/gtest.h>

#include "quorvel/backend/software_render_backend.hpp"
#include "support/backend_fixture.hpp"
#include "support/test_util.hpp"

namespace quorvel {
namespace {

using testing::BackendTest;
using testing::failureOf;
using testing::tagged;
using Filtering = RenderBackend::ImageFiltering;
using Format = RenderBackend::ImageFormatType;

constexpr char kClear[] =
    "void SoftwareRenderBackend::Instance::clear(size_t target, std::vector<size_t> const& color)";
constexpr char kDrawTiles[] =
    "void SoftwareRenderBackend::Instance::drawTiles(size_t target, Filter const& tileShader, "
    "std::vector<size_t> const& range, std::vector<size_t> const& canvasRange, "
    "std::vector<size_t> const& tileSize, std::vector<std::vector<size_t>> const& blockCoords, "
    "std::vector<size_t> const& blocks, std::vector<size_t> const& offsets)";
constexpr char kExecuteFilter[] =
    "void SoftwareRenderBackend::Instance::executeFilter(Filter const& filter, "
    "std::vector<FilterSource> const& sources, size_t inputW, size_t inputH, size_t "
    "destination, size_t clipLeft, size_t clipRight, size_t clipTop, size_t clipBottom, "
    "std::vector<size_t> const& offset)";

class Backend : public BackendTest {};

TEST_F(Backend, LifecycleSharesObjectsAndNeverReusesInstanceIds) {
  auto second = backend_.createInstance(context_);
  EXPECT_EQ(software().id(), 0u);
  EXPECT_EQ(static_cast<SoftwareRenderBackendInstance&>(*second).id(), 1u);
  size_t const target = instance_->createTarget({4, 4}, 8, false, Filtering::kNone, Format::kRgb8);
  EXPECT_EQ(second->targetSize(target), (std::vector<size_t>{4, 4}));  // shared targets
  for (auto format : {Format::kUnknown, Format::kWavelet16}) {
    SoftwareRenderBackend other(format, 10);
    auto i = other.createInstance(context_);
    EXPECT_EQ(i->pixelTypeid(), typeid(unsigned char));
    EXPECT_EQ(i->pixelSize(), 1u);
    EXPECT_EQ(i->numComponents(), 3u);
  }

  instance_.reset();
  second.reset();
  // A new generation needs a software context; a foreign one is refused without using an id.
  RenderContext foreign;
  EXPECT_THROW(backend_.createInstance(foreign), std::bad_cast);
  auto third = backend_.createInstance(context_);
  EXPECT_EQ(static_cast<SoftwareRenderBackendInstance&>(*third).id(), 2u);
  // A fresh generation: only the context's own target exists.
  EXPECT_EQ(third->createTarget({1, 1}, 8, false, Filtering::kNone, Format::kRgb8), 1u);
}

TEST_F(Backend, TargetIdsBitDepthsAndConstantQueries) {
  size_t const a = instance_->createTarget({3, 2}, 8, false, Filtering::kNone, Format::kRgb8);
  size_t const b = instance_->createTarget({3, 2}, 16, true, Filtering::kNone, Format::kRgb8);
  size_t const c = instance_->createTarget({3, 2}, 24, false, Filtering::kNone, Format::kRgb8);
  EXPECT_EQ(std::vector<size_t>({a, b, c}), (std::vector<size_t>{1, 2, 3}));
  instance_->eraseTarget(b);
  EXPECT_EQ(instance_->createTarget({3, 2}, 32, true, Filtering::kNone, Format::kRgb8), 2u);
  EXPECT_EQ(instance_->targetAlignment(a), (std::vector<size_t>{1, 1, 1}));
  EXPECT_EQ(static_cast<int>(instance_->targetFiltering(a)), 4);
  EXPECT_EQ(instance_->getPixelsBufferSize(c, {0, 3, 0, 2}), 18u);

  for (size_t bits : {8u, 16u, 24u, 32u, 48u}) {
    for (bool s : {false, true}) {
      size_t const t = instance_->createTarget({2, 2}, bits, s, Filtering::kNone, Format::kRgb8);
      EXPECT_EQ(instance_->getPixelsBufferSize(t, {0, 1, 0, 1}), bits / 8);
    }
  }
  EXPECT_EQ(failureOf([&] {
              instance_->createTarget({2, 2}, 64, false, Filtering::kNone, Format::kRgb8);
            }),
            "#Name:cannot instantiate a buffer with the required bit depth#Location:size_t "
            "SoftwareRenderBackendInstance::createTarget(std::vector<size_t> const& size, size_t "
            "bits, ImageFiltering filter, ImageFormatType format)#Description:requested "
            "bits=[64]");
}

TEST_F(Backend, ClearsReadBackAndChecksArgumentsWithTheirOwnTexts) {
  size_t const t = instance_->createTarget({4, 3}, 32, false, Filtering::kNone, Format::kRgba8);
  instance_->clear(t, {1, 2, 3, 4});
  instance_->clearRect(t, {9, 9, 9, 9}, {1, 1, 2, 2});  // {x, y, width, height} in that order
  instance_->finalizeDrawSequence();
  auto pixels = read<PixelRgba8>(t, 0, 4, 0, 3);
  for (size_t y = 0; y < 3; ++y) {
    for (size_t x = 0; x < 4; ++x) {
      bool const inside = x >= 1 && x < 3 && y >= 1;
      PixelRgba8 const expected = inside ? PixelRgba8{9, 9, 9, 9} : PixelRgba8{1, 2, 3, 4};
      EXPECT_EQ(pixels[y * 4 + x], expected) << x << "," << y;
    }
  }
  EXPECT_EQ(failureOf([&] { instance_->clear(t, {1, 2}); }), tagged("Invalid color", kClear));
  EXPECT_EQ(failureOf([&] {
              instance_->clearRect(t, {1, 2, 3}, {0, 1, 0, 1});
            }),
            tagged("Invalid color", kClear));
  EXPECT_EQ(failureOf([&] {
              instance_->clearRect(t, {1, 2, 3, 4}, {0, 1, 0});
            }),
            tagged("Invalid rectangle", kClear));
  EXPECT_EQ(failureOf([&] { instance_->clear(99, {1}); }), tagged("Target does not exist", kClear));
  EXPECT_EQ(failureOf([&] {
              instance_->clearRect(98, {1, 2, 3, 4}, {0, 1, 0, 1});
            }),
            tagged("Target does not exist",
                   "void SoftwareRenderBackend::Instance::clearRect(size_t target, "
                   "std::vector<size_t> const& color,std::vector<size_t> const& rect)"));
  // The unknown ids above left empty entries; the next id counts them.
  EXPECT_EQ(instance_->createTarget({1, 1}, 8, false, Filtering::kNone, Format::kRgb8), 100u);

  std::vector<unsigned char> small(4 * 3 * 4 - 1);
  EXPECT_EQ(failureOf([&] {
              instance_->getPixels(small.data(), small.size(), t, {0, 4, 0, 3});
            }),
            tagged("buffer too small",
                   "size_t SoftwareRenderBackend::Instance::getPixels(void* buffer, size_t n, "
                   "size_t target, std::vector<size_t> const& rect) const"));
}

TEST_F(Backend, ClearWithOneComponentOnAThreeChannelTargetFillsTheRestWithZero) {
  size_t const t = instance_->createTarget({2, 1}, 48, true, Filtering::kNone, Format::kRgb8);
  instance_->clear(t, {7});
  EXPECT_EQ(read<PixelRgbS16>(t, 0, 2, 0, 1), (std::vector<PixelRgbS16>{{7, 0, 0}, {7, 0, 0}}));
}

TEST_F(Backend, DrawsAGridOfTilesWithMissingOnesBlanked) {
  // 2x2 tiles of 3x2 RGBA pixels drawn at an offset; tile 3 is not uploaded.
  size_t const t = instance_->createTarget({8, 6}, 32, false, Filtering::kNone, Format::kRgba8);
  instance_->clear(t, {50, 50, 50, 50});
  for (size_t tile = 0; tile < 3; ++tile) {
    std::vector<PixelRgba8> px(6);
    for (size_t i = 0; i < 6; ++i) px[i] = {uint8_t(tile), uint8_t(i), 0, 255};
    instance_->setTile(tile, bytesOf(px), {3, 2, 4}, 0);
  }
  auto blit = filter("BlitFilter4x8");
  // offsets (1, 1), range starting at (10, 20) drawn on a canvas starting at (10, 21).
  instance_->drawTiles(t, *blit, {10, 6, 20, 4}, {10, 6, 21, 4}, {3, 2},
                       {{0, 0}, {1, 0}, {0, 1}, {1, 1}}, {0, 1, 2, 3}, {1, 1});
  EXPECT_FALSE(instance_->targetReady(t));  // queued, not yet flushed
  instance_->finalizeDrawSequence();
  auto pixels = read<PixelRgba8>(t, 0, 8, 0, 6);
  for (size_t y = 0; y < 6; ++y) {
    for (size_t x = 0; x < 8; ++x) {
      PixelRgba8 expected{50, 50, 50, 50};
      int const gx = int(x) - 1, gy = int(y) - 2;  // origin (1 + 10 - 10, 1 + 21 - 20)
      if (gx >= 0 && gx < 6 && gy >= 0 && gy < 4) {
        size_t const tile = size_t(gx / 3 + 2 * (gy / 2));
        size_t const i = size_t(gx % 3 + 3 * (gy % 2));
        expected =
            tile == 3 ? PixelRgba8{0, 0, 0, 0} : PixelRgba8{uint8_t(tile), uint8_t(i), 0, 255};
      }
      EXPECT_EQ(pixels[y * 8 + x], expected) << x << "," << y;
    }
  }
}

TEST_F(Backend, DrawsSixteenBitSingleChannelTiles) {
  size_t const t = instance_->createTarget({4, 4}, 16, true, Filtering::kNone, Format::kWavelet16);
  std::vector<int16_t> a = {-1, 2, 3, -32768}, b = {5, 6, 7, 32767};
  instance_->setTile(7, bytesOf(a), {2, 2, 1}, 0);
  instance_->setTile(8, bytesOf(b), {2, 2, 1}, 0);
  auto blit = filter("BlitFilter1x16");
  instance_->drawTiles(t, *blit, {0, 4, 0, 4}, {0, 4, 0, 4}, {2, 2}, {{0, 0}, {1, 1}, {1, 0}},
                       {7, 8, 9}, {});
  instance_->finalizeDrawSequence();
  EXPECT_EQ(read<int16_t>(t, 0, 4, 0, 4),
            (std::vector<int16_t>{-1, 2, 0, 0, 3, -32768, 0, 0, 0, 0, 5, 6, 0, 0, 7, 32767}));
}

TEST_F(Backend, DrawTilesChecksBeforeQueueingAnything) {
  size_t const t = instance_->createTarget({4, 4}, 32, false, Filtering::kNone, Format::kRgba8);
  auto blit = filter("BlitFilter4x8");
  Filter stranger = pointFilter("BlitFilter4x8");
  auto draw = [&](size_t target, Filter const& f, std::vector<std::vector<size_t>> coords,
                  std::vector<size_t> blocks) {
    return failureOf([&] {
      instance_->drawTiles(target, f, {0, 4, 0, 4}, {0, 4, 0, 4}, {2, 2}, coords, blocks, {});
    });
  };
  EXPECT_EQ(draw(50, *blit, {}, {}), tagged("Target does not exist", kDrawTiles));
  EXPECT_EQ(draw(t, stranger, {}, {}),
            tagged("Instance for Filter <BlitFilter4x8> not available", kDrawTiles));
  EXPECT_NE(draw(t, *blit, {{0}}, {0}), "no exception");  // a block coordinate without its y
  EXPECT_TRUE(instance_->targetReady(t));
}

TEST_F(Backend, FilterInstancesTakeTheSmallestFreeIdAndDestroyOnlyOnce) {
  Filter a = pointFilter("BlitFilter3x8"), b = pointFilter("BlitFilter3x16");
  instance_->createFilterInstance(a);
  instance_->createFilterInstance(a);
  instance_->createFilterInstance(b);
  EXPECT_EQ(*a.implementation(), 0u);
  EXPECT_EQ(*b.implementation(), 1u);
  instance_->destroyFilterInstance(a);
  Filter c = pointFilter("BlitFilter4x8");
  instance_->createFilterInstance(c);
  EXPECT_EQ(*c.implementation(), 0u);
  EXPECT_EQ(
      failureOf([&] { instance_->destroyFilterInstance(b), instance_->destroyFilterInstance(b); }),
      tagged("Instance for Filter <BlitFilter3x16> not available",
             "void SoftwareRenderBackend::Instance::destroyFilterInstance(Filter& filter)"));
  Filter unknown = pointFilter("NoSuchFilter");
  EXPECT_EQ(failureOf([&] { instance_->createFilterInstance(unknown); }),
            tagged("Filter <NoSuchFilter> not available",
                   "std::string SoftwareRenderBackend::Instance::createShaderInstance(Filter "
                   "const& filter)"));
  size_t const t = instance_->createTarget({2, 2}, 48, true, Filtering::kNone, Format::kRgb8);
  EXPECT_EQ(failureOf([&] {
              instance_->executeFilter(b, {{t, 0, 0, true}}, 2, 2, t, 0, 0, 0, 0,
                                       FilterEmptyParams::instance(), {0, 0});
            }),
            tagged("Instance for Filter <BlitFilter3x16> not available", kExecuteFilter));
}

TEST_F(Backend, FilterDescriptionDropsItsImplementationWithTheLastCopy) {
  size_t before;
  {
    auto f = filter("BlitFilter3x8");
    before = *f->implementation();
    auto copy = f->clone();
    f.reset();  // a copy still shares the handle
    Filter again = pointFilter("BlitFilter3x8");
    instance_->createFilterInstance(again);
    EXPECT_NE(*again.implementation(), before);
  }
  Filter next = pointFilter("BlitFilter3x8");
  instance_->createFilterInstance(next);
  EXPECT_EQ(*next.implementation(), before);
}

TEST_F(Backend, ExecuteFilterPlacesTheOutputWithTheClipAsymmetry) {
  size_t const src = instance_->createTarget({4, 4}, 16, true, Filtering::kNone, Format::kRgb8);
  size_t const dst = instance_->createTarget({8, 8}, 16, true, Filtering::kNone, Format::kRgb8);
  std::vector<int16_t> values(16);
  for (int i = 0; i < 16; ++i) values[size_t(i)] = int16_t(i + 1);
  instance_->setTile(1, bytesOf(values), {4, 4, 1}, 0);
  auto blit = filter("BlitFilter1x16");
  instance_->drawTiles(src, *blit, {0, 4, 0, 4}, {0, 4, 0, 4}, {4, 4}, {{0, 0}}, {1}, {});
  instance_->clear(dst, {0});
  // clipLeft 3 moves x from 5 to 2 but keeps the width 4; clipBottom 1 trims the height to 3.
  instance_->executeFilter(*blit, {{src, 0, 0, false}}, 4, 4, dst, 3, 0, 0, 1,
                           FilterEmptyParams::instance(), {5, 1});
  instance_->finalizeDrawSequence();
  auto out = read<int16_t>(dst, 0, 8, 0, 8);
  for (int y = 0; y < 8; ++y) {
    for (int x = 0; x < 8; ++x) {
      int16_t expected = 0;
      if (x >= 2 && x < 6 && y >= 1 && y < 4) expected = int16_t((y - 1) * 4 + (x - 2) + 1);
      EXPECT_EQ(out[size_t(y * 8 + x)], expected) << x << "," << y;
    }
  }
  // A whole source uses the buffer's own size whatever inputW/inputH say.
  size_t const dst2 = instance_->createTarget({4, 4}, 16, true, Filtering::kNone, Format::kRgb8);
  instance_->executeFilter(*blit, {{src, 3, 3, true}}, 4, 4, dst2, 0, 0, 0, 0,
                           FilterEmptyParams::instance(), {});
  EXPECT_EQ(read<int16_t>(dst2, 0, 4, 0, 4), values);
}

TEST_F(Backend, FailedJobsSurfaceAsErrorStateOnTheirTarget) {
  size_t const src = instance_->createTarget({4, 4}, 32, false, Filtering::kNone, Format::kRgba8);
  size_t const dst = instance_->createTarget({4, 4}, 32, false, Filtering::kNone, Format::kRgba8);
  auto blit = filter("BlitFilter4x8");
  // The source was never written, so it has no pixels to read.
  instance_->executeFilter(*blit, {{src, 0, 0, true}}, 4, 4, dst, 0, 0, 0, 0,
                           FilterEmptyParams::instance(), {});
  instance_->finalizeDrawSequence();
  try {
    instance_->waitForTarget(dst);
    FAIL();
  } catch (QuorvelException const& e) {
    EXPECT_EQ(collectMessages(e),
              "#Name:in error state#Location:void BufferProxy::wait()"
              "#Name:buffer data does not exist#Location:void JobRenderer::executeJob(RenderJob& "
              "job)");
  }
  EXPECT_THROW(instance_->getPixels(dst, {0, 1, 0, 1}), QuorvelException);
  // A wrong pixel type is a failure of the job, not of the caller.
  size_t const gray = instance_->createTarget({4, 4}, 8, false, Filtering::kNone, Format::kRgb8);
  instance_->executeFilter(*blit, {{dst, 0, 0, true}}, 4, 4, gray, 0, 0, 0, 0,
                           FilterEmptyParams::instance(), {});
  EXPECT_THROW(instance_->waitForTarget(gray), QuorvelException);
}

class OverridingBlit : public SoftwareFilter {
 public:
  explicit OverridingBlit(Filter const& f) : SoftwareFilter(f) {}
  void apply(std::vector<std::shared_ptr<Buffer2D>> const&, std::vector<std::vector<int>> const&,
             std::vector<std::shared_ptr<Buffer2D>> const& outputs,
             std::vector<std::vector<int>> const&, SingleFilterParameters const&) override {
    Buffer2DVector<PixelRgb8>::cast(outputs[0])->clear({42, 42, 42});
  }
};

TEST(BackendFactory, CallerFactoryOverridesBuiltinNamesOnly) {
  SoftwareFilterFactory mine;
  mine.registerFactory<OverridingBlit>("BlitFilter3x8");
  SoftwareRenderContext context(4, 4, 1);
  SoftwareRenderBackend backend(mine, RenderBackend::ImageFormatType::kRgb8, 1000);
  auto instance = backend.createInstance(context);
  Filter overridden = pointFilter("BlitFilter3x8"), builtin = pointFilter("BlitFilter4x8");
  overridden.instantiate(instance);
  builtin.instantiate(instance);
  size_t const t = instance->createTarget({2, 1}, 24, false, Filtering::kNone, Format::kRgb8);
  instance->setTile(0, std::vector<unsigned char>(6, 1), {2, 1, 3}, 0);
  instance->drawTiles(t, overridden, {0, 2, 0, 1}, {0, 2, 0, 1}, {2, 1}, {{0, 0}}, {0}, {});
  instance->finalizeDrawSequence();
  EXPECT_EQ(instance->getPixels(t, {0, 2, 0, 1}), std::vector<unsigned char>(6, 42));
}

}  // namespace
}  // namespace quorvel
