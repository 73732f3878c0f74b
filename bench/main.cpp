// quorvel_bench: prints one markdown table of every kernel next to memcpy, its scalar form
// and OpenCV, plus the whole-path and throughput rows.
//
//   quorvel_bench [--filter=REGEX] [--max-reps=N] [--row-seconds=S]
//
// REGEX is searched in each row's key ("FilterCLAHE/1024x1024", "WholePath/...",
// "LruMap/evict/1000000"); the default runs everything.

#include <benchmark/benchmark.h>
#include <hwy/targets.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "host_rows.hpp"
#include "kernel_rows.hpp"
#include "side_by_side.hpp"
#include "system_rows.hpp"

namespace quorvel::bench {
namespace {

std::string cpuModel() {
  std::ifstream cpuinfo("/proc/cpuinfo");
  std::string line;
  while (std::getline(cpuinfo, line)) {
    if (line.rfind("model name", 0) == 0) {
      auto const colon = line.find(':');
      if (colon != std::string::npos) return line.substr(line.find_first_not_of(' ', colon + 1));
    }
  }
  return "unknown CPU";
}

/// The target HWY_DYNAMIC_DISPATCH picks: the best one both compiled and supported.
std::string highwayTarget() {
  std::vector<int64_t> const targets = hwy::SupportedAndGeneratedTargets();
  return targets.empty() ? "none" : hwy::TargetName(targets.front());
}

/// True when `arg` starts with `prefix`; `value` then holds the rest.
bool option(std::string const& arg, std::string const& prefix, std::string& value) {
  if (arg.compare(0, prefix.size(), prefix) != 0) return false;
  value = arg.substr(prefix.size());
  return true;
}

void printMachine() {
  std::cout << "Machine: " << cpuModel() << ", " << std::thread::hardware_concurrency()
            << " logical cores; Highway 1.0.3 dispatch target " << highwayTarget() << "; GCC "
            << __VERSION__ << "; OpenCV " << CV_VERSION << " (single-threaded, IPP "
            << (cv::ipp::useIPP() ? "on" : "off") << ", CPU features: " << cv::getCPUFeaturesLine()
            << ")\n\n";
}

void printLegend() {
  std::cout << "Kernel rows: one `apply` per timed call on warm buffers, one thread, timed by the "
               "thread's CPU clock (other processes on the machine do not count). Mpixel/s counts "
               "output pixels; GB/s counts bytes read + bytes written. Every ratio is (the other's "
               "median time) / (our median time), timed alternately in the same run (5-15 rounds, "
               "medians): above 1 means the library is faster. \"vs memcpy\": memcpy of "
               "max(input bytes, output bytes); \"vs scalar\": the library's plain scalar form of "
               "the same kernel (as compiled, -O3); \"vs peer\": the named OpenCV routine, "
               "sequential. Whole-path and work-queue rows use wall-clock time; the other "
               "throughput rows are Google Benchmark medians of 5 repetitions.\n\n";
}

}  // namespace
}  // namespace quorvel::bench

int main(int argc, char** argv) {
  using namespace quorvel::bench;
  std::string filter = ".";
  Settings settings;
  for (int i = 1; i < argc; ++i) {
    std::string const arg = argv[i];
    std::string value;
    if (option(arg, "--filter=", value)) {
      filter = value.empty() ? "." : value;
    } else if (option(arg, "--max-reps=", value)) {
      settings.maxReps = std::max<size_t>(1, std::stoul(value));
      settings.minReps = std::min(settings.minReps, settings.maxReps);
    } else if (option(arg, "--row-seconds=", value)) {
      settings.rowSeconds = std::stod(value);
    } else {
      std::cerr << "usage: quorvel_bench [--filter=REGEX] [--max-reps=N] [--row-seconds=S]\n";
      return arg == "--help" ? 0 : 2;
    }
  }

  // OpenCV runs sequentially, like the library's kernels in these rows.
  cv::setNumThreads(0);
  // Google Benchmark times the throughput rows: five repetitions, medians reported.
  char program[] = "quorvel_bench";
  char repetitions[] = "--benchmark_repetitions=5";
  char aggregates[] = "--benchmark_report_aggregates_only=true";
  char minTime[] = "--benchmark_min_time=0.2";
  char* benchmarkArgs[] = {program, repetitions, aggregates, minTime, nullptr};
  int benchmarkArgc = 4;
  benchmark::Initialize(&benchmarkArgc, benchmarkArgs);

  Registry& rows = registry();
  registerKernelRows(rows);
  registerSystemRows(rows);
  registerHostRows(rows);

  std::regex selection;
  try {
    selection = std::regex(filter);
  } catch (std::regex_error const& e) {
    std::cerr << "invalid --filter regex '" << filter << "': " << e.what() << "\n";
    return 2;
  }
  std::cerr << "quorvel_bench: running rows matching '" << filter << "'\n";
  std::vector<Row> const results = rows.run(selection, settings);

  printMachine();
  printLegend();
  printTable(results);
  printSlowerThanPeer(results);
  return 0;
}
