#include "quorvel/filters/filter.hpp"

#include <gtest/gtest.h>

#include "kernels/builtin_filters.hpp"
#include "quorvel/filters/filter_parameters.hpp"
#include "quorvel/filters/software_filter.hpp"
#include "quorvel/host/render_backend.hpp"
#include "quorvel/kernels/registry.hpp"
#include "support/test_util.hpp"

namespace quorvel {
namespace {

using testing::failureOf;
using testing::tagged;
using Range = std::vector<size_t>;

constexpr char kLongCtor[] =
    "Filter::Filter(std::string const& name, size_t invalidLeft,size_t invalidRight,size_t "
    "invalidTop, size_t invalidBottom, size_t inputPosX0,size_t inputPosXStride, size_t "
    "inputPosY0, size_t inputPosYStride,size_t scaleXNum, size_t scaleXDen, size_t scaleYNum, "
    "size_t scaleYDen,size_t numTexturesIn, size_t bitsPerPixelIn, size_t "
    "bitsPerPixelOut,size_t componentsIn, size_t componentsOut, size_t alignXIn,size_t "
    "alignXOut,size_t alignYIn, size_t alignYOut,std::vector<bool> signedIn,bool "
    "signedOut,size_t bitDepthIn, RenderBackend::ImageFiltering filtering) ";

// A description with x-axis geometry under test and a neutral y axis.
Filter xFilter(size_t x0, size_t stride, size_t num, size_t den, size_t alignIn,
               std::vector<bool> signedIn = {false}) {
  return Filter("F", 0, 0, 0, 0, x0, stride, 0, 1, num, den, 1, 1, 1, 32, 32, 4, 4, alignIn, 1, 1,
                1, std::move(signedIn), false, 8, RenderBackend::ImageFiltering::kLinear);
}

TEST(Filter, PointFiltersKeepRangesAndUpscalingRangesRoundOutward) {
  Filter point = pointFilter("P");
  EXPECT_FALSE(point.changesGeometry());
  Range const r = {3, 17, 5, 9};
  EXPECT_EQ(point.inputRange(r), r);
  EXPECT_EQ(point.outputRange(r), r);
  Filter f("Up", 0, 0, 0, 0, 0, 1, 0, 1, 2, 1, 2, 1, 1, 32, 32, 4, 4, 1, 1, 1, 1, {false}, false, 8,
           RenderBackend::ImageFiltering::kLinear);
  EXPECT_TRUE(f.changesGeometry());
  EXPECT_EQ(f.inputRange({10, 19, 10, 19}), (Range{5, 10, 5, 10}));
  EXPECT_EQ(f.outputRange({5, 10, 5, 10}), (Range{10, 20, 10, 20}));
}

TEST(Filter, MarginsAlignmentAndGridSnapping) {
  // 2-pixel borders, input grid of stride 2 from column 2, output aligned to 4.
  Filter f("M", 2, 2, 2, 2, 2, 2, 2, 2, 1, 1, 1, 1, 1, 32, 32, 4, 4, 2, 4, 2, 4, {false}, false, 8,
           RenderBackend::ImageFiltering::kLinear);
  EXPECT_EQ(f.inputStepX(), 2u);
  EXPECT_EQ(f.inputRange({7, 10, 7, 10}), (Range{4, 13, 4, 13}));
  EXPECT_EQ(f.outputRange({3, 20, 3, 20}), (Range{8, 15, 8, 15}));
  EXPECT_EQ(failureOf([&] {
              f.inputRange({1, 10, 5, 6});
            }),
            tagged("Input out of bounds",
                   "std::vector<size_t> Filter::inputRange(std::vector<size_t> const& "
                   "outputRange) const"));
  EXPECT_EQ(failureOf([&] {
              f.outputRange({1, 10, 5, 6});
            }),
            tagged("Input out of bounds",
                   "std::vector<size_t> Filter::outputRange(std::vector<size_t> const& "
                   "inputRange) const"));
}

TEST(Filter, ConstructorChecksGridScaleAndSignedness) {
  EXPECT_EQ(xFilter(2, 2, 1, 1, 4).inputStepX(), 4u);
  EXPECT_NE(failureOf([] { xFilter(1, 2, 1, 1, 4); }).find("input alignment not compatibe"),
            std::string::npos);
  std::string const shortText = failureOf([] { xFilter(0, 1, 3, 2, 1); });
  EXPECT_EQ(shortText.rfind("#Name:error x stride times x scale factor is not integer#Location:"
                            "Filter::Filter(std::string const& name, size_t invalidLeft, size_t",
                            0),
            0u)
      << shortText;
  EXPECT_NO_THROW(xFilter(0, 2, 3, 2, 1));
  EXPECT_EQ(failureOf([] {
              xFilter(0, 1, 1, 1, 1, {false, true});
            }),
            tagged("signed vector size does not match number of input textures", kLongCtor));
  EXPECT_EQ(failureOf([] {
              Filter("Y", 0, 0, 0, 0, 0, 1, 0, 1, 1, 1, 3, 2, 1, 32, 32, 4, 4, 1, 1, 1, 1, {false},
                     false, 8, RenderBackend::ImageFiltering::kLinear);
            }),
            tagged("error y stride times y scale factor is not integer", kLongCtor));
  // Zero denominators and strides are refused instead of dividing by zero.
  EXPECT_NE(failureOf([] { xFilter(0, 1, 1, 0, 1); }), "no exception");
  EXPECT_NE(failureOf([] { xFilter(0, 0, 1, 1, 1); }), "no exception");
}

TEST(Filter, UninstantiatedFilterRefusesExecutionAndParameters) {
  Filter f = pointFilter("P");
  EXPECT_EQ(failureOf([&] {
              f.execute({}, 1, 1, 0, {0, 0, 0, 0}, FilterEmptyParams::instance(), {});
            }),
            tagged("filter has not been instantiated in a RenderBackend",
                   "void Filter::execute(std::vector<FilterSource> const& sources, size_t "
                   "inputW, size_t inputH, size_t destination, std::vector<size_t> const& clip, "
                   "std::vector<size_t> offset) const"));
  EXPECT_EQ(failureOf([&] { f.getParametersObject(); }),
            tagged("Filter does not support parameters",
                   "std::shared_ptr<SingleFilterParameters> Filter::getParametersObject ()"));
  f.setParametersFactory([] { return std::make_shared<FilterClaheParams>(); });
  EXPECT_NO_THROW(f.getParametersObject()->as<FilterClaheParams>());
}

TEST(SoftwareFilter, GetValidRectsClipsOutputAndMovesInput) {
  std::vector<int> in = {0, 0, 10, 10}, out = {-2, -2, 10, 10};
  SoftwareFilter::getValidRects(in, {0, 0, 20, 20}, out, {0, 0, 5, 5});
  EXPECT_EQ(out, (std::vector<int>{0, 0, 5, 5}));
  EXPECT_EQ(in, (std::vector<int>{2, 2, 5, 5}));

  std::vector<int> empty, out2 = {1, 1, 2, 2};
  SoftwareFilter::getValidRects(empty, {0, 0, 7, 9}, out2, {0, 0, 5, 5});
  EXPECT_EQ(empty, (std::vector<int>{0, 0, 2, 2}));

  std::vector<int> in3 = {0, 0, 4, 4}, out3 = {5, 0, 4, 4};
  EXPECT_EQ(failureOf([&] {
              SoftwareFilter::getValidRects(in3, {0, 0, 9, 9}, out3, {0, 0, 5, 5});
            }),
            tagged("output rectangle does not intersect output buffer",
                   "void SoftwareFilter::getValidRects(vector<int>& inputRect, const vector<int>& "
                   "inputBufferRect,vector<int>& outputRect, const vector<int>& "
                   "outputBufferRect)"));
  EXPECT_EQ(in3, (std::vector<int>{0, 0, 4, 4}));
  EXPECT_EQ(out3, (std::vector<int>{5, 0, 4, 4}));
  // Edges near the 32-bit limit do not wrap around onto the buffer.
  std::vector<int> r;
  EXPECT_FALSE(SoftwareFilter::intersect({INT32_MAX - 1, 0, 10, 10}, {0, 0, 5, 5}, r));
}

TEST(FilterParameters, CastsKeysAndLookups) {
  EXPECT_NO_THROW(FilterEmptyParams::instance().as<FilterEmptyParams>());
  EXPECT_EQ(failureOf([] { FilterEmptyParams::instance().as<FilterClaheParams>(); }),
            tagged("Filter parameters cast failed", "T& SingleFilterParameters::as<T>()"));

  ProcessingParameters p;
  auto first = std::make_unique<FilterClaheParams>();
  first->clipLimit = 1;
  p.setParameters("FilterCLAHE", 3, std::move(first));
  auto second = std::make_unique<FilterClaheParams>();
  second->clipLimit = 2;
  p.setParameters("FilterCLAHE", 3, std::move(second));
  p.setParameters("FilterCLAHE", 10, std::make_unique<FilterEmptyParams>());
  p.setParameters("FilterCLAHE", 2, std::make_unique<FilterEmptyParams>());
  EXPECT_EQ(p.getParameters("FilterCLAHE", 3).as<FilterClaheParams>().clipLimit, 2.0);
  EXPECT_EQ(&p.getParameters("FilterCLAHE_#3"), &p.getParameters("FilterCLAHE", 3));
  EXPECT_EQ(p.keys(),
            (std::vector<std::string>{"FilterCLAHE_#10", "FilterCLAHE_#2", "FilterCLAHE_#3"}));
  EXPECT_EQ(&p.findParameters("FilterCLAHE", 4), &FilterEmptyParams::instance());
  EXPECT_EQ(failureOf([&] { p.getParameters("FilterCLAHE", 4); }),
            tagged("filtername or filterInstance is not correct",
                   "SingleFilterParameters& ProcessingParameters::getParameters(std::string const& "
                   "filtername, std::string const& filterInstanceId)"));

  FilterLinear16TosRGB8Params a, b;
  b.gamma = 2.2;
  EXPECT_NE(a.key(), b.key());
  b.gamma = a.gamma;
  b.whitePoint = 4095;
  EXPECT_NE(a.key(), b.key());
  auto clone = a.clone();
  EXPECT_EQ(clone->as<FilterLinear16TosRGB8Params>().key(), a.key());
}

class NamedKernel : public SoftwareFilter {
 public:
  explicit NamedKernel(Filter const& f) : SoftwareFilter(f) {}
  void apply(std::vector<std::shared_ptr<Buffer2D>> const&, std::vector<std::vector<int>> const&,
             std::vector<std::shared_ptr<Buffer2D>> const&, std::vector<std::vector<int>> const&,
             SingleFilterParameters const&) override {}
};

TEST(GenericMultiFactory, RegistersInOrderReplacesAndFailsExactly) {
  SoftwareFilterFactory factory;
  factory.registerFactory<NamedKernel>("FilterCLAHE");
  factory.registerFactory<NamedKernel>("Other");
  Filter description = pointFilter("FilterCLAHE");
  auto made = factory.get("FilterCLAHE").create(description);
  EXPECT_EQ(made->name(), "FilterCLAHE");
  EXPECT_EQ(factory.names(), (std::vector<std::string>{"FilterCLAHE", "Other"}));
  try {
    factory.get("filterclahe");
    FAIL();
  } catch (std::runtime_error const& e) {
    EXPECT_STREQ(e.what(), "Invalid factory");
  }
}

TEST(BuiltinRegistry, HoldsTheTwentyEightNamesInOrderAndEachCreatesItsKernel) {
  SoftwareFilterFactory factory;
  registerBuiltinFilters(factory);
  std::vector<std::string> const expected = {
      "FilterFirIH53LeGall16", "FilterFirIV53LeGall16",  "BlitFilter1x16",
      "BlitFilter3x16",        "BlitFilter3x8",          "BlitFilter4x8",
      "Filter1x16ToRGB8",      "FilterInterleave16",     "FilterRGBA8ToYCoCg16",
      "FilterYCoCg16ToRGBA8",  "FilterYCoCg16ToRGB16",   "Filter3x3Matrix8",
      "Filter3x3Matrix16",     "Filter3x16To4x8",        "Filter1x16To1x8",
      "FilterCLAHE",           "FilterSharpness8",       "FilterSharpnessH16",
      "FilterSharpnessV16",    "FilterLinear8ToSRGB8",   "FilterLinear16ToSRGB8",
      "MaskFilter3x8",         "MaskFilter4x8",          "MaskFilter3x16",
      "FilterLinear16TosRGB8", "FilterBlackWhiteGamma8", "FilterTruncate16",
      "FilterRemoveAlpha8"};
  EXPECT_EQ(factory.names(), expected);
  for (auto const& name : expected) {
    Filter description = pointFilter(name);
    auto kernel = factory.get(name).create(description);
    ASSERT_NE(kernel, nullptr) << name;
    EXPECT_EQ(kernel->name(), name);
  }
}

TEST(BuiltinRegistry, TableDescriptionsAgreeAndNameExactlyTheThreeMaskFilters) {
  std::vector<std::string> masks;
  for (BuiltinFilter const& f : builtinFilters()) {
    ASSERT_FALSE(f.inputs.empty()) << f.name;
    ASSERT_NE(f.output, nullptr) << f.name;
    // A description's bit count is that of one pixel of the first source and of the target.
    EXPECT_EQ(f.bitsIn % f.componentsIn, 0u) << f.name;
    EXPECT_EQ(f.bitsOut % f.componentsOut, 0u) << f.name;
    if (isMaskFilter(f.name)) masks.push_back(f.name);
  }
  EXPECT_EQ(masks, (std::vector<std::string>{"MaskFilter3x8", "MaskFilter4x8", "MaskFilter3x16"}));
  EXPECT_FALSE(isMaskFilter("MaskFilter"));
  EXPECT_FALSE(isMaskFilter("maskfilter4x8"));
}

}  // namespace
}  // namespace quorvel
