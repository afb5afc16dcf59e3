// Calls, posts and signals between a client process and a broker over real
// sockets (TCP and Unix), in both directions: values of every kind,
// overloads, errors, the refusal of raw-pointer methods, service lookup,
// object references, and a broker method that calls back the very client
// waiting for it.
#include <climits>

#include "transport_fixture.h"

namespace nettest {
namespace {

class Transport : public ::testing::TestWithParam<std::string> {
 protected:
  BrokerSide side{listenAddress(GetParam())};
  ClientSide client{side.endpoint};
  boost::shared_ptr<RX::RXBroker>& broker = side.broker;
  std::shared_ptr<net::ClientSession>& session = client.session;
  boost::shared_ptr<RX::RXProxy> calc = client.broker->getProxy("Calc");
};

TEST_P(Transport, CallsCarryValuesAndErrorsAndPickTheOverloadByArgumentKinds) {
  RX::RXValue nested = RX::RXValue::array(0);
  nested.arrayPush(RX::RXValue(RX::RXValue::Binary{0, 1, 255}));
  nested.arrayPush(RX::RXValue(std::vector<std::string>{"p", "q"}));
  for (const RX::RXValue& v :
       {RX::RXValue(), RX::RXValue(INT_MIN), RX::RXValue(3.4e38f), RX::RXValue("h\xc3\xa9llo \"q\" \\"),
        RX::RXValue(std::string(200000, 'x')), nested}) {
    const RX::RXValue back = calc->call<RX::RXValue>("echo", v);
    EXPECT_TRUE(v == back && v.getType() == back.getType()) << v.toString().substr(0, 80);
  }
  EXPECT_EQ(-7, calc->call<int>("add", -10, 3));
  // Twice each: the second call goes through the client's uid cache.
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ("int", calc->call<std::string>("kind", 1));
    EXPECT_EQ("float", calc->call<std::string>("kind", 1.5f));
    EXPECT_EQ("string", calc->call<std::string>("kind", std::string("s")));
    EXPECT_EQ("list", calc->call<std::string>("kind", std::vector<std::string>{"a"}));
    EXPECT_EQ("list", calc->call<std::string>("kind", std::vector<std::string>{}));
    EXPECT_EQ("value", calc->call<std::string>("kind", true));
    EXPECT_EQ("value", calc->call<std::string>("kind", nested));
  }
  // An RXError keeps its module, method, message, and where it was raised.
  try {
    calc->call<void>("failRX", std::string("Data not found foo"));
    ADD_FAILURE() << "no exception";
  } catch (const RX::RXError& e) {
    EXPECT_EQ("Calc failRX Data not found foo", e.module() + " " + e.method() + " " + e.message());
    EXPECT_NE(std::string::npos, e.file().find("transport_fixture.h"));
    EXPECT_GT(e.line(), 0);
  }
  // Any other exception arrives as a RemoteError with its text.
  EXPECT_THROW(calc->call<void>("failStd", std::string("disk on fire")), net::RemoteError);
  EXPECT_EQ("disk on fire", errorOf([&] { calc->call<void>("failStd", std::string("disk on fire")); }));
  EXPECT_EQ("Calc: no method named nope", errorOf([&] { calc->call<void>("nope", 1); }));
  EXPECT_EQ("Calc: no method add accepting (string, int)",
            errorOf([&] { calc->call<int>("add", std::string("x"), 1); }));
  // Raw addresses mean nothing in another process.
  EXPECT_THROW(calc->call<void>("getPtr"), RX::RXError);
  EXPECT_EQ(
      "Calc::getPtr: getPtr returns an address that is only valid inside the broker process and cannot be "
      "called remotely",
      errorOf([&] { calc->call<void>("getPtr"); }));
  // Arguments that cannot travel fail in the caller and leave the link usable.
  int local = 0;
  EXPECT_NE("(no exception)", errorOf([&] {
              calc->genericCall("echo", {mz::AnyValue::fromOther(static_cast<void*>(&local))});
            }));
  EXPECT_EQ(5, calc->call<int>("add", 2, 3));
  // A client's failure comes back to the broker's caller.
  EXPECT_EQ("Tool: no method named nope", errorOf([&] { broker->getProxy("Tool")->call<void>("nope"); }));
}

TEST_P(Transport, PostsKeepTheirOrderBothWays) {
  const int kPosts = 1000;
  for (int i = 0; i < kPosts; ++i) calc->genericPost("record", {mz::AnyValue(i)});
  EXPECT_TRUE(receivedInOrder(side.calc->recorded, kPosts));
  // A post that can never run is dropped (and logged), as it would be locally:
  // posters take an exception for "the target has gone" only.
  EXPECT_EQ("(no exception)", errorOf([&] { calc->genericPost("nope", {}); }));

  boost::shared_ptr<RX::RXProxy> remoteTool = broker->getProxy("Tool");
  std::pair<int, int> notifyState{0, 0};
  for (int i = 0; i < kPosts; ++i)
    remoteTool->pCallNotify("onEvent", "key", RX::RXValue(i), RX::RXValue("msg"), &notifyState);
  EXPECT_EQ(kPosts, notifyState.first);
  EXPECT_TRUE(receivedInOrder(client.tool->events, kPosts));
}

TEST_P(Transport, FindServicesByName) {
  EXPECT_EQ("Module not found: Nope", errorOf([&] { client.broker->getProxy("Nope"); }));
  EXPECT_EQ("Service not found: Nope", session->service("Nope").error());
  mz::AnyObject remote = session->service("Calc").value();
  EXPECT_EQ("Test module of the transport.", remote.metaObject().description);
  ASSERT_EQ(1u, remote.findMethod("getPtr").size());
  EXPECT_EQ(4, remote.findMethod("getPtr")[0].mask);
  EXPECT_EQ(5u, remote.findMethod("kind").size());
  EXPECT_EQ(0, remote.signalId("ticked"));
  // Both directories, with the broker's ids; local names are not repeated.
  std::vector<std::string> names;
  for (const auto& s : session->services()) names.push_back(s.name);
  EXPECT_EQ((std::vector<std::string>{"Calc", "Tool"}), names);
  // The client's own service is found locally, not as a remote object.
  EXPECT_EQ(nullptr, dynamic_cast<net::RemoteObject*>(session->service("Tool").value().impl().get()));
  EXPECT_EQ("testbroker", session->brokerName());
  // Services registered and unregistered at the broker are announced, in order.
  testsupport::Collector<std::string> events;
  const mz::SignalLink added =
      session->serviceRegistered.connect([&](unsigned int, std::string name) { events.add("+" + name); });
  const mz::SignalLink removed =
      session->serviceUnregistered.connect([&](unsigned int, std::string name) { events.add("-" + name); });
  broker->session()->unregisterService(
      broker->session()->registerService("Gadget", mz::AnyObject(std::make_shared<mz::DynamicObject>())));
  EXPECT_TRUE(events.waitFor(2));
  EXPECT_EQ((std::vector<std::string>{"+Gadget", "-Gadget"}), events.items());
  session->serviceRegistered.disconnect(added);
  session->serviceUnregistered.disconnect(removed);
}

TEST_P(Transport, ObjectReferencesTravelBothWaysAndAreReleased) {
  std::future<void> destroyed;
  {
    mz::AnyObject counter = calc->call<mz::AnyObject>("makeCounter");
    destroyed = side.calc->lastCounter()->destroyed.get_future();
    // Its catalogue did not come with it: it is asked for on first use.
    EXPECT_EQ(0, counter.signalId("changed"));
    Recorder changes;
    mz::SignalLink link =
        counter.connect("changed", [&](mz::AnyValue v) { changes.add(v.toRXValue()); }).value();
    side.calc->lastCounter()->changed(mz::AnyValue(0));
    side.calc->lastCounter()->changed(mz::AnyValue(1));
    EXPECT_TRUE(receivedInOrder(changes, 2));
    // Handed back, the reference is the broker's own object again.
    EXPECT_TRUE(calc->call<bool>("isCounter", counter));
    counter.disconnect(link).waitAndCheck();
  }
  EXPECT_EQ(std::future_status::ready, destroyed.wait_for(kWait)) << "the broker still holds the Counter";
}

// The same behaviour through both doors: the client following a signal of a
// broker service, and the broker following a signal of a client service.
TEST_P(Transport, SignalsAreFollowedAndEmittedBothWays) {
  struct Side {
    const char* name;
    mz::SignalF<void(mz::AnyValue)>& signal;  // the object's own signal
    mz::AnyObject remote;                     // the other process's handle to the object
    const char* signalName;
    bool emitWaits;  // for the signal to have run
  } sides[] = {{"Calc", side.calc->ticked, session->service("Calc").value(), "ticked", true},
               {"Tool", client.tool->beeped, broker->session()->service("Tool").value(), "beeped", false}};
  for (Side& s : sides) {
    SCOPED_TRACE(s.name);
    Recorder first, second, local;
    const mz::SignalLink link =
        s.remote.connect(s.signalName, [&](mz::AnyValue v) { first.add(v.toRXValue()); }).value();
    EXPECT_EQ(1u, s.signal.subscriberCount());
    for (int i = 0; i < 100; ++i) s.signal(mz::AnyValue(i));
    EXPECT_TRUE(receivedInOrder(first, 100));
    s.remote.disconnect(link).waitAndCheck();
    EXPECT_EQ(0u, s.signal.subscriberCount()) << "the object still forwards to the other process";
    const mz::SignalLink link2 =
        s.remote.connect(s.signalName, [&](mz::AnyValue v) { second.add(v.toRXValue()); }).value();
    // Emitting through the handle runs the object's signal in its own process;
    // that emission comes back to the handle's subscriber.
    const mz::SignalLink direct = s.signal.connect([&](mz::AnyValue v) { local.add(v.toRXValue()); });
    s.remote.emit(s.signalName, {mz::AnyValue(77)});
    EXPECT_TRUE(!s.emitWaits || local.size() == 1u) << "emit returned before the signal ran";
    ASSERT_TRUE(local.waitFor(1) && second.waitFor(1));
    EXPECT_EQ(77, local.items()[0].toInt());
    EXPECT_EQ(77, second.items()[0].toInt());
    EXPECT_EQ(100u, first.size()) << "a disconnected subscriber was called";
    s.signal.disconnect(direct);
    EXPECT_EQ(std::string(s.name) + ": no signal named nope",
              errorOf([&] { s.remote.emit("nope", {mz::AnyValue(1)}); }));
    EXPECT_NE("", s.remote.connect("nope", [](mz::AnyValue) {}).error());
    s.remote.disconnect(link2).waitAndCheck();
  }
}

TEST_P(Transport, BrokerMethodCallsBackTheClientThatWaitsForIt) {
  // The extractor case: the client waits in Calc.callClient while the broker
  // calls the client's Tool.subscribe, whose reply the broker must read.
  const auto callClient = [&](const std::string& method, const RX::RXValue& argument) {
    return calc->call<RX::RXValue>("callClient", std::string("Tool"), method, argument);
  };
  EXPECT_EQ("subscribed x", callClient("subscribe", RX::RXValue("x")).toString(0));
  // Deeper: Tool.askBroker calls Calc.add while both outer calls wait; from
  // several client threads at once.
  std::vector<std::future<int>> results;
  for (int t = 0; t < 4; ++t)
    results.push_back(std::async(std::launch::async, [&, t] {
      int sum = 0;
      for (int i = 0; i < 20; ++i) sum += callClient("askBroker", RX::RXValue(t * 100 + i)).toInt();
      return sum;
    }));
  for (int t = 0; t < 4; ++t) {
    ASSERT_EQ(std::future_status::ready, results[t].wait_for(kWait)) << "deadlock?";
    EXPECT_EQ(20 * (t * 100 + 1) + 190, results[t].get());
  }
  // A posted callback runs on the client's event reader, which must keep
  // reading for the broker's call back to Tool.subscribe to be answered.
  std::pair<int, int> notifyState{0, 0};
  for (int i = 0; i < 3; ++i)
    broker->getProxy("Tool")->pCallNotify("onRelay", "key", RX::RXValue(i), RX::RXValue(""), &notifyState);
  ASSERT_TRUE(client.tool->events.waitFor(3)) << "a callback calling the broker stalled its own client";
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ("subscribed " + std::to_string(i), client.tool->events.items()[i].toString(0));
}

INSTANTIATE_TEST_SUITE_P(Net, Transport, ::testing::Values("tcp", "unix"));

}  // namespace
}  // namespace nettest
