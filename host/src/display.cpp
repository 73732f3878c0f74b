#include "quorvel/zoom/display.hpp"

#include <cmath>
#include <cstdio>
#include <sstream>

namespace quorvel::zoom {
namespace {

bool within(double v, double lo, double hi) { return std::isfinite(v) && v >= lo && v <= hi; }

std::string number(double v) {
  char text[32];
  std::snprintf(text, sizeof text, "%.17g", v);
  return text;
}

}  // namespace

void Display::validate() const {
  if (!within(gammaValue, 0.1, 10)) throw DisplayError("gamma must lie in [0.1, 10]");
  if (black > maxLevel() || white > maxLevel()) {
    throw DisplayError("black and white must lie in [0, " + std::to_string(maxLevel()) +
                       "] in gamma mode " + (gammaMode == GammaMode::kLinear ? "linear" : "srgb"));
  }
  if (black >= white) throw DisplayError("black must be below white");
  if (sharpen && !within(*sharpen, -4, 4)) throw DisplayError("sharpen must lie in [-4, 4]");
  if (clahe && !within(*clahe, 1, 100)) throw DisplayError("clahe must lie in [1, 100]");
  if (matrix) {
    for (double m : *matrix) {
      if (!within(m, -1000, 1000)) {
        throw DisplayError("matrix coefficients must lie in [-1000, 1000]");
      }
    }
    if (!within(matrixScale, -1000, 1000)) {
      throw DisplayError("the matrix scale must lie in [-1000, 1000]");
    }
  }
}

std::string Display::key() const {
  std::string k;
  if (gamma) {
    k += "g" + number(gammaValue) + (gammaMode == GammaMode::kLinear ? "l" : "s") +
         std::to_string(black) + "-" + std::to_string(white);
  }
  if (clahe) k += "c" + number(*clahe);
  if (matrix) {
    k += "m";
    for (double m : *matrix) k += number(m) + ",";
    k += number(matrixScale);
  }
  if (sharpen) k += "s" + number(*sharpen);
  if (mask) k += maskKey();
  return k;
}

std::string Display::maskKey() const {
  std::string k = "k";
  for (auto const& r : mask.value_or(std::vector<MaskRect>{})) {
    k += std::to_string(r.xmin) + "," + std::to_string(r.xmax) + "," + std::to_string(r.ymin) +
         "," + std::to_string(r.ymax) + ";";
  }
  return k;
}

void Display::setLevels(std::optional<double> gammaValue, std::optional<size_t> blackLevel,
                        std::optional<size_t> whiteLevel) {
  gamma = gammaValue || blackLevel || whiteLevel;
  this->gammaValue = gammaValue.value_or(1.0);
  black = blackLevel.value_or(0);
  white = whiteLevel.value_or(maxLevel());
}

void parseMatrix(std::string const& text, Display& display) {
  auto fail = [&] {
    throw DisplayError("matrix '" + text +
                       "': expected nine numbers m0,...,m8 and an optional :scale");
  };
  std::string coefficients = text;
  double scale = 1.0;
  size_t const colon = text.find(':');
  if (colon != std::string::npos) {
    coefficients = text.substr(0, colon);
    std::istringstream in(text.substr(colon + 1));
    if (!(in >> scale) || !in.eof()) fail();
  }
  std::array<double, 9> m{};
  std::istringstream in(coefficients);
  for (size_t i = 0; i < 9; ++i) {
    std::string item;
    if (!std::getline(in, item, ',')) fail();
    std::istringstream value(item);
    if (!(value >> m[i]) || !value.eof()) fail();
  }
  if (!in.eof() && in.peek() != EOF) fail();
  display.matrix = m;
  display.matrixScale = scale;
}

std::array<int32_t, 9> matrixQ10(std::array<double, 9> const& m) {
  std::array<int32_t, 9> q{};
  for (size_t i = 0; i < 9; ++i) q[i] = static_cast<int32_t>(std::lround(m[i] * 1024.0));
  return q;
}

}  // namespace quorvel::zoom
