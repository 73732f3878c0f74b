#include "progress.hpp"

#include <unistd.h>

#include <cmath>

namespace quorvel::tool {

Progress::Progress(std::FILE* out, bool enabled)
    : out_(out), enabled_(enabled), terminal_(enabled && isatty(fileno(out)) != 0) {}

void Progress::start(std::string const& stage, size_t total, size_t before) {
  stage_ = stage;
  total_ = total;
  before_ = before;
  done_ = 0;
  begin_ = last_ = std::chrono::steady_clock::now();
  if (enabled_ && terminal_) draw(false);
}

void Progress::update(size_t done) {
  if (!enabled_) return;
  done_ = done;
  auto const now = std::chrono::steady_clock::now();
  auto const interval = terminal_ ? std::chrono::milliseconds(100) : std::chrono::seconds(5);
  if (now - last_ < interval) return;
  last_ = now;
  draw(false);
}

void Progress::finish(size_t done) {
  if (!enabled_) return;
  done_ = done;
  bool const complete = before_ + done_ >= total_;
  // Piped output only gets a line for stages long enough to have reported progress.
  if (terminal_ || (complete && last_ != begin_)) draw(complete);
}

void Progress::draw(bool final) {
  double const elapsed =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - begin_).count();
  double const rate = elapsed > 0 ? done_ / elapsed : 0.0;
  size_t const done = before_ + done_;
  std::string left = "--";
  if (rate > 0 && done < total_) left = formatSeconds((total_ - done) / rate);
  char status[160];
  int const n =
      std::snprintf(status, sizeof status, "%zu/%zu tiles  %.0f tiles/s", done, total_, rate);
  if (!final && n > 0) {
    std::snprintf(status + n, sizeof status - size_t(n), "  %s left", left.c_str());
  }
  if (terminal_) {
    constexpr int kWidth = 30;
    int const filled = total_ == 0 ? kWidth : static_cast<int>(kWidth * done / total_);
    std::string bar(static_cast<size_t>(filled), '#');
    bar.resize(kWidth, '.');
    std::fprintf(out_, "\r%-7s [%s] %s\x1b[K%s", stage_.c_str(), bar.c_str(), status,
                 final ? "\n" : "");
  } else {
    std::fprintf(out_, "%s: %s\n", stage_.c_str(), status);
  }
  std::fflush(out_);
}

std::string formatSeconds(double seconds) {
  char text[64];
  if (seconds < 60) {
    std::snprintf(text, sizeof text, "%.1f s", seconds);
  } else {
    auto const whole = static_cast<long>(std::lround(seconds));
    std::snprintf(text, sizeof text, "%ld min %02ld s", whole / 60, whole % 60);
  }
  return text;
}

}  // namespace quorvel::tool
