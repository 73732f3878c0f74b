#pragma once
// The documents that tell a viewer how to tile an image: the IIIF Image API 3.0 info.json and
// the Deep Zoom .dzi descriptor. Both are deterministic texts of their arguments, so they can be
// cached and given strong ETags.

#include <cstddef>
#include <string>

#include "formats.hpp"
#include "request.hpp"

namespace quorvel::serve {

/// The IIIF Image API 3.0 info.json of an image served at `id` (the full URI of the image
/// service, e.g. "http://127.0.0.1:8080/iiif/3/slide"): level 2 with the server's limits, every
/// zoom level's size that fits them (smallest first), the 256-pixel tile grid with one scale
/// factor per zoom level, and the qualities, formats and features beyond level 2. Valid JSON
/// whatever bytes `id` holds.
std::string iiifInfo(std::string const& id, size_t width, size_t height, Limits const& limits);

/// The .dzi XML of an image: TileSize 256, Overlap 1, the tiles' format and the image's size.
std::string dziXml(size_t width, size_t height, Format format);

}  // namespace quorvel::serve
