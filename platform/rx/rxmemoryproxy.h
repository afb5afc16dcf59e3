// RXMemoryProxy: typed access to the memory module, so that C++ modules use it
// without spelling method names or argument lists: one member per published
// method of RXMemory, under the published name, overloads as overloads.
// It is built on a generic RXProxy only, so it works on a memory in the same
// process or in another one alike.
//
//   RX::RXMemoryProxy mem(broker->getProxy("RXMemory"));
//   mem.insertData("Battery/Level", 87);
//   RX::RXValue v = mem.getData("Battery/Level");
//
// Each overload is resolved once, at construction, against the target's
// catalogue, and then called by its uid; an overload that could not be resolved
// (an older memory, an empty proxy) is called by name instead, so that the call
// fails, if it must, with the framework's own error. Failures of the memory
// reach the caller as they are thrown (RXError keeps module, method, message).
// Thread safety: constant after construction; every member may be called from
// several threads at once.
#pragma once

#include <array>
#include <map>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "mz/anyvalue.h"
#include "mz/object.h"
#include "rx/rxvalue.h"

namespace RX {

class RXProxy;

class RXMemoryProxy {
 public:
  // REQUIRES: proxy is not null (it may designate an empty object).
  explicit RXMemoryProxy(boost::shared_ptr<RXProxy> proxy);
  ~RXMemoryProxy();

  // The generic proxy this one is built on.
  const boost::shared_ptr<RXProxy>& getGenericProxy() const { return proxy_; }

  void declareEvent(const std::string& eventName);
  void declareEvent(const std::string& eventName, const std::string& extractorName);
  [[nodiscard]] RXValue getData(const std::string& key);
  [[nodiscard]] RXValue getData(const std::string& key, int deprecatedParameter);
  // The key's signal object, with its signal "signal".
  [[nodiscard]] mz::AnyObject subscriber(const std::string& eventName);
  [[nodiscard]] RXValue getTimestamp(const std::string& key);
  [[nodiscard]] RXValue getEventHistory(const std::string& key);
  [[nodiscard]] std::vector<std::string> getDataList(const std::string& filter);
  [[nodiscard]] std::vector<std::string> getDataListName();
  [[nodiscard]] RXValue getDataOnChange(const std::string& key, int deprecatedParameter);
  // Valid only in the memory's own process; a remote memory refuses it.
  [[nodiscard]] void* getDataPtr(const std::string& key);
  [[nodiscard]] std::vector<std::string> getEventList();
  [[nodiscard]] std::vector<std::string> getExtractorEvent(const std::string& extractorName);
  [[nodiscard]] RXValue getListData(const RXValue& keyList);
  [[nodiscard]] std::vector<std::string> getMicroEventList();
  [[nodiscard]] std::vector<std::string> getSubscribers(const std::string& name);
  [[nodiscard]] std::string getType(const std::string& key);
  void insertData(const std::string& key, int value);
  void insertData(const std::string& key, float value);
  void insertData(const std::string& key, const std::string& value);
  void insertData(const std::string& key, const RXValue& data);
  void insertListData(const RXValue& list);
  void raiseEvent(const std::string& name, const RXValue& value);
  void raiseMicroEvent(const std::string& name, const RXValue& value);
  void removeData(const std::string& key);
  void removeEvent(const std::string& name);
  void removeMicroEvent(const std::string& name);
  void subscribeToEvent(const std::string& name, const std::string& callbackModule,
                        const std::string& callbackMethod);
  void subscribeToEvent(const std::string& name, const std::string& callbackModule,
                        const std::string& callbackMessage, const std::string& callbacMethod);
  void subscribeToMicroEvent(const std::string& name, const std::string& callbackModule,
                             const std::string& callbackMessage, const std::string& callbackMethod);
  void unregisterModuleReference(const std::string& moduleName);
  void _perf();
  void unsubscribeToEvent(const std::string& name, const std::string& callbackModule);
  void unsubscribeToMicroEvent(const std::string& name, const std::string& callbackModule);
  void _insertObject(const std::string& name, const RXValue& buffer, int bufferSize);
  void _subscribeOnDataSetTimePolicy(const std::string& name, const std::string& callbackModule,
                                     int nTimePolicy);
  void _subscribeOnDataSetSynchronizeResponse(const std::string& name, const std::string& callbackModule,
                                              bool synchronizedResponse);
  void setDescription(const std::string& name, const std::string& description);
  [[nodiscard]] RXValue getDescriptionList(const std::vector<std::string>& keylist);
  void addMapping(const std::string& service, const std::string& signal, const std::string& event);
  void addMapping(const std::string& service, const std::map<std::string, std::string>& signalEvent);

  // How many overloads were resolved to a uid at construction (the others
  // are called by name); for diagnostics and tests.
  [[nodiscard]] std::size_t resolvedCount() const;

 private:
  // One slot per published overload, in the catalogue's order.
  enum Slot : int {
    kDeclareEvent1,
    kDeclareEvent2,
    kGetData1,
    kGetData2,
    kSubscriber,
    kGetTimestamp,
    kGetEventHistory,
    kGetDataList,
    kGetDataListName,
    kGetDataOnChange,
    kGetDataPtr,
    kGetEventList,
    kGetExtractorEvent,
    kGetListData,
    kGetMicroEventList,
    kGetSubscribers,
    kGetType,
    kInsertDataInt,
    kInsertDataFloat,
    kInsertDataString,
    kInsertDataValue,
    kInsertListData,
    kRaiseEvent,
    kRaiseMicroEvent,
    kRemoveData,
    kRemoveEvent,
    kRemoveMicroEvent,
    kSubscribeToEvent3,
    kSubscribeToEvent4,
    kSubscribeToMicroEvent,
    kUnregisterModuleReference,
    kPerf,
    kUnsubscribeToEvent,
    kUnsubscribeToMicroEvent,
    kInsertObject,
    kSubscribeOnDataSetTimePolicy,
    kSubscribeOnDataSetSynchronizeResponse,
    kSetDescription,
    kGetDescriptionList,
    kAddMapping3,
    kAddMappingMap,
    kSlotCount
  };

  mz::AnyValue invoke(Slot slot, const mz::GenericFunctionParameters& params);

  // Constant after construction.
  boost::shared_ptr<RXProxy> proxy_;
  std::array<int, kSlotCount> uids_;  // -1: not resolved, called by name
};

}  // namespace RX
