#pragma once
// The one table of built-in filters (see registry.cpp). Whatever else needs to know the
// filters (the backend's check for mask filters, the fuzz targets) reads this table instead
// of keeping a list of its own.

#include <cstddef>
#include <string>
#include <typeinfo>
#include <vector>

#include "quorvel/filters/software_filter.hpp"

namespace quorvel {

/// One built-in filter: its name, how to register its kernel, the description a host gives
/// it and the types its kernel reads and writes.
struct BuiltinFilter {
  char const* name;
  void (*registerIn)(SoftwareFilterFactory& factory, std::string const& name);
  /// Pixel type of each source, then of the target.
  std::vector<std::type_info const*> inputs;
  std::type_info const* output;
  size_t bitsIn, bitsOut, componentsIn, componentsOut, bitDepthIn;
  /// The parameter class the kernel reads; null when it reads none.
  std::type_info const* params;
};

/// Every built-in filter, in registration order.
std::vector<BuiltinFilter> const& builtinFilters();

/// Whether `name` is a built-in filter that reads MaskFilterParams (what maskRange runs).
bool isMaskFilter(std::string const& name);

}  // namespace quorvel
