// Fuzz target: the server's request layer on arbitrary request targets.
//
// The input is a request target: a path, then after the first '?' a query of pairs split on
// '&' and at their first '='. The path is routed; IIIF and Deep Zoom routes are resolved
// against images from 1 x 1 to 2^31 x 3 under tight, ordinary and absent limits, with their
// descriptors written too; the query is read as display parameters. RequestError is the only
// way to refuse: anything else escaping, or a resolved request that breaks its promises, is a
// bug.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "descriptors.hpp"
#include "quorvel/zoom/geometry.hpp"
#include "request.hpp"

namespace {

using namespace quorvel::serve;
using quorvel::zoom::Rect;

void require(bool condition, char const* promise, std::string_view input) {
  if (condition) return;
  std::fprintf(stderr, "broken promise: %s\ninput: %.*s\n", promise, static_cast<int>(input.size()),
               input.data());
  std::abort();
}

bool safeName(std::string_view name) {
  if (name.empty() || name == "." || name == "..") return false;
  for (char c : name) {
    bool const ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                    c == '.' || c == '_' || c == '-';
    if (!ok) return false;
  }
  return true;
}

std::vector<std::pair<std::string, std::string>> splitQuery(std::string_view query) {
  std::vector<std::pair<std::string, std::string>> pairs;
  while (!query.empty()) {
    size_t const amp = query.find('&');
    std::string_view const pair = query.substr(0, amp);
    size_t const eq = pair.find('=');
    pairs.emplace_back(std::string(pair.substr(0, eq)),
                       eq == std::string_view::npos ? "" : std::string(pair.substr(eq + 1)));
    if (amp == std::string_view::npos) break;
    query.remove_prefix(amp + 1);
  }
  return pairs;
}

void resolve(Route const& route, size_t width, size_t height, Limits const& limits,
             std::string_view input) {
  Rect const image{0, 0, width, height};
  if (route.kind == Route::Kind::kIiifImage) {
    try {
      ImageRequest const r = resolveIiif(route, width, height, limits);
      require(!r.region.empty() && image.contains(r.region), "region inside the image", input);
      require(r.width >= 1 && r.height >= 1 && r.width <= limits.maxWidth &&
                  r.height <= limits.maxHeight && r.width <= limits.maxArea / r.height,
              "size within the limits", input);
      require(r.rotation % 90 == 0 && r.rotation < 360, "a right-angle rotation", input);
    } catch (RequestError const&) {
    }
  } else if (route.kind == Route::Kind::kDziTile) {
    try {
      DziTile const t = resolveDzi(route, width, height);
      require(t.level < quorvel::zoom::levelCount(width, height), "a level of the image", input);
      Rect const level{0, 0, quorvel::zoom::levelExtent(width, t.level),
                       quorvel::zoom::levelExtent(height, t.level)};
      require(!t.rect.empty() && level.contains(t.rect) && t.rect.width <= kTileSize + 2 &&
                  t.rect.height <= kTileSize + 2,
              "a tile inside its level", input);
    } catch (RequestError const&) {
    }
  } else if (route.kind == Route::Kind::kIiifInfo) {
    require(!iiifInfo("http://h/iiif/3/" + route.id, width, height, limits).empty(), "info.json",
            input);
  } else if (route.kind == Route::Kind::kDziInfo) {
    require(!dziXml(width, height, route.format).empty(), "the .dzi", input);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  std::string_view const input(reinterpret_cast<char const*>(data), size);
  size_t const mark = input.find('?');
  std::string_view const path = input.substr(0, mark);
  try {
    Route const route = parseRoute(path);
    require(route.id.empty() || safeName(route.id), "a safe identifier", input);
    bool const idNeeded = route.kind != Route::Kind::kIndex && route.kind != Route::Kind::kHealth &&
                          route.kind != Route::Kind::kMetrics && route.kind != Route::Kind::kAsset;
    require(!idNeeded || !route.id.empty(), "an identifier", input);
    if (route.kind == Route::Kind::kAsset) {
      std::string_view rest = route.asset;
      do {
        size_t const slash = rest.find('/');
        require(safeName(rest.substr(0, slash)), "a safe asset path", input);
        rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
      } while (!rest.empty());
    }
    constexpr size_t kMax = std::numeric_limits<size_t>::max();
    static constexpr std::pair<size_t, size_t> kImages[] = {
        {1, 1}, {2, 3}, {257, 1}, {1000, 600}, {1, 100000}, {size_t{1} << 31, 3}};
    static constexpr Limits kLimits[] = {
        {1, 1, 1}, {1000, 1000, 250000}, {8192, 8192, size_t{1} << 26}, {kMax, kMax, kMax}};
    for (auto const& [width, height] : kImages) {
      for (Limits const& limits : kLimits) resolve(route, width, height, limits, input);
    }
  } catch (RequestError const&) {
  }
  if (mark != std::string_view::npos) {
    try {
      parseDisplay(splitQuery(input.substr(mark + 1)));
    } catch (RequestError const&) {
    }
  }
  return 0;
}
