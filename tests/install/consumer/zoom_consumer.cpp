// Renders one tile of a procedural slide through the installed host layer.
#include <cstdio>
#include <quorvel/zoom/renderer.hpp>

int main() {
  using namespace quorvel::zoom;
  auto engine = std::make_shared<Engine>(EngineOptions{1, 16 << 20});
  Renderer slide(engine, std::make_shared<ProceduralSlide>(4096, 4096));
  Display display;
  display.clahe = 2.0;
  std::vector<uint8_t> const rgba = slide.render(4, {0, 0, 256, 256}, display);
  size_t opaque = 0;
  for (size_t i = 3; i < rgba.size(); i += 4) opaque += rgba[i] == 255;
  if (opaque != 256 * 256) return 1;
  std::printf("host layer: level 4 of a %zu x %zu slide rendered\n", slide.width(), slide.height());
  return 0;
}
