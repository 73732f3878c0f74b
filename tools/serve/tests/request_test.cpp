// The request layer's promises: every path names one endpoint or is refused with the right
// status, IIIF requests resolve to the pixels the API describes (and to the exact tile sizes a
// tiling viewer expects), Deep Zoom tiles carry their overlap, display queries are read as
// strictly as the command line, and the descriptors are well-formed documents.

#include "request.hpp"

#include <gtest/gtest.h>

#include <cstdio>
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

// The status a call is refused with (0 if it is not), checking the reason is one line.
int refusal(std::function<void()> const& call, std::string* reason = nullptr) {
  try {
    call();
  } catch (RequestError const& e) {
    EXPECT_EQ(std::string(e.what()).find('\n'), std::string::npos) << e.what();
    if (reason) *reason = e.what();
    return e.status();
  }
  return 0;
}

ImageRequest iiif(std::string const& params, size_t w, size_t h, Limits const& limits = kRoomy) {
  return resolveIiif(parseRoute("/iiif/3/img/" + params), w, h, limits);
}

int iiifRefusal(std::string const& params, size_t w, size_t h, Limits const& limits = kRoomy) {
  return refusal([&] { iiif(params, w, h, limits); });
}

std::string sizeOf(ImageRequest const& r) {
  return std::to_string(r.width) + "x" + std::to_string(r.height);
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
  EXPECT_TRUE(r.kind == Kind::kIiifImage && r.quality == Quality::kGray &&
              r.format == Format::kWebp);
  r = parseRoute("/dzi/my_slide.dzi");
  EXPECT_TRUE(r.kind == Kind::kDziInfo && r.id == "my_slide");
  r = parseRoute("/dzi/my_slide_files/12/3_4.png");
  EXPECT_TRUE(r.kind == Kind::kDziTile && r.id == "my_slide" && r.level == 12 && r.col == 3 &&
              r.row == 4 && r.format == Format::kPng);
}

TEST(RouteParsing, UnsafeOrUnknownPathsAreNotFound) {
  // Decoded escapes (%2e%2e, %2f, %20, %00) arrive as the characters they stand for.
  auto paths = words(
      "healthz /healthz/ //healthz /iiif/3/../etc/passwd/info.json /iiif/3/../info.json "
      "/iiif/3/./info.json /iiif/3/a/b/info.json /iiif/3/a%2Fb/info.json /view/.. /view/ "
      "/view/a/b /static/../x /static/js/../../x /static/ /static//x /static/./x "
      "/iiif/2/slide/info.json /iiif/3/ /iiif/3//info.json /iiif/3/slide// "
      "/iiif/3/slide/info.json/ /iiif/3/slide/full/max/0 /iiif/3/s//max/0/default.jpg /dzi/.dzi "
      "/dzi/slide.DZI /dzi/.._files/0/0_0.jpg /dzi/slide_files/0/0_0.jpg/ /nothing");
  paths.insert(paths.end(), {"", "/iiif/3/my slide/info.json", std::string("/view/a\0b", 9)});
  for (auto const& path : paths) {
    EXPECT_EQ(refusal([&] { parseRoute(path); }), 404) << "path " << path;
  }
}

TEST(RouteParsing, MalformedIiifAndDziFormsAreBadRequests) {
  for (auto const& path :
       words("/iiif/3/s/full/max/0/default /iiif/3/s/full/max/0/default.gif "
             "/iiif/3/s/full/max/0/grey.jpg /iiif/3/s/full/max/0/default.jpg.png "
             "/iiif/3/s/full/max/0/.jpg /iiif/3/s/whole/max/0/default.jpg "
             "/iiif/3/s/full/full/0/default.jpg /iiif/3/s/full/max/45/default.jpg "
             "/dzi/s_files/x/0_0.jpg /dzi/s_files/1/0-0.jpg /dzi/s_files/1/0_0_0.jpg "
             "/dzi/s_files/1/0_0 /dzi/s_files/1/0_0.tif /dzi/s_files/-1/0_0.jpg "
             "/dzi/s_files/99999999999999999999/0_0.jpg")) {
    EXPECT_EQ(refusal([&] { parseRoute(path); }), 400) << "path " << path;
  }
}

TEST(IiifRegion, EveryFormCroppedToTheImage) {
  std::map<std::string, zoom::Rect> const expected{
      {"full", {0, 0, 300, 200}},
      {"square", {50, 0, 200, 200}},
      {"125,15,120,140", {125, 15, 120, 140}},
      {"125,15,200,200", {125, 15, 175, 185}},  // the API's example of a crop
      {"299,199,99999999999999999,1", {299, 199, 1, 1}},
      {"pct:41.6,7.5,40,70", {125, 15, 120, 140}},  // the API's examples by percent
      {"pct:41.6,7.5,66.6,100", {125, 15, 175, 185}},
      {"pct:0,0,0.01,0.01", {0, 0, 1, 1}},      // not empty, so at least a pixel
      {"pct:99.9,99.9,1,1", {299, 199, 1, 1}},  // inside the last pixel, not rounded out
      {"pct:0,0,1000,5", {0, 0, 300, 10}}};
  for (auto const& [region, want] : expected) {
    EXPECT_EQ(iiif(region + "/max/0/default.jpg", 300, 200).region, want) << region;
  }
  EXPECT_EQ(iiif("square/max/0/default.jpg", 3, 10).region, (zoom::Rect{0, 3, 3, 3}));
}

TEST(IiifRegion, EmptyOrOutsideIsBadRequest) {
  for (auto const& region :
       words("0,0,0,10 0,0,10,0 300,0,1,1 0,200,1,1 pct:100,0,1,1 pct:0,0,0,5 pct:100,0.5,1,1 "
             "99999999999999999999,0,1,1 -1,0,1,1 1,2,3 1,2,3,4,5 pct:1,2,3 pct:+1,2,3,4 "
             "pct:.,1,1,1 pct:1.2.3,1,1,1 pct:1e2,1,1,1 0x1,0,1,1")) {
    EXPECT_EQ(iiifRefusal(region + "/max/0/default.jpg", 300, 200), 400) << "region " << region;
  }
}

TEST(IiifSize, EveryFormKeepsTheAspectToTheNearestPixel) {
  std::map<std::string, std::string> const expected{
      {"max", "300x200"},       {"150,", "150x100"},     {",150", "225x150"},
      {"pct:50", "150x100"},    {"pct:33.3", "100x67"},  {"225,100", "225x100"},
      {"!225,100", "150x100"},  {"!100,225", "100x67"},  {"!9999,9999", "300x200"},
      {"^!360,360", "360x240"}, {"^360,", "360x240"},    {"^,240", "360x240"},
      {"^pct:120", "360x240"},  {"^360,360", "360x360"}, {"^max", "1048576x699051"},
      {"100,", "100x67"},       {"299,", "299x199"}};
  for (auto const& [size, want] : expected) {
    EXPECT_EQ(sizeOf(iiif("full/" + size + "/0/default.jpg", 300, 200)), want) << "size " << size;
  }
  for (auto const& size : words("301, ,201 pct:100.5 301,200 300,201")) {
    EXPECT_EQ(iiifRefusal("full/" + size + "/0/default.jpg", 300, 200), 400) << "size " << size;
    EXPECT_EQ(iiifRefusal("full/^" + size + "/0/default.jpg", 300, 200), 0) << "size ^" << size;
  }
}

TEST(IiifSize, NothingOrMalformedIsBadRequest) {
  // 1, and pct:0.01 of a region 2999 x 999 round a side to 0: less than a pixel.
  for (auto const& size : words("0, ,0 0,0 pct:0 !0,5 1, pct:0.01 full , !,5 !5, ^ ^^max !^5,5 "
                                "max, pct: pct:-5 pct:1e2 5,5,5 w, 99999999999999999999,")) {
    EXPECT_EQ(iiifRefusal("1,1,2999,999/" + size + "/0/default.jpg", 3000, 1000), 400)
        << "size " << size;
  }
}

TEST(IiifSize, LimitsRefuseExceptMaxWhichIsScaledToFit) {
  Limits const limits{400, 300, 60000};
  EXPECT_EQ(sizeOf(iiif("full/max/0/default.jpg", 300, 200, limits)), "300x200");
  EXPECT_EQ(sizeOf(iiif("full/max/0/default.jpg", 1000, 500, limits)), "346x173");
  EXPECT_EQ(sizeOf(iiif("full/max/0/default.jpg", 500, 1000, {400, 300, 1 << 30})), "150x300");
  EXPECT_EQ(sizeOf(iiif("full/^max/0/default.jpg", 100, 50, {400, 300, 1 << 30})), "400x200");
  EXPECT_EQ(sizeOf(iiif("full/max/0/default.jpg", 100000, 1, limits)), "400x1");
  EXPECT_EQ(sizeOf(iiif("full/max/0/default.jpg", 1, 100000, {10, 10, 5})), "1x5");
  EXPECT_EQ(sizeOf(iiif("full/!1000,1000/0/default.jpg", 1000, 500, limits)), "346x173")
      << "the confined form is bounded by the limits too";
  for (auto const& size :
       words("401, ,301 400,300 ^pct:1000 ^pct:99999999999999999999 ^99999999999999999999, "
             "^,99999999999999999999 ^18446744073709551615,18446744073709551615")) {
    EXPECT_EQ(iiifRefusal("full/" + size + "/0/default.jpg", 1000, 1000, limits), 400) << size;
  }
  EXPECT_EQ(iiifRefusal("full/max/0/default.jpg", 10, 10, {0, 10, 10}), 400);
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
  std::map<std::string, std::pair<unsigned, bool>> const accepted{
      {"0", {0, false}},   {"90", {90, false}}, {"180.0", {180, false}}, {"270", {270, false}},
      {"360", {0, false}}, {"!0", {0, true}},   {"!270", {270, true}},   {"090", {90, false}}};
  for (auto const& [rotation, want] : accepted) {
    ImageRequest const r = iiif("full/max/" + rotation + "/default.jpg", 30, 20);
    EXPECT_EQ(std::make_pair(r.rotation, r.mirror), want) << "rotation " << rotation;
    EXPECT_EQ(sizeOf(r), "30x20") << "the size is given before rotation";
  }
  for (auto const& rotation :
       words("45 22.5 90.5 360.1 450 -90 ! !!90 90! +90 1e2 99999999999999999999")) {
    EXPECT_EQ(iiifRefusal("full/max/" + rotation + "/default.jpg", 30, 20), 400) << rotation;
  }
}

TEST(IiifQualityFormat, NamesAndMediaTypes) {
  for (Quality q : {Quality::kDefault, Quality::kColor, Quality::kGray, Quality::kBitonal}) {
    for (Format f : {Format::kJpeg, Format::kPng, Format::kWebp}) {
      std::string const name = std::string(qualityName(q)) + "." + extensionOf(f);
      ImageRequest const r = iiif("full/max/0/" + name, 8, 8);
      EXPECT_TRUE(r.quality == q && r.format == f) << name;
    }
  }
  EXPECT_STREQ(mediaTypeOf(Format::kJpeg), "image/jpeg");
  EXPECT_STREQ(mediaTypeOf(Format::kWebp), "image/webp");
  EXPECT_FALSE(formatFromExtension("jpeg") || formatFromExtension("JPG"));
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
          std::ostringstream region;
          if (whole || (tw == w && th == h)) {
            region << "full";
          } else {
            region << x << "," << y << "," << tw << "," << th;
          }
          std::string const sw = std::to_string(ceilDiv(tw, s)),
                            sh = std::to_string(ceilDiv(th, s));
          wanted[region.str() + "/" + sw + ","].insert(sw + "x" + sh);
          wanted[region.str() + "/" + sw + "," + sh].insert(sw + "x" + sh);
        }
      }
    }
    for (auto const& [request, sizes] : wanted) {
      std::string got;
      try {
        got = sizeOf(iiif(request + "/0/default.jpg", w, h));
      } catch (RequestError const& e) {
        got = e.what();
      }
      EXPECT_TRUE(sizes.count(got) && (sizes.size() == 1 || request.back() == ','))
          << request << " of " << w << "x" << h << " gave " << got << ", wanted " << *sizes.begin()
          << (sizes.size() > 1 ? " or another" : "");
    }
  }
}

TEST(DeepZoom, LevelsAndTilesWithOverlap) {
  EXPECT_EQ(dziTopLevel(1000, 600), 10u);
  EXPECT_EQ(dziTopLevel(1024, 1), 10u);
  EXPECT_EQ(dziTopLevel(1025, 1), 11u);
  EXPECT_EQ(dziTopLevel(1, 1), 0u);
  auto tile = [](std::string const& path, size_t w, size_t h) {
    return resolveDzi(parseRoute("/dzi/s_files/" + path), w, h);
  };
  std::map<std::string, std::pair<size_t, zoom::Rect>> const expected{
      {"10/0_0.jpg", {0, {0, 0, 257, 257}}},      // first: overlap right and below only
      {"10/1_1.jpg", {0, {255, 255, 258, 258}}},  // inner: overlap on all four sides
      {"10/3_2.jpg", {0, {767, 511, 233, 89}}},   // last: cut at the image's edge
      {"9/1_0.png", {1, {255, 0, 245, 257}}},     // 500 x 300
      {"2/0_0.jpg", {8, {0, 0, 4, 3}}},           // ceil(1000 / 256) x ceil(600 / 256)
      {"0/0_0.jpg", {10, {0, 0, 1, 1}}}};
  for (auto const& [path, want] : expected) {
    DziTile const t = tile(path, 1000, 600);
    EXPECT_TRUE(t.level == want.first && t.rect == want.second) << path << ": " << t.rect.str();
  }
  EXPECT_EQ(tile("0/0_0.jpg", 1, 1).rect, (zoom::Rect{0, 0, 1, 1}));
  EXPECT_EQ(tile("9/1_0.webp", 257, 1).rect, (zoom::Rect{255, 0, 2, 1}));
  EXPECT_EQ(tile("9/1_0.webp", 257, 1).format, Format::kWebp);
  for (auto const& path : words("11/0_0.jpg 10/4_0.jpg 10/0_3.jpg 0/1_0.jpg "
                                "10/18446744073709551615_0.jpg 18446744073709551615/0_0.jpg")) {
    EXPECT_EQ(refusal([&] { tile(path, 1000, 600); }), 400) << path;
  }
  EXPECT_EQ(refusal([&] { tile("1/0_0.jpg", 1, 1); }), 400);
}

// The display parameters of "name=value" words.
zoom::Display display(std::string const& query) {
  std::vector<std::pair<std::string, std::string>> pairs;
  for (auto const& word : words(query)) {
    size_t const eq = word.find('=');
    pairs.emplace_back(word.substr(0, eq), eq == std::string::npos ? "" : word.substr(eq + 1));
  }
  return parseDisplay(pairs);
}

TEST(DisplayQuery, EveryParameter) {
  EXPECT_FALSE(display("").any());
  zoom::Display d = display("gamma=2.2 sharpen=-4 clahe=100");
  EXPECT_TRUE(d.gamma && d.gammaValue == 2.2 && d.black == 0 && d.white == 4095);
  EXPECT_TRUE(d.sharpen == -4.0 && d.clahe == 100.0);
  d = display("white=200 black=10 gamma-mode=linear");
  EXPECT_TRUE(d.gamma && d.gammaMode == zoom::Display::GammaMode::kLinear && d.black == 10 &&
              d.white == 200 && d.gammaValue == 1.0);
  EXPECT_EQ(display("gamma-mode=linear").white, 255u);
  d = display("matrix=1,0,0,0,1,0,0,0,-1.5e0:2");
  EXPECT_TRUE(d.matrix && (*d.matrix)[8] == -1.5 && d.matrixScale == 2.0);
}

TEST(DisplayQuery, RefusalsNameTheParameter) {
  for (auto const& query :
       words("gamma=0.09 gamma=10.01 gamma=nan gamma=inf gamma=1e999 gamma=+1 gamma= gamma=0x1 "
             "gamma=1,5 sharpen=4.001 clahe=0.99 black=-1 black=1.5 black=4096 "
             "white=99999999999999999999 gamma-mode=log matrix=1,0,0,0,1,0,0,0 "
             "matrix=1,0,0,0,1,0,0,0,1, matrix=1,0,0,0,1,0,0,0,,1 matrix=1001,0,0,0,1,0,0,0,1 "
             "matrix=1,0,0,0,1,0,0,0,1: shrapen=1 =1")) {
    std::string reason;
    EXPECT_EQ(refusal([&] { display(query); }, &reason), 400) << query;
    std::string const name = query.substr(0, query.find('='));
    EXPECT_NE(reason.find(name.empty() ? "''" : name), std::string::npos) << reason;
  }
  std::string reason;
  EXPECT_EQ(refusal([&] { display("clahe=2 clahe=2"); }, &reason), 400);
  EXPECT_NE(reason.find("clahe is given twice"), std::string::npos) << reason;
  EXPECT_EQ(refusal([&] { display("black=10 white=10"); }), 400);
}

TEST(DisplayQuery, GammaModeDecidesTheLevelScaleWhereverItComes) {
  EXPECT_EQ(display("white=4000").white, 4000u);
  EXPECT_EQ(refusal([&] { display("white=4000 gamma-mode=linear"); }), 400);
  EXPECT_EQ(refusal([&] { display("gamma-mode=linear black=256"); }), 400);
  EXPECT_EQ(display("black=255 gamma-mode=srgb").black, 255u);
}

// Whether s[i...] starts with one JSON value; moves `i` past it.
bool jsonValue(std::string const& s, size_t& i) {
  auto skip = [&] {
    while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i;
  };
  auto eat = [&](char c) {
    skip();
    return i < s.size() && s[i] == c && ++i;
  };
  skip();
  if (i < s.size() && s[i] == '"') {
    for (++i; i < s.size() && s[i] != '"'; ++i) {
      if (static_cast<unsigned char>(s[i]) < 0x20) return false;
      if (s[i] == '\\' && ++i < s.size() && s[i] == 'u') i += 4;
    }
    return eat('"');
  }
  if (i < s.size() && (s[i] == '{' || s[i] == '[')) {
    bool const object = s[i++] == '{';
    char const close = object ? '}' : ']';
    if (eat(close)) return true;
    do {
      skip();
      if (object && !(i < s.size() && s[i] == '"' && jsonValue(s, i) && eat(':'))) return false;
      if (!jsonValue(s, i)) return false;
    } while (eat(','));
    return eat(close);
  }
  size_t const begin = i;
  while (i < s.size() && (std::isalnum(static_cast<unsigned char>(s[i])) || s[i] == '-')) ++i;
  return i > begin;
}

TEST(Descriptors, InfoJsonIsValidAndDescribesLevelsTilesAndExtras) {
  std::string const text = iiifInfo("http://h:8/iiif/3/a\"b\\c\n\xff", 1000, 600, kRoomy);
  size_t end = 0;
  EXPECT_TRUE(jsonValue(text, end) && text.find_first_not_of(" \n", end) == std::string::npos)
      << text;
  EXPECT_EQ(text.find("{\n  \"@context\": \"http://iiif.io/api/image/3/context.json\","), 0u);
  for (std::string part :
       {R"("id": "http://h:8/iiif/3/a\"b\\c\u000a\ufffd")", R"("type": "ImageService3")",
        R"("profile": "level2")", R"("width": 1000,)", R"("height": 600,)",
        R"("maxArea": 1099511627776)",
        R"("scaleFactors": [1, 2, 4, 8, 16, 32, 64, 128, 256, 512, 1024])",
        R"("extraFormats": ["webp"])", R"("extraQualities": ["color", "gray", "bitonal"])",
        R"("extraFeatures": ["mirroring", "profileLinkHeader", "sizeUpscaling"])"}) {
    EXPECT_NE(text.find(part), std::string::npos) << part << " in " << text;
  }
  // Every zoom level, smallest first, and each a request the server serves exactly.
  std::vector<std::string> sizes;
  std::string const mark = R"({"type": "Size", )";
  for (size_t at = text.find(mark); at != std::string::npos; at = text.find(mark, at + 1)) {
    size_t w = 0, h = 0;
    ASSERT_EQ(
        std::sscanf(text.c_str() + at + mark.size(), R"("width": %zu, "height": %zu})", &w, &h), 2);
    sizes.push_back(std::to_string(w) + "x" + std::to_string(h));
    std::string const request = "full/" + std::to_string(w) + "," + std::to_string(h);
    EXPECT_EQ(sizeOf(iiif(request + "/0/default.jpg", 1000, 600)), sizes.back()) << request;
  }
  ASSERT_EQ(sizes.size(), 11u) << text;
  EXPECT_EQ(sizes.front() + " " + sizes[9] + " " + sizes.back(), "1x1 500x300 1000x600");
  EXPECT_EQ(iiifInfo("x", 1000, 600, kRoomy), iiifInfo("x", 1000, 600, kRoomy));
}

TEST(Descriptors, InfoJsonKeepsWithinTheLimits) {
  std::string const text = iiifInfo("x", 1000, 600, {600, 600, 100000});
  EXPECT_NE(text.find("{\"type\": \"Size\", \"width\": 250, \"height\": 150}\n  ],"),
            std::string::npos)
      << "500 x 300 passes the area: " << text;
  EXPECT_EQ(iiifInfo("x", 1000, 600, {100, 100, 10000}).find("tiles"), std::string::npos)
      << "a 256-pixel tile is over the limits";
}

TEST(Descriptors, DziXml) {
  std::string const xml = dziXml(1000, 600, Format::kWebp);
  EXPECT_EQ(xml,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<Image xmlns=\"http://schemas.microsoft.com/deepzoom/2008\" Format=\"webp\" "
            "Overlap=\"1\" TileSize=\"256\">\n  <Size Width=\"1000\" Height=\"600\"/>\n</Image>\n");
}

}  // namespace
}  // namespace quorvel::serve
