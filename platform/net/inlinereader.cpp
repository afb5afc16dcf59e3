#include "net/inlinereader.h"

#include <pthread.h>

#include <utility>

#include "rx/rxlog.h"

namespace net {

namespace {

RX::log::Category& readerLog() {
  static RX::log::Category& cat = RX::log::category("net.client");
  return cat;
}

// What the current thread runs as a reader, for beforeBlocking().
struct InlineScope {
  InlineReader* reader;
  std::uint64_t state;
};
thread_local InlineScope* tlsScope = nullptr;
// Set when the reader's role was taken away during the callback this thread ran.
thread_local bool tlsDemoted = false;

void runTask(const InlineReader::Task& task) {
  try {
    task();
  } catch (const std::exception& e) {
    RX_ERROR(readerLog(), "a callback from the broker threw: " << e.what());
  } catch (...) {
    RX_ERROR(readerLog(), "a callback from the broker threw an unknown exception");
  }
}

}  // namespace

struct InlineReader::Worker {
  std::thread thread;
  std::atomic<bool> done{false};
};

InlineReader::InlineReader(Options options, std::function<bool()> readOne, std::function<void()> onEnd)
    : options_(std::move(options)), readOne_(std::move(readOne)), onEnd_(std::move(onEnd)) {}

InlineReader::~InlineReader() { stop(); }

void InlineReader::start() {
  std::lock_guard<std::mutex> lock(mutex_);
  spawnLocked(true);
  spawnLocked(false);
}

void InlineReader::stop() {
  std::vector<std::shared_ptr<Worker>> workers;
  std::unordered_map<std::uint64_t, Lane> lanes;  // waiting tasks die outside the lock
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    workers.swap(workers_);
  }
  {
    std::lock_guard<std::mutex> lock(lanesMutex_);
    lanesStopped_ = true;
    for (auto& lane : lanes_) lanes[lane.first].waiting.swap(lane.second.waiting);
  }
  wake_.notify_all();
  for (auto& w : workers) {
    if (w->thread.get_id() == std::this_thread::get_id())
      w->thread.detach();  // stopped from one of its own callbacks: it ends by itself
    else if (w->thread.joinable())
      w->thread.join();
  }
}

bool InlineReader::spawnLocked(bool reader) {
  if (stopping_ || ended_) return false;
  // Threads that have ended are joined here, so the list stays short.
  for (auto it = workers_.begin(); it != workers_.end();) {
    if ((*it)->done.load(std::memory_order_acquire)) {
      (*it)->thread.join();
      it = workers_.erase(it);
    } else {
      ++it;
    }
  }
  if (workers_.size() >= options_.maxThreads) {
    static RX::log::Throttle throttle;
    std::uint64_t held;
    if (throttle.allow(held))
      RX_WARNING(readerLog(), options_.label << ": " << options_.maxThreads
                                             << " threads are busy in callbacks; the next blocked callback stalls "
                                                "the others" << RX::log::heldBack(held));
    return false;
  }
  auto worker = std::make_shared<Worker>();
  if (!reader) hasStandby_ = true;
  worker->thread = std::thread([this, worker, reader] {
    ::pthread_setname_np(::pthread_self(), "rx-events");
    run(worker, reader);
  });
  workers_.push_back(worker);
  return true;
}

void InlineReader::run(const std::shared_ptr<Worker>& self, bool reader) {
  bool reading = reader;
  for (;;) {
    if (!reading && !standBy()) break;
    readLoop();
    reading = false;
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_ || ended_ || hasStandby_) break;
    hasStandby_ = true;  // demoted: stands by in place of a new thread
  }
  self->done.store(true, std::memory_order_release);
}

void InlineReader::readLoop() {
  tlsDemoted = false;
  for (;;) {
    if (!readOne_()) {
      {
        std::lock_guard<std::mutex> lock(mutex_);
        ended_ = true;
      }
      wake_.notify_all();
      onEnd_();
      return;
    }
    if (tlsDemoted) return;
  }
}

bool InlineReader::standBy() {
  using Clock = std::chrono::steady_clock;
  std::unique_lock<std::mutex> lock(mutex_);
  std::uint64_t seen = 0;  // an even value: no callback seen yet
  Clock::time_point nextLook = Clock::now() + options_.handOverAfter;
  for (;;) {
    if (stopping_ || ended_) {
      hasStandby_ = false;
      return false;
    }
    bool take = promote_;  // beforeBlocking() handed the role over already
    if (!take && Clock::now() >= nextLook) {
      // The same callback still running a whole period later: take over.
      std::uint64_t state = state_.load(std::memory_order_acquire);
      if ((state & 1) && state == seen) take = state_.compare_exchange_strong(state, state + 1);
      seen = state;
      nextLook = Clock::now() + options_.handOverAfter;
    }
    if (take) {
      promote_ = false;
      hasStandby_ = false;
      spawnLocked(false);
      RX_DEBUG(readerLog(), options_.label << ": a callback is blocked; another thread reads on");
      return true;
    }
    wake_.wait_until(lock, nextLook);
  }
}

void InlineReader::deliver(std::uint64_t lane, Task task) {
  Task dropped;  // destroyed outside the lock
  {
    std::lock_guard<std::mutex> lock(lanesMutex_);
    if (lanesStopped_) return;
    Lane& l = lanes_[lane];
    l.forgotten = false;
    if (l.busy) {
      if (l.waiting.size() >= options_.laneCapacity && !l.waiting.empty()) {
        // The newest is the one worth running for a slow target
        // (notifications carry the latest value): the oldest goes.
        dropped = std::move(l.waiting.front());
        l.waiting.pop_front();
        ++drops_[lane];
      }
      l.waiting.push_back(std::move(task));
      if (!dropped) return;
    } else {
      l.busy = true;
    }
  }
  if (dropped) {
    countDrop(lane);
    return;
  }
  runLane(lane, std::move(task));
}

void InlineReader::runLane(std::uint64_t lane, Task task) {
  // Only the reader writes an even state, so no hand-over can slip in here.
  const std::uint64_t running = state_.load(std::memory_order_relaxed) | 1;
  state_.store(running, std::memory_order_release);
  InlineScope scope{this, running};
  InlineScope* outer = tlsScope;
  tlsScope = &scope;
  runTask(task);
  tlsScope = outer;
  std::uint64_t expected = running;
  if (!state_.compare_exchange_strong(expected, running + 1, std::memory_order_acq_rel)) tlsDemoted = true;
  // Whatever the next reader queued in this lane meanwhile runs here, in order.
  for (;;) {
    Task next;
    {
      std::lock_guard<std::mutex> lock(lanesMutex_);
      auto l = lanes_.find(lane);
      if (l == lanes_.end()) return;
      if (l->second.waiting.empty()) {
        l->second.busy = false;
        if (l->second.forgotten) lanes_.erase(l);
        return;
      }
      next = std::move(l->second.waiting.front());
      l->second.waiting.pop_front();
    }
    runTask(next);
  }
}

void InlineReader::beforeBlocking() {
  InlineScope* scope = tlsScope;
  if (!scope) return;
  tlsScope = nullptr;  // once per callback
  scope->reader->handOver(scope->state);
}

void InlineReader::handOver(std::uint64_t state) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_ || ended_) return;
    if (!hasStandby_) {
      // No standby (all busy in callbacks): a new thread reads, if allowed.
      std::uint64_t expected = state;
      if (!state_.compare_exchange_strong(expected, state + 1)) return;
      if (spawnLocked(true)) return;
      // No thread left: the role comes back to the caller, which will block.
      state_.store(state, std::memory_order_release);
      return;
    }
    std::uint64_t expected = state;
    if (!state_.compare_exchange_strong(expected, state + 1)) return;
    promote_ = true;
  }
  wake_.notify_all();
}

void InlineReader::forgetLane(std::uint64_t lane) {
  std::lock_guard<std::mutex> lock(lanesMutex_);
  drops_.erase(lane);
  auto l = lanes_.find(lane);
  if (l == lanes_.end()) return;
  // A busy lane is forgotten by the thread that runs it, once it is idle.
  if (l->second.busy)
    l->second.forgotten = true;
  else
    lanes_.erase(l);
}

std::uint64_t InlineReader::dropped(std::uint64_t lane) const {
  std::lock_guard<std::mutex> lock(lanesMutex_);
  auto d = drops_.find(lane);
  return d == drops_.end() ? 0 : d->second;
}

void InlineReader::countDrop(std::uint64_t lane) {
  static RX::log::Throttle throttle;
  std::uint64_t held;
  if (!throttle.allow(held)) return;
  const std::string name = options_.laneName ? options_.laneName(lane) : "lane " + std::to_string(lane);
  RX_WARNING(readerLog(), options_.label << ": more than " << options_.laneCapacity << " " << name
                                         << " waiting; dropped the oldest" << RX::log::heldBack(held));
}

}  // namespace net
