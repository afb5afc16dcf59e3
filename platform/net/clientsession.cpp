#include "net/clientsession.h"

#include <unistd.h>

#include <atomic>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <unordered_map>
#include <utility>

#include "net/batchwriter.h"
#include "net/inlinereader.h"
#include "net/metacodec.h"
#include "net/objectbridge.h"
#include "net/remoteobject.h"
#include "net/subscriptionjournal.h"
#include "rx/rxexecutor.h"
#include "rx/rxlog.h"

namespace net {

namespace {

RX::log::Category& clientLog() {
  static RX::log::Category& cat = RX::log::category("net.client");
  return cat;
}

Message makeMessage(MessageKind kind, std::uint32_t requestId = 0) {
  Message m;
  m.kind = static_cast<std::uint8_t>(kind);
  m.requestId = requestId;
  return m;
}

std::string randomSessionId() {
  std::random_device device;
  std::ostringstream os;
  os << std::hex;
  for (int i = 0; i < 4; ++i) os << device();
  return os.str();
}

std::string defaultClientName() {
  std::string name;
  std::ifstream comm("/proc/self/comm");
  std::getline(comm, name);
  if (name.empty()) name = "client";
  return name + "[" + std::to_string(::getpid()) + "]";
}

}  // namespace

// ---- Link: one connection to the broker, from connect to loss ----

// The connections of one session with the broker and the objects shared over
// them. A new Link (new session id, new object ids) replaces a lost one.
class ClientSession::Link : public ObjectBridge {
 public:
  Link(std::weak_ptr<ClientSession> owner, const ClientSession& session)
      : ObjectBridge("broker " + session.endpointText_, "client"),
        owner_(std::move(owner)),
        endpoint_(session.endpoint_),
        endpointText_(session.endpointText_),
        options_(session.options_),
        executor_(session.executor_),
        sessionId_(randomSessionId()) {}

  ~Link() override { shutdown(); }

  // Opens the event and post connections. Throws RemoteError.
  void open() {
    event_ = openConnection("event", &brokerName_);
    // The event connection waits for the broker for as long as it takes:
    // silence is judged by the supervisor.
    event_->setReadTimeout(std::chrono::milliseconds(0));
    post_ = openConnection("call");
    postWriter_ = std::make_unique<BatchWriter>(post_);
    InlineReader::Options readerOptions;
    readerOptions.label = "events from " + endpointText_;
    readerOptions.laneCapacity = options_.queueCapacity;
    readerOptions.handOverAfter = options_.handOverAfter;
    readerOptions.laneName = [this](std::uint64_t lane) { return laneName(lane); };
    reader_ = std::make_unique<InlineReader>(std::move(readerOptions), [this] { return readOne(); },
                                             [this] { onEventsEnded(); });
    reader_->start();
  }

  const std::string& brokerName() const { return brokerName_; }

  // Ends the link: every connection is shut down, waiting calls fail,
  // imports and exports are forgotten. Idempotent.
  void shutdown() {
    std::vector<std::shared_ptr<Connection>> connections;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!shut_) {
        shut_ = true;
        for (auto& weak : all_)
          if (auto c = weak.lock()) connections.push_back(c);
        all_.clear();
        idle_.clear();
        if (event_) connections.push_back(event_);
        if (post_) connections.push_back(post_);
      }
    }
    for (auto& c : connections) c->close();
    closeObjects();
    // The closed event connection ends the reader; waiting callbacks are dropped.
    if (reader_) reader_->stop();
    if (postWriter_) postWriter_->stop();
  }

  // False once the event connection has ended, even before the supervisor
  // has noticed.
  bool alive() const { return !isClosed() && event_ && !event_->isClosed(); }

  void ping() {
    if (!event_ || isClosed()) return;
    event_->send(makeMessage(MessageKind::Ping));
  }

  std::chrono::steady_clock::time_point lastReceive() const { return event_->lastReceive(); }

  // ---- Directory requests ----
  unsigned int registerRemote(const std::string& name, const mz::AnyObject& object) {
    Message m = makeMessage(MessageKind::RegisterService);
    m.fields.reserve(3);
    m.fields.emplace_back(name);
    m.fields.emplace_back(object);
    m.fields.push_back(encodeMetaObject(object.metaObject()));
    Message reply = roundTrip(std::move(m));
    if (reply.fields.empty() || !reply.fields[0].isInt())
      throw RemoteError("bad reply to RegisterService from " + endpointText_);
    return static_cast<unsigned int>(reply.fields[0].toInt());
  }

  void unregisterRemote(unsigned int id) {
    Message m = makeMessage(MessageKind::UnregisterService);
    m.fields.emplace_back(static_cast<int>(id));
    (void)roundTrip(std::move(m));
  }

  mz::AnyObject lookup(const std::string& name) {
    Message m = makeMessage(MessageKind::Lookup);
    m.fields.emplace_back(name);
    Message reply = roundTrip(std::move(m));
    if (reply.fields.empty() || !reply.fields[0].isObject())
      throw RemoteError("bad reply to Lookup from " + endpointText_);
    mz::AnyObject object = reply.fields[0].toObject();
    if (auto* remote = dynamic_cast<RemoteObject*>(object.impl().get())) {
      if (reply.fields.size() > 1 && reply.fields[1].isArray())
        remote->setMetaObject(decodeMetaObject(reply.fields[1]));
    }
    return object;
  }

  std::vector<mz::ServiceInfo> listServices() {
    Message reply = roundTrip(makeMessage(MessageKind::ListServices));
    std::vector<mz::ServiceInfo> out;
    if (reply.fields.empty() || !reply.fields[0].isArray()) return out;
    const RX::RXValue& list = reply.fields[0];
    for (std::size_t i = 0; i < list.getSize(); ++i) {
      const RX::RXValue& e = list[i];
      if (e.isArray() && e.getSize() == 2 && e[0].isInt() && e[1].isString())
        out.push_back({static_cast<unsigned int>(e[0].toInt()), e[1].toStdString()});
    }
    return out;
  }

  // ---- ObjectBridge ----
  void sendPost(std::uint64_t /*targetId*/, Message post) override {
    if (isClosed()) throwGone();
    try {
      postWriter_->send(post, objectEncoder());
    } catch (const RemoteError&) {
      throwGone();
    }
  }

  [[noreturn]] void throwGone() const override {
    auto owner = owner_.lock();
    if (owner && owner->isConnected())
      throw RemoteError("the connection to " + endpointText_ +
                        " this object came from was lost; the broker has forgotten the object");
    throw RemoteError("not connected to " + endpointText_);
  }

 protected:
  Message exchange(Message request) override {
    if (!alive()) throwGone();
    // A callback run by the event reader that calls the broker must not keep
    // the broker's call-backs to us, and other callbacks, from being read.
    InlineReader::beforeBlocking();
    std::shared_ptr<Connection> c = acquire();
    const std::uint32_t id = nextRequestId_.fetch_add(1, std::memory_order_relaxed) | 1u;  // never 0
    request.requestId = id;
    try {
      c->send(request, objectEncoder());
    } catch (const RemoteError&) {
      throw RemoteError("connection to " + endpointText_ + " lost");
    } catch (...) {
      release(c);  // nothing was written: the connection is fine
      throw;
    }
    Message reply;
    for (;;) {
      Connection::ReadStatus status;
      try {
        status = c->read(reply);
      } catch (...) {
        // Abandoned (interrupted): the reply may still come on this connection.
        c->close();
        throw;
      }
      switch (status) {
        case Connection::ReadStatus::Message:
          if (reply.requestId == id && (reply.kind == static_cast<std::uint8_t>(MessageKind::Reply) ||
                                        reply.kind == static_cast<std::uint8_t>(MessageKind::Error))) {
            release(c);
            return reply;
          }
          continue;  // a pong, or the answer to a request given up on
        case Connection::ReadStatus::BadFrame:
          if (c->lastError()->requestId() == id) {
            release(c);
            throw RemoteError("malformed reply from " + endpointText_ + ": " + c->lastError()->what());
          }
          continue;
        case Connection::ReadStatus::TimedOut:
          // The reply may still come: this connection cannot serve another call.
          c->close();
          throw RemoteError("no reply from " + endpointText_ + " within " +
                            std::to_string(options_.timeout.count()) + " ms");
        case Connection::ReadStatus::Closed:
        case Connection::ReadStatus::OutOfSync:
          c->close();
          if (isClosed()) throwGone();
          throw RemoteError("connection to " + endpointText_ + " lost while waiting for a reply");
      }
    }
  }

  void sendOneWay(Message message) noexcept override {
    try {
      if (!isClosed()) postWriter_->send(message, objectEncoder());
    } catch (const std::exception& e) {
      RX_DEBUG(clientLog(), "message to " << endpointText_ << " lost: " << e.what());
    }
  }

  void deliverEmit(std::uint32_t linkId, const mz::SignalSubscriber& subscriber,
                   mz::GenericFunctionParameters params) override {
    reader_->deliver(kLinkQueue | linkId, [subscriber, params = std::move(params)] {
      try {
        subscriber(params);
      } catch (const std::exception& e) {
        RX_ERROR(clientLog(), "a subscriber of a broker signal threw: " << e.what());
      }
    });
  }

  void deliverPost(std::uint32_t objectId, const mz::AnyObject& target, std::string method,
                   mz::GenericFunctionParameters params) override {
    {
      // Remembered for the drop counts, which name the service the object is.
      std::lock_guard<std::mutex> lock(mutex_);
      if (shut_) return;
      postTargets_.emplace(objectId, target);
    }
    reader_->deliver(objectId, [target, method = std::move(method), params = std::move(params)] {
      try {
        target.call(method, params);
      } catch (const std::exception& e) {
        RX_ERROR(clientLog(), "posted call " << method << " from the broker failed: " << e.what());
      }
    });
  }

 public:
  // Drops of the queues towards our services, by service name.
  std::map<std::string, std::uint64_t> droppedCounts() {
    std::unordered_map<std::uint32_t, mz::AnyObject> targets;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      targets = postTargets_;
    }
    std::map<std::string, std::uint64_t> counts;
    for (const auto& target : targets) {
      const std::string name = serviceNameOf(target.second);
      if (!name.empty()) counts[name] += reader_ ? reader_->dropped(target.first) : 0;
    }
    return counts;
  }

 protected:
  void onExportDropped(std::uint32_t objectId) override {
    if (reader_) reader_->forgetLane(objectId);
    std::lock_guard<std::mutex> lock(mutex_);
    postTargets_.erase(objectId);
  }
  void onInboundLinkDropped(std::uint32_t linkId) override {
    if (reader_) reader_->forgetLane(kLinkQueue | linkId);
  }

 private:
  static constexpr std::uint64_t kLinkQueue = std::uint64_t(1) << 32;

  // Connects and says Hello; the broker's name is stored in `brokerName` when given.
  std::shared_ptr<Connection> openConnection(const char* role, std::string* brokerName = nullptr) {
    std::shared_ptr<Connection> c = Connection::connect(endpoint_, options_.timeout, options_.limits);
    c->setReadTimeout(options_.timeout);
    c->setWriteTimeout(options_.timeout);
    Message hello = makeMessage(MessageKind::Hello, 1);
    hello.fields = {RX::RXValue(sessionId_), RX::RXValue(role), RX::RXValue(options_.clientName)};
    c->send(hello);
    Message ack;
    for (;;) {
      const Connection::ReadStatus status = c->read(ack);
      if (status == Connection::ReadStatus::Message) break;
      if (status == Connection::ReadStatus::BadFrame) continue;
      c->close();
      throw RemoteError(
          "cannot connect to " + endpointText_ + ": " +
          (status == Connection::ReadStatus::TimedOut ? "no answer to Hello" : "closed during Hello"));
    }
    if (ack.kind == static_cast<std::uint8_t>(MessageKind::Error)) {
      c->close();
      const std::string text =
          ack.fields.size() > 3 && ack.fields[3].isString() ? ack.fields[3].toStdString() : "";
      throw RemoteError("cannot connect to " + endpointText_ + ": " + text);
    }
    if (ack.kind != static_cast<std::uint8_t>(MessageKind::HelloAck)) {
      c->close();
      throw RemoteError("cannot connect to " + endpointText_ + ": unexpected answer to Hello");
    }
    if (brokerName && !ack.fields.empty() && ack.fields[0].isString())
      *brokerName = ack.fields[0].toStdString();
    c->setObjectDecoder(objectDecoder());
    std::lock_guard<std::mutex> lock(mutex_);
    if (shut_) {
      c->close();
      throwGone();
    }
    all_.push_back(c);
    return c;
  }

  std::shared_ptr<Connection> acquire() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (shut_) throwGone();
      while (!idle_.empty()) {
        std::shared_ptr<Connection> c = std::move(idle_.back());
        idle_.pop_back();
        if (!c->isClosed()) return c;
      }
      // Forget connections that have ended, so the list stays short.
      for (auto it = all_.begin(); it != all_.end();) it = it->expired() ? all_.erase(it) : it + 1;
    }
    try {
      return openConnection("call");
    } catch (const RemoteError&) {
      if (isClosed()) throwGone();
      throw;
    }
  }

  void release(const std::shared_ptr<Connection>& c) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!shut_ && !c->isClosed() && idle_.size() < options_.maxIdleConnections) {
        idle_.push_back(c);
        return;
      }
    }
    c->close();
  }

  // The name under which `target` is registered in this process; empty when none.
  std::string serviceNameOf(const mz::AnyObject& target) const {
    auto owner = owner_.lock();
    if (!owner || !target.isValid()) return std::string();
    const void* identity = target.impl()->identity();
    for (const mz::ServiceInfo& info : owner->mz::Session::services()) {
      mz::Future<mz::AnyObject> local = owner->mz::Session::service(info.name);
      if (!local.hasValue()) continue;
      const mz::AnyObject object = local.value();
      if (object.isValid() && object.impl()->identity() == identity) return info.name;
    }
    return std::string();
  }

  std::string laneName(std::uint64_t lane) {
    if (lane & kLinkQueue) return "emissions of link " + std::to_string(lane & ~kLinkQueue);
    mz::AnyObject target;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      auto it = postTargets_.find(static_cast<std::uint32_t>(lane));
      if (it != postTargets_.end()) target = it->second;
    }
    const std::string name = serviceNameOf(target);
    return name.empty() ? "posts to object " + std::to_string(lane) : "posts to service " + name;
  }

  void replyOnEvent(Message& reply) {
    try {
      event_->send(reply, objectEncoder());
    } catch (const EncodeError& e) {
      Message error;
      makeErrorReply(reply.requestId,
                     std::make_exception_ptr(RemoteError(std::string("cannot send the reply: ") + e.what())),
                     error);
      try {
        event_->send(error);
      } catch (const std::exception&) {
      }
    } catch (const std::exception& e) {
      RX_DEBUG(clientLog(), "reply to " << endpointText_ << " lost: " << e.what());
    }
  }

  // Reads and dispatches one message from the event connection; false once
  // it has ended. On the InlineReader's reading thread.
  bool readOne() {
    Message message;
    for (;;) {
      const Connection::ReadStatus status = event_->read(message);
      if (status == Connection::ReadStatus::Message) {
        try {
          dispatch(message);
        } catch (const std::exception& e) {
          RX_WARNING(clientLog(), "message from " << endpointText_ << " dropped: " << e.what());
        }
        return true;
      }
      if (status == Connection::ReadStatus::TimedOut) continue;
      if (status == Connection::ReadStatus::BadFrame) {
        const DecodeError& e = *event_->lastError();
        RX_WARNING(clientLog(), "malformed frame from " << endpointText_ << ": " << e.what());
        if (e.requestId() && *e.requestId() != 0) {
          Message error;
          makeErrorReply(*e.requestId(),
                         std::make_exception_ptr(RemoteError(std::string("malformed frame: ") + e.what())),
                         error);
          replyOnEvent(error);
        }
        return true;
      }
      return false;
    }
  }

  void onEventsEnded() {
    event_->close();
    if (auto owner = owner_.lock()) owner->onLinkLost(this);
  }

  void dispatch(Message& message) {
    switch (static_cast<MessageKind>(message.kind)) {
      case MessageKind::Call:
      case MessageKind::Trigger: {
        // Our service's method may take long or call the broker back: it runs
        // on the executor, never on this reader, which must stay free to read.
        auto self = std::static_pointer_cast<Link>(shared_from_this());
        auto request = std::make_shared<Message>(std::move(message));
        executor_->post([self, request] {
          Message reply;
          if (self->serve(*request, reply)) self->replyOnEvent(reply);
        });
        return;
      }
      case MessageKind::Post:
      case MessageKind::Emit:
      case MessageKind::Release:
      case MessageKind::Connect:
      case MessageKind::Disconnect:
      case MessageKind::MetaObject: {
        // Quick, and posts and emissions are queued in order from here.
        Message reply;
        if (serve(message, reply)) replyOnEvent(reply);
        return;
      }
      case MessageKind::ServiceEvent: {
        if (message.fields.size() < 3 || !message.fields[0].isString() || !message.fields[1].isInt() ||
            !message.fields[2].isString())
          throw RemoteError("bad ServiceEvent");
        if (auto owner = owner_.lock())
          owner->onServiceEvent(message.fields[0].toStdString(),
                                static_cast<unsigned int>(message.fields[1].toInt()),
                                message.fields[2].toStdString());
        return;
      }
      case MessageKind::Ping: {
        Message pong = makeMessage(MessageKind::Pong, message.requestId);
        replyOnEvent(pong);
        return;
      }
      case MessageKind::Pong:
      case MessageKind::Reply:
      case MessageKind::Error:
      case MessageKind::HelloAck:
        return;
      default: {
        Message error;
        makeErrorReply(
            message.requestId,
            std::make_exception_ptr(RemoteError("unexpected message kind " + std::to_string(message.kind))),
            error);
        replyOnEvent(error);
        return;
      }
    }
  }

  // Constant after construction (event_, post_, postWriter_ and reader_ once open() returned).
  const std::weak_ptr<ClientSession> owner_;
  const Endpoint endpoint_;
  const std::string endpointText_;
  const Options options_;
  const std::shared_ptr<RX::RXExecutor> executor_;
  const std::string sessionId_;
  std::string brokerName_;
  std::shared_ptr<Connection> event_;
  std::shared_ptr<Connection> post_;  // posts, emissions of our signals, releases
  std::unique_ptr<BatchWriter> postWriter_;  // writes post_
  std::unique_ptr<InlineReader> reader_;

  std::atomic<std::uint32_t> nextRequestId_{1};

  // Guarded by mutex_.
  std::mutex mutex_;
  bool shut_ = false;
  std::vector<std::shared_ptr<Connection>> idle_;
  std::vector<std::weak_ptr<Connection>> all_;
  std::unordered_map<std::uint32_t, mz::AnyObject> postTargets_;  // our objects the broker posts to, by id
};

// ---- ClientSession ----

std::shared_ptr<ClientSession> ClientSession::connect(const std::string& endpoint,
                                                      std::chrono::milliseconds timeout) {
  Options options;
  options.timeout = timeout;
  return connect(endpoint, options);
}

std::shared_ptr<ClientSession> ClientSession::connect(const std::string& endpoint, const Options& options) {
  struct Constructible : ClientSession {
    Constructible(const std::string& e, const Options& o) : ClientSession(e, o) {}
  };
  auto session = std::make_shared<Constructible>(endpoint, options);
  session->start();
  return session;
}

ClientSession::ClientSession(const std::string& endpoint, const Options& options)
    : endpointText_(Endpoint::parse(endpoint).toString()),
      endpoint_(Endpoint::parse(endpoint)),
      options_([&] {
        Options o = options;
        if (o.clientName.empty()) o.clientName = defaultClientName();
        return o;
      }()),
      executor_(std::make_shared<RX::RXExecutor>(std::max(2u, options.executorThreads))),
      serviceEvents_(executor_->makeQueue("service events from " + endpointText_, options_.queueCapacity)),
      journal_(options.remakeSubscriptions ? std::make_shared<SubscriptionJournal>() : nullptr) {}

ClientSession::~ClientSession() { close(); }

void ClientSession::start() {
  std::shared_ptr<Link> link = openLink();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    link_ = link;
  }
  supervisor_ = std::thread([this] { supervise(); });
}

std::shared_ptr<ClientSession::Link> ClientSession::openLink() {
  auto link = std::make_shared<Link>(weak_from_this(), *this);
  try {
    link->open();
  } catch (...) {
    link->shutdown();
    throw;
  }
  RX_INFO(clientLog(), "connected to broker " << link->brokerName() << " at " << endpointText_);
  return link;
}

std::shared_ptr<ClientSession::Link> ClientSession::currentLink() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return link_ && link_->alive() ? link_ : nullptr;
}

bool ClientSession::isConnected() const { return currentLink() != nullptr; }

std::map<std::string, std::uint64_t> ClientSession::droppedCounts() const {
  std::shared_ptr<Link> link;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    link = link_;
  }
  return link ? link->droppedCounts() : std::map<std::string, std::uint64_t>();
}

std::string ClientSession::brokerName() const {
  std::shared_ptr<Link> link = currentLink();
  return link ? link->brokerName() : std::string();
}

// ---- Directory ----

unsigned int ClientSession::registerService(const std::string& name, const mz::AnyObject& object) {
  if (!object.isValid()) return mz::Session::registerService(name, object);  // the base words the refusal
  std::lock_guard<std::mutex> registering(registerMutex_);
  std::shared_ptr<Link> link = currentLink();
  unsigned int remoteId = 0;
  if (link) {
    try {
      remoteId = link->registerRemote(name, object);
    } catch (const std::exception& e) {
      // A lost connection is not a refusal: the service is registered again
      // with the others once the broker is back.
      if (!link->isClosed()) throw;
      RX_INFO(clientLog(), "service " << name << " will be registered at " << endpointText_
                                      << " once reconnected: " << e.what());
    }
  }
  unsigned int localId;
  try {
    localId = mz::Session::registerService(name, object);
  } catch (...) {
    if (remoteId) {
      try {
        link->unregisterRemote(remoteId);
      } catch (const std::exception&) {
      }
    }
    throw;
  }
  if (remoteId) remoteIds_[localId] = remoteId;
  return localId;
}

bool ClientSession::unregisterService(unsigned int id) {
  std::lock_guard<std::mutex> registering(registerMutex_);
  const bool removed = mz::Session::unregisterService(id);
  auto it = remoteIds_.find(id);
  if (it != remoteIds_.end()) {
    const unsigned int remoteId = it->second;
    remoteIds_.erase(it);
    if (std::shared_ptr<Link> link = currentLink()) {
      try {
        link->unregisterRemote(remoteId);
      } catch (const std::exception& e) {
        RX_WARNING(clientLog(),
                   "cannot unregister service " << remoteId << " at " << endpointText_ << ": " << e.what());
      }
    }
  }
  return removed;
}

mz::AnyObject ClientSession::lookupRemote(const std::string& name) {
  std::shared_ptr<Link> link = currentLink();
  if (!link) throw RemoteError("not connected to " + endpointText_);
  return link->lookup(name);
}

mz::Future<mz::AnyObject> ClientSession::service(const std::string& name, const std::string& protocol) {
  mz::Future<mz::AnyObject> local = mz::Session::service(name, protocol);
  if (local.hasValue()) return local;
  try {
    mz::AnyObject object = lookupRemote(name);
    if (auto* remote = dynamic_cast<RemoteObject*>(object.impl().get())) {
      remote->setDisplayName(name);
      std::weak_ptr<ClientSession> self = weak_from_this();
      remote->setRebinder([self, name]() -> mz::AnyObject {
        auto session = self.lock();
        return session ? session->lookupRemote(name) : mz::AnyObject();
      });
      if (journal_) remote->track(journal_, SubscriptionJournal::serviceOrigin(name));
    }
    return mz::makeFutureValue(object);
  } catch (const std::exception& e) {
    return mz::makeFutureError<mz::AnyObject>(e.what());
  }
}

std::vector<mz::ServiceInfo> ClientSession::services() const {
  std::vector<mz::ServiceInfo> local = mz::Session::services();
  std::shared_ptr<Link> link = currentLink();
  if (!link) return local;
  std::vector<mz::ServiceInfo> all;
  try {
    all = link->listServices();
  } catch (const std::exception& e) {
    RX_WARNING(clientLog(), "cannot list the services of " << endpointText_ << ": " << e.what());
    return local;
  }
  std::set<std::string> names;
  for (const auto& s : all) names.insert(s.name);
  for (const auto& s : local)
    if (!names.count(s.name)) all.push_back(s);
  return all;
}

void ClientSession::registerAllRemotely(const std::shared_ptr<Link>& link) {
  // REQUIRES: registerMutex_ held.
  remoteIds_.clear();
  for (const mz::ServiceInfo& s : mz::Session::services()) {
    mz::Future<mz::AnyObject> object = mz::Session::service(s.name);
    if (!object.hasValue()) continue;
    try {
      remoteIds_[s.id] = link->registerRemote(s.name, object.value());
    } catch (const std::exception& e) {
      RX_ERROR(clientLog(),
               "cannot register service " << s.name << " again at " << endpointText_ << ": " << e.what());
    }
  }
}

void ClientSession::onServiceEvent(const std::string& what, unsigned int id, const std::string& name) {
  // Re-emitted from one ordered queue, off the reader; `this` outlives the
  // queue's tasks because close() drains the executor first.
  try {
    serviceEvents_->post([this, what, id, name] {
      if (what == "registered")
        serviceRegistered(id, name);
      else if (what == "unregistered")
        serviceUnregistered(id, name);
    });
  } catch (const std::exception& e) {
    RX_DEBUG(clientLog(), "service event dropped: " << e.what());
  }
}

// ---- Liveness and reconnection ----

void ClientSession::onLinkLost(const Link* link) {
  std::lock_guard<std::mutex> lock(mutex_);
  // A link being replaced or shut down on purpose is no news.
  if (link_.get() != link) return;
  linkLost_ = true;
  wake_.notify_all();
}

void ClientSession::supervise() {
  using Clock = std::chrono::steady_clock;
  std::chrono::milliseconds backoff = options_.reconnectMin;
  Clock::time_point nextAttempt = Clock::now();
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    const Clock::time_point nextPing = Clock::now() + options_.pingInterval;
    wake_.wait_until(lock, link_ ? nextPing : std::min(nextPing, nextAttempt),
                     [&] { return closed_ || linkLost_; });
    if (closed_) return;
    std::shared_ptr<Link> link = link_;
    bool lost = linkLost_;
    linkLost_ = false;
    lock.unlock();

    if (link && !lost) {
      if (Clock::now() - link->lastReceive() > options_.silenceLimit) {
        RX_WARNING(clientLog(), "broker at " << endpointText_ << " silent for "
                                             << options_.silenceLimit.count() << " ms: connection dropped");
        lost = true;
      } else {
        try {
          link->ping();
        } catch (const std::exception&) {
          lost = true;
        }
      }
    }
    if (link && lost) {
      {
        std::lock_guard<std::mutex> relock(mutex_);
        if (link_ == link) link_.reset();
      }
      link->shutdown();
      RX_WARNING(clientLog(), "lost the connection to " << endpointText_);
      backoff = options_.reconnectMin;
      nextAttempt = Clock::now() + backoff;
      disconnected();
      link.reset();
    }
    if (!link && options_.reconnect && Clock::now() >= nextAttempt) {
      try {
        std::shared_ptr<Link> fresh = openLink();
        {
          std::lock_guard<std::mutex> registering(registerMutex_);
          registerAllRemotely(fresh);
          std::lock_guard<std::mutex> relock(mutex_);
          if (closed_) {
            fresh->shutdown();
            return;
          }
          link_ = fresh;
          // Lost while registering: its reader's news was ignored (not yet current).
          if (!fresh->alive()) linkLost_ = true;
        }
        // After the registrations, which the subscriptions name.
        if (journal_)
          journal_->replay([&fresh](const std::string& name) { return fresh->lookup(name); },
                           [this] {
                             std::lock_guard<std::mutex> relock(mutex_);
                             return closed_;
                           });
        backoff = options_.reconnectMin;
        reconnected();
      } catch (const std::exception& e) {
        RX_DEBUG(clientLog(), "reconnection to " << endpointText_ << " failed: " << e.what());
        nextAttempt = Clock::now() + backoff;
        backoff = std::min(backoff * 2, options_.reconnectMax);
      }
    }
    lock.lock();
  }
}

void ClientSession::close() {
  std::shared_ptr<Link> link;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) return;
    closed_ = true;
    link.swap(link_);
  }
  wake_.notify_all();
  // A replay under way stops before its next item (it asks closed_).
  if (supervisor_.joinable()) supervisor_.join();
  if (link) link->shutdown();
  if (journal_) journal_->clear();
  // Drains what is queued: replies to a closed connection are simply lost.
  executor_->shutdown();
}

}  // namespace net
