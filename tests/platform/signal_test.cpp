// Signals: connection bookkeeping, delivery, failures of callables, changes of
// the subscriber list during delivery, and use from several threads at once.
#include "mz/signal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <set>
#include <thread>

#include "support/capture.h"

namespace {

using Params = mz::GenericFunctionParameters;

// Every memory key carries a signal: an unused one stays two pointers wide,
// and its signature survives the first connect, given or computed.
TEST(Signal, SignaturesAreKeptAndAnUnusedSignalIsSmall) {
  EXPECT_LE(sizeof(mz::SignalF<void(mz::AnyValue)>), 16u);
  mz::SignalBase plain, named("void (int)");
  mz::SignalF<void(unsigned int, std::string, RX::RXValue, float, bool)> typed;
  const std::pair<mz::SignalBase*, std::string> cases[] = {
      {&plain, "void ()"}, {&named, "void (int)"}, {&typed, "void (unsigned int, std::string, RXValue, float, bool)"}};
  for (const auto& [sig, text] : cases) {
    sig->connect([](const Params&) {});
    EXPECT_EQ(text, sig->signature());
  }
}

// Links are unique across signals and disconnect once; the on-subscribers
// callback reports the first and the last subscriber, and may use the signal.
TEST(Signal, LinksDisconnectOnceAndOnSubscribersReportsFirstAndLast) {
  std::vector<bool> events;
  mz::SignalF<void(mz::AnyValue)> a([&](bool on) { events.push_back(on); });
  mz::SignalBase b;
  a.trigger({});  // nobody connected: nothing to do, nothing to fail
  mz::SignalLink l1 = a.connect([](mz::AnyValue) {}), l2 = a.connect([](mz::AnyValue) {});
  mz::SignalLink l3 = b.connect([](const Params&) {});
  EXPECT_EQ(4u, std::set<mz::SignalLink>({l1, l2, l3, mz::kInvalidSignalLink}).size()) << "links are unique";
  EXPECT_FALSE(a.disconnect(l3) || a.disconnect(mz::kInvalidSignalLink)) << "a link of another signal was found";
  EXPECT_TRUE(a.disconnect(l1));
  EXPECT_FALSE(a.disconnect(l1)) << "a link disconnects once";
  EXPECT_EQ(std::vector<bool>{true}, events);
  EXPECT_TRUE(a.disconnect(l2));
  a.disconnect(l2);  // already gone: no second "false"
  a.connect([](mz::AnyValue) {});
  a.disconnectAll();
  a.disconnectAll();
  EXPECT_EQ((std::vector<bool>{true, false, true, false}), events);
  EXPECT_TRUE(b.disconnect(l3));

  mz::SignalBase* self = nullptr;
  int reentered = 0;
  mz::SignalBase reentrant("void (int)", [&](bool on) { reentered += on ? int(self->subscriberCount()) : 10; });
  self = &reentrant;
  reentrant.disconnect(reentrant.connect([](const Params&) {}));
  EXPECT_EQ(11, reentered);
}

// A raw emission of the wrong shape, or a throwing callable, is logged: the
// emitter never sees an exception and the other subscribers are still called.
TEST(Signal, FailingCallablesAreLoggedAndOthersStillCalled) {
  testsupport::LogLines log("mz.signal");
  mz::SignalF<void(unsigned int, std::string)> sig;
  std::vector<std::string> calls;
  sig.connect([&](unsigned int id, const std::string& name) { calls.push_back(std::to_string(id) + name); });
  sig.connect([](const Params&) { throw std::runtime_error("boom in subscriber"); });
  sig.connect([](const Params&) { throw 42; });
  sig.connect([&](const Params& p) { calls.push_back(std::to_string(p.size()) + " arguments"); });
  EXPECT_NO_THROW(sig(7u, "Battery"));
  EXPECT_NO_THROW(sig.trigger({mz::AnyValue(1)}));
  EXPECT_EQ((std::vector<std::string>{"7Battery", "2 arguments", "1 arguments"}), calls);
  const std::string lines = log.joined();
  EXPECT_EQ(5u, log.size()) << lines;
  for (const char* part : {"boom in subscriber", "not a std::exception", "wrong number of arguments"})
    EXPECT_NE(std::string::npos, lines.find(part)) << lines;
  for (const auto& l : log.items()) EXPECT_EQ(0u, l.rfind("error: ", 0)) << l;
}

TEST(Signal, SubscriberListChangesDuringDeliveryAndNestedEmission) {
  mz::SignalF<void(int)> sig;
  std::vector<std::string> calls;
  mz::SignalLink self = 0, victim = 0, late = 0;
  self = sig.connect([&](int) {
    calls.push_back("self");
    EXPECT_TRUE(sig.disconnect(self));
  });
  sig.connect([&](int depth) {
    calls.push_back("killer" + std::to_string(depth));
    if (victim && !sig.disconnect(victim)) ADD_FAILURE() << "the victim could not be disconnected";
    victim = 0;
    if (!late) late = sig.connect([&](int) { calls.push_back("late"); });
    if (depth == 2) sig(3);
  });
  victim = sig.connect([&](int) { calls.push_back("victim"); });
  // The victim goes before its turn; the late one joins after the emission started.
  sig(1);
  EXPECT_EQ((std::vector<std::string>{"self", "killer1"}), calls);
  calls.clear();
  sig(2);
  // A queued call type is still delivered before trigger returns.
  sig.trigger({mz::AnyValue(9)}, mz::MetaCallType_Queued);
  EXPECT_EQ((std::vector<std::string>{"killer2", "killer3", "late", "late", "killer9", "late"}), calls);
  EXPECT_EQ(2u, sig.subscriberCount());
}

// Emitters, stable subscribers and threads that keep connecting and
// disconnecting all run at once: a subscriber connected throughout sees every
// emission exactly once, link ids stay unique, and the on-subscribers callback
// alternates.
TEST(Signal, ConcurrentConnectDisconnectEmit) {
  constexpr int kEmitters = 3, kEmissions = 2000, kChurners = 3, kChurn = 1000, kStable = 4;
  std::mutex mutex;
  std::vector<bool> transitions;
  std::set<mz::SignalLink> links;
  mz::SignalF<void(int)> sig([&](bool on) {
    std::lock_guard<std::mutex> l(mutex);
    transitions.push_back(on);
  });
  std::vector<std::atomic<long>> stable(kStable);
  std::vector<mz::SignalLink> stableLinks;
  for (auto& count : stable) stableLinks.push_back(sig.connect([&count](int v) { count += v; }));
  links.insert(stableLinks.begin(), stableLinks.end());
  // Without stable subscribers, transitions must still alternate.
  testsupport::Collector<bool> bare;
  mz::SignalBase flapping("void ()", [&](bool on) { bare.add(on); });

  std::vector<std::thread> threads;
  for (int t = 0; t < kChurners; ++t)
    threads.emplace_back([&] {
      std::vector<mz::SignalLink> mine;
      for (int i = 0; i < kChurn; ++i) {
        mine.push_back(sig.connect([](int) {}));
        if (!sig.disconnect(mine.back())) ADD_FAILURE() << "fresh link " << mine.back() << " not disconnected";
        flapping.disconnect(flapping.connect([](const Params&) {}));
      }
      std::lock_guard<std::mutex> g(mutex);
      links.insert(mine.begin(), mine.end());
    });
  for (int t = 0; t < kEmitters; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < kEmissions; ++i) {
        sig(1);
        flapping.trigger({});
      }
    });
  for (auto& th : threads) th.join();

  for (auto& count : stable) EXPECT_EQ(kEmitters * kEmissions, count.load());
  EXPECT_EQ(static_cast<std::size_t>(kStable + kChurners * kChurn), links.size()) << "duplicate link ids";
  for (auto l : stableLinks) EXPECT_TRUE(sig.disconnect(l));
  EXPECT_EQ((std::vector<bool>{true, false}), transitions) << "stable subscribers kept the signal subscribed";
  const std::vector<bool> flaps = bare.items();
  ASSERT_EQ(0u, flaps.size() % 2);
  for (std::size_t i = 0; i < flaps.size(); ++i) ASSERT_EQ(i % 2 == 0, flaps[i]) << "transition " << i;
  EXPECT_FALSE(flapping.hasSubscribers());
}

}  // namespace
