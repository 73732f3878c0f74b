#pragma once
// The deep-zoom HTTP server: IIIF Image API 3.0 (level 2) and Deep Zoom on the host layer,
// with the display parameters as query parameters of every image URL.
//
// Who runs what: HTTP threads (a pool of --http-threads, one per open connection) parse a
// request, answer it from the response cache when they can, and otherwise render it through
// the shared Renderer of its image, whose batches run on the backend's workers; the HTTP
// thread then resamples, orients and encodes the pixels and writes the response. Rendering
// is finished before the first byte is written, so a slow or vanished client holds a
// connection thread, never a render or the memory of one.

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "quorvel/zoom/image_source.hpp"

namespace quorvel::serve {

struct ServerOptions {
  std::string bind = "127.0.0.1";
  int port = 8080;  // 0: any free port
  size_t workers = 1;
  /// Connection threads. A browser opens six connections and keeps them alive; a load test
  /// 64. A connection waiting for its next request costs a sleeping thread, nothing more.
  size_t httpThreads = 64;
  size_t cacheMb = 256;
  /// The part of cacheMb that holds encoded responses (default a quarter; 0 turns it off).
  std::optional<size_t> responseCacheMb;
  int quality = 90;  // JPEG and WebP
  /// The largest response in pixels; also the IIIF maxArea.
  size_t maxPixels = size_t{1} << 23;
  bool quiet = false;
  /// Folder of the viewer's files, served under /static/ (empty: no viewer).
  std::string assetsDir;
};

/// One image the server serves.
struct ServedImage {
  std::string id;  // its identifier in URLs
  std::shared_ptr<zoom::ImageSource const> source;
  /// Text that changes when the image's pixels may have changed (file path, size and
  /// modification time); part of every entity tag.
  std::string identity;
};

class Server {
 public:
  /// Plans every image on one engine of `options.workers` workers. Throws
  /// std::invalid_argument for an empty or duplicate identifier.
  Server(ServerOptions const& options, std::vector<ServedImage> images);
  ~Server();
  Server(Server const&) = delete;
  Server& operator=(Server const&) = delete;

  /// Binds the listening socket and returns its port; throws std::runtime_error when the
  /// address cannot be bound.
  int bind();
  /// Serves until stop(); returns once the requests in flight have been answered.
  void run();
  /// Stops accepting; safe from any thread, before or during run().
  void stop();

  /// Bytes all requests in flight together hold beyond the caches, at most: the pixels
  /// admitted at once and the renderer's workspace of each render admitted at once.
  size_t requestMemoryBound() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace quorvel::serve
