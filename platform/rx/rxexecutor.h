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
// A queue keeps its tasks in a ring that it reuses, each task inline when it
// is small (a posted call with its arguments is): a steady stream of posts
// allocates nothing for the queue itself.
//
// shutdown() stops accepting tasks, lets every pending task run (drain), and
// joins the threads. Posting after shutdown throws ExecutorStoppedError.
// All members are thread-safe.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

namespace RX {

class ExecutorStoppedError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class SerialQueue;

// A task of a SerialQueue: any callable of no argument, moved in. One of up
// to kInline bytes that moves without throwing is kept inside the task, a
// larger one on the heap. Not copyable; an empty task must not be run.
class QueuedTask {
 public:
  static constexpr std::size_t kInline = 56;

  // Leaves the buffer as it is: rings of empty tasks are made in bulk.
  QueuedTask() noexcept {}  // NOLINT: not "= default", which would zero the buffer
  template <typename F, typename = std::enable_if_t<!std::is_same_v<std::decay_t<F>, QueuedTask>>>
  QueuedTask(F&& f) {  // NOLINT: converting, so that posts take lambdas as they are
    using T = std::decay_t<F>;
    if constexpr (fitsInline<T>()) {
      new (buffer_) T(std::forward<F>(f));
      ops_ = &inlineOps<T>;
    } else {
      *reinterpret_cast<T**>(buffer_) = new T(std::forward<F>(f));
      ops_ = &boxedOps<T>;
    }
  }
  QueuedTask(QueuedTask&& other) noexcept { take(other); }
  QueuedTask& operator=(QueuedTask&& other) noexcept {
    if (this != &other) {
      reset();
      take(other);
    }
    return *this;
  }
  QueuedTask(const QueuedTask&) = delete;
  QueuedTask& operator=(const QueuedTask&) = delete;
  ~QueuedTask() { reset(); }

  explicit operator bool() const noexcept { return ops_ != nullptr; }
  void operator()() { ops_->invoke(buffer_); }
  void reset() noexcept {
    if (ops_) ops_->destroy(buffer_);
    ops_ = nullptr;
  }

 private:
  struct Ops {
    void (*invoke)(void* self);
    // Moves the callable from `from` to the raw storage `to`, and ends `from`.
    void (*relocate)(void* from, void* to) noexcept;
    void (*destroy)(void* self) noexcept;
  };
  template <typename T>
  static constexpr bool fitsInline() {
    return sizeof(T) <= kInline && alignof(T) <= alignof(std::max_align_t) &&
           std::is_nothrow_move_constructible_v<T>;
  }
  template <typename T>
  static constexpr Ops inlineOps = {
      [](void* self) { (*static_cast<T*>(self))(); },
      [](void* from, void* to) noexcept {
        new (to) T(std::move(*static_cast<T*>(from)));
        static_cast<T*>(from)->~T();
      },
      [](void* self) noexcept { static_cast<T*>(self)->~T(); }};
  template <typename T>
  static constexpr Ops boxedOps = {
      [](void* self) { (**static_cast<T**>(self))(); },
      [](void* from, void* to) noexcept { *static_cast<T**>(to) = *static_cast<T**>(from); },
      [](void* self) noexcept { delete *static_cast<T**>(self); }};

  void take(QueuedTask& other) noexcept {
    if (!other.ops_) return;
    other.ops_->relocate(other.buffer_, buffer_);
    ops_ = other.ops_;
    other.ops_ = nullptr;
  }

  alignas(std::max_align_t) unsigned char buffer_[kInline];
  const Ops* ops_ = nullptr;
};

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
  void post(QueuedTask task);
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
