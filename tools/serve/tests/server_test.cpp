// quorvel-serve as clients see it: a server process on port 0, its IIIF and Deep Zoom
// answers compared pixel for pixel with the host layer's render of the same region, its
// HTTP behaviour, its refusals, and how it starts and stops.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <png.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <random>

#include "quorvel/zoom/renderer.hpp"
#include "support/http_support.hpp"
#include "support/images.hpp"
#include "support/pyramid_tiff.hpp"

namespace quorvel::serve {
namespace {

namespace fs = std::filesystem;
using testing::Decoded;
using testing::decodePng;
using testing::ServerProcess;

constexpr size_t kWidth = 700, kHeight = 500;  // not a multiple of the tile anywhere

fs::path scratch() {
  static fs::path const dir =
      fs::temp_directory_path() / ("quorvel-serve-test-" + std::to_string(getpid()));
  fs::create_directories(dir);
  return dir;
}

// The files every suite writes go when the whole run ends.
class RemoveScratch : public ::testing::Environment {
 public:
  void TearDown() override { fs::remove_all(scratch()); }
};
::testing::Environment* const kRemoveScratch =
    ::testing::AddGlobalTestEnvironment(new RemoveScratch);

void writePng(fs::path const& path, std::vector<uint8_t> const& rgba, size_t w, size_t h) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = uint32_t(w);
  image.height = uint32_t(h);
  image.format = PNG_FORMAT_RGBA;
  ASSERT_TRUE(png_image_write_to_file(&image, path.c_str(), 0, rgba.data(), 0, nullptr))
      << image.message;
}

/// One server on a busy test image for the tests that only read, and the host layer
/// rendering the same file beside it.
class Serve : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    image_ = new fs::path(scratch() / "busy.png");
    writePng(*image_, zoom::test::busyImage(kWidth, kHeight, 7), kWidth, kHeight);
    server_ = new ServerProcess(QUORVEL_SERVE_BINARY,
                                {image_->string(), "--threads", "2", "--max-pixels", "400000"});
    engine_ = new std::shared_ptr<zoom::Engine>(
        std::make_shared<zoom::Engine>(zoom::EngineOptions{2, size_t{64} << 20}));
    renderer_ = new zoom::Renderer(*engine_, zoom::openImageFile(image_->string()));
  }
  static void TearDownTestSuite() {
    EXPECT_EQ(server_->stop(SIGTERM), 0) << server_->errors();
    delete server_;
    delete renderer_;
    delete engine_;
    delete image_;
  }

  static httplib::Client client() {
    httplib::Client c("127.0.0.1", server_->port());
    c.set_read_timeout(30, 0);
    return c;
  }
  static httplib::Result get(std::string const& path, httplib::Headers const& headers = {}) {
    return client().Get(path.c_str(), headers);
  }
  /// The RGB pixels the host layer renders for `rect` of `level` with `display`.
  static Decoded reference(size_t level, zoom::Rect rect, zoom::Display const& display = {}) {
    std::vector<uint8_t> const rgba = renderer_->render(level, rect, display);
    Decoded out{rect.width, rect.height, 3, {}};
    for (size_t i = 0; i < rgba.size(); i += 4)
      out.data.insert(out.data.end(), &rgba[i], &rgba[i + 3]);
    return out;
  }
  static Decoded png(std::string const& path) {
    auto r = get(path);
    EXPECT_TRUE(r) << path;
    if (!r) return {};
    EXPECT_EQ(r->status, 200) << path << ": " << r->body;
    EXPECT_EQ(r->get_header_value("Content-Type"), "image/png") << path;
    return decodePng(r->body);
  }
  static void expectSame(Decoded const& got, Decoded const& want, std::string const& what) {
    ASSERT_EQ(got.width, want.width) << what;
    ASSERT_EQ(got.height, want.height) << what;
    ASSERT_EQ(got.channels, want.channels) << what;
    for (size_t i = 0; i < want.data.size(); ++i) {
      size_t const px = i / want.channels;
      ASSERT_EQ(int(got.data[i]), int(want.data[i]))
          << what << ": pixel (" << px % want.width << ", " << px / want.width << ") channel "
          << i % want.channels;
    }
  }

  static fs::path* image_;
  static ServerProcess* server_;
  static std::shared_ptr<zoom::Engine>* engine_;
  static zoom::Renderer* renderer_;
};
fs::path* Serve::image_ = nullptr;
ServerProcess* Serve::server_ = nullptr;
std::shared_ptr<zoom::Engine>* Serve::engine_ = nullptr;
zoom::Renderer* Serve::renderer_ = nullptr;

TEST_F(Serve, IiifRegionsAndSizesEqualTheHostLayersRender) {
  // Regions partly outside the image are cut to it; power-of-two reductions are zoom levels,
  // as a viewer's tile requests ask for them.
  struct Case {
    char const* request;
    size_t level;
    zoom::Rect rect;
  } const cases[] = {{"full/max/0/default.png", 0, {0, 0, kWidth, kHeight}},
                     {"256,256,256,244/max/0/color.png", 0, {256, 256, 256, 244}},
                     {"600,400,512,512/max/0/default.png", 0, {600, 400, 100, 100}},
                     {"square/max/0/default.png", 0, {100, 0, 500, 500}},
                     {"pct:10,20,50,50/max/0/default.png", 0, {70, 100, 350, 250}},
                     {"0,0,512,512/256,/0/default.png", 1, {0, 0, 256, 250}},
                     {"512,0,188,500/47,/0/default.png", 2, {128, 0, 47, 125}},
                     {"full/pct:50/0/default.png", 1, {0, 0, 350, 250}},
                     {"full/,125/0/default.png", 2, {0, 0, 175, 125}},
                     {"full/!175,175/0/default.png", 2, {0, 0, 175, 125}}};
  for (Case const& c : cases) {
    expectSame(png(std::string("/iiif/3/busy/") + c.request), reference(c.level, c.rect),
               c.request);
  }
}

TEST_F(Serve, OtherSizesAreResampledToExactlyTheSizeAskedFor) {
  struct Case {
    std::string size;
    size_t width, height;
  };
  for (Case const& c :
       {Case{"300,", 300, 214}, Case{",77", 108, 77}, Case{"123,45", 123, 45},
        Case{"!200,200", 200, 143}, Case{"^720,", 720, 514}, Case{"pct:33.3", 233, 166}}) {
    Decoded const d = png("/iiif/3/busy/full/" + c.size + "/0/default.png");
    EXPECT_EQ(d.width, c.width) << c.size;
    EXPECT_EQ(d.height, c.height) << c.size;
  }
}

TEST_F(Serve, RotationMirroringAndQualities) {
  // Every orientation is checked pixel by pixel in the imaging tests; here, that the server
  // hands both the angle and the mirroring on, in that order.
  Decoded const plain = png("/iiif/3/busy/0,0,64,32/max/0/default.png");
  Decoded const both = png("/iiif/3/busy/0,0,64,32/max/!270/default.png");
  ASSERT_EQ(both.width, 32u);
  ASSERT_EQ(both.height, 64u);
  for (size_t i = 0; i < plain.data.size(); ++i) {
    size_t const x = i / 3 % 64, y = i / 3 / 64;
    // Mirrored, then turned 270 clockwise: (x, y) -> (63 - x, y) -> (y, x).
    ASSERT_EQ(both.data[(x * 32 + y) * 3 + i % 3], plain.data[i]) << x << "," << y;
  }
  Decoded const grey = png("/iiif/3/busy/0,0,64,32/max/0/gray.png");
  Decoded const bitonal = png("/iiif/3/busy/0,0,64,32/max/0/bitonal.png");
  ASSERT_EQ(grey.channels, 1u);
  ASSERT_EQ(bitonal.channels, 1u);
  for (size_t i = 0; i < grey.data.size(); ++i) {
    EXPECT_TRUE(bitonal.data[i] == 0 || bitonal.data[i] == 255);
    EXPECT_EQ(bitonal.data[i] == 255, grey.data[i] >= 128) << "pixel " << i;
  }
  for (auto [ext, type, magic] : {std::tuple{"jpg", "image/jpeg", std::string("\xff\xd8\xff")},
                                  std::tuple{"webp", "image/webp", std::string("RIFF")}}) {
    auto const r = get(std::string("/iiif/3/busy/0,0,256,256/max/0/default.") + ext);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 200);
    EXPECT_EQ(r->get_header_value("Content-Type"), type);
    EXPECT_EQ(r->body.substr(0, magic.size()), magic) << ext;
  }
}

TEST_F(Serve, DeepZoomTilesOverlapByOnePixelAndMatchTheLevels) {
  auto const dzi = get("/dzi/busy.dzi");
  ASSERT_TRUE(dzi && dzi->status == 200);
  // The document itself is checked word for word in the request tests.
  EXPECT_NE(dzi->body.find("Width=\"700\" Height=\"500\""), std::string::npos) << dzi->body;
  // 700 pixels: the top level is 10 (2^10 >= 700). The request tests place every kind of tile.
  expectSame(png("/dzi/busy_files/10/1_1.png"), reference(0, {255, 255, 258, 245}), "inner tile");
  expectSame(png("/dzi/busy_files/9/1_0.png"), reference(1, {255, 0, 95, 250}), "level 9");
  expectSame(png("/dzi/busy_files/0/0_0.png"), reference(10, {0, 0, 1, 1}), "1 x 1 level");
}

TEST_F(Serve, DisplayParametersGiveTheSamePixelsWholeOrTileByTile) {
  std::string const query = "?gamma=1.8&sharpen=1.5&clahe=3&matrix=0.9,0.1,0,0,1,0,0.1,0,0.9";
  zoom::Display display;
  display.setLevels(1.8, std::nullopt, std::nullopt);
  display.sharpen = 1.5;
  display.clahe = 3;
  zoom::parseMatrix("0.9,0.1,0,0,1,0,0.1,0,0.9", display);
  Decoded const whole = png("/iiif/3/busy/0,0,512,500/max/0/default.png" + query);
  expectSame(whole, reference(0, {0, 0, 512, 500}, display), "whole region");
  for (size_t ty = 0; ty < 2; ++ty) {
    for (size_t tx = 0; tx < 2; ++tx) {
      size_t const h = ty ? 244 : 256;
      Decoded const tile =
          png("/iiif/3/busy/" + std::to_string(tx * 256) + "," + std::to_string(ty * 256) +
              ",256," + std::to_string(h) + "/256,/0/default.png" + query);
      Decoded cut{256, h, 3, {}};
      for (size_t y = 0; y < h; ++y) {
        auto const row = whole.data.begin() + ((ty * 256 + y) * 512 + tx * 256) * 3;
        cut.data.insert(cut.data.end(), row, row + 256 * 3);
      }
      expectSame(tile, cut, "tile " + std::to_string(tx) + "," + std::to_string(ty));
    }
  }
  expectSame(
      png("/dzi/busy_files/9/0_0.png?clahe=3&gamma-mode=linear&black=10&white=240"),
      [&] {
        zoom::Display d;
        d.gammaMode = zoom::Display::GammaMode::kLinear;
        d.setLevels(std::nullopt, 10, 240);
        d.clahe = 3;
        return reference(1, {0, 0, 257, 250}, d);
      }(),
      "Deep Zoom tile with display parameters");
}

TEST_F(Serve, InfoJsonRedirectCorsAndHead) {
  auto const info = get("/iiif/3/busy/info.json", {{"Host", "example.test:1234"}});
  ASSERT_TRUE(info && info->status == 200);
  EXPECT_EQ(info->get_header_value("Content-Type").rfind("application/ld+json", 0), 0u);
  // The document, spacing included, is checked word for word in the request tests; here,
  // what the server fills in: the image's size, its limits and an id from the Host header.
  for (char const* field : {"\"width\": 700", "\"height\": 500", "\"maxArea\": 400000",
                            "\"id\": \"http://example.test:1234/iiif/3/busy\""}) {
    EXPECT_NE(info->body.find(field), std::string::npos) << field << " in " << info->body;
  }
  EXPECT_EQ(info->get_header_value("Access-Control-Allow-Origin"), "*");

  auto const base = get("/iiif/3/busy");
  ASSERT_TRUE(base);
  EXPECT_EQ(base->status, 303);
  EXPECT_NE(base->get_header_value("Location").find("/iiif/3/busy/info.json"), std::string::npos);

  auto const options = client().Options(
      "/iiif/3/busy/full/max/0/default.jpg",
      {{"Origin", "http://elsewhere.test"}, {"Access-Control-Request-Method", "GET"}});
  ASSERT_TRUE(options);
  EXPECT_EQ(options->status, 204);
  EXPECT_EQ(options->get_header_value("Access-Control-Allow-Origin"), "*");
  EXPECT_NE(options->get_header_value("Access-Control-Allow-Methods").find("GET"),
            std::string::npos);

  auto const head = client().Head("/iiif/3/busy/0,0,256,256/max/0/default.jpg");
  ASSERT_TRUE(head);
  EXPECT_EQ(head->status, 200);
  EXPECT_TRUE(head->body.empty());
  EXPECT_EQ(head->get_header_value("Content-Type"), "image/jpeg");
}

TEST_F(Serve, EntityTagsAnswerRevalidationWithNotModified) {
  std::string const tile = "/iiif/3/busy/0,0,256,256/max/0/default.jpg";
  auto const first = get(tile);
  ASSERT_TRUE(first && first->status == 200);
  std::string const etag = first->get_header_value("ETag");
  ASSERT_GE(etag.size(), 3u);
  EXPECT_EQ(etag.front(), '"') << "a strong validator";
  EXPECT_NE(first->get_header_value("Cache-Control").find("max-age="), std::string::npos);
  EXPECT_NE(first->get_header_value("Server-Timing").find("render;dur="), std::string::npos);

  auto const again = get(tile, {{"If-None-Match", "\"other\", " + etag}});
  ASSERT_TRUE(again);
  EXPECT_EQ(again->status, 304);
  EXPECT_TRUE(again->body.empty());
  EXPECT_EQ(again->get_header_value("ETag"), etag);

  // Every part of the request that changes the bytes changes the tag.
  for (std::string const& other :
       {tile + "?gamma=1.1", std::string("/iiif/3/busy/0,0,256,256/max/0/default.png"),
        std::string("/iiif/3/busy/0,0,256,256/max/90/default.jpg"),
        std::string("/iiif/3/busy/0,0,256,256/max/0/gray.jpg"),
        std::string("/iiif/3/busy/0,0,256,256/128,/0/default.jpg"),
        std::string("/iiif/3/busy/256,0,256,256/max/0/default.jpg")}) {
    auto const r = get(other, {{"If-None-Match", etag}});
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 200) << other;
    EXPECT_NE(r->get_header_value("ETag"), etag) << other;
  }
}

TEST_F(Serve, BadRequestsGetAStatusAndAOneLineReason) {
  struct Case {
    std::string path;
    int status;  // 0: 400 or 404
  };
  std::vector<Case> const cases = {
      {"/iiif/3/busy/full/max/0/default.gif", 400},         // unknown format
      {"/iiif/3/busy/full/max/0/sepia.jpg", 400},           // unknown quality
      {"/iiif/3/busy/full/max/45/default.jpg", 400},        // not a right angle
      {"/iiif/3/busy/0,0,0,10/max/0/default.jpg", 400},     // empty region
      {"/iiif/3/busy/800,0,10,10/max/0/default.jpg", 400},  // outside the image
      {"/iiif/3/busy/full/800,/0/default.jpg", 400},        // upscaling without ^
      {"/iiif/3/busy/full/^2000,2000/0/default.jpg", 400},  // over --max-pixels
      {"/iiif/3/busy/full/99999999999999999999,/0/default.jpg", 400},
      {"/iiif/3/busy/full/max/0/default.jpg?gamma=20", 400},     // out of range
      {"/iiif/3/busy/full/max/0/default.jpg?sharpen=abc", 400},  // not a number
      {"/iiif/3/busy/full/max/0/default.jpg?sepia=1", 400},      // unknown parameter
      {"/iiif/3/busy/full/max/0/default.jpg?matrix=1,2,3", 400},
      {"/iiif/3/busy/full/max", 0},
      {"/dzi/busy_files/11/0_0.jpg", 400},  // no such level
      {"/dzi/busy_files/10/3_0.jpg", 400},  // no such column
      {"/iiif/3/nothing/info.json", 404},
      {"/iiif/3/nothing/full/max/0/default.jpg", 404},
      {"/dzi/nothing.dzi", 404},
      {"/iiif/3/%2e%2e/info.json", 0},
      {"/no/such/endpoint", 404},
  };
  for (Case const& c : cases) {
    auto const r = get(c.path);
    ASSERT_TRUE(r) << c.path;
    if (c.status) {
      EXPECT_EQ(r->status, c.status) << c.path << ": " << r->body;
    } else {  // malformed or naming nothing: either refusal is right
      EXPECT_TRUE(r->status == 400 || r->status == 404) << c.path << ": " << r->status;
    }
    ASSERT_FALSE(r->body.empty()) << c.path;
    EXPECT_EQ(r->body.find('\n'), r->body.size() - 1) << c.path << ": one line, " << r->body;
    EXPECT_EQ(r->get_header_value("Access-Control-Allow-Origin"), "*") << c.path;
  }
  auto const post = client().Post("/iiif/3/busy/info.json", "x", "text/plain");
  ASSERT_TRUE(post);
  EXPECT_EQ(post->status, 405);
  // The server is still serving.
  auto const health = get("/healthz");
  ASSERT_TRUE(health);
  EXPECT_EQ(health->status, 200);
}

TEST_F(Serve, StalledAndVanishedClientsDoNotHoldTheServer) {
  // Clients that send half a request and wait, and one that asks for a large image and
  // leaves before the answer.
  std::vector<int> stalled;
  for (int i = 0; i < 8; ++i) {
    int const fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(uint16_t(server_->port()));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    std::string const half = i == 0 ? "GET /iiif/3/busy/full/max/0/default.png?clahe=2 HTTP/1.1\r\n"
                                      "Host: x\r\n\r\n"
                                    : "GET /iiif/3/busy/info.json HTTP/1.1\r\nHost: x\r\n";
    ASSERT_EQ(send(fd, half.data(), half.size(), 0), ssize_t(half.size()));
    if (i == 0) {
      close(fd);  // gone before its answer
    } else {
      stalled.push_back(fd);
    }
  }
  auto const start = std::chrono::steady_clock::now();
  for (int i = 0; i < 10; ++i) {
    auto const r = get("/iiif/3/busy/" + std::to_string(i * 64) + ",0,64,64/max/0/default.jpg");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 200);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  for (int fd : stalled) close(fd);
}

TEST_F(Serve, MetricsCountRequestsRendersAndCaches) {
  get("/iiif/3/busy/0,0,128,128/max/0/default.jpg?gamma=2.5");
  get("/iiif/3/busy/0,0,128,128/max/0/default.jpg?gamma=2.5");
  get("/iiif/3/nothing/info.json");
  auto const m = get("/metrics");
  ASSERT_TRUE(m && m->status == 200);
  for (char const* name :
       {"quorvel_http_requests_total{code=\"200\"}", "quorvel_http_requests_total{code=\"404\"}",
        "quorvel_http_request_duration_seconds_bucket{le=\"+Inf\"}",
        "quorvel_http_request_duration_seconds_count", "quorvel_output_tiles_rendered_total",
        "quorvel_tile_cache_hits_total", "quorvel_tile_cache_misses_total",
        "quorvel_tile_cache_evictions_total", "quorvel_tile_cache_bytes",
        "quorvel_response_cache_hits_total", "quorvel_renders_in_flight"}) {
    EXPECT_NE(m->body.find(name), std::string::npos) << name << " in\n" << m->body;
  }
  EXPECT_EQ(m->body.find("quorvel_response_cache_hits_total 0\n"), std::string::npos)
      << "the second identical tile is a cache hit";
}

// --- Start-up and stop ----------------------------------------------------------------------

TEST(ServeLifecycle, UnreadableImagesStopTheStartWithStatusTwo) {
  fs::path const dir = scratch();
  fs::path const truncated = dir / "truncated.png";
  writePng(truncated, zoom::test::busyImage(300, 200, 1), 300, 200);
  fs::resize_file(truncated, fs::file_size(truncated) / 2);
  fs::path const text = dir / "notes.png";
  std::ofstream(text) << "not an image\n";
  for (fs::path const& bad : {truncated, text}) {
    auto const [status, err] = testing::runToEnd(QUORVEL_SERVE_BINARY, {bad.string()});
    EXPECT_EQ(status, 2) << bad << ": " << err;
    EXPECT_NE(err.find("error"), std::string::npos) << err;
  }
}

TEST(ServeLifecycle, AFileBrokenAfterStartGetsA500AndTheOthersAreStillServed) {
  fs::path const dir = scratch();
  fs::path const tiff = dir / "fragile.tif";
  testing::writePyramidTiff(tiff.string(), 2048, 2048);
  fs::path const good = dir / "good.png";
  writePng(good, zoom::test::busyImage(300, 200, 2), 300, 200);
  ServerProcess server(QUORVEL_SERVE_BINARY, {tiff.string(), good.string(), "--quiet"});
  httplib::Client c("127.0.0.1", server.port());
  auto const before = c.Get("/iiif/3/fragile/0,0,256,256/max/0/default.jpg");
  ASSERT_TRUE(before && before->status == 200) << server.errors();
  fs::resize_file(tiff, 4096);  // the tile data is gone, the header stays
  // A tile no read has touched (opening reads the last pixel of every level).
  auto const after = c.Get("/iiif/3/fragile/1024,1024,256,256/max/0/default.jpg");
  ASSERT_TRUE(after);
  EXPECT_EQ(after->status, 500) << after->body;
  auto const other = c.Get("/iiif/3/good/full/max/0/default.png");
  ASSERT_TRUE(other);
  EXPECT_EQ(other->status, 200);
  EXPECT_EQ(server.stop(SIGTERM), 0);
}

TEST(ServeLifecycle, ATermSignalLetsTheRequestInFlightFinish) {
  ServerProcess server(QUORVEL_SERVE_BINARY, {"--quiet", "--threads", "2"});
  httplib::Client c("127.0.0.1", server.port());
  c.set_read_timeout(60, 0);
  // A large region with every neighbourhood filter takes long enough to be in flight.
  auto pending = std::async(std::launch::async, [&] {
    return c.Get("/iiif/3/slide/20000,20000,2800,2800/max/0/default.png?clahe=2&sharpen=1");
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  auto const start = std::chrono::steady_clock::now();
  int const status = server.stop(SIGTERM, std::chrono::seconds(60));
  auto const result = pending.get();
  ASSERT_TRUE(result) << "the request in flight was cut off";
  EXPECT_EQ(result->status, 200);
  EXPECT_GT(result->body.size(), 1000u);
  EXPECT_EQ(status, 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
}

// --- A gigapixel file ------------------------------------------------------------------------

// The server opens it without reading the image: the first tile and tiles of every level
// come in bounded memory. How soon the first one comes is printed, not asserted (a loaded
// machine may take longer); the serving bench measures speed.
TEST(ServeLargeFile, AGigapixelPyramidServesTilesOfEveryLevelInBoundedMemory) {
  fs::path const tiff = scratch() / "giga.tif";
  testing::writePyramidTiff(tiff.string(), 32768, 32768);
  auto const start = std::chrono::steady_clock::now();
  ServerProcess server(QUORVEL_SERVE_BINARY, {tiff.string(), "--cache-mb", "64", "--quiet"});
  httplib::Client c("127.0.0.1", server.port());
  c.set_read_timeout(30, 0);
  auto const first = c.Get("/iiif/3/giga/16384,16384,256,256/256,/0/default.jpg");
  double const seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  ASSERT_TRUE(first && first->status == 200) << server.errors();

  // Random tiles of every level, bounded in count and time.
  std::mt19937 random{3};
  size_t const levels = zoom::levelCount(32768, 32768);
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  for (int i = 0; i < 300 && std::chrono::steady_clock::now() < deadline; ++i) {
    size_t const level = random() % levels;
    size_t const side = zoom::levelExtent(32768, level);
    size_t const tiles = (side + 255) / 256;
    size_t const col = random() % tiles, row = random() % tiles;
    size_t const scale = size_t{1} << level, step = 256 * scale;
    size_t const x = col * step, y = row * step;
    size_t const w = std::min(step, 32768 - x), h = std::min(step, 32768 - y);
    std::string const path = "/iiif/3/giga/" + std::to_string(x) + "," + std::to_string(y) + "," +
                             std::to_string(w) + "," + std::to_string(h) + "/" +
                             std::to_string((w + scale - 1) / scale) + ",/0/default.jpg";
    auto const r = c.Get(path.c_str());
    ASSERT_TRUE(r) << path;
    ASSERT_EQ(r->status, 200) << path << ": " << r->body;
  }
  size_t const peak = testing::peakResidentBytes(server.pid());
  EXPECT_EQ(server.stop(SIGTERM), 0);
  EXPECT_GT(peak, 0u);
  EXPECT_LT(peak, size_t{512} << 20) << "peak resident memory";
  std::printf("first tile after %.3f s, peak memory %.0f MiB\n", seconds, peak / 1048576.0);
}

}  // namespace
}  // namespace quorvel::serve
