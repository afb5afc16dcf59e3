// RX::CallContext: tells a method whether the caller it runs for is still
// there. The network transport marks the thread that serves a client's request
// with that client's flag, and sets the flag when the client disconnects;
// long operations (polling reads, waits on other modules) check callerGone()
// and end early instead of working for nobody.
//
//   RX::CallContext scope(flag);   // transport side, around one request
//   while (!RX::CallContext::callerGone()) { ... }   // method side
//
// Thread safety: the scope belongs to the thread that made it; the flag may be
// set from any thread.
#pragma once

#include <atomic>
#include <memory>

namespace RX {

class CallContext {
 public:
  using Flag = std::shared_ptr<std::atomic<bool>>;

  // Marks the current thread as serving the caller behind `gone` until the
  // scope ends; scopes nest.
  explicit CallContext(Flag gone);
  ~CallContext();
  CallContext(const CallContext&) = delete;
  CallContext& operator=(const CallContext&) = delete;

  // True when the method running on this thread serves a caller that has
  // disconnected. Always false for in-process callers.
  [[nodiscard]] static bool callerGone();

 private:
  Flag flag_;
  const std::atomic<bool>* previous_;
};

}  // namespace RX
