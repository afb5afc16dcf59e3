#include "net/server.h"

#include <arpa/inet.h>
#include <pthread.h>
#include <fcntl.h>
#include <poll.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <list>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

#include "mz/session.h"
#include "net/connection.h"
#include "net/endpoint.h"
#include "net/peer.h"
#include "net/writeflusher.h"
#include "rx/rxbroker.h"
#include "rx/rxcallcontext.h"
#include "rx/rxlog.h"

namespace net {

namespace {

RX::log::Category& serverLog() {
  static RX::log::Category& cat = RX::log::category("net.server");
  return cat;
}

// How often the watchdog looks for silent connections and finished threads.
constexpr std::chrono::milliseconds kWatchPeriod(200);

Message makeMessage(MessageKind kind, std::uint32_t requestId = 0) {
  Message m;
  m.kind = static_cast<std::uint8_t>(kind);
  m.requestId = requestId;
  return m;
}

void sendError(Connection& c, std::uint32_t requestId, const std::string& text) {
  Message error = makeMessage(MessageKind::Error, requestId);
  error.fields = {RX::RXValue("framework"), RX::RXValue(""), RX::RXValue(""), RX::RXValue(text)};
  try {
    c.send(error);
  } catch (const std::exception&) {
  }
}

// Whether a frame of this kind waits for an answer (so that a malformed one
// deserves an Error rather than silence).
bool expectsReply(const std::optional<std::uint8_t>& kind) {
  if (!kind) return true;
  switch (static_cast<MessageKind>(*kind)) {
    case MessageKind::Post:
    case MessageKind::Emit:
    case MessageKind::Release:
    case MessageKind::Reply:
    case MessageKind::Error:
    case MessageKind::Pong:
    case MessageKind::ServiceEvent:
      return false;
    default:
      return true;
  }
}

// The Error a request without a usable requestId gets, or "" when the
// message may go on. Id 0 is what the broker's errors about the connection
// itself carry ("stream out of sync"): a reply with it would be taken for one.
// A Ping may carry 0: its Pong cannot be mistaken for an Error.
std::string zeroIdRefusal(const Message& m) {
  if (m.requestId != 0 || !expectsReply(m.kind) ||
      m.kind == static_cast<std::uint8_t>(MessageKind::Ping))
    return std::string();
  return "request of kind " + std::to_string(m.kind) +
         " refused: requestId 0 is reserved for errors about the connection; requests need a "
         "non-zero requestId";
}

[[noreturn]] void cannotListen(const Endpoint& e, const std::string& why) {
  throw std::runtime_error("cannot listen on " + e.toString() + ": " + why);
}

void setCloseOnExec(int fd) { ::fcntl(fd, F_SETFD, ::fcntl(fd, F_GETFD) | FD_CLOEXEC); }

// Binds and listens; returns the descriptor and fills `bound` with the
// address actually used (the chosen port for port 0).
int listenTcp(const Endpoint& e, Endpoint& bound) {
  namespace ip = boost::asio::ip;
  boost::asio::io_context io;
  boost::system::error_code ec;
  ip::tcp::resolver resolver(io);
  auto results = resolver.resolve(e.host, std::to_string(e.port),
                                  ip::tcp::resolver::numeric_service | ip::tcp::resolver::passive, ec);
  if (ec) cannotListen(e, ec.message());
  if (results.empty()) cannotListen(e, "the host has no address");
  const ip::tcp::endpoint target = results.begin()->endpoint();
  ip::tcp::acceptor acceptor(io);
  if (acceptor.open(target.protocol(), ec)) cannotListen(e, ec.message());
  // A restarted broker must not wait for the old connections' TIME_WAIT.
  acceptor.set_option(ip::tcp::acceptor::reuse_address(true), ec);
  if (acceptor.bind(target, ec)) cannotListen(e, ec.message());
  if (acceptor.listen(boost::asio::socket_base::max_listen_connections, ec)) cannotListen(e, ec.message());
  bound = e;
  bound.port = acceptor.local_endpoint(ec).port();
  const int fd = acceptor.release(ec);
  if (ec) cannotListen(e, ec.message());
  setCloseOnExec(fd);
  return fd;
}

int listenUnix(const Endpoint& e) {
  namespace local = boost::asio::local;
  struct stat st {};
  if (::lstat(e.path.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) cannotListen(e, "the path exists and is not a socket");
    // A socket file nobody answers on is left over from a broker that died.
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, e.path.c_str(), e.path.size() + 1);
    const int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool alive =
        probe >= 0 && ::connect(probe, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0;
    if (probe >= 0) ::close(probe);
    if (alive) cannotListen(e, std::strerror(EADDRINUSE));
    ::unlink(e.path.c_str());
  }
  boost::asio::io_context io;
  boost::system::error_code ec;
  local::stream_protocol::acceptor acceptor(io);
  if (acceptor.open(local::stream_protocol(), ec)) cannotListen(e, ec.message());
  if (acceptor.bind(local::stream_protocol::endpoint(e.path), ec)) cannotListen(e, ec.message());
  if (acceptor.listen(boost::asio::socket_base::max_listen_connections, ec)) cannotListen(e, ec.message());
  const int fd = acceptor.release(ec);
  if (ec) cannotListen(e, ec.message());
  setCloseOnExec(fd);
  return fd;
}

std::string describeClient(const sockaddr_storage& addr, const Endpoint& listener) {
  char text[INET6_ADDRSTRLEN] = {0};
  if (addr.ss_family == AF_INET) {
    const auto* a = reinterpret_cast<const sockaddr_in*>(&addr);
    ::inet_ntop(AF_INET, &a->sin_addr, text, sizeof text);
    return std::string("client ") + text + ":" + std::to_string(ntohs(a->sin_port));
  }
  if (addr.ss_family == AF_INET6) {
    const auto* a = reinterpret_cast<const sockaddr_in6*>(&addr);
    ::inet_ntop(AF_INET6, &a->sin6_addr, text, sizeof text);
    return std::string("client [") + text + "]:" + std::to_string(ntohs(a->sin6_port));
  }
  return "client on " + listener.toString();
}

// Whether the other end of a connection has hung up (or the connection was
// closed here), without reading from it: its reader is busy serving a request.
bool hungUp(Connection& c, int fd) {
  if (c.isClosed()) return true;
  pollfd p{fd, POLLRDHUP, 0};
  return ::poll(&p, 1, 0) > 0 && (p.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

// Counter names shown on the status pages.
constexpr const char* kRefusedClients = "clients refused: maxClients reached";
constexpr const char* kRefusedConnections = "connections refused: maxConnections reached";
constexpr const char* kNoHello = "connections closed: no Hello within handshakeTimeout";
constexpr const char* kCutOffHard = "connections cut off: output buffer over its hard limit";
constexpr const char* kCutOffSoft = "connections cut off: output buffer over its soft limit for too long";
constexpr const char* kInputBudget = "connections closed: buffered input over maxInputBytes";
constexpr const char* kMalformed = "malformed frames received";

}  // namespace

// One accepted connection and the thread that reads it.
struct Handler {
  std::shared_ptr<Connection> connection;
  int fd = -1;
  std::chrono::steady_clock::time_point accepted = std::chrono::steady_clock::now();
  std::thread thread;
  std::atomic<bool> done{false};
  std::atomic<bool> busy{false};     // a request is being served
  std::atomic<bool> greeted{false};  // Hello received
  std::atomic<bool> isEvent{false};
  // Set when the client is gone while a request of it runs (see RX::CallContext).
  const RX::CallContext::Flag callerGone = std::make_shared<std::atomic<bool>>(false);
  std::shared_ptr<Peer> peer;  // set once greeted; guarded by Impl::mutex
};

struct Listener {
  Endpoint endpoint;  // as bound
  int fd = -1;
  std::thread thread;
};

struct Server::Impl : std::enable_shared_from_this<Server::Impl> {
  Impl(boost::shared_ptr<RX::RXBroker> b, std::vector<std::string> e, const Options& o)
      : broker(std::move(b)), endpointTexts(std::move(e)), options(o) {}

  void start();
  void stop();
  void acceptLoop(Listener* listener);
  void serve(const std::shared_ptr<Handler>& handler);
  void watch();
  void broadcast(const std::string& what, unsigned int id, const std::string& name);
  std::shared_ptr<Peer> peerFor(const std::string& sessionId, const std::string& clientName);
  void forgetPeer(const std::shared_ptr<Peer>& peer);
  void count(const char* counter);
  std::map<std::string, std::uint64_t> counterSnapshot();
  void refuse(Connection& c, const std::string& why);
  void finish(Handler& handler) {
    --openConnections;
    handler.done = true;
  }

  // Constant after construction.
  const boost::shared_ptr<RX::RXBroker> broker;
  const std::vector<std::string> endpointTexts;
  const Options options;

  // Guarded by mutex.
  mutable std::mutex mutex;
  std::condition_variable wake;
  bool running = false;
  bool stopping = false;
  std::vector<std::unique_ptr<Listener>> listeners;
  std::list<std::shared_ptr<Handler>> handlers;
  std::map<std::string, std::shared_ptr<Peer>> peers;  // by session id
  std::thread watchdog;
  mz::SignalLink registeredLink = mz::kInvalidSignalLink;
  mz::SignalLink unregisteredLink = mz::kInvalidSignalLink;
  unsigned int dropCounter = 0;  // registered with the broker while running
  // Drops towards clients that have gone, by service name: the broker's
  // status keeps showing them.
  std::map<std::string, std::uint64_t> retiredDrops;
  std::map<std::string, std::uint64_t> counters;  // refusals and cut-offs, by kind

  // Thread-safe.
  const std::shared_ptr<InputBudget> inputBudget = std::make_shared<InputBudget>(options.maxInputBytes);
  std::shared_ptr<WriteFlusher> flusher;  // set before the first accept, constant after
  RX::log::Throttle malformedThrottle;
  std::atomic<std::size_t> openConnections{0};  // accepted and not ended yet
};

void Server::Impl::count(const char* counter) {
  std::lock_guard<std::mutex> lock(mutex);
  ++counters[counter];
}

std::map<std::string, std::uint64_t> Server::Impl::counterSnapshot() {
  std::lock_guard<std::mutex> lock(mutex);
  std::map<std::string, std::uint64_t> out = counters;
  out["clients connected"] = peers.size();
  out["connections open"] = openConnections.load();
  out["buffered input bytes"] = inputBudget->used();
  return out;
}

// Answers a connection that will not be served, then closes it. The answer is
// small and goes out at once; if the socket cannot take it, it is lost.
void Server::Impl::refuse(Connection& c, const std::string& why) {
  sendError(c, 0, why);
  c.close();
}

void Server::Impl::start() {
  std::vector<Endpoint> parsed;
  for (const std::string& text : endpointTexts) parsed.push_back(Endpoint::parse(text));
  std::lock_guard<std::mutex> lock(mutex);
  if (running) return;
  if (stopping) throw std::runtime_error("a stopped server cannot be started again");
  std::vector<std::unique_ptr<Listener>> bound;
  try {
    for (const Endpoint& e : parsed) {
      auto l = std::make_unique<Listener>();
      if (e.kind == Endpoint::Kind::Tcp) {
        l->fd = listenTcp(e, l->endpoint);
      } else {
        l->endpoint = e;
        l->fd = listenUnix(e);
      }
      bound.push_back(std::move(l));
    }
  } catch (...) {
    for (auto& l : bound) {
      ::close(l->fd);
      if (l->endpoint.kind == Endpoint::Kind::Unix) ::unlink(l->endpoint.path.c_str());
    }
    throw;
  }
  std::weak_ptr<Impl> self = weak_from_this();
  const auto session = broker->session();
  registeredLink = session->serviceRegistered.connect([self](unsigned int id, std::string name) {
    if (auto impl = self.lock()) impl->broadcast("registered", id, name);
  });
  unregisteredLink = session->serviceUnregistered.connect([self](unsigned int id, std::string name) {
    if (auto impl = self.lock()) impl->broadcast("unregistered", id, name);
  });
  // Posts to clients' services are dropped here when a client reads too
  // slowly; the broker reports them with its own modules' drops.
  dropCounter = broker->addDropCounter([self] {
    std::map<std::string, std::uint64_t> counts;
    auto impl = self.lock();
    if (!impl) return counts;
    std::vector<std::shared_ptr<Peer>> current;
    {
      std::lock_guard<std::mutex> guard(impl->mutex);
      counts = impl->retiredDrops;
      for (const auto& p : impl->peers) current.push_back(p.second);
    }
    for (const auto& p : current)
      for (const auto& entry : p->droppedCounts()) counts[entry.first] += entry.second;
    return counts;
  });
  broker->setTransportCounters([self] {
    auto impl = self.lock();
    return impl ? impl->counterSnapshot() : std::map<std::string, std::uint64_t>();
  });
  flusher = std::make_shared<WriteFlusher>();
  listeners = std::move(bound);
  for (auto& l : listeners) {
    Listener* raw = l.get();
    l->thread = std::thread([this, raw] { acceptLoop(raw); });
    RX_INFO(serverLog(), "broker " << broker->getName() << " listening on " << raw->endpoint.toString());
  }
  watchdog = std::thread([this] { watch(); });
  running = true;
}

void Server::Impl::acceptLoop(Listener* listener) {
  for (;;) {
    sockaddr_storage addr{};
    socklen_t len = sizeof addr;
    const int fd = ::accept4(listener->fd, reinterpret_cast<sockaddr*>(&addr), &len, SOCK_CLOEXEC);
    {
      std::lock_guard<std::mutex> lock(mutex);
      if (stopping) {
        if (fd >= 0) ::close(fd);
        return;
      }
    }
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED || errno == EPROTO) continue;
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        // Out of descriptors: wait a little for some to be freed rather than spin.
        RX_ERROR(serverLog(), "accept on " << listener->endpoint.toString() << ": " << std::strerror(errno));
        std::unique_lock<std::mutex> lock(mutex);
        wake.wait_for(lock, std::chrono::milliseconds(100), [&] { return stopping; });
        continue;
      }
      RX_ERROR(serverLog(),
               "accept on " << listener->endpoint.toString() << " failed: " << std::strerror(errno));
      return;
    }
    if (listener->endpoint.kind == Endpoint::Kind::Tcp) {
      int one = 1;
      ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    }
    auto handler = std::make_shared<Handler>();
    handler->fd = fd;
    handler->connection =
        std::make_shared<Connection>(fd, describeClient(addr, listener->endpoint), options.limits);
    Connection& c = *handler->connection;
    std::weak_ptr<Impl> self = weak_from_this();
    c.setBufferedOutput(options.output, flusher, [self](bool hardLimit, const std::string&) {
      if (auto impl = self.lock()) impl->count(hardLimit ? kCutOffHard : kCutOffSoft);
    });
    c.setInputBudget(inputBudget);
    std::unique_lock<std::mutex> lock(mutex);
    if (stopping) return;  // the connection closes with the handler
    if (openConnections.load() >= options.maxConnections) {
      ++counters[kRefusedConnections];
      lock.unlock();
      RX_WARNING(serverLog(), "refusing " << c.description() << ": " << options.maxConnections
                                          << " connections open (maxConnections)");
      refuse(c, "too many connections: maxConnections " + std::to_string(options.maxConnections) + " reached");
      continue;
    }
    handlers.push_back(handler);
    ++openConnections;
    handler->thread = std::thread([this, handler] {
      ::pthread_setname_np(::pthread_self(), "rx-connection");
      serve(handler);
    });
  }
}

std::shared_ptr<Peer> Server::Impl::peerFor(const std::string& sessionId, const std::string& clientName) {
  std::lock_guard<std::mutex> lock(mutex);
  auto known = peers.find(sessionId);
  if (known == peers.end() && peers.size() >= options.maxClients) {
    ++counters[kRefusedClients];
    return nullptr;
  }
  std::shared_ptr<Peer>& peer = peers[sessionId];
  if (!peer) {
    Peer::Settings settings;
    settings.brokerName = broker->getName();
    settings.requestTimeout = options.requestTimeout;
    settings.queueCapacity = broker->options().queueCapacity;
    peer =
        std::make_shared<Peer>(broker->session(), settings, sessionId, clientName);
    RX_DEBUG(serverLog(), peer->peerName() << " connected");
  }
  return peer;
}

void Server::Impl::forgetPeer(const std::shared_ptr<Peer>& peer) {
  const std::map<std::string, std::uint64_t> dropped = peer->droppedCounts();
  std::lock_guard<std::mutex> lock(mutex);
  auto it = peers.find(peer->sessionId());
  if (it != peers.end() && it->second == peer) {
    peers.erase(it);
    for (const auto& entry : dropped)
      if (entry.second) retiredDrops[entry.first] += entry.second;
  }
}

void Server::Impl::serve(const std::shared_ptr<Handler>& handler) {
  Connection& c = *handler->connection;
  Message message;
  std::shared_ptr<Peer> peer;
  bool isEvent = false;

  // ---- Handshake: Hello [sessionId, role, clientName] -> HelloAck [brokerName] ----
  for (;;) {
    const Connection::ReadStatus status = c.read(message);
    if (status == Connection::ReadStatus::Message) break;
    if (status == Connection::ReadStatus::BadFrame) {
      const DecodeError& e = *c.lastError();
      if (e.requestId() && *e.requestId() != 0)
        sendError(c, *e.requestId(), std::string("malformed frame: ") + e.what());
      continue;
    }
    if (status == Connection::ReadStatus::TimedOut) continue;
    if (status == Connection::ReadStatus::OutOfSync)
      sendError(c, 0, std::string("stream out of sync, closing: ") + c.lastError()->what());
    c.close();
    finish(*handler);
    return;
  }
  std::string why;
  if (message.kind != static_cast<std::uint8_t>(MessageKind::Hello)) {
    why = "the first message must be Hello [sessionId, role, clientName]";
  } else if (message.requestId == 0) {
    why = zeroIdRefusal(message);
  } else if (message.fields.size() < 3 || !message.fields[0].isString() || !message.fields[1].isString() ||
             !message.fields[2].isString() || message.fields[0].toStdString().empty()) {
    why =
        "bad Hello: expected [sessionId (non-empty string), role (\"call\" or \"event\"), clientName "
        "(string)]";
  } else if (message.fields[1].toStdString() != "call" && message.fields[1].toStdString() != "event") {
    why = "bad Hello: role must be \"call\" or \"event\", not \"" + message.fields[1].toStdString() + "\"";
  } else {
    isEvent = message.fields[1].toStdString() == "event";
    peer = peerFor(message.fields[0].toStdString(), message.fields[2].toStdString());
    if (!peer) {
      why = "too many clients: maxClients " + std::to_string(options.maxClients) + " reached";
      RX_WARNING(serverLog(), "refusing client " << message.fields[2].toStdString() << " on "
                                                  << c.description() << ": " << why);
    } else if (!peer->attach(handler->connection, isEvent, why)) {
      peer.reset();
    }
  }
  if (!peer) {
    sendError(c, message.requestId, why);
    c.close();
    finish(*handler);
    return;
  }
  {
    std::lock_guard<std::mutex> lock(mutex);
    handler->peer = peer;
  }
  handler->isEvent = isEvent;
  handler->greeted = true;
  c.setObjectDecoder(peer->objectDecoder());
  Message ack = makeMessage(MessageKind::HelloAck, message.requestId);
  ack.fields = {RX::RXValue(broker->getName())};
  try {
    c.send(ack);
  } catch (const std::exception&) {
  }

  // ---- Requests, in order, each served on this thread ----
  std::string reason = "connection closed";
  RX::CallContext callerScope(handler->callerGone);
  for (;;) {
    const Connection::ReadStatus status = c.read(message);
    if (status == Connection::ReadStatus::Message) {
      const std::string refusal = zeroIdRefusal(message);
      if (!refusal.empty()) {
        // Not run: its answer could not be told from an error about the connection.
        count(kMalformed);
        sendError(c, 0, refusal);
        continue;
      }
      handler->busy = true;
      if (isEvent)
        peer->handleEventMessage(c, message);
      else
        peer->handleCallMessage(c, message);
      handler->busy = false;
      continue;
    }
    if (status == Connection::ReadStatus::TimedOut) continue;
    if (status == Connection::ReadStatus::BadFrame) {
      const DecodeError& e = *c.lastError();
      count(kMalformed);
      std::uint64_t held = 0;
      // A client can send malformed frames as fast as it likes; the log says so once a second.
      if (malformedThrottle.allow(held))
        RX_WARNING(serverLog(), "malformed frame from " << peer->peerName() << ": " << e.what()
                                                        << RX::log::heldBack(held));
      if (e.requestId() && *e.requestId() != 0 && expectsReply(e.kind()))
        sendError(c, *e.requestId(), std::string("malformed frame: ") + e.what());
      continue;
    }
    if (status == Connection::ReadStatus::OutOfSync) {
      reason = std::string("stream out of sync: ") + c.lastError()->what();
      if (c.overInputBudget()) count(kInputBudget);
      RX_WARNING(serverLog(), "closing a connection of " << peer->peerName() << ": " << reason);
      sendError(c, 0, "stream out of sync, closing: " + std::string(c.lastError()->what()));
    }
    break;
  }
  c.close();
  const bool empty = peer->detach(handler->connection);
  // The event connection is the client's life line; a client without one
  // lives as long as its call connections.
  if (isEvent || (empty && !peer->hasEventConnection())) {
    peer->close(isEvent ? "event connection: " + reason : reason);
    forgetPeer(peer);
  }
  finish(*handler);
}

void Server::Impl::watch() {
  std::unique_lock<std::mutex> lock(mutex);
  while (!stopping) {
    wake.wait_for(lock, kWatchPeriod, [&] { return stopping; });
    if (stopping) break;
    const auto now = std::chrono::steady_clock::now();
    std::vector<std::thread> finished;
    std::vector<std::shared_ptr<Connection>> toCheck;
    for (auto it = handlers.begin(); it != handlers.end();) {
      Handler& h = **it;
      if (h.done) {
        finished.push_back(std::move(h.thread));
        it = handlers.erase(it);
        continue;
      }
      toCheck.push_back(h.connection);
      // A request that outlives its caller is told so, and can stop early.
      if (h.busy && !h.callerGone->load() && hungUp(*h.connection, h.fd)) h.callerGone->store(true);
      if (!h.greeted && now - h.accepted > options.handshakeTimeout && !h.connection->isClosed()) {
        ++counters[kNoHello];
        RX_INFO(serverLog(), "closing " << h.connection->description() << ": no Hello within "
                                        << options.handshakeTimeout.count() << " ms (handshakeTimeout)");
        h.connection->close();
      }
      const bool silent = now - h.connection->lastReceive() > options.idleTimeout;
      if (silent && !h.busy) {
        // A connection that never greeted, a client whose pings stopped, or a
        // call connection of a client that has no event connection to ping on.
        const bool drop = !h.greeted || h.isEvent || (h.peer && !h.peer->hasEventConnection());
        if (drop) {
          RX_INFO(serverLog(), "closing " << h.connection->description() << ": silent for "
                                          << options.idleTimeout.count() << " ms");
          h.connection->close();
        }
      }
      ++it;
    }
    lock.unlock();
    // Outside the lock: a cut-off is counted under it.
    for (auto& c : toCheck) c->checkOutput(now);
    for (auto& t : finished) t.join();
    lock.lock();
  }
}

void Server::Impl::broadcast(const std::string& what, unsigned int id, const std::string& name) {
  const Peer* registrant = Peer::currentRegistrant();
  std::vector<std::shared_ptr<Peer>> targets;
  {
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& p : peers)
      if (p.second.get() != registrant) targets.push_back(p.second);
  }
  for (const auto& p : targets) p->sendServiceEvent(what, id, name);
}

void Server::Impl::stop() {
  std::vector<std::unique_ptr<Listener>> stoppedListeners;
  std::list<std::shared_ptr<Handler>> stoppedHandlers;
  std::map<std::string, std::shared_ptr<Peer>> stoppedPeers;
  std::thread watcher;
  unsigned int counter = 0;
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (stopping) return;
    stopping = true;
    running = false;
    stoppedListeners.swap(listeners);
    watcher = std::move(watchdog);
    std::swap(counter, dropCounter);
  }
  wake.notify_all();
  if (counter) broker->removeDropCounter(counter);
  broker->setTransportCounters(nullptr);
  if (registeredLink != mz::kInvalidSignalLink)
    broker->session()->serviceRegistered.disconnect(registeredLink);
  if (unregisteredLink != mz::kInvalidSignalLink)
    broker->session()->serviceUnregistered.disconnect(unregisteredLink);
  for (auto& l : stoppedListeners) {
    // Wakes the acceptor blocked in accept(); the descriptor is closed after the join.
    ::shutdown(l->fd, SHUT_RDWR);
    if (l->thread.joinable()) l->thread.join();
    ::close(l->fd);
    if (l->endpoint.kind == Endpoint::Kind::Unix) ::unlink(l->endpoint.path.c_str());
  }
  if (watcher.joinable()) watcher.join();
  {
    std::lock_guard<std::mutex> lock(mutex);
    stoppedHandlers.swap(handlers);
    stoppedPeers.swap(peers);
  }
  for (auto& h : stoppedHandlers) h->connection->close();
  for (auto& p : stoppedPeers) p.second->close("broker stopping");
  for (auto& h : stoppedHandlers)
    if (h->thread.joinable()) h->thread.join();
  if (flusher) flusher->stop();
  RX_INFO(serverLog(), "broker " << broker->getName() << " stopped listening");
}

// ---- Server ----

Server::Server(boost::shared_ptr<RX::RXBroker> broker, std::vector<std::string> endpoints)
    : Server(std::move(broker), std::move(endpoints), Options()) {}

Server::Server(boost::shared_ptr<RX::RXBroker> broker, std::vector<std::string> endpoints,
               const Options& options)
    : impl_(std::make_shared<Impl>(std::move(broker), std::move(endpoints), options)) {
  if (!impl_->broker) throw std::invalid_argument("net::Server needs a broker");
}

Server::~Server() { stop(); }

void Server::start() { impl_->start(); }
void Server::stop() { impl_->stop(); }

bool Server::isRunning() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->running;
}

std::vector<std::string> Server::endpoints() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  std::vector<std::string> out;
  for (const auto& l : impl_->listeners) out.push_back(l->endpoint.toString());
  return out;
}

std::size_t Server::peerCount() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->peers.size();
}

std::size_t Server::connectionCount() const { return impl_->openConnections.load(); }

std::vector<std::string> Server::clientNames() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  std::vector<std::string> out;
  for (const auto& p : impl_->peers) out.push_back(p.second->clientName());
  return out;
}

}  // namespace net
