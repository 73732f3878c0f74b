#include "pipeline.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <quorvel/render.hpp>
#include <random>

namespace quorvel::tool {
namespace {

// Random colours on a smooth ramp, with a few flat and saturated areas: every channel and
// every wavelet band carries data, and the alpha channel (not carried) is random too.
Image testImage(size_t width, size_t height, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> noise(-40, 40), any(0, 255);
  Image image;
  image.width = width;
  image.height = height;
  image.rgba.resize(width * height * 4);
  for (size_t y = 0; y < height; ++y) {
    for (size_t x = 0; x < width; ++x) {
      uint8_t* p = image.pixel(x, y);
      for (int c = 0; c < 3; ++c) {
        int const ramp = int((x * (c + 1) + y * (3 - c)) % 256);
        p[c] = static_cast<uint8_t>(
            (x / 7 + y / 5) % 5 == 0 ? (c == 1 ? 255 : 0) : std::clamp(ramp + noise(rng), 0, 255));
      }
      p[3] = static_cast<uint8_t>(any(rng));
    }
  }
  return image;
}

Image render(Image const& input, RenderOptions const& options) {
  Progress quiet(stderr, false);
  StageTimes times;
  return renderImage(input, options, quiet, times);
}

::testing::AssertionResult sameColours(Image const& expected, Image const& actual) {
  if (expected.width != actual.width || expected.height != actual.height) {
    return ::testing::AssertionFailure() << "size differs";
  }
  for (size_t y = 0; y < expected.height; ++y) {
    for (size_t x = 0; x < expected.width; ++x) {
      uint8_t const *e = expected.pixel(x, y), *a = actual.pixel(x, y);
      if (e[0] != a[0] || e[1] != a[1] || e[2] != a[2]) {
        return ::testing::AssertionFailure()
               << "first difference at (" << x << ", " << y << "): expected " << int(e[0]) << " "
               << int(e[1]) << " " << int(e[2]) << ", got " << int(a[0]) << " " << int(a[1]) << " "
               << int(a[2]);
      }
    }
  }
  return ::testing::AssertionSuccess();
}

TEST(Pipeline, RoundTripIsExactForAwkwardSizes) {
  struct Case {
    size_t w, h, tile, levels, threads;
  };
  for (Case c : {Case{1, 1, 256, 3, 2}, Case{257, 255, 256, 1, 2}, Case{257, 255, 256, 5, 3},
                 Case{45, 70, 16, 2, 1}, Case{100, 33, 32, 5, 4}, Case{64, 64, 8, 1, 2},
                 Case{9, 17, 8, 3, 2}}) {
    RenderOptions options;
    options.tile = c.tile, options.levels = c.levels, options.threads = c.threads;
    Image const input = testImage(c.w, c.h, unsigned(c.w * 31 + c.h));
    EXPECT_TRUE(sameColours(input, render(input, options)))
        << c.w << " x " << c.h << " tile " << c.tile << " levels " << c.levels;
  }
}

TEST(Pipeline, StreamsWavesWhenTheCacheHoldsFewTiles) {
  RenderOptions options;
  // One 256 x 256 tile costs 416 KiB of coefficients next to a 256 KiB staging tile, so
  // 1 MiB holds one tile per wave.
  options.tile = 256, options.levels = 3, options.threads = 1, options.cacheMb = 1;
  Image const input = testImage(600, 300, 5);
  Progress quiet(stderr, false);
  StageTimes times;
  Image const output = renderImage(input, options, quiet, times);
  EXPECT_TRUE(sameColours(input, output));
  EXPECT_EQ(times.waves, 6u);
  EXPECT_EQ(times.tiles, 6u);

  options.threads = 4;  // four staging tiles and one coefficient tile exceed 1 MiB
  EXPECT_THROW(render(input, options), UsageError);
}

TEST(Pipeline, PaddedTileRepeatsTheLastRowAndColumn) {
  Image const input = testImage(5, 3, 1);
  auto const tile = paddedTile(input, 1, 0, 4);  // columns 4 of 5, rows 0..2 of 3
  for (size_t y = 0; y < 4; ++y) {
    for (size_t x = 0; x < 4; ++x) {
      uint8_t const* expected = input.pixel(4, std::min<size_t>(y, 2));
      EXPECT_EQ(0, std::memcmp(&tile[(y * 4 + x) * 4], expected, 4)) << x << "," << y;
    }
  }
}

// --- display options against their kernels applied directly to each padded tile --------

using Rgba = Buffer2DVector<PixelRgba8>;
using Rgb16 = Buffer2DVector<PixelRgbS16>;

// Expected output: `apply` maps every padded tile (alpha 255, as the colour transform
// delivers it) to tile x tile RGBA pixels; the results are cropped and assembled.
Image expectedImage(
    Image const& input, size_t tile,
    std::function<std::shared_ptr<Rgba>(std::shared_ptr<Rgba> const&)> const& apply) {
  Image out;
  out.width = input.width, out.height = input.height;
  out.rgba.resize(input.rgba.size());
  for (size_t ty = 0; ty * tile < input.height; ++ty) {
    for (size_t tx = 0; tx * tile < input.width; ++tx) {
      auto source = std::make_shared<Rgba>(tile, tile, true);
      auto const pixels = paddedTile(input, tx, ty, tile);
      for (size_t i = 0; i < tile * tile; ++i) {
        source->data()[i] = {pixels[4 * i], pixels[4 * i + 1], pixels[4 * i + 2], 255};
      }
      auto const result = apply(source);
      for (size_t y = 0; y < tile && ty * tile + y < input.height; ++y) {
        for (size_t x = 0; x < tile && tx * tile + x < input.width; ++x) {
          std::memcpy(out.pixel(tx * tile + x, ty * tile + y), &result->data()[y * tile + x], 4);
        }
      }
    }
  }
  return out;
}

std::vector<int> whole(size_t tile) { return {0, 0, int(tile), int(tile)}; }

class DisplayOption : public ::testing::Test {
 protected:
  static constexpr size_t kTile = 48;
  DisplayOption() : input_(testImage(110, 70, 9)) {
    options_.tile = kTile, options_.levels = 2, options_.threads = 2;
  }

  void check(std::function<std::shared_ptr<Rgba>(std::shared_ptr<Rgba> const&)> const& apply) {
    Image const output = render(input_, options_);
    EXPECT_FALSE(sameColours(input_, output)) << "the option left the image unchanged";
    EXPECT_TRUE(sameColours(expectedImage(input_, kTile, apply), output));
  }

  // `filter` applied to a whole tile of `source`, into a new tile x tile RGBA tile.
  template <class F, class Source>
  static std::shared_ptr<Rgba> onTile(F& filter, std::shared_ptr<Source> const& source,
                                      SingleFilterParameters const& params) {
    auto out = std::make_shared<Rgba>(kTile, kTile, true);
    filter.apply({source}, {whole(kTile)}, {out}, {whole(kTile)}, params);
    return out;
  }

  Image input_;
  RenderOptions options_;
};

TEST_F(DisplayOption, GammaOnSrgbPixelsIsBlackWhiteGamma8) {
  options_.display.gamma = true;
  options_.display.gammaValue = 1.8;
  options_.display.black = 100, options_.display.white = 3000;
  check([](std::shared_ptr<Rgba> const& in) {
    SoftwareFilterBlackWhiteGamma8 f(pointFilter("FilterBlackWhiteGamma8"));
    FilterBlackWhiteGamma8Params p;
    p.gamma = 1.8, p.blackPoint = 100, p.whitePoint = 3000;
    return onTile(f, in, p);
  });
}

TEST_F(DisplayOption, LinearGammaIsLinear16TosRGB8OnTheRgbSamples) {
  options_.display.gamma = true;
  options_.display.gammaMode = DisplayOptions::GammaMode::kLinear16;
  options_.display.gammaValue = 2.4;
  options_.display.black = 20, options_.display.white = 230;
  check([](std::shared_ptr<Rgba> const& in) {
    // The 16-bit RGB that the YCoCg16 planes decode to is the 8-bit input, widened.
    auto rgb = std::make_shared<Rgb16>(kTile, kTile, true);
    for (size_t i = 0; i < kTile * kTile; ++i) {
      auto const& p = in->data()[i];
      rgb->data()[i] = {int16_t(p[0]), int16_t(p[1]), int16_t(p[2])};
    }
    SoftwareFilterLinear16TosRGB8<int16_t, 3, uint8_t, 4> f(
        pointFilter("FilterLinear16TosRGB8", 1, 48, 32, 3, 4, 8));
    FilterLinear16TosRGB8Params p;
    p.gamma = 2.4, p.blackPoint = 20, p.whitePoint = 230;
    return onTile(f, rgb, p);
  });
}

TEST_F(DisplayOption, MatrixIsFilter3x3Matrix8InQ10) {
  options_.display.matrix = std::array<double, 9>{0.2, 0.5, 0, 0, 1, 0.3, 0.9, -0.25, 1};
  options_.display.matrixScale = 0.75;
  EXPECT_EQ(matrixQ10(*options_.display.matrix),
            (std::array<int32_t, 9>{205, 512, 0, 0, 1024, 307, 922, -256, 1024}));
  check([](std::shared_ptr<Rgba> const& in) {
    SoftwareFilter3x3Matrix<uint8_t, uint8_t, 4> f(pointFilter("Filter3x3Matrix8"));
    Filter3x3MatrixParams p;
    p.matrix = {205, 512, 0, 0, 1024, 307, 922, -256, 1024};
    p.scale = 0.75;
    return onTile(f, in, p);
  });
}

TEST_F(DisplayOption, SharpenIsSharpness8OverRepeatedTileEdges) {
  options_.display.sharpenGain = 1.5;
  check([](std::shared_ptr<Rgba> const& in) {
    size_t const p = kTile + 4;
    auto padded = std::make_shared<Rgba>(p, p, true);
    for (size_t y = 0; y < p; ++y) {
      for (size_t x = 0; x < p; ++x) {
        size_t const sx = std::clamp<size_t>(x, 2, kTile + 1) - 2;
        size_t const sy = std::clamp<size_t>(y, 2, kTile + 1) - 2;
        padded->data()[y * p + x] = in->data()[sy * kTile + sx];
      }
    }
    SoftwareFilterSharpness<uint8_t, 4> f(pointFilter("FilterSharpness8"));
    FilterSharpness8Params params;
    params.gain = 1.5;
    auto out = std::make_shared<Rgba>(kTile, kTile, true);
    f.apply({padded}, {{0, 0, int(p), int(p)}}, {out}, {whole(kTile)}, params);
    return out;
  });
}

TEST_F(DisplayOption, ClaheEqualisesTheLumaOfEachTile) {
  options_.display.claheLimit = 3.0;
  check([](std::shared_ptr<Rgba> const& in) {
    auto ycocg = std::make_shared<Rgb16>(kTile, kTile, true);
    SoftwareFilterRGBAToYCoCg<uint8_t, int16_t> forward(pointFilter("FilterRGBA8ToYCoCg16"));
    forward.apply({in}, {whole(kTile)}, {ycocg}, {whole(kTile)}, FilterEmptyParams::instance());
    SoftwareFilterCLAHE clahe(pointFilter("FilterCLAHE"));
    FilterClaheParams p;
    p.clipLimit = 3.0;
    auto equalised = std::make_shared<Rgb16>(kTile, kTile, true);
    clahe.apply({ycocg}, {whole(kTile)}, {equalised}, {whole(kTile)}, p);
    SoftwareFilterYCoCgToRGBA<int16_t, uint8_t> back(pointFilter("FilterYCoCg16ToRGBA8"));
    return onTile(back, equalised, FilterEmptyParams::instance());
  });
}

TEST_F(DisplayOption, MaskKeepsOnlyTheRectanglesAndBlackensTheRest) {
  // Rectangles inside one tile, across a tile corner, one pixel, and one past the image.
  std::vector<MaskRect> const rects{
      {3, 10, 2, 5}, {40, 60, 30, 55}, {100, 100, 69, 69}, {105, 500, 0, 3}};
  options_.display.mask = rects;
  Image const output = render(input_, options_);
  for (size_t y = 0; y < input_.height; ++y) {
    for (size_t x = 0; x < input_.width; ++x) {
      bool inside = false;
      for (MaskRect const& r : rects) {
        inside |= x >= r.xmin && x <= r.xmax && y >= r.ymin && y <= r.ymax;
      }
      uint8_t const black[3] = {0, 0, 0};
      uint8_t const* expected = inside ? input_.pixel(x, y) : black;
      ASSERT_EQ(0, std::memcmp(output.pixel(x, y), expected, 3)) << x << "," << y;
    }
  }
}

TEST_F(DisplayOption, FiltersChainInTheDocumentedOrder) {
  // Gamma, then matrix, then sharpening, each on the previous result.
  options_.display.gamma = true;
  options_.display.gammaValue = 2.0;
  options_.display.matrix = std::array<double, 9>{0, 0, 1, 0, 1, 0, 1, 0, 0};
  options_.display.sharpenGain = 0.5;
  check([](std::shared_ptr<Rgba> const& in) {
    SoftwareFilterBlackWhiteGamma8 gamma(pointFilter("FilterBlackWhiteGamma8"));
    FilterBlackWhiteGamma8Params g;
    g.gamma = 2.0, g.blackPoint = 0, g.whitePoint = 4095;
    auto a = std::make_shared<Rgba>(kTile, kTile, true);
    gamma.apply({in}, {whole(kTile)}, {a}, {whole(kTile)}, g);
    // Swapping R and B is exact in Q10.
    size_t const p = kTile + 4;
    auto padded = std::make_shared<Rgba>(p, p, true);
    for (size_t y = 0; y < p; ++y) {
      for (size_t x = 0; x < p; ++x) {
        size_t const sx = std::clamp<size_t>(x, 2, kTile + 1) - 2;
        size_t const sy = std::clamp<size_t>(y, 2, kTile + 1) - 2;
        auto v = a->data()[sy * kTile + sx];
        padded->data()[y * p + x] = {v[2], v[1], v[0], v[3]};
      }
    }
    SoftwareFilterSharpness<uint8_t, 4> sharpen(pointFilter("FilterSharpness8"));
    FilterSharpness8Params s;
    s.gain = 0.5;
    auto out = std::make_shared<Rgba>(kTile, kTile, true);
    sharpen.apply({padded}, {{0, 0, int(p), int(p)}}, {out}, {whole(kTile)}, s);
    return out;
  });
}

}  // namespace
}  // namespace quorvel::tool
