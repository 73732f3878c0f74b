// Fuzz target: envelope data, region queries, the mask kernels and maskRange.
//
// Three checks per input: DataEnvelopes::intersecting against a plain scan of the
// rectangles; a mask kernel run directly against a per-pixel model of what it copies; and
// the same envelopes stored in an instance and applied with maskRange, read back.

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "filter_catalogue.hpp"
#include "fuzz_input.hpp"
#include "quorvel/render.hpp"

namespace quorvel::fuzz {
namespace {

using Rect = DataEnvelopes::Rect;

bool overlaps(Rect const& a, Rect const& b) {
  return a.xmin <= b.xmax && b.xmin <= a.xmax && a.ymin <= b.ymax && b.ymin <= a.ymax;
}

std::vector<Rect> gathered(EnvelopeData const& data) {
  std::vector<Rect> all;
  for (auto const& group : data) {
    for (auto const& r : group.second) all.push_back({r[0], r[1], r[2], r[3]});
  }
  return all;
}

// One backend for the whole run; each input gets a fresh instance of it, so tiles, targets
// and envelopes of earlier inputs are out of reach (their keys carry the old instance id).
struct Backend {
  SoftwareRenderContext context{8, 8, 1};
  SoftwareRenderBackend backend{RenderBackend::ImageFormatType::kRgba8, 1 << 16};
  std::shared_ptr<RenderBackendInstance> anchor = backend.createInstance(context);
};

Backend& sharedBackend() {
  static Backend* backend = new Backend;  // lives until exit; workers are joined by then
  return *backend;
}

// The mask of a region over buffers of the given sizes, as the kernel defines it: every
// pixel of both buffers that an envelope meeting the region covers.
std::vector<bool> expectedMask(std::vector<Rect> const& envelopes, Rect const& region, size_t width,
                               size_t height) {
  std::vector<bool> mask(width * height, false);
  for (Rect const& e : envelopes) {
    if (!overlaps(e, region)) continue;
    for (size_t y = 0; y < height; ++y) {
      for (size_t x = 0; x < width; ++x) {
        int64_t const ix = region.xmin + static_cast<int64_t>(x);
        int64_t const iy = region.ymin + static_cast<int64_t>(y);
        if (ix >= e.xmin && ix <= e.xmax && iy >= e.ymin && iy <= e.ymax)
          mask[y * width + x] = true;
      }
    }
  }
  return mask;
}

void checkQueries(FuzzInput& in, DataEnvelopes const& envelopes, std::vector<Rect> const& all) {
  for (size_t q = in.upTo(3); q > 0; --q) {
    Rect region{in.coordinate(300), 0, in.coordinate(300), 0};
    region.xmax = region.xmin + in.upTo(200);
    region.ymax = region.ymin + in.upTo(200);
    std::vector<Rect> expected;
    for (Rect const& r : all) {
      if (overlaps(r, region)) expected.push_back(r);
    }
    std::vector<Rect> const hits = envelopes.intersecting(region);
    if (hits.size() != expected.size()) __builtin_trap();
    for (size_t i = 0; i < hits.size(); ++i) {
      if (std::memcmp(&hits[i], &expected[i], sizeof(Rect)) != 0) __builtin_trap();
    }
  }
}

// Runs MaskFilter4x8 directly: source pixels all 1, target all 2; afterwards each target
// pixel is 1 exactly where the model says.
void checkKernel(FuzzInput& in, std::shared_ptr<DataEnvelopes> const& envelopes,
                 std::vector<Rect> const& all) {
  size_t const sw = in.upTo(24), sh = in.upTo(24), tw = in.upTo(24), th = in.upTo(24);
  auto source = std::make_shared<Buffer2DVector<PixelRgba8>>(sw, sh, true);
  auto target = std::make_shared<Buffer2DVector<PixelRgba8>>(tw, th, true);
  if (sw != 0 && sh != 0) source->clear({1, 1, 1, 1});
  if (tw != 0 && th != 0) target->clear({2, 2, 2, 2});
  int const xmin = in.coordinate(100), ymin = in.coordinate(100);
  // Near the 32-bit ends the region wraps, as a host's narrowed one would.
  int const xmax = static_cast<int>(static_cast<int64_t>(xmin) + static_cast<int64_t>(in.upTo(60)));
  int const ymax = static_cast<int>(static_cast<int64_t>(ymin) + static_cast<int64_t>(in.upTo(60)));
  SoftwareMaskFilter<PixelRgba8> kernel(pointFilter("MaskFilter4x8"));
  MaskFilterParams params;
  params.envelopes = envelopes;
  std::vector<int> const region = {xmin, xmax, ymin, ymax};
  kernel.apply({source}, {region}, {target}, {region}, params);
  if (tw * th == 0 || xmax < xmin || ymax < ymin) return;  // wrapped region: no model
  std::vector<bool> const mask =
      expectedMask(all, {xmin, xmax, ymin, ymax}, std::min(sw, tw), std::min(sh, th));
  for (size_t y = 0; y < th; ++y) {
    for (size_t x = 0; x < tw; ++x) {
      bool const inside = x < std::min(sw, tw) && y < std::min(sh, th);
      uint8_t const expected = inside && mask[y * std::min(sw, tw) + x] ? 1 : 2;
      if (target->data()[y * tw + x][0] != expected) __builtin_trap();
    }
  }
}

// The instance path: store, lock, replace (possibly with refused data), then maskRange.
void checkInstance(FuzzInput& in, EnvelopeData const& data) {
  Backend& shared = sharedBackend();
  auto instance = shared.backend.createInstance(shared.context);
  std::vector<unsigned char> const id = {static_cast<unsigned char>(in.upTo(2))};
  auto const& masks = maskCatalogue();
  auto const& info = *masks[in.upTo(masks.size() - 1)];
  Filter filter = describe(info);
  filter.instantiate(instance);
  size_t const bits = info.output == kRgb8 ? 24 : info.output == kRgba8 ? 32 : 48;
  size_t const source = instance->createTarget(
      {in.upTo(20), in.upTo(20)}, bits, info.output == kRgbS16,
      RenderBackend::ImageFiltering::kLinear, RenderBackend::ImageFormatType::kRgba8);
  size_t const target = instance->createTarget(
      {in.upTo(20), in.upTo(20)}, bits, info.output == kRgbS16,
      RenderBackend::ImageFiltering::kLinear, RenderBackend::ImageFormatType::kRgba8);
  for (size_t ops = in.upTo(12); ops > 0 && !in.empty(); --ops) {
    try {
      switch (in.byte() % 8) {
        case 0:
          instance->dataEnvelopes(id, data);
          break;
        case 1:
          instance->dataEnvelopes(id, envelopeData(in, 2, 3));
          break;
        case 2:
          instance->lockDataEnvelopes(id);
          break;
        case 3:
          instance->unlockDataEnvelopes(id);
          break;
        case 4:
          if (instance->dataEnvelopesSet(id)) (void)instance->dataEnvelopes(id)->count();
          break;
        case 5:
          instance->clear(in.flag() ? source : target,
                          {in.byte(), in.byte(), in.byte(), in.byte()});
          break;
        case 6: {
          std::vector<size_t> range = in.sizes(in.byte() < 240 ? 4 : in.upTo(5), 40);
          instance->maskRange(in.flag() ? source : target, in.flag() ? target : source, filter, id,
                              range);
          break;
        }
        default: {
          instance->finalizeDrawSequence();
          auto const size = instance->targetSize(target);
          (void)instance->getPixels(target, {0, size[0], 0, size[1]});
          break;
        }
      }
    } catch (QuorvelException const& e) {
      (void)formatException(e);
    }
  }
  instance->finalizeDrawSequence();
  for (size_t t : {source, target}) {
    try {
      instance->waitForTarget(t);
    } catch (QuorvelException const&) {
      // a job on it failed (no storage, no envelopes): reported as "in error state"
    }
    instance->eraseTarget(t);
  }
  instance->unlockDataEnvelopes(id);
}

}  // namespace
}  // namespace quorvel::fuzz

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  using namespace quorvel;
  using namespace quorvel::fuzz;
  FuzzInput in(data, size);
  EnvelopeData const envelopeSet = envelopeData(in, 4, 8);
  auto envelopes = std::make_shared<DataEnvelopes>();
  bool valid = true;
  try {
    envelopes->set({7}, envelopeSet);
  } catch (QuorvelException const&) {
    valid = false;
    if (envelopes->count() != 0) __builtin_trap();  // refused data changes nothing
  }
  if (valid) {
    std::vector<Rect> const all = gathered(envelopeSet);
    if (envelopes->count() != all.size()) __builtin_trap();
    checkQueries(in, *envelopes, all);
    checkKernel(in, envelopes, all);
  }
  checkInstance(in, envelopeSet);
  return 0;
}
