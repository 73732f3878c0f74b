// The display parameters of an image URL's query, with the names, ranges and meaning of the
// command-line tool's options.

#include <algorithm>
#include <string>

#include "request.hpp"
#include "request_text.hpp"

namespace quorvel::serve {

using text::badRequest;
using text::parseReal;
using text::parseWhole;
using text::shown;
using text::split;

zoom::Display parseDisplay(std::vector<std::pair<std::string, std::string>> const& query) {
  std::optional<double> gamma, sharpen, clahe;
  std::optional<size_t> black, white;
  std::optional<std::string> mode, matrix;
  auto real = [](std::string const& name, std::string const& value, double lo, double hi,
                 char const* range) {
    auto const v = parseReal(value);
    if (!v) badRequest(name + ": " + shown(value) + " is not a number");
    if (*v < lo || *v > hi) badRequest(name + ": " + shown(value) + " lies outside " + range);
    return *v;
  };
  auto whole = [](std::string const& name, std::string const& value) {
    auto const v = parseWhole(value);
    if (!v) badRequest(name + ": " + shown(value) + " is not a whole number");
    return static_cast<size_t>(*v);
  };
  for (auto const& pair : query) {
    // Named references rather than a structured binding: the lambdas below capture them.
    std::string const& name = pair.first;
    std::string const& value = pair.second;
    auto once = [&](auto& slot, auto parse) {
      if (slot) badRequest(name + " is given twice");
      if (value.empty()) badRequest(name + " has no value");
      slot = parse();
    };
    if (name == "gamma") {
      once(gamma, [&] { return real(name, value, 0.1, 10, "[0.1, 10]"); });
    } else if (name == "black") {
      once(black, [&] { return whole(name, value); });
    } else if (name == "white") {
      once(white, [&] { return whole(name, value); });
    } else if (name == "gamma-mode") {
      once(mode, [&] {
        if (value != "srgb" && value != "linear") {
          badRequest("gamma-mode: " + shown(value) + " is neither srgb nor linear");
        }
        return value;
      });
    } else if (name == "sharpen") {
      once(sharpen, [&] { return real(name, value, -4, 4, "[-4, 4]"); });
    } else if (name == "clahe") {
      once(clahe, [&] { return real(name, value, 1, 100, "[1, 100]"); });
    } else if (name == "matrix") {
      once(matrix, [&] { return value; });
    } else {
      badRequest("unknown display parameter " + shown(name));
    }
  }
  zoom::Display display;
  // The mode first: it decides the scale black and white are read on.
  if (mode == "linear") display.gammaMode = zoom::Display::GammaMode::kLinear;
  display.setLevels(gamma, black, white);
  if (display.black > display.maxLevel() || display.white > display.maxLevel()) {
    badRequest(std::string(display.black > display.maxLevel() ? "black" : "white") +
               " must lie in [0, " + std::to_string(display.maxLevel()) + "] in gamma mode " +
               mode.value_or("srgb"));
  }
  if (display.black >= display.white) badRequest("black must be below white");
  display.sharpen = sharpen;
  display.clahe = clahe;
  if (matrix) {
    // The host's reader takes what a stream reads (spaces too); a query value is stricter.
    auto const coefficients = split(split(*matrix, ':').front(), ',');
    bool const plain = coefficients.size() == 9 &&
                       std::none_of(coefficients.begin(), coefficients.end(),
                                    [](std::string_view c) { return c.empty(); }) &&
                       std::all_of(matrix->begin(), matrix->end(), [](char c) {
                         return (c >= '0' && c <= '9') || c == '.' || c == ',' || c == ':' ||
                                c == '-' || c == '+' || c == 'e' || c == 'E';
                       });
    try {
      if (!plain) throw zoom::DisplayError("");
      zoom::parseMatrix(*matrix, display);
    } catch (zoom::DisplayError const&) {
      badRequest("matrix: " + shown(*matrix) +
                 " is not nine numbers m0,...,m8 with an optional :scale");
    }
  }
  try {
    display.validate();
  } catch (zoom::DisplayError const& e) {
    badRequest(e.what());
  }
  return display;
}

}  // namespace quorvel::serve
