// Many threads at once: on one key and many keys, on the extractor table, on
// the first uses of a cell's lazily made parts; and the locks underneath (the
// cells' compact recursive mutex, the maps' writer-preferring shared mutex).
// Nothing may be lost and nothing may hang.
#include <set>
#include <shared_mutex>

#include "memory_test_util.h"
#include "memorylocks.h"

namespace rxtest {
namespace {

using ConcurrencyTest = MemoryTest;

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
  auto key = [](int t, int i) { return "t" + std::to_string(t) + "/k" + std::to_string(i); };

  std::vector<std::function<void(int)>> jobs;
  // Raisers on the one hot key, and inserters of their own keys, some of which go again.
  for (int t = 0; t < kRaisers; ++t) {
    jobs.push_back([&, t](int) {
      for (int i = 0; i < kRaisesEach; ++i) memory->raiseEvent("hot", RXValue(t * kRaisesEach + i));
    });
    jobs.push_back([&, t](int) {
      for (int i = 0; i < kKeysEach; ++i) {
        memory->insertData(key(t, i), i);
        memory->raiseMicroEvent(key(t, i) + "/m", RXValue(i));
        memory->removeData(key(t, i) + "/m");
      }
    });
  }
  // A module that keeps subscribing and unsubscribing on the hot key, and reads the whole store.
  jobs.push_back([&](int) {
    for (int i = 0; i < 100; ++i) {
      memory->subscribeToEvent("hot", "Flicker", "onEvent");
      memory->unsubscribeToEvent("hot", "Flicker");
      (void)memory->getListTyped(RX::Data);
      (void)memory->getDescriptionList({});
      (void)memory->getDataSubscriber("hot");
      (void)memory->getEventHistory("hot");
    }
  });
  runTogether(1, jobs);

  // Every raise of the hot key reached its steady subscriber and its signal.
  ASSERT_TRUE(steady->waitFor(kRaisers * kRaisesEach)) << steady->size() << " of " << kRaisers * kRaisesEach;
  std::set<int> values;
  for (const auto& n : steady->items()) values.insert(n.value.toInt());
  EXPECT_EQ(std::size_t(kRaisers * kRaisesEach), values.size());
  EXPECT_EQ(kRaisers * kRaisesEach, emitted.load());
  EXPECT_EQ(50u, memory->getEventHistory("hot").getSize());
  EXPECT_EQ(Names{"Steady"}, memory->getDataSubscriber("hot"));

  // Every new key was reported once, and every removal.
  drain(watcher);
  const Names reports = watcher->keyValues();
  EXPECT_EQ(std::size_t(kRaisers * kKeysEach * 3), reports.size());
  EXPECT_EQ(reports.size(), std::set<std::string>(reports.begin(), reports.end()).size())
      << "a report came twice";
  EXPECT_TRUE(contains(reports, "RXMemory/KeyRemoved=" + key(0, 0) + "/m"));
  EXPECT_EQ(kKeysEach - 1, memory->getData(key(kRaisers - 1, kKeysEach - 1)).toInt());
}

// First subscriptions to undeclared events add entries to the extractor table
// while removals erase from it and readers walk it. Before the table's writers
// took its lock exclusively, ThreadSanitizer reported the race here and the
// walks could step on erased nodes.
TEST_F(ConcurrencyTest, ExtractorTableWritersAndReadersDoNotRace) {
  constexpr int kNames = 300;
  // The subscribers race for the same names: each name's first look-up inserts.
  auto subscriber = [&](const std::string& module) {
    return [&, module](int i) { memory->subscribeToEvent("u/" + std::to_string(i), module, "onEvent"); };
  };
  auto remover = [&](const std::string& prefix) {
    return [&, prefix](int i) {
      memory->declareEvent(prefix + std::to_string(i), "X");
      memory->removeEvent(prefix + std::to_string(i));
    };
  };
  auto reader = [&](int) {
    (void)memory->getExtractorEvent("");
    (void)memory->getEventList();
  };
  runTogether(kNames, {subscriber("M0"), subscriber("M1"), subscriber("M2"), remover("r0/"), remover("r1/"),
                       reader, reader});

  // Every first subscription left its empty entry; every removal erased its own.
  EXPECT_EQ(std::size_t(kNames), memory->getExtractorEvent("").size());
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
  runTogether(kKeys, {[&](int i) { memory->setDescription(key(i), "about " + key(i)); },
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
bool freeElsewhere(M& m, bool shared = false) {
  return std::async(std::launch::async,
                    [&] {
                      if constexpr (std::is_same_v<M, SharedMutex>)
                        if (shared) return std::shared_lock<M>(m, std::try_to_lock).owns_lock();
                      return std::unique_lock<M>(m, std::try_to_lock).owns_lock();
                    })
      .get();
}

TEST(CompactRecursiveMutexTest, HolderMayReenterOthersWaitForTheLastLevel) {
  CompactRecursiveMutex m;
  EXPECT_TRUE(freeElsewhere(m)) << "a fresh mutex is free";
  m.lock();
  ASSERT_TRUE(m.try_lock()) << "the holder takes it again";
  m.lock();
  EXPECT_FALSE(freeElsewhere(m)) << "held three levels deep";
  m.unlock();
  m.unlock();
  EXPECT_FALSE(freeElsewhere(m)) << "one level is still held";
  m.unlock();
  EXPECT_TRUE(freeElsewhere(m)) << "every level released";
}

TEST(SharedMutexTest, ReadersShareWritersExcludeAndAreNotStarved) {
  SharedMutex m;
  m.lock();
  EXPECT_FALSE(freeElsewhere(m, true)) << "a reader beside a writer";
  EXPECT_FALSE(freeElsewhere(m)) << "two writers";
  m.unlock();
  m.lock_shared();
  EXPECT_TRUE(freeElsewhere(m, true)) << "readers share";
  EXPECT_FALSE(freeElsewhere(m)) << "a writer beside a reader";
  // A writer comes while the reader holds on: from the moment it waits, a new
  // reader is refused, however long the first reader stays.
  std::atomic<bool> wrote{false};
  std::future<void> writer = std::async(std::launch::async, [&] {
    std::lock_guard<SharedMutex> lock(m);
    wrote = true;
  });
  EXPECT_TRUE(testsupport::pollUntil([&] { return !std::shared_lock<SharedMutex>(m, std::try_to_lock); }))
      << "new readers kept overtaking the waiting writer";
  EXPECT_FALSE(wrote);
  m.unlock_shared();
  ASSERT_EQ(std::future_status::ready, writer.wait_for(testsupport::kWait))
      << "the writer never got the lock";
  EXPECT_TRUE(wrote);
}

}  // namespace
}  // namespace rxtest
