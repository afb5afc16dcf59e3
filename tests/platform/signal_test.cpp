// Signals: connection bookkeeping, delivery, failures of callables, changes of
// the subscriber list during delivery, and use from several threads at once.
#include "mz/signal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "rx/rxlog.h"

namespace {

// Collects the lines written to one log category while it lives.
class LogCapture {
 public:
  explicit LogCapture(std::string category) : category_(std::move(category)) {
    id_ = RX::log::addObserver([this](const std::string& cat, int level, const std::string& msg) {
      if (cat != category_) return;
      std::lock_guard<std::mutex> l(mutex_);
      lines_.push_back(std::string(RX::log::levelName(level)) + ": " + msg);
    });
  }
  ~LogCapture() { RX::log::removeObserver(id_); }
  std::vector<std::string> lines() const {
    std::lock_guard<std::mutex> l(mutex_);
    return lines_;
  }

 private:
  std::string category_;
  int id_ = 0;
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

bool anyContains(const std::vector<std::string>& lines, const std::string& part) {
  for (const auto& l : lines)
    if (l.find(part) != std::string::npos) return true;
  return false;
}

TEST(Signal, SignatureTexts) {
  EXPECT_EQ("void ()", mz::SignalBase().signature());
  EXPECT_EQ("void (mz::AnyValue)", mz::SignalF<void(mz::AnyValue)>::typeSignature());
  EXPECT_EQ("void (unsigned int, std::string)", (mz::SignalF<void(unsigned int, std::string)>::typeSignature()));
  EXPECT_EQ("void (RXValue, int, float, bool)", (mz::SignalF<void(RX::RXValue, int, float, bool)>::typeSignature()));
  mz::SignalF<void(mz::AnyValue)> sig;
  EXPECT_EQ("void (mz::AnyValue)", sig.signature());
}

TEST(Signal, LinksAreUniqueAndDisconnectOnlyOnce) {
  mz::SignalBase a, b;
  EXPECT_FALSE(a.hasSubscribers());
  EXPECT_EQ(0u, a.subscriberCount());
  a.trigger({});  // nobody connected: nothing to do, nothing to fail

  mz::SignalLink l1 = a.connect([](const mz::GenericFunctionParameters&) {});
  mz::SignalLink l2 = a.connect([](const mz::GenericFunctionParameters&) {});
  mz::SignalLink l3 = b.connect([](const mz::GenericFunctionParameters&) {});
  EXPECT_NE(mz::kInvalidSignalLink, l1);
  EXPECT_NE(l1, l2);
  EXPECT_NE(l2, l3);
  EXPECT_NE(l1, l3);
  EXPECT_EQ(2u, a.subscriberCount());

  EXPECT_FALSE(a.disconnect(l3)) << "a link of another signal must not be found here";
  EXPECT_FALSE(a.disconnect(mz::kInvalidSignalLink));
  EXPECT_TRUE(a.disconnect(l1));
  EXPECT_FALSE(a.disconnect(l1)) << "a link disconnects once";
  EXPECT_EQ(1u, a.subscriberCount());
  a.disconnectAll();
  EXPECT_FALSE(a.hasSubscribers());
  EXPECT_FALSE(a.disconnect(l2));
  EXPECT_TRUE(b.disconnect(l3));
}

TEST(Signal, TypedSignalDeliversConvertedArguments) {
  mz::SignalF<void(unsigned int, std::string)> sig;
  std::vector<std::pair<unsigned int, std::string>> typed;
  std::vector<std::string> generic;
  sig.connect([&](unsigned int id, const std::string& name) { typed.emplace_back(id, name); });
  sig.connect([&](const mz::GenericFunctionParameters& p) {
    if (p.size() != 2) return generic.push_back(std::to_string(p.size()) + " arguments");
    generic.push_back(std::to_string(p[0].toInt()) + "/" + p[1].toString());
  });

  sig(7u, "Battery");
  sig(8u, std::string("Audio"));
  ASSERT_EQ(2u, typed.size());
  EXPECT_EQ(7u, typed[0].first);
  EXPECT_EQ("Battery", typed[0].second);
  EXPECT_EQ(8u, typed[1].first);
  EXPECT_EQ("Audio", typed[1].second);
  EXPECT_EQ((std::vector<std::string>{"7/Battery", "8/Audio"}), generic);

  // A raw emission of the wrong shape reaches the typed callable as a logged
  // conversion failure, not as an exception in the emitter.
  LogCapture log("mz.signal");
  EXPECT_NO_THROW(sig.trigger({mz::AnyValue(1)}));
  EXPECT_EQ(2u, typed.size());
  EXPECT_EQ("1 arguments", generic.back()) << "the untyped subscriber still gets the emission";
  EXPECT_TRUE(anyContains(log.lines(), "error: ")) << "no error logged";
  EXPECT_TRUE(anyContains(log.lines(), "wrong number of arguments"));
}

TEST(Signal, ThrowingCallableIsLoggedAndOthersStillCalled) {
  LogCapture log("mz.signal");
  mz::SignalF<void(mz::AnyValue)> sig;
  int before = 0, after = 0;
  sig.connect([&](mz::AnyValue) { ++before; });
  sig.connect([](mz::AnyValue) { throw std::runtime_error("boom in subscriber"); });
  sig.connect([](mz::AnyValue) { throw 42; });
  sig.connect([&](mz::AnyValue v) { after += v.toInt(); });

  EXPECT_NO_THROW(sig(mz::AnyValue(5)));
  EXPECT_NO_THROW(sig(mz::AnyValue(6)));
  EXPECT_EQ(2, before);
  EXPECT_EQ(11, after);
  auto lines = log.lines();
  EXPECT_EQ(4u, lines.size()) << "one error line per failure and emission";
  EXPECT_TRUE(anyContains(lines, "boom in subscriber"));
  EXPECT_TRUE(anyContains(lines, "not a std::exception"));
  for (const auto& l : lines) EXPECT_EQ(0u, l.rfind("error: ", 0)) << l;
}

TEST(Signal, SubscriberListChangesDuringDelivery) {
  mz::SignalF<void(mz::AnyValue)> sig;
  std::vector<std::string> calls;
  mz::SignalLink self = 0, victim = 0, late = 0;
  self = sig.connect([&](mz::AnyValue) {
    calls.push_back("self");
    EXPECT_TRUE(sig.disconnect(self));
  });
  sig.connect([&](mz::AnyValue) {
    calls.push_back("killer");
    if (victim) {
      EXPECT_TRUE(sig.disconnect(victim));
    }
    victim = 0;
    if (!late) late = sig.connect([&](mz::AnyValue) { calls.push_back("late"); });
  });
  victim = sig.connect([&](mz::AnyValue) { calls.push_back("victim"); });

  sig(mz::AnyValue(1));
  // The victim was removed before its turn; the late one joined after the
  // emission started.
  EXPECT_EQ((std::vector<std::string>{"self", "killer"}), calls);
  calls.clear();
  sig(mz::AnyValue(2));
  EXPECT_EQ((std::vector<std::string>{"killer", "late"}), calls);
  EXPECT_EQ(2u, sig.subscriberCount());
}

TEST(Signal, NestedEmissionFromSubscriber) {
  mz::SignalF<void(int)> sig;
  std::vector<int> seen;
  sig.connect([&](int depth) {
    seen.push_back(depth);
    if (depth < 3) sig(depth + 1);
  });
  sig(1);
  EXPECT_EQ((std::vector<int>{1, 2, 3}), seen);
}

TEST(Signal, QueuedCallTypeIsDeliveredBeforeTriggerReturns) {
  mz::SignalBase sig("void (int)");
  int got = 0;
  sig.connect([&](const mz::GenericFunctionParameters& p) { got = p.at(0).toInt(); });
  sig.trigger({mz::AnyValue(9)}, mz::MetaCallType_Queued);
  EXPECT_EQ(9, got);
}

TEST(Signal, OnSubscribersReportsFirstAndLast) {
  std::vector<bool> events;
  mz::SignalF<void(mz::AnyValue)> sig([&](bool on) { events.push_back(on); });
  EXPECT_TRUE(events.empty());
  auto a = sig.connect([](mz::AnyValue) {});
  auto b = sig.connect([](mz::AnyValue) {});
  EXPECT_EQ(std::vector<bool>{true}, events);
  sig.disconnect(a);
  EXPECT_EQ(std::vector<bool>{true}, events);
  sig.disconnect(b);
  EXPECT_EQ((std::vector<bool>{true, false}), events);
  sig.disconnect(b);  // already gone: no second "false"
  sig.connect([](mz::AnyValue) {});
  sig.disconnectAll();
  sig.disconnectAll();
  EXPECT_EQ((std::vector<bool>{true, false, true, false}), events);

  // The callback may use the signal itself.
  mz::SignalBase* self = nullptr;
  int reentered = 0;
  mz::SignalBase reentrant("void ()", [&](bool on) {
    if (on) reentered = static_cast<int>(self->subscriberCount());
  });
  self = &reentrant;
  reentrant.connect([](const mz::GenericFunctionParameters&) {});
  EXPECT_EQ(1, reentered);
}

// Every memory key carries a signal, so an unused one must stay two pointers
// wide; what moved out of line (signature, callback) must still work, whether
// it was given before or after the first connect.
TEST(Signal, UnusedSignalIsSmallAndKeepsItsSettings) {
  EXPECT_LE(sizeof(mz::SignalBase), 16u);
  EXPECT_LE(sizeof(mz::SignalF<void(mz::AnyValue)>), 16u);

  mz::SignalBase plain;
  EXPECT_EQ("void ()", plain.signature());
  plain.connect([](const mz::GenericFunctionParameters&) {});
  EXPECT_EQ("void ()", plain.signature()) << "the first connect must not lose the default signature";

  mz::SignalBase named("void (int)");
  EXPECT_EQ("void (int)", named.signature());
  named.connect([](const mz::GenericFunctionParameters&) {});
  EXPECT_EQ("void (int)", named.signature());
  EXPECT_EQ("", mz::SignalBase("").signature()) << "an explicit empty signature is kept as given";

  mz::SignalF<void(unsigned int, std::string)> typed;
  EXPECT_EQ("void (unsigned int, std::string)", typed.signature());
  typed.connect([](unsigned int, std::string) {});
  EXPECT_EQ("void (unsigned int, std::string)", typed.signature());

  // Callback on an untyped signal with an explicit signature, and on a typed
  // one: both fire on first connect and last disconnect.
  std::vector<bool> baseEvents, typedEvents;
  mz::SignalBase base("void (int)", [&](bool on) { baseEvents.push_back(on); });
  mz::SignalF<void(int)> typedWithCallback([&](bool on) { typedEvents.push_back(on); });
  EXPECT_EQ("void (int)", base.signature());
  EXPECT_EQ("void (int)", typedWithCallback.signature());
  const mz::SignalLink bl = base.connect([](const mz::GenericFunctionParameters&) {});
  const mz::SignalLink tl = typedWithCallback.connect([](int) {});
  EXPECT_EQ(std::vector<bool>{true}, baseEvents);
  EXPECT_EQ(std::vector<bool>{true}, typedEvents);
  EXPECT_TRUE(base.disconnect(bl));
  EXPECT_TRUE(typedWithCallback.disconnect(tl));
  EXPECT_EQ((std::vector<bool>{true, false}), baseEvents);
  EXPECT_EQ((std::vector<bool>{true, false}), typedEvents);
}

// Emitters, stable subscribers and threads that keep connecting and
// disconnecting all run at once: a subscriber connected throughout sees every
// emission exactly once, link ids stay unique, and the on-subscribe callback
// alternates.
TEST(Signal, ConcurrentConnectDisconnectEmit) {
  constexpr int kEmitters = 3, kEmissions = 2000, kChurners = 3, kChurn = 1000, kStable = 4;
  std::mutex transitionsMutex;
  std::vector<bool> transitions;
  mz::SignalF<void(int)> sig([&](bool on) {
    std::lock_guard<std::mutex> l(transitionsMutex);
    transitions.push_back(on);
  });

  std::vector<std::atomic<long>> stable(kStable);
  std::vector<mz::SignalLink> stableLinks;
  for (int i = 0; i < kStable; ++i) {
    stable[static_cast<std::size_t>(i)] = 0;
    stableLinks.push_back(sig.connect([&stable, i](int v) { stable[static_cast<std::size_t>(i)] += v; }));
  }

  std::mutex linksMutex;
  std::set<mz::SignalLink> links(stableLinks.begin(), stableLinks.end());
  std::atomic<long> churnCalls{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kChurners; ++t) {
    threads.emplace_back([&] {
      std::vector<mz::SignalLink> mine;
      for (int i = 0; i < kChurn; ++i) {
        mz::SignalLink l = sig.connect([&](int) { ++churnCalls; });
        mine.push_back(l);
        if (!sig.disconnect(l)) ADD_FAILURE() << "fresh link " << l << " could not be disconnected";
      }
      std::lock_guard<std::mutex> g(linksMutex);
      links.insert(mine.begin(), mine.end());
    });
  }
  for (int t = 0; t < kEmitters; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kEmissions; ++i) sig(1);
    });
  }
  for (auto& th : threads) th.join();

  for (int i = 0; i < kStable; ++i)
    EXPECT_EQ(kEmitters * kEmissions, stable[static_cast<std::size_t>(i)].load()) << "stable subscriber " << i;
  EXPECT_EQ(static_cast<std::size_t>(kStable + kChurners * kChurn), links.size()) << "duplicate link ids";
  EXPECT_EQ(static_cast<std::size_t>(kStable), sig.subscriberCount());

  for (auto l : stableLinks) EXPECT_TRUE(sig.disconnect(l));
  std::lock_guard<std::mutex> l(transitionsMutex);
  ASSERT_EQ(2u, transitions.size()) << "stable subscribers kept the signal subscribed throughout";
  EXPECT_TRUE(transitions[0]);
  EXPECT_FALSE(transitions[1]);
}

// With no stable subscriber, concurrent connects and disconnects must still
// report strictly alternating first/last transitions, ending with "none".
TEST(Signal, ConcurrentTransitionsAlternate) {
  std::mutex m;
  std::vector<bool> transitions;
  mz::SignalBase sig("void ()", [&](bool on) {
    std::lock_guard<std::mutex> l(m);
    transitions.push_back(on);
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        auto l = sig.connect([](const mz::GenericFunctionParameters&) {});
        sig.trigger({});
        sig.disconnect(l);
      }
    });
  }
  for (auto& th : threads) th.join();
  std::lock_guard<std::mutex> l(m);
  ASSERT_FALSE(transitions.empty());
  ASSERT_EQ(0u, transitions.size() % 2);
  for (std::size_t i = 0; i < transitions.size(); ++i)
    ASSERT_EQ(i % 2 == 0, transitions[i]) << "transition " << i << " out of order";
  EXPECT_FALSE(sig.hasSubscribers());
}

}  // namespace
