// The smallest complete host: a backend, an instance, a target, a clear, a tile drawn
// through a filter, a flush, and the pixels read back.

#include <cstdio>
#include <quorvel/render.hpp>

int main() {
  using namespace quorvel;
  try {
    SoftwareRenderContext context(640, 480, 2);
    SoftwareRenderBackend backend(RenderBackend::ImageFormatType::kRgba8, 64 << 20);
    auto instance = backend.createInstance(context);

    size_t const target =
        instance->createTarget({256, 256}, 32, false, RenderBackend::ImageFiltering::kLinear,
                               RenderBackend::ImageFormatType::kRgba8);
    instance->clear(target, {32, 32, 48, 255});

    // One 128x128 RGBA tile with a gradient, drawn at (64, 64) through the 4x8 blit.
    std::vector<unsigned char> tile(128 * 128 * 4);
    for (size_t i = 0; i < 128 * 128; ++i) {
      tile[4 * i + 0] = static_cast<unsigned char>(2 * (i % 128));
      tile[4 * i + 1] = static_cast<unsigned char>(2 * (i / 128));
      tile[4 * i + 2] = 128;
      tile[4 * i + 3] = 255;
    }
    instance->setTile(1, tile, {128, 128, 4}, 0);
    Filter blit = pointFilter("BlitFilter4x8");
    blit.instantiate(instance);
    instance->drawTiles(target, blit, {0, 128, 0, 128}, {0, 128, 0, 128}, {128, 128}, {{0, 0}}, {1},
                        {64, 64});
    instance->finalizeDrawSequence();

    std::vector<unsigned char> pixels = instance->getPixels(target, {0, 256, 0, 256});
    auto at = [&](size_t x, size_t y) { return &pixels[(y * 256 + x) * 4]; };
    std::printf("background (0,0): %u %u %u %u\n", at(0, 0)[0], at(0, 0)[1], at(0, 0)[2],
                at(0, 0)[3]);
    std::printf("tile (64+10, 64+20): %u %u %u %u\n", at(74, 84)[0], at(74, 84)[1], at(74, 84)[2],
                at(74, 84)[3]);
    bool const ok = at(0, 0)[0] == 32 && at(74, 84)[0] == 20 && at(74, 84)[1] == 40;
    std::printf("%s\n", ok ? "read back as drawn" : "unexpected pixels");
    return ok ? 0 : 1;
  } catch (std::exception const& e) {
    std::fprintf(stderr, "%s\n", formatException(e).c_str());
    return 2;
  }
}
