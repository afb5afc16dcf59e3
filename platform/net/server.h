// net::Server: makes the modules and services of one RXBroker reachable from
// other processes. It listens on TCP and Unix-domain endpoints; each accepted
// connection gets a thread that reads it and serves its requests in order, and
// connections are grouped by client session into net::Peer objects.
//
//   net::Server server(broker, {"tcp://127.0.0.1:9780", "unix:///run/rx.sock"});
//   server.start();          // throws "cannot listen on ...: Address already in use"
//   ...
//   server.stop();           // closes connections, joins every thread
//
// A client is declared dead when its event connection closes or stays silent
// for Options::idleTimeout (clients ping every second); its services are then
// unregistered and its links and references dropped. Every write to a client
// is buffered and never waits (see Connection::setBufferedOutput); clients,
// connections, handshakes and buffered input are bounded by Options, and what
// was refused or cut off is counted in RXBroker::transportCounters().
// Thread safety: every member may be called from any thread, except that
// stop() must not be called from a thread of the server (a method run for a
// client).
#pragma once

#include <boost/shared_ptr.hpp>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "net/connection.h"
#include "net/wirecodec.h"

namespace RX {
class RXBroker;
}

namespace net {

class Server {
 public:
  // What one client may cost the broker. A client over a limit is refused or
  // cut off, never waited for; the others go on.
  struct Options {
    std::chrono::milliseconds idleTimeout{5000};       // silence after which a client is dropped
    std::chrono::milliseconds requestTimeout{30000};   // waiting for a client's reply to the broker
    std::chrono::milliseconds handshakeTimeout{5000};  // from accept to a valid Hello
    std::size_t maxClients = 256;                      // client sessions at once
    std::size_t maxConnections = 1024;                 // open connections, greeted or not
    std::size_t maxInputBytes = 256u << 20;            // partial frames held across all connections
    OutputLimits output;                               // bytes kept for a client that reads slowly
    Limits limits;                                     // what a client may make us decode
  };

  Server(boost::shared_ptr<RX::RXBroker> broker, std::vector<std::string> endpoints);
  Server(boost::shared_ptr<RX::RXBroker> broker, std::vector<std::string> endpoints, const Options& options);
  ~Server();  // stop()
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Starts listening on every endpoint. Throws net::EndpointError for a
  // malformed endpoint and std::runtime_error "cannot listen on ENDPOINT:
  // REASON" when one cannot be bound; nothing stays open then.
  void start();
  // Stops accepting, closes every connection, ends every client session and
  // joins the threads. Idempotent.
  void stop();
  bool isRunning() const;

  // The endpoints being listened on, with the port the system chose for a
  // "tcp://HOST:0" endpoint. Empty before start().
  std::vector<std::string> endpoints() const;
  // Client sessions currently known (for status pages and tests).
  std::size_t peerCount() const;
  std::vector<std::string> clientNames() const;
  // Open connections, greeted or not.
  std::size_t connectionCount() const;

  struct Impl;

 private:
  std::shared_ptr<Impl> impl_;
};

}  // namespace net
