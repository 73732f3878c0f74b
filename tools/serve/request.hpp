#pragma once
// What a request asks the server for: the endpoint a path names, an IIIF image request resolved
// against an image's size, a Deep Zoom tile, and the display parameters of a query string. Pure
// functions of their arguments: nothing here touches the file system or the network, so every
// refusal is decided before any work and the parser can be fuzzed on its own.

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "formats.hpp"
#include "quorvel/zoom/display.hpp"
#include "quorvel/zoom/geometry.hpp"

namespace quorvel::serve {

/// A refused request: the HTTP status to answer (400, 404, ...) and a one-line reason.
class RequestError : public std::runtime_error {
 public:
  RequestError(int status, std::string const& reason);
  /// The HTTP status the server answers with.
  int status() const { return status_; }

 private:
  int status_;
};

/// The file extension of a format as IIIF and Deep Zoom URLs spell it: "jpg", "png", "webp".
char const* extensionOf(Format format);
/// The media type of a format for Content-Type: "image/jpeg", "image/png", "image/webp".
char const* mediaTypeOf(Format format);
/// The format an extension names (exactly "jpg", "png" or "webp"), or nothing.
std::optional<Format> formatFromExtension(std::string_view extension);
/// The IIIF name of a quality: "default", "color", "gray", "bitonal".
char const* qualityName(Quality quality);
/// The quality an IIIF quality name names, or nothing.
std::optional<Quality> qualityFromName(std::string_view name);

/// What a (percent-decoded) request path asks for.
struct Route {
  enum class Kind {
    kIndex,      // "/"
    kHealth,     // "/healthz"
    kMetrics,    // "/metrics"
    kView,       // "/view/{id}"
    kAsset,      // "/static/{asset}"
    kIiifBase,   // "/iiif/3/{id}" (also with a trailing slash): redirect to info.json
    kIiifInfo,   // "/iiif/3/{id}/info.json"
    kIiifImage,  // "/iiif/3/{id}/{region}/{size}/{rotation}/{quality}.{format}"
    kDziInfo,    // "/dzi/{id}.dzi"
    kDziTile,    // "/dzi/{id}_files/{level}/{col}_{row}.{format}"
  };
  Kind kind = Kind::kIndex;
  /// The image identifier: not empty, [A-Za-z0-9._-] only, not "." or "..".
  std::string id;
  /// kIiifImage: the region, size and rotation segments as given (their syntax already checked).
  std::string region, size, rotation;
  /// kIiifImage and kDziTile.
  Quality quality = Quality::kDefault;
  Format format = Format::kJpeg;
  /// kDziTile: the Deep Zoom level as in the URL (0 = the 1 x 1 level), column and row.
  size_t level = 0, col = 0, row = 0;
  /// kAsset: a relative path of segments of [A-Za-z0-9._-], none of them "." or "..".
  std::string asset;
};

/// The endpoint a percent-decoded path names. Throws RequestError: 404 for a path that names no
/// endpoint (or an identifier no image can have), 400 for a malformed IIIF or Deep Zoom form.
/// Never touches the file system.
Route parseRoute(std::string_view path);

/// Server limits advertised in info.json; maxArea is the server's --max-pixels.
struct Limits {
  size_t maxWidth, maxHeight, maxArea;
};

/// A resolved IIIF image request.
struct ImageRequest {
  zoom::Rect region;     // level-0 pixels, inside the image
  size_t width, height;  // the scaled region's size, before rotation
  unsigned rotation;     // 0, 90, 180 or 270, clockwise
  bool mirror;           // mirrored horizontally before rotating (the "!" form)
  Quality quality;
  Format format;
};

/// Resolves a kIiifImage route against an image of the given size. Sides are rounded to the
/// nearest pixel (halves up), except that a tile of the advertised 256-pixel grid at scale factor
/// s asked for by one side gets ceil(other side / s) for the other. RequestError 400 for a region
/// that is empty or wholly outside the image (one partly outside is cropped), a size under a
/// pixel, upscaling without "^", a size over the limits (max, ^max and !w,h are scaled down to
/// fit them instead), and any rotation but the right angles.
ImageRequest resolveIiif(Route const& route, size_t imageWidth, size_t imageHeight,
                         Limits const& limits);

/// The pixel size of IIIF and Deep Zoom tiles.
inline constexpr size_t kTileSize = 256;
/// The pixels a Deep Zoom tile reaches into each neighbour.
inline constexpr size_t kDziOverlap = 1;

/// The top Deep Zoom level of an image, ceil(log2(max(w, h))): the full-resolution one.
size_t dziTopLevel(size_t imageWidth, size_t imageHeight);

/// A resolved Deep Zoom tile: our zoom level (0 = full resolution; DZI level L of an image whose
/// top DZI level is M is our level M - L) and the tile's rectangle in that level's pixels,
/// including the overlap (tile size 256, overlap 1 on every side that has a neighbour).
struct DziTile {
  size_t level;
  zoom::Rect rect;
  Format format;
};

/// Resolves a kDziTile route against an image of the given size; RequestError 400 for a level,
/// column or row outside the image.
DziTile resolveDzi(Route const& route, size_t imageWidth, size_t imageHeight);

/// The display parameters of a query string's (already decoded) name/value pairs: gamma, black,
/// white, gamma-mode=srgb|linear, sharpen, clahe, matrix=m0,...,m8[:scale], with the names,
/// ranges and meaning of the command-line tool's options. RequestError 400 naming the parameter
/// for an unknown or repeated name, an empty or malformed number, or a value out of range.
zoom::Display parseDisplay(std::vector<std::pair<std::string, std::string>> const& query);

}  // namespace quorvel::serve
