// Notifications: subscription records, the callback contract, ordering, proxy
// caching, subscribers that come late, go away or re-subscribe; and the key
// signal objects (following a key as a signal, raising it by emitting).
#include <atomic>
#include <functional>
#include <future>
#include <thread>

#include "memory_test_util.h"

namespace rxtest {
namespace {

class DispatchTest : public MemoryTest {
 protected:
  void SetUp() override {
    MemoryTest::SetUp();
    RX::log::setLevel("RXMemory", RX::log::Verbose);  // the cells say whom they notify and drop
  }
  void TearDown() override {
    RX::log::setLevel("RXMemory", RX::log::kDefaultThreshold);
    MemoryTest::TearDown();
  }
  // The messages logged by the cells, in order, starting with prefix.
  Names cellLines(const std::string& prefix) const {
    Names out;
    for (const std::string& line : log.items())
      if (line.rfind("RXMemory|5|" + prefix, 0) == 0) out.push_back(line.substr(11));
    return out;
  }
  LogCapture log;
};

TEST_F(DispatchTest, SubscribingMakesMissingKeysAndNeverRetypes) {
  memory->subscribeToEvent("E", "Foo", "onEvent");
  memory->subscribeToMicroEvent("ME", "Foo", "", "onEvent");
  EXPECT_EQ("Event MicroEvent invalid", memory->getStrDataType("E") + " " + memory->getStrDataType("ME") +
                                            " " + memory->getData("E").toString());
  memory->insertData("d", 1);
  memory->subscribeToEvent("d", "Foo", "onEvent");
  memory->subscribeToMicroEvent("d", "Bar", "", "onEvent");
  EXPECT_EQ("Data", memory->getStrDataType("d"));
  // One record per module, listed byte-wise.
  for (const char* m : {"a", "C", "B", "a"}) memory->subscribeToMicroEvent("d", m, "", "onEvent");
  EXPECT_EQ((Names{"B", "Bar", "C", "Foo", "a"}), memory->getDataSubscriber("d"));
  memory->unsubscribeToMicroEvent("d", "Foo");
  EXPECT_EQ((Names{"B", "Bar", "C", "a"}), memory->getDataSubscriber("d"));
  // A key removed and declared again starts without subscribers.
  memory->removeEvent("E");
  memory->declareEvent("E");
  EXPECT_EQ(Names{}, memory->getDataSubscriber("E"));
}

TEST_F(DispatchTest, EveryRaiseCallsBackWithKeyValueAndMessage) {
  auto r = startModule<Recorder>(broker, "R");
  memory->subscribeToMicroEvent("m", "R", "micro message", "onEvent");
  memory->subscribeToEvent("e", "R", "onOther");
  RXValue payload = RXValue::array();
  payload.arrayPush(RXValue(1));
  payload.arrayPush(RXValue("a"));
  memory->raiseMicroEvent("m", payload);
  memory->raiseMicroEvent("m", payload);  // equal values notify again
  memory->raiseEvent("e", RXValue(2));
  memory->raiseEvent("e", RXValue(2));
  memory->insertData("e", 3);  // plain insertion notifies nobody
  memory->insertListData(RXValue::array());
  drain(r);
  auto got = r->items();
  ASSERT_EQ(5u, got.size());  // four raises and the sentinel
  EXPECT_EQ(
      "onEvent m [1, \"a\"] \"micro message\"",
      got[0].method + " " + got[0].key + " " + got[0].value.toString() + " " + got[0].message.toString());
  EXPECT_EQ("onOther \"\"", got[2].method + " " + got[2].message.toString())
      << "the 3-argument subscribeToEvent sends an empty message";
  EXPECT_EQ((Names{"m=[1, a]", "m=[1, a]", "e=2", "e=2"}), r->keyValues());
}

TEST_F(DispatchTest, SubscribersArePostedToInModuleNameOrder) {
  auto a = startModule<Recorder>(broker, "a");
  auto b = startModule<Recorder>(broker, "B");
  auto c = startModule<Recorder>(broker, "C");
  for (const char* m : {"a", "C", "B"}) memory->subscribeToEvent("E", m, "onEvent");
  memory->raiseEvent("E", RXValue(1));
  EXPECT_EQ(
      (Names{"notifying module: B for datachange for key: E", "notifying module: C for datachange for key: E",
             "notifying module: a for datachange for key: E"}),
      cellLines("notifying"));
  for (auto& r : {a, b, c}) {
    ASSERT_TRUE(r->waitFor(1)) << r->getName();
    EXPECT_EQ((Names{"E=1"}), r->keyValues());
  }
}

// A look-up that fails keeps the record (the module may come later); a post
// that fails to a module found before drops it.
TEST_F(DispatchTest, LateSubscribersAreKeptGoneOnesDropped) {
  auto alive = startModule<Recorder>(broker, "Alive");
  auto dead = startModule<Recorder>(broker, "Dead");
  for (const char* m : {"Dead", "Alive", "Late"}) memory->subscribeToEvent("E", m, "onEvent");
  memory->raiseEvent("E", RXValue(1));  // caches the proxies of Alive and Dead
  EXPECT_EQ(1u, cellLines("Late not found, removing module reference:").size());
  EXPECT_EQ((Names{"Alive", "Dead", "Late"}), memory->getDataSubscriber("E"));
  drain(dead);
  dead->exit();
  auto late = startModule<Recorder>(broker, "Late");
  memory->raiseEvent("E", RXValue(2));
  EXPECT_EQ(1u, cellLines("Dead not found, removing module reference:").size());
  EXPECT_EQ((Names{"Alive", "Late"}), memory->getDataSubscriber("E"));
  memory->raiseEvent("E", RXValue(3));
  drain(alive);
  drain(late);
  EXPECT_EQ((Names{"E=1", "E=2", "E=3"}), alive->keyValues());
  EXPECT_EQ((Names{"E=1"}), dead->keyValues());
  EXPECT_EQ((Names{"E=2", "E=3"}), late->keyValues());
}

TEST_F(DispatchTest, ResubscribingResetsTheCachedProxy) {
  auto first = startModule<Recorder>(broker, "M");
  memory->subscribeToMicroEvent("E", "M", "one", "onEvent");
  memory->raiseMicroEvent("E", RXValue(1));
  drain(first);
  first->exit();
  // A new module under the same name: only a fresh look-up reaches it; the
  // old cached proxy would fail and drop the record.
  auto second = startModule<Recorder>(broker, "M");
  memory->subscribeToMicroEvent("E", "M", "two", "onOther");
  memory->raiseMicroEvent("E", RXValue(2));
  drain(second);
  auto got = second->items();
  ASSERT_FALSE(got.empty());
  EXPECT_EQ("onOther \"two\"", got[0].method + " " + got[0].message.toString());
  EXPECT_EQ((Names{"E=2"}), second->keyValues());
  EXPECT_EQ((Names{"M"}), memory->getDataSubscriber("E"));
}

class SignalTest : public MemoryTest {};

TEST_F(SignalTest, SubscriberDeclaresMissingKeysAndIsSharedPerKey) {
  auto first = memory->subscriber("K");
  ASSERT_TRUE(first);
  EXPECT_EQ(first, memory->subscriber("K"));
  EXPECT_EQ("Event", memory->getStrDataType("K"));
  EXPECT_TRUE(contains(memory->getEventList(), "K"));
  memory->insertData("d", 1);
  EXPECT_TRUE(memory->subscriber("d"));
  EXPECT_EQ("Data", memory->getStrDataType("d")) << "subscriber never retypes a key";
}

TEST_F(SignalTest, RaisesAreEmittedAndEmissionsRaise) {
  SignalLog got;
  auto sub = memory->subscriber("K");
  sub->signal.connect([&](mz::AnyValue v) { got(v); });
  auto r = startModule<Recorder>(broker, "R");
  memory->subscribeToEvent("K", "R", "onEvent");
  memory->raiseEvent("K", RXValue(5));
  memory->raiseMicroEvent("K", RXValue(6));
  memory->insertData("K", 7);  // insertions are not emitted
  EXPECT_EQ((Names{"5", "6"}), got.take());
  const std::size_t history = memory->getEventHistory("K").getSize();

  sub->signal(mz::AnyValue(RXValue(8)));
  EXPECT_EQ("8", memory->getData("K").toString());
  EXPECT_EQ((Names{"8"}), got.take()) << "delivered back once";
  sub->signal.trigger({});
  EXPECT_EQ("invalid", memory->getData("K").toString());
  EXPECT_EQ((Names{"invalid"}), got.take());
  try {
    sub->signal.trigger({mz::AnyValue(RXValue(1)), mz::AnyValue(RXValue(2))});
    ADD_FAILURE() << "two arguments were accepted";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ("Invalid number of arguments", e.what());
  }
  EXPECT_THROW(sub->signal.trigger({mz::AnyValue::fromOther(42L)}), mz::ConversionError);
  EXPECT_EQ("invalid", memory->getData("K").toString()) << "failed emissions raise nothing";
  EXPECT_EQ(Names{}, got.take());
  drain(r);
  EXPECT_EQ((Names{"K=5", "K=6", "K=8", "K=invalid"}), r->keyValues());
  EXPECT_EQ(history + 1, memory->getEventHistory("K").getSize()) << "the invalid raise stores no history";
}

// A key's signal object is made when first asked for; a key that was used in
// other ways before must behave as if it had had it from birth.
TEST_F(SignalTest, SignalObjectOfAKeyUsedBeforeDeliversEveryRaiseOnce) {
  auto r = startModule<Recorder>(broker, "R");
  const std::pair<std::string, std::function<void(const std::string&)>> histories[] = {
      {"plain data", [&](const std::string& k) { memory->insertData(k, 1); }},
      {"described", [&](const std::string& k) { memory->insertData(k, 1), memory->setDescription(k, "d"); }},
      {"subscribed", [&](const std::string& k) { memory->subscribeToMicroEvent(k, "R", "", "onEvent"); }},
      {"raised", [&](const std::string& k) { memory->raiseEvent(k, RXValue(1)); }},
  };
  for (const auto& [name, history] : histories) {
    SCOPED_TRACE(name);
    history("used/" + name);
    SignalLog got;
    auto sub = memory->subscriber("used/" + name);
    sub->signal.connect([&](mz::AnyValue v) { got(v); });
    memory->raiseMicroEvent("used/" + name, RXValue(2));
    EXPECT_EQ((Names{"2"}), got.take());
    EXPECT_EQ(sub, memory->subscriber("used/" + name));
  }
  drain(r);
}

// First requests of the signal object racing with raises: one object per key,
// and every raise made after a connection reaches it.
TEST_F(SignalTest, FirstRequestsRacingWithRaisesShareOneObject) {
  constexpr int kKeys = 200;
  std::vector<boost::shared_ptr<RXMemorySubscriber>> seen[3];
  auto key = [](int i) { return "race/" + std::to_string(i); };
  raceOverKeys(kKeys, {[&](int i) { seen[0].push_back(memory->subscriber(key(i))); },
                       [&](int i) { seen[1].push_back(memory->subscriber(key(i))); },
                       [&](int i) { seen[2].push_back(memory->subscriber(key(i))); },
                       [&](int i) { memory->raiseMicroEvent(key(i), RXValue(i)); }});
  for (int i = 0; i < kKeys; ++i) {
    ASSERT_TRUE(seen[0][i] == seen[1][i] && seen[0][i] == seen[2][i]) << key(i);
    SignalLog got;
    seen[0][i]->signal.connect([&](mz::AnyValue v) { got(v); });
    memory->raiseMicroEvent(key(i), RXValue(-i));
    EXPECT_EQ((Names{std::to_string(-i)}), got.take()) << key(i);
  }
}

}  // namespace
}  // namespace rxtest
