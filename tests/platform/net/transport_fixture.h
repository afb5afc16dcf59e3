// The transport tests' world: a broker serving a test module over a real socket, a client
// process part in the same test process, and raw connections speaking the protocol by hand.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <boost/make_shared.hpp>
#include <future>

#include "mz/object.h"
#include "net/clientsession.h"
#include "net/connection.h"
#include "net/remoteobject.h"
#include "net/server.h"
#include "rx/rxbroker.h"
#include "rx/rxerror.h"
#include "rx/rxmodule.h"
#include "rx/rxproxy.h"
#include "support/capture.h"

namespace nettest {

using namespace std::chrono_literals;
using testsupport::errorOf;
using testsupport::kWait;
using Recorder = testsupport::Collector<RX::RXValue>;

// Publishes `member` as method `name` of module `m`, one unnamed parameter per argument.
template <class M, class R, class... A>
void advertise(M* m, const std::string& name, R (M::*member)(A...)) {
  m->functionName(name, m->getName(), "", 0);
  for (std::size_t i = 0; i < sizeof...(A); ++i) m->addParam("p" + std::to_string(i), "");
  m->advertiseMethod(m->getCurrentMethodDescription(), m, member);
}

// A registered object type handed out by the broker's test module.
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
    advertiseSignal("ticked", &ticked);
  }

  int add(int a, int b) { return a + b; }
  void failRX(const std::string& message) { RX_THROW("Calc", "failRX", message); }
  void failStd(const std::string& message) { throw std::runtime_error(message); }
  RX::RXValue callClient(const std::string& service, const std::string& method, const RX::RXValue& argument) {
    return getParentBroker()->getProxy(service)->call<RX::RXValue>(method, argument);
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
  void record(const RX::RXValue& value) { recorded.add(value); }
  boost::shared_ptr<Counter> lastCounter() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lastCounter_.lock();
  }

  mz::SignalF<void(mz::AnyValue)> ticked;
  Recorder recorded;

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

  RX::RXValue subscribe(const RX::RXValue& name) { return RX::RXValue("subscribed " + name.toString(0)); }
  void onEvent(const std::string&, const RX::RXValue& value, const RX::RXValue&) { events.add(value); }
  // A subscriber callback that calls the broker, which calls this client back.
  void onRelay(const std::string&, const RX::RXValue& value, const RX::RXValue&) {
    events.add(getParentBroker()->getProxy("Calc")->call<RX::RXValue>("callClient", std::string("Tool"),
                                                                      std::string("subscribe"), value));
  }
  RX::RXValue askBroker(const RX::RXValue& a) {
    return RX::RXValue(getParentBroker()->getProxy("Calc")->call<int>("add", a.toInt(), 1));
  }

  mz::SignalF<void(mz::AnyValue)> beeped;
  Recorder events;
};

// Whether `r` received 0, 1, ... n-1 in that order, within kWait.
inline ::testing::AssertionResult receivedInOrder(Recorder& r, int n) {
  if (!r.waitFor(static_cast<std::size_t>(n)))
    return ::testing::AssertionFailure() << "only " << r.size() << " of " << n << " arrived";
  const std::vector<RX::RXValue> got = r.items();
  for (int i = 0; i < n; ++i)
    if (got[static_cast<std::size_t>(i)].toInt() != i)
      return ::testing::AssertionFailure()
             << "item " << i << " is " << got[static_cast<std::size_t>(i)].toString();
  return ::testing::AssertionSuccess();
}

// A free TCP port, or a new Unix socket path for "unix".
inline std::string listenAddress(const std::string& kind) {
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

inline net::Message message(net::MessageKind kind, std::uint32_t requestId,
                            std::vector<RX::RXValue> fields = {}) {
  return net::Message{static_cast<std::uint8_t>(kind), requestId, std::move(fields)};
}

inline net::Message hello(const std::string& session, const std::string& role = "call",
                          std::uint32_t id = 1) {
  return message(net::MessageKind::Hello, id, {RX::RXValue(session), RX::RXValue(role), RX::RXValue("raw")});
}

// What the broker says next on `c`: "kind/id: error text" for an Error,
// "kind/id: field field" for anything else, "(closed)" or "(still open)"
// when nothing comes within kWait.
inline std::string nextWords(net::Connection& c) {
  c.setReadTimeout(kWait);
  net::Message m;
  for (;;) {
    const auto status = c.read(m);
    if (status == net::Connection::ReadStatus::Message) {
      std::string s = std::to_string(m.kind) + "/" + std::to_string(m.requestId) + ":";
      if (m.kind == static_cast<std::uint8_t>(net::MessageKind::Error) && m.fields.size() > 3)
        return s + " " + m.fields[3].toStdString();
      for (const RX::RXValue& f : m.fields) s += " " + f.toString();
      return s;
    }
    if (status != net::Connection::ReadStatus::BadFrame)
      return status == net::Connection::ReadStatus::TimedOut ? "(still open)" : "(closed)";
  }
}

// A raw connection to `broker` that has said Hello as `role` of `session`.
inline std::shared_ptr<net::Connection> greeted(const BrokerSide& broker, const std::string& session,
                                                const std::string& role = "call") {
  auto c = broker.connect();
  c->send(hello(session, role));
  const std::string ack = nextWords(*c);
  if (ack.rfind("2/1:", 0) != 0) throw std::runtime_error("no HelloAck but " + ack);
  return c;
}

}  // namespace nettest
