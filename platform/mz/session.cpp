#include "mz/session.h"

#include <stdexcept>

namespace mz {

unsigned int Session::registerService(const std::string& name, const AnyObject& object) {
  if (name.empty()) throw std::runtime_error("Cannot register a service without a name");
  if (!object) throw std::runtime_error("Cannot register service " + name + ": the object is null");
  unsigned int id = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (byName_.count(name)) throw std::runtime_error("Service already registered: " + name);
    id = nextId_++;
    byId_.emplace(id, Entry{name, object});
    byName_.emplace(name, id);
  }
  // Announced without the lock: subscribers commonly look the service up (or
  // register their own) from the callback.
  serviceRegistered(id, name);
  return id;
}

bool Session::unregisterService(unsigned int id) {
  std::string name;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = byId_.find(id);
    if (it == byId_.end()) return false;
    name = std::move(it->second.name);
    byName_.erase(name);
    byId_.erase(it);
  }
  serviceUnregistered(id, name);
  return true;
}

Future<AnyObject> Session::service(const std::string& name, const std::string& /*protocol*/) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = byName_.find(name);
  if (it == byName_.end()) return makeFutureError<AnyObject>("Service not found: " + name);
  return makeFutureValue<AnyObject>(byId_.at(it->second).object);
}

std::vector<ServiceInfo> Session::services() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<ServiceInfo> out;
  out.reserve(byId_.size());
  for (const auto& [id, entry] : byId_) out.push_back(ServiceInfo{id, entry.name});
  return out;
}

}  // namespace mz
