// What one client may cost the broker: writes to a client that stops reading
// never wait and are bounded (cut off over the hard limit, or over the soft
// limit for too long); clients, connections, handshakes and buffered input are
// capped with clear refusals; a request whose caller hangs up is told so.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include "net/writeflusher.h"
#include "rx/rxcallcontext.h"
#include "rx/rxlog.h"
#include "transport_fixture.h"

namespace nettest {
namespace {

// A connection in buffered mode whose other end reads only when asked.
class StalledReader {
 public:
  explicit StalledReader(net::OutputLimits limits) {
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) throw std::runtime_error("socketpair");
    far_ = fds[1];
    near = std::make_shared<net::Connection>(fds[0], "stalled reader");
    near->setBufferedOutput(limits, flusher_, [this](bool hardLimit, const std::string& reason) {
      std::lock_guard<std::mutex> lock(mutex_);
      cutOffs.push_back((hardLimit ? "hard: " : "soft: ") + reason);
    });
  }
  ~StalledReader() { ::close(far_); }

  // Reads `size` bytes from the far end, or what came within kWait.
  std::string read(std::size_t size) {
    std::string out;
    const auto deadline = std::chrono::steady_clock::now() + kWait;
    while (out.size() < size && std::chrono::steady_clock::now() < deadline) {
      pollfd p{far_, POLLIN, 100};
      if (::poll(&p, 1, 100) <= 0) continue;
      char chunk[65536];
      const ssize_t n = ::read(far_, chunk, std::min(sizeof chunk, size - out.size()));
      if (n <= 0) break;
      out.append(chunk, static_cast<std::size_t>(n));
    }
    return out;
  }
  // Writes 1 KiB chunks until the connection refuses one (at most `max`);
  // returns the error, or "" when every write was taken.
  std::string writeUntilRefused(int max, std::string* written = nullptr) {
    for (int i = 0; i < max; ++i) {
      const std::string chunk(1024, static_cast<char>('a' + i % 26));
      try {
        near->sendFrames(chunk);
      } catch (const std::exception& e) {
        return e.what();
      }
      if (written) *written += chunk;
    }
    return "";
  }
  std::vector<std::string> cutOffList() {
    std::lock_guard<std::mutex> lock(mutex_);
    return cutOffs;
  }

  std::shared_ptr<net::Connection> near;

 private:
  std::shared_ptr<net::WriteFlusher> flusher_ = std::make_shared<net::WriteFlusher>();
  int far_ = -1;
  std::mutex mutex_;
  std::vector<std::string> cutOffs;
};

net::OutputLimits outputLimits(std::size_t hard, std::size_t soft, std::chrono::milliseconds softTime) {
  net::OutputLimits limits;
  limits.hardBytes = hard;
  limits.softBytes = soft;
  limits.softTime = softTime;
  return limits;
}

TEST(BufferedOutput, WritesNeverWaitAndArriveWholeAndInOrderOnceTheReaderReads) {
  StalledReader client(outputLimits(16u << 20, 16u << 20, std::chrono::hours(1)));
  std::string written;
  auto writing = std::async(std::launch::async, [&] { return client.writeUntilRefused(4096, &written); });
  ASSERT_EQ(std::future_status::ready, writing.wait_for(kWait)) << "a write waited for the stalled reader";
  EXPECT_EQ("", writing.get());
  EXPECT_GT(client.near->outputBuffered(), 0u) << "4 MiB should not all fit in the socket";
  // The flusher writes the rest as the reader takes it.
  EXPECT_TRUE(client.read(written.size()) == written) << "bytes lost, cut or out of order";
  EXPECT_TRUE(client.cutOffList().empty());
}

TEST(BufferedOutput, AClientOverTheHardLimitIsCutOffOnceAndFreed) {
  StalledReader client(outputLimits(64u << 10, 64u << 10, std::chrono::hours(1)));
  const std::string error = client.writeUntilRefused(100000);
  EXPECT_NE(std::string::npos, error.find("cut off: output buffer of ")) << error;
  EXPECT_NE(std::string::npos, error.find(" bytes over its hard limit maxOutputBytes 65536 (")) << error;
  EXPECT_TRUE(client.near->isClosed());
  EXPECT_EQ(0u, client.near->outputBuffered()) << "a client cut off keeps no bytes";
  EXPECT_NE(std::string::npos, client.writeUntilRefused(1).find("is closed"));
  ASSERT_EQ(1u, client.cutOffList().size()) << "the cut-off is reported once";
  EXPECT_EQ(0u, client.cutOffList()[0].find("hard: output buffer of "));
}

TEST(BufferedOutput, AClientOverTheSoftLimitForTooLongIsCutOff) {
  StalledReader client(outputLimits(64u << 20, 16u << 10, std::chrono::milliseconds(500)));
  ASSERT_EQ("", client.writeUntilRefused(2048));
  ASSERT_GT(client.near->outputBuffered(), 16u << 10);
  const auto now = std::chrono::steady_clock::now();
  client.near->checkOutput(now);
  EXPECT_FALSE(client.near->isClosed()) << "over the soft limit only just now";
  client.near->checkOutput(now + std::chrono::seconds(1));
  EXPECT_TRUE(client.near->isClosed());
  const std::vector<std::string> reasons = client.cutOffList();
  ASSERT_EQ(1u, reasons.size());
  EXPECT_EQ(0u, reasons[0].find("soft: output buffer over its soft limit softOutputBytes 16384 for 500 ms (")) << reasons[0];
}

// A module whose method runs until its caller has gone.
class WaiterModule : public RX::RXModule {
 public:
  explicit WaiterModule(boost::shared_ptr<RX::RXBroker> broker) : RX::RXModule(broker, "Waiter") {
    functionName("waitForever", "Waiter", "Polls until the caller has gone.");
    advertiseMethod(getCurrentMethodDescription(), this, &WaiterModule::waitForever);
  }
  int waitForever() {
    started.set_value();
    // A long operation polls, as getDataOnChange does.
    while (!RX::CallContext::callerGone()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ended.set_value();
    return 0;
  }
  std::promise<void> started, ended;
};

class ServerLimits : public ::testing::Test {
 protected:
  void start(const net::Server::Options& options) {
    broker = RX::RXBroker::create("limited");
    waiter = boost::make_shared<WaiterModule>(broker);
    waiter->initModule();
    server = std::make_unique<net::Server>(broker, std::vector<std::string>{"tcp://127.0.0.1:0"}, options);
    server->start();
    endpoint = net::Endpoint::parse(server->endpoints().at(0));
  }
  void TearDown() override {
    if (server) server->stop();
    if (broker) broker->shutdown();
  }
  std::uint64_t counter(const std::string& name) { return broker->transportCounters()[name]; }
  static net::Message hello(const std::string& session) {
    net::Message m;
    m.kind = static_cast<std::uint8_t>(net::MessageKind::Hello);
    m.requestId = 1;
    m.fields = {RX::RXValue(session), RX::RXValue("call"), RX::RXValue("raw")};
    return m;
  }
  // A raw connection that has said Hello as a call connection of `session`.
  std::shared_ptr<net::Connection> greeted(const std::string& session) {
    auto c = net::Connection::connect(endpoint, kWait);
    c->send(hello(session));
    net::Message ack;
    if (c->read(ack) != net::Connection::ReadStatus::Message ||
        ack.kind != static_cast<std::uint8_t>(net::MessageKind::HelloAck))
      throw std::runtime_error("no HelloAck");
    return c;
  }
  // What the broker says before it closes `c`: the error text, or "(closed)".
  static std::string lastWords(net::Connection& c) {
    c.setReadTimeout(kWait);
    net::Message m;
    for (;;) {
      const auto status = c.read(m);
      if (status == net::Connection::ReadStatus::Message && m.fields.size() > 3) return m.fields[3].toStdString();
      if (status != net::Connection::ReadStatus::Message && status != net::Connection::ReadStatus::BadFrame)
        return status == net::Connection::ReadStatus::TimedOut ? "(still open)" : "(closed)";
    }
  }

  boost::shared_ptr<RX::RXBroker> broker;
  boost::shared_ptr<WaiterModule> waiter;
  std::unique_ptr<net::Server> server;
  net::Endpoint endpoint;
};

TEST_F(ServerLimits, ClientsBeyondMaxClientsAreRefusedWithTheLimitNamed) {
  net::Server::Options options;
  options.maxClients = 1;
  start(options);
  auto first = greeted("first");
  auto second = net::Connection::connect(endpoint, kWait);
  second->send(hello("second"));
  EXPECT_EQ("too many clients: maxClients 1 reached", lastWords(*second));
  EXPECT_EQ(1u, counter("clients refused: maxClients reached"));
  EXPECT_EQ(1u, counter("clients connected"));
  EXPECT_NO_THROW(greeted("first")) << "another connection of a known client is not a new client";
}

TEST_F(ServerLimits, ConnectionsBeyondMaxConnectionsAreRefusedWithTheLimitNamed) {
  net::Server::Options options;
  options.maxConnections = 3;
  start(options);
  std::vector<std::shared_ptr<net::Connection>> open;
  for (int i = 0; i < 3; ++i) open.push_back(net::Connection::connect(endpoint, kWait));  // greeted or not, they count
  auto fourth = net::Connection::connect(endpoint, kWait);
  EXPECT_EQ("too many connections: maxConnections 3 reached", lastWords(*fourth));
  EXPECT_EQ(1u, counter("connections refused: maxConnections reached"));
}

TEST_F(ServerLimits, AConnectionThatDoesNotSayHelloInTimeIsClosed) {
  net::Server::Options options;
  options.handshakeTimeout = std::chrono::milliseconds(100);
  options.idleTimeout = std::chrono::hours(1);
  start(options);
  auto dripping = net::Connection::connect(endpoint, kWait);
  dripping->sendFrames(std::string(2, '\0'));  // half a frame header, then nothing
  EXPECT_EQ("(closed)", lastWords(*dripping));
  EXPECT_EQ(1u, counter("connections closed: no Hello within handshakeTimeout"));
  auto greetedInTime = greeted("in-time");
  EXPECT_FALSE(greetedInTime->isClosed());
}

TEST_F(ServerLimits, PartialFramesOverTheInputBudgetCloseTheClientThatAsksForMore) {
  net::Server::Options options;
  options.maxInputBytes = 1u << 20;
  start(options);
  auto greedy = greeted("greedy");
  // A frame that announces 8 MiB (within the frame limit) and sends 3 MiB of it.
  std::string frame = {0, static_cast<char>(0x80), 0, 0};
  frame.append(3u << 20, '\x01');
  auto sending = std::async(std::launch::async, [&] {
    try {
      greedy->sendFrames(frame);
    } catch (const std::exception&) {
      // The broker closes the connection before all is sent.
    }
  });
  EXPECT_NE("(still open)", lastWords(*greedy));
  ASSERT_EQ(std::future_status::ready, sending.wait_for(kWait));
  EXPECT_EQ(1u, counter("connections closed: buffered input over maxInputBytes"));
  EXPECT_NO_THROW(greeted("modest")) << "the others are still served";
}

TEST_F(ServerLimits, AFloodOfMalformedFramesIsCountedButLoggedOnceASecond) {
  start(net::Server::Options());
  std::atomic<int> lines{0};
  const int observer = RX::log::addObserver([&](const std::string& category, int, const std::string& message) {
    if (category == "net.server" && message.find("malformed frame") != std::string::npos) ++lines;
  });
  auto flooding = greeted("flooding");
  std::string frames;
  for (int i = 0; i < 500; ++i) frames += std::string{0, 0, 0, 1, static_cast<char>(0xc1)};
  flooding->sendFrames(frames);
  net::Message ping;
  ping.kind = static_cast<std::uint8_t>(net::MessageKind::Ping);
  ping.requestId = 99;
  flooding->send(ping);
  net::Message pong;
  ASSERT_EQ(net::Connection::ReadStatus::Message, flooding->read(pong));  // served in order: the flood is behind us
  EXPECT_EQ(99u, pong.requestId);
  RX::log::removeObserver(observer);
  EXPECT_EQ(500u, counter("malformed frames received"));
  EXPECT_LE(lines.load(), 2) << "one line a second, whatever the rate";
  EXPECT_GE(lines.load(), 1);
}

TEST_F(ServerLimits, ARequestWhoseCallerHangsUpIsToldSo) {
  start(net::Server::Options());
  auto session = net::ClientSession::connect(server->endpoints().at(0));
  auto client = RX::RXBroker::create("client", RX::RXBroker::Options(), session);
  boost::shared_ptr<RX::RXProxy> remote = client->getProxy("Waiter");
  auto calling = std::async(std::launch::async, [&] { return errorOf([&] { remote->call<int>("waitForever"); }); });
  ASSERT_EQ(std::future_status::ready, waiter->started.get_future().wait_for(kWait));
  session->close();
  EXPECT_EQ(std::future_status::ready, waiter->ended.get_future().wait_for(kWait))
      << "the method went on polling for a caller that had gone";
  ASSERT_EQ(std::future_status::ready, calling.wait_for(kWait));
  client->shutdown();
}

}  // namespace
}  // namespace nettest
