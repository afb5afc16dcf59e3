// Bounded waits for tests: every wait has a time limit, so a lost
// notification fails the test with a message instead of hanging the suite.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace testsupport {

using namespace std::chrono_literals;
// Long enough for a loaded 2-core CI machine, short enough to fail fast.
constexpr std::chrono::milliseconds kWait = 10s;

// Collects items delivered on other threads, in arrival order; tests wait for
// a count or a condition on what arrived.
template <class T>
class Collector {
 public:
  void add(T item) {
    std::lock_guard<std::mutex> lock(mutex_);
    items_.push_back(std::move(item));
    cond_.notify_all();
  }
  // True once at least n items have arrived; false after the timeout.
  [[nodiscard]] bool waitFor(std::size_t n, std::chrono::milliseconds timeout = kWait) {
    return waitUntil([&](const std::vector<T>& items) { return items.size() >= n; }, timeout);
  }
  // True once `done(items)` holds; false after the timeout.
  [[nodiscard]] bool waitUntil(const std::function<bool(const std::vector<T>&)>& done,
                               std::chrono::milliseconds timeout = kWait) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cond_.wait_for(lock, timeout, [&] { return done(items_); });
  }
  std::vector<T> items() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return items_;
  }
  std::size_t size() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return items_.size();
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    items_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable cond_;
  std::vector<T> items_;  // guarded by mutex_
};

// Polls a condition nothing can signal (a counter in another process, a
// socket's state) every millisecond; false after the timeout.
inline bool pollUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout = kWait) {
  for (auto end = std::chrono::steady_clock::now() + timeout; std::chrono::steady_clock::now() < end;
       std::this_thread::sleep_for(1ms))
    if (condition()) return true;
  return condition();
}

}  // namespace testsupport
