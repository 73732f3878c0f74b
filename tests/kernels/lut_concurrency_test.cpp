#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>
#include <thread>

#include "quorvel/kernels/display/lut.hpp"

namespace quorvel {
namespace {

using Gamma16 = SoftwareFilterLinear16TosRGB8<int16_t, 3, uint8_t, 4>;

// Four workers run apply() on one filter instance at once, each with parameters of its
// own key, so tables are built and inserted concurrently; every output must use its own
// table. Rounds start together behind a bounded spin barrier.
TEST(LutConcurrency, WorkersShareOneInstanceWithDifferentKeys) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 6;
  constexpr size_t kWidth = 61, kHeight = 23;
  Gamma16 filter(pointFilter("FilterLinear16TosRGB8", 1, 48, 32, 3, 4, 12));

  auto source = std::make_shared<Buffer2DVector<PixelRgbS16>>(kWidth, kHeight, true);
  std::mt19937 rng(3);
  std::uniform_int_distribution<int> level(-100, 4200);
  for (size_t i = 0; i < kWidth * kHeight; ++i) {
    for (auto& c : source->data()[i]) c = static_cast<int16_t>(level(rng));
  }

  std::atomic<int> arrived{0};
  std::atomic<int> failures{0};
  auto const worker = [&](int id) {
    auto target = std::make_shared<Buffer2DVector<PixelRgba8>>(kWidth, kHeight, true);
    for (int round = 0; round < kRounds; ++round) {
      FilterLinear16TosRGB8Params p;
      p.gamma = 1.5 + 0.1 * id;
      p.blackPoint = static_cast<size_t>(10 * round);
      p.whitePoint = static_cast<size_t>(3000 + 100 * id);
      // Bounded barrier: all workers enter the round together (or give up after 10 s).
      int const goal = kThreads * (round + 1);
      arrived.fetch_add(1);
      auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
      while (arrived.load() < goal && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
      }
      filter.apply({source}, {{}}, {target}, {{0, 0, int{kWidth}, int{kHeight}}}, p);
      std::vector<uint8_t> const lut = makeGammaLut(12, p.gamma, p.blackPoint, p.whitePoint);
      for (size_t i = 0; i < kWidth * kHeight; ++i) {
        PixelRgba8 expected{};
        for (size_t c = 0; c < 3; ++c) {
          expected[c] = lut[static_cast<size_t>(std::clamp<int>(source->data()[i][c], 0, 4095))];
        }
        expected[3] = 255;
        if (target->data()[i] != expected) {
          failures.fetch_add(1);
          break;
        }
      }
    }
  };
  std::vector<std::thread> threads;
  for (int id = 0; id < kThreads; ++id) threads.emplace_back(worker, id);
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(filter.cachedLutCount(), static_cast<size_t>(kThreads * kRounds));
}

}  // namespace
}  // namespace quorvel
