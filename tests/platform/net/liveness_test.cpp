// Bad endpoints and input, dead peers, and a client living through a broker restart.
#include <netinet/in.h>
#include <sys/socket.h>

#include "transport_fixture.h"

namespace nettest {
namespace {

using net::MessageKind;

// The canonical text of what `text` parses to, or the error.
std::string parsed(const std::string& text) {
  try {
    return net::Endpoint::parse(text).toString();
  } catch (const net::EndpointError& e) {
    return e.what();
  }
}

TEST(Endpoint, ParsesTcpAndUnixOrSaysWhy) {
  const std::string kForms = "': expected tcp://HOST:PORT or unix:///path";
  const std::string longPath = "unix:///" + std::string(200, 'p');
  const std::pair<std::string, std::string> rows[] = {
      {"tcp://127.0.0.1:9780", "tcp://127.0.0.1:9780"},
      {"tcp://localhost:0", "tcp://localhost:0"},
      {"tcp://[::1]:65535", "tcp://[::1]:65535"},
      {"unix:///run/rx/broker.sock", "unix:///run/rx/broker.sock"},
      {"", "invalid endpoint '" + kForms},
      {"http://a:1", "invalid endpoint 'http://a:1" + kForms},
      {"tcp://host", "invalid endpoint 'tcp://host': expected tcp://HOST:PORT"},
      {"tcp://:80", "invalid endpoint 'tcp://:80': the host is empty"},
      {"tcp://h:65536", "invalid endpoint 'tcp://h:65536': port must be 0 to 65535"},
      {"tcp://h:8a", "invalid endpoint 'tcp://h:8a': port must be 0 to 65535"},
      {"tcp://h:", "invalid endpoint 'tcp://h:': port must be 0 to 65535"},
      {"tcp://::1:80", "invalid endpoint 'tcp://::1:80': an IPv6 address must be written in brackets"},
      {"tcp://[::1]80", "invalid endpoint 'tcp://[::1]80': expected tcp://[IPV6]:PORT"},
      {"unix://rel.sock", "invalid endpoint 'unix://rel.sock': expected unix:///absolute/path"},
      {longPath, "invalid endpoint '" + longPath + "': the path is longer than 107 bytes"},
  };
  for (const auto& [text, outcome] : rows) EXPECT_EQ(outcome, parsed(text));
  const net::Endpoint e = net::Endpoint::parse("tcp://[::1]:80");
  EXPECT_EQ("::1 80", e.host + " " + std::to_string(e.port));
  EXPECT_EQ(net::Endpoint::Kind::Unix, net::Endpoint::parse("unix:///a").kind);
  EXPECT_EQ(net::Endpoint::parse("tcp://127.0.0.1:9780"), net::Endpoint::parse(net::Endpoint::kDefault));
}

std::string frame(const std::string& shortBody) {
  return std::string{0, 0, 0, static_cast<char>(shortBody.size())} + shortBody;
}

std::string frame(const net::Message& m) {
  std::string out;
  net::encodeFrame(m, out);
  return out;
}

class Liveness : public ::testing::Test {
 protected:
  static net::Server::Options options() {
    net::Server::Options options;
    options.idleTimeout = 300ms;
    options.limits.maxStringBytes = 1024;
    options.limits.maxFrameBytes = 64 * 1024;
    return options;
  }
  std::shared_ptr<net::Connection> saying(const net::Message& first) {
    auto c = side.connect();
    c->send(first);
    return c;
  }

  BrokerSide side{"tcp://127.0.0.1:0", options()};
};

TEST_F(Liveness, BadRequestsGetAnErrorAndTheConnectionStaysUsable) {
  auto c = greeted(side, "raw-session");
  const std::string kZeroId =
      " refused: requestId 0 is reserved for errors about the connection; requests need a non-zero requestId";
  const std::pair<std::string, std::string> rows[] = {
      {frame(message(MessageKind::ListServices, 2)), "4/2: [[1, \"Calc\"]]"},
      // Lookup #7 whose name is the byte msgpack never uses.
      {frame("\x94\x01\x09\x07\xc1"), "5/7: malformed frame: invalid msgpack byte 0xc1"},
      {frame("\x93\x02\x09\x08"), "5/8: malformed frame: unsupported protocol version 2 (expected 1)"},
      {frame("\x94\x01\x09\x09\x80"), "5/9: malformed frame: maps are not values"},
      {frame(message(MessageKind::Lookup, 10, {RX::RXValue(std::string(2000, 'n'))})),
       "5/10: malformed frame: str length 2000 exceeds maxStringBytes 1024"},
      // Well-formed but meaningless requests.
      {frame(message(static_cast<MessageKind>(99), 11)),
       "5/11: unexpected message kind 99 on a call connection"},
      {frame(message(MessageKind::Call, 12, {RX::RXValue("Calc"), RX::RXValue("add")})),
       "5/12: bad Call: field 0 (objectId) should be int, got string"},
      {frame(message(MessageKind::Call, 13, {RX::RXValue(999), RX::RXValue("add"), RX::RXValue::array(0)})),
       "5/13: object 999 is not exported to client raw (session raw-sess)"},
      {frame(message(MessageKind::Lookup, 14, {RX::RXValue("Nope")})), "5/14: Service not found: Nope"},
      {frame(message(MessageKind::Ping, 15)), "16/15:"},
      // Id 0 is for errors about the connection: a request with it is not run; a Ping may use it.
      {frame(message(MessageKind::Call, 0, {RX::RXValue("Calc")})), "5/0: request of kind 3" + kZeroId},
      {frame(message(MessageKind::Lookup, 0, {RX::RXValue("Calc")})), "5/0: request of kind 9" + kZeroId},
      {frame(message(MessageKind::ListServices, 0)), "5/0: request of kind 17" + kZeroId},
      {frame(message(static_cast<MessageKind>(99), 0)), "5/0: request of kind 99" + kZeroId},
      {frame(message(MessageKind::Ping, 0)), "16/0:"},
      {frame(message(MessageKind::ListServices, 16)), "4/16: [[1, \"Calc\"]]"},
  };
  for (const auto& [bytes, answer] : rows) {
    c->sendFrames(bytes);
    EXPECT_EQ(answer, nextWords(*c));
  }
  // A length beyond the frame limit: the stream is lost, so that connection only is closed.
  auto other = greeted(side, "other-session");
  c->sendFrames(std::string("\x7f\xff\xff\xff", 4));
  EXPECT_EQ(0u, nextWords(*c).find(
                    "5/0: stream out of sync, closing: frame length 2147483647 exceeds maxFrameBytes"));
  EXPECT_EQ("(closed)", nextWords(*c));
  other->send(message(MessageKind::ListServices, 17));
  EXPECT_EQ("4/17: [[1, \"Calc\"]]", nextWords(*other));
}

// Hello first, one event connection per session, and no silence (idle timeout 300 ms here).
TEST_F(Liveness, HandshakeRulesAndSilentConnectionsAreClosed) {
  auto mute = side.connect();
  EXPECT_EQ("2/1: \"testbroker\"", nextWords(*saying(hello("s"))));
  // Anything else first ends the connection.
  auto c = saying(message(MessageKind::ListServices, 3));
  EXPECT_EQ("5/3: the first message must be Hello [sessionId, role, clientName]", nextWords(*c));
  EXPECT_EQ("(closed)", nextWords(*c));
  EXPECT_EQ("5/1: bad Hello: role must be \"call\" or \"event\", not \"bogus\"",
            nextWords(*saying(hello("s", "bogus"))));
  c = saying(hello("s", "call", 0));
  EXPECT_EQ(0u, nextWords(*c).find("5/0: request of kind 1 refused: requestId 0 is reserved"));
  EXPECT_EQ("(closed)", nextWords(*c));
  // One event connection per session; it carries no requests.
  auto event = greeted(side, "session-e", "event");
  EXPECT_EQ("5/1: session session-e already has an event connection",
            nextWords(*saying(hello("session-e", "event"))));
  event->send(message(MessageKind::ListServices, 4));
  EXPECT_EQ(
      "5/4: an event connection carries only replies and pings from the client; send requests on a call "
      "connection",
      nextWords(*event));
  event->send(message(MessageKind::Ping, 5));
  EXPECT_EQ("16/5:", nextWords(*event));
  EXPECT_EQ("(closed)", nextWords(*mute));
  EXPECT_EQ("(closed)", nextWords(*event));
}

// The connections end as a crash ends them (a killed client process is checked end to end).
TEST_F(Liveness, KilledClientIsForgotten) {
  auto client = std::make_unique<ClientSide>(side.endpoint);
  boost::shared_ptr<RX::RXProxy> tool = side.broker->getProxy("Tool");
  mz::AnyObject counter = client->session->service("Calc").value().call<mz::AnyObject>("makeCounter");
  std::future<void> released = side.calc->lastCounter()->destroyed.get_future();
  counter.connect("changed", [](mz::AnyValue) {}).value();
  EXPECT_EQ(1u, side.calc->lastCounter()->changed.subscriberCount());
  client.reset();
  EXPECT_EQ(std::future_status::ready, released.wait_for(kWait))
      << "the broker kept an object of a dead client";
  EXPECT_THROW(tool->call<RX::RXValue>("subscribe", std::string("x")), mz::ObjectGoneError);
}

TEST_F(Liveness, TakenAddressesAreReported) {
  const boost::shared_ptr<RX::RXBroker>& broker = side.broker;
  net::Server second(broker, {side.endpoint});
  EXPECT_EQ("cannot listen on " + side.endpoint + ": Address already in use",
            errorOf([&] { second.start(); }));
  const std::string path = listenAddress("unix");
  net::Server unixServer(broker, {path});
  unixServer.start();
  net::Server unixSecond(broker, {path});
  EXPECT_EQ("cannot listen on " + path + ": Address already in use", errorOf([&] { unixSecond.start(); }));
  unixServer.stop();
  // A socket file left behind by a dead broker is taken over.
  net::Server after(broker, {path});
  EXPECT_NO_THROW(after.start());
  EXPECT_THROW(net::Server(broker, {"tcp://nowhere"}).start(), net::EndpointError);
}

// A broker that greets and then never answers a ping.
TEST(ClientLiveness, SilentBrokerIsDroppedByTheClient) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  ASSERT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
  ASSERT_EQ(0, ::listen(fd, 8));
  ASSERT_EQ(0, ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len));
  std::vector<std::shared_ptr<net::Connection>> accepted;
  std::thread fake([&] {
    for (int i = 0; i < 2; ++i) {  // event and call connections
      const int c = ::accept(fd, nullptr, nullptr);
      if (c < 0) return;
      accepted.push_back(std::make_shared<net::Connection>(c, "fake client"));
      net::Message hello;
      if (accepted.back()->read(hello) != net::Connection::ReadStatus::Message) return;
      accepted.back()->send(message(MessageKind::HelloAck, hello.requestId, {RX::RXValue("mute")}));
    }
  });
  net::ClientSession::Options options;
  options.pingInterval = 50ms;
  options.silenceLimit = 300ms;
  options.reconnect = false;
  auto client =
      net::ClientSession::connect("tcp://127.0.0.1:" + std::to_string(ntohs(addr.sin_port)), options);
  fake.join();
  std::promise<void> dropped;
  client->disconnected.connect([&] { dropped.set_value(); });
  EXPECT_EQ(std::future_status::ready, dropped.get_future().wait_for(kWait));
  EXPECT_FALSE(client->isConnected());
  client->close();
  ::close(fd);
}

// Signal connections on broker objects (a service, a returned object) are made again with the same
// subscriber and ended by the application's link id; one ended before stays ended; one that cannot be
// made again is logged without stopping the others. (Services registered again: end to end.)
TEST(BrokerRestart, ClientReconnectsAndRemakesSignalConnections) {
  auto first = std::make_unique<BrokerSide>("tcp://127.0.0.1:0", net::Server::Options(), "first");
  const std::string endpoint = first->endpoint;
  mz::SignalF<void(mz::AnyValue)> pinged;  // of a service the new broker will not have
  auto extra = std::make_shared<mz::DynamicObject>();
  extra->advertiseSignal("pinged", &pinged);
  first->broker->session()->registerService("Extra", mz::AnyObject(extra));
  net::ClientSession::Options options;
  options.reconnectMin = 20ms;
  options.reconnectMax = 200ms;
  Recorder downs, ups, ticks, counted;  // outlive the client, whose signals they follow
  ClientSide client(endpoint, options);
  client.session->disconnected.connect([&] { downs.add(RX::RXValue(1)); });
  client.session->reconnected.connect([&] { ups.add(RX::RXValue(1)); });
  testsupport::LogLines log("net.client");
  boost::shared_ptr<RX::RXProxy> calcProxy = client.broker->getProxy("Calc");
  mz::AnyObject calc = client.session->service("Calc").value();
  const mz::SignalLink tickLink =
      calc.connect("ticked", [&](mz::AnyValue v) { ticks.add(v.toRXValue()); }).value();
  client.session->service("Extra").value().connect("pinged", [](mz::AnyValue) {}).value();
  mz::AnyObject counter = calc.call<mz::AnyObject>("makeCounter");
  const mz::SignalLink counterLink =
      counter.connect("changed", [&](mz::AnyValue v) { counted.add(v.toRXValue()); }).value();
  // Else the counter it makes would be the new broker's last one, below.
  mz::AnyObject other = calc.call<mz::AnyObject>("makeCounter");
  other.disconnect(other.connect("changed", [](mz::AnyValue) {}).value()).waitAndCheck();

  first.reset();
  ASSERT_TRUE(downs.waitFor(1)) << "disconnected() not emitted";
  EXPECT_FALSE(client.session->isConnected());
  EXPECT_EQ("not connected to " + endpoint, errorOf([&] { calcProxy->call<int>("add", 1, 2); }));
  EXPECT_EQ("not connected to " + endpoint, client.session->service("Calc").error());
  BrokerSide second(endpoint, net::Server::Options(), "second");
  ASSERT_TRUE(ups.waitFor(1)) << "reconnected() not emitted";
  std::vector<std::string> warnings;  // about connections made again
  for (const std::string& line : log.items())
    if (line.find(" again") != std::string::npos && line.rfind("warning: ", 0) == 0) warnings.push_back(line);
  EXPECT_EQ("second", client.session->brokerName());
  EXPECT_EQ(7, calcProxy->call<int>("add", 3, 4));
  boost::shared_ptr<Counter> remadeCounter = second.calc->lastCounter();
  // Made again before reconnected(), with the subscribers they had.
  ASSERT_EQ(1u, second.calc->ticked.subscriberCount());
  ASSERT_TRUE(remadeCounter) << "makeCounter was not called again";
  second.calc->ticked(mz::AnyValue(0));
  remadeCounter->changed(mz::AnyValue(0));
  EXPECT_TRUE(receivedInOrder(ticks, 1) && receivedInOrder(counted, 1));
  EXPECT_EQ(
      std::vector<std::string>{
          "warning: cannot connect to Extra signal pinged again: Service not found: Extra"},
      warnings);
  // Through the handles the first broker gave.
  calc.disconnect(tickLink).waitAndCheck();
  counter.disconnect(counterLink).waitAndCheck();
  EXPECT_EQ(0u, second.calc->ticked.subscriberCount());
  EXPECT_EQ(0u, remadeCounter->changed.subscriberCount());
  EXPECT_EQ("no signal connection " + std::to_string(tickLink) + " on this object",
            errorOf([&] { calc.disconnect(tickLink).waitAndCheck(); }));
}

}  // namespace
}  // namespace nettest
