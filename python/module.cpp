// Python binding: the backend from Python, with numpy arrays in and out.
//
// Arrays are checked before anything reaches the library: a wrong dtype is a TypeError, a
// wrong shape or a non-contiguous layout a ValueError. Library failures become
// quorvel.QuorvelError whose message is the formatException text. Calls that wait for
// workers release the GIL.

#include <pybind11/functional.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cstring>
#include <quorvel/render.hpp>

namespace py = pybind11;
using namespace quorvel;

void bindZoom(py::module& m);

namespace {

using Instance = RenderBackendInstance;
using InstancePtr = std::shared_ptr<RenderBackendInstance>;

SoftwareRenderBackendInstance& software(Instance& instance) {
  return dynamic_cast<SoftwareRenderBackendInstance&>(instance);
}

// The numpy dtype and channel count of a pixel type.
struct ArrayKind {
  py::dtype dtype;
  size_t channels;
};

ArrayKind arrayKind(std::type_info const& type) {
#define QUORVEL_KIND(T)                                                                    \
  if (type == typeid(T)) {                                                                 \
    return {py::dtype::of<typename PixelTraits<T>::Channel>(), PixelTraits<T>::kChannels}; \
  }
  QUORVEL_FOR_EACH_PIXEL_TYPE(QUORVEL_KIND)
#undef QUORVEL_KIND
  throw py::type_error("target has an unknown pixel type");
}

// The raw bytes of a C-contiguous array, checked for dtype and shape.
std::vector<unsigned char> bytesOf(py::array const& array) {
  if (!(array.flags() & py::array::c_style)) {
    throw py::value_error("array must be C-contiguous (use numpy.ascontiguousarray)");
  }
  auto const* data = static_cast<unsigned char const*>(array.data());
  return std::vector<unsigned char>(data, data + array.nbytes());
}

// {width, height, components} of a tile array: a 2-D int16 plane, or (h, w, 3|4) uint8.
std::vector<size_t> tileSize(py::array const& array) {
  if (array.dtype().is(py::dtype::of<int16_t>())) {
    if (array.ndim() != 2) throw py::value_error("an int16 tile must be a 2-D array (h, w)");
    return {size_t(array.shape(1)), size_t(array.shape(0)), 1};
  }
  if (array.dtype().is(py::dtype::of<uint8_t>())) {
    if (array.ndim() != 3 || (array.shape(2) != 3 && array.shape(2) != 4)) {
      throw py::value_error("a uint8 tile must have shape (h, w, 3) or (h, w, 4)");
    }
    return {size_t(array.shape(1)), size_t(array.shape(0)), size_t(array.shape(2))};
  }
  throw py::type_error("tiles are int16 (h, w) or uint8 (h, w, 3|4) arrays, not " +
                       std::string(py::str(array.dtype())));
}

py::array getPixels(Instance& instance, size_t target, std::vector<size_t> const& rect) {
  if (rect.size() != 4) throw py::value_error("rect is (x, width, y, height)");
  ArrayKind const kind = arrayKind(software(instance).targetPixelType(target));
  std::vector<py::ssize_t> shape = {py::ssize_t(rect[3]), py::ssize_t(rect[1])};
  if (kind.channels > 1) shape.push_back(py::ssize_t(kind.channels));
  size_t const bytes = instance.getPixelsBufferSize(target, rect);
  py::array result(kind.dtype, shape);
  if (size_t(result.nbytes()) != bytes) throw py::value_error("rect does not fit the target");
  void* out = result.mutable_data();
  {
    py::gil_scoped_release release;
    instance.getPixels(out, bytes, target, rect);
  }
  return result;
}

std::vector<unsigned char> idOf(py::bytes const& id) {
  std::string const key = id;
  return std::vector<unsigned char>(key.begin(), key.end());
}

// A staging buffer owned from Python until it is handed to the instance.
struct Staging {
  std::unique_ptr<ConcurrentStagingBuffer> buffer;
  ConcurrentStagingBuffer& get() {
    if (!buffer) throw py::value_error("the staging buffer was already synchronized");
    return *buffer;
  }
};

Filter makeFilter(std::string const& name, size_t invalidLeft, size_t invalidRight,
                  size_t invalidTop, size_t invalidBottom, size_t inputPosX0,
                  size_t inputPosXStride, size_t inputPosY0, size_t inputPosYStride,
                  size_t scaleXNum, size_t scaleXDen, size_t scaleYNum, size_t scaleYDen,
                  size_t numTexturesIn, size_t bitsPerPixelIn, size_t bitsPerPixelOut,
                  size_t componentsIn, size_t componentsOut, size_t alignXIn, size_t alignXOut,
                  size_t alignYIn, size_t alignYOut, std::vector<bool> signedIn, bool signedOut,
                  size_t bitDepthIn) {
  return Filter(name, invalidLeft, invalidRight, invalidTop, invalidBottom, inputPosX0,
                inputPosXStride, inputPosY0, inputPosYStride, scaleXNum, scaleXDen, scaleYNum,
                scaleYDen, numTexturesIn, bitsPerPixelIn, bitsPerPixelOut, componentsIn,
                componentsOut, alignXIn, alignXOut, alignYIn, alignYOut, std::move(signedIn),
                signedOut, bitDepthIn, RenderBackend::ImageFiltering::kLinear);
}

}  // namespace

PYBIND11_MODULE(quorvel, m) {
  m.doc() = "CPU render backend for very large tiled images";

  static py::exception<QuorvelException> error(m, "QuorvelError");
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (QuorvelException const& e) {
      error(formatException(e).c_str());
    }
  });
  bindZoom(m);
  m.def(
      "format_exception_text",
      [](std::string const& text) { return formatException(QuorvelException(text)); },
      "The readable form of a tagged message text.");

  py::enum_<RenderBackend::ImageFormatType>(m, "ImageFormatType")
      .value("UNKNOWN", RenderBackend::ImageFormatType::kUnknown)
      .value("RGB8", RenderBackend::ImageFormatType::kRgb8)
      .value("RGBA8", RenderBackend::ImageFormatType::kRgba8)
      .value("YCOCG16", RenderBackend::ImageFormatType::kYCoCg16)
      .value("WAVELET16", RenderBackend::ImageFormatType::kWavelet16);
  py::enum_<RenderBackend::BufferType>(m, "BufferType")
      .value("TILE", RenderBackend::BufferType::kTile)
      .value("TARGET", RenderBackend::BufferType::kTarget);

  py::class_<RenderContext>(m, "RenderContext");
  py::class_<SoftwareRenderContext, RenderContext>(m, "SoftwareRenderContext")
      .def(py::init<size_t, size_t, size_t>(), py::arg("width"), py::arg("height"),
           py::arg("threads"))
      .def_property_readonly("threads", &SoftwareRenderContext::numberOfWorkerThreads);

  py::class_<SoftwareRenderBackend>(m, "SoftwareRenderBackend")
      .def(py::init<RenderBackend::ImageFormatType, size_t>(),
           py::arg("format") = RenderBackend::ImageFormatType::kRgba8,
           py::arg("cache_capacity") = size_t{256} << 20)
      // The instance refers to its context: keep the context alive as long as the instance.
      .def("create_instance", &SoftwareRenderBackend::createInstance, py::arg("context"),
           py::keep_alive<0, 2>());

  py::class_<FilterSource>(m, "FilterSource")
      .def(py::init([](size_t target, size_t x, size_t y, bool whole) {
             return FilterSource{target, x, y, whole};
           }),
           py::arg("target"), py::arg("x") = 0, py::arg("y") = 0, py::arg("whole") = false)
      .def_readwrite("target", &FilterSource::target)
      .def_readwrite("x", &FilterSource::x)
      .def_readwrite("y", &FilterSource::y)
      .def_readwrite("whole", &FilterSource::whole);

  py::class_<SingleFilterParameters, std::shared_ptr<SingleFilterParameters>>(
      m, "SingleFilterParameters")
      .def_readwrite("level", &SingleFilterParameters::level);
  py::class_<FilterEmptyParams, SingleFilterParameters, std::shared_ptr<FilterEmptyParams>>(
      m, "FilterEmptyParams")
      .def(py::init<>());
  py::class_<FilterTruncate16Params, SingleFilterParameters,
             std::shared_ptr<FilterTruncate16Params>>(m, "FilterTruncate16Params")
      .def(py::init<>())
      .def_readwrite("bits", &FilterTruncate16Params::bits)
      .def_readwrite("reconstruct_at_midpoint", &FilterTruncate16Params::reconstructAtMidpoint);
  py::class_<FilterLinear16TosRGB8Params, SingleFilterParameters,
             std::shared_ptr<FilterLinear16TosRGB8Params>>(m, "FilterLinear16TosRGB8Params")
      .def(py::init<>())
      .def_readwrite("gamma", &FilterLinear16TosRGB8Params::gamma)
      .def_readwrite("black_point", &FilterLinear16TosRGB8Params::blackPoint)
      .def_readwrite("white_point", &FilterLinear16TosRGB8Params::whitePoint);
  py::class_<FilterBlackWhiteGamma8Params, SingleFilterParameters,
             std::shared_ptr<FilterBlackWhiteGamma8Params>>(m, "FilterBlackWhiteGamma8Params")
      .def(py::init<>())
      .def_readwrite("gamma", &FilterBlackWhiteGamma8Params::gamma)
      .def_readwrite("black_point", &FilterBlackWhiteGamma8Params::blackPoint)
      .def_readwrite("white_point", &FilterBlackWhiteGamma8Params::whitePoint);
  py::class_<Filter3x3MatrixParams, SingleFilterParameters, std::shared_ptr<Filter3x3MatrixParams>>(
      m, "Filter3x3MatrixParams")
      .def(py::init<>())
      .def_readwrite("matrix", &Filter3x3MatrixParams::matrix)
      .def_readwrite("scale", &Filter3x3MatrixParams::scale);
  py::class_<FilterClaheParams, SingleFilterParameters, std::shared_ptr<FilterClaheParams>>(
      m, "FilterClaheParams")
      .def(py::init<>())
      .def_readwrite("clip_limit", &FilterClaheParams::clipLimit);
  py::class_<FilterSharpness8Params, SingleFilterParameters,
             std::shared_ptr<FilterSharpness8Params>>(m, "FilterSharpness8Params")
      .def(py::init<>())
      .def_readwrite("gain", &FilterSharpness8Params::gain);
  py::class_<FilterSharpness16Params, SingleFilterParameters,
             std::shared_ptr<FilterSharpness16Params>>(m, "FilterSharpness16Params")
      .def(py::init<>())
      .def_readwrite("gain", &FilterSharpness16Params::gain);

  py::class_<Filter, std::shared_ptr<Filter>>(m, "Filter")
      .def(py::init(&makeFilter), py::arg("name"), py::arg("invalid_left"),
           py::arg("invalid_right"), py::arg("invalid_top"), py::arg("invalid_bottom"),
           py::arg("input_pos_x0"), py::arg("input_pos_x_stride"), py::arg("input_pos_y0"),
           py::arg("input_pos_y_stride"), py::arg("scale_x_num"), py::arg("scale_x_den"),
           py::arg("scale_y_num"), py::arg("scale_y_den"), py::arg("num_textures_in"),
           py::arg("bits_per_pixel_in"), py::arg("bits_per_pixel_out"), py::arg("components_in"),
           py::arg("components_out"), py::arg("align_x_in"), py::arg("align_x_out"),
           py::arg("align_y_in"), py::arg("align_y_out"), py::arg("signed_in"),
           py::arg("signed_out"), py::arg("bit_depth_in"))
      .def_static(
          "point",
          [](std::string const& name, size_t inputs, size_t bitDepthIn) {
            return pointFilter(name, inputs, 32, 32, 4, 4, bitDepthIn);
          },
          py::arg("name"), py::arg("inputs") = 1, py::arg("bit_depth_in") = 8,
          "A filter description with neutral geometry (a per-pixel filter).")
      .def_property_readonly("name", &Filter::name)
      .def_property_readonly("instantiated",
                             [](Filter const& f) { return bool(f.implementation()); })
      .def("instantiate", &Filter::instantiate, py::arg("instance"))
      .def("input_range", &Filter::inputRange)
      .def("output_range", &Filter::outputRange)
      .def("changes_geometry", &Filter::changesGeometry);

  py::class_<Staging>(m, "ConcurrentStagingBuffer")
      .def(
          "set_pixels",
          [](Staging& s, py::array const& pixels, size_t byteOffset) {
            auto bytes = bytesOf(pixels);
            py::gil_scoped_release release;
            s.get().setPixels(bytes, byteOffset);
          },
          py::arg("pixels"), py::arg("byte_offset") = 0,
          "Fills the staged pixels; may be called from any Python thread.")
      .def_property_readonly("tile", [](Staging& s) { return s.get().targetOrTileId(); })
      .def_property_readonly("ready", [](Staging& s) { return s.get().isReady(); });

  py::class_<Instance, InstancePtr>(m, "RenderBackendInstance")
      .def_property_readonly("id", [](Instance& i) { return software(i).id(); })
      .def(
          "create_target",
          [](Instance& i, std::vector<size_t> const& size, size_t bits, bool isSigned) {
            return i.createTarget(size, bits, isSigned, RenderBackend::ImageFiltering::kLinear,
                                  RenderBackend::ImageFormatType::kUnknown);
          },
          py::arg("size"), py::arg("bits"), py::arg("signed") = false)
      .def("erase_target", &Instance::eraseTarget)
      .def("target_ready", &Instance::targetReady)
      .def("target_size", &Instance::targetSize)
      .def("wait_for_target", &Instance::waitForTarget, py::call_guard<py::gil_scoped_release>())
      .def("clear", &Instance::clear, py::arg("target"), py::arg("color"))
      .def("clear_rect", &Instance::clearRect, py::arg("target"), py::arg("color"), py::arg("rect"))
      .def("get_pixels", &getPixels, py::arg("target"), py::arg("rect"),
           "The pixels of rect (x, width, y, height) as an array shaped (h, w[, channels]).")
      .def(
          "set_tile",
          [](Instance& i, size_t tile, py::array const& array) {
            auto size = tileSize(array);
            i.setTile(tile, bytesOf(array), size, 0);
          },
          py::arg("tile"), py::arg("array"))
      .def("tile_set", &Instance::tileSet)
      .def("lock_tile", &Instance::lockTile)
      .def("unlock_tile", &Instance::unlockTile)
      .def("erase_tile", &Instance::eraseTile)
      .def("erase_tiles", &Instance::eraseTiles)
      .def("clear_tiles", &Instance::clearTiles)
      .def("free_slots", &Instance::freeSlots)
      .def("create_filter_instance", &Instance::createFilterInstance)
      .def("destroy_filter_instance", &Instance::destroyFilterInstance)
      .def(
          "execute_filter",
          [](Instance& i, Filter const& filter, std::vector<FilterSource> const& sources,
             size_t inputW, size_t inputH, size_t destination, std::vector<size_t> clip,
             std::shared_ptr<SingleFilterParameters> const& params,
             std::vector<size_t> const& offset) {
            clip.resize(4, 0);
            i.executeFilter(
                filter, sources, inputW, inputH, destination, clip[0], clip[1], clip[2], clip[3],
                params ? *params
                       : static_cast<SingleFilterParameters const&>(FilterEmptyParams::instance()),
                offset);
          },
          py::arg("filter"), py::arg("sources"), py::arg("input_w"), py::arg("input_h"),
          py::arg("destination"), py::arg("clip") = std::vector<size_t>{0, 0, 0, 0},
          py::arg("params") = nullptr, py::arg("offset") = std::vector<size_t>{0, 0})
      .def("draw_tiles", &Instance::drawTiles, py::arg("target"), py::arg("tile_shader"),
           py::arg("range"), py::arg("canvas_range"), py::arg("tile_size"), py::arg("block_coords"),
           py::arg("blocks"), py::arg("offsets") = std::vector<size_t>{})
      .def("finalize_draw_sequence", &Instance::finalizeDrawSequence,
           py::call_guard<py::gil_scoped_release>())
      .def(
          "mask_range",
          [](Instance& i, size_t source, size_t target, Filter const& mask, py::bytes const& id,
             std::vector<size_t> const& range) {
            i.maskRange(source, target, mask, idOf(id), range);
          },
          py::arg("source"), py::arg("target"), py::arg("mask_filter"), py::arg("envelopes_id"),
          py::arg("range"))
      .def(
          "set_data_envelopes",
          [](Instance& i, py::bytes const& id, EnvelopeData const& data) {
            i.dataEnvelopes(idOf(id), data);
          },
          py::arg("id"), py::arg("data"))
      .def(
          "data_envelopes_count",
          [](Instance& i, py::bytes const& id) { return i.dataEnvelopes(idOf(id))->count(); },
          py::arg("id"))
      .def(
          "data_envelopes_set",
          [](Instance& i, py::bytes const& id) { return i.dataEnvelopesSet(idOf(id)); },
          py::arg("id"))
      .def(
          "lock_data_envelopes",
          [](Instance& i, py::bytes const& id) { i.lockDataEnvelopes(idOf(id)); }, py::arg("id"))
      .def(
          "unlock_data_envelopes",
          [](Instance& i, py::bytes const& id) { i.unlockDataEnvelopes(idOf(id)); }, py::arg("id"))
      .def(
          "concurrent_staging_buffer",
          [](Instance& i, size_t tile, RenderBackend::BufferType type,
             std::vector<size_t> const& size) {
            return Staging{i.concurrentStagingBuffer(tile, type, size)};
          },
          py::arg("tile"), py::arg("type"), py::arg("size"))
      .def(
          "synchronize_concurrent_staging_buffer",
          [](Instance& i, Staging& s) {
            s.get();
            return i.synchronizeConcurrentStagingBuffer(std::move(s.buffer));
          },
          py::arg("buffer"));
}
