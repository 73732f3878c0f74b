#include <gtest/gtest.h>
#include <stdlib.h>
#include <vips/vips.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <numeric>
#include <random>
#include <thread>

#include "quorvel/zoom/image_source.hpp"

namespace {

using namespace quorvel::zoom;
namespace fs = std::filesystem;

// Smooth waves, so that reductions have a predictable mean, plus noise, so that a pixel
// read from the wrong place or channel shows.
std::vector<uint16_t> samples(size_t w, size_t h, int bands, uint16_t max, uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<uint16_t> out(w * h * bands);
  for (size_t i = 0; i < out.size(); ++i) {
    size_t const x = i / bands % w, y = i / bands / w, b = i % bands;
    double const wave = 0.5 + 0.35 * std::sin(x / (23.0 + 9 * b) + y / 31.0);
    double const noise = (int(random() % 41) - 20) / 255.0;
    out[i] = uint16_t(std::clamp(wave + noise, 0.0, 1.0) * max);
  }
  return out;
}

// What the source must return for `rect` of samples stored with 1 to 4 bands (grey, grey +
// alpha, RGB, RGBA), each 8 or 16 bits.
std::vector<uint8_t> expected(std::vector<uint16_t> const& s, size_t w, int bands, bool wide,
                              Rect const& rect) {
  std::vector<uint8_t> out;
  for (size_t y = rect.y; y < rect.bottom(); ++y) {
    for (size_t x = rect.x; x < rect.right(); ++x) {
      auto const at = [&](int b) { return uint8_t(s[(y * w + x) * bands + b] >> (wide ? 8 : 0)); };
      bool const grey = bands < 3;
      out.insert(out.end(), {at(0), at(grey ? 0 : 1), at(grey ? 0 : 2),
                             bands % 2 == 0 ? at(bands - 1) : uint8_t(255)});
    }
  }
  return out;
}

std::vector<uint8_t> read(ImageSource const& source, size_t level, Rect const& rect) {
  std::vector<uint8_t> out(rect.width * rect.height * 4);
  source.read(level, rect, out.data());
  return out;
}

double mean(std::vector<uint8_t> const& v) {
  return std::accumulate(v.begin(), v.end(), 0.0) / double(v.size());
}

// Random rectangles of every level, read at once by 8 threads, equal the same rectangles
// read one at a time.
void expectConcurrentReadsEqualSerialReads(ImageSource const& source) {
  std::mt19937 random(11);
  std::vector<std::tuple<size_t, Rect, std::vector<uint8_t>>> jobs;  // level, rect, pixels
  auto const levels = source.nativeLevels();
  for (int i = 0; i < 160; ++i) {
    size_t const level = levels[random() % levels.size()];
    size_t const w = levelExtent(source.width(), level), h = levelExtent(source.height(), level);
    size_t const x = random() % w, y = random() % h;
    Rect const rect{x, y, 1 + random() % std::min<size_t>(w - x, 200),
                    1 + random() % std::min<size_t>(h - y, 200)};
    jobs.emplace_back(level, rect, read(source, level, rect));
  }
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (size_t t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (size_t i = t; i < jobs.size() * 4; i += 8) {
        auto const& [level, rect, pixels] = jobs[i % jobs.size()];
        try {
          mismatches += read(source, level, rect) != pixels;
        } catch (std::exception const&) {
          ++mismatches;
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches, 0) << source.description();
}

class VipsSource : public testing::Test {
 protected:
  static void SetUpTestSuite() { ASSERT_EQ(VIPS_INIT("vips_source_test"), 0); }
  void SetUp() override {
    std::string pattern = testing::TempDir() + "vips-source-XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { fs::remove_all(dir_); }
  std::string path(std::string const& name) const { return dir_ + "/" + name; }

  // Saves through the saver that the name's suffix picks, with libvips' "[name=value,...]"
  // saver options.
  std::string save(std::string const& name, std::vector<uint16_t> const& s, size_t w, size_t h,
                   int bands = 3, bool wide = false, std::string const& options = "",
                   char const* description = nullptr) {
    std::vector<uint8_t> const narrow(s.begin(), s.end());
    VipsImage* image = vips_image_new_from_memory_copy(
        wide ? static_cast<void const*>(s.data()) : narrow.data(), s.size() * (wide ? 2 : 1),
        int(w), int(h), bands, wide ? VIPS_FORMAT_USHORT : VIPS_FORMAT_UCHAR);
    // Without a 16-bit interpretation the savers would clip the samples to 8 bits.
    if (wide) image->Type = bands < 3 ? VIPS_INTERPRETATION_GREY16 : VIPS_INTERPRETATION_RGB16;
    if (description) vips_image_set_string(image, "image-description", description);
    EXPECT_EQ(vips_image_write_to_file(image, (path(name) + options).c_str(), nullptr), 0)
        << vips_error_buffer();
    g_object_unref(image);
    return path(name);
  }
  // A 1001 x 701 RGB pyramid of 64 x 64 tiles, odd on both axes so that reduced levels round.
  std::string pyramid(std::string const& name, std::vector<uint16_t> const& rgb,
                      std::string const& options = "") {
    return save(name, rgb, 1001, 701, 3, false,
                "[tile,tile_width=64,tile_height=64,pyramid,compression=deflate" + options + "]");
  }

  std::string dir_;
};

TEST_F(VipsSource, EverySampleLayoutReadsBackAsRgba8) {
  size_t const w = 301, h = 203;
  for (bool const wide : {false, true}) {
    for (int bands = 1; bands <= 4; ++bands) {
      auto const s = samples(w, h, bands, wide ? 65535 : 255, bands);
      std::string const file =
          save(std::to_string(bands) + (wide ? "-16.png" : "-8.png"), s, w, h, bands, wide);
      auto const source = openImageFile(file);
      EXPECT_EQ(std::make_pair(source->width(), source->height()), std::make_pair(w, h)) << file;
      EXPECT_EQ(source->nativeLevels(), std::vector<size_t>{0}) << file;
      for (Rect const rect : {Rect{0, 0, w, h}, Rect{250, 150, 51, 53}, Rect{300, 202, 1, 1}}) {
        EXPECT_EQ(read(*source, 0, rect), expected(s, w, bands, wide, rect)) << file << rect.str();
      }
      EXPECT_THROW(read(*source, 0, {300, 202, 1, 2}), std::out_of_range) << file;
      EXPECT_THROW(read(*source, 1, {0, 0, 1, 1}), std::out_of_range) << file;
      if (bands == 3 && !wide) expectConcurrentReadsEqualSerialReads(*source);
    }
  }
  // A lossy file only approximates its pixels, but channels and rows must still line up.
  auto const rgb = samples(w, h, 3, 255, 7);
  auto const got =
      read(*openImageFile(save("a.jpg", rgb, w, h, 3, false, "[Q=95]")), 0, {0, 0, w, h});
  auto const want = expected(rgb, w, 3, false, {0, 0, w, h});
  double error = 0;
  for (size_t i = 0; i < got.size(); ++i) error += std::abs(got[i] - want[i]);
  EXPECT_LT(error / got.size(), 4.0);
}

// Each quarter of every reduced level averages like the same quarter of level 0.
void expectLevelsAverageLikeLevel0(ImageSource const& source) {
  for (size_t level : source.nativeLevels()) {
    for (size_t q = 0; q < 4; ++q) {
      Rect const quarter{q % 2 * 500, q / 2 * 350, 500, 350};
      Rect const reduced{quarter.x >> level, quarter.y >> level, quarter.width >> level,
                         quarter.height >> level};
      EXPECT_NEAR(mean(read(source, level, reduced)), mean(read(source, 0, quarter)), 2.0)
          << source.description() << " level " << level << " quarter " << quarter.str();
    }
  }
}

TEST_F(VipsSource, PyramidalTiffLevelsAreNative) {
  auto const rgb = samples(1001, 701, 3, 255, 3);
  auto const pages = openImageFile(pyramid("pages.tif", rgb));
  // libvips stops once a level fits in one 64 x 64 tile, and stores each level with the
  // floor of the halved size (500 x 350 for level 1), one pixel short of the level.
  Rect const full{0, 0, 1001, 701};
  EXPECT_EQ(read(*pages, 0, full), expected(rgb, 1001, 3, false, full));
  for (auto const& source : {pages, openImageFile(pyramid("subifd.tif", rgb, ",subifd")),
                             openImageFile(pyramid("big.tif", rgb, ",bigtiff"))}) {
    EXPECT_EQ(source->nativeLevels(), (std::vector<size_t>{0, 1, 2, 3, 4}))
        << source->description();
    for (size_t level = 0; level < 5; ++level) {
      Rect const whole{0, 0, levelExtent(1001, level), levelExtent(701, level)};
      EXPECT_EQ(read(*source, level, whole), read(*pages, level, whole))
          << source->description() << " level " << level;
    }
  }
  auto const edge = read(*pages, 1, {499, 349, 2, 2});  // the missing column and row repeat
  EXPECT_TRUE(std::equal(edge.begin(), edge.begin() + 4, edge.begin() + 4));
  EXPECT_TRUE(std::equal(edge.begin(), edge.begin() + 8, edge.begin() + 8));
  expectLevelsAverageLikeLevel0(*pages);
  expectConcurrentReadsEqualSerialReads(*pages);

  // A tiled JPEG pyramid whose description marks it as an Aperio slide, which OpenSlide
  // reads (where libvips was built without OpenSlide, it is read as TIFF pages instead).
  auto const slide = openImageFile(
      save("slide.tif", samples(1001, 701, 3, 255, 4), 1001, 701, 3, false,
           "[tile,tile_width=64,tile_height=64,pyramid,compression=jpeg,Q=90]",
           "Aperio Image Library v10.0.50\r\n1001x701 (64x64) JPEG/RGB Q=90|MPP = 0.5"));
  EXPECT_EQ(slide->nativeLevels(), (std::vector<size_t>{0, 1, 2, 3, 4}));
  expectLevelsAverageLikeLevel0(*slide);
}

TEST_F(VipsSource, BadFilesFailWithTheirName) {
  auto const expectFailsNamed = [](std::function<void()> const& attempt, std::string const& file) {
    try {
      attempt();
      ADD_FAILURE() << file << " read";
    } catch (SourceError const& error) {
      std::string const what = error.what();
      EXPECT_NE(what.find("'" + file + "'"), std::string::npos) << what;
      EXPECT_EQ(what.find('\n'), std::string::npos) << what;
    }
  };
  { std::ofstream(path("notes.txt")) << "not an image\n"; }
  auto const rgb = samples(1001, 701, 3, 255, 5);
  for (std::string const& cut : {save("cut.png", rgb, 1001, 701), pyramid("cut.tif", rgb)}) {
    fs::resize_file(cut, fs::file_size(cut) * 2 / 3);
  }
  for (std::string const& file :
       {path("missing.png"), path("notes.txt"), path("cut.png"), path("cut.tif"), dir_}) {
    expectFailsNamed([&] { openImageFile(file); }, file);
  }

  // Damaged tiles in the middle of level 0 are found only when a read reaches them, and
  // again by a second read.
  std::string const damaged = pyramid("damaged.tif", rgb);
  {
    std::fstream file(damaged, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(fs::file_size(damaged) / 4);
    std::mt19937 random(6);
    for (int i = 0; i < 4000; ++i) file.put(char(random()));
  }
  auto const source = openImageFile(damaged);
  for (int attempt = 0; attempt < 2; ++attempt) {
    expectFailsNamed([&] { read(*source, 0, {0, 0, 1001, 701}); }, damaged);
  }
}

}  // namespace
