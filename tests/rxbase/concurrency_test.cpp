// Many threads at once: on one key and many keys, on the extractor table, on
// the first uses of a cell's lazily made parts; and the locks underneath (the
// cells' compact recursive mutex, the maps' writer-preferring shared mutex).
// Nothing may be lost and nothing may hang.
#include <atomic>
#include <future>
#include <set>
#include <thread>
#include <vector>

#include "memory_test_util.h"
#include "memorylocks.h"

namespace rxtest {
namespace {

class ConcurrencyTest : public MemoryTest {};

TEST_F(ConcurrencyTest, HammeringLosesNothingAndDoesNotDeadlock) {
  constexpr int kRaisers = 4, kRaisesEach = 400, kKeysEach = 300;
  auto steady = startModule<Recorder>(broker, "Steady");
  auto watcher = startModule<Recorder>(broker, "Watcher");
  auto flicker = startModule<Recorder>(broker, "Flicker");
  memory->subscribeToEvent("hot", "Steady", "onEvent");
  memory->subscribeToEvent(RX::Memory::keyAddedKey, "Watcher", "onEvent");
  memory->subscribeToEvent(RX::Memory::keyRemovedKey, "Watcher", "onOther");
  std::atomic<int> emitted{0};
  memory->subscriber("hot")->signal.connect([&](mz::AnyValue) { ++emitted; });

  std::vector<std::function<void()>> jobs;
  // Raisers on the one hot key, and inserters of their own keys.
  for (int t = 0; t < kRaisers; ++t) {
    jobs.push_back([&, t] {
      for (int i = 0; i < kRaisesEach; ++i) memory->raiseEvent("hot", RXValue(t * kRaisesEach + i));
    });
    jobs.push_back([&, t] {
      for (int i = 0; i < kKeysEach; ++i) {
        const std::string key = "t" + std::to_string(t) + "/k" + std::to_string(i);
        memory->insertData(key, i);
        memory->raiseMicroEvent(key + "/m", RXValue(i));
      }
    });
  }
  jobs.push_back([&] {  // a module that keeps subscribing and unsubscribing on the hot key
    for (int i = 0; i < 200; ++i) {
      memory->subscribeToEvent("hot", "Flicker", "onEvent");
      memory->unsubscribeToEvent("hot", "Flicker");
    }
  });
  jobs.push_back([&] {  // keys that come and go
    for (int i = 0; i < kKeysEach; ++i) {
      memory->insertData("r/k" + std::to_string(i), i);
      memory->removeData("r/k" + std::to_string(i));
    }
  });
  jobs.push_back([&] {  // readers of the whole store
    for (int i = 0; i < 50; ++i) {
      (void)memory->getListTyped(RX::Data);
      (void)memory->getDescriptionList({});
      (void)memory->getEventHistory("hot");
      (void)memory->getDataSubscriber("hot");
    }
  });
  runAll(jobs);

  // Every raise of the hot key reached its steady subscriber and its signal.
  ASSERT_TRUE(steady->waitFor(kRaisers * kRaisesEach)) << steady->size() << " of " << kRaisers * kRaisesEach;
  std::set<int> values;
  for (const auto& n : steady->items()) values.insert(n.value.toInt());
  EXPECT_EQ(std::size_t(kRaisers * kRaisesEach), values.size());
  EXPECT_EQ(kRaisers * kRaisesEach, emitted.load());
  EXPECT_EQ(50u, memory->getEventHistory("hot").getSize());
  EXPECT_EQ(Names{"Steady"}, memory->getDataSubscriber("hot"));

  // Every new key was reported once, and every removal.
  const std::size_t added = kRaisers * kKeysEach * 2 + kKeysEach;
  ASSERT_TRUE(watcher->waitFor(added + kKeysEach)) << watcher->size();
  drain(watcher);
  std::multiset<std::string> addedKeys, removedKeys;
  for (const auto& n : watcher->items())
    if (n.key != "Sentinel")
      (n.key == RX::Memory::keyAddedKey ? addedKeys : removedKeys).insert(n.value.toString(0));
  EXPECT_EQ(added, addedKeys.size());
  EXPECT_EQ(std::size_t(kKeysEach), removedKeys.size());
  for (int t = 0; t < kRaisers; ++t)
    for (int i = 0; i < kKeysEach; i += 37) {
      const std::string key = "t" + std::to_string(t) + "/k" + std::to_string(i);
      EXPECT_EQ(1u, addedKeys.count(key)) << key;
      EXPECT_EQ(i, memory->getData(key).toInt()) << key;
    }
  EXPECT_EQ(1u, addedKeys.count("r/k0"));
  EXPECT_EQ(1u, removedKeys.count("r/k0"));
}

// First subscriptions to undeclared events add entries to the extractor table
// while removals erase from it and readers walk it. Before the table's writers
// took its lock exclusively, ThreadSanitizer reported the race here and the
// walks could step on erased nodes.
TEST_F(ConcurrencyTest, ExtractorTableWritersAndReadersDoNotRace) {
  constexpr int kSubscribers = 3, kRemovers = 2, kNamesEach = 300;
  std::atomic<int> writersLeft{kSubscribers + kRemovers};
  std::vector<std::function<void()>> jobs;
  // The subscribers race for the same names: each name's first look-up inserts.
  for (int t = 0; t < kSubscribers; ++t)
    jobs.push_back([&, t] {
      for (int i = 0; i < kNamesEach; ++i)
        memory->subscribeToEvent("u/" + std::to_string(i), "M" + std::to_string(t), "onEvent");
      --writersLeft;
    });
  for (int t = 0; t < kRemovers; ++t)
    jobs.push_back([&, t] {
      for (int i = 0; i < kNamesEach; ++i) {
        const std::string name = "r" + std::to_string(t) + "/" + std::to_string(i);
        memory->declareEvent(name, "X");
        memory->removeEvent(name);
      }
      --writersLeft;
    });
  for (int t = 0; t < 2; ++t)
    jobs.push_back([&] {  // readers walk the table for as long as it is written (capped)
      for (int i = 0; i < 100000 && writersLeft.load() > 0; ++i) {
        (void)memory->getExtractorEvent("");
        (void)memory->getEventList();
      }
    });
  runAll(jobs);

  // Every first subscription left its empty entry; every removal erased its own.
  Names expected;
  for (int i = 0; i < kNamesEach; ++i) expected.push_back("u/" + std::to_string(i));
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(expected, memory->getExtractorEvent(""));
  EXPECT_EQ(Names{}, memory->getExtractorEvent("X"));
  const Names events = memory->getEventList();
  EXPECT_TRUE(std::is_sorted(events.begin(), events.end()));
  EXPECT_EQ(events.end(), std::adjacent_find(events.begin(), events.end())) << "an event is listed twice";
}

// A cell's subscriptions, description and history ring are made on first use,
// each under its own lock: first uses racing on fresh keys must all land.
TEST_F(ConcurrencyTest, RacingFirstUsesOfACellAllLand) {
  constexpr int kKeys = 1000;
  auto recorder = startModule<Recorder>(broker, "Rec");
  auto key = [](int i) { return "fresh/" + std::to_string(i); };
  for (int i = 0; i < kKeys; ++i) memory->insertData(key(i), i);
  raceOverKeys(kKeys, {[&](int i) { memory->setDescription(key(i), "about " + key(i)); },
                       [&](int i) { memory->subscribeToMicroEvent(key(i), "Rec", "", "onEvent"); },
                       [&](int i) { memory->raiseEvent(key(i), RXValue(i)); }});
  for (int i = 0; i < kKeys; ++i) {
    EXPECT_EQ("[invalid, [\"" + key(i) + "\", \"event\", \"about " + key(i) + "\"]]",
              memory->getDescriptionList({key(i)}).toString());
    EXPECT_EQ(Names{"Rec"}, memory->getDataSubscriber(key(i))) << key(i);
    const RXValue history = memory->getEventHistory(key(i));
    ASSERT_EQ(1u, history.getSize()) << key(i);
    EXPECT_EQ(RXValue(i), history[0][0]) << key(i);
  }
  drain(recorder);
}

using RX::CompactRecursiveMutex;
using RX::SharedMutex;

// Whether another thread may take m now (shared or not); it must not see the caller's levels.
template <typename M>
bool takenElsewhere(M& m, bool shared = false) {
  return std::async(std::launch::async,
                    [&] {
                      if constexpr (std::is_same_v<M, SharedMutex>) {
                        if (!(shared ? m.try_lock_shared() : m.try_lock())) return false;
                        shared ? m.unlock_shared() : m.unlock();
                      } else {
                        if (!m.try_lock()) return false;
                        m.unlock();
                      }
                      return true;
                    })
      .get();
}

TEST(CompactRecursiveMutexTest, HolderMayReenterOthersWaitForTheLastLevel) {
  CompactRecursiveMutex m;
  EXPECT_TRUE(takenElsewhere(m)) << "a fresh mutex is free";
  m.lock();
  ASSERT_TRUE(m.try_lock()) << "the holder takes it again";
  m.lock();
  EXPECT_FALSE(takenElsewhere(m)) << "held three levels deep";
  m.unlock();
  m.unlock();
  EXPECT_FALSE(takenElsewhere(m)) << "one level is still held";
  m.unlock();
  EXPECT_TRUE(takenElsewhere(m)) << "every level released";
}

TEST(SharedMutexTest, ReadersShareWritersExcludeAndAreNotStarved) {
  SharedMutex m;
  m.lock();
  EXPECT_FALSE(takenElsewhere(m, true)) << "a reader beside a writer";
  EXPECT_FALSE(takenElsewhere(m)) << "two writers";
  m.unlock();
  m.lock_shared();
  EXPECT_TRUE(takenElsewhere(m, true)) << "readers share";
  EXPECT_FALSE(takenElsewhere(m)) << "a writer beside a reader";
  // A writer comes while the reader holds on: from the moment it waits, a new
  // reader is refused, however long the first reader stays.
  std::atomic<bool> wrote{false};
  std::future<void> writer = std::async(std::launch::async, [&] {
    m.lock();
    wrote = true;
    m.unlock();
  });
  EXPECT_TRUE(testsupport::pollUntil([&] {
    if (!m.try_lock_shared()) return true;
    m.unlock_shared();
    return false;
  })) << "new readers kept overtaking the waiting writer";
  EXPECT_FALSE(wrote);
  m.unlock_shared();
  ASSERT_EQ(std::future_status::ready, writer.wait_for(testsupport::kWait))
      << "the writer never got the lock";
  EXPECT_TRUE(wrote);
}

}  // namespace
}  // namespace rxtest
