#include "quorvel/kernels/display/lut.hpp"

#include <algorithm>
#include <climits>
#include <cmath>
#include <exception>
#include <typeinfo>
#include <utility>

#include "filters/kernel_frame.hpp"
#include "kernels/display/lut_rows.hpp"

namespace quorvel {
namespace {

constexpr char kPixelTypeTooSmall[] =
    "filter is instantiated with a PixelType that does not accommodate the required "
    "bitsPerPixel";
constexpr char kUnsupportedBitDepth[] = "unsupported bit depth for SoftwareFilterLinearTo8bitSRGB";
constexpr char kBadCast[] =
    "Error: bad cast, provided filter parameters are expected to be of type "
    "ComparableSingleFilterParameters";
constexpr char kGetLutLocation[] =
    "std::vector<OutputPixelType> const& SoftwareFilterLut::getLut(SingleFilterParameters const& "
    "params)";

// Levels above this make the 2^bits table sizes unreasonable (and the shift undefined).
constexpr size_t kMaxTableBits = 24;

// The table entry of a double, as the tables have always been stored: truncation to a
// 32-bit integer where NaN and out-of-range values give INT_MIN (the x86 "integer
// indefinite"), then the low byte. Callers clamp to [0, 255] first, so only NaN reaches
// the indefinite case; it is stored as 0.
uint8_t tableByte(double v) {
  if (!(v > -2147483649.0 && v < 2147483648.0)) return static_cast<uint8_t>(INT_MIN & 0xFF);
  return static_cast<uint8_t>(static_cast<int64_t>(v) & 0xFF);
}

// std::clamp that lets NaN through, as a compare-based clamp does.
double clampLevel(double v) { return v < 0.0 ? 0.0 : (255.0 < v ? 255.0 : v); }

}  // namespace

std::vector<uint8_t> makeGammaLut(size_t bits, double gamma, size_t black, size_t white) {
  bits = std::min(bits, kMaxTableBits);
  size_t const size = size_t{1} << bits;
  size_t const top = size - 1;
  black = std::min(black, top);
  white = std::min(white, top);
  std::vector<uint8_t> lut(size, 0);
  size_t const lo = std::min(black, white);
  double const loLevel = static_cast<double>(lo);
  double const range = static_cast<double>(white - lo);

  // Toe of the curve: a line of `slope` up to x0 that meets the power curve tangentially.
  double a = 0.0, slope = 0.0, x0 = 0.0;
  if (gamma > 1.0) {
    a = 0.055;
    double const t = std::pow((gamma * 0.055) / ((gamma - 1) * 1.055), gamma);
    slope = 0.055 / (t * (gamma - 1));
    x0 = 0.055 / ((gamma - 1) * slope);
  }
  // The knee is an absolute level, not offset by lo: with a black point the toe is shorter
  // than the curve's own, or absent. Kept as the tables have always been built.
  double const kneeLevel = std::round(x0 * range);
  size_t const knee = kneeLevel >= 0.0 ? static_cast<size_t>(kneeLevel) : 0;

  // Linear toe [lo, knee).
  for (size_t i = lo; i < knee && i < size; ++i) {
    double const v = std::round(((static_cast<double>(i) - loLevel) / range) * slope * 255.0);
    lut[i] = tableByte(clampLevel(v));
  }
  // Power curve [knee, white). When knee < lo this also rewrites levels below lo from a
  // negative base: NaN from pow is stored as 0, negative results clamp to 0, and an even
  // integer exponent mirrors the curve. Kept as the tables have always been built.
  double const exponent = 1 / gamma;
  for (size_t i = knee; i < white; ++i) {
    double const x = (static_cast<double>(i) - loLevel) / range;
    double const v = std::round((std::pow(x, exponent) * (1 + a) - a) * 255.0);
    lut[i] = tableByte(clampLevel(v));
  }
  // Saturated [white, size).
  std::fill(lut.begin() + static_cast<std::ptrdiff_t>(white), lut.end(), uint8_t{255});
  return lut;
}

std::vector<uint8_t> makeSrgbLut(size_t bits) {
  bits = std::min(bits, kMaxTableBits);
  size_t const size = size_t{1} << bits;
  std::vector<uint8_t> lut(size);
  double const top = static_cast<double>(size - 1);
  for (size_t i = 0; i < size; ++i) {
    double const x = static_cast<double>(i) / top;
    double const y = x < 0.0031308 ? x * 12.92 : std::pow(x, 0.4166666666666667) * 1.055 - 0.055;
    // Floored without clamp: 1.055 - 0.055 is just below 1, so white maps to 254.
    lut[i] = tableByte(std::floor(y * 255.0));
  }
  return lut;
}

std::vector<int16_t> makeSrgbToLinear3500() {
  std::vector<int16_t> linear(256);
  for (int i = 0; i < 256; ++i) {
    // The level is divided in single precision, then widened.
    double const x = static_cast<double>(static_cast<float>(i) / 255.0f);
    // The power branch starts at 10 (not at the standard's threshold), and white lands
    // at 3500 of the 12-bit scale.
    double v = i < 10 ? (x / 12.92) * 3500 + 0.5 : std::pow((x + 0.055) / 1.055, 2.4) * 3500 + 0.5;
    v = std::clamp(v, 0.0, 3500.0);
    linear[static_cast<size_t>(i)] = static_cast<int16_t>(v);
  }
  return linear;
}

std::vector<uint8_t> makeLinearToSrgbLut(size_t bitDepthIn) {
  if (bitDepthIn > 16) throw QuorvelException(kUnsupportedBitDepth);
  if (bitDepthIn == 8) return makeSrgbLut(8);
  return makeGammaLut(bitDepthIn, 2.4, 0, (size_t{1} << bitDepthIn) - 1);
}

// ================================================================================
// SoftwareFilterLut
// ================================================================================

template <class IC, size_t IN, class OC, size_t ON, class Key>
SoftwareFilterLut<IC, IN, OC, ON, Key>::SoftwareFilterLut(Filter const& description)
    : SoftwareFilter(description) {
  // Integer divisions: a remainder of bits per pixel is ignored on purpose.
  constexpr size_t kInBits = 8 * sizeof(IC);
  constexpr size_t kOutBits = 8 * sizeof(OC);
  if (bitDepthIn() > kInBits || bitsPerPixelIn() / IN > kInBits ||
      bitsPerPixelOut() / ON > kOutBits) {
    throw QuorvelException(kPixelTypeTooSmall);
  }
}

template <class IC, size_t IN, class OC, size_t ON, class Key>
Key SoftwareFilterLut<IC, IN, OC, ON, Key>::lutKey(SingleFilterParameters const& params) const {
  return dynamic_cast<ComparableSingleFilterParameters<Key> const&>(params).key();
}

template <class IC, size_t IN, class OC, size_t ON, class Key>
typename SoftwareFilterLut<IC, IN, OC, ON, Key>::Tables
SoftwareFilterLut<IC, IN, OC, ON, Key>::getTables(SingleFilterParameters const& params) {
  Key key;
  try {
    key = lutKey(params);
  } catch (std::bad_cast const&) {
    std::throw_with_nested(QuorvelException(kBadCast, kGetLutLocation));
  }
  {
    std::lock_guard<std::mutex> lock(lutMutex_);
    auto const it = lutCache.find(key);
    if (it != lutCache.end()) return {&it->second, &kernelTables_.at(key)};
  }

  // Built outside the lock: another worker may build the same table meanwhile, and the
  // first one inserted wins.
  Lut lut = computeLut(params);
  if (lut.empty()) lut.push_back(0);  // a row kernel needs at least one entry
  std::vector<uint8_t> kernelTable;
  if constexpr (std::is_same_v<IC, uint8_t>) {
    // Every 8-bit input level, clamped to the last entry.
    size_t const last = std::min<size_t>(lut.size() - 1, 255);
    kernelTable.resize(256);
    for (size_t c = 0; c < 256; ++c) kernelTable[c] = lut[std::min(c, last)];
  } else {
    // The reachable entries, then padding for 4-byte reads at the last index.
    size_t const count = std::min<size_t>(lut.size(), 32768);
    kernelTable.assign(lut.begin(), lut.begin() + static_cast<std::ptrdiff_t>(count));
    kernelTable.resize(count + 3, 0);
  }

  std::lock_guard<std::mutex> lock(lutMutex_);
  auto const inserted = lutCache.emplace(key, std::move(lut));
  if (inserted.second) {
    try {
      kernelTables_.emplace(key, std::move(kernelTable));
    } catch (...) {
      lutCache.erase(inserted.first);  // a failure leaves the cache as it was
      throw;
    }
  }
  return {&inserted.first->second, &kernelTables_.at(key)};
}

template <class IC, size_t IN, class OC, size_t ON, class Key>
typename SoftwareFilterLut<IC, IN, OC, ON, Key>::Lut const&
SoftwareFilterLut<IC, IN, OC, ON, Key>::getLut(SingleFilterParameters const& params) {
  return *getTables(params).lut;
}

template <class IC, size_t IN, class OC, size_t ON, class Key>
size_t SoftwareFilterLut<IC, IN, OC, ON, Key>::cachedLutCount() const {
  std::lock_guard<std::mutex> lock(lutMutex_);
  return lutCache.size();
}

template <class IC, size_t IN, class OC, size_t ON, class Key>
void SoftwareFilterLut<IC, IN, OC, ON, Key>::apply(
    std::vector<std::shared_ptr<Buffer2D>> const& inputs,
    std::vector<std::vector<int>> const& inputRects,
    std::vector<std::shared_ptr<Buffer2D>> const& outputs,
    std::vector<std::vector<int>> const& outputRects, SingleFilterParameters const& params) {
  static_assert(sizeof(InputPixel) == sizeof(IC) * IN && sizeof(OutputPixel) == 4 * sizeof(OC),
                "pixels are packed channel arrays");
  auto& source = kernel::typed<InputPixel>(inputs, 0);
  auto& target = kernel::typed<OutputPixel>(outputs, 0);
  kernel::Span const span = kernel::validSpan(kernel::rectAt(inputRects, 0), source,
                                              kernel::rectAt(outputRects, 0), target);
  Tables const tables = getTables(params);
  if (span.empty()) return;

  auto const sourceWidth = static_cast<int64_t>(source.width());
  auto const targetWidth = static_cast<int64_t>(target.width());
  InputPixel const* in = source.data() + span.inY * sourceWidth + span.inX;
  OutputPixel* out = target.data() + span.outY * targetWidth + span.outX;
  auto const width = static_cast<size_t>(span.width);
  uint8_t const* table = tables.kernelTable->data();
  for (int64_t row = 0; row < span.height; ++row, in += sourceWidth, out += targetWidth) {
    if constexpr (std::is_same_v<IC, uint8_t>) {
      lut_detail::applyLutRgba8(table, in->data(), out->data(), width);
    } else {
      auto const maxIndex = static_cast<int32_t>(tables.kernelTable->size() - 4);
      lut_detail::applyLutRgbS16(table, maxIndex, in->data(), out->data(), width);
    }
  }
}

// ================================================================================
// Members of the family
// ================================================================================

template <class IC, size_t IN, class OC, size_t ON>
typename SoftwareFilterLinearTo8bitSRGB<IC, IN, OC, ON>::Base::Lut
SoftwareFilterLinearTo8bitSRGB<IC, IN, OC, ON>::computeLut(SingleFilterParameters const&) const {
  return makeLinearToSrgbLut(this->bitDepthIn());
}

template <class IC, size_t IN, class OC, size_t ON>
uint8_t SoftwareFilterLinearTo8bitSRGB<IC, IN, OC, ON>::lutKey(
    SingleFilterParameters const&) const {
  return static_cast<uint8_t>(this->bitDepthIn());
}

template <class IC, size_t IN, class OC, size_t ON>
typename SoftwareFilterLinear16TosRGB8<IC, IN, OC, ON>::Base::Lut
SoftwareFilterLinear16TosRGB8<IC, IN, OC, ON>::computeLut(
    SingleFilterParameters const& params) const {
  auto const& p = params.as<FilterLinear16TosRGB8Params>();
  return makeGammaLut(this->bitDepthIn(), p.gamma, p.blackPoint, p.whitePoint);
}

SoftwareFilterBlackWhiteGamma8::Lut SoftwareFilterBlackWhiteGamma8::computeLut(
    SingleFilterParameters const& params) const {
  auto const& p = params.as<FilterBlackWhiteGamma8Params>();
  std::vector<int16_t> const linear = makeSrgbToLinear3500();
  std::vector<uint8_t> const levels = makeGammaLut(12, p.gamma, p.blackPoint, p.whitePoint);
  Lut lut(256);
  for (size_t i = 0; i < 256; ++i) {
    double const index = std::clamp(linear[i] + 0.5, 0.0, 4096.0);
    // Linear levels stop at 3500, so the 4096 bound is never reached.
    lut[i] = levels[std::min<size_t>(static_cast<size_t>(index), levels.size() - 1)];
  }
  return lut;
}

template class SoftwareFilterLut<uint8_t, 4, uint8_t, 4, uint8_t>;
template class SoftwareFilterLut<int16_t, 3, uint8_t, 4, uint8_t>;
template class SoftwareFilterLut<int16_t, 3, uint8_t, 4, std::string>;
template class SoftwareFilterLut<uint8_t, 4, uint8_t, 4, std::string>;
template class SoftwareFilterLinearTo8bitSRGB<uint8_t, 4, uint8_t, 4>;
template class SoftwareFilterLinearTo8bitSRGB<int16_t, 3, uint8_t, 4>;
template class SoftwareFilterLinear16TosRGB8<int16_t, 3, uint8_t, 4>;

}  // namespace quorvel
