// The memory's locks. The cells' compact recursive mutex: a holder may take it
// again, nobody else gets it until every level is released, and contending
// threads (spinning and sleeping ones) all get through with their critical
// sections intact. The maps' shared mutex: readers together, writers alone,
// and a waiting writer holds new readers back.
#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "memorylocks.h"

namespace {

using RX::CompactRecursiveMutex;
using RX::SharedMutex;

constexpr std::chrono::seconds kBound(30);

// try_lock from another thread, which must not see the caller's levels.
bool takenElsewhere(CompactRecursiveMutex& m) {
  return std::async(std::launch::async, [&] {
           if (!m.try_lock()) return false;
           m.unlock();
           return true;
         }).get();
}

TEST(CompactRecursiveMutexTest, HolderMayReenterOthersWaitForTheLastLevel) {
  CompactRecursiveMutex m;
  EXPECT_TRUE(takenElsewhere(m)) << "a fresh mutex is free";
  m.lock();
  ASSERT_TRUE(m.try_lock()) << "the holder takes it again";
  m.lock();
  EXPECT_FALSE(takenElsewhere(m)) << "held three levels deep";
  m.unlock();
  m.unlock();
  EXPECT_FALSE(takenElsewhere(m)) << "one level is still held";
  m.unlock();
  EXPECT_TRUE(takenElsewhere(m)) << "every level released";
  EXPECT_TRUE(m.try_lock());
  m.unlock();
}

// Threads enter recursively and do a read-modify-write of plain counters that
// another holder would tear; holders that yield the processor make the others
// find the mutex held long enough to give up spinning and sleep.
TEST(CompactRecursiveMutexTest, ContendingThreadsAllGetThroughExclusively) {
  constexpr int kThreads = 6;
  constexpr int kRounds = 20000;
  CompactRecursiveMutex m;
  long counter = 0;
  long mirror = 0;
  std::atomic<int> inside{0};
  std::atomic<int> overlaps{0};
  std::atomic<int> started{0};
  std::vector<std::future<void>> workers;
  for (int t = 0; t < kThreads; ++t)
    workers.push_back(std::async(std::launch::async, [&] {
      // All at once, or the first would be done before the last has started.
      started.fetch_add(1);
      while (started.load() < kThreads) std::this_thread::yield();
      for (int i = 0; i < kRounds; ++i) {
        m.lock();
        if (inside.fetch_add(1) != 0) overlaps.fetch_add(1);
        const long seen = counter;
        m.lock();
        for (int spin = 0; spin < 50; ++spin) mirror += spin & 1;
        // Now and then the holder lets the others run: they find it held.
        if (i % 16 == 0) std::this_thread::yield();
        counter = seen + 1;
        m.unlock();
        inside.fetch_sub(1);
        m.unlock();
      }
    }));
  for (auto& w : workers) ASSERT_EQ(std::future_status::ready, w.wait_for(kBound)) << "a worker is stuck";
  EXPECT_EQ(0, overlaps.load());
  EXPECT_EQ(static_cast<long>(kThreads) * kRounds, counter);
  EXPECT_EQ(static_cast<long>(kThreads) * kRounds * 25, mirror);
}

TEST(SharedMutexTest, ReadersShareWritersExcludeAndAreNotStarved) {
  SharedMutex m;
  auto elsewhere = [&](bool shared) {
    return std::async(std::launch::async, [&, shared] {
             if (!(shared ? m.try_lock_shared() : m.try_lock())) return false;
             shared ? m.unlock_shared() : m.unlock();
             return true;
           }).get();
  };
  m.lock();
  EXPECT_FALSE(elsewhere(true)) << "a reader beside a writer";
  EXPECT_FALSE(elsewhere(false)) << "two writers";
  m.unlock();
  m.lock_shared();
  EXPECT_TRUE(elsewhere(true)) << "readers share";
  EXPECT_FALSE(elsewhere(false)) << "a writer beside a reader";

  // A writer comes while the reader holds on: from the moment it waits, a new
  // reader is refused, however long the first reader stays.
  std::atomic<bool> wrote{false};
  std::future<void> writer = std::async(std::launch::async, [&] {
    m.lock();
    wrote = true;
    m.unlock();
  });
  bool heldBack = false;
  for (auto deadline = std::chrono::steady_clock::now() + kBound; !heldBack && std::chrono::steady_clock::now() < deadline;) {
    if (!m.try_lock_shared()) {
      heldBack = true;
    } else {
      m.unlock_shared();
      std::this_thread::yield();
    }
  }
  EXPECT_TRUE(heldBack) << "new readers kept overtaking the waiting writer";
  EXPECT_FALSE(wrote);
  m.unlock_shared();
  ASSERT_EQ(std::future_status::ready, writer.wait_for(kBound)) << "the writer never got the lock";
  EXPECT_TRUE(wrote);
}

}  // namespace
