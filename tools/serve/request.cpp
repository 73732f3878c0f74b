#include "request.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>

#include "request_text.hpp"

namespace quorvel::serve {
namespace {

// Products of two 64-bit sizes, exact: every size rule compares or divides them.
__extension__ typedef unsigned __int128 Wide;

constexpr size_t kSizeMax = std::numeric_limits<size_t>::max();

using text::badRequest;
using text::notFound;
using text::parseDecimal;
using text::parseWhole;
using text::shown;
using text::split;

std::string str(Wide v) {
  if (v <= kSizeMax) return std::to_string(static_cast<size_t>(v));
  return "more than " + std::to_string(kSizeMax);
}

bool nameCharacter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
         c == '_' || c == '-';
}

// A path segment that can name a file and nothing else: no separator, no traversal.
bool safeName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." &&
         std::all_of(name.begin(), name.end(), nameCharacter);
}

std::string identifier(std::string_view id) {
  if (!safeName(id)) notFound("no image is named " + shown(id));
  return std::string(id);
}

bool endsWith(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

// ---- IIIF parameters -------------------------------------------------------------------------

struct RegionForm {
  enum class Kind { kFull, kSquare, kPixels, kPercent } kind = Kind::kFull;
  uint64_t pixels[4] = {};
  double percent[4] = {};
};

struct SizeForm {
  enum class Kind { kMax, kWidth, kHeight, kPercent, kExact, kConfined } kind = Kind::kMax;
  bool upscale = false;
  uint64_t width = 0, height = 0;
  double percent = 0;
};

struct RotationForm {
  unsigned degrees = 0;
  bool mirror = false;
};

RegionForm parseRegion(std::string_view text) {
  RegionForm form;
  if (text == "full") return form;
  if (text == "square") {
    form.kind = RegionForm::Kind::kSquare;
    return form;
  }
  bool const percent = text.substr(0, 4) == "pct:";
  auto const parts = split(percent ? text.substr(4) : text, ',');
  auto fail = [&] {
    badRequest("region " + shown(text) + ": expected full, square, x,y,w,h or pct:x,y,w,h");
  };
  if (parts.size() != 4) fail();
  form.kind = percent ? RegionForm::Kind::kPercent : RegionForm::Kind::kPixels;
  for (size_t i = 0; i < 4; ++i) {
    if (percent) {
      auto const value = parseDecimal(parts[i]);
      if (!value) fail();
      form.percent[i] = *value;
    } else {
      auto const value = parseWhole(parts[i]);
      if (!value) fail();
      form.pixels[i] = *value;
    }
  }
  return form;
}

SizeForm parseSize(std::string_view text) {
  SizeForm form;
  std::string_view rest = text;
  if (!rest.empty() && rest[0] == '^') {
    form.upscale = true;
    rest.remove_prefix(1);
  }
  auto fail = [&] {
    badRequest("size " + shown(text) +
               ": expected max, w,, ,h, pct:n, w,h or !w,h, each with an optional ^");
  };
  if (rest == "max") return form;
  if (rest.substr(0, 4) == "pct:") {
    auto const value = parseDecimal(rest.substr(4));
    if (!value) fail();
    form.kind = SizeForm::Kind::kPercent;
    form.percent = *value;
    return form;
  }
  bool const confined = !rest.empty() && rest[0] == '!';
  if (confined) rest.remove_prefix(1);
  auto const parts = split(rest, ',');
  if (parts.size() != 2) fail();
  auto const width = parseWhole(parts[0]), height = parseWhole(parts[1]);
  if ((!parts[0].empty() && !width) || (!parts[1].empty() && !height)) fail();
  if (width && height) {
    form.kind = confined ? SizeForm::Kind::kConfined : SizeForm::Kind::kExact;
  } else if (width && !confined) {
    form.kind = SizeForm::Kind::kWidth;
  } else if (height && !confined) {
    form.kind = SizeForm::Kind::kHeight;
  } else {
    fail();
  }
  form.width = width.value_or(0);
  form.height = height.value_or(0);
  return form;
}

RotationForm parseRotation(std::string_view text) {
  RotationForm form;
  std::string_view rest = text;
  if (!rest.empty() && rest[0] == '!') {
    form.mirror = true;
    rest.remove_prefix(1);
  }
  auto const value = parseDecimal(rest);
  if (!value || *value > 360) {
    badRequest("rotation " + shown(text) + ": expected degrees from 0 to 360, optionally after !");
  }
  // A whole turn is no turn; every other angle off the right angles would need a background.
  double const turns = *value == 360 ? 0 : *value / 90;
  if (turns != std::floor(turns)) {
    badRequest("rotation " + shown(text) + ": only multiples of 90 degrees are served");
  }
  form.degrees = static_cast<unsigned>(turns) * 90;
  return form;
}

// ---- Resolution ------------------------------------------------------------------------------

// Rounds a real number of pixels to the nearest (halves up); callers compare it with a bound
// before converting, so a huge value never wraps.
long double nearest(long double v) { return std::floor(v + 0.5L); }

Wide roundedQuotient(Wide numerator, Wide denominator) {
  return (numerator + denominator / 2) / denominator;
}

zoom::Rect resolveRegion(RegionForm const& form, std::string const& text, size_t imageWidth,
                         size_t imageHeight) {
  switch (form.kind) {
    case RegionForm::Kind::kFull:
      return {0, 0, imageWidth, imageHeight};
    case RegionForm::Kind::kSquare: {
      size_t const side = std::min(imageWidth, imageHeight);
      return {(imageWidth - side) / 2, (imageHeight - side) / 2, side, side};
    }
    case RegionForm::Kind::kPixels: {
      auto const* p = form.pixels;
      if (p[2] == 0 || p[3] == 0) badRequest("region " + shown(text) + " is empty");
      if (p[0] >= imageWidth || p[1] >= imageHeight) {
        badRequest("region " + shown(text) + " lies outside the image");
      }
      return {p[0], p[1], std::min<uint64_t>(p[2], imageWidth - p[0]),
              std::min<uint64_t>(p[3], imageHeight - p[1])};
    }
    case RegionForm::Kind::kPercent:
      break;
  }
  // Each percentage is rounded on its own, as the worked examples of the API do; a width or
  // height that is not zero covers at least one pixel.
  auto const* p = form.percent;
  if (p[2] == 0 || p[3] == 0) badRequest("region " + shown(text) + " is empty");
  long double const x = p[0] * static_cast<long double>(imageWidth) / 100;
  long double const y = p[1] * static_cast<long double>(imageHeight) / 100;
  if (x >= imageWidth || y >= imageHeight) {
    badRequest("region " + shown(text) + " lies outside the image");
  }
  // An origin inside the last pixel keeps that pixel, though it rounds to the edge.
  zoom::Rect r{std::min(static_cast<size_t>(nearest(x)), imageWidth - 1),
               std::min(static_cast<size_t>(nearest(y)), imageHeight - 1), 0, 0};
  auto extent = [](double percent, size_t image, size_t origin) {
    long double const v = nearest(percent * static_cast<long double>(image) / 100);
    if (v >= image - origin) return image - origin;
    return std::max<size_t>(1, static_cast<size_t>(v));
  };
  r.width = extent(p[2], imageWidth, r.x);
  r.height = extent(p[3], imageHeight, r.y);
  return r;
}

struct Scaled {
  Wide width, height;
};

// The largest size of the region's aspect ratio (sides to the nearest pixel) inside a box and
// an area, and inside the region itself unless upscaling; at least one pixel each way.
Scaled fit(size_t regionWidth, size_t regionHeight, size_t boxWidth, size_t boxHeight,
           size_t maxArea, bool upscale) {
  if (!upscale) {
    boxWidth = std::min(boxWidth, regionWidth);
    boxHeight = std::min(boxHeight, regionHeight);
  }
  Wide w, h;
  if (Wide{boxWidth} * regionHeight <= Wide{boxHeight} * regionWidth) {
    w = boxWidth;
    h = std::max<Wide>(1, roundedQuotient(Wide{regionHeight} * boxWidth, regionWidth));
  } else {
    h = boxHeight;
    w = std::max<Wide>(1, roundedQuotient(Wide{regionWidth} * boxHeight, regionHeight));
  }
  if (w * h <= maxArea) return {w, h};
  // Rounded down, so that the area is not passed by rounding; then cut to the exact limit.
  long double const scale = std::sqrt(static_cast<long double>(maxArea) /
                                      (static_cast<long double>(regionWidth) * regionHeight));
  w = std::clamp<Wide>(static_cast<Wide>(regionWidth * scale), 1, w);
  h = std::clamp<Wide>(static_cast<Wide>(regionHeight * scale), 1, h);
  if (w * h > maxArea) {
    if (h <= maxArea) {
      w = std::max<Wide>(1, maxArea / h);
    } else {
      w = 1;
      h = maxArea;
    }
  }
  return {w, h};
}

// The zoom level k at which `region` is a tile of the advertised grid (origin a multiple of
// 256 * 2^k, sides 256 * 2^k or up to the image's edge) whose side along one axis is `wanted`
// pixels at that level. A client that tiles by the grid asks for a tile by one side only and
// expects the other to be ceil(side / 2^k), which rounding the aspect ratio can miss by a lot
// on a narrow edge tile (1 x 1024 at k = 2 is 1 x 256, not 1 x 1024).
std::optional<size_t> gridLevel(zoom::Rect const& region, size_t imageWidth, size_t imageHeight,
                                size_t wanted, bool byWidth) {
  size_t const levels = zoom::levelCount(imageWidth, imageHeight);
  for (size_t k = 0; k < levels && k < 64; ++k) {
    size_t const scale = size_t{1} << k;
    size_t const step = scale > kSizeMax / kTileSize ? kSizeMax : scale * kTileSize;
    if (region.x % step != 0 || region.y % step != 0) continue;
    if (region.width != std::min(step, imageWidth - region.x) ||
        region.height != std::min(step, imageHeight - region.y)) {
      continue;
    }
    if (zoom::levelExtent(byWidth ? region.width : region.height, k) == wanted) return k;
  }
  return std::nullopt;
}

Scaled resolveSize(SizeForm const& form, std::string const& text, zoom::Rect const& region,
                   size_t imageWidth, size_t imageHeight, Limits const& limits) {
  size_t const rw = region.width, rh = region.height;
  auto upscaling = [&] {
    badRequest("size " + shown(text) + " is larger than the region (" + std::to_string(rw) + " x " +
               std::to_string(rh) + "); ask with ^ to upscale");
  };
  switch (form.kind) {
    case SizeForm::Kind::kMax:
      return fit(rw, rh, limits.maxWidth, limits.maxHeight, limits.maxArea, form.upscale);
    case SizeForm::Kind::kWidth:
    case SizeForm::Kind::kHeight: {
      bool const byWidth = form.kind == SizeForm::Kind::kWidth;
      size_t const given = byWidth ? form.width : form.height;
      size_t const along = byWidth ? rw : rh, across = byWidth ? rh : rw;
      if (given > along && !form.upscale) upscaling();
      Wide other;
      if (auto const k = gridLevel(region, imageWidth, imageHeight, given, byWidth)) {
        other = zoom::levelExtent(across, *k);
      } else {
        other = roundedQuotient(Wide{across} * given, along);
      }
      return byWidth ? Scaled{given, other} : Scaled{other, given};
    }
    case SizeForm::Kind::kPercent: {
      if (form.percent > 100 && !form.upscale) upscaling();
      // Compared with the limits before converting: ^pct:1e300 is refused, not wrapped.
      long double const w = nearest(rw * static_cast<long double>(form.percent) / 100);
      long double const h = nearest(rh * static_cast<long double>(form.percent) / 100);
      if (w > limits.maxWidth || h > limits.maxHeight) {
        badRequest("size " + shown(text) + " exceeds the server's limits (" +
                   std::to_string(limits.maxWidth) + " x " + std::to_string(limits.maxHeight) +
                   ")");
      }
      return {static_cast<Wide>(w), static_cast<Wide>(h)};
    }
    case SizeForm::Kind::kExact:
      if ((form.width > rw || form.height > rh) && !form.upscale) upscaling();
      return {form.width, form.height};
    case SizeForm::Kind::kConfined:
      if (form.width == 0 || form.height == 0) break;
      // The API bounds this form by the server's limits too, rather than refusing it.
      return fit(rw, rh, std::min<size_t>(form.width, limits.maxWidth),
                 std::min<size_t>(form.height, limits.maxHeight), limits.maxArea, form.upscale);
  }
  return {0, 0};
}

}  // namespace

RequestError::RequestError(int status, std::string const& reason)
    : std::runtime_error(reason), status_(status) {}

char const* extensionOf(Format format) {
  switch (format) {
    case Format::kPng:
      return "png";
    case Format::kWebp:
      return "webp";
    case Format::kJpeg:
      break;
  }
  return "jpg";
}

char const* mediaTypeOf(Format format) {
  switch (format) {
    case Format::kPng:
      return "image/png";
    case Format::kWebp:
      return "image/webp";
    case Format::kJpeg:
      break;
  }
  return "image/jpeg";
}

std::optional<Format> formatFromExtension(std::string_view extension) {
  for (Format f : {Format::kJpeg, Format::kPng, Format::kWebp}) {
    if (extension == extensionOf(f)) return f;
  }
  return std::nullopt;
}

char const* qualityName(Quality quality) {
  switch (quality) {
    case Quality::kColor:
      return "color";
    case Quality::kGray:
      return "gray";
    case Quality::kBitonal:
      return "bitonal";
    case Quality::kDefault:
      break;
  }
  return "default";
}

std::optional<Quality> qualityFromName(std::string_view name) {
  for (Quality q : {Quality::kDefault, Quality::kColor, Quality::kGray, Quality::kBitonal}) {
    if (name == qualityName(q)) return q;
  }
  return std::nullopt;
}

Route parseRoute(std::string_view path) {
  if (path.empty() || path[0] != '/') notFound("a request path starts with /");
  Route route;
  if (path == "/") return route;
  auto const segments = split(path.substr(1), '/');
  auto const count = segments.size();
  // Empty segments name nothing; the one exception is the IIIF base URI's trailing slash,
  // which the redirect to info.json makes canonical.
  bool const iiif = count >= 2 && segments[0] == "iiif" && segments[1] == "3";
  for (size_t i = 0; i < count; ++i) {
    if (segments[i].empty() && !(iiif && count == 4 && i == 3)) {
      notFound("no endpoint at " + shown(path));
    }
  }
  auto const& head = segments[0];
  if (count == 1 && head == "healthz") {
    route.kind = Route::Kind::kHealth;
  } else if (count == 1 && head == "metrics") {
    route.kind = Route::Kind::kMetrics;
  } else if (count == 2 && head == "view") {
    route.kind = Route::Kind::kView;
    route.id = identifier(segments[1]);
  } else if (count >= 2 && head == "static") {
    route.kind = Route::Kind::kAsset;
    for (size_t i = 1; i < count; ++i) {
      if (!safeName(segments[i])) notFound("no asset at " + shown(path));
      route.asset += (i > 1 ? "/" : "") + std::string(segments[i]);
    }
  } else if (iiif && (count == 3 || (count == 4 && segments[3].empty()))) {
    route.kind = Route::Kind::kIiifBase;
    route.id = identifier(segments[2]);
  } else if (iiif && count == 4 && segments[3] == "info.json") {
    route.kind = Route::Kind::kIiifInfo;
    route.id = identifier(segments[2]);
  } else if (iiif && count == 7) {
    route.kind = Route::Kind::kIiifImage;
    route.id = identifier(segments[2]);
    route.region = segments[3];
    route.size = segments[4];
    route.rotation = segments[5];
    // Syntax is checked here so that a malformed request is refused before any image is opened.
    parseRegion(route.region);
    parseSize(route.size);
    parseRotation(route.rotation);
    auto const& last = segments[6];
    size_t const dot = last.find('.');
    auto const quality = qualityFromName(last.substr(0, dot));
    if (!quality) {
      badRequest("quality " + shown(last.substr(0, dot)) +
                 ": expected default, color, gray or bitonal");
    }
    auto const format =
        dot == std::string_view::npos ? std::nullopt : formatFromExtension(last.substr(dot + 1));
    if (!format) {
      badRequest("format of " + shown(last) + ": expected jpg, png or webp");
    }
    route.quality = *quality;
    route.format = *format;
  } else if (count == 2 && head == "dzi" && endsWith(segments[1], ".dzi")) {
    route.kind = Route::Kind::kDziInfo;
    route.id = identifier(segments[1].substr(0, segments[1].size() - 4));
  } else if (count == 4 && head == "dzi" && endsWith(segments[1], "_files")) {
    route.kind = Route::Kind::kDziTile;
    route.id = identifier(segments[1].substr(0, segments[1].size() - 6));
    auto const& last = segments[3];
    size_t const dot = last.find('.');
    auto const position = split(last.substr(0, dot), '_');
    auto const level = parseWhole(segments[2]);
    auto const col = position.size() == 2 ? parseWhole(position[0]) : std::nullopt;
    auto const row = position.size() == 2 ? parseWhole(position[1]) : std::nullopt;
    if (!level || !col || !row || dot == std::string_view::npos) {
      badRequest("Deep Zoom tile " + shown(path) + ": expected {level}/{col}_{row}.{format}");
    }
    auto const format = formatFromExtension(last.substr(dot + 1));
    if (!format) badRequest("format of " + shown(last) + ": expected jpg, png or webp");
    route.level = *level;
    route.col = *col;
    route.row = *row;
    route.format = *format;
  } else {
    notFound("no endpoint at " + shown(path));
  }
  return route;
}

ImageRequest resolveIiif(Route const& route, size_t imageWidth, size_t imageHeight,
                         Limits const& limits) {
  if (route.kind != Route::Kind::kIiifImage) {
    throw std::invalid_argument("resolveIiif needs an IIIF image route");
  }
  if (imageWidth == 0 || imageHeight == 0) throw std::invalid_argument("the image is empty");
  if (limits.maxWidth == 0 || limits.maxHeight == 0 || limits.maxArea == 0) {
    badRequest("the server's limits allow no image");
  }
  zoom::Rect const region =
      resolveRegion(parseRegion(route.region), route.region, imageWidth, imageHeight);
  Scaled const size =
      resolveSize(parseSize(route.size), route.size, region, imageWidth, imageHeight, limits);
  if (size.width == 0 || size.height == 0) {
    badRequest("size " + shown(route.size) + " makes the region (" + std::to_string(region.width) +
               " x " + std::to_string(region.height) + ") less than a pixel");
  }
  if (size.width > limits.maxWidth || size.height > limits.maxHeight ||
      size.width * size.height > limits.maxArea) {
    badRequest("size " + shown(route.size) + " (" + str(size.width) + " x " + str(size.height) +
               ") exceeds the server's limits (" + std::to_string(limits.maxWidth) + " x " +
               std::to_string(limits.maxHeight) + ", " + std::to_string(limits.maxArea) +
               " pixels)");
  }
  RotationForm const rotation = parseRotation(route.rotation);
  return {region,
          static_cast<size_t>(size.width),
          static_cast<size_t>(size.height),
          rotation.degrees,
          rotation.mirror,
          route.quality,
          route.format};
}

size_t dziTopLevel(size_t imageWidth, size_t imageHeight) {
  return zoom::levelCount(imageWidth, imageHeight) - 1;
}

DziTile resolveDzi(Route const& route, size_t imageWidth, size_t imageHeight) {
  if (route.kind != Route::Kind::kDziTile) {
    throw std::invalid_argument("resolveDzi needs a Deep Zoom tile route");
  }
  if (imageWidth == 0 || imageHeight == 0) throw std::invalid_argument("the image is empty");
  size_t const top = dziTopLevel(imageWidth, imageHeight);
  if (route.level > top) {
    badRequest("Deep Zoom level " + std::to_string(route.level) +
               " is past the image's top level " + std::to_string(top));
  }
  size_t const level = top - route.level;
  size_t const width = zoom::levelExtent(imageWidth, level);
  size_t const height = zoom::levelExtent(imageHeight, level);
  auto tiles = [](size_t extent) { return extent / kTileSize + (extent % kTileSize != 0); };
  size_t const cols = tiles(width), rows = tiles(height);
  if (route.col >= cols || route.row >= rows) {
    badRequest("Deep Zoom tile " + std::to_string(route.col) + "_" + std::to_string(route.row) +
               " lies outside level " + std::to_string(route.level) + " (" + std::to_string(cols) +
               " x " + std::to_string(rows) + " tiles)");
  }
  // The tile's own 256 pixels, widened by the overlap toward every neighbour it has.
  auto span = [](size_t index, size_t extent) {
    size_t const own = index * kTileSize;
    size_t const begin = own - (index > 0 ? kDziOverlap : 0);
    size_t const end = own + std::min(extent - own, kTileSize + kDziOverlap);
    return std::pair{begin, end - begin};
  };
  auto const [x, w] = span(route.col, width);
  auto const [y, h] = span(route.row, height);
  return {level, {x, y, w, h}, route.format};
}

}  // namespace quorvel::serve
