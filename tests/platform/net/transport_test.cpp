// Calls, posts and signals between a client and a broker over TCP and Unix sockets, both ways,
// for what the memory's clients do not reach end to end.
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

// Values and overloads are covered end to end; only a test module can raise these.
TEST_P(Transport, CallsCarryErrors) {
  try {
    calc->call<void>("failRX", std::string("Data not found foo"));
    ADD_FAILURE() << "no exception";
  } catch (const RX::RXError& e) {
    EXPECT_EQ("Calc failRX Data not found foo", e.module() + " " + e.method() + " " + e.message());
    EXPECT_NE(std::string::npos, e.file().find("transport_fixture.h"));
    EXPECT_GT(e.line(), 0);
  }
  // Its text is checked end to end.
  EXPECT_THROW(calc->call<void>("failStd", std::string("disk on fire")), net::RemoteError);
  EXPECT_EQ("Calc: no method named nope", errorOf([&] { calc->call<void>("nope", 1); }));
  EXPECT_EQ("Calc: no method add accepting (string, int)",
            errorOf([&] { calc->call<int>("add", std::string("x"), 1); }));
  // Arguments that cannot travel fail in the caller and leave the link usable.
  int local = 0;
  EXPECT_NE("(no exception)", errorOf([&] {
              calc->genericCall("record", {mz::AnyValue::fromOther(static_cast<void*>(&local))});
            }));
  EXPECT_EQ(5, calc->call<int>("add", 2, 3));
  // A client's failure comes back to the broker's caller.
  EXPECT_EQ("Tool: no method named nope", errorOf([&] { broker->getProxy("Tool")->call<void>("nope"); }));
}

// Notifications towards a client are checked end to end, posts towards the broker here.
TEST_P(Transport, PostsKeepTheirOrder) {
  const int kPosts = 1000;
  for (int i = 0; i < kPosts; ++i) calc->genericPost("record", {mz::AnyValue(i)});
  EXPECT_TRUE(receivedInOrder(side.calc->recorded, kPosts));
  // A post that can never run is dropped, as locally: posters only learn that the target has gone.
  EXPECT_EQ("(no exception)", errorOf([&] { calc->genericPost("nope", {}); }));
}

TEST_P(Transport, FindServicesByName) {
  EXPECT_EQ("Module not found: Nope", errorOf([&] { client.broker->getProxy("Nope"); }));
  mz::AnyObject remote = session->service("Calc").value();
  EXPECT_EQ(0, remote.signalId("ticked"));
  // Both directories; local names are not repeated.
  std::vector<std::string> names;
  for (const auto& s : session->services()) names.push_back(s.name);
  EXPECT_EQ((std::vector<std::string>{"Calc", "Tool"}), names);
  // The client's own service is found locally, not as a remote object.
  EXPECT_EQ(nullptr, dynamic_cast<net::RemoteObject*>(session->service("Tool").value().impl().get()));
  EXPECT_EQ("testbroker", session->brokerName());
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
    EXPECT_TRUE(calc->call<bool>("isCounter", counter));
  }
  EXPECT_EQ(std::future_status::ready, destroyed.wait_for(kWait)) << "the broker still holds the Counter";
}

// The client following a broker service's signal, and the broker a client service's.
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
    // Emitting through the handle runs the object's signal, which comes back to the handle.
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
  // Calc.callClient -> Tool.askBroker -> Calc.add, from several client threads at once.
  const auto callClient = [&](const std::string& method, const RX::RXValue& argument) {
    return calc->call<RX::RXValue>("callClient", std::string("Tool"), method, argument);
  };
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
  // A posted callback calling the broker, which calls the client back: the event reader must go on.
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
