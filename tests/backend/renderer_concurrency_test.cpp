#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "backend/renderer.hpp"
#include "support/backend_fixture.hpp"
#include "support/gate.hpp"

namespace quorvel {
namespace {

using testing::Gate;
using Filtering = RenderBackend::ImageFiltering;
using Format = RenderBackend::ImageFormatType;

// A kernel that waits for a gate before writing 1 into its whole target.
class GatedKernel : public SoftwareFilter {
 public:
  GatedKernel(Gate& started, Gate& release)
      : SoftwareFilter(pointFilter("Gated")), started_(started), release_(release) {}
  void apply(std::vector<std::shared_ptr<Buffer2D>> const&, std::vector<std::vector<int>> const&,
             std::vector<std::shared_ptr<Buffer2D>> const& outputs,
             std::vector<std::vector<int>> const&, SingleFilterParameters const&) override {
    started_.open();
    release_.wait();
    auto target = Buffer2DVector<uint8_t>::cast(outputs[0]);
    ASSERT_NE(target->data(), nullptr) << "allocation must precede the first write";
    target->clear(1);
  }

 private:
  Gate& started_;
  Gate& release_;
};

// A renderer with one 4 x 4 target, and jobs that write all of it with a given kernel.
struct OneTarget {
  explicit OneTarget(size_t workers)
      : context(2, 2, workers),
        renderer(context, workers),
        id(renderer.addTarget(std::make_shared<Buffer2DVector<uint8_t>>(4, 4, false))),
        proxy(renderer.getTarget(id)) {}
  void submit(std::shared_ptr<SoftwareFilter> const& kernel, RenderJob job = {}) {
    job.filter = kernel;
    job.outputRects = {{0, 0, 4, 4}};
    job.targets = {proxy};
    renderer.submit(std::move(job));
  }
  SoftwareRenderContext context;
  Renderer renderer;
  size_t id;
  std::shared_ptr<BufferProxy> proxy;
};

TEST(Renderer, AllocatesOnceAndReleasesAnErasedTargetAfterItsLastJob) {
  OneTarget one(1);
  auto& [context, renderer, id, proxy] = one;
  Gate started, release;
  auto kernel = std::make_shared<GatedKernel>(started, release);
  one.submit(kernel);
  one.submit(kernel);
  EXPECT_FALSE(proxy->claimAllocation());  // the first submission claimed it
  EXPECT_EQ(proxy->pendingJobs(), 2);
  renderer.flush();
  ASSERT_TRUE(started.wait());
  renderer.eraseTarget(id);  // busy: the release waits for the jobs
  renderer.flush();
  EXPECT_TRUE(proxy->allocated());
  release.open();
  proxy->wait();
  // The release job runs after the writes, on the same worker; give it a bounded moment.
  for (int i = 0; i < 2000 && proxy->allocated(); ++i) std::this_thread::yield();
  EXPECT_FALSE(proxy->allocated());
  EXPECT_EQ(proxy->buffer()->pixelCount(), 0u);
  EXPECT_EQ(renderer.addTarget(std::make_shared<Buffer2DVector<uint8_t>>(1, 1, false)), id);
}

TEST(Renderer, WaitersWakeWhenTheLastJobFinishes) {
  OneTarget one(2);
  auto& proxy = one.proxy;
  Gate started, release;
  one.submit(std::make_shared<GatedKernel>(started, release));
  one.renderer.flush();
  std::atomic<int> woken{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 3; ++i) {
    waiters.emplace_back([&] {
      proxy->wait();
      ++woken;
    });
  }
  ASSERT_TRUE(started.wait());
  EXPECT_EQ(woken.load(), 0);
  release.open();
  for (auto& t : waiters) t.join();
  EXPECT_EQ(woken.load(), 3);
  EXPECT_TRUE(proxy->ready());
}

// Writes 1 into its whole target.
class FillKernel : public SoftwareFilter {
 public:
  FillKernel() : SoftwareFilter(pointFilter("Fill")) {}
  void apply(std::vector<std::shared_ptr<Buffer2D>> const&, std::vector<std::vector<int>> const&,
             std::vector<std::shared_ptr<Buffer2D>> const& outputs,
             std::vector<std::vector<int>> const&, SingleFilterParameters const&) override {
    Buffer2DVector<uint8_t>::cast(outputs[0])->clear(1);
  }
};

TEST(Renderer, FinishedJobsComeBackWithoutTheirReferences) {
  OneTarget one(1);
  auto& [context, renderer, id, proxy] = one;
  auto kernel = std::make_shared<FillKernel>();
  auto params = std::make_shared<FilterClaheParams>();
  for (int round = 0; round < 3; ++round) {
    RenderJob job = renderer.newJob();
    job.params = params;
    job.inputRects = {{0, 0, 4, 4}};
    job.sources = {proxy};
    one.submit(kernel, std::move(job));
    renderer.flush();
    proxy->wait();
    EXPECT_EQ(Buffer2DVector<uint8_t>::cast(proxy->buffer())->data()[15], 1);
  }
  // The worker drops a job's references once it has run; the storage comes back.
  for (int spins = 0; spins < 1000 && (kernel.use_count() > 1 || params.use_count() > 1); ++spins)
    std::this_thread::yield();
  EXPECT_EQ(kernel.use_count(), 1);
  EXPECT_EQ(params.use_count(), 1);
  RenderJob recycled = renderer.newJob();
  EXPECT_EQ(recycled.kind, RenderJob::kFilter);
  EXPECT_EQ(recycled.filter, nullptr);
  EXPECT_EQ(recycled.params, nullptr);
  EXPECT_TRUE(recycled.sources.empty());
  EXPECT_TRUE(recycled.targets.empty());
  EXPECT_TRUE(recycled.color.empty());
}

}  // namespace
}  // namespace quorvel
