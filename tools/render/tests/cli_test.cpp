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

std::string slurp(std::string const& file) {
  std::stringstream s;
  s << std::ifstream(file).rdbuf();
  return s.str();
}

class Cli : public ::testing::Test {
 protected:
  Cli() { fs::create_directories(dir_); }
  ~Cli() override { fs::remove_all(dir_); }

  std::string path(std::string const& name) const { return (dir_ / name).string(); }

  Result run(std::string const& args) const {
    std::string const out = path("stdout.txt"), err = path("stderr.txt");
    int const raw =
        std::system((QUORVEL_RENDER_BINARY " " + args + " >" + out + " 2>" + err).c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, slurp(out), slurp(err)};
  }

  fs::path const dir_ =
      fs::temp_directory_path() / ("quorvel-render-test-" + std::to_string(getpid()) + "-" +
                                   ::testing::UnitTest::GetInstance()->current_test_info()->name());
};

Image noiseImage(size_t w, size_t h, unsigned seed) {
  std::mt19937 rng(seed);
  Image image{w, h, std::vector<uint8_t>(w * h * 4)};
  for (size_t i = 0; i < image.rgba.size(); ++i) image.rgba[i] = i % 4 == 3 ? 255 : rng() % 256;
  return image;
}

using Extent = std::pair<size_t, size_t>;
Extent extent(Image const& image) { return {image.width, image.height}; }

bool sameColours(Image const& a, Image const& b) {
  if (a.width != b.width || a.height != b.height) return false;
  for (size_t i = 0; i < a.width * a.height; ++i) {
    if (std::memcmp(&a.rgba[4 * i], &b.rgba[4 * i], 3) != 0) return false;
  }
  return true;
}

// Display filters that read neighbourhoods give the same pixels whatever the encoder's tile
// size, at full resolution and at a reduced level; a region is a crop of the whole, and the
// comparison puts the unfiltered region beside it.
TEST_F(Cli, NeighbourhoodFiltersDoNotDependOnTheTilingAndRegionsCrop) {
  Image const input = noiseImage(300, 260, 6);
  writeImage(path("in.tif"), input);
  std::string const filters = path("in.tif") + " -q --sharpen 0.8 --clahe 2";
  for (char const* level : {"0", "2"}) {
    std::vector<Image> outputs;
    for (char const* tile : {"256", "200", "512"}) {
      std::string const out = path(std::string("l") + level + "t" + tile + ".png");
      Result const r = run(filters + " --level " + level + " --tile " + tile + " -o " + out);
      ASSERT_EQ(r.status, 0) << r.err;
      outputs.push_back(readImage(out));
    }
    EXPECT_EQ(extent(outputs[0]), level[0] == '0' ? Extent(300, 260) : Extent(75, 65));
    EXPECT_TRUE(outputs[0].rgba == outputs[1].rgba) << "level " << level;
    EXPECT_TRUE(outputs[0].rgba == outputs[2].rgba) << "level " << level;
  }
  Result const r = run(filters + " --region 50,60,70,40 -o " + path("crop.png") + " --compare " +
                       path("sub/compare.png"));
  ASSERT_EQ(r.status, 0) << r.err;
  for (char const* line :
       {"summary\n", "  output        0.0 Mpixel in 1 tiles", "  open ", "  render ", " tiles/s ",
        " Mpixel/s\n", "  encoded       none: drawn from the input's own pixels", "  write ",
        "  peak memory ", "lossless: not checked (display filters change the pixels)\n"}) {
    EXPECT_NE(r.out.find(line), std::string::npos) << line << " in\n" << r.out;
  }
  Image const crop = readImage(path("crop.png")), whole = readImage(path("l0t256.png"));
  Image const compare = readImage(path("sub/compare.png"));
  ASSERT_EQ(extent(crop), Extent(70, 40));
  ASSERT_EQ(extent(compare), Extent(140, 40));
  bool filtered = false;
  for (size_t y = 0; y < 40; ++y) {
    ASSERT_EQ(0, std::memcmp(crop.pixel(0, y), whole.pixel(50, 60 + y), 70 * 4)) << y;
    ASSERT_EQ(0, std::memcmp(compare.pixel(0, y), input.pixel(50, 60 + y), 70 * 4)) << y;
    ASSERT_EQ(0, std::memcmp(compare.pixel(70, y), crop.pixel(0, y), 70 * 4)) << y;
    filtered |= std::memcmp(crop.pixel(0, y), input.pixel(50, 60 + y), 70 * 4) != 0;
  }
  EXPECT_TRUE(filtered) << "the filters left the region unchanged";
}

// The image's RGB samples, padded with black to w x h.
std::vector<uint8_t> rgbOf(Image const& image, size_t w, size_t h) {
  std::vector<uint8_t> rgb(w * h * 3, 0);
  for (size_t i = 0; i < image.width * image.height; ++i) {
    std::memcpy(&rgb[(i / image.width * w + i % image.width) * 3], &image.rgba[i * 4], 3);
  }
  return rgb;
}

// A tiled BigTIFF of 8-bit RGB, 16 x 16 tiles, the image not a multiple of the tile.
void writeTiledBigTiff(std::string const& file, Image const& image) {
  TIFF* tiff = TIFFOpen(file.c_str(), "w8");
  ASSERT_NE(tiff, nullptr);
  uint32_t const fields[] = {TIFFTAG_IMAGEWIDTH,      uint32_t(image.width),
                             TIFFTAG_IMAGELENGTH,     uint32_t(image.height),
                             TIFFTAG_BITSPERSAMPLE,   8,
                             TIFFTAG_SAMPLESPERPIXEL, 3,
                             TIFFTAG_PHOTOMETRIC,     PHOTOMETRIC_RGB,
                             TIFFTAG_PLANARCONFIG,    PLANARCONFIG_CONTIG,
                             TIFFTAG_TILEWIDTH,       16,
                             TIFFTAG_TILELENGTH,      16};
  for (size_t i = 0; i < std::size(fields); i += 2) TIFFSetField(tiff, fields[i], fields[i + 1]);
  size_t const w = (image.width + 15) / 16 * 16;
  auto const rgb = rgbOf(image, w, (image.height + 15) / 16 * 16);
  std::vector<uint8_t> tile(16 * 16 * 3);
  for (uint32_t ty = 0; ty < image.height; ty += 16) {
    for (uint32_t tx = 0; tx < image.width; tx += 16) {
      for (size_t y = 0; y < 16; ++y) std::memcpy(&tile[y * 48], &rgb[((ty + y) * w + tx) * 3], 48);
      TIFFWriteTile(tiff, tile.data(), tx, ty, 0, 0);
    }
  }
  TIFFClose(tiff);
}

void writeJpeg(std::string const& file, Image const& image) {
  FILE* f = std::fopen(file.c_str(), "wb");
  jpeg_compress_struct info;
  jpeg_error_mgr error;
  info.err = jpeg_std_error(&error);
  jpeg_create_compress(&info);
  jpeg_stdio_dest(&info, f);
  info.image_width = JDIMENSION(image.width), info.image_height = JDIMENSION(image.height);
  info.input_components = 3, info.in_color_space = JCS_RGB;
  jpeg_set_defaults(&info);
  jpeg_start_compress(&info, TRUE);
  auto rgb = rgbOf(image, image.width, image.height);
  while (info.next_scanline < info.image_height) {
    JSAMPROW row = &rgb[info.next_scanline * image.width * 3];
    jpeg_write_scanlines(&info, &row, 1);
  }
  jpeg_finish_compress(&info);
  jpeg_destroy_compress(&info);
  std::fclose(f);
}

// Awkward sizes, level and thread counts, PNG and TIFF out, and inputs that the tool's own
// reader must also decode as the RGBA they stand for: a tiled BigTIFF, an 8-bit grey + alpha
// PNG and a JPEG (which goes through losslessly as decoded).
TEST_F(Cli, EveryInputRoundTripsBitForBit) {
  auto const noise = [&](size_t w, size_t h) {
    Image image = noiseImage(w, h, unsigned(w + h));
    writeImage(path(std::to_string(w) + "x" + std::to_string(h) + ".png"), image);
    return image;
  };
  Image const n1 = noise(1, 1), n257 = noise(257, 255), n300 = noise(300, 17), n2 = noise(2, 3);
  Image const tiled = noiseImage(37, 29, 8);
  writeTiledBigTiff(path("tiled.tif"), tiled);
  writeJpeg(path("photo.jpg"), tiled);
  Image grey{11, 6, std::vector<uint8_t>(11 * 6 * 4)};
  std::vector<uint8_t> greyAlpha;
  for (size_t i = 0; i < 11 * 6; ++i) {
    uint8_t const v = uint8_t(i % 11 * 7 + i / 11), alpha = uint8_t(i % 11);
    greyAlpha.insert(greyAlpha.end(), {v, alpha});
    std::fill_n(&grey.rgba[4 * i], 3, v), grey.rgba[4 * i + 3] = alpha;
  }
  png_image png{};
  png.version = PNG_IMAGE_VERSION, png.width = 11, png.height = 6, png.format = PNG_FORMAT_GA;
  ASSERT_TRUE(
      png_image_write_to_file(&png, path("grey.png").c_str(), 0, greyAlpha.data(), 0, nullptr));
  EXPECT_TRUE(readImage(path("tiled.tif")).rgba == tiled.rgba) << "tiled.tif as read";
  EXPECT_TRUE(readImage(path("grey.png")).rgba == grey.rgba) << "grey.png as read";
  Image const photo = readImage(path("photo.jpg"));
  EXPECT_EQ(extent(photo), Extent(37, 29));

  using Case = std::tuple<char const*, Image const*, char const*, char const*>;
  for (auto [input, expected, options, output] :
       {Case{"1x1.png", &n1, "--levels 1", "a.png"},
        Case{"257x255.png", &n257, "--levels 1", "b.png"},
        Case{"257x255.png", &n257, "--levels 5 --threads 3", "c.tif"},
        Case{"300x17.png", &n300, "--tile 64 --levels 5", "d.png"},
        Case{"2x3.png", &n2, "--tile 64 --levels 5", "e.png"},
        Case{"tiled.tif", &tiled, "--tile 16", "f.png"},
        Case{"grey.png", &grey, "--tile 16", "g.png"},
        Case{"photo.jpg", &photo, "--tile 16", "h.png"}}) {
    Result const r =
        run(path(input) + " -q --through-transform " + options + " -o " + path(output));
    ASSERT_EQ(r.status, 0) << input << " " << options << "\n" << r.err;
    EXPECT_NE(r.out.find("lossless: yes\n"), std::string::npos) << input << "\n" << r.out;
    EXPECT_TRUE(sameColours(readImage(path(output)), *expected)) << input << " " << options;
  }
}

TEST_F(Cli, BadInputsExitTwoWithAOneLineMessage) {
  writeImage(path("ok.png"), noiseImage(5, 5, 1));
  std::ofstream(path("text.png")) << "not an image\n";
  std::ofstream(path("cut.png"), std::ios::binary) << slurp(path("ok.png")).substr(0, 60);
  std::ofstream(path("mask.txt")) << "# regions\n1 2 3 4\n5 6 x 8\n";
  std::ofstream(path("upside.txt")) << "9 2 0 4\n";
  std::string const ok = path("ok.png") + " -o " + path("o.png");
  for (auto const& [args, message] : std::vector<std::pair<std::string, std::string>>{
           {path("missing.png"), "INPUT: File does not exist: " + path("missing.png")},
           {path("text.png"), "cannot open '" + path("text.png") + "'"},
           {path("cut.png"), "cannot open '" + path("cut.png") + "'"},  // cut after its header
           {ok + " --bogus", "The following argument was not expected: --bogus"},
           {ok + " --levels 6", "--levels: Value 6 not in range 1 to 5"},
           {ok + " --tile 7", "--tile: Value 7 not in range 8 to 4096"},
           {ok + " --matrix 1,2", "--matrix '1,2': expected nine numbers m0,...,m8"},
           {ok + " --matrix 1,0,0,0,1,0,0,0,1:x", "--matrix '1,0,0,0,1,0,0,0,1:x'"},
           {ok + " --mask " + path("mask.txt"),
            "mask file '" + path("mask.txt") + "' line 3: expected four integers"},
           {ok + " --mask " + path("upside.txt"), "line 1: xmin > xmax or ymin > ymax"},
           {ok + " --gamma-mode linear --white 300",
            "--black/--white must lie in [0, 255] with --gamma-mode linear"},
           {ok + " --tile 100",
            "--tile/--levels: the tile size 100 must be a multiple of 2^levels"},
           {ok + " --level 4", "--level 4: this image has levels 0 to 3"},
           {ok + " --region 1,1,5,1", "--region 1,1,5,1 is not inside level 0 (5 x 5)"},
           {ok + " --region 1,1,0,2", "--region '1,1,0,2': expected x,y,w,h"},
           {path("ok.png") + " -o " + path("o.bmp"), "the output name must end in .png"},
       }) {
    Result const r = run(args);
    EXPECT_EQ(r.status, 2) << args;
    EXPECT_EQ(r.err.rfind("quorvel-render: error: ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find(message), std::string::npos) << args << "\n" << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_TRUE(r.out.empty() || r.out.find("summary") == std::string::npos) << r.out;
  }
}

}  // namespace
}  // namespace quorvel::tool
