// RXBroker: hosts modules by name, owns the executor on which posted calls run
// and the messaging session whose directory lists the modules as services.
// getProxy(name) gives a proxy to a module of this broker, or to a service of
// the session (a module in another process) when no local module has the name.
//
//   auto broker = RX::RXBroker::create("rxbroker");
//   boost::shared_ptr<RX::RXProxy> p = broker->getProxy("RXMemory");
//   ...
//   broker->shutdown();   // posted calls drain, modules exit in reverse order
//
// Thread safety: every member may be called from any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

namespace mz {
class Session;
}

namespace RX {

class RXModule;
class RXProxy;
class RXBrokerManager;
class RXExecutor;

// Thrown by getProxy when no module or service has the name.
class ModuleNotFoundError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class RXBroker : public boost::enable_shared_from_this<RXBroker> {
 public:
  struct Options {
    unsigned int threads = 2;            // executor threads (at least 2)
    std::size_t queueCapacity = 10000;   // pending posted calls per module
  };

  static boost::shared_ptr<RXBroker> create(const std::string& name = "rxbroker");
  static boost::shared_ptr<RXBroker> create(const std::string& name, const Options& options);
  // A broker on a session given by the caller instead of one of its own: a
  // client process passes a net::ClientSession, so that its modules become
  // services of the remote broker and getProxy finds the remote modules.
  static boost::shared_ptr<RXBroker> create(const std::string& name, const Options& options,
                                            std::shared_ptr<mz::Session> session);
  ~RXBroker();

  const std::string& getName() const { return name_; }
  const Options& options() const { return options_; }

  boost::weak_ptr<RXBrokerManager> getBrokerManager() const;
  void setBrokerManager(boost::weak_ptr<RXBrokerManager> manager);

  // Module registry (used by RXModule::initModule and exit). registerModule
  // throws std::runtime_error when the name is taken.
  void registerModule(const boost::shared_ptr<RXModule>& module);
  void unregisterModule(const std::string& name);
  boost::shared_ptr<RXModule> getModule(const std::string& name) const;
  // Names in registration order.
  std::vector<std::string> moduleNames() const;

  // A proxy to the named module or service. Throws ModuleNotFoundError
  // ("Module not found: NAME") when neither exists. `flags` is reserved (0).
  boost::shared_ptr<RXProxy> getProxy(const std::string& name, int flags = 0);

  std::shared_ptr<mz::Session> session() const { return session_; }
  RXExecutor& executor() const { return *executor_; }
  std::shared_ptr<RXExecutor> executorHandle() const { return executor_; }

  // Notifications dropped because a module's queue was full, by module. The
  // counts of the registered drop counters (subscribers in other processes,
  // by service name) are added in.
  std::map<std::string, uint64_t> droppedCounts() const;
  // Adds a source of drop counts to droppedCounts(); returns its id for
  // removeDropCounter. The counter is called without the broker's lock held,
  // from whatever thread asks for the counts.
  using DropCounter = std::function<std::map<std::string, uint64_t>()>;
  [[nodiscard]] unsigned int addDropCounter(DropCounter counter);
  // Forgets a counter; unknown ids are ignored.
  void removeDropCounter(unsigned int id);

  // Counters of the network transport, by name ("clients connected",
  // "clients cut off: output buffer over its hard limit", ...), for the status
  // pages; they outlive the clients they count. One source at a time (the
  // broker's server); an empty function removes it. The source is called
  // without the broker's lock held.
  void setTransportCounters(DropCounter source);
  std::map<std::string, uint64_t> transportCounters() const;

  // Stops the broker: pending posted calls run (for at most 10 s), modules
  // exit in reverse order of registration, the executor joins, the modules
  // are released.
  // Idempotent; must not be called from an executor thread.
  void shutdown();
  bool isShutDown() const;

 private:
  RXBroker(const std::string& name, const Options& options, std::shared_ptr<mz::Session> session = nullptr);

  // Constant after construction.
  std::string name_;
  Options options_;
  std::shared_ptr<RXExecutor> executor_;
  std::shared_ptr<mz::Session> session_;

  // Guarded by mutex_.
  mutable std::mutex mutex_;
  boost::weak_ptr<RXBrokerManager> manager_;
  std::vector<boost::shared_ptr<RXModule>> modules_;  // registration order
  bool shutDown_ = false;
  std::map<unsigned int, DropCounter> dropCounters_;
  unsigned int nextDropCounter_ = 1;
  DropCounter transportCounters_;
};

}  // namespace RX
