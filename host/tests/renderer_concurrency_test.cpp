// Many threads rendering from one engine at once, through a cache too small for the image,
// so that encoding, uploading, locking and eviction all race.

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

#include "quorvel/zoom/renderer.hpp"
#include "support/images.hpp"

namespace quorvel::zoom {
namespace {

TEST(RendererConcurrency, ThreadsRenderingRandomTilesGetTheSinglyRenderedPixels) {
  auto engine = std::make_shared<Engine>(EngineOptions{2, 256 << 10});
  auto source = test::busySource(320, 240, 8);
  Renderer r(engine, source, {64, 2, 64});
  Display d;
  d.sharpen = 1.0;
  d.clahe = 3.0;
  // The expected pixels of every level, rendered whole from this thread alone.
  std::vector<std::vector<uint8_t>> expected;
  for (size_t level = 0; level < r.levels(); ++level) {
    expected.push_back(r.render(level, {0, 0, r.width(level), r.height(level)}, d));
  }
  std::atomic<size_t> failures{0};
  std::vector<std::thread> threads;
  for (uint32_t t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 rng(t);
      for (int i = 0; i < 24; ++i) {
        size_t const level = rng() % std::min<size_t>(r.levels(), 4);
        size_t const w = r.width(level), h = r.height(level);
        size_t const x = rng() % w, y = rng() % h;
        Rect const rect{x, y, 1 + rng() % (w - x), 1 + rng() % (h - y)};
        auto const out = r.render(level, rect, d);
        for (size_t row = 0; row < rect.height; ++row) {
          if (!std::equal(out.begin() + long(row * rect.width * 4),
                          out.begin() + long((row + 1) * rect.width * 4),
                          expected[level].begin() + long(((rect.y + row) * w + rect.x) * 4))) {
            ++failures;
            break;
          }
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures.load(), 0u);
  EngineStats const s = engine->stats();
  EXPECT_EQ(s.rendersInFlight, 0u);
  EXPECT_GT(s.tileMisses, 0u);
}

}  // namespace
}  // namespace quorvel::zoom
