// A subscriber in a client process whose callback is stuck: the broker's
// posts return at once, what waits for it is capped on both sides (oldest
// dropped first), the drops are counted under the service's name, and what
// does arrive comes in order, newest last.
#include "rx/rxexecutor.h"
#include "transport_fixture.h"

namespace nettest {
namespace {

constexpr std::size_t kCap = 16;

// A client module whose onEvent blocks until released.
class SlowModule : public RX::RXModule {
 public:
  explicit SlowModule(boost::shared_ptr<RX::RXBroker> broker) : RX::RXModule(broker, "Slow") {
    advertise(this, "onEvent", &SlowModule::onEvent);
    advertise(this, "ping", &SlowModule::ping);
  }
  void onEvent(const std::string&, const RX::RXValue& value, const RX::RXValue&) {
    (void)released.wait();
    events.add(value);
  }
  int ping() { return 1; }

  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  Recorder events;
};

// Both sides' queues towards the subscriber hold kCap posts.
template <class Options>
Options capped() {
  Options options;
  options.queueCapacity = kCap;
  return options;
}

class SlowSubscriber : public ::testing::TestWithParam<std::string> {
 protected:
  void TearDown() override {
    if (slow->released.wait_for(0s) != std::future_status::ready)
      slow->release.set_value();  // after a failure
  }
  // Drops counted for "Slow" by the broker and by the client.
  std::uint64_t dropped() {
    return broker->droppedCounts()["Slow"] + client.session->droppedCounts()["Slow"];
  }

  BrokerSide side{listenAddress(GetParam()), {}, "testbroker", capped<RX::RXBroker::Options>()};
  ClientSide client{side.endpoint, capped<net::ClientSession::Options>()};
  boost::shared_ptr<SlowModule> slow = boost::make_shared<SlowModule>(client.broker);
  boost::shared_ptr<RX::RXBroker>& broker = side.broker;
};

TEST_P(SlowSubscriber, PostsToAStuckClientAreCappedCountedAndKeepTheNewest) {
  slow->initModule();
  boost::shared_ptr<RX::RXProxy> remote = broker->getProxy("Slow");
  const int kPosts = 3000;
  // The raising side only queues: the whole loop ends while the callback is stuck.
  std::pair<int, int> notifyState{0, 0};
  auto posting = std::async(std::launch::async, [&] {
    for (int i = 0; i < kPosts; ++i)
      remote->pCallNotify("onEvent", "key", RX::RXValue(i), RX::RXValue("msg"), &notifyState);
  });
  ASSERT_EQ(std::future_status::ready, posting.wait_for(kWait)) << "posting blocked on the stuck subscriber";
  EXPECT_EQ(kPosts, notifyState.first);
  // Another service of the same client is called back meanwhile.
  broker->getProxy("Tool")->pCallNotify("onEvent", "key", RX::RXValue(7), RX::RXValue(""), &notifyState);
  ASSERT_TRUE(client.tool->events.waitFor(1)) << "a stuck callback held up another service's";
  // Everything the broker queued has been written; a call written after the
  // posts on the same connection comes back once the client has read them all.
  ASSERT_TRUE(broker->executor().drain(kWait)) << "the broker's queue towards the client did not empty";
  EXPECT_EQ(1, remote->call<int>("ping"));

  // Everything not waiting in the client's capped queue (or stuck in the
  // callback) was dropped on one side or the other, under the service's name.
  EXPECT_TRUE(broker->droppedCounts().count("Slow")) << "the broker does not report the client's service";
  EXPECT_TRUE(client.session->droppedCounts().count("Slow")) << "the client does not report its service";
  const std::uint64_t kept = kPosts - dropped();
  EXPECT_GE(kept, 1u);
  EXPECT_LE(kept, kCap + 1) << "more than the cap plus the one in the callback was kept";
  slow->release.set_value();
  ASSERT_TRUE(slow->events.waitFor(kept)) << "only " << slow->events.size() << " of " << kept << " arrived";
  const std::vector<RX::RXValue> got = slow->events.items();
  ASSERT_EQ(kept, got.size()) << "arrivals and drops do not add up to the posts";
  for (std::size_t i = 1; i < got.size(); ++i)
    EXPECT_LT(got[i - 1].toInt(), got[i].toInt()) << "out of order at " << i;
  EXPECT_EQ(kPosts - 1, got.back().toInt()) << "the newest notification was not delivered last";
  EXPECT_EQ(kPosts - kept, dropped())
      << "the counts are totals: releasing the subscriber does not change them";
}

INSTANTIATE_TEST_SUITE_P(Net, SlowSubscriber, ::testing::Values("tcp", "unix"));

TEST(DropCounters, BrokerSumsRegisteredCountersWithItsModulesCounts) {
  auto broker = RX::RXBroker::create("counting");
  const unsigned int first = broker->addDropCounter([] {
    return std::map<std::string, uint64_t>{{"Remote", 3}, {"Other", 1}};
  });
  const unsigned int second = broker->addDropCounter([] {
    return std::map<std::string, uint64_t>{{"Remote", 4}};
  });
  EXPECT_EQ((std::map<std::string, uint64_t>{{"Other", 1}, {"Remote", 7}}), broker->droppedCounts());
  broker->removeDropCounter(first);
  broker->removeDropCounter(first);  // unknown now: ignored
  EXPECT_EQ((std::map<std::string, uint64_t>{{"Remote", 4}}), broker->droppedCounts());
  broker->removeDropCounter(second);
  EXPECT_TRUE(broker->droppedCounts().empty());
  broker->shutdown();
}

}  // namespace
}  // namespace nettest
