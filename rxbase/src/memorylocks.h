// The memory's locks. CompactRecursiveMutex: a recursive mutex in 16 bytes
// (a pthread recursive mutex takes 40), for the cells, which exist by the
// million and carry three each. SharedMutex: the reader-writer lock of the
// memory's maps, one atomic operation to take or release when uncontended.
// Both are used like standard mutexes (std/boost lock_guard, unique_lock,
// shared_lock). Thread safety: that of a mutex; only the holder unlocks.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

namespace RX {

// Prefers writers: once a writer waits, new readers wait behind it, so a
// stream of readers cannot starve writers. A reader must therefore never take
// it again while holding it. Not recursive for writers either.
class SharedMutex {
 public:
  // Throws std::system_error when the lock cannot be created.
  SharedMutex();
  ~SharedMutex();
  SharedMutex(const SharedMutex&) = delete;
  SharedMutex& operator=(const SharedMutex&) = delete;

  void lock();
  bool try_lock();
  void unlock();
  void lock_shared();
  bool try_lock_shared();
  void unlock_shared();

 private:
  pthread_rwlock_t rwlock_;
};

// Recursive: the holder may take it again, and releases it when it has
// unlocked as many times. Not fair: a waiter that wakes competes with newcomers.

class CompactRecursiveMutex {
 public:
  CompactRecursiveMutex() = default;
  CompactRecursiveMutex(const CompactRecursiveMutex&) = delete;
  CompactRecursiveMutex& operator=(const CompactRecursiveMutex&) = delete;

  void lock();
  // True when the calling thread now holds the mutex (again, if it held it).
  bool try_lock();
  void unlock();

 private:
  // Spins briefly, then sleeps on `word_` until the mutex is free.
  void lockSlow();

  // 0: free; 1: held; 2: held, and a thread may be sleeping on it.
  std::atomic<std::uint32_t> word_{0};
  // Written only by the holder, under `word_`.
  std::uint32_t depth_ = 0;
  // The holder's thread (pthread_self), 0 when free. Read by any thread: only
  // the holder can find itself here, so a relaxed read that does is never
  // stale. Ids of threads that have ended are reused, harmlessly: a thread
  // that ends holding a mutex is a bug whatever the mutex.
  std::atomic<std::uint64_t> owner_{0};
};

}  // namespace RX
