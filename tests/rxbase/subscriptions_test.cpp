// Subscription records: creation of keys on subscription, replacement,
// listing order and the unsubscribe failures.
#include "memory_test_util.h"

using RX::RXValue;
using rxtest::errorOf;
using Names = std::vector<std::string>;

namespace {

class SubscriptionsTest : public rxtest::MemoryTest {};

TEST_F(SubscriptionsTest, SubscribingCreatesTheKeySilently) {
  const RXValue lastAdded = memory->getData(RX::Memory::keyAddedKey);
  memory->subscribeToEvent("E", "Foo", "onEvent");
  memory->subscribeToMicroEvent("ME", "Foo", "", "onEvent");
  EXPECT_EQ("Event", memory->getStrDataType("E"));
  EXPECT_EQ("MicroEvent", memory->getStrDataType("ME"));
  EXPECT_EQ("invalid", memory->getData("E").toString());
  EXPECT_EQ((Names{"Foo"}), memory->getDataSubscriber("E"));
  EXPECT_EQ(lastAdded, memory->getData(RX::Memory::keyAddedKey)) << "no KeyAdded for keys made by subscribing";

  // The subscribe path never retypes an existing key.
  memory->insertData("d", 1);
  memory->subscribeToEvent("d", "Foo", "onEvent");
  memory->subscribeToMicroEvent("d", "Bar", "", "onEvent");
  EXPECT_EQ("Data", memory->getStrDataType("d"));
  EXPECT_EQ((Names{"Bar", "Foo"}), memory->getDataSubscriber("d"));
}

TEST_F(SubscriptionsTest, OneRecordPerModuleListedByteWise) {
  for (const char* m : {"a", "C", "B", "a"}) memory->subscribeToMicroEvent("E", m, "", "onEvent");
  EXPECT_EQ((Names{"B", "C", "a"}), memory->getDataSubscriber("E"));
  EXPECT_EQ("getData|Data not found Z", errorOf([&] { (void)memory->getDataSubscriber("Z"); }));
}

TEST_F(SubscriptionsTest, UnsubscribeFailures) {
  memory->subscribeToMicroEvent("E", "Foo", "", "onEvent");
  EXPECT_EQ("UnsubscribeToMicroEvent|Bar is not subscribed to E",
            errorOf([&] { memory->unsubscribeToMicroEvent("E", "Bar"); }));
  EXPECT_EQ("getData|Data not found Q", errorOf([&] { memory->unsubscribeToMicroEvent("Q", "Foo"); }));
  try {
    memory->unsubscribeToMicroEvent("E", "Bar");
  } catch (const RX::RXError& e) {
    EXPECT_NE(std::string::npos, e.file().find("rxbase/src/stmvalue")) << e.file();
  }
  memory->unsubscribeToMicroEvent("E", "Foo");
  EXPECT_EQ(Names{}, memory->getDataSubscriber("E"));
  EXPECT_EQ("UnsubscribeToMicroEvent|Foo is not subscribed to E",
            errorOf([&] { memory->unsubscribeToMicroEvent("E", "Foo"); }));
}

TEST_F(SubscriptionsTest, RemovingAKeyDropsItsSubscriptions) {
  memory->subscribeToEvent("E", "Foo", "onEvent");
  memory->removeEvent("E");
  memory->declareEvent("E");
  EXPECT_EQ(Names{}, memory->getDataSubscriber("E"));
}

}  // namespace
