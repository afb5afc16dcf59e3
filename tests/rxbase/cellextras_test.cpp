// A cell's subscriptions, description and history ring are created on first
// use, each under its own lock. A key that never used them must read as empty,
// and first uses racing on fresh keys must all land.
#include <atomic>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "memory_test_util.h"

using RX::RXValue;

namespace {

class CellExtrasTest : public rxtest::MemoryTest {};

TEST_F(CellExtrasTest, UnusedPartsReadEmpty) {
  memory->insertData("plain", 1);
  EXPECT_EQ("[invalid, [\"plain\", \"data\", \"\"]]", memory->getDescriptionList({"plain"}).toString());
  EXPECT_TRUE(memory->getDataSubscriber("plain").empty());
  EXPECT_FALSE(memory->getEventHistory("plain").isValid());
  EXPECT_EQ("UnsubscribeToMicroEvent|M is not subscribed to plain",
            rxtest::errorOf([&] { memory->unsubscribeToMicroEvent("plain", "M"); }));
  memory->setDescription("plain", "");
  EXPECT_EQ("[invalid, [\"plain\", \"data\", \"\"]]", memory->getDescriptionList({"plain"}).toString());
  memory->raiseMicroEvent("plain", RXValue(2));  // no subscriber, no ring: nothing to do
  EXPECT_FALSE(memory->getEventHistory("plain").isValid());
}

TEST_F(CellExtrasTest, RacingFirstUsesAllLand) {
  constexpr int kKeys = 1000;
  auto recorder = rxtest::startModule<rxtest::Recorder>(broker, "Rec");
  std::vector<std::string> keys;
  for (int i = 0; i < kKeys; ++i) {
    keys.push_back("fresh/" + std::to_string(i));
    memory->insertData(keys.back(), i);
  }
  // The three workers meet at every key before touching it, so that its
  // first uses really overlap.
  constexpr int kWorkers = 3;
  std::vector<std::atomic<int>> arrived(kKeys);
  for (auto& a : arrived) a = 0;
  auto run = [&](auto perKey) {
    return std::async(std::launch::async, [&, perKey] {
      for (int i = 0; i < kKeys; ++i) {
        arrived[i].fetch_add(1);
        while (arrived[i].load() < kWorkers) std::this_thread::yield();
        perKey(i);
      }
    });
  };
  std::vector<std::future<void>> jobs;
  jobs.push_back(run([&](int i) { memory->setDescription(keys[i], "about " + keys[i]); }));
  jobs.push_back(run([&](int i) { memory->subscribeToMicroEvent(keys[i], "Rec", "", "onEvent"); }));
  jobs.push_back(run([&](int i) { memory->raiseEvent(keys[i], RXValue(i)); }));
  for (auto& job : jobs)
    ASSERT_EQ(std::future_status::ready, job.wait_for(std::chrono::seconds(30))) << "a worker is stuck";
  for (auto& job : jobs) job.get();

  for (int i = 0; i < kKeys; ++i) {
    const std::string& key = keys[i];
    RXValue entry = memory->getDescriptionList({key});
    ASSERT_EQ(2u, entry.getSize());
    EXPECT_EQ(RXValue("about " + key), entry[1][2]) << key;
    EXPECT_EQ(std::vector<std::string>{"Rec"}, memory->getDataSubscriber(key)) << key;
    RXValue history = memory->getEventHistory(key);
    ASSERT_EQ(1u, history.getSize()) << key;
    EXPECT_EQ(RXValue(i), history[0][0]) << key;
  }
  drain(recorder);
}

}  // namespace
