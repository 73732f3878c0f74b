#include "pipeline.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>

namespace quorvel::tool {
namespace {

using Clock = std::chrono::steady_clock;
using Filtering = RenderBackend::ImageFiltering;
using Format = RenderBackend::ImageFormatType;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Runs body(worker, item) for items [0, count) on `threads` threads that take items in
// order; the calling thread reports progress meanwhile. The first failure stops the other
// threads after their current item and is rethrown here.
void parallelFor(size_t count, size_t threads, Progress& progress,
                 std::function<void(size_t, size_t)> const& body) {
  std::mutex mutex;
  std::condition_variable changed;
  size_t next = 0, done = 0;
  std::exception_ptr failure;
  auto work = [&](size_t worker) {
    std::unique_lock<std::mutex> lock(mutex);
    while (next < count && !failure) {
      size_t const item = next++;
      lock.unlock();
      std::exception_ptr error;
      try {
        body(worker, item);
      } catch (...) {
        error = std::current_exception();
      }
      lock.lock();
      if (error && !failure) failure = error;
      ++done;
      changed.notify_all();
    }
  };
  std::vector<std::thread> pool;
  for (size_t w = 0; w < threads && w < count; ++w) pool.emplace_back(work, w);
  {
    std::unique_lock<std::mutex> lock(mutex);
    while (done < next || (next < count && !failure)) {
      changed.wait_for(lock, std::chrono::milliseconds(100));
      size_t const finished = done;
      lock.unlock();
      progress.update(finished);
      lock.lock();
    }
  }
  for (auto& t : pool) t.join();
  if (failure) std::rethrow_exception(failure);
  progress.finish(count);
}

// The coefficient tiles of one image tile, ready for setTile: band atlas planes A and B
// as bytes.
using EncodedTile = std::array<std::vector<unsigned char>, 2>;

// Host-side encoding state: one backend instance per encoder thread (an instance serves
// one host thread at a time), each with its own YCoCg target.
struct Encoder {
  std::vector<std::shared_ptr<RenderBackendInstance>> instances;
  std::vector<size_t> targets;
};

EncodedTile encodeTile(Image const& input, size_t tx, size_t ty, WaveletLayout const& layout,
                       BandAtlas const& atlas, RenderBackendInstance& instance, size_t target,
                       Filter const& toYCoCg) {
  size_t const t = layout.tile();
  // The RGBA8 tile goes through a staging buffer, filled on this thread, into this
  // instance's tile store; the backend's colour filter turns it into YCoCg16.
  auto staging = instance.concurrentStagingBuffer(0, RenderBackend::BufferType::kTile, {t, t, 4});
  staging->setPixels(paddedTile(input, tx, ty, t), 0);
  instance.synchronizeConcurrentStagingBuffer(std::move(staging));
  instance.drawTiles(target, toYCoCg, {0, t, 0, t}, {0, t, 0, t}, {t, t}, {{0, 0}}, {0}, {});
  instance.finalizeDrawSequence();
  std::vector<unsigned char> const ycocg = instance.getPixels(target, {0, t, 0, t});

  std::array<std::vector<std::vector<int16_t>>, 3> bands;
  std::vector<int16_t> plane(t * t);
  for (size_t c = 0; c < 3; ++c) {
    for (size_t i = 0; i < t * t; ++i) std::memcpy(&plane[i], &ycocg[(3 * i + c) * 2], 2);
    bands[c] = forwardTransform(plane.data(), layout);
  }
  EncodedTile encoded;
  auto const planes = atlas.pack(bands);
  for (size_t k = 0; k < 2; ++k) {
    encoded[k].resize(planes[k].size() * sizeof(int16_t));
    std::memcpy(encoded[k].data(), planes[k].data(), encoded[k].size());
  }
  return encoded;
}

}  // namespace

std::vector<unsigned char> paddedTile(Image const& image, size_t tx, size_t ty, size_t tile) {
  std::vector<unsigned char> out(tile * tile * 4);
  size_t const x0 = tx * tile, y0 = ty * tile;
  size_t const w = std::min(tile, image.width - x0), h = std::min(tile, image.height - y0);
  for (size_t y = 0; y < tile; ++y) {
    uint8_t const* src = image.pixel(x0, y0 + std::min(y, h - 1));
    uint8_t* dst = &out[y * tile * 4];
    std::memcpy(dst, src, w * 4);
    for (size_t x = w; x < tile; ++x) std::memcpy(dst + x * 4, src + (w - 1) * 4, 4);
  }
  return out;
}

Image renderImage(Image const& input, RenderOptions const& options, Progress& progress,
                  StageTimes& times) {
  WaveletLayout const layout(options.tile, options.levels);
  BandAtlas const atlas(layout);
  size_t const t = options.tile, threads = std::max<size_t>(1, options.threads);
  size_t const cols = (input.width + t - 1) / t, rows = (input.height + t - 1) / t;
  size_t const tiles = cols * rows;

  // Waves: as many tiles as the cache holds next to the encoders' staging tiles. The
  // backend charges an int16 tile its sample count, less than its bytes, so a wave that
  // fits in bytes is never evicted while it renders.
  size_t const capacity = options.cacheMb << 20;
  size_t const tileBytes = 2 * atlas.width() * atlas.height() * sizeof(int16_t);
  size_t const stagingBytes = threads * t * t * 4;
  if (capacity < stagingBytes + tileBytes) {
    size_t const needed = (stagingBytes + tileBytes + (1 << 20) - 1) >> 20;
    throw UsageError("--cache-mb " + std::to_string(options.cacheMb) +
                     " cannot hold one tile; at least " + std::to_string(needed) +
                     " MiB are needed with --tile " + std::to_string(t) + " and --threads " +
                     std::to_string(threads));
  }
  size_t const waveTiles = std::min(tiles, (capacity - stagingBytes) / tileBytes);

  SoftwareRenderContext context(1, 1, threads);
  SoftwareRenderBackend backend(Format::kWavelet16, capacity);
  std::shared_ptr<RenderBackendInstance> render = backend.createInstance(context);
  Filter toYCoCg = pointFilter("FilterRGBA8ToYCoCg16", 1, 32, 48, 4, 3, 8);
  toYCoCg.instantiate(render);
  Encoder encoder;
  for (size_t w = 0; w < threads; ++w) {
    encoder.instances.push_back(backend.createInstance(context));
    encoder.targets.push_back(encoder.instances.back()->createTarget(
        {t, t}, 48, true, Filtering::kNone, Format::kYCoCg16));
  }
  // One tile in flight per worker plus one queued keeps the workers busy while this thread
  // reads back; more slots only spread the tiles' targets over more memory (measured: two
  // per worker rendered the default slide 10-15% slower with two workers).
  TileRenderer renderer(render, layout, options.display, std::min<size_t>(16, threads + 1),
                        cols * t);

  Image output;
  output.width = input.width;
  output.height = input.height;
  output.rgba.assign(input.rgba.size(), 0);
  std::vector<EncodedTile> encoded(waveTiles);
  std::mutex uploadMutex;
  // Rows of tiles are assembled by the backend in strip targets and read back straight into
  // the output image's rows.
  size_t pendingRow = SIZE_MAX;
  auto readRow = [&](size_t row) {
    size_t const y0 = row * t, h = std::min(t, input.height - y0);
    renderer.readStrip(row % 2, input.width, h, output.pixel(0, y0));
    pendingRow = SIZE_MAX;
  };

  for (size_t first = 0; first < tiles; first += waveTiles) {
    size_t const count = std::min(waveTiles, tiles - first);
    ++times.waves;

    auto start = Clock::now();
    progress.start("encode", tiles, first);
    parallelFor(count, threads, progress, [&](size_t worker, size_t i) {
      size_t const tile = first + i;
      encoded[i] = encodeTile(input, tile % cols, tile / cols, layout, atlas,
                              *encoder.instances[worker], encoder.targets[worker], toYCoCg);
    });
    times.encode += secondsSince(start);

    // Coefficient tiles are int16 planes, which only setTile stores (staging buffers hold
    // 8-bit pixels). The uploaders share the render instance, one call at a time.
    start = Clock::now();
    progress.start("upload", tiles, first);
    parallelFor(count, threads, progress, [&](size_t, size_t i) {
      for (size_t k = 0; k < 2; ++k) {
        std::lock_guard<std::mutex> lock(uploadMutex);
        render->setTile(atlasTileId(first + i, k), encoded[i][k],
                        {atlas.width(), atlas.height(), 1}, 0);
      }
      EncodedTile().swap(encoded[i]);
    });
    times.upload += secondsSince(start);

    start = Clock::now();
    progress.start("render", tiles, first);
    for (size_t i = 0; i < count; ++i) {
      size_t const tile = first + i, row = tile / cols;
      // A finished row is read back once the next row has a few tiles queued, so the
      // workers never run dry while this thread copies; its strip is reused two rows on.
      if (pendingRow != SIZE_MAX && (row > pendingRow + 1 || tile % cols >= renderer.slots())) {
        readRow(pendingRow);
      }
      size_t const slot = tile % renderer.slots();
      renderer.waitSlot(slot);
      renderer.submit(slot, tile, (tile % cols) * t, row * t, row % 2);
      if (tile % cols == cols - 1) {
        if (pendingRow != SIZE_MAX) readRow(pendingRow);
        pendingRow = row;
      }
      progress.update(i + 1);
    }
    // The tiles of this wave leave the cache next: no job may still read them.
    for (size_t slot = 0; slot < renderer.slots(); ++slot) renderer.waitSlot(slot);
    if (first + count == tiles && pendingRow != SIZE_MAX) readRow(pendingRow);
    progress.finish(count);
    times.render += secondsSince(start);
    render->eraseTiles(atlasTileId(first, 0), atlasTileId(first + count, 0));
  }
  times.tiles = tiles;
  return output;
}

}  // namespace quorvel::tool
