// The real rxbroker driven by clients in this process and in child processes, and
// what goes wrong between them: clients killed or stalled, the broker restarted.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <fstream>

#include "net/clientsession.h"
#include "rx/rxbroker.h"
#include "rx/rxmodule.h"
#include "rx/rxproxy.h"
#include "support/capture.h"
#include "support/process.h"

namespace {

using namespace std::chrono_literals;
using RX::RXValue;
using S = std::string;
using testsupport::BrokerProcess;
using testsupport::Child;
using testsupport::Collector;
using testsupport::errorOf;
using testsupport::TempDir;
using Names = std::vector<std::string>;

// A client module: a subscriber callback recording values and "KEY=VALUE" texts,
// onInt that no notification fits, extractor entry points, a signal to map.
class Tool : public RX::RXModule {
 public:
  Tool(boost::shared_ptr<RX::RXBroker> broker, const std::string& name) : RX::RXModule(broker, name) {
    functionName("onEvent", name, "Records a notification.");
    for (const char* param : {"key", "value", "message"}) addParam(param, "");
    advertiseMethod(getCurrentMethodDescription(), this, &Tool::onEvent);
    functionName("onInt", name, "Takes one int: no notification fits.");
    addParam("value", "");
    advertiseMethod(getCurrentMethodDescription(), this, &Tool::onInt);
    functionName("getCurrentPrecision", name, "Marks this module as an extractor.");
    advertiseMethod(getCurrentMethodDescription(), this, &Tool::getCurrentPrecision);
    for (const char* method : {"subscribe", "unsubscribe"}) {
      functionName(method, name, "");
      addParam("subscriberId", "");
      advertiseMethod(getCurrentMethodDescription(), this,
                      S(method) == "subscribe" ? &Tool::subscribe : &Tool::unsubscribe);
    }
    advertiseSignal("beepedLoudly",
                    &beeped);  // (a mapped signal's name may not be shorter than its service's)
  }
  void onEvent(const std::string& key, const RXValue& value, const RXValue&) {
    events.add(value);
    notified.add(key + "=" + value.toString(0));
  }
  void onInt(int) {}
  float getCurrentPrecision() { return 1.0f; }
  void subscribe(const std::string& id) { extractorCalls.add("subscribe " + id); }
  void unsubscribe(const std::string& id) { extractorCalls.add("unsubscribe " + id); }

  mz::SignalF<void(mz::AnyValue)> beeped;
  Collector<RXValue> events;
  Collector<std::string> notified, extractorCalls;
};

// A client of the broker at `endpoint` in this process, serving a Tool named `toolName`.
struct Client {
  Client(const std::string& endpoint, const std::string& toolName,
         const net::ClientSession::Options& options = {})
      : session(net::ClientSession::connect(endpoint, options)),
        broker(RX::RXBroker::create("e2e", RX::RXBroker::Options(), session)),
        memory(broker->getProxy("RXMemory")),
        tool(boost::make_shared<Tool>(broker, toolName)) {
    tool->initModule();
  }
  ~Client() {
    tool.reset();
    broker->shutdown();
    session->close();
  }
  std::shared_ptr<net::ClientSession> session;
  boost::shared_ptr<RX::RXBroker> broker;
  boost::shared_ptr<RX::RXProxy> memory;
  boost::shared_ptr<Tool> tool;
};

BrokerProcess startBroker(const TempDir& dir, const std::vector<std::string>& extra = {}) {
  return BrokerProcess(RX_BROKER_PATH, dir.path, {"tcp://127.0.0.1:0", "unix://" + dir.path + "/rx.sock"},
                       extra);
}

TEST(BrokerE2E, MemoryServesClientProcesses) {
  TempDir dir;
  ::mkdir((dir.path + "/tavro").c_str(), 0755);
  std::ofstream(dir.path + "/tavro/rxmemory_map_signal_event.txt")
      << "E2ETool.beepedLoudly: E2E/Beep # mapped\n";
  BrokerProcess broker = startBroker(dir);
  ASSERT_EQ(2u, broker.endpoints.size());
  for (const std::string& endpoint : broker.endpoints) {
    SCOPED_TRACE(endpoint);
    Collector<std::string> gone;  // services gone from the broker
    Client client(endpoint, "E2ETool");
    client.session->serviceUnregistered.connect([&](unsigned int, std::string name) { gone.add(name); });
    auto& memory = client.memory;

    // Notifications posted to the client's module, in order.
    memory->call<void>("subscribeToEvent", S("E2E/Event"), S("E2ETool"), S("onEvent"));
    for (int i = 0; i < 200; ++i) memory->call<void>("raiseEvent", S("E2E/Event"), RXValue(i));
    ASSERT_TRUE(client.tool->events.waitFor(200));
    for (int i = 0; i < 200; ++i)
      ASSERT_EQ(i, client.tool->events.items()[static_cast<std::size_t>(i)].toInt());

    // The key's signal object, followed and emitted on from here.
    mz::AnyObject signal = memory->call<mz::AnyObject>("subscriber", S("E2E/Event"));
    Collector<RXValue> emitted;
    mz::SignalLink link =
        signal.connect("signal", [&](mz::AnyValue v) { emitted.add(v.toRXValue()); }).value();
    memory->call<void>("raiseEvent", S("E2E/Event"), RXValue(500));
    signal.emit("signal", {mz::AnyValue(501)});  // raises the key
    EXPECT_EQ(501, memory->call<RXValue>("getData", S("E2E/Event")).toInt());
    ASSERT_TRUE(emitted.waitFor(2));
    EXPECT_EQ("500 501", emitted.items()[0].toString() + " " + emitted.items()[1].toString());
    signal.disconnect(link).waitAndCheck();

    // An extractor in this process, called by the memory while this thread
    // waits for subscribeToEvent.
    memory->call<void>("declareEvent", S("E2E/Extracted"), S("E2ETool"));
    memory->call<void>("subscribeToEvent", S("E2E/Extracted"), S("E2ETool"), S("onEvent"));
    EXPECT_EQ(Names{"subscribe E2EToolE2E/Extracted"}, client.tool->extractorCalls.items())
        << "not called during the subscription";
    memory->call<void>("unsubscribeToEvent", S("E2E/Extracted"), S("E2ETool"));
    EXPECT_EQ((Names{"subscribe E2EToolE2E/Extracted", "unsubscribe E2EToolE2E/Extracted"}),
              client.tool->extractorCalls.items());

    // The mapping file maps this module's signal to a memory event.
    memory->call<void>("subscribeToMicroEvent", S("E2E/Beep"), S("E2ETool"), S("m"), S("onEvent"));
    client.tool->beeped(mz::AnyValue(9));
    EXPECT_TRUE(client.tool->notified.waitUntil([](const Names& n) {
      return !n.empty() && n.back() == "E2E/Beep=9";
    })) << "the mapped signal did not raise E2E/Beep";

    // A client process killed is dropped; the next raise drops its subscription.
    Child other({RX_E2E_CLIENT_PATH, endpoint, "E2E/Killed"});
    ASSERT_EQ("ready", other.readLine().value_or("(nothing)"));
    auto subscribers = [&] { return memory->call<Names>("getSubscribers", S("E2E/Killed")); };
    memory->call<void>("raiseEvent", S("E2E/Killed"), RXValue(1));
    EXPECT_EQ("event E2E/Killed 1 ", other.readLine().value_or("(nothing)"));
    other.signal(SIGKILL);
    ASSERT_TRUE(gone.waitFor(1)) << "the broker kept the dead client";
    EXPECT_EQ(Names{"E2EClient"}, gone.items());
    memory->call<void>("raiseEvent", S("E2E/Killed"), RXValue(2));
    EXPECT_EQ(Names{}, subscribers());
  }
}

// Two subscriber processes stop reading (SIGSTOP) while events are raised: the broker
// cuts them off, and a healthy subscriber gets every event, in order.
TEST(BrokerE2E, StalledSubscriberProcessesAreCutOffAndStallNobody) {
  TempDir dir;
  BrokerProcess broker = startBroker(dir, {"--max-output-bytes", "256KiB", "--soft-output-bytes", "64KiB"});
  const std::string endpoint = broker.endpoints.at(0);
  Child stalled1({RX_E2E_CLIENT_PATH, endpoint, "E2E/Flood", "Stalled1"});
  Child stalled2({RX_E2E_CLIENT_PATH, endpoint, "E2E/Flood", "Stalled2"});
  ASSERT_TRUE(stalled1.readLine() == "ready" && stalled2.readLine() == "ready");
  Collector<std::string> gone;
  Client client(endpoint, "E2ETool");
  client.memory->call<void>("subscribeToEvent", S("E2E/Flood"), S("E2ETool"), S("onEvent"));
  client.session->serviceUnregistered.connect([&](unsigned int, std::string name) {
    if (name.compare(0, 7, "Stalled") == 0) gone.add(name);
  });
  stalled1.signal(SIGSTOP);
  stalled2.signal(SIGSTOP);
  const int kEvents = 3000;  // 6 MB towards each stalled process
  for (int i = 0; i < kEvents; ++i) {
    // 16 events (32 KB) at most unread by the healthy one: only the stalled reach the limits.
    ASSERT_TRUE(client.tool->events.waitFor(std::max(0, i - 16)))
        << "the healthy subscriber fell behind at " << i;
    RXValue value = RXValue::array(0);
    value.arrayPush(RXValue(i));
    value.arrayPush(RXValue(std::string(2048, 'x')));
    client.memory->call<void>("raiseEvent", S("E2E/Flood"), value);
  }
  ASSERT_TRUE(client.tool->events.waitFor(kEvents))
      << "the healthy subscriber got " << client.tool->events.size() << " of " << kEvents << " events";
  const std::vector<RXValue> got = client.tool->events.items();
  for (int i = 0; i < kEvents; ++i)
    ASSERT_EQ(i, got[static_cast<std::size_t>(i)][0].toInt()) << "out of order";
  EXPECT_TRUE(gone.waitFor(2)) << "stalled clients still served: " << gone.size();
}

class BrokerRestart : public ::testing::TestWithParam<bool> {};

TEST_P(BrokerRestart, SubscriptionsMappingsAndFollowedKeysAreMadeAgain) {
  const bool remake = GetParam();
  TempDir dir;
  auto broker = std::make_unique<BrokerProcess>(RX_BROKER_PATH, dir.path, Names{"tcp://127.0.0.1:0"});
  const std::string endpoint = broker->endpoints.at(0);
  net::ClientSession::Options options;
  options.remakeSubscriptions = remake;
  options.reconnectMin = 20ms;
  options.reconnectMax = 200ms;
  Collector<int> ups;
  Collector<RXValue> followed;
  Client client(endpoint, "Follower", options);
  client.session->reconnected.connect([&] { ups.add(1); });
  auto& memory = client.memory;
  memory->call<void>("subscribeToEvent", S("R/Event"), S("Follower"), S("onEvent"));
  memory->call<void>("subscribeToEvent", S("R/Dropped"), S("Follower"), S("onEvent"));
  memory->call<void>("unsubscribeToEvent", S("R/Dropped"), S("Follower"));
  memory->call<void>("addMapping", S("Follower"), S("beepedLoudly"), S("R/Beep"));
  memory->call<void>("subscribeToMicroEvent", S("R/Beep"), S("Follower"), S("m"), S("onEvent"));
  mz::AnyObject key = memory->call<mz::AnyObject>("subscriber", S("R/Key"));
  const mz::SignalLink link =
      key.connect("signal", [&](mz::AnyValue v) { followed.add(v.toRXValue()); }).value();

  broker->stop(SIGKILL);
  broker = std::make_unique<BrokerProcess>(RX_BROKER_PATH, dir.path, Names{endpoint});
  ASSERT_TRUE(ups.waitFor(1)) << "reconnected() not emitted";

  // Another client raises; the follower's mapped signal raises too.
  auto other = net::ClientSession::connect(endpoint);
  mz::AnyObject otherMemory = other->service("RXMemory").value();
  otherMemory.call<void>("raiseEvent", S("R/Event"), RXValue(7));
  otherMemory.call<void>("raiseEvent", S("R/Key"), RXValue(8));
  auto subscribers = [&](const std::string& event) {
    return otherMemory.call<Names>("getSubscribers", event);
  };
  if (remake) {
    client.tool->beeped(mz::AnyValue(9));
    ASSERT_TRUE(client.tool->notified.waitFor(2)) << "subscriptions not made again";
    Names notified = client.tool->notified.items();
    std::sort(notified.begin(), notified.end());
    EXPECT_EQ((Names{"R/Beep=9", "R/Event=7"}), notified);
    ASSERT_TRUE(followed.waitFor(1)) << "the key's signal was not followed again";
    EXPECT_EQ(8, followed.items()[0].toInt());
    EXPECT_EQ(Names{"Follower"}, subscribers("R/Event"));
    EXPECT_EQ(Names{"Follower"}, subscribers("R/Beep"));
    EXPECT_EQ(
        0u, errorOf([&] { subscribers("R/Dropped"); }).find("RXMemory::getData: Data not found R/Dropped ("))
        << "an unsubscribed event was subscribed again";
    // The application's link id ends the connection made again.
    EXPECT_NO_THROW(key.disconnect(link).waitAndCheck());
  } else {
    EXPECT_EQ(Names{}, subscribers("R/Event"));
    EXPECT_EQ(0u, errorOf([&] { subscribers("R/Beep"); }).find("RXMemory::getData: Data not found R/Beep ("));
    EXPECT_EQ(0u, followed.size());
  }
  other->close();
}

INSTANTIATE_TEST_SUITE_P(E2E, BrokerRestart, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "Remade" : "RemakingOff";
                         });

TEST(MismatchedCallback, ClientSubscriberKeepsItsSubscriptionAndIsWarnedOnce) {
  TempDir dir;
  BrokerProcess broker(RX_BROKER_PATH, dir.path, {"tcp://127.0.0.1:0"}, {}, /*mergeLog=*/true);
  Client client(broker.endpoints.at(0), "Follower");
  auto& memory = client.memory;

  // onInt exists, but takes one int: the memory posts (key, value, message).
  memory->call<void>("subscribeToEvent", S("R/Mismatch"), S("Follower"), S("onInt"));
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 5; ++i) memory->call<void>("raiseEvent", S("R/Mismatch"), RXValue(i));
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(Names{"Follower"}, memory->call<Names>("getSubscribers", S("R/Mismatch")));

  // The broker logs a known warning for this call: every line the raises
  // logged comes before it.
  memory->call<void>("unregisterModuleReference", S("Follower"));
  Names warnings;
  std::optional<std::string> line;
  while ((line = broker.output().readLine()) &&
         line->find("unregisterModuleReference is deprecated") == std::string::npos)
    if (line->find("post to Follower.onInt") != std::string::npos)
      warnings.push_back(line->substr(std::min(line->size(), line->find("[rx] "))));
  ASSERT_TRUE(line) << "the broker's log did not show the marker";
  ASSERT_FALSE(warnings.empty()) << "no warning for the dropped posts";
  EXPECT_EQ(
      "[rx] [warning] [net.object] post to Follower.onInt dropped: no method onInt accepting (string, "
      "int, string)",
      warnings[0]);
  // One line a second at most (the raises may take longer on a loaded machine).
  EXPECT_LE(warnings.size(),
            1 + std::size_t(std::chrono::duration_cast<std::chrono::seconds>(elapsed).count()));
}

}  // namespace
