// quorvel-render: streams an image through the render backend as a tiled host would, and
// checks that the round trip is exact.

#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "default_image.hpp"
#include "image_io.hpp"
#include "pipeline.hpp"
#include "progress.hpp"

namespace {

using namespace quorvel::tool;
using Clock = std::chrono::steady_clock;

constexpr int kUsageStatus = 2;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// "m0,...,m8" or "m0,...,m8:scale".
void parseMatrix(std::string const& text, DisplayOptions& display) {
  auto fail = [&] {
    throw UsageError("--matrix '" + text +
                     "': expected nine numbers m0,...,m8 and an optional :scale");
  };
  std::string coefficients = text;
  size_t const colon = text.find(':');
  if (colon != std::string::npos) {
    coefficients = text.substr(0, colon);
    std::istringstream scale(text.substr(colon + 1));
    if (!(scale >> display.matrixScale) || !scale.eof()) fail();
  }
  std::array<double, 9> m{};
  std::istringstream in(coefficients);
  for (size_t i = 0; i < 9; ++i) {
    std::string item;
    if (!std::getline(in, item, ',')) fail();
    std::istringstream value(item);
    if (!(value >> m[i]) || !value.eof()) fail();
    if (std::abs(m[i]) > 1000)
      throw UsageError("--matrix: coefficient " + item + " is out of range [-1000, 1000]");
  }
  if (!in.eof() && in.peek() != EOF) fail();
  display.matrix = m;
}

// One rectangle "xmin xmax ymin ymax" per line; blank lines and lines starting with '#'
// are skipped.
std::vector<MaskRect> readMask(std::string const& path) {
  std::ifstream in(path);
  if (!in) throw UsageError("cannot read mask file '" + path + "'");
  std::vector<MaskRect> rects;
  std::string line;
  for (size_t number = 1; std::getline(in, line); ++number) {
    size_t const first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos || line[first] == '#') continue;
    std::istringstream fields(line);
    long long v[4];
    std::string rest;
    if (!(fields >> v[0] >> v[1] >> v[2] >> v[3]) || (fields >> rest)) {
      throw UsageError("mask file '" + path + "' line " + std::to_string(number) +
                       ": expected four integers xmin xmax ymin ymax");
    }
    for (long long x : v) {
      if (x < 0 || x > 0xffffffffLL) {
        throw UsageError("mask file '" + path + "' line " + std::to_string(number) +
                         ": coordinates must lie in [0, 4294967295]");
      }
    }
    if (v[0] > v[1] || v[2] > v[3]) {
      throw UsageError("mask file '" + path + "' line " + std::to_string(number) +
                       ": xmin > xmax or ymin > ymax");
    }
    rects.push_back({uint32_t(v[0]), uint32_t(v[1]), uint32_t(v[2]), uint32_t(v[3])});
  }
  return rects;
}

size_t peakMemoryMiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<size_t>(usage.ru_maxrss) / 1024;  // ru_maxrss is in KiB on Linux
}

// The first pixel whose colour differs (alpha is not carried through the YCoCg planes).
bool findDifference(Image const& a, Image const& b, size_t& x, size_t& y) {
  for (y = 0; y < a.height; ++y) {
    for (x = 0; x < a.width; ++x) {
      if (std::memcmp(a.pixel(x, y), b.pixel(x, y), 3) != 0) return true;
    }
  }
  return false;
}

Image sideBySide(Image const& left, Image const& right) {
  Image out;
  out.width = left.width * 2;
  out.height = left.height;
  out.rgba.resize(out.width * out.height * 4);
  for (size_t y = 0; y < left.height; ++y) {
    std::memcpy(out.pixel(0, y), left.pixel(0, y), left.width * 4);
    std::memcpy(out.pixel(left.width, y), right.pixel(0, y), right.width * 4);
  }
  return out;
}

int run(int argc, char** argv) {
  CLI::App app{
      "Streams an image through the Quorvel render backend: encodes it as 16-bit "
      "wavelet tiles, uploads them, renders every tile back on the worker threads "
      "and writes the result. Without display filters the result must equal the "
      "input bit for bit."};
  app.get_formatter()->column_width(34);
  std::string input, output = "out/render.png", compare, maskFile, matrixText, gammaMode = "srgb";
  RenderOptions options;
  options.threads = std::max(1u, std::thread::hardware_concurrency());
  DisplayOptions& display = options.display;
  double gamma = 1.0, sharpen = 0, clahe = 0;
  size_t black = 0, white = 0;
  bool quiet = false;

  app.add_option("INPUT", input, "PNG, JPEG or TIFF image (default: a generated 4096 x 4096 slide)")
      ->check(CLI::ExistingFile);
  app.add_option("-o,--output", output, "output image, .png or .tif (default: out/render.png)");
  app.add_option("--compare", compare, "also write the input and the output side by side");
  app.add_option("--tile", options.tile, "tile edge in pixels (default: 256)")
      ->check(CLI::Range(size_t{8}, size_t{4096}));
  app.add_option("--levels", options.levels, "wavelet levels per tile (default: 3)")
      ->check(CLI::Range(size_t{1}, size_t{5}));
  app.add_option("--threads", options.threads, "backend worker threads (default: all cores)")
      ->check(CLI::Range(size_t{1}, size_t{64}));
  app.add_option("--cache-mb", options.cacheMb, "tile cache capacity in MiB (default: 256)")
      ->check(CLI::Range(size_t{1}, size_t{1} << 20));
  auto* gammaOption =
      app.add_option("--gamma", gamma, "display gamma (0.1 .. 10)")->check(CLI::Range(0.1, 10.0));
  auto* blackOption =
      app.add_option("--black", black, "black point (srgb: 0..4095 linear; linear: 0..255)");
  auto* whiteOption =
      app.add_option("--white", white, "white point (srgb: 0..4095 linear; linear: 0..255)");
  app.add_option("--gamma-mode", gammaMode,
                 "srgb: FilterBlackWhiteGamma8 on sRGB pixels; linear: FilterLinear16TosRGB8")
      ->check(CLI::IsMember({"srgb", "linear"}));
  auto* sharpenOption = app.add_option("--sharpen", sharpen, "unsharp-mask gain (-4 .. 4)")
                            ->check(CLI::Range(-4.0, 4.0));
  auto* claheOption = app.add_option("--clahe", clahe, "CLAHE clip limit on the luma (1 .. 100)")
                          ->check(CLI::Range(1.0, 100.0));
  app.add_option("--matrix", matrixText,
                 "colour matrix m0,...,m8[:scale], m[3i+j] from channel i to j");
  app.add_option("--mask", maskFile, "rectangles 'xmin xmax ymin ymax' per line; black outside")
      ->check(CLI::ExistingFile);
  app.add_flag("-q,--quiet", quiet, "no progress display");

  try {
    app.parse(argc, argv);
  } catch (CLI::CallForHelp const& e) {
    return app.exit(e);
  } catch (CLI::ParseError const& e) {
    std::fprintf(stderr, "quorvel-render: error: %s\n", e.what());
    return kUsageStatus;
  }

  try {
    // Everything that can be refused is checked before any work.
    if (!writableExtension(output)) {
      throw UsageError("-o " + output + ": the output name must end in .png, .tif or .tiff");
    }
    if (!compare.empty() && !writableExtension(compare)) {
      throw UsageError("--compare " + compare + ": the name must end in .png, .tif or .tiff");
    }
    bool const linear = gammaMode == "linear";
    size_t const maxLevel = linear ? 255 : 4095;
    display.gamma = gammaOption->count() + blackOption->count() + whiteOption->count() > 0;
    display.gammaMode =
        linear ? DisplayOptions::GammaMode::kLinear16 : DisplayOptions::GammaMode::kSrgb8;
    display.gammaValue = gamma;
    display.black = black;
    display.white = whiteOption->count() ? white : maxLevel;
    if (display.black > maxLevel || display.white > maxLevel) {
      throw UsageError("--black/--white must lie in [0, " + std::to_string(maxLevel) +
                       "] with --gamma-mode " + gammaMode);
    }
    if (display.black >= display.white) throw UsageError("--black must be below --white");
    if (sharpenOption->count()) display.sharpenGain = sharpen;
    if (claheOption->count()) display.claheLimit = clahe;
    if (!matrixText.empty()) parseMatrix(matrixText, display);
    if (!maskFile.empty()) display.mask = readMask(maskFile);

    Progress progress(stderr, !quiet);
    auto start = Clock::now();
    Image source;
    if (input.empty()) {
      source = defaultImage(kDefaultImageSize, kDefaultImageSize, options.threads);
    } else {
      try {
        source = readImage(input);
      } catch (ImageError const& e) {
        throw UsageError(e.what());
      }
    }
    double const decodeSeconds = secondsSince(start);
    std::printf("quorvel-render: %s, %zu x %zu, tiles of %zu, %zu levels, %zu workers\n",
                input.empty() ? "built-in slide" : input.c_str(), source.width, source.height,
                options.tile, options.levels, options.threads);
    std::fflush(stdout);

    StageTimes times;
    Image const result = renderImage(source, options, progress, times);

    start = Clock::now();
    writeImage(output, result);
    if (!compare.empty()) writeImage(compare, sideBySide(source, result));
    double const writeSeconds = secondsSince(start);

    double const pixels = double(source.width) * source.height;
    std::printf("summary\n");
    std::printf("  tiles         %zu in %zu wave%s\n", times.tiles, times.waves,
                times.waves == 1 ? "" : "s");
    std::printf("  pixels        %.1f Mpixel\n", pixels / 1e6);
    std::printf("  decode input  %7.3f s\n", decodeSeconds);
    std::printf("  encode        %7.3f s\n", times.encode);
    std::printf("  upload        %7.3f s\n", times.upload);
    std::printf("  render        %7.3f s  %.0f tiles/s  %.1f Mpixel/s\n", times.render,
                times.tiles / times.render, pixels / 1e6 / times.render);
    std::printf("  write         %7.3f s\n", writeSeconds);
    std::printf("  peak memory   %zu MiB\n", peakMemoryMiB());

    int status = 0;
    if (display.any()) {
      std::printf("lossless: not checked (display filters change the pixels)\n");
    } else {
      size_t x = 0, y = 0;
      if (findDifference(source, result, x, y)) {
        uint8_t const *a = source.pixel(x, y), *b = result.pixel(x, y);
        std::printf(
            "lossless: no, first difference at (%zu, %zu): input %u %u %u, output %u %u %u\n", x, y,
            a[0], a[1], a[2], b[0], b[1], b[2]);
        status = 1;
      } else {
        std::printf("lossless: yes\n");
      }
    }
    std::printf("wrote %s\n", output.c_str());
    if (!compare.empty()) std::printf("wrote %s (input left, output right)\n", compare.c_str());
    return status;
  } catch (UsageError const& e) {
    std::fprintf(stderr, "quorvel-render: error: %s\n", e.what());
    return kUsageStatus;
  } catch (ImageError const& e) {
    std::fprintf(stderr, "quorvel-render: error: %s\n", e.what());
    return kUsageStatus;
  } catch (std::exception const& e) {
    std::fprintf(stderr, "quorvel-render: failed: %s\n", quorvel::formatException(e).c_str());
    return 1;
  }
}

}  // namespace

int main(int argc, char** argv) { return run(argc, argv); }
