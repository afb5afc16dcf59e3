// Notifications: subscription records, the callback contract, order, module churn; key signal objects.
#include "memory_test_util.h"

namespace {

class DispatchTest : public MemoryTest {
 protected:
  struct Verbose {  // the cells say whom they notify and drop, for this test only
    Verbose() { RX::log::setLevel("RXMemory", RX::log::Verbose); }
    ~Verbose() { RX::log::setLevel("RXMemory", RX::log::kDefaultThreshold); }
  } verbose;
  Names cellLines(const std::string& prefix) const {  // the cells' lines that start with prefix, without it
    Names out;
    for (const std::string& line : log.items())
      if (line.rfind("verbose: " + prefix, 0) == 0) out.push_back(line.substr(9 + prefix.size()));
    return out;
  }
  LogLines log{"RXMemory"};
};

// Subscribing, and asking for a key's signal object, make a missing key and never retype one.
TEST_F(DispatchTest, SubscribingMakesMissingKeysAndNeverRetypes) {
  memory->subscribeToEvent("E", "Foo", "onEvent");
  memory->subscribeToMicroEvent("ME", "Foo", "", "onEvent");
  auto signalObject = memory->subscriber("K");
  EXPECT_EQ("Event MicroEvent Event", types({"E", "ME", "K"}));
  EXPECT_EQ("invalid", values({"E"}));
  EXPECT_TRUE(contains(memory->getEventList(), "K"));
  EXPECT_EQ(signalObject, memory->subscriber("K")) << "one signal object per key";
  memory->insertData("d", 1);
  memory->subscribeToEvent("d", "Foo", "onEvent");
  memory->subscribeToMicroEvent("d", "Bar", "", "onEvent");
  EXPECT_TRUE(memory->subscriber("d"));
  EXPECT_EQ("Data", types({"d"}));
  // One record per module, listed byte-wise.
  for (const char* m : {"a", "C", "B", "a"}) memory->subscribeToMicroEvent("d", m, "", "onEvent");
  EXPECT_EQ((Names{"B", "Bar", "C", "Foo", "a"}), memory->getDataSubscriber("d"));
  memory->unsubscribeToMicroEvent("d", "Foo");
  EXPECT_EQ((Names{"B", "Bar", "C", "a"}), memory->getDataSubscriber("d"));
  memory->removeEvent("E");
  memory->declareEvent("E");
  EXPECT_EQ(Names{}, memory->getDataSubscriber("E")) << "a key removed and declared again";
}

// Every raise, equal ones too, is posted to each subscriber by module name with key, value, message.
TEST_F(DispatchTest, EveryRaiseCallsBackWithKeyValueAndMessage) {
  auto r = startModule<Recorder>(broker, "R");
  auto a = startModule<Recorder>(broker, "a");
  auto c = startModule<Recorder>(broker, "C");
  memory->subscribeToMicroEvent("m", "R", "micro message", "onEvent");
  for (const char* m : {"a", "R", "C"}) memory->subscribeToEvent("e", m, "onOther");
  const RXValue payload = list({RXValue(1), RXValue("a")});
  memory->raiseMicroEvent("m", payload);
  memory->raiseMicroEvent("m", payload);
  memory->raiseEvent("e", RXValue(2));
  memory->raiseEvent("e", RXValue(2));
  memory->insertData("e", 3);  // plain insertion notifies nobody
  memory->insertListData(RXValue::array());
  const Names notified = cellLines("notifying module: ");
  ASSERT_EQ(8u, notified.size());
  EXPECT_EQ("C for datachange for key: e", notified[2]);
  EXPECT_EQ("C R a C R a", join(Names(notified.begin() + 2, notified.end()),
                                [](const S& line) { return line.substr(0, line.find(' ')); }));
  drain(r);
  ASSERT_EQ((Names{"m=[1, a]", "m=[1, a]", "e=2", "e=2"}), r->keyValues());
  auto got = r->items();
  EXPECT_EQ("onEvent m [1, \"a\"] \"micro message\"", got[0].str());
  EXPECT_EQ("onOther e 2 \"\"", got[2].str()) << "the 3-argument subscribeToEvent sends an empty message";
  for (auto& other : {a, c}) {
    drain(other);
    EXPECT_EQ((Names{"e=2", "e=2"}), other->keyValues()) << other->getName();
  }
}

// A failed look-up keeps the record (the module may come later); a failed post to a module found before drops
// it; a re-subscription forgets the cached proxy and reaches a new module of the name.
TEST_F(DispatchTest, LateSubscribersAreKeptGoneOnesDroppedResubscribersReached) {
  auto alive = startModule<Recorder>(broker, "Alive");
  auto dead = startModule<Recorder>(broker, "Dead");
  auto renewed = startModule<Recorder>(broker, "Renewed");
  for (const char* m : {"Dead", "Alive", "Late", "Renewed"}) memory->subscribeToEvent("E", m, "onEvent");
  memory->raiseEvent("E", RXValue(1));  // caches the proxies of Alive, Dead and Renewed
  EXPECT_EQ(1u, cellLines("Late not found, removing module reference:").size());
  EXPECT_EQ((Names{"Alive", "Dead", "Late", "Renewed"}), memory->getDataSubscriber("E"));
  for (auto& gone : {dead, renewed}) {
    drain(gone);
    gone->exit();
  }
  auto late = startModule<Recorder>(broker, "Late");
  auto second = startModule<Recorder>(broker, "Renewed");
  memory->subscribeToEvent("E", "Renewed", "again", "onOther");
  memory->raiseEvent("E", RXValue(2));
  EXPECT_EQ(1u, cellLines("Dead not found, removing module reference:").size());
  EXPECT_EQ((Names{"Alive", "Late", "Renewed"}), memory->getDataSubscriber("E"));
  memory->raiseEvent("E", RXValue(3));
  for (auto& r : {alive, late, second}) drain(r);
  EXPECT_EQ((Names{"E=1", "E=2", "E=3"}), alive->keyValues());
  EXPECT_EQ((Names{"E=1"}), dead->keyValues());
  EXPECT_EQ((Names{"E=2", "E=3"}), late->keyValues());
  EXPECT_EQ((Names{"E=2", "E=3"}), second->keyValues());
  EXPECT_EQ("onOther E 2 \"again\"", second->items()[0].str());
}

using SignalTest = MemoryTest;

TEST_F(SignalTest, RaisesAreEmittedAndEmissionsRaiseHoweverTheKeyWasMade) {
  auto sub = memory->subscriber("K");
  SignalLog got(sub);
  auto r = startModule<Recorder>(broker, "R");
  memory->subscribeToEvent("K", "R", "onEvent");
  memory->raiseEvent("K", RXValue(5));
  memory->raiseMicroEvent("K", RXValue(6));
  memory->insertData("K", 7);  // insertions are not emitted
  EXPECT_EQ((Names{"5", "6"}), got.take());
  const std::size_t history = memory->getEventHistory("K").getSize();

  sub->signal(mz::AnyValue(RXValue(8)));
  EXPECT_EQ("8", values({"K"}));
  EXPECT_EQ((Names{"8"}), got.take()) << "delivered back once";
  sub->signal.trigger({});
  EXPECT_EQ("invalid", values({"K"}));
  EXPECT_EQ((Names{"invalid"}), got.take());
  const mz::AnyValue one(RXValue(1));
  EXPECT_EQ("std::exception|Invalid number of arguments", errorOf([&] { sub->signal.trigger({one, one}); }));
  EXPECT_THROW(sub->signal.trigger({mz::AnyValue::fromOther(42L)}), mz::ConversionError);
  EXPECT_EQ("invalid", values({"K"})) << "failed emissions raise nothing";
  EXPECT_EQ(Names{}, got.take());
  drain(r);
  EXPECT_EQ((Names{"K=5", "K=6", "K=8", "K=invalid"}), r->keyValues());
  EXPECT_EQ(history + 1, memory->getEventHistory("K").getSize()) << "the invalid raise stores no history";

  // A key's signal object is made when first asked for, yet must act as if the key had it from birth.
  const std::pair<std::string, std::function<void(const std::string&)>> histories[] = {
      {"plain data", [&](const std::string& k) { memory->insertData(k, 1); }},
      {"described", [&](const std::string& k) { memory->insertData(k, 1), memory->setDescription(k, "d"); }},
      {"subscribed", [&](const std::string& k) { memory->subscribeToMicroEvent(k, "R", "", "onEvent"); }},
      {"raised", [&](const std::string& k) { memory->raiseEvent(k, RXValue(1)); }},
  };
  for (const auto& [name, history] : histories) {
    SCOPED_TRACE(name);
    history("used/" + name);
    auto sub = memory->subscriber("used/" + name);
    SignalLog got(sub);
    memory->raiseMicroEvent("used/" + name, RXValue(2));
    EXPECT_EQ((Names{"2"}), got.take());
    EXPECT_EQ(sub, memory->subscriber("used/" + name));
  }
  drain(r);
}

// First requests racing with raises: one object per key, and each later raise reaches it.
TEST_F(SignalTest, FirstRequestsRacingWithRaisesShareOneObject) {
  constexpr int kKeys = 200;
  std::vector<boost::shared_ptr<RXMemorySubscriber>> seen[3];
  auto key = [](int i) { return "race/" + std::to_string(i); };
  runTogether(kKeys, {[&](int i) { seen[0].push_back(memory->subscriber(key(i))); },
                      [&](int i) { seen[1].push_back(memory->subscriber(key(i))); },
                      [&](int i) { seen[2].push_back(memory->subscriber(key(i))); },
                      [&](int i) { memory->raiseMicroEvent(key(i), RXValue(i)); }});
  for (int i = 0; i < kKeys; ++i) {
    ASSERT_TRUE(seen[0][i] == seen[1][i] && seen[0][i] == seen[2][i]) << key(i);
    SignalLog got(seen[0][i]);
    memory->raiseMicroEvent(key(i), RXValue(-i));
    EXPECT_EQ((Names{std::to_string(-i)}), got.take()) << key(i);
  }
}

}  // namespace
