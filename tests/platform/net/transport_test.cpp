// Calls from a client process to a broker's module over real sockets (TCP and
// Unix): values of every kind, overloads, errors, the refusal of raw-pointer
// methods, service lookup and object references.
#include <climits>

#include "transport_fixture.h"

namespace nettest {
namespace {

class Calls : public TransportFixture {};

TEST_P(Calls, CarryEveryValueKind) {
  boost::shared_ptr<RX::RXProxy> calc = clientBroker->getProxy("Calc");
  RX::RXValue nested = RX::RXValue::array(0);
  nested.arrayPush(RX::RXValue(1));
  RX::RXValue inner = RX::RXValue::array(0);
  inner.arrayPush(RX::RXValue("a"));
  inner.arrayPush(RX::RXValue(2.5f));
  inner.arrayPush(RX::RXValue());
  nested.arrayPush(inner);
  nested.arrayPush(RX::RXValue::array(0));
  const std::vector<RX::RXValue> values = {
      RX::RXValue(),
      RX::RXValue(true),
      RX::RXValue(false),
      RX::RXValue(0),
      RX::RXValue(INT_MIN),
      RX::RXValue(INT_MAX),
      RX::RXValue(-1.25f),
      RX::RXValue(3.4e38f),
      RX::RXValue(""),
      RX::RXValue("h\xc3\xa9llo \"quoted\" \\ back"),
      RX::RXValue(std::string(200000, 'x')),
      RX::RXValue(RX::RXValue::Binary{0, 1, 2, 255}),
      RX::RXValue(RX::RXValue::Binary{}),
      RX::RXValue(std::vector<std::string>{"p", "q"}),
      nested,
  };
  for (const RX::RXValue& v : values) {
    RX::RXValue back = calc->call<RX::RXValue>("echo", v);
    EXPECT_EQ(v.getType(), back.getType()) << v.toString().substr(0, 80);
    EXPECT_TRUE(v == back) << v.toString().substr(0, 80) << " came back as " << back.toString().substr(0, 80);
  }
  EXPECT_EQ(5, calc->call<int>("add", 2, 3));
  EXPECT_EQ(-7, calc->call<int>("add", -10, 3));
}

TEST_P(Calls, PickTheOverloadByArgumentKinds) {
  boost::shared_ptr<RX::RXProxy> calc = clientBroker->getProxy("Calc");
  // Twice each: the second call goes through the client's uid cache.
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ("int", calc->call<std::string>("kind", 1));
    EXPECT_EQ("float", calc->call<std::string>("kind", 1.5f));
    EXPECT_EQ("string", calc->call<std::string>("kind", std::string("s")));
    EXPECT_EQ("list", calc->call<std::string>("kind", std::vector<std::string>{"a"}));
    EXPECT_EQ("list", calc->call<std::string>("kind", std::vector<std::string>{}));
    EXPECT_EQ("value", calc->call<std::string>("kind", true));
    RX::RXValue mixed = RX::RXValue::array(0);
    mixed.arrayPush(RX::RXValue(1));
    EXPECT_EQ("value", calc->call<std::string>("kind", mixed));
  }
}

TEST_P(Calls, CarryErrorsWhole) {
  boost::shared_ptr<RX::RXProxy> calc = clientBroker->getProxy("Calc");
  // An RXError keeps its module, method, message, and where it was raised.
  try {
    calc->call<void>("failRX", std::string("Data not found foo"));
    ADD_FAILURE() << "no exception";
  } catch (const RX::RXError& e) {
    EXPECT_EQ("Calc", e.module());
    EXPECT_EQ("failRX", e.method());
    EXPECT_EQ("Data not found foo", e.message());
    EXPECT_NE(std::string::npos, e.file().find("transport_fixture.h"));
    EXPECT_GT(e.line(), 0);
  }
  // Any other exception arrives as a RemoteError with its text.
  try {
    calc->call<void>("failStd", std::string("disk on fire"));
    ADD_FAILURE() << "no exception";
  } catch (const net::RemoteError& e) {
    EXPECT_STREQ("disk on fire", e.what());
  }
  EXPECT_EQ("Calc: no method named nope", errorOf([&] { calc->call<void>("nope", 1); }));
  EXPECT_EQ("Calc: no method add accepting (string, int)",
            errorOf([&] { calc->call<int>("add", std::string("x"), 1); }));
  // Raw addresses mean nothing in another process.
  try {
    calc->call<void>("getPtr");
    ADD_FAILURE() << "getPtr was called remotely";
  } catch (const RX::RXError& e) {
    EXPECT_EQ("Calc", e.module());
    EXPECT_EQ("getPtr", e.method());
    EXPECT_EQ(
        "getPtr returns an address that is only valid inside the broker process and cannot be called "
        "remotely",
        e.message());
  }
  // Arguments that cannot travel fail in the caller and leave the link usable.
  int local_ = 0;
  EXPECT_NE("(no exception)", errorOf([&] {
              calc->genericCall("echo", {mz::AnyValue::fromOther(static_cast<void*>(&local_))});
            }));
  EXPECT_EQ(5, calc->call<int>("add", 2, 3));
}

TEST_P(Calls, PostsKeepTheirOrder) {
  boost::shared_ptr<RX::RXProxy> remote = clientBroker->getProxy("Calc");
  const int kPosts = 1000;
  for (int i = 0; i < kPosts; ++i) remote->genericPost("record", {mz::AnyValue(i)});
  ASSERT_TRUE(calc->recorded.waitFor(kPosts)) << "only " << calc->recorded.size() << " posts arrived";
  std::vector<RX::RXValue> got = calc->recorded.values();
  for (int i = 0; i < kPosts; ++i) ASSERT_EQ(i, got[static_cast<std::size_t>(i)].toInt()) << "post " << i;
  // A post that can never run is dropped (and logged), as it would be locally:
  // posters take an exception for "the target has gone".
  EXPECT_EQ("(no exception)", errorOf([&] { remote->genericPost("nope", {}); }));
}

TEST_P(Calls, FindServicesByName) {
  EXPECT_EQ("Module not found: Nope", errorOf([&] { clientBroker->getProxy("Nope"); }));
  EXPECT_EQ("Service not found: Nope", session->service("Nope").error());
  mz::AnyObject calc = session->service("Calc").value();
  ASSERT_TRUE(calc.isValid());
  EXPECT_EQ("Test module of the transport.", calc.metaObject().description);
  ASSERT_FALSE(calc.findMethod("getPtr").empty());
  EXPECT_EQ(4, calc.findMethod("getPtr")[0].mask);
  EXPECT_EQ(5u, calc.findMethod("kind").size());
  EXPECT_EQ(0, calc.signalId("ticked"));
  // Both directories, with the broker's ids; local names are not repeated.
  std::vector<std::string> names;
  for (const auto& s : session->services()) names.push_back(s.name);
  EXPECT_EQ((std::vector<std::string>{"Calc", "Tool"}), names);
  // The client's own service is found locally, not as a remote object.
  mz::AnyObject toolObject = session->service("Tool").value();
  EXPECT_EQ(nullptr, dynamic_cast<net::RemoteObject*>(toolObject.impl().get()));
  EXPECT_FALSE(session->brokerName().empty());
  EXPECT_EQ("testbroker", session->brokerName());
}

TEST_P(Calls, PassObjectReferencesBothWays) {
  boost::shared_ptr<RX::RXProxy> remote = clientBroker->getProxy("Calc");
  std::future<void> destroyed;
  {
    mz::AnyObject counter = remote->call<mz::AnyObject>("makeCounter");
    ASSERT_TRUE(counter.isValid());
    destroyed = calc->lastCounter()->destroyed.get_future();
    // Its catalogue did not come with it: it is asked for on first use.
    EXPECT_EQ(0, counter.signalId("changed"));
    Recorder changes;
    mz::SignalLink link =
        counter.connect("changed", [&](mz::AnyValue v) { changes.add(v.toRXValue()); }).value();
    calc->lastCounter()->changed(mz::AnyValue(7));
    calc->lastCounter()->changed(mz::AnyValue(8));
    ASSERT_TRUE(changes.waitFor(2));
    EXPECT_EQ(7, changes.values()[0].toInt());
    EXPECT_EQ(8, changes.values()[1].toInt());
    // Handed back, the reference is the broker's own object again.
    EXPECT_TRUE(remote->call<bool>("isCounter", counter));
    counter.disconnect(link).waitAndCheck();
  }
  // Dropping the last handles releases the broker's objects.
  EXPECT_EQ(std::future_status::ready, destroyed.wait_for(kWait)) << "the broker still holds the Counter";
}

INSTANTIATE_TEST_SUITE_P(Net, Calls, ::testing::Values("tcp", "unix"));

}  // namespace
}  // namespace nettest
