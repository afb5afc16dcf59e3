#include "rxmemory.h"

#include <cstdint>
#include <exception>
#include <iostream>
#include <stdexcept>

#include <boost/make_shared.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/locks.hpp>

#include "mz/os.h"
#include "rx/rxbroker.h"
#include "rx/rxerror.h"
#include "rx/rxlog.h"
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

using SharedLock = boost::shared_lock<boost::shared_mutex>;
using UniqueLock = boost::unique_lock<boost::shared_mutex>;
using CellLock = boost::lock_guard<boost::recursive_mutex>;

// Keys of the behaviour layer change too often to be worth reporting.
bool isBehaviorKey(const std::string& name) { return name.compare(0, 9, "_Behavior") == 0; }

mz::os::timeval now() {
  mz::os::timeval tv;
  mz::os::gettimeofday(&tv);
  return tv;
}

}  // namespace

// ---- Lifecycle ----

RXMemory::RXMemory(boost::shared_ptr<RXBroker> broker, const std::string& name)
    : RXModule(broker, name), serviceRegisteredLink(mz::kInvalidSignalLink) {
  STMValue::setBrokerInstance(broker);
  // Sized up front so that a robot's usual key count never triggers a rehash.
  keyMap.max_load_factor(1.0f);
  keyMap.rehash(5000);
  setModuleDescription(
      "RXMemory provides a centralized memory that can be used to store and retrieve named values. It also "
      "acts as a hub for the distribution of event notifications.");
  declareEvent(Memory::keyAddedKey);
  declareEvent(Memory::keyRemovedKey);
  declareEvent(Memory::keyTypeChanged);
}

RXMemory::~RXMemory() = default;

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
  cell = boost::make_shared<STMValue>(this, name, RXValue(), type);
  keyMap.emplace(name, cell);
  return cell;
}

void RXMemory::registerEvent(const std::string& name) {
  UniqueLock lock(extractorMapMutex);
  if (extractorMap.find(name) == extractorMap.end()) extractorMap.emplace(name, "Unknown");
}

// ---- Insertion ----

boost::shared_ptr<STMValue> RXMemory::xInsertData(const std::string& name, const RXValue& value, dataType type) {
  boost::shared_ptr<STMValue> cell;
  bool added = false;
  bool retyped = false;
  {
    UniqueLock lock(keyMapMutex);
    auto it = keyMap.find(name);
    if (it != keyMap.end()) {
      cell = it->second;
      dataType oldType;
      {
        CellLock cellLock(cell->valueMutex);
        oldType = cell->type;
      }
      cell->setValue(value, type, now());
      if (oldType != Event && type == Event) registerEvent(name);
      retyped = type != oldType;
    } else {
      cell = boost::make_shared<STMValue>(this, name, value, type, now());
      keyMap.emplace(name, cell);
      if (type == Event) registerEvent(name);
      added = true;
    }
  }
  // Raised only now: raising inserts into the map again.
  if (!isBehaviorKey(name)) {
    if (added)
      xRaiseEvent(Memory::keyAddedKey, RXValue(name));
    else if (retyped)
      xRaiseEvent(Memory::keyTypeChanged, RXValue(name));
  }
  return cell;
}

void RXMemory::insertData(const std::string& key, int value) { insertData(key, RXValue(value)); }

void RXMemory::insertData(const std::string& key, float value) { insertData(key, RXValue(value)); }

void RXMemory::insertData(const std::string& key, const std::string& value) { insertData(key, RXValue(value)); }

void RXMemory::insertData(const std::string& key, const RXValue& data) { xInsertData(key, data, Data); }

void RXMemory::_insertObject(const std::string& name, const RXValue& buffer, int /*bufferSize*/) {
  insertData(name, buffer);
}

void RXMemory::insertListData(const RXValue& list) {
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
  RXValue current;
  do {
    mz::os::msleep(600);
    current = getData(key);
  } while (current == first);
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
  // From now on the value keeps its kind, so the address stays meaningful.
  cell->ptrAccessed = true;
  return cell->value.getPtrValue();
}

// ---- Descriptions and types ----

void RXMemory::setDescription(const std::string& name, const std::string& description) {
  UniqueLock lock(keyMapMutex);
  auto it = keyMap.find(name);
  if (it == keyMap.end()) RX_THROW(kModuleName, "setDescription", name + " not found");
  it->second->description = description;
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
    entry[2] = RXValue(cell.description);
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

RXValue RXMemory::getDataTimestamp(const std::string& key) { return findCellOrThrow(key)->getValueTimeStamp(); }

// ---- Events and micro-events ----

void RXMemory::declareEvent(const std::string& eventName) { xInsertData(eventName, RXValue(), Event); }

void RXMemory::declareEvent(const std::string& eventName, const std::string& extractorName) {
  {
    UniqueLock lock(extractorMapMutex);
    extractorMap[eventName] = extractorName;
  }
  xInsertData(eventName, RXValue(), Event);
}

void RXMemory::raiseEvent(const std::string& name, const RXValue& value) { xRaiseEvent(name, value); }

void RXMemory::xRaiseEvent(const std::string& name, const RXValue& value) {
  boost::shared_ptr<STMValue> cell = xInsertData(name, value, Event);
  cell->pushHistory(value);
  cell->notify(name, value);
}

void RXMemory::raiseMicroEvent(const std::string& name, const RXValue& value) { xRaiseMicroEvent(name, value); }

void RXMemory::xRaiseMicroEvent(const std::string& name, const RXValue& value) {
  boost::shared_ptr<STMValue> cell = xInsertData(name, value, MicroEvent);
  cell->notify(name, value);
}

void RXMemory::removeEvent(const std::string& name) {
  xRemoveData(name);
  // Taken shared, as the readers take it; kept so for compatibility.
  SharedLock lock(extractorMapMutex);
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

void RXMemory::subscribeOnDataSetTimePolicy(const std::string& /*name*/, const std::string& /*callbackModule*/,
                                            int /*nTimePolicy*/) {
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
    // event, under the shared lock; kept so for compatibility.
    SharedLock lock(extractorMapMutex);
    extractor = extractorMap[eventName];
  }
  if (extractor == "Unknown" || extractor.empty()) return;
  try {
    boost::shared_ptr<RXProxy> proxy = getParentBroker()->getProxy(extractor, 0);
    if (!proxy || !proxy->object()) return;
    // Only modules offering getCurrentPrecision generate events on demand.
    if (proxy->object().findMethod("getCurrentPrecision").empty()) return;
    proxy = getParentBroker()->getProxy(extractor, 0);
    proxy->call<void>("subscribe", subscriberId);
  } catch (const std::exception&) {
    // The subscription stands even when its generator cannot be started.
  }
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
  try {
    boost::shared_ptr<RXProxy> proxy = getParentBroker()->getProxy(extractor, 0);
    if (!proxy || !proxy->object()) return;
    if (proxy->object().findMethod("getCurrentPrecision").empty()) return;
    proxy = getParentBroker()->getProxy(extractor, 0);
    proxy->call<void>("unsubscribe", subscriberId);
  } catch (const std::exception&) {
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
  return it->second->subscriber();
}

// ---- Status page ----

std::string RXMemory::httpGet() {
  std::string page =
      "<html><head><style type=\"text/css\">body, h1, th, td {font-family: verdana;} td, th {font-size: 12px; "
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
  std::string html = "<h4>" + title + "</h4>" +
                     "<table class=\"memory\" ><tr><th>Name</th><th>Type</th><th>Value</th>";
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

}  // namespace RX
