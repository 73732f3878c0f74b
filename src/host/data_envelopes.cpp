#include "quorvel/host/data_envelopes.hpp"

#include <algorithm>
#include <boost/geometry.hpp>
#include <boost/geometry/geometries/box.hpp>
#include <boost/geometry/geometries/point.hpp>
#include <boost/geometry/index/rtree.hpp>
#include <utility>

#include "quorvel/errors/exception.hpp"

namespace quorvel {

namespace bg = boost::geometry;
namespace bgi = boost::geometry::index;

namespace {
constexpr char kSetLocation[] =
    "void DataEnvelopes::set(std::vector<unsigned char> const& id, "
    "std::vector<std::pair<std::vector<uint16_t>, std::vector<std::vector<uint32_t>>>> const& "
    "data)";
}

// Envelopes live in an R-tree of integer boxes; the value carries the gathering position so
// query results can be returned in a stable order.
struct DataEnvelopes::Index {
  using Point = bg::model::point<int64_t, 2, bg::cs::cartesian>;
  using Box = bg::model::box<Point>;
  using Value = std::pair<Box, size_t>;
  // The packing (bulk-loading) constructor builds a balanced tree in one pass.
  using Tree = bgi::rtree<Value, bgi::quadratic<16>>;

  Tree tree;
  std::vector<size_t> group;  // per envelope, its group
  std::vector<std::vector<uint16_t>> groupKeys;
};

DataEnvelopes::DataEnvelopes() : index_(std::make_unique<Index>()) {}
DataEnvelopes::~DataEnvelopes() = default;

void DataEnvelopes::validate(EnvelopeData const& data, char const* location) {
  for (auto const& group : data) {
    for (auto const& r : group.second) {
      if (r.size() != 4 || r[0] > r[1] || r[2] > r[3]) {
        throw QuorvelException("Invalid envelope", location);
      }
    }
  }
}

void DataEnvelopes::set(std::vector<unsigned char> const& id, EnvelopeData const& data) {
  validate(data, kSetLocation);
  auto index = std::make_unique<Index>();
  std::vector<Index::Value> values;
  for (size_t g = 0; g < data.size(); ++g) {
    index->groupKeys.push_back(data[g].first);
    for (auto const& r : data[g].second) {
      values.emplace_back(Index::Box(Index::Point(r[0], r[2]), Index::Point(r[1], r[3])),
                          values.size());
      index->group.push_back(g);
    }
  }
  index->tree = Index::Tree(values.begin(), values.end());
  std::vector<unsigned char> copy = id;
  // Nothing above touched this object; commit all at once.
  id_ = std::move(copy);
  count_ = values.size();
  index_ = std::move(index);
}

size_t DataEnvelopes::indexSize() const { return index_->tree.size(); }

std::vector<uint16_t> const& DataEnvelopes::groupKeys(size_t i) const {
  return index_->groupKeys.at(index_->group.at(i));
}

std::vector<DataEnvelopes::Rect> DataEnvelopes::intersecting(Rect const& region) const {
  std::vector<Index::Value> hits;
  Index::Box const query(Index::Point(region.xmin, region.ymin),
                         Index::Point(region.xmax, region.ymax));
  index_->tree.query(bgi::intersects(query), std::back_inserter(hits));
  std::sort(hits.begin(), hits.end(),
            [](Index::Value const& a, Index::Value const& b) { return a.second < b.second; });
  std::vector<Rect> result;
  result.reserve(hits.size());
  for (auto const& hit : hits) {
    result.push_back(
        Rect{bg::get<bg::min_corner, 0>(hit.first), bg::get<bg::max_corner, 0>(hit.first),
             bg::get<bg::min_corner, 1>(hit.first), bg::get<bg::max_corner, 1>(hit.first)});
  }
  return result;
}

}  // namespace quorvel
