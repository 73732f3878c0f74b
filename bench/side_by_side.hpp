#pragma once
// The side-by-side harness: every row times its operation and its comparisons alternately in
// the same run (A, memcpy, scalar, peer, A, ...), takes the median of each, and ends up as one
// line of the markdown table that the runner prints at the end.

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <vector>

namespace quorvel::bench {

/// One timed operation: a single call of the thing being measured.
using Op = std::function<void()>;

/// Which clock a side-by-side row reads.
enum class Timing {
  /// The calling thread's CPU time: single-threaded rows, so that other processes on a
  /// shared machine (time slices taken away) do not count against either side.
  kThreadCpu,
  /// Wall-clock time: rows whose work runs on other threads.
  kWall,
};

/// Repetition policy shared by all side-by-side rows.
struct Settings {
  size_t minReps = 5;   ///< samples per operation, at least
  size_t maxReps = 15;  ///< samples per operation, at most
  /// Once minReps samples exist, a row stops repeating after this much wall time.
  double rowSeconds = 1.2;
  /// Calls are batched so that one sample lasts at least this long (small sizes).
  double minSampleSeconds = 0.002;
  Timing timing = Timing::kThreadCpu;
};

/// The median time per call of each operation, timed round-robin: every repetition runs each
/// operation once (rotating which goes first), so drifts in clock speed or memory traffic hit
/// all of them alike. Each operation is called once untimed before the first sample.
std::vector<double> medianSecondsSideBySide(std::vector<Op> const& ops, Settings const& settings);

/// What one kernel row measures, built only when the row is selected so that its buffers
/// exist only while it runs. Empty operations are left out of the row.
struct KernelCase {
  double pixels = 0;       ///< output pixels per call
  double inputBytes = 0;   ///< bytes read per call (all sources)
  double outputBytes = 0;  ///< bytes written per call
  Op kernel;               ///< the library's `apply`
  Op scalar;               ///< the plain scalar form of the same kernel
  std::string peerName;    ///< the OpenCV routine standing in, if any
  Op peer;
  std::string note;
};

/// One finished line of the table. Ratios are (other time) / (our time): above 1 means the
/// library's kernel is faster.
struct Row {
  std::string operation;
  std::string size;
  std::string threads;
  std::optional<double> mpixelPerSecond;
  std::optional<double> gbPerSecond;
  std::optional<double> memcpyRatio;
  std::optional<double> scalarRatio;
  std::string peerName;
  std::optional<double> peerMpixelPerSecond;
  std::optional<double> peerRatio;
  std::string note;
};

/// Rows in registration order, each run when its "operation/size" matches the filter.
class Registry {
 public:
  using CaseFactory = std::function<KernelCase()>;
  /// A free-form row: runs itself and returns its finished lines.
  using CustomRow = std::function<std::vector<Row>(Settings const&)>;

  /// Adds a single-threaded kernel row.
  void addKernel(std::string operation, std::string size, CaseFactory factory);
  /// Adds a row that measures itself (whole-path rows); `key` is what the filter sees.
  void addCustom(std::string key, CustomRow row);

  /// Runs the selected rows in order, printing progress to stderr, and returns their lines.
  std::vector<Row> run(std::regex const& filter, Settings const& settings) const;

 private:
  struct Entry {
    std::string key;
    std::string operation, size;
    CaseFactory factory;
    CustomRow custom;
  };
  std::vector<Entry> entries_;
};

/// The process-wide registry that the row files fill at start-up.
Registry& registry();

/// Times one kernel case side by side with memcpy of max(input, output) bytes.
Row measureKernel(std::string const& operation, std::string const& size, KernelCase const& c,
                  Settings const& settings);

/// Prints the rows as one markdown table (with the column legend above it).
void printTable(std::vector<Row> const& rows);

/// Prints the rows whose peer ratio is below 1: kernels slower than their OpenCV equivalent.
void printSlowerThanPeer(std::vector<Row> const& rows);

/// The time between two steady-clock points in seconds.
inline double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// Now on the clock that `timing` names, in seconds.
double clockSeconds(Timing timing);

}  // namespace quorvel::bench
