#include "net/peer.h"

#include <utility>

#include "mz/session.h"
#include "net/metacodec.h"
#include "net/outbox.h"
#include "net/remoteobject.h"
#include "rx/rxexecutor.h"
#include "rx/rxlog.h"

namespace net {

namespace {

RX::log::Category& peerLog() {
  static RX::log::Category& cat = RX::log::category("net.peer");
  return cat;
}

thread_local const Peer* tlsRegistrant = nullptr;

// The outbox lane of emissions, service events and releases; posts use their
// target's import id.
constexpr std::uint64_t kEventsLane = ~std::uint64_t(0);

// Marks the current thread as registering on behalf of a peer.
class RegistrantScope {
 public:
  explicit RegistrantScope(const Peer* peer) : previous_(tlsRegistrant) { tlsRegistrant = peer; }
  ~RegistrantScope() { tlsRegistrant = previous_; }

 private:
  const Peer* previous_;
};

Message makeMessage(MessageKind kind, std::uint32_t requestId = 0) {
  Message m;
  m.kind = static_cast<std::uint8_t>(kind);
  m.requestId = requestId;
  return m;
}

std::string peerDescription(const std::string& clientName, const std::string& sessionId) {
  return "client " + (clientName.empty() ? std::string("(unnamed)") : clientName) + " (session " +
         sessionId.substr(0, 8) + ")";
}

const RX::RXValue& expectField(const Message& m, std::size_t i, RX::RXValue::Type type, const char* kind,
                               const char* what) {
  if (i >= m.fields.size() || m.fields[i].getType() != type)
    throw RemoteError(std::string("bad ") + kind + ": field " + std::to_string(i) + " (" + what +
                      ") should be " + RX::RXValue::TypeToString(type));
  return m.fields[i];
}

}  // namespace

Peer::Peer(std::shared_ptr<mz::Session> session, Settings settings, std::string sessionId, std::string clientName)
    : ObjectBridge(peerDescription(clientName, sessionId), "broker"),
      session_(std::move(session)),
      settings_(std::move(settings)),
      sessionId_(std::move(sessionId)),
      clientName_(std::move(clientName)) {}

Peer::~Peer() { close("peer destroyed"); }

const Peer* Peer::currentRegistrant() { return tlsRegistrant; }

// ---- Connections ----

bool Peer::attach(const std::shared_ptr<Connection>& connection, bool isEvent, std::string& why) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (closed_) {
    why = "session " + sessionId_ + " has ended";
    return false;
  }
  if (isEvent) {
    if (eventConnection_) {
      why = "session " + sessionId_ + " already has an event connection";
      return false;
    }
    eventConnection_ = connection;
  }
  connections_.push_back(connection);
  return true;
}

bool Peer::detach(const std::shared_ptr<Connection>& connection) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto it = connections_.begin(); it != connections_.end(); ++it) {
    if (*it == connection) {
      connections_.erase(it);
      break;
    }
  }
  return connections_.empty();
}

bool Peer::hasEventConnection() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return eventConnection_ != nullptr;
}

bool Peer::isPeerClosed() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return closed_;
}

std::vector<unsigned int> Peer::serviceIds() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return std::vector<unsigned int>(services_.begin(), services_.end());
}

// ---- Messages from the client ----

void Peer::reply(Connection& connection, Message& message) {
  try {
    connection.send(message, objectEncoder());
  } catch (const EncodeError& e) {
    // The result cannot travel (too large, an object on a closed link): the
    // caller still gets an answer.
    Message error;
    makeErrorReply(message.requestId,
                   std::make_exception_ptr(RemoteError(std::string("cannot send the reply: ") + e.what())),
                   error);
    try {
      connection.send(error);
    } catch (const std::exception&) {
    }
  } catch (const std::exception& e) {
    RX_DEBUG(peerLog(), "cannot reply to " << peerName() << ": " << e.what());
  }
}

void Peer::handleCallMessage(Connection& connection, Message& message) {
  Message out;
  const auto kind = static_cast<MessageKind>(message.kind);
  if (ObjectBridge::isObjectRequest(message.kind)) {
    if (serve(message, out)) reply(connection, out);
    return;
  }
  try {
    out = makeMessage(MessageKind::Reply, message.requestId);
    switch (kind) {
      case MessageKind::Ping:
        out.kind = static_cast<std::uint8_t>(MessageKind::Pong);
        break;
      case MessageKind::Lookup:
        serveLookup(message, out);
        break;
      case MessageKind::ListServices:
        serveListServices(out);
        break;
      case MessageKind::RegisterService:
        serveRegisterService(message, out);
        break;
      case MessageKind::UnregisterService:
        serveUnregisterService(message, out);
        break;
      case MessageKind::Pong:
      case MessageKind::Reply:
      case MessageKind::Error:
        return;  // nothing was asked on this connection; nothing to answer
      case MessageKind::Hello:
        throw RemoteError("this connection has already said Hello");
      default:
        throw RemoteError("unexpected message kind " + std::to_string(message.kind) +
                          " on a call connection");
    }
  } catch (...) {
    makeErrorReply(message.requestId, std::current_exception(), out);
  }
  reply(connection, out);
}

void Peer::handleEventMessage(Connection& connection, Message& message) {
  switch (static_cast<MessageKind>(message.kind)) {
    case MessageKind::Reply:
    case MessageKind::Error: {
      mz::Promise<Message> waiting;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = pending_.find(message.requestId);
        // A reply that comes after its caller gave up is dropped.
        if (it == pending_.end()) return;
        waiting = it->second;
        pending_.erase(it);
      }
      waiting.setValue(std::move(message));
      return;
    }
    case MessageKind::Ping: {
      Message pong = makeMessage(MessageKind::Pong, message.requestId);
      reply(connection, pong);
      return;
    }
    case MessageKind::Pong:
      return;
    default: {
      // Running a request here could block the only reader of the replies
      // the broker's own requests wait for.
      Message error;
      makeErrorReply(
          message.requestId,
          std::make_exception_ptr(RemoteError("an event connection carries only replies and pings from "
                                              "the client; send requests on a call connection")),
          error);
      reply(connection, error);
      return;
    }
  }
}

// Lookup [name] -> Reply [object, metaObject]
void Peer::serveLookup(Message& request, Message& out) {
  const std::string& name = expectField(request, 0, RX::RXValue::TypeString, "Lookup", "name").toStdString();
  mz::Future<mz::AnyObject> found = session_->service(name);
  if (found.wait(settings_.requestTimeout) == mz::FutureState::Running) {
    found.cancel();
    throw RemoteError("lookup of service " + name + " did not finish");
  }
  mz::AnyObject object = found.value();
  if (!object.isValid()) throw RemoteError("Service not found: " + name);
  out.fields.emplace_back(object);
  out.fields.push_back(encodeMetaObject(object.metaObject()));
}

// ListServices -> Reply [[id, name]...]
void Peer::serveListServices(Message& out) {
  RX::RXValue list = RX::RXValue::array(0);
  for (const mz::ServiceInfo& s : session_->services()) {
    RX::RXValue entry = RX::RXValue::array(0);
    entry.arrayPush(RX::RXValue(static_cast<int>(s.id)));
    entry.arrayPush(RX::RXValue(s.name));
    list.arrayPush(std::move(entry));
  }
  out.fields.push_back(std::move(list));
}

// RegisterService [name, object, metaObject] -> Reply [serviceId]
void Peer::serveRegisterService(Message& request, Message& out) {
  const std::string name =
      expectField(request, 0, RX::RXValue::TypeString, "RegisterService", "name").toStdString();
  const mz::AnyObject object =
      expectField(request, 1, RX::RXValue::TypeObject, "RegisterService", "object").toObject();
  if (auto* remote = dynamic_cast<RemoteObject*>(object.impl().get())) {
    if (request.fields.size() > 2 && request.fields[2].isArray())
      remote->setMetaObject(decodeMetaObject(request.fields[2]));
    remote->setDisplayName(name);
    // Posts to the service are queued, capped and counted under its name.
    std::lock_guard<std::mutex> lock(mutex_);
    serviceNames_[remote->remoteId()] = name;
  }
  unsigned int id;
  {
    RegistrantScope scope(this);
    id = session_->registerService(name, object);
  }
  bool keep;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    keep = !closed_;
    if (keep) services_.insert(id);
  }
  if (!keep) {
    // The client went away while its service was being announced.
    session_->unregisterService(id);
    throwGone();
  }
  RX_INFO(peerLog(), peerName() << " registered service " << name << " (id " << id << ")");
  out.fields.emplace_back(static_cast<int>(id));
}

// UnregisterService [serviceId] -> Reply [bool]
void Peer::serveUnregisterService(Message& request, Message& out) {
  const int id = expectField(request, 0, RX::RXValue::TypeInt, "UnregisterService", "serviceId").toInt();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!services_.count(static_cast<unsigned int>(id)))
      throw RemoteError("service " + std::to_string(id) + " was not registered by this client");
  }
  bool removed;
  {
    RegistrantScope scope(this);
    removed = session_->unregisterService(static_cast<unsigned int>(id));
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    services_.erase(static_cast<unsigned int>(id));
  }
  out.fields.emplace_back(removed);
}

void Peer::sendServiceEvent(const std::string& what, unsigned int id, const std::string& name) {
  Message event = makeMessage(MessageKind::ServiceEvent);
  event.fields = {RX::RXValue(what), RX::RXValue(static_cast<int>(id)), RX::RXValue(name)};
  sendOneWay(std::move(event));
}

// ---- Towards the client ----

Message Peer::exchange(Message request) {
  std::shared_ptr<Connection> connection;
  mz::Promise<Message> promise;
  std::uint32_t id;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) throwGone();
    if (!eventConnection_)
      throw RemoteError(peerName() + " has no event connection: it cannot be called back");
    connection = eventConnection_;
    id = nextRequestId_++;
    if (nextRequestId_ == 0) nextRequestId_ = 1;
    pending_.emplace(id, promise);
  }
  auto forget = [&] {
    std::lock_guard<std::mutex> lock(mutex_);
    pending_.erase(id);
  };
  request.requestId = id;
  try {
    connection->send(request, objectEncoder());
  } catch (const RemoteError&) {
    forget();
    throwGone();
  } catch (...) {
    forget();
    throw;
  }
  mz::Future<Message> future = promise.future();
  const mz::FutureState state = future.wait(settings_.requestTimeout);
  if (state == mz::FutureState::Running) {
    forget();
    throw RemoteError("no reply from " + peerName() + " within " +
                      std::to_string(settings_.requestTimeout.count()) + " ms");
  }
  if (state != mz::FutureState::FinishedWithValue) throwGone();
  return future.value();
}

void Peer::writeFrame(std::uint64_t lane, const Message& message, const char* what) {
  std::shared_ptr<Connection> connection;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) return;
    connection = eventConnection_;
  }
  if (!connection) return;
  // Encoded on the caller's thread, so that the object references it carries
  // are exported before the caller goes on; one buffer per thread, so that a
  // steady stream of events allocates nothing here.
  thread_local std::string buffer;
  buffer.clear();
  try {
    encodeFrame(message, buffer, objectEncoder(), connection->limits().maxFrameBytes);
    if (connection->sendFrames(buffer, lane, settings_.queueCapacity) > 0) countDrop(lane);
  } catch (const std::exception& e) {
    RX_DEBUG(peerLog(), what << " to " << peerName() << " lost: " << e.what());
  }
  if (buffer.capacity() > (1u << 20)) std::string().swap(buffer);
}

void Peer::countDrop(std::uint64_t lane) {
  static RX::log::Throttle throttle;
  std::string target;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ++laneDrops_[lane];
    auto named = serviceNames_.find(lane);
    target = lane == kEventsLane ? std::string("signal emissions")
             : named != serviceNames_.end() ? "posts to service " + named->second
                                            : "posts to object " + std::to_string(lane);
  }
  std::uint64_t held;
  if (throttle.allow(held))
    RX_WARNING(peerLog(), peerName() << " reads too slowly: dropped the oldest of " << settings_.queueCapacity
                                     << " waiting " << target << RX::log::heldBack(held));
}

void Peer::sendPost(std::uint64_t targetId, Message post) {
  if (isClosed()) throwGone();
  // Ids come from the client: one that claims lane 0 is still capped.
  writeFrame(targetId == Outbox::kUncapped ? kEventsLane : targetId, post, "post");
}

std::map<std::string, std::uint64_t> Peer::droppedCounts() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::map<std::string, std::uint64_t> counts = retiredDrops_;
  for (const auto& named : serviceNames_) {
    auto drops = laneDrops_.find(named.first);
    counts[named.second] += drops != laneDrops_.end() ? drops->second : 0;
  }
  return counts;
}

void Peer::retireLane(std::uint64_t id) {
  auto drops = laneDrops_.find(id);
  auto named = serviceNames_.find(id);
  // The drops stay counted after the service or the client has gone.
  if (drops != laneDrops_.end() && named != serviceNames_.end() && drops->second)
    retiredDrops_[named->second] += drops->second;
  if (drops != laneDrops_.end()) laneDrops_.erase(drops);
  if (named != serviceNames_.end()) serviceNames_.erase(named);
}

void Peer::onImportDropped(std::uint64_t id) {
  std::lock_guard<std::mutex> lock(mutex_);
  retireLane(id);
}

void Peer::sendOneWay(Message message) noexcept {
  try {
    if (isClosed()) return;
    writeFrame(kEventsLane, message, "message");
  } catch (const std::exception& e) {
    RX_DEBUG(peerLog(), "message to " << peerName() << " dropped: " << e.what());
  }
}

void Peer::deliverEmit(std::uint32_t /*linkId*/, const mz::SignalSubscriber& subscriber,
                       mz::GenericFunctionParameters params) {
  // On the reader of the call connection that carried the emission: in order,
  // and never on the event connection's reader.
  try {
    subscriber(params);
  } catch (const std::exception& e) {
    RX_ERROR(peerLog(), "a subscriber of a signal of " << peerName() << " threw: " << e.what());
  }
}

void Peer::deliverPost(std::uint32_t /*objectId*/, const mz::AnyObject& target, std::string method,
                       mz::GenericFunctionParameters params) {
  // Modules queue their posted calls on the broker's executor themselves;
  // this reader may run one at once when its module has nothing queued: the
  // client waits for nothing, and its next posts wait in its socket.
  RX::PostsRunHere here;
  target.post(method, std::move(params));
}

[[noreturn]] void Peer::throwGone() const { throw mz::ObjectGoneError(peerName() + " has gone away"); }

// ---- End ----

void Peer::close(const std::string& reason) {
  std::vector<std::shared_ptr<Connection>> connections;
  std::unordered_map<std::uint32_t, mz::Promise<Message>> pending;
  std::set<unsigned int> services;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) return;
    closed_ = true;
    connections.swap(connections_);
    if (eventConnection_) connections.push_back(eventConnection_);
    pending.swap(pending_);
    services.swap(services_);
    std::vector<std::uint64_t> lanes;
    for (const auto& named : serviceNames_) lanes.push_back(named.first);
    for (std::uint64_t lane : lanes) retireLane(lane);
  }
  RX_DEBUG(peerLog(), peerName() << " disconnected: " << reason);
  for (auto& c : connections) c->close();
  for (auto& p : pending) p.second.setError(peerName() + " has gone away");
  closeObjects();
  for (unsigned int id : services) {
    try {
      RegistrantScope scope(this);
      session_->unregisterService(id);
    } catch (const std::exception& e) {
      RX_WARNING(peerLog(), "cannot unregister service " << id << " of " << peerName() << ": " << e.what());
    }
  }
}

}  // namespace net
