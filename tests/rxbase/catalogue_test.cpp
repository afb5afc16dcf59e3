// The published catalogue: every entry as callers and introspection tools see
// it (names, order, texts, parameter and result kinds, masks), and how each
// entry is bound.
#include <set>

#include "memory_test_util.h"

namespace {

using mz::ParamType;
constexpr ParamType N = ParamType::Void;
constexpr ParamType S = ParamType::String;
constexpr ParamType I = ParamType::Int;
constexpr ParamType F = ParamType::Float;
constexpr ParamType B = ParamType::Bool;
constexpr ParamType V = ParamType::Value;
constexpr ParamType L = ParamType::StringList;
constexpr ParamType M = ParamType::StringMap;
constexpr ParamType O = ParamType::Object;
constexpr ParamType P = ParamType::Pointer;

enum Binding { kFunctor, kAdvertised };

struct Param {
  const char* name;
  const char* description;
  ParamType kind;
};

struct Entry {
  const char* name;
  int mask;
  Binding binding;
  const char* description;
  std::vector<Param> params;
  bool hasReturn;
  const char* returnName;
  const char* returnDescription;
  ParamType returnKind;
};

// The catalogue as it must be published, texts character for character (the
// odd ones too: "callbacMethod", "theircallback", "exiting subscribers", the
// description cut after "This is slower than", the return described for
// _insertObject, getTimestamp's and getEventHistory's keyList texts).
const std::vector<Entry>& expectedCatalogue() {
  static const std::vector<Entry> table = {
      {"declareEvent",
       0,
       kFunctor,
       "Declares an event to allow future subscriptions to the event",
       {{"eventName", "The name of the event", S}},
       false,
       "",
       "",
       N},
      {"declareEvent",
       0,
       kFunctor,
       "Declares an event to allow future subscriptions to the event",
       {{"eventName", "The name of the event", S},
        {"extractorName", "The name of the extractor capable of creating the event", S}},
       false,
       "",
       "",
       N},
      {"getData",
       0,
       kFunctor,
       "Gets the value of a key-value pair stored in memory",
       {{"key", "Name of the value.", S}},
       true,
       "data",
       "The data as an RXValue. This can often be cast transparently into the original type.",
       V},
      {"getData",
       0,
       kFunctor,
       "DEPRECATED - Gets the value of a key-value pair stored in memory. Please use the version of this "
       "method with no second parameter.",
       {{"key", "Name of the value.", S},
        {"deprecatedParameter",
         "DEPRECATED - This parameter has no effect, but is left for compatibility reason.", I}},
       true,
       "data",
       "The data as an RXValue",
       V},
      {"subscriber",
       0,
       kAdvertised,
       "Get an object wrapping a signal bound to the given RXMemory event. Throw if the event does not exist "
       "or if it is invalid.",
       {{"eventName", "Name of the RXMemory event", S}},
       true,
       "signalWrapper",
       "An AnyObject with a signal named \"signal\"",
       O},
      {"getTimestamp",
       0,
       kAdvertised,
       "Get data value and timestamp",
       {{"key", "Name of the variable", S}},
       true,
       "keyList",
       "A list of all the data key names that contain the given string.",
       V},
      {"getEventHistory",
       0,
       kAdvertised,
       "Get data value and timestamp",
       {{"key", "Name of the variable", S}},
       true,
       "keyList",
       "A list of all the data key names that contain the given string.",
       V},
      {"getDataList",
       0,
       kAdvertised,
       "Gets a list of all key names that contain a given string",
       {{"filter", "A string used as the search term", S}},
       true,
       "keyList",
       "A list of all the data key names that contain the given string.",
       L},
      {"getDataListName",
       0,
       kAdvertised,
       "Gets the key names for all the key-value pairs in memory",
       {},
       true,
       "list",
       "A list containing the keys in memory",
       L},
      {"getDataOnChange",
       0,
       kAdvertised,
       "DEPRECATED - Blocks the caller until the value of a key changes",
       {{"key", "Name of the data.", S},
        {"deprecatedParameter", "DEPRECATED - this parameter has no effect", I}},
       true,
       "data",
       "an array containing all the retrieved data",
       V},
      {"getDataPtr",
       4,
       kAdvertised,
       "Gets a pointer to 32 a bit data item. Beware, the pointer will only be valid during the lifetime of "
       "the RXMemory object. Use with care, at initialization, not every loop.",
       {{"key", "Name of the data.", S}},
       true,
       "ptr",
       "A pointer converted to int",
       P},
      {"getEventList",
       0,
       kAdvertised,
       "Gets a list containing the names of all the declared events",
       {},
       true,
       "eventNameList",
       "A list containing the names of all events",
       L},
      {"getExtractorEvent",
       0,
       kAdvertised,
       "Gets the list of all events generated by a given extractor",
       {{"extractorName", "The name of the extractor", S}},
       true,
       "eventNameList",
       "A list containing the names of the events associated with the given extractor",
       L},
      {"getListData",
       0,
       kAdvertised,
       "Gets the values associated with the given list of keys. This is more efficient than calling getData "
       "many times, especially over the network.",
       {{"keyList", "An array containing the key names.", V}},
       true,
       "dataList",
       "An array containing all the values corresponding to the given keys.",
       V},
      {"getMicroEventList",
       0,
       kAdvertised,
       "Gets a list containing the names of all the declared micro events",
       {},
       true,
       "microEventNameList",
       "A list containing the names of all the microEvents",
       L},
      {"getSubscribers",
       0,
       kAdvertised,
       "Gets a list containing the names of subscribers to an event.",
       {{"name", "Name of the event or micro-event", S}},
       true,
       "subscriberNames",
       "List of subscriber names",
       L},
      {"getType",
       0,
       kAdvertised,
       "Gets the storage class of the stored data. This is not the underlying POD type.",
       {{"key", "Name of the variable", S}},
       true,
       "type",
       "String type: Data, Event, MicroEvent",
       S},
      {"insertData",
       0,
       kFunctor,
       "Inserts a key-value pair into memory, where value is an int",
       {{"key", "Name of the value to be inserted.", S}, {"value", "The int to be inserted", I}},
       false,
       "",
       "",
       N},
      {"insertData",
       0,
       kFunctor,
       "Inserts a key-value pair into memory, where value is a float",
       {{"key", "Name of the value to be inserted.", S}, {"value", "The float to be inserted", F}},
       false,
       "",
       "",
       N},
      {"insertData",
       0,
       kFunctor,
       "Inserts a key-value pair into memory, where value is a string",
       {{"key", "Name of the value to be inserted.", S}, {"value", "The string to be inserted", S}},
       false,
       "",
       "",
       N},
      {"insertData",
       0,
       kFunctor,
       "Inserts a key-value pair into memory, where value is an RXValue",
       {{"key", "Name of the value to be inserted.", S},
        {"data",
         "The RXValue to be inserted. This could contain a basic type, or a more complex array. See the "
         "RXValue documentation for more information.",
         V}},
       false,
       "",
       "",
       N},
      {"insertListData",
       0,
       kAdvertised,
       "Inserts a list of key-value pairs into memory.",
       {{"list", "An RXValue list of the form [[Key, Value],...]. Each item will be inserted.", V}},
       false,
       "",
       "",
       N},
      {"raiseEvent",
       0,
       kAdvertised,
       "Publishes the given data to all subscribers.",
       {{"name", "Name of the event to raise.", S},
        {"value",
         "The data associated with the event. This could contain a basic type, or a more complex array. See "
         "the RXValue documentation for more information.",
         V}},
       false,
       "",
       "",
       N},
      {"raiseMicroEvent",
       0,
       kAdvertised,
       "Publishes the given data to all subscribers.",
       {{"name", "Name of the event to raise.", S},
        {"value",
         "The data associated with the event. This could contain a basic type, or a more complex array. See "
         "the RXValue documentation for more information.",
         V}},
       false,
       "",
       "",
       N},
      {"removeData",
       0,
       kAdvertised,
       "Removes a key-value pair from memory",
       {{"key", "Name of the data to be removed.", S}},
       false,
       "",
       "",
       N},
      {"removeEvent",
       0,
       kAdvertised,
       "Removes a event from memory and unsubscribes any exiting subscribers.",
       {{"name", "Name of the event to remove.", S}},
       false,
       "",
       "",
       N},
      {"removeMicroEvent",
       0,
       kAdvertised,
       "Removes a micro event from memory and unsubscribes any exiting subscribers.",
       {{"name", "Name of the event to remove.", S}},
       false,
       "",
       "",
       N},
      {"subscribeToEvent",
       0,
       kFunctor,
       "Subscribes to an event and automaticaly launches the module that declared itself as the generator of "
       "the event if required.",
       {{"name", "The name of the event to subscribe to", S},
        {"callbackModule", "Name of the module to call with notifications", S},
        {"callbackMethod", "Name of the module's method to call when a data is changed", S}},
       false,
       "",
       "",
       N},
      {"subscribeToEvent",
       0,
       kFunctor,
       "DEPRECATED Subscribes to event and automaticaly launches the module capable of generating the event "
       "if it is not already running. Please use the version without the callbackMessage parameter.",
       {{"name", "The name of the event to subscribe to", S},
        {"callbackModule", "Name of the module to call with notifications", S},
        {"callbackMessage", "DEPRECATED Message included in the notification.", S},
        {"callbacMethod", "Name of the module's method to call when a data is changed", S}},
       false,
       "",
       "",
       N},
      {"subscribeToMicroEvent",
       0,
       kAdvertised,
       "Subscribes to a microEvent. Subscribed modules are notified on theircallback method whenever the "
       "data is updated, even if the new value is the same as the old value.",
       {{"name", "Name of the data.", S},
        {"callbackModule", "Name of the module to call with notifications", S},
        {"callbackMessage",
         "Message included in the notification. This can be used to disambiguate multiple subscriptions.", S},
        {"callbackMethod", "Name of the module's method to call when a data is changed", S}},
       false,
       "",
       "",
       N},
      {"unregisterModuleReference",
       0,
       kAdvertised,
       "Informs RXMemory that a module doesn't exist anymore.",
       {{"moduleName", "Name of the departing module.", S}},
       false,
       "",
       "",
       N},
      {"_perf", 0, kAdvertised, "RXMemory performance", {}, false, "", "", N},
      {"unsubscribeToEvent",
       0,
       kAdvertised,
       "Unsubscribes a module from the given event. No further notifications will be received.",
       {{"name", "The name of the event", S},
        {"callbackModule", "The name of the module that was given when subscribing.", S}},
       false,
       "",
       "",
       N},
      {"unsubscribeToMicroEvent",
       0,
       kAdvertised,
       "Unsubscribes from the given event. No further notifications will be received.",
       {{"name", "Name of the event.", S},
        {"callbackModule", "The name of the module that was given when subscribing.", S}},
       false,
       "",
       "",
       N},
      {"_insertObject",
       0,
       kAdvertised,
       "Insert object in RXMemory. Please use RXMemoryFastAccess",
       {{"name", "RXMemory data name", S},
        {"buffer", "buffer in RXValue", V},
        {"bufferSize", "buffer size", I}},
       true,
       "data",
       "return an array of data's string name.",
       N},
      {"_subscribeOnDataSetTimePolicy",
       0,
       kAdvertised,
       "Allows modules to change time policy of already subscribed data.",
       {{"name", "Name of the data.", S},
        {"callbackModule", "Name of the module.", S},
        {"nTimePolicy",
         "time of new policy in ms. Default is 0: no time policy: called at every change/insert. If "
         "timepolicy > 0, we will not notifiy under timepolicy even if data change under timepolicy "
         "frequency",
         I}},
       false,
       "",
       "",
       N},
      {"_subscribeOnDataSetSynchronizeResponse",
       0,
       kAdvertised,
       "Receives notifications in the same order that the event were sent. This is slower than",
       {{"name", "Name of the data.", S},
        {"callbackModule", "Name of the module.", S},
        {"synchronizedResponse", "True to receive notifications in the same order as events are sent", B}},
       false,
       "",
       "",
       N},
      {"setDescription",
       0,
       kAdvertised,
       "Describe a key",
       {{"name", "Name of the key.", S}, {"description", "The description of the event (text format).", S}},
       false,
       "",
       "",
       N},
      {"getDescriptionList",
       0,
       kAdvertised,
       "Descriptions of all given keys",
       {{"keylist", "List of keys. (empty to get all descriptions)", L}},
       true,
       "descriptions",
       "an array of tuple (name, type, description) describing all keys.",
       V},
      {"addMapping",
       0,
       kFunctor,
       "Add a mapping between signal and event",
       {{"service", "Name of the service", S},
        {"signal", "Name of the signal", S},
        {"event", "Name of the event", S}},
       false,
       "",
       "",
       N},
      {"addMapping",
       0,
       kFunctor,
       "Add a mapping between signal and event",
       {{"service", "Name of the service", S}, {"signalEvent", "A map of signal corresponding to event", M}},
       false,
       "",
       "",
       N},
  };
  return table;
}

class CatalogueTest : public rxtest::MemoryTest {};

void expectEntry(const Entry& want, const mz::MetaMethod& got) {
  EXPECT_EQ(want.name, got.name);
  EXPECT_EQ("RXMemory", got.className);
  EXPECT_EQ(want.description, got.description);
  EXPECT_EQ(want.mask, got.mask);
  ASSERT_EQ(want.params.size(), got.parameters.size());
  for (std::size_t p = 0; p < want.params.size(); ++p) {
    SCOPED_TRACE("parameter " + std::to_string(p));
    EXPECT_EQ(want.params[p].name, got.parameters[p].name);
    EXPECT_EQ(want.params[p].description, got.parameters[p].description);
    EXPECT_EQ(mz::paramTypeName(want.params[p].kind), mz::paramTypeName(got.parameters[p].type));
  }
  EXPECT_EQ(want.hasReturn, got.hasReturn);
  EXPECT_EQ(want.returnName, got.returnName);
  EXPECT_EQ(want.returnDescription, got.returnDescription);
  EXPECT_EQ(mz::paramTypeName(want.returnKind), mz::paramTypeName(got.returnType));
}

TEST_F(CatalogueTest, EveryEntryIsPublishedInOrderWithItsTexts) {
  const std::vector<Entry>& want = expectedCatalogue();
  ASSERT_EQ(41u, want.size());
  EXPECT_EQ(
      "RXMemory provides a centralized memory that can be used to store and retrieve named values. It also "
      "acts "
      "as a hub for the distribution of event notifications.",
      memory->getModuleDescription());

  // As the module holds it, and as other modules see it through the session.
  const mz::AnyObject service = broker->session()->service("RXMemory").value();
  for (const std::vector<mz::MetaMethod>* catalogue : {&memory->methods(), &service.metaObject().methods}) {
    ASSERT_EQ(want.size(), catalogue->size());
    for (std::size_t i = 0; i < want.size(); ++i) {
      SCOPED_TRACE("entry " + std::to_string(i + 1) + " " + want[i].name);
      EXPECT_EQ(i, (*catalogue)[i].uid);
      expectEntry(want[i], (*catalogue)[i]);
    }
  }

  // The overloaded names are exactly those published more than once, and
  // only getDataPtr keeps itself from other processes.
  std::map<std::string, int> counts;
  std::vector<std::string> masked;
  for (const mz::MetaMethod& m : memory->methods()) {
    ++counts[m.name];
    if (m.mask != 0) masked.push_back(m.name + "=" + std::to_string(m.mask));
  }
  std::set<std::string> repeated;
  for (const auto& entry : counts)
    if (entry.second > 1) repeated.insert(entry.first);
  EXPECT_EQ(
      (std::set<std::string>{"addMapping", "declareEvent", "getData", "insertData", "subscribeToEvent"}),
      repeated);
  EXPECT_EQ(4, counts["insertData"]);
  EXPECT_EQ(std::vector<std::string>{"getDataPtr=4"}, masked);
}

// Overload functors and advertised members tell themselves apart when a call
// by uid skips resolution and hands over an argument of the wrong kind: a
// functor reports an RXError of the functor, an advertised member the
// framework's conversion error.
TEST_F(CatalogueTest, RepeatedNamesAreBoundThroughFunctorsOthersAdvertised) {
  const std::vector<Entry>& want = expectedCatalogue();
  const mz::AnyObject service = broker->session()->service("RXMemory").value();
  const mz::AnyValue wrong(RX::RXValue(RX::RXValue::Binary{1, 2, 3}));
  const std::size_t keysBefore = memory->getDataListName().size();
  std::size_t checked = 0;
  for (std::size_t i = 0; i < want.size(); ++i) {
    // A binary fits any RXValue parameter: only entries with a typed
    // parameter can be made to fail.
    bool typed = false;
    for (const Param& p : want[i].params) typed = typed || p.kind != V;
    if (!typed) continue;
    SCOPED_TRACE("entry " + std::to_string(i + 1) + " " + want[i].name);
    ++checked;
    const mz::GenericFunctionParameters args(want[i].params.size(), wrong);
    try {
      service.impl()->metaCallById(static_cast<unsigned int>(i), args);
      ADD_FAILURE() << "a binary was accepted for every parameter";
    } catch (const RX::RXError& e) {
      EXPECT_EQ(kFunctor, want[i].binding) << e.what();
      EXPECT_EQ("RXFunctor", e.module());
    } catch (const mz::ConversionError& e) {
      EXPECT_EQ(kAdvertised, want[i].binding) << e.what();
    }
  }
  EXPECT_EQ(35u, checked);
  EXPECT_EQ(keysBefore, memory->getDataListName().size()) << "a refused call reached the store";
}

}  // namespace
