#include "vips_support.hpp"

#include <algorithm>
#include <cstring>
#include <mutex>

namespace quorvel::zoom::vips {

std::string takeError() {
  char* all = vips_error_buffer_copy();
  std::string text = all ? all : "";
  g_free(all);
  text = text.substr(0, text.find('\n'));
  return text.empty() ? "libvips failed without a message" : text;
}

std::string const& start() {
  static std::once_flag once;
  static std::string failure;
  std::call_once(once, [] {
    if (VIPS_INIT("quorvel")) {
      failure = "cannot start libvips: " + takeError();
      return;
    }
    // Warnings (a truncated file, an odd tag) either become errors through fail_on or are
    // harmless; the user sees errors only.
    g_log_set_handler(
        "VIPS", G_LOG_LEVEL_WARNING, [](gchar const*, GLogLevelFlags, gchar const*, gpointer) {},
        nullptr);
    // The operation cache would keep decoded pipelines and open files of every image ever
    // opened; each source keeps its own pipelines alive instead.
    vips_cache_set_max(0);
    // Parallelism comes from the callers, each reading its own region; inside one call
    // libvips works on one thread, which also makes a decode error of a file that is
    // decoded whole (PNG, JPEG) reach the read that caused it every time.
    vips_concurrency_set(1);
  });
  return failure;
}

bool readPixels(VipsImage* image, Rect const& rect, uint8_t* out) {
  constexpr size_t kBandBytes = size_t{4} << 20;
  RegionPtr region(vips_region_new(image));
  if (!region) return false;
  size_t const rowBytes = rect.width * VIPS_IMAGE_SIZEOF_PEL(image);
  size_t const bandRows = std::max<size_t>(1, kBandBytes / rowBytes);
  for (size_t y = 0; y < rect.height; y += bandRows) {
    VipsRect const band{static_cast<int>(rect.x), static_cast<int>(rect.y + y),
                        static_cast<int>(rect.width),
                        static_cast<int>(std::min(bandRows, rect.height - y))};
    if (vips_region_prepare(region.get(), &band)) return false;
    for (int row = 0; row < band.height; ++row) {
      std::memcpy(out + (y + size_t(row)) * rowBytes,
                  VIPS_REGION_ADDR(region.get(), band.left, band.top + row), rowBytes);
    }
  }
  return true;
}

}  // namespace quorvel::zoom::vips
