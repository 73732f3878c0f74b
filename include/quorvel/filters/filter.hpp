#pragma once
// Backend-independent description of one image operation: its name, how output pixels map
// to input pixels, the pixel formats on both sides and an optional parameters factory.

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "quorvel/export.hpp"
#include "quorvel/host/render_types.hpp"

namespace quorvel {

class RenderBackendInstance;
class SingleFilterParameters;

class QUORVEL_API Filter {
 public:
  using ParametersFactory = std::function<std::shared_ptr<SingleFilterParameters>()>;

  /// Stores the description and checks that the sampling grid, scale and alignment agree
  /// and that `signedIn` has one entry per input texture. Zero denominators, strides and
  /// alignments are not guarded and must not be passed.
  Filter(std::string const& name, size_t invalidLeft, size_t invalidRight, size_t invalidTop,
         size_t invalidBottom, size_t inputPosX0, size_t inputPosXStride, size_t inputPosY0,
         size_t inputPosYStride, size_t scaleXNum, size_t scaleXDen, size_t scaleYNum,
         size_t scaleYDen, size_t numTexturesIn, size_t bitsPerPixelIn, size_t bitsPerPixelOut,
         size_t componentsIn, size_t componentsOut, size_t alignXIn, size_t alignXOut,
         size_t alignYIn, size_t alignYOut, std::vector<bool> signedIn, bool signedOut,
         size_t bitDepthIn, ImageFiltering filtering);
  Filter(Filter const&) = default;
  Filter& operator=(Filter const&) = default;
  /// Asks the owning instance to drop its implementation when only this filter and the
  /// backend still share the implementation handle.
  virtual ~Filter();

  /// A heap copy; the copy shares the implementation handle and the owning instance.
  virtual std::unique_ptr<Filter> clone() const;
  virtual size_t invalidLeft() const { return invalidLeft_; }
  virtual size_t invalidRight() const { return invalidRight_; }
  virtual size_t invalidTop() const { return invalidTop_; }
  virtual size_t invalidBottom() const { return invalidBottom_; }
  /// False only for a point filter (no margins, unit scale and stride, grid at 0, alignment 1).
  virtual bool changesGeometry() const;
  /// The input range {x0, x1, y0, y1} (inclusive) that the output range needs.
  virtual std::vector<size_t> inputRange(std::vector<size_t> const& outputRange) const;
  /// The output range that the input range can produce.
  virtual std::vector<size_t> outputRange(std::vector<size_t> const& inputRange) const;

  std::string const& name() const { return name_; }

  /// Creates the implementation in `instance` and keeps `instance` as the owning instance.
  void instantiate(std::shared_ptr<RenderBackendInstance> instance);
  /// The implementation handle: the filter-instance id, empty until instantiated.
  std::shared_ptr<size_t> const& implementation() const { return implementation_; }
  void setImplementation(std::shared_ptr<size_t> handle) { implementation_ = std::move(handle); }
  std::shared_ptr<RenderBackendInstance> const& owningInstance() const { return instance_; }

  /// Queues one run of the filter in the owning instance (executeFilter).
  void execute(std::vector<FilterSource> const& sources, size_t inputW, size_t inputH,
               size_t destination, std::vector<size_t> const& clip,
               SingleFilterParameters const& params, std::vector<size_t> const& offset) const;

  /// A fresh parameters object; fails with "Filter does not support parameters" when the
  /// filter has none.
  std::shared_ptr<SingleFilterParameters> getParametersObject() const;
  void setParametersFactory(ParametersFactory factory) { parameters_ = std::move(factory); }

  size_t inputPosX0() const { return inputPosX0_; }
  size_t inputPosXStride() const { return inputPosXStride_; }
  size_t inputPosY0() const { return inputPosY0_; }
  size_t inputPosYStride() const { return inputPosYStride_; }
  size_t scaleXNum() const { return scaleXNum_; }
  size_t scaleXDen() const { return scaleXDen_; }
  size_t scaleYNum() const { return scaleYNum_; }
  size_t scaleYDen() const { return scaleYDen_; }
  size_t numTexturesIn() const { return numTexturesIn_; }
  size_t bitsPerPixelIn() const { return bitsPerPixelIn_; }
  size_t bitsPerPixelOut() const { return bitsPerPixelOut_; }
  size_t componentsIn() const { return componentsIn_; }
  size_t componentsOut() const { return componentsOut_; }
  size_t alignXIn() const { return alignXIn_; }
  size_t alignXOut() const { return alignXOut_; }
  size_t alignYIn() const { return alignYIn_; }
  size_t alignYOut() const { return alignYOut_; }
  size_t inputStepX() const { return inputStepX_; }
  size_t inputStepY() const { return inputStepY_; }
  std::vector<bool> const& signedIn() const { return signedIn_; }
  bool signedOut() const { return signedOut_; }
  size_t bitDepthIn() const { return bitDepthIn_; }
  ImageFiltering filtering() const { return filtering_; }

 protected:
  /// Drops the owning instance: kernel objects copied from a description must not keep the
  /// instance that owns them alive.
  void forgetOwningInstance() { instance_.reset(); }

 private:
  ParametersFactory parameters_;
  std::string name_;
  size_t invalidLeft_, invalidRight_, invalidTop_, invalidBottom_;
  size_t inputPosX0_, inputPosXStride_, inputPosY0_, inputPosYStride_;
  size_t scaleXNum_, scaleXDen_, scaleYNum_, scaleYDen_;
  size_t numTexturesIn_, bitsPerPixelIn_, bitsPerPixelOut_, componentsIn_, componentsOut_;
  size_t alignXIn_, alignXOut_, alignYIn_, alignYOut_;
  size_t inputStepX_ = 0, inputStepY_ = 0;
  std::vector<bool> signedIn_;
  bool signedOut_;
  std::shared_ptr<size_t> implementation_;
  std::shared_ptr<RenderBackendInstance> instance_;
  size_t bitDepthIn_;
  ImageFiltering filtering_;
};

/// A filter description with every geometry field neutral (no margins, unit scale, stride
/// and alignment): the usual description of a per-pixel filter.
QUORVEL_API Filter pointFilter(std::string const& name, size_t numTexturesIn = 1,
                               size_t bitsPerPixelIn = 32, size_t bitsPerPixelOut = 32,
                               size_t componentsIn = 4, size_t componentsOut = 4,
                               size_t bitDepthIn = 8);

}  // namespace quorvel
