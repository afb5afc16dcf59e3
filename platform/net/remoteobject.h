// net::RemoteObject: a handle on an object of the other side of a connection
// (a client's service seen from the broker, a broker module or the key signal
// object of a subscriber(key) call seen from a client). Calls wait for the
// reply on the calling thread; posts return at once; signals are followed
// through link messages. Its catalogue comes with the reference when the
// other side sent it (service lookup, registration), else it is asked for on
// first use of metaObject(). Dropping the last handle sends Release. A post
// that no method of a known catalogue accepts is dropped with a warning (at
// most one a second per object), never thrown: posts throw only when the
// other side has gone (mz::ObjectGoneError on the broker).
//
// A handle obtained by service name may carry a rebinder: when its connection
// is gone and a new one is up, it looks the service up again and forwards to
// the new object, so that proxies kept across a broker restart keep working.
//
// A client session may track a handle (see track()): its calls and signal
// connections are then reported to the session's SubscriptionJournal, so that
// what they made at the broker can be made again after a broker restart.
//
// Thread safety: every member may be called from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "mz/object.h"
#include "rx/rxlog.h"

namespace net {

class ObjectBridge;
class SubscriptionJournal;
struct ObjectOrigin;

class RemoteObject : public mz::GenericObject {
 public:
  // Looks the object up again on a new connection; returns an empty handle
  // (or throws) when it cannot.
  using Rebinder = std::function<mz::AnyObject()>;

  RemoteObject(std::shared_ptr<ObjectBridge> bridge, std::uint64_t id);
  ~RemoteObject() override;

  std::uint64_t remoteId() const { return id_; }
  const std::shared_ptr<ObjectBridge>& bridge() const { return bridge_; }
  // One more reference to this id arrived (the bridge reuses live handles).
  void addReceived() { received_.fetch_add(1, std::memory_order_relaxed); }
  // Sets the catalogue sent along with the reference; the first one stays.
  void setMetaObject(const mz::MetaObject& meta);
  bool hasMetaObject() const;
  void setRebinder(Rebinder rebinder);
  // The name used in errors worded here (a service's name), as a local
  // object would word them: "Calc: no method named foo".
  void setDisplayName(const std::string& name);
  // Reports the calls and connections made through this handle to `journal`,
  // as those of an object obtained by `origin`; an object a call on a tracked
  // service returns is tracked in turn. The first tracking stays; untracked
  // handles (the broker's, and the client's with remaking off) pay one flag
  // test per call.
  void track(std::shared_ptr<SubscriptionJournal> journal, std::shared_ptr<const ObjectOrigin> origin);

  // Throws what throwGone() of the bridge throws when the catalogue has to
  // be fetched and the other side cannot be reached.
  const mz::MetaObject& metaObject() const override;
  mz::AnyValue metaCall(const std::string& method, const mz::GenericFunctionParameters& params) override;
  mz::AnyValue metaCallById(unsigned int uid, const mz::GenericFunctionParameters& params) override;
  void metaPost(const std::string& method, mz::GenericFunctionParameters params) override;
  mz::Future<mz::SignalLink> metaConnect(const std::string& signal, mz::SignalSubscriber subscriber,
                                         mz::MetaCallType callType) override;
  mz::Future<void> metaDisconnect(mz::SignalLink link) override;
  void metaEmit(const std::string& signal, const mz::GenericFunctionParameters& params) override;

 private:
  // The object to forward to when this one's connection is gone and a
  // rebinder found the service again; nullptr while this one is usable.
  // Throws through the bridge when neither is possible.
  std::shared_ptr<mz::GenericObject> redirect() const;
  // The uid of the overload of `method` that takes these arguments, from a
  // cache keyed by the name and the argument kinds; -1 when the catalogue is
  // not known or accepts nothing (the other side then resolves by name).
  int resolveCached(const std::string& method, const mz::GenericFunctionParameters& params);
  mz::AnyValue call(RX::RXValue method, const mz::GenericFunctionParameters& params);
  mz::AnyValue untrackedCall(const std::string& method, const mz::GenericFunctionParameters& params);
  mz::AnyValue untrackedCallById(unsigned int uid, const mz::GenericFunctionParameters& params);
  // Runs makeCall() and reports it (see noteCall); REQUIRES: tracked_.
  template <typename F>
  mz::AnyValue trackedCall(const std::string& method, const mz::GenericFunctionParameters& params,
                           F&& makeCall);
  // Reports a call made on a tracked handle, and tracks the object it returned.
  void noteCall(const std::string& method, const mz::GenericFunctionParameters& params,
                const mz::AnyValue* result);
  std::string displayName() const;
  // "no method named foo", "no method foo accepting (string, int)".
  std::string noMethodText(const std::string& method, const mz::GenericFunctionParameters& params) const;

  // Constant after construction.
  const std::shared_ptr<ObjectBridge> bridge_;
  const std::uint64_t id_;
  std::atomic<std::uint32_t> received_{1};
  RX::log::Throttle postWarnings_;  // posts dropped for want of a matching method

  // Guarded by metaMutex_; meta_ never changes once haveMeta_ is set, so the
  // reference metaObject() returns stays valid.
  mutable std::mutex metaMutex_;
  mutable bool haveMeta_ = false;
  mutable mz::MetaObject meta_;
  mutable std::atomic<bool> metaKnown_{false};  // haveMeta_, readable without the lock
  std::string displayName_ = "remote object";

  // Set once by track() under metaMutex_ before tracked_ turns true, then
  // never changed: readable without the lock once tracked_ is seen true.
  std::atomic<bool> tracked_{false};
  std::shared_ptr<SubscriptionJournal> journal_;
  std::shared_ptr<const ObjectOrigin> origin_;

  // Guarded by cacheMutex_.
  std::mutex cacheMutex_;
  std::unordered_map<std::string, int> uidCache_;

  // Guarded by redirectMutex_.
  mutable std::mutex redirectMutex_;
  Rebinder rebinder_;
  mutable std::shared_ptr<mz::GenericObject> redirect_;
};

}  // namespace net
