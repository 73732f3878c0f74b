// The program run as a user runs it: files in, files and messages out, exit status.

#include <gtest/gtest.h>
// clang-format off
#include <cstdio>  // jpeglib.h uses FILE and size_t without declaring them
#include <jpeglib.h>
// clang-format on
#include <png.h>
#include <sys/wait.h>
#include <tiffio.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "image_io.hpp"

namespace quorvel::tool {
namespace {

namespace fs = std::filesystem;

struct Result {
  int status = -1;
  std::string out, err;
};

class Cli : public ::testing::Test {
 protected:
  Cli()
      : dir_(fs::temp_directory_path() /
             ("quorvel-render-test-" + std::to_string(getpid()) + "-" +
              ::testing::UnitTest::GetInstance()->current_test_info()->name())) {
    fs::create_directories(dir_);
  }
  ~Cli() override { fs::remove_all(dir_); }

  std::string path(std::string const& name) const { return (dir_ / name).string(); }

  Result run(std::string const& args) const {
    std::string const out = path("stdout.txt"), err = path("stderr.txt");
    std::string const command =
        std::string(QUORVEL_RENDER_BINARY) + " " + args + " >" + out + " 2>" + err;
    int const raw = std::system(command.c_str());
    Result r;
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    r.out = slurp(out);
    r.err = slurp(err);
    return r;
  }

  static std::string slurp(std::string const& file) {
    std::ifstream in(file);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }

  fs::path dir_;
};

Image noiseImage(size_t w, size_t h, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> any(0, 255);
  Image image;
  image.width = w, image.height = h;
  image.rgba.resize(w * h * 4);
  for (size_t i = 0; i < w * h; ++i) {
    for (int c = 0; c < 3; ++c) image.rgba[4 * i + c] = static_cast<uint8_t>(any(rng));
    image.rgba[4 * i + 3] = 255;
  }
  return image;
}

bool sameColours(Image const& a, Image const& b) {
  if (a.width != b.width || a.height != b.height) return false;
  for (size_t i = 0; i < a.width * a.height; ++i) {
    if (std::memcmp(&a.rgba[4 * i], &b.rgba[4 * i], 3) != 0) return false;
  }
  return true;
}

TEST_F(Cli, RoundTripsAwkwardSizesBitForBit) {
  struct Case {
    size_t w, h;
    std::string options, output;
  };
  for (Case const& c : {Case{1, 1, "--levels 1", "a.png"}, Case{257, 255, "--levels 1", "b.png"},
                        Case{257, 255, "--levels 5 --threads 3", "c.tif"},
                        Case{300, 17, "--tile 64 --levels 5", "d.png"},
                        Case{2, 3, "--tile 64 --levels 5", "e.png"}}) {
    Image const input = noiseImage(c.w, c.h, unsigned(c.w + c.h));
    writeImage(path("in.png"), input);
    Result const r = run(path("in.png") + " -q " + c.options + " -o " + path(c.output));
    ASSERT_EQ(r.status, 0) << c.options << "\n" << r.err;
    EXPECT_NE(r.out.find("lossless: yes\n"), std::string::npos) << r.out;
    EXPECT_TRUE(sameColours(readImage(path(c.output)), input)) << c.w << " x " << c.h;
  }
}

// Display filters that read neighbourhoods give the same pixels whatever the encoder's tile
// size, at full resolution and at a reduced level, and a region is a crop of the whole.
TEST_F(Cli, NeighbourhoodFiltersDoNotDependOnTheTiling) {
  writeImage(path("in.png"), noiseImage(300, 260, 6));
  std::string const filters = " -q --sharpen 0.8 --clahe 2";
  for (char const* level : {"0", "2"}) {
    std::vector<Image> outputs;
    for (char const* tile : {"256", "200", "512"}) {
      std::string const out = path(std::string("l") + level + "t" + tile + ".png");
      Result const r =
          run(path("in.png") + filters + " --level " + level + " --tile " + tile + " -o " + out);
      ASSERT_EQ(r.status, 0) << r.err;
      outputs.push_back(readImage(out));
    }
    EXPECT_EQ(outputs[0].width, level[0] == '0' ? 300u : 75u);
    EXPECT_EQ(outputs[0].height, level[0] == '0' ? 260u : 65u);
    EXPECT_TRUE(outputs[0].rgba == outputs[1].rgba) << "level " << level;
    EXPECT_TRUE(outputs[0].rgba == outputs[2].rgba) << "level " << level;
  }
  Result const r = run(path("in.png") + filters + " --region 50,60,70,40 -o " + path("crop.png"));
  ASSERT_EQ(r.status, 0) << r.err;
  Image const crop = readImage(path("crop.png")), whole = readImage(path("l0t256.png"));
  ASSERT_EQ(crop.width, 70u);
  ASSERT_EQ(crop.height, 40u);
  for (size_t y = 0; y < 40; ++y) {
    ASSERT_EQ(0, std::memcmp(crop.pixel(0, y), whole.pixel(50, 60 + y), 70 * 4)) << y;
  }
}

TEST_F(Cli, PrintsTheSummaryAndWritesTheComparison) {
  Image const input = noiseImage(70, 40, 4);
  writeImage(path("in.tif"), input);
  Result const r = run(path("in.tif") + " --tile 32 --gamma 2 -o " + path("out.png") +
                       " --compare " + path("sub/compare.png"));
  ASSERT_EQ(r.status, 0) << r.err;
  for (char const* line :
       {"summary\n", "  output        0.0 Mpixel in 1 tiles", "  open ", "  render ", " tiles/s ",
        " Mpixel/s\n", "  encoded ", "  margins ", "  write ", "  peak memory ",
        "lossless: not checked (display filters change the pixels)\n"}) {
    EXPECT_NE(r.out.find(line), std::string::npos) << line << " in\n" << r.out;
  }
  Image const output = readImage(path("out.png"));
  Image const compare = readImage(path("sub/compare.png"));
  ASSERT_EQ(compare.width, 140u);
  ASSERT_EQ(compare.height, 40u);
  for (size_t y = 0; y < 40; ++y) {
    ASSERT_EQ(0, std::memcmp(compare.pixel(0, y), input.pixel(0, y), 70 * 4));
    ASSERT_EQ(0, std::memcmp(compare.pixel(70, y), output.pixel(0, y), 70 * 4));
  }
  EXPECT_FALSE(sameColours(input, output));
}

// A tiled BigTIFF of 8-bit RGB, 16 x 16 tiles, the image not a multiple of the tile.
void writeTiledBigTiff(std::string const& file, Image const& image) {
  TIFF* tiff = TIFFOpen(file.c_str(), "w8");
  ASSERT_NE(tiff, nullptr);
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, uint32_t(image.width));
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, uint32_t(image.height));
  TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
  TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 3);
  TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
  TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(tiff, TIFFTAG_TILEWIDTH, 16);
  TIFFSetField(tiff, TIFFTAG_TILELENGTH, 16);
  std::vector<uint8_t> tile(16 * 16 * 3);
  for (uint32_t ty = 0; ty < image.height; ty += 16) {
    for (uint32_t tx = 0; tx < image.width; tx += 16) {
      std::fill(tile.begin(), tile.end(), 0);
      for (uint32_t y = 0; y < 16 && ty + y < image.height; ++y) {
        for (uint32_t x = 0; x < 16 && tx + x < image.width; ++x) {
          std::memcpy(&tile[(y * 16 + x) * 3], image.pixel(tx + x, ty + y), 3);
        }
      }
      TIFFWriteTile(tiff, tile.data(), tx, ty, 0, 0);
    }
  }
  TIFFClose(tiff);
}

// An 8-bit grey + alpha PNG.
void writeGreyAlphaPng(std::string const& file, size_t w, size_t h) {
  FILE* f = std::fopen(file.c_str(), "wb");
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  png_init_io(png, f);
  png_set_IHDR(png, info, png_uint_32(w), png_uint_32(h), 8, PNG_COLOR_TYPE_GRAY_ALPHA,
               PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_BASE, PNG_FILTER_TYPE_BASE);
  png_write_info(png, info);
  std::vector<uint8_t> row(w * 2);
  for (size_t y = 0; y < h; ++y) {
    for (size_t x = 0; x < w; ++x) row[2 * x] = uint8_t(x * 7 + y), row[2 * x + 1] = uint8_t(x);
    png_write_row(png, row.data());
  }
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  std::fclose(f);
}

void writeJpeg(std::string const& file, Image const& image) {
  FILE* f = std::fopen(file.c_str(), "wb");
  jpeg_compress_struct info;
  jpeg_error_mgr error;
  info.err = jpeg_std_error(&error);
  jpeg_create_compress(&info);
  jpeg_stdio_dest(&info, f);
  info.image_width = JDIMENSION(image.width);
  info.image_height = JDIMENSION(image.height);
  info.input_components = 3;
  info.in_color_space = JCS_RGB;
  jpeg_set_defaults(&info);
  jpeg_start_compress(&info, TRUE);
  std::vector<uint8_t> row(image.width * 3);
  for (size_t y = 0; y < image.height; ++y) {
    for (size_t x = 0; x < image.width; ++x) std::memcpy(&row[3 * x], image.pixel(x, y), 3);
    JSAMPROW p = row.data();
    jpeg_write_scanlines(&info, &p, 1);
  }
  jpeg_finish_compress(&info);
  jpeg_destroy_compress(&info);
  std::fclose(f);
}

TEST_F(Cli, ReadsTiledBigTiffGreyPngAndJpeg) {
  Image const input = noiseImage(37, 29, 8);
  writeTiledBigTiff(path("tiled.tif"), input);
  EXPECT_TRUE(sameColours(readImage(path("tiled.tif")), input));

  writeGreyAlphaPng(path("grey.png"), 11, 6);
  Image const grey = readImage(path("grey.png"));
  ASSERT_EQ(grey.width, 11u);
  for (size_t y = 0; y < 6; ++y) {
    for (size_t x = 0; x < 11; ++x) {
      uint8_t const v = uint8_t(x * 7 + y);
      uint8_t const expected[4] = {v, v, v, uint8_t(x)};
      ASSERT_EQ(0, std::memcmp(grey.pixel(x, y), expected, 4)) << x << "," << y;
    }
  }

  writeJpeg(path("photo.jpg"), input);
  Image const photo = readImage(path("photo.jpg"));
  EXPECT_EQ(photo.width, 37u);
  EXPECT_EQ(photo.height, 29u);
  // Each format goes through the program losslessly (the JPEG as decoded).
  for (char const* name : {"tiled.tif", "grey.png", "photo.jpg"}) {
    Result const r = run(path(name) + " -q --tile 16 -o " + path("out.png"));
    ASSERT_EQ(r.status, 0) << name << "\n" << r.err;
    EXPECT_NE(r.out.find("lossless: yes\n"), std::string::npos) << name;
    EXPECT_TRUE(sameColours(readImage(path("out.png")), readImage(path(name)))) << name;
  }
}

TEST_F(Cli, BadInputsExitTwoWithAOneLineMessage) {
  writeImage(path("ok.png"), noiseImage(5, 5, 1));
  std::ofstream(path("text.png")) << "not an image\n";
  {
    // A PNG cut short after its header.
    std::string const whole = slurp(path("ok.png"));
    std::ofstream(path("cut.png"), std::ios::binary) << whole.substr(0, 60);
  }
  std::ofstream(path("mask.txt")) << "# regions\n1 2 3 4\n5 6 x 8\n";
  std::ofstream(path("upside.txt")) << "9 2 0 4\n";
  std::string const ok = path("ok.png") + " -o " + path("o.png");
  struct Case {
    std::string args, message;
  };
  for (Case const& c : {
           Case{path("missing.png"), "INPUT: File does not exist: " + path("missing.png")},
           Case{path("text.png"), "cannot open '" + path("text.png") + "'"},
           Case{path("cut.png"), "cannot open '" + path("cut.png") + "'"},
           Case{ok + " --bogus", "The following argument was not expected: --bogus"},
           Case{ok + " --levels 6", "--levels: Value 6 not in range 1 to 5"},
           Case{ok + " --tile 7", "--tile: Value 7 not in range 8 to 4096"},
           Case{ok + " --threads 0", "--threads: Value 0 not in range 1 to 64"},
           Case{ok + " --sharpen 9", "--sharpen: Value 9 not in range"},
           Case{ok + " --matrix 1,2", "--matrix '1,2': expected nine numbers m0,...,m8"},
           Case{ok + " --matrix 1,0,0,0,1,0,0,0,1:x", "--matrix '1,0,0,0,1,0,0,0,1:x'"},
           Case{ok + " --mask " + path("mask.txt"),
                "mask file '" + path("mask.txt") + "' line 3: expected four integers"},
           Case{ok + " --mask " + path("upside.txt"), "line 1: xmin > xmax or ymin > ymax"},
           Case{ok + " --gamma-mode linear --white 300",
                "--black/--white must lie in [0, 255] with --gamma-mode linear"},
           Case{ok + " --tile 100",
                "--tile/--levels: the tile size 100 must be a multiple of 2^levels"},
           Case{ok + " --level 4", "--level 4: this image has levels 0 to 3"},
           Case{ok + " --region 1,1,5,1", "--region 1,1,5,1 is not inside level 0 (5 x 5)"},
           Case{ok + " --region 1,1,0,2", "--region '1,1,0,2': expected x,y,w,h"},
           Case{path("ok.png") + " -o " + path("o.bmp"), "the output name must end in .png"},
       }) {
    Result const r = run(c.args);
    EXPECT_EQ(r.status, 2) << c.args;
    EXPECT_EQ(r.err.rfind("quorvel-render: error: ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << c.args << "\n" << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_TRUE(r.out.empty() || r.out.find("summary") == std::string::npos) << r.out;
  }
}

}  // namespace
}  // namespace quorvel::tool
