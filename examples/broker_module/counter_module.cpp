// A module library that rxbroker loads next to the memory:
//   rxbroker --module counter          (libcounter.so in the module folder)
//   rxbroker --module ./libcounter.so  (a path)
// It publishes increment(key), which adds one to an integer key of the
// memory and returns the new value; any process calls it by name:
//   rxmemory --module Counter call increment '"Robot/Steps"'
#include <mutex>
#include <string>

#include <boost/make_shared.hpp>

#include "rx/rxbroker.h"
#include "rx/rxerror.h"
#include "rx/rxmodule.h"
#include "rx/rxproxy.h"

namespace {

// Published methods may run concurrently on the broker's threads: the mutex
// keeps two increments from reading the same old value.
class Counter : public RX::RXModule {
 public:
  Counter(boost::shared_ptr<RX::RXBroker> broker, const std::string& name) : RX::RXModule(broker, name) {
    setModuleDescription("Counts in keys of the memory.");
    functionName("increment", getName(), "Adds one to an integer key of the memory (a missing key counts as 0).");
    addParam("key", "Name of the key.");
    setReturn("value", "The new value.");
    advertiseMethod(getCurrentMethodDescription(), this, &Counter::increment);
  }

  int increment(const std::string& key) {
    std::lock_guard<std::mutex> lock(mutex_);
    // The memory is a module of the same broker: the call runs in-process.
    boost::shared_ptr<RX::RXProxy> memory = getParentBroker()->getProxy("RXMemory");
    int value = 0;
    try {
      RX::RXValue stored = memory->call<RX::RXValue>("getData", key);
      if (stored.isInt()) value = stored.toInt();
    } catch (const RX::RXError&) {
      // No such key yet.
    }
    memory->call<void>("insertData", key, value + 1);
    return value + 1;
  }

 private:
  std::mutex mutex_;
};

}  // namespace

// The entry points the broker looks up with dlsym: unmangled, visible.
extern "C" {

__attribute__((visibility("default"))) int _createModule(boost::shared_ptr<RX::RXBroker> broker) {
  auto module = boost::make_shared<Counter>(broker, "Counter");
  module->initModule();  // from here on the broker holds the module
  return 0;
}

__attribute__((visibility("default"))) int _closeModule() { return 0; }

}  // extern "C"
