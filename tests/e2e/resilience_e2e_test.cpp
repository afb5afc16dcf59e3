// A client process against the real rxbroker process when things go wrong:
// the broker killed and started again (what the client subscribed, mapped and
// followed is made again), and a subscriber whose callback does not match what
// the memory posts (it keeps its subscription, as an in-process module does).
#include <gtest/gtest.h>

#include <algorithm>
#include <boost/make_shared.hpp>

#include "e2e_process.h"
#include "net/clientsession.h"
#include "rx/rxbroker.h"
#include "rx/rxerror.h"
#include "rx/rxmodule.h"
#include "rx/rxproxy.h"

namespace e2e {
namespace {

using Names = std::vector<std::string>;

// A client module: a subscriber callback that records "KEY=VALUE", a callback
// whose parameters match no notification, and a signal the memory can map.
class Follower : public RX::RXModule {
 public:
  explicit Follower(boost::shared_ptr<RX::RXBroker> broker) : RX::RXModule(broker, "Follower") {
    functionName("onNotify", "Follower", "Records a notification.");
    addParam("key", "");
    addParam("value", "");
    addParam("message", "");
    advertiseMethod(getCurrentMethodDescription(), this, &Follower::onNotify);
    functionName("onEvent", "Follower", "Takes one int: no notification fits.");
    addParam("value", "");
    advertiseMethod(getCurrentMethodDescription(), this, &Follower::onEvent);
    // (A mapped signal's name may not be shorter than its service's.)
    advertiseSignal("beepedLoudly", &beeped);
  }
  void onNotify(const std::string& key, const RX::RXValue& value, const RX::RXValue&) {
    notified.add(RX::RXValue(key + "=" + value.toString(0)));
  }
  void onEvent(int value) { ints.add(RX::RXValue(value)); }

  mz::SignalF<void(mz::AnyValue)> beeped;
  Recorder notified, ints;
};

// The message of the RXError f throws, without its source place.
std::string errorOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const RX::RXError& e) {
    return e.message();
  }
  return "(no RXError)";
}

Names sorted(const std::vector<RX::RXValue>& values) {
  Names out;
  for (const RX::RXValue& v : values) out.push_back(v.toString(0));
  std::sort(out.begin(), out.end());
  return out;
}

class BrokerRestart : public ::testing::TestWithParam<bool> {};

TEST_P(BrokerRestart, SubscriptionsMappingsAndFollowedKeysAreMadeAgain) {
  const bool remake = GetParam();
  TempDir dir;
  auto broker = std::make_unique<BrokerProcess>(dir, "tcp://127.0.0.1:0");
  const std::string endpoint = broker->endpoint;
  net::ClientSession::Options options;
  options.remakeSubscriptions = remake;
  options.reconnectMin = 20ms;
  options.reconnectMax = 200ms;
  auto session = net::ClientSession::connect(endpoint, options);
  Recorder ups;
  session->reconnected.connect([&] { ups.add(RX::RXValue(1)); });
  auto client = RX::RXBroker::create("follower", RX::RXBroker::Options(), session);
  auto follower = boost::make_shared<Follower>(client);
  follower->initModule();

  boost::shared_ptr<RX::RXProxy> memory = client->getProxy("RXMemory");
  memory->call<void>("subscribeToEvent", std::string("R/Event"), std::string("Follower"),
                     std::string("onNotify"));
  memory->call<void>("subscribeToEvent", std::string("R/Dropped"), std::string("Follower"),
                     std::string("onNotify"));
  memory->call<void>("unsubscribeToEvent", std::string("R/Dropped"), std::string("Follower"));
  memory->call<void>("addMapping", std::string("Follower"), std::string("beepedLoudly"),
                     std::string("R/Beep"));
  memory->call<void>("subscribeToMicroEvent", std::string("R/Beep"), std::string("Follower"),
                     std::string("m"), std::string("onNotify"));
  mz::AnyObject key = memory->call<mz::AnyObject>("subscriber", std::string("R/Key"));
  Recorder followed;
  const mz::SignalLink link =
      key.connect("signal", [&](mz::AnyValue v) { followed.add(v.toRXValue()); }).value();

  broker->kill();
  broker = std::make_unique<BrokerProcess>(dir, endpoint);
  ASSERT_TRUE(ups.waitFor(1)) << "reconnected() not emitted";

  // Another client raises; the follower's mapped signal raises too.
  auto other = net::ClientSession::connect(endpoint);
  mz::AnyObject otherMemory = other->service("RXMemory").value();
  otherMemory.call<void>("raiseEvent", std::string("R/Event"), RX::RXValue(7));
  otherMemory.call<void>("raiseEvent", std::string("R/Key"), RX::RXValue(8));
  auto subscribers = [&](const std::string& event) {
    return otherMemory.call<Names>("getSubscribers", event);
  };
  if (remake) {
    follower->beeped(mz::AnyValue(9));
    ASSERT_TRUE(follower->notified.waitFor(2)) << "subscriptions not made again";
    EXPECT_EQ((Names{"R/Beep=9", "R/Event=7"}), sorted(follower->notified.values()));
    ASSERT_TRUE(followed.waitFor(1)) << "the key's signal was not followed again";
    EXPECT_EQ(8, followed.values()[0].toInt());
    EXPECT_EQ(Names{"Follower"}, subscribers("R/Event"));
    EXPECT_EQ(Names{"Follower"}, subscribers("R/Beep"));
    EXPECT_EQ("Data not found R/Dropped", errorOf([&] { subscribers("R/Dropped"); }))
        << "an unsubscribed event was subscribed again";
    // The application's link id ends the connection made again.
    EXPECT_NO_THROW(key.disconnect(link).waitAndCheck());
  } else {
    EXPECT_EQ(Names{}, subscribers("R/Event"));
    EXPECT_EQ("Data not found R/Beep", errorOf([&] { subscribers("R/Beep"); }));
    EXPECT_TRUE(followed.values().empty());
  }
  client->shutdown();
  session->close();
  other->close();
}

INSTANTIATE_TEST_SUITE_P(E2E, BrokerRestart, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "Remade" : "RemakingOff";
                         });

TEST(MismatchedCallback, ClientSubscriberKeepsItsSubscriptionAndIsWarnedOnce) {
  TempDir dir;
  BrokerProcess broker(dir, "tcp://127.0.0.1:0", /*readLog=*/true);
  auto session = net::ClientSession::connect(broker.endpoint);
  auto client = RX::RXBroker::create("follower", RX::RXBroker::Options(), session);
  auto follower = boost::make_shared<Follower>(client);
  follower->initModule();
  boost::shared_ptr<RX::RXProxy> memory = client->getProxy("RXMemory");

  // onEvent exists, but takes one int: the memory posts (key, value, message).
  memory->call<void>("subscribeToEvent", std::string("R/Mismatch"), std::string("Follower"),
                     std::string("onEvent"));
  const auto start = std::chrono::steady_clock::now();
  const int kRaises = 5;
  for (int i = 0; i < kRaises; ++i)
    memory->call<void>("raiseEvent", std::string("R/Mismatch"), RX::RXValue(i));
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(Names{"Follower"}, memory->call<Names>("getSubscribers", std::string("R/Mismatch")));

  // The broker logs a known warning for this call: every line the raises
  // logged comes before it.
  memory->call<void>("unregisterModuleReference", std::string("Follower"));
  const std::optional<Names> lines = broker.linesUntil("unregisterModuleReference is deprecated");
  ASSERT_TRUE(lines) << "the broker's log did not show the marker";
  Names warnings;
  for (const std::string& line : *lines)
    if (line.find("post to Follower.onEvent") != std::string::npos) warnings.push_back(line);
  ASSERT_FALSE(warnings.empty()) << "no warning for the dropped posts";
  // The line after its timestamp.
  EXPECT_EQ(
      "[rx] [warning] [net.object] post to Follower.onEvent dropped: "
      "no method onEvent accepting (string, int, string)",
      warnings[0].substr(std::min(warnings[0].size(), warnings[0].find("[rx] "))));
  // One line a second at most (the raises may take longer on a loaded machine).
  EXPECT_LE(warnings.size(),
            1 + static_cast<std::size_t>(std::chrono::duration_cast<std::chrono::seconds>(elapsed).count()));

  // Subscribed again with a matching callback, the module receives events.
  memory->call<void>("subscribeToEvent", std::string("R/Mismatch"), std::string("Follower"),
                     std::string("onNotify"));
  memory->call<void>("raiseEvent", std::string("R/Mismatch"), RX::RXValue(42));
  ASSERT_TRUE(follower->notified.waitFor(1));
  EXPECT_EQ("R/Mismatch=42", follower->notified.values()[0].toString(0));
  EXPECT_TRUE(follower->ints.values().empty());
  client->shutdown();
  session->close();
}

}  // namespace
}  // namespace e2e
