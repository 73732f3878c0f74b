// Create/destroy cycles of backends and instances with everything a host can leave behind:
// targets, tiles (locked ones too), envelopes, filter instances, staging buffers, failed
// jobs and unread batches. LeakSanitizer (the ASan pass) reports anything unreachable at
// exit; under a sanitizer the test also checks that the live heap returns to where it was,
// which catches memory still reachable from some global after the last owner is gone.

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "quorvel/render.hpp"

extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace quorvel {
namespace {

using Filtering = RenderBackend::ImageFiltering;
using Format = RenderBackend::ImageFormatType;

// One host session that uses every owning path and then drops the instance mid-work.
void session(SoftwareRenderBackend& backend, SoftwareRenderContext const& context, size_t round) {
  auto instance = backend.createInstance(context);
  auto other = backend.createInstance(context);
  Filter blit = pointFilter("BlitFilter4x8");
  Filter mask = pointFilter("MaskFilter4x8");
  instance->createFilterInstance(blit);
  instance->createFilterInstance(mask);
  std::vector<unsigned char> const tile(16 * 16 * 4, 5);
  instance->setTile(1, tile, {16, 16, 4}, 0);
  instance->setTile(2, tile, {16, 16, 4}, 0);
  instance->lockTile(2);  // never unlocked
  other->setTile(1, tile, {16, 16, 4}, 0);
  instance->dataEnvelopes({1}, {{{1}, {{0, 3, 0, 3}}}});
  instance->lockDataEnvelopes({1});  // never unlocked
  auto staging = instance->concurrentStagingBuffer(9, RenderBackend::BufferType::kTile, {4, 4, 3});
  staging->setPixels(std::vector<unsigned char>(48, 1), 0);
  if (round % 2 == 0) instance->synchronizeConcurrentStagingBuffer(std::move(staging));

  size_t const target =
      instance->createTarget({32, 32}, 32, false, Filtering::kLinear, Format::kRgba8);
  size_t const unwritten =
      instance->createTarget({8, 8}, 32, false, Filtering::kLinear, Format::kRgba8);
  size_t const erased =
      instance->createTarget({8, 8}, 48, true, Filtering::kLinear, Format::kRgba8);
  instance->clear(erased, {1, 2, 3});
  instance->drawTiles(target, blit, {0, 32, 0, 32}, {0, 32, 0, 32}, {16, 16},
                      {{0, 0}, {1, 0}, {0, 1}}, {1, 2, 3}, {});
  instance->maskRange(target, target, mask, {1}, {0, 31, 0, 31});
  instance->executeFilter(blit, {{unwritten, 0, 0, true}}, 8, 8, target, 0, 0, 0, 0,
                          FilterEmptyParams::instance(), {0, 0});  // fails: no storage
  instance->eraseTarget(erased);
  instance->finalizeDrawSequence();
  if (round % 3 == 0) {
    EXPECT_THROW((void)instance->getPixels(target, {0, 32, 0, 32}), QuorvelException);
  }
  // A batch left unsent, and a filter destroyed while its jobs may still run.
  instance->clear(target, {0, 0, 0, 0});
  if (round % 2 == 1) instance->destroyFilterInstance(blit);
}

size_t liveBytes() {
  return __sanitizer_get_current_allocated_bytes != nullptr
             ? __sanitizer_get_current_allocated_bytes()
             : 0;
}

TEST(Lifecycle, BackendsAndInstancesReleaseEverythingTheyOwned) {
  auto cycle = [](size_t round) {
    SoftwareRenderContext context(16, 16, 1 + round % 2);
    auto backend = std::make_unique<SoftwareRenderBackend>(Format::kRgba8, 1 << 20);
    session(*backend, context, round);
    // A second generation on the same backend after the first one died.
    session(*backend, context, round + 1);
    backend.reset();
  };
  cycle(0);  // first use: one-time statics (the empty parameters, type names) settle
  size_t const before = liveBytes();
  for (size_t round = 1; round <= 12; ++round) cycle(round);
  size_t const after = liveBytes();
  // Without a sanitizer both are 0 and the check is void; LeakSanitizer still runs at exit
  // in the ASan pass.
  EXPECT_LE(after, before + 64 * 1024) << "live heap grew from " << before << " to " << after;
}

TEST(Lifecycle, InstanceOutlivingItsBackendStillWorksAndFreesOnExit) {
  SoftwareRenderContext context(8, 8, 1);
  std::shared_ptr<RenderBackendInstance> instance;
  {
    SoftwareRenderBackend backend(Format::kRgba8, 1 << 20);
    instance = backend.createInstance(context);
  }
  size_t const target =
      instance->createTarget({4, 4}, 8, false, Filtering::kLinear, Format::kRgba8);
  instance->clear(target, {7});
  instance->finalizeDrawSequence();
  EXPECT_EQ(instance->getPixels(target, {0, 4, 0, 4}), std::vector<unsigned char>(16, 7));
}

}  // namespace
}  // namespace quorvel
