#include "brokerlink.h"

#include "clierror.h"
#include "mz/future.h"
#include "net/clientsession.h"
#include "net/connection.h"
#include "net/endpoint.h"

namespace rxcli {

const char* const BrokerLink::kStartHint = "is the broker running? start one with `make run`";

BrokerLink::BrokerLink(const std::string& endpoint, std::chrono::milliseconds timeout, Loss loss)
    : endpoint_(endpoint) {
  net::ClientSession::Options options;
  options.timeout = timeout;
  options.clientName = "rxmemory";
  // A command is short-lived: when its broker goes, it reports and ends
  // instead of waiting for a new one. A watch waits, and follows its names
  // again itself: remade as they were, the keys of its patterns would be
  // created in a restarted memory that does not hold them.
  options.reconnect = loss == Loss::kReconnect;
  options.remakeSubscriptions = false;
  options.executorThreads = 2;
  try {
    session_ = net::ClientSession::connect(endpoint, options);
  } catch (const net::EndpointError& e) {
    throw CliError(CliError::kUsage, std::string("bad --url: ") + e.what());
  } catch (const std::exception& e) {
    // "cannot connect to ENDPOINT: REASON" names the address tried.
    throw CliError(CliError::kNoBroker, e.what(), kStartHint);
  }
}

BrokerLink::~BrokerLink() {
  if (session_) session_->close();
}

mz::AnyObject BrokerLink::module(const std::string& name) {
  mz::Future<mz::AnyObject> found = session_->service(name);
  try {
    return found.value();
  } catch (const std::exception& e) {
    const std::string why = found.error().empty() ? e.what() : found.error();
    throw CliError(CliError::kFailure, "no module " + name + " at " + endpoint_ + " (" + why + ")");
  }
}

}  // namespace rxcli
