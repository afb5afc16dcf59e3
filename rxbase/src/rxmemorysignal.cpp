#include "rxmemorysignal.h"

#include <stdexcept>

#include "rxmemory.h"

namespace RX {

RXMemorySignal::RXMemorySignal() : memory(nullptr) {}

RXMemorySignal::RXMemorySignal(RXMemory* memory, const std::string& name) : memory(memory), name(name) {}

RXMemorySignal::~RXMemorySignal() = default;

void RXMemorySignal::trigger(const mz::GenericFunctionParameters& params, mz::MetaCallType /*callType*/) {
  if (params.size() > 1) throw std::runtime_error("Invalid number of arguments");
  if (params.empty()) {
    memory->raiseEvent(name, RXValue());
    return;
  }
  // Converted before anything is raised: a foreign value stores nothing.
  const RXValue& value = params[0].toRXValue();
  memory->raiseEvent(name, value);
}

void RXMemorySignal::bounceEvent(const RXValue& value) {
  // Every raise comes through here; most keys have no signal subscriber, and
  // they should not pay for building the parameter list.
  if (!hasSubscribers()) return;
  // The base trigger delivers; the override would raise the key once more.
  SignalBase::trigger(mz::GenericFunctionParameters{mz::AnyValue(value)}, mz::MetaCallType_Auto);
}

}  // namespace RX
