// mz::Future<T> and mz::Promise<T>: the result of an operation that may finish
// later (service lookup, signal connection, a remote call). A future ends in one
// of three states: a value, an error (with its text), or cancelled. value()
// waits and then returns the value or throws mz::FutureError saying why there
// is none. Futures are cheap shared handles; every member is thread-safe.
//
//   mz::Promise<int> p;  mz::Future<int> f = p.future();
//   p.setValue(3);       f.value() == 3
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace mz {

class FutureError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class FutureState { Running, FinishedWithValue, FinishedWithError, Canceled };

namespace detail {
template <typename T>
struct FutureShared {
  std::mutex mutex;
  std::condition_variable cond;
  FutureState state = FutureState::Running;
  std::optional<T> value;
  std::string error;
};
template <>
struct FutureShared<void> {
  std::mutex mutex;
  std::condition_variable cond;
  FutureState state = FutureState::Running;
  std::string error;
};
// Shared by the copies of one Promise: when the last copy goes without having
// answered (a dropped task, a producer that threw), the future fails instead
// of leaving its holder waiting forever.
template <typename T>
struct PromiseKeeper {
  explicit PromiseKeeper(std::shared_ptr<FutureShared<T>> shared) : s(std::move(shared)) {}
  PromiseKeeper(const PromiseKeeper&) = delete;
  PromiseKeeper& operator=(const PromiseKeeper&) = delete;
  ~PromiseKeeper() {
    std::lock_guard<std::mutex> l(s->mutex);
    if (s->state != FutureState::Running) return;
    s->state = FutureState::FinishedWithError;
    s->error = "promise broken: the operation ended without a result";
    s->cond.notify_all();
  }
  std::shared_ptr<FutureShared<T>> s;
};
}  // namespace detail

template <typename T>
class Promise;

template <typename T>
class Future {
 public:
  // A default future is already cancelled: it has no producer.
  Future() : s_(std::make_shared<detail::FutureShared<T>>()) { s_->state = FutureState::Canceled; }

  FutureState wait() const {
    std::unique_lock<std::mutex> l(s_->mutex);
    s_->cond.wait(l, [&] { return s_->state != FutureState::Running; });
    return s_->state;
  }
  // Returns Running when the time ran out.
  FutureState wait(std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> l(s_->mutex);
    s_->cond.wait_for(l, timeout, [&] { return s_->state != FutureState::Running; });
    return s_->state;
  }
  bool isFinished() const { return state() != FutureState::Running; }
  bool hasValue() const { return state() == FutureState::FinishedWithValue; }
  bool hasError() const { return state() == FutureState::FinishedWithError; }
  bool isCanceled() const { return state() == FutureState::Canceled; }
  FutureState state() const {
    std::lock_guard<std::mutex> l(s_->mutex);
    return s_->state;
  }
  // The error text once finished with an error, or the reason given for a
  // cancellation (empty when none was given); empty while running.
  std::string error() const {
    std::lock_guard<std::mutex> l(s_->mutex);
    return s_->error;
  }
  // Waits, then returns the value or throws FutureError with the reason.
  template <typename U = T>
  std::enable_if_t<!std::is_void_v<U>, U> value() const {
    wait();
    std::lock_guard<std::mutex> l(s_->mutex);
    check();
    return *s_->value;
  }
  // Waits, then throws FutureError if the operation did not succeed.
  void waitAndCheck() const {
    wait();
    std::lock_guard<std::mutex> l(s_->mutex);
    check();
  }
  // Asks the producer to give up: a running future becomes cancelled at once.
  void cancel() {
    std::lock_guard<std::mutex> l(s_->mutex);
    if (s_->state == FutureState::Running) {
      s_->state = FutureState::Canceled;
      s_->cond.notify_all();
    }
  }

 private:
  friend class Promise<T>;
  // REQUIRES: s_->mutex held.
  void check() const {
    if (s_->state == FutureState::FinishedWithError) throw FutureError(s_->error);
    if (s_->state == FutureState::Canceled)
      throw FutureError(s_->error.empty() ? std::string("future canceled") : "future canceled: " + s_->error);
  }
  explicit Future(std::shared_ptr<detail::FutureShared<T>> s) : s_(std::move(s)) {}
  std::shared_ptr<detail::FutureShared<T>> s_;
};

template <typename T>
class Promise {
 public:
  Promise()
      : s_(std::make_shared<detail::FutureShared<T>>()),
        keeper_(std::make_shared<detail::PromiseKeeper<T>>(s_)) {}
  Future<T> future() const { return Future<T>(s_); }

  // A promise whose every copy is destroyed without an answer fails its
  // future with "promise broken: ...".
  // Each setter returns false when the future had already ended (for
  // instance cancelled by its holder); the later outcome is then dropped.
  template <typename U = T, typename V>
  std::enable_if_t<!std::is_void_v<U>, bool> setValue(V&& v) {
    std::lock_guard<std::mutex> l(s_->mutex);
    if (s_->state != FutureState::Running) return false;
    s_->value.emplace(std::forward<V>(v));
    s_->state = FutureState::FinishedWithValue;
    s_->cond.notify_all();
    return true;
  }
  template <typename U = T>
  std::enable_if_t<std::is_void_v<U>, bool> setValue() {
    return finish(FutureState::FinishedWithValue, std::string());
  }
  bool setError(const std::string& error) { return finish(FutureState::FinishedWithError, error); }
  bool setCanceled(const std::string& why = std::string()) { return finish(FutureState::Canceled, why); }
  bool isCancelRequested() const {
    std::lock_guard<std::mutex> l(s_->mutex);
    return s_->state == FutureState::Canceled;
  }

 private:
  bool finish(FutureState st, const std::string& error) {
    std::lock_guard<std::mutex> l(s_->mutex);
    if (s_->state != FutureState::Running) return false;
    s_->state = st;
    s_->error = error;
    s_->cond.notify_all();
    return true;
  }
  std::shared_ptr<detail::FutureShared<T>> s_;
  std::shared_ptr<detail::PromiseKeeper<T>> keeper_;
};

// Futures that are already finished.
template <typename T>
Future<T> makeFutureValue(T v) {
  Promise<T> p;
  p.setValue(std::move(v));
  return p.future();
}
template <typename T>
Future<T> makeFutureError(const std::string& error) {
  Promise<T> p;
  p.setError(error);
  return p.future();
}

}  // namespace mz
