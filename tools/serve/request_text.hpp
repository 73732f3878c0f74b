#pragma once
// Reading the text of a request, shared by the path parser and the display parameters: strict
// numbers (all of the text, finite, no sign where IIIF allows none) and reasons that quote the
// client's text safely on one short line.

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "request.hpp"

namespace quorvel::serve::text {

[[noreturn]] inline void badRequest(std::string const& reason) { throw RequestError(400, reason); }
[[noreturn]] inline void notFound(std::string const& reason) { throw RequestError(404, reason); }

// Client text quoted in a reason: cut short and with anything unprintable as '?', so a reason
// stays one short line whatever was sent.
inline std::string shown(std::string_view text) {
  constexpr size_t kShown = 64;
  std::string out = "'";
  for (size_t i = 0; i < text.size() && i < kShown; ++i) {
    auto const c = static_cast<unsigned char>(text[i]);
    out += c >= 0x20 && c < 0x7f ? static_cast<char>(c) : '?';
  }
  if (text.size() > kShown) out += "...";
  return out + "'";
}

// Digits only (no sign, no space), in 64 bits; nothing otherwise.
inline std::optional<uint64_t> parseWhole(std::string_view text) {
  if (text.empty() ||
      !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    return std::nullopt;
  }
  uint64_t value = 0;
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// The number forms IIIF allows: decimal digits with at most one '.', no sign and no exponent;
// nothing for anything else or a value past the range of a double.
inline std::optional<double> parseDecimal(std::string_view text) {
  size_t digits = 0, points = 0;
  for (char c : text) {
    if (c >= '0' && c <= '9') {
      ++digits;
    } else if (c == '.') {
      ++points;
    } else {
      return std::nullopt;
    }
  }
  if (digits == 0 || points > 1) return std::nullopt;
  double value = 0;
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) {
    return std::nullopt;
  }
  return value;
}

// A real number as the display parameters take it: what from_chars reads, wholly, finite.
inline std::optional<double> parseReal(std::string_view text) {
  double value = 0;
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size() ||
      !std::isfinite(value)) {
    return std::nullopt;
  }
  return value;
}

inline std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  size_t begin = 0;
  while (true) {
    size_t const end = text.find(separator, begin);
    parts.push_back(text.substr(begin, end == std::string_view::npos ? end : end - begin));
    if (end == std::string_view::npos) return parts;
    begin = end + 1;
  }
}

}  // namespace quorvel::serve::text
