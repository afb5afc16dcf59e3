#include "rx/rxbroker.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include <boost/make_shared.hpp>

#include "mz/session.h"
#include "rx/rxexecutor.h"
#include "rx/rxlog.h"
#include "rx/rxmodule.h"
#include "rx/rxproxy.h"

namespace RX {

namespace {

const log::Category& brokerLog() {
  static const log::Category& category = log::category("rx.broker");
  return category;
}

// The broker's own session answers a lookup at once; the bound only matters
// for a session that has to ask a remote directory.
constexpr std::chrono::milliseconds kServiceLookupWait(2000);

}  // namespace

boost::shared_ptr<RXBroker> RXBroker::create(const std::string& name) { return create(name, Options()); }

boost::shared_ptr<RXBroker> RXBroker::create(const std::string& name, const Options& options) {
  // The constructor is private to us; this local class inherits our access
  // so that make_shared can build it.
  struct Constructible : RXBroker {
    Constructible(const std::string& n, const Options& o) : RXBroker(n, o) {}
  };
  return boost::make_shared<Constructible>(name, options);
}

boost::shared_ptr<RXBroker> RXBroker::create(const std::string& name, const Options& options,
                                             std::shared_ptr<mz::Session> session) {
  struct Constructible : RXBroker {
    Constructible(const std::string& n, const Options& o, std::shared_ptr<mz::Session> s)
        : RXBroker(n, o, std::move(s)) {}
  };
  return boost::make_shared<Constructible>(name, options, std::move(session));
}

RXBroker::RXBroker(const std::string& name, const Options& options, std::shared_ptr<mz::Session> session)
    : name_(name),
      options_(options),
      executor_(std::make_shared<RXExecutor>(std::max(2u, options.threads))),
      session_(session ? std::move(session) : std::make_shared<mz::Session>()) {
  options_.threads = executor_->threadCount();
}

RXBroker::~RXBroker() { shutdown(); }

boost::weak_ptr<RXBrokerManager> RXBroker::getBrokerManager() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return manager_;
}

void RXBroker::setBrokerManager(boost::weak_ptr<RXBrokerManager> manager) {
  std::lock_guard<std::mutex> lock(mutex_);
  manager_ = std::move(manager);
}

// ---- Module registry ----

void RXBroker::registerModule(const boost::shared_ptr<RXModule>& module) {
  if (!module) throw std::runtime_error("broker " + name_ + ": cannot register an empty module");
  std::lock_guard<std::mutex> lock(mutex_);
  if (shutDown_) throw std::runtime_error("broker " + name_ + " is shut down: module " + module->getName() + " refused");
  for (const auto& m : modules_)
    if (m->getName() == module->getName())
      throw std::runtime_error("broker " + name_ + ": a module named " + module->getName() + " is already registered");
  modules_.push_back(module);
}

void RXBroker::unregisterModule(const std::string& name) {
  boost::shared_ptr<RXModule> released;  // may be the last reference: destroyed outside the lock
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = std::find_if(modules_.begin(), modules_.end(), [&](const auto& m) { return m->getName() == name; });
  if (it == modules_.end()) return;
  released = std::move(*it);
  modules_.erase(it);
}

boost::shared_ptr<RXModule> RXBroker::getModule(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& m : modules_)
    if (m->getName() == name) return m;
  return boost::shared_ptr<RXModule>();
}

std::vector<std::string> RXBroker::moduleNames() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> names;
  names.reserve(modules_.size());
  for (const auto& m : modules_) names.push_back(m->getName());
  return names;
}

boost::shared_ptr<RXProxy> RXBroker::getProxy(const std::string& name, int /*flags*/) {
  // A local module is reached directly, without the directory's detour; the
  // proxy does not keep it alive.
  if (boost::shared_ptr<RXModule> module = getModule(name))
    return boost::make_shared<RXProxy>(name, module->weakObject());
  if (session_) {
    mz::Future<mz::AnyObject> found = session_->service(name);
    if (found.wait(kServiceLookupWait) == mz::FutureState::FinishedWithValue) {
      mz::AnyObject object = found.value();
      if (object.isValid()) return boost::make_shared<RXProxy>(name, std::move(object));
    } else {
      found.cancel();
    }
  }
  throw ModuleNotFoundError("Module not found: " + name);
}

std::map<std::string, uint64_t> RXBroker::droppedCounts() const {
  std::map<std::string, uint64_t> counts;
  std::vector<DropCounter> counters;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& m : modules_)
      if (m->postQueue()) counts[m->getName()] = m->postQueue()->dropped();
    for (const auto& c : dropCounters_) counters.push_back(c.second);
  }
  // Outside the lock: a counter takes locks of its own (a server's peers).
  for (const auto& counter : counters)
    for (const auto& entry : counter()) counts[entry.first] += entry.second;
  return counts;
}

unsigned int RXBroker::addDropCounter(DropCounter counter) {
  std::lock_guard<std::mutex> lock(mutex_);
  const unsigned int id = nextDropCounter_++;
  dropCounters_.emplace(id, std::move(counter));
  return id;
}

void RXBroker::removeDropCounter(unsigned int id) {
  DropCounter released;  // destroyed outside the lock
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = dropCounters_.find(id);
  if (it == dropCounters_.end()) return;
  released = std::move(it->second);
  dropCounters_.erase(it);
}

void RXBroker::setTransportCounters(DropCounter source) {
  DropCounter released;  // destroyed outside the lock
  std::lock_guard<std::mutex> lock(mutex_);
  released = std::move(transportCounters_);
  transportCounters_ = std::move(source);
}

std::map<std::string, uint64_t> RXBroker::transportCounters() const {
  DropCounter source;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    source = transportCounters_;
  }
  return source ? source() : std::map<std::string, uint64_t>();
}

// ---- Shutdown ----

void RXBroker::shutdown() {
  std::vector<boost::shared_ptr<RXModule>> modules;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (shutDown_) return;
    shutDown_ = true;
    modules = modules_;
  }
  // Calls already posted (notifications in flight) reach modules that are
  // still whole; a subscriber that never finishes cannot hold the stop forever.
  if (!executor_->drain(std::chrono::seconds(10)))
    RX_WARNING(brokerLog(), "broker " << name_ << ": posted calls still pending after 10 s; stopping anyway");
  // Later modules may depend on earlier ones (the memory is loaded first), so
  // they leave first. The local copies keep every module alive until the
  // executor has finished the calls that are already running.
  for (auto it = modules.rbegin(); it != modules.rend(); ++it) {
    try {
      (*it)->exit();
    } catch (const std::exception& e) {
      RX_ERROR(brokerLog(), "broker " << name_ << ": exit of module " << (*it)->getName() << " failed: " << e.what());
    }
  }
  executor_->shutdown();
  std::vector<boost::shared_ptr<RXModule>> remaining;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    remaining.swap(modules_);
  }
  // Released in reverse order of registration, outside the lock.
  while (!modules.empty()) modules.pop_back();
  while (!remaining.empty()) remaining.pop_back();
}

bool RXBroker::isShutDown() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return shutDown_;
}

}  // namespace RX
