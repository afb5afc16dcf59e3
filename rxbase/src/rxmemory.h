// RXMemory: the centralized memory module: named values in shared cells
// (STMValue), and the hub of events, micro-events and their subscribers.
// Thread safety: every public method may run concurrently from any thread. Lock
// order: signalEventMapMutex, keyMapMutex, then extractorMapMutex or one cell
// mutex; keyMapMutex is never held while raising, since raising re-enters insertion.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/unordered_map.hpp>

#include "mz/anyvalue.h"
#include "mz/signal.h"
#include "rx/rxlivefeed.h"
#include "rx/rxmodule.h"
#include "memorylocks.h"
#include "rx/rxvalue.h"
#include "stmvalue.h"

class RXMemorySubscriber;

namespace RX {

class RXBroker;

// Names of the events through which the memory reports changes of its own keys
// (the value of each raise is the key's name).
namespace Memory {
extern const std::string keyAddedKey;     // "RXMemory/KeyAdded"
extern const std::string keyRemovedKey;   // "RXMemory/KeyRemoved"
extern const std::string keyTypeChanged;  // "RXMemory/KeyTypeChanged"
}  // namespace Memory

class RXMemory : public RXModule {
 public:
  // Publishes the catalogue, declares the three store-change events, loads
  // the signal/event map file and connects the mapped services already
  // registered, then follows the session's service registrations.
  RXMemory(boost::shared_ptr<RXBroker> broker, const std::string& name);
  // Stops following service registrations first; mapped signal connections
  // stay but no longer reach the module.
  ~RXMemory() override;

  // Raises the micro-event "TavroReady" with 0: the memory is up.
  void init() override;

  // ---- Key store ----
  // Stores the value as plain data; notifies nobody (only raising notifies).
  // May raise KeyAdded or KeyTypeChanged. Throws RXError ("setValue") when the
  // key's address was handed out and the value is of another kind.
  void insertData(const std::string& key, int value);
  void insertData(const std::string& key, float value);
  void insertData(const std::string& key, const std::string& value);
  void insertData(const std::string& key, const RXValue& data);
  // insertData with the size ignored.
  void _insertObject(const std::string& name, const RXValue& buffer, int bufferSize);
  // Inserts each [name, value] pair in order; stops with RXError
  // ("InsertListData") at the first malformed element, keeping earlier pairs.
  void insertListData(const RXValue& list);
  // Inserts or updates the key under the exclusive map lock and returns its
  // cell. Raises KeyAdded / KeyTypeChanged after the lock is released (never
  // for names beginning with "_Behavior"). Neither appends history nor notifies.
  boost::shared_ptr<STMValue> xInsertData(const std::string& name, const RXValue& value, dataType type);

  // A copy of the key's value; RXError ("getData", "Data not found NAME").
  [[nodiscard]] RXValue getData(const std::string& key);
  [[nodiscard]] RXValue getData(const std::string& key, int deprecatedParameter);
  [[nodiscard]] RXValue xGetData(const std::string& name);
  // Polls every 600 ms until the value differs from the first read; no time-out.
  // When the remote caller has disconnected (RX::CallContext), stops and
  // returns the current value, which nobody reads.
  [[nodiscard]] RXValue getDataOnChange(const std::string& key, int deprecatedParameter);
  // One slot per requested name (an element may be a name or an array whose
  // first element is the name); unknown names give an invalid value.
  [[nodiscard]] RXValue getListData(const RXValue& keyList);

  // Throws RXError ("removeData") when the key is unknown or its address was
  // handed out. Raises KeyRemoved (not for "_Behavior" names).
  void removeData(const std::string& key);
  void xRemoveData(const std::string& name);

  // Key names in the map's own (unspecified) order.
  [[nodiscard]] std::vector<std::string> getDataListName();
  // The names containing filter (all of them for an empty filter).
  [[nodiscard]] std::vector<std::string> getDataList(const std::string& filter);
  [[nodiscard]] std::vector<std::string> getListTyped(dataType type);
  [[nodiscard]] std::vector<std::string> xGetListTyped(dataType type);
  [[nodiscard]] std::vector<std::string> getMicroEventList();
  // Every name that has been an event (declared, raised or typed so), sorted.
  [[nodiscard]] std::vector<std::string> getEventList();

  // The address of the key's stored value, creating the key (plain data,
  // invalid value, no event raised) when absent. From then on the value's kind
  // is frozen and the key cannot be removed. A key without a value gives the
  // address its first int or float will be written to.
  [[nodiscard]] void* getPtrData(const std::string& key);
  [[nodiscard]] void* xGetPtrData(const std::string& name);

  // ---- Descriptions and types ----
  // Throws RXError ("setDescription", "NAME not found") for an unknown key.
  void setDescription(const std::string& name, const std::string& description);
  // [name, "data" | "event" | invalid, description] per key: every key for an
  // empty request; otherwise as many invalid slots as names, then the entries.
  [[nodiscard]] RXValue getDescriptionList(const std::vector<std::string>& keylist);
  [[nodiscard]] dataType getDataType(const std::string& name);
  // "Unknown data", "Data", "ShmData", "Event", "MicroEvent" or "Unknown".
  [[nodiscard]] std::string getStrDataType(const std::string& key);
  // [value, seconds, microseconds] of the key's last write.
  [[nodiscard]] RXValue getDataTimestamp(const std::string& key);

  // ---- Events and micro-events ----
  // Creates (or resets to an invalid value) the event; the two-argument form
  // first records its extractor, the one-argument form leaves "Unknown".
  void declareEvent(const std::string& eventName);
  void declareEvent(const std::string& eventName, const std::string& extractorName);
  // Stores the value as an event, appends it to the history and notifies.
  void raiseEvent(const std::string& name, const RXValue& value);
  void xRaiseEvent(const std::string& name, const RXValue& value);
  // Stores the value as a micro-event and notifies; no history.
  void raiseMicroEvent(const std::string& name, const RXValue& value);
  void xRaiseMicroEvent(const std::string& name, const RXValue& value);
  void removeEvent(const std::string& name);
  void removeMicroEvent(const std::string& name);
  [[nodiscard]] std::vector<std::string> getExtractorEvent(const std::string& extractorName);
  [[nodiscard]] RXValue getEventHistory(const std::string& key);

  // ---- Subscriptions ----
  // Subscribing creates an unknown key (no KeyAdded) and replaces an earlier
  // subscription of the same module. Event subscriptions tell the event's
  // extractor ("subscribe"/"unsubscribe" with callbackModule + name).
  void subscribeToEvent(const std::string& name, const std::string& callbackModule,
                        const std::string& callbackMethod);
  void subscribeToEvent(const std::string& name, const std::string& callbackModule,
                        const std::string& callbackMessage, const std::string& callbackMethod);
  void xSubscribeToEvent(const std::string& name, const std::string& callbackModule,
                         const RXValue& callbackMessage, const std::string& callbackMethod);
  void subscribeToMicroEvent(const std::string& name, const std::string& callbackModule,
                             const std::string& callbackMessage, const std::string& callbackMethod);
  void xSubscribeToMicroEvent(const std::string& name, const std::string& callbackModule,
                              const RXValue& callbackMessage, const std::string& callbackMethod);
  void unsubscribeToEvent(const std::string& name, const std::string& callbackModule);
  void xUnsubscribeToEvent(const std::string& name, const std::string& callbackModule);
  void unsubscribeToMicroEvent(const std::string& name, const std::string& callbackModule);
  void xUnsubscribeToMicroEvent(const std::string& name, const std::string& callbackModule);
  // Subscribed module names, byte-wise ascending.
  [[nodiscard]] std::vector<std::string> getDataSubscriber(const std::string& name);
  // Deprecated entries that only log.
  void unregisterModuleReference(const std::string& moduleName);
  void subscribeOnDataSetTimePolicy(const std::string& name, const std::string& callbackModule,
                                    int nTimePolicy);
  void subscribeOnDataSetSynchronizeResponse(const std::string& name, const std::string& callbackModule,
                                             bool synchronizedResponse);

  // Extractor protocol: tell the event's generator (only a module that offers
  // "getCurrentPrecision") about a subscription; blocks until it answers.
  // A standard exception from it (a failure or a time-out) is logged as a
  // warning naming the extractor and the event, and goes no further.
  void runExtractor(const std::string& eventName, const std::string& subscriberId);
  void stopExtractor(const std::string& eventName, const std::string& subscriberId);

  // ---- Signal bridge ----
  // The key's signal object, declaring the key as an event when absent.
  // Throws std::runtime_error ("event not found", "invalid registered event").
  [[nodiscard]] boost::shared_ptr<RXMemorySubscriber> subscriber(const std::string& eventName);
  // Maps the service's signal onto the event: the mapping is remembered (the
  // last one for a pair wins) and, when the service is registered and has the
  // signal, the event is declared and the signal connected, so that each
  // emission is raised as a micro-event under the event's name. Every call
  // adds one more connection; none is ever removed. An unregistered service or
  // a missing signal is not an error. Throws std::runtime_error
  // ("This object is null") for an empty service object and the framework's
  // error when the connection fails.
  void addMapping(const std::string& service, const std::string& signal, const std::string& event);
  // The three-argument form for each entry, in ascending signal order.
  void addMapping(const std::string& service, const std::map<std::string, std::string>& signalEvent);
  // Reads "rxmemory_map_signal_event.txt" (data path, domain "tavro") and adds
  // each valid line's mapping; a missing file gives a warning only.
  void loadSignalEventMapFromFile();
  // Parses one map-file line "service.signal:event # comment" (spaces and tabs
  // anywhere are ignored). False for blank, comment or malformed lines; the
  // outputs may then hold partial results.
  [[nodiscard]] bool _parseEventFromLine(std::string line, std::string& service, std::string& signal,
                                         std::string& event) const;
  // Declares and connects the mapped signals of a registered service; does
  // nothing when the service cannot be had.
  // REQUIRES: signalEventMapMutex held.
  void declareEventsFromService(const std::string& service,
                                const std::map<std::string, std::string>& signalEvent);
  // Connects the mapped signals of a service that has just registered.
  void onServiceRegistered(const std::string& serviceName);
  // One emission of a mapped signal: raised as a micro-event. Throws the
  // framework's conversion error for a value that is not an RXValue.
  void onSignalReceived(const std::string& eventName, mz::AnyValue value);

  // ---- Diagnostics ----
  // The whole memory as one HTML page: data, events and micro-events.
  std::string httpGet() override;
  [[nodiscard]] std::string httpGetList(const std::string& title, const std::vector<std::string>& names);
  // ---- Live view (rxmemory_liveview.cpp) ----
  // Every write, raise and removal of a key is reported on the feed by name
  // (one atomic load while no viewer is open).
  LiveFeed* liveFeed() override { return &liveFeed_; }
  // Per key, sorted by name: {"name", "kind" (data, event, microEvent,
  // unknown, shmData), "type" (of the value), "value" (as text, at most
  // kLiveValueBytes, bytes that are not UTF-8 written as \xNN), "sec",
  // "usec" (last write, 0 when never written), "description", "subscribers"
  // and, when the value cannot be shown whole, "note"}. Never throws for a key.
  std::string liveTableJson() override;
  std::string liveRowJson(const std::string& name) override;
  static constexpr std::size_t kLiveValueBytes = 4096;

  // Times 1000 insertions of "perf" by three routes (direct, specialized
  // proxy, generic proxy) and prints the figures on standard output.
  void perf();

 private:
  class CallbackGuard;

  // Calls method ("subscribe" / "unsubscribe") with subscriberId on the
  // extractor when it is a running module offering "getCurrentPrecision".
  // REQUIRES: no lock held (the call blocks until the extractor answers).
  void callExtractor(const std::string& extractor, const std::string& eventName, const char* method,
                     const std::string& subscriberId);
  // Publishes the module's catalogue, in its fixed order.
  void publishMethods();
  // Connects the service object's signal to a raise of event.
  void connectMappedSignal(const mz::AnyObject& object, const std::string& signal, const std::string& event);

  // The cell of name, or an empty handle; holds keyMapMutex shared only for the lookup.
  boost::shared_ptr<STMValue> findCell(const std::string& name);
  // The cell of name; throws RXError ("getData", "Data not found NAME").
  boost::shared_ptr<STMValue> findCellOrThrow(const std::string& name);
  // The cell of name, created with an invalid value and `type` when absent
  // (double-checked: shared lookup, then exclusive). Raises no event.
  boost::shared_ptr<STMValue> findOrCreateCell(const std::string& name, dataType type);
  // What xInsertData does; `keep`, when not null, receives the cell.
  void storeValue(const std::string& name, const RXValue& value, dataType type, boost::shared_ptr<STMValue>* keep);
  // The live view's row of one key (see liveTableJson).
  // REQUIRES: keyMapMutex not held (the binary companions are looked up).
  std::string liveRow(const std::string& name, STMValue& cell, const std::string& description);
  // Gives a new event the extractor "Unknown".
  // REQUIRES: keyMapMutex held exclusively.
  void registerEvent(const std::string& name);

  // Guarded by extractorMapMutex: event name -> extractor module name
  // ("Unknown" or empty: none).
  std::map<std::string, std::string> extractorMap;
  mutable SharedMutex extractorMapMutex;

  // Guarded by keyMapMutex (cell descriptions too).
  boost::unordered_map<std::string, boost::shared_ptr<STMValue>> keyMap;
  mutable SharedMutex keyMapMutex;

  // Guarded by signalEventMapMutex: service -> signal -> event.
  std::map<std::string, std::map<std::string, std::string>> signalEventMap;
  boost::mutex signalEventMapMutex;

  // Link of the session's serviceRegistered signal to onServiceRegistered.
  mz::SignalLink serviceRegisteredLink;

  // Told of every changed key; does its own locking.
  LiveFeed liveFeed_;

  // Held by the callbacks of serviceRegistered and of mapped service signals
  // instead of the module itself: those connections may outlive the module.
  std::shared_ptr<CallbackGuard> callbackGuard;
};

}  // namespace RX

// Library entry points, looked up by name by the broker.
extern "C" {
__attribute__((visibility("default"))) int _createModule(boost::shared_ptr<RX::RXBroker> broker);
__attribute__((visibility("default"))) int _closeModule();
}
