#include "net/objectbridge.h"

#include <stdexcept>
#include <utility>
#include <vector>

#include "net/connection.h"
#include "net/metacodec.h"
#include "net/remoteobject.h"
#include "rx/rxerror.h"
#include "rx/rxlog.h"

namespace net {

namespace {

RX::log::Category& bridgeLog() {
  static RX::log::Category& cat = RX::log::category("net.object");
  return cat;
}

// Link ids handed to local subscribers: unique in the process, so a link
// given to the wrong object is simply not found there.
std::atomic<mz::SignalLink> gNextLocalLink{(mz::SignalLink(1) << 48) + 1};

// A request whose fields do not have the expected shape.
class BadRequest : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

const char* kindName(std::uint8_t kind) {
  switch (static_cast<MessageKind>(kind)) {
    case MessageKind::Call:
      return "Call";
    case MessageKind::Post:
      return "Post";
    case MessageKind::Connect:
      return "Connect";
    case MessageKind::Disconnect:
      return "Disconnect";
    case MessageKind::Emit:
      return "Emit";
    case MessageKind::Release:
      return "Release";
    case MessageKind::MetaObject:
      return "MetaObject";
    case MessageKind::Trigger:
      return "Trigger";
    default:
      return "request";
  }
}

const RX::RXValue& field(const Message& m, std::size_t index, RX::RXValue::Type type, const char* what) {
  if (index >= m.fields.size())
    throw BadRequest(std::string("bad ") + kindName(m.kind) + ": missing field " + std::to_string(index) +
                     " (" + what + ")");
  const RX::RXValue& v = m.fields[index];
  if (v.getType() != type)
    throw BadRequest(std::string("bad ") + kindName(m.kind) + ": field " + std::to_string(index) + " (" +
                     what + ") should be " + RX::RXValue::TypeToString(type) + ", got " +
                     RX::RXValue::TypeToString(v.getType()));
  return v;
}

std::uint32_t idField(const Message& m, std::size_t index, const char* what) {
  const int v = field(m, index, RX::RXValue::TypeInt, what).toInt();
  if (v <= 0) throw BadRequest(std::string("bad ") + kindName(m.kind) + ": " + what + " must be positive");
  return static_cast<std::uint32_t>(v);
}

// Moves the elements of an argument array into call parameters.
mz::GenericFunctionParameters takeArgs(Message& m, std::size_t index) {
  field(m, index, RX::RXValue::TypeArray, "arguments");
  RX::RXValue& args = m.fields[index];
  mz::GenericFunctionParameters params;
  params.reserve(args.getSize());
  for (std::size_t i = 0; i < args.getSize(); ++i) params.emplace_back(std::move(args[i]));
  return params;
}

// Methods with this mask bit hand out raw addresses of this process.
constexpr int kLocalOnlyMask = 4;

[[noreturn]] void refuseLocalOnly(const mz::MetaMethod& m, const std::string& role) {
  throw RX::RXError(m.className, m.name,
                    m.name + " returns an address that is only valid inside the " + role +
                        " process and cannot be called remotely");
}

}  // namespace

ObjectBridge::ObjectBridge(std::string peerName, std::string localRole)
    : peerName_(std::move(peerName)),
      localRole_(std::move(localRole)),
      encoder_([this](const mz::AnyObject& o) { return encodeObject(o); }),
      decoder_([this](std::uint64_t id) { return decodeObject(id); }) {}

ObjectBridge::~ObjectBridge() = default;

// ---- Object references ----

std::uint64_t ObjectBridge::encodeObject(const mz::AnyObject& object) {
  if (!object.isValid()) throw std::runtime_error("cannot send a null object");
  if (auto* remote = dynamic_cast<RemoteObject*>(object.impl().get())) {
    if (remote->bridge().get() == this) return remote->remoteId() | kHandBackBit;
  }
  const void* identity = object.impl()->identity();
  std::lock_guard<std::mutex> lock(mutex_);
  if (isClosed()) throw std::runtime_error("connection to " + peerName_ + " is closed");
  auto known = exportIds_.find(identity);
  if (known != exportIds_.end()) {
    ++exports_[known->second].sent;
    return known->second;
  }
  if (nextExportId_ > kMaxId)
    throw std::runtime_error("object ids exhausted on the connection to " + peerName_);
  const std::uint64_t id = nextExportId_++;
  exports_.emplace(id, Export{object, 1});
  exportIds_.emplace(identity, id);
  return id;
}

mz::AnyObject ObjectBridge::decodeObject(std::uint64_t wireId) {
  if (wireId & kHandBackBit) {
    const std::uint64_t id = wireId & ~kHandBackBit;
    mz::AnyObject object = exported(id);
    if (!object.isValid())
      throw DecodeError("object " + std::to_string(id) + " is not exported to " + peerName_);
    return object;
  }
  if (wireId == 0 || wireId > kMaxId) throw DecodeError("bad object id " + std::to_string(wireId));
  std::lock_guard<std::mutex> lock(mutex_);
  if (isClosed()) throw DecodeError("connection to " + peerName_ + " is closed");
  std::weak_ptr<RemoteObject>& slot = imports_[wireId];
  if (std::shared_ptr<RemoteObject> live = slot.lock()) {
    live->addReceived();
    return mz::AnyObject(std::move(live));
  }
  auto fresh = std::make_shared<RemoteObject>(shared_from_this(), wireId);
  slot = fresh;
  return mz::AnyObject(std::move(fresh));
}

void ObjectBridge::onImportDestroyed(std::uint64_t id, std::uint32_t received,
                                     const RemoteObject* /*object*/) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = imports_.find(id);
    // A newer handle for the same id may have taken the slot meanwhile.
    if (it != imports_.end() && it->second.expired()) imports_.erase(it);
    if (isClosed()) return;
  }
  onImportDropped(id);
  Message release;
  release.kind = static_cast<std::uint8_t>(MessageKind::Release);
  release.fields = {RX::RXValue(static_cast<int>(id)), RX::RXValue(static_cast<int>(received))};
  sendOneWay(std::move(release));
}

mz::AnyObject ObjectBridge::exported(std::uint64_t id) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = exports_.find(id);
  return it == exports_.end() ? mz::AnyObject() : it->second.object;
}

std::size_t ObjectBridge::exportCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return exports_.size();
}

std::size_t ObjectBridge::importCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::size_t n = 0;
  for (const auto& entry : imports_) n += entry.second.expired() ? 0 : 1;
  return n;
}

std::size_t ObjectBridge::linkCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return outLinks_.size() + inLinks_.size();
}

// ---- Requests towards the other side ----

Message ObjectBridge::roundTrip(Message request) {
  if (isClosed()) throwGone();
  Message reply = exchange(std::move(request));
  throwIfError(reply);
  return reply;
}

mz::SignalLink ObjectBridge::connectRemote(std::uint64_t targetId, const std::string& signal,
                                           mz::SignalSubscriber subscriber) {
  const mz::SignalLink local = gNextLocalLink.fetch_add(1, std::memory_order_relaxed);
  std::uint32_t wireId;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (isClosed()) throwGone();
    if (nextLinkId_ > kMaxId)
      throw std::runtime_error("link ids exhausted on the connection to " + peerName_);
    wireId = nextLinkId_++;
    // Registered before asking, so that an emission racing the reply is not lost.
    inLinks_.emplace(wireId, InboundLink{std::move(subscriber), local});
    inLinkIds_.emplace(local, wireId);
  }
  Message connect;
  connect.kind = static_cast<std::uint8_t>(MessageKind::Connect);
  connect.fields = {RX::RXValue(static_cast<int>(targetId)), RX::RXValue(signal),
                    RX::RXValue(static_cast<int>(wireId))};
  try {
    (void)roundTrip(std::move(connect));
  } catch (...) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      inLinks_.erase(wireId);
      inLinkIds_.erase(local);
    }
    onInboundLinkDropped(wireId);
    throw;
  }
  return local;
}

bool ObjectBridge::disconnectRemote(mz::SignalLink link) {
  std::uint32_t wireId;
  mz::SignalSubscriber dropped;  // released outside the lock
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = inLinkIds_.find(link);
    if (it == inLinkIds_.end()) return false;
    wireId = it->second;
    inLinkIds_.erase(it);
    auto in = inLinks_.find(wireId);
    if (in != inLinks_.end()) {
      dropped = std::move(in->second.subscriber);
      inLinks_.erase(in);
    }
  }
  onInboundLinkDropped(wireId);
  if (isClosed()) return true;
  Message disconnect;
  disconnect.kind = static_cast<std::uint8_t>(MessageKind::Disconnect);
  disconnect.fields = {RX::RXValue(static_cast<int>(wireId))};
  (void)roundTrip(std::move(disconnect));
  return true;
}

// ---- Errors ----

void ObjectBridge::makeErrorReply(std::uint32_t requestId, std::exception_ptr error, Message& reply) {
  reply.kind = static_cast<std::uint8_t>(MessageKind::Error);
  reply.requestId = requestId;
  try {
    std::rethrow_exception(error);
  } catch (const RX::RXError& e) {
    reply.fields = {RX::RXValue("rx"),        RX::RXValue(e.module()), RX::RXValue(e.method()),
                    RX::RXValue(e.message()), RX::RXValue(e.file()),   RX::RXValue(e.line())};
  } catch (const std::exception& e) {
    reply.fields = {RX::RXValue("framework"), RX::RXValue(""), RX::RXValue(""), RX::RXValue(e.what())};
  } catch (...) {
    reply.fields = {RX::RXValue("framework"), RX::RXValue(""), RX::RXValue(""),
                    RX::RXValue("an exception that is not a std::exception")};
  }
}

void ObjectBridge::throwIfError(const Message& message) {
  if (message.kind != static_cast<std::uint8_t>(MessageKind::Error)) return;
  auto text = [&](std::size_t i) {
    return i < message.fields.size() && message.fields[i].isString() ? message.fields[i].toStdString()
                                                                     : std::string();
  };
  if (text(0) == "rx") {
    const int line = message.fields.size() > 5 && message.fields[5].isInt() ? message.fields[5].toInt() : 0;
    throw RX::RXError(text(1), text(2), text(3), text(4), line);
  }
  throw RemoteError(text(3));
}

// ---- Serving the other side ----

bool ObjectBridge::isObjectRequest(std::uint8_t kind) {
  switch (static_cast<MessageKind>(kind)) {
    case MessageKind::Call:
    case MessageKind::Post:
    case MessageKind::Connect:
    case MessageKind::Disconnect:
    case MessageKind::Emit:
    case MessageKind::Release:
    case MessageKind::MetaObject:
    case MessageKind::Trigger:
      return true;
    default:
      return false;
  }
}

bool ObjectBridge::serve(Message& request, Message& reply) {
  const auto kind = static_cast<MessageKind>(request.kind);
  const bool answers = kind != MessageKind::Post && kind != MessageKind::Release && kind != MessageKind::Emit;
  try {
    if (isClosed()) throwGone();
    reply.kind = static_cast<std::uint8_t>(MessageKind::Reply);
    reply.requestId = request.requestId;
    reply.fields.clear();
    switch (kind) {
      case MessageKind::Call:
        serveCall(request, reply);
        break;
      case MessageKind::Post:
        servePost(request);
        break;
      case MessageKind::Connect:
        serveConnect(request);
        break;
      case MessageKind::Disconnect:
        serveDisconnect(request);
        break;
      case MessageKind::Trigger:
        serveTrigger(request);
        break;
      case MessageKind::MetaObject:
        serveMetaObject(request, reply);
        break;
      case MessageKind::Release:
        serveRelease(request);
        break;
      case MessageKind::Emit:
        serveEmit(request);
        break;
      default:
        throw BadRequest("unexpected message kind " + std::to_string(request.kind));
    }
  } catch (...) {
    if (!answers) {
      try {
        throw;
      } catch (const std::exception& e) {
        // A client that hangs up may still have one-way frames in flight on its
        // other connections: failing those is part of a normal goodbye.
        if (isClosed())
          RX_DEBUG(bridgeLog(), kindName(request.kind) << " from " << peerName_ << " failed: " << e.what());
        else
          RX_WARNING(bridgeLog(), kindName(request.kind) << " from " << peerName_ << " failed: " << e.what());
      } catch (...) {
        RX_WARNING(bridgeLog(), kindName(request.kind) << " from " << peerName_ << " failed");
      }
      return false;
    }
    makeErrorReply(request.requestId, std::current_exception(), reply);
  }
  return answers;
}

// Call [objectId, method (uid or name), args] -> Reply [value]
void ObjectBridge::serveCall(Message& request, Message& reply) {
  const std::uint32_t id = idField(request, 0, "objectId");
  if (request.fields.size() < 2) field(request, 1, RX::RXValue::TypeString, "method");
  mz::GenericFunctionParameters params = takeArgs(request, 2);
  const mz::AnyObject target = exported(id);
  if (!target.isValid())
    throw RemoteError("object " + std::to_string(id) + " is not exported to " + peerName_);
  const mz::MetaObject& meta = target.metaObject();
  const RX::RXValue& method = request.fields[1];
  int uid;
  if (method.isInt()) {
    uid = method.toInt();
    if (uid < 0 || static_cast<std::size_t>(uid) >= meta.methods.size())
      throw mz::MethodNotFoundError("no method with uid " + std::to_string(uid));
  } else if (method.isString()) {
    uid = meta.resolve(method.toStdString(), params);
    // Nothing fits: the object itself says why, in its own words.
    if (uid < 0) {
      mz::AnyValue result = target.call(method.toStdString(), params);
      reply.fields.push_back(result.toRXValue());
      return;
    }
  } else {
    field(request, 1, RX::RXValue::TypeString, "method");
    return;
  }
  const mz::MetaMethod& m = meta.methods[static_cast<std::size_t>(uid)];
  if (m.mask & kLocalOnlyMask) refuseLocalOnly(m, localRole_);
  mz::AnyValue result = target.impl()->metaCallById(static_cast<unsigned int>(uid), params);
  reply.fields.push_back(result.toRXValue());
}

// Post [objectId, method, args]
void ObjectBridge::servePost(Message& request) {
  const std::uint32_t id = idField(request, 0, "objectId");
  std::string method = field(request, 1, RX::RXValue::TypeString, "method").toStdString();
  mz::GenericFunctionParameters params = takeArgs(request, 2);
  const mz::AnyObject target = exported(id);
  if (!target.isValid())
    throw RemoteError("object " + std::to_string(id) + " is not exported to " + peerName_);
  for (const mz::MetaMethod& m : target.metaObject().methods)
    if (m.name == method && (m.mask & kLocalOnlyMask)) refuseLocalOnly(m, localRole_);
  deliverPost(id, target, std::move(method), std::move(params));
}

// Connect [objectId, signal, linkId] -> Reply []
void ObjectBridge::serveConnect(Message& request) {
  const std::uint32_t id = idField(request, 0, "objectId");
  const std::string& signal = field(request, 1, RX::RXValue::TypeString, "signal").toStdString();
  const std::uint32_t linkId = idField(request, 2, "linkId");
  const mz::AnyObject target = exported(id);
  if (!target.isValid())
    throw RemoteError("object " + std::to_string(id) + " is not exported to " + peerName_);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (outLinks_.count(linkId)) throw BadRequest("link " + std::to_string(linkId) + " is already connected");
    outLinks_.emplace(linkId, OutboundLink{target, mz::kInvalidSignalLink});
  }
  std::weak_ptr<ObjectBridge> self = weak_from_this();
  mz::SignalSubscriber forwarder = [self, linkId](const mz::GenericFunctionParameters& params) {
    std::shared_ptr<ObjectBridge> bridge = self.lock();
    if (!bridge || bridge->isClosed()) return;
    Message emit;
    emit.kind = static_cast<std::uint8_t>(MessageKind::Emit);
    RX::RXValue args = RX::RXValue::array(0);
    args.arrayReserve(params.size());
    for (const mz::AnyValue& p : params) args.arrayPush(p.toRXValue());
    emit.fields = {RX::RXValue(static_cast<int>(linkId)), std::move(args)};
    bridge->sendOneWay(std::move(emit));
  };
  mz::SignalLink local;
  try {
    local = target.connect(signal, std::move(forwarder)).value();
  } catch (const mz::FutureError& e) {
    std::lock_guard<std::mutex> lock(mutex_);
    outLinks_.erase(linkId);
    throw std::runtime_error(e.what());
  } catch (...) {
    std::lock_guard<std::mutex> lock(mutex_);
    outLinks_.erase(linkId);
    throw;
  }
  bool keep = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = outLinks_.find(linkId);
    if (it != outLinks_.end() && !isClosed()) {
      it->second.local = local;
      keep = true;
    }
  }
  // Closed (or disconnected) while connecting: undo.
  if (!keep) target.disconnect(local);
}

// Disconnect [linkId] -> Reply []
void ObjectBridge::serveDisconnect(Message& request) {
  const std::uint32_t linkId = idField(request, 0, "linkId");
  OutboundLink link;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = outLinks_.find(linkId);
    if (it == outLinks_.end()) throw BadRequest("link " + std::to_string(linkId) + " is not connected");
    link = std::move(it->second);
    outLinks_.erase(it);
  }
  if (link.local != mz::kInvalidSignalLink) link.object.disconnect(link.local).waitAndCheck();
}

// Trigger [objectId, signal, args] -> Reply []
void ObjectBridge::serveTrigger(Message& request) {
  const std::uint32_t id = idField(request, 0, "objectId");
  const std::string signal = field(request, 1, RX::RXValue::TypeString, "signal").toStdString();
  mz::GenericFunctionParameters params = takeArgs(request, 2);
  const mz::AnyObject target = exported(id);
  if (!target.isValid())
    throw RemoteError("object " + std::to_string(id) + " is not exported to " + peerName_);
  target.emit(signal, params);
}

// MetaObject [objectId] -> Reply [meta]
void ObjectBridge::serveMetaObject(Message& request, Message& reply) {
  const std::uint32_t id = idField(request, 0, "objectId");
  const mz::AnyObject target = exported(id);
  if (!target.isValid())
    throw RemoteError("object " + std::to_string(id) + " is not exported to " + peerName_);
  reply.fields.push_back(encodeMetaObject(target.metaObject()));
}

// Release [objectId, count]
void ObjectBridge::serveRelease(Message& request) {
  const std::uint32_t id = idField(request, 0, "objectId");
  const std::uint32_t count = idField(request, 1, "count");
  mz::AnyObject released;  // may be the last handle: dropped outside the lock
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = exports_.find(id);
    if (it == exports_.end()) return;
    if (it->second.sent > count) {
      it->second.sent -= count;
      return;
    }
    released = std::move(it->second.object);
    exportIds_.erase(released.impl()->identity());
    exports_.erase(it);
  }
  onExportDropped(id);
}

// Emit [linkId, args]
void ObjectBridge::serveEmit(Message& request) {
  const std::uint32_t linkId = idField(request, 0, "linkId");
  mz::GenericFunctionParameters params = takeArgs(request, 1);
  mz::SignalSubscriber subscriber;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = inLinks_.find(linkId);
    // Disconnected meanwhile: emissions already on their way are dropped.
    if (it == inLinks_.end()) return;
    subscriber = it->second.subscriber;
  }
  deliverEmit(linkId, subscriber, std::move(params));
}

// ---- End ----

void ObjectBridge::closeObjects() {
  std::unordered_map<std::uint64_t, Export> exports;
  std::unordered_map<std::uint32_t, OutboundLink> outLinks;
  std::unordered_map<std::uint32_t, InboundLink> inLinks;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_.exchange(true, std::memory_order_acq_rel)) return;
    exports.swap(exports_);
    exportIds_.clear();
    outLinks.swap(outLinks_);
    inLinks.swap(inLinks_);
    inLinkIds_.clear();
    imports_.clear();
  }
  for (auto& entry : outLinks) {
    if (entry.second.local == mz::kInvalidSignalLink) continue;
    try {
      entry.second.object.disconnect(entry.second.local);
    } catch (const mz::ObjectGoneError&) {
      // The object went first (a module that exited): nothing left to disconnect.
    } catch (const std::exception& e) {
      RX_WARNING(bridgeLog(), "cannot disconnect a signal followed by " << peerName_ << ": " << e.what());
    }
  }
  // exports, links and their subscribers are released here, outside the lock.
}

}  // namespace net
