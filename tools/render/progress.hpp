#pragma once
// Progress of a stage over a number of tiles: a redrawn bar on a terminal, plain periodic
// lines otherwise.

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <string>

namespace quorvel::tool {

class Progress {
 public:
  /// Reports to `out` (a terminal gets the bar; anything else a line every few seconds).
  /// `enabled` false makes every call a no-op.
  Progress(std::FILE* out, bool enabled);

  /// Starts (or resumes, for the next wave of tiles) a stage of `total` tiles of which
  /// `before` were done in earlier runs of the stage.
  void start(std::string const& stage, size_t total, size_t before = 0);
  /// `done` tiles of this run of the stage are finished; redraws at most ten times a second.
  void update(size_t done);
  /// Ends this run of the stage; the line is completed once the whole stage is done.
  void finish(size_t done);

 private:
  void draw(bool final);

  std::FILE* out_;
  bool enabled_, terminal_;
  std::string stage_;
  size_t total_ = 0, before_ = 0, done_ = 0;
  std::chrono::steady_clock::time_point begin_, last_;
};

/// "1.2 s", "3 min 05 s": a duration for people.
std::string formatSeconds(double seconds);

}  // namespace quorvel::tool
