// Many clients at once on a server in this process: random tiles of every level, with and
// without display parameters, on kept-alive connections. Under ThreadSanitizer this is the
// race check of the whole request path (parsing, the response cache, the memory budget, the
// renderer shared by every connection thread).

#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <random>
#include <thread>

#include "server.hpp"
#include "support/http_support.hpp"

namespace quorvel::serve {
namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr auto kDuration = std::chrono::milliseconds(1500);
constexpr bool kMeasureMemory = false;  // shadow memory would swamp the figure
#else
constexpr auto kDuration = std::chrono::seconds(4);
constexpr bool kMeasureMemory = true;
#endif

TEST(ServeConcurrency, ThirtyTwoClientsFetchRandomTilesOfEveryLevelWithoutError) {
  constexpr size_t kSide = 6000, kClients = 32, kCacheMb = 32;
  ServerOptions options;
  options.port = 0;
  options.workers = 2;
  options.cacheMb = kCacheMb;
  options.quiet = true;
  options.maxPixels = size_t{1} << 20;
  auto slide = std::make_shared<zoom::ProceduralSlide>(kSide, kSide, 5);
  Server server(options, {{"slide", slide, "concurrency slide"}});
  int const port = server.bind();
  size_t const before = testing::peakResidentBytes(getpid());
  std::thread serving([&] { server.run(); });

  size_t const levels = zoom::levelCount(kSide, kSide);
  std::atomic<size_t> ok{0}, failed{0};
  std::string firstFailure;
  std::mutex failureMutex;
  auto const deadline = std::chrono::steady_clock::now() + kDuration;
  std::vector<std::thread> clients;
  for (size_t i = 0; i < kClients; ++i) {
    clients.emplace_back([&, i] {
      httplib::Client c("127.0.0.1", port);
      c.set_keep_alive(true);
      c.set_read_timeout(60, 0);
      std::mt19937 random{uint32_t(i)};
      char const* displays[] = {"", "?gamma=1.6", "?sharpen=1", "?clahe=2"};
      // Bounded in count as well as in time.
      for (int n = 0; n < 5000 && std::chrono::steady_clock::now() < deadline; ++n) {
        size_t const level = random() % levels;
        size_t const scale = size_t{1} << level, step = 256 * scale;
        size_t const tiles = (kSide + step - 1) / step;
        size_t const x = (random() % tiles) * step, y = (random() % tiles) * step;
        size_t const w = std::min(step, kSide - x), h = std::min(step, kSide - y);
        std::string const path = "/iiif/3/slide/" + std::to_string(x) + "," + std::to_string(y) +
                                 "," + std::to_string(w) + "," + std::to_string(h) + "/" +
                                 std::to_string((w + scale - 1) / scale) + ",/0/default.jpg" +
                                 displays[random() % 4];
        auto const r = c.Get(path.c_str());
        if (r && r->status == 200 && r->body.size() > 100) {
          ++ok;
        } else {
          ++failed;
          std::lock_guard lock(failureMutex);
          if (firstFailure.empty()) {
            firstFailure =
                path + " -> " +
                (r ? std::to_string(r->status) + " " + r->body : httplib::to_string(r.error()));
          }
        }
      }
    });
  }
  for (auto& t : clients) t.join();
  size_t const peak = testing::peakResidentBytes(getpid());
  server.stop();
  serving.join();

  EXPECT_EQ(failed.load(), 0u) << firstFailure;
  EXPECT_GT(ok.load(), kClients) << "every client got tiles";
  if (kMeasureMemory) {
    // The caches, the renders the memory budget admits at once, and the connection and
    // worker threads' own buffers.
    size_t const bound = (kCacheMb << 20) + server.requestMemoryBound() + (size_t{96} << 20);
    EXPECT_LT(peak - std::min(peak, before), bound)
        << "peak grew from " << before / 1048576 << " MiB to " << peak / 1048576 << " MiB";
  }
  std::printf("%zu tiles for %zu clients; peak resident memory grew by %zu MiB\n", ok.load(),
              kClients, (peak - std::min(peak, before)) >> 20);
}

}  // namespace
}  // namespace quorvel::serve
