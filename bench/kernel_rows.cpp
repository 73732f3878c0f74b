// Single-threaded kernel rows: every registered filter's `apply` on warm buffers at 256^2,
// 1024^2 and 4096^2 output pixels, next to memcpy of the same bytes, the plain scalar form of
// the same kernel (where the library keeps one) and the closest OpenCV routine.

#include "kernel_rows.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "fixtures.hpp"
#include "kernels/display/lut_rows.hpp"
#include "kernels/display/matrix_rows.hpp"
#include "kernels/display/sharpness_rows.hpp"
#include "quorvel/render.hpp"

namespace quorvel::bench {
namespace {

template <class P>
using BufferPtr = std::shared_ptr<Buffer2DVector<P>>;

/// The samples of a buffer as a flat channel array.
template <class P>
auto* samplesOf(Buffer2DVector<P>& buffer) {
  return reinterpret_cast<typename PixelTraits<P>::Channel*>(buffer.data());
}

/// An OpenCV header over a buffer's storage (no copy): rows x cols of `type`.
template <class P>
cv::Mat matOf(Buffer2DVector<P>& buffer, int type) {
  return cv::Mat(static_cast<int>(buffer.height()), static_cast<int>(buffer.width()), type,
                 static_cast<void*>(buffer.data()));
}

template <class F>
Op applyOp(std::shared_ptr<F> filter, Call call) {
  return [filter, call] { call.run(*filter); };
}

/// Calls `row(in, out)` for each of `rows` rows of packed pixels (`inStep`, `outStep` samples
/// apart): the scalar row functions run over the same rows the kernel walks.
template <class In, class Out, class RowFn>
Op rowsOp(In const* in, size_t inStep, Out* out, size_t outStep, size_t rows, RowFn row) {
  return [=] {
    for (size_t y = 0; y < rows; ++y) row(in + y * inStep, out + y * outStep);
  };
}

// ---------------------------------------------------------------------------------------
// Reconstruction: wavelet, YCoCg, channel conversions, blits, masks
// ---------------------------------------------------------------------------------------

/// One level of the inverse wavelet: bands of n/2 + 2 samples along the filtered direction
/// (the high band's leading coefficient and the right neighbour included) make n outputs.
KernelCase wavelet(size_t n, bool vertical) {
  size_t const bands = n / 2 + 2;
  size_t const w = vertical ? n : bands, h = vertical ? bands : n;
  auto low = makeBuffer<int16_t>(w, h), high = makeBuffer<int16_t>(w, h);
  fillRandom(*low, -128, 128, 1);
  fillRandom(*high, -128, 128, 2);
  auto out = makeBuffer<int16_t>(n, n);
  Call call{{low, high}, {fullRect(w, h)}, {out}, {fullRect(n, n)}, nullptr};

  KernelCase c;
  c.pixels = double(n * n);
  c.inputBytes = double(2 * w * h * sizeof(int16_t));
  c.outputBytes = double(n * n * sizeof(int16_t));
  if (vertical) {
    auto f = std::make_shared<SoftwareFilterFirIV53LeGall16<int16_t, int16_t>>(
        pointFilter("FilterFirIV53LeGall16", 2, 16, 16, 1, 1, 16));
    c.kernel = applyOp(f, call);
    c.scalar = [call] {
      reference::firIV53LeGall16(call.inputs, call.inputRects, call.outputs, call.outputRects);
    };
  } else {
    auto f = std::make_shared<SoftwareFilterFirIH53LeGall16<int16_t, int16_t>>(
        pointFilter("FilterFirIH53LeGall16", 2, 16, 16, 1, 1, 16));
    c.kernel = applyOp(f, call);
    c.scalar = [call] {
      reference::firIH53LeGall16(call.inputs, call.inputRects, call.outputs, call.outputRects);
    };
  }
  return c;
}

/// A per-pixel kernel from In pixels to Out pixels on n x n images, with its scalar row
/// function (samples in, samples out, pixel count).
template <class F, class In, class Out, class RowFn>
KernelCase pointKernel(char const* name, size_t n, int64_t lo, int64_t hi, RowFn scalarRow,
                       std::shared_ptr<SingleFilterParameters const> params = nullptr,
                       Filter const* description = nullptr) {
  auto in = makeBuffer<In>(n, n);
  fillRandom(*in, lo, hi, 3);
  auto out = makeBuffer<Out>(n, n);
  auto f = std::make_shared<F>(description ? *description : pointFilter(name));
  KernelCase c;
  c.pixels = double(n * n);
  c.inputBytes = double(n * n * sizeof(In));
  c.outputBytes = double(n * n * sizeof(Out));
  c.kernel = applyOp(f, Call{{in}, {fullRect(n, n)}, {out}, {fullRect(n, n)}, params});
  if constexpr (!std::is_same_v<RowFn, std::nullptr_t>) {
    constexpr size_t kIn = PixelTraits<In>::kChannels, kOut = PixelTraits<Out>::kChannels;
    c.scalar = rowsOp(samplesOf(*in), n * kIn, samplesOf(*out), n * kOut, n,
                      [scalarRow, n](auto const* src, auto* dst) { scalarRow(src, dst, n); });
  }
  return c;
}

KernelCase yCoCgToRgb16(size_t n) {
  return pointKernel<SoftwareFilterYCoCgToRGB<int16_t, int16_t>, PixelRgbS16, PixelRgbS16>(
      "FilterYCoCg16ToRGB16", n, -255, 255, reference::yCoCgToRgb16);
}

KernelCase yCoCgToRgba8(size_t n) {
  return pointKernel<SoftwareFilterYCoCgToRGBA<int16_t, uint8_t>, PixelRgbS16, PixelRgba8>(
      "FilterYCoCg16ToRGBA8", n, -255, 255, reference::yCoCgToRgba8);
}

KernelCase rgbaToYCoCg(size_t n) {
  return pointKernel<SoftwareFilterRGBAToYCoCg<uint8_t, int16_t>, PixelRgba8, PixelRgbS16>(
      "FilterRGBA8ToYCoCg16", n, 0, 255, reference::rgba8ToYCoCg);
}

KernelCase rgb16ToRgba8(size_t n) {
  KernelCase c = pointKernel<SoftwareFilter3x16To4x8<int16_t, uint8_t>, PixelRgbS16, PixelRgba8>(
      "Filter3x16To4x8", n, -64, 320, reference::rgb16ToRgba8);
  // The same work in OpenCV: narrowing with saturation, then the opaque alpha channel.
  auto src = makeBuffer<PixelRgbS16>(n, n);
  fillRandom(*src, -64, 320, 4);
  auto rgb = std::make_shared<cv::Mat>(int(n), int(n), CV_8UC3);
  auto dst = std::make_shared<cv::Mat>(int(n), int(n), CV_8UC4);
  c.peerName = "convertTo 16SC3→8UC3 + cvtColor RGB2RGBA";
  c.peer = [src, rgb, dst] {
    matOf(*src, CV_16SC3).convertTo(*rgb, CV_8U);
    cv::cvtColor(*rgb, *dst, cv::COLOR_RGB2RGBA);
  };
  return c;
}

KernelCase gray16To8(size_t n) {
  KernelCase c = pointKernel<SoftwareFilter1x16To1x8<int16_t, uint8_t>, int16_t, uint8_t>(
      "Filter1x16To1x8", n, -64, 320, reference::gray16To8);
  auto src = makeBuffer<int16_t>(n, n);
  fillRandom(*src, -64, 320, 4);
  auto dst = std::make_shared<cv::Mat>(int(n), int(n), CV_8UC1);
  c.peerName = "convertTo 16S→8U";
  c.peer = [src, dst] { matOf(*src, CV_16SC1).convertTo(*dst, CV_8U); };
  return c;
}

KernelCase gray16ToRgba8(size_t n) {
  KernelCase c =
      pointKernel<SoftwareFilterSingleChannelToRGB<int16_t, uint8_t>, int16_t, PixelRgba8>(
          "Filter1x16ToRGB8", n, -64, 320, reference::gray16ToRgba8);
  auto src = makeBuffer<int16_t>(n, n);
  fillRandom(*src, -64, 320, 4);
  auto gray = std::make_shared<cv::Mat>(int(n), int(n), CV_8UC1);
  auto dst = std::make_shared<cv::Mat>(int(n), int(n), CV_8UC4);
  c.peerName = "convertTo 16S→8U + cvtColor GRAY2RGBA";
  c.peer = [src, gray, dst] {
    matOf(*src, CV_16SC1).convertTo(*gray, CV_8U);
    cv::cvtColor(*gray, *dst, cv::COLOR_GRAY2RGBA);
  };
  return c;
}

KernelCase interleave(size_t n) {
  std::array<BufferPtr<int16_t>, 3> planes;
  for (size_t i = 0; i < 3; ++i) {
    planes[i] = makeBuffer<int16_t>(n, n);
    fillRandom(*planes[i], -2048, 2047, 10 + i);
  }
  auto out = makeBuffer<PixelRgbS16>(n, n);
  auto f = std::make_shared<SoftwareInterleaveFilter<int16_t, 3>>(
      pointFilter("FilterInterleave16", 3, 16, 48, 1, 3, 16));
  KernelCase c;
  c.pixels = double(n * n);
  c.inputBytes = double(3 * n * n * sizeof(int16_t));
  c.outputBytes = double(n * n * sizeof(PixelRgbS16));
  auto const r = fullRect(n, n);
  c.kernel = applyOp(f, Call{{planes[0], planes[1], planes[2]}, {r, r, r}, {out}, {r}, nullptr});
  c.scalar = rowsOp(samplesOf(*planes[0]), n, samplesOf(*out), 3 * n, n,
                    [planes, n](int16_t const* c0, int16_t* dst) {
                      size_t const offset = static_cast<size_t>(c0 - samplesOf(*planes[0]));
                      reference::interleave3(c0, samplesOf(*planes[1]) + offset,
                                             samplesOf(*planes[2]) + offset, dst, n);
                    });
  auto dst = std::make_shared<cv::Mat>(int(n), int(n), CV_16SC3);
  c.peerName = "merge";
  c.peer = [planes, dst] {
    cv::Mat const mats[3] = {matOf(*planes[0], CV_16SC1), matOf(*planes[1], CV_16SC1),
                             matOf(*planes[2], CV_16SC1)};
    cv::merge(mats, 3, *dst);
  };
  return c;
}

KernelCase removeAlpha(size_t n) {
  KernelCase c = pointKernel<SoftwareFilterRemoveAlpha<uint8_t>, PixelRgba8, PixelRgb8>(
      "FilterRemoveAlpha8", n, 0, 255, reference::removeAlpha);
  auto src = makeBuffer<PixelRgba8>(n, n);
  fillRandom(*src, 0, 255, 4);
  auto dst = std::make_shared<cv::Mat>(int(n), int(n), CV_8UC3);
  c.peerName = "cvtColor RGBA2RGB";
  c.peer = [src, dst] { cv::cvtColor(matOf(*src, CV_8UC4), *dst, cv::COLOR_RGBA2RGB); };
  return c;
}

KernelCase truncate16(size_t n) {
  auto params = std::make_shared<FilterTruncate16Params>();
  params->bits = 3;
  params->reconstructAtMidpoint = true;
  return pointKernel<SoftwareFilterTruncate<int16_t>, int16_t, int16_t>(
      "FilterTruncate16", n, -2048, 2047,
      [](int16_t const* src, int16_t* dst, size_t count) {
        reference::truncate16(src, dst, count, 3, true);
      },
      params);
}

template <class P>
KernelCase blit(char const* name, size_t n) {
  return pointKernel<SoftwareBlitFilter<P, P>, P, P>(name, n, 0, 255, nullptr);
}

/// A mask over an 8 x 8 grid of envelopes with 4-pixel gaps: most of the region is copied,
/// one envelope row at a time.
template <class P>
KernelCase mask(char const* name, size_t n) {
  auto in = makeBuffer<P>(n, n);
  fillRandom(*in, 0, 255, 5);
  auto out = makeBuffer<P>(n, n);
  EnvelopeData data(1);
  size_t const cell = n / 8;
  for (size_t gy = 0; gy < 8; ++gy) {
    for (size_t gx = 0; gx < 8; ++gx) {
      auto const x = static_cast<uint32_t>(gx * cell), y = static_cast<uint32_t>(gy * cell);
      auto const last = static_cast<uint32_t>(cell - 5);
      data[0].second.push_back({x, x + last, y, y + last});
    }
  }
  data[0].first = {1};
  auto envelopes = std::make_shared<DataEnvelopes>();
  envelopes->set({'m'}, data);
  auto params = std::make_shared<MaskFilterParams>();
  params->envelopes = envelopes;
  int const last = static_cast<int>(n) - 1;
  // The region {xmin, xmax, ymin, ymax} travels as the output rectangle.
  std::vector<int> const region = {0, last, 0, last};
  auto f = std::make_shared<SoftwareMaskFilter<P>>(pointFilter(name));
  KernelCase c;
  c.pixels = double(n * n);
  c.inputBytes = double(n * n * sizeof(P));
  c.outputBytes = double(n * n * sizeof(P));
  c.kernel = applyOp(f, Call{{in}, {region}, {out}, {region}, params});
  c.note = "64 envelopes, 88% of the region";
  return c;
}

// ---------------------------------------------------------------------------------------
// Display: lookup tables, colour matrix, sharpness, CLAHE
// ---------------------------------------------------------------------------------------

/// An 8-bit table applied by cv::LUT to all four channels, alpha mapped to itself.
cv::Mat rgbaLut(std::vector<uint8_t> const& table) {
  cv::Mat lut(1, 256, CV_8UC4);
  for (int i = 0; i < 256; ++i) {
    uint8_t const v = table[static_cast<size_t>(std::min<int>(i, int(table.size()) - 1))];
    lut.at<cv::Vec4b>(0, i) = cv::Vec4b(v, v, v, static_cast<uint8_t>(i));
  }
  return lut;
}

template <class F>
KernelCase lut8(char const* name, size_t n, std::vector<uint8_t> const& table,
                std::shared_ptr<SingleFilterParameters const> params) {
  auto table256 = std::make_shared<std::vector<uint8_t>>(table);
  table256->resize(256, table.back());
  KernelCase c = pointKernel<F, PixelRgba8, PixelRgba8>(
      name, n, 0, 255,
      [table256](uint8_t const* src, uint8_t* dst, size_t count) {
        lut_detail::applyLutRgba8Scalar(table256->data(), src, dst, count);
      },
      std::move(params));
  auto src = makeBuffer<PixelRgba8>(n, n);
  fillRandom(*src, 0, 255, 4);
  auto dst = std::make_shared<cv::Mat>(int(n), int(n), CV_8UC4);
  auto lut = std::make_shared<cv::Mat>(rgbaLut(*table256));
  c.peerName = "LUT 8UC4";
  c.peer = [src, dst, lut] { cv::LUT(matOf(*src, CV_8UC4), *lut, *dst); };
  return c;
}

/// 3 x int16 at 12 significant bits through a 4096-entry table; cv::LUT takes 8-bit input
/// only, so these rows have no peer.
template <class F>
KernelCase lut16(char const* name, size_t n, std::vector<uint8_t> const& table,
                 std::shared_ptr<SingleFilterParameters const> params) {
  auto padded = std::make_shared<std::vector<uint8_t>>(table);
  padded->resize(table.size() + 4, 0);
  int32_t const maxIndex = static_cast<int32_t>(table.size()) - 1;
  Filter const description = pointFilter(name, 1, 48, 32, 3, 4, 12);
  KernelCase c = pointKernel<F, PixelRgbS16, PixelRgba8>(
      name, n, 0, 4095,
      [padded, maxIndex](int16_t const* src, uint8_t* dst, size_t count) {
        lut_detail::applyLutRgbS16Scalar(padded->data(), maxIndex, src, dst, count);
      },
      std::move(params), &description);
  c.note = "12-bit input; cv::LUT is 8-bit only";
  return c;
}

std::array<int32_t, 9> const kMatrix = {1200, -100, -100, -120, 1260, -116, -60, -90, 1174};

/// The Q10 matrix as OpenCV's float matrix (rows are outputs), optionally with an identity
/// row and column for alpha.
cv::Mat cvMatrix(bool alpha) {
  int const size = alpha ? 4 : 3;
  cv::Mat m = cv::Mat::zeros(size, size, CV_32F);
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) m.at<float>(j, i) = float(kMatrix[size_t(3 * i + j)]) / 1024.f;
  }
  if (alpha) m.at<float>(3, 3) = 1.f;
  return m;
}

KernelCase matrix8(size_t n) {
  auto params = std::make_shared<Filter3x3MatrixParams>();
  params->matrix = kMatrix;
  auto const coefficients = matrix_detail::scaledCoefficients(kMatrix, params->scale);
  Filter const description = pointFilter("Filter3x3Matrix8", 1, 32, 32, 4, 4, 8);
  KernelCase c = pointKernel<SoftwareFilter3x3Matrix<uint8_t, uint8_t, 4>, PixelRgba8, PixelRgba8>(
      "Filter3x3Matrix8", n, 0, 255,
      [coefficients](uint8_t const* src, uint8_t* dst, size_t count) {
        matrix_detail::applyMatrixRgba8Scalar(coefficients.data(), src, dst, count);
      },
      params, &description);
  auto src = makeBuffer<PixelRgba8>(n, n);
  fillRandom(*src, 0, 255, 4);
  auto dst = std::make_shared<cv::Mat>(int(n), int(n), CV_8UC4);
  auto m = std::make_shared<cv::Mat>(cvMatrix(true));
  c.peerName = "transform 8UC4 4x4";
  c.peer = [src, dst, m] { cv::transform(matOf(*src, CV_8UC4), *dst, *m); };
  return c;
}

KernelCase matrix16(size_t n) {
  auto params = std::make_shared<Filter3x3MatrixParams>();
  params->matrix = kMatrix;
  auto const coefficients = matrix_detail::scaledCoefficients(kMatrix, params->scale);
  Filter const description = pointFilter("Filter3x3Matrix16", 1, 48, 48, 3, 3, 16);
  KernelCase c =
      pointKernel<SoftwareFilter3x3Matrix<int16_t, int16_t, 3>, PixelRgbS16, PixelRgbS16>(
          "Filter3x3Matrix16", n, 0, 4095,
          [coefficients](int16_t const* src, int16_t* dst, size_t count) {
            matrix_detail::applyMatrixRgbS16Scalar(coefficients.data(), src, dst, count);
          },
          params, &description);
  auto src = makeBuffer<PixelRgbS16>(n, n);
  fillRandom(*src, 0, 4095, 4);
  auto dst = std::make_shared<cv::Mat>(int(n), int(n), CV_16SC3);
  auto m = std::make_shared<cv::Mat>(cvMatrix(false));
  c.peerName = "transform 16SC3 3x3";
  c.peer = [src, dst, m] { cv::transform(matOf(*src, CV_16SC3), *dst, *m); };
  return c;
}

constexpr double kGain = 0.75;

/// The 5 x 5 blur of the 8-bit filter as an OpenCV kernel: centre 44, the four axis
/// neighbours 15, the four diagonal neighbours 5, the four axis taps at distance 2 one, the
/// rest 0, over 128.
cv::Mat sharpness8Kernel() {
  cv::Mat k = cv::Mat::zeros(5, 5, CV_32F);
  k.at<float>(2, 2) = 44.f;
  for (int d : {-1, 1}) {
    k.at<float>(2, 2 + d) = k.at<float>(2 + d, 2) = 15.f;
    k.at<float>(2 + d, 2 + d) = k.at<float>(2 + d, 2 - d) = 5.f;
    k.at<float>(2, 2 + 2 * d) = k.at<float>(2 + 2 * d, 2) = 1.f;
  }
  return k / 128.f;
}

KernelCase sharpness8(size_t n) {
  auto in = makeBuffer<PixelRgba8>(n + 4, n + 4);
  fillRandom(*in, 0, 255, 6);
  auto out = makeBuffer<PixelRgba8>(n, n);
  auto params = std::make_shared<FilterSharpness8Params>();
  params->gain = kGain;
  auto f = std::make_shared<SoftwareFilterSharpness<uint8_t, 4>>(pointFilter("FilterSharpness8"));
  KernelCase c;
  c.pixels = double(n * n);
  c.inputBytes = double((n + 4) * (n + 4) * sizeof(PixelRgba8));
  c.outputBytes = double(n * n * sizeof(PixelRgba8));
  c.kernel = applyOp(f, Call{{in}, {fullRect(n + 4, n + 4)}, {out}, {fullRect(n, n)}, params});
  int32_t const s = sharpness_detail::strength(kGain, 0);
  c.scalar = [in, out, n, s] {
    size_t const inRow = (n + 4) * 4, outRow = n * 4;
    uint8_t const* first = samplesOf(*in) + 2 * 4;  // centre sample of the first output
    uint8_t const* rows[5];
    for (int r = 0; r < 5; ++r) rows[r] = first + size_t(r) * inRow;
    uint8_t* dst = samplesOf(*out);
    for (size_t j = 0; j < n; ++j, dst += outRow) {
      sharpness_detail::sharpenRow8Scalar(rows, dst, n * 4, 4, s);
      for (auto& row : rows) row += inRow;
    }
  };
  // The unsharp mask as OpenCV spells it: blur with the same 5 x 5 weights, then
  // (1 + g) * image - g * blur. The ROI reads its border from the surrounding pixels.
  auto blur = std::make_shared<cv::Mat>(int(n), int(n), CV_8UC4);
  auto dst = std::make_shared<cv::Mat>(int(n), int(n), CV_8UC4);
  auto k = std::make_shared<cv::Mat>(sharpness8Kernel());
  c.peerName = "filter2D 5x5 + addWeighted";
  c.peer = [in, blur, dst, k, n] {
    cv::Mat const centre = matOf(*in, CV_8UC4)(cv::Rect(2, 2, int(n), int(n)));
    cv::filter2D(centre, *blur, -1, *k);
    cv::addWeighted(centre, 1.0 + kGain, *blur, -kGain, 0.0, *dst);
  };
  return c;
}

cv::Mat sharpness16Taps() {
  cv::Mat taps = (cv::Mat_<float>(5, 1) << 1.f, 13.f, 36.f, 13.f, 1.f);
  return taps / 64.f;
}

/// Horizontal pass: (n + 4) x n image to n x n blur sums.
KernelCase sharpnessH16(size_t n) {
  auto in = makeBuffer<PixelRgbS16>(n + 4, n);
  fillRandom(*in, 0, 1023, 7);
  auto out = makeBuffer<PixelRgb16>(n, n);
  auto f = std::make_shared<SoftwareFilterSharpnessH16<3>>(pointFilter("FilterSharpnessH16"));
  KernelCase c;
  c.pixels = double(n * n);
  c.inputBytes = double((n + 4) * n * sizeof(PixelRgbS16));
  c.outputBytes = double(n * n * sizeof(PixelRgb16));
  c.kernel = applyOp(f, Call{{in}, {fullRect(n + 4, n)}, {out}, {fullRect(n, n)}, nullptr});
  c.scalar = rowsOp(samplesOf(*in) + 2 * 3, (n + 4) * 3, samplesOf(*out), n * 3, n,
                    [n](int16_t const* src, uint16_t* dst) {
                      sharpness_detail::blurRowH16Scalar(src, dst, n * 3, 3);
                    });
  auto dst = std::make_shared<cv::Mat>(int(n), int(n), CV_16SC3);
  auto taps = std::make_shared<cv::Mat>(sharpness16Taps());
  auto one = std::make_shared<cv::Mat>(cv::Mat::ones(1, 1, CV_32F));
  c.peerName = "sepFilter2D 1x5";
  c.peer = [in, dst, taps, one, n] {
    cv::Mat const centre = matOf(*in, CV_16SC3)(cv::Rect(2, 0, int(n), int(n)));
    cv::sepFilter2D(centre, *dst, CV_16S, *taps, *one);
  };
  return c;
}

/// Vertical pass: n x (n + 4) image and blur sums to n x n sharpened pixels.
KernelCase sharpnessV16(size_t n) {
  auto image = makeBuffer<PixelRgbS16>(n, n + 4);
  fillRandom(*image, 0, 1023, 8);
  auto blur = makeBuffer<PixelRgb16>(n, n + 4);
  fillRandom(*blur, 0, 65472, 9);
  auto out = makeBuffer<PixelRgbS16>(n, n);
  auto params = std::make_shared<FilterSharpness16Params>();
  params->gain = kGain;
  auto f = std::make_shared<SoftwareFilterSharpnessV16<3>>(pointFilter("FilterSharpnessV16", 2));
  KernelCase c;
  c.pixels = double(n * n);
  c.inputBytes = double(n * (n + 4) * (sizeof(PixelRgbS16) + sizeof(PixelRgb16)));
  c.outputBytes = double(n * n * sizeof(PixelRgbS16));
  auto const r = fullRect(n, n + 4);
  c.kernel = applyOp(f, Call{{image, blur}, {r, r}, {out}, {fullRect(n, n)}, params});
  int32_t const s = sharpness_detail::strength(kGain, 0);
  c.scalar = [image, blur, out, n, s] {
    size_t const row = n * 3;
    int16_t const* centre = samplesOf(*image) + 2 * row;
    uint16_t const* rows[5];
    for (int k = 0; k < 5; ++k) rows[k] = samplesOf(*blur) + size_t(k) * row;
    int16_t* dst = samplesOf(*out);
    for (size_t j = 0; j < n; ++j, centre += row, dst += row) {
      sharpness_detail::sharpenRowV16Scalar(rows, centre, dst, row, s);
      for (auto& p : rows) p += row;
    }
  };
  auto blurred = std::make_shared<cv::Mat>(int(n), int(n), CV_16SC3);
  auto dst = std::make_shared<cv::Mat>(int(n), int(n), CV_16SC3);
  auto taps = std::make_shared<cv::Mat>(sharpness16Taps());
  auto one = std::make_shared<cv::Mat>(cv::Mat::ones(1, 1, CV_32F));
  c.peerName = "sepFilter2D 5x1 + addWeighted";
  c.peer = [image, blurred, dst, taps, one, n] {
    cv::Mat const centre = matOf(*image, CV_16SC3)(cv::Rect(0, 2, int(n), int(n)));
    cv::sepFilter2D(centre, *blurred, CV_16S, *one, *taps);
    cv::addWeighted(centre, 1.0 + kGain, *blurred, -kGain, 0.0, *dst);
  };
  return c;
}

/// Both 16-bit passes, (n + 4)^2 image to n x n, against one separable 5 x 5 OpenCV filter.
KernelCase sharpnessPair16(size_t n) {
  auto image = makeBuffer<PixelRgbS16>(n + 4, n + 4);
  fillRandom(*image, 0, 1023, 10);
  auto blur = makeBuffer<PixelRgb16>(n, n + 4);
  auto out = makeBuffer<PixelRgbS16>(n, n);
  auto params = std::make_shared<FilterSharpness16Params>();
  params->gain = kGain;
  auto h = std::make_shared<SoftwareFilterSharpnessH16<3>>(pointFilter("FilterSharpnessH16"));
  auto v = std::make_shared<SoftwareFilterSharpnessV16<3>>(pointFilter("FilterSharpnessV16", 2));
  Call const horizontal{{image}, {fullRect(n + 4, n + 4)}, {blur}, {fullRect(n, n + 4)}, nullptr};
  // The vertical pass reads the unfiltered centre two columns in, the blur from its origin.
  int const w = static_cast<int>(n), hgt = static_cast<int>(n + 4);
  Call const vertical{
      {image, blur}, {{2, 0, w, hgt}, {0, 0, w, hgt}}, {out}, {fullRect(n, n)}, params};
  KernelCase c;
  c.pixels = double(n * n);
  c.inputBytes = double((n + 4) * (n + 4) * sizeof(PixelRgbS16));
  c.outputBytes = double(n * n * sizeof(PixelRgbS16));
  c.kernel = [h, v, horizontal, vertical] {
    horizontal.run(*h);
    vertical.run(*v);
  };
  int32_t const s = sharpness_detail::strength(kGain, 0);
  c.scalar = [image, blur, out, n, s] {
    size_t const imageRow = (n + 4) * 3, row = n * 3;
    for (size_t j = 0; j < n + 4; ++j) {
      sharpness_detail::blurRowH16Scalar(samplesOf(*image) + j * imageRow + 2 * 3,
                                         samplesOf(*blur) + j * row, row, 3);
    }
    int16_t const* centre = samplesOf(*image) + 2 * imageRow + 2 * 3;
    uint16_t const* rows[5];
    for (int k = 0; k < 5; ++k) rows[k] = samplesOf(*blur) + size_t(k) * row;
    int16_t* dst = samplesOf(*out);
    for (size_t j = 0; j < n; ++j, centre += imageRow, dst += row) {
      sharpness_detail::sharpenRowV16Scalar(rows, centre, dst, row, s);
      for (auto& p : rows) p += row;
    }
  };
  auto blurred = std::make_shared<cv::Mat>(int(n), int(n), CV_16SC3);
  auto dst = std::make_shared<cv::Mat>(int(n), int(n), CV_16SC3);
  auto taps = std::make_shared<cv::Mat>(sharpness16Taps());
  c.peerName = "sepFilter2D 5x5 + addWeighted";
  c.peer = [image, blurred, dst, taps, n] {
    cv::Mat const centre = matOf(*image, CV_16SC3)(cv::Rect(2, 2, int(n), int(n)));
    cv::sepFilter2D(centre, *blurred, CV_16S, *taps, *taps);
    cv::addWeighted(centre, 1.0 + kGain, *blurred, -kGain, 0.0, *dst);
  };
  c.note = "H16 then V16";
  return c;
}

/// CLAHE of the first channel (grey levels 0..255) with 40 x 40 tiles; OpenCV equalises an
/// 8-bit single-channel image of the same size with the same tile grid.
KernelCase clahe(size_t n) {
  auto in = makeBuffer<PixelRgbS16>(n, n);
  fillRandom(*in, 0, 255, 11);
  auto out = makeBuffer<PixelRgbS16>(n, n);
  auto params = std::make_shared<FilterClaheParams>();
  params->clipLimit = 2.0;
  auto f = std::make_shared<SoftwareFilterCLAHE>(pointFilter("FilterCLAHE", 1, 48, 48, 3, 3, 16));
  KernelCase c;
  c.pixels = double(n * n);
  c.inputBytes = double(n * n * sizeof(PixelRgbS16));
  c.outputBytes = double(n * n * sizeof(PixelRgbS16));
  c.kernel = applyOp(f, Call{{in}, {fullRect(n, n)}, {out}, {fullRect(n, n)}, params});
  auto gray = std::make_shared<cv::Mat>(int(n), int(n), CV_8UC1);
  cv::randu(*gray, 0, 256);
  auto dst = std::make_shared<cv::Mat>(int(n), int(n), CV_8UC1);
  int const tiles = static_cast<int>((n + 39) / 40);
  auto equaliser = cv::createCLAHE(2.0, cv::Size(tiles, tiles));
  c.peerName = "createCLAHE 8UC1";
  c.peer = [gray, dst, equaliser] { equaliser->apply(*gray, *dst); };
  c.note = "in place on channel 0, then copied out; no scalar form";
  return c;
}

}  // namespace

void registerKernelRows(Registry& registry) {
  struct Kernel {
    char const* name;
    KernelCase (*make)(size_t);
  };
  static Kernel const kernels[] = {
      {"FilterFirIV53LeGall16", [](size_t n) { return wavelet(n, true); }},
      {"FilterFirIH53LeGall16", [](size_t n) { return wavelet(n, false); }},
      {"FilterYCoCg16ToRGB16", yCoCgToRgb16},
      {"FilterYCoCg16ToRGBA8", yCoCgToRgba8},
      {"FilterRGBA8ToYCoCg16", rgbaToYCoCg},
      {"Filter3x16To4x8", rgb16ToRgba8},
      {"Filter1x16To1x8", gray16To8},
      {"Filter1x16ToRGB8", gray16ToRgba8},
      {"FilterInterleave16", interleave},
      {"FilterRemoveAlpha8", removeAlpha},
      {"FilterTruncate16", truncate16},
      {"BlitFilter1x16", [](size_t n) { return blit<int16_t>("BlitFilter1x16", n); }},
      {"BlitFilter3x16", [](size_t n) { return blit<PixelRgbS16>("BlitFilter3x16", n); }},
      {"BlitFilter3x8", [](size_t n) { return blit<PixelRgb8>("BlitFilter3x8", n); }},
      {"BlitFilter4x8", [](size_t n) { return blit<PixelRgba8>("BlitFilter4x8", n); }},
      {"MaskFilter3x8", [](size_t n) { return mask<PixelRgb8>("MaskFilter3x8", n); }},
      {"MaskFilter4x8", [](size_t n) { return mask<PixelRgba8>("MaskFilter4x8", n); }},
      {"MaskFilter3x16", [](size_t n) { return mask<PixelRgbS16>("MaskFilter3x16", n); }},
      {"FilterLinear8ToSRGB8",
       [](size_t n) {
         return lut8<SoftwareFilterLinearTo8bitSRGB<uint8_t, 4, uint8_t, 4>>(
             "FilterLinear8ToSRGB8", n, makeLinearToSrgbLut(8), nullptr);
       }},
      {"FilterBlackWhiteGamma8",
       [](size_t n) {
         auto params = std::make_shared<FilterBlackWhiteGamma8Params>();
         params->gamma = 2.2, params->blackPoint = 100, params->whitePoint = 3500;
         return lut8<SoftwareFilterBlackWhiteGamma8>("FilterBlackWhiteGamma8", n,
                                                     makeGammaLut(8, 2.2, 7, 218), params);
       }},
      {"FilterLinear16ToSRGB8",
       [](size_t n) {
         return lut16<SoftwareFilterLinearTo8bitSRGB<int16_t, 3, uint8_t, 4>>(
             "FilterLinear16ToSRGB8", n, makeLinearToSrgbLut(12), nullptr);
       }},
      {"FilterLinear16TosRGB8",
       [](size_t n) {
         auto params = std::make_shared<FilterLinear16TosRGB8Params>();
         params->gamma = 2.2, params->blackPoint = 64, params->whitePoint = 3800;
         return lut16<SoftwareFilterLinear16TosRGB8<int16_t, 3, uint8_t, 4>>(
             "FilterLinear16TosRGB8", n, makeGammaLut(12, 2.2, 64, 3800), params);
       }},
      {"Filter3x3Matrix8", matrix8},
      {"Filter3x3Matrix16", matrix16},
      {"FilterSharpness8", sharpness8},
      {"FilterSharpnessH16", sharpnessH16},
      {"FilterSharpnessV16", sharpnessV16},
      {"FilterSharpnessH16+V16", sharpnessPair16},
      {"FilterCLAHE", clahe},
  };
  for (Kernel const& k : kernels) {
    for (size_t n : {size_t{256}, size_t{1024}, size_t{4096}}) {
      registry.addKernel(k.name, sizeText(n, n), [k, n] { return k.make(n); });
    }
  }
}

}  // namespace quorvel::bench
