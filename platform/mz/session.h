// mz::Session: the service directory of a broker (or of a client connected to
// one). Services are named objects; registering one announces it with the
// signal serviceRegistered(id, name), unregistering with serviceUnregistered.
//
//   unsigned id = session->registerService("Battery", obj);
//   mz::AnyObject o = session->service("Battery").value();
//   session->serviceRegistered.connect([](unsigned id, std::string name) {...});
//
// Thread safety: every member may be used from any thread. The signals are
// emitted on the registering thread, after the directory has been updated and
// with no lock held, so a subscriber may look the service up at once.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "mz/future.h"
#include "mz/object.h"
#include "mz/signal.h"

namespace mz {

struct ServiceInfo {
  unsigned int id = 0;
  std::string name;
};

class Session {
 public:
  Session() = default;
  virtual ~Session() = default;
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Registers an object under a name and returns its id (ids start at 1 and
  // are never reused). Throws std::runtime_error when the name is taken or the
  // object is empty.
  virtual unsigned int registerService(const std::string& name, const AnyObject& object);
  // Returns false when no service has that id.
  virtual bool unregisterService(unsigned int id);
  // The service's object; the future fails with "Service not found: NAME"
  // when the name is unknown. The protocol argument is reserved (empty).
  virtual Future<AnyObject> service(const std::string& name, const std::string& protocol = std::string());
  virtual std::vector<ServiceInfo> services() const;

  SignalF<void(unsigned int, std::string)> serviceRegistered;
  SignalF<void(unsigned int, std::string)> serviceUnregistered;

 private:
  struct Entry {
    std::string name;
    AnyObject object;
  };
  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::map<unsigned int, Entry> byId_;
  std::map<std::string, unsigned int> byName_;
  unsigned int nextId_ = 1;
};

}  // namespace mz
