#pragma once
// Registration of the whole-path and throughput rows.

#include "side_by_side.hpp"

namespace quorvel::bench {

/// Adds the whole-path rows (one and two workers, side by side) and the Google Benchmark
/// throughput rows: the work queue alone, LruMap at 10^6 entries, envelope queries at 10^3,
/// 10^4 and 10^5 envelopes. Registers the Google Benchmark functions too.
void registerSystemRows(Registry& registry);

}  // namespace quorvel::bench
