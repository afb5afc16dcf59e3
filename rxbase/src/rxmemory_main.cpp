// The library's entry points: the broker loads librxmemory and calls
// _createModule once; the module then lives as long as the broker keeps it.

#include <boost/make_shared.hpp>

#include "rx/rxbroker.h"
#include "rx/rxbrokermanager.h"
#include "rx/rxerror.h"
#include "rxmemory.h"

extern "C" {

__attribute__((visibility("default"))) int _createModule(boost::shared_ptr<RX::RXBroker> broker) {
  // An expired manager installs an empty one; getInstance then makes do.
  RX::RXBrokerManager::setInstance(broker->getBrokerManager().lock());
  RX::RXBrokerManager::getInstance()->addBroker(broker);

  boost::shared_ptr<RX::RXMemory> module = boost::make_shared<RX::RXMemory>(broker, "RXMemory");
  module->initModule();
  try {
    module->init();
  } catch (const RX::RXError& e) {
    module->exit();
    throw RX::RXError(e);
  }
  // The broker holds its own reference from initModule on.
  return 0;
}

// Does nothing: the module ends when its last shared reference is released.
__attribute__((visibility("default"))) int _closeModule() { return 0; }

}  // extern "C"
