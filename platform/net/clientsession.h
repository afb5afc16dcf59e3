// net::ClientSession: an mz::Session connected to a broker in another process.
// Its directory is the broker's: service(name) finds a local service first,
// else looks it up at the broker and returns a RemoteObject; registerService
// registers locally and at the broker, so that the broker's modules can call
// the service back. A client RXBroker built on it makes the process's own
// modules services of the remote broker:
//
//   auto session = net::ClientSession::connect("tcp://127.0.0.1:9780");
//   auto broker = RX::RXBroker::create("client", RX::RXBroker::Options(), session);
//   broker->getProxy("RXMemory")->call<void>("insertData", std::string("k"), 5);
//
// Threads: a blocking call is written and its reply read by the calling thread
// on a call connection from a small pool. Requests from the broker arrive on
// one event connection. Its reader (net::InlineReader) runs posts to our
// objects and signal emissions itself, one at a time per object or link, in
// order; when such a callback blocks (it calls the broker, or runs longer than
// Options::handOverAfter) a standby thread reads on, and the callbacks of that
// object or link wait behind it, capped. Calls from the broker that wait for a
// reply, and service events, run on the session's executor. A supervisor thread pings
// the broker every second, declares it dead after five silent seconds, and
// reconnects with backoff (100 ms doubling to 2 s), registering the local
// services again, making again what the session made at the broker (see
// Options::remakeSubscriptions), and then emitting reconnected(). While
// disconnected, calls fail at once with RemoteError "not connected to
// ENDPOINT"; objects obtained by service name find their service again once
// reconnected.
//
// Thread safety: every member may be called from any thread. Drop the last
// reference from a thread of your own, not from a callback the session runs.
#pragma once

#include <chrono>
#include <cstdint>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "mz/session.h"
#include "mz/signal.h"
#include "net/connection.h"
#include "net/endpoint.h"

namespace RX {
class RXExecutor;
class SerialQueue;
}  // namespace RX

namespace net {

class SubscriptionJournal;

class ClientSession : public mz::Session, public std::enable_shared_from_this<ClientSession> {
 public:
  struct Options {
    std::chrono::milliseconds timeout{10000};  // connecting, and waiting for each reply
    std::string clientName;                    // shown by the broker; default: program name and pid
    // Threads running the broker's calls to our services; also how many nested
    // call-backs (broker -> client -> broker -> client) may wait at once.
    unsigned int executorThreads = 2;
    std::chrono::milliseconds pingInterval{1000};
    std::chrono::milliseconds silenceLimit{5000};  // no byte from the broker for this long: it is dead
    std::chrono::milliseconds reconnectMin{100};
    std::chrono::milliseconds reconnectMax{2000};
    bool reconnect = true;
    std::size_t maxIdleConnections = 8;  // call connections kept open between calls
    // Posts from the broker waiting for one of our objects (and emissions of
    // one link); beyond this the oldest waiting one is dropped and counted, so
    // a slow service neither stalls the reader nor grows memory without bound.
    std::size_t queueCapacity = 10000;
    // A callback run by the event reader for this long is left to finish on
    // its own while another thread reads on.
    std::chrono::milliseconds handOverAfter{20};
    Limits limits;                       // what the broker may make us decode
    // Remember what calls through this session make at the broker, and make it
    // again after reconnecting (a restarted broker has forgotten it): the
    // memory's subscriptions (subscribeToEvent, subscribeToMicroEvent, until
    // unsubscribed) and mappings (addMapping), and signal connections on the
    // broker's services and on objects their calls returned (the key signal
    // object of the memory's subscriber(key)), with the same subscriber and,
    // for the application, the same link id.
    bool remakeSubscriptions = true;
  };

  // Connects to a broker; throws net::EndpointError for a malformed endpoint
  // and RemoteError "cannot connect to ENDPOINT: REASON" when it cannot be
  // reached. Later losses of the connection are repaired in the background.
  [[nodiscard]] static std::shared_ptr<ClientSession> connect(
      const std::string& endpoint, std::chrono::milliseconds timeout = std::chrono::milliseconds(10000));
  [[nodiscard]] static std::shared_ptr<ClientSession> connect(const std::string& endpoint,
                                                              const Options& options);
  ~ClientSession() override;

  // ---- mz::Session ----
  // Registers locally and, when connected, at the broker (whose refusal, e.g.
  // a name already taken there, is thrown and undoes the local part). Returns
  // the local id.
  unsigned int registerService(const std::string& name, const mz::AnyObject& object) override;
  bool unregisterService(unsigned int id) override;
  // A local service, else the broker's; fails with "not connected to
  // ENDPOINT" while disconnected, "Service not found: NAME" when the broker
  // has none. Answers at once (the lookup is made on the calling thread).
  mz::Future<mz::AnyObject> service(const std::string& name,
                                    const std::string& protocol = std::string()) override;
  // The broker's services (with the broker's ids) and the local ones it does
  // not list; only the local ones while disconnected.
  std::vector<mz::ServiceInfo> services() const override;

  const std::string& endpoint() const { return endpointText_; }
  bool isConnected() const;
  // The broker's name from the handshake; empty while disconnected.
  std::string brokerName() const;
  RX::RXExecutor& executor() const { return *executor_; }
  // Posts from the broker dropped because a local service's queue was full,
  // by service name, on the current connection. A client RXBroker can show
  // them with its own: broker->addDropCounter([s] { return s->droppedCounts(); })
  // (capture a weak_ptr when the broker outlives the session).
  std::map<std::string, std::uint64_t> droppedCounts() const;

  // Closes every connection and stops reconnecting; the broker sees the
  // sockets close and forgets this client (its services, links, references).
  // Idempotent; the session stays disconnected.
  void close();

  // Emitted on the supervisor thread when the connection to the broker is lost
  // and once it is back (services registered again, subscriptions remade).
  mz::SignalF<void()> disconnected;
  mz::SignalF<void()> reconnected;

  class Link;

 private:
  ClientSession(const std::string& endpoint, const Options& options);
  void start();
  std::shared_ptr<Link> currentLink() const;
  std::shared_ptr<Link> openLink();
  void registerAllRemotely(const std::shared_ptr<Link>& link);
  void supervise();
  void onLinkLost(const Link* link);
  void onServiceEvent(const std::string& what, unsigned int id, const std::string& name);
  mz::AnyObject lookupRemote(const std::string& name);

  friend class Link;

  // Constant after construction.
  const std::string endpointText_;
  const Endpoint endpoint_;
  const Options options_;
  const std::shared_ptr<RX::RXExecutor> executor_;
  const std::shared_ptr<RX::SerialQueue> serviceEvents_;  // re-emitted in order
  const std::shared_ptr<SubscriptionJournal> journal_;     // null when remaking is off

  // Guarded by mutex_.
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::shared_ptr<Link> link_;  // null while disconnected
  bool linkLost_ = false;
  bool closed_ = false;
  std::thread supervisor_;

  // Guarded by registerMutex_ (held across the network exchanges of a
  // registration, so registrations and their replay after a reconnection
  // never interleave).
  std::mutex registerMutex_;
  std::map<unsigned int, unsigned int> remoteIds_;  // local id -> the broker's id, for the current link
};

}  // namespace net
