// Fuzz target: the instance API driven by a byte stream.
//
// Each input is a program of up to kMaxOperations calls on a fresh instance of one shared
// backend (one worker): targets of random sizes and depths are created and erased, tiles
// set, locked and erased, tiles drawn and filters executed with random rectangles, offsets,
// clips and filter names, batches finalised and targets read back. Library exceptions are
// the expected answer to bad calls; anything else (a crash, a sanitizer report, a foreign
// exception, a hang) is a finding. At the end the input's targets, tiles, filters and
// envelope pins are released so the next input starts clean.

#include <algorithm>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "filter_catalogue.hpp"
#include "fuzz_input.hpp"
#include "quorvel/render.hpp"

namespace quorvel::fuzz {
namespace {

constexpr size_t kMaxOperations = 48;
constexpr size_t kMaxSide = 64;
constexpr size_t kTiles = 8;

struct Backend {
  SoftwareRenderContext context{16, 16, 1};
  // Small enough that uploads evict each other now and then.
  SoftwareRenderBackend backend{RenderBackend::ImageFormatType::kRgba8, 64 * 64 * 4 * 3};
  std::shared_ptr<RenderBackendInstance> anchor = backend.createInstance(context);
};

Backend& sharedBackend() {
  static Backend* backend = new Backend;  // lives until exit
  return *backend;
}

class Program {
 public:
  Program(FuzzInput& in, std::shared_ptr<RenderBackendInstance> instance)
      : in_(in), instance_(std::move(instance)) {}

  void run() {
    for (size_t ops = 0; ops < kMaxOperations && !in_.empty(); ++ops) {
      try {
        step(in_.byte());
      } catch (QuorvelException const& e) {
        (void)formatException(e);
      }
    }
    cleanUp();
  }

 private:
  // A size pair: small, or one whose product overflows 64 bits.
  std::vector<size_t> side2() {
    if (in_.byte() < 244) return {in_.upTo(kMaxSide), in_.upTo(kMaxSide)};
    static constexpr size_t kHuge[][2] = {{size_t{1} << 32, size_t{1} << 32},
                                          {(size_t{1} << 63) + 1, 2},
                                          {(size_t{1} << 32) + 1, (size_t{1} << 32) - 1},
                                          {SIZE_MAX, SIZE_MAX},
                                          {size_t{1} << 62, 8},
                                          {3, (size_t{1} << 63) + 1}};
    auto const& pair = kHuge[in_.byte() % 6];
    return {pair[0], pair[1]};
  }

  size_t anyTarget() {
    uint8_t const selector = in_.byte();
    if (selector < 224 && !targets_.empty()) return targets_[selector % targets_.size()];
    if (selector < 240) return 0;  // the context's output
    return 1000 + (selector & 7);  // never created
  }

  Filter& anyFilter() {
    if (filters_.empty() || in_.byte() >= 240) {
      auto const& list = catalogue();
      uint8_t const selector = in_.byte();
      std::string const name =
          selector < 250 ? list[selector % list.size()].name : std::string("NoSuchFilter");
      auto it = std::find_if(list.begin(), list.end(),
                             [&name](FilterInfo const& f) { return name == f.name; });
      filters_.push_back(it == list.end() ? pointFilter(name) : describe(*it));
      infos_.push_back(it == list.end() ? nullptr : &*it);
      instance_->createFilterInstance(filters_.back());  // may throw "not available"
    }
    return filters_[in_.byte() % filters_.size()];
  }

  FilterInfo const* infoOf(Filter const& filter) const {
    for (size_t i = 0; i < filters_.size(); ++i) {
      if (&filters_[i] == &filter) return infos_[i];
    }
    return nullptr;
  }

  std::vector<size_t> color() { return in_.sizes(in_.byte() < 200 ? 4 : in_.upTo(5), 255); }

  void step(uint8_t op) {
    switch (op % 16) {
      case 0: {
        static constexpr size_t kBits[] = {8, 16, 24, 32, 48, 64, 0, 12};
        size_t const bits = kBits[in_.byte() % 8];
        bool const isSigned = in_.flag();
        targets_.push_back(0);
        targets_.back() = instance_->createTarget(side2(), bits, isSigned,
                                                  RenderBackend::ImageFiltering::kNearest,
                                                  RenderBackend::ImageFormatType::kRgba8);
        break;
      }
      case 1:
        if (!targets_.empty()) {
          size_t const i = in_.byte() % targets_.size();
          instance_->eraseTarget(targets_[i]);
          targets_.erase(targets_.begin() + static_cast<long>(i));
        }
        break;
      case 2:
        instance_->clear(anyTarget(), color());
        break;
      case 3:
        instance_->clearRect(anyTarget(), color(), in_.sizes(in_.byte() < 240 ? 4 : 3, kMaxSide));
        break;
      case 4: {
        size_t const target = anyTarget();
        std::vector<size_t> const rect = in_.sizes(in_.byte() < 240 ? 4 : in_.upTo(5), kMaxSide);
        if (in_.flag()) {
          (void)instance_->getPixels(target, rect);
        } else {
          // Room for the rectangle give or take a few bytes (never beyond `out`).
          size_t n = std::min<size_t>(instance_->getPixelsBufferSize(target, rect), 1 << 20);
          n = in_.flag() ? n + in_.upTo(4) : n - std::min<size_t>(n, in_.upTo(1));
          std::vector<unsigned char> out(n + 1);
          (void)instance_->getPixels(out.data(), n, target, rect);
        }
        break;
      }
      case 5: {
        size_t const tile = in_.upTo(kTiles - 1);
        std::vector<size_t> size = side2();
        static constexpr size_t kComponents[] = {1, 3, 4, 1, 3, 4, 2, 0};
        size.push_back(kComponents[in_.byte() % 8]);
        if (in_.byte() >= 248) size.resize(in_.upTo(2));
        size_t const length =
            in_.byte() < 200
                ? std::min<size_t>(size.size() >= 3 ? size[0] * size[1] * size[2] : 0, 64 * 64 * 4)
                : in_.upTo(255) * 64;
        std::vector<unsigned char> pixels(length);
        uint8_t const seed = in_.byte();
        for (size_t i = 0; i < length; ++i) pixels[i] = static_cast<unsigned char>(seed + i);
        instance_->setTile(tile, pixels, size, in_.size(16));
        break;
      }
      case 6:
        switch (in_.byte() % 6) {
          case 0:
            (void)instance_->eraseTile(in_.upTo(kTiles));
            break;
          case 1:
            (void)instance_->eraseTiles(in_.size(kTiles), in_.size(kTiles));
            break;
          case 2:
            (void)instance_->clearTiles();
            break;
          case 3:
            instance_->lockTile(in_.upTo(kTiles));
            break;
          case 4:
            instance_->unlockTile(in_.upTo(kTiles));
            break;
          default:
            (void)instance_->tileSet(in_.upTo(kTiles));
            break;
        }
        break;
      case 7: {
        size_t const target = anyTarget();
        Filter& shader = anyFilter();
        auto range = in_.sizes(in_.byte() < 240 ? 4 : in_.upTo(4), kMaxSide);
        auto canvas = in_.sizes(in_.byte() < 240 ? 4 : in_.upTo(4), kMaxSide);
        auto tileSize = in_.sizes(in_.byte() < 240 ? 2 : in_.upTo(2), kMaxSide);
        size_t const count = in_.upTo(6);
        std::vector<std::vector<size_t>> coords(count);
        std::vector<size_t> blocks(count);
        for (size_t i = 0; i < count; ++i) {
          coords[i] = in_.sizes(in_.byte() < 248 ? 2 : in_.upTo(2), 4);
          blocks[i] = in_.upTo(kTiles);
        }
        if (in_.byte() >= 248 && !coords.empty()) coords.pop_back();
        auto offsets = in_.sizes(in_.upTo(2), kMaxSide);
        instance_->drawTiles(target, shader, range, canvas, tileSize, coords, blocks, offsets);
        break;
      }
      case 8: {
        Filter& filter = anyFilter();
        FilterInfo const* info = infoOf(filter);
        std::vector<FilterSource> sources(in_.upTo(3));
        for (auto& s : sources) {
          s.target = anyTarget();
          s.x = static_cast<size_t>(static_cast<int64_t>(in_.coordinate(kMaxSide)));
          s.y = static_cast<size_t>(static_cast<int64_t>(in_.coordinate(kMaxSide)));
          s.whole = in_.flag();
        }
        size_t const inputW = in_.size(kMaxSide), inputH = in_.size(kMaxSide);
        size_t const destination = anyTarget();
        size_t const clips[4] = {in_.size(4), in_.size(4), in_.size(4), in_.size(4)};
        std::shared_ptr<DataEnvelopes> envelopes;
        if (in_.flag()) {
          envelopes = std::make_shared<DataEnvelopes>();
          envelopes->set({1}, envelopeData(in_, 2, 3));
        }
        auto params = parameters(in_, info ? info->params : ParamsKind::kNone, envelopes);
        auto offset = in_.sizes(in_.byte() < 240 ? 2 : in_.upTo(3), kMaxSide);
        instance_->executeFilter(filter, sources, inputW, inputH, destination, clips[0], clips[1],
                                 clips[2], clips[3], *params, offset);
        break;
      }
      case 9:
        instance_->finalizeDrawSequence();
        break;
      case 10:
        instance_->waitForTarget(anyTarget());
        break;
      case 11:
        if (in_.flag() || filters_.empty()) {
          (void)anyFilter();
        } else {
          instance_->destroyFilterInstance(filters_[in_.byte() % filters_.size()]);
        }
        break;
      case 12: {
        size_t const tile = in_.upTo(kTiles);
        std::vector<size_t> size = {in_.upTo(kMaxSide), in_.upTo(kMaxSide), in_.upTo(4)};
        auto staging = instance_->concurrentStagingBuffer(
            tile,
            in_.flag() ? RenderBackend::BufferType::kTile : RenderBackend::BufferType::kTarget,
            size);
        if (in_.flag()) {
          std::vector<unsigned char> pixels(in_.upTo(255) * 64, in_.byte());
          staging->setPixels(pixels, in_.size(8));
        }
        (void)staging->isReady();
        (void)staging->mappedData();
        if (in_.byte() < 224) instance_->synchronizeConcurrentStagingBuffer(std::move(staging));
        break;
      }
      case 13: {
        size_t const target = anyTarget();
        (void)instance_->targetReady(target);
        (void)instance_->targetSize(target);
        (void)instance_->getPixelsBufferSize(target, in_.sizes(in_.upTo(5), kMaxSide));
        break;
      }
      case 14: {
        std::vector<unsigned char> const id = {static_cast<unsigned char>(in_.upTo(3))};
        switch (in_.byte() % 5) {
          case 0:
            instance_->dataEnvelopes(id, envelopeData(in_, 3, 4));
            break;
          case 1:
            instance_->lockDataEnvelopes(id);
            pinned_.push_back(id);
            break;
          case 2:
            instance_->unlockDataEnvelopes(id);
            break;
          case 3:
            (void)instance_->dataEnvelopes(id);
            break;
          default: {
            Filter& filter = anyFilter();
            size_t const source = anyTarget(), target = anyTarget();
            instance_->maskRange(source, target, filter, id,
                                 in_.sizes(in_.byte() < 240 ? 4 : in_.upTo(5), kMaxSide));
            break;
          }
        }
        break;
      }
      default:
        (void)instance_->targetAlignment(anyTarget());
        (void)instance_->targetFiltering(anyTarget());
        (void)instance_->freeSlots();
        instance_->clearTargets();
        break;
    }
  }

  void cleanUp() {
    instance_->finalizeDrawSequence();
    for (size_t target : targets_) {
      try {
        instance_->waitForTarget(target);
      } catch (QuorvelException const&) {
        // a failed job left it in error state
      }
      instance_->eraseTarget(target);
    }
    (void)instance_->clearTiles();
    for (auto const& id : pinned_) instance_->unlockDataEnvelopes(id);
    for (auto& filter : filters_) {
      try {
        instance_->destroyFilterInstance(filter);
      } catch (QuorvelException const&) {
        // destroyed earlier by the program itself
      }
    }
  }

  FuzzInput& in_;
  std::shared_ptr<RenderBackendInstance> instance_;
  std::vector<size_t> targets_;
  std::deque<Filter> filters_;
  std::vector<FilterInfo const*> infos_;
  std::vector<std::vector<unsigned char>> pinned_;
};

}  // namespace
}  // namespace quorvel::fuzz

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  using namespace quorvel::fuzz;
  FuzzInput in(data, size);
  Backend& shared = sharedBackend();
  Program program(in, shared.backend.createInstance(shared.context));
  program.run();
  return 0;
}
