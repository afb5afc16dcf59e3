// RXMemorySignal: the signal "signal" of one memory key. Emitting on it (by a
// client, locally or remotely) raises the key as an event in the memory;
// bounceEvent delivers a raised value to the signal's own subscribers. The two
// meet in the memory: trigger -> raiseEvent -> notify -> bounceEvent.
// Thread safety: trigger and bounceEvent may run concurrently from any thread.
#pragma once

#include <string>

#include "mz/anyvalue.h"
#include "mz/signal.h"
#include "rx/rxvalue.h"

namespace RX {

class RXMemory;

class RXMemorySignal : public mz::SignalF<void(mz::AnyValue)> {
 public:
  // A signal built this way belongs to no key and must not be triggered.
  RXMemorySignal();
  // `memory` is not owned; it outlives every cell of its own store.
  RXMemorySignal(RXMemory* memory, const std::string& name);
  ~RXMemorySignal() override;

  // An emission on "signal": raises the key with the single argument (or with
  // an invalid value when there is none). Throws std::runtime_error
  // "Invalid number of arguments" for more than one argument and the
  // framework's conversion error for a value that is not an RXValue; nothing is
  // raised then. callType is ignored. Delivery to this signal's subscribers
  // happens through the raise, not here.
  void trigger(const mz::GenericFunctionParameters& params,
               mz::MetaCallType callType = mz::MetaCallType_Auto) override;
  // Delivers value to every subscriber of this signal, on the calling thread.
  void bounceEvent(const RXValue& value);

 private:
  // Constant after construction.
  RXMemory* memory;
  std::string name;
};

}  // namespace RX
