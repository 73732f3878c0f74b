#include "quorvel/filters/filter.hpp"

#include <cstdint>

#include "quorvel/errors/exception.hpp"
#include "quorvel/filters/filter_parameters.hpp"
#include "quorvel/host/render_backend.hpp"

namespace quorvel {
namespace {

// The x-scale check reports the shorter, older signature text; the others the full one,
// which ends with a blank. Both are part of the interface.
constexpr char kCtorShort[] =
    "Filter::Filter(std::string const& name, size_t invalidLeft, size_t invalidRight, size_t "
    "invalidTop, size_t invalidBottom, size_t inputPosX0, size_t inputPosXStride, size_t "
    "inputPosY0, size_t inputPosYStride, size_t scaleXNum, size_t scaleXDen, size_t scaleYNum, "
    "size_t scaleYDen, size_t numTexturesIn, RenderBackend::ImageFiltering filtering)";
constexpr char kCtorLong[] =
    "Filter::Filter(std::string const& name, size_t invalidLeft,size_t invalidRight,size_t "
    "invalidTop, size_t invalidBottom, size_t inputPosX0,size_t inputPosXStride, size_t "
    "inputPosY0, size_t inputPosYStride,size_t scaleXNum, size_t scaleXDen, size_t scaleYNum, "
    "size_t scaleYDen,size_t numTexturesIn, size_t bitsPerPixelIn, size_t "
    "bitsPerPixelOut,size_t componentsIn, size_t componentsOut, size_t alignXIn,size_t "
    "alignXOut,size_t alignYIn, size_t alignYOut,std::vector<bool> signedIn,bool "
    "signedOut,size_t bitDepthIn, RenderBackend::ImageFiltering filtering) ";
constexpr char kInputRange[] =
    "std::vector<size_t> Filter::inputRange(std::vector<size_t> const& outputRange) const";
constexpr char kOutputRange[] =
    "std::vector<size_t> Filter::outputRange(std::vector<size_t> const& inputRange) const";
constexpr char kExecute[] =
    "void Filter::execute(std::vector<FilterSource> const& sources, size_t inputW, size_t "
    "inputH, size_t destination, std::vector<size_t> const& clip, std::vector<size_t> offset) "
    "const";
constexpr char kParameters[] =
    "std::shared_ptr<SingleFilterParameters> Filter::getParametersObject ()";
constexpr char kOutOfBounds[] = "Input out of bounds";

bool alignmentCompatible(size_t align, size_t stride, size_t origin) {
  // A zero alignment or stride has no grid at all; refusing it here keeps every later
  // division by them well defined.
  if (align == 0 || stride == 0) return false;
  if (align <= stride) return stride % align == 0 && origin % align == 0;
  return align % stride == 0 && origin % stride == 0;
}

void requireRange(std::vector<size_t> const& range, char const* location) {
  if (range.size() != 4) throw QuorvelException(kOutOfBounds, location);
}

}  // namespace

Filter::Filter(std::string const& name, size_t invalidLeft, size_t invalidRight, size_t invalidTop,
               size_t invalidBottom, size_t inputPosX0, size_t inputPosXStride, size_t inputPosY0,
               size_t inputPosYStride, size_t scaleXNum, size_t scaleXDen, size_t scaleYNum,
               size_t scaleYDen, size_t numTexturesIn, size_t bitsPerPixelIn,
               size_t bitsPerPixelOut, size_t componentsIn, size_t componentsOut, size_t alignXIn,
               size_t alignXOut, size_t alignYIn, size_t alignYOut, std::vector<bool> signedIn,
               bool signedOut, size_t bitDepthIn, RenderBackend::ImageFiltering filtering)
    : name_(name),
      invalidLeft_(invalidLeft),
      invalidRight_(invalidRight),
      invalidTop_(invalidTop),
      invalidBottom_(invalidBottom),
      inputPosX0_(inputPosX0),
      inputPosXStride_(inputPosXStride),
      inputPosY0_(inputPosY0),
      inputPosYStride_(inputPosYStride),
      scaleXNum_(scaleXNum),
      scaleXDen_(scaleXDen),
      scaleYNum_(scaleYNum),
      scaleYDen_(scaleYDen),
      numTexturesIn_(numTexturesIn),
      bitsPerPixelIn_(bitsPerPixelIn),
      bitsPerPixelOut_(bitsPerPixelOut),
      componentsIn_(componentsIn),
      componentsOut_(componentsOut),
      alignXIn_(alignXIn),
      alignXOut_(alignXOut),
      alignYIn_(alignYIn),
      alignYOut_(alignYOut),
      signedIn_(std::move(signedIn)),
      signedOut_(signedOut),
      bitDepthIn_(bitDepthIn),
      filtering_(filtering) {
  // A zero denominator makes the scale meaningless; it is refused like a non-integer one.
  if (scaleXDen == 0 || (scaleXNum * inputPosXStride) % scaleXDen != 0) {
    throw QuorvelException("error x stride times x scale factor is not integer", kCtorShort);
  }
  if (scaleYDen == 0 || (scaleYNum * inputPosYStride) % scaleYDen != 0) {
    throw QuorvelException("error y stride times y scale factor is not integer", kCtorLong);
  }
  if (!alignmentCompatible(alignXIn, inputPosXStride, inputPosX0) ||
      !alignmentCompatible(alignYIn, inputPosYStride, inputPosY0)) {
    throw QuorvelException("input alignment not compatibe with input stride", kCtorLong);
  }
  inputStepX_ = inputPosXStride < alignXIn ? alignXIn : inputPosXStride;
  inputStepY_ = inputPosYStride < alignYIn ? alignYIn : inputPosYStride;
  if (signedIn_.size() != numTexturesIn) {
    throw QuorvelException("signed vector size does not match number of input textures", kCtorLong);
  }
}

Filter::~Filter() {
  // The handle is shared by this filter and the backend's kernel object while the filter is
  // instantiated; with no other copy left, the backend's implementation goes with us.
  if (instance_ && implementation_ && implementation_.use_count() == 2) {
    try {
      instance_->destroyFilterInstance(*this);
    } catch (...) {
      // A destructor cannot report; the instance already forgot this filter.
    }
    if (implementation_.use_count() == 1) implementation_.reset();
  }
}

std::unique_ptr<Filter> Filter::clone() const { return std::make_unique<Filter>(*this); }

bool Filter::changesGeometry() const {
  bool const neutral = invalidLeft_ == 0 && invalidRight_ == 0 && invalidTop_ == 0 &&
                       invalidBottom_ == 0 && scaleXNum_ == scaleXDen_ &&
                       scaleYNum_ == scaleYDen_ && inputPosX0_ == 0 && inputPosY0_ == 0 &&
                       inputPosXStride_ == 1 && inputPosYStride_ == 1 && alignXIn_ == 1 &&
                       alignXOut_ == 1 && alignYIn_ == 1 && alignYOut_ == 1;
  return !neutral;
}

std::vector<size_t> Filter::inputRange(std::vector<size_t> const& out) const {
  requireRange(out, kInputRange);
  if (static_cast<int64_t>(out[0]) < static_cast<int64_t>(invalidLeft_) ||
      static_cast<int64_t>(out[2]) < static_cast<int64_t>(invalidTop_) || scaleXNum_ == 0 ||
      scaleYNum_ == 0) {
    throw QuorvelException(kOutOfBounds, kInputRange);
  }
  auto axis = [](size_t lo, size_t hi, size_t marginLo, size_t marginHi, size_t num, size_t den,
                 size_t origin, size_t step, size_t& first, size_t& last) {
    first = (lo - marginLo) * den / num;
    last = ((hi + marginHi) * den + num - 1) / num;
    size_t const t = first - origin;
    first = t - t % step + origin;
    size_t const u = last - origin + step;
    last = origin - 1 + (u - u % step);
  };
  std::vector<size_t> in(4);
  axis(out[0], out[1], invalidLeft_, invalidRight_, scaleXNum_, scaleXDen_, inputPosX0_,
       inputStepX_, in[0], in[1]);
  axis(out[2], out[3], invalidTop_, invalidBottom_, scaleYNum_, scaleYDen_, inputPosY0_,
       inputStepY_, in[2], in[3]);
  return in;
}

std::vector<size_t> Filter::outputRange(std::vector<size_t> const& in) const {
  requireRange(in, kOutputRange);
  if (in[0] < inputPosX0_ || in[2] < inputPosY0_ || alignXOut_ == 0 || alignYOut_ == 0) {
    throw QuorvelException(kOutOfBounds, kOutputRange);
  }
  auto axis = [](size_t lo, size_t hi, size_t marginLo, size_t marginHi, size_t num, size_t den,
                 size_t align, size_t& first, size_t& last) {
    first = (lo * num + den - 1) / den + marginLo;
    last = hi * num / den - marginHi;
    first = (first + align - 1) / align * align;
    last = (last + 1) / align * align - 1;
  };
  std::vector<size_t> out(4);
  axis(in[0], in[1], invalidLeft_, invalidRight_, scaleXNum_, scaleXDen_, alignXOut_, out[0],
       out[1]);
  axis(in[2], in[3], invalidTop_, invalidBottom_, scaleYNum_, scaleYDen_, alignYOut_, out[2],
       out[3]);
  return out;
}

void Filter::instantiate(std::shared_ptr<RenderBackendInstance> instance) {
  instance->createFilterInstance(*this);
  instance_ = std::move(instance);
}

void Filter::execute(std::vector<FilterSource> const& sources, size_t inputW, size_t inputH,
                     size_t destination, std::vector<size_t> const& clip,
                     SingleFilterParameters const& params,
                     std::vector<size_t> const& offset) const {
  if (!instance_) {
    throw QuorvelException("filter has not been instantiated in a RenderBackend", kExecute);
  }
  size_t c[4] = {0, 0, 0, 0};
  for (size_t i = 0; i < 4 && i < clip.size(); ++i) c[i] = clip[i];
  instance_->executeFilter(*this, sources, inputW, inputH, destination, c[0], c[1], c[2], c[3],
                           params, offset);
}

std::shared_ptr<SingleFilterParameters> Filter::getParametersObject() const {
  if (!parameters_) throw QuorvelException("Filter does not support parameters", kParameters);
  return parameters_();
}

Filter pointFilter(std::string const& name, size_t numTexturesIn, size_t bitsPerPixelIn,
                   size_t bitsPerPixelOut, size_t componentsIn, size_t componentsOut,
                   size_t bitDepthIn) {
  return Filter(name, 0, 0, 0, 0, 0, 1, 0, 1, 1, 1, 1, 1, numTexturesIn, bitsPerPixelIn,
                bitsPerPixelOut, componentsIn, componentsOut, 1, 1, 1, 1,
                std::vector<bool>(numTexturesIn, false), false, bitDepthIn,
                RenderBackend::ImageFiltering::kLinear);
}

}  // namespace quorvel
