// RXBrokerManager: the process-wide list of brokers. One instance is installed
// with setInstance; getInstance returns it, creating an empty manager when none
// is installed (or an empty one was), so callers can always use it.
// Brokers keep only a weak reference to their manager. Thread-safe.
#pragma once

#include <mutex>
#include <vector>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>

namespace RX {

class RXBroker;

class RXBrokerManager : public boost::enable_shared_from_this<RXBrokerManager> {
 public:
  static void setInstance(boost::shared_ptr<RXBrokerManager> manager);
  static boost::shared_ptr<RXBrokerManager> getInstance();

  // Adds a broker once (adding it again does nothing) and points the broker
  // at this manager (REQUIRES, for that: the manager is owned by a
  // boost::shared_ptr).
  void addBroker(const boost::shared_ptr<RXBroker>& broker);
  void removeBroker(const boost::shared_ptr<RXBroker>& broker);
  std::vector<boost::shared_ptr<RXBroker>> getBrokers() const;

 private:
  mutable std::mutex mutex_;
  std::vector<boost::shared_ptr<RXBroker>> brokers_;
};

}  // namespace RX
