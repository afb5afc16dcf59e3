// The memory's rows for the broker's live view, and its feed of changed keys.
#include <nlohmann/json.hpp>

#include "memory_test_util.h"

namespace rxtest {
namespace {

using LiveViewTest = MemoryTest;

// The browser test checks the order of rows, descriptions and the note of a
// binary without companions; these are the texts it cannot provoke.
TEST_F(LiveViewTest, RowsShowEveryValueAsText) {
  memory->insertData("a", std::string("<script>x</script>"));
  memory->insertData("bin", RXValue(RXValue::Binary{1, 2, 3}));
  memory->insertData("utf", std::string("\xc3\xa9 \xff\xc3"));
  memory->insertData("huge", std::string(5000, 'x'));
  memory->subscribeToEvent("ev", "SomeModule", "onEvent");
  std::map<std::string, nlohmann::json> rows;
  for (nlohmann::json row : nlohmann::json::parse(memory->liveTableJson())) {
    EXPECT_EQ(row["name"] != "ev", row["sec"] > 0) << row;  // "ev" was never written
    row.erase("sec");
    row.erase("usec");
    rows[row["name"]] = row;
  }
  const std::pair<const char*, const char*> cases[] = {
      {"a", R"({"name":"a","kind":"data","type":"string","value":"\"<script>x</script>\"","description":"",
               "subscribers":[]})"},
      {"bin", R"({"name":"bin","kind":"data","type":"binary","value":"<binary 3 bytes>","description":"",
                 "subscribers":[],"note":"binary value without its companion keys bin_type and bin_val"})"},
      {"utf", R"({"name":"utf","kind":"data","type":"string","value":"\"\u00e9 \\xFF\\xC3\"","description":"",
                 "subscribers":[]})"},
      {"ev", R"({"name":"ev","kind":"event","type":"invalid","value":"invalid","description":"",
                "subscribers":["SomeModule"]})"},
  };
  for (const auto& c : cases) EXPECT_EQ(nlohmann::json::parse(c.second), rows[c.first]) << c.first;
  EXPECT_EQ("\"" + std::string(4095, 'x'), rows["huge"]["value"]);
  EXPECT_EQ("value cut for display: the first 4096 bytes are shown", rows["huge"]["note"]);

  memory->insertData("bin_type", std::string("jpeg"));
  memory->insertData("bin_val", 14);
  nlohmann::json bin = nlohmann::json::parse(memory->liveRowJson("bin"));
  EXPECT_EQ("\"jpeg\" 14 <binary 3 bytes>", bin["value"]);
  EXPECT_FALSE(bin.contains("note"));
  EXPECT_EQ(R"({"name":"gone","removed":true})", memory->liveRowJson("gone"));
}

TEST_F(LiveViewTest, FeedReportsWritesRaisesAndRemovalsWhileWatched) {
  RX::LiveFeed& feed = *memory->liveFeed();
  EXPECT_FALSE(feed.active());
  auto reader = feed.open(4);
  memory->insertData("x", 1);
  memory->raiseEvent("e", RXValue(2));
  memory->insertData("x", 3);  // still pending: kept once, in its first place
  bool overflowed = true;
  EXPECT_EQ((Names{"x", "RXMemory/KeyAdded", "e"}), reader->take(overflowed));
  EXPECT_FALSE(overflowed);
  memory->removeData("x");
  EXPECT_EQ((Names{"x", "RXMemory/KeyRemoved"}), reader->take(overflowed));

  auto small = feed.open(1);
  memory->insertData("y", 1);  // y, then KeyAdded: one too many
  EXPECT_TRUE(small->take(overflowed).empty());
  EXPECT_TRUE(overflowed);
  small->take(overflowed);
  EXPECT_FALSE(overflowed);
  small.reset();
  reader.reset();
  EXPECT_FALSE(feed.active());
}

}  // namespace
}  // namespace rxtest
