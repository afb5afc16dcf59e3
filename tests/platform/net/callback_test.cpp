// The broker calling back into a client process: calls and ordered posts to a
// client's service, a broker method that calls the very client waiting for
// it, and signals followed and emitted in both directions.
#include "transport_fixture.h"

namespace nettest {
namespace {

class Callbacks : public TransportFixture {};

TEST_P(Callbacks, BrokerCallsAndPostsToClientService) {
  // The client's module is a service of the broker's session.
  boost::shared_ptr<RX::RXProxy> remoteTool = broker->getProxy("Tool");
  EXPECT_EQ("subscribed ev", remoteTool->call<RX::RXValue>("subscribe", std::string("ev")).toString(0));
  EXPECT_EQ("ev", tool->subscribed.values().at(0).toString(0));
  EXPECT_FALSE(remoteTool->object().findMethod("onEvent").empty());

  // Posts arrive, in the order they were made.
  const int kPosts = 1000;
  std::pair<int, int> notifyState{0, 0};
  for (int i = 0; i < kPosts; ++i)
    remoteTool->pCallNotify("onEvent", "key", RX::RXValue(i), RX::RXValue("msg"), &notifyState);
  EXPECT_EQ(kPosts, notifyState.first);
  ASSERT_TRUE(tool->events.waitFor(kPosts)) << "only " << tool->events.size() << " posts arrived";
  std::vector<RX::RXValue> got = tool->events.values();
  for (int i = 0; i < kPosts; ++i) ASSERT_EQ(i, got[static_cast<std::size_t>(i)].toInt()) << "post " << i;

  // A client's failure comes back to the broker's caller.
  EXPECT_EQ("Tool: no method named nope", errorOf([&] { remoteTool->call<void>("nope"); }));
}

TEST_P(Callbacks, BrokerMethodCallsBackTheClientThatWaitsForIt) {
  // The extractor case: the client waits in Calc.callClient while the broker
  // calls the client's Tool.subscribe, whose reply the broker must read.
  boost::shared_ptr<RX::RXProxy> remoteCalc = clientBroker->getProxy("Calc");
  EXPECT_EQ("subscribed x", remoteCalc
                                ->call<RX::RXValue>("callClient", std::string("Tool"),
                                                    std::string("subscribe"), RX::RXValue("x"))
                                .toString(0));
  // Deeper: Tool.askBroker calls Calc.add while both outer calls wait.
  EXPECT_EQ(42, remoteCalc
                    ->call<RX::RXValue>("callClient", std::string("Tool"), std::string("askBroker"),
                                        RX::RXValue(41))
                    .toInt());
  // Several client threads doing it at once.
  std::vector<std::future<int>> results;
  for (int t = 0; t < 4; ++t)
    results.push_back(std::async(std::launch::async, [&, t] {
      int sum = 0;
      for (int i = 0; i < 20; ++i)
        sum += remoteCalc
                   ->call<RX::RXValue>("callClient", std::string("Tool"), std::string("askBroker"),
                                       RX::RXValue(t * 100 + i))
                   .toInt();
      return sum;
    }));
  for (int t = 0; t < 4; ++t) {
    ASSERT_EQ(std::future_status::ready, results[static_cast<std::size_t>(t)].wait_for(kWait * 2))
        << "deadlock?";
    EXPECT_EQ(20 * (t * 100 + 1) + 190, results[static_cast<std::size_t>(t)].get());
  }
}

TEST_P(Callbacks, APostedCallbackMayCallTheBrokerWhichCallsItsClientBack) {
  // The callback runs on the client's event reader, which must keep reading
  // for the broker's call back to Tool.subscribe to be answered.
  boost::shared_ptr<RX::RXProxy> remoteTool = broker->getProxy("Tool");
  std::pair<int, int> notifyState{0, 0};
  for (int i = 0; i < 3; ++i) remoteTool->pCallNotify("onRelay", "key", RX::RXValue(i), RX::RXValue(""), &notifyState);
  ASSERT_TRUE(tool->events.waitFor(3)) << "a callback calling the broker stalled its own client";
  std::vector<RX::RXValue> got = tool->events.values();
  for (int i = 0; i < 3; ++i) EXPECT_EQ("subscribed " + std::to_string(i), got[i].toString(0));
}

TEST_P(Callbacks, ClientFollowsAndEmitsBrokerSignals) {
  mz::AnyObject remoteCalc = session->service("Calc").value();
  Recorder first, second;
  mz::SignalLink link =
      remoteCalc.connect("ticked", [&](mz::AnyValue v) { first.add(v.toRXValue()); }).value();
  for (int i = 0; i < 100; ++i) calc->ticked(mz::AnyValue(i));
  ASSERT_TRUE(first.waitFor(100)) << first.size() << " of 100 emissions arrived";
  for (int i = 0; i < 100; ++i) EXPECT_EQ(i, first.values()[static_cast<std::size_t>(i)].toInt());

  remoteCalc.disconnect(link).waitAndCheck();
  EXPECT_EQ(0u, calc->ticked.subscriberCount()) << "the broker still forwards to the client";
  mz::SignalLink link2 =
      remoteCalc.connect("ticked", [&](mz::AnyValue v) { second.add(v.toRXValue()); }).value();
  calc->ticked(mz::AnyValue(500));
  ASSERT_TRUE(second.waitFor(1));
  EXPECT_EQ(100u, first.size()) << "a disconnected subscriber was called";

  // Emitting on the broker's object runs its signal there before returning.
  Recorder local;
  mz::SignalLink direct = calc->ticked.connect([&](mz::AnyValue v) { local.add(v.toRXValue()); });
  remoteCalc.emit("ticked", {mz::AnyValue(77)});
  ASSERT_EQ(1u, local.size());
  EXPECT_EQ(77, local.values()[0].toInt());
  calc->ticked.disconnect(direct);
  // The emission also went to the client's own connection, asynchronously;
  // it must have arrived before `second` goes out of scope.
  ASSERT_TRUE(second.waitFor(2)) << "the broker-side emission did not reach the client";
  EXPECT_EQ(77, second.values()[1].toInt());
  EXPECT_EQ("Calc: no signal named nope", errorOf([&] { remoteCalc.emit("nope", {mz::AnyValue(1)}); }));
  EXPECT_NE("", remoteCalc.connect("nope", [](mz::AnyValue) {}).error());
  remoteCalc.disconnect(link2).waitAndCheck();
}

TEST_P(Callbacks, BrokerFollowsAndEmitsClientSignals) {
  mz::AnyObject remoteTool = broker->session()->service("Tool").value();
  Recorder seen;
  mz::SignalLink link =
      remoteTool.connect("beeped", [&](mz::AnyValue v) { seen.add(v.toRXValue()); }).value();
  ASSERT_EQ(1u, tool->beeped.subscriberCount());
  for (int i = 0; i < 100; ++i) tool->beeped(mz::AnyValue(i));
  ASSERT_TRUE(seen.waitFor(100)) << seen.size() << " of 100 emissions arrived";
  for (int i = 0; i < 100; ++i) EXPECT_EQ(i, seen.values()[static_cast<std::size_t>(i)].toInt());

  // The broker emitting on the client's object.
  Recorder onClient;
  mz::SignalLink direct = tool->beeped.connect([&](mz::AnyValue v) { onClient.add(v.toRXValue()); });
  remoteTool.emit("beeped", {mz::AnyValue("from broker")});
  ASSERT_TRUE(onClient.waitFor(1));
  EXPECT_EQ("from broker", onClient.values()[0].toString(0));
  tool->beeped.disconnect(direct);
  // That emission is the client's own: it comes back to the broker's subscriber.
  ASSERT_TRUE(seen.waitFor(101));
  EXPECT_EQ("from broker", seen.values()[100].toString(0));

  remoteTool.disconnect(link).waitAndCheck();
  EXPECT_EQ(0u, tool->beeped.subscriberCount());
}

TEST_P(Callbacks, ClientSeesServicesComeAndGo) {
  std::mutex mutex;
  std::condition_variable cond;
  std::vector<std::string> events;
  mz::SignalLink added = session->serviceRegistered.connect([&](unsigned int, std::string name) {
    std::lock_guard<std::mutex> lock(mutex);
    events.push_back("+" + name);
    cond.notify_all();
  });
  mz::SignalLink removed = session->serviceUnregistered.connect([&](unsigned int, std::string name) {
    std::lock_guard<std::mutex> lock(mutex);
    events.push_back("-" + name);
    cond.notify_all();
  });
  const unsigned int id =
      broker->session()->registerService("Gadget", mz::AnyObject(std::make_shared<mz::DynamicObject>()));
  broker->session()->unregisterService(id);
  {
    std::unique_lock<std::mutex> lock(mutex);
    EXPECT_TRUE(cond.wait_for(lock, kWait, [&] { return events.size() >= 2; }));
    EXPECT_EQ((std::vector<std::string>{"+Gadget", "-Gadget"}), events);
  }
  session->serviceRegistered.disconnect(added);
  session->serviceUnregistered.disconnect(removed);
}

INSTANTIATE_TEST_SUITE_P(Net, Callbacks, ::testing::Values("tcp", "unix"));

}  // namespace
}  // namespace nettest
