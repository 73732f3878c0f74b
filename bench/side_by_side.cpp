#include "side_by_side.hpp"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <utility>

namespace quorvel::bench {
namespace {

using Clock = std::chrono::steady_clock;

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  size_t const n = values.size();
  if (n == 0) return 0;
  return n % 2 == 1 ? values[n / 2] : 0.5 * (values[n / 2 - 1] + values[n / 2]);
}

// Fixed-width decimal text: three significant figures, never exponent notation.
std::string number(double v) {
  char text[32];
  if (v >= 100) {
    std::snprintf(text, sizeof text, "%.0f", v);
  } else if (v >= 10) {
    std::snprintf(text, sizeof text, "%.1f", v);
  } else {
    std::snprintf(text, sizeof text, "%.2f", v);
  }
  return text;
}

std::string cell(std::optional<double> const& v) { return v ? number(*v) : "–"; }

// "name, N Mpixel/s" for a row with a peer, a dash otherwise.
std::string peerCell(Row const& r) {
  if (r.peerName.empty()) return "–";
  if (!r.peerMpixelPerSecond) return r.peerName;
  return r.peerName + ": " + number(*r.peerMpixelPerSecond) + " Mpixel/s";
}

}  // namespace

double clockSeconds(Timing timing) {
  if (timing == Timing::kWall) {
    return std::chrono::duration<double>(Clock::now().time_since_epoch()).count();
  }
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return double(now.tv_sec) + 1e-9 * double(now.tv_nsec);
}

std::vector<double> medianSecondsSideBySide(std::vector<Op> const& ops, Settings const& settings) {
  size_t const count = ops.size();
  Timing const timing = settings.timing;
  // Warm-up and calibration: one untimed call, one timed call that fixes how many calls make
  // up a sample. Slow operations (a first call already over the sample time) skip the second.
  std::vector<size_t> batch(count, 1);
  for (size_t i = 0; i < count; ++i) {
    double start = clockSeconds(timing);
    ops[i]();
    double once = clockSeconds(timing) - start;
    if (once < settings.minSampleSeconds) {
      start = clockSeconds(timing);
      ops[i]();
      once = std::max(clockSeconds(timing) - start, 1e-9);
      batch[i] = static_cast<size_t>(std::ceil(settings.minSampleSeconds / once));
    }
  }

  // Round-robin repetitions; the first operation of each round rotates.
  std::vector<std::vector<double>> samples(count);
  auto const rowStart = Clock::now();
  for (size_t rep = 0; rep < settings.maxReps; ++rep) {
    for (size_t k = 0; k < count; ++k) {
      size_t const i = (rep + k) % count;
      double const start = clockSeconds(timing);
      for (size_t call = 0; call < batch[i]; ++call) ops[i]();
      benchmark::ClobberMemory();
      samples[i].push_back((clockSeconds(timing) - start) / static_cast<double>(batch[i]));
    }
    if (rep + 1 >= settings.minReps && secondsSince(rowStart) > settings.rowSeconds) break;
  }

  std::vector<double> result(count);
  for (size_t i = 0; i < count; ++i) result[i] = median(samples[i]);
  return result;
}

Row measureKernel(std::string const& operation, std::string const& size, KernelCase const& c,
                  Settings const& settings) {
  // memcpy of the larger of the two sides: the bytes a pure copy of this image would move.
  size_t const copyBytes = static_cast<size_t>(std::max(c.inputBytes, c.outputBytes));
  std::vector<uint8_t> copySource(copyBytes), copyTarget(copyBytes);
  for (size_t i = 0; i < copyBytes; ++i) copySource[i] = static_cast<uint8_t>(i * 131u);
  Op const copy = [&] { std::memcpy(copyTarget.data(), copySource.data(), copyBytes); };

  std::vector<Op> ops = {c.kernel, copy};
  if (c.scalar) ops.push_back(c.scalar);
  if (c.peer) ops.push_back(c.peer);
  std::vector<double> const t = medianSecondsSideBySide(ops, settings);

  Row row;
  row.operation = operation;
  row.size = size;
  row.threads = "1";
  row.mpixelPerSecond = c.pixels / t[0] / 1e6;
  row.gbPerSecond = (c.inputBytes + c.outputBytes) / t[0] / 1e9;
  row.memcpyRatio = t[1] / t[0];
  size_t next = 2;
  if (c.scalar) row.scalarRatio = t[next++] / t[0];
  if (c.peer) {
    row.peerName = c.peerName;
    row.peerMpixelPerSecond = c.pixels / t[next] / 1e6;
    row.peerRatio = t[next++] / t[0];
  }
  row.note = c.note;
  return row;
}

void Registry::addKernel(std::string operation, std::string size, CaseFactory factory) {
  std::string key = operation + "/" + size;
  entries_.push_back(
      {std::move(key), std::move(operation), std::move(size), std::move(factory), nullptr});
}

void Registry::addCustom(std::string key, CustomRow row) {
  entries_.push_back({std::move(key), "", "", nullptr, std::move(row)});
}

std::vector<Row> Registry::run(std::regex const& filter, Settings const& settings) const {
  std::vector<Row> rows;
  for (Entry const& entry : entries_) {
    if (!std::regex_search(entry.key, filter)) continue;
    auto const start = Clock::now();
    std::cerr << "  " << entry.key << " ... " << std::flush;
    if (entry.factory) {
      // The case (and every buffer it holds) lives only for this row.
      KernelCase const c = entry.factory();
      rows.push_back(measureKernel(entry.operation, entry.size, c, settings));
    } else {
      for (Row& row : entry.custom(settings)) rows.push_back(std::move(row));
    }
    std::cerr << number(secondsSince(start)) << " s\n";
  }
  return rows;
}

Registry& registry() {
  static Registry instance;
  return instance;
}

void printTable(std::vector<Row> const& rows) {
  std::cout << "| operation | size | threads | Mpixel/s | GB/s | vs memcpy | vs scalar | peer "
               "(OpenCV) | vs peer | notes |\n"
            << "|---|---|---|---:|---:|---:|---:|---|---:|---|\n";
  for (Row const& r : rows) {
    std::cout << "| " << r.operation << " | " << r.size << " | " << r.threads << " | "
              << cell(r.mpixelPerSecond) << " | " << cell(r.gbPerSecond) << " | "
              << cell(r.memcpyRatio) << " | " << cell(r.scalarRatio) << " | " << peerCell(r)
              << " | " << cell(r.peerRatio) << " | " << r.note << " |\n";
  }
}

void printSlowerThanPeer(std::vector<Row> const& rows) {
  std::vector<Row const*> slower;
  for (Row const& r : rows) {
    if (r.peerRatio && *r.peerRatio < 1.0) slower.push_back(&r);
  }
  if (slower.empty()) {
    std::cout << "\nNo kernel is slower than its OpenCV equivalent (single-threaded).\n";
    return;
  }
  std::cout << "\nSlower than the OpenCV equivalent, single-threaded:\n\n";
  for (Row const* r : slower) {
    std::cout << "- " << r->operation << " " << r->size << ": " << number(*r->peerRatio) << "x of "
              << r->peerName << "\n";
  }
}

}  // namespace quorvel::bench
