#include "quorvel/zoom/image_source.hpp"

#include <algorithm>
#include <cstring>

namespace quorvel::zoom {

void ImageSource::checkRead(size_t level, Rect const& rect) const {
  auto const levels = nativeLevels();
  if (std::find(levels.begin(), levels.end(), level) == levels.end()) {
    throw std::out_of_range("level " + std::to_string(level) + " is not a native level of " +
                            description());
  }
  Rect const whole{0, 0, levelExtent(width(), level), levelExtent(height(), level)};
  if (rect.empty() || !whole.contains(rect)) {
    throw std::out_of_range("rectangle " + rect.str() + " is not inside level " +
                            std::to_string(level) + " (" + whole.str() + ")");
  }
}

MemorySource::MemorySource(size_t width, size_t height, std::vector<uint8_t> rgba,
                           std::string description)
    : width_(width), height_(height), rgba_(std::move(rgba)), description_(std::move(description)) {
  if (width == 0 || height == 0 || rgba_.size() / 4 / width != height ||
      rgba_.size() != width * height * 4) {
    throw std::invalid_argument("MemorySource: " + std::to_string(rgba_.size()) +
                                " bytes are not a " + std::to_string(width) + " x " +
                                std::to_string(height) + " RGBA8 image");
  }
}

void MemorySource::read(size_t level, Rect const& rect, uint8_t* rgba) const {
  checkRead(level, rect);
  for (size_t r = 0; r < rect.height; ++r) {
    std::memcpy(rgba + r * rect.width * 4, &rgba_[((rect.y + r) * width_ + rect.x) * 4],
                rect.width * 4);
  }
}

}  // namespace quorvel::zoom
