// What one client may cost the broker: output towards it is bounded and never waits, a stuck
// subscriber loses its oldest posts, and clients, connections and input are capped by name.
#include <sys/socket.h>

#include "net/writeflusher.h"
#include "rx/rxcallcontext.h"
#include "rx/rxexecutor.h"
#include "transport_fixture.h"

namespace nettest {
namespace {

// A connection in buffered mode whose other end reads only when asked.
class StalledReader {
 public:
  StalledReader(std::size_t hard, std::size_t soft, std::chrono::milliseconds softTime) {
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
      throw std::runtime_error("socketpair");
    far_ = fds[1];
    const timeval timeout{std::chrono::duration_cast<std::chrono::seconds>(kWait).count(), 0};
    ::setsockopt(far_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    near = std::make_shared<net::Connection>(fds[0], "stalled reader");
    net::OutputLimits limits;
    limits.hardBytes = hard;
    limits.softBytes = soft;
    limits.softTime = softTime;
    near->setBufferedOutput(limits, flusher_, [this](bool hardLimit, const std::string& reason) {
      cutOffs.add((hardLimit ? "hard: " : "soft: ") + reason);
    });
  }
  ~StalledReader() { ::close(far_); }

  // Reads `size` bytes from the far end, or what came until a read waited kWait.
  std::string read(std::size_t size) {
    std::string out;
    char chunk[65536];
    ssize_t n = 0;
    while (out.size() < size && (n = ::read(far_, chunk, std::min(sizeof chunk, size - out.size()))) > 0)
      out.append(chunk, static_cast<std::size_t>(n));
    return out;
  }
  // Writes 1 KiB chunks until the connection refuses one (at most `max`);
  // returns the error, or "" when every write was taken.
  std::string writeUntilRefused(int max, std::string* written = nullptr) {
    for (int i = 0; i < max; ++i) {
      const std::string chunk(1024, static_cast<char>('a' + i % 26));
      const std::string error = errorOf([&] { near->sendFrames(chunk); });
      if (error != "(no exception)") return error;
      if (written) *written += chunk;
    }
    return "";
  }

  std::shared_ptr<net::Connection> near;
  testsupport::Collector<std::string> cutOffs;

 private:
  std::shared_ptr<net::WriteFlusher> flusher_ = std::make_shared<net::WriteFlusher>();
  int far_ = -1;
};

TEST(BufferedOutput, WritesNeverWaitAndArriveWholeAndInOrderOnceTheReaderReads) {
  StalledReader client(16u << 20, 16u << 20, std::chrono::hours(1));
  std::string written;
  auto writing = std::async(std::launch::async, [&] { return client.writeUntilRefused(4096, &written); });
  ASSERT_EQ(std::future_status::ready, writing.wait_for(kWait)) << "a write waited for the stalled reader";
  EXPECT_EQ("", writing.get());
  EXPECT_GT(client.near->outputBuffered(), 0u) << "4 MiB should not all fit in the socket";
  EXPECT_TRUE(client.read(written.size()) == written) << "bytes lost, cut or out of order";
  EXPECT_EQ(0u, client.cutOffs.size());
}

TEST(BufferedOutput, AClientOverTheHardLimitIsCutOffOnceAndFreed) {
  StalledReader client(64u << 10, 64u << 10, std::chrono::hours(1));
  const std::string error = client.writeUntilRefused(100000);
  EXPECT_NE(std::string::npos, error.find("cut off: output buffer of ")) << error;
  EXPECT_NE(std::string::npos, error.find(" bytes over its hard limit maxOutputBytes 65536 (")) << error;
  EXPECT_TRUE(client.near->isClosed());
  EXPECT_EQ(0u, client.near->outputBuffered()) << "a client cut off keeps no bytes";
  EXPECT_NE(std::string::npos, client.writeUntilRefused(1).find("is closed"));
  ASSERT_EQ(1u, client.cutOffs.size()) << "the cut-off is reported once";
  EXPECT_EQ(0u, client.cutOffs.items()[0].find("hard: output buffer of "));
}

TEST(BufferedOutput, AClientOverTheSoftLimitForTooLongIsCutOff) {
  StalledReader client(64u << 20, 16u << 10, std::chrono::milliseconds(500));
  ASSERT_EQ("", client.writeUntilRefused(2048));
  ASSERT_GT(client.near->outputBuffered(), 16u << 10);
  const auto now = std::chrono::steady_clock::now();
  client.near->checkOutput(now);
  EXPECT_FALSE(client.near->isClosed()) << "over the soft limit only just now";
  client.near->checkOutput(now + std::chrono::seconds(1));
  EXPECT_TRUE(client.near->isClosed());
  ASSERT_EQ(1u, client.cutOffs.size());
  EXPECT_EQ(0u, client.cutOffs.items()[0].find(
                    "soft: output buffer over its soft limit softOutputBytes 16384 for 500 ms ("));
}

// A module whose method runs until its caller has gone.
class WaiterModule : public RX::RXModule {
 public:
  explicit WaiterModule(boost::shared_ptr<RX::RXBroker> broker) : RX::RXModule(broker, "Waiter") {
    advertise(this, "waitForever", &WaiterModule::waitForever);
  }
  int waitForever() {
    started.set_value();
    // A long operation polls, as getDataOnChange does.
    while (!RX::CallContext::callerGone()) std::this_thread::sleep_for(5ms);
    ended.set_value();
    return 0;
  }
  std::promise<void> started, ended;
};

TEST(ServerLimits, ClientsAndConnectionsBeyondTheirLimitsAreRefusedWithTheLimitNamed) {
  net::Server::Options options;
  options.maxClients = 1;
  BrokerSide side("tcp://127.0.0.1:0", options);
  auto first = greeted(side, "first");
  auto second = side.connect();
  second->send(hello("second"));
  EXPECT_EQ("5/1: too many clients: maxClients 1 reached", nextWords(*second));
  EXPECT_EQ(1u, side.counter("clients refused: maxClients reached"));
  EXPECT_EQ(1u, side.counter("clients connected"));
  EXPECT_NO_THROW(greeted(side, "first")) << "another connection of a known client is not a new client";

  options.maxConnections = 3;
  BrokerSide small("tcp://127.0.0.1:0", options);
  const auto open = {small.connect(), small.connect(), small.connect()};  // greeted or not, they count
  EXPECT_EQ("5/0: too many connections: maxConnections 3 reached", nextWords(*small.connect()));
  EXPECT_EQ(1u, small.counter("connections refused: maxConnections reached"));
}

// Each connection that costs too much is closed and counted alone; the others are served.
TEST(ServerLimits, HandshakeTimeoutInputBudgetAndMalformedFloods) {
  net::Server::Options options;
  options.handshakeTimeout = 100ms;
  options.idleTimeout = std::chrono::hours(1);
  options.maxInputBytes = 1u << 20;
  BrokerSide side("tcp://127.0.0.1:0", options);
  testsupport::LogLines log("net.server");
  auto dripping = side.connect();
  dripping->sendFrames(std::string(2, '\0'));  // half a frame header, then nothing
  EXPECT_EQ("(closed)", nextWords(*dripping));
  EXPECT_EQ(1u, side.counter("connections closed: no Hello within handshakeTimeout"));
  EXPECT_FALSE(greeted(side, "in-time")->isClosed());

  auto greedy = greeted(side, "greedy");
  // A frame that announces 8 MiB (within the frame limit) and sends 3 MiB of it.
  std::string frame = {0, static_cast<char>(0x80), 0, 0};
  frame.append(3u << 20, '\x01');
  auto sending = std::async(std::launch::async, [&] { (void)errorOf([&] { greedy->sendFrames(frame); }); });
  EXPECT_NE("(still open)", nextWords(*greedy));
  ASSERT_EQ(std::future_status::ready, sending.wait_for(kWait));
  EXPECT_EQ(1u, side.counter("connections closed: buffered input over maxInputBytes"));
  EXPECT_NO_THROW(greeted(side, "modest")) << "the others are still served";

  // A flood of malformed frames is counted, but logged once a second.
  auto flooding = greeted(side, "flooding");
  std::string frames;
  for (int i = 0; i < 500; ++i) frames += std::string{0, 0, 0, 1, static_cast<char>(0xc1)};
  flooding->sendFrames(frames);
  flooding->send(message(net::MessageKind::Ping, 99));
  EXPECT_EQ("16/99:", nextWords(*flooding));  // served in order: the flood is behind us
  EXPECT_EQ(500u, side.counter("malformed frames received"));
  const std::vector<std::string> logged = log.items();
  const auto lines = std::count_if(logged.begin(), logged.end(), [](const std::string& l) {
    return l.find("malformed frame") != std::string::npos;
  });
  EXPECT_LE(lines, 2) << "one line a second, whatever the rate";
  EXPECT_GE(lines, 1);
}

TEST(ServerLimits, ARequestWhoseCallerHangsUpIsToldSo) {
  BrokerSide side("tcp://127.0.0.1:0");
  auto waiter = boost::make_shared<WaiterModule>(side.broker);
  waiter->initModule();
  ClientSide client(side.endpoint);
  boost::shared_ptr<RX::RXProxy> remote = client.broker->getProxy("Waiter");
  auto calling =
      std::async(std::launch::async, [&] { return errorOf([&] { remote->call<int>("waitForever"); }); });
  ASSERT_EQ(std::future_status::ready, waiter->started.get_future().wait_for(kWait));
  client.session->close();
  EXPECT_EQ(std::future_status::ready, waiter->ended.get_future().wait_for(kWait))
      << "the method went on polling for a caller that had gone";
  EXPECT_EQ(std::future_status::ready, calling.wait_for(kWait));
}

constexpr std::size_t kCap = 16;

// A subscriber whose callback is stuck until released.
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
  // A call written behind the posts comes back once the client has read them all.
  ASSERT_TRUE(broker->executor().drain(kWait)) << "the broker's queue towards the client did not empty";
  EXPECT_EQ(1, remote->call<int>("ping"));

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
