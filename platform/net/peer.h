// net::Peer: what a broker knows of one client session: its call connections
// (requests from the client, each served on the thread that reads it), its
// event connection (requests from the broker to the client's objects, signal
// emissions and service events towards the client, and their replies), the
// objects both sides hold references to (ObjectBridge), and the services the
// client registered in the broker's session.
//
// Requests to the client are written on the event connection by the asking
// thread, which then waits for the reply; the event connection's reader only
// routes replies, so a broker method that calls back into a client never waits
// for a thread that is itself waiting. Posts, emissions and service events are
// written by the thread that makes them, straight to the event connection when
// nothing waits there, never waiting for the client: what its socket does not
// take waits in the connection's outbox, in order, at most queueCapacity
// frames per target object (and as many for the emissions and service
// events), the oldest dropped and counted beyond that.
//
// Thread safety: every member may be called from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "mz/future.h"
#include "net/connection.h"
#include "net/objectbridge.h"

namespace mz {
class Session;
}

namespace net {

class Peer : public ObjectBridge {
 public:
  struct Settings {
    std::string brokerName;
    std::chrono::milliseconds requestTimeout{30000};  // waiting for a client's reply
    std::size_t queueCapacity = 10000;                // pending posts per client object
  };

  Peer(std::shared_ptr<mz::Session> session, Settings settings, std::string sessionId, std::string clientName);
  ~Peer() override;

  const std::string& sessionId() const { return sessionId_; }
  const std::string& clientName() const { return clientName_; }

  // ---- Connections ----
  // Adds a connection after its Hello. Returns false, with the reason in
  // `why`, when the role is taken (one event connection per session) or the
  // peer is closed.
  [[nodiscard]] bool attach(const std::shared_ptr<Connection>& connection, bool isEvent, std::string& why);
  // Forgets a connection that ended. Returns true when the peer has no
  // connection left.
  bool detach(const std::shared_ptr<Connection>& connection);
  bool hasEventConnection() const;

  // Handles one message read from a call connection (directory and object
  // requests, pings) and writes its reply there.
  void handleCallMessage(Connection& connection, Message& message);
  // Handles one message read from the event connection: replies to the
  // broker's requests, pings. Never blocks on a client.
  void handleEventMessage(Connection& connection, Message& message);

  // Tells the client that a service of the broker's session came or went
  // ("registered" / "unregistered").
  void sendServiceEvent(const std::string& what, unsigned int id, const std::string& name);
  // The peer currently registering or unregistering a service on this thread,
  // if any: the session announces the change on that thread, and the client
  // that made it is not told about its own service.
  static const Peer* currentRegistrant();

  // Ends the session: connections are shut down, waiting requests fail, the
  // client's services are unregistered, its signal links and object
  // references dropped. Idempotent.
  void close(const std::string& reason);
  bool isPeerClosed() const;
  std::vector<unsigned int> serviceIds() const;
  // Posts dropped because the queue towards one of the client's services was
  // full (the client reads too slowly), by service name.
  std::map<std::string, std::uint64_t> droppedCounts() const;

  // ---- ObjectBridge ----
  // Throws mz::ObjectGoneError once the client is gone.
  void sendPost(std::uint64_t targetId, Message post) override;
  [[noreturn]] void throwGone() const override;

 protected:
  Message exchange(Message request) override;
  void sendOneWay(Message message) noexcept override;
  void deliverEmit(std::uint32_t linkId, const mz::SignalSubscriber& subscriber,
                   mz::GenericFunctionParameters params) override;
  void deliverPost(std::uint32_t objectId, const mz::AnyObject& target, std::string method,
                   mz::GenericFunctionParameters params) override;
  void onImportDropped(std::uint64_t id) override;

 private:
  void reply(Connection& connection, Message& message);
  void serveLookup(Message& request, Message& reply);
  void serveListServices(Message& reply);
  void serveRegisterService(Message& request, Message& reply);
  void serveUnregisterService(Message& request, Message& reply);
  // REQUIRES: mutex_ held. Forgets the lane towards one object, keeping its drop count.
  void retireLane(std::uint64_t id);
  // Encodes `message` and writes its frame to the event connection in `lane`
  // (see Outbox); `what` names it in the log line of a lost write.
  void writeFrame(std::uint64_t lane, const Message& message, const char* what);
  void countDrop(std::uint64_t lane);

  // Constant after construction.
  const std::shared_ptr<mz::Session> session_;
  const Settings settings_;
  const std::string sessionId_;
  const std::string clientName_;

  // Guarded by mutex_.
  mutable std::mutex mutex_;
  bool closed_ = false;
  std::vector<std::shared_ptr<Connection>> connections_;
  std::shared_ptr<Connection> eventConnection_;
  std::unordered_map<std::uint32_t, mz::Promise<Message>> pending_;  // by request id
  std::uint32_t nextRequestId_ = 1;
  std::set<unsigned int> services_;  // ids in the broker's session
  std::unordered_map<std::uint64_t, std::uint64_t> laneDrops_;  // frames dropped, by lane
  std::unordered_map<std::uint64_t, std::string> serviceNames_;  // import id -> name it was registered as
  std::map<std::string, std::uint64_t> retiredDrops_;  // by service name, of queues that are gone
};

}  // namespace net
