// net::SubscriptionJournal: what a client session made at the broker that a
// broker restart forgets, kept so that the session can make it again once it
// has reconnected: the memory's event subscriptions and signal mappings (calls
// to the service "RXMemory"), and signal connections on objects of the broker
// (a service, or an object that a call on a service returned). RemoteObjects
// that a session tracks report their calls and connections here.
//
// Thread safety: every member may be called from any thread. No lock is held
// while the broker is called or while a subscriber is released.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "mz/object.h"

namespace net {

class ObjectBridge;

// How to obtain a broker object again on a new connection: the service
// itself when `method` is empty, else what method(params) on it returned.
struct ObjectOrigin {
  std::string service;
  std::string method;
  mz::GenericFunctionParameters params;
  bool memory = false;  // the memory service itself: its calls are journaled
};

class SubscriptionJournal {
 public:
  // The broker's memory, whose subscription and mapping calls are journaled.
  static constexpr const char* kMemoryService = "RXMemory";

  [[nodiscard]] static std::shared_ptr<const ObjectOrigin> serviceOrigin(const std::string& service);

  // After a call on an object of `origin`. On the memory: a successful
  // subscribeToEvent (either overload) or subscribeToMicroEvent is remembered
  // by (event, module), replacing an earlier one as the memory does; an
  // unsubscribeToEvent or unsubscribeToMicroEvent forgets it whatever its
  // outcome (the application wants it gone); a successful addMapping (either
  // overload) is remembered by (service, signal) until clear(). Other calls
  // and other objects cost a flag test.
  void noteCall(const ObjectOrigin& origin, const std::string& method,
                const mz::GenericFunctionParameters& params, bool succeeded);
  // After a successful connect on an object of `origin`: the application
  // knows the connection as `link` for as long as it lives.
  void noteConnect(std::shared_ptr<const ObjectOrigin> origin, const std::string& signal,
                   const mz::SignalSubscriber& subscriber, mz::MetaCallType callType, mz::SignalLink link);

  enum class Forgotten {
    Unknown,   // not a journaled connection
    Original,  // forgotten; the connection made by the application is still to be disconnected
    Remade,    // forgotten, and its remade connection disconnected
  };
  // Forgets the connection the application knows as `link`. When a replay
  // made it again, disconnects the remade one (a failure of that is thrown).
  Forgotten forgetConnection(mz::SignalLink link);

  // Makes everything again on a new connection, whose services `lookup`
  // returns: mappings, then subscriptions, then signal connections (each with
  // the subscriber it was made with). A failure is logged at warning level and
  // the next item is tried; `stopping` is asked before each item.
  void replay(const std::function<mz::AnyObject(const std::string&)>& lookup,
              const std::function<bool()>& stopping);

  // Forgets everything (the session has ended).
  void clear();

 private:
  struct Call {
    std::string method;
    mz::GenericFunctionParameters params;
  };
  struct Connection {
    std::shared_ptr<const ObjectOrigin> origin;
    std::string signal;
    mz::SignalSubscriber subscriber;
    mz::MetaCallType callType = mz::MetaCallType_Auto;
    // Where the connection lives after the last replay (empty before any).
    std::weak_ptr<ObjectBridge> bridge;
    mz::SignalLink current = mz::kInvalidSignalLink;
  };
  using Key = std::pair<std::string, std::string>;

  // Obtains the object again through `service`, connects the subscriber and
  // records where the connection now lives. Throws what fails.
  void replayConnection(mz::SignalLink link, const Connection& connection,
                        const std::function<mz::AnyObject(const std::string&)>& service);

  // Guarded by mutex_.
  mutable std::mutex mutex_;
  std::map<Key, Call> subscriptions_;                 // (event, module) -> the subscribing call
  std::map<Key, std::string> mappings_;               // (service, signal) -> event
  std::map<mz::SignalLink, Connection> connections_;  // by the application's link, oldest first
};

}  // namespace net
