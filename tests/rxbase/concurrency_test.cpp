// Many threads at once on keys, the extractor table, a cell's lazy parts, and the locks underneath.
#include <set>
#include <shared_mutex>

#include "memory_test_util.h"
#include "memorylocks.h"

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
  for (int t = 0; t < kRaisers; ++t) {  // raisers of the hot key, and inserters of keys of their own
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
  jobs.push_back([&](int) {  // subscribes and unsubscribes on the hot key, and reads the whole store
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

  ASSERT_TRUE(steady->waitFor(kRaisers * kRaisesEach)) << steady->size() << " of " << kRaisers * kRaisesEach;
  std::set<int> values;
  for (const auto& n : steady->items()) values.insert(n.value.toInt());
  EXPECT_EQ(std::size_t(kRaisers * kRaisesEach), values.size());
  EXPECT_EQ(kRaisers * kRaisesEach, emitted.load());
  EXPECT_EQ(50u, memory->getEventHistory("hot").getSize());
  EXPECT_EQ(Names{"Steady"}, memory->getDataSubscriber("hot"));

  drain(watcher);
  const Names reports = watcher->keyValues();
  EXPECT_EQ(std::size_t(kRaisers * kKeysEach * 3), reports.size());
  EXPECT_EQ(reports.size(), std::set<std::string>(reports.begin(), reports.end()).size())
      << "a report came twice";
  EXPECT_TRUE(contains(reports, "RXMemory/KeyRemoved=" + key(0, 0) + "/m"));
  EXPECT_EQ(kKeysEach - 1, memory->getData(key(kRaisers - 1, kKeysEach - 1)).toInt());
}

// First subscriptions add extractor table entries while removals erase and readers walk it: before its
// writers took its lock exclusively, TSan reported a race here and walks hit erased nodes.
TEST_F(ConcurrencyTest, RacingFirstUsesOfTheExtractorTableAndOfCellsAllLand) {
  constexpr int kNames = 300;
  auto subscriber = [&](const std::string& module) {  // the same names: each first look-up inserts
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

  EXPECT_EQ(std::size_t(kNames), memory->getExtractorEvent("").size()) << "each first subscription's entry";
  EXPECT_EQ(Names{}, memory->getExtractorEvent("X")) << "each removal erases its own";
  const Names events = memory->getEventList();
  EXPECT_TRUE(std::is_sorted(events.begin(), events.end()));
  EXPECT_EQ(events.end(), std::adjacent_find(events.begin(), events.end())) << "an event is listed twice";

  // A cell's subscriptions, description and history are made on first use, each under its own lock.
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

// Whether another thread may take m now (shared or not); it must not see the caller's levels.
template <typename M>
bool freeElsewhere(M& m, bool shared = false) {
  return std::async(std::launch::async,
                    [&] {
                      if constexpr (std::is_same_v<M, RX::SharedMutex>)
                        if (shared) return std::shared_lock<M>(m, std::try_to_lock).owns_lock();
                      return std::unique_lock<M>(m, std::try_to_lock).owns_lock();
                    })
      .get();
}

TEST(MemoryLocksTest, RecursiveHolderReentersSharedWritersExcludeAndAreNotStarved) {
  RX::CompactRecursiveMutex r;
  EXPECT_TRUE(freeElsewhere(r)) << "a fresh mutex is free";
  r.lock();
  ASSERT_TRUE(r.try_lock()) << "the holder takes it again";
  r.lock();
  EXPECT_FALSE(freeElsewhere(r)) << "held three levels deep";
  r.unlock();
  r.unlock();
  EXPECT_FALSE(freeElsewhere(r)) << "one level is still held";
  r.unlock();
  EXPECT_TRUE(freeElsewhere(r)) << "every level released";

  RX::SharedMutex m;
  m.lock();
  EXPECT_FALSE(freeElsewhere(m, true)) << "a reader beside a writer";
  EXPECT_FALSE(freeElsewhere(m)) << "two writers";
  m.unlock();
  m.lock_shared();
  EXPECT_TRUE(freeElsewhere(m, true)) << "readers share";
  EXPECT_FALSE(freeElsewhere(m)) << "a writer beside a reader";
  // Once a writer waits for the reader, new readers are refused however long the first one stays.
  std::atomic<bool> wrote{false};
  std::future<void> writer = std::async(std::launch::async, [&] {
    std::lock_guard<RX::SharedMutex> lock(m);
    wrote = true;
  });
  EXPECT_TRUE(testsupport::pollUntil([&] { return !std::shared_lock<RX::SharedMutex>(m, std::try_to_lock); }))
      << "new readers kept overtaking the waiting writer";
  EXPECT_FALSE(wrote);
  m.unlock_shared();
  ASSERT_EQ(std::future_status::ready, writer.wait_for(testsupport::kWait))
      << "the writer never got the lock";
}

}  // namespace
