// Module start-up, events and micro-events, history, the extractor table and
// the extractor protocol, the deprecated no-op methods.
#include <algorithm>
#include <stdexcept>

#include "memory_test_util.h"
#include "rx/rxbrokermanager.h"

using RX::RXValue;
using rxtest::errorOf;
using Names = std::vector<std::string>;

namespace {

class EventsTest : public rxtest::MemoryTest {};

// An extractor whose "subscribe" and "unsubscribe" always fail.
class FailingExtractor : public RX::RXModule {
 public:
  FailingExtractor(boost::shared_ptr<RX::RXBroker> broker, const std::string& name) : RXModule(broker, name) {
    for (const char* method : {"subscribe", "unsubscribe"}) {
      functionName(method, name, "Fails");
      addParam("subscriberId", "id");
      advertiseMethod(getCurrentMethodDescription(), this, &FailingExtractor::fail);
    }
    functionName("getCurrentPrecision", name, "Precision");
    advertiseMethod(getCurrentMethodDescription(), this, &FailingExtractor::getCurrentPrecision);
  }
  void fail(const std::string& id) { throw std::runtime_error("generator offline for " + id); }
  float getCurrentPrecision() { return 1.0f; }
};

std::string historyValues(const RXValue& history) {
  if (!history.isValid()) return "invalid";
  std::string out;
  for (std::size_t i = 0; i < history.getSize(); ++i) {
    EXPECT_EQ(3u, history[i].getSize());
    EXPECT_TRUE(history[i][1].isInt() && history[i][2].isInt());
    out += (i ? " " : "") + history[i][0].toString(0);
  }
  return out;
}

TEST_F(EventsTest, StartUpDeclaresBookkeepingEventsThenRaisesTavroReady) {
  EXPECT_EQ((Names{"RXMemory/KeyAdded", "RXMemory/KeyRemoved", "RXMemory/KeyTypeChanged"}),
            memory->getExtractorEvent("Unknown"));
  // Each declaration was reported through KeyAdded, in declaration order.
  EXPECT_EQ("RXMemory/KeyAdded RXMemory/KeyRemoved RXMemory/KeyTypeChanged TavroReady",
            historyValues(memory->getEventHistory(RX::Memory::keyAddedKey)));
  EXPECT_EQ("0", memory->getData("TavroReady").toString());
  EXPECT_EQ("MicroEvent", memory->getStrDataType("TavroReady"));
  EXPECT_EQ(memory, broker->getModule("RXMemory"));
  EXPECT_EQ(0, _closeModule());
  EXPECT_TRUE(broker->getModule("RXMemory")) << "_closeModule does not stop the module";
}

TEST(MemoryLifecycleTest, TavroReadyReachesAnEarlySubscriberOnce) {
  auto broker = RX::RXBroker::create("early-broker");
  // _createModule's steps, with a subscription made before init().
  RX::RXBrokerManager::setInstance(broker->getBrokerManager().lock());
  RX::RXBrokerManager::getInstance()->addBroker(broker);
  auto early = rxtest::startModule<rxtest::Recorder>(broker, "Early");
  auto memory = boost::make_shared<RX::RXMemory>(broker, "RXMemory");
  memory->subscribeToMicroEvent("TavroReady", "Early", "up", "onEvent");
  memory->subscribeToMicroEvent("Sentinel", "Early", "", "onEvent");
  memory->initModule();
  memory->init();
  memory->raiseMicroEvent("Sentinel", RXValue(1));
  ASSERT_TRUE(early->waitFor(2));
  auto got = early->received();
  ASSERT_EQ(2u, got.size());
  EXPECT_EQ("TavroReady", got[0].key);
  EXPECT_EQ("0", got[0].value.toString());
  EXPECT_EQ("\"up\"", got[0].message.toString());
  EXPECT_EQ("Sentinel", got[1].key);

  // The broker's manager was never set (expired): an empty one is installed.
  auto brokers = RX::RXBrokerManager::getInstance()->getBrokers();
  EXPECT_NE(brokers.end(), std::find(brokers.begin(), brokers.end(), broker));
  memory.reset();
  broker->shutdown();
}

TEST_F(EventsTest, HistoryKeepsTheLast50RaisedValuesOldestFirst) {
  memory->insertData("plain", 1);
  EXPECT_EQ("invalid", historyValues(memory->getEventHistory("plain")));
  EXPECT_EQ("getData|Data not found none", errorOf([&] { (void)memory->getEventHistory("none"); }));

  memory->raiseEvent("e", RXValue());
  EXPECT_EQ("[]", memory->getEventHistory("e").toString()) << "the ring exists but stores no invalid value";
  std::string expected;
  for (int i = 0; i <= 50; ++i) {
    memory->raiseEvent("e", RXValue(i));
    if (i > 0) expected += (i > 1 ? " " : "") + std::to_string(i);
  }
  EXPECT_EQ(expected, historyValues(memory->getEventHistory("e")));

  memory->raiseMicroEvent("m", RXValue(1));
  memory->raiseMicroEvent("m", RXValue(1));
  EXPECT_EQ("invalid", historyValues(memory->getEventHistory("m")));
  memory->insertData("e", 99);
  EXPECT_EQ(50u, memory->getEventHistory("e").getSize()) << "insertion appends no history";
}

TEST_F(EventsTest, ExtractorTable) {
  memory->declareEvent("E", "X");
  EXPECT_EQ((Names{"E"}), memory->getExtractorEvent("X"));
  memory->declareEvent("E2");
  memory->insertData("d", 5);
  memory->declareEvent("d");  // retypes and resets the value
  EXPECT_EQ("invalid", memory->getData("d").toString());
  EXPECT_EQ("Event", memory->getStrDataType("d"));
  Names unknown = memory->getExtractorEvent("Unknown");
  EXPECT_NE(unknown.end(), std::find(unknown.begin(), unknown.end(), "E2"));
  EXPECT_NE(unknown.end(), std::find(unknown.begin(), unknown.end(), "d"));

  // Subscribing to a never-declared event leaves an empty extractor name.
  memory->subscribeToEvent("U", "M", "onEvent");
  EXPECT_EQ((Names{"U"}), memory->getExtractorEvent(""));
  EXPECT_EQ("Event", memory->getStrDataType("U"));

  memory->raiseMicroEvent("mic", RXValue(1));
  Names events = memory->getEventList();
  EXPECT_TRUE(std::is_sorted(events.begin(), events.end()));
  EXPECT_EQ(events.end(), std::find(events.begin(), events.end(), "mic"));
  Names micro = memory->getMicroEventList();
  std::sort(micro.begin(), micro.end());
  EXPECT_EQ((Names{"TavroReady", "mic"}), micro);

  memory->removeEvent("E");
  EXPECT_EQ(Names{}, memory->getExtractorEvent("X"));
  EXPECT_EQ("removeData|Data not found E", errorOf([&] { memory->removeEvent("E"); }));
  memory->declareEvent("P", "X");
  (void)memory->getPtrData("P");
  EXPECT_NE("no error", errorOf([&] { memory->removeEvent("P"); }));
  EXPECT_EQ((Names{"P"}), memory->getExtractorEvent("X")) << "a failed removal keeps the entry";
  memory->removeMicroEvent("mic");
  EXPECT_EQ((Names{"TavroReady"}), memory->getMicroEventList());
}

TEST_F(EventsTest, ExtractorIsToldAboutEachEventSubscription) {
  rxtest::LogCapture log;
  auto x = rxtest::startModule<rxtest::Extractor>(broker, "X", true);
  auto y = rxtest::startModule<rxtest::Extractor>(broker, "Y", false);
  memory->declareEvent("E", "X");
  memory->declareEvent("F", "Y");
  memory->declareEvent("G", "Missing");

  memory->subscribeToEvent("E", "M", "onEvent");
  EXPECT_EQ((Names{"subscribe:ME"}), x->calls()) << "the call blocks until the extractor answered";
  memory->subscribeToEvent("E", "M", "msg", "onEvent");  // no counting: told again
  memory->subscribeToMicroEvent("E", "N", "", "onEvent");  // micro-event subscriptions tell nobody
  memory->unsubscribeToEvent("E", "M");
  EXPECT_EQ((Names{"subscribe:ME", "subscribe:ME", "unsubscribe:ME"}), x->calls());
  EXPECT_EQ("getData|Data not found nope", errorOf([&] { memory->unsubscribeToEvent("nope", "M"); }));
  EXPECT_EQ("UnsubscribeToMicroEvent|M is not subscribed to E",
            errorOf([&] { memory->unsubscribeToEvent("E", "M"); }));
  EXPECT_EQ(3u, x->calls().size()) << "failed unsubscriptions do not reach the extractor";

  memory->subscribeToEvent("F", "M", "onEvent");
  memory->unsubscribeToEvent("F", "M");
  EXPECT_EQ(Names{}, y->calls()) << "a module without getCurrentPrecision is no extractor";

  memory->subscribeToEvent("G", "M", "onEvent");  // extractor not running: no error
  EXPECT_EQ((Names{"M"}), memory->getDataSubscriber("G"));

  memory->subscribeToMicroEvent("V", "M", "", "onEvent");
  memory->unsubscribeToEvent("V", "M");
  EXPECT_TRUE(log.has("rxmemory|3|stopExtractor no extractor for V\n"));
}

TEST_F(EventsTest, FailingExtractorIsLoggedAndTheSubscriptionStands) {
  auto x = rxtest::startModule<FailingExtractor>(broker, "X");
  const struct {
    const char* event;
    const char* extractor;
    const char* error;
  } cases[] = {{"E", "X", "generator offline for ME"}, {"G", "Gone", "Module not found: Gone"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.extractor);
    memory->declareEvent(c.event, c.extractor);
    rxtest::LogCapture log;
    memory->subscribeToEvent(c.event, "M", "onEvent");
    EXPECT_EQ((Names{"M"}), memory->getDataSubscriber(c.event));
    memory->unsubscribeToEvent(c.event, "M");
    Names warnings;
    for (const std::string& line : log.lines())
      if (line.rfind("rxmemory|2|", 0) == 0) warnings.push_back(line);
    const std::string prefix = std::string("rxmemory|2|Extractor ") + c.extractor + " of event " + c.event;
    EXPECT_EQ((Names{prefix + " failed on subscribe: " + c.error, prefix + " failed on unsubscribe: " + c.error}),
              warnings);
  }
}

TEST_F(EventsTest, DeprecatedMethodsOnlyLog) {
  rxtest::LogCapture log;
  memory->subscribeToMicroEvent("E", "M", "", "onEvent");
  memory->unregisterModuleReference("M");
  memory->subscribeOnDataSetTimePolicy("E", "M", 10);
  memory->subscribeOnDataSetSynchronizeResponse("E", "M", true);
  EXPECT_EQ((Names{"M"}), memory->getDataSubscriber("E"));
  EXPECT_TRUE(log.has("rxmemory|2|unregisterModuleReference is deprecated and can be removed."));
  EXPECT_TRUE(log.has("rxmemory|1|RXMemory::subscribeOnDataSetTimePolicy is NO-OP"));
  EXPECT_TRUE(log.has("rxmemory|1|RXMemory::subscribeOnDataSetSynchronizeResponse is NO-OP"));
}

}  // namespace
