#include "quorvel/filters/filter_parameters.hpp"

#include <cstdio>
#include <cstring>

namespace quorvel {
namespace {

constexpr char kGetParameters[] =
    "SingleFilterParameters& ProcessingParameters::getParameters(std::string const& filtername, "
    "std::string const& filterInstanceId)";

// The bit pattern of the double keeps the key injective (distinct values, including the
// two zeros and every NaN payload, give distinct texts).
std::string gammaKey(double gamma, size_t black, size_t white) {
  uint64_t bits;
  std::memcpy(&bits, &gamma, sizeof bits);
  char text[80];
  std::snprintf(text, sizeof text, "g%016llx b%llu w%llu", static_cast<unsigned long long>(bits),
                static_cast<unsigned long long>(black), static_cast<unsigned long long>(white));
  return text;
}

}  // namespace

FilterEmptyParams const& FilterEmptyParams::instance() {
  static FilterEmptyParams const empty;
  return empty;
}

std::string FilterLinear16TosRGB8Params::key() const {
  return gammaKey(gamma, blackPoint, whitePoint);
}

std::string FilterBlackWhiteGamma8Params::key() const {
  return gammaKey(gamma, blackPoint, whitePoint);
}

std::string ProcessingParameters::makeKey(std::string const& filtername, size_t filterInstanceId) {
  return filtername + "_#" + std::to_string(filterInstanceId);
}

void ProcessingParameters::setParameters(std::string const& filtername, size_t filterInstanceId,
                                         std::unique_ptr<SingleFilterParameters>&& parameters) {
  parameters_[makeKey(filtername, filterInstanceId)] = std::move(parameters);
}

SingleFilterParameters& ProcessingParameters::getParameters(std::string const& filtername,
                                                            size_t filterInstanceId) {
  return getParameters(makeKey(filtername, filterInstanceId));
}

SingleFilterParameters& ProcessingParameters::getParameters(std::string const& key) {
  auto it = parameters_.find(key);
  if (it == parameters_.end() || !it->second) {
    throw QuorvelException("filtername or filterInstance is not correct", kGetParameters);
  }
  return *it->second;
}

SingleFilterParameters const& ProcessingParameters::findParameters(std::string const& filtername,
                                                                   size_t filterInstanceId) const {
  auto it = parameters_.find(makeKey(filtername, filterInstanceId));
  if (it == parameters_.end() || !it->second) return FilterEmptyParams::instance();
  return *it->second;
}

std::vector<std::string> ProcessingParameters::keys() const {
  std::vector<std::string> result;
  result.reserve(parameters_.size());
  for (auto const& entry : parameters_) result.push_back(entry.first);
  return result;
}

}  // namespace quorvel
