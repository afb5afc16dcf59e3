// Helpers for the memory module's tests: a broker with the module created
// through _createModule, subscriber modules that record their callbacks, an
// extractor module, and a capture of log lines. Waits are bounded.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/pointer_cast.hpp>
#include <gtest/gtest.h>

#include "mz/object.h"
#include "mz/session.h"
#include "rx/rxbroker.h"
#include "rx/rxerror.h"
#include "rx/rxlog.h"
#include "rx/rxmodule.h"
#include "rxmemory.h"
#include "rxmemorysubscriber.h"

namespace rxtest {

struct Notification {
  std::string method;
  std::string key;
  RX::RXValue value;
  RX::RXValue message;
};

// A module publishing onEvent and onOther(key, value, message), recording every call.
class Recorder : public RX::RXModule {
 public:
  Recorder(boost::shared_ptr<RX::RXBroker> broker, const std::string& name) : RXModule(broker, name) {
    for (const char* method : {"onEvent", "onOther"}) {
      functionName(method, name, "Records a notification");
      addParam("key", "key");
      addParam("value", "value");
      addParam("message", "message");
      advertiseMethod(getCurrentMethodDescription(), this,
                      std::string(method) == "onEvent" ? &Recorder::onEvent : &Recorder::onOther);
    }
  }
  void onEvent(const std::string& key, const RX::RXValue& value, const RX::RXValue& message) {
    record({"onEvent", key, value, message});
  }
  void onOther(const std::string& key, const RX::RXValue& value, const RX::RXValue& message) {
    record({"onOther", key, value, message});
  }
  // True once at least n calls have arrived; false after the timeout.
  bool waitFor(std::size_t n, std::chrono::seconds timeout = std::chrono::seconds(10)) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cond_.wait_for(lock, timeout, [&] { return received_.size() >= n; });
  }
  // True once at least n calls for key have arrived; false after the timeout.
  bool waitForKey(const std::string& key, std::size_t n,
                  std::chrono::seconds timeout = std::chrono::seconds(10)) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cond_.wait_for(lock, timeout, [&] { return countLocked(key) >= n; });
  }
  std::size_t count(const std::string& key) {
    std::lock_guard<std::mutex> lock(mutex_);
    return countLocked(key);
  }
  std::vector<Notification> received() {
    std::lock_guard<std::mutex> lock(mutex_);
    return received_;
  }
  // "key=value" of every call but the drain sentinels, in arrival order.
  std::vector<std::string> keyValues() {
    std::vector<std::string> out;
    for (const Notification& n : received())
      if (n.key != "Sentinel") out.push_back(n.key + "=" + n.value.toString(0));
    return out;
  }

 private:
  std::size_t countLocked(const std::string& key) const {
    std::size_t n = 0;
    for (const Notification& r : received_)
      if (r.key == key) ++n;
    return n;
  }
  void record(Notification n) {
    std::lock_guard<std::mutex> lock(mutex_);
    received_.push_back(std::move(n));
    cond_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable cond_;
  std::vector<Notification> received_;
};

// A module answering "subscribe"/"unsubscribe", with or without the
// "getCurrentPrecision" method that marks an extractor.
class Extractor : public RX::RXModule {
 public:
  Extractor(boost::shared_ptr<RX::RXBroker> broker, const std::string& name, bool offersPrecision)
      : RXModule(broker, name) {
    functionName("subscribe", name, "Starts generating");
    addParam("subscriberId", "id");
    advertiseMethod(getCurrentMethodDescription(), this, &Extractor::subscribe);
    functionName("unsubscribe", name, "Stops generating");
    addParam("subscriberId", "id");
    advertiseMethod(getCurrentMethodDescription(), this, &Extractor::unsubscribe);
    if (offersPrecision) {
      functionName("getCurrentPrecision", name, "Precision");
      advertiseMethod(getCurrentMethodDescription(), this, &Extractor::getCurrentPrecision);
    }
  }
  void subscribe(const std::string& id) { add("subscribe:" + id); }
  void unsubscribe(const std::string& id) { add("unsubscribe:" + id); }
  float getCurrentPrecision() { return 1.0f; }
  std::vector<std::string> calls() {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }

 private:
  void add(const std::string& call) {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back(call);
  }
  std::mutex mutex_;
  std::vector<std::string> calls_;
};

// A service of the messaging layer with signals of one value, standing for the
// services whose signals the memory maps onto events.
class FakeService : public mz::DynamicObject {
 public:
  explicit FakeService(const std::vector<std::string>& signalNames) {
    for (const std::string& name : signalNames) {
      auto signal = std::make_unique<mz::SignalF<void(mz::AnyValue)>>();
      advertiseSignal(name, signal.get());
      signals_.emplace(name, std::move(signal));
    }
  }
  void emit(const std::string& signal, const mz::AnyValue& value) { (*signals_.at(signal))(value); }
  std::size_t connections(const std::string& signal) const { return signals_.at(signal)->subscriberCount(); }

 protected:
  std::string objectName() const override { return "FakeService"; }

 private:
  std::map<std::string, std::unique_ptr<mz::SignalF<void(mz::AnyValue)>>> signals_;
};

// Registers a FakeService under name in the broker's session.
inline std::shared_ptr<FakeService> registerFakeService(const boost::shared_ptr<RX::RXBroker>& broker,
                                                        const std::string& name,
                                                        const std::vector<std::string>& signalNames,
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

// Collects the log lines written while it lives ("category|level|message").
class LogCapture {
 public:
  LogCapture() {
    id_ = RX::log::addObserver([this](const std::string& category, int level, const std::string& message) {
      std::lock_guard<std::mutex> lock(mutex_);
      lines_.push_back(category + "|" + std::to_string(level) + "|" + message);
    });
  }
  ~LogCapture() { RX::log::removeObserver(id_); }
  std::vector<std::string> lines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  bool has(const std::string& line) {
    for (const std::string& l : lines())
      if (l == line) return true;
    return false;
  }

 private:
  int id_;
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

// Raises a micro-event that `r` is subscribed to and waits for it: since posts
// to one module arrive in order, everything posted before has arrived. Counted
// by key: calls posted earlier may still be arriving when it starts.
inline void drain(const boost::shared_ptr<RX::RXMemory>& memory, const boost::shared_ptr<Recorder>& r) {
  const std::size_t before = r->count("Sentinel");
  memory->subscribeToMicroEvent("Sentinel", r->getName(), "", "onEvent");
  memory->raiseMicroEvent("Sentinel", RX::RXValue(0));
  ASSERT_TRUE(r->waitForKey("Sentinel", before + 1)) << r->getName() << " never received the sentinel";
  memory->unsubscribeToMicroEvent("Sentinel", r->getName());
}

// A broker with the memory module created the way the broker process does it.
class MemoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    RX::RXBroker::Options options;
    options.queueCapacity = 1000000;
    broker = RX::RXBroker::create("test-broker", options);
    ASSERT_EQ(0, _createModule(broker));
    memory = boost::dynamic_pointer_cast<RX::RXMemory>(broker->getModule("RXMemory"));
    ASSERT_TRUE(memory) << "_createModule did not register RXMemory with the broker";
  }
  void TearDown() override {
    memory.reset();
    broker->shutdown();
  }

  void drain(const boost::shared_ptr<Recorder>& r) { rxtest::drain(memory, r); }

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
