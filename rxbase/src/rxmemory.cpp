#include "rxmemory.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <functional>
#include <iostream>
#include <memory>
#include <stdexcept>

#include <boost/make_shared.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/locks.hpp>
#include <boost/thread/recursive_mutex.hpp>

#include "mz/datapath.h"
#include "mz/os.h"
#include "mz/session.h"
#include "rx/rttime.h"
#include "rx/rxbroker.h"
#include "rx/rxcallcontext.h"
#include "rx/rxerror.h"
#include "rx/rxfunctor.h"
#include "rx/rxlog.h"
#include "rx/rxmemorybudget.h"
#include "rx/rxmemoryproxy.h"
#include "rx/rxproxy.h"
#include "rxmemorysubscriber.h"

namespace RX {

namespace Memory {
const std::string keyAddedKey = "RXMemory/KeyAdded";
const std::string keyRemovedKey = "RXMemory/KeyRemoved";
const std::string keyTypeChanged = "RXMemory/KeyTypeChanged";
}  // namespace Memory

namespace {

const char* const kModuleName = "RXMemory";

// The module's log category, registered when the library is loaded.
log::Category& moduleLog = log::category("rxmemory");

using SharedLock = boost::shared_lock<SharedMutex>;
using UniqueLock = boost::unique_lock<SharedMutex>;
using CellLock = boost::lock_guard<CompactRecursiveMutex>;

// Period at which getDataOnChange reads the value again; fixed, callers have
// always been served at this pace.
constexpr int kChangePollMs = 600;

// Keys of the behaviour layer change too often to be worth reporting.
bool isBehaviorKey(const std::string& name) { return name.compare(0, 9, "_Behavior") == 0; }

// The service's object from the broker's session; false when it cannot be had
// (no broker or session, service not registered, failed or cancelled look-up).
bool lookUpService(const boost::shared_ptr<RXBroker>& broker, const std::string& service,
                   mz::AnyObject& object) {
  if (!broker || !broker->session()) return false;
  try {
    object = broker->session()->service(service).value();
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

mz::os::timeval now() {
  mz::os::timeval tv;
  mz::os::gettimeofday(&tv);
  return tv;
}

}  // namespace

// ---- Lifecycle ----

// The callbacks of serviceRegistered and of mapped service signals hold this
// instead of the module: mapped connections are never removed and outlive the
// module, and a disconnection does not wait for a delivery already under way.
// run() calls into the module only while it is whole.
class RXMemory::CallbackGuard {
 public:
  explicit CallbackGuard(RXMemory* memory) : memory_(memory) {}

  template <typename F>
  void run(F&& f) {
    boost::unique_lock<boost::recursive_mutex> lock(mutex_);
    RXMemory* memory = memory_;
    if (!memory) return;
    if (boost::shared_ptr<RXModule> owner = memory->weak_from_this().lock()) {
      // Owned and alive: the reference keeps it so for the call, which runs
      // without the lock, so that deliveries on several threads stay parallel.
      lock.unlock();
      f(*memory);
      return;
    }
    // Not owned yet (still being built) or already being destroyed: the call
    // runs under the lock, for which release() waits, so the module stays
    // whole until it returns. Recursive: the call may lead to another
    // delivery on the same thread.
    f(*memory);
  }

  // Waits for calls under way on the unowned path; later calls do nothing.
  void release() {
    boost::lock_guard<boost::recursive_mutex> lock(mutex_);
    memory_ = nullptr;
  }

 private:
  boost::recursive_mutex mutex_;
  // Guarded by mutex_; null once the module is going away.
  RXMemory* memory_;
};

RXMemory::RXMemory(boost::shared_ptr<RXBroker> broker, const std::string& name)
    : RXModule(broker, name),
      serviceRegisteredLink(mz::kInvalidSignalLink),
      callbackGuard(std::make_shared<CallbackGuard>(this)) {
  STMValue::setBrokerInstance(broker);
  // Sized up front so that a robot's usual key count never triggers a rehash.
  keyMap.max_load_factor(1.0f);
  keyMap.rehash(5000);
  setModuleDescription(
      "RXMemory provides a centralized memory that can be used to store and retrieve named values. It also "
      "acts as a hub for the distribution of event notifications.");
  publishMethods();
  declareEvent(Memory::keyAddedKey);
  declareEvent(Memory::keyRemovedKey);
  declareEvent(Memory::keyTypeChanged);
  try {
    loadSignalEventMapFromFile();
    {
      // The mapping operations take this mutex too; it is released before
      // serviceRegistered is connected.
      boost::lock_guard<boost::mutex> lock(signalEventMapMutex);
      for (const auto& entry : signalEventMap) declareEventsFromService(entry.first, entry.second);
    }
    std::shared_ptr<CallbackGuard> guard = callbackGuard;
    serviceRegisteredLink = broker->session()->serviceRegistered.connect(
        [guard](unsigned int /*serviceId*/, const std::string& serviceName) {
          guard->run([&](RXMemory& memory) { memory.onServiceRegistered(serviceName); });
        });
  } catch (...) {
    // No destructor runs for a module that failed to build: the connections
    // already made must find it gone.
    callbackGuard->release();
    throw;
  }
}

RXMemory::~RXMemory() {
  // First of all, so that no registration starts against members that are
  // being destroyed.
  if (boost::shared_ptr<RXBroker> broker = getParentBroker())
    if (std::shared_ptr<mz::Session> session = broker->session())
      session->serviceRegistered.disconnect(serviceRegisteredLink);
  callbackGuard->release();
}

// ---- Catalogue ----

// Entries are published in a fixed order, texts included: callers and
// introspection tools see them as they are. A name published more than once
// is bound through overload functors (the framework tells the variants apart
// by their arguments); every other name is advertised with the signature of
// its member.
void RXMemory::publishMethods() {
  functionName("declareEvent", kModuleName, "Declares an event to allow future subscriptions to the event");
  addParam("eventName", "The name of the event");
  bindMethodOverload(
      createFunctor(this, static_cast<void (RXMemory::*)(const std::string&)>(&RXMemory::declareEvent)));

  functionName("declareEvent", kModuleName, "Declares an event to allow future subscriptions to the event");
  addParam("eventName", "The name of the event");
  addParam("extractorName", "The name of the extractor capable of creating the event");
  bindMethodOverload(createFunctor(
      this,
      static_cast<void (RXMemory::*)(const std::string&, const std::string&)>(&RXMemory::declareEvent)));

  functionName("getData", kModuleName, "Gets the value of a key-value pair stored in memory");
  addParam("key", "Name of the value.");
  setReturn("data", "The data as an RXValue. This can often be cast transparently into the original type.");
  bindMethodOverload(
      createFunctor(this, static_cast<RXValue (RXMemory::*)(const std::string&)>(&RXMemory::getData)));

  functionName("getData", kModuleName,
               "DEPRECATED - Gets the value of a key-value pair stored in memory. Please use the version of "
               "this method with no second parameter.");
  addParam("key", "Name of the value.");
  addParam("deprecatedParameter",
           "DEPRECATED - This parameter has no effect, but is left for compatibility reason.");
  setReturn("data", "The data as an RXValue");
  bindMethodOverload(
      createFunctor(this, static_cast<RXValue (RXMemory::*)(const std::string&, int)>(&RXMemory::getData)));

  functionName("subscriber", kModuleName,
               "Get an object wrapping a signal bound to the given RXMemory event. Throw if the event does "
               "not exist or if it is invalid.");
  addParam("eventName", "Name of the RXMemory event");
  setReturn("signalWrapper", "An AnyObject with a signal named \"signal\"");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::subscriber);

  functionName("getTimestamp", kModuleName, "Get data value and timestamp");
  addParam("key", "Name of the variable");
  setReturn("keyList", "A list of all the data key names that contain the given string.");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::getDataTimestamp);

  functionName("getEventHistory", kModuleName, "Get data value and timestamp");
  addParam("key", "Name of the variable");
  setReturn("keyList", "A list of all the data key names that contain the given string.");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::getEventHistory);

  functionName("getDataList", kModuleName, "Gets a list of all key names that contain a given string");
  addParam("filter", "A string used as the search term");
  setReturn("keyList", "A list of all the data key names that contain the given string.");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::getDataList);

  functionName("getDataListName", kModuleName, "Gets the key names for all the key-value pairs in memory");
  setReturn("list", "A list containing the keys in memory");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::getDataListName);

  functionName("getDataOnChange", kModuleName,
               "DEPRECATED - Blocks the caller until the value of a key changes");
  addParam("key", "Name of the data.");
  addParam("deprecatedParameter", "DEPRECATED - this parameter has no effect");
  setReturn("data", "an array containing all the retrieved data");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::getDataOnChange);

  functionName("getDataPtr", kModuleName,
               "Gets a pointer to 32 a bit data item. Beware, the pointer will only be valid during the "
               "lifetime of the RXMemory object. Use with care, at initialization, not every loop.",
               4);
  addParam("key", "Name of the data.");
  setReturn("ptr", "A pointer converted to int");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::getPtrData);

  functionName("getEventList", kModuleName, "Gets a list containing the names of all the declared events");
  setReturn("eventNameList", "A list containing the names of all events");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::getEventList);

  functionName("getExtractorEvent", kModuleName,
               "Gets the list of all events generated by a given extractor");
  addParam("extractorName", "The name of the extractor");
  setReturn("eventNameList", "A list containing the names of the events associated with the given extractor");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::getExtractorEvent);

  functionName("getListData", kModuleName,
               "Gets the values associated with the given list of keys. This is more efficient than calling "
               "getData many times, especially over the network.");
  addParam("keyList", "An array containing the key names.");
  setReturn("dataList", "An array containing all the values corresponding to the given keys.");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::getListData);

  functionName("getMicroEventList", kModuleName,
               "Gets a list containing the names of all the declared micro events");
  setReturn("microEventNameList", "A list containing the names of all the microEvents");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::getMicroEventList);

  functionName("getSubscribers", kModuleName, "Gets a list containing the names of subscribers to an event.");
  addParam("name", "Name of the event or micro-event");
  setReturn("subscriberNames", "List of subscriber names");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::getDataSubscriber);

  functionName("getType", kModuleName,
               "Gets the storage class of the stored data. This is not the underlying POD type.");
  addParam("key", "Name of the variable");
  setReturn("type", "String type: Data, Event, MicroEvent");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::getStrDataType);

  functionName("insertData", kModuleName, "Inserts a key-value pair into memory, where value is an int");
  addParam("key", "Name of the value to be inserted.");
  addParam("value", "The int to be inserted");
  bindMethodOverload(
      createFunctor(this, static_cast<void (RXMemory::*)(const std::string&, int)>(&RXMemory::insertData)));

  functionName("insertData", kModuleName, "Inserts a key-value pair into memory, where value is a float");
  addParam("key", "Name of the value to be inserted.");
  addParam("value", "The float to be inserted");
  bindMethodOverload(
      createFunctor(this, static_cast<void (RXMemory::*)(const std::string&, float)>(&RXMemory::insertData)));

  functionName("insertData", kModuleName, "Inserts a key-value pair into memory, where value is a string");
  addParam("key", "Name of the value to be inserted.");
  addParam("value", "The string to be inserted");
  bindMethodOverload(createFunctor(
      this, static_cast<void (RXMemory::*)(const std::string&, const std::string&)>(&RXMemory::insertData)));

  functionName("insertData", kModuleName, "Inserts a key-value pair into memory, where value is an RXValue");
  addParam("key", "Name of the value to be inserted.");
  addParam("data",
           "The RXValue to be inserted. This could contain a basic type, or a more complex array. See the "
           "RXValue documentation for more information.");
  bindMethodOverload(createFunctor(
      this, static_cast<void (RXMemory::*)(const std::string&, const RXValue&)>(&RXMemory::insertData)));

  functionName("insertListData", kModuleName, "Inserts a list of key-value pairs into memory.");
  addParam("list", "An RXValue list of the form [[Key, Value],...]. Each item will be inserted.");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::insertListData);

  functionName("raiseEvent", kModuleName, "Publishes the given data to all subscribers.");
  addParam("name", "Name of the event to raise.");
  addParam("value",
           "The data associated with the event. This could contain a basic type, or a more complex array. "
           "See the RXValue documentation for more information.");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::raiseEvent);

  functionName("raiseMicroEvent", kModuleName, "Publishes the given data to all subscribers.");
  addParam("name", "Name of the event to raise.");
  addParam("value",
           "The data associated with the event. This could contain a basic type, or a more complex array. "
           "See the RXValue documentation for more information.");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::raiseMicroEvent);

  functionName("removeData", kModuleName, "Removes a key-value pair from memory");
  addParam("key", "Name of the data to be removed.");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::removeData);

  functionName("removeEvent", kModuleName,
               "Removes a event from memory and unsubscribes any exiting subscribers.");
  addParam("name", "Name of the event to remove.");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::removeEvent);

  functionName("removeMicroEvent", kModuleName,
               "Removes a micro event from memory and unsubscribes any exiting subscribers.");
  addParam("name", "Name of the event to remove.");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::removeMicroEvent);

  functionName("subscribeToEvent", kModuleName,
               "Subscribes to an event and automaticaly launches the module that declared itself as the "
               "generator of the event if required.");
  addParam("name", "The name of the event to subscribe to");
  addParam("callbackModule", "Name of the module to call with notifications");
  addParam("callbackMethod", "Name of the module's method to call when a data is changed");
  bindMethodOverload(createFunctor(
      this, static_cast<void (RXMemory::*)(const std::string&, const std::string&, const std::string&)>(
                &RXMemory::subscribeToEvent)));

  functionName(
      "subscribeToEvent", kModuleName,
      "DEPRECATED Subscribes to event and automaticaly launches the module capable of generating the event "
      "if it is not already running. Please use the version without the callbackMessage parameter.");
  addParam("name", "The name of the event to subscribe to");
  addParam("callbackModule", "Name of the module to call with notifications");
  addParam("callbackMessage", "DEPRECATED Message included in the notification.");
  addParam("callbacMethod", "Name of the module's method to call when a data is changed");
  bindMethodOverload(createFunctor(
      this, static_cast<void (RXMemory::*)(const std::string&, const std::string&, const std::string&,
                                           const std::string&)>(&RXMemory::subscribeToEvent)));

  functionName("subscribeToMicroEvent", kModuleName,
               "Subscribes to a microEvent. Subscribed modules are notified on theircallback method whenever "
               "the data is updated, even if the new value is the same as the old value.");
  addParam("name", "Name of the data.");
  addParam("callbackModule", "Name of the module to call with notifications");
  addParam("callbackMessage",
           "Message included in the notification. This can be used to disambiguate multiple subscriptions.");
  addParam("callbackMethod", "Name of the module's method to call when a data is changed");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::subscribeToMicroEvent);

  functionName("unregisterModuleReference", kModuleName,
               "Informs RXMemory that a module doesn't exist anymore.");
  addParam("moduleName", "Name of the departing module.");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::unregisterModuleReference);

  functionName("_perf", kModuleName, "RXMemory performance");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::perf);

  functionName("unsubscribeToEvent", kModuleName,
               "Unsubscribes a module from the given event. No further notifications will be received.");
  addParam("name", "The name of the event");
  addParam("callbackModule", "The name of the module that was given when subscribing.");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::unsubscribeToEvent);

  functionName("unsubscribeToMicroEvent", kModuleName,
               "Unsubscribes from the given event. No further notifications will be received.");
  addParam("name", "Name of the event.");
  addParam("callbackModule", "The name of the module that was given when subscribing.");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::unsubscribeToMicroEvent);

  functionName("_insertObject", kModuleName, "Insert object in RXMemory. Please use RXMemoryFastAccess");
  addParam("name", "RXMemory data name");
  addParam("buffer", "buffer in RXValue");
  addParam("bufferSize", "buffer size");
  setReturn("data", "return an array of data's string name.");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::_insertObject);

  functionName("_subscribeOnDataSetTimePolicy", kModuleName,
               "Allows modules to change time policy of already subscribed data.");
  addParam("name", "Name of the data.");
  addParam("callbackModule", "Name of the module.");
  addParam(
      "nTimePolicy",
      "time of new policy in ms. Default is 0: no time policy: called at every change/insert. If timepolicy "
      "> 0, we will not notifiy under timepolicy even if data change under timepolicy frequency");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::subscribeOnDataSetTimePolicy);

  functionName("_subscribeOnDataSetSynchronizeResponse", kModuleName,
               "Receives notifications in the same order that the event were sent. This is slower than");
  addParam("name", "Name of the data.");
  addParam("callbackModule", "Name of the module.");
  addParam("synchronizedResponse", "True to receive notifications in the same order as events are sent");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::subscribeOnDataSetSynchronizeResponse);

  functionName("setDescription", kModuleName, "Describe a key");
  addParam("name", "Name of the key.");
  addParam("description", "The description of the event (text format).");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::setDescription);

  functionName("getDescriptionList", kModuleName, "Descriptions of all given keys");
  addParam("keylist", "List of keys. (empty to get all descriptions)");
  setReturn("descriptions", "an array of tuple (name, type, description) describing all keys.");
  advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::getDescriptionList);

  functionName("addMapping", kModuleName, "Add a mapping between signal and event");
  addParam("service", "Name of the service");
  addParam("signal", "Name of the signal");
  addParam("event", "Name of the event");
  bindMethodOverload(createFunctor(
      this, static_cast<void (RXMemory::*)(const std::string&, const std::string&, const std::string&)>(
                &RXMemory::addMapping)));

  functionName("addMapping", kModuleName, "Add a mapping between signal and event");
  addParam("service", "Name of the service");
  addParam("signalEvent", "A map of signal corresponding to event");
  bindMethodOverload(createFunctor(
      this, static_cast<void (RXMemory::*)(const std::string&, const std::map<std::string, std::string>&)>(
                &RXMemory::addMapping)));
}

void RXMemory::init() { xRaiseMicroEvent("TavroReady", RXValue(0)); }

// ---- Cell look-up ----

boost::shared_ptr<STMValue> RXMemory::findCell(const std::string& name) {
  SharedLock lock(keyMapMutex);
  auto it = keyMap.find(name);
  return it == keyMap.end() ? boost::shared_ptr<STMValue>() : it->second;
}

boost::shared_ptr<STMValue> RXMemory::findCellOrThrow(const std::string& name) {
  boost::shared_ptr<STMValue> cell = findCell(name);
  if (!cell) RX_THROW(kModuleName, "getData", "Data not found " + name);
  return cell;
}

boost::shared_ptr<STMValue> RXMemory::findOrCreateCell(const std::string& name, dataType type) {
  boost::shared_ptr<STMValue> cell = findCell(name);
  if (cell) return cell;
  UniqueLock lock(keyMapMutex);
  // Another caller may have created it between the two locks.
  auto it = keyMap.find(name);
  if (it != keyMap.end()) return it->second;
  cell = boost::make_shared<STMValue>(RXValue(), type);
  keyMap.emplace(name, cell);
  return cell;
}

void RXMemory::registerEvent(const std::string& name) {
  UniqueLock lock(extractorMapMutex);
  if (extractorMap.find(name) == extractorMap.end()) extractorMap.emplace(name, "Unknown");
}

// ---- Insertion ----

boost::shared_ptr<STMValue> RXMemory::xInsertData(const std::string& name, const RXValue& value,
                                                  dataType type) {
  boost::shared_ptr<STMValue> cell;
  storeValue(name, value, type, &cell);
  return cell;
}

void RXMemory::storeValue(const std::string& name, const RXValue& value, dataType type,
                          boost::shared_ptr<STMValue>* keep) {
  bool added = false;
  bool retyped = false;
  {
    UniqueLock lock(keyMapMutex);
    auto it = keyMap.find(name);
    if (it != keyMap.end()) {
      STMValue& cell = *it->second;
      const dataType oldType = cell.setValue(value, type, now());
      if (oldType != Event && type == Event) registerEvent(name);
      retyped = type != oldType;
      if (keep) *keep = it->second;
    } else {
      auto cell = boost::make_shared<STMValue>(value, type, now());
      if (type == Event) registerEvent(name);
      if (keep) *keep = cell;
      keyMap.emplace(name, std::move(cell));
      added = true;
    }
  }
  if (liveFeed_.active()) liveFeed_.changed(name);
  // Raised only now: raising inserts into the map again.
  if (!isBehaviorKey(name)) {
    if (added)
      xRaiseEvent(Memory::keyAddedKey, RXValue(name));
    else if (retyped)
      xRaiseEvent(Memory::keyTypeChanged, RXValue(name));
  }
}

void RXMemory::insertData(const std::string& key, int value) { insertData(key, RXValue(value)); }

void RXMemory::insertData(const std::string& key, float value) { insertData(key, RXValue(value)); }

void RXMemory::insertData(const std::string& key, const std::string& value) {
  insertData(key, RXValue(value));
}

void RXMemory::insertData(const std::string& key, const RXValue& data) {
  // Over the broker's memory ceiling a write fails here, clearly, rather than
  // the process growing until the system kills it.
  MemoryBudget::check(kModuleName, "insertData");
  // The cell is not needed afterwards: no handle is copied out for it.
  storeValue(key, data, Data, nullptr);
}

void RXMemory::_insertObject(const std::string& name, const RXValue& buffer, int /*bufferSize*/) {
  insertData(name, buffer);
}

void RXMemory::insertListData(const RXValue& list) {
  MemoryBudget::check(kModuleName, "insertListData");
  // The counter is 16 bits wide on purpose: callers have always been held to
  // lists of at most 65535 pairs.
  for (uint16_t i = 0; i < list.getSize(); ++i) {
    const RXValue& element = list[i];
    if (!element.isArray() || element.getSize() < 2) {
      std::cout << "malformed data : " << element.toString(1) << std::endl;
      RX_THROW(kModuleName, "InsertListData",
               "unable to insert to Memory data with a size < 2. Must be : ['name', value]");
    }
    if (!element[0].isString()) {
      std::cout << "malformed data : " << element.toString(1) << std::endl;
      RX_THROW(kModuleName, "InsertListData", "malformed preferences. No RXMemory data name.");
    }
    const std::string& name = static_cast<const std::string&>(element[0]);
    const RXValue& value = element[1];
    if (value.isInt())
      insertData(name, static_cast<int>(value));
    else if (value.isFloat())
      insertData(name, static_cast<float>(value));
    else
      insertData(name, value);
  }
}

// ---- Reads ----

RXValue RXMemory::getData(const std::string& key) { return xGetData(key); }

RXValue RXMemory::getData(const std::string& key, int /*deprecatedParameter*/) { return xGetData(key); }

RXValue RXMemory::xGetData(const std::string& name) {
  boost::shared_ptr<STMValue> cell = findCellOrThrow(name);
  CellLock lock(cell->valueMutex);
  return cell->value;
}

RXValue RXMemory::getDataOnChange(const std::string& key, int /*deprecatedParameter*/) {
  if (key.empty()) RX_THROW(kModuleName, "getDataOnChange", "Empty data name cannot be found.");
  const RXValue first = getData(key);
  RXValue current = first;
  // A remote caller that has hung up will read nothing: stop polling for it
  // and hand back the current value, so its thread is not held forever.
  while (!CallContext::callerGone()) {
    mz::os::msleep(kChangePollMs);
    current = getData(key);
    if (current != first) break;
  }
  return current;
}

RXValue RXMemory::getListData(const RXValue& keyList) {
  RXValue result = RXValue::array();
  result.arrayReserve(keyList.getSize());
  for (std::size_t i = 0; i < keyList.getSize(); ++i) {
    try {
      const RXValue& element = keyList[i];
      const RXValue& name = element.isArray() ? element[0] : element;
      result.arrayPush(getData(static_cast<const std::string&>(name)));
    } catch (const RXError&) {
      // Every requested name keeps its slot.
      result.arrayPush(RXValue());
    }
  }
  return result;
}

// ---- Removal ----

void RXMemory::removeData(const std::string& key) { xRemoveData(key); }

void RXMemory::xRemoveData(const std::string& name) {
  {
    UniqueLock lock(keyMapMutex);
    auto it = keyMap.find(name);
    if (it == keyMap.end()) RX_THROW(kModuleName, "removeData", "Data not found " + name);
    bool pointerHandedOut;
    {
      CellLock cellLock(it->second->valueMutex);
      pointerHandedOut = it->second->ptrAccessed;
    }
    // Someone may still be reading or writing through the raw address.
    if (pointerHandedOut)
      RX_THROW(kModuleName, "removeData",
               "Data " + name + " can't be erased because it has been accessed using getDataPtr");
    keyMap.erase(it);
  }
  if (liveFeed_.active()) liveFeed_.changed(name);
  if (!isBehaviorKey(name)) xRaiseEvent(Memory::keyRemovedKey, RXValue(name));
}

// ---- Listing ----

std::vector<std::string> RXMemory::getDataListName() {
  SharedLock lock(keyMapMutex);
  std::vector<std::string> names;
  names.reserve(keyMap.size());
  for (const auto& entry : keyMap) names.push_back(entry.first);
  return names;
}

std::vector<std::string> RXMemory::getDataList(const std::string& filter) {
  std::vector<std::string> names = getDataListName();
  if (filter.empty()) return names;
  std::vector<std::string> matching;
  for (std::string& name : names)
    if (name.find(filter) != std::string::npos) matching.push_back(std::move(name));
  return matching;
}

std::vector<std::string> RXMemory::getListTyped(dataType type) { return xGetListTyped(type); }

std::vector<std::string> RXMemory::xGetListTyped(dataType type) {
  SharedLock lock(keyMapMutex);
  std::vector<std::string> names;
  for (const auto& entry : keyMap) {
    CellLock cellLock(entry.second->valueMutex);
    if (entry.second->type == type) names.push_back(entry.first);
  }
  return names;
}

std::vector<std::string> RXMemory::getMicroEventList() { return getListTyped(MicroEvent); }

std::vector<std::string> RXMemory::getEventList() {
  SharedLock lock(extractorMapMutex);
  std::vector<std::string> names;
  names.reserve(extractorMap.size());
  for (const auto& entry : extractorMap) names.push_back(entry.first);
  return names;
}

// ---- Raw pointer access ----

void* RXMemory::getPtrData(const std::string& key) { return xGetPtrData(key); }

void* RXMemory::xGetPtrData(const std::string& name) {
  boost::shared_ptr<STMValue> cell = findOrCreateCell(name, Data);
  bool typed;
  {
    CellLock lock(cell->valueMutex);
    typed = cell->value.isValid();
  }
  if (!typed) RX_WARNING(moduleLog, "getPtrValue on stmvalue with no type: " << name);
  CellLock lock(cell->valueMutex);
  // From now on the value keeps its kind, so the address stays meaningful; an
  // empty value's address is where its first number will be written.
  cell->ptrAccessed = true;
  return cell->value.getPtrValue();
}

// ---- Descriptions and types ----

void RXMemory::setDescription(const std::string& name, const std::string& description) {
  UniqueLock lock(keyMapMutex);
  auto it = keyMap.find(name);
  if (it == keyMap.end()) RX_THROW(kModuleName, "setDescription", name + " not found");
  it->second->setDescription(description);
}

RXValue RXMemory::getDescriptionList(const std::vector<std::string>& keylist) {
  auto entryOf = [](const std::string& name, STMValue& cell) {
    RXValue entry = RXValue::array(3);
    entry[0] = RXValue(name);
    dataType type;
    {
      CellLock lock(cell.valueMutex);
      type = cell.type;
    }
    if (type == Data)
      entry[1] = RXValue("data");
    else if (type == Event || type == MicroEvent)
      entry[1] = RXValue("event");
    entry[2] = RXValue(cell.getDescription());
    return entry;
  };

  SharedLock lock(keyMapMutex);
  RXValue result = RXValue::array();
  if (keylist.empty()) {
    result.arrayReserve(keyMap.size());
    for (const auto& entry : keyMap) result.arrayPush(entryOf(entry.first, *entry.second));
    return result;
  }
  // The entries follow as many empty slots as names were asked for; callers
  // have always skipped the first half.
  result.arraySetSize(keylist.size());
  for (const std::string& name : keylist) {
    auto it = keyMap.find(name);
    if (it == keyMap.end()) RX_THROW(kModuleName, "getDescriptionList", name + " not found");
    result.arrayPush(entryOf(name, *it->second));
  }
  return result;
}

dataType RXMemory::getDataType(const std::string& name) {
  SharedLock lock(keyMapMutex);
  auto it = keyMap.find(name);
  if (it == keyMap.end()) RX_THROW(kModuleName, "getData", "Data not found " + name);
  CellLock cellLock(it->second->valueMutex);
  return it->second->type;
}

std::string RXMemory::getStrDataType(const std::string& key) {
  boost::shared_ptr<STMValue> cell = findCellOrThrow(key);
  dataType type;
  {
    CellLock lock(cell->valueMutex);
    type = cell->type;
  }
  switch (type) {
    case UnknownData:
      return "Unknown data";
    case Data:
      return "Data";
    case ShmData:
      return "ShmData";
    case Event:
      return "Event";
    case MicroEvent:
      return "MicroEvent";
  }
  return "Unknown";
}

RXValue RXMemory::getDataTimestamp(const std::string& key) {
  return findCellOrThrow(key)->getValueTimeStamp();
}

// ---- Events and micro-events ----

void RXMemory::declareEvent(const std::string& eventName) { xInsertData(eventName, RXValue(), Event); }

void RXMemory::declareEvent(const std::string& eventName, const std::string& extractorName) {
  {
    UniqueLock lock(extractorMapMutex);
    extractorMap[eventName] = extractorName;
  }
  xInsertData(eventName, RXValue(), Event);
}

void RXMemory::raiseEvent(const std::string& name, const RXValue& value) {
  MemoryBudget::check(kModuleName, "raiseEvent");
  xRaiseEvent(name, value);
}

void RXMemory::xRaiseEvent(const std::string& name, const RXValue& value) {
  boost::shared_ptr<STMValue> cell = xInsertData(name, value, Event);
  cell->pushHistory(value);
  cell->notify(name, value);
}

void RXMemory::raiseMicroEvent(const std::string& name, const RXValue& value) {
  MemoryBudget::check(kModuleName, "raiseMicroEvent");
  xRaiseMicroEvent(name, value);
}

void RXMemory::xRaiseMicroEvent(const std::string& name, const RXValue& value) {
  boost::shared_ptr<STMValue> cell = xInsertData(name, value, MicroEvent);
  cell->notify(name, value);
}

void RXMemory::removeEvent(const std::string& name) {
  xRemoveData(name);
  // Exclusive: the erase frees a node that a concurrent reader could be
  // walking through, or a concurrent insertion rebalancing around.
  UniqueLock lock(extractorMapMutex);
  extractorMap.erase(name);
}

void RXMemory::removeMicroEvent(const std::string& name) { xRemoveData(name); }

std::vector<std::string> RXMemory::getExtractorEvent(const std::string& extractorName) {
  SharedLock lock(extractorMapMutex);
  std::vector<std::string> events;
  for (const auto& entry : extractorMap)
    if (entry.second == extractorName) events.push_back(entry.first);
  return events;
}

RXValue RXMemory::getEventHistory(const std::string& key) { return findCellOrThrow(key)->history(); }

void RXMemory::unregisterModuleReference(const std::string& /*moduleName*/) {
  RX_WARNING(moduleLog, "unregisterModuleReference is deprecated and can be removed.");
}

void RXMemory::subscribeOnDataSetTimePolicy(const std::string& /*name*/,
                                            const std::string& /*callbackModule*/, int /*nTimePolicy*/) {
  RX_ERROR(moduleLog, "RXMemory::subscribeOnDataSetTimePolicy is NO-OP");
}

void RXMemory::subscribeOnDataSetSynchronizeResponse(const std::string& /*name*/,
                                                     const std::string& /*callbackModule*/,
                                                     bool /*synchronizedResponse*/) {
  RX_ERROR(moduleLog, "RXMemory::subscribeOnDataSetSynchronizeResponse is NO-OP");
}

// ---- Extractor protocol ----

void RXMemory::runExtractor(const std::string& eventName, const std::string& subscriberId) {
  std::string extractor;
  {
    // The inserting index leaves an empty extractor name for an undeclared
    // event, so this look-up may write the table: it takes the lock
    // exclusively, since two first subscriptions at once, or one beside a
    // reader walking the table, would otherwise corrupt it.
    UniqueLock lock(extractorMapMutex);
    extractor = extractorMap[eventName];
  }
  if (extractor == "Unknown" || extractor.empty()) return;
  callExtractor(extractor, eventName, "subscribe", subscriberId);
}

void RXMemory::stopExtractor(const std::string& eventName, const std::string& subscriberId) {
  std::string extractor;
  {
    SharedLock lock(extractorMapMutex);
    auto it = extractorMap.find(eventName);
    if (it == extractorMap.end()) {
      RX_INFO(moduleLog, "stopExtractor no extractor for " << eventName << std::endl);
      return;
    }
    extractor = it->second;
  }
  if (extractor == "Unknown" || extractor.empty()) return;
  callExtractor(extractor, eventName, "unsubscribe", subscriberId);
}

void RXMemory::callExtractor(const std::string& extractor, const std::string& eventName, const char* method,
                             const std::string& subscriberId) {
  try {
    boost::shared_ptr<RXProxy> proxy = getParentBroker()->getProxy(extractor, 0);
    if (!proxy || !proxy->object()) return;
    // Only modules offering getCurrentPrecision generate events on demand.
    if (proxy->object().findMethod("getCurrentPrecision").empty()) return;
    proxy = getParentBroker()->getProxy(extractor, 0);
    proxy->call<void>(method, subscriberId);
  } catch (const std::exception& e) {
    // The subscription stands whatever its generator does; the failure (or
    // time-out) only reaches the log, where whoever runs the robot sees which
    // generator let which event down.
    RX_WARNING(moduleLog, "Extractor " << extractor << " of event " << eventName << " failed on " << method
                                       << ": " << e.what());
  }
}

// ---- Subscriptions ----

void RXMemory::subscribeToEvent(const std::string& name, const std::string& callbackModule,
                                const std::string& callbackMethod) {
  subscribeToEvent(name, callbackModule, "", callbackMethod);
}

void RXMemory::subscribeToEvent(const std::string& name, const std::string& callbackModule,
                                const std::string& callbackMessage, const std::string& callbackMethod) {
  xSubscribeToEvent(name, callbackModule, RXValue(callbackMessage), callbackMethod);
}

void RXMemory::xSubscribeToEvent(const std::string& name, const std::string& callbackModule,
                                 const RXValue& callbackMessage, const std::string& callbackMethod) {
  findOrCreateCell(name, Event)->setNotifier(callbackModule, callbackMessage, callbackMethod);
  runExtractor(name, callbackModule + name);
}

void RXMemory::subscribeToMicroEvent(const std::string& name, const std::string& callbackModule,
                                     const std::string& callbackMessage, const std::string& callbackMethod) {
  xSubscribeToMicroEvent(name, callbackModule, RXValue(callbackMessage), callbackMethod);
}

void RXMemory::xSubscribeToMicroEvent(const std::string& name, const std::string& callbackModule,
                                      const RXValue& callbackMessage, const std::string& callbackMethod) {
  findOrCreateCell(name, MicroEvent)->setNotifier(callbackModule, callbackMessage, callbackMethod);
}

void RXMemory::unsubscribeToEvent(const std::string& name, const std::string& callbackModule) {
  xUnsubscribeToEvent(name, callbackModule);
}

void RXMemory::xUnsubscribeToEvent(const std::string& name, const std::string& callbackModule) {
  xUnsubscribeToMicroEvent(name, callbackModule);
  stopExtractor(name, callbackModule + name);
}

void RXMemory::unsubscribeToMicroEvent(const std::string& name, const std::string& callbackModule) {
  xUnsubscribeToMicroEvent(name, callbackModule);
}

void RXMemory::xUnsubscribeToMicroEvent(const std::string& name, const std::string& callbackModule) {
  findCellOrThrow(name)->unsubscribeNotifier(callbackModule, name);
}

std::vector<std::string> RXMemory::getDataSubscriber(const std::string& name) {
  return findCellOrThrow(name)->getNotifierList();
}

// ---- Signal bridge ----

boost::shared_ptr<RXMemorySubscriber> RXMemory::subscriber(const std::string& eventName) {
  SharedLock lock(keyMapMutex);
  auto it = keyMap.find(eventName);
  if (it == keyMap.end()) {
    // declareEvent takes the map lock itself.
    lock.unlock();
    declareEvent(eventName);
    lock.lock();
    it = keyMap.find(eventName);
    if (it == keyMap.end()) throw std::runtime_error("event not found");
  }
  if (!it->second) throw std::runtime_error("invalid registered event");
  return it->second->subscriber(this, eventName);
}

void RXMemory::addMapping(const std::string& service, const std::string& signal, const std::string& event) {
  {
    boost::lock_guard<boost::mutex> lock(signalEventMapMutex);
    signalEventMap[service][signal] = event;
  }
  // Not under the mutex: the look-up may wait for the session. The mapping is
  // kept whatever follows; a service that is not there yet, or lacks the
  // signal, is looked at again each time it registers.
  mz::AnyObject object;
  if (!lookUpService(getParentBroker(), service, object)) return;
  // signalId throws "This object is null" for an empty object.
  if (object.signalId(signal) < 0) return;
  declareEvent(event);
  connectMappedSignal(object, signal, event);
}

void RXMemory::addMapping(const std::string& service, const std::map<std::string, std::string>& signalEvent) {
  for (const auto& entry : signalEvent) addMapping(service, entry.first, entry.second);
}

void RXMemory::declareEventsFromService(const std::string& service,
                                        const std::map<std::string, std::string>& signalEvent) {
  mz::AnyObject object;
  if (!lookUpService(getParentBroker(), service, object)) return;
  for (const auto& entry : signalEvent) {
    // signalId throws "This object is null" for an empty object.
    if (object.signalId(entry.first) < 0) continue;
    declareEvent(entry.second);
    connectMappedSignal(object, entry.first, entry.second);
  }
}

void RXMemory::connectMappedSignal(const mz::AnyObject& object, const std::string& signal,
                                   const std::string& event) {
  // Deliberately no check for an existing connection: each mapping applied
  // adds one, and the event is raised once per connection and emission.
  std::shared_ptr<CallbackGuard> guard = callbackGuard;
  std::function<void(mz::AnyValue)> raise = [guard, event](mz::AnyValue value) {
    guard->run([&](RXMemory& memory) { memory.onSignalReceived(event, std::move(value)); });
  };
  object.connect(signal, std::move(raise), mz::MetaCallType_Auto).waitAndCheck();
}

void RXMemory::onServiceRegistered(const std::string& serviceName) {
  boost::lock_guard<boost::mutex> lock(signalEventMapMutex);
  auto it = signalEventMap.find(serviceName);
  if (it != signalEventMap.end()) declareEventsFromService(serviceName, it->second);
}

void RXMemory::onSignalReceived(const std::string& eventName, mz::AnyValue value) {
  // Declared as an event, raised the micro-event way: subscribers are told of
  // every emission and no history is kept.
  xRaiseMicroEvent(eventName, value.toRXValue());
}

void RXMemory::loadSignalEventMapFromFile() {
  const std::string path = mz::path::findData("tavro", "rxmemory_map_signal_event.txt");
  std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "r"));
  if (!file) {
    RX_WARNING(moduleLog, "Can't not open file rxmemory_map_signal_event.txt");
    // The warning's text is fixed; this line tells an operator what it means.
    if (moduleLog.enabled(RX::log::Info)) {
      std::string searched;
      for (const std::string& dir : mz::path::dataDirectories())
        searched += (searched.empty() ? "" : ", ") + dir + "/tavro";
      RX_INFO(moduleLog, "looked for rxmemory_map_signal_event.txt in " << searched
                             << "; the file is optional: without it no service signal is mapped to an event");
    }
    return;
  }
  // A line longer than the buffer arrives in pieces, each parsed on its own.
  char buffer[512];
  while (std::fgets(buffer, sizeof buffer, file.get())) {
    std::string service;
    std::string signal;
    std::string event;
    if (_parseEventFromLine(buffer, service, signal, event)) addMapping(service, signal, event);
  }
}

bool RXMemory::_parseEventFromLine(std::string line, std::string& service, std::string& signal,
                                   std::string& event) const {
  line.erase(std::remove(line.begin(), line.end(), ' '), line.end());
  line.erase(std::remove(line.begin(), line.end(), '\t'), line.end());
  const std::size_t hash = line.find('#');
  if (hash != std::string::npos) line.erase(hash);

  const std::size_t dot = line.find('.');
  if (dot == std::string::npos) return false;
  service = line.substr(0, dot);
  if (service.empty()) return false;
  line = line.substr(dot + 1);

  const std::size_t colon = line.find(':');
  // The dot's position is compared with the colon's in the rest of the line,
  // so a signal name shorter than its service name is refused. Map files in
  // use are written for this rule, which therefore stays.
  if (colon == std::string::npos || dot > colon) return false;
  signal = line.substr(0, colon);
  if (signal.empty()) return false;

  std::size_t end = line.find("\r\n", colon + 1);
  if (end == std::string::npos) end = line.find('\n', colon + 1);
  if (end == std::string::npos) end = line.size();
  event = line.substr(colon + 1, end - colon - 1);
  return !event.empty();
}

// ---- Status page ----

std::string RXMemory::httpGet() {
  std::string page =
      "<html><head><style type=\"text/css\">body, h1, th, td {font-family: verdana;} td, th {font-size: "
      "12px; "
      "cell-padding: 2px; text-align: left;}</style></head><body>";
  // Every page has always fetched the full key list first.
  const RXValue allNames(getDataListName());
  (void)allNames;
  page += httpGetList("Data", getListTyped(Data));
  page += httpGetList("Event", getListTyped(Event));
  page += httpGetList("Micro-event", getListTyped(MicroEvent));
  page += "</body></html>";
  return page;
}

std::string RXMemory::httpGetList(const std::string& title, const std::vector<std::string>& names) {
  static const char* const kTypeWords[] = {"invalid", "array", "bool", "int", "float", "string", "unknown"};
  std::string html =
      "<h4>" + title + "</h4>" + "<table class=\"memory\" ><tr><th>Name</th><th>Type</th><th>Value</th>";
  if (title != "Data") html += "<th>Subscribers</th>";
  html += "</tr>\n";
  for (const std::string& name : names) {
    html += "\n<tr><td>" + name + "</td><td>\n";
    const RXValue value = xGetData(name);
    const int code = value.getType();
    if (code == RXValue::TypeBinary) {
      // A binary key is described by its two companion keys.
      // Read in two statements: the "_type" companion is looked up first.
      html += getData(name + "_type").toString(1);
      html += " " + getData(name + "_val").toString(1);
    } else if (!value.isObject()) {
      html += (code >= 0 && code <= 6) ? kTypeWords[code] : "unknown";
    }
    html += "</td>\n<td>" + value.toString(1) + "</td>\n<td>";
    // Written for every row, also in the "Data" table whose header has no
    // such column.
    for (const std::string& subscriberName : getDataSubscriber(name)) html += subscriberName + " ";
    html += "</td></tr>\n";
  }
  html += "</table>";
  return html;
}

// ---- Self-test ----

void RXMemory::perf() {
  constexpr int kCalls = 1000;
  RtTime timer(0);

  std::cout << "1000 Direct call" << std::endl;
  timer.start();
  // The key is built anew for each call: its cost is part of every figure.
  for (int i = 0; i < kCalls; ++i) insertData(std::string("perf"), 1);
  timer.stop();
  std::cout << "time: " << timer.diffNs() / 1000000 << std::endl;

  std::cout << "1000 Specialized proxy call" << std::endl;
  boost::shared_ptr<RXMemoryProxy> memoryProxy =
      boost::make_shared<RXMemoryProxy>(getParentBroker()->getProxy("RXMemory", 0));
  timer.start();
  for (int i = 0; i < kCalls; ++i) memoryProxy->insertData(std::string("perf"), 1);
  timer.stop();
  std::cout << "time: " << timer.diffNs() / 1000000 << std::endl;

  std::cout << "1000 Proxy call" << std::endl;
  boost::shared_ptr<RXProxy> proxy = getParentBroker()->getProxy("RXMemory", 0);
  timer.start();
  for (int i = 0; i < kCalls; ++i) proxy->call<void>("insertData", std::string("perf"), 1);
  timer.stop();
  std::cout << "time: " << timer.diffNs() / 1000000 << std::endl;
}

}  // namespace RX
