// The key signal objects: following a key as a signal, and raising a key by
// emitting on its signal, directly and through the framework's object handle.
#include <atomic>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <utility>

#include "memory_test_util.h"
#include "rxmemorysubscriber.h"

using RX::RXValue;

namespace {

class SignalTest : public rxtest::MemoryTest {};

// Collects the values delivered to a key's signal (delivery is synchronous).
struct SignalLog {
  std::mutex mutex;
  std::vector<std::string> values;
  void operator()(const mz::AnyValue& v) {
    std::lock_guard<std::mutex> lock(mutex);
    values.push_back(v.toRXValue().toString());
  }
  std::vector<std::string> take() {
    std::lock_guard<std::mutex> lock(mutex);
    return std::move(values);
  }
};

TEST_F(SignalTest, SubscriberDeclaresMissingKeysAndIsSharedPerKey) {
  auto first = memory->subscriber("K");
  ASSERT_TRUE(first);
  EXPECT_EQ(first, memory->subscriber("K"));
  EXPECT_EQ("Event", memory->getStrDataType("K"));
  auto events = memory->getEventList();
  EXPECT_NE(events.end(), std::find(events.begin(), events.end(), "K"));

  memory->insertData("d", 1);
  EXPECT_TRUE(memory->subscriber("d"));
  EXPECT_EQ("Data", memory->getStrDataType("d")) << "subscriber never retypes a key";
}

TEST_F(SignalTest, RaisesAreEmittedInsertionsAreNot) {
  SignalLog got;
  auto sub = memory->subscriber("K");
  sub->signal.connect([&](mz::AnyValue v) { got(v); });

  memory->raiseEvent("K", RXValue(5));
  EXPECT_EQ((std::vector<std::string>{"5"}), got.take());
  memory->raiseMicroEvent("K", RXValue(6));
  EXPECT_EQ((std::vector<std::string>{"6"}), got.take());
  memory->insertData("K", 7);
  EXPECT_EQ(std::vector<std::string>{}, got.take());
}

TEST_F(SignalTest, EmittingOnTheSignalRaisesTheKey) {
  SignalLog got;
  auto sub = memory->subscriber("K");
  sub->signal.connect([&](mz::AnyValue v) { got(v); });
  auto r = rxtest::startModule<rxtest::Recorder>(broker, "R");
  memory->subscribeToEvent("K", "R", "onEvent");

  sub->signal(mz::AnyValue(RXValue(8)));
  EXPECT_EQ("8", memory->getData("K").toString());
  EXPECT_EQ((std::vector<std::string>{"8"}), got.take()) << "delivered back once";
  sub->signal.trigger({});
  EXPECT_EQ("invalid", memory->getData("K").toString());
  EXPECT_EQ((std::vector<std::string>{"invalid"}), got.take());

  try {
    sub->signal.trigger({mz::AnyValue(RXValue(1)), mz::AnyValue(RXValue(2))});
    ADD_FAILURE() << "two arguments were accepted";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ("Invalid number of arguments", e.what());
  }
  EXPECT_THROW(sub->signal.trigger({mz::AnyValue::fromOther(42L)}), mz::ConversionError);
  EXPECT_EQ("invalid", memory->getData("K").toString()) << "failed emissions raise nothing";
  EXPECT_EQ(std::vector<std::string>{}, got.take());

  drain(r);
  EXPECT_EQ((std::vector<std::string>{"K=8", "K=invalid"}), r->keyValues());
  EXPECT_EQ(1u, memory->getEventHistory("K").getSize()) << "the invalid raise stores no history";
}

TEST_F(SignalTest, SubscriberIsAnObjectWithItsSignal) {
  mz::AnyObject object = mz::Conv<boost::shared_ptr<RXMemorySubscriber>>::to(memory->subscriber("K")).toObject();
  ASSERT_TRUE(object.isValid());
  EXPECT_GE(object.signalId("signal"), 0);
  SignalLog got;
  mz::SignalLink link = object.connect("signal", std::function<void(mz::AnyValue)>([&](mz::AnyValue v) { got(v); }))
                            .value();
  object.emit("signal", {mz::AnyValue(RXValue(9))});
  EXPECT_EQ("9", memory->getData("K").toString());
  EXPECT_EQ((std::vector<std::string>{"9"}), got.take());
  object.disconnect(link).waitAndCheck();
  memory->raiseEvent("K", RXValue(10));
  EXPECT_EQ(std::vector<std::string>{}, got.take());
}

// A key's signal object is made when first asked for; a key that was used in
// other ways before must behave as if it had had it from birth.
TEST_F(SignalTest, SignalObjectOfAKeyUsedBeforeDeliversEveryRaiseOnce) {
  auto r = rxtest::startModule<rxtest::Recorder>(broker, "R");
  const std::vector<std::pair<std::string, std::function<void(const std::string&)>>> histories = {
      {"plain data", [&](const std::string& k) { memory->insertData(k, 1); }},
      {"described", [&](const std::string& k) {
         memory->insertData(k, 1);
         memory->setDescription(k, "d");
       }},
      {"subscribed", [&](const std::string& k) { memory->subscribeToMicroEvent(k, "R", "", "onEvent"); }},
      {"raised", [&](const std::string& k) { memory->raiseEvent(k, RXValue(1)); }},
  };
  for (const auto& history : histories) {
    const std::string key = "used/" + history.first;
    history.second(key);
    SignalLog got;
    auto sub = memory->subscriber(key);
    sub->signal.connect([&](mz::AnyValue v) { got(v); });
    memory->raiseMicroEvent(key, RXValue(2));
    EXPECT_EQ((std::vector<std::string>{"2"}), got.take()) << history.first;
    EXPECT_EQ(sub, memory->subscriber(key)) << history.first;
  }
  drain(r);
}

// First requests of the signal object racing with raises: one object per key,
// and every raise made after a connection reaches it.
TEST_F(SignalTest, FirstRequestsRacingWithRaisesShareOneObject) {
  constexpr int kKeys = 200;
  constexpr int kRequesters = 3;
  std::vector<std::vector<boost::shared_ptr<RXMemorySubscriber>>> seen(kRequesters + 1);
  std::atomic<int> arrived[kKeys] = {};
  std::vector<std::future<void>> jobs;
  // The last job raises; all meet at every key before touching it.
  for (int t = 0; t <= kRequesters; ++t)
    jobs.push_back(std::async(std::launch::async, [&, t] {
      for (int i = 0; i < kKeys; ++i) {
        arrived[i].fetch_add(1);
        while (arrived[i].load() <= kRequesters) std::this_thread::yield();
        const std::string key = "race/" + std::to_string(i);
        if (t < kRequesters)
          seen[t].push_back(memory->subscriber(key));
        else
          memory->raiseMicroEvent(key, RXValue(i));
      }
    }));
  for (auto& job : jobs) ASSERT_EQ(std::future_status::ready, job.wait_for(std::chrono::seconds(30)));
  for (int i = 0; i < kKeys; ++i) {
    const std::string key = "race/" + std::to_string(i);
    for (int t = 0; t < kRequesters; ++t) ASSERT_EQ(seen[0][i], seen[t][i]) << key;
    SignalLog got;
    seen[0][i]->signal.connect([&](mz::AnyValue v) { got(v); });
    memory->raiseMicroEvent(key, RXValue(-i));
    EXPECT_EQ((std::vector<std::string>{std::to_string(-i)}), got.take()) << key;
  }
}

}  // namespace
