// The key store: insertion and its bookkeeping events, reads, lists, removal,
// raw pointer access, descriptions and type queries.
#include <algorithm>
#include <atomic>
#include <future>
#include <memory>

#include "memory_test_util.h"
#include "mz/os.h"
#include "rx/rxcallcontext.h"
#include "rx/rxmemorybudget.h"

using RX::MemoryBudget;
using RX::RXError;
using RX::RXValue;
using rxtest::errorOf;

namespace {

bool contains(const std::vector<std::string>& v, const std::string& s) {
  return std::find(v.begin(), v.end(), s) != v.end();
}

RXValue list(std::initializer_list<RXValue> items) {
  RXValue v = RXValue::array();
  for (const RXValue& item : items) v.arrayPush(item);
  return v;
}

class KeyStoreTest : public rxtest::MemoryTest {};

TEST_F(KeyStoreTest, InsertionRaisesBookkeepingEventsOutsideBehaviorKeys) {
  auto watcher = rxtest::startModule<rxtest::Recorder>(broker, "Watcher");
  for (const std::string& e : {RX::Memory::keyAddedKey, RX::Memory::keyTypeChanged, RX::Memory::keyRemovedKey})
    memory->subscribeToEvent(e, "Watcher", "onEvent");

  memory->insertData("k", 1);
  memory->insertData("k", 2);                 // same type: nothing
  memory->raiseEvent("k", RXValue(3));        // Data -> Event
  memory->removeData("k");
  memory->insertData("_BehaviorX", 1);
  memory->raiseEvent("_BehaviorX", RXValue(2));
  memory->removeData("_BehaviorX");
  drain(watcher);

  EXPECT_EQ((std::vector<std::string>{"RXMemory/KeyAdded=k", "RXMemory/KeyTypeChanged=k",
                                      "RXMemory/KeyRemoved=k"}),
            watcher->keyValues());
  EXPECT_TRUE(contains(memory->getEventList(), "k")) << "removal keeps the extractor entry";
  EXPECT_TRUE(contains(memory->getExtractorEvent("Unknown"), "k")) << "retyped to Event: extractor Unknown";
}

TEST_F(KeyStoreTest, FirstKeyAddedRaiseCreatesItselfRecursively) {
  memory->removeData(RX::Memory::keyAddedKey);
  memory->insertData("fresh", 1);
  // The inner raise (for the key's own name) finishes before the outer one
  // appends its value, so the stored value is the inner one.
  EXPECT_EQ("RXMemory/KeyAdded", memory->getData(RX::Memory::keyAddedKey).toString(0));
  RXValue history = memory->getEventHistory(RX::Memory::keyAddedKey);
  ASSERT_EQ(2u, history.getSize());
  EXPECT_EQ("RXMemory/KeyAdded", history[0][0].toString(0));
  EXPECT_EQ("fresh", history[1][0].toString(0));
}

TEST_F(KeyStoreTest, ReadsListsAndFilters) {
  memory->insertData("i", 5);
  memory->insertData("f", 1.5f);
  memory->insertData("s", std::string("text"));
  memory->insertData("xabcx", list({RXValue(1), RXValue("a")}));
  memory->insertData("ABC", 0);
  memory->_insertObject("obj", RXValue("buffer"), 99);

  EXPECT_EQ("5", memory->getData("i").toString());
  EXPECT_EQ("1.5", memory->getData("f", 0).toString());
  EXPECT_EQ("\"text\"", memory->getData("s").toString());
  EXPECT_EQ("[1, \"a\"]", memory->getData("xabcx").toString());
  EXPECT_EQ("\"buffer\"", memory->getData("obj").toString());
  EXPECT_EQ("getData|Data not found nope", errorOf([&] { (void)memory->getData("nope"); }));
  try {
    (void)memory->getData("nope");
  } catch (const RX::RXError& e) {
    EXPECT_NE(std::string::npos, e.file().find("rxbase/src/rxmemory")) << e.file();
  }

  EXPECT_EQ((std::vector<std::string>{"xabcx"}), memory->getDataList("abc"));
  auto all = memory->getDataList("");
  EXPECT_EQ(memory->getDataListName().size(), all.size());
  for (const char* k : {"i", "f", "s", "xabcx", "ABC", "obj", "RXMemory/KeyAdded", "TavroReady"})
    EXPECT_TRUE(contains(all, k)) << k;

  // One slot per element; a name may come inside an array; unknown -> invalid.
  RXValue values = memory->getListData(list({RXValue("i"), list({RXValue("s"), RXValue(1)}), RXValue("nope"),
                                             RXValue(3)}));
  EXPECT_EQ("[5, \"text\", invalid, invalid]", values.toString());
  EXPECT_EQ("[]", memory->getListData(RXValue::array()).toString());
}

TEST_F(KeyStoreTest, InsertListDataStopsAtTheFirstMalformedPair) {
  testing::internal::CaptureStdout();
  std::string err = errorOf([&] {
    memory->insertListData(list({list({RXValue("a"), RXValue(1)}), list({RXValue("f"), RXValue(2.5f)}),
                                 list({RXValue("b")}), list({RXValue("c"), RXValue(3)})}));
  });
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ("InsertListData|unable to insert to Memory data with a size < 2. Must be : ['name', value]", err);
  EXPECT_EQ("malformed data : [\"b\"]\n", out);
  EXPECT_EQ("1", memory->getData("a").toString());
  EXPECT_EQ("2.5", memory->getData("f").toString());
  EXPECT_EQ("getData|Data not found c", errorOf([&] { (void)memory->getData("c"); }));

  testing::internal::CaptureStdout();
  err = errorOf([&] { memory->insertListData(list({list({RXValue(1), RXValue(2)})})); });
  EXPECT_EQ("malformed data : [1, 2]\n", testing::internal::GetCapturedStdout());
  EXPECT_EQ("InsertListData|malformed preferences. No RXMemory data name.", err);
}

TEST_F(KeyStoreTest, WritesFailClearlyWhileTheBrokerIsOverItsMemoryCeiling) {
  memory->insertData("kept", 1);
  {
    MemoryBudget tight(1);
    const std::pair<const char*, std::function<void()>> writes[] = {
        {"insertData", [&] { memory->insertData("new", 2); }},
        {"insertListData", [&] { memory->insertListData(RXValue::array(0)); }},
        {"raiseEvent", [&] { memory->raiseEvent("E", RXValue(1)); }},
        {"raiseMicroEvent", [&] { memory->raiseMicroEvent("M", RXValue(1)); }},
    };
    for (const auto& [method, write] : writes) {
      try {
        write();
        ADD_FAILURE() << method << " was accepted over the ceiling";
      } catch (const RXError& e) {
        EXPECT_EQ(method, e.method());
        EXPECT_EQ(0u, e.message().find("memory limit reached: resident ")) << e.message();
      }
    }
    EXPECT_EQ(1, memory->getData("kept").toInt()) << "reads go on";
    memory->removeData("kept");  // and so does freeing memory
  }
  memory->insertData("new", 2);
  EXPECT_EQ(2, memory->getData("new").toInt());
}

TEST_F(KeyStoreTest, RemovalRules) {
  EXPECT_EQ("removeData|Data not found ghost", errorOf([&] { memory->removeData("ghost"); }));
  memory->insertData("gone", 1);
  memory->removeData("gone");
  EXPECT_FALSE(contains(memory->getDataListName(), "gone"));

  memory->insertData("pinned", 1);
  (void)memory->getPtrData("pinned");
  EXPECT_EQ("removeData|Data pinned can't be erased because it has been accessed using getDataPtr",
            errorOf([&] { memory->removeData("pinned"); }));
  EXPECT_EQ("1", memory->getData("pinned").toString());
}

TEST_F(KeyStoreTest, PointerAccessFreezesTheValueKind) {
  rxtest::LogCapture log;
  auto watcher = rxtest::startModule<rxtest::Recorder>(broker, "Watcher");
  memory->subscribeToEvent(RX::Memory::keyAddedKey, "Watcher", "onEvent");

  // An unknown key is created silently (no KeyAdded), with a warning.
  int* address = static_cast<int*>(memory->getPtrData("p"));
  ASSERT_NE(nullptr, address);
  EXPECT_TRUE(log.has("rxmemory|2|getPtrValue on stmvalue with no type: p"));
  EXPECT_EQ("Data", memory->getStrDataType("p"));
  memory->insertData("p", 5);  // the first number into an empty pinned key is allowed
  EXPECT_EQ(address, memory->getPtrData("p"));
  memory->insertData("p", 6);
  EXPECT_EQ(6, *address) << "same-kind writes keep the address";
  EXPECT_EQ("setValue|Can't change the type of the value from int to string because getDataPtr has been called on it.",
            errorOf([&] { memory->insertData("p", std::string("s")); }));
  EXPECT_EQ("setValue|Can't change the type of the value from int to float because getDataPtr has been called on it.",
            errorOf([&] { memory->raiseEvent("p", RXValue(1.0f)); }));
  EXPECT_EQ("6", memory->getData("p").toString());
  EXPECT_EQ("Data", memory->getStrDataType("p")) << "a refused write changes no type";
  EXPECT_EQ("invalid", memory->getEventHistory("p").toString()) << "nor appends history";
  drain(watcher);
  EXPECT_EQ(std::vector<std::string>{}, watcher->keyValues());
}

// The address handed out for a key that has no value yet is where its first
// number is written, and where later writes of that kind are seen.
TEST_F(KeyStoreTest, AddressOfAnEmptyKeyReceivesTheFirstNumber) {
  const struct {
    const char* key;
    RXValue first;
    RXValue second;
  } cases[] = {{"i", RXValue(42), RXValue(43)}, {"f", RXValue(1.5f), RXValue(-2.25f)}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.key);
    void* address = memory->getPtrData(c.key);
    ASSERT_NE(nullptr, address);
    auto seen = [&] {
      return c.first.isInt() ? RXValue(*static_cast<int*>(address)) : RXValue(*static_cast<float*>(address));
    };
    memory->insertData(c.key, c.first);
    EXPECT_EQ(c.first, seen());
    memory->insertData(c.key, c.second);
    EXPECT_EQ(c.second, seen());
    EXPECT_EQ(address, memory->getPtrData(c.key));
  }
}

TEST_F(KeyStoreTest, DescriptionsAndTypes) {
  memory->insertData("d", 1);
  memory->declareEvent("e");
  memory->raiseMicroEvent("m", RXValue(1));
  (void)memory->getPtrData("ptr");
  EXPECT_EQ("setDescription|x not found", errorOf([&] { memory->setDescription("x", "text"); }));
  memory->setDescription("d", "a plain key");

  // A non-empty request gives filler slots first, then the entries.
  EXPECT_EQ("[invalid, [\"d\", \"data\", \"a plain key\"]]", memory->getDescriptionList({"d"}).toString());
  EXPECT_EQ("[invalid, invalid, [\"e\", \"event\", \"\"], [\"m\", \"event\", \"\"]]",
            memory->getDescriptionList({"e", "m"}).toString());
  EXPECT_EQ("[invalid, [\"ptr\", \"data\", \"\"]]", memory->getDescriptionList({"ptr"}).toString());
  EXPECT_EQ("getDescriptionList|zz not found", errorOf([&] { (void)memory->getDescriptionList({"d", "zz"}); }));
  RXValue all = memory->getDescriptionList({});
  EXPECT_EQ(memory->getDataListName().size(), all.getSize());

  memory->removeData("d");
  memory->insertData("d", 1);
  EXPECT_EQ("[invalid, [\"d\", \"data\", \"\"]]", memory->getDescriptionList({"d"}).toString());

  EXPECT_EQ("Data", memory->getStrDataType("d"));
  EXPECT_EQ("Event", memory->getStrDataType("e"));
  EXPECT_EQ("MicroEvent", memory->getStrDataType("m"));
  EXPECT_EQ(RX::MicroEvent, memory->getDataType("m"));
  EXPECT_EQ("getData|Data not found q", errorOf([&] { (void)memory->getStrDataType("q"); }));
  EXPECT_EQ("getData|Data not found q", errorOf([&] { (void)memory->getDataType("q"); }));
  EXPECT_EQ("getData|Data not found q", errorOf([&] { (void)memory->getDataTimestamp("q"); }));
}

TEST_F(KeyStoreTest, TimestampIsRenewedOnEveryWrite) {
  mz::os::timeval before, after;
  mz::os::gettimeofday(&before);
  memory->insertData("t", 7);
  mz::os::gettimeofday(&after);
  RXValue stamp = memory->getDataTimestamp("t");
  ASSERT_EQ(3u, stamp.getSize());
  EXPECT_EQ("7", stamp[0].toString());
  const int64_t first = int64_t(stamp[1].toInt()) * 1000000 + stamp[2].toInt();
  EXPECT_LE(before.tv_sec * 1000000 + before.tv_usec, first);
  EXPECT_GE(after.tv_sec * 1000000 + after.tv_usec, first);
  EXPECT_EQ(stamp, memory->getDataTimestamp("t"));

  // Wait for the clock to move on (no sleep: spin on the clock itself).
  for (mz::os::timeval tv = after; tv.tv_sec * 1000000 + tv.tv_usec <= first; mz::os::gettimeofday(&tv)) {
  }
  memory->insertData("t", 7);
  RXValue again = memory->getDataTimestamp("t");
  EXPECT_LT(first, int64_t(again[1].toInt()) * 1000000 + again[2].toInt()) << "an equal value is a full write";
}

TEST_F(KeyStoreTest, GetDataOnChangeReturnsTheNextDifferentValue) {
  EXPECT_EQ("getDataOnChange|Empty data name cannot be found.",
            errorOf([&] { (void)memory->getDataOnChange("", 0); }));
  EXPECT_EQ("getData|Data not found w", errorOf([&] { (void)memory->getDataOnChange("w", 0); }));
  memory->insertData("w", 1);
  auto changed = std::async(std::launch::async, [&] { return memory->getDataOnChange("w", 0); });
  // The poller's first read may come after any of these writes; keep writing
  // new values until it reports one.
  for (int v = 2; v < 100 && changed.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready; ++v)
    memory->insertData("w", v);
  ASSERT_EQ(std::future_status::ready, changed.wait_for(std::chrono::seconds(5)));
  EXPECT_GE(changed.get().toInt(), 2);
}

TEST_F(KeyStoreTest, GetDataOnChangeStopsPollingWhenItsCallerHasGone) {
  memory->insertData("w", 1);
  auto gone = std::make_shared<std::atomic<bool>>(false);
  auto call = std::async(std::launch::async, [&] {
    RX::CallContext scope(gone);  // as the transport marks a remote client's request
    return memory->getDataOnChange("w", 0);
  });
  gone->store(true);
  const bool returned = call.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
  if (!returned) memory->insertData("w", 2);  // release the poller so that the test can end
  ASSERT_TRUE(returned) << "getDataOnChange still polled 5 s after its caller had gone";
  EXPECT_EQ(1, call.get().toInt()) << "the unchanged current value";
}

}  // namespace
