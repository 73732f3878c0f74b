#include "descriptors.hpp"

#include "quorvel/zoom/geometry.hpp"

namespace quorvel::serve {
namespace {

// The length of the well-formed UTF-8 sequence at the start of `text`, or 0 when there is none
// (stray continuation bytes, overlong forms, surrogates, past U+10FFFF).
size_t utf8Length(std::string const& text, size_t at) {
  auto byte = [&](size_t i) {
    return at + i < text.size() ? static_cast<unsigned char>(text[at + i]) : 0u;
  };
  unsigned const lead = byte(0);
  auto continuation = [&](size_t i, unsigned lo = 0x80, unsigned hi = 0xbf) {
    return byte(i) >= lo && byte(i) <= hi;
  };
  if (lead < 0x80) return 1;
  if (lead >= 0xc2 && lead <= 0xdf) return continuation(1) ? 2 : 0;
  if (lead >= 0xe0 && lead <= 0xef) {
    unsigned const lo = lead == 0xe0 ? 0xa0 : 0x80, hi = lead == 0xed ? 0x9f : 0xbf;
    return continuation(1, lo, hi) && continuation(2) ? 3 : 0;
  }
  if (lead >= 0xf0 && lead <= 0xf4) {
    unsigned const lo = lead == 0xf0 ? 0x90 : 0x80, hi = lead == 0xf4 ? 0x8f : 0xbf;
    return continuation(1, lo, hi) && continuation(2) && continuation(3) ? 4 : 0;
  }
  return 0;
}

// A JSON string literal of `text`: quotes, backslashes and control characters escaped, and any
// byte that is not part of well-formed UTF-8 replaced by U+FFFD, so the document always parses.
std::string jsonString(std::string const& text) {
  static char const kHex[] = "0123456789abcdef";
  std::string out = "\"";
  for (size_t i = 0; i < text.size();) {
    auto const c = static_cast<unsigned char>(text[i]);
    size_t const length = utf8Length(text, i);
    if (length == 0) {
      out += "\\ufffd";
      ++i;
    } else if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
      ++i;
    } else if (c < 0x20 || c == 0x7f) {
      out += "\\u00";
      out += kHex[c >> 4];
      out += kHex[c & 15];
      ++i;
    } else {
      out.append(text, i, length);
      i += length;
    }
  }
  return out + "\"";
}

std::string sizeObject(size_t width, size_t height) {
  return "{\"type\": \"Size\", \"width\": " + std::to_string(width) +
         ", \"height\": " + std::to_string(height) + "}";
}

}  // namespace

std::string iiifInfo(std::string const& id, size_t width, size_t height, Limits const& limits) {
  auto fits = [&](size_t w, size_t h) {
    return w <= limits.maxWidth && h <= limits.maxHeight && (h == 0 || w <= limits.maxArea / h);
  };
  size_t const levels = zoom::levelCount(width, height);
  std::string sizes;
  for (size_t k = levels; k-- > 0;) {
    size_t const w = zoom::levelExtent(width, k), h = zoom::levelExtent(height, k);
    if (!fits(w, h)) continue;
    sizes += (sizes.empty() ? "\n    " : ",\n    ") + sizeObject(w, h);
  }
  // Scale factors stop at 2^63, the largest a 64-bit size holds; only absurd images get there.
  std::string factors;
  for (size_t k = 0; k < levels && k < 64; ++k) {
    factors += (k > 0 ? ", " : "") + std::to_string(size_t{1} << k);
  }
  std::string json = "{\n";
  json += "  \"@context\": \"http://iiif.io/api/image/3/context.json\",\n";
  json += "  \"id\": " + jsonString(id) + ",\n";
  json += "  \"type\": \"ImageService3\",\n";
  json += "  \"protocol\": \"http://iiif.io/api/image\",\n";
  json += "  \"profile\": \"level2\",\n";
  json += "  \"width\": " + std::to_string(width) + ",\n";
  json += "  \"height\": " + std::to_string(height) + ",\n";
  json += "  \"maxWidth\": " + std::to_string(limits.maxWidth) + ",\n";
  json += "  \"maxHeight\": " + std::to_string(limits.maxHeight) + ",\n";
  json += "  \"maxArea\": " + std::to_string(limits.maxArea) + ",\n";
  json += "  \"sizes\": [" + sizes + (sizes.empty() ? "],\n" : "\n  ],\n");
  // Every size advertised must lie within the limits: tiles only where a whole tile does.
  if (fits(kTileSize, kTileSize)) {
    json += "  \"tiles\": [\n    {\"type\": \"Tile\", \"width\": " + std::to_string(kTileSize) +
            ", \"height\": " + std::to_string(kTileSize) + ", \"scaleFactors\": [" + factors +
            "]}\n  ],\n";
  }
  // Qualities beyond default must all be listed; png is part of level 2, webp is not; the
  // features are those the level 2 profile leaves optional and this server serves (the server
  // sends the profile Link header with every image and info.json).
  json += "  \"extraQualities\": [\"color\", \"gray\", \"bitonal\"],\n";
  json += "  \"extraFormats\": [\"webp\"],\n";
  json += "  \"extraFeatures\": [\"mirroring\", \"profileLinkHeader\", \"sizeUpscaling\"]\n";
  json += "}\n";
  return json;
}

std::string dziXml(size_t width, size_t height, Format format) {
  return std::string("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n") +
         "<Image xmlns=\"http://schemas.microsoft.com/deepzoom/2008\" Format=\"" +
         extensionOf(format) + "\" Overlap=\"" + std::to_string(kDziOverlap) + "\" TileSize=\"" +
         std::to_string(kTileSize) + "\">\n  <Size Width=\"" + std::to_string(width) +
         "\" Height=\"" + std::to_string(height) + "\"/>\n</Image>\n";
}

}  // namespace quorvel::serve
