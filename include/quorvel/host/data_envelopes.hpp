#pragma once
// Data envelopes: the rectangles of an image that hold valid content, stored once per id
// and queried by region when a mask filter renders.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "quorvel/export.hpp"
#include "quorvel/host/render_backend.hpp"

namespace quorvel {

class QUORVEL_API DataEnvelopes {
 public:
  /// An envelope or region with inclusive bounds.
  struct Rect {
    int64_t xmin, xmax, ymin, ymax;
  };

  DataEnvelopes();
  virtual ~DataEnvelopes();
  DataEnvelopes(DataEnvelopes const&) = delete;
  DataEnvelopes& operator=(DataEnvelopes const&) = delete;

  /// Copies the id, gathers every rectangle of every group (groups in order, rectangles in
  /// list order) and builds the spatial index in one bulk operation, replacing the previous
  /// one. Invalid data ("Invalid envelope") leaves the object unchanged.
  virtual void set(std::vector<unsigned char> const& id, EnvelopeData const& data);

  /// Number of envelopes.
  size_t count() const { return count_; }
  /// Entries of the index; the cache charges a fixed cost per entry.
  size_t indexSize() const;
  std::vector<unsigned char> const& id() const { return id_; }
  /// The 16-bit keys of the group that envelope `i` (gathering order) came from.
  std::vector<uint16_t> const& groupKeys(size_t i) const;

  /// The envelopes that intersect `region`, in gathering order. Logarithmic in count().
  std::vector<Rect> intersecting(Rect const& region) const;

  /// Throws "Invalid envelope" at `location` unless every rectangle has four values with
  /// xmin <= xmax and ymin <= ymax.
  static void validate(EnvelopeData const& data, char const* location);

 private:
  struct Index;
  size_t count_ = 0;
  std::unique_ptr<Index> index_;
  std::vector<unsigned char> id_;
};

}  // namespace quorvel
