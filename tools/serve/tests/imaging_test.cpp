#include "imaging.hpp"

#include <gtest/gtest.h>
#include <vips/vips.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "encode.hpp"
#include "request.hpp"

namespace quorvel::serve {
namespace {

// An image whose byte for channel c of pixel (x, y) is value(x, y, c).
template <typename Value>
Pixels image(size_t width, size_t height, size_t channels, Value value) {
  Pixels pixels{width, height, channels, std::vector<uint8_t>(width * height * channels)};
  for (size_t i = 0; i < pixels.data.size(); ++i) {
    size_t const pixel = i / channels;
    pixels.data[i] = static_cast<uint8_t>(value(pixel % width, pixel / width, i % channels));
  }
  return pixels;
}

Pixels noise(size_t width, size_t height, size_t channels, unsigned seed = 1) {
  std::mt19937 random(seed);
  return image(width, height, channels, [&](size_t, size_t, size_t) { return random(); });
}

// Gentle gradients; the fourth channel is opaque.
Pixels smooth(size_t width, size_t height, size_t channels) {
  return image(width, height, channels, [&](size_t x, size_t y, size_t c) {
    return c == 3 ? 255 : x * 150 / width + y * 50 / height + c * 20;
  });
}

Pixels dropAlpha(Pixels const& rgba) {
  return image(rgba.width, rgba.height, 3, [&](size_t x, size_t y, size_t c) {
    return rgba.data[(y * rgba.width + x) * 4 + c];
  });
}

std::string shape(Pixels const& pixels) {
  return std::to_string(pixels.width) + "x" + std::to_string(pixels.height) + "x" +
         std::to_string(pixels.channels);
}

// The encoded image as libvips decodes it, through its own codec libraries.
Pixels decode(std::string const& bytes) {
  static bool const started = VIPS_INIT("imaging_test") == 0;
  EXPECT_TRUE(started);
  VipsImage* decoded = vips_image_new_from_buffer(bytes.data(), bytes.size(), "", nullptr);
  if (!decoded) {
    ADD_FAILURE() << "cannot decode: " << vips_error_buffer();
    return {};
  }
  size_t size = 0;
  auto* data = static_cast<uint8_t*>(vips_image_write_to_memory(decoded, &size));
  Pixels pixels{static_cast<size_t>(decoded->Xsize), static_cast<size_t>(decoded->Ysize),
                static_cast<size_t>(decoded->Bands), std::vector<uint8_t>(data, data + size)};
  g_free(data);
  g_object_unref(decoded);
  return pixels;
}

// Mean absolute difference over the colour channels (a grey `expected` against every channel).
double meanError(Pixels const& expected, Pixels const& actual) {
  if (actual.width != expected.width || actual.height != expected.height) return 1e9;
  size_t const colours = std::min<size_t>(actual.channels, 3),
               count = expected.width * expected.height;
  double total = 0;
  for (size_t i = 0; i < count * colours; ++i) {
    size_t const pixel = i / colours, c = expected.channels == 1 ? 0 : i % colours;
    total += std::abs(expected.data[pixel * expected.channels + c] -
                      actual.data[pixel * actual.channels + i % colours]);
  }
  return total / static_cast<double>(count * colours);
}

TEST(Encode, PngDecodesToExactlyTheInputAndLossyFormatsCloseToIt) {
  for (Format format : {Format::kPng, Format::kJpeg, Format::kWebp}) {
    bool const png = format == Format::kPng;
    for (auto [width, height] :
         {std::pair{1, 1}, {3, 257}, {257, 3}, {100, 37}, {256, 256}, {600, 500}}) {
      for (size_t channels : {1, 3, 4}) {
        // Noise for the lossless format; gentle gradients, which lossy codecs keep closely.
        Pixels const in = png ? noise(width, height, channels) : smooth(width, height, channels);
        Pixels const out = decode(encode(in, format, 90));
        // The fourth channel is left out; WebP has no grey.
        size_t const want = format == Format::kWebp || channels == 4 ? 3 : channels;
        std::string const where = std::string(extensionOf(format)) + " from " + shape(in);
        EXPECT_EQ(shape(out), shape(Pixels{in.width, in.height, want, {}})) << where;
        EXPECT_LE(meanError(in, out), png ? 0.0 : 3.0) << where;
      }
    }
  }
  Pixels const rgba = noise(45, 31, 4, 7);
  for (Format format : {Format::kJpeg, Format::kWebp}) {
    EXPECT_EQ(encode(rgba, format, 80), encode(dropAlpha(rgba), format, 80))
        << extensionOf(format) << " ignores the fourth channel";
  }
}

TEST(Encode, SettingsOfOneCallDoNotLeakIntoTheNextAndLargeOutputComesBackWhole) {
  // Each thread keeps one JPEG compressor between calls.
  Pixels const rgb = noise(64, 64, 3), grey = noise(64, 64, 1);
  std::string const high = encode(rgb, Format::kJpeg, 95);
  EXPECT_LT(encode(rgb, Format::kJpeg, 20).size(), high.size() / 2);
  EXPECT_EQ(decode(encode(grey, Format::kJpeg, 95)).channels, 1u);
  EXPECT_EQ(encode(rgb, Format::kJpeg, 95), high);
  EXPECT_LT(encode(rgb, Format::kWebp, 20).size(), encode(rgb, Format::kWebp, 95).size());
  // Output larger than the encoder's first guess comes back whole.
  Pixels const big = noise(600, 500, 3, 3);
  std::string const jpeg = encode(big, Format::kJpeg, 100);
  EXPECT_GT(jpeg.size(), big.width * big.height * 3 / 4) << "did not exercise the regrowth";
  EXPECT_EQ(shape(decode(jpeg)), shape(big));
}

TEST(Encode, ThreadsEncodingAtOnceGetTheirOwnResults) {
  std::vector<Pixels> images;
  std::vector<std::string> expected;
  for (unsigned i = 0; i < 6; ++i) {
    size_t const channels = i % 3 == 0 ? 1 : i % 3 == 1 ? 3 : 4;
    images.push_back(i % 2 ? noise(70 + i, 50, channels, i) : smooth(90, 60 + i, channels));
    expected.push_back(encode(images.back(), static_cast<Format>(i % 3), 70));
  }
  std::vector<int> mismatches(4, 0);
  std::vector<std::thread> threads;
  for (size_t t = 0; t < mismatches.size(); ++t) {
    threads.emplace_back([&, t] {
      for (size_t i = 0; i < images.size() * 10; ++i) {
        size_t const k = (i + t) % images.size();
        mismatches[t] += encode(images[k], static_cast<Format>(k % 3), 70) != expected[k];
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (size_t t = 0; t < mismatches.size(); ++t) EXPECT_EQ(mismatches[t], 0) << "thread " << t;
}

TEST(Encode, RefusalsThrowAndLeaveTheThreadUsable) {
  Pixels const good = noise(9, 9, 3);
  for (int quality : {0, 101, -5}) {
    EXPECT_THROW(encode(good, Format::kJpeg, quality), std::invalid_argument) << quality;
    EXPECT_THROW(encode(good, Format::kWebp, quality), std::invalid_argument) << quality;
  }
  EXPECT_NO_THROW(encode(good, Format::kPng, 0)) << "PNG has no quality to check";
  Pixels shortData = good;
  shortData.data.pop_back();
  size_t const huge = std::numeric_limits<size_t>::max() / 2 + 1;
  for (Pixels const& bad : {shortData, Pixels{4, 4, 2, std::vector<uint8_t>(32)},
                            Pixels{0, 4, 3, {}}, Pixels{huge, 2, 3, {}}}) {
    EXPECT_THROW(encode(bad, Format::kPng, 90), std::invalid_argument) << shape(bad);
  }
  EXPECT_THROW(encode(Pixels{16384, 1, 1, std::vector<uint8_t>(16384)}, Format::kWebp, 90),
               std::invalid_argument);
  EXPECT_THROW(encode(Pixels{65501, 1, 1, std::vector<uint8_t>(65501)}, Format::kJpeg, 90),
               std::invalid_argument);
  EXPECT_THROW(encode(good, static_cast<Format>(7), 90), std::invalid_argument);
  // libpng refuses rows over a million pixels, once the writer is set up.
  EXPECT_THROW(encode(Pixels{1000001, 1, 1, std::vector<uint8_t>(1000001)}, Format::kPng, 90),
               std::runtime_error);
  EXPECT_TRUE(decode(encode(good, Format::kPng, 90)).data == good.data);
}

// 3x2 pixels 'a' to 'f' (further channels add 100 each), read back as rows of letters, so each
// expectation below is the picture itself.
std::string rows(Pixels const& pixels) {
  std::string text;
  for (size_t i = 0; i < pixels.width * pixels.height; ++i) {
    uint8_t const* p = &pixels.data[i * pixels.channels];
    for (size_t c = 1; c < pixels.channels; ++c) {
      if (p[c] != static_cast<uint8_t>(p[0] + c * 100)) return "channels mixed up";
    }
    text += (i && i % pixels.width == 0 ? "/" : "") + std::string(1, static_cast<char>(p[0]));
  }
  return text;
}

TEST(Orient, AllEightCombinationsMoveEveryPixelRight) {
  struct Case {
    unsigned rotation;
    bool mirror;
    char const* expected;
  } const cases[] = {{0, false, "abc/def"},    {90, false, "da/eb/fc"}, {180, false, "fed/cba"},
                     {270, false, "cf/be/ad"}, {0, true, "cba/fed"},    {90, true, "fc/eb/da"},
                     {180, true, "def/abc"},   {270, true, "ad/be/cf"}};
  for (size_t channels : {1, 3, 4}) {
    Pixels const letters = image(
        3, 2, channels, [](size_t x, size_t y, size_t c) { return 'a' + y * 3 + x + c * 100; });
    for (Case const& c : cases) {
      EXPECT_EQ(rows(orient(letters, c.rotation, c.mirror)), c.expected)
          << c.rotation << (c.mirror ? " mirrored, " : ", ") << channels << " channels";
    }
    // Larger than the blocks orient copies by, with ragged edges.
    Pixels const in = noise(70, 131, channels);
    Pixels turned = in;
    for (int i = 0; i < 4; ++i) turned = orient(std::move(turned), 90, false);
    EXPECT_TRUE(turned.data == in.data && turned.width == in.width) << "turned " << shape(in);
    EXPECT_TRUE(orient(orient(in, 0, true), 0, true).data == in.data) << "mirrored " << shape(in);
    for (unsigned rotation : {45u, 91u, 360u, 450u}) {
      EXPECT_THROW(orient(in, rotation, false), std::invalid_argument) << rotation;
    }
  }
  EXPECT_THROW(orient(Pixels{3, 2, 3, std::vector<uint8_t>(5)}, 90, false), std::invalid_argument);
}

TEST(Resize, ExactlyTheRequestedSizeAndAConstantImageStaysConstant) {
  struct Case {
    size_t inWidth, inHeight, width, height;
  } const cases[] = {{257, 1, 1, 1},     {257, 3, 1, 1},    {1, 1, 300, 300},    {1000, 3, 7, 1},
                     {3, 1000, 1, 7},    {7, 5, 1000, 3},   {100, 100, 99, 101}, {10, 10, 30, 3},
                     {640, 480, 1, 479}, {3, 3, 1, 2},      {999, 1, 333, 5},    {50, 30, 17, 71},
                     {50, 30, 123, 9},   {50, 30, 500, 300}};
  uint8_t const colour[] = {37, 200, 90, 255};
  for (Case const& c : cases) {
    Pixels const in =
        image(c.inWidth, c.inHeight, 4, [&](size_t, size_t, size_t k) { return colour[k]; });
    Pixels const out = resize(in, c.width, c.height);
    EXPECT_EQ(shape(out), shape(Pixels{c.width, c.height, 4, {}})) << "from " << shape(in);
    ASSERT_EQ(out.data.size(), c.width * c.height * 4) << "from " << shape(in);
    size_t wrong = 0;
    for (size_t i = 0; i < out.data.size(); ++i) wrong += out.data[i] != colour[i % 4];
    EXPECT_EQ(wrong, 0u) << shape(in) << " -> " << shape(out);
  }
  Pixels const in = smooth(8, 8, 3);
  EXPECT_THROW(resize(in, 0, 5), std::invalid_argument);
  EXPECT_THROW(resize(in, 5, 0), std::invalid_argument);
  EXPECT_THROW(resize(in, 20000000, 1), std::invalid_argument);
  EXPECT_THROW(resize(Pixels{8, 8, 4, in.data}, 4, 4), std::invalid_argument);
}

TEST(Resize, PreservesTheMeanOfAGradient) {
  Pixels const in = image(256, 64, 1, [](size_t x, size_t, size_t) { return x; });
  for (auto [width, height] : {std::pair{100, 30}, {600, 100}, {37, 64}, {256, 7}}) {
    Pixels const out = resize(in, width, height);
    double sum = 0;
    for (uint8_t value : out.data) sum += value;
    EXPECT_NEAR(sum / static_cast<double>(out.data.size()), 127.5, 2.0)
        << "256x64 -> " << width << "x" << height;
  }
}

TEST(ApplyQuality, GrayIsRoundedRec601LumaAndBitonalItsThresholdAt128) {
  // White, black, red, green, blue, and greys either side of the threshold; 0.299, 0.587 and
  // 0.114 of 255 are 76.2, 149.7 and 29.1.
  Pixels const rgba{
      7, 1, 4, {255, 255, 255, 255, 0,   0,   0,   255, 255, 0,   0,   255, 0,   255,
                0,   255, 0,   0,   255, 255, 128, 128, 128, 255, 127, 127, 127, 255}};
  for (Pixels const& in : {rgba, dropAlpha(rgba)}) {
    Pixels const gray = applyQuality(in, Quality::kGray);
    EXPECT_EQ(shape(gray), "7x1x1") << "from " << shape(in);
    EXPECT_EQ(gray.data, (std::vector<uint8_t>{255, 0, 76, 150, 29, 128, 127})) << shape(in);
    EXPECT_EQ(applyQuality(in, Quality::kBitonal).data,
              (std::vector<uint8_t>{255, 0, 0, 255, 0, 255, 0}))
        << "from " << shape(in);
    EXPECT_TRUE(applyQuality(in, Quality::kDefault).data == in.data) << shape(in);
    EXPECT_TRUE(applyQuality(in, Quality::kColor).data == in.data) << shape(in);
  }
  Pixels const grey{4, 1, 1, {0, 127, 128, 255}};
  EXPECT_EQ(applyQuality(grey, Quality::kGray).data, grey.data);
  EXPECT_EQ(applyQuality(grey, Quality::kBitonal).data, (std::vector<uint8_t>{0, 0, 255, 255}));
  EXPECT_THROW(applyQuality(Pixels{2, 2, 2, std::vector<uint8_t>(8)}, Quality::kGray),
               std::invalid_argument);
}

}  // namespace
}  // namespace quorvel::serve
