// Notification dispatch: the callback contract, ordering, proxy caching, and
// subscribers that come late, go away or re-subscribe.
#include <algorithm>

#include "memory_test_util.h"

using RX::RXValue;
using Names = std::vector<std::string>;

namespace {

class DispatchTest : public rxtest::MemoryTest {
 protected:
  // Turns on the cells' verbose log for one test.
  struct VerboseCells {
    VerboseCells() { RX::log::setLevel("RXMemory", RX::log::Verbose); }
    ~VerboseCells() { RX::log::setLevel("RXMemory", RX::log::kDefaultThreshold); }
  };

  // The messages logged by the cells, in order, starting with prefix.
  static Names cellLines(rxtest::LogCapture& log, const std::string& prefix) {
    Names out;
    for (const std::string& line : log.lines())
      if (line.rfind("RXMemory|5|" + prefix, 0) == 0) out.push_back(line.substr(11));
    return out;
  }
};

TEST_F(DispatchTest, EveryRaiseCallsBackWithKeyValueAndMessage) {
  auto r = rxtest::startModule<rxtest::Recorder>(broker, "R");
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

  auto got = r->received();
  ASSERT_EQ(5u, got.size());  // four raises and the sentinel
  EXPECT_EQ("onEvent", got[0].method);
  EXPECT_EQ("m", got[0].key);
  EXPECT_EQ("[1, \"a\"]", got[0].value.toString());
  EXPECT_EQ("\"micro message\"", got[0].message.toString());
  EXPECT_EQ("onOther", got[2].method);
  EXPECT_EQ("\"\"", got[2].message.toString()) << "the 3-argument subscribeToEvent sends an empty message";
  EXPECT_EQ((Names{"m=[1, a]", "m=[1, a]", "e=2", "e=2"}), r->keyValues());
}

TEST_F(DispatchTest, SubscribersArePostedToInModuleNameOrder) {
  VerboseCells verbose;
  rxtest::LogCapture log;
  auto a = rxtest::startModule<rxtest::Recorder>(broker, "a");
  auto b = rxtest::startModule<rxtest::Recorder>(broker, "B");
  auto c = rxtest::startModule<rxtest::Recorder>(broker, "C");
  for (const char* m : {"a", "C", "B"}) memory->subscribeToEvent("E", m, "onEvent");
  memory->raiseEvent("E", RXValue(1));
  EXPECT_EQ((Names{"notifying module: B for datachange for key: E", "notifying module: C for datachange for key: E",
                   "notifying module: a for datachange for key: E"}),
            cellLines(log, "notifying"));
  for (auto& r : {a, b, c}) {
    ASSERT_TRUE(r->waitFor(1)) << r->getName();
    EXPECT_EQ((Names{"E=1"}), r->keyValues());
  }
}

TEST_F(DispatchTest, LateSubscriberIsCalledFromTheNextRaise) {
  VerboseCells verbose;
  rxtest::LogCapture log;
  memory->subscribeToMicroEvent("E", "Late", "", "onEvent");
  memory->raiseMicroEvent("E", RXValue(1));
  Names lookups = cellLines(log, "Late not found, removing module reference:");
  ASSERT_EQ(1u, lookups.size());
  EXPECT_EQ((Names{"Late"}), memory->getDataSubscriber("E")) << "a failed look-up keeps the record";

  auto late = rxtest::startModule<rxtest::Recorder>(broker, "Late");
  memory->raiseMicroEvent("E", RXValue(2));
  drain(late);
  EXPECT_EQ((Names{"E=2"}), late->keyValues());
}

TEST_F(DispatchTest, SubscriberWhosePostFailsIsDropped) {
  VerboseCells verbose;
  rxtest::LogCapture log;
  auto dead = rxtest::startModule<rxtest::Recorder>(broker, "Dead");
  auto alive = rxtest::startModule<rxtest::Recorder>(broker, "Alive");
  for (const char* m : {"Dead", "Alive"}) memory->subscribeToEvent("E", m, "onEvent");
  memory->raiseEvent("E", RXValue(1));  // caches both proxies
  drain(dead);
  dead->exit();

  memory->raiseEvent("E", RXValue(2));
  EXPECT_EQ((Names{"Alive"}), memory->getDataSubscriber("E"));
  EXPECT_EQ(1u, cellLines(log, "Dead not found, removing module reference:").size());
  memory->raiseEvent("E", RXValue(3));
  drain(alive);
  EXPECT_EQ((Names{"E=1", "E=2", "E=3"}), alive->keyValues());
  EXPECT_EQ((Names{"E=1"}), dead->keyValues());
}

TEST_F(DispatchTest, ResubscribingResetsTheCachedProxy) {
  auto first = rxtest::startModule<rxtest::Recorder>(broker, "M");
  memory->subscribeToMicroEvent("E", "M", "one", "onEvent");
  memory->raiseMicroEvent("E", RXValue(1));
  drain(first);
  first->exit();

  // A new module under the same name: only a fresh look-up reaches it; the
  // old cached proxy would fail and drop the record.
  auto second = rxtest::startModule<rxtest::Recorder>(broker, "M");
  memory->subscribeToMicroEvent("E", "M", "two", "onOther");
  memory->raiseMicroEvent("E", RXValue(2));
  drain(second);
  auto got = second->received();
  ASSERT_FALSE(got.empty());
  EXPECT_EQ("onOther", got[0].method);
  EXPECT_EQ("\"two\"", got[0].message.toString());
  EXPECT_EQ((Names{"E=2"}), second->keyValues());
  EXPECT_EQ((Names{"M"}), memory->getDataSubscriber("E"));
}

}  // namespace
