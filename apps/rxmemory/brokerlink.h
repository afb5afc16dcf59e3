// BrokerLink: the command line's connection to one broker: a client session
// on the broker's endpoint and the module (one of its services) a command
// talks to. Failures become CliErrors carrying the exit status they deserve:
// a malformed endpoint is bad usage, nothing answering is "no broker", a
// missing module is a failure.
// Thread safety: module() and session() may be used from any thread.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "mz/object.h"

namespace net {
class ClientSession;
}

namespace rxcli {

class BrokerLink {
 public:
  // The line printed under a "no broker" error.
  static const char* const kStartHint;

  // How the session lives through a loss of its broker.
  enum class Loss {
    kEnd,        // it stays disconnected: a short command reports and ends
    kReconnect,  // it reconnects, remaking nothing: the caller (watch) does
  };

  // Connects within `timeout`, which also bounds every later reply.
  // Throws CliError (kUsage for a malformed endpoint, kNoBroker when the
  // broker cannot be reached).
  BrokerLink(const std::string& endpoint, std::chrono::milliseconds timeout, Loss loss = Loss::kEnd);
  ~BrokerLink();  // closes the session
  BrokerLink(const BrokerLink&) = delete;
  BrokerLink& operator=(const BrokerLink&) = delete;

  // The broker's service of that name; throws CliError kFailure when there is
  // none ("no module NAME at ENDPOINT").
  [[nodiscard]] mz::AnyObject module(const std::string& name);
  net::ClientSession& session() { return *session_; }

 private:
  const std::string endpoint_;
  std::shared_ptr<net::ClientSession> session_;
};

}  // namespace rxcli
