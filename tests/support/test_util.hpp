#pragma once
// Small helpers shared by the tests.

#include <string>

#include "quorvel/errors/exception.hpp"

namespace quorvel::testing {

/// The what() text of the QuorvelException that f throws, or "no exception".
template <class F>
std::string failureOf(F&& f) {
  try {
    f();
  } catch (QuorvelException const& e) {
    return e.what();
  }
  return "no exception";
}

/// The tagged text of QuorvelException(name, location).
inline std::string tagged(std::string const& name, std::string const& location) {
  return "#Name:" + name + "#Location:" + location;
}

}  // namespace quorvel::testing
