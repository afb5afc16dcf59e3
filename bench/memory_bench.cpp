// memory_bench: what the memory's calls cost in process, each figure next to a
// floor measured in the same binary: a bare boost::unordered_map of cells under
// a boost::shared_mutex, each cell a boost::recursive_mutex and an RXValue.
// That floor is what a module would write for itself; the memory has to stay
// close to it while doing its own work (timestamps, events, notifications).
//
// Figures (Google Benchmark, real time): insertData and getData on an existing
// key, getListData of 100 keys, raiseEvent / raiseMicroEvent with 0, 1 and 10
// subscribers (cost on the raising thread), delivered notifications per second,
// subscribe + unsubscribe, getDataListName at 10k and 1M keys, the three routes
// of _perf (direct, RXMemoryProxy, generic proxy). Resident bytes per data key
// are measured while the 1M-key runs grow both stores; broker start to the
// first answered call is measured before the benchmarks. The summary printed
// at the end (Markdown rows, for docs/PERFORMANCE.md) gives the ratios to the
// floor, the goals, and where a key's bytes and a notification's allocations go.
//
// Built only with -DRX_BUILD_BENCH=ON (make bench); never a test.
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>
#include <boost/pointer_cast.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/locks.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <boost/thread/shared_mutex.hpp>
#include <boost/unordered_map.hpp>

#include "mz/os.h"
#include "rx/rxbroker.h"
#include "rx/rxbrokermanager.h"
#include "rx/rxmemoryproxy.h"
#include "rx/rxmodule.h"
#include "rx/rxproxy.h"
#include "rx/rxvalue.h"
#include "rxmemory.h"
#include "rxmemorysubscriber.h"
#include "stmvalue.h"

// ---- Allocation census ----
// Every operator new of the process is counted per thread, so a benchmark can
// say how many allocations its calling thread made per operation, and one key
// insertion can be taken apart allocation by allocation. Costs the floor and
// the memory the same (a thread-local increment).
namespace census {
thread_local uint64_t tAllocations = 0;
thread_local uint64_t tBytes = 0;
// When set, the sizes of this thread's allocations are recorded here.
thread_local std::vector<std::size_t>* tSizes = nullptr;
}  // namespace census

void* operator new(std::size_t size) {
  ++census::tAllocations;
  census::tBytes += size;
  if (census::tSizes) {
    std::vector<std::size_t>* sizes = census::tSizes;
    census::tSizes = nullptr;  // the push_back below allocates too
    sizes->push_back(size);
    census::tSizes = sizes;
  }
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
// Not inlined: GCC would otherwise pair the inlined free() with operator new
// and warn about a mismatch that is not one.
__attribute__((noinline)) void operator delete(void* p) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

using Clock = std::chrono::steady_clock;
using RX::RXValue;

// A key name of the length robot keys usually have (longer than the 15
// characters std::string keeps inline, so the name costs an allocation).
const std::string kHotKey = "Device/SubDeviceList/Battery/Charge/Sensor/Value";
constexpr std::size_t kBaseKeys = 10000;
constexpr std::size_t kMillion = 1000000;
constexpr std::chrono::seconds kDeliveryTimeout(30);
constexpr std::size_t kMaxSubscribers = 10;

std::string keyName(std::size_t i) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "Bench/Key/%07zu", i);
  return buf;
}

// Reports the calling thread's allocations per iteration as the counter "allocs".
class AllocCount {
 public:
  explicit AllocCount(benchmark::State& state) : state_(state), start_(census::tAllocations) {}
  ~AllocCount() {
    state_.counters["allocs"] =
        benchmark::Counter(static_cast<double>(census::tAllocations - start_), benchmark::Counter::kAvgIterations);
  }

 private:
  benchmark::State& state_;
  uint64_t start_;
};

// ---- The floor ----

struct Cell {
  boost::recursive_mutex mutex;
  RXValue value;
};

class Floor {
 public:
  void insert(const std::string& name, const RXValue& value) {
    boost::unique_lock<boost::shared_mutex> lock(mutex_);
    auto it = map_.find(name);
    if (it == map_.end()) {
      auto cell = boost::make_shared<Cell>();
      cell->value = value;
      map_.emplace(name, std::move(cell));
      return;
    }
    boost::lock_guard<boost::recursive_mutex> cellLock(it->second->mutex);
    it->second->value = value;
  }
  RXValue get(const std::string& name) {
    boost::shared_ptr<Cell> cell;
    {
      boost::shared_lock<boost::shared_mutex> lock(mutex_);
      auto it = map_.find(name);
      if (it == map_.end()) return RXValue();
      cell = it->second;
    }
    boost::lock_guard<boost::recursive_mutex> cellLock(cell->mutex);
    return cell->value;
  }
  std::vector<std::string> names() {
    boost::shared_lock<boost::shared_mutex> lock(mutex_);
    std::vector<std::string> out;
    out.reserve(map_.size());
    for (const auto& entry : map_) out.push_back(entry.first);
    return out;
  }
  std::size_t size() {
    boost::shared_lock<boost::shared_mutex> lock(mutex_);
    return map_.size();
  }

 private:
  boost::unordered_map<std::string, boost::shared_ptr<Cell>> map_;
  boost::shared_mutex mutex_;
};

// ---- Counting subscribers ----

// Every subscriber's callback lands here; the waiter is woken once the
// expected total is reached.
class Delivery {
 public:
  void arrived() {
    const uint64_t n = delivered_.fetch_add(1, std::memory_order_acq_rel) + 1;
    if (n >= target_.load(std::memory_order_acquire)) {
      std::lock_guard<std::mutex> lock(mutex_);
      cond_.notify_all();
    }
  }
  uint64_t delivered() const { return delivered_.load(std::memory_order_acquire); }
  // True once `total` callbacks have arrived since the start of the process.
  bool waitFor(uint64_t total, std::chrono::seconds timeout) {
    target_.store(total, std::memory_order_release);
    std::unique_lock<std::mutex> lock(mutex_);
    return cond_.wait_for(lock, timeout, [&] { return delivered() >= total; });
  }

 private:
  std::atomic<uint64_t> delivered_{0};
  std::atomic<uint64_t> target_{UINT64_MAX};
  std::mutex mutex_;
  std::condition_variable cond_;
};

Delivery gDelivery;

class Counter : public RX::RXModule {
 public:
  Counter(boost::shared_ptr<RX::RXBroker> broker, const std::string& name) : RXModule(broker, name) {
    functionName("onEvent", name, "Counts a notification");
    addParam("key", "Name of the raised key");
    addParam("value", "Raised value");
    addParam("message", "Subscription message");
    advertiseMethod(getCurrentMethodDescription(), this, &Counter::onEvent);
  }
  void onEvent(const std::string&, const RXValue&, const RXValue&) { gDelivery.arrived(); }
};

// ---- Resident set ----

std::size_t residentBytes() {
  std::ifstream statm("/proc/self/statm");
  std::size_t size = 0, resident = 0;
  statm >> size >> resident;
  return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

// ---- The rig: one broker with the memory, the floor, the subscribers ----

std::string eventKey(bool micro, int subscribers) {
  return std::string(micro ? "Bench/Micro" : "Bench/Event") + std::to_string(subscribers);
}

struct Rig {
  boost::shared_ptr<RX::RXBroker> broker;
  boost::shared_ptr<RX::RXMemory> memory;
  Floor floor;
  std::vector<boost::shared_ptr<Counter>> counters;
  std::vector<std::string> listNames;  // 100 keys for getListData
  RXValue listRequest;

  // Filled by the 1M-key setup (allocations and bytes requested per key
  // include the caller's temporary key name).
  bool grown = false;
  double memoryBytesPerKey = 0, memoryAllocsPerKey = 0, memoryRequestedPerKey = 0;
  double floorBytesPerKey = 0, floorAllocsPerKey = 0, floorRequestedPerKey = 0;

  static Rig& get() {
    static Rig rig;
    return rig;
  }

  Rig() {
    RX::RXBroker::Options options;
    // Large enough that no benchmark loses a notification to a full queue.
    options.queueCapacity = 4 * kMillion;
    broker = RX::RXBroker::create("bench-broker", options);
    if (_createModule(broker) != 0) fail("_createModule failed");
    memory = boost::dynamic_pointer_cast<RX::RXMemory>(broker->getModule("RXMemory"));
    if (!memory) fail("_createModule registered no RXMemory module");
    for (std::size_t i = 0; i < kMaxSubscribers; ++i) {
      auto c = boost::make_shared<Counter>(broker, "Counter" + std::to_string(i));
      c->initModule();
      counters.push_back(c);
    }
    for (std::size_t i = 0; i < kBaseKeys; ++i) {
      memory->insertData(keyName(i), static_cast<int>(i));
      floor.insert(keyName(i), RXValue(static_cast<int>(i)));
    }
    memory->insertData(kHotKey, 0);
    floor.insert(kHotKey, RXValue(0));
    for (std::size_t i = 0; i < 100; ++i) listNames.push_back(keyName(i * 97));
    listRequest = RXValue(listNames);
    for (bool micro : {false, true}) {
      for (int subs : {0, 1, 10}) {
        const std::string key = eventKey(micro, subs);
        for (int i = 0; i < subs; ++i) {
          const std::string module = "Counter" + std::to_string(i);
          if (micro)
            memory->subscribeToMicroEvent(key, module, "", "onEvent");
          else
            memory->subscribeToEvent(key, module, "onEvent");
        }
        if (subs == 0) {
          if (micro)
            memory->raiseMicroEvent(key, RXValue(0));
          else
            memory->declareEvent(key);
        }
      }
    }
  }

  [[noreturn]] static void fail(const char* why) {
    std::fprintf(stderr, "memory_bench: %s\n", why);
    std::abort();
  }

  uint64_t dropped() const {
    uint64_t n = 0;
    for (const auto& entry : broker->droppedCounts()) n += entry.second;
    return n;
  }

  // Grows memory and floor by 1M int keys each, measuring resident growth
  // and counting the allocations made for the keys.
  void growToMillion() {
    if (grown) return;
    grown = true;
    malloc_trim(0);
    std::size_t before = residentBytes();
    uint64_t allocations = census::tAllocations;
    uint64_t bytes = census::tBytes;
    for (std::size_t i = kBaseKeys; i < kBaseKeys + kMillion; ++i) memory->insertData(keyName(i), static_cast<int>(i));
    malloc_trim(0);
    memoryBytesPerKey = static_cast<double>(residentBytes() - before) / kMillion;
    memoryAllocsPerKey = static_cast<double>(census::tAllocations - allocations) / kMillion;
    memoryRequestedPerKey = static_cast<double>(census::tBytes - bytes) / kMillion;
    before = residentBytes();
    allocations = census::tAllocations;
    bytes = census::tBytes;
    for (std::size_t i = kBaseKeys; i < kBaseKeys + kMillion; ++i) floor.insert(keyName(i), RXValue(static_cast<int>(i)));
    malloc_trim(0);
    floorBytesPerKey = static_cast<double>(residentBytes() - before) / kMillion;
    floorAllocsPerKey = static_cast<double>(census::tAllocations - allocations) / kMillion;
    floorRequestedPerKey = static_cast<double>(census::tBytes - bytes) / kMillion;
  }
};

// The sizes of the allocations one new int key costs (the key name is built
// before counting starts).
template <typename Insert>
std::vector<std::size_t> allocationsOfOneKey(const std::string& name, Insert insert) {
  std::vector<std::size_t> sizes;
  sizes.reserve(64);
  census::tSizes = &sizes;
  insert(name);
  census::tSizes = nullptr;
  return sizes;
}

// What glibc's malloc really takes for a request: 8 bytes of header, 16-byte
// granularity, 32 bytes at least.
std::size_t chunkSize(std::size_t request) { return std::max<std::size_t>(32, (request + 8 + 15) & ~std::size_t(15)); }

std::string describeSizes(const std::vector<std::size_t>& sizes) {
  std::string text;
  std::size_t requested = 0, chunks = 0;
  for (std::size_t size : sizes) {
    text += (text.empty() ? "" : " + ") + std::to_string(size);
    requested += size;
    chunks += chunkSize(size);
  }
  return std::to_string(sizes.size()) + " allocations: " + text + " = " + std::to_string(requested) +
         " bytes requested, " + std::to_string(chunks) + " bytes of malloc chunks";
}

// ---- Store ----

void memoryInsertData(benchmark::State& state) {
  Rig& rig = Rig::get();
  int i = 0;
  AllocCount allocs(state);
  for (auto _ : state) rig.memory->insertData(kHotKey, ++i);
}

void floorInsert(benchmark::State& state) {
  Rig& rig = Rig::get();
  int i = 0;
  AllocCount allocs(state);
  for (auto _ : state) rig.floor.insert(kHotKey, RXValue(++i));
}

// The wall-clock read every write of the memory makes for its timestamp.
void floorClock(benchmark::State& state) {
  mz::os::timeval tv;
  AllocCount allocs(state);
  for (auto _ : state) {
    mz::os::gettimeofday(&tv);
    benchmark::DoNotOptimize(tv);
  }
}

void memoryGetData(benchmark::State& state) {
  Rig& rig = Rig::get();
  AllocCount allocs(state);
  for (auto _ : state) benchmark::DoNotOptimize(rig.memory->getData(kHotKey));
}

void floorGet(benchmark::State& state) {
  Rig& rig = Rig::get();
  AllocCount allocs(state);
  for (auto _ : state) benchmark::DoNotOptimize(rig.floor.get(kHotKey));
}

void memoryGetListData(benchmark::State& state) {
  Rig& rig = Rig::get();
  AllocCount allocs(state);
  for (auto _ : state) {
    RXValue result = rig.memory->getListData(rig.listRequest);
    if (result.getSize() != 100 || !result[99].isInt()) {
      state.SkipWithError("getListData did not return the 100 values");
      break;
    }
  }
}

void floorGetList(benchmark::State& state) {
  Rig& rig = Rig::get();
  AllocCount allocs(state);
  for (auto _ : state) {
    // What getListData does: one slot per requested name.
    RXValue result = RXValue::array();
    result.arrayReserve(rig.listRequest.getSize());
    for (std::size_t i = 0; i < rig.listRequest.getSize(); ++i)
      result.arrayPush(rig.floor.get(rig.listRequest[i].toStdString()));
    benchmark::DoNotOptimize(result);
  }
}

void memoryGetDataListName(benchmark::State& state) {
  Rig& rig = Rig::get();
  if (state.range(0) == static_cast<int64_t>(kMillion)) rig.growToMillion();
  state.counters["keys"] = static_cast<double>(rig.memory->getDataListName().size());
  AllocCount allocs(state);
  for (auto _ : state) benchmark::DoNotOptimize(rig.memory->getDataListName());
}

void floorNames(benchmark::State& state) {
  Rig& rig = Rig::get();
  if (state.range(0) == static_cast<int64_t>(kMillion)) rig.growToMillion();
  state.counters["keys"] = static_cast<double>(rig.floor.size());
  AllocCount allocs(state);
  for (auto _ : state) benchmark::DoNotOptimize(rig.floor.names());
}

// The same names copied out of a contiguous vector instead of the map's
// nodes: what listing would cost if the names were kept side by side.
void floorVectorCopy(benchmark::State& state) {
  Rig& rig = Rig::get();
  if (state.range(0) == static_cast<int64_t>(kMillion)) rig.growToMillion();
  const std::vector<std::string> names = rig.floor.names();
  state.counters["keys"] = static_cast<double>(names.size());
  AllocCount allocs(state);
  for (auto _ : state) benchmark::DoNotOptimize(std::vector<std::string>(names));
}

// ---- Events ----

// Raising thread cost. Every 1000 raises the clock is paused until the
// subscribers have caught up, so the queues stay short and what is measured
// is the raise and its posts, not a growing backlog.
template <bool kMicro>
void memoryRaise(benchmark::State& state) {
  Rig& rig = Rig::get();
  const int subscribers = static_cast<int>(state.range(0));
  const std::string key = eventKey(kMicro, subscribers);
  const RXValue value(42);
  const uint64_t start = gDelivery.delivered();
  const uint64_t droppedBefore = rig.dropped();
  uint64_t raised = 0;
  bool ok = true;
  AllocCount allocs(state);
  for (auto _ : state) {
    if (kMicro)
      rig.memory->raiseMicroEvent(key, value);
    else
      rig.memory->raiseEvent(key, value);
    if (subscribers != 0 && ++raised % 1000 == 0) {
      state.PauseTiming();
      ok = gDelivery.waitFor(start + raised * subscribers, kDeliveryTimeout);
      state.ResumeTiming();
      if (!ok) break;
    }
  }
  if (ok && subscribers != 0) ok = gDelivery.waitFor(start + raised * subscribers, kDeliveryTimeout);
  if (!ok) state.SkipWithError("notifications did not all arrive within 30 s");
  else if (rig.dropped() != droppedBefore) state.SkipWithError("notifications were dropped by a full queue");
}

// Delivered notifications per second: from the first raise until the
// subscribers have received every notification of the batch.
template <bool kMicro>
void memoryDelivered(benchmark::State& state) {
  Rig& rig = Rig::get();
  const int subscribers = static_cast<int>(state.range(0));
  const std::string key = eventKey(kMicro, subscribers);
  const uint64_t notificationsPerBatch = 200000;
  const uint64_t raises = notificationsPerBatch / subscribers;
  const RXValue value(42);
  const uint64_t droppedBefore = rig.dropped();
  double seconds = 0;
  uint64_t delivered = 0;
  for (auto _ : state) {
    const uint64_t target = gDelivery.delivered() + raises * subscribers;
    const auto t0 = Clock::now();
    for (uint64_t i = 0; i < raises; ++i) {
      if (kMicro)
        rig.memory->raiseMicroEvent(key, value);
      else
        rig.memory->raiseEvent(key, value);
    }
    const bool ok = gDelivery.waitFor(target, kDeliveryTimeout);
    const double elapsed = std::chrono::duration<double>(Clock::now() - t0).count();
    state.SetIterationTime(elapsed);
    if (!ok) {
      state.SkipWithError("notifications did not all arrive within 30 s");
      return;
    }
    seconds += elapsed;
    delivered += raises * subscribers;
  }
  if (rig.dropped() != droppedBefore) {
    state.SkipWithError("notifications were dropped by a full queue");
    return;
  }
  state.counters["notif_per_s"] = static_cast<double>(delivered) / seconds;
}

void memorySubscribeUnsubscribe(benchmark::State& state) {
  Rig& rig = Rig::get();
  const std::string key = "Bench/SubscribeUnsubscribe";
  rig.memory->declareEvent(key);
  AllocCount allocs(state);
  for (auto _ : state) {
    rig.memory->subscribeToEvent(key, "Counter0", "onEvent");
    rig.memory->unsubscribeToEvent(key, "Counter0");
  }
}

// ---- The three routes of _perf (a fresh key string per call, as _perf does) ----

void perfDirect(benchmark::State& state) {
  Rig& rig = Rig::get();
  AllocCount allocs(state);
  for (auto _ : state) rig.memory->insertData(std::string("perf"), 1);
}

void perfMemoryProxy(benchmark::State& state) {
  Rig& rig = Rig::get();
  RX::RXMemoryProxy proxy(rig.broker->getProxy("RXMemory", 0));
  AllocCount allocs(state);
  for (auto _ : state) proxy.insertData(std::string("perf"), 1);
}

void perfGenericProxy(benchmark::State& state) {
  Rig& rig = Rig::get();
  boost::shared_ptr<RX::RXProxy> proxy = rig.broker->getProxy("RXMemory", 0);
  AllocCount allocs(state);
  for (auto _ : state) proxy->call<void>("insertData", std::string("perf"), 1);
}

void floorPerf(benchmark::State& state) {
  Rig& rig = Rig::get();
  AllocCount allocs(state);
  for (auto _ : state) rig.floor.insert(std::string("perf"), RXValue(1));
}

// ---- Broker start to the first answered call ----

struct Startup {
  double coldMs = 0;
  double warmMedianMs = 0;
};

double startOnce() {
  const auto t0 = Clock::now();
  auto broker = RX::RXBroker::create("startup-broker");
  if (_createModule(broker) != 0) std::abort();
  const RXValue ready = broker->getProxy("RXMemory", 0)->call<RXValue>("getData", std::string("TavroReady"));
  const double ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
  if (!ready.isInt()) std::abort();
  broker->shutdown();
  RX::RXBrokerManager::getInstance()->removeBroker(broker);
  return ms;
}

// Runs before the rig exists: each memory points its cells at its own broker.
Startup measureStartup() {
  Startup s;
  s.coldMs = startOnce();
  std::vector<double> warm;
  for (int i = 0; i < 11; ++i) warm.push_back(startOnce());
  std::sort(warm.begin(), warm.end());
  s.warmMedianMs = warm[warm.size() / 2];
  return s;
}

// ---- Summary ----

// Shows the usual console output and keeps each benchmark's figure (the
// median when repetitions are asked for).
class Collector : public benchmark::ConsoleReporter {
 public:
  struct Figure {
    double realNs = 0;
    double cpuNs = 0;
    std::map<std::string, double> counters;
  };

  void ReportRuns(const std::vector<Run>& runs) override {
    benchmark::ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      if (run.run_type == Run::RT_Aggregate && !median) continue;
      const std::string name = run.run_name.str();
      if (!median && medians_.count(name)) continue;
      Figure f;
      f.realNs = run.GetAdjustedRealTime() * unitToNs(run.time_unit);
      f.cpuNs = run.GetAdjustedCPUTime() * unitToNs(run.time_unit);
      for (const auto& c : run.counters) f.counters[c.first] = c.second.value;
      figures_[name] = f;
      if (median) medians_[name] = true;
    }
  }
  const Figure* find(const std::string& name) const {
    auto it = figures_.find(name);
    return it == figures_.end() ? nullptr : &it->second;
  }

 private:
  static double unitToNs(benchmark::TimeUnit unit) {
    switch (unit) {
      case benchmark::kNanosecond: return 1;
      case benchmark::kMicrosecond: return 1e3;
      case benchmark::kMillisecond: return 1e6;
      case benchmark::kSecond: return 1e9;
    }
    return 1;
  }
  std::map<std::string, Figure> figures_;
  std::map<std::string, bool> medians_;
};

std::string fmtNs(double ns) {
  char buf[64];
  if (ns >= 1e6)
    std::snprintf(buf, sizeof buf, "%.1f ms", ns / 1e6);
  else if (ns >= 1e4)
    std::snprintf(buf, sizeof buf, "%.1f us", ns / 1e3);
  else
    std::snprintf(buf, sizeof buf, "%.0f ns", ns);
  return buf;
}

// Markdown rows: figure, memory (real time), memory CPU time of the calling
// thread, floor, ratio of real times, goal, verdict.
class Summary {
 public:
  explicit Summary(const Collector& c) : c_(c) {}

  void header() {
    row("figure", "memory", "cpu", "floor", "ratio", "goal", "");
    std::printf("|%s|%s|%s|%s|%s|%s|%s|\n", dashes(46).c_str(), dashes(14).c_str(), dashes(10).c_str(),
                dashes(12).c_str(), dashes(9).c_str(), dashes(20).c_str(), dashes(8).c_str());
  }
  // The memory's time next to the floor's; maxRatio 0: no goal.
  void ratioRow(const std::string& what, const std::string& mem, const std::string& floor, const std::string& goal,
                double maxRatio) {
    const Collector::Figure* m = c_.find(mem);
    const Collector::Figure* f = c_.find(floor);
    if (!m || !f) return missing(what);
    const double ratio = m->realNs / f->realNs;
    row(what, fmtNs(m->realNs), fmtNs(m->cpuNs), fmtNs(f->realNs), fmt("%.2fx", ratio), goal,
        maxRatio > 0 ? verdict(ratio <= maxRatio) : "");
  }
  // A time against an upper bound (0: none).
  void timeRow(const std::string& what, const std::string& mem, const std::string& goal, double maxNs) {
    const Collector::Figure* m = c_.find(mem);
    if (!m) return missing(what);
    row(what, fmtNs(m->realNs), fmtNs(m->cpuNs), "", "", goal, maxNs > 0 ? verdict(m->realNs < maxNs) : "");
  }
  void rateRow(const std::string& what, const std::string& mem, const std::string& goal, double minRate) {
    const Collector::Figure* m = c_.find(mem);
    if (!m || !m->counters.count("notif_per_s")) return missing(what);
    const double rate = m->counters.at("notif_per_s");
    row(what, fmt("%.0f /s", rate), "", "", "", goal, minRate > 0 ? verdict(rate >= minRate) : "");
  }
  void row(const std::string& what, const std::string& mem, const std::string& cpu, const std::string& floor,
           const std::string& ratio, const std::string& goal, const std::string& met) {
    std::printf("| %-44s | %12s | %8s | %10s | %7s | %-18s | %-6s |\n", what.c_str(), mem.c_str(), cpu.c_str(),
                floor.c_str(), ratio.c_str(), goal.c_str(), met.c_str());
  }
  void missing(const std::string& what) { row(what, "not run", "", "", "", "", ""); }
  static std::string verdict(bool met) { return met ? "met" : "MISSED"; }
  static std::string dashes(int n) { return std::string(static_cast<std::size_t>(n), '-'); }
  template <typename... A>
  static std::string fmt(const char* f, A... a) {
    char buf[64];
    std::snprintf(buf, sizeof buf, f, a...);
    return buf;
  }

 private:
  const Collector& c_;
};

void registerAll() {
  using benchmark::RegisterBenchmark;
  RegisterBenchmark("floor/insert", floorInsert);
  RegisterBenchmark("memory/insertData", memoryInsertData);
  RegisterBenchmark("floor/gettimeofday", floorClock);
  RegisterBenchmark("floor/get", floorGet);
  RegisterBenchmark("memory/getData", memoryGetData);
  RegisterBenchmark("floor/getList100", floorGetList);
  RegisterBenchmark("memory/getListData100", memoryGetListData);
  for (int subs : {0, 1, 10}) RegisterBenchmark("memory/raiseEvent", memoryRaise<false>)->Arg(subs);
  for (int subs : {0, 1, 10}) RegisterBenchmark("memory/raiseMicroEvent", memoryRaise<true>)->Arg(subs);
  for (int subs : {1, 10})
    RegisterBenchmark("memory/deliveredEvent", memoryDelivered<false>)
        ->Arg(subs)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);
  for (int subs : {1, 10})
    RegisterBenchmark("memory/deliveredMicroEvent", memoryDelivered<true>)
        ->Arg(subs)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);
  RegisterBenchmark("memory/subscribe+unsubscribe", memorySubscribeUnsubscribe);
  RegisterBenchmark("floor/perf", floorPerf);
  RegisterBenchmark("memory/perf_direct", perfDirect);
  RegisterBenchmark("memory/perf_RXMemoryProxy", perfMemoryProxy);
  RegisterBenchmark("memory/perf_genericProxy", perfGenericProxy);
  // 10k first: the 1M runs grow the store for good.
  for (int64_t keys : {static_cast<int64_t>(kBaseKeys), static_cast<int64_t>(kMillion)}) {
    RegisterBenchmark("floor/names", floorNames)->Arg(keys)->Unit(benchmark::kMicrosecond);
    RegisterBenchmark("memory/getDataListName", memoryGetDataListName)->Arg(keys)->Unit(benchmark::kMicrosecond);
    RegisterBenchmark("floor/vectorCopy", floorVectorCopy)->Arg(keys)->Unit(benchmark::kMicrosecond);
  }
}

void printSummary(const Collector& c, const Startup& startup) {
  Rig& rig = Rig::get();
  Summary s(c);
  std::printf("\nSummary (memory and floor: real time per call; cpu: the calling thread's CPU time; "
              "ratio = memory / floor)\n\n");
  s.header();
  s.ratioRow("insertData(int), existing key", "memory/insertData", "floor/insert", "<= 1.3x floor", 1.3);
  s.ratioRow("  (the timestamp's clock read alone)", "floor/gettimeofday", "floor/insert", "", 0);
  s.ratioRow("getData, existing key", "memory/getData", "floor/get", "<= 1.5x floor", 1.5);
  s.ratioRow("getListData, 100 keys", "memory/getListData100", "floor/getList100", "", 0);
  for (const std::string kind : {"raiseEvent", "raiseMicroEvent"}) {
    for (int subs : {0, 1, 10}) {
      const std::string what = kind + ", " + std::to_string(subs) + " subscriber" + (subs == 1 ? "" : "s");
      const std::string name = "memory/" + kind + "/" + std::to_string(subs);
      if (subs == 1 && kind == "raiseEvent")
        s.timeRow(what, name, "< 2 us", 2000);
      else
        s.ratioRow(what, name, "floor/insert", "", 0);
    }
  }
  for (const std::string kind : {"deliveredEvent", "deliveredMicroEvent"})
    for (int subs : {1, 10})
      s.rateRow(kind + ", " + std::to_string(subs) + " subscriber" + (subs == 1 ? "" : "s"),
                "memory/" + kind + "/" + std::to_string(subs) + "/iterations:5/manual_time", ">= 1,000,000 /s", 1000000);
  s.timeRow("subscribeToEvent + unsubscribeToEvent", "memory/subscribe+unsubscribe", "", 0);
  s.ratioRow("_perf route: direct insertData", "memory/perf_direct", "floor/perf", "", 0);
  s.ratioRow("_perf route: RXMemoryProxy::insertData", "memory/perf_RXMemoryProxy", "floor/perf", "", 0);
  s.ratioRow("_perf route: RXProxy::call<void>", "memory/perf_genericProxy", "floor/perf", "", 0);
  s.ratioRow("getDataListName, 10k keys", "memory/getDataListName/10000", "floor/names/10000", "", 0);
  s.ratioRow("getDataListName, 1M keys", "memory/getDataListName/1000000", "floor/names/1000000", "< 150 ms", 0);
  s.ratioRow("  (copy of a vector of the 1M names)", "floor/vectorCopy/1000000", "floor/names/1000000", "", 0);
  if (const Collector::Figure* m = c.find("memory/getDataListName/1000000"))
    s.row("  (1M keys against the goal)", fmtNs(m->realNs), "", "", "", "< 150 ms", Summary::verdict(m->realNs < 150e6));
  if (rig.grown)
    s.row("resident bytes per int data key (1M keys)", Summary::fmt("%.0f B", rig.memoryBytesPerKey), "",
          Summary::fmt("%.0f B", rig.floorBytesPerKey), Summary::fmt("%.2fx", rig.memoryBytesPerKey / rig.floorBytesPerKey),
          "<= 300 B", Summary::verdict(rig.memoryBytesPerKey <= 300));
  else
    s.missing("resident bytes per int data key (1M keys)");
  s.row("broker start to first getData, cold", Summary::fmt("%.2f ms", startup.coldMs), "", "", "", "", "");
  s.row("broker start to first getData, warm median", Summary::fmt("%.2f ms", startup.warmMedianMs), "", "", "", "", "");

  std::printf("\nWhere a data key's bytes go (key names of %zu characters)\n", keyName(0).size());
  std::printf("  sizeof: STMValue %zu, its CompactRecursiveMutex %zu (x3), STMNotifier %zu, RXMemorySubscriber %zu "
              "(made on first request), RXValue %zu, boost::recursive_mutex %zu, std::string %zu, floor Cell %zu\n",
              sizeof(RX::STMValue), sizeof(RX::CompactRecursiveMutex), sizeof(RX::STMNotifier),
              sizeof(RXMemorySubscriber), sizeof(RXValue), sizeof(boost::recursive_mutex), sizeof(std::string),
              sizeof(Cell));
  const std::string memoryKey = "Bench/Census/001", floorKey = "Bench/Census/002";
  std::printf("  memory, one new key: %s\n",
              describeSizes(allocationsOfOneKey(memoryKey, [&](const std::string& k) { rig.memory->insertData(k, 1); }))
                  .c_str());
  std::printf("  floor, one new key:  %s\n",
              describeSizes(allocationsOfOneKey(floorKey, [&](const std::string& k) { rig.floor.insert(k, RXValue(1)); }))
                  .c_str());
  if (rig.grown)
    std::printf("  over 1M keys, with the caller's temporary name: memory %.2f allocations and %.0f bytes "
                "requested per key; floor %.2f and %.0f\n",
                rig.memoryAllocsPerKey, rig.memoryRequestedPerKey, rig.floorAllocsPerKey, rig.floorRequestedPerKey);
  {
    // What one raise with one subscriber allocates on the raising thread. A
    // first raise resolves and caches the subscriber's proxy; the second is
    // the steady state.
    const uint64_t target = gDelivery.delivered() + 2;
    rig.memory->raiseEvent(eventKey(false, 1), RXValue(41));
    std::vector<std::size_t> sizes;
    sizes.reserve(64);
    census::tSizes = &sizes;
    rig.memory->raiseEvent(eventKey(false, 1), RXValue(42));
    census::tSizes = nullptr;
    if (!gDelivery.waitFor(target, kDeliveryTimeout)) std::printf("  (the census raise was not delivered)\n");
    std::printf("  raiseEvent with 1 subscriber, raising thread: %s\n", describeSizes(sizes).c_str());
  }
  std::printf("Notifications dropped by full queues: %llu\n", static_cast<unsigned long long>(rig.dropped()));
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  const Startup startup = measureStartup();
  registerAll();
  Collector collector;
  benchmark::RunSpecifiedBenchmarks(&collector);
  printSummary(collector, startup);
  Rig& rig = Rig::get();
  rig.counters.clear();
  rig.memory.reset();
  rig.broker->shutdown();
  benchmark::Shutdown();
  return 0;
}
