#include "net/subscriptionjournal.h"

#include <string_view>
#include <vector>

#include "net/objectbridge.h"
#include "net/remoteobject.h"
#include "rx/rxlog.h"

namespace net {

namespace {

RX::log::Category& journalLog() {
  static RX::log::Category& cat = RX::log::category("net.client");
  return cat;
}

bool isString(const mz::AnyValue& v) { return v.isRXValue() && v.toRXValue().isString(); }

// The (event, module) a subscribe or unsubscribe call names; false when the
// arguments do not have that shape (the memory refused such a call anyway).
bool subscriptionKey(const mz::GenericFunctionParameters& params, std::pair<std::string, std::string>& key) {
  if (params.size() < 2 || !isString(params[0]) || !isString(params[1])) return false;
  key = {params[0].toRXValue().toStdString(), params[1].toRXValue().toStdString()};
  return true;
}

// Set while this thread replays: what a replay does on the new connection is
// already in the journal, and objects it obtains may be tracked ones (the
// connection reuses a live handle of the same object).
thread_local bool tReplaying = false;

struct ReplayScope {
  ReplayScope() { tReplaying = true; }
  ~ReplayScope() { tReplaying = false; }
  ReplayScope(const ReplayScope&) = delete;
  ReplayScope& operator=(const ReplayScope&) = delete;
};

std::string describeOrigin(const ObjectOrigin& origin) {
  return origin.method.empty() ? origin.service : origin.service + "." + origin.method + "(...)";
}

}  // namespace

std::shared_ptr<const ObjectOrigin> SubscriptionJournal::serviceOrigin(const std::string& service) {
  auto origin = std::make_shared<ObjectOrigin>();
  origin->service = service;
  origin->memory = service == kMemoryService;
  return origin;
}

void SubscriptionJournal::noteCall(const ObjectOrigin& origin, const std::string& method,
                                   const mz::GenericFunctionParameters& params, bool succeeded) {
  if (!origin.memory || !origin.method.empty() || tReplaying) return;
  // Called on every memory call: names are told apart by string_view, which
  // compares lengths first, and nothing is allocated for other methods.
  const std::string_view name(method);
  const bool subscribe = name == "subscribeToEvent" || name == "subscribeToMicroEvent";
  const bool unsubscribe = name == "unsubscribeToEvent" || name == "unsubscribeToMicroEvent";
  const bool mapping = name == "addMapping";
  if (!subscribe && !unsubscribe && !mapping) return;
  if (!succeeded && !unsubscribe) return;
  Key key;
  if (subscribe) {
    if (params.size() < 3 || params.size() > 4 || !subscriptionKey(params, key)) return;
    std::lock_guard<std::mutex> lock(mutex_);
    subscriptions_[key] = Call{method, params};
  } else if (unsubscribe) {
    if (!subscriptionKey(params, key)) return;
    std::lock_guard<std::mutex> lock(mutex_);
    subscriptions_.erase(key);
  } else if (params.size() == 3 && isString(params[0]) && isString(params[1]) && isString(params[2])) {
    std::lock_guard<std::mutex> lock(mutex_);
    mappings_[{params[0].toRXValue().toStdString(), params[1].toRXValue().toStdString()}] =
        params[2].toRXValue().toStdString();
  } else if (params.size() == 2 && isString(params[0])) {
    std::map<std::string, std::string> signalEvent;
    try {
      signalEvent = params[1].toStringMap();
    } catch (const std::exception&) {
      return;
    }
    const std::string service = params[0].toRXValue().toStdString();
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& entry : signalEvent) mappings_[{service, entry.first}] = entry.second;
  }
}

void SubscriptionJournal::noteConnect(std::shared_ptr<const ObjectOrigin> origin, const std::string& signal,
                                      const mz::SignalSubscriber& subscriber, mz::MetaCallType callType,
                                      mz::SignalLink link) {
  if (tReplaying) return;
  Connection connection;
  connection.origin = std::move(origin);
  connection.signal = signal;
  connection.subscriber = subscriber;
  connection.callType = callType;
  connection.current = link;
  std::lock_guard<std::mutex> lock(mutex_);
  connections_[link] = std::move(connection);
}

SubscriptionJournal::Forgotten SubscriptionJournal::forgetConnection(mz::SignalLink link) {
  Connection forgotten;  // its subscriber is released outside the lock
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = connections_.find(link);
    if (it == connections_.end()) return Forgotten::Unknown;
    forgotten = std::move(it->second);
    connections_.erase(it);
  }
  if (forgotten.current == link) return Forgotten::Original;
  // Remade on a later connection: the application's id stands for that one.
  std::shared_ptr<ObjectBridge> bridge = forgotten.bridge.lock();
  if (bridge && !bridge->isClosed()) bridge->disconnectRemote(forgotten.current);
  return Forgotten::Remade;
}

void SubscriptionJournal::replay(const std::function<mz::AnyObject(const std::string&)>& lookup,
                                 const std::function<bool()>& stopping) {
  std::map<Key, std::string> mappings;
  std::map<Key, Call> subscriptions;
  std::vector<std::pair<mz::SignalLink, Connection>> connections;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    mappings = mappings_;
    subscriptions = subscriptions_;
    connections.assign(connections_.begin(), connections_.end());
  }
  if (mappings.empty() && subscriptions.empty() && connections.empty()) return;

  const ReplayScope scope;
  // Looked up once per replay; a service that cannot be found fails only the
  // items that need it.
  std::map<std::string, mz::AnyObject> services;
  const std::function<mz::AnyObject(const std::string&)> service = [&](const std::string& name) {
    auto it = services.find(name);
    if (it != services.end()) return it->second;
    mz::AnyObject object = lookup(name);
    if (!object.isValid()) throw std::runtime_error("Service not found: " + name);
    services.emplace(name, object);
    return object;
  };

  std::size_t done = 0, failed = 0;
  for (const auto& entry : mappings) {
    if (stopping()) return;
    try {
      service(kMemoryService)
          .call("addMapping",
                mz::GenericFunctionParameters{mz::AnyValue(entry.first.first),
                                              mz::AnyValue(entry.first.second), mz::AnyValue(entry.second)});
      ++done;
    } catch (const std::exception& e) {
      ++failed;
      RX_WARNING(journalLog(), "cannot make the mapping " << entry.first.first << "." << entry.first.second
                                                          << " -> " << entry.second
                                                          << " again: " << e.what());
    }
  }
  for (const auto& entry : subscriptions) {
    if (stopping()) return;
    try {
      service(kMemoryService).call(entry.second.method, entry.second.params);
      ++done;
    } catch (const std::exception& e) {
      ++failed;
      RX_WARNING(journalLog(), "cannot make the subscription of " << entry.first.second << " to "
                                                                  << entry.first.first
                                                                  << " again: " << e.what());
    }
  }
  for (const auto& entry : connections) {
    if (stopping()) return;
    try {
      replayConnection(entry.first, entry.second, service);
      ++done;
    } catch (const std::exception& e) {
      ++failed;
      RX_WARNING(journalLog(), "cannot connect to " << describeOrigin(*entry.second.origin) << " signal "
                                                    << entry.second.signal << " again: " << e.what());
    }
  }
  RX_INFO(journalLog(), "made " << done << " subscriptions, mappings and signal connections again"
                                << (failed ? " (" + std::to_string(failed) + " failed)" : std::string()));
}

void SubscriptionJournal::replayConnection(mz::SignalLink link, const Connection& connection,
                                           const std::function<mz::AnyObject(const std::string&)>& service) {
  const ObjectOrigin& origin = *connection.origin;
  mz::AnyObject object = service(origin.service);
  if (!origin.method.empty()) object = object.call(origin.method, origin.params).toObject();
  auto* remote = dynamic_cast<RemoteObject*>(object.impl().get());
  if (!remote) throw std::runtime_error(describeOrigin(origin) + " is not an object of the broker");
  mz::SignalLink fresh;
  try {
    fresh = object.connect(connection.signal, connection.subscriber, connection.callType).value();
  } catch (const mz::FutureError& e) {
    throw std::runtime_error(e.what());
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = connections_.find(link);
    if (it != connections_.end()) {
      it->second.bridge = remote->bridge();
      it->second.current = fresh;
      return;
    }
  }
  // Disconnected by the application meanwhile: undo.
  remote->bridge()->disconnectRemote(fresh);
}

void SubscriptionJournal::clear() {
  std::map<Key, Call> subscriptions;
  std::map<Key, std::string> mappings;
  std::map<mz::SignalLink, Connection> connections;
  std::lock_guard<std::mutex> lock(mutex_);
  subscriptions.swap(subscriptions_);
  mappings.swap(mappings_);
  connections.swap(connections_);
}

}  // namespace net
