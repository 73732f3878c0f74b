#pragma once
// Render contexts: what a backend instance renders for.

#include <cstddef>
#include <memory>

#include "quorvel/export.hpp"

namespace quorvel {

class Buffer2D;

/// Base of every render context. Callers may derive their own context types.
class QUORVEL_API RenderContext {
 public:
  virtual ~RenderContext() = default;
};

/// The CPU context: an RGB output buffer and the size of the worker pool.
class QUORVEL_API SoftwareRenderContext : public RenderContext {
 public:
  /// Creates the width x height RGB8 output buffer (with storage) and records the number
  /// of worker threads the backend should start for this context.
  SoftwareRenderContext(size_t width, size_t height, size_t numberOfWorkerThreads);
  ~SoftwareRenderContext() override;

  size_t numberOfWorkerThreads() const { return workers_; }
  /// The context's output buffer, a Buffer2DVector<std::array<uint8_t,3>>; the backend
  /// registers it as the first render target.
  std::shared_ptr<Buffer2D> outputBuffer() const { return output_; }

 private:
  size_t workers_;
  std::shared_ptr<Buffer2D> output_;
};

}  // namespace quorvel
