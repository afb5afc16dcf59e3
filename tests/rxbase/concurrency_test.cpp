// Many threads on one key and on many keys at once: raise, insert, subscribe,
// unsubscribe and remove together; and the extractor table written and read
// from several threads. Nothing may be lost and nothing may hang.
#include <algorithm>
#include <atomic>
#include <future>
#include <set>
#include <thread>

#include "memory_test_util.h"

using RX::RXValue;

namespace {

class ConcurrencyTest : public rxtest::MemoryTest {};

constexpr int kRaisers = 4;
constexpr int kRaisesEach = 400;
constexpr int kKeysEach = 300;

TEST_F(ConcurrencyTest, HammeringLosesNothingAndDoesNotDeadlock) {
  auto steady = rxtest::startModule<rxtest::Recorder>(broker, "Steady");
  auto watcher = rxtest::startModule<rxtest::Recorder>(broker, "Watcher");
  auto flicker = rxtest::startModule<rxtest::Recorder>(broker, "Flicker");
  memory->subscribeToEvent("hot", "Steady", "onEvent");
  memory->subscribeToEvent(RX::Memory::keyAddedKey, "Watcher", "onEvent");
  memory->subscribeToEvent(RX::Memory::keyRemovedKey, "Watcher", "onOther");
  std::atomic<int> emitted{0};
  memory->subscriber("hot")->signal.connect([&](mz::AnyValue) { ++emitted; });

  std::vector<std::future<void>> jobs;
  // Raisers on the one hot key, and inserters of their own keys.
  for (int t = 0; t < kRaisers; ++t) {
    jobs.push_back(std::async(std::launch::async, [&, t] {
      for (int i = 0; i < kRaisesEach; ++i) memory->raiseEvent("hot", RXValue(t * kRaisesEach + i));
    }));
    jobs.push_back(std::async(std::launch::async, [&, t] {
      for (int i = 0; i < kKeysEach; ++i) {
        const std::string key = "t" + std::to_string(t) + "/k" + std::to_string(i);
        memory->insertData(key, i);
        memory->raiseMicroEvent(key + "/m", RXValue(i));
      }
    }));
  }
  // A module that keeps subscribing and unsubscribing on the hot key.
  jobs.push_back(std::async(std::launch::async, [&] {
    for (int i = 0; i < 200; ++i) {
      memory->subscribeToEvent("hot", "Flicker", "onEvent");
      memory->unsubscribeToEvent("hot", "Flicker");
    }
  }));
  // Keys that come and go, and readers of the whole store.
  jobs.push_back(std::async(std::launch::async, [&] {
    for (int i = 0; i < kKeysEach; ++i) {
      const std::string key = "r/k" + std::to_string(i);
      memory->insertData(key, i);
      memory->removeData(key);
    }
  }));
  jobs.push_back(std::async(std::launch::async, [&] {
    for (int i = 0; i < 50; ++i) {
      (void)memory->getListTyped(RX::Data);
      (void)memory->getDescriptionList({});
      (void)memory->getEventHistory("hot");
      (void)memory->getDataSubscriber("hot");
    }
  }));
  for (auto& job : jobs)
    ASSERT_EQ(std::future_status::ready, job.wait_for(std::chrono::seconds(60))) << "a worker is stuck";
  for (auto& job : jobs) job.get();

  // Every raise of the hot key reached its steady subscriber and its signal.
  ASSERT_TRUE(steady->waitFor(kRaisers * kRaisesEach, std::chrono::seconds(30)))
      << steady->received().size() << " of " << kRaisers * kRaisesEach;
  std::set<int> values;
  for (const auto& n : steady->received()) values.insert(n.value.toInt());
  EXPECT_EQ(std::size_t(kRaisers * kRaisesEach), values.size());
  EXPECT_EQ(kRaisers * kRaisesEach, emitted.load());
  EXPECT_EQ(50u, memory->getEventHistory("hot").getSize());
  EXPECT_EQ(std::vector<std::string>{"Steady"}, memory->getDataSubscriber("hot"));

  // Every new key was reported once, and every removal.
  const std::size_t added = kRaisers * kKeysEach * 2 + kKeysEach;
  ASSERT_TRUE(watcher->waitFor(added + kKeysEach, std::chrono::seconds(30))) << watcher->received().size();
  drain(watcher);
  std::multiset<std::string> addedKeys, removedKeys;
  for (const auto& n : watcher->received()) {
    if (n.key == RX::Memory::keyAddedKey) addedKeys.insert(n.value.toStdString());
    if (n.key == RX::Memory::keyRemovedKey) removedKeys.insert(n.value.toStdString());
  }
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
  constexpr int kSubscribers = 3;
  constexpr int kRemovers = 2;
  constexpr int kNamesEach = 300;
  constexpr int kReadsCap = 100000;
  std::atomic<int> writersLeft{kSubscribers + kRemovers};
  std::vector<std::future<void>> jobs;
  // The subscribers race for the same names: each name's first look-up inserts.
  for (int t = 0; t < kSubscribers; ++t)
    jobs.push_back(std::async(std::launch::async, [&, t] {
      for (int i = 0; i < kNamesEach; ++i)
        memory->subscribeToEvent("u/" + std::to_string(i), "M" + std::to_string(t), "onEvent");
      --writersLeft;
    }));
  for (int t = 0; t < kRemovers; ++t)
    jobs.push_back(std::async(std::launch::async, [&, t] {
      for (int i = 0; i < kNamesEach; ++i) {
        const std::string name = "r" + std::to_string(t) + "/" + std::to_string(i);
        memory->declareEvent(name, "X");
        memory->removeEvent(name);
      }
      --writersLeft;
    }));
  for (int t = 0; t < 2; ++t)
    jobs.push_back(std::async(std::launch::async, [&] {
      // Readers keep walking the table for as long as it is being written.
      for (int i = 0; i < kReadsCap && writersLeft.load() > 0; ++i) {
        (void)memory->getExtractorEvent("");
        (void)memory->getEventList();
      }
    }));
  for (auto& job : jobs)
    ASSERT_EQ(std::future_status::ready, job.wait_for(std::chrono::seconds(60))) << "a worker is stuck";
  for (auto& job : jobs) job.get();

  // Every first subscription left its empty entry; every removal erased its own.
  std::vector<std::string> expected;
  for (int i = 0; i < kNamesEach; ++i) expected.push_back("u/" + std::to_string(i));
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(expected, memory->getExtractorEvent(""));
  EXPECT_EQ(std::vector<std::string>{}, memory->getExtractorEvent("X"));
  const std::vector<std::string> events = memory->getEventList();
  EXPECT_TRUE(std::is_sorted(events.begin(), events.end()));
  EXPECT_EQ(events.end(), std::adjacent_find(events.begin(), events.end())) << "an event is listed twice";
}

}  // namespace
