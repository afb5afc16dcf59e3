// What a broker does with bad input and dead peers, and how a client lives
// through a broker restart: malformed frames from a raw socket, handshake
// rules, silent and killed clients, a port already taken, reconnection.
#include <netinet/in.h>
#include <sys/socket.h>

#include "net/connection.h"
#include "net/endpoint.h"
#include "net/wirecodec.h"
#include "transport_fixture.h"

namespace nettest {
namespace {

// One frame around hand-made body bytes.
std::string frame(const std::vector<std::uint8_t>& body) {
  const auto n = static_cast<std::uint32_t>(body.size());
  std::string out{static_cast<char>(n >> 24), static_cast<char>(n >> 16), static_cast<char>(n >> 8),
                  static_cast<char>(n)};
  out.append(body.begin(), body.end());
  return out;
}

net::Message message(net::MessageKind kind, std::uint32_t requestId, std::vector<RX::RXValue> fields = {}) {
  net::Message m;
  m.kind = static_cast<std::uint8_t>(kind);
  m.requestId = requestId;
  m.fields = std::move(fields);
  return m;
}

// Reads the next message, failing the test on anything else.
net::Message next(net::Connection& c) {
  net::Message m;
  const net::Connection::ReadStatus status = c.read(m);
  EXPECT_EQ(net::Connection::ReadStatus::Message, status) << "read status " << static_cast<int>(status);
  return m;
}

std::string errorText(const net::Message& m) {
  if (m.kind != static_cast<std::uint8_t>(net::MessageKind::Error)) return "(not an Error)";
  return m.fields.size() > 3 && m.fields[3].isString() ? m.fields[3].toStdString() : "(no text)";
}

class Liveness : public ::testing::Test {
 protected:
  void SetUp() override {
    broker = RX::RXBroker::create("testbroker");
    calc = boost::make_shared<CalcModule>(broker);
    calc->initModule();
    net::Server::Options options;
    options.idleTimeout = 300ms;
    options.limits.maxStringBytes = 1024;
    options.limits.maxFrameBytes = 64 * 1024;
    server = std::make_unique<net::Server>(broker, std::vector<std::string>{"tcp://127.0.0.1:0"}, options);
    server->start();
    endpoint = server->endpoints().at(0);
  }
  void TearDown() override {
    server->stop();
    broker->shutdown();
  }

  // A connection that has said Hello as `role` of session `sessionId`.
  std::shared_ptr<net::Connection> greeted(const std::string& role,
                                           const std::string& sessionId = "raw-session") {
    auto c = net::Connection::connect(net::Endpoint::parse(endpoint), kWait);
    c->setReadTimeout(kWait);
    c->send(
        message(net::MessageKind::Hello, 1, {RX::RXValue(sessionId), RX::RXValue(role), RX::RXValue("raw")}));
    net::Message ack = next(*c);
    EXPECT_EQ(static_cast<std::uint8_t>(net::MessageKind::HelloAck), ack.kind) << errorText(ack);
    EXPECT_EQ("testbroker", ack.fields.at(0).toStdString());
    return c;
  }

  // A ListServices round trip: proves the connection still answers.
  void expectAnswers(net::Connection& c, std::uint32_t id) {
    c.send(message(net::MessageKind::ListServices, id));
    net::Message reply = next(c);
    EXPECT_EQ(static_cast<std::uint8_t>(net::MessageKind::Reply), reply.kind) << errorText(reply);
    EXPECT_EQ(id, reply.requestId);
    ASSERT_EQ(1u, reply.fields.size());
    EXPECT_EQ("[[1, \"Calc\"]]", reply.fields[0].toString());
  }

  boost::shared_ptr<RX::RXBroker> broker;
  boost::shared_ptr<CalcModule> calc;
  std::unique_ptr<net::Server> server;
  std::string endpoint;
};

TEST_F(Liveness, MalformedFramesGetAnErrorAndTheConnectionStaysUsable) {
  auto c = greeted("call");
  expectAnswers(*c, 2);

  // Lookup #7 whose name is the byte msgpack never uses.
  c->sendFrames(frame({0x94, 0x01, 0x09, 0x07, 0xc1}));
  net::Message m = next(*c);
  EXPECT_EQ(7u, m.requestId);
  EXPECT_EQ(0u, errorText(m).find("malformed frame: ")) << errorText(m);
  // Another protocol version.
  c->sendFrames(frame({0x93, 0x02, 0x09, 0x08}));
  m = next(*c);
  EXPECT_EQ(8u, m.requestId);
  EXPECT_EQ("malformed frame: unsupported protocol version 2 (expected 1)", errorText(m));
  // A map where a value is expected.
  c->sendFrames(frame({0x94, 0x01, 0x09, 0x09, 0x80}));
  m = next(*c);
  EXPECT_EQ(9u, m.requestId);
  EXPECT_EQ("malformed frame: maps are not values", errorText(m));
  // A string beyond the configured limit.
  c->send(message(net::MessageKind::Lookup, 10, {RX::RXValue(std::string(2000, 'n'))}));
  m = next(*c);
  EXPECT_EQ(10u, m.requestId);
  EXPECT_EQ("malformed frame: str length 2000 exceeds maxStringBytes 1024", errorText(m));
  // Well-formed but meaningless requests.
  c->send(message(static_cast<net::MessageKind>(99), 11));
  EXPECT_EQ("unexpected message kind 99 on a call connection", errorText(next(*c)));
  c->send(message(net::MessageKind::Call, 12, {RX::RXValue("Calc"), RX::RXValue("add")}));
  EXPECT_EQ("bad Call: field 0 (objectId) should be int, got string", errorText(next(*c)));
  c->send(message(net::MessageKind::Call, 13, {RX::RXValue(999), RX::RXValue("add"), RX::RXValue::array(0)}));
  EXPECT_EQ("object 999 is not exported to client raw (session raw-sess)", errorText(next(*c)));
  c->send(message(net::MessageKind::Lookup, 14, {RX::RXValue("Nope")}));
  EXPECT_EQ("Service not found: Nope", errorText(next(*c)));
  c->send(message(net::MessageKind::Ping, 15));
  m = next(*c);
  EXPECT_EQ(static_cast<std::uint8_t>(net::MessageKind::Pong), m.kind);
  EXPECT_EQ(15u, m.requestId);
  // Id 0 is the id of errors about the connection: a request carrying it is
  // not run (a Call with bad fields would say so), only a Ping may use it.
  for (const int kind : {3, 9, 17, 99}) {
    c->send(message(static_cast<net::MessageKind>(kind), 0, {RX::RXValue("Calc")}));
    m = next(*c);
    EXPECT_EQ(0u, m.requestId);
    EXPECT_EQ("request of kind " + std::to_string(kind) +
                  " refused: requestId 0 is reserved for errors about the connection; requests need a "
                  "non-zero requestId",
              errorText(m));
  }
  c->send(message(net::MessageKind::Ping, 0));
  m = next(*c);
  EXPECT_EQ(static_cast<std::uint8_t>(net::MessageKind::Pong), m.kind);
  EXPECT_EQ(0u, m.requestId);
  expectAnswers(*c, 16);

  // A length beyond the frame limit: the stream cannot be followed any more,
  // so that connection (only) is closed.
  auto other = greeted("call", "other-session");
  c->sendFrames(std::string("\x7f\xff\xff\xff", 4));
  m = next(*c);
  EXPECT_EQ(0u,
            errorText(m).find("stream out of sync, closing: frame length 2147483647 exceeds maxFrameBytes"))
      << errorText(m);
  net::Message none;
  EXPECT_EQ(net::Connection::ReadStatus::Closed, c->read(none));
  expectAnswers(*other, 17);
}

TEST_F(Liveness, HandshakeRules) {
  // Anything before Hello ends the connection.
  auto c = net::Connection::connect(net::Endpoint::parse(endpoint), kWait);
  c->setReadTimeout(kWait);
  c->send(message(net::MessageKind::ListServices, 3));
  net::Message m = next(*c);
  EXPECT_EQ(3u, m.requestId);
  EXPECT_EQ("the first message must be Hello [sessionId, role, clientName]", errorText(m));
  EXPECT_EQ(net::Connection::ReadStatus::Closed, c->read(m));

  c = net::Connection::connect(net::Endpoint::parse(endpoint), kWait);
  c->setReadTimeout(kWait);
  c->send(message(net::MessageKind::Hello, 1, {RX::RXValue("s"), RX::RXValue("bogus"), RX::RXValue("x")}));
  EXPECT_EQ("bad Hello: role must be \"call\" or \"event\", not \"bogus\"", errorText(next(*c)));
  c = net::Connection::connect(net::Endpoint::parse(endpoint), kWait);
  c->setReadTimeout(kWait);
  c->send(message(net::MessageKind::Hello, 0, {RX::RXValue("s"), RX::RXValue("call"), RX::RXValue("x")}));
  m = next(*c);
  EXPECT_EQ(0u, m.requestId);
  EXPECT_EQ(0u, errorText(m).find("request of kind 1 refused: requestId 0 is reserved")) << errorText(m);
  EXPECT_EQ(net::Connection::ReadStatus::Closed, c->read(m));

  // One event connection per session; it carries no requests.
  auto event = greeted("event", "session-e");
  c = net::Connection::connect(net::Endpoint::parse(endpoint), kWait);
  c->setReadTimeout(kWait);
  c->send(message(net::MessageKind::Hello, 1,
                  {RX::RXValue("session-e"), RX::RXValue("event"), RX::RXValue("x")}));
  EXPECT_EQ("session session-e already has an event connection", errorText(next(*c)));
  event->send(message(net::MessageKind::ListServices, 4));
  EXPECT_EQ(
      "an event connection carries only replies and pings from the client; send requests on a call "
      "connection",
      errorText(next(*event)));
  event->send(message(net::MessageKind::Ping, 5));
  EXPECT_EQ(static_cast<std::uint8_t>(net::MessageKind::Pong), next(*event).kind);
}

TEST_F(Liveness, SilentConnectionsAreClosed) {
  // Neither a connection that never says Hello nor a client that stops
  // pinging is kept (idle timeout 300 ms here).
  auto mute = net::Connection::connect(net::Endpoint::parse(endpoint), kWait);
  mute->setReadTimeout(kWait);
  auto event = greeted("event", "quiet");
  net::Message m;
  EXPECT_EQ(net::Connection::ReadStatus::Closed, mute->read(m));
  EXPECT_EQ(net::Connection::ReadStatus::Closed, event->read(m));
}

TEST_F(Liveness, KilledClientIsForgotten) {
  std::mutex mutex;
  std::condition_variable cond;
  std::vector<std::string> gone;
  mz::SignalLink link = broker->session()->serviceUnregistered.connect([&](unsigned int, std::string name) {
    std::lock_guard<std::mutex> lock(mutex);
    gone.push_back(name);
    cond.notify_all();
  });

  auto client = net::ClientSession::connect(endpoint);
  auto gadget = std::make_shared<mz::DynamicObject>();
  mz::MetaMethod ping;
  ping.name = "ping";
  gadget->advertiseMethod(ping, mz::makeInvoker<int>([] { return 1; }));
  client->registerService("Gadget", mz::AnyObject(gadget));
  boost::shared_ptr<RX::RXProxy> proxy = broker->getProxy("Gadget");
  EXPECT_EQ(1, proxy->call<int>("ping"));
  // An object of the broker the client holds, and a link it follows.
  mz::AnyObject counter = client->service("Calc").value().call<mz::AnyObject>("makeCounter");
  std::future<void> released = calc->lastCounter()->destroyed.get_future();
  counter.connect("changed", [](mz::AnyValue) {}).value();
  EXPECT_EQ(1u, calc->lastCounter()->changed.subscriberCount());
  // The client's event connection ends as a crash would end it.
  client->close();
  EXPECT_EQ(std::future_status::ready, released.wait_for(kWait)) << "the broker kept an object of a dead client";
  {
    std::unique_lock<std::mutex> lock(mutex);
    ASSERT_TRUE(cond.wait_for(lock, kWait, [&] { return !gone.empty(); }));
    EXPECT_EQ("Gadget", gone[0]);
  }
  EXPECT_EQ("Module not found: Gadget", errorOf([&] { broker->getProxy("Gadget"); }));
  // Whoever still holds a handle learns at once that the client is gone.
  EXPECT_THROW(proxy->pCallNotify("ping", "k", RX::RXValue(), RX::RXValue(), nullptr), mz::ObjectGoneError);
  EXPECT_THROW(proxy->call<int>("ping"), mz::ObjectGoneError);
  broker->session()->serviceUnregistered.disconnect(link);
}

TEST_F(Liveness, TakenAddressesAreReported) {
  net::Server second(broker, {endpoint});
  EXPECT_EQ("cannot listen on " + endpoint + ": Address already in use", errorOf([&] { second.start(); }));
  const std::string path = "unix://" + uniqueSocketPath("busy");
  net::Server unixServer(broker, {path});
  unixServer.start();
  net::Server unixSecond(broker, {path});
  EXPECT_EQ("cannot listen on " + path + ": Address already in use", errorOf([&] { unixSecond.start(); }));
  unixServer.stop();
  // A socket file left behind by a dead broker is taken over.
  net::Server after(broker, {path});
  EXPECT_NO_THROW(after.start());
  EXPECT_THROW(net::Server(broker, {"tcp://nowhere"}).start(), net::EndpointError);
  EXPECT_EQ(0u, errorOf([] {
                  (void)net::ClientSession::connect("tcp://127.0.0.1:1");
                }).find("cannot connect to tcp://127.0.0.1:1: "));
}

TEST_F(Liveness, ClientSurvivesBrokerRestart) {
  net::ClientSession::Options options;
  options.reconnectMin = 20ms;
  options.reconnectMax = 200ms;
  auto client = net::ClientSession::connect(endpoint, options);
  auto clientBroker = RX::RXBroker::create("client", RX::RXBroker::Options(), client);
  auto tool = boost::make_shared<ToolModule>(clientBroker);
  tool->initModule();
  boost::shared_ptr<RX::RXProxy> calcProxy = clientBroker->getProxy("Calc");
  EXPECT_EQ(3, calcProxy->call<int>("add", 1, 2));

  std::mutex mutex;
  std::condition_variable cond;
  int downs = 0, ups = 0;
  client->disconnected.connect([&] {
    std::lock_guard<std::mutex> lock(mutex);
    ++downs;
    cond.notify_all();
  });
  client->reconnected.connect([&] {
    std::lock_guard<std::mutex> lock(mutex);
    ++ups;
    cond.notify_all();
  });

  server->stop();
  {
    std::unique_lock<std::mutex> lock(mutex);
    ASSERT_TRUE(cond.wait_for(lock, kWait, [&] { return downs == 1; })) << "disconnected() not emitted";
  }
  EXPECT_FALSE(client->isConnected());
  EXPECT_EQ("not connected to " + endpoint, errorOf([&] { calcProxy->call<int>("add", 1, 2); }));
  EXPECT_EQ("not connected to " + endpoint, client->service("Calc").error());

  // A new broker on the same address.
  auto broker2 = RX::RXBroker::create("restarted");
  auto calc2 = boost::make_shared<CalcModule>(broker2);
  calc2->initModule();
  net::Server server2(broker2, {endpoint});
  server2.start();
  {
    std::unique_lock<std::mutex> lock(mutex);
    ASSERT_TRUE(cond.wait_for(lock, kWait, [&] { return ups == 1; })) << "reconnected() not emitted";
  }
  EXPECT_TRUE(client->isConnected());
  EXPECT_EQ("restarted", client->brokerName());
  // The client's module was registered again, and the proxy kept across the
  // restart reaches the new broker's module.
  EXPECT_EQ("subscribed again",
            broker2->getProxy("Tool")->call<RX::RXValue>("subscribe", std::string("again")).toString(0));
  EXPECT_EQ(7, calcProxy->call<int>("add", 3, 4));

  clientBroker->shutdown();
  client->close();
  server2.stop();
  broker2->shutdown();
}

// A broker that greets and then never answers a ping.
TEST(ClientLiveness, SilentBrokerIsDroppedByTheClient) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(fd, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
  ASSERT_EQ(0, ::listen(fd, 8));
  socklen_t len = sizeof addr;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  const std::string endpoint = "tcp://127.0.0.1:" + std::to_string(ntohs(addr.sin_port));
  std::vector<std::shared_ptr<net::Connection>> accepted;
  std::thread fake([&] {
    for (int i = 0; i < 2; ++i) {  // event and post connections
      const int c = ::accept(fd, nullptr, nullptr);
      if (c < 0) return;
      auto conn = std::make_shared<net::Connection>(c, "fake client");
      net::Message hello;
      if (conn->read(hello) != net::Connection::ReadStatus::Message) return;
      conn->send(message(net::MessageKind::HelloAck, hello.requestId, {RX::RXValue("mute")}));
      accepted.push_back(conn);
    }
  });
  net::ClientSession::Options options;
  options.pingInterval = 50ms;
  options.silenceLimit = 300ms;
  options.reconnect = false;
  auto client = net::ClientSession::connect(endpoint, options);
  fake.join();
  std::promise<void> dropped;
  client->disconnected.connect([&] { dropped.set_value(); });
  EXPECT_EQ(std::future_status::ready, dropped.get_future().wait_for(kWait));
  EXPECT_FALSE(client->isConnected());
  client->close();
  ::close(fd);
}

}  // namespace
}  // namespace nettest
