// Shared pieces of the transport tests: a broker with a test module served
// over a real socket, and a client process part (a ClientSession, a client
// broker and a client module) in the same test process.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "mz/object.h"
#include "mz/session.h"
#include "net/clientsession.h"
#include "net/remoteobject.h"
#include "net/server.h"
#include "rx/rxbroker.h"
#include "rx/rxerror.h"
#include "rx/rxmodule.h"
#include "rx/rxproxy.h"

namespace nettest {

using namespace std::chrono_literals;
constexpr std::chrono::milliseconds kWait = 5s;

// Collects values delivered on other threads; tests wait for a count with a
// time limit.
class Recorder {
 public:
  void add(const RX::RXValue& v) {
    std::lock_guard<std::mutex> lock(mutex_);
    values_.push_back(v);
    cond_.notify_all();
  }
  [[nodiscard]] bool waitFor(std::size_t n, std::chrono::milliseconds timeout = kWait) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cond_.wait_for(lock, timeout, [&] { return values_.size() >= n; });
  }
  std::vector<RX::RXValue> values() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return values_;
  }
  std::size_t size() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return values_.size();
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable cond_;
  std::vector<RX::RXValue> values_;
};

// A registered object type handed out by the broker's test module.
struct Counter {
  mz::SignalF<void(mz::AnyValue)> changed;
  std::promise<void> destroyed;
  ~Counter() { destroyed.set_value(); }
};

inline void registerCounterType() {
  static const bool done = [] {
    mz::ObjectTypeBuilder<Counter>("Counter").advertiseSignal("changed", &Counter::changed).registerType();
    return true;
  }();
  (void)done;
}

// The broker's module: values, errors, a raw-pointer method, a call back into
// a client, object references and a signal.
class CalcModule : public RX::RXModule {
 public:
  explicit CalcModule(boost::shared_ptr<RX::RXBroker> broker) : RX::RXModule(broker, "Calc") {
    registerCounterType();
    setModuleDescription("Test module of the transport.");
    functionName("echo", "Calc", "Returns its argument.");
    addParam("value", "Any value.");
    setReturn("value", "The argument.");
    advertiseMethod(getCurrentMethodDescription(), this, &CalcModule::echo);
    functionName("add", "Calc", "Adds two ints.");
    addParam("a", "First.");
    addParam("b", "Second.");
    setReturn("sum", "a + b.");
    advertiseMethod(getCurrentMethodDescription(), this, &CalcModule::add);
    // Overloads told apart by argument kind only.
    functionName("kind", "Calc", "Names the kind of its argument (int).");
    addParam("v", "");
    advertiseMethod(getCurrentMethodDescription(), this, &CalcModule::kindInt);
    functionName("kind", "Calc", "Names the kind of its argument (float).");
    addParam("v", "");
    advertiseMethod(getCurrentMethodDescription(), this, &CalcModule::kindFloat);
    functionName("kind", "Calc", "Names the kind of its argument (string).");
    addParam("v", "");
    advertiseMethod(getCurrentMethodDescription(), this, &CalcModule::kindString);
    functionName("kind", "Calc", "Names the kind of its argument (list of strings).");
    addParam("v", "");
    advertiseMethod(getCurrentMethodDescription(), this, &CalcModule::kindList);
    functionName("kind", "Calc", "Names the kind of its argument (any other).");
    addParam("v", "");
    advertiseMethod(getCurrentMethodDescription(), this, &CalcModule::kindValue);
    functionName("failRX", "Calc", "Throws an RXError with the given message.");
    addParam("message", "");
    advertiseMethod(getCurrentMethodDescription(), this, &CalcModule::failRX);
    functionName("failStd", "Calc", "Throws a std::runtime_error with the given message.");
    addParam("message", "");
    advertiseMethod(getCurrentMethodDescription(), this, &CalcModule::failStd);
    functionName("getPtr", "Calc", "An address in this process.", 4);
    advertiseMethod(getCurrentMethodDescription(), this, &CalcModule::getPtr);
    functionName("callClient", "Calc", "Calls a method of a service, waiting for the result.");
    addParam("service", "");
    addParam("method", "");
    addParam("argument", "");
    advertiseMethod(getCurrentMethodDescription(), this, &CalcModule::callClient);
    functionName("makeCounter", "Calc", "A new Counter object.");
    advertiseMethod(getCurrentMethodDescription(), this, &CalcModule::makeCounter);
    functionName("isCounter", "Calc", "Whether the object is the last Counter made.");
    addParam("object", "");
    advertiseMethod(getCurrentMethodDescription(), this, &CalcModule::isCounter);
    functionName("record", "Calc", "Records a value (for posts).");
    addParam("value", "");
    advertiseMethod(getCurrentMethodDescription(), this, &CalcModule::record);
    advertiseSignal("ticked", &ticked);
  }

  RX::RXValue echo(const RX::RXValue& v) { return v; }
  int add(int a, int b) { return a + b; }
  std::string kindInt(int) { return "int"; }
  std::string kindFloat(float) { return "float"; }
  std::string kindString(const std::string&) { return "string"; }
  std::string kindList(const std::vector<std::string>&) { return "list"; }
  std::string kindValue(const RX::RXValue&) { return "value"; }
  void failRX(const std::string& message) { RX_THROW("Calc", "failRX", message); }
  void failStd(const std::string& message) { throw std::runtime_error(message); }
  void* getPtr() { return &ticked; }
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
    std::lock_guard<std::mutex> lock(mutex_);
    auto c = lastCounter_.lock();
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

// The client's module, registered at the broker through the client session.
class ToolModule : public RX::RXModule {
 public:
  explicit ToolModule(boost::shared_ptr<RX::RXBroker> broker, const std::string& name = "Tool")
      : RX::RXModule(broker, name) {
    functionName("subscribe", "Tool", "Extractor-like: records the name.");
    addParam("name", "");
    advertiseMethod(getCurrentMethodDescription(), this, &ToolModule::subscribe);
    functionName("onEvent", "Tool", "Subscriber callback: records the value.");
    addParam("key", "");
    addParam("value", "");
    addParam("message", "");
    advertiseMethod(getCurrentMethodDescription(), this, &ToolModule::onEvent);
    functionName("askBroker", "Tool", "Calls Calc.add(a, 1) at the broker.");
    addParam("a", "");
    advertiseMethod(getCurrentMethodDescription(), this, &ToolModule::askBroker);
    functionName("onRelay", "Tool", "Subscriber callback that calls the broker, which calls this client back.");
    addParam("key", "");
    addParam("value", "");
    addParam("message", "");
    advertiseMethod(getCurrentMethodDescription(), this, &ToolModule::onRelay);
    advertiseSignal("beeped", &beeped);
  }

  RX::RXValue subscribe(const RX::RXValue& name) {
    subscribed.add(name);
    return RX::RXValue("subscribed " + name.toString(0));
  }
  void onEvent(const std::string&, const RX::RXValue& value, const RX::RXValue&) { events.add(value); }
  void onRelay(const std::string&, const RX::RXValue& value, const RX::RXValue&) {
    events.add(getParentBroker()->getProxy("Calc")->call<RX::RXValue>("callClient", std::string(getName()),
                                                                      std::string("subscribe"), value));
  }
  RX::RXValue askBroker(const RX::RXValue& a) {
    return RX::RXValue(getParentBroker()->getProxy("Calc")->call<int>("add", a.toInt(), 1));
  }

  mz::SignalF<void(mz::AnyValue)> beeped;
  Recorder subscribed;
  Recorder events;
};

// The text of the exception f throws, or "(no exception)".
inline std::string errorOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "(no exception)";
}

inline std::string uniqueSocketPath(const std::string& tag) {
  static std::atomic<int> counter{0};
  return "/tmp/rxnet-" + tag + "-" + std::to_string(::getpid()) + "-" + std::to_string(counter++) + ".sock";
}

inline std::string listenAddress(const std::string& kind) {
  return kind == "unix" ? "unix://" + uniqueSocketPath("t") : "tcp://127.0.0.1:0";
}

// A broker serving Calc, and a connected client process part serving Tool.
class TransportFixture : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    broker = RX::RXBroker::create("testbroker");
    calc = boost::make_shared<CalcModule>(broker);
    calc->initModule();
    server = std::make_unique<net::Server>(broker, std::vector<std::string>{listenAddress(GetParam())});
    server->start();
    endpoint = server->endpoints().at(0);
    net::ClientSession::Options options;
    options.clientName = "tool-process";
    session = net::ClientSession::connect(endpoint, options);
    clientBroker = RX::RXBroker::create("client", RX::RXBroker::Options(), session);
    tool = boost::make_shared<ToolModule>(clientBroker);
    tool->initModule();
  }

  void TearDown() override {
    if (clientBroker) clientBroker->shutdown();
    if (session) session->close();
    if (server) server->stop();
    broker->shutdown();
  }

  boost::shared_ptr<RX::RXBroker> broker;
  boost::shared_ptr<CalcModule> calc;
  std::unique_ptr<net::Server> server;
  std::string endpoint;
  std::shared_ptr<net::ClientSession> session;
  boost::shared_ptr<RX::RXBroker> clientBroker;
  boost::shared_ptr<ToolModule> tool;
};

}  // namespace nettest
