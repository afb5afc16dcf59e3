// Session: a connection to a broker (net::ClientSession) with a client broker
// on it that hosts the modules written in Python. Sessions stay open until
// close() or the interpreter's exit, which closes those still open.
// Thread-safe; close() must not be called from a callback of the session.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "common.h"
#include "object.h"

namespace net {
class ClientSession;
}
namespace RX {
class RXBroker;
class RXModule;
}  // namespace RX

namespace rxpy {

class Session {
 public:
  // Connects; raises rxmemory.RemoteError when the broker cannot be reached.
  Session(const std::string& url, double timeout, const std::string& name);

  // The module or service `name`; LookupError when the broker has none.
  Object service(const std::string& name) const;
  // (id, name) of every service the broker knows.
  py::list services() const;
  bool isConnected() const;
  std::string endpoint() const;
  // Ends the modules of this process, then the connection, and joins the
  // session's threads. Idempotent.
  void close();
  bool isClosed() const;

  const boost::shared_ptr<RX::RXBroker>& broker() const { return broker_; }

  // Closes every session still open (the interpreter's exit hook).
  static void closeAll();

 private:
  // Constant after construction.
  std::shared_ptr<net::ClientSession> session_;
  boost::shared_ptr<RX::RXBroker> broker_;
  // Guarded by mutex_.
  mutable std::mutex mutex_;
  bool closed_ = false;
};

}  // namespace rxpy
