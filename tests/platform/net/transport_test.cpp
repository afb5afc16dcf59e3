// The transport over real sockets, for what the memory's clients do not reach end to end.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <boost/make_shared.hpp>
#include <future>

#include "mz/object.h"
#include "net/clientsession.h"
#include "net/connection.h"
#include "net/remoteobject.h"
#include "net/server.h"
#include "net/writeflusher.h"
#include "rx/rxbroker.h"
#include "rx/rxcallcontext.h"
#include "rx/rxerror.h"
#include "rx/rxexecutor.h"
#include "rx/rxmodule.h"
#include "rx/rxproxy.h"
#include "support/capture.h"

namespace {

using namespace std::chrono_literals;
using net::MessageKind;
using RX::RXValue;
using testsupport::errorOf;
using testsupport::kWait;
using Recorder = testsupport::Collector<RXValue>;

// Publishes `member` as method `name` of module `m`, one unnamed parameter per argument.
template <class M, class R, class... A>
void advertise(M* m, const std::string& name, R (M::*member)(A...)) {
  m->functionName(name, m->getName(), "", 0);
  for (std::size_t i = 0; i < sizeof...(A); ++i) m->addParam("p" + std::to_string(i), "");
  m->advertiseMethod(m->getCurrentMethodDescription(), m, member);
}

struct Counter {
  mz::SignalF<void(mz::AnyValue)> changed;
  std::promise<void> destroyed;
  ~Counter() { destroyed.set_value(); }
};

class CalcModule : public RX::RXModule {
 public:
  explicit CalcModule(boost::shared_ptr<RX::RXBroker> broker) : RX::RXModule(broker, "Calc") {
    static const bool registered = (mz::ObjectTypeBuilder<Counter>("Counter")
                                        .advertiseSignal("changed", &Counter::changed)
                                        .registerType(),
                                    true);
    (void)registered;
    advertise(this, "add", &CalcModule::add);
    advertise(this, "failRX", &CalcModule::failRX);
    advertise(this, "failStd", &CalcModule::failStd);
    advertise(this, "callClient", &CalcModule::callClient);
    advertise(this, "makeCounter", &CalcModule::makeCounter);
    advertise(this, "isCounter", &CalcModule::isCounter);
    advertise(this, "record", &CalcModule::record);
    advertise(this, "waitForever", &CalcModule::waitForever);
    advertiseSignal("ticked", &ticked);
  }

  int add(int a, int b) { return a + b; }
  void failRX(const std::string& message) { RX_THROW("Calc", "failRX", message); }
  void failStd(const std::string& message) { throw std::runtime_error(message); }
  RXValue callClient(const std::string& service, const std::string& method, const RXValue& argument) {
    return getParentBroker()->getProxy(service)->call<RXValue>(method, argument);
  }
  boost::shared_ptr<Counter> makeCounter() {
    auto c = boost::make_shared<Counter>();
    std::lock_guard<std::mutex> lock(mutex_);
    lastCounter_ = c;
    return c;
  }
  bool isCounter(const mz::AnyObject& object) {
    auto c = lastCounter();
    return c && object.isValid() && object.impl()->identity() == c.get();
  }
  void record(const RXValue& value) { recorded.add(value); }
  // Runs until its caller has gone, polling as a long operation (getDataOnChange) does.
  int waitForever() {
    waitStarted.set_value();
    while (!RX::CallContext::callerGone()) std::this_thread::sleep_for(5ms);
    waitEnded.set_value();
    return 0;
  }
  boost::shared_ptr<Counter> lastCounter() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lastCounter_.lock();
  }

  mz::SignalF<void(mz::AnyValue)> ticked;
  Recorder recorded;
  std::promise<void> waitStarted, waitEnded;

 private:
  std::mutex mutex_;
  boost::weak_ptr<Counter> lastCounter_;
};

class ToolModule : public RX::RXModule {
 public:
  explicit ToolModule(boost::shared_ptr<RX::RXBroker> broker) : RX::RXModule(broker, "Tool") {
    advertise(this, "subscribe", &ToolModule::subscribe);
    advertise(this, "onEvent", &ToolModule::onEvent);
    advertise(this, "askBroker", &ToolModule::askBroker);
    advertise(this, "onRelay", &ToolModule::onRelay);
    advertiseSignal("beeped", &beeped);
  }

  RXValue subscribe(const RXValue& name) { return RXValue("subscribed " + name.toString(0)); }
  void onEvent(const std::string&, const RXValue& value, const RXValue&) { events.add(value); }
  // A subscriber callback that calls the broker, which calls this client back.
  void onRelay(const std::string&, const RXValue& value, const RXValue&) {
    events.add(getParentBroker()->getProxy("Calc")->call<RXValue>("callClient", std::string("Tool"),
                                                                  std::string("subscribe"), value));
  }
  RXValue askBroker(const RXValue& a) {
    return RXValue(getParentBroker()->getProxy("Calc")->call<int>("add", a.toInt(), 1));
  }

  mz::SignalF<void(mz::AnyValue)> beeped;
  Recorder events;
};

// Whether `r` received 0, 1, ... n-1 in that order, within kWait.
::testing::AssertionResult receivedInOrder(Recorder& r, int n) {
  std::vector<RXValue> expected;
  for (int i = 0; i < n; ++i) expected.emplace_back(i);
  if (r.waitFor(static_cast<std::size_t>(n)) && r.items() == expected) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << r.size() << " of " << n << " arrived, or out of order";
}

// A free TCP port, or a new Unix socket path for "unix".
std::string listenAddress(const std::string& kind) {
  static std::atomic<int> counter{0};
  if (kind != "unix") return "tcp://127.0.0.1:0";
  return "unix:///tmp/rxnet-" + std::to_string(::getpid()) + "-" + std::to_string(counter++) + ".sock";
}

struct BrokerSide {
  explicit BrokerSide(const std::string& listen, const net::Server::Options& options = {},
                      const std::string& name = "testbroker", const RX::RXBroker::Options& brokerOptions = {})
      : broker(RX::RXBroker::create(name, brokerOptions)), calc(boost::make_shared<CalcModule>(broker)) {
    calc->initModule();
    server = std::make_unique<net::Server>(broker, std::vector<std::string>{listen}, options);
    server->start();
    endpoint = server->endpoints().at(0);
  }
  ~BrokerSide() {
    server->stop();
    broker->shutdown();
  }
  std::shared_ptr<net::Connection> connect() const {
    return net::Connection::connect(net::Endpoint::parse(endpoint), kWait);
  }
  std::uint64_t counter(const std::string& name) const { return broker->transportCounters()[name]; }

  boost::shared_ptr<RX::RXBroker> broker;
  boost::shared_ptr<CalcModule> calc;
  std::unique_ptr<net::Server> server;
  std::string endpoint;
};

// A client process part: a session to `endpoint`, its broker and its Tool module.
struct ClientSide {
  explicit ClientSide(const std::string& endpoint, const net::ClientSession::Options& options = {})
      : session(net::ClientSession::connect(endpoint, options)),
        broker(RX::RXBroker::create("client", RX::RXBroker::Options(), session)),
        tool(boost::make_shared<ToolModule>(broker)) {
    tool->initModule();
  }
  ~ClientSide() {
    broker->shutdown();
    session->close();
  }
  std::shared_ptr<net::ClientSession> session;
  boost::shared_ptr<RX::RXBroker> broker;
  boost::shared_ptr<ToolModule> tool;
};

// ---- Raw connections: the protocol spoken by hand ----

net::Message message(net::MessageKind kind, std::uint32_t requestId, std::vector<RXValue> fields = {}) {
  return net::Message{static_cast<std::uint8_t>(kind), requestId, std::move(fields)};
}

net::Message hello(const std::string& session, const std::string& role = "call", std::uint32_t id = 1) {
  return message(net::MessageKind::Hello, id, {RXValue(session), RXValue(role), RXValue("raw")});
}

// What the broker says next: "kind/id: error text", "kind/id: fields", or "(closed)" / "(still open)".
std::string nextWords(net::Connection& c) {
  c.setReadTimeout(kWait);
  net::Message m;
  for (;;) {
    const auto status = c.read(m);
    if (status == net::Connection::ReadStatus::Message) {
      std::string s = std::to_string(m.kind) + "/" + std::to_string(m.requestId) + ":";
      if (m.kind == static_cast<std::uint8_t>(net::MessageKind::Error) && m.fields.size() > 3)
        return s + " " + m.fields[3].toStdString();
      for (const RXValue& f : m.fields) s += " " + f.toString();
      return s;
    }
    if (status != net::Connection::ReadStatus::BadFrame)
      return status == net::Connection::ReadStatus::TimedOut ? "(still open)" : "(closed)";
  }
}

// A raw connection to `broker` that has said Hello as `role` of `session`.
std::shared_ptr<net::Connection> greeted(const BrokerSide& broker, const std::string& session,
                                         const std::string& role = "call") {
  auto c = broker.connect();
  c->send(hello(session, role));
  const std::string ack = nextWords(*c);
  if (ack.rfind("2/1:", 0) != 0) throw std::runtime_error("no HelloAck but " + ack);
  return c;
}

// ---- Calls, posts and signals ----

class Transport : public ::testing::TestWithParam<std::string> {
 protected:
  testsupport::Collector<std::string> announced;  // services, from the client's view; outlives it
  BrokerSide side{listenAddress(GetParam())};
  ClientSide client{side.endpoint};
  boost::shared_ptr<RX::RXBroker>& broker = side.broker;
  std::shared_ptr<net::ClientSession>& session = client.session;
  boost::shared_ptr<RX::RXProxy> calc = client.broker->getProxy("Calc");
};

// Values and overloads are covered end to end; only a test module raises these errors, and posts towards
// the broker are checked here (towards a client, end to end).
TEST_P(Transport, CallsCarryErrorsAndPostsKeepTheirOrder) {
  try {
    calc->call<void>("failRX", std::string("Data not found foo"));
    ADD_FAILURE() << "no exception";
  } catch (const RX::RXError& e) {
    EXPECT_EQ("Calc failRX Data not found foo", e.module() + " " + e.method() + " " + e.message());
    EXPECT_NE(std::string::npos, e.file().find("transport_test.cpp"));
    EXPECT_GT(e.line(), 0);
  }
  EXPECT_THROW(calc->call<void>("failStd", std::string("disk on fire")), net::RemoteError);
  EXPECT_EQ("Calc: no method named nope", errorOf([&] { calc->call<void>("nope", 1); }));
  EXPECT_EQ("Calc: no method add accepting (string, int)",
            errorOf([&] { calc->call<int>("add", std::string("x"), 1); }));
  // Arguments that cannot travel fail in the caller and leave the link usable.
  int local = 0;
  EXPECT_NE("(no exception)", errorOf([&] {
              calc->genericCall("record", {mz::AnyValue::fromOther(static_cast<void*>(&local))});
            }));
  EXPECT_EQ(5, calc->call<int>("add", 2, 3));
  // A client's failure comes back to the broker's caller.
  EXPECT_EQ("Tool: no method named nope", errorOf([&] { broker->getProxy("Tool")->call<void>("nope"); }));
  const int kPosts = 1000;
  for (int i = 0; i < kPosts; ++i) calc->genericPost("record", {mz::AnyValue(i)});
  EXPECT_TRUE(receivedInOrder(side.calc->recorded, kPosts));
  // A post that can never run is dropped, as locally: posters only learn that the target has gone.
  EXPECT_EQ("(no exception)", errorOf([&] { calc->genericPost("nope", {}); }));
}

TEST_P(Transport, ServicesAreFoundAndObjectReferencesTravelBothWaysAndAreReleased) {
  EXPECT_EQ("Module not found: Nope", errorOf([&] { client.broker->getProxy("Nope"); }));
  EXPECT_EQ(0, session->service("Calc").value().signalId("ticked"));
  std::vector<std::string> names;
  for (const auto& s : session->services()) names.push_back(s.name);
  EXPECT_EQ((std::vector<std::string>{"Calc", "Tool"}), names);
  EXPECT_EQ(nullptr, dynamic_cast<net::RemoteObject*>(session->service("Tool").value().impl().get()))
      << "the client's own service is not found locally";
  session->serviceRegistered.connect([&](unsigned int, std::string name) { announced.add("+" + name); });
  session->serviceUnregistered.connect([&](unsigned int, std::string name) { announced.add("-" + name); });
  broker->session()->unregisterService(
      broker->session()->registerService("Gadget", mz::AnyObject(std::make_shared<mz::DynamicObject>())));
  EXPECT_TRUE(announced.waitFor(2));
  EXPECT_EQ((std::vector<std::string>{"+Gadget", "-Gadget"}), announced.items());
  std::future<void> destroyed;
  {
    mz::AnyObject counter = calc->call<mz::AnyObject>("makeCounter");
    destroyed = side.calc->lastCounter()->destroyed.get_future();
    EXPECT_TRUE(calc->call<bool>("isCounter", counter));
  }
  EXPECT_EQ(std::future_status::ready, destroyed.wait_for(kWait)) << "the broker still holds the Counter";
}

// The client following a broker service's signal, and the broker a client service's.
TEST_P(Transport, SignalsAreFollowedAndEmittedBothWays) {
  struct Side {
    const char* name;
    mz::SignalF<void(mz::AnyValue)>& signal;  // the object's own signal
    mz::AnyObject remote;                     // the other process's handle to the object
    const char* signalName;
    bool emitWaits;  // for the signal to have run
  } sides[] = {{"Calc", side.calc->ticked, session->service("Calc").value(), "ticked", true},
               {"Tool", client.tool->beeped, broker->session()->service("Tool").value(), "beeped", false}};
  for (Side& s : sides) {
    SCOPED_TRACE(s.name);
    Recorder first, second, local;
    const mz::SignalLink link =
        s.remote.connect(s.signalName, [&](mz::AnyValue v) { first.add(v.toRXValue()); }).value();
    EXPECT_EQ(1u, s.signal.subscriberCount());
    for (int i = 0; i < 100; ++i) s.signal(mz::AnyValue(i));
    EXPECT_TRUE(receivedInOrder(first, 100));
    s.remote.disconnect(link).waitAndCheck();
    EXPECT_EQ(0u, s.signal.subscriberCount()) << "the object still forwards to the other process";
    const mz::SignalLink link2 =
        s.remote.connect(s.signalName, [&](mz::AnyValue v) { second.add(v.toRXValue()); }).value();
    // Emitting through the handle runs the object's signal, which comes back to the handle.
    const mz::SignalLink direct = s.signal.connect([&](mz::AnyValue v) { local.add(v.toRXValue()); });
    s.remote.emit(s.signalName, {mz::AnyValue(77)});
    EXPECT_TRUE(!s.emitWaits || local.size() == 1u) << "emit returned before the signal ran";
    ASSERT_TRUE(local.waitFor(1) && second.waitFor(1));
    EXPECT_EQ(77, local.items()[0].toInt());
    EXPECT_EQ(77, second.items()[0].toInt());
    EXPECT_EQ(100u, first.size()) << "a disconnected subscriber was called";
    s.signal.disconnect(direct);
    EXPECT_EQ(std::string(s.name) + ": no signal named nope",
              errorOf([&] { s.remote.emit("nope", {mz::AnyValue(1)}); }));
    EXPECT_NE("", s.remote.connect("nope", [](mz::AnyValue) {}).error());
    s.remote.disconnect(link2).waitAndCheck();
  }
}

TEST_P(Transport, BrokerMethodsCallBackTheClientThatWaitsAndLearnWhenItHangsUp) {
  // Calc.callClient -> Tool.askBroker -> Calc.add, from several client threads at once.
  const auto callClient = [&](const std::string& method, const RXValue& argument) {
    return calc->call<RXValue>("callClient", std::string("Tool"), method, argument);
  };
  std::vector<std::future<int>> results;
  for (int t = 0; t < 4; ++t)
    results.push_back(std::async(std::launch::async, [&, t] {
      int sum = 0;
      for (int i = 0; i < 20; ++i) sum += callClient("askBroker", RXValue(t * 100 + i)).toInt();
      return sum;
    }));
  for (int t = 0; t < 4; ++t) {
    ASSERT_EQ(std::future_status::ready, results[t].wait_for(kWait)) << "deadlock?";
    EXPECT_EQ(20 * (t * 100 + 1) + 190, results[t].get());
  }
  // A posted callback calling the broker, which calls the client back: the event reader must go on.
  std::pair<int, int> notifyState{0, 0};
  for (int i = 0; i < 3; ++i)
    broker->getProxy("Tool")->pCallNotify("onRelay", "key", RXValue(i), RXValue(""), &notifyState);
  ASSERT_TRUE(client.tool->events.waitFor(3)) << "a callback calling the broker stalled its own client";
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ("subscribed " + std::to_string(i), client.tool->events.items()[i].toString(0));
  auto calling =
      std::async(std::launch::async, [&] { return errorOf([&] { calc->call<int>("waitForever"); }); });
  ASSERT_EQ(std::future_status::ready, side.calc->waitStarted.get_future().wait_for(kWait));
  session->close();
  EXPECT_EQ(std::future_status::ready, side.calc->waitEnded.get_future().wait_for(kWait))
      << "the method went on polling for a caller that had gone";
  EXPECT_EQ(std::future_status::ready, calling.wait_for(kWait));
}

INSTANTIATE_TEST_SUITE_P(Net, Transport, ::testing::Values("tcp", "unix"));

// ---- Bad endpoints and input, dead peers, a broker restart ----

// The canonical text of what `text` parses to, or the error.
std::string parsed(const std::string& text) {
  try {
    return net::Endpoint::parse(text).toString();
  } catch (const net::EndpointError& e) {
    return e.what();
  }
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

TEST_F(Liveness, BadRequestsAndHandshakesGetErrorsAndSilentConnectionsAreClosed) {
  auto c = greeted(side, "raw-session");
  const std::string kZeroId =
      " refused: requestId 0 is reserved for errors about the connection; requests need a non-zero requestId";
  const std::pair<net::Message, std::string> rows[] = {
      {message(MessageKind::ListServices, 2), "4/2: [[1, \"Calc\"]]"},
      // The codec's errors, named by request (each text is checked in the codec's tests).
      {message(MessageKind::Lookup, 10, {RXValue(std::string(2000, 'n'))}),
       "5/10: malformed frame: str length 2000 exceeds maxStringBytes 1024"},
      // Well-formed but meaningless requests.
      {message(static_cast<MessageKind>(99), 11), "5/11: unexpected message kind 99 on a call connection"},
      {message(MessageKind::Call, 12, {RXValue("Calc"), RXValue("add")}),
       "5/12: bad Call: field 0 (objectId) should be int, got string"},
      {message(MessageKind::Call, 13, {RXValue(999), RXValue("add"), RXValue::array(0)}),
       "5/13: object 999 is not exported to client raw (session raw-sess)"},
      {message(MessageKind::Lookup, 14, {RXValue("Nope")}), "5/14: Service not found: Nope"},
      {message(MessageKind::Ping, 15), "16/15:"},
      // Id 0 is for errors about the connection: a request with it is not run; a Ping may use it.
      {message(MessageKind::Call, 0, {RXValue("Calc")}), "5/0: request of kind 3" + kZeroId},
      {message(MessageKind::Lookup, 0, {RXValue("Calc")}), "5/0: request of kind 9" + kZeroId},
      {message(MessageKind::ListServices, 0), "5/0: request of kind 17" + kZeroId},
      {message(static_cast<MessageKind>(99), 0), "5/0: request of kind 99" + kZeroId},
      {message(MessageKind::Ping, 0), "16/0:"},
  };
  for (const auto& [request, answer] : rows) {
    c->send(request);
    EXPECT_EQ(answer, nextWords(*c));
  }
  c->sendFrames(std::string("\0\0\0\4\x93\x02\x09\x08", 8));  // a Lookup #8 of protocol version 2
  EXPECT_EQ("5/8: malformed frame: unsupported protocol version 2 (expected 1)", nextWords(*c));
  // A length beyond the frame limit: the stream is lost, so that connection only is closed.
  auto other = greeted(side, "other-session");
  c->sendFrames(std::string("\x7f\xff\xff\xff", 4));
  EXPECT_EQ(0u, nextWords(*c).find(
                    "5/0: stream out of sync, closing: frame length 2147483647 exceeds maxFrameBytes"));
  EXPECT_EQ("(closed)", nextWords(*c));
  other->send(message(MessageKind::ListServices, 17));
  EXPECT_EQ("4/17: [[1, \"Calc\"]]", nextWords(*other));

  // Hello first, one event connection per session, and no silence (idle timeout 300 ms here).
  auto mute = side.connect();
  EXPECT_EQ("2/1: \"testbroker\"", nextWords(*saying(hello("s"))));
  // Anything else first ends the connection.
  c = saying(message(MessageKind::ListServices, 3));
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
  client.reset();
  EXPECT_EQ(std::future_status::ready, released.wait_for(kWait))
      << "the broker kept an object of a dead client";
  EXPECT_THROW(tool->call<RXValue>("subscribe", std::string("x")), mz::ObjectGoneError);
}

TEST_F(Liveness, EndpointsAreParsedOrRefusedAndTakenOnesAreReported) {
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
  EXPECT_EQ(net::Endpoint::parse("tcp://127.0.0.1:9780"), net::Endpoint::parse(net::Endpoint::kDefault));
  const std::string path = listenAddress("unix");
  net::Server unixServer(side.broker, {path});
  unixServer.start();
  for (const std::string& taken : {side.endpoint, path})
    EXPECT_EQ("cannot listen on " + taken + ": Address already in use",
              errorOf([&] { net::Server(side.broker, {taken}).start(); }));
  unixServer.stop();
  EXPECT_NO_THROW(net::Server(side.broker, {path}).start()) << "a stopped server's path is not free again";
  EXPECT_THROW(net::Server(side.broker, {"tcp://nowhere"}).start(), net::EndpointError);
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
      accepted.back()->send(message(MessageKind::HelloAck, hello.requestId, {RXValue("mute")}));
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

// Signal connections on a service or a returned object are made again with their subscriber and ended by the
// application's link id; one ended before is not; one that cannot be is logged, the others go on.
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
  client.session->disconnected.connect([&] { downs.add(RXValue(1)); });
  client.session->reconnected.connect([&] { ups.add(RXValue(1)); });
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

// ---- What one client may cost the broker ----

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
    near->setBufferedOutput(net::OutputLimits{hard, soft, softTime}, flusher_,
                            [this](bool hardLimit, const std::string& reason) {
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
  // Writes 1 KiB chunks until the connection refuses one (at most `max`): the error, or "".
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

// Writes never wait and arrive whole and in order once the reader reads; a client over the hard limit, or
// over the soft one for too long, is cut off once.
TEST(BufferedOutput, NeverWaitsAndIsCutOffOnceOverItsLimits) {
  StalledReader client(16u << 20, 16u << 20, std::chrono::hours(1));
  std::string written;
  auto writing = std::async(std::launch::async, [&] { return client.writeUntilRefused(4096, &written); });
  ASSERT_EQ(std::future_status::ready, writing.wait_for(kWait)) << "a write waited for the stalled reader";
  EXPECT_EQ("", writing.get());
  EXPECT_GT(client.near->outputBuffered(), 0u) << "4 MiB should not all fit in the socket";
  EXPECT_TRUE(client.read(written.size()) == written) << "bytes lost, cut or out of order";
  EXPECT_EQ(0u, client.cutOffs.size());

  StalledReader hard(64u << 10, 64u << 10, std::chrono::hours(1));
  const std::string error = hard.writeUntilRefused(100000);
  EXPECT_NE(std::string::npos, error.find("cut off: output buffer of ")) << error;
  EXPECT_NE(std::string::npos, error.find(" bytes over its hard limit maxOutputBytes 65536 (")) << error;
  EXPECT_TRUE(hard.near->isClosed());
  EXPECT_EQ(0u, hard.near->outputBuffered()) << "a client cut off keeps no bytes";
  EXPECT_NE(std::string::npos, hard.writeUntilRefused(1).find("is closed"));
  ASSERT_EQ(1u, hard.cutOffs.size()) << "the cut-off is reported once";
  EXPECT_EQ(0u, hard.cutOffs.items()[0].find("hard: output buffer of "));

  StalledReader soft(64u << 20, 16u << 10, std::chrono::milliseconds(500));
  ASSERT_EQ("", soft.writeUntilRefused(2048));
  ASSERT_GT(soft.near->outputBuffered(), 16u << 10);
  const auto now = std::chrono::steady_clock::now();
  soft.near->checkOutput(now);
  EXPECT_FALSE(soft.near->isClosed()) << "over the soft limit only just now";
  soft.near->checkOutput(now + std::chrono::seconds(1));
  EXPECT_TRUE(soft.near->isClosed());
  ASSERT_EQ(1u, soft.cutOffs.size());
  EXPECT_EQ(0u, soft.cutOffs.items()[0].find(
                    "soft: output buffer over its soft limit softOutputBytes 16384 for 500 ms ("));
}

// Clients, connections, handshakes and buffered input are capped with the limit named and counted.
TEST(ServerLimits, WhatOneClientMayCostIsCappedByNameAndCounted) {
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

  // Each connection that costs too much is closed and counted alone; the others are served.
  net::Server::Options costly;
  costly.handshakeTimeout = 100ms;
  costly.idleTimeout = std::chrono::hours(1);
  costly.maxInputBytes = 1u << 20;
  BrokerSide guarded("tcp://127.0.0.1:0", costly);
  testsupport::LogLines log("net.server");
  auto dripping = guarded.connect();
  dripping->sendFrames(std::string(2, '\0'));  // half a frame header, then nothing
  EXPECT_EQ("(closed)", nextWords(*dripping));
  EXPECT_EQ(1u, guarded.counter("connections closed: no Hello within handshakeTimeout"));
  EXPECT_FALSE(greeted(guarded, "in-time")->isClosed());

  auto greedy = greeted(guarded, "greedy");
  // A frame that announces 8 MiB (within the frame limit) and sends 3 MiB of it.
  std::string frame = {0, static_cast<char>(0x80), 0, 0};
  frame.append(3u << 20, '\x01');
  auto sending = std::async(std::launch::async, [&] { (void)errorOf([&] { greedy->sendFrames(frame); }); });
  EXPECT_NE("(still open)", nextWords(*greedy));
  ASSERT_EQ(std::future_status::ready, sending.wait_for(kWait));
  EXPECT_EQ(1u, guarded.counter("connections closed: buffered input over maxInputBytes"));
  EXPECT_NO_THROW(greeted(guarded, "modest")) << "the others are still served";

  // A flood of malformed frames is counted, but logged once a second.
  auto flooding = greeted(guarded, "flooding");
  std::string frames;
  for (int i = 0; i < 500; ++i) frames += std::string{0, 0, 0, 1, static_cast<char>(0xc1)};
  flooding->sendFrames(frames);
  flooding->send(message(net::MessageKind::Ping, 99));
  EXPECT_EQ("16/99:", nextWords(*flooding));  // served in order: the flood is behind us
  EXPECT_EQ(500u, guarded.counter("malformed frames received"));
  const std::vector<std::string> logged = log.items();
  const auto lines = std::count_if(logged.begin(), logged.end(), [](const std::string& l) {
    return l.find("malformed frame") != std::string::npos;
  });
  EXPECT_LE(lines, 2) << "one line a second, whatever the rate";
  EXPECT_GE(lines, 1);
}

constexpr std::size_t kCap = 16;

// A subscriber whose callback is stuck until released.
class SlowModule : public RX::RXModule {
 public:
  explicit SlowModule(boost::shared_ptr<RX::RXBroker> broker) : RX::RXModule(broker, "Slow") {
    advertise(this, "onEvent", &SlowModule::onEvent);
  }
  void onEvent(const std::string&, const RXValue& value, const RXValue&) {
    (void)released.wait();
    events.add(value);
  }

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
    return side.broker->droppedCounts()["Slow"] + client.session->droppedCounts()["Slow"];
  }

  BrokerSide side{listenAddress(GetParam()), {}, "testbroker", capped<RX::RXBroker::Options>()};
  ClientSide client{side.endpoint, capped<net::ClientSession::Options>()};
  boost::shared_ptr<SlowModule> slow = boost::make_shared<SlowModule>(client.broker);
};

TEST_P(SlowSubscriber, PostsToAStuckClientAreCappedCountedAndKeepTheNewest) {
  slow->initModule();
  boost::shared_ptr<RX::RXProxy> remote = side.broker->getProxy("Slow");
  const int kPosts = 3000;
  // The raising side only queues: the whole loop ends while the callback is stuck.
  std::pair<int, int> notifyState{0, 0};
  auto posting = std::async(std::launch::async, [&] {
    for (int i = 0; i < kPosts; ++i)
      remote->pCallNotify("onEvent", "key", RXValue(i), RXValue("msg"), &notifyState);
  });
  ASSERT_EQ(std::future_status::ready, posting.wait_for(kWait)) << "posting blocked on the stuck subscriber";
  EXPECT_EQ(kPosts, notifyState.first);
  // Another service of the same client is called back meanwhile.
  side.broker->getProxy("Tool")->pCallNotify("onEvent", "key", RXValue(7), RXValue(""), &notifyState);
  ASSERT_TRUE(client.tool->events.waitFor(1)) << "a stuck callback held up another service's";
  // A call written behind the posts comes back once the client has read them all.
  ASSERT_TRUE(side.broker->executor().drain(kWait)) << "the broker's queue towards the client did not empty";
  EXPECT_EQ("subscribed x",
            side.broker->getProxy("Tool")->call<RXValue>("subscribe", RXValue("x")).toString(0));

  EXPECT_TRUE(side.broker->droppedCounts().count("Slow")) << "the broker does not name the client's service";
  EXPECT_TRUE(client.session->droppedCounts().count("Slow")) << "the client does not report its service";
  const std::uint64_t kept = kPosts - dropped();
  EXPECT_GE(kept, 1u);
  EXPECT_LE(kept, kCap + 1) << "more than the cap plus the one in the callback was kept";
  slow->release.set_value();
  ASSERT_TRUE(slow->events.waitFor(kept)) << "only " << slow->events.size() << " of " << kept << " arrived";
  const std::vector<RXValue> got = slow->events.items();
  ASSERT_EQ(kept, got.size()) << "arrivals and drops do not add up to the posts";
  for (std::size_t i = 1; i < got.size(); ++i)
    EXPECT_LT(got[i - 1].toInt(), got[i].toInt()) << "out of order at " << i;
  EXPECT_EQ(kPosts - 1, got.back().toInt()) << "the newest notification was not delivered last";
  EXPECT_EQ(kPosts - kept, dropped())
      << "the counts are totals: releasing the subscriber does not change them";
}

INSTANTIATE_TEST_SUITE_P(Net, SlowSubscriber, ::testing::Values("tcp", "unix"));

TEST(DropCounters, BrokerSumsRegisteredCountersWithItsModulesCounts) {
  using Counts = std::map<std::string, uint64_t>;
  auto broker = RX::RXBroker::create("counting");
  const unsigned int first = broker->addDropCounter([] { return Counts{{"Remote", 3}, {"Other", 1}}; });
  const unsigned int second = broker->addDropCounter([] { return Counts{{"Remote", 4}}; });
  EXPECT_EQ((Counts{{"Other", 1}, {"Remote", 7}}), broker->droppedCounts());
  broker->removeDropCounter(first);
  broker->removeDropCounter(first);  // unknown now: ignored
  EXPECT_EQ((Counts{{"Remote", 4}}), broker->droppedCounts());
  broker->removeDropCounter(second);
  EXPECT_TRUE(broker->droppedCounts().empty());
  broker->shutdown();
}

}  // namespace
