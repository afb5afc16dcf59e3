#include "rx/rxmemorybudget.h"

#include <unistd.h>

#include <cstdio>

#include "rx/rxerror.h"
#include "rx/rxlog.h"

namespace RX {

namespace {

// Shared by the watching object and the write paths that check.
std::atomic<bool> gExceeded{false};
std::atomic<std::size_t> gLimit{0};
std::atomic<std::size_t> gResident{0};

std::string bytes(std::size_t n) { return std::to_string(n) + " bytes"; }

log::Category& budgetLog() {
  static log::Category& cat = log::category("rx.broker");
  return cat;
}

}  // namespace

MemoryBudget::MemoryBudget(std::size_t limitBytes, std::chrono::milliseconds period)
    : limit_(limitBytes), period_(period) {
  gLimit.store(limit_);
  sample();
  thread_ = std::thread([this] { run(); });
}

MemoryBudget::~MemoryBudget() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  thread_.join();
  gExceeded.store(false);
  gLimit.store(0);
}

bool MemoryBudget::exceeded() { return gExceeded.load(std::memory_order_relaxed); }

void MemoryBudget::check(const char* module, const char* method) {
  if (!exceeded()) return;
  RX_THROW(module, method,
           "memory limit reached: resident " + bytes(gResident.load()) + " over maxMemory " +
               bytes(gLimit.load()));
}

std::size_t MemoryBudget::residentBytes() {
  std::FILE* f = std::fopen("/proc/self/statm", "r");
  if (!f) return 0;
  unsigned long size = 0, resident = 0;
  const int read = std::fscanf(f, "%lu %lu", &size, &resident);
  std::fclose(f);
  if (read != 2) return 0;
  return static_cast<std::size_t>(resident) * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

void MemoryBudget::sample() {
  const std::size_t resident = residentBytes();
  gResident.store(resident);
  const bool over = resident > limit_;
  if (gExceeded.exchange(over) != over) {
    if (over)
      RX_WARNING(budgetLog(), "resident memory " << bytes(resident) << " over maxMemory " << bytes(limit_)
                                                 << ": writes are refused until it falls back");
    else
      RX_INFO(budgetLog(), "resident memory " << bytes(resident) << " back under maxMemory "
                                              << bytes(limit_) << ": writes are accepted again");
  }
}

void MemoryBudget::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!wake_.wait_for(lock, period_, [&] { return stopping_; })) {
    lock.unlock();
    sample();
    lock.lock();
  }
}

}  // namespace RX
