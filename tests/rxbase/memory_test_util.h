// Helpers for the memory module's tests: a broker with the module created
// through _createModule, subscriber modules that record their callbacks, an
// extractor module, a service with signals. Waits are bounded (support/wait.h).
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <boost/make_shared.hpp>
#include <future>
#include <map>
#include <string>
#include <vector>

#include "mz/object.h"
#include "mz/session.h"
#include "rx/rxbroker.h"
#include "rx/rxerror.h"
#include "rx/rxmodule.h"
#include "rxmemory.h"
#include "rxmemorysubscriber.h"
#include "support/capture.h"

namespace rxtest {

using Names = std::vector<std::string>;
using RX::RXValue;
using S = std::string;
using testsupport::LogLines;

struct Notification {
  std::string method, key;
  RXValue value, message;
};

// A module publishing onEvent and onOther(key, value, message); every call
// is collected in arrival order.
class Recorder : public RX::RXModule, public testsupport::Collector<Notification> {
 public:
  Recorder(boost::shared_ptr<RX::RXBroker> broker, const std::string& name) : RXModule(broker, name) {
    for (const char* method : {"onEvent", "onOther"}) {
      functionName(method, name, "Records a notification");
      addParam("key", "key");
      addParam("value", "value");
      addParam("message", "message");
      advertiseMethod(getCurrentMethodDescription(), this,
                      method[2] == 'E' ? &Recorder::onEvent : &Recorder::onOther);
    }
  }
  void onEvent(const std::string& key, const RXValue& value, const RXValue& message) {
    add({"onEvent", key, value, message});
  }
  void onOther(const std::string& key, const RXValue& value, const RXValue& message) {
    add({"onOther", key, value, message});
  }
  // "key=value" of every call but the drain sentinels, in arrival order.
  Names keyValues() const {
    Names out;
    for (const Notification& n : items())
      if (n.key != "Sentinel") out.push_back(n.key + "=" + n.value.toString(0));
    return out;
  }
};

// A module answering "subscribe"/"unsubscribe" (collected as "subscribe:ID"),
// with or without the "getCurrentPrecision" method that marks an extractor;
// a failing one throws from both instead.
class Extractor : public RX::RXModule, public testsupport::Collector<std::string> {
 public:
  enum Kind { kNoPrecision, kWorking, kFailing };
  Extractor(boost::shared_ptr<RX::RXBroker> broker, const std::string& name, Kind kind)
      : RXModule(broker, name), kind_(kind) {
    for (const char* method : {"subscribe", "unsubscribe"}) {
      functionName(method, name, "Starts or stops generating");
      addParam("subscriberId", "id");
      advertiseMethod(getCurrentMethodDescription(), this,
                      method[0] == 's' ? &Extractor::subscribe : &Extractor::unsubscribe);
    }
    if (kind == kNoPrecision) return;
    functionName("getCurrentPrecision", name, "Precision");
    advertiseMethod(getCurrentMethodDescription(), this, &Extractor::getCurrentPrecision);
  }
  void subscribe(const std::string& id) { call("subscribe:" + id); }
  void unsubscribe(const std::string& id) { call("unsubscribe:" + id); }
  float getCurrentPrecision() { return 1.0f; }

 private:
  void call(const std::string& what) {
    if (kind_ == kFailing)
      throw std::runtime_error("generator offline for " + what.substr(what.find(':') + 1));
    add(what);
  }
  const Kind kind_;
};

// A service of the messaging layer with signals of one value, standing for the
// services whose signals the memory maps onto events.
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

// Registers a FakeService under name in the broker's session.
inline std::shared_ptr<FakeService> registerFakeService(const boost::shared_ptr<RX::RXBroker>& broker,
                                                        const std::string& name, const Names& signalNames,
                                                        unsigned int* id = nullptr) {
  auto service = std::make_shared<FakeService>(signalNames);
  const unsigned int serviceId = broker->session()->registerService(name, mz::AnyObject(service));
  if (id) *id = serviceId;
  return service;
}

template <typename M, typename... Args>
boost::shared_ptr<M> startModule(const boost::shared_ptr<RX::RXBroker>& broker, const std::string& name,
                                 Args... args) {
  auto module = boost::make_shared<M>(broker, name, args...);
  module->initModule();
  return module;
}

// Collects the values delivered to a key's signal as text (delivery is synchronous).
struct SignalLog : testsupport::Collector<std::string> {
  void operator()(const mz::AnyValue& v) { add(v.toRXValue().toString()); }
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

// Runs every job on its own thread for the rounds 0..n-1 (a job is given the
// round); the jobs meet at each round before starting it, so that what they do
// really overlaps. Each job may take at most 60 s.
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

// Raises a micro-event that `r` is subscribed to and waits for it: since posts
// to one module arrive in order, everything posted before has arrived. Counted
// by key: calls posted earlier may still be arriving when it starts.
inline void drain(const boost::shared_ptr<RX::RXMemory>& memory, const boost::shared_ptr<Recorder>& r) {
  auto sentinels = [](const std::vector<Notification>& got) {
    return std::count_if(got.begin(), got.end(), [](const Notification& n) { return n.key == "Sentinel"; });
  };
  const auto before = sentinels(r->items());
  memory->subscribeToMicroEvent("Sentinel", r->getName(), "", "onEvent");
  memory->raiseMicroEvent("Sentinel", RXValue(0));
  ASSERT_TRUE(r->waitUntil([&](const std::vector<Notification>& got) { return sentinels(got) > before; }))
      << r->getName() << " never received the sentinel";
  memory->unsubscribeToMicroEvent("Sentinel", r->getName());
}

// A broker with the memory module created the way the broker process does it.
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
  void drain(const boost::shared_ptr<Recorder>& r) { rxtest::drain(memory, r); }
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

// Runs f and returns the RXError it throws as "method|message" (or a marker).
template <typename F>
std::string errorOf(F f) {
  try {
    f();
  } catch (const RX::RXError& e) {
    EXPECT_EQ("RXMemory", e.module());
    return e.method() + "|" + e.message();
  } catch (const std::exception& e) {
    return std::string("std::exception|") + e.what();
  }
  return "no error";
}

}  // namespace rxtest
