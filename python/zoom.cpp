// Python binding of the host layer: open an image, render any rectangle of any zoom level
// with display parameters into a numpy array.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <quorvel/zoom/renderer.hpp>

namespace py = pybind11;
using namespace quorvel::zoom;

namespace {

std::shared_ptr<MemorySource> memorySource(py::array const& any) {
  if (!py::isinstance<py::array_t<uint8_t>>(any) || any.dtype().kind() != 'u' ||
      any.itemsize() != 1) {
    throw py::type_error("expected a uint8 array");
  }
  auto a = any.cast<py::array_t<uint8_t, py::array::c_style | py::array::forcecast>>();
  if (a.ndim() != 3 || (a.shape(2) != 3 && a.shape(2) != 4) || a.shape(0) == 0 || a.shape(1) == 0) {
    throw py::value_error("expected an array of shape (height, width, 3 or 4)");
  }
  size_t const h = size_t(a.shape(0)), w = size_t(a.shape(1)), c = size_t(a.shape(2));
  std::vector<uint8_t> rgba(w * h * 4, 255);
  uint8_t const* src = a.data();
  for (size_t i = 0; i < w * h; ++i) {
    for (size_t k = 0; k < c; ++k) rgba[4 * i + k] = src[c * i + k];
  }
  return std::make_shared<MemorySource>(w, h, std::move(rgba), "numpy array");
}

Display display(std::optional<double> gamma, std::string const& gammaMode,
                std::optional<size_t> black, std::optional<size_t> white,
                std::optional<double> sharpen, std::optional<double> clahe,
                std::optional<std::vector<double>> matrix, double matrixScale,
                std::optional<std::vector<std::array<uint32_t, 4>>> mask) {
  Display d;
  if (gammaMode != "srgb" && gammaMode != "linear") {
    throw DisplayError("gamma_mode must be 'srgb' or 'linear'");
  }
  d.gammaMode = gammaMode == "linear" ? Display::GammaMode::kLinear : Display::GammaMode::kSrgb;
  d.setLevels(gamma, black, white);
  d.sharpen = sharpen;
  d.clahe = clahe;
  if (matrix) {
    if (matrix->size() != 9) throw DisplayError("matrix must have nine coefficients");
    std::array<double, 9> m{};
    std::copy(matrix->begin(), matrix->end(), m.begin());
    d.matrix = m;
    d.matrixScale = matrixScale;
  }
  if (mask) {
    std::vector<MaskRect> rects;
    for (auto const& r : *mask) {
      if (r[0] > r[1] || r[2] > r[3])
        throw DisplayError("mask rectangles are xmin, xmax, ymin, ymax");
      rects.push_back({r[0], r[1], r[2], r[3]});
    }
    d.mask = rects;
  }
  d.validate();
  return d;
}

}  // namespace

void bindZoom(py::module& m) {
  py::register_exception<SourceError>(m, "SourceError", PyExc_OSError);
  py::register_exception<DisplayError>(m, "DisplayError", PyExc_ValueError);

  py::class_<ImageSource, std::shared_ptr<ImageSource>>(m, "ImageSource")
      .def_property_readonly("width", &ImageSource::width)
      .def_property_readonly("height", &ImageSource::height)
      .def_property_readonly("native_levels", &ImageSource::nativeLevels)
      .def_property_readonly("description", &ImageSource::description);
  py::class_<MemorySource, ImageSource, std::shared_ptr<MemorySource>>(m, "MemorySource")
      .def(py::init(&memorySource), py::arg("pixels"),
           "An image in memory from a (height, width, 3 or 4) uint8 array.");
  py::class_<ProceduralSlide, ImageSource, std::shared_ptr<ProceduralSlide>>(m, "ProceduralSlide")
      .def(py::init<size_t, size_t, uint32_t>(), py::arg("width") = 65536,
           py::arg("height") = 65536, py::arg("seed") = 1);
  m.def("open_image", &openImageFile, py::arg("path"),
        "Opens an image file (PNG, JPEG, TIFF, whole-slide formats) without decoding it whole.");

  py::class_<Engine, std::shared_ptr<Engine>>(m, "Engine")
      .def(py::init([](size_t workers, size_t cacheMb) {
             return std::make_shared<Engine>(EngineOptions{workers, cacheMb << 20});
           }),
           py::arg("workers") = 1, py::arg("cache_mb") = 256)
      .def_property_readonly("workers", &Engine::workers)
      .def("stats", [](Engine const& e) {
        EngineStats const s = e.stats();
        py::dict d;
        d["blocks_encoded"] = s.blocksEncoded;
        d["tile_hits"] = s.tileHits;
        d["tile_misses"] = s.tileMisses;
        d["tile_evictions"] = s.tileEvictions;
        d["tiles_rendered"] = s.tilesRendered;
        d["cache_bytes"] = s.cacheBytes;
        d["cache_capacity"] = s.cacheCapacity;
        return d;
      });

  py::class_<Renderer, std::shared_ptr<Renderer>>(m, "Renderer")
      .def(py::init([](std::shared_ptr<Engine> engine, std::shared_ptr<ImageSource> source,
                       size_t tile, size_t levels) {
             return std::make_shared<Renderer>(std::move(engine), std::move(source),
                                               RendererOptions{tile, levels, 256});
           }),
           py::arg("engine"), py::arg("source"), py::arg("tile") = 256, py::arg("levels") = 3,
           py::keep_alive<1, 2>())
      .def_property_readonly("levels", &Renderer::levels)
      .def(
          "size",
          [](Renderer const& r, size_t level) {
            if (level >= r.levels()) throw py::index_error("no such zoom level");
            return std::make_pair(r.width(level), r.height(level));
          },
          py::arg("level") = 0, "(width, height) of a zoom level")
      .def(
          "render",
          [](Renderer const& r, size_t level, std::array<size_t, 4> rect,
             std::optional<double> gamma, std::string const& gammaMode, std::optional<size_t> black,
             std::optional<size_t> white, std::optional<double> sharpen,
             std::optional<double> clahe, std::optional<std::vector<double>> matrix,
             double matrixScale, std::optional<std::vector<std::array<uint32_t, 4>>> mask) {
            Display const d =
                display(gamma, gammaMode, black, white, sharpen, clahe, matrix, matrixScale, mask);
            Rect const area{rect[0], rect[1], rect[2], rect[3]};
            if (area.empty()) throw py::value_error("the rectangle is empty");
            py::array_t<uint8_t> out({area.height, area.width, size_t{4}});
            uint8_t* data = out.mutable_data();
            {
              py::gil_scoped_release release;
              r.render(level, area, d, data);
            }
            return out;
          },
          py::arg("level"), py::arg("rect"), py::kw_only(), py::arg("gamma") = py::none(),
          py::arg("gamma_mode") = "srgb", py::arg("black") = py::none(),
          py::arg("white") = py::none(), py::arg("sharpen") = py::none(),
          py::arg("clahe") = py::none(), py::arg("matrix") = py::none(),
          py::arg("matrix_scale") = 1.0, py::arg("mask") = py::none(),
          "RGBA8 pixels (height, width, 4) of rect = (x, y, width, height) of a zoom level.");
}
