// RX::MemoryBudget: an optional ceiling on the resident memory of the broker
// process. While one is watched, a thread reads the process's resident size a
// few times a second; while it is over the ceiling, operations that would
// store more (the memory's writes) fail with a clear RXError, rather than the
// process growing until the system kills it with every module's data.
//
//   RX::MemoryBudget budget(2ull << 30);             // rxbroker --max-memory 2GiB
//   RX::MemoryBudget::check("RXMemory", "insertData");  // in a write path: one atomic load
//
// Thread safety: check() and exceeded() may be called from any thread; one
// budget object at a time.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>

namespace RX {

class MemoryBudget {
 public:
  static constexpr std::chrono::milliseconds kPeriod{100};

  // Starts watching the process against `limitBytes`.
  explicit MemoryBudget(std::size_t limitBytes, std::chrono::milliseconds period = kPeriod);
  ~MemoryBudget();  // stops watching: nothing is refused any more
  MemoryBudget(const MemoryBudget&) = delete;
  MemoryBudget& operator=(const MemoryBudget&) = delete;

  // Whether the last reading was over the ceiling (false when none is watched).
  [[nodiscard]] static bool exceeded();
  // Throws RXError(module, method, "memory limit reached: resident N bytes
  // over maxMemory M bytes") when exceeded().
  static void check(const char* module, const char* method);
  // The resident size of this process now, in bytes (0 if it cannot be read).
  [[nodiscard]] static std::size_t residentBytes();

  // Takes a reading now (tests; the thread does it every period).
  void sample();

 private:
  void run();

  // Constant after construction.
  const std::size_t limit_;
  const std::chrono::milliseconds period_;
  // Guarded by mutex_.
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace RX
