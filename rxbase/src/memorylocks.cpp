#include "memorylocks.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <system_error>

namespace RX {

namespace {

// Attempts to take a held mutex before sleeping on it: the cell locks are
// held for a copy or an assignment, shorter than a futex round trip.
constexpr int kSpins = 100;

inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

inline std::uint64_t self() { return static_cast<std::uint64_t>(::pthread_self()); }

void check(int error, const char* what) {
  if (error != 0) throw std::system_error(error, std::generic_category(), what);
}

inline std::uint32_t* futexWord(std::atomic<std::uint32_t>& word) {
  return reinterpret_cast<std::uint32_t*>(&word);
}

}  // namespace

// ---- SharedMutex ----

SharedMutex::SharedMutex() {
  pthread_rwlockattr_t attributes;
  check(::pthread_rwlockattr_init(&attributes), "pthread_rwlockattr_init");
  ::pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
  const int error = ::pthread_rwlock_init(&rwlock_, &attributes);
  ::pthread_rwlockattr_destroy(&attributes);
  check(error, "pthread_rwlock_init");
}

SharedMutex::~SharedMutex() { ::pthread_rwlock_destroy(&rwlock_); }

void SharedMutex::lock() { check(::pthread_rwlock_wrlock(&rwlock_), "pthread_rwlock_wrlock"); }

bool SharedMutex::try_lock() { return ::pthread_rwlock_trywrlock(&rwlock_) == 0; }

void SharedMutex::unlock() { ::pthread_rwlock_unlock(&rwlock_); }

void SharedMutex::lock_shared() { check(::pthread_rwlock_rdlock(&rwlock_), "pthread_rwlock_rdlock"); }

bool SharedMutex::try_lock_shared() { return ::pthread_rwlock_tryrdlock(&rwlock_) == 0; }

void SharedMutex::unlock_shared() { ::pthread_rwlock_unlock(&rwlock_); }

// ---- CompactRecursiveMutex ----

void CompactRecursiveMutex::lock() {
  const std::uint64_t me = self();
  if (owner_.load(std::memory_order_relaxed) == me) {
    ++depth_;
    return;
  }
  std::uint32_t expected = 0;
  if (!word_.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed)) lockSlow();
  owner_.store(me, std::memory_order_relaxed);
  depth_ = 1;
}

bool CompactRecursiveMutex::try_lock() {
  const std::uint64_t me = self();
  if (owner_.load(std::memory_order_relaxed) == me) {
    ++depth_;
    return true;
  }
  std::uint32_t expected = 0;
  if (!word_.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed))
    return false;
  owner_.store(me, std::memory_order_relaxed);
  depth_ = 1;
  return true;
}

void CompactRecursiveMutex::unlock() {
  if (--depth_ != 0) return;
  owner_.store(0, std::memory_order_relaxed);
  // 2 means someone may sleep on the word: wake one of them.
  if (word_.exchange(0, std::memory_order_release) == 2)
    ::syscall(SYS_futex, futexWord(word_), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

void CompactRecursiveMutex::lockSlow() {
  for (int i = 0; i < kSpins; ++i) {
    cpuRelax();
    std::uint32_t expected = 0;
    if (word_.load(std::memory_order_relaxed) == 0 &&
        word_.compare_exchange_weak(expected, 1, std::memory_order_acquire, std::memory_order_relaxed))
      return;
  }
  // From here on the word says 2 while we hold it too: we cannot tell whether
  // other sleepers remain, so our unlock wakes one in case.
  while (word_.exchange(2, std::memory_order_acquire) != 0)
    ::syscall(SYS_futex, futexWord(word_), FUTEX_WAIT_PRIVATE, 2, nullptr, nullptr, 0);
}

}  // namespace RX
