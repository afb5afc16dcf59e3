#include "rxmemorysubscriber.h"

#include "mz/object.h"

RXMemorySubscriber::RXMemorySubscriber(RX::RXMemory* memory, const std::string& name) : signal(memory, name) {}

namespace {

// Registered when the library is loaded, so that the handles returned by
// RXMemory::subscriber reach callers as objects with their signal "signal".
[[maybe_unused]] const bool kSubscriberTypeRegistered = [] {
  mz::ObjectTypeBuilder<RXMemorySubscriber>("RXMemorySubscriber")
      .advertiseSignal("signal", &RXMemorySubscriber::signal)
      .registerType();
  return true;
}();

}  // namespace
