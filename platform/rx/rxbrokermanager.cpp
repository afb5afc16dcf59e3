#include "rx/rxbrokermanager.h"

#include <algorithm>

#include <boost/make_shared.hpp>

#include "rx/rxbroker.h"

namespace RX {

namespace {

struct Installed {
  std::mutex mutex;
  boost::shared_ptr<RXBrokerManager> instance;  // guarded by mutex
};

Installed& installed() {
  static Installed state;
  return state;
}

}  // namespace

void RXBrokerManager::setInstance(boost::shared_ptr<RXBrokerManager> manager) {
  Installed& s = installed();
  boost::shared_ptr<RXBrokerManager> previous;  // released outside the lock
  std::lock_guard<std::mutex> lock(s.mutex);
  previous = std::move(s.instance);
  s.instance = std::move(manager);
}

boost::shared_ptr<RXBrokerManager> RXBrokerManager::getInstance() {
  Installed& s = installed();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (!s.instance) s.instance = boost::make_shared<RXBrokerManager>();
  return s.instance;
}

void RXBrokerManager::addBroker(const boost::shared_ptr<RXBroker>& broker) {
  if (!broker) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (std::find(brokers_.begin(), brokers_.end(), broker) == brokers_.end()) brokers_.push_back(broker);
  }
  broker->setBrokerManager(weak_from_this());
}

void RXBrokerManager::removeBroker(const boost::shared_ptr<RXBroker>& broker) {
  if (!broker) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = std::find(brokers_.begin(), brokers_.end(), broker);
    if (it == brokers_.end()) return;
    brokers_.erase(it);
  }
  // Forget this manager only if the broker still points here.
  if (broker->getBrokerManager().lock().get() == this) broker->setBrokerManager(boost::weak_ptr<RXBrokerManager>());
}

std::vector<boost::shared_ptr<RXBroker>> RXBrokerManager::getBrokers() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return brokers_;
}

}  // namespace RX
