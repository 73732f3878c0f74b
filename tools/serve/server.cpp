#include "server.hpp"

#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <unordered_map>

#include "descriptors.hpp"
#include "encode.hpp"
#include "imaging.hpp"
#include "quorvel/zoom/renderer.hpp"
#include "request.hpp"
#include "server_cache.hpp"
#include "server_metrics.hpp"

#ifndef QUORVEL_SERVE_VERSION
#define QUORVEL_SERVE_VERSION "dev"
#endif

namespace quorvel::serve {
namespace {

using Clock = std::chrono::steady_clock;

// Tiles do not change while the file does not, and a change of file changes the entity tag;
// caches may keep them for a year and revalidate with If-None-Match after that.
constexpr char const* kTileCacheControl = "public, max-age=31536000";
// Descriptions are small and tell a viewer the image's size: an hour.
constexpr char const* kInfoCacheControl = "public, max-age=3600";
constexpr char const* kInfoMediaType =
    "application/ld+json;profile=\"http://iiif.io/api/image/3/context.json\"";

/// 128 bits of FNV-1a (two 64-bit lanes with different offsets) as 32 hex digits: stable
/// across runs and machines, so a browser's cached tile stays valid across restarts.
std::string digest(std::string const& text) {
  uint64_t a = 0xcbf29ce484222325ull, b = 0x84222325cbf29ce4ull;
  for (unsigned char c : text) {
    a = (a ^ c) * 0x100000001b3ull;
    b = (b ^ (c + 0x5bu)) * 0x100000001b3ull;
  }
  char hex[33];
  std::snprintf(hex, sizeof hex, "%016llx%016llx", static_cast<unsigned long long>(a),
                static_cast<unsigned long long>(b));
  return hex;
}

/// True when an If-None-Match header names `etag` (or is "*").
bool matches(std::string const& header, std::string const& etag) {
  if (header.empty()) return false;
  size_t pos = 0;
  while (pos < header.size()) {
    size_t end = header.find(',', pos);
    if (end == std::string::npos) end = header.size();
    std::string item = header.substr(pos, end - pos);
    item.erase(0, item.find_first_not_of(" \t"));
    item.erase(item.find_last_not_of(" \t") + 1);
    // A weak validator matches too: If-None-Match uses the weak comparison.
    if (item.rfind("W/", 0) == 0) item.erase(0, 2);
    if (item == "*" || item == etag) return true;
    pos = end + 1;
  }
  return false;
}

std::string escapeHtml(std::string const& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '&':
        out += "&amp;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

/// A counting semaphore: what a render takes before it starts and gives back when done.
/// Renders are admitted by count, because each one in flight holds the renderer's own
/// workspace (targets, locked tiles, encoder scratch) whatever its size, and by
/// bytes, because a large IIIF region holds its pixels several times over on the way to the
/// encoder. Both are taken before anything is allocated, so the memory of all renders in
/// flight stays bounded however many clients ask at once.
class Allowance {
 public:
  explicit Allowance(size_t capacity) : available_(capacity), capacity_(capacity) {}

  class Lease {
   public:
    Lease(Allowance& allowance, size_t amount)
        : allowance_(allowance), amount_(allowance.acquire(amount)) {}
    ~Lease() { allowance_.release(amount_); }
    Lease(Lease const&) = delete;
    Lease& operator=(Lease const&) = delete;

   private:
    Allowance& allowance_;
    size_t amount_;
  };

  size_t capacity() const { return capacity_; }

 private:
  // Waits until `amount` (at most the whole capacity) is free and takes it.
  size_t acquire(size_t amount) {
    amount = std::min(amount, capacity_);
    std::unique_lock lock(mutex_);
    freed_.wait(lock, [&] { return available_ >= amount; });
    available_ -= amount;
    return amount;
  }
  void release(size_t amount) {
    {
      std::lock_guard lock(mutex_);
      available_ += amount;
    }
    freed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable freed_;
  size_t available_;
  size_t const capacity_;
};

// Bytes of the renderer's own state a render in flight holds beyond its pixels (targets,
// locked tiles, the encoder's planes; about 20 MiB measured at 256-pixel tiles).
constexpr size_t kRenderWorkspace = size_t{24} << 20;

/// What an image request renders and how its pixels are delivered.
struct Plan {
  size_t level = 0;
  zoom::Rect rect;  // in the level's pixels
  size_t width = 0, height = 0;
  unsigned rotation = 0;
  bool mirror = false;
  Quality quality = Quality::kDefault;
  Format format = Format::kJpeg;

  /// Every field that changes the bytes of the response, as text (part of the entity tag,
  /// computed for every request, cache hits included).
  std::string key() const {
    using std::to_string;
    return to_string(level) + '/' + rect.str() + '/' + to_string(width) + 'x' + to_string(height) +
           '/' + to_string(rotation) + (mirror ? "!" : "") + '/' + to_string(int(quality)) + '.' +
           extensionOf(format);
  }
};

// Bytes a render of `plan` holds at most: the level's RGBA pixels, and for the output up to
// four more RGBA-sized stages (resampled, oriented, quality, encoded).
size_t planBytes(Plan const& plan) {
  return 4 * plan.rect.width * plan.rect.height + 16 * plan.width * plan.height;
}

/// The coarsest zoom level whose pixels of `region` still cover width x height, and the
/// region at that level. A tile request of a power-of-two scale lands exactly on a level,
/// so it needs no resampling; any other size is resampled from at most twice its size.
Plan planIiif(ImageRequest const& request, zoom::Renderer const& renderer) {
  Plan plan;
  plan.width = request.width;
  plan.height = request.height;
  plan.rotation = request.rotation;
  plan.mirror = request.mirror;
  plan.quality = request.quality;
  plan.format = request.format;
  auto const levelRect = [&](size_t k) {
    auto const up = [k](size_t v) { return (v >> k) + ((v & ((size_t{1} << k) - 1)) != 0); };
    zoom::Rect const& r = request.region;
    size_t const x0 = r.x >> k, y0 = r.y >> k;
    return zoom::Rect{x0, y0, up(r.right()) - x0, up(r.bottom()) - y0};
  };
  plan.level = 0;
  for (size_t k = renderer.levels() - 1; k > 0; --k) {
    zoom::Rect const r = levelRect(k);
    if (r.width >= plan.width && r.height >= plan.height) {
      plan.level = k;
      break;
    }
  }
  plan.rect = levelRect(plan.level);
  return plan;
}

}  // namespace

struct Server::Impl {
  struct Image {
    ServedImage served;
    std::unique_ptr<zoom::Renderer> renderer;
  };

  ServerOptions options;
  std::shared_ptr<zoom::Engine> engine;
  std::map<std::string, Image> images;
  Limits limits;
  ResponseCache responses;
  Allowance budget;  // bytes of pixels in flight
  Allowance slots;   // renders in flight
  Metrics metrics;
  httplib::Server http;
  std::string version = QUORVEL_SERVE_VERSION;

  Impl(ServerOptions const& o, size_t responseBytes)
      : options(o),
        responses(responseBytes),
        // The largest request renders at most four times its pixels at the level it reads.
        budget(32 * std::max<size_t>(o.maxPixels, 256 * 256)),
        // Two renders per worker keep every worker fed while the connection threads do
        // their own share (planning, encoding); more would only hold more workspaces.
        slots(2 * std::max<size_t>(1, o.workers) + 2) {}

  // --- Answers -----------------------------------------------------------------------------

  static void fail(httplib::Response& res, int status, std::string const& reason) {
    res.status = status;
    res.set_content(reason + "\n", "text/plain; charset=utf-8");
  }

  Image const& find(std::string const& id) const {
    auto const it = images.find(id);
    if (it == images.end()) throw RequestError(404, "unknown image identifier '" + id + "'");
    return it->second;
  }

  std::string origin(httplib::Request const& req) const {
    std::string host = req.get_header_value("Host");
    if (host.empty()) host = options.bind + ":" + std::to_string(options.port);
    return "http://" + host;
  }

  static std::vector<std::pair<std::string, std::string>> queryOf(httplib::Request const& req) {
    return {req.params.begin(), req.params.end()};
  }

  /// Renders (or finds in the cache) the response of `plan` on `image` with `display`.
  void answerImage(httplib::Request const& req, httplib::Response& res, Image const& image,
                   Plan const& plan, zoom::Display const& display) {
    std::string const etag =
        "\"" +
        digest(image.served.identity + '\n' + plan.key() + '\n' + display.key() + '\n' +
               std::to_string(options.quality) + '\n' + version) +
        "\"";
    res.set_header("ETag", etag);
    res.set_header("Cache-Control", kTileCacheControl);
    res.set_header("Link", "<http://iiif.io/api/image/3/level2.json>;rel=\"profile\"");
    if (matches(req.get_header_value("If-None-Match"), etag)) {
      res.status = 304;
      return;
    }
    std::shared_ptr<CachedResponse const> response = responses.find(etag);
    if (!response) {
      auto const start = Clock::now();
      auto made = std::make_shared<CachedResponse>();
      {
        Allowance::Lease bytes(budget, planBytes(plan));
        Pixels pixels;
        pixels.width = plan.rect.width;
        pixels.height = plan.rect.height;
        pixels.channels = 4;
        {
          Allowance::Lease slot(slots, 1);
          pixels.data = image.renderer->render(plan.level, plan.rect, display);
        }
        if (pixels.width != plan.width || pixels.height != plan.height) {
          pixels = resize(pixels, plan.width, plan.height);
        }
        // The quality first: a grey image turns with a quarter of the bytes.
        pixels = orient(applyQuality(std::move(pixels), plan.quality), plan.rotation, plan.mirror);
        made->body = encode(pixels, plan.format, options.quality);
      }
      made->mediaType = mediaTypeOf(plan.format);
      made->renderMs = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
      metrics.rendered();
      responses.insert(etag, made);
      response = std::move(made);
    }
    char timing[64];
    std::snprintf(timing, sizeof timing, "render;dur=%.3f", response->renderMs);
    res.set_header("Server-Timing", timing);
    res.set_content(response->body, response->mediaType);
  }

  void answerInfo(httplib::Request const& req, httplib::Response& res, Image const& image) {
    zoom::ImageSource const& source = *image.served.source;
    res.set_header("Cache-Control", kInfoCacheControl);
    res.set_header("Link", "<http://iiif.io/api/image/3/level2.json>;rel=\"profile\"");
    res.set_content(iiifInfo(origin(req) + "/iiif/3/" + image.served.id, source.width(),
                             source.height(), limits),
                    kInfoMediaType);
  }

  void answerIndex(httplib::Response& res) {
    std::string html =
        "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
        "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">"
        "<title>quorvel-serve</title><link rel=\"icon\" href=\"data:,\">";
    if (!options.assetsDir.empty()) html += "<link rel=\"stylesheet\" href=\"/static/viewer.css\">";
    html += "</head><body class=\"index\">\n<h1>Images</h1>\n<ul>\n";
    for (auto const& [id, image] : images) {
      std::string const e = escapeHtml(id);
      html += "<li><a href=\"/view/" + e + "\"><img alt=\"\" src=\"/iiif/3/" + e +
              "/full/!160,160/0/default.jpg\"> " + e + "</a> " +
              std::to_string(image.served.source->width()) + " x " +
              std::to_string(image.served.source->height()) + " &middot; <a href=\"/iiif/3/" + e +
              "/info.json\">info.json</a> &middot; <a href=\"/dzi/" + e + ".dzi\">dzi</a></li>\n";
    }
    html += "</ul>\n</body></html>\n";
    res.set_header("Cache-Control", "no-cache");
    res.set_content(html, "text/html; charset=utf-8");
  }

  /// A file of the viewer: `osd/...` from the OpenSeadragon package the viewer's npm install
  /// brought, anything else from its public folder. The parser has already refused ".."
  /// segments; the canonical path is checked again so a symbolic link cannot lead out.
  void answerAsset(httplib::Response& res, std::string const& asset) const {
    namespace fs = std::filesystem;
    if (options.assetsDir.empty()) throw RequestError(404, "the viewer is not installed");
    fs::path const viewer(options.assetsDir);
    bool const osd = asset.rfind("osd/", 0) == 0;
    fs::path const root =
        osd ? viewer / "node_modules/openseadragon/build/openseadragon" : viewer / "public";
    std::error_code error;
    fs::path const base = fs::weakly_canonical(root, error);
    fs::path const file = fs::weakly_canonical(root / (osd ? asset.substr(4) : asset), error);
    std::string const prefix = base.string() + "/";
    if (error || file.string().rfind(prefix, 0) != 0 || !fs::is_regular_file(file, error)) {
      throw RequestError(404, "no such file: /static/" + asset);
    }
    std::ifstream in(file, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    if (!in) throw RequestError(404, "cannot read /static/" + asset);
    static std::map<std::string, char const*> const kTypes = {
        {".html", "text/html; charset=utf-8"},
        {".js", "text/javascript; charset=utf-8"},
        {".mjs", "text/javascript; charset=utf-8"},
        {".css", "text/css; charset=utf-8"},
        {".json", "application/json"},
        {".map", "application/json"},
        {".png", "image/png"},
        {".svg", "image/svg+xml"},
        {".gif", "image/gif"},
        {".jpg", "image/jpeg"},
        {".ico", "image/x-icon"}};
    auto const type = kTypes.find(file.extension().string());
    // The viewer's files change with the program, not with the image: revalidate each time.
    res.set_header("Cache-Control", "no-cache");
    res.set_content(content.str(),
                    type == kTypes.end() ? "application/octet-stream" : type->second);
  }

  void handle(httplib::Request const& req, httplib::Response& res) {
    Route const route = parseRoute(req.path);
    bool const takesQuery =
        route.kind == Route::Kind::kIiifImage || route.kind == Route::Kind::kDziTile;
    if (!takesQuery && route.kind != Route::Kind::kView && !req.params.empty()) {
      throw RequestError(400, "this URL takes no query parameters");
    }
    switch (route.kind) {
      case Route::Kind::kHealth:
        res.set_header("Cache-Control", "no-store");
        res.set_content("ok\n", "text/plain; charset=utf-8");
        return;
      case Route::Kind::kMetrics:
        res.set_header("Cache-Control", "no-store");
        res.set_content(metrics.text(engine->stats(), responses.stats()),
                        "text/plain; version=0.0.4; charset=utf-8");
        return;
      case Route::Kind::kIndex:
        answerIndex(res);
        return;
      case Route::Kind::kView: {
        // The page is the same for every image; an unknown identifier still gets it (with
        // 404), so a person sees the viewer's own message rather than a bare error.
        bool const known = images.count(route.id) != 0;
        answerAsset(res, "view.html");
        if (!known) res.status = 404;
        return;
      }
      case Route::Kind::kAsset:
        answerAsset(res, route.asset);
        return;
      case Route::Kind::kIiifBase:
        find(route.id);
        res.status = 303;
        res.set_header("Location", origin(req) + "/iiif/3/" + route.id + "/info.json");
        return;
      case Route::Kind::kIiifInfo:
        answerInfo(req, res, find(route.id));
        return;
      case Route::Kind::kDziInfo: {
        Image const& image = find(route.id);
        res.set_header("Cache-Control", kInfoCacheControl);
        res.set_content(
            dziXml(image.served.source->width(), image.served.source->height(), Format::kJpeg),
            "application/xml");
        return;
      }
      case Route::Kind::kIiifImage: {
        Image const& image = find(route.id);
        zoom::Display const display = parseDisplay(queryOf(req));
        ImageRequest const request =
            resolveIiif(route, image.served.source->width(), image.served.source->height(), limits);
        answerImage(req, res, image, planIiif(request, *image.renderer), display);
        return;
      }
      case Route::Kind::kDziTile: {
        Image const& image = find(route.id);
        zoom::Display const display = parseDisplay(queryOf(req));
        DziTile const tile =
            resolveDzi(route, image.served.source->width(), image.served.source->height());
        Plan plan;
        plan.level = tile.level;
        plan.rect = tile.rect;
        plan.width = tile.rect.width;
        plan.height = tile.rect.height;
        plan.format = tile.format;
        answerImage(req, res, image, plan, display);
        return;
      }
    }
  }

  // Every refusal becomes a status with a one-line reason; nothing escapes to the HTTP
  // library, which would answer 500 without one.
  void handleSafely(httplib::Request const& req, httplib::Response& res) {
    try {
      handle(req, res);
    } catch (RequestError const& e) {
      fail(res, e.status(), e.what());
    } catch (zoom::DisplayError const& e) {
      fail(res, 400, e.what());
    } catch (std::out_of_range const& e) {
      fail(res, 400, e.what());
    } catch (zoom::SourceError const& e) {
      fail(res, 500, std::string("cannot read the image: ") + e.what());
    } catch (std::bad_alloc const&) {
      fail(res, 503, "out of memory");
    } catch (std::exception const& e) {
      fail(res, 500, e.what());
    }
  }

  void log(httplib::Request const& req, httplib::Response const& res, double seconds) const {
    char stamp[32];
    std::time_t const now = std::time(nullptr);
    std::tm tm{};
    gmtime_r(&now, &tm);
    std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", &tm);
    std::string target = req.target.empty() ? req.path : req.target;
    if (target.size() > 300) target = target.substr(0, 300) + "...";
    for (char& c : target) {
      if (static_cast<unsigned char>(c) < 0x20 || c == '"' || c == 0x7f) c = '?';
    }
    std::fprintf(stderr, "%s %s \"%s %s\" %d %zu %.2fms\n", stamp, req.remote_addr.c_str(),
                 req.method.c_str(), target.c_str(), res.status, res.body.size(), seconds * 1e3);
  }
};

namespace {
thread_local Clock::time_point requestStart;
}

Server::Server(ServerOptions const& options, std::vector<ServedImage> images) {
  size_t const responseMb = options.responseCacheMb.value_or(options.cacheMb / 4);
  if (responseMb > options.cacheMb) {
    throw std::invalid_argument("the response cache cannot be larger than --cache-mb");
  }
  impl_ = std::make_unique<Impl>(options, responseMb << 20);
  Impl& s = *impl_;
  s.limits = Limits{options.maxPixels, options.maxPixels, options.maxPixels};
  s.engine = std::make_shared<zoom::Engine>(
      zoom::EngineOptions{std::max<size_t>(1, options.workers),
                          std::max<size_t>(1, options.cacheMb - responseMb) << 20});
  for (ServedImage& served : images) {
    if (served.id.empty()) throw std::invalid_argument("an image identifier is empty");
    std::string const id = served.id;
    if (s.images.count(id)) {
      throw std::invalid_argument("two images have the identifier '" + id + "'");
    }
    auto renderer = std::make_unique<zoom::Renderer>(s.engine, served.source);
    s.images.emplace(id, Impl::Image{std::move(served), std::move(renderer)});
  }

  httplib::Server& http = s.http;
  size_t const threads = std::max<size_t>(2, options.httpThreads);
  http.new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
  // Viewers keep their connections between bursts of tiles; a connection idle this long is
  // closed, which is also how long a stop waits for idle connections to notice.
  http.set_keep_alive_max_count(10000);
  http.set_keep_alive_timeout(3);
  http.set_read_timeout(10, 0);
  http.set_write_timeout(10, 0);
  http.set_payload_max_length(64 << 10);
  http.set_tcp_nodelay(true);
  http.set_default_headers({{"Access-Control-Allow-Origin", "*"},
                            {"Access-Control-Expose-Headers", "ETag, Server-Timing, Link"},
                            {"Timing-Allow-Origin", "*"}});
  http.set_pre_routing_handler([](httplib::Request const&, httplib::Response&) {
    requestStart = Clock::now();
    return httplib::Server::HandlerResponse::Unhandled;
  });
  auto handler = [this](httplib::Request const& req, httplib::Response& res) {
    impl_->handleSafely(req, res);
  };
  http.Get(".*", handler);
  http.Options(".*", [](httplib::Request const& req, httplib::Response& res) {
    res.status = 204;
    res.set_header("Access-Control-Allow-Methods", "GET, HEAD, OPTIONS");
    std::string const asked = req.get_header_value("Access-Control-Request-Headers");
    res.set_header("Access-Control-Allow-Headers", asked.empty() ? "*" : asked);
    res.set_header("Access-Control-Max-Age", "86400");
    res.set_header("Allow", "GET, HEAD, OPTIONS");
  });
  auto refuse = [](httplib::Request const&, httplib::Response& res) {
    res.set_header("Allow", "GET, HEAD, OPTIONS");
    Impl::fail(res, 405, "only GET, HEAD and OPTIONS are served");
  };
  http.Post(".*", refuse);
  http.Put(".*", refuse);
  http.Patch(".*", refuse);
  http.Delete(".*", refuse);
  // The library's own refusals (a malformed request line, a header too long) get a reason.
  http.set_error_handler([](httplib::Request const&, httplib::Response& res) {
    if (res.body.empty()) {
      Impl::fail(res, res.status,
                 "the request was refused (status " + std::to_string(res.status) + ")");
    }
  });
  http.set_logger([this](httplib::Request const& req, httplib::Response const& res) {
    double const seconds = std::chrono::duration<double>(Clock::now() - requestStart).count();
    impl_->metrics.record(res.status, seconds);
    if (!impl_->options.quiet) impl_->log(req, res, seconds);
  });
}

Server::~Server() = default;

int Server::bind() {
  Impl& s = *impl_;
  int const port =
      s.options.port == 0
          ? s.http.bind_to_any_port(s.options.bind)
          : (s.http.bind_to_port(s.options.bind, s.options.port) ? s.options.port : -1);
  if (port < 0) {
    throw std::runtime_error("cannot listen on " + s.options.bind + ":" +
                             std::to_string(s.options.port));
  }
  s.options.port = port;
  return port;
}

void Server::run() { impl_->http.listen_after_bind(); }

void Server::stop() { impl_->http.stop(); }

size_t Server::requestMemoryBound() const {
  return impl_->budget.capacity() + impl_->slots.capacity() * kRenderWorkspace;
}

}  // namespace quorvel::serve
