// A subscriber in a client process whose callback is stuck: the broker's
// posts return at once, what waits for it is capped on both sides (oldest
// dropped first), the drops are counted under the service's name, and what
// does arrive comes in order, newest last.
#include <thread>

#include "rx/rxexecutor.h"
#include "transport_fixture.h"

namespace nettest {
namespace {

constexpr std::size_t kCap = 16;

// A client module whose onEvent blocks until released.
class SlowModule : public RX::RXModule {
 public:
  explicit SlowModule(boost::shared_ptr<RX::RXBroker> broker) : RX::RXModule(broker, "Slow") {
    functionName("onEvent", "Slow", "Subscriber callback: waits for the latch, then records the value.");
    addParam("key", "");
    addParam("value", "");
    addParam("message", "");
    advertiseMethod(getCurrentMethodDescription(), this, &SlowModule::onEvent);
    functionName("ping", "Slow", "Answers at once.");
    advertiseMethod(getCurrentMethodDescription(), this, &SlowModule::ping);
  }

  void onEvent(const std::string&, const RX::RXValue& value, const RX::RXValue&) {
    std::unique_lock<std::mutex> lock(mutex_);
    cond_.wait(lock, [&] { return released_; });
    lock.unlock();
    events.add(value);
  }
  int ping() { return 1; }
  void release() {
    std::lock_guard<std::mutex> lock(mutex_);
    released_ = true;
    cond_.notify_all();
  }

  Recorder events;

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  bool released_ = false;
};

class SlowSubscriber : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    RX::RXBroker::Options brokerOptions;
    brokerOptions.queueCapacity = kCap;
    broker = RX::RXBroker::create("testbroker", brokerOptions);
    server = std::make_unique<net::Server>(broker, std::vector<std::string>{listenAddress(GetParam())});
    server->start();
    net::ClientSession::Options options;
    options.clientName = "slow-process";
    options.queueCapacity = kCap;
    session = net::ClientSession::connect(server->endpoints().at(0), options);
    clientBroker = RX::RXBroker::create("client", RX::RXBroker::Options(), session);
    slow = boost::make_shared<SlowModule>(clientBroker);
    slow->initModule();
  }

  void TearDown() override {
    slow->release();  // whatever a failed assertion left blocked
    clientBroker->shutdown();
    session->close();
    server->stop();
    broker->shutdown();
  }

  uint64_t droppedFor(const std::map<std::string, uint64_t>& counts) {
    auto it = counts.find("Slow");
    return it == counts.end() ? 0 : it->second;
  }

  boost::shared_ptr<RX::RXBroker> broker;
  std::unique_ptr<net::Server> server;
  std::shared_ptr<net::ClientSession> session;
  boost::shared_ptr<RX::RXBroker> clientBroker;
  boost::shared_ptr<SlowModule> slow;
};

TEST_P(SlowSubscriber, PostsToAStuckClientAreCappedCountedAndKeepTheNewest) {
  boost::shared_ptr<RX::RXProxy> remote = broker->getProxy("Slow");
  const int kPosts = 3000;

  // The raising side only queues: the whole loop ends while the callback is stuck.
  std::pair<int, int> notifyState{0, 0};
  auto posting = std::async(std::launch::async, [&] {
    for (int i = 0; i < kPosts; ++i)
      remote->pCallNotify("onEvent", "key", RX::RXValue(i), RX::RXValue("msg"), &notifyState);
  });
  ASSERT_EQ(std::future_status::ready, posting.wait_for(kWait)) << "posting blocked on the stuck subscriber";
  posting.get();
  EXPECT_EQ(kPosts, notifyState.first);
  EXPECT_EQ(0u, slow->events.size());

  // Another service of the same client is called back meanwhile.
  auto quick = boost::make_shared<ToolModule>(clientBroker, "Quick");
  quick->initModule();
  broker->getProxy("Quick")->pCallNotify("onEvent", "key", RX::RXValue(7), RX::RXValue(""), &notifyState);
  ASSERT_TRUE(quick->events.waitFor(1)) << "a stuck callback held up another service's";
  quick->exit();

  // Everything the broker queued has been written; a call written after the
  // posts on the same connection comes back once the client has read them all.
  ASSERT_TRUE(broker->executor().drain(kWait)) << "the broker's queue towards the client did not empty";
  EXPECT_EQ(1, remote->call<int>("ping"));

  // Everything not waiting in the client's capped queue (or stuck in the
  // callback) was dropped on one side or the other, under the service's name.
  const std::map<std::string, uint64_t> brokerCounts = broker->droppedCounts();
  const std::map<std::string, uint64_t> clientCounts = session->droppedCounts();
  ASSERT_TRUE(brokerCounts.count("Slow")) << "the broker does not report the client's service";
  ASSERT_TRUE(clientCounts.count("Slow")) << "the client does not report its service";
  const uint64_t dropped = droppedFor(brokerCounts) + droppedFor(clientCounts);
  const uint64_t kept = static_cast<uint64_t>(kPosts) - dropped;
  EXPECT_GE(kept, 1u);
  EXPECT_LE(kept, kCap + 1) << "more than the cap plus the one in the callback was kept";

  slow->release();
  ASSERT_TRUE(slow->events.waitFor(kept)) << "only " << slow->events.size() << " of " << kept << " arrived";
  const std::vector<RX::RXValue> got = slow->events.values();
  ASSERT_EQ(kept, got.size()) << "arrivals and drops do not add up to the posts";
  for (std::size_t i = 1; i < got.size(); ++i)
    EXPECT_LT(got[i - 1].toInt(), got[i].toInt()) << "out of order at " << i;
  EXPECT_EQ(kPosts - 1, got.back().toInt()) << "the newest notification was not delivered last";
  // The counts are totals: releasing the subscriber does not change them.
  EXPECT_EQ(dropped, droppedFor(broker->droppedCounts()) + droppedFor(session->droppedCounts()));
}

TEST(DropCounters, BrokerAddsRegisteredCountersToItsModulesCounts) {
  auto broker = RX::RXBroker::create("counting");
  const unsigned int first = broker->addDropCounter([] {
    return std::map<std::string, uint64_t>{{"Remote", 3}, {"Other", 1}};
  });
  const unsigned int second = broker->addDropCounter([] { return std::map<std::string, uint64_t>{{"Remote", 4}}; });
  EXPECT_NE(first, second);
  std::map<std::string, uint64_t> counts = broker->droppedCounts();
  EXPECT_EQ(7u, counts["Remote"]) << "counts of one name from two counters are summed";
  EXPECT_EQ(1u, counts["Other"]);
  broker->removeDropCounter(first);
  broker->removeDropCounter(first);  // unknown now: ignored
  counts = broker->droppedCounts();
  EXPECT_EQ(4u, counts["Remote"]);
  EXPECT_EQ(0u, counts.count("Other"));
  broker->removeDropCounter(second);
  EXPECT_TRUE(broker->droppedCounts().empty());
  broker->shutdown();
}

INSTANTIATE_TEST_SUITE_P(Net, SlowSubscriber, ::testing::Values("tcp", "unix"));

}  // namespace
}  // namespace nettest
