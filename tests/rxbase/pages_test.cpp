// The memory's pages: the HTML status page, and the live view's rows and feed of changed keys.
#include <nlohmann/json.hpp>

#include "memory_test_util.h"

namespace {

std::string row(const S& name, const S& type, const S& value, const S& subscribers = "") {
  return "\n<tr><td>" + name + "</td><td>\n" + type + "</td>\n<td>" + value + "</td>\n<td>" + subscribers +
         "</td></tr>\n";
}

std::string table(const std::string& title, const std::string& rows) {
  return "<h4>" + title + "</h4><table class=\"memory\" ><tr><th>Name</th><th>Type</th><th>Value</th>" +
         (title == "Data" ? "" : "<th>Subscribers</th>") + "</tr>\n" + rows + "</table>";
}

using PagesTest = MemoryTest;

// Data, events, micro-events; rows unsorted; values unescaped; data rows have a subscriber cell, no header.
TEST_F(PagesTest, StatusPageListsKeysByKindWithTheirSubscribers) {
  memory->insertData("lt", std::string("a<b"));
  memory->subscribeToMicroEvent("lt", "C", "", "onEvent");
  memory->subscribeToEvent("E", "B", "onEvent");
  memory->subscribeToEvent("E", "A", "onEvent");
  std::string eventTable;
  for (const std::string& name : memory->getListTyped(RX::Event))
    eventTable += name == "RXMemory/KeyAdded" ? row(name, "string", "\"lt\"")
                                              : row(name, "invalid", "invalid", name == "E" ? "A B " : "");
  EXPECT_EQ(
      "<html><head><style type=\"text/css\">body, h1, th, td {font-family: verdana;} td, th {font-size: "
      "12px; cell-padding: 2px; text-align: left;}</style></head><body>" +
          table("Data", row("lt", "string", "\"a<b\"", "C ")) + table("Event", eventTable) +
          table("Micro-event", row("TavroReady", "int", "0")) + "</body></html>",
      memory->httpGet());

  // Every kind of value has its type word but an object; a binary shows its "_type" and "_val" keys.
  memory->insertData("b", RXValue(true));
  memory->insertData("i", 5);
  memory->insertData("f", 1.5f);
  memory->insertData("a", RXValue::array(1));
  memory->insertData("o", RXValue(mz::AnyObject(std::make_shared<mz::DynamicObject>())));
  memory->insertData("bin", RXValue(RX::RXValue::Binary{1, 2}));
  memory->insertData("bin_type", std::string("jpeg"));
  memory->insertData("bin_val", 3);
  EXPECT_EQ(
      table("Custom", row("b", "bool", "true") + row("i", "int", "5") + row("f", "float", "1.5") +
                          row("a", "array", "[invalid]") + row("o", "", memory->getData("o").toString(1)) +
                          row("bin", "\"jpeg\" 3", "<binary 2 bytes>")),
      memory->httpGetList("Custom", {"b", "i", "f", "a", "o", "bin"}));
}

// The texts the browser test cannot provoke (it checks row order, descriptions, a lone binary's note).
TEST_F(PagesTest, LiveViewRowsShowEveryValueAsTextAndTheFeedNamesChangedKeys) {
  memory->insertData("a", std::string("<script>x</script>"));
  memory->insertData("bin", RXValue(RXValue::Binary{1, 2, 3}));
  memory->insertData("utf", std::string("\xc3\xa9 \xff\xc3"));
  memory->insertData("huge", std::string(5000, 'x'));
  memory->subscribeToEvent("ev", "SomeModule", "onEvent");
  std::map<std::string, nlohmann::json> rows;
  for (nlohmann::json row : nlohmann::json::parse(memory->liveTableJson())) {
    EXPECT_EQ(row["name"] != "ev", row["sec"] > 0) << row;  // "ev" was never written
    EXPECT_EQ("", row["description"]) << row;
    const std::string name = row["name"];
    for (const char* checked : {"name", "sec", "usec", "description"}) row.erase(checked);
    rows[name] = row;
  }
  const std::pair<const char*, const char*> cases[] = {
      {"a", R"({"kind":"data","type":"string","value":"\"<script>x</script>\"","subscribers":[]})"},
      {"bin", R"({"kind":"data","type":"binary","value":"<binary 3 bytes>","subscribers":[],"note":
                 "binary value without its companion keys bin_type and bin_val"})"},
      {"utf", R"({"kind":"data","type":"string","value":"\"\u00e9 \\xFF\\xC3\"","subscribers":[]})"},
      {"ev", R"({"kind":"event","type":"invalid","value":"invalid","subscribers":["SomeModule"]})"},
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
