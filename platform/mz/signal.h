// Signals of the messaging layer. A signal keeps a list of connected callables
// ("subscribers") and delivers every emission to each of them.
//
//   mz::SignalF<void (mz::AnyValue)> sig;
//   mz::SignalLink link = sig.connect([](mz::AnyValue v) { ... });
//   sig(mz::AnyValue(5));          // typed emission
//   sig.disconnect(link);
//
// trigger() is virtual so that an object can give emissions a meaning of its own
// (the memory's key signal raises its key); SignalBase::trigger called
// explicitly always delivers. A callable that throws is logged and does not
// stop delivery to the others. Everything but the vtable and one pointer (the
// subscriber list, an explicit signature, the on-subscribe callback) lives in
// a block allocated on the first connect, or at construction for a signal
// given an explicit signature or a callback: an unused typed signal costs two
// pointers.
//
// Thread safety: connect, disconnect and emission may run concurrently from any
// thread. Delivery runs on the emitting thread; a callable may disconnect
// itself or others while being called.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <tuple>
#include <utility>

#include "mz/anyvalue.h"
#include "mz/typeconv.h"

namespace mz {

using SignalLink = uint64_t;
constexpr SignalLink kInvalidSignalLink = 0;

using SignalSubscriber = std::function<void(const GenericFunctionParameters&)>;

class SignalBase {
 public:
  // Called with true when the first subscriber connects and with false when the
  // last one leaves (the on-subscribe callback); may be empty. It runs with the
  // signal's lock held, so it may use this signal from its own thread but must
  // not wait for another thread that uses it.
  using OnSubscribers = std::function<void(bool)>;

  explicit SignalBase(std::string signature = "void ()", OnSubscribers onSubscribers = OnSubscribers());
  virtual ~SignalBase();
  SignalBase(const SignalBase&) = delete;
  SignalBase& operator=(const SignalBase&) = delete;

  // Returns a link id, unique within the process, never kInvalidSignalLink.
  SignalLink connect(SignalSubscriber subscriber);
  // Returns false when the link is not (or no longer) connected to this signal.
  // Emissions that have not reached the subscriber yet skip it; a call
  // already under way on another thread is not waited for.
  bool disconnect(SignalLink link);
  void disconnectAll();
  bool hasSubscribers() const;
  std::size_t subscriberCount() const;

  // The signature text, e.g. "void (mz::AnyValue)".
  virtual std::string signature() const;
  // Delivers params to every subscriber connected when the emission starts
  // (minus those disconnected before their turn), on the calling thread.
  // callType is advisory: Queued is delivered synchronously too for now, as
  // the process has no executor dedicated to signal delivery.
  virtual void trigger(const GenericFunctionParameters& params, MetaCallType callType = MetaCallType_Auto);

 protected:
  // For subclasses that compute their signature (by overriding signature()):
  // nothing is allocated unless a callback is given.
  struct ComputedSignature {};
  SignalBase(ComputedSignature, OnSubscribers onSubscribers);

 private:
  struct Impl;
  Impl* impl() const;
  Impl* ensureImpl();
  // Set once, from null to the block, and freed by the destructor.
  mutable std::atomic<Impl*> impl_{nullptr};
};

namespace detail {
// Printable name of a signal argument type ("mz::AnyValue", "std::string").
const char* signatureName(const std::type_info& t);
}  // namespace detail

template <typename Signature>
class SignalF;

// Typed signal. Argument types: any type with a TypeConv (typeconv.h).
template <typename... Args>
class SignalF<void(Args...)> : public SignalBase {
 public:
  explicit SignalF(OnSubscribers onSubscribers = OnSubscribers())
      : SignalBase(ComputedSignature(), std::move(onSubscribers)) {}

  std::string signature() const override { return typeSignature(); }

  using SignalBase::connect;
  template <typename F, typename = std::enable_if_t<std::is_invocable_v<F&, Args...> &&
                                                    !std::is_same_v<std::decay_t<F>, SignalSubscriber>>>
  SignalLink connect(F f) {
    return SignalBase::connect([f = std::move(f)](const GenericFunctionParameters& p) mutable {
      if (p.size() != sizeof...(Args)) throw ConversionError("signal emitted with a wrong number of arguments");
      call(f, p, std::index_sequence_for<Args...>());
    });
  }

  void operator()(const Args&... args) {
    if (!hasSubscribers()) return;
    trigger(GenericFunctionParameters{Conv<Args>::to(args)...});
  }

  // "void (mz::AnyValue)", "void (unsigned int, std::string)", ...
  static std::string typeSignature() {
    // Built once per signal type and shared by all its signals.
    static const std::string text = [] {
      std::string s = "void (";
      const char* names[] = {detail::signatureName(typeid(Args))..., ""};
      for (std::size_t i = 0; i < sizeof...(Args); ++i) {
        if (i) s += ", ";
        s += names[i];
      }
      return s + ")";
    }();
    return text;
  }

 private:
  template <typename F, std::size_t... I>
  static void call(F& f, const GenericFunctionParameters& p, std::index_sequence<I...>) {
    f(Conv<Args>::from(p[I])...);
  }
};

}  // namespace mz
