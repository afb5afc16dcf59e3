// STMValue: the cell of one memory key: value, storage class, last write time,
// a ring of its last 50 raised values, description, subscriptions (STMNotifier)
// and signal object. Shared by handle, so a removed cell lives while held.
// Thread safety: any member from any thread; each of the three recursive
// mutexes guards only its own fields. A store holds a cell per key, by the
// million: what a plain data key never uses is created on first use.
#pragma once

#include <atomic>
#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <boost/circular_buffer_fwd.hpp>
#include <boost/shared_ptr.hpp>

#include "memorylocks.h"
#include "mz/os.h"
#include "rx/rxvalue.h"

class RXMemorySubscriber;

namespace RX {

class RXBroker;
class RXMemory;
class RXProxy;

// Storage class of a key. Stored as a 32-bit integer; the values are part of
// the interface (getType prints them as words).
enum dataType : int {
  UnknownData = 0,
  Data = 1,
  ShmData = 2,  // named and printed, but nothing creates it
  Event = 3,
  MicroEvent = 4,
};

// One subscription of a module on a key: "when this key is raised, call
// methodName of moduleName with (key, value, message)". A plain value held by
// its cell's `notifiers` map and only touched under the cell's notifierMutex.
class STMNotifier {
 public:
  STMNotifier();
  STMNotifier(const std::string& moduleName, const RXValue& message, const std::string& methodName);
  ~STMNotifier();
  STMNotifier(const STMNotifier&) = default;
  STMNotifier& operator=(const STMNotifier&) = default;

  // Overwrites the module, message and method; the first argument is accepted
  // and ignored, and the cached proxy and notifyState are kept.
  void addSubscriber(const std::string& name, const std::string& moduleName, const RXValue& message,
                     const std::string& methodName);
  [[nodiscard]] std::string getModuleName() const;

  std::string moduleName;
  RXValue message;  // sent back as a string value with each notification
  std::string methodName;
  // Cached by notification dispatch; empty until the module has been found.
  boost::shared_ptr<RXProxy> proxy;
  // Handed by address to RXProxy::pCallNotify; never read here.
  std::pair<int, int> notifyState;
};

class STMValue {
 public:
  static constexpr std::size_t kHistoryCapacity = 50;
  using HistoryEntry = std::pair<mz::os::timeval, RXValue>;
  using HistoryRing = boost::circular_buffer<HistoryEntry>;

  // A cell knows neither its key nor its memory: both are given to the few
  // operations that need them, which keeps every key smaller.
  STMValue(const RXValue& value, dataType type, const mz::os::timeval& timestamp);
  // Leaves the timestamp at zero.
  STMValue(const RXValue& value, dataType type);
  // Invalid value, UnknownData, zero timestamp.
  STMValue();
  ~STMValue();
  STMValue(const STMValue&) = delete;
  STMValue& operator=(const STMValue&) = delete;

  // The only writer of value, type and timestamp. Once getDataPtr has handed
  // out the value's address, the value's kind is frozen: a write of another
  // kind throws RXError ("setValue") and changes nothing, except the first
  // number written into a still invalid value. Equal values are written anyway.
  // Returns the storage class the key had before.
  dataType setValue(const RXValue& newValue, dataType newType, const mz::os::timeval& newTimestamp);
  // [value, seconds, microseconds] of the last write.
  [[nodiscard]] RXValue getValueTimeStamp();

  // Appends (now, value) to the history ring, creating the ring on the first
  // call; an invalid value creates the ring but is not stored.
  void pushHistory(const RXValue& newValue);
  // Invalid when the ring was never created, otherwise an array, oldest first,
  // of [value, seconds, microseconds].
  [[nodiscard]] RXValue history();

  // The key's signal object, the same one for the cell's whole life. The
  // first call creates it for (memory, name), the key of this cell; until
  // then nobody can be connected to it, so a raise has nobody to emit to.
  [[nodiscard]] boost::shared_ptr<RXMemorySubscriber> subscriber(RXMemory* memory, const std::string& name);

  // ---- Subscriptions ----
  // Adds or wholly replaces the record of callbackModule (its cached proxy is
  // dropped, so the next notify looks the module up again). Never fails.
  void setNotifier(const std::string& callbackModule, const RXValue& callbackMessage,
                   const std::string& callbackMethod);
  // Throws RXError ("UnsubscribeToMicroEvent") when moduleName has no record.
  void unsubscribeNotifier(const std::string& moduleName, const std::string& keyName);
  // Subscribed module names, in byte-wise ascending order.
  [[nodiscard]] std::vector<std::string> getNotifierList();
  // Emits value on the key's signal (when it exists), then posts (name,
  // value, message) to every subscriber in module-name order without waiting. A subscriber whose
  // post fails is dropped; one that cannot be found yet is retried next time.
  // REQUIRES: the key map's lock is not held.
  void notify(const std::string& name, const RXValue& value);

  // Class-wide broker through which subscriber modules are reached. Only the
  // raw pointer is kept: the broker outlives the module it hosts.
  static void setBrokerInstance(boost::shared_ptr<RXBroker> broker);

 private:
  friend class RXMemory;

  // Description, under the owning RXMemory's keyMapMutex. A null block reads as
  // an empty description.
  // REQUIRES: keyMapMutex held exclusively.
  void setDescription(const std::string& text);
  // REQUIRES: keyMapMutex held (shared or exclusive).
  [[nodiscard]] std::string getDescription() const;

  // The fields a plain data key never uses (notifiers, description, history
  // ring, signal object) live in one block created on first use. Each field
  // inside keeps its own guard; the pointer goes from null to the block once
  // and stays.
  struct Extras;
  [[nodiscard]] Extras* extrasIfAny() const;
  Extras& ensureExtras();

  // Guarded by valueMutex (flag, type and value first to keep the cell small).
  bool ptrAccessed;  // set for good once getDataPtr handed out the value's address
  dataType type;
  RXValue value;
  mz::os::timeval timestamp;

  CompactRecursiveMutex valueMutex;
  CompactRecursiveMutex historyMutex;
  CompactRecursiveMutex notifierMutex;

  // Owned; its fields are guarded as described in stmvalue.cpp.
  std::atomic<Extras*> extras{nullptr};
};

}  // namespace RX
