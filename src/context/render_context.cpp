#include "quorvel/context/render_context.hpp"

#include "quorvel/buffers/buffer2d.hpp"

namespace quorvel {

SoftwareRenderContext::SoftwareRenderContext(size_t width, size_t height,
                                             size_t numberOfWorkerThreads)
    : workers_(numberOfWorkerThreads),
      output_(std::make_shared<Buffer2DVector<PixelRgb8>>(width, height, true)) {}

SoftwareRenderContext::~SoftwareRenderContext() = default;

}  // namespace quorvel
