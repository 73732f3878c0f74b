// quorvel-serve: serves images as IIIF Image API 3.0 and Deep Zoom, with display parameters
// on every image URL, rendered through the Quorvel render backend.

#include <signal.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "server.hpp"

namespace {

using namespace quorvel;

constexpr int kUsageStatus = 2;  // bad options or an image that cannot be opened
constexpr size_t kDefaultSlide = 65536;

/// The identifier of a file: its name without directory or extension.
std::string identifierOf(std::string const& path) {
  return std::filesystem::path(path).stem().string();
}

/// Path, size and modification time: what tells a changed file from the one served before.
std::string identityOf(std::string const& path) {
  struct stat st {};
  std::string identity = std::filesystem::absolute(path).string();
  if (::stat(path.c_str(), &st) == 0) {
    identity += '\n' + std::to_string(st.st_size) + '\n' + std::to_string(st.st_mtim.tv_sec) + '.' +
                std::to_string(st.st_mtim.tv_nsec);
  }
  return identity;
}

int run(int argc, char** argv) {
  CLI::App app{
      "Serves images as IIIF Image API 3.0 (level 2) and Deep Zoom, rendered by the Quorvel "
      "render backend at any zoom level, with gamma, black and white points, sharpening, CLAHE "
      "and a colour matrix as query parameters of every image URL, without seams between "
      "tiles. Each IMAGE is served under its file name without directory or extension."};
  app.get_formatter()->column_width(30);
  std::vector<std::string> files;
  serve::ServerOptions options;
  options.workers = std::max(1u, std::thread::hardware_concurrency());
  size_t responseCacheMb = 0;
  app.add_option("IMAGE", files,
                 "PNG, JPEG, TIFF (tiled, pyramidal, BigTIFF) or whole-slide images (default: a "
                 "generated 65536 x 65536 slide served as 'slide')")
      ->check(CLI::ExistingFile);
  app.add_option("--bind", options.bind, "address to listen on (default: 127.0.0.1)");
  app.add_option("--port", options.port, "port; 0 picks a free one (default: 8080)")
      ->check(CLI::Range(0, 65535));
  app.add_option("--threads", options.workers, "backend worker threads (default: all cores)")
      ->check(CLI::Range(size_t{1}, size_t{256}));
  app.add_option("--http-threads", options.httpThreads,
                 "connection threads, one per open connection (default: 64)")
      ->check(CLI::Range(size_t{2}, size_t{4096}));
  app.add_option("--cache-mb", options.cacheMb,
                 "memory for caches in MiB: coefficient tiles and encoded responses (default: "
                 "256)")
      ->check(CLI::Range(size_t{8}, size_t{1} << 20));
  auto* responseOption =
      app.add_option("--response-cache-mb", responseCacheMb,
                     "the part of --cache-mb that keeps encoded responses (default: a quarter; "
                     "0: none)");
  app.add_option("--quality", options.quality, "JPEG and WebP quality (default: 90)")
      ->check(CLI::Range(1, 100));
  app.add_option("--max-pixels", options.maxPixels,
                 "the largest response in pixels, also the IIIF maxArea (default: 8388608)")
      ->check(CLI::Range(size_t{1}, size_t{1} << 31));
  app.add_option("--viewer", options.assetsDir, "folder of the viewer's files")
      ->check(CLI::ExistingDirectory);
  app.add_flag("-q,--quiet", options.quiet, "no access log on standard error");
  try {
    app.parse(argc, argv);
  } catch (CLI::CallForHelp const& e) {
    return app.exit(e);
  } catch (CLI::ParseError const& e) {
    std::fprintf(stderr, "quorvel-serve: error: %s\n", e.what());
    return kUsageStatus;
  }
  if (responseOption->count()) options.responseCacheMb = responseCacheMb;

  // Signals are taken by one thread with sigwait: every other thread, the HTTP library's and
  // the backend's included, inherits this mask.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  // A client that closes its connection while we write must not kill the server.
  signal(SIGPIPE, SIG_IGN);

  std::vector<serve::ServedImage> images;
  try {
    if (files.empty()) {
      auto slide = std::make_shared<zoom::ProceduralSlide>(kDefaultSlide, kDefaultSlide);
      images.push_back({"slide", slide, "procedural slide " + slide->description()});
    }
    for (std::string const& file : files) {
      images.push_back({identifierOf(file), zoom::openImageFile(file), identityOf(file)});
    }
  } catch (zoom::SourceError const& e) {
    std::fprintf(stderr, "quorvel-serve: error: %s\n", e.what());
    return kUsageStatus;
  }

  std::unique_ptr<serve::Server> server;
  int port = 0;
  try {
    server = std::make_unique<serve::Server>(options, std::move(images));
    port = server->bind();
  } catch (std::exception const& e) {
    std::fprintf(stderr, "quorvel-serve: error: %s\n", e.what());
    return kUsageStatus;
  }

  std::atomic<bool> finished{false};
  std::thread signals([&] {
    int signal = 0;
    sigwait(&stopSignals, &signal);
    if (finished) return;
    // A signal that arrives before the server has started listening is not lost: stop is
    // asked again until run() has returned.
    while (!finished) {
      server->stop();
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  });

  std::printf("listening on http://%s:%d/\n", options.bind.c_str(), port);
  std::fflush(stdout);
  server->run();
  finished = true;
  // Wake the signal thread if no signal came (run() ended on its own).
  pthread_kill(signals.native_handle(), SIGTERM);
  signals.join();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (std::exception const& e) {
    std::fprintf(stderr, "quorvel-serve: error: %s\n", e.what());
    return 1;
  }
}
