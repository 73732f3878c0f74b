// Fuzz target: every built-in kernel's apply() on small random buffers and rectangles.
//
// A byte picks the filter; the kernel is built from the description a host would give (or
// one with a fuzzed bit depth). Sources and target are small buffers of the kernel's pixel
// types, or now and then of another type, without storage, or missing: every such call must
// either work inside the buffers or throw a library exception.

#include <memory>
#include <vector>

#include "filter_catalogue.hpp"
#include "fuzz_input.hpp"
#include "quorvel/render.hpp"

namespace quorvel::fuzz {
namespace {

constexpr size_t kMaxSide = 64;

std::shared_ptr<Buffer2D> makeBuffer(PixelKind kind, size_t width, size_t height, bool allocate) {
  switch (kind) {
#define QUORVEL_FUZZ_CASE(K, T) \
  case K:                       \
    return std::make_shared<Buffer2DVector<T>>(width, height, allocate);
    QUORVEL_FUZZ_CASE(kU8, uint8_t)
    QUORVEL_FUZZ_CASE(kS8, int8_t)
    QUORVEL_FUZZ_CASE(kU16, uint16_t)
    QUORVEL_FUZZ_CASE(kS16, int16_t)
    QUORVEL_FUZZ_CASE(kRgb8, PixelRgb8)
    QUORVEL_FUZZ_CASE(kRgba8, PixelRgba8)
    QUORVEL_FUZZ_CASE(kRgbS8, PixelRgbS8)
    QUORVEL_FUZZ_CASE(kRgbaS8, PixelRgbaS8)
    QUORVEL_FUZZ_CASE(kRgb16, PixelRgb16)
    QUORVEL_FUZZ_CASE(kRgbS16, PixelRgbS16)
#undef QUORVEL_FUZZ_CASE
  }
  return nullptr;
}

// A buffer of the expected kind (or another), filled from the input and the rest with a
// repeating pattern so that both ends of every value range occur.
std::shared_ptr<Buffer2D> fuzzBuffer(FuzzInput& in, PixelKind expected) {
  uint8_t const shape = in.byte();
  if (shape >= 252) return nullptr;
  PixelKind const kind = shape >= 236 ? static_cast<PixelKind>(shape % kPixelKinds) : expected;
  size_t const width = in.upTo(kMaxSide), height = in.upTo(kMaxSide);
  bool const allocate = in.byte() < 248;
  auto buffer = makeBuffer(kind, width, height, allocate);
  if (allocate && buffer->byteSize() != 0) {
    std::vector<unsigned char> pixels(buffer->byteSize());
    std::vector<unsigned char> const head = in.bytes(256);
    uint8_t const seed = in.byte();
    for (size_t i = 0; i < pixels.size(); ++i) {
      pixels[i] = i < head.size() ? head[i] : static_cast<unsigned char>(seed * (i + 1) ^ (i >> 3));
    }
    buffer->setPixels(pixels.data(), pixels.size(), 0);
  }
  return buffer;
}

}  // namespace
}  // namespace quorvel::fuzz

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  using namespace quorvel;
  using namespace quorvel::fuzz;
  FuzzInput in(data, size);
  auto const& filters = catalogue();
  FilterInfo const& info = filters[in.byte() % filters.size()];

  Filter description = describe(info);
  if (in.byte() >= 240) {
    description = pointFilter(info.name, info.inputs.size(), in.upTo(64), in.upTo(64),
                              info.componentsIn, info.componentsOut, in.upTo(20));
  }
  SoftwareFilterFactory factory;
  registerBuiltinFilters(factory);
  std::unique_ptr<SoftwareFilter> kernel;
  try {
    kernel = factory.get(info.name).create(description);
  } catch (QuorvelException const&) {
    return 0;  // a description the kernel refuses (pixel type too small)
  }

  // Sources (sometimes one fewer or one more than the kernel reads), target, rectangles.
  size_t sourceCount = info.inputs.size();
  if (uint8_t const s = in.byte(); s >= 248)
    sourceCount = (s & 1) ? sourceCount + 1 : sourceCount - 1;
  std::vector<std::shared_ptr<Buffer2D>> inputs, outputs;
  std::vector<std::vector<int>> inputRects, outputRects;
  for (size_t i = 0; i < sourceCount; ++i) {
    inputs.push_back(fuzzBuffer(in, i < info.inputs.size() ? info.inputs[i] : info.output));
    inputRects.push_back(in.rect(80));
  }
  outputs.push_back(fuzzBuffer(in, info.output));
  outputRects.push_back(in.rect(80));
  if (in.byte() >= 250) inputRects.clear();
  if (in.byte() >= 250) outputRects.clear();

  std::shared_ptr<DataEnvelopes> envelopes;
  if (info.params == ParamsKind::kMask && in.byte() < 240) {
    envelopes = std::make_shared<DataEnvelopes>();
    try {
      envelopes->set({1}, envelopeData(in, 3, 6));
    } catch (QuorvelException const&) {
      envelopes = std::make_shared<DataEnvelopes>();
    }
  }
  auto const params = parameters(in, info.params, envelopes);

  try {
    kernel->apply(inputs, inputRects, outputs, outputRects, *params);
  } catch (QuorvelException const& e) {
    (void)formatException(e);
  }
  return 0;
}
