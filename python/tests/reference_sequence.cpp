// A fixed draw sequence run from C++; prints the resulting RGBA pixels as raw bytes so the
// Python tests can check that the binding drives the backend to the same result.

#include <cstdio>
#include <quorvel/render.hpp>

int main() {
  using namespace quorvel;
  SoftwareRenderContext context(16, 16, 2);
  SoftwareRenderBackend backend(RenderBackend::ImageFormatType::kRgba8, 1 << 20);
  auto instance = backend.createInstance(context);
  size_t const a =
      instance->createTarget({64, 48}, 32, false, RenderBackend::ImageFiltering::kLinear,
                             RenderBackend::ImageFormatType::kUnknown);
  size_t const b =
      instance->createTarget({64, 48}, 32, false, RenderBackend::ImageFiltering::kLinear,
                             RenderBackend::ImageFormatType::kUnknown);
  instance->clear(a, {10, 20, 30, 255});
  for (size_t t = 0; t < 3; ++t) {
    std::vector<unsigned char> tile(32 * 24 * 4);
    for (size_t y = 0; y < 24; ++y) {
      for (size_t x = 0; x < 32; ++x) {
        unsigned char* p = &tile[(y * 32 + x) * 4];
        p[0] = static_cast<unsigned char>(x * 7 + y * 13 + t * 29);
        p[1] = static_cast<unsigned char>(x * 3 + t * 50);
        p[2] = static_cast<unsigned char>(y * 11);
        p[3] = 255;
      }
    }
    instance->setTile(t, tile, {32, 24, 4}, 0);
  }
  Filter blit = pointFilter("BlitFilter4x8");
  Filter matrix = pointFilter("Filter3x3Matrix8");
  blit.instantiate(instance);
  matrix.instantiate(instance);
  instance->drawTiles(a, blit, {0, 64, 0, 48}, {0, 64, 0, 48}, {32, 24},
                      {{0, 0}, {1, 0}, {0, 1}, {1, 1}}, {0, 1, 2, 3}, {});
  Filter3x3MatrixParams params;
  params.matrix = {900, 100, 24, 50, 950, 24, 0, 80, 944};
  params.scale = 1.1;
  instance->executeFilter(matrix, {{a, 0, 0, true}}, 64, 48, b, 0, 0, 0, 0, params, {0, 0});
  instance->finalizeDrawSequence();
  auto pixels = instance->getPixels(b, {0, 64, 0, 48});
  std::fwrite(pixels.data(), 1, pixels.size(), stdout);
  return 0;
}
