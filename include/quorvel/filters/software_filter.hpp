#pragma once
// The CPU filter base and the name-keyed registry of filter implementations.

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "quorvel/buffers/buffer2d.hpp"
#include "quorvel/export.hpp"
#include "quorvel/filters/filter.hpp"
#include "quorvel/filters/filter_parameters.hpp"

namespace quorvel {

/// A filter the CPU backend can run: a Filter description plus its kernel.
/// Rectangles here are {x, y, width, height} as signed 32-bit values.
class QUORVEL_API SoftwareFilter : public Filter {
 public:
  /// Copies the description. The kernel object never keeps the description's owning
  /// instance: the instance owns the kernel, not the other way round.
  explicit SoftwareFilter(Filter const& description);

  /// Runs the kernel: reads inputs[i] inside inputRects[i], writes outputs[0] inside
  /// outputRects[0]. Called on worker threads, one call per job.
  virtual void apply(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
                     std::vector<std::vector<int>> const& inputRects,
                     std::vector<std::shared_ptr<Buffer2D>> const& outputs,
                     std::vector<std::vector<int>> const& outputRects,
                     SingleFilterParameters const& params) = 0;

  /// Clips the output rectangle to its buffer and moves and caps the input rectangle to
  /// match (one input pixel per output pixel). An empty input rectangle first takes the
  /// input buffer's rectangle. Fails with "output rectangle does not intersect output
  /// buffer", leaving both rectangles unchanged.
  static void getValidRects(std::vector<int>& inputRect, std::vector<int> const& inputBufferRect,
                            std::vector<int>& outputRect, std::vector<int> const& outputBufferRect);

  /// Intersection with inclusive right and bottom edges; true when it is not empty.
  static bool intersect(std::vector<int> const& a, std::vector<int> const& b,
                        std::vector<int>& result);
};

/// A registry of creators keyed by name. Lookup is exact and case-sensitive.
template <class Key, class Base, class Arg>
class GenericMultiFactory {
 public:
  /// Builds one implementation from its argument.
  class GenericFactory {
   public:
    virtual ~GenericFactory() = default;
    virtual std::unique_ptr<Base> create(Arg argument) const = 0;
  };

  /// The creator of T: `create` returns a new T built from the argument.
  template <class T>
  class SpecializedFactory final : public GenericFactory {
   public:
    std::unique_ptr<Base> create(Arg argument) const override {
      return std::make_unique<T>(argument);
    }
  };

  /// Registers T under `key`, replacing an earlier creator of that name.
  template <class T>
  void registerFactory(Key const& key) {
    factories_[key] = std::make_shared<SpecializedFactory<T>>();
    names_.push_back(key);
  }

  /// The creator under `key`; fails with std::runtime_error("Invalid factory").
  GenericFactory const& get(Key const& key) const {
    auto it = factories_.find(key);
    if (it == factories_.end()) throw std::runtime_error("Invalid factory");
    return *it->second;
  }

  bool contains(Key const& key) const { return factories_.count(key) != 0; }

  /// Registered names in registration order.
  std::vector<Key> const& names() const { return names_; }

 private:
  std::map<Key, std::shared_ptr<GenericFactory>> factories_;
  std::vector<Key> names_;
};

using SoftwareFilterFactory = GenericMultiFactory<std::string, SoftwareFilter, Filter&>;

}  // namespace quorvel
