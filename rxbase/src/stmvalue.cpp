#include "stmvalue.h"

#include <exception>
#include <memory>

#include <boost/circular_buffer.hpp>
#include <boost/make_shared.hpp>
#include <boost/thread/lock_guard.hpp>

#include "rx/rxbroker.h"
#include "rx/rxerror.h"
#include "rx/rxlog.h"
#include "rx/rxproxy.h"
#include "rxmemorysubscriber.h"

namespace RX {

// The broker hosting the memory, through which subscriber modules are reached.
// Set once when the module is built, before any cell can notify.
RXBroker* staticBroker = nullptr;

namespace {

const char* const kModuleName = "RXMemory";

log::Category& cellLog() {
  static log::Category& category = log::category("RXMemory");
  return category;
}

mz::os::timeval now() {
  mz::os::timeval tv;
  mz::os::gettimeofday(&tv);
  return tv;
}

RXValue valueWithTime(const RXValue& value, const mz::os::timeval& tv) {
  RXValue entry = RXValue::array(3);
  entry[0] = value;
  entry[1] = RXValue(static_cast<int>(tv.tv_sec));
  entry[2] = RXValue(static_cast<int>(tv.tv_usec));
  return entry;
}

}  // namespace

// ---- STMNotifier ----

STMNotifier::STMNotifier() : notifyState(0, 0) {}

STMNotifier::STMNotifier(const std::string& moduleName, const RXValue& message, const std::string& methodName)
    : moduleName(moduleName), message(message), methodName(methodName), notifyState(0, 0) {}

STMNotifier::~STMNotifier() = default;

void STMNotifier::addSubscriber(const std::string& /*name*/, const std::string& newModuleName,
                                const RXValue& newMessage, const std::string& newMethodName) {
  moduleName = newModuleName;
  message = newMessage;
  methodName = newMethodName;
}

std::string STMNotifier::getModuleName() const { return moduleName; }

// ---- STMValue ----

// What a cell needs only once it is subscribed to, described or raised. Each
// field keeps the guard it would have inline in the cell.
struct STMValue::Extras {
  // Guarded by notifierMutex.
  std::map<std::string, STMNotifier> notifiers;
  // Guarded by the owning RXMemory's keyMapMutex, not by a cell lock.
  std::string description;
  // Guarded by historyMutex; empty until the first pushHistory.
  boost::shared_ptr<HistoryRing> historyRing;
  // The signal object: the handle is guarded by notifierMutex and set once;
  // `signalObject` publishes the same object to notify, which reads it
  // without a lock (it must emit holding none).
  boost::shared_ptr<RXMemorySubscriber> signal;
  std::atomic<RXMemorySubscriber*> signalObject{nullptr};
};

STMValue::STMValue(const RXValue& value, dataType type, const mz::os::timeval& timestamp)
    : ptrAccessed(false), type(type), value(value), timestamp(timestamp) {}

STMValue::STMValue(const RXValue& value, dataType type) : ptrAccessed(false), type(type), value(value), timestamp() {}

STMValue::STMValue() : ptrAccessed(false), type(UnknownData), timestamp() {}

STMValue::~STMValue() {
  // Nobody else can reach the cell any more: the block is simply reclaimed.
  std::unique_ptr<Extras> owned(extras.load(std::memory_order_acquire));
}

STMValue::Extras* STMValue::extrasIfAny() const { return extras.load(std::memory_order_acquire); }

STMValue::Extras& STMValue::ensureExtras() {
  if (Extras* current = extrasIfAny()) return *current;
  // The three users of the block hold three different locks, so two of them
  // may race to create it: the first one installed wins, the other is dropped.
  auto fresh = std::make_unique<Extras>();
  Extras* expected = nullptr;
  if (extras.compare_exchange_strong(expected, fresh.get(), std::memory_order_acq_rel)) return *fresh.release();
  return *expected;
}

void STMValue::setDescription(const std::string& text) {
  // An empty description on a cell without the block is already what readers see.
  if (text.empty() && !extrasIfAny()) return;
  ensureExtras().description = text;
}

std::string STMValue::getDescription() const {
  const Extras* x = extrasIfAny();
  return x ? x->description : std::string();
}

boost::shared_ptr<RXMemorySubscriber> STMValue::subscriber(RXMemory* memory, const std::string& name) {
  boost::lock_guard<CompactRecursiveMutex> lock(notifierMutex);
  Extras& x = ensureExtras();
  if (!x.signal) {
    x.signal = boost::make_shared<RXMemorySubscriber>(memory, name);
    x.signalObject.store(x.signal.get(), std::memory_order_release);
  }
  return x.signal;
}

dataType STMValue::setValue(const RXValue& newValue, dataType newType, const mz::os::timeval& newTimestamp) {
  boost::lock_guard<CompactRecursiveMutex> lock(valueMutex);
  if (ptrAccessed && newValue.getType() != value.getType()) {
    // A key created empty by getDataPtr may still receive its first number.
    const bool firstNumber = !value.isValid() && (newValue.isFloat() || newValue.isInt());
    if (!firstNumber) {
      RX_THROW(kModuleName, "setValue",
               std::string("Can't change the type of the value from ") + RXValue::TypeToString(value.getType()) +
                   " to " + RXValue::TypeToString(newValue.getType()) +
                   " because getDataPtr has been called on it.");
    }
  }
  value = newValue;
  const dataType oldType = type;
  type = newType;
  timestamp = newTimestamp;
  return oldType;
}

RXValue STMValue::getValueTimeStamp() {
  boost::lock_guard<CompactRecursiveMutex> lock(valueMutex);
  return valueWithTime(value, timestamp);
}

void STMValue::pushHistory(const RXValue& newValue) {
  boost::lock_guard<CompactRecursiveMutex> lock(historyMutex);
  boost::shared_ptr<HistoryRing>& historyRing = ensureExtras().historyRing;
  // Only raised keys pay for a ring, allocated once for all its entries.
  if (!historyRing) historyRing = boost::make_shared<HistoryRing>(kHistoryCapacity);
  if (!newValue.isValid()) return;
  // A full ring overwrites its oldest entry.
  historyRing->push_back(HistoryEntry(now(), newValue));
}

RXValue STMValue::history() {
  boost::lock_guard<CompactRecursiveMutex> lock(historyMutex);
  const Extras* x = extrasIfAny();
  if (!x || !x->historyRing) return RXValue();
  const HistoryRing& historyRing = *x->historyRing;
  RXValue result = RXValue::array();
  result.arrayReserve(historyRing.size());
  for (const HistoryEntry& entry : historyRing) result.arrayPush(valueWithTime(entry.second, entry.first));
  return result;
}

void STMValue::setBrokerInstance(boost::shared_ptr<RXBroker> broker) { staticBroker = broker.get(); }

// ---- Subscriptions ----

void STMValue::setNotifier(const std::string& callbackModule, const RXValue& callbackMessage,
                           const std::string& callbackMethod) {
  boost::lock_guard<CompactRecursiveMutex> lock(notifierMutex);
  // A fresh record: a re-subscription also forgets the cached proxy.
  ensureExtras().notifiers[callbackModule] = STMNotifier(callbackModule, callbackMessage, callbackMethod);
}

void STMValue::unsubscribeNotifier(const std::string& moduleName, const std::string& keyName) {
  boost::lock_guard<CompactRecursiveMutex> lock(notifierMutex);
  Extras* x = extrasIfAny();
  if (!x || x->notifiers.erase(moduleName) == 0)
    RX_THROW(kModuleName, "UnsubscribeToMicroEvent", moduleName + " is not subscribed to " + keyName);
}

std::vector<std::string> STMValue::getNotifierList() {
  boost::lock_guard<CompactRecursiveMutex> lock(notifierMutex);
  std::vector<std::string> names;
  const Extras* x = extrasIfAny();
  if (!x) return names;
  names.reserve(x->notifiers.size());
  for (const auto& entry : x->notifiers) names.push_back(entry.first);
  return names;
}

void STMValue::notify(const std::string& name, const RXValue& newValue) {
  // A cell without the block has neither a signal object nor subscribers.
  Extras* x = extrasIfAny();
  if (!x) return;
  // The cell holds the object for its whole life, and the caller holds the cell.
  if (RXMemorySubscriber* object = x->signalObject.load(std::memory_order_acquire))
    object->signal.bounceEvent(newValue);
  std::map<std::string, STMNotifier>& notifiers = x->notifiers;

  // Modules not resolved yet are looked up without holding the notifier lock:
  // a broker look-up may be slow, and subscribing must not wait for it.
  std::map<std::string, boost::shared_ptr<RXProxy>> resolvedProxies;
  {
    boost::lock_guard<CompactRecursiveMutex> lock(notifierMutex);
    for (const auto& entry : notifiers)
      if (!entry.second.proxy) resolvedProxies.emplace(entry.second.moduleName, boost::shared_ptr<RXProxy>());
  }
  if (!resolvedProxies.empty()) {
    for (auto& entry : resolvedProxies) {
      try {
        entry.second = staticBroker->getProxy(entry.first, 0);
      } catch (const std::exception& e) {
        // The record stays; the module is looked up again at the next raise.
        RX_VERBOSE(cellLog(), entry.first << " not found, removing module reference:" << e.what());
      }
    }
    boost::lock_guard<CompactRecursiveMutex> lock(notifierMutex);
    for (const auto& entry : resolvedProxies) {
      auto record = notifiers.find(entry.first);
      // Another pass may have resolved it meanwhile, or the module unsubscribed.
      if (record != notifiers.end() && !record->second.proxy) record->second.proxy = entry.second;
    }
  }

  // Posting under the lock keeps subscribe/unsubscribe of this key out until
  // every subscriber has been posted to.
  boost::lock_guard<CompactRecursiveMutex> lock(notifierMutex);
  for (auto it = notifiers.begin(); it != notifiers.end();) {
    STMNotifier& record = it->second;
    if (!record.proxy) {
      ++it;
      continue;
    }
    RX_VERBOSE(cellLog(), "notifying module: " << record.moduleName << " for datachange for key: " << name);
    try {
      RXValue message(static_cast<const std::string&>(record.message));
      const std::string method = record.methodName;
      record.proxy->pCallNotify(method, name, newValue, std::move(message), &record.notifyState);
      ++it;
    } catch (const std::exception& e) {
      // The module has gone: this is the only place a subscription is dropped
      // without an explicit unsubscribe.
      RX_VERBOSE(cellLog(), record.moduleName << " not found, removing module reference:" << e.what());
      it = notifiers.erase(it);
    }
  }
}

}  // namespace RX
