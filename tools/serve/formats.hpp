#pragma once
// What a response is encoded as and which qualities of the pixels it carries; shared by the
// request parser, the imaging code and the server.

namespace quorvel::serve {

/// Encoded image formats, by their IIIF and Deep Zoom extensions.
enum class Format { kJpeg, kPng, kWebp };

/// IIIF qualities: default and color are the rendered RGB, gray its luma, bitonal the luma
/// thresholded to black and white.
enum class Quality { kDefault, kColor, kGray, kBitonal };

}  // namespace quorvel::serve
