// net::HttpStatusServer: the broker's status pages over HTTP.
//   GET /                        index of the modules, their descriptions and the
//                                notifications dropped per subscriber module
//   GET /<module>                the module's own page (RXModule::httpGet)
//   GET /<module>/methods.json   the module's published catalogue as JSON
// Module pages embed names and values unescaped, so every answer carries a
// Content-Security-Policy that forbids scripts.
// Thread safety: start and stop from one thread; requests are served on the
// server's own threads.
#pragma once

#include <memory>
#include <string>

#include <boost/shared_ptr.hpp>

namespace RX {
class RXBroker;
}

namespace net {

class HttpStatusServer {
 public:
  // The policy sent with every answer: no scripts, no plugins, inline styles only.
  static const char* const kContentSecurityPolicy;

  HttpStatusServer(boost::shared_ptr<RX::RXBroker> broker, std::string host, int port);
  ~HttpStatusServer();  // stop()
  HttpStatusServer(const HttpStatusServer&) = delete;
  HttpStatusServer& operator=(const HttpStatusServer&) = delete;

  // Binds and starts serving; throws std::runtime_error "cannot serve HTTP on
  // HOST:PORT: REASON" when the address cannot be bound. Port 0 picks a free port.
  void start();
  void stop();
  // The bound port (after start).
  int port() const;
  // "http://HOST:PORT".
  std::string url() const;

  // The pages themselves, for tests and other front ends.
  std::string indexPage() const;
  std::string methodsJson(const std::string& module) const;  // empty when no such module

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace net
