#include "rx/rxmemoryproxy.h"

#include <exception>
#include <utility>

#include "mz/typeconv.h"
#include "rx/rxproxy.h"

namespace RX {

namespace {

using mz::ParamType;

struct Overload {
  const char* name;
  std::vector<ParamType> params;
};

// The memory's published overloads, indexed by RXMemoryProxy's slots: the name
// and the parameter kinds, from which sample arguments are made to resolve
// each overload against the target's catalogue.
const std::vector<Overload>& overloads() {
  static const std::vector<Overload> table = {
      {"declareEvent", {ParamType::String}},
      {"declareEvent", {ParamType::String, ParamType::String}},
      {"getData", {ParamType::String}},
      {"getData", {ParamType::String, ParamType::Int}},
      {"subscriber", {ParamType::String}},
      {"getTimestamp", {ParamType::String}},
      {"getEventHistory", {ParamType::String}},
      {"getDataList", {ParamType::String}},
      {"getDataListName", {}},
      {"getDataOnChange", {ParamType::String, ParamType::Int}},
      {"getDataPtr", {ParamType::String}},
      {"getEventList", {}},
      {"getExtractorEvent", {ParamType::String}},
      {"getListData", {ParamType::Value}},
      {"getMicroEventList", {}},
      {"getSubscribers", {ParamType::String}},
      {"getType", {ParamType::String}},
      {"insertData", {ParamType::String, ParamType::Int}},
      {"insertData", {ParamType::String, ParamType::Float}},
      {"insertData", {ParamType::String, ParamType::String}},
      {"insertData", {ParamType::String, ParamType::Value}},
      {"insertListData", {ParamType::Value}},
      {"raiseEvent", {ParamType::String, ParamType::Value}},
      {"raiseMicroEvent", {ParamType::String, ParamType::Value}},
      {"removeData", {ParamType::String}},
      {"removeEvent", {ParamType::String}},
      {"removeMicroEvent", {ParamType::String}},
      {"subscribeToEvent", {ParamType::String, ParamType::String, ParamType::String}},
      {"subscribeToEvent", {ParamType::String, ParamType::String, ParamType::String, ParamType::String}},
      {"subscribeToMicroEvent", {ParamType::String, ParamType::String, ParamType::String, ParamType::String}},
      {"unregisterModuleReference", {ParamType::String}},
      {"_perf", {}},
      {"unsubscribeToEvent", {ParamType::String, ParamType::String}},
      {"unsubscribeToMicroEvent", {ParamType::String, ParamType::String}},
      {"_insertObject", {ParamType::String, ParamType::Value, ParamType::Int}},
      {"_subscribeOnDataSetTimePolicy", {ParamType::String, ParamType::String, ParamType::Int}},
      {"_subscribeOnDataSetSynchronizeResponse", {ParamType::String, ParamType::String, ParamType::Bool}},
      {"setDescription", {ParamType::String, ParamType::String}},
      {"getDescriptionList", {ParamType::StringList}},
      {"addMapping", {ParamType::String, ParamType::String, ParamType::String}},
      {"addMapping", {ParamType::String, ParamType::StringMap}},
  };
  return table;
}

// An argument of the given kind, for overload resolution only. An invalid
// value stands for "any value": only a parameter that takes any value accepts
// it, so it resolves to the RXValue overload and not to a typed one.
mz::AnyValue sample(ParamType kind) {
  switch (kind) {
    case ParamType::Bool:
      return mz::AnyValue(false);
    case ParamType::Int:
      return mz::AnyValue(0);
    case ParamType::Float:
      return mz::AnyValue(0.0f);
    case ParamType::String:
      return mz::AnyValue(std::string());
    case ParamType::StringList:
      return mz::AnyValue(std::vector<std::string>{std::string()});
    case ParamType::StringMap:
      return mz::AnyValue(std::map<std::string, std::string>{{std::string(), std::string()}});
    case ParamType::Void:
    case ParamType::Value:
    case ParamType::Object:
    case ParamType::Pointer:
      break;
  }
  return mz::AnyValue(RXValue());
}

}  // namespace

RXMemoryProxy::RXMemoryProxy(boost::shared_ptr<RXProxy> proxy) : proxy_(std::move(proxy)) {
  static_assert(kSlotCount == 41, "one slot per published overload");
  const std::vector<Overload>& table = overloads();
  for (std::size_t slot = 0; slot < uids_.size(); ++slot) {
    uids_[slot] = -1;
    if (!proxy_) continue;
    mz::GenericFunctionParameters args;
    for (ParamType kind : table[slot].params) args.push_back(sample(kind));
    try {
      uids_[slot] = static_cast<int>(proxy_->resolve(table[slot].name, args));
    } catch (const std::exception&) {
      // Left to a call by name, which reports what is wrong when it is used.
    }
  }
}

RXMemoryProxy::~RXMemoryProxy() = default;

std::size_t RXMemoryProxy::resolvedCount() const {
  std::size_t n = 0;
  for (int uid : uids_)
    if (uid >= 0) ++n;
  return n;
}

mz::AnyValue RXMemoryProxy::invoke(Slot slot, const mz::GenericFunctionParameters& params) {
  const int uid = uids_[slot];
  if (uid >= 0) return proxy_->callById(static_cast<unsigned int>(uid), params);
  return proxy_->genericCall(overloads()[slot].name, params);
}

// ---- Events ----

void RXMemoryProxy::declareEvent(const std::string& eventName) { invoke(kDeclareEvent1, {eventName}); }

void RXMemoryProxy::declareEvent(const std::string& eventName, const std::string& extractorName) {
  invoke(kDeclareEvent2, {eventName, extractorName});
}

void RXMemoryProxy::raiseEvent(const std::string& name, const RXValue& value) {
  invoke(kRaiseEvent, {name, value});
}

void RXMemoryProxy::raiseMicroEvent(const std::string& name, const RXValue& value) {
  invoke(kRaiseMicroEvent, {name, value});
}

void RXMemoryProxy::removeEvent(const std::string& name) { invoke(kRemoveEvent, {name}); }

void RXMemoryProxy::removeMicroEvent(const std::string& name) { invoke(kRemoveMicroEvent, {name}); }

std::vector<std::string> RXMemoryProxy::getEventList() {
  return mz::Conv<std::vector<std::string>>::from(invoke(kGetEventList, {}));
}

std::vector<std::string> RXMemoryProxy::getMicroEventList() {
  return mz::Conv<std::vector<std::string>>::from(invoke(kGetMicroEventList, {}));
}

std::vector<std::string> RXMemoryProxy::getExtractorEvent(const std::string& extractorName) {
  return mz::Conv<std::vector<std::string>>::from(invoke(kGetExtractorEvent, {extractorName}));
}

RXValue RXMemoryProxy::getEventHistory(const std::string& key) {
  return mz::Conv<RXValue>::from(invoke(kGetEventHistory, {key}));
}

// ---- Reads ----

RXValue RXMemoryProxy::getData(const std::string& key) {
  return mz::Conv<RXValue>::from(invoke(kGetData1, {key}));
}

RXValue RXMemoryProxy::getData(const std::string& key, int deprecatedParameter) {
  return mz::Conv<RXValue>::from(invoke(kGetData2, {key, deprecatedParameter}));
}

RXValue RXMemoryProxy::getTimestamp(const std::string& key) {
  return mz::Conv<RXValue>::from(invoke(kGetTimestamp, {key}));
}

std::vector<std::string> RXMemoryProxy::getDataList(const std::string& filter) {
  return mz::Conv<std::vector<std::string>>::from(invoke(kGetDataList, {filter}));
}

std::vector<std::string> RXMemoryProxy::getDataListName() {
  return mz::Conv<std::vector<std::string>>::from(invoke(kGetDataListName, {}));
}

RXValue RXMemoryProxy::getDataOnChange(const std::string& key, int deprecatedParameter) {
  return mz::Conv<RXValue>::from(invoke(kGetDataOnChange, {key, deprecatedParameter}));
}

void* RXMemoryProxy::getDataPtr(const std::string& key) {
  return mz::Conv<void*>::from(invoke(kGetDataPtr, {key}));
}

RXValue RXMemoryProxy::getListData(const RXValue& keyList) {
  return mz::Conv<RXValue>::from(invoke(kGetListData, {keyList}));
}

std::vector<std::string> RXMemoryProxy::getSubscribers(const std::string& name) {
  return mz::Conv<std::vector<std::string>>::from(invoke(kGetSubscribers, {name}));
}

std::string RXMemoryProxy::getType(const std::string& key) {
  return mz::Conv<std::string>::from(invoke(kGetType, {key}));
}

mz::AnyObject RXMemoryProxy::subscriber(const std::string& eventName) {
  return mz::Conv<mz::AnyObject>::from(invoke(kSubscriber, {eventName}));
}

// ---- Writes ----

void RXMemoryProxy::insertData(const std::string& key, int value) { invoke(kInsertDataInt, {key, value}); }

void RXMemoryProxy::insertData(const std::string& key, float value) {
  invoke(kInsertDataFloat, {key, value});
}

void RXMemoryProxy::insertData(const std::string& key, const std::string& value) {
  invoke(kInsertDataString, {key, value});
}

void RXMemoryProxy::insertData(const std::string& key, const RXValue& data) {
  invoke(kInsertDataValue, {key, data});
}

void RXMemoryProxy::insertListData(const RXValue& list) { invoke(kInsertListData, {list}); }

void RXMemoryProxy::_insertObject(const std::string& name, const RXValue& buffer, int bufferSize) {
  invoke(kInsertObject, {name, buffer, bufferSize});
}

void RXMemoryProxy::removeData(const std::string& key) { invoke(kRemoveData, {key}); }

void RXMemoryProxy::setDescription(const std::string& name, const std::string& description) {
  invoke(kSetDescription, {name, description});
}

RXValue RXMemoryProxy::getDescriptionList(const std::vector<std::string>& keylist) {
  return mz::Conv<RXValue>::from(invoke(kGetDescriptionList, {keylist}));
}

// ---- Subscriptions ----

void RXMemoryProxy::subscribeToEvent(const std::string& name, const std::string& callbackModule,
                                     const std::string& callbackMethod) {
  invoke(kSubscribeToEvent3, {name, callbackModule, callbackMethod});
}

void RXMemoryProxy::subscribeToEvent(const std::string& name, const std::string& callbackModule,
                                     const std::string& callbackMessage, const std::string& callbacMethod) {
  invoke(kSubscribeToEvent4, {name, callbackModule, callbackMessage, callbacMethod});
}

void RXMemoryProxy::subscribeToMicroEvent(const std::string& name, const std::string& callbackModule,
                                          const std::string& callbackMessage,
                                          const std::string& callbackMethod) {
  invoke(kSubscribeToMicroEvent, {name, callbackModule, callbackMessage, callbackMethod});
}

void RXMemoryProxy::unsubscribeToEvent(const std::string& name, const std::string& callbackModule) {
  invoke(kUnsubscribeToEvent, {name, callbackModule});
}

void RXMemoryProxy::unsubscribeToMicroEvent(const std::string& name, const std::string& callbackModule) {
  invoke(kUnsubscribeToMicroEvent, {name, callbackModule});
}

void RXMemoryProxy::unregisterModuleReference(const std::string& moduleName) {
  invoke(kUnregisterModuleReference, {moduleName});
}

void RXMemoryProxy::_subscribeOnDataSetTimePolicy(const std::string& name, const std::string& callbackModule,
                                                  int nTimePolicy) {
  invoke(kSubscribeOnDataSetTimePolicy, {name, callbackModule, nTimePolicy});
}

void RXMemoryProxy::_subscribeOnDataSetSynchronizeResponse(const std::string& name,
                                                           const std::string& callbackModule,
                                                           bool synchronizedResponse) {
  invoke(kSubscribeOnDataSetSynchronizeResponse, {name, callbackModule, synchronizedResponse});
}

// ---- Mapping and diagnostics ----

void RXMemoryProxy::addMapping(const std::string& service, const std::string& signal,
                               const std::string& event) {
  invoke(kAddMapping3, {service, signal, event});
}

void RXMemoryProxy::addMapping(const std::string& service,
                               const std::map<std::string, std::string>& signalEvent) {
  invoke(kAddMappingMap, {service, signalEvent});
}

void RXMemoryProxy::_perf() { invoke(kPerf, {}); }

}  // namespace RX
