// RXBroker, RXBrokerManager, RXProxy posting and the executor under them:
// lookup by name, ordered posted calls, queue caps, exit and shutdown.
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "mz/session.h"
#include "rx/rxbroker.h"
#include "rx/rxbrokermanager.h"
#include "rx/rxexecutor.h"
#include "rx/rxlog.h"
#include "rx/rxmemorybudget.h"
#include "rx/rxmodule.h"
#include "rx/rxproxy.h"

namespace {

using RX::RXValue;
using namespace std::chrono_literals;

constexpr auto kWait = 5s;

// Values received in order, with a bounded wait for a given count.
class Received {
 public:
  void add(int v) {
    std::lock_guard<std::mutex> lock(mutex_);
    values_.push_back(v);
    cond_.notify_all();
  }
  bool waitFor(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cond_.wait_for(lock, kWait, [&] { return values_.size() >= count; });
  }
  std::vector<int> values() {
    std::lock_guard<std::mutex> lock(mutex_);
    return values_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  std::vector<int> values_;
};

// A one-shot gate a task can wait on.
struct Latch {
  std::promise<void> started;
  std::promise<void> release;
  std::shared_future<void> released{release.get_future().share()};
};

// A subscriber-like module: onEvent(key, value, message) records the value;
// block() holds its queue until the latch is released.
class Sink : public RX::RXModule {
 public:
  Sink(boost::shared_ptr<RX::RXBroker> broker, const std::string& name, std::shared_ptr<Received> received,
       std::shared_ptr<Latch> latch = nullptr, std::shared_ptr<std::atomic<bool>> destroyed = nullptr,
       std::shared_ptr<std::vector<std::string>> exits = nullptr)
      : RXModule(broker, name),
        received_(std::move(received)),
        latch_(std::move(latch)),
        destroyed_(std::move(destroyed)),
        exits_(std::move(exits)) {
    functionName("onEvent", "Sink", "Receives a notification", 0);
    addParam("key", "key");
    addParam("value", "value");
    addParam("message", "message");
    advertiseMethod(getCurrentMethodDescription(), this, &Sink::onEvent);
    functionName("block", "Sink", "Holds the queue", 0);
    advertiseMethod(getCurrentMethodDescription(), this, &Sink::block);
  }
  ~Sink() override {
    if (destroyed_) destroyed_->store(true);
  }

  void onEvent(const std::string& key, const RXValue& value, const RXValue& message) {
    if (destroyed_ && destroyed_->load()) ADD_FAILURE() << "a call ran on a destroyed module";
    if (key == "k" && message == RXValue("m")) received_->add(value.toInt());
  }
  void block() {
    latch_->started.set_value();
    if (latch_->released.wait_for(kWait) != std::future_status::ready) ADD_FAILURE() << "the latch was never released";
  }
  void exit() override {
    if (exits_ && !hasExited()) exits_->push_back(getName());
    RXModule::exit();
  }

 private:
  std::shared_ptr<Received> received_;
  std::shared_ptr<Latch> latch_;
  std::shared_ptr<std::atomic<bool>> destroyed_;
  std::shared_ptr<std::vector<std::string>> exits_;
};

// Collects the lines of one log category.
class LogLines {
 public:
  explicit LogLines(std::string category) : category_(std::move(category)) {
    id_ = RX::log::addObserver([this](const std::string& c, int level, const std::string& m) {
      std::lock_guard<std::mutex> lock(mutex_);
      if (c == category_) lines_.push_back(std::string(RX::log::levelName(level)) + " " + m);
    });
  }
  ~LogLines() { RX::log::removeObserver(id_); }
  std::vector<std::string> lines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

 private:
  std::string category_;
  int id_;
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

std::string level(int l) { return RX::log::levelName(l); }

TEST(RXBroker, GetProxyFindsModulesThenServicesElseNamesTheMissingModule) {
  auto broker = RX::RXBroker::create("b");
  try {
    broker->getProxy("Ghost", 0);
    FAIL() << "getProxy of an unknown module did not throw";
  } catch (const std::exception& e) {
    EXPECT_EQ("Module not found: Ghost", std::string(e.what()));
  }
  // A plain service of the session (a module in another process, say).
  auto remote = std::make_shared<mz::DynamicObject>();
  mz::MetaMethod m;
  m.name = "twice";
  m.parameters.push_back(mz::MetaParameter{"n", "", mz::ParamType::Int});
  m.returnType = mz::ParamType::Int;
  remote->advertiseMethod(m, mz::makeInvoker<int, int>([](int n) { return 2 * n; }));
  unsigned int id = broker->session()->registerService("Remote", mz::AnyObject(remote));
  boost::shared_ptr<RX::RXProxy> p = broker->getProxy("Remote");
  EXPECT_EQ(42, p->call<int>("twice", 21));
  broker->session()->unregisterService(id);
  EXPECT_THROW(broker->getProxy("Remote"), RX::ModuleNotFoundError);
  broker->shutdown();
  EXPECT_TRUE(broker->isShutDown());
  EXPECT_THROW(broker->registerModule(boost::make_shared<Sink>(broker, "Late", std::make_shared<Received>())),
               std::runtime_error);
}

TEST(RXBrokerManager, InstanceBrokersAndTheWeakManagerReference) {
  RX::RXBrokerManager::setInstance(nullptr);
  boost::shared_ptr<RX::RXBrokerManager> implicit = RX::RXBrokerManager::getInstance();
  ASSERT_TRUE(implicit) << "getInstance must create a manager when none is installed";
  EXPECT_EQ(implicit, RX::RXBrokerManager::getInstance());

  auto manager = boost::make_shared<RX::RXBrokerManager>();
  RX::RXBrokerManager::setInstance(manager);
  EXPECT_EQ(manager, RX::RXBrokerManager::getInstance());

  auto broker = RX::RXBroker::create("managed");
  EXPECT_TRUE(broker->getBrokerManager().expired());
  manager->addBroker(broker);
  manager->addBroker(broker);
  ASSERT_EQ(1u, manager->getBrokers().size());
  EXPECT_EQ(broker, manager->getBrokers()[0]);
  EXPECT_EQ(manager, broker->getBrokerManager().lock());

  // The broker's reference is weak: it does not keep the manager alive.
  RX::RXBrokerManager::setInstance(nullptr);
  boost::weak_ptr<RX::RXBrokerManager> watch = manager;
  manager->removeBroker(broker);
  EXPECT_TRUE(manager->getBrokers().empty());
  EXPECT_TRUE(broker->getBrokerManager().expired());
  manager->addBroker(broker);
  manager.reset();
  EXPECT_TRUE(watch.expired());
  EXPECT_TRUE(broker->getBrokerManager().expired());
  broker->shutdown();
}

TEST(RXProxy, PostedNotificationsArriveInOrderOnThePool) {
  auto broker = RX::RXBroker::create("b");
  auto received = std::make_shared<Received>();
  auto sink = boost::make_shared<Sink>(broker, "Sink", received);
  sink->initModule();
  boost::shared_ptr<RX::RXProxy> p = broker->getProxy("Sink");
  std::pair<int, int> state(0, 0);
  for (int i = 0; i < 1000; ++i) p->pCallNotify("onEvent", "k", RXValue(i), RXValue("m"), &state);
  EXPECT_EQ(1000, state.first);
  EXPECT_EQ(0, state.second);
  p->pCallNotify("onEvent", "k", RXValue(1000), RXValue("m"), nullptr);
  ASSERT_TRUE(received->waitFor(1001)) << "only " << received->values().size() << " of 1001 posts arrived";
  std::vector<int> values = received->values();
  for (int i = 0; i <= 1000; ++i) ASSERT_EQ(i, values[i]) << "posts arrived out of order";
  EXPECT_EQ(0u, broker->droppedCounts()["Sink"]);

  // Once the module has exited, posting fails at once.
  sink->exit();
  try {
    p->pCallNotify("onEvent", "k", RXValue(1), RXValue("m"), &state);
    FAIL() << "a post to an exited module did not throw";
  } catch (const std::exception& e) {
    EXPECT_EQ("module Sink has gone away", std::string(e.what()));
  }
  EXPECT_EQ(1000, state.first) << "a failed post was counted";
  broker->shutdown();
}

TEST(RXProxy, FullQueueDropsTheOldestAndCountsIt) {
  RX::RXBroker::Options options;
  options.queueCapacity = 3;
  auto broker = RX::RXBroker::create("b", options);
  auto received = std::make_shared<Received>();
  auto latch = std::make_shared<Latch>();
  auto sink = boost::make_shared<Sink>(broker, "Sink", received, latch);
  sink->initModule();
  boost::shared_ptr<RX::RXProxy> p = broker->getProxy("Sink");
  LogLines log("rx.executor");

  p->genericPost("block", {});
  ASSERT_EQ(std::future_status::ready, latch->started.get_future().wait_for(kWait)) << "block() never started";
  for (int i = 1; i <= 5; ++i) p->pCallNotify("onEvent", "k", RXValue(i), RXValue("m"), nullptr);
  EXPECT_EQ(3u, sink->postQueue()->pending());
  EXPECT_EQ(2u, sink->postQueue()->dropped());
  EXPECT_EQ(2u, broker->droppedCounts()["Sink"]);
  std::vector<std::string> lines = log.lines();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(level(RX::log::Warning) + " queue Sink full: dropped 1 pending calls", lines[0]);

  latch->release.set_value();
  ASSERT_TRUE(received->waitFor(3));
  EXPECT_EQ((std::vector<int>{3, 4, 5}), received->values());
  broker->shutdown();
  EXPECT_EQ(4u, sink->postQueue()->executed());
}

TEST(RXExecutor, ShutdownRunsWhatIsPendingRefusesNewTasksAndSurvivesThrowingTasks) {
  auto executor = std::make_shared<RX::RXExecutor>(1);
  EXPECT_EQ(2u, executor->threadCount());
  std::shared_ptr<RX::SerialQueue> queue = executor->makeQueue("Q");
  LogLines log("rx.executor");
  auto latch = std::make_shared<Latch>();
  std::vector<int> order;  // touched only by the queue's tasks, one at a time
  std::atomic<int> unordered{0};

  queue->post([latch] {
    latch->started.set_value();
    latch->released.wait_for(kWait);
  });
  ASSERT_EQ(std::future_status::ready, latch->started.get_future().wait_for(kWait));
  queue->post([] { throw std::runtime_error("boom"); });
  for (int i = 0; i < 200; ++i) queue->post([&order, i] { order.push_back(i); });
  for (int i = 0; i < 10; ++i) executor->post([&unordered] { ++unordered; });

  std::thread stopper([executor] { executor->shutdown(); });
  auto deadline = std::chrono::steady_clock::now() + kWait;
  while (!executor->isStopped() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  ASSERT_TRUE(executor->isStopped()) << "shutdown did not start";
  EXPECT_THROW(queue->post([] {}), RX::ExecutorStoppedError);
  EXPECT_THROW(executor->post([] {}), RX::ExecutorStoppedError);
  EXPECT_GE(queue->pending(), 200u) << "the queued tasks ran before shutdown began";
  latch->release.set_value();
  stopper.join();

  ASSERT_EQ(200u, order.size()) << "shutdown returned before the pending tasks ran";
  for (int i = 0; i < 200; ++i) ASSERT_EQ(i, order[i]);
  EXPECT_EQ(10, unordered.load());
  EXPECT_EQ(202u, queue->executed());
  std::vector<std::string> lines = log.lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(level(RX::log::Error) + " task of queue Q failed: boom", lines[0]);
  executor->shutdown();  // idempotent
}

TEST(RXExecutor, ClosedQueueDropsPendingTasksAndRefusesNewOnes) {
  auto executor = std::make_shared<RX::RXExecutor>();
  std::shared_ptr<RX::SerialQueue> queue = executor->makeQueue("Q");
  auto latch = std::make_shared<Latch>();
  std::atomic<int> ran{0};
  queue->post([latch] {
    latch->started.set_value();
    latch->released.wait_for(kWait);
  });
  ASSERT_EQ(std::future_status::ready, latch->started.get_future().wait_for(kWait));
  for (int i = 0; i < 5; ++i) queue->post([&ran] { ++ran; });
  queue->close();
  EXPECT_TRUE(queue->isClosed());
  // Shutting down from one of the pool's own threads would wait for itself.
  std::promise<std::string> refused;
  executor->post([&] {
    try {
      executor->shutdown();
      refused.set_value("shutdown returned");
    } catch (const std::logic_error& e) {
      refused.set_value(e.what());
    }
  });
  std::future<std::string> outcome = refused.get_future();
  ASSERT_EQ(std::future_status::ready, outcome.wait_for(kWait));
  EXPECT_EQ("RXExecutor::shutdown called from one of the executor's own threads", outcome.get());
  EXPECT_EQ(0u, queue->pending());
  EXPECT_THROW(queue->post([] {}), RX::ExecutorStoppedError);
  latch->release.set_value();
  executor->shutdown();
  EXPECT_EQ(0, ran.load());
  EXPECT_EQ(0u, queue->dropped()) << "closing is not an overflow";
}

// Tasks small enough to sit in the queue's ring and large ones kept aside go
// through the same ring: in order across its growth and wrap-around, the
// oldest dropped when full, each captured object released exactly once.
TEST(RXExecutor, SmallAndLargeTasksRunInOrderAndAreReleasedOnce) {
  auto executor = std::make_shared<RX::RXExecutor>();
  std::shared_ptr<RX::SerialQueue> queue = executor->makeQueue("Q", 40);
  auto token = std::make_shared<int>(0);  // every task holds a copy
  std::vector<int> order;                 // touched only by the queue's tasks
  std::vector<int> expected;
  for (int round = 0; round < 3; ++round) {
    // The queue is held while 50 tasks come in: the 10 oldest go over the cap.
    auto latch = std::make_shared<Latch>();
    queue->post([latch] {
      latch->started.set_value();
      latch->released.wait_for(kWait);
    });
    ASSERT_EQ(std::future_status::ready, latch->started.get_future().wait_for(kWait));
    for (int i = 0; i < 50; ++i) {
      const int id = round * 100 + i;
      if (i % 2)
        queue->post([token, id, &order] { order.push_back(id); });
      else
        queue->post([token, id, &order, padding = std::array<char, 200>()] { order.push_back(id + padding[0]); });
      if (i >= 10) expected.push_back(id);
    }
    latch->release.set_value();
    ASSERT_TRUE(executor->drain(std::chrono::duration_cast<std::chrono::milliseconds>(kWait)));
  }
  EXPECT_EQ(expected, order);
  EXPECT_EQ(30u, queue->dropped());
  EXPECT_EQ(1, token.use_count()) << "a task's captures outlived it, or were released twice";
}

// A drain job that empties its queue watches it for a moment before giving
// its thread back; posts landing before, during and just after that watch
// must all run, in order, and drain() must wait for every one of them.
TEST(RXExecutor, TasksPostedAroundAnIdleQueueAllRunInOrderAndDrainWaitsForThem) {
  auto executor = std::make_shared<RX::RXExecutor>(2);
  std::vector<std::shared_ptr<RX::SerialQueue>> queues;
  for (int q = 0; q < 3; ++q) queues.push_back(executor->makeQueue("Q" + std::to_string(q)));

  // One task at a time, each posted a little later after the previous one
  // ran, so that posts fall on every moment of the idle watch and after it.
  std::mutex mutex;
  std::condition_variable cond;
  int ran = 0;  // guarded by mutex
  for (int i = 0; i < 3000; ++i) {
    const auto pause = std::chrono::microseconds(i % 60);
    for (auto until = std::chrono::steady_clock::now() + pause; std::chrono::steady_clock::now() < until;) {
    }
    queues[i % 3]->post([&] {
      std::lock_guard<std::mutex> lock(mutex);
      ++ran;
      cond.notify_all();
    });
    std::unique_lock<std::mutex> lock(mutex);
    ASSERT_TRUE(cond.wait_for(lock, kWait, [&] { return ran == i + 1; }))
        << "task " << i << " posted to Q" << i % 3 << " never ran";
  }

  // Bursts from several threads at once: per poster and queue, in order.
  constexpr int kPosters = 4;
  constexpr int kPerPoster = 3000;
  std::vector<std::vector<int>> last(kPosters, std::vector<int>(3, -1));  // each cell touched by one queue
  std::atomic<int> outOfOrder{0};
  std::atomic<int> done{0};
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
  uint64_t executed = 0;
  for (const auto& queue : queues) {
    executed += queue->executed();
    EXPECT_EQ(0u, queue->pending());
    EXPECT_EQ(0u, queue->dropped());
  }
  EXPECT_EQ(uint64_t{3000 + kPosters * kPerPoster}, executed);

  // drain() from a pool thread would wait for itself.
  std::promise<std::string> refused;
  queues[0]->post([&] {
    try {
      executor->drain(kWait);
      refused.set_value("drain returned");
    } catch (const std::logic_error& e) {
      refused.set_value(e.what());
    }
  });
  std::future<std::string> outcome = refused.get_future();
  ASSERT_EQ(std::future_status::ready, outcome.wait_for(kWait));
  EXPECT_EQ("RXExecutor::drain called from one of the executor's own threads", outcome.get());
  executor->shutdown();
}

// A reader of posts may run a post itself when its queue is idle; never
// around tasks that wait or run, and what is posted meanwhile runs after it.
TEST(RXExecutor, RunHereIfIdleRunsOnTheCallerOnlyWhenTheQueueIsIdleAndKeepsOrder) {
  auto executor = std::make_shared<RX::RXExecutor>();
  std::shared_ptr<RX::SerialQueue> queue = executor->makeQueue("Q");
  std::vector<std::string> order;  // touched by one task at a time
  std::thread::id ranOn;
  ASSERT_TRUE(queue->runHereIfIdle([&] {
    ranOn = std::this_thread::get_id();
    order.push_back("inline");
    queue->post([&] { order.push_back("posted meanwhile"); });
    EXPECT_FALSE(queue->runHereIfIdle([&] { order.push_back("nested"); })) << "the queue is busy with this task";
  }));
  EXPECT_EQ(std::this_thread::get_id(), ranOn);

  auto latch = std::make_shared<Latch>();
  queue->post([latch] {
    latch->started.set_value();
    latch->released.wait_for(kWait);
  });
  ASSERT_EQ(std::future_status::ready, latch->started.get_future().wait_for(kWait));
  EXPECT_FALSE(queue->runHereIfIdle([&] { order.push_back("while a task runs"); }));
  latch->release.set_value();
  ASSERT_TRUE(executor->drain(kWait));
  EXPECT_EQ((std::vector<std::string>{"inline", "posted meanwhile"}), order);
  EXPECT_EQ(3u, queue->executed());
  executor->shutdown();
  EXPECT_FALSE(queue->runHereIfIdle([&] { order.push_back("after shutdown"); }));
  EXPECT_EQ(2u, order.size());
}

TEST(RXModule, NoPostedCallRunsAfterTheModuleIsDestroyed) {
  auto broker = RX::RXBroker::create("b");
  auto received = std::make_shared<Received>();
  auto latch = std::make_shared<Latch>();
  auto destroyed = std::make_shared<std::atomic<bool>>(false);
  auto sink = boost::make_shared<Sink>(broker, "Sink", received, latch, destroyed);
  mz::AnyObject handle = sink->weakObject();

  handle.post("block", {});
  ASSERT_EQ(std::future_status::ready, latch->started.get_future().wait_for(kWait));
  for (int i = 0; i < 10; ++i) handle.post("onEvent", {mz::AnyValue("k"), mz::AnyValue(i), mz::AnyValue("m")});
  sink.reset();  // the running block() still holds the module
  EXPECT_FALSE(destroyed->load());
  latch->release.set_value();
  broker->shutdown();
  EXPECT_TRUE(destroyed->load());
  EXPECT_TRUE(received->values().empty()) << "calls ran after the last owner let go";
  EXPECT_THROW(handle.post("onEvent", {mz::AnyValue("k"), mz::AnyValue(1), mz::AnyValue("m")}),
               mz::ObjectGoneError);
}

TEST(RXBroker, ShutdownExitsModulesInReverseOrderAndReleasesThem) {
  auto broker = RX::RXBroker::create("b");
  auto exits = std::make_shared<std::vector<std::string>>();
  auto destroyed = std::make_shared<std::atomic<bool>>(false);
  std::vector<boost::weak_ptr<RX::RXModule>> watch;
  for (const char* name : {"First", "Second", "Third"}) {
    auto m = boost::make_shared<Sink>(broker, name, std::make_shared<Received>(), nullptr,
                                      std::string(name) == "Second" ? destroyed : nullptr, exits);
    m->initModule();
    watch.push_back(m);
  }
  EXPECT_EQ((std::vector<std::string>{"First", "Second", "Third"}), broker->moduleNames());
  broker->shutdown();
  EXPECT_EQ((std::vector<std::string>{"Third", "Second", "First"}), *exits);
  EXPECT_TRUE(broker->moduleNames().empty());
  EXPECT_TRUE(broker->session()->services().empty());
  EXPECT_TRUE(destroyed->load());
  for (const auto& w : watch) EXPECT_TRUE(w.expired());
  EXPECT_TRUE(broker->executor().isStopped());
  broker->shutdown();  // idempotent
  EXPECT_EQ(3u, exits->size());
}

}  // namespace

namespace {

TEST(RXBroker, ShutdownDeliversPendingPostsBeforeModulesExit) {
  auto broker = RX::RXBroker::create("b");
  auto received = std::make_shared<Received>();
  auto latch = std::make_shared<Latch>();
  auto sink = boost::make_shared<Sink>(broker, "Sink", received, latch);
  sink->initModule();
  boost::shared_ptr<RX::RXProxy> p = broker->getProxy("Sink");
  // Hold the module's queue so that the notifications are still pending when
  // the stop begins.
  p->genericPost("block", {});
  ASSERT_EQ(std::future_status::ready, latch->started.get_future().wait_for(kWait));
  for (int i = 0; i < 100; ++i) p->pCallNotify("onEvent", "k", RXValue(i), RXValue("m"), nullptr);
  std::thread stopper([broker] { broker->shutdown(); });
  latch->release.set_value();
  stopper.join();
  ASSERT_EQ(100u, received->values().size()) << "shutdown dropped pending notifications";
  EXPECT_EQ(99, received->values().back());
}

TEST(MemoryBudgetTest, WritesAreRefusedOnlyWhileTheProcessIsOverTheCeiling) {
  using RX::MemoryBudget;
  using RX::RXError;
  EXPECT_NO_THROW(MemoryBudget::check("RXMemory", "insertData")) << "no ceiling, no refusal";
  EXPECT_GT(MemoryBudget::residentBytes(), 0u);
  {
    MemoryBudget tight(1);
    try {
      MemoryBudget::check("RXMemory", "insertData");
      ADD_FAILURE() << "a write was accepted over the ceiling";
    } catch (const RXError& e) {
      EXPECT_EQ("insertData", e.method());
      EXPECT_EQ(0u, e.message().find("memory limit reached: resident ")) << e.message();
      EXPECT_NE(std::string::npos, e.message().find(" bytes over maxMemory 1 bytes")) << e.message();
    }
  }
  EXPECT_FALSE(MemoryBudget::exceeded()) << "the ceiling went with its budget";
  MemoryBudget roomy(std::size_t(1) << 50);
  EXPECT_NO_THROW(MemoryBudget::check("RXMemory", "insertData"));
}

}  // namespace
