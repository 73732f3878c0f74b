#pragma once
// Lookup-table display filters: linear-light to sRGB encoding and black point / white point
// / gamma mappings, for 3 x int16 and 4 x uint8 input pixels.
//
// Every filter of the family maps each colour channel through one table of output values.
// Tables depend only on the filter parameters (or on the description's bit depth), so each
// filter instance keeps a cache from a parameter key to its table and builds a table once
// per distinct key. Several workers may call apply() on one instance at the same time: the
// cache is guarded by a mutex, and entries are never removed, so a reference handed out by
// getLut() stays valid for the life of the instance.

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "quorvel/buffers/buffer2d.hpp"
#include "quorvel/export.hpp"
#include "quorvel/filters/filter.hpp"
#include "quorvel/filters/filter_parameters.hpp"
#include "quorvel/filters/software_filter.hpp"

namespace quorvel {

/// Black point / white point / gamma table of 2^bits entries (bits <= 24). Black and white
/// are clamped to the top level; levels below min(black, white) give 0, levels from white
/// upward 255, and the levels between follow a gamma curve with a linear toe (gamma > 1) or
/// a pure power curve. Rounds half away from zero.
QUORVEL_API std::vector<uint8_t> makeGammaLut(size_t bits, double gamma, size_t black,
                                              size_t white);

/// The exact sRGB encode table of 2^bits entries (bits <= 24), scaled to 255 and floored:
/// at 8 bits 0 -> 0, 1 -> 12 and 255 -> 254.
QUORVEL_API std::vector<uint8_t> makeSrgbLut(size_t bits);

/// 8-bit sRGB-encoded levels decoded to a linear scale on which white is 3500 (256 entries).
QUORVEL_API std::vector<int16_t> makeSrgbToLinear3500();

/// The table of the linear-to-sRGB filters at the given input bit depth: the exact 8-bit
/// table at 8 bits, the gamma 2.4 curve otherwise. Fails with "unsupported bit depth for
/// SoftwareFilterLinearTo8bitSRGB" above 16 bits.
QUORVEL_API std::vector<uint8_t> makeLinearToSrgbLut(size_t bitDepthIn);

/// Base of the lookup-table filters: input pixels of InputChannels x InputChannel, output
/// pixels of OutputChannels x OutputChannel, tables cached under a Key derived from the
/// parameters. Only 3 x int16 -> 4 x uint8 and 4 x uint8 -> 4 x uint8 are instantiated.
template <class InputChannel, size_t InputChannels, class OutputChannel, size_t OutputChannels,
          class Key>
class QUORVEL_API SoftwareFilterLut : public SoftwareFilter {
 public:
  using OutputPixelType = OutputChannel;
  using Lut = std::vector<OutputPixelType>;
  using InputPixel = std::array<InputChannel, InputChannels>;
  using OutputPixel = std::array<OutputChannel, OutputChannels>;

  /// Copies the description; fails with "filter is instantiated with a PixelType that does
  /// not accommodate the required bitsPerPixel" when the pixel types cannot hold the
  /// description's bit depth or bits per pixel.
  explicit SoftwareFilterLut(Filter const& description);

  /// Maps every pixel of outputRects[0] from the pixel at the same place of inputRects[0]
  /// through the table of `params`. Thread-safe: several jobs may run on one instance.
  void apply(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
             std::vector<std::vector<int>> const& inputRects,
             std::vector<std::shared_ptr<Buffer2D>> const& outputs,
             std::vector<std::vector<int>> const& outputRects,
             SingleFilterParameters const& params) override;

  /// Builds a fresh table (at least one entry) for `params`. Must not touch the cache.
  virtual Lut computeLut(SingleFilterParameters const& params) const = 0;

  /// The cache key of `params`: ComparableSingleFilterParameters<Key>::key(). A failed
  /// reference cast throws std::bad_cast.
  virtual Key lutKey(SingleFilterParameters const& params) const;

  /// The cached table of `params`, computed and inserted on first use. The reference stays
  /// valid for the life of the filter. Parameters of the wrong class fail with "Error: bad
  /// cast, provided filter parameters are expected to be of type
  /// ComparableSingleFilterParameters" (the bad cast nested) and leave the cache unchanged.
  /// Thread-safe.
  Lut const& getLut(SingleFilterParameters const& params);

  /// Number of cached tables. Thread-safe.
  size_t cachedLutCount() const;

 protected:
  /// Tables by key; entries are only ever added, so references into it stay valid.
  std::map<Key, Lut> lutCache;

 private:
  /// A cached table and the form the row kernels read: 256 entries already clamped for
  /// 8-bit input, or the usable entries plus padding for the 4-byte gathers of 16-bit input.
  struct Tables {
    Lut const* lut;
    std::vector<uint8_t> const* kernelTable;
  };
  Tables getTables(SingleFilterParameters const& params);

  mutable std::mutex lutMutex_;
  /// Kernel forms of the tables in lutCache, under the same keys and the same lock.
  std::map<Key, std::vector<uint8_t>> kernelTables_;
};

/// "FilterLinear8ToSRGB8" (4 x uint8) and "FilterLinear16ToSRGB8" (3 x int16): sRGB encode
/// at the description's bitDepthIn. Takes no parameters; keyed by bitDepthIn as uint8_t.
template <class InputChannel, size_t InputChannels, class OutputChannel, size_t OutputChannels>
class QUORVEL_API SoftwareFilterLinearTo8bitSRGB
    : public SoftwareFilterLut<InputChannel, InputChannels, OutputChannel, OutputChannels,
                               uint8_t> {
  using Base =
      SoftwareFilterLut<InputChannel, InputChannels, OutputChannel, OutputChannels, uint8_t>;

 public:
  explicit SoftwareFilterLinearTo8bitSRGB(Filter const& description) : Base(description) {}
  /// makeLinearToSrgbLut(bitDepthIn); `params` is ignored.
  typename Base::Lut computeLut(SingleFilterParameters const& params) const override;
  /// bitDepthIn truncated to 8 bits; `params` is ignored.
  uint8_t lutKey(SingleFilterParameters const& params) const override;
};

/// "FilterLinear16TosRGB8": makeGammaLut(bitDepthIn, gamma, blackPoint, whitePoint) from
/// FilterLinear16TosRGB8Params.
template <class InputChannel, size_t InputChannels, class OutputChannel, size_t OutputChannels>
class QUORVEL_API SoftwareFilterLinear16TosRGB8
    : public SoftwareFilterLut<InputChannel, InputChannels, OutputChannel, OutputChannels,
                               std::string> {
  using Base =
      SoftwareFilterLut<InputChannel, InputChannels, OutputChannel, OutputChannels, std::string>;

 public:
  explicit SoftwareFilterLinear16TosRGB8(Filter const& description) : Base(description) {}
  /// Fails with "Filter parameters cast failed" for another parameter class.
  typename Base::Lut computeLut(SingleFilterParameters const& params) const override;
};

/// "FilterBlackWhiteGamma8": 8-bit sRGB input decoded to the 12-bit linear scale (white at
/// 3500), then mapped by makeGammaLut(12, ...) from FilterBlackWhiteGamma8Params.
class QUORVEL_API SoftwareFilterBlackWhiteGamma8
    : public SoftwareFilterLut<uint8_t, 4, uint8_t, 4, std::string> {
  using Base = SoftwareFilterLut<uint8_t, 4, uint8_t, 4, std::string>;

 public:
  explicit SoftwareFilterBlackWhiteGamma8(Filter const& description) : Base(description) {}
  /// Fails with "Filter parameters cast failed" for another parameter class.
  Lut computeLut(SingleFilterParameters const& params) const override;
};

extern template class SoftwareFilterLut<uint8_t, 4, uint8_t, 4, uint8_t>;
extern template class SoftwareFilterLut<int16_t, 3, uint8_t, 4, uint8_t>;
extern template class SoftwareFilterLut<int16_t, 3, uint8_t, 4, std::string>;
extern template class SoftwareFilterLut<uint8_t, 4, uint8_t, 4, std::string>;
extern template class SoftwareFilterLinearTo8bitSRGB<uint8_t, 4, uint8_t, 4>;
extern template class SoftwareFilterLinearTo8bitSRGB<int16_t, 3, uint8_t, 4>;
extern template class SoftwareFilterLinear16TosRGB8<int16_t, 3, uint8_t, 4>;

}  // namespace quorvel
