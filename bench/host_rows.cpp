#include "host_rows.hpp"

#include <cstdio>
#include <quorvel/zoom/renderer.hpp>

namespace quorvel::bench {
namespace {

using namespace quorvel::zoom;

constexpr size_t kSlide = 8192;  // the procedural slide rendered
constexpr size_t kOutputTile = 256;
constexpr size_t kViewTiles = 16;  // output tiles per timed call: a 4 x 4 view

Display displayFor(std::string const& name) {
  Display d;
  if (name == "gamma") {
    d.gamma = true;
    d.gammaValue = 1.8;
  } else if (name == "sharpen") {
    d.sharpen = 0.8;
  } else if (name == "clahe") {
    d.clahe = 2.0;
  } else if (name == "all") {
    d.gamma = true;
    d.gammaValue = 1.8;
    d.sharpen = 0.8;
    d.clahe = 2.0;
    d.matrix = std::array<double, 9>{0.9, 0.1, 0, 0.1, 0.8, 0.1, 0, 0.1, 0.9};
  }
  return d;
}

// One engine and renderer per worker count, on the same slide; the view's tiles are encoded
// and uploaded before timing, as in a viewer that adjusts the display over one place.
struct View {
  explicit View(size_t workers)
      : engine(std::make_shared<Engine>(EngineOptions{workers, size_t{512} << 20})),
        renderer(engine, std::make_shared<ProceduralSlide>(kSlide, kSlide, 7),
                 RendererOptions{256, 3, kOutputTile}),
        out(kOutputTile * kOutputTile * 4) {}

  void run(size_t level, Display const& display) {
    size_t const w = renderer.width(level), h = renderer.height(level);
    for (size_t i = 0; i < kViewTiles; ++i) {
      size_t const x = (i % 4) * kOutputTile, y = (i / 4) * kOutputTile;
      if (x >= w || y >= h) continue;
      Rect const r{x, y, std::min(kOutputTile, w - x), std::min(kOutputTile, h - y)};
      renderer.render(level, r, display, out.data());
    }
  }

  std::shared_ptr<Engine> engine;
  Renderer renderer;
  std::vector<uint8_t> out;
};

std::string rate(double perSecond) {
  char text[64];
  std::snprintf(text, sizeof text, "%.0f tiles/s", perSecond);
  return text;
}

std::vector<Row> renderRows(std::string const& display, size_t level, Settings const& settings) {
  View one(1), two(2);
  Display const plain, asked = displayFor(display);
  for (View* v : {&one, &two}) {
    v->run(level, plain);
    v->run(level, asked);
  }
  Settings wall = settings;
  wall.timing = Timing::kWall;
  // Ours with the display asked, then without any, side by side: the ratio is what the
  // display costs over the plain warm rate.
  std::vector<double> const t =
      medianSecondsSideBySide({[&] { one.run(level, asked); }, [&] { two.run(level, asked); },
                               [&] { one.run(level, plain); }, [&] { two.run(level, plain); }},
                              wall);
  std::vector<Row> rows;
  for (size_t i = 0; i < 2; ++i) {
    Row row;
    row.operation = "Host render, warm view, " + display;
    row.size = "4x4 tiles of 256, level " + std::to_string(level);
    row.threads = std::to_string(i + 1);
    row.mpixelPerSecond = double(kViewTiles * kOutputTile * kOutputTile) / t[i] / 1e6;
    row.note = rate(double(kViewTiles) / t[i]);
    char extra[96];
    std::snprintf(extra, sizeof extra, "; %.2fx the plain rate", t[2 + i] / t[i]);
    if (display != "plain") row.note += extra;
    if (i == 1) {
      std::snprintf(extra, sizeof extra, "; scaling %.2fx over 1 worker", t[0] / t[1]);
      row.note += extra;
    }
    rows.push_back(row);
  }
  return rows;
}

std::vector<Row> marginRows(Settings const&) {
  std::vector<Row> rows;
  for (char const* display : {"sharpen", "clahe", "all"}) {
    View v(2);
    // A 6 x 6 block of output tiles on the 256 grid of level 1, away from the edges: the
    // slide's own levels 0 and 3 are drawn from its pixels, level 1 through the transform.
    for (size_t y = 1; y < 7; ++y) {
      for (size_t x = 1; x < 7; ++x) {
        v.renderer.render(1, {x * 256, y * 256, 256, 256}, displayFor(display), v.out.data());
      }
    }
    RenderCounters const c = v.renderer.counters();
    Row row;
    row.operation = std::string("Host margins, ") + display;
    row.size = "36 tiles of 256, level 1";
    row.threads = "2";
    char note[128];
    std::snprintf(note, sizeof note,
                  "%.3f pixels reconstructed per pixel delivered (%.3f samples of every depth)",
                  double(c.reconstructed) / double(c.delivered),
                  double(c.samples) / 3.0 / double(c.delivered));
    row.note = note;
    rows.push_back(row);
  }
  return rows;
}

}  // namespace

void registerHostRows(Registry& registry) {
  for (char const* display : {"plain", "gamma", "sharpen", "clahe"}) {
    for (size_t level : {0, 1, 3}) {
      registry.addCustom(std::string("HostRender/") + display + "/level" + std::to_string(level),
                         [display = std::string(display), level](Settings const& s) {
                           return renderRows(display, level, s);
                         });
    }
  }
  registry.addCustom("HostMargins/256", marginRows);
}

}  // namespace quorvel::bench
