#pragma once
// Buffers, random content and call packaging shared by the benchmark rows.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "quorvel/buffers/buffer2d.hpp"
#include "quorvel/filters/filter_parameters.hpp"
#include "quorvel/filters/software_filter.hpp"

namespace quorvel::bench {

/// A small, fast generator (xorshift64*): benchmark content needs speed, not quality.
class FastRandom {
 public:
  explicit FastRandom(uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15ull + 1) {}
  uint64_t next() {
    state_ ^= state_ >> 12;
    state_ ^= state_ << 25;
    state_ ^= state_ >> 27;
    return state_ * 0x2545F4914F6CDD1Dull;
  }
  /// A value in [lo, hi].
  int64_t range(int64_t lo, int64_t hi) {
    return lo + static_cast<int64_t>(next() % static_cast<uint64_t>(hi - lo + 1));
  }

 private:
  uint64_t state_;
};

/// A zero-filled buffer of width x height pixels (the storage is touched, so it is warm).
template <class P>
std::shared_ptr<Buffer2DVector<P>> makeBuffer(size_t width, size_t height) {
  return std::make_shared<Buffer2DVector<P>>(width, height, true);
}

/// Fills every channel sample of `buffer` with values in [lo, hi].
template <class P>
void fillRandom(Buffer2DVector<P>& buffer, int64_t lo, int64_t hi, uint64_t seed) {
  using Channel = typename PixelTraits<P>::Channel;
  constexpr size_t kChannels = PixelTraits<P>::kChannels;
  auto* samples = reinterpret_cast<Channel*>(buffer.data());
  size_t const count = buffer.width() * buffer.height() * kChannels;
  FastRandom random(seed);
  for (size_t i = 0; i < count; ++i) samples[i] = static_cast<Channel>(random.range(lo, hi));
}

/// The arguments of one `apply` call, kept together so a row builds them once.
struct Call {
  std::vector<std::shared_ptr<Buffer2D>> inputs;
  std::vector<std::vector<int>> inputRects;
  std::vector<std::shared_ptr<Buffer2D>> outputs;
  std::vector<std::vector<int>> outputRects;
  std::shared_ptr<SingleFilterParameters const> params;

  /// Runs `filter` with these arguments (the empty parameters when none were set).
  void run(SoftwareFilter& filter) const {
    filter.apply(inputs, inputRects, outputs, outputRects,
                 params ? *params : FilterEmptyParams::instance());
  }
};

/// {0, 0, width, height}.
inline std::vector<int> fullRect(size_t width, size_t height) {
  return {0, 0, static_cast<int>(width), static_cast<int>(height)};
}

/// "WxH".
inline std::string sizeText(size_t width, size_t height) {
  return std::to_string(width) + "x" + std::to_string(height);
}

}  // namespace quorvel::bench
