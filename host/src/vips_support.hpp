#pragma once
// What every use of libvips in the host layer shares: starting it once with the settings of
// this process, its error text, owning pointers, and copying a rectangle out of a pipeline.

#include <vips/vips.h>

#include <memory>
#include <string>

#include "quorvel/zoom/geometry.hpp"

namespace quorvel::zoom::vips {

struct Unref {
  void operator()(void* object) const { g_object_unref(object); }
};
using ImagePtr = std::unique_ptr<VipsImage, Unref>;
using RegionPtr = std::unique_ptr<VipsRegion, Unref>;

/// The first line of libvips' error buffer, which is then emptied. The buffer is shared by
/// the whole process, so under concurrent failures a message may belong to another thread;
/// it is only ever used as text for people. Thread-safe.
std::string takeError();

/// Starts libvips once; empty when it is ready, otherwise why it could not start.
/// Thread-safe.
std::string const& start();

/// Copies `rect` of `image` (rows packed, VIPS_IMAGE_SIZEOF_PEL bytes a pixel) through a
/// region of this call's own, in bands of rows so that the pipeline's buffers stay small
/// whatever the size of the rectangle. False (with the libvips error set) on failure.
/// Thread-safe for one image shared by many callers.
bool readPixels(VipsImage* image, Rect const& rect, uint8_t* out);

}  // namespace quorvel::zoom::vips
