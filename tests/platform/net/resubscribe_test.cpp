// Signal connections a client made on broker objects, across a broker
// restart: remade on the new broker's objects (a service, an object a call
// returned) with the same subscriber, still ended by the application's link
// id; a connection the application ended stays ended; one that cannot be made
// again is logged without stopping the others.
#include "rx/rxlog.h"
#include "transport_fixture.h"

namespace nettest {
namespace {

// A broker serving Calc, and optionally "Extra" (a service with a signal).
struct BrokerSide {
  explicit BrokerSide(const std::string& name, const std::string& listen, bool extra) {
    broker = RX::RXBroker::create(name);
    calc = boost::make_shared<CalcModule>(broker);
    calc->initModule();
    if (extra) {
      auto object = std::make_shared<mz::DynamicObject>();
      object->advertiseSignal("pinged", &pinged);
      broker->session()->registerService("Extra", mz::AnyObject(object));
    }
    server = std::make_unique<net::Server>(broker, std::vector<std::string>{listen});
    server->start();
  }
  ~BrokerSide() {
    server->stop();
    broker->shutdown();
  }
  mz::SignalF<void(mz::AnyValue)> pinged;
  boost::shared_ptr<RX::RXBroker> broker;
  boost::shared_ptr<CalcModule> calc;
  std::unique_ptr<net::Server> server;
};

class Resubscribe : public ::testing::TestWithParam<bool> {};

TEST_P(Resubscribe, SignalConnectionsOnBrokerObjectsAreRemade) {
  const bool remake = GetParam();
  auto first = std::make_unique<BrokerSide>("first", "tcp://127.0.0.1:0", true);
  const std::string endpoint = first->server->endpoints().at(0);
  net::ClientSession::Options options;
  options.remakeSubscriptions = remake;
  options.reconnectMin = 20ms;
  options.reconnectMax = 200ms;
  auto client = net::ClientSession::connect(endpoint, options);
  Recorder ups;
  client->reconnected.connect([&] { ups.add(RX::RXValue(1)); });
  std::mutex mutex;
  std::vector<std::string> warnings;
  const int observer =
      RX::log::addObserver([&](const std::string& category, int level, const std::string& text) {
        std::lock_guard<std::mutex> lock(mutex);
        if (category == "net.client" && level == RX::log::Warning && text.find(" again") != std::string::npos)
          warnings.push_back(text);
      });

  Recorder ticks, counted, pinged;
  mz::AnyObject calc = client->service("Calc").value();
  const mz::SignalLink tickLink =
      calc.connect("ticked", [&](mz::AnyValue v) { ticks.add(v.toRXValue()); }).value();
  client->service("Extra")
      .value()
      .connect("pinged", [&](mz::AnyValue v) { pinged.add(v.toRXValue()); })
      .value();
  mz::AnyObject counter = calc.call<mz::AnyObject>("makeCounter");
  const mz::SignalLink counterLink =
      counter.connect("changed", [&](mz::AnyValue v) { counted.add(v.toRXValue()); }).value();
  // Ended by the application before the restart: not made again (else the
  // counter it makes would be the broker's last one, below).
  mz::AnyObject other = calc.call<mz::AnyObject>("makeCounter");
  other.disconnect(other.connect("changed", [](mz::AnyValue) {}).value()).waitAndCheck();

  first.reset();  // Extra goes with it: the new broker has no such service
  BrokerSide second("second", endpoint, false);
  ASSERT_TRUE(ups.waitFor(1)) << "reconnected() not emitted";
  RX::log::removeObserver(observer);
  boost::shared_ptr<Counter> remadeCounter = second.calc->lastCounter();

  if (!remake) {
    EXPECT_EQ(0u, second.calc->ticked.subscriberCount());
    EXPECT_FALSE(remadeCounter) << "a call was made again";
    EXPECT_TRUE(warnings.empty());
    client->close();
    return;
  }
  // Made again before reconnected(), with the subscribers they had.
  ASSERT_EQ(1u, second.calc->ticked.subscriberCount());
  ASSERT_TRUE(remadeCounter) << "makeCounter was not called again";
  EXPECT_EQ(1u, remadeCounter->changed.subscriberCount());
  second.calc->ticked(mz::AnyValue(5));
  remadeCounter->changed(mz::AnyValue(6));
  ASSERT_TRUE(ticks.waitFor(1));
  ASSERT_TRUE(counted.waitFor(1));
  EXPECT_EQ(5, ticks.values()[0].toInt());
  EXPECT_EQ(6, counted.values()[0].toInt());
  {
    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_EQ(1u, warnings.size());
    EXPECT_EQ("cannot connect to Extra signal pinged again: Service not found: Extra", warnings[0]);
  }
  // The application's link ids end the remade connections, through the
  // handles it got from the first broker.
  calc.disconnect(tickLink).waitAndCheck();
  counter.disconnect(counterLink).waitAndCheck();
  EXPECT_EQ(0u, second.calc->ticked.subscriberCount());
  EXPECT_EQ(0u, remadeCounter->changed.subscriberCount());
  EXPECT_EQ("no signal connection " + std::to_string(tickLink) + " on this object",
            errorOf([&] { calc.disconnect(tickLink).waitAndCheck(); }));
  client->close();
}

INSTANTIATE_TEST_SUITE_P(Net, Resubscribe, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "Remade" : "RemakingOff";
                         });

}  // namespace
}  // namespace nettest
