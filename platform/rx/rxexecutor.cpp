#include "rx/rxexecutor.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <shared_mutex>
#include <utility>
#include <vector>

#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>

#include "rx/rxlog.h"

namespace RX {

namespace {

const log::Category& executorLog() {
  static const log::Category& category = log::category("rx.executor");
  return category;
}

// A drain job runs at most this many tasks of its queue before handing the
// thread back to the pool, so one busy queue cannot starve the others.
constexpr std::size_t kDrainBatch = 64;

// How long a drain job that has emptied its queue keeps watching it before
// giving the thread back. Waking an idle pool thread costs the poster a
// futex call and often a context switch, several times the cost of the post
// itself; a burst of notifications arriving every microsecond or so is
// served by the watching job without any wake-up. Short enough that an idle
// queue costs next to nothing.
constexpr std::chrono::microseconds kLinger(20);

inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

// A queue's lock is held for a push or a pop, a few dozen nanoseconds, by a
// poster and the drain job that run at the same time on the two cores. A
// plain mutex puts the loser to sleep and makes the winner pay a futex wake;
// trying again a few times first almost always gets it without either.
class SpinThenBlockMutex {
 public:
  void lock() {
    for (int i = 0; i < 64; ++i) {
      if (mutex_.try_lock()) return;
      cpuRelax();
    }
    mutex_.lock();
  }
  bool try_lock() { return mutex_.try_lock(); }
  void unlock() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

// Pool threads must never see an exception: one escaping a handler would end
// the process. The task's failure is logged and the queue goes on.
// `label` names the queue, empty for a task posted to the executor itself.
template <typename F>
void runGuarded(F& task, const std::string& label) {
  try {
    task();
  } catch (const std::exception& e) {
    RX_ERROR(executorLog(), "task of " << (label.empty() ? "the executor" : "queue " + label)
                                       << " failed: " << e.what());
  } catch (...) {
    RX_ERROR(executorLog(), "task of " << (label.empty() ? "the executor" : "queue " + label)
                                       << " failed with an unknown exception");
  }
}

// The executor whose job the current thread is running, if any: joining the
// pool from one of its own jobs would wait for that job forever.
thread_local const void* tRunningPool = nullptr;

class RunningOn {
 public:
  explicit RunningOn(const void* pool) : previous_(tRunningPool) { tRunningPool = pool; }
  ~RunningOn() { tRunningPool = previous_; }
  RunningOn(const RunningOn&) = delete;
  RunningOn& operator=(const RunningOn&) = delete;

 private:
  const void* previous_;
};

}  // namespace

namespace {
thread_local bool tPostsRunHere = false;
}  // namespace

PostsRunHere::PostsRunHere() : previous_(tPostsRunHere) { tPostsRunHere = true; }
PostsRunHere::~PostsRunHere() { tPostsRunHere = previous_; }
bool PostsRunHere::active() { return tPostsRunHere; }

// ---- RXExecutor ----

struct RXExecutor::Impl {
  explicit Impl(unsigned int threads) : pool(threads) {}

  boost::asio::thread_pool pool;
  // Posters hold it shared from their "still accepting?" check until their
  // job is in the pool; shutdown takes it exclusively to stop accepting. So
  // once shutdown has flipped `accepting`, every accepted task already has a
  // job in the pool and join() waits for it.
  std::shared_mutex gate;
  bool accepting = true;  // guarded by gate
  // Serialises shutdown() callers; the second one waits for the first's join.
  std::mutex joinMutex;
  bool joined = false;  // guarded by joinMutex

  // Accepted tasks not yet run or dropped, for drain(). Counted without the
  // lock, which is taken only to wake drain() when the count reaches zero:
  // drain() tests the count under it, so that wake-up cannot be missed.
  std::mutex idleMutex;
  std::condition_variable idle;
  std::atomic<int64_t> outstanding{0};

  // Tasks running on a caller's thread (SerialQueue::runHereIfIdle) that may
  // still schedule a drain job: shutdown waits for them before joining.
  std::atomic<int> schedulePending{0};

  // Jobs handed to the pool that no thread has started yet: a drain job
  // stops watching its empty queue as soon as others wait for a thread.
  std::atomic<int> waitingJobs{0};

  void added(int64_t n) { outstanding.fetch_add(n, std::memory_order_acq_rel); }
  void finished(int64_t n) {
    if (outstanding.fetch_sub(n, std::memory_order_acq_rel) - n > 0) return;
    std::lock_guard<std::mutex> lock(idleMutex);
    idle.notify_all();
  }
  template <typename Job>
  void schedule(Job&& job) {
    waitingJobs.fetch_add(1, std::memory_order_relaxed);
    boost::asio::post(pool, std::forward<Job>(job));
  }
  void started() { waitingJobs.fetch_sub(1, std::memory_order_relaxed); }
};

RXExecutor::RXExecutor(unsigned int threads)
    : impl_(std::make_unique<Impl>(std::max(2u, threads))), threads_(std::max(2u, threads)) {}

RXExecutor::~RXExecutor() { shutdown(); }

void RXExecutor::post(std::function<void()> task) {
  std::shared_lock<std::shared_mutex> gate(impl_->gate);
  if (!impl_->accepting) throw ExecutorStoppedError("executor stopped: task refused");
  impl_->added(1);
  impl_->schedule([task = std::move(task), pool = impl_.get()] {
    pool->started();
    RunningOn running(pool);
    runGuarded(task, std::string());
    pool->finished(1);
  });
}

bool RXExecutor::drain(std::chrono::milliseconds timeout) {
  if (tRunningPool == impl_.get())
    throw std::logic_error("RXExecutor::drain called from one of the executor's own threads");
  std::unique_lock<std::mutex> lock(impl_->idleMutex);
  return impl_->idle.wait_for(lock, timeout, [&] { return impl_->outstanding.load() <= 0; });
}

std::shared_ptr<SerialQueue> RXExecutor::makeQueue(const std::string& label, std::size_t capacity) {
  // SerialQueue's constructor is private to us; this local class inherits our
  // access so that make_shared can build it.
  struct Constructible : SerialQueue {
    Constructible(std::weak_ptr<RXExecutor> e, std::string l, std::size_t c)
        : SerialQueue(std::move(e), std::move(l), c) {}
  };
  return std::make_shared<Constructible>(weak_from_this(), label, capacity);
}

void RXExecutor::shutdown() {
  // A clear failure rather than a pool that never finishes joining.
  if (tRunningPool == impl_.get())
    throw std::logic_error("RXExecutor::shutdown called from one of the executor's own threads");
  {
    std::unique_lock<std::shared_mutex> gate(impl_->gate);
    impl_->accepting = false;
    stopped_.store(true);
  }
  {
    // Tasks running on callers' threads may still hand their queue to the pool.
    std::unique_lock<std::mutex> idle(impl_->idleMutex);
    impl_->idle.wait(idle, [&] { return impl_->schedulePending.load() == 0; });
  }
  std::lock_guard<std::mutex> lock(impl_->joinMutex);
  if (impl_->joined) return;
  // Without a prior stop(), join() returns only once the pool has no work
  // left: pending tasks, including re-posted drain jobs, all run.
  impl_->pool.join();
  impl_->joined = true;
}

// ---- SerialQueue ----

namespace {

// A queue's pending tasks, oldest first, in a ring that is reused: pushing
// and popping allocate nothing once it has grown to a queue's usual backlog.
// A ring grown beyond kKeptSlots by a burst is given back when it empties.
// Not thread-safe: guarded by its queue's mutex.
class TaskRing {
 public:
  static constexpr std::size_t kFirstSlots = 16;
  static constexpr std::size_t kKeptSlots = 1024;

  bool empty() const { return count_ == 0; }
  std::size_t size() const { return count_; }
  void push(QueuedTask task) {
    if (count_ == slots_.size()) grow();
    slots_[(head_ + count_) % slots_.size()] = std::move(task);
    ++count_;
  }
  QueuedTask pop() {
    QueuedTask task = std::move(slots_[head_]);
    head_ = (head_ + 1) % slots_.size();
    --count_;
    return task;
  }
  // When the ring is empty and oversized, hands its storage to the caller,
  // who frees it outside the lock.
  std::vector<QueuedTask> releaseIfOversized() {
    std::vector<QueuedTask> released;
    if (count_ == 0 && slots_.size() > kKeptSlots) {
      released.swap(slots_);
      head_ = 0;
    }
    return released;
  }
  // Moves every pending task out, oldest first.
  std::vector<QueuedTask> takeAll() {
    std::vector<QueuedTask> all;
    all.reserve(count_);
    while (count_ != 0) all.push_back(pop());
    return all;
  }

 private:
  void grow() {
    std::vector<QueuedTask> bigger(std::max(kFirstSlots, slots_.size() * 2));
    for (std::size_t i = 0; i < count_; ++i) bigger[i] = std::move(slots_[(head_ + i) % slots_.size()]);
    slots_.swap(bigger);
    head_ = 0;
  }

  std::vector<QueuedTask> slots_;
  std::size_t head_ = 0;
  std::size_t count_ = 0;
};

}  // namespace

struct SerialQueue::State {
  // Valid whenever a drain job runs: the pool outlives its own jobs.
  RXExecutor::Impl* pool = nullptr;

  // Guarded by mutex.
  mutable SpinThenBlockMutex mutex;
  TaskRing tasks;
  bool scheduled = false;  // a drain job is in the pool or running
  bool closed = false;
  std::chrono::steady_clock::time_point lastDropLog{};
  bool droppedBefore = false;

  // tasks.size(), written under mutex, read without it by a lingering job.
  std::atomic<std::size_t> queued{0};
};

SerialQueue::SerialQueue(std::weak_ptr<RXExecutor> executor, std::string label, std::size_t capacity)
    : executor_(std::move(executor)),
      label_(std::move(label)),
      capacity_(std::max<std::size_t>(1, capacity)),
      state_(std::make_unique<State>()) {
  if (auto e = executor_.lock()) state_->pool = e->impl_.get();
}

void SerialQueue::post(QueuedTask task) {
  std::shared_ptr<RXExecutor> executor = executor_.lock();
  if (!executor) throw ExecutorStoppedError("executor stopped: queue " + label_ + " refuses the call");
  RXExecutor::Impl& impl = *executor->impl_;

  QueuedTask droppedTask;  // destroyed outside every lock
  bool logDrop = false;
  {
    std::shared_lock<std::shared_mutex> gate(impl.gate);
    if (!impl.accepting) throw ExecutorStoppedError("executor stopped: queue " + label_ + " refuses the call");
    bool schedule = false;
    bool droppedOne = false;
    {
      std::lock_guard<SpinThenBlockMutex> lock(state_->mutex);
      if (state_->closed) throw ExecutorStoppedError("queue " + label_ + " is closed");
      if (state_->tasks.size() >= capacity_.load()) {
        // Only the newest call is sure to be worth running for a slow target
        // (notifications carry the latest value), so the oldest one goes.
        droppedTask = state_->tasks.pop();
        state_->queued.store(state_->tasks.size(), std::memory_order_release);
        dropped_.fetch_add(1);
        droppedOne = true;
        auto now = std::chrono::steady_clock::now();
        if (!state_->droppedBefore || now - state_->lastDropLog >= std::chrono::seconds(1)) {
          state_->droppedBefore = true;
          state_->lastDropLog = now;
          logDrop = true;
        }
      }
      state_->tasks.push(std::move(task));
      state_->queued.store(state_->tasks.size(), std::memory_order_release);
      impl.added(1);
      // The dropped task leaves the count only now, so that drain() never
      // sees it reach zero while the new one waits.
      if (droppedOne) impl.finished(1);
      if (!state_->scheduled) {
        state_->scheduled = true;
        schedule = true;
      }
    }
    if (schedule) impl.schedule([self = shared_from_this()] { self->runSome(); });
  }
  if (logDrop) RX_WARNING(executorLog(), "queue " << label_ << " full: dropped " << dropped_.load() << " pending calls");
}

bool SerialQueue::runHereIfIdle(void (*run)(void*), void* task) {
  std::shared_ptr<RXExecutor> executor = executor_.lock();
  if (!executor) return false;
  RXExecutor::Impl& impl = *executor->impl_;
  {
    // Counted as accepted work under the gate, as a post is, so that
    // shutdown's join cannot slip between this and the tail's schedule.
    std::shared_lock<std::shared_mutex> gate(impl.gate);
    if (!impl.accepting) return false;
    std::lock_guard<SpinThenBlockMutex> lock(state_->mutex);
    if (state_->closed || state_->scheduled || !state_->tasks.empty()) return false;
    state_->scheduled = true;  // held like a drain job: posts meanwhile queue behind
    impl.added(1);
    impl.schedulePending.fetch_add(1, std::memory_order_acq_rel);
  }
  {
    // As on a pool thread: a task that drains or shuts the executor down fails clearly.
    RunningOn running(&impl);
    const auto function = [run, task] { run(task); };
    runGuarded(function, label_);
  }
  executed_.fetch_add(1);
  bool more;
  {
    std::lock_guard<SpinThenBlockMutex> lock(state_->mutex);
    more = !state_->tasks.empty();
    if (!more) state_->scheduled = false;
  }
  if (more) impl.schedule([self = shared_from_this()] { self->runSome(); });
  if (impl.schedulePending.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    std::lock_guard<std::mutex> lock(impl.idleMutex);
    impl.idle.notify_all();
  }
  impl.finished(1);
  return true;
}

void SerialQueue::runSome() {
  // Named for top -H and profilers, once per pool thread.
  static thread_local const bool named = ::pthread_setname_np(::pthread_self(), "rx-executor") == 0;
  (void)named;
  RXExecutor::Impl& pool = *state_->pool;
  pool.started();
  RunningOn running(&pool);
  std::size_t ran = 0;
  while (ran < kDrainBatch) {
    QueuedTask task;
    {
      std::unique_lock<SpinThenBlockMutex> lock(state_->mutex);
      if (state_->tasks.empty()) {
        std::vector<QueuedTask> released = state_->tasks.releaseIfOversized();
        lock.unlock();
        released.clear();
        if (lingerForWork()) continue;
        lock.lock();
        // A post may have come in just as the watch ended.
        if (state_->tasks.empty()) {
          state_->scheduled = false;
          return;
        }
      }
      task = state_->tasks.pop();
      state_->queued.store(state_->tasks.size(), std::memory_order_release);
    }
    runGuarded(task, label_);
    // Released before the task counts as done: once drain() returns, what the
    // tasks held is gone too.
    task.reset();
    executed_.fetch_add(1);
    pool.finished(1);
    ++ran;
  }
  {
    std::lock_guard<SpinThenBlockMutex> lock(state_->mutex);
    if (state_->tasks.empty()) {
      state_->scheduled = false;
      return;
    }
  }
  // More remain: go to the back of the pool's line. This job is still
  // outstanding work, so the pool cannot have been joined in between.
  pool.schedule([self = shared_from_this()] { self->runSome(); });
}

bool SerialQueue::lingerForWork() const {
  const RXExecutor::Impl& pool = *state_->pool;
  const auto deadline = std::chrono::steady_clock::now() + kLinger;
  for (unsigned int spins = 1;; ++spins) {
    if (state_->queued.load(std::memory_order_acquire) != 0) return true;
    // Another queue's job needs this thread more.
    if (pool.waitingJobs.load(std::memory_order_relaxed) > 0) return false;
    cpuRelax();
    if (spins % 32 == 0 && std::chrono::steady_clock::now() >= deadline) return false;
  }
}

void SerialQueue::close() {
  std::vector<QueuedTask> droppedTasks;  // destroyed outside the lock
  {
    std::lock_guard<SpinThenBlockMutex> lock(state_->mutex);
    state_->closed = true;
    droppedTasks = state_->tasks.takeAll();
    state_->queued.store(0, std::memory_order_release);
  }
  if (droppedTasks.empty()) return;
  if (std::shared_ptr<RXExecutor> executor = executor_.lock())
    executor->impl_->finished(static_cast<int64_t>(droppedTasks.size()));
}

bool SerialQueue::isClosed() const {
  std::lock_guard<SpinThenBlockMutex> lock(state_->mutex);
  return state_->closed;
}

void SerialQueue::setCapacity(std::size_t capacity) { capacity_.store(std::max<std::size_t>(1, capacity)); }

std::size_t SerialQueue::pending() const {
  std::lock_guard<SpinThenBlockMutex> lock(state_->mutex);
  return state_->tasks.size();
}

}  // namespace RX
