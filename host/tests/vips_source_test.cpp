#include <gtest/gtest.h>
#include <stdlib.h>
#include <vips/vips.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "quorvel/zoom/image_source.hpp"

namespace {

using namespace quorvel::zoom;
namespace fs = std::filesystem;

struct Unref {
  void operator()(VipsImage* image) const { g_object_unref(image); }
};
using ImagePtr = std::unique_ptr<VipsImage, Unref>;

// Smooth waves, so that reductions have a predictable mean, plus noise, so that a pixel
// read from the wrong place or channel shows.
std::vector<uint16_t> samples(size_t w, size_t h, int bands, uint16_t max, uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<uint16_t> out(w * h * bands);
  for (size_t y = 0; y < h; ++y) {
    for (size_t x = 0; x < w; ++x) {
      for (int b = 0; b < bands; ++b) {
        double const wave = 0.5 + 0.35 * std::sin(x / (23.0 + 9 * b) + y / 31.0);
        double const noise = (int(random() % 41) - 20) / 255.0;
        out[(y * w + x) * bands + b] = uint16_t(std::clamp(wave + noise, 0.0, 1.0) * max);
      }
    }
  }
  return out;
}

ImagePtr makeImage(std::vector<uint16_t> const& s, size_t w, size_t h, int bands, bool wide) {
  std::vector<uint8_t> const narrow(s.begin(), s.end());
  VipsImage* image = wide ? vips_image_new_from_memory_copy(s.data(), s.size() * 2, int(w), int(h),
                                                            bands, VIPS_FORMAT_USHORT)
                          : vips_image_new_from_memory_copy(narrow.data(), narrow.size(), int(w),
                                                            int(h), bands, VIPS_FORMAT_UCHAR);
  if (image && wide) {
    // Without a 16-bit interpretation the savers would clip the samples to 8 bits.
    VipsImage* tagged = nullptr;
    vips_copy(image, &tagged, "interpretation",
              bands < 3 ? VIPS_INTERPRETATION_GREY16 : VIPS_INTERPRETATION_RGB16, nullptr);
    g_object_unref(image);
    image = tagged;
  }
  EXPECT_NE(image, nullptr);
  return ImagePtr(image);
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

double mean(std::vector<uint8_t> const& rgba) {
  double sum = 0;
  for (uint8_t v : rgba) sum += v;
  return sum / rgba.size();
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

  // A 1001 x 701 RGB pyramid, odd on both axes so that reduced levels round.
  std::string savePyramid(std::string const& name, std::vector<uint16_t> const& rgb,
                          char const* option = nullptr, int value = 0) {
    ImagePtr image = makeImage(rgb, 1001, 701, 3, false);
    EXPECT_EQ(vips_tiffsave(image.get(), path(name).c_str(), "tile", TRUE, "tile_width", 64,
                            "tile_height", 64, "pyramid", TRUE, "compression",
                            VIPS_FOREIGN_TIFF_COMPRESSION_DEFLATE, option, value, nullptr),
              0);
    return path(name);
  }

  std::string dir_;
};

TEST_F(VipsSource, PngReadsBackExactlyAndChecksRectangles) {
  size_t const w = 301, h = 203;
  auto const rgb = samples(w, h, 3, 255, 1);
  ASSERT_EQ(vips_pngsave(makeImage(rgb, w, h, 3, false).get(), path("rgb.png").c_str(), nullptr),
            0);
  auto const source = openImageFile(path("rgb.png"));
  EXPECT_EQ(source->width(), w);
  EXPECT_EQ(source->height(), h);
  EXPECT_EQ(source->nativeLevels(), std::vector<size_t>{0});
  EXPECT_EQ(source->description(), path("rgb.png"));
  for (Rect const rect : {Rect{0, 0, w, h}, Rect{250, 150, 51, 53}, Rect{300, 202, 1, 1},
                          Rect{0, 0, 1, 1}, Rect{17, 5, 100, 1}}) {
    EXPECT_EQ(read(*source, 0, rect), expected(rgb, w, 3, false, rect)) << rect.str();
  }
  std::vector<uint8_t> buffer(4 * w * h);
  for (Rect const rect : {Rect{0, 0, w + 1, 1}, Rect{300, 202, 1, 2}, Rect{5, 5, 0, 3}}) {
    EXPECT_THROW(source->read(0, rect, buffer.data()), std::out_of_range) << rect.str();
  }
  EXPECT_THROW(source->read(1, {0, 0, 1, 1}, buffer.data()), std::out_of_range);
}

TEST_F(VipsSource, EverySampleLayoutBecomesRgba8) {
  size_t const w = 67, h = 45;
  Rect const all{0, 0, w, h};
  for (bool const wide : {false, true}) {
    for (int bands = 1; bands <= 4; ++bands) {
      auto const s = samples(w, h, bands, wide ? 65535 : 255, bands);
      std::string const file = path(std::to_string(bands) + (wide ? "-16.png" : "-8.png"));
      ASSERT_EQ(vips_pngsave(makeImage(s, w, h, bands, wide).get(), file.c_str(), nullptr), 0);
      EXPECT_EQ(read(*openImageFile(file), 0, all), expected(s, w, bands, wide, all)) << file;
    }
  }
  // A lossy file only approximates its pixels, but channels and rows must still line up.
  auto const rgb = samples(w, h, 3, 255, 7);
  ASSERT_EQ(vips_jpegsave(makeImage(rgb, w, h, 3, false).get(), path("rgb.jpg").c_str(), "Q", 95,
                          nullptr),
            0);
  auto const got = read(*openImageFile(path("rgb.jpg")), 0, all);
  auto const want = expected(rgb, w, 3, false, all);
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
  auto const pages = openImageFile(savePyramid("pages.tif", rgb));
  auto const subifds = openImageFile(savePyramid("subifd.tif", rgb, "subifd", TRUE));
  auto const big = openImageFile(savePyramid("big.tif", rgb, "bigtiff", TRUE));

  // libvips stops once a level fits in one 64 x 64 tile, and stores each level with the
  // floor of the halved size (500 x 350 for level 1), one pixel short of the level.
  std::vector<size_t> const levels{0, 1, 2, 3, 4};
  Rect const full{0, 0, 1001, 701};
  auto const level0 = read(*pages, 0, full);
  EXPECT_EQ(level0, expected(rgb, 1001, 3, false, full));
  for (auto const& source : {pages, subifds, big}) {
    EXPECT_EQ(source->nativeLevels(), levels) << source->description();
    EXPECT_EQ(read(*source, 0, full), level0) << source->description();
  }
  for (size_t level = 1; level < levels.size(); ++level) {
    Rect const whole{0, 0, levelExtent(1001, level), levelExtent(701, level)};
    auto const pixels = read(*pages, level, whole);
    EXPECT_EQ(read(*subifds, level, whole), pixels);
    EXPECT_EQ(read(*big, level, whole), pixels);
  }
  auto const edge = read(*pages, 1, {499, 349, 2, 2});  // the missing column and row repeat
  EXPECT_TRUE(std::equal(edge.begin(), edge.begin() + 4, edge.begin() + 4));
  EXPECT_TRUE(std::equal(edge.begin(), edge.begin() + 8, edge.begin() + 8));
  expectLevelsAverageLikeLevel0(*pages);
}

TEST_F(VipsSource, SlideLevelsComeFromTheirDownsamples) {
  // A tiled JPEG pyramid whose description marks it as an Aperio slide, which OpenSlide
  // reads (where libvips was built without OpenSlide, it is read as TIFF pages instead).
  ImagePtr image = makeImage(samples(1001, 701, 3, 255, 4), 1001, 701, 3, false);
  vips_image_set_string(
      image.get(), "image-description",
      "Aperio Image Library v10.0.50\r\n1001x701 (64x64) JPEG/RGB Q=90|MPP = 0.5");
  ASSERT_EQ(vips_tiffsave(image.get(), path("slide.svs").c_str(), "tile", TRUE, "tile_width", 64,
                          "tile_height", 64, "pyramid", TRUE, "compression",
                          VIPS_FOREIGN_TIFF_COMPRESSION_JPEG, "Q", 90, nullptr),
            0);
  auto const slide = openImageFile(path("slide.svs"));
  EXPECT_EQ(slide->nativeLevels(), (std::vector<size_t>{0, 1, 2, 3, 4}));
  expectLevelsAverageLikeLevel0(*slide);
}

TEST_F(VipsSource, BadFilesFailWithTheirName) {
  auto const expectNamed = [](SourceError const& error, std::string const& file) {
    EXPECT_NE(std::string(error.what()).find("'" + file + "'"), std::string::npos) << error.what();
    EXPECT_EQ(std::string(error.what()).find('\n'), std::string::npos) << error.what();
  };
  { std::ofstream(path("notes.txt")) << "not an image\n"; }
  auto const rgb = samples(1001, 701, 3, 255, 5);
  ASSERT_EQ(
      vips_pngsave(makeImage(rgb, 1001, 701, 3, false).get(), path("cut.png").c_str(), nullptr), 0);
  savePyramid("cut.tif", rgb);
  for (char const* name : {"cut.png", "cut.tif"}) {
    fs::resize_file(path(name), fs::file_size(path(name)) * 2 / 3);
  }
  for (std::string const& file :
       {path("missing.png"), path("notes.txt"), path("cut.png"), path("cut.tif"), dir_}) {
    try {
      openImageFile(file);
      ADD_FAILURE() << file << " opened";
    } catch (SourceError const& error) {
      expectNamed(error, file);
    }
  }

  // Damaged tiles in the middle of level 0 are found only when a read reaches them.
  std::string const damaged = savePyramid("damaged.tif", rgb);
  {
    std::fstream file(damaged, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(fs::file_size(damaged) / 4);
    std::mt19937 random(6);
    for (int i = 0; i < 4000; ++i) file.put(char(random()));
  }
  auto const source = openImageFile(damaged);
  std::vector<uint8_t> buffer(1001 * 701 * 4);
  for (int attempt = 0; attempt < 2; ++attempt) {
    try {
      source->read(0, {0, 0, 1001, 701}, buffer.data());
      ADD_FAILURE() << "damaged tiles read";
    } catch (SourceError const& error) {
      expectNamed(error, damaged);
    }
  }
}

TEST_F(VipsSource, ConcurrentReadsEqualSerialReads) {
  auto const rgb = samples(1001, 701, 3, 255, 9);
  ASSERT_EQ(vips_pngsave(makeImage(rgb, 1001, 701, 3, false).get(), path("a.png").c_str(), nullptr),
            0);
  for (auto const& source :
       {openImageFile(savePyramid("a.tif", rgb)), openImageFile(path("a.png"))}) {
    struct Job {
      size_t level;
      Rect rect;
      std::vector<uint8_t> pixels;
    };
    std::mt19937 random(11);
    std::vector<Job> jobs;
    auto const levels = source->nativeLevels();
    for (int i = 0; i < 160; ++i) {
      size_t const level = levels[random() % levels.size()];
      size_t const w = levelExtent(1001, level), h = levelExtent(701, level);
      size_t const x = random() % w, y = random() % h;
      Rect const rect{x, y, 1 + random() % std::min<size_t>(w - x, 200),
                      1 + random() % std::min<size_t>(h - y, 200)};
      jobs.push_back({level, rect, read(*source, level, rect)});
    }
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (size_t t = 0; t < 8; ++t) {
      threads.emplace_back([&, t] {
        for (size_t i = t; i < jobs.size() * 4; i += 8) {
          Job const& job = jobs[i % jobs.size()];
          try {
            if (read(*source, job.level, job.rect) != job.pixels) ++mismatches;
          } catch (std::exception const&) {
            ++mismatches;
          }
        }
      });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(mismatches, 0) << source->description();
  }
}

}  // namespace
