// The key store: start-up, reads, writes, pointers, errors, history, the extractor table and protocol.
#include "memory_test_util.h"
#include "rx/rxbrokermanager.h"
#include "rx/rxcallcontext.h"
#include "rx/rxmemorybudget.h"

namespace {

std::string historyValues(const RXValue& history) {
  std::string out = history.isValid() ? "" : "invalid";
  for (std::size_t i = 0; i < history.getSize(); ++i) out += (i ? " " : "") + history[i][0].toString(0);
  return out;
}

using KeyStoreTest = MemoryTest;

// Every refusal names its method and key (the CLI tests print getData's, removeData's, setDescription's).
TEST_F(KeyStoreTest, ErrorsNameTheMethodAndTheKey) {
  memory->insertData("d", 1);
  memory->subscribeToMicroEvent("E", "Foo", "", "onEvent");
  const Names oneMissing = {"d", "zz"};
  const std::pair<std::function<void()>, const char*> cases[] = {
      {[&] { (void)memory->getStrDataType("q"); }, "getData|Data not found q"},
      {[&] { (void)memory->getDataType("q"); }, "getData|Data not found q"},
      {[&] { (void)memory->getDataTimestamp("q"); }, "getData|Data not found q"},
      {[&] { (void)memory->getEventHistory("q"); }, "getData|Data not found q"},
      {[&] { (void)memory->getDataSubscriber("q"); }, "getData|Data not found q"},
      {[&] { (void)memory->getDataOnChange("q", 0); }, "getData|Data not found q"},
      {[&] { memory->unsubscribeToMicroEvent("q", "Foo"); }, "getData|Data not found q"},
      {[&] { memory->unsubscribeToEvent("q", "Foo"); }, "getData|Data not found q"},
      {[&] { memory->removeEvent("q"); }, "removeData|Data not found q"},
      {[&] { (void)memory->getDataOnChange("", 0); }, "getDataOnChange|Empty data name cannot be found."},
      {[&] { memory->unsubscribeToMicroEvent("E", "B"); },
       "UnsubscribeToMicroEvent|B is not subscribed to E"},
      {[&] { memory->unsubscribeToEvent("d", "B"); }, "UnsubscribeToMicroEvent|B is not subscribed to d"},
      {[&] { (void)memory->getDescriptionList(oneMissing); }, "getDescriptionList|zz not found"},
  };
  for (const auto& [call, error] : cases) EXPECT_EQ(error, errorOf(call));
}

// Start-up reports its events via KeyAdded, then raises TavroReady; behavior keys and subscribing don't.
TEST_F(KeyStoreTest, BookkeepingEventsReportKeysFromStartUpOn) {
  EXPECT_EQ((Names{"RXMemory/KeyAdded", "RXMemory/KeyRemoved", "RXMemory/KeyTypeChanged"}),
            memory->getExtractorEvent("Unknown"));
  EXPECT_EQ("RXMemory/KeyAdded RXMemory/KeyRemoved RXMemory/KeyTypeChanged TavroReady",
            historyValues(memory->getEventHistory(RX::Memory::keyAddedKey)));
  EXPECT_EQ(0, _closeModule());
  EXPECT_EQ(memory, broker->getModule("RXMemory")) << "_closeModule does not stop the module";

  auto watcher = startModule<Recorder>(broker, "Watcher");
  for (const char* e : {"RXMemory/KeyAdded", "RXMemory/KeyTypeChanged", "RXMemory/KeyRemoved"})
    memory->subscribeToEvent(e, "Watcher", "onEvent");
  memory->insertData("k", 1);
  memory->insertData("k", 2);           // same type: nothing
  memory->raiseEvent("k", RXValue(3));  // Data -> Event
  memory->removeData("k");
  memory->insertData("_BehaviorX", 1);
  memory->raiseEvent("_BehaviorX", RXValue(2));
  memory->removeData("_BehaviorX");
  memory->subscribeToEvent("bySubscribing", "Foo", "onEvent");
  drain(watcher);
  EXPECT_EQ((Names{"RXMemory/KeyAdded=k", "RXMemory/KeyTypeChanged=k", "RXMemory/KeyRemoved=k"}),
            watcher->keyValues());
  EXPECT_TRUE(contains(memory->getExtractorEvent("Unknown"), "k")) << "retyped, then removed: entry kept";

  // Without KeyAdded, the next insertion makes it by a raise that ends before the outer one appends.
  memory->removeData(RX::Memory::keyAddedKey);
  memory->insertData("fresh", 1);
  EXPECT_EQ("\"RXMemory/KeyAdded\"", values({RX::Memory::keyAddedKey}));
  EXPECT_EQ("RXMemory/KeyAdded fresh", historyValues(memory->getEventHistory(RX::Memory::keyAddedKey)));
}

TEST(MemoryLifecycleTest, TavroReadyReachesAnEarlySubscriberOnce) {
  auto broker = RX::RXBroker::create("early-broker");
  // _createModule's steps, with a subscription made before init().
  RX::RXBrokerManager::setInstance(broker->getBrokerManager().lock());
  RX::RXBrokerManager::getInstance()->addBroker(broker);
  auto early = startModule<Recorder>(broker, "Early");
  auto memory = boost::make_shared<RX::RXMemory>(broker, "RXMemory");
  memory->subscribeToMicroEvent("TavroReady", "Early", "up", "onEvent");
  memory->subscribeToMicroEvent("Sentinel", "Early", "", "onEvent");
  memory->initModule();
  memory->init();
  memory->raiseMicroEvent("Sentinel", RXValue(1));
  ASSERT_TRUE(early->waitFor(2));
  auto got = early->items();
  EXPECT_EQ("onEvent TavroReady 0 \"up\"|Sentinel", got[0].str() + "|" + got[1].key);
  // The broker's manager was never set (expired): an empty one is installed.
  auto brokers = RX::RXBrokerManager::getInstance()->getBrokers();
  EXPECT_NE(brokers.end(), std::find(brokers.begin(), brokers.end(), broker));
  memory.reset();
  broker->shutdown();
}

TEST_F(KeyStoreTest, ReadsListsDescriptionsAndTypes) {
  memory->insertData("i", 5);
  memory->insertData("s", std::string("text"));
  memory->insertData("xabcx", 1);
  memory->insertData("ABC", 0);
  memory->declareEvent("e");
  memory->raiseMicroEvent("m", RXValue(1));
  (void)memory->getPtrData("ptr");
  EXPECT_EQ((Names{"xabcx"}), memory->getDataList("abc"));
  const Names all = memory->getDataListName();
  EXPECT_EQ(all, memory->getDataList(""));
  // One slot per element; a name may come inside an array; unknown -> invalid.
  const RXValue wanted = list({RXValue("i"), list({RXValue("s"), RXValue(1)}), RXValue("nope"), RXValue(3)});
  EXPECT_EQ("[5, \"text\", invalid, invalid]", memory->getListData(wanted).toString());
  EXPECT_EQ("[]", memory->getListData(RXValue::array()).toString());
  EXPECT_EQ("Data Event MicroEvent Data", types({"i", "e", "m", "ptr"}));
  EXPECT_EQ(RX::MicroEvent, memory->getDataType("m"));

  // A non-empty request gives filler slots first, then the entries.
  memory->setDescription("i", "a plain key");
  EXPECT_EQ(R"([invalid, invalid, invalid, ["e", "event", ""], ["m", "event", ""], ["ptr", "data", ""]])",
            memory->getDescriptionList({"e", "m", "ptr"}).toString());
  EXPECT_EQ(all.size(), memory->getDescriptionList({}).getSize());
  memory->removeData("i");
  memory->insertData("i", 1);
  EXPECT_EQ("[invalid, [\"i\", \"data\", \"\"]]", memory->getDescriptionList({"i"}).toString())
      << "a key made again has no description";
}

TEST_F(KeyStoreTest, WritesStopAtAMalformedPairOrOverTheMemoryCeiling) {
  const struct {
    RXValue pairs;
    const char* printed;
    const char* error;
  } cases[] = {
      {list({list({RXValue("a"), RXValue(1)}), list({RXValue("f"), RXValue(2.5f)}), list({RXValue("b")}),
             list({RXValue("c"), RXValue(3)})}),
       "malformed data : [\"b\"]\n",
       "InsertListData|unable to insert to Memory data with a size < 2. Must be : ['name', value]"},
      {list({list({RXValue(1), RXValue(2)})}), "malformed data : [1, 2]\n",
       "InsertListData|malformed preferences. No RXMemory data name."},
  };
  for (const auto& c : cases) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(c.error, errorOf([&] { memory->insertListData(c.pairs); }));
    EXPECT_EQ(c.printed, testing::internal::GetCapturedStdout());
  }
  EXPECT_EQ("1 2.5", values({"a", "f"}));
  EXPECT_FALSE(contains(memory->getDataListName(), "c"));

  {
    RX::MemoryBudget tight(1);
    const std::pair<const char*, std::function<void()>> writes[] = {
        {"insertData", [&] { memory->insertData("new", 2); }},
        {"insertListData", [&] { memory->insertListData(RXValue::array(0)); }},
        {"raiseEvent", [&] { memory->raiseEvent("E", RXValue(1)); }},
        {"raiseMicroEvent", [&] { memory->raiseMicroEvent("M", RXValue(1)); }},
    };
    for (const auto& [method, write] : writes) {
      const std::string error = errorOf(write);
      EXPECT_EQ(0u, error.find(std::string(method) + "|memory limit reached: resident ")) << error;
    }
    EXPECT_EQ(1, memory->getData("a").toInt()) << "reads go on";
    memory->removeData("a");  // and so does freeing memory
  }
  memory->insertData("new", 2);
  EXPECT_EQ(2, memory->getData("new").toInt());
}

TEST_F(KeyStoreTest, PointerAccessPinsTheKeyAndFreezesItsKind) {
  LogLines log("rxmemory");
  const std::size_t added = memory->getEventHistory(RX::Memory::keyAddedKey).getSize();
  int* address = static_cast<int*>(memory->getPtrData("p"));  // made silently (no KeyAdded), with a warning
  ASSERT_NE(nullptr, address);
  EXPECT_TRUE(contains(log.items(), "warning: getPtrValue on stmvalue with no type: p"));
  memory->insertData("p", 5);  // the first number into an empty pinned key is allowed
  EXPECT_EQ(address, memory->getPtrData("p"));
  memory->insertData("p", 6);
  EXPECT_EQ(6, *address) << "same-kind writes keep the address";
  const std::string why = " because getDataPtr has been called on it.";
  EXPECT_EQ("setValue|Can't change the type of the value from int to string" + why,
            errorOf([&] { memory->insertData("p", std::string("s")); }));
  EXPECT_EQ("setValue|Can't change the type of the value from int to float" + why,
            errorOf([&] { memory->raiseEvent("p", RXValue(1.0f)); }));
  EXPECT_EQ("removeData|Data p can't be erased because it has been accessed using getDataPtr",
            errorOf([&] { memory->removeData("p"); }));
  EXPECT_EQ("6 Data", values({"p"}) + " " + types({"p"})) << "a refused write changes no value nor type";
  EXPECT_EQ("invalid", memory->getEventHistory("p").toString()) << "nor appends history";
  EXPECT_EQ(added, memory->getEventHistory(RX::Memory::keyAddedKey).getSize());

  float* f = static_cast<float*>(memory->getPtrData("f"));  // a float's first number lands here too
  memory->insertData("f", 1.5f);
  EXPECT_EQ(1.5f, *f);
  memory->insertData("f", -2.25f);
  EXPECT_EQ(-2.25f, *f);
}

TEST_F(KeyStoreTest, GetDataOnChangeStopsPollingWhenItsCallerHasGone) {
  memory->insertData("w", 1);
  auto gone = std::make_shared<std::atomic<bool>>(false);
  auto call = std::async(std::launch::async, [&] {
    RX::CallContext scope(gone);  // as the transport marks a remote client's request
    return memory->getDataOnChange("w", 0);
  });
  gone->store(true);
  const bool returned = call.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
  if (!returned) memory->insertData("w", 2);  // release the poller so that the test can end
  ASSERT_TRUE(returned) << "getDataOnChange still polled 5 s after its caller had gone";
  EXPECT_EQ(1, call.get().toInt()) << "the unchanged current value";
}

TEST_F(KeyStoreTest, HistoryKeepsTheLast50RaisesAndEveryWriteRenewsTheTimestamp) {
  memory->insertData("plain", 1);
  memory->raiseEvent("e", RXValue());
  EXPECT_EQ("[]", memory->getEventHistory("e").toString()) << "the ring exists but stores no invalid value";
  std::string expected = "1";
  for (int i = 0; i <= 50; ++i) memory->raiseEvent("e", RXValue(i));
  for (int i = 2; i <= 50; ++i) expected += " " + std::to_string(i);
  EXPECT_EQ(expected, historyValues(memory->getEventHistory("e")));
  memory->raiseMicroEvent("m", RXValue(1));
  memory->raiseMicroEvent("plain", RXValue(1));
  EXPECT_EQ("invalid invalid", historyValues(memory->getEventHistory("m")) + " " +
                                   historyValues(memory->getEventHistory("plain")));
  memory->insertData("e", 99);
  EXPECT_EQ(50u, memory->getEventHistory("e").getSize()) << "insertion appends no history";

  using std::chrono::system_clock;  // the clock the store stamps with
  auto now = [] { return int64_t(system_clock::now().time_since_epoch() / std::chrono::microseconds(1)); };
  auto stamp = [&] {
    const RXValue s = memory->getDataTimestamp("t");
    return int64_t(s[1].toInt()) * 1000000 + s[2].toInt();
  };
  const int64_t before = now();
  memory->insertData("t", 7);
  const int64_t first = stamp();
  EXPECT_TRUE(before <= first && first <= now()) << before << " " << first;
  while (now() <= first) continue;  // spin on the clock until it moves on: no sleep
  memory->insertData("t", 7);
  EXPECT_LT(first, stamp()) << "an equal value is a full write";
}

// The extractor is told of each event subscription; a failing or missing one only logs.
TEST_F(KeyStoreTest, ExtractorsAreRecordedAndToldOfEachEventSubscription) {
  memory->insertData("d", 5);
  memory->declareEvent("d");
  EXPECT_EQ("invalid Event", values({"d"}) + " " + types({"d"}));
  memory->declareEvent("P", "Q");
  (void)memory->getPtrData("P");
  EXPECT_NE("no error", errorOf([&] { memory->removeEvent("P"); }));
  EXPECT_EQ((Names{"P"}), memory->getExtractorEvent("Q")) << "a failed removal keeps the entry";

  LogLines log("rxmemory");
  auto x = startModule<Extractor>(broker, "X", false);
  auto y = startModule<Recorder>(broker, "Y");  // no getCurrentPrecision: no extractor, never called
  auto z = startModule<Extractor>(broker, "Z", true);
  memory->declareEvent("E", "X");
  memory->declareEvent("F", "Y");
  memory->declareEvent("G", "Gone");
  memory->declareEvent("H", "Z");

  memory->subscribeToEvent("E", "M", "onEvent");
  EXPECT_EQ((Names{"subscribe:ME"}), x->items()) << "the call blocks until the extractor answered";
  memory->subscribeToEvent("E", "M", "msg", "onEvent");    // no counting: told again
  memory->subscribeToMicroEvent("E", "N", "", "onEvent");  // micro-event subscriptions tell nobody
  memory->unsubscribeToEvent("E", "M");
  EXPECT_NE("no error", errorOf([&] { memory->unsubscribeToEvent("E", "M"); }));
  EXPECT_EQ((Names{"subscribe:ME", "subscribe:ME", "unsubscribe:ME"}), x->items())
      << "failed unsubscriptions do not reach the extractor";

  for (const char* event : {"F", "G", "H"}) {
    memory->subscribeToEvent(event, "M", "onEvent");
    EXPECT_EQ((Names{"M"}), memory->getDataSubscriber(event));
    memory->unsubscribeToEvent(event, "M");
  }
  memory->subscribeToMicroEvent("V", "M", "", "onEvent");
  memory->unsubscribeToEvent("V", "M");
  const std::string gone = "warning: Extractor Gone of event G failed on ";
  const std::string failed = "warning: Extractor Z of event H failed on ";
  EXPECT_EQ(
      (Names{gone + "subscribe: Module not found: Gone", gone + "unsubscribe: Module not found: Gone",
             failed + "subscribe: generator offline for MH", failed + "unsubscribe: generator offline for MH",
             "info: stopExtractor no extractor for V\n"}),
      log.items());
}

}  // namespace
