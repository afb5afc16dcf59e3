// RXMemorySubscriber: the object handed out by RXMemory::subscriber(key). Its
// only member is the key's signal, registered with the framework's type system
// under the name "signal", so that a shared pointer returned from a published
// method reaches the caller (in or out of process) as an object with that
// signal. Thread safety: as RXMemorySignal.
#pragma once

#include <string>

#include "rxmemorysignal.h"

namespace RX {
class RXMemory;
}

class RXMemorySubscriber {
 public:
  RXMemorySubscriber(RX::RXMemory* memory, const std::string& name);

  RX::RXMemorySignal signal;
};
