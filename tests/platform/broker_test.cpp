// Brokers and their modules: publication, proxies, posted calls, queue caps, the executor, shutdown.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <boost/make_shared.hpp>
#include <future>
#include <regex>
#include <thread>

#include "mz/session.h"
#include "rx/rxbroker.h"
#include "rx/rxbrokermanager.h"
#include "rx/rxexecutor.h"
#include "rx/rxmemorybudget.h"
#include "rx/rxmodule.h"
#include "rx/rxproxy.h"
#include "support/capture.h"

namespace {

using RX::RXValue;
using testsupport::errorOf;
using testsupport::kWait;

// Holds whatever runs hold() until released.
struct Latch {
  std::promise<void> started, release;
  std::shared_future<void> released{release.get_future().share()};
  void hold() {
    started.set_value();
    EXPECT_EQ(std::future_status::ready, released.wait_for(kWait)) << "the latch was never released";
  }
  void holdQueue(RX::SerialQueue* queue, const std::function<void()>& post = {}) {
    post ? post() : queue->post([this] { hold(); });
    ASSERT_EQ(std::future_status::ready, started.get_future().wait_for(kWait)) << "holding task never ran";
  }
};

// The memory's shapes (its overloads are checked in tests/rxbase); block() holds the queue.
class Sink : public RX::RXModule {
 public:
  Sink(boost::shared_ptr<RX::RXBroker> broker, const std::string& name) : RXModule(broker, name) {
    setModuleDescription("Stores <values> & more");
    functionName("insertData", "Store", "Inserts an int", 0);
    addParam("key", "Name of the value.");
    addParam("value", "The int.");
    bindMethodOverload(RX::createFunctor(this, &Sink::insertData));
    functionName("getData", "Store", "Gets a value", 0);
    addParam("key", "Name of the value.");
    setReturn("data", "The data as an RXValue.");
    advertiseMethod(getCurrentMethodDescription(), this, &Sink::getData);
    functionName("onEvent", "Sink", "Receives a notification", 0);
    addParam("key", "key");
    addParam("value", "value");
    addParam("message", "message");
    advertiseMethod(getCurrentMethodDescription(), this, &Sink::onEvent);
    functionName("block", "Sink", "Holds the queue", 0);
    advertiseMethod(getCurrentMethodDescription(), this, &Sink::block);
  }
  ~Sink() override { destroyed->store(true); }
  // Calls through a proxy return once they ran: `last` needs no lock.
  void insertData(const std::string& key, int v) { last = key + "=" + std::to_string(v); }
  RXValue getData(const std::string& key) {
    if (last.rfind(key + "=", 0) != 0) RX_THROW("Store", "getData", "Data not found " + key);
    return RXValue(last);
  }
  void onEvent(const std::string& key, const RXValue& value, const RXValue& message) {
    if (destroyed->load()) ADD_FAILURE() << "a call ran on a destroyed module";
    if (hasExited()) ADD_FAILURE() << "a notification arrived after the module exited";
    if (key == "k" && message == RXValue("m")) received->add(value.toInt());
  }
  void block() { latch->hold(); }
  void exit() override {
    if (exits && !hasExited()) exits->push_back(getName());
    RXModule::exit();
  }
  std::shared_ptr<Latch> latch = std::make_shared<Latch>();
  std::shared_ptr<std::vector<std::string>> exits;
  std::shared_ptr<testsupport::Collector<int>> received = std::make_shared<testsupport::Collector<int>>();
  std::shared_ptr<std::atomic<bool>> destroyed = std::make_shared<std::atomic<bool>>(false);

  std::string last;  // the last insertion, "key=value"
};

struct HeldSink {
  explicit HeldSink(RX::RXBroker::Options options = {}) : broker(RX::RXBroker::create("b", options)) {
    sink->initModule();
    proxy = broker->getProxy("Sink");
    sink->latch->holdQueue(nullptr, [&] { proxy->genericPost("block", {}); });
  }
  void notify(int from, int to, std::pair<int, int>* state = nullptr) {
    for (int i = from; i <= to; ++i) proxy->pCallNotify("onEvent", "k", RXValue(i), RXValue("m"), state);
  }
  boost::shared_ptr<RX::RXBroker> broker;
  boost::shared_ptr<Sink> sink = boost::make_shared<Sink>(broker, "Sink");
  boost::shared_ptr<RX::RXProxy> proxy;
};

TEST(RXProxy, FullQueueDropsTheOldestCountsAndLogsIt) {
  RX::RXBroker::Options options;
  options.queueCapacity = 3;
  testsupport::LogLines log("rx.executor");
  HeldSink h(options);
  h.notify(1, 5);
  EXPECT_EQ(2u, h.broker->droppedCounts()["Sink"]);
  EXPECT_EQ("warning: queue Sink full: dropped 1 pending calls", log.items().at(0));
  h.sink->latch->release.set_value();
  ASSERT_TRUE(h.sink->received->waitFor(3));
  EXPECT_EQ((std::vector<int>{3, 4, 5}), h.sink->received->items());
  h.broker->shutdown();
  EXPECT_EQ(4u, h.sink->postQueue()->executed());
}

// Shutting down or draining from one of the pool's own threads would wait for itself.
std::string fromPoolThread(RX::SerialQueue& queue, const std::function<void()>& f) {
  std::promise<std::string> outcome;
  queue.post([&] { outcome.set_value(errorOf(f)); });
  std::future<std::string> result = outcome.get_future();
  return result.wait_for(kWait) == std::future_status::ready ? result.get() : "(never ran)";
}

// Shutdown runs pending tasks past a throwing one; closing a queue drops them.
TEST(RXExecutor, ShutdownRunsPendingTasksCloseDropsThemAndBothRefuseNewOnes) {
  auto executor = std::make_shared<RX::RXExecutor>(1);
  EXPECT_EQ(2u, executor->threadCount());
  std::shared_ptr<RX::SerialQueue> queue = executor->makeQueue("Q"), closed = executor->makeQueue("C");
  testsupport::LogLines log("rx.executor");
  Latch latch, closedLatch;
  std::vector<int> order;  // touched only by the queue's tasks, one at a time
  std::atomic<int> unordered{0}, ranAfterClose{0};
  closedLatch.holdQueue(closed.get());
  for (int i = 0; i < 5; ++i) closed->post([&ranAfterClose] { ++ranAfterClose; });
  closed->close();
  EXPECT_TRUE(closed->isClosed());
  EXPECT_EQ(0u, closed->pending());
  EXPECT_THROW(closed->post([] {}), RX::ExecutorStoppedError);
  EXPECT_EQ("RXExecutor::shutdown called from one of the executor's own threads",
            fromPoolThread(*queue, [&] { executor->shutdown(); }));
  EXPECT_EQ("RXExecutor::drain called from one of the executor's own threads",
            fromPoolThread(*queue, [&] { executor->drain(kWait); }));
  closedLatch.release.set_value();

  latch.holdQueue(queue.get());
  queue->post([] { throw std::runtime_error("boom"); });
  for (int i = 0; i < 200; ++i) queue->post([&order, i] { order.push_back(i); });
  for (int i = 0; i < 10; ++i) executor->post([&unordered] { ++unordered; });
  std::thread stopper([executor] { executor->shutdown(); });
  EXPECT_TRUE(testsupport::pollUntil([&] { return executor->isStopped(); })) << "shutdown did not start";
  EXPECT_THROW(queue->post([] {}), RX::ExecutorStoppedError);
  EXPECT_THROW(executor->post([] {}), RX::ExecutorStoppedError);
  EXPECT_GE(queue->pending(), 200u) << "the queued tasks ran before shutdown began";
  latch.release.set_value();
  stopper.join();
  ASSERT_EQ(200u, order.size()) << "shutdown returned before the pending tasks ran";
  for (int i = 0; i < 200; ++i) ASSERT_EQ(i, order[i]);
  EXPECT_EQ(10, unordered.load());
  EXPECT_EQ(204u, queue->executed());
  EXPECT_EQ("error: task of queue Q failed: boom", log.joined());
  EXPECT_EQ(0, ranAfterClose.load());
  EXPECT_EQ(0u, closed->dropped()) << "closing is not an overflow";
  executor->shutdown();  // idempotent
}

// runHereIfIdle runs on the caller only while the queue is idle. Small tasks sit in the ring, large
// ones aside: both keep their order across growth and wrap-around; each capture is released once.
TEST(RXExecutor, RunHereIfIdleAndSmallAndLargeTasksRunInOrderAndAreReleasedOnce) {
  auto executor = std::make_shared<RX::RXExecutor>();
  std::shared_ptr<RX::SerialQueue> queue = executor->makeQueue("Q", 40);
  std::vector<std::string> ran;  // touched by one task at a time
  std::thread::id ranOn;
  ASSERT_TRUE(queue->runHereIfIdle([&] {
    ranOn = std::this_thread::get_id();
    ran.push_back("inline");
    queue->post([&] { ran.push_back("posted meanwhile"); });
    EXPECT_FALSE(queue->runHereIfIdle([&] { ran.push_back("nested"); })) << "busy with this task";
  }));
  EXPECT_EQ(std::this_thread::get_id(), ranOn);
  Latch busy;
  busy.holdQueue(queue.get());
  EXPECT_FALSE(queue->runHereIfIdle([&] { ran.push_back("while a task runs"); }));
  busy.release.set_value();
  ASSERT_TRUE(executor->drain(kWait));
  EXPECT_EQ((std::vector<std::string>{"inline", "posted meanwhile"}), ran);
  auto token = std::make_shared<int>(0);  // every task holds a copy
  std::vector<int> order, expected;       // order: touched only by the queue's tasks
  for (int round = 0; round < 3; ++round) {
    // The queue is held while 50 tasks come in: the 10 oldest go over the cap.
    Latch latch;
    latch.holdQueue(queue.get());
    for (int i = 0; i < 50; ++i) {
      const int id = round * 100 + i;
      if (i % 2)
        queue->post([token, id, &order] { order.push_back(id); });
      else
        queue->post(
            [token, id, &order, padding = std::array<char, 200>()] { order.push_back(id + padding[0]); });
      if (i >= 10) expected.push_back(id);
    }
    latch.release.set_value();
    ASSERT_TRUE(executor->drain(kWait));
  }
  EXPECT_EQ(expected, order);
  EXPECT_EQ(30u, queue->dropped());
  EXPECT_EQ(126u, queue->executed()) << "3 here, then 41 a round";
  EXPECT_EQ(1, token.use_count()) << "a task's captures outlived it, or were released twice";
  executor->shutdown();
  EXPECT_FALSE(queue->runHereIfIdle([&] { ran.push_back("after shutdown"); }));
}

// A drain job that empties its queue watches it for a moment before giving its thread back:
// posts landing before, during and after that watch all run, in order, and drain() waits for them.
TEST(RXExecutor, TasksPostedAroundAnIdleQueueAllRunInOrderAndDrainWaitsForThem) {
  auto executor = std::make_shared<RX::RXExecutor>(2);
  std::vector<std::shared_ptr<RX::SerialQueue>> queues;
  for (int q = 0; q < 3; ++q) queues.push_back(executor->makeQueue("Q" + std::to_string(q)));
  // Each task posted a little later after the previous one ran, to hit every moment of the watch.
  testsupport::Collector<int> ran;
  for (int i = 0; i < 3000; ++i) {
    for (auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(i % 60);
         std::chrono::steady_clock::now() < until;) {
    }
    queues[i % 3]->post([&ran, i] { ran.add(i); });
    ASSERT_TRUE(ran.waitFor(i + 1)) << "task " << i << " posted to Q" << i % 3 << " never ran";
  }
  constexpr int kPosters = 4, kPerPoster = 3000;
  std::vector<std::vector<int>> last(kPosters, std::vector<int>(3, -1));  // each cell touched by one queue
  std::atomic<int> outOfOrder{0}, done{0};
  std::vector<std::thread> posters;
  for (int t = 0; t < kPosters; ++t)
    posters.emplace_back([&, t] {
      for (int i = 0; i < kPerPoster; ++i) {
        const int q = (i / 7 + t) % 3;
        queues[q]->post([&, t, q, i] {
          if (last[t][q] >= i) ++outOfOrder;
          last[t][q] = i;
          ++done;
        });
      }
    });
  for (std::thread& poster : posters) poster.join();
  ASSERT_TRUE(executor->drain(kWait)) << "drain timed out with " << done.load() << " tasks run";
  EXPECT_EQ(kPosters * kPerPoster, done.load()) << "drain returned before every task ran";
  EXPECT_EQ(0, outOfOrder.load());
  executor->shutdown();
}

// The module is never registered: its weak handle is all that reaches it.
TEST(RXModule, NoPostedCallRunsAfterTheModuleIsDestroyed) {
  auto broker = RX::RXBroker::create("b");
  auto sink = boost::make_shared<Sink>(broker, "Sink");
  auto latch = sink->latch;
  auto destroyed = sink->destroyed;
  auto received = sink->received;
  mz::AnyObject handle = sink->weakObject();
  latch->holdQueue(nullptr, [&] { handle.post("block", {}); });
  for (int i = 0; i < 10; ++i)
    handle.post("onEvent", {mz::AnyValue("k"), mz::AnyValue(i), mz::AnyValue("m")});
  sink.reset();  // the running block() still holds the module
  EXPECT_FALSE(destroyed->load());
  latch->release.set_value();
  broker->shutdown();
  EXPECT_TRUE(destroyed->load()) << "the weak handle kept the module alive";
  EXPECT_EQ(0u, received->size()) << "calls ran after the last owner let go";
  EXPECT_EQ(1u, handle.findMethod("onEvent").size()) << "the catalogue stays readable";
  EXPECT_EQ("module Sink has gone away", errorOf([&] { handle.call("block", {}); }));
  EXPECT_THROW(handle.post("onEvent", {mz::AnyValue("k"), mz::AnyValue(1), mz::AnyValue("m")}),
               mz::ObjectGoneError);
}

TEST(RXBroker, HoldsItsManagerWeaklyAndShutdownDeliversPendingPostsThenExitsModulesInReverseOrder) {
  HeldSink h;
  auto manager = boost::make_shared<RX::RXBrokerManager>();
  manager->addBroker(h.broker);
  manager->addBroker(h.broker);
  EXPECT_EQ(std::vector<boost::shared_ptr<RX::RXBroker>>{h.broker}, manager->getBrokers());
  EXPECT_EQ(manager, h.broker->getBrokerManager().lock());
  manager->removeBroker(h.broker);
  EXPECT_TRUE(manager->getBrokers().empty() && h.broker->getBrokerManager().expired());
  manager->addBroker(h.broker);
  manager.reset();
  EXPECT_TRUE(h.broker->getBrokerManager().expired()) << "the broker kept the manager alive";
  auto exits = std::make_shared<std::vector<std::string>>();
  std::vector<boost::weak_ptr<RX::RXModule>> watch{h.sink};
  for (const char* name : {"Second", "Third"}) {
    auto m = boost::make_shared<Sink>(h.broker, name);
    m->exits = exits;
    m->initModule();
    watch.push_back(m);
  }
  EXPECT_EQ((std::vector<std::string>{"Sink", "Second", "Third"}), h.broker->moduleNames());
  // The held queue keeps the notifications pending when the stop begins.
  std::pair<int, int> state(0, 0);
  h.notify(0, 999, &state);
  auto received = h.sink->received;
  auto latch = h.sink->latch;
  h.sink.reset();
  std::thread stopper([&] { h.broker->shutdown(); });
  EXPECT_TRUE(testsupport::pollUntil([&] { return h.broker->isShutDown(); })) << "shutdown did not start";
  latch->release.set_value();
  stopper.join();
  std::vector<int> expected;
  for (int i = 0; i < 1000; ++i) expected.push_back(i);
  EXPECT_EQ(expected, received->items()) << "shutdown dropped or reordered pending notifications";
  EXPECT_EQ((std::vector<std::string>{"Third", "Second"}), *exits);
  EXPECT_TRUE(h.broker->session()->services().empty());
  for (const auto& w : watch) EXPECT_TRUE(w.expired());
  EXPECT_TRUE(h.broker->executor().isStopped());
  EXPECT_EQ("module Sink has gone away", errorOf([&] { h.notify(1, 1, &state); }));
  EXPECT_EQ(std::make_pair(1000, 0), state) << "a failed post was counted";
  EXPECT_THROW(h.broker->registerModule(boost::make_shared<Sink>(h.broker, "Late")), std::runtime_error);
  h.broker->shutdown();  // idempotent
}

// The memory's writes check the start of the refusal (tests/rxbase), this the figures.
TEST(MemoryBudgetTest, TheRefusalNamesBothFigures) {
  RX::MemoryBudget tight(1);
  const std::string text = errorOf([] { RX::MemoryBudget::check("RXMemory", "insertData"); });
  EXPECT_TRUE(
      std::regex_search(text, std::regex("^RXMemory::insertData: memory limit reached: resident [1-9][0-9]* "
                                         "bytes over maxMemory 1 bytes")))
      << text;
}

TEST(RXModule, PublishedCallsBaseOperationsPageMistakesAndExit) {
  auto broker = RX::RXBroker::create("test-broker");
  auto store = boost::make_shared<Sink>(broker, "Store");
  store->initModule();
  boost::shared_ptr<RX::RXProxy> p = broker->getProxy("Store");
  mz::GenericFunctionParameters args{mz::AnyValue(std::string("k")), mz::AnyValue(7)};
  p->callById(p->resolve("insertData", args), args);
  EXPECT_EQ(RXValue("k=7"), p->call<RXValue>("getData", std::string("k")));
  try {
    p->call<RXValue>("getData", std::string("missing"));
    ADD_FAILURE() << "getData of a missing key did not throw";
  } catch (const RX::RXError& e) {
    EXPECT_EQ("Store|getData|Data not found missing", e.module() + "|" + e.method() + "|" + e.message());
  }
  EXPECT_EQ("Store: no method named exit", errorOf([&] { p->call<void>("exit"); }));
  EXPECT_THROW((void)p->resolve("insertData", {mz::AnyValue(1), mz::AnyValue(2)}), mz::MethodNotFoundError);
  EXPECT_EQ("Stores <values> & more", p->object().metaObject().description);
  EXPECT_EQ("0.1.0", store->version());
  EXPECT_EQ("Store::execute: no command reboot", errorOf([&] { store->execute("reboot", RXValue()); }));
  const std::string page = store->httpGet();
  for (const std::string& part :
       {std::string("<h1>Store</h1>"), std::string("Stores &lt;values&gt; &amp; more"),
        std::string("The data as an RXValue."), store->methods()[1].signature()})
    EXPECT_NE(std::string::npos, page.find(part)) << part << " not in\n" << page;
  EXPECT_EQ(std::string::npos, page.find("<values>")) << "the description was not escaped";
  EXPECT_EQ(broker->session()->service("Store").value(), store->weakObject());
  auto twin = boost::make_shared<Sink>(broker, "Store");
  EXPECT_THROW(twin->initModule(), std::runtime_error);
  EXPECT_EQ(store, broker->getModule("Store"));
  twin->functionName("getData", "Store", "Gets a value", 0);
  twin->addParam("key", "k");
  twin->addParam("extra", "e");
  EXPECT_EQ("Store::bindMethodOverload: method getData: the functor takes 1 parameters but 2 were described",
            errorOf([&] { twin->bindMethodOverload(RX::createFunctor(twin.get(), &Sink::getData)); }));
  // A described method is published once; describing starts over with functionName.
  twin->functionName("getData", "Store", "Gets a value", 0);
  twin->addParam("key", "k");
  twin->bindMethodOverload(RX::createFunctor(twin.get(), &Sink::getData));
  EXPECT_EQ(5u, twin->methods().size());
  EXPECT_THROW(twin->addParam("late", "after publication"), RX::RXError);
  EXPECT_THROW(twin->bindMethodOverload(RX::createFunctor(twin.get(), &Sink::getData)), RX::RXError);
  store->exit();
  store->exit();  // idempotent
  EXPECT_TRUE(store->hasExited() && !store->isRegistered());
  EXPECT_TRUE(broker->session()->service("Store").hasError());
  EXPECT_THROW(broker->getProxy("Store"), RX::ModuleNotFoundError);
  EXPECT_EQ("module Store has gone away", errorOf([&] { p->call<void>("insertData", std::string("k"), 1); }));
  EXPECT_THROW(p->genericPost("insertData", {mz::AnyValue(std::string("k")), mz::AnyValue(1)}),
               mz::ObjectGoneError);
  EXPECT_THROW(store->initModule(), RX::RXError);
  broker->shutdown();
}

TEST(RXFunctorBase, DefaultCallLogsAndLeavesTheResult) {
  struct Unimplemented : RX::RXFunctorBase {
  } functor;
  testsupport::LogLines log("rxcommon.RXFunctor");
  RXValue result(42);
  EXPECT_NO_THROW(functor.call(RXValue(std::vector<std::string>{"x"}), result));
  EXPECT_EQ(RXValue(42), result);
  EXPECT_EQ("error: RXFunctor::call not implemented", log.joined());
}

}  // namespace
