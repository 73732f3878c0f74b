#pragma once
// Parameters that may change from one filter run to the next, and their per-filter classes.
// A kernel receives SingleFilterParameters const& and recovers its own type with as<T>().

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "quorvel/errors/exception.hpp"
#include "quorvel/export.hpp"

namespace quorvel {

class DataEnvelopes;

/// Base of every parameter set.
class QUORVEL_API SingleFilterParameters {
 public:
  virtual ~SingleFilterParameters() = default;
  /// A new copy of the most derived object.
  virtual std::unique_ptr<SingleFilterParameters> clone() const = 0;

  /// Checked down-cast; fails with "Filter parameters cast failed".
  template <class T>
  T& as() {
    auto* typed = dynamic_cast<T*>(this);
    if (typed == nullptr) {
      throw QuorvelException("Filter parameters cast failed", kCastLocation);
    }
    return *typed;
  }
  template <class T>
  T const& as() const {
    return const_cast<SingleFilterParameters*>(this)->as<T>();
  }

  /// Strength divider of the sharpness kernels: their strength is shifted right by it.
  int32_t level = 0;

 private:
  static constexpr char kCastLocation[] = "T& SingleFilterParameters::as<T>()";
};

/// Implements clone() for T by copy construction.
template <class T>
class QUORVEL_API CopyableSingleFilterParameters : public SingleFilterParameters {
 public:
  std::unique_ptr<SingleFilterParameters> clone() const override {
    return std::make_unique<T>(static_cast<T const&>(*this));
  }
};

/// Parameters compared by a key, so a filter can cache data derived from them (a lookup
/// table) and rebuild it only when the key changes.
template <class T>
class QUORVEL_API ComparableSingleFilterParameters : public SingleFilterParameters {
 public:
  virtual T key() const = 0;
};

/// No parameters. One shared instance stands for an absent set.
class QUORVEL_API FilterEmptyParams : public CopyableSingleFilterParameters<FilterEmptyParams> {
 public:
  /// The shared empty set passed where a job has no parameters.
  static FilterEmptyParams const& instance();
};

/// "FilterTruncate16": clear the `bits` low-order bits, optionally reconstructing at the
/// middle of the quantisation interval.
class QUORVEL_API FilterTruncate16Params
    : public CopyableSingleFilterParameters<FilterTruncate16Params> {
 public:
  size_t bits = 0;
  bool reconstructAtMidpoint = false;
};

/// Implements clone() for a comparable parameter class T with key type K.
template <class T, class K>
class QUORVEL_API CopyableComparableParameters : public ComparableSingleFilterParameters<K> {
 public:
  std::unique_ptr<SingleFilterParameters> clone() const override {
    return std::make_unique<T>(static_cast<T const&>(*this));
  }
};

/// "FilterLinear16TosRGB8": black point, white point and gamma on the input scale.
class QUORVEL_API FilterLinear16TosRGB8Params
    : public CopyableComparableParameters<FilterLinear16TosRGB8Params, std::string> {
 public:
  double gamma = 2.4;
  size_t blackPoint = 0;
  size_t whitePoint = 65535;
  /// An injective text of (gamma, blackPoint, whitePoint).
  std::string key() const override;
};

/// "FilterBlackWhiteGamma8": the same mapping on the 12-bit linear scale (0..4095).
class QUORVEL_API FilterBlackWhiteGamma8Params
    : public CopyableComparableParameters<FilterBlackWhiteGamma8Params, std::string> {
 public:
  double gamma = 2.4;
  size_t blackPoint = 0;
  size_t whitePoint = 4095;
  std::string key() const override;
};

/// "Filter3x3Matrix8" / "Filter3x3Matrix16": Q10 coefficients (entries 3i..3i+2 are input
/// channel i's contributions to outputs 0..2) and a global factor.
class QUORVEL_API Filter3x3MatrixParams
    : public CopyableSingleFilterParameters<Filter3x3MatrixParams> {
 public:
  std::array<int32_t, 9> matrix = {1024, 0, 0, 0, 1024, 0, 0, 0, 1024};
  double scale = 1.0;
};

/// "FilterCLAHE": clip limit as a multiple of the average bin count.
class QUORVEL_API FilterClaheParams : public CopyableSingleFilterParameters<FilterClaheParams> {
 public:
  double clipLimit = 2.0;
};

/// "FilterSharpness8": 0 leaves the image unchanged, 1 adds the full pixel-minus-blur.
class QUORVEL_API FilterSharpness8Params
    : public CopyableSingleFilterParameters<FilterSharpness8Params> {
 public:
  double gain = 0.0;
};

/// "FilterSharpnessV16" (the combining pass of the 16-bit pair).
class QUORVEL_API FilterSharpness16Params
    : public CopyableSingleFilterParameters<FilterSharpness16Params> {
 public:
  double gain = 0.0;
};

/// Mask filters: the envelope set whose rectangles are kept.
class QUORVEL_API MaskFilterParams : public CopyableSingleFilterParameters<MaskFilterParams> {
 public:
  std::shared_ptr<DataEnvelopes const> envelopes;
};

/// Parameters of many filter instances, keyed "<filter name>_#<instance number>".
class QUORVEL_API ProcessingParameters {
 public:
  /// Stores `parameters` under the key, replacing any earlier object.
  void setParameters(std::string const& filtername, size_t filterInstanceId,
                     std::unique_ptr<SingleFilterParameters>&& parameters);
  /// The object under the key; fails with "filtername or filterInstance is not correct".
  SingleFilterParameters& getParameters(std::string const& filtername, size_t filterInstanceId);
  SingleFilterParameters& getParameters(std::string const& key);
  /// The object under the key, or the shared empty parameters.
  SingleFilterParameters const& findParameters(std::string const& filtername,
                                               size_t filterInstanceId) const;
  /// All keys in byte-wise order.
  std::vector<std::string> keys() const;

  static std::string makeKey(std::string const& filtername, size_t filterInstanceId);

 private:
  std::map<std::string, std::unique_ptr<SingleFilterParameters>> parameters_;
};

}  // namespace quorvel
