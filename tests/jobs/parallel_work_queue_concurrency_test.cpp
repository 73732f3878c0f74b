#include <gtest/gtest.h>

#include <future>
#include <vector>

#include "quorvel/jobs/parallel_work_queue.hpp"
#include "support/gate.hpp"

namespace quorvel {
namespace {

using testing::Counter;
using testing::Gate;

struct Worker {};
using Queue = ParallelWorkQueue<std::vector<int>, Worker, 16>;
using Job = std::function<void(std::vector<int>&, Worker&)>;

Job waitOn(Gate& started, Gate& release) {
  return [&started, &release](std::vector<int>&, Worker&) {
    started.open();
    release.wait();
  };
}

Job count(Counter& counter) {
  return [&counter](std::vector<int>&, Worker&) { counter.add(); };
}

TEST(ParallelWorkQueue, RefusesZeroThreads) {
  try {
    Queue queue(0);
    FAIL();
  } catch (std::invalid_argument const& e) {
    EXPECT_STREQ(e.what(), "Number of threads must be non-zero");
  }
}

TEST(ParallelWorkQueue, SeventeenthPushWaitsForAFreeSlot) {
  Gate started, release;
  Counter done;
  Queue queue(1);
  queue({}, waitOn(started, release));
  ASSERT_TRUE(started.wait());  // the worker holds the first job; its slot is free again
  for (int i = 0; i < 16; ++i) queue({}, count(done));
  EXPECT_EQ(queue.freeSlots(), 0u);

  auto pushed = std::async(std::launch::async, [&] { return queue({}, count(done)); });
  EXPECT_EQ(pushed.wait_for(std::chrono::milliseconds(150)), std::future_status::timeout);
  release.open();
  // A slot frees as soon as the worker takes its next job; the producer notices within
  // its 100 ms timed wait at the latest.
  ASSERT_EQ(pushed.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_TRUE(done.waitFor(17));
}

TEST(ParallelWorkQueue, LowestFreeSlotWinsAndTicketsCountUp) {
  Gate started1, release1, started2, release2;
  Counter done;
  Queue queue(1);
  EXPECT_EQ(queue({}, waitOn(started1, release1)), (std::pair<size_t, size_t>{0, 0}));
  ASSERT_TRUE(started1.wait());
  EXPECT_EQ(queue({}, waitOn(started2, release2)).first, 0u);
  EXPECT_EQ(queue({}, count(done)).first, 1u);
  EXPECT_EQ(queue({}, count(done)), (std::pair<size_t, size_t>{2, 3}));
  release1.open();
  ASSERT_TRUE(started2.wait());  // slot 0 was taken and freed; 1 and 2 still hold jobs
  EXPECT_EQ(queue({}, count(done)).first, 0u);
  EXPECT_EQ(queue({}, count(done)).first, 3u);
  release2.open();
  EXPECT_TRUE(done.waitFor(4));
}

TEST(ParallelWorkQueue, ReportsAWorkerFailureOnceNestedAroundTheJobError) {
  Counter done;
  Gate release;
  Queue queue(1);
  // The job fails only once the next job is queued, so no push sees the failure too early.
  queue({}, [&release](std::vector<int>&, Worker&) {
    release.wait();
    throw std::runtime_error("job broke");
  });
  queue({}, count(done));
  release.open();
  ASSERT_TRUE(done.waitFor(1));
  try {
    queue({}, count(done));
    FAIL() << "the pending failure was not reported";
  } catch (QuorvelException const& e) {
    std::string const text = collectMessages(e);
    std::string const item = typeid(std::vector<int>).name(), worker = typeid(Worker).name();
    EXPECT_EQ(text.rfind("#Name:in error state#Location:std::pair<size_t, size_t> "
                         "ParalllelWorkQueue<" +
                             item + worker + ",size_t>::rethrowAnyException()",
                         0),
              0u)
        << text;
    EXPECT_NE(text.find("#Name:Worker thread failed#Location:void ParallelWorkQueue<" + item + "," +
                        worker + ",size_t>::work(...)"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("#Name:STL error#Description:job broke"), std::string::npos) << text;
  }
  EXPECT_NO_THROW(queue({}, count(done)));
  EXPECT_TRUE(done.waitFor(2));
}

TEST(ParallelWorkQueue, TwoFailuresBeforeAPushLeaveNothingPending) {
  Counter done;
  Gate started, release;
  Queue queue(1);
  auto fail = [&started, &release](std::vector<int>&, Worker&) {
    started.open();
    release.wait();
    throw std::runtime_error("x");
  };
  // The worker takes the lowest busy slot, not the oldest job: only once it holds the first
  // failure are the second one and the counting job queued in slots 0 and 1, in that order.
  queue({}, fail);
  ASSERT_TRUE(started.wait());
  queue({}, fail);
  queue({}, count(done));
  release.open();
  ASSERT_TRUE(done.waitFor(1));
  EXPECT_NO_THROW(queue({}, count(done)));
  EXPECT_TRUE(done.waitFor(2));
}

TEST(ParallelWorkQueue, DestructionRunsQueuedJobsFirst) {
  Gate started, release;
  Counter done;
  {
    Queue queue(2);
    queue({}, waitOn(started, release));
    for (int i = 0; i < 12; ++i) {
      queue({}, [&done](std::vector<int>& item, Worker&) { done.add(item.empty() ? 1 : 100); });
    }
    release.open();
  }
  EXPECT_EQ(done.value(), 12);
}

TEST(ParallelWorkQueue, ManyProducersEveryJobRunsOnce) {
  Counter done;
  {
    Queue queue(2);
    std::vector<std::thread> producers;
    for (int p = 0; p < 4; ++p) {
      producers.emplace_back([&] {
        for (int i = 0; i < 500; ++i) queue({i}, count(done));
      });
    }
    for (auto& t : producers) t.join();
    EXPECT_TRUE(done.waitFor(2000));
  }
  EXPECT_EQ(done.value(), 2000);
}

}  // namespace
}  // namespace quorvel
