// The request layer's promises: every path names one endpoint or is refused with the right
// status, IIIF requests resolve to the pixels the API describes (and to the exact tile sizes a
// tiling viewer expects), Deep Zoom tiles carry their overlap, display queries are read as
// strictly as the command line, and the descriptors are well-formed documents.

#include "request.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <sstream>

#include "descriptors.hpp"

namespace quorvel::serve {
namespace {

using Kind = Route::Kind;

constexpr Limits kRoomy{size_t{1} << 20, size_t{1} << 20, size_t{1} << 40};

// The words of a space-separated list, so that long lists of cases stay short.
std::vector<std::string> words(std::string const& text) {
  std::istringstream in(text);
  return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

// What a call gives, or the status it is refused with, checking the reason is one line.
std::string outcome(std::function<std::string()> const& call, std::string* reason = nullptr) {
  try {
    return call();
  } catch (RequestError const& e) {
    EXPECT_EQ(std::string(e.what()).find('\n'), std::string::npos) << e.what();
    if (reason) *reason = e.what();
    return std::to_string(e.status());
  }
}

// Each "input>outcome" word of `cases` against what(input); a bare input must be refused with
// the status `refused`.
void expectEach(std::string const& cases,
                std::function<std::string(std::string const&)> const& what,
                std::string const& refused = "400") {
  for (auto const& word : words(cases)) {
    size_t const arrow = word.rfind('>');
    std::string const input = word.substr(0, arrow);
    EXPECT_EQ(outcome([&] { return what(input); }),
              arrow == std::string::npos ? refused : word.substr(arrow + 1))
        << "input " << input;
  }
}

ImageRequest iiif(std::string const& params, size_t w, size_t h, Limits const& limits = kRoomy) {
  return resolveIiif(parseRoute("/iiif/3/img/" + params), w, h, limits);
}

std::string sizeOf(ImageRequest const& r) {
  return std::to_string(r.width) + "x" + std::to_string(r.height);
}

// A rectangle as an IIIF region spells it.
std::string text(zoom::Rect const& r) {
  return std::to_string(r.x) + "," + std::to_string(r.y) + "," + std::to_string(r.width) + "," +
         std::to_string(r.height);
}

TEST(RouteParsing, EveryEndpoint) {
  EXPECT_EQ(parseRoute("/").kind, Kind::kIndex);
  EXPECT_EQ(parseRoute("/healthz").kind, Kind::kHealth);
  EXPECT_EQ(parseRoute("/metrics").kind, Kind::kMetrics);
  EXPECT_EQ(parseRoute("/view/slide-1.v2_a").id, "slide-1.v2_a");
  EXPECT_EQ(parseRoute("/static/js/viewer.min.js").asset, "js/viewer.min.js");
  EXPECT_EQ(parseRoute("/iiif/3/slide").kind, Kind::kIiifBase);
  EXPECT_EQ(parseRoute("/iiif/3/slide/").kind, Kind::kIiifBase);
  EXPECT_EQ(parseRoute("/iiif/3/slide/info.json").kind, Kind::kIiifInfo);
  Route r = parseRoute("/iiif/3/slide/0,0,512,512/256,/!90/gray.webp");
  EXPECT_EQ(r.id + " " + r.region + " " + r.size + " " + r.rotation, "slide 0,0,512,512 256, !90");
  EXPECT_EQ(r.kind, Kind::kIiifImage);
  r = parseRoute("/dzi/my_slide.dzi");
  EXPECT_TRUE(r.kind == Kind::kDziInfo && r.id == "my_slide");
  r = parseRoute("/dzi/my_slide_files/12/3_4.png");
  EXPECT_TRUE(r.kind == Kind::kDziTile && r.id == "my_slide" && r.level == 12 && r.col == 3 &&
              r.row == 4 && r.format == Format::kPng);
  // Every quality and format, by its exact name only.
  expectEach(
      "default.jpg>default.jpg color.png>color.png bitonal.jpg>bitonal.jpg gray.webp>gray.webp "
      "default default.gif default.jpeg default.JPG grey.jpg default.jpg.png .jpg",
      [](std::string const& name) {
        Route const r = parseRoute("/iiif/3/s/full/max/0/" + name);
        return qualityName(r.quality) + ("." + std::string(extensionOf(r.format)));
      });
}

TEST(RouteParsing, UnsafeOrUnknownPathsAreNotFoundAndMalformedFormsBadRequests) {
  auto const route = [](std::string const& path) { return "routed to " + parseRoute(path).id; };
  // Decoded escapes (%2e%2e, %2f, %20, %00) arrive as the characters they stand for.
  expectEach(
      ">404 healthz /healthz/ //healthz /iiif/3/../etc/passwd/info.json /iiif/3/../info.json "
      "/iiif/3/./info.json /iiif/3/a/b/info.json /iiif/3/a%2Fb/info.json /view/.. /view/ "
      "/view/a/b /static/js/../../x /static/ /static//x /static/./x /iiif/2/slide/info.json "
      "/iiif/3/ /iiif/3//info.json /iiif/3/slide// /iiif/3/slide/info.json/ "
      "/iiif/3/slide/full/max/0 /iiif/3/s//max/0/default.jpg /dzi/.dzi /dzi/slide.DZI "
      "/dzi/.._files/0/0_0.jpg /dzi/slide_files/0/0_0.jpg/ /nothing",
      route, "404");
  for (std::string path :
       {std::string("/iiif/3/my slide/info.json"), std::string("/view/a\0b", 9)}) {
    EXPECT_EQ(outcome([&] { return route(path); }), "404") << path;
  }
  // A malformed form is refused as the path is read, before any image is looked up.
  expectEach(
      "/iiif/3/s/whole/max/0/default.jpg /iiif/3/s/full/full/0/default.jpg "
      "/iiif/3/s/full/max/45/default.jpg /dzi/s_files/x/0_0.jpg /dzi/s_files/1/0-0.jpg "
      "/dzi/s_files/1/0_0_0.jpg /dzi/s_files/1/0_0 /dzi/s_files/1/0_0.tif /dzi/s_files/-1/0_0.jpg "
      "/dzi/s_files/99999999999999999999/0_0.jpg",
      route);
}

TEST(IiifRegion, EveryFormCroppedToTheImageAndEmptyOrOutsideRefused) {
  // The API's examples of a crop, by pixels and by percent; a region that is not empty is at
  // least a pixel, and one inside the last pixel is not rounded out of the image.
  expectEach(
      "full>0,0,300,200 square>50,0,200,200 125,15,120,140>125,15,120,140 "
      "125,15,200,200>125,15,175,185 299,199,99999999999999999,1>299,199,1,1 "
      "pct:41.6,7.5,40,70>125,15,120,140 pct:41.6,7.5,66.6,100>125,15,175,185 "
      "pct:0,0,0.01,0.01>0,0,1,1 pct:99.9,99.9,1,1>299,199,1,1 pct:0,0,1000,5>0,0,300,10 "
      "0,0,0,10 0,0,10,0 300,0,1,1 0,200,1,1 pct:100,0,1,1 pct:0,0,0,5 pct:100,0.5,1,1 "
      "99999999999999999999,0,1,1 -1,0,1,1 1,2,3 1,2,3,4,5 pct:1,2,3 pct:+1,2,3,4 "
      "pct:.,1,1,1 pct:1.2.3,1,1,1 pct:1e2,1,1,1 0x1,0,1,1 whole",
      [](std::string const& region) {
        return text(iiif(region + "/max/0/default.jpg", 300, 200).region);
      });
  EXPECT_EQ(text(iiif("square/max/0/default.jpg", 3, 10).region), "0,3,3,3");
}

TEST(IiifSize, EveryFormKeepsTheProportionsToTheNearestPixelAndUpscalesOnlyWithACaret) {
  expectEach(
      "max>300x200 150,>150x100 ,150>225x150 pct:50>150x100 pct:33.3>100x67 225,100>225x100 "
      "!225,100>150x100 !100,225>100x67 !9999,9999>300x200 ^!360,360>360x240 ^360,>360x240 "
      "^,240>360x240 ^pct:120>360x240 ^360,360>360x360 ^max>1048576x699051 100,>100x67 "
      "299,>299x199 301, ,201 pct:100.5 301,200 300,201 ^301,>301x201 ^,201>302x201 "
      "^pct:100.5>302x201 ^301,200>301x200 ^300,201>300x201",
      [](std::string const& size) {
        return sizeOf(iiif("full/" + size + "/0/default.jpg", 300, 200));
      });
  // 1, and pct:0.01 of a region 2999 x 999 round a side to 0: less than a pixel.
  expectEach(
      "0, ,0 0,0 pct:0 !0,5 1, pct:0.01 full , !,5 !5, ^ ^^max !^5,5 max, pct: pct:-5 pct:1e2 "
      "5,5,5 w, 99999999999999999999,",
      [](std::string const& size) {
        return sizeOf(iiif("1,1,2999,999/" + size + "/0/default.jpg", 3000, 1000));
      });
}

TEST(IiifSize, LimitsRefuseExceptMaxWhichIsScaledToFit) {
  Limits const limits{400, 300, 60000}, sides{400, 300, 1 << 30};
  EXPECT_EQ(sizeOf(iiif("full/max/0/default.jpg", 300, 200, limits)), "300x200");
  EXPECT_EQ(sizeOf(iiif("full/max/0/default.jpg", 1000, 500, limits)), "346x173");
  EXPECT_EQ(sizeOf(iiif("full/max/0/default.jpg", 500, 1000, sides)), "150x300");
  EXPECT_EQ(sizeOf(iiif("full/^max/0/default.jpg", 100, 50, sides)), "400x200");
  EXPECT_EQ(sizeOf(iiif("full/max/0/default.jpg", 100000, 1, limits)), "400x1");
  EXPECT_EQ(sizeOf(iiif("full/max/0/default.jpg", 1, 100000, {10, 10, 5})), "1x5");
  EXPECT_EQ(sizeOf(iiif("full/!1000,1000/0/default.jpg", 1000, 500, limits)), "346x173")
      << "the confined form is bounded by the limits too";
  expectEach(
      "401, ,301 400,300 ^pct:1000 ^pct:99999999999999999999 ^99999999999999999999, "
      "^,99999999999999999999 ^18446744073709551615,18446744073709551615",
      [&](std::string const& size) {
        return sizeOf(iiif("full/" + size + "/0/default.jpg", 1000, 1000, limits));
      });
  Limits const none{0, 10, 10};
  EXPECT_EQ(outcome([&] { return sizeOf(iiif("full/max/0/default.jpg", 10, 10, none)); }), "400");
  std::mt19937_64 rng(7);
  for (int i = 0; i < 2000; ++i) {
    size_t const w = 1 + rng() % 100000, h = 1 + rng() % 100000;
    Limits const random{1 + rng() % 5000, 1 + rng() % 5000, 1 + rng() % 4000000};
    for (std::string size : {"max", "^max"}) {
      ImageRequest const r = iiif("full/" + size + "/0/default.jpg", w, h, random);
      EXPECT_TRUE(r.width >= 1 && r.height >= 1 && r.width <= random.maxWidth &&
                  r.height <= random.maxHeight && r.width * r.height <= random.maxArea &&
                  (size == "^max" || (r.width <= w && r.height <= h)))
          << size << " of " << w << "x" << h << " gave " << sizeOf(r) << " within "
          << random.maxWidth << "x" << random.maxHeight << ", " << random.maxArea;
    }
  }
}

TEST(IiifRotation, RightAnglesAndMirroringOnly) {
  expectEach(
      "0>0 90>90 180.0>180 270>270 360>0 !0>!0 !270>!270 090>90 45 22.5 90.5 360.1 450 -90 ! "
      "!!90 90! +90 1e2 99999999999999999999",
      [](std::string const& rotation) {
        ImageRequest const r = iiif("full/max/" + rotation + "/default.jpg", 30, 20);
        EXPECT_EQ(sizeOf(r), "30x20") << "the size is given before rotation";
        return (r.mirror ? "!" : "") + std::to_string(r.rotation);
      });
}

// A tiling viewer derives its requests from info.json: the grid at 256 * s for each scale
// factor s, regions cut at the image's edges, and the size ceil(side / s), named by width alone
// (older clients) or by both sides. Each must come back exactly that size. By width alone, a
// corner tile of a thin edge can be the same URL at two scale factors; it gets one of the two.
TEST(OpenSeadragonTiles, GridRequestsGetExactlyTheLevelSize) {
  std::mt19937 rng(11);
  auto ceilDiv = [](size_t a, size_t b) { return (a + b - 1) / b; };
  for (int image = 0; image < 120; ++image) {
    size_t const w = image < 4 ? size_t(1) << (8 + image) : 1 + rng() % 3000;
    size_t const h = image < 4 ? 1 + image : 1 + rng() % 3000;
    std::map<std::string, std::set<std::string>> wanted;
    for (size_t k = 0; k < zoom::levelCount(w, h); ++k) {
      size_t const s = size_t{1} << k, step = 256 * s;
      // A level smaller than a tile both ways is asked for whole.
      bool const whole = ceilDiv(w, s) < 256 && ceilDiv(h, s) < 256;
      for (size_t y = 0; y < (whole ? 1 : h); y += step) {
        for (size_t x = 0; x < (whole ? 1 : w); x += step) {
          size_t const tw = std::min(step, w - x), th = std::min(step, h - y);
          std::string const region = whole || (tw == w && th == h) ? "full" : text({x, y, tw, th});
          std::string const sw = std::to_string(ceilDiv(tw, s)),
                            sh = std::to_string(ceilDiv(th, s));
          wanted[region + "/" + sw + ","].insert(sw + "x" + sh);
          wanted[region + "/" + sw + "," + sh].insert(sw + "x" + sh);
        }
      }
    }
    for (auto const& [request, sizes] : wanted) {
      std::string const got =
          outcome([&] { return sizeOf(iiif(request + "/0/default.jpg", w, h)); });
      EXPECT_TRUE(sizes.count(got) && (sizes.size() == 1 || request.back() == ','))
          << request << " of " << w << "x" << h << " gave " << got << ", wanted " << *sizes.begin()
          << (sizes.size() > 1 ? " or another" : "");
    }
  }
}

TEST(DeepZoom, LevelsAndTilesWithOverlap) {
  for (auto [w, top] : {std::pair<size_t, size_t>{1024, 10}, {1025, 11}, {1, 0}}) {
    EXPECT_EQ(dziTopLevel(w, 1), top) << w;
  }
  auto tile = [](std::string const& path, size_t w, size_t h) {
    return resolveDzi(parseRoute("/dzi/s_files/" + path), w, h);
  };
  // Of 1000 x 600: the first tile overlaps right and below only, an inner one on all four sides,
  // the last is cut at the image's edge; level 9 is 500 x 300, level 2 is 4 x 3.
  expectEach(
      "10/0_0.jpg>0:0,0,257,257 10/1_1.jpg>0:255,255,258,258 10/3_2.jpg>0:767,511,233,89 "
      "9/1_0.png>1:255,0,245,257 2/0_0.jpg>8:0,0,4,3 0/0_0.jpg>10:0,0,1,1 11/0_0.jpg 10/4_0.jpg "
      "10/0_3.jpg 0/1_0.jpg 10/18446744073709551615_0.jpg 18446744073709551615/0_0.jpg",
      [&](std::string const& path) {
        DziTile const t = tile(path, 1000, 600);
        return std::to_string(t.level) + ":" + text(t.rect);
      });
  EXPECT_EQ(text(tile("0/0_0.jpg", 1, 1).rect), "0,0,1,1");
  EXPECT_EQ(text(tile("9/1_0.webp", 257, 1).rect), "255,0,2,1");
  EXPECT_EQ(tile("9/1_0.webp", 257, 1).format, Format::kWebp);
  EXPECT_EQ(outcome([&] { return text(tile("1/0_0.jpg", 1, 1).rect); }), "400");
}

// The display parameters of a query "name=value&...".
zoom::Display display(std::string query) {
  std::replace(query.begin(), query.end(), '&', ' ');
  std::vector<std::pair<std::string, std::string>> pairs;
  for (auto const& word : words(query)) {
    size_t const eq = word.find('=');
    pairs.emplace_back(word.substr(0, eq), eq == std::string::npos ? "" : word.substr(eq + 1));
  }
  return parseDisplay(pairs);
}

TEST(DisplayQuery, EveryParameter) {
  EXPECT_FALSE(display("").any());
  zoom::Display d = display("gamma=2.2&sharpen=-4&clahe=100");
  EXPECT_TRUE(d.gamma && d.gammaValue == 2.2 && d.black == 0 && d.white == 4095);
  EXPECT_TRUE(d.sharpen == -4.0 && d.clahe == 100.0);
  d = display("white=200&black=10&gamma-mode=linear");
  EXPECT_TRUE(d.gamma && d.gammaMode == zoom::Display::GammaMode::kLinear && d.black == 10 &&
              d.white == 200 && d.gammaValue == 1.0);
  // The gamma mode decides the scale of the levels wherever it comes in the query.
  EXPECT_EQ(display("gamma-mode=linear").white, 255u);
  EXPECT_EQ(display("white=4000").white, 4000u);
  EXPECT_EQ(display("black=255&gamma-mode=srgb").black, 255u);
  d = display("matrix=1,0,0,0,1,0,0,0,-1.5e0:2");
  EXPECT_TRUE(d.matrix && (*d.matrix)[8] == -1.5 && d.matrixScale == 2.0);
}

TEST(DisplayQuery, RefusalsNameTheParameter) {
  for (auto const& query :
       words("gamma=0.09 gamma=10.01 gamma=nan gamma=inf gamma=1e999 gamma=+1 gamma= gamma=0x1 "
             "gamma=1,5 sharpen=4.001 clahe=0.99 black=-1 black=1.5 black=4096 "
             "white=99999999999999999999 gamma-mode=log matrix=1,0,0,0,1,0,0,0 "
             "matrix=1,0,0,0,1,0,0,0,1, matrix=1,0,0,0,1,0,0,0,,1 matrix=1001,0,0,0,1,0,0,0,1 "
             "matrix=1,0,0,0,1,0,0,0,1: shrapen=1 =1 clahe=2&clahe=2 black=10&white=10 "
             "white=4000&gamma-mode=linear black=256&gamma-mode=linear")) {
    std::string reason;
    auto const read = [&] { return display(query).any() ? "read" : "read, nothing set"; };
    EXPECT_EQ(outcome(read, &reason), "400") << query;
    std::string const name = query.substr(0, query.find('='));
    EXPECT_NE(reason.find(name.empty() ? "''" : name), std::string::npos) << reason;
  }
}

TEST(Descriptors, InfoJsonIsExactlyTheDocumentWithinTheLimits) {
  // The identifier escaped so that the document parses; the sizes of every level that passes the
  // area, smallest first; tiles, as a whole tile passes too.
  EXPECT_EQ(iiifInfo("http://h:8/iiif/3/a\"b\\c\n\xff", 1000, 600, {600, 600, 100000}), R"({
  "@context": "http://iiif.io/api/image/3/context.json",
  "id": "http://h:8/iiif/3/a\"b\\c\u000a\ufffd",
  "type": "ImageService3",
  "protocol": "http://iiif.io/api/image",
  "profile": "level2",
  "width": 1000,
  "height": 600,
  "maxWidth": 600,
  "maxHeight": 600,
  "maxArea": 100000,
  "sizes": [
    {"type": "Size", "width": 1, "height": 1},
    {"type": "Size", "width": 2, "height": 2},
    {"type": "Size", "width": 4, "height": 3},
    {"type": "Size", "width": 8, "height": 5},
    {"type": "Size", "width": 16, "height": 10},
    {"type": "Size", "width": 32, "height": 19},
    {"type": "Size", "width": 63, "height": 38},
    {"type": "Size", "width": 125, "height": 75},
    {"type": "Size", "width": 250, "height": 150}
  ],
  "tiles": [
    {"type": "Tile", "width": 256, "height": 256, "scaleFactors": [1, 2, 4, 8, 16, 32, 64, 128, 256, 512, 1024]}
  ],
  "extraQualities": ["color", "gray", "bitonal"],
  "extraFormats": ["webp"],
  "extraFeatures": ["mirroring", "profileLinkHeader", "sizeUpscaling"]
}
)");
  EXPECT_EQ(iiifInfo("x", 1000, 600, {100, 100, 10000}).find("tiles"), std::string::npos)
      << "a 256-pixel tile is over the limits";
  EXPECT_NE(iiifInfo("x", 1000, 600, kRoomy).find("\"width\": 1000, \"height\": 600}\n  ],"),
            std::string::npos)
      << "the full size passes roomy limits";
}

TEST(Descriptors, DziXml) {
  EXPECT_EQ(dziXml(1000, 600, Format::kWebp),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<Image xmlns=\"http://schemas.microsoft.com/deepzoom/2008\" Format=\"webp\" "
            "Overlap=\"1\" TileSize=\"256\">\n  <Size Width=\"1000\" Height=\"600\"/>\n</Image>\n");
}

}  // namespace
}  // namespace quorvel::serve
