#pragma once
// The byte reader shared by the fuzz targets: turns the fuzzer's input into small numbers,
// sizes, rectangles and texts. Reading past the end yields zeros, so every input is valid.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

namespace quorvel::fuzz {

class FuzzInput {
 public:
  FuzzInput(uint8_t const* data, size_t size) : data_(data), size_(size) {}

  bool empty() const { return position_ >= size_; }
  size_t remaining() const { return empty() ? 0 : size_ - position_; }

  uint8_t byte() { return empty() ? 0 : data_[position_++]; }
  bool flag() { return (byte() & 1) != 0; }
  uint16_t u16() { return static_cast<uint16_t>(byte() | (byte() << 8)); }
  uint32_t u32() { return static_cast<uint32_t>(u16()) | (static_cast<uint32_t>(u16()) << 16); }
  uint64_t u64() { return static_cast<uint64_t>(u32()) | (static_cast<uint64_t>(u32()) << 32); }

  /// A value in [0, bound].
  size_t upTo(size_t bound) { return bound == 0 ? 0 : byte() % (bound + 1); }

  /// Mostly a small count in [0, bound]; now and then one of the values that break
  /// arithmetic (zero, 2^31, 2^32, SIZE_MAX and their neighbours).
  size_t size(size_t bound) {
    uint8_t const selector = byte();
    if (selector < 232) return selector % (bound + 1);
    static constexpr size_t kEdges[] = {0,
                                        1,
                                        (size_t{1} << 31) - 1,
                                        size_t{1} << 31,
                                        (size_t{1} << 32) - 1,
                                        size_t{1} << 32,
                                        (size_t{1} << 32) + 1,
                                        (size_t{1} << 63),
                                        (size_t{1} << 63) + 1,
                                        std::numeric_limits<size_t>::max(),
                                        std::numeric_limits<size_t>::max() - 1,
                                        size_t{65536},
                                        size_t{100000}};
    if (selector < 232 + sizeof(kEdges) / sizeof(kEdges[0])) return kEdges[selector - 232];
    return u64();
  }

  /// A signed coordinate: mostly in [-range, range], sometimes an extreme 32-bit value.
  int coordinate(int range) {
    uint8_t const selector = byte();
    if (selector < 240) return static_cast<int>(byte() % (2 * range + 1)) - range;
    switch (selector & 7) {
      case 0:
        return std::numeric_limits<int>::min();
      case 1:
        return std::numeric_limits<int>::max();
      case 2:
        return std::numeric_limits<int>::min() + 1;
      case 3:
        return std::numeric_limits<int>::max() - 1;
      default:
        return static_cast<int>(u32());
    }
  }

  /// A kernel rectangle {x, y, width, height}; now and then of another length.
  std::vector<int> rect(int range) {
    size_t length = 4;
    if (byte() >= 240) length = upTo(6);
    std::vector<int> r(length);
    for (size_t i = 0; i < length; ++i) r[i] = coordinate(range);
    return r;
  }

  /// A vector of `count` values read with `size(bound)`.
  std::vector<size_t> sizes(size_t count, size_t bound) {
    std::vector<size_t> values(count);
    for (auto& v : values) v = size(bound);
    return values;
  }

  /// A double: mostly moderate, sometimes zero, negative, huge, infinite or NaN.
  double real() {
    uint8_t const selector = byte();
    switch (selector >> 5) {
      case 0:
        return std::numeric_limits<double>::quiet_NaN();
      case 1: {
        double const special[] = {0.0,
                                  -0.0,
                                  1e308,
                                  -1e308,
                                  1e-308,
                                  std::numeric_limits<double>::infinity(),
                                  -std::numeric_limits<double>::infinity(),
                                  4e9};
        return special[selector & 7];
      }
      default:
        return (static_cast<double>(u16()) - 16384.0) / 1024.0;
    }
  }

  /// Up to `maxLength` bytes.
  std::vector<unsigned char> bytes(size_t maxLength) {
    // The length byte is read first: remaining() must count what is left after it.
    size_t const wanted = upTo(255) * maxLength / 255;
    size_t const length = std::min(wanted, remaining());
    std::vector<unsigned char> out(data_ + position_, data_ + position_ + length);
    position_ += length;
    return out;
  }

  /// Everything that is left, as text.
  std::string rest() {
    std::string out(reinterpret_cast<char const*>(data_ + position_), remaining());
    position_ = size_;
    return out;
  }

 private:
  uint8_t const* data_;
  size_t size_;
  size_t position_ = 0;
};

}  // namespace quorvel::fuzz
