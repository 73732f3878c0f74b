#pragma once
// A one-shot gate and a counter for coordinating test threads without sleeps. Every wait is
// bounded so that a broken implementation fails the test instead of hanging it.

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace quorvel::testing {

class Gate {
 public:
  void open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    cv_.notify_all();
  }
  /// True when the gate opened within the timeout.
  bool wait(std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, timeout, [this] { return open_; });
  }
  bool isOpen() {
    std::lock_guard<std::mutex> lock(mutex_);
    return open_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool open_ = false;
};

class Counter {
 public:
  void add(int n = 1) {
    std::lock_guard<std::mutex> lock(mutex_);
    value_ += n;
    cv_.notify_all();
  }
  /// True when the count reached `target` within the timeout.
  bool waitFor(int target, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, timeout, [&] { return value_ >= target; });
  }
  int value() {
    std::lock_guard<std::mutex> lock(mutex_);
    return value_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  int value_ = 0;
};

}  // namespace quorvel::testing
