#pragma once
// Registration of the host layer's rows: output tiles per second at several zoom levels and
// display settings, and what the filters' margins cost.

#include "side_by_side.hpp"

namespace quorvel::bench {

/// Adds "HostRender/<display>/level<k>" rows (one and two workers side by side) and the
/// "HostMargins/256" row.
void registerHostRows(Registry& registry);

}  // namespace quorvel::bench
