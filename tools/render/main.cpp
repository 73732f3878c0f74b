// quorvel-render: renders any zoom level (or a region of it) of an image through the render
// backend as a deep-zoom viewer does, and checks that full resolution comes back exact.

#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <quorvel/render.hpp>
#include <quorvel/zoom/renderer.hpp>
#include <sstream>
#include <thread>

#include "image_io.hpp"
#include "progress.hpp"

namespace {

using namespace quorvel::tool;
using namespace quorvel::zoom;
using Clock = std::chrono::steady_clock;

constexpr int kUsageStatus = 2;
// Edge of the built-in slide.
constexpr size_t kDefaultSlide = 4096;
// Output images are assembled in memory; beyond this many pixels (8 GiB of RGBA8) the
// program asks for a reduced level or a region instead.
constexpr uint64_t kMaxOutputPixels = uint64_t{1} << 31;

/// A request the program refuses (exit status 2), with a one-line reason.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// One rectangle "xmin xmax ymin ymax" per line, in full-resolution pixels; blank lines and
// lines starting with '#' are skipped.
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
    std::string const where = "mask file '" + path + "' line " + std::to_string(number);
    if (!(fields >> v[0] >> v[1] >> v[2] >> v[3]) || (fields >> rest)) {
      throw UsageError(where + ": expected four integers xmin xmax ymin ymax");
    }
    for (long long x : v) {
      if (x < 0 || x > 0xffffffffLL) {
        throw UsageError(where + ": coordinates must lie in [0, 4294967295]");
      }
    }
    if (v[0] > v[1] || v[2] > v[3]) throw UsageError(where + ": xmin > xmax or ymin > ymax");
    rects.push_back({uint32_t(v[0]), uint32_t(v[1]), uint32_t(v[2]), uint32_t(v[3])});
  }
  return rects;
}

// "x,y,w,h" in pixels of the level written.
Rect parseRegion(std::string const& text) {
  std::istringstream in(text);
  size_t v[4];
  char comma[3];
  if (!(in >> v[0] >> comma[0] >> v[1] >> comma[1] >> v[2] >> comma[2] >> v[3]) ||
      comma[0] != ',' || comma[1] != ',' || comma[2] != ',' || !in.eof() || v[2] == 0 ||
      v[3] == 0) {
    throw UsageError("--region '" + text + "': expected x,y,w,h with w and h above 0");
  }
  return {v[0], v[1], v[2], v[3]};
}

size_t peakMemoryMiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<size_t>(usage.ru_maxrss) / 1024;  // ru_maxrss is in KiB on Linux
}

// Renders `region` of `level` in bands of output-tile rows, reporting progress.
Image renderRegion(Renderer const& renderer, size_t level, Rect const& region,
                   Display const& display, Progress& progress, char const* stage) {
  Image out;
  out.width = region.width;
  out.height = region.height;
  out.rgba.resize(region.width * region.height * 4);
  size_t const band = 256;
  size_t const bands = (region.height + band - 1) / band;
  progress.start(stage, bands);
  for (size_t i = 0; i < bands; ++i) {
    size_t const y = region.y + i * band, h = std::min(band, region.bottom() - y);
    renderer.render(level, {region.x, y, region.width, h}, display, out.pixel(0, i * band),
                    region.width * 4);
    progress.update(i + 1);
  }
  progress.finish(bands);
  return out;
}

// The first pixel whose colour differs from the source's own level-0 pixels.
bool findDifference(ImageSource const& source, Rect const& region, Image const& image, size_t& x,
                    size_t& y) {
  std::vector<uint8_t> row(region.width * 4);
  for (y = 0; y < region.height; ++y) {
    source.read(0, {region.x, region.y + y, region.width, 1}, row.data());
    for (x = 0; x < region.width; ++x) {
      if (std::memcmp(&row[x * 4], image.pixel(x, y), 3) != 0) return true;
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
      "Renders an image through the Quorvel render backend as a deep-zoom viewer does: the "
      "image is encoded as 16-bit wavelet tiles of whole-level transforms on first use, and any "
      "zoom level (or a region of it) is rendered on the worker threads with the display "
      "filters asked for, the same however it is cut into tiles. The input's own levels are "
      "drawn from its pixels unless --through-transform is given. "
      "At full resolution and without display filters the result must equal the input bit "
      "for bit."};
  app.get_formatter()->column_width(34);
  std::string input, output = "out/render.png", compare, maskFile, matrixText, regionText,
                     gammaMode = "srgb";
  size_t tile = 256, levels = 3, cacheMb = 256, level = 0;
  size_t threads = std::max(1u, std::thread::hardware_concurrency());
  double gamma = 1.0, sharpen = 0, clahe = 0;
  size_t black = 0, white = 0;
  bool quiet = false, throughTransform = false;

  app.add_option("INPUT", input,
                 "PNG, JPEG, TIFF (tiled, pyramidal, BigTIFF) or whole-slide image "
                 "(default: a generated 4096 x 4096 slide)")
      ->check(CLI::ExistingFile);
  app.add_option("-o,--output", output, "output image, .png or .tif (default: out/render.png)");
  app.add_option("--compare", compare,
                 "also write the same region without display filters (left) beside the output");
  app.add_option("--level", level, "zoom level to write: the image reduced 2^K times (default 0)");
  app.add_option("--region", regionText, "write only x,y,w,h of the level (default: all of it)");
  app.add_option("--tile", tile, "encoder tile edge in pixels (default: 256)")
      ->check(CLI::Range(size_t{8}, size_t{4096}));
  app.add_option("--levels", levels, "wavelet levels per transform (default: 3)")
      ->check(CLI::Range(size_t{1}, size_t{5}));
  app.add_option("--threads", threads, "backend worker threads (default: all cores)")
      ->check(CLI::Range(size_t{1}, size_t{64}));
  app.add_option("--cache-mb", cacheMb, "tile cache capacity in MiB (default: 256)")
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
  app.add_option("--mask", maskFile,
                 "rectangles 'xmin xmax ymin ymax' per line, in full-resolution pixels; black "
                 "outside")
      ->check(CLI::ExistingFile);
  app.add_flag("--through-transform", throughTransform,
               "render every level through the wavelet, the input's own levels too (checks the "
               "round trip)");
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
    Display display;
    bool const linear = gammaMode == "linear";
    display.gammaMode = linear ? Display::GammaMode::kLinear : Display::GammaMode::kSrgb;
    size_t const maxLevel = display.maxLevel();
    auto given = [](CLI::Option const* option, auto value) {
      return option->count() ? std::optional(value) : std::nullopt;
    };
    display.setLevels(given(gammaOption, gamma), given(blackOption, black),
                      given(whiteOption, white));
    if (display.black > maxLevel || display.white > maxLevel) {
      throw UsageError("--black/--white must lie in [0, " + std::to_string(maxLevel) +
                       "] with --gamma-mode " + gammaMode);
    }
    if (display.black >= display.white) throw UsageError("--black must be below --white");
    if (sharpenOption->count()) display.sharpen = sharpen;
    if (claheOption->count()) display.clahe = clahe;
    if (!matrixText.empty()) {
      try {
        parseMatrix(matrixText, display);
        display.validate();
      } catch (DisplayError const& e) {
        throw UsageError(std::string("--") + e.what());
      }
    }
    if (!maskFile.empty()) display.mask = readMask(maskFile);

    Progress progress(stderr, !quiet);
    auto start = Clock::now();
    std::shared_ptr<ImageSource> source;
    if (input.empty()) {
      source = std::make_shared<ProceduralSlide>(kDefaultSlide, kDefaultSlide);
    } else {
      try {
        source = openImageFile(input);
      } catch (SourceError const& e) {
        throw UsageError(e.what());
      }
    }
    auto engine = std::make_shared<Engine>(EngineOptions{threads, cacheMb << 20});
    std::unique_ptr<Renderer> renderer;
    try {
      RendererOptions options{tile, levels, 256};
      options.pixelTiles = !throughTransform;
      renderer = std::make_unique<Renderer>(engine, source, options);
    } catch (std::invalid_argument const& e) {
      throw UsageError(std::string("--tile/--levels: ") + e.what());
    }
    double const openSeconds = secondsSince(start);
    if (level >= renderer->levels()) {
      throw UsageError("--level " + std::to_string(level) + ": this image has levels 0 to " +
                       std::to_string(renderer->levels() - 1));
    }
    Rect const whole{0, 0, renderer->width(level), renderer->height(level)};
    Rect const region = regionText.empty() ? whole : parseRegion(regionText);
    if (!whole.contains(region)) {
      throw UsageError("--region " + regionText + " is not inside level " + std::to_string(level) +
                       " (" + std::to_string(whole.width) + " x " + std::to_string(whole.height) +
                       ")");
    }
    if (uint64_t(region.width) * region.height > kMaxOutputPixels) {
      throw UsageError("the output would have " + std::to_string(region.width) + " x " +
                       std::to_string(region.height) +
                       " pixels; write a reduced --level or a --region");
    }
    std::printf(
        "quorvel-render: %s, %zu x %zu, level %zu (%zu x %zu), tiles of %zu, %zu levels, "
        "%zu workers\n",
        input.empty() ? "built-in slide" : input.c_str(), source->width(), source->height(), level,
        whole.width, whole.height, tile, levels, threads);
    std::fflush(stdout);

    start = Clock::now();
    Image const result = renderRegion(*renderer, level, region, display, progress, "render");
    double const renderSeconds = secondsSince(start);
    EngineStats const stats = engine->stats();
    RenderCounters const counters = renderer->counters();

    start = Clock::now();
    writeImage(output, result);
    if (!compare.empty()) {
      Image const plain =
          display.any() ? renderRegion(*renderer, level, region, {}, progress, "compare") : result;
      writeImage(compare, sideBySide(plain, result));
    }
    double const writeSeconds = secondsSince(start);

    double const pixels = double(region.width) * region.height;
    size_t const tiles = stats.tilesRendered;
    std::printf("summary\n");
    std::printf("  output        %.1f Mpixel in %zu tiles of up to 256\n", pixels / 1e6, tiles);
    std::printf("  open          %7.3f s\n", openSeconds);
    std::printf("  render        %7.3f s  %.0f tiles/s  %.1f Mpixel/s\n", renderSeconds,
                tiles / renderSeconds, pixels / 1e6 / renderSeconds);
    if (counters.reconstructed == 0) {
      std::printf("  encoded       none: drawn from the input's own pixels (%zu tiles read)\n",
                  stats.tileMisses);
    } else {
      std::printf("  encoded       %zu blocks (%zu tile groups)\n", stats.blocksEncoded,
                  stats.tileMisses);
      std::printf("  margins       %.3f pixels reconstructed per pixel delivered\n",
                  double(counters.reconstructed) / double(counters.delivered));
    }
    std::printf("  write         %7.3f s\n", writeSeconds);
    std::printf("  peak memory   %zu MiB\n", peakMemoryMiB());

    int status = 0;
    if (display.any()) {
      std::printf("lossless: not checked (display filters change the pixels)\n");
    } else if (level > 0) {
      std::printf("lossless: not checked (level %zu is a reduction)\n", level);
    } else {
      size_t x = 0, y = 0;
      if (findDifference(*source, region, result, x, y)) {
        std::vector<uint8_t> a(4);
        source->read(0, {region.x + x, region.y + y, 1, 1}, a.data());
        uint8_t const* b = result.pixel(x, y);
        std::printf(
            "lossless: no, first difference at (%zu, %zu): input %u %u %u, output %u %u %u\n",
            region.x + x, region.y + y, a[0], a[1], a[2], b[0], b[1], b[2]);
        status = 1;
      } else {
        std::printf(throughTransform
                        ? "lossless: yes\n"
                        : "lossless: yes (drawn from the input's own pixels; --through-transform "
                          "checks the wavelet)\n");
      }
    }
    std::printf("wrote %s\n", output.c_str());
    if (!compare.empty())
      std::printf("wrote %s (unfiltered left, output right)\n", compare.c_str());
    return status;
  } catch (UsageError const& e) {
    std::fprintf(stderr, "quorvel-render: error: %s\n", e.what());
    return kUsageStatus;
  } catch (ImageError const& e) {
    std::fprintf(stderr, "quorvel-render: error: %s\n", e.what());
    return kUsageStatus;
  } catch (SourceError const& e) {
    std::fprintf(stderr, "quorvel-render: error: %s\n", e.what());
    return kUsageStatus;
  } catch (std::exception const& e) {
    std::fprintf(stderr, "quorvel-render: failed: %s\n", quorvel::formatException(e).c_str());
    return 1;
  }
}

}  // namespace

int main(int argc, char** argv) { return run(argc, argv); }
