#include "net/remoteobject.h"

#include <utility>

#include "net/connection.h"
#include "net/metacodec.h"
#include "net/objectbridge.h"
#include "net/subscriptionjournal.h"

namespace net {

namespace {

RX::log::Category& objectLog() {
  static RX::log::Category& cat = RX::log::category("net.object");
  return cat;
}

// One letter per argument: what overload resolution looks at. Arrays are
// told apart by content because lists of strings and of string pairs pick
// different overloads.
char kindCode(const mz::AnyValue& arg) {
  if (arg.isOther()) return 0;
  const RX::RXValue& v = arg.toRXValue();
  switch (v.getType()) {
    case RX::RXValue::TypeInvalid:
      return 'n';
    case RX::RXValue::TypeBool:
      return 'b';
    case RX::RXValue::TypeInt:
      return 'i';
    case RX::RXValue::TypeFloat:
      return 'f';
    case RX::RXValue::TypeString:
      return 's';
    case RX::RXValue::TypeObject:
      return 'o';
    case RX::RXValue::TypeBinary:
      return 'y';
    case RX::RXValue::TypeArray: {
      const std::size_t n = v.getSize();
      if (n == 0) return 'E';
      bool strings = true, pairs = true;
      for (std::size_t i = 0; i < n && (strings || pairs); ++i) {
        const RX::RXValue& e = v[i];
        strings = strings && e.isString();
        pairs = pairs && e.isArray() && e.getSize() == 2 && e[0].isString() && e[1].isString();
      }
      return strings ? 'L' : pairs ? 'M' : 'A';
    }
  }
  return 0;
}

RX::RXValue argumentArray(const mz::GenericFunctionParameters& params) {
  RX::RXValue args = RX::RXValue::array(0);
  args.arrayReserve(params.size());
  for (const mz::AnyValue& p : params) args.arrayPush(p.toRXValue());
  return args;
}

Message request(MessageKind kind, std::uint64_t id) {
  Message m;
  m.kind = static_cast<std::uint8_t>(kind);
  m.fields.reserve(3);
  m.fields.emplace_back(static_cast<int>(id));
  return m;
}

}  // namespace

RemoteObject::RemoteObject(std::shared_ptr<ObjectBridge> bridge, std::uint64_t id)
    : bridge_(std::move(bridge)), id_(id) {}

RemoteObject::~RemoteObject() {
  bridge_->onImportDestroyed(id_, received_.load(std::memory_order_relaxed), this);
}

void RemoteObject::setMetaObject(const mz::MetaObject& meta) {
  std::lock_guard<std::mutex> lock(metaMutex_);
  if (haveMeta_) return;
  meta_ = meta;
  haveMeta_ = true;
  metaKnown_.store(true, std::memory_order_release);
}

bool RemoteObject::hasMetaObject() const { return metaKnown_.load(std::memory_order_acquire); }

void RemoteObject::setDisplayName(const std::string& name) {
  std::lock_guard<std::mutex> lock(metaMutex_);
  displayName_ = name;
}

std::string RemoteObject::displayName() const {
  std::lock_guard<std::mutex> lock(metaMutex_);
  return displayName_;
}

std::string RemoteObject::noMethodText(const std::string& method,
                                       const mz::GenericFunctionParameters& params) const {
  // REQUIRES: the catalogue is known.
  if (meta_.findMethod(method).empty()) return "no method named " + method;
  return "no method " + method + " accepting " + mz::MetaObject::describeArguments(params);
}

void RemoteObject::setRebinder(Rebinder rebinder) {
  std::lock_guard<std::mutex> lock(redirectMutex_);
  rebinder_ = std::move(rebinder);
}

void RemoteObject::track(std::shared_ptr<SubscriptionJournal> journal,
                         std::shared_ptr<const ObjectOrigin> origin) {
  std::lock_guard<std::mutex> lock(metaMutex_);
  if (tracked_.load(std::memory_order_relaxed) || !journal || !origin) return;
  journal_ = std::move(journal);
  origin_ = std::move(origin);
  tracked_.store(true, std::memory_order_release);
}

void RemoteObject::noteCall(const std::string& method, const mz::GenericFunctionParameters& params,
                            const mz::AnyValue* result) {
  journal_->noteCall(*origin_, method, params, result != nullptr);
  // An object returned by a call on a service can be obtained again by
  // making that call again (the key signal object of the memory's subscriber(key)).
  if (!result || !origin_->method.empty() || !result->isRXValue() || !result->toRXValue().isObject()) return;
  auto* returned = dynamic_cast<RemoteObject*>(result->toRXValue().toObject().impl().get());
  if (!returned || returned->tracked_.load(std::memory_order_acquire)) return;
  auto origin = std::make_shared<ObjectOrigin>();
  origin->service = origin_->service;
  origin->method = method;
  origin->params = params;
  returned->track(journal_, std::move(origin));
}

std::shared_ptr<mz::GenericObject> RemoteObject::redirect() const {
  std::lock_guard<std::mutex> lock(redirectMutex_);
  if (redirect_) {
    auto* remote = dynamic_cast<RemoteObject*>(redirect_.get());
    if (!remote || !remote->bridge()->isClosed()) return redirect_;
    redirect_.reset();
  }
  if (!rebinder_) bridge_->throwGone();
  mz::AnyObject fresh = rebinder_();
  if (!fresh.isValid()) bridge_->throwGone();
  redirect_ = fresh.impl();
  return redirect_;
}

const mz::MetaObject& RemoteObject::metaObject() const {
  if (metaKnown_.load(std::memory_order_acquire)) return meta_;
  std::lock_guard<std::mutex> lock(metaMutex_);
  if (haveMeta_) return meta_;
  if (bridge_->isClosed()) {
    meta_ = redirect()->metaObject();
  } else {
    Message reply = bridge_->roundTrip(request(MessageKind::MetaObject, id_));
    if (reply.fields.empty()) throw RemoteError("empty MetaObject reply from " + bridge_->peerName());
    meta_ = decodeMetaObject(reply.fields[0]);
  }
  haveMeta_ = true;
  metaKnown_.store(true, std::memory_order_release);
  return meta_;
}

int RemoteObject::resolveCached(const std::string& method, const mz::GenericFunctionParameters& params) {
  if (!metaKnown_.load(std::memory_order_acquire)) return -1;
  thread_local std::string key;
  key.assign(method);
  key.push_back('\0');
  for (const mz::AnyValue& p : params) {
    const char code = kindCode(p);
    if (code == 0) return -1;
    key.push_back(code);
  }
  {
    std::lock_guard<std::mutex> lock(cacheMutex_);
    auto it = uidCache_.find(key);
    if (it != uidCache_.end()) return it->second;
  }
  const int uid = meta_.resolve(method, params);
  std::lock_guard<std::mutex> lock(cacheMutex_);
  // Bounded: a caller inventing method names must not grow it forever.
  if (uidCache_.size() < 1024) uidCache_.emplace(key, uid);
  return uid;
}

mz::AnyValue RemoteObject::call(RX::RXValue method, const mz::GenericFunctionParameters& params) {
  Message m = request(MessageKind::Call, id_);
  m.fields.push_back(std::move(method));
  m.fields.push_back(argumentArray(params));
  Message reply = bridge_->roundTrip(std::move(m));
  if (reply.fields.empty()) return mz::AnyValue();
  return mz::AnyValue(std::move(reply.fields[0]));
}

template <typename F>
mz::AnyValue RemoteObject::trackedCall(const std::string& method, const mz::GenericFunctionParameters& params,
                                       F&& makeCall) {
  mz::AnyValue result;
  try {
    result = makeCall();
  } catch (...) {
    noteCall(method, params, nullptr);
    throw;
  }
  noteCall(method, params, &result);
  return result;
}

mz::AnyValue RemoteObject::metaCall(const std::string& method, const mz::GenericFunctionParameters& params) {
  if (!tracked_.load(std::memory_order_acquire)) return untrackedCall(method, params);
  return trackedCall(method, params, [&] { return untrackedCall(method, params); });
}

mz::AnyValue RemoteObject::untrackedCall(const std::string& method,
                                         const mz::GenericFunctionParameters& params) {
  if (bridge_->isClosed()) return redirect()->metaCall(method, params);
  // A known overload travels as its uid, so the other side skips the lookup;
  // otherwise the name goes and the other side resolves (and words the error).
  const int uid = resolveCached(method, params);
  return call(uid >= 0 ? RX::RXValue(uid) : RX::RXValue(method), params);
}

mz::AnyValue RemoteObject::metaCallById(unsigned int uid, const mz::GenericFunctionParameters& params) {
  if (!tracked_.load(std::memory_order_acquire)) return untrackedCallById(uid, params);
  // The journal goes by method name (the catalogue is known: the uid came from it).
  const mz::MetaObject& meta = metaObject();
  static const std::string kNoName;
  const std::string& name = uid < meta.methods.size() ? meta.methods[uid].name : kNoName;
  return trackedCall(name, params, [&] { return untrackedCallById(uid, params); });
}

mz::AnyValue RemoteObject::untrackedCallById(unsigned int uid, const mz::GenericFunctionParameters& params) {
  if (bridge_->isClosed()) {
    // Uids are only meaningful for the catalogue they came from.
    const std::string name =
        uid < metaObject().methods.size() ? metaObject().methods[uid].name : std::string();
    return redirect()->metaCall(name, params);
  }
  return call(RX::RXValue(static_cast<int>(uid)), params);
}

void RemoteObject::metaPost(const std::string& method, mz::GenericFunctionParameters params) {
  if (bridge_->isClosed()) return redirect()->metaPost(method, std::move(params));
  // A post that can never run is dropped here rather than sent, when the
  // catalogue is known (services always come with theirs). It is not thrown:
  // a poster such as the memory takes an exception for "the target has gone"
  // and forgets the subscriber, whereas a local module with the same mistake
  // keeps its subscription and only logs when the call runs.
  if (metaKnown_.load(std::memory_order_acquire) && resolveCached(method, params) < 0) {
    std::uint64_t held = 0;
    if (postWarnings_.allow(held))
      RX_WARNING(objectLog(), "post to " << displayName() << "." << method << " dropped: "
                                         << noMethodText(method, params) << RX::log::heldBack(held));
    return;
  }
  Message m = request(MessageKind::Post, id_);
  m.fields.emplace_back(method);
  m.fields.push_back(argumentArray(params));
  bridge_->sendPost(id_, std::move(m));
}

mz::Future<mz::SignalLink> RemoteObject::metaConnect(const std::string& signal,
                                                     mz::SignalSubscriber subscriber,
                                                     mz::MetaCallType callType) {
  try {
    // A tracked connection keeps the subscriber to make it again later.
    mz::SignalSubscriber kept;
    if (tracked_.load(std::memory_order_acquire)) kept = subscriber;
    mz::SignalLink link;
    if (bridge_->isClosed())
      link = redirect()->metaConnect(signal, std::move(subscriber), callType).value();
    else
      link = bridge_->connectRemote(id_, signal, std::move(subscriber));
    if (kept) journal_->noteConnect(origin_, signal, kept, callType, link);
    return mz::makeFutureValue<mz::SignalLink>(link);
  } catch (const std::exception& e) {
    return mz::makeFutureError<mz::SignalLink>(e.what());
  }
}

mz::Future<void> RemoteObject::metaDisconnect(mz::SignalLink link) {
  try {
    auto done = [] {
      mz::Promise<void> promise;
      promise.setValue();
      return promise.future();
    };
    // The application's link id stays valid for a connection a replay made
    // again on a later connection to the broker.
    SubscriptionJournal::Forgotten journaled = SubscriptionJournal::Forgotten::Unknown;
    if (tracked_.load(std::memory_order_acquire)) journaled = journal_->forgetConnection(link);
    if (journaled == SubscriptionJournal::Forgotten::Remade) return done();
    if (bridge_->disconnectRemote(link)) return done();
    std::shared_ptr<mz::GenericObject> target;
    {
      std::lock_guard<std::mutex> lock(redirectMutex_);
      target = redirect_;
    }
    if (target) return target->metaDisconnect(link);
    // Lost with its connection to the broker, and now not to be made again.
    if (journaled == SubscriptionJournal::Forgotten::Original) return done();
    return mz::makeFutureError<void>("no signal connection " + std::to_string(link) + " on this object");
  } catch (const std::exception& e) {
    return mz::makeFutureError<void>(e.what());
  }
}

void RemoteObject::metaEmit(const std::string& signal, const mz::GenericFunctionParameters& params) {
  if (bridge_->isClosed()) return redirect()->metaEmit(signal, params);
  Message m = request(MessageKind::Trigger, id_);
  m.fields.emplace_back(signal);
  m.fields.push_back(argumentArray(params));
  (void)bridge_->roundTrip(std::move(m));
}

}  // namespace net
