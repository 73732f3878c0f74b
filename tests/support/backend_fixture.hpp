#pragma once
// A backend with one instance on a small context, and helpers to fill tiles and read targets.

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "quorvel/render.hpp"

namespace quorvel::testing {

class BackendTest : public ::testing::Test {
 protected:
  explicit BackendTest(size_t capacity = 1 << 24, size_t workers = 2)
      : context_(8, 8, workers),
        backend_(RenderBackend::ImageFormatType::kRgba8, capacity),
        instance_(backend_.createInstance(context_)) {}

  SoftwareRenderBackendInstance& software() {
    return static_cast<SoftwareRenderBackendInstance&>(*instance_);
  }

  /// A filter description instantiated in the instance.
  std::unique_ptr<Filter> filter(std::string const& name, size_t inputs = 1) {
    auto f = std::make_unique<Filter>(pointFilter(name, inputs));
    f->instantiate(instance_);
    return f;
  }

  template <class T>
  static std::vector<unsigned char> bytesOf(std::vector<T> const& values) {
    std::vector<unsigned char> bytes(values.size() * sizeof(T));
    std::memcpy(bytes.data(), values.data(), bytes.size());
    return bytes;
  }

  template <class T>
  std::vector<T> read(size_t target, size_t x, size_t w, size_t y, size_t h) {
    auto bytes = instance_->getPixels(target, {x, w, y, h});
    std::vector<T> values(bytes.size() / sizeof(T));
    std::memcpy(values.data(), bytes.data(), values.size() * sizeof(T));
    return values;
  }

  SoftwareRenderContext context_;
  SoftwareRenderBackend backend_;
  std::shared_ptr<RenderBackendInstance> instance_;
};

}  // namespace quorvel::testing
