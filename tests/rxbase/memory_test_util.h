// The memory tests' world: a broker with RXMemory, recording modules, an extractor, a service with signals.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <boost/make_shared.hpp>
#include <future>

#include "mz/session.h"
#include "rx/rxbroker.h"
#include "rx/rxerror.h"
#include "rxmemory.h"
#include "rxmemorysubscriber.h"
#include "support/capture.h"

using Names = std::vector<std::string>;
using RX::RXValue;
using S = std::string;
using testsupport::LogLines;

struct Notification {
  std::string method, key;
  RXValue value, message;
  std::string str() const { return method + " " + key + " " + value.toString() + " " + message.toString(); }
};

// Publishes onEvent and onOther(key, value, message); collects every call in arrival order.
class Recorder : public RX::RXModule, public testsupport::Collector<Notification> {
 public:
  Recorder(boost::shared_ptr<RX::RXBroker> broker, const std::string& name) : RXModule(broker, name) {
    for (const char* method : {"onEvent", "onOther"}) {
      functionName(method, name, "Records a notification");
      for (const char* param : {"key", "value", "message"}) addParam(param, param);
      advertiseMethod(getCurrentMethodDescription(), this,
                      method[2] == 'E' ? &Recorder::onEvent : &Recorder::onOther);
    }
  }
  void onEvent(const S& key, const RXValue& v, const RXValue& m) { add({"onEvent", key, v, m}); }
  void onOther(const S& key, const RXValue& v, const RXValue& m) { add({"onOther", key, v, m}); }
  Names keyValues() const {  // "key=value" of every call but the drain sentinels
    Names out;
    for (const Notification& n : items())
      if (n.key != "Sentinel") out.push_back(n.key + "=" + n.value.toString(0));
    return out;
  }
};

// Answers subscribe/unsubscribe ("subscribe:ID") or throws; offers getCurrentPrecision, as extractors do.
class Extractor : public RX::RXModule, public testsupport::Collector<std::string> {
 public:
  Extractor(boost::shared_ptr<RX::RXBroker> broker, const S& name, bool failing)
      : RXModule(broker, name), failing_(failing) {
    for (const char* method : {"subscribe", "unsubscribe"}) {
      functionName(method, name, "Starts or stops generating");
      addParam("subscriberId", "id");
      advertiseMethod(getCurrentMethodDescription(), this,
                      method[0] == 's' ? &Extractor::subscribe : &Extractor::unsubscribe);
    }
    functionName("getCurrentPrecision", name, "Precision");
    advertiseMethod(getCurrentMethodDescription(), this, &Extractor::getCurrentPrecision);
  }
  void subscribe(const std::string& id) { call("subscribe:" + id); }
  void unsubscribe(const std::string& id) { call("unsubscribe:" + id); }
  float getCurrentPrecision() { return 1.0f; }

 private:
  void call(const std::string& what) {
    if (failing_) throw std::runtime_error("generator offline for " + what.substr(what.find(':') + 1));
    add(what);
  }
  const bool failing_;
};

// A messaging-layer service with signals of one value, as the ones the memory maps onto events.
class FakeService : public mz::DynamicObject {
 public:
  explicit FakeService(const Names& signalNames) {
    for (const std::string& name : signalNames) {
      auto signal = std::make_unique<mz::SignalF<void(mz::AnyValue)>>();
      advertiseSignal(name, signal.get());
      signals_.emplace(name, std::move(signal));
    }
  }
  void emit(const std::string& signal, const mz::AnyValue& value) { (*signals_.at(signal))(value); }
  std::size_t connections(const std::string& signal) const { return signals_.at(signal)->subscriberCount(); }

 private:
  std::map<std::string, std::unique_ptr<mz::SignalF<void(mz::AnyValue)>>> signals_;
};

template <typename M, typename... Args>
boost::shared_ptr<M> startModule(boost::shared_ptr<RX::RXBroker> broker, const S& name, Args... args) {
  auto module = boost::make_shared<M>(broker, name, args...);
  module->initModule();
  return module;
}

// What a key's signal object delivers, as text (synchronously); it must outlive that key's raises.
struct SignalLog : testsupport::Collector<std::string> {
  explicit SignalLog(const boost::shared_ptr<RXMemorySubscriber>& follow) {
    follow->signal.connect([this](mz::AnyValue v) { add(v.toRXValue().toString()); });
  }
  Names take() {
    Names got = items();
    clear();
    return got;
  }
};

inline RXValue list(std::initializer_list<RXValue> items) {
  RXValue v = RXValue::array();
  for (const RXValue& item : items) v.arrayPush(item);
  return v;
}

inline bool contains(const Names& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

// Runs each job on a thread for rounds 0..n-1, meeting before each so that they overlap; 60 s at most.
inline void runTogether(int n, const std::vector<std::function<void(int)>>& jobs) {
  std::vector<std::atomic<std::size_t>> arrived(static_cast<std::size_t>(n));
  std::vector<std::future<void>> running;
  for (const auto& job : jobs)
    running.push_back(std::async(std::launch::async, [&arrived, &jobs, job, n] {
      for (int i = 0; i < n; ++i) {
        arrived[i].fetch_add(1);
        while (arrived[i].load() < jobs.size()) std::this_thread::yield();
        job(i);
      }
    }));
  for (auto& r : running)
    ASSERT_EQ(std::future_status::ready, r.wait_for(std::chrono::seconds(60))) << "a worker is stuck";
  for (auto& r : running) r.get();
}

class MemoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    startBroker();
    startMemory();
  }
  void startBroker(std::shared_ptr<mz::Session> session = std::make_shared<mz::Session>()) {
    RX::RXBroker::Options options;
    options.queueCapacity = 1000000;
    broker = RX::RXBroker::create("test-broker", options, session);
  }
  void startMemory() {
    ASSERT_EQ(0, _createModule(broker));
    memory = boost::dynamic_pointer_cast<RX::RXMemory>(broker->getModule("RXMemory"));
    ASSERT_TRUE(memory) << "_createModule did not register RXMemory with the broker";
  }
  void TearDown() override {
    memory.reset();
    broker->shutdown();
  }
  std::shared_ptr<FakeService> fakeService(const S& name, const Names& signalNames) {
    auto service = std::make_shared<FakeService>(signalNames);
    broker->session()->registerService(name, mz::AnyObject(service));
    return service;
  }
  // Raises a micro-event r follows and waits for it: posts to one module keep their order.
  void drain(const boost::shared_ptr<Recorder>& r) {
    auto sentinels = [](const std::vector<Notification>& got) {
      return std::count_if(got.begin(), got.end(), [](const Notification& n) { return n.key == "Sentinel"; });
    };
    const auto before = sentinels(r->items());  // counted: earlier sentinels may still be arriving
    memory->subscribeToMicroEvent("Sentinel", r->getName(), "", "onEvent");
    memory->raiseMicroEvent("Sentinel", RXValue(0));
    ASSERT_TRUE(r->waitUntil([&](const std::vector<Notification>& got) { return sentinels(got) > before; }))
        << r->getName() << " never received the sentinel";
    memory->unsubscribeToMicroEvent("Sentinel", r->getName());
  }
  // The values, or the kinds, of keys joined by spaces: one check is one line.
  std::string values(const Names& keys) {
    return join(keys, [&](auto& k) { return memory->getData(k).toString(); });
  }
  std::string types(const Names& keys) {
    return join(keys, [&](auto& k) { return memory->getStrDataType(k); });
  }
  template <typename F>
  static std::string join(const Names& keys, F f) {
    std::string out;
    for (const std::string& k : keys) out += (out.empty() ? "" : " ") + f(k);
    return out;
  }

  boost::shared_ptr<RX::RXBroker> broker;
  boost::shared_ptr<RX::RXMemory> memory;
};

// The RXError f throws as "method|message" (or a marker).
template <typename F>
std::string errorOf(F f) {
  try {
    f();
  } catch (const RX::RXError& e) {
    EXPECT_EQ("RXMemory", e.module());
    EXPECT_TRUE(e.line() > 0 && e.file().find(".cpp") != std::string::npos) << e.file() << ":" << e.line();
    return e.method() + "|" + e.message();
  } catch (const std::exception& e) {
    return std::string("std::exception|") + e.what();
  }
  return "no error";
}
