// RXExecutor: the broker's thread pool (Boost.Asio thread_pool), on which
// posted calls run. SerialQueue: a queue of tasks for one target (a module)
// that runs them on the pool one at a time, in the order they were posted.
//
// A queue holds at most `capacity` pending tasks: posting beyond that drops
// the oldest pending task, counts it, and logs at most once a second, so a
// slow target cannot stall its callers or grow memory without bound.
//
// A queue's drain job that runs out of tasks watches the queue for a few
// microseconds before giving its thread back, so that a stream of posts does
// not pay for waking a pool thread each time.
//
// shutdown() stops accepting tasks, lets every pending task run (drain), and
// joins the threads. Posting after shutdown throws ExecutorStoppedError.
// All members are thread-safe.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <type_traits>

namespace RX {

class ExecutorStoppedError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class SerialQueue;

class RXExecutor : public std::enable_shared_from_this<RXExecutor> {
 public:
  static constexpr std::size_t kDefaultQueueCapacity = 10000;

  explicit RXExecutor(unsigned int threads = 2);
  ~RXExecutor();
  RXExecutor(const RXExecutor&) = delete;
  RXExecutor& operator=(const RXExecutor&) = delete;

  unsigned int threadCount() const { return threads_; }
  // Runs a task on some pool thread, unordered with respect to other tasks.
  void post(std::function<void()> task);
  // A new serial queue named `label` (used in the drop log line).
  // REQUIRES: the executor is owned by a std::shared_ptr.
  std::shared_ptr<SerialQueue> makeQueue(const std::string& label, std::size_t capacity = kDefaultQueueCapacity);
  // Waits until every accepted task has run or been dropped (tasks posted
  // meanwhile included); false when the time ran out. Not from a pool thread.
  bool drain(std::chrono::milliseconds timeout);
  // Drains and joins; idempotent. Throws std::logic_error when called from
  // one of the pool's own threads (it would wait for itself).
  void shutdown();
  bool isStopped() const { return stopped_.load(); }

 private:
  friend class SerialQueue;
  struct Impl;
  std::unique_ptr<Impl> impl_;
  unsigned int threads_;
  std::atomic<bool> stopped_{false};
};

// Marks the current thread, while the scope lasts, as one that may run the
// posted calls it makes itself when their queue is idle (runHereIfIdle): the
// transport's reader of a client's posts, which has nothing else to do
// meanwhile and whose client waits for nothing. Scopes nest.
class PostsRunHere {
 public:
  PostsRunHere();
  ~PostsRunHere();
  PostsRunHere(const PostsRunHere&) = delete;
  PostsRunHere& operator=(const PostsRunHere&) = delete;
  [[nodiscard]] static bool active();

 private:
  const bool previous_;
};

class SerialQueue : public std::enable_shared_from_this<SerialQueue> {
 public:
  // Throws ExecutorStoppedError after the executor's shutdown or close().
  void post(std::function<void()> task);
  // Runs `task` on the calling thread, now, when the queue has nothing
  // pending or running (it keeps the queue's order: posts that come meanwhile
  // run after it, on the pool). Returns false, running nothing, otherwise or
  // once the queue or executor has stopped: the caller then posts. For a
  // thread that may wait for the task, such as the reader of the client that
  // posted it, so a stream of posts costs no hand-off.
  template <typename F>
  bool runHereIfIdle(F&& task) {
    return runHereIfIdle([](void* f) { (*static_cast<std::remove_reference_t<F>*>(f))(); }, &task);
  }
  // Refuses further tasks and drops the pending ones (a module that exits).
  void close();
  bool isClosed() const;
  const std::string& label() const { return label_; }
  std::size_t capacity() const { return capacity_.load(); }
  void setCapacity(std::size_t capacity);
  std::size_t pending() const;
  uint64_t dropped() const { return dropped_.load(); }
  uint64_t executed() const { return executed_.load(); }

 private:
  friend class RXExecutor;
  struct State;
  SerialQueue(std::weak_ptr<RXExecutor> executor, std::string label, std::size_t capacity);
  void runSome();
  bool runHereIfIdle(void (*run)(void*), void* task);
  // Watches the emptied queue for a moment; true when a task came in.
  bool lingerForWork() const;

  std::weak_ptr<RXExecutor> executor_;
  std::string label_;
  std::atomic<std::size_t> capacity_;
  std::unique_ptr<State> state_;
  std::atomic<uint64_t> dropped_{0};
  std::atomic<uint64_t> executed_{0};
};

}  // namespace RX
