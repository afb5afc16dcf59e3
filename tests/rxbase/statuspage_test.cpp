// The HTML status page: one table each for data, events and micro-events.
#include "memory_test_util.h"

namespace rxtest {
namespace {

std::string row(const std::string& name, const std::string& type, const std::string& value,
                const std::string& subscribers = "") {
  return "\n<tr><td>" + name + "</td><td>\n" + type + "</td>\n<td>" + value + "</td>\n<td>" + subscribers +
         "</td></tr>\n";
}

std::string table(const std::string& title, const std::string& rows) {
  return "<h4>" + title + "</h4><table class=\"memory\" ><tr><th>Name</th><th>Type</th><th>Value</th>" +
         (title == "Data" ? "" : "<th>Subscribers</th>") + "</tr>\n" + rows + "</table>";
}

using StatusPageTest = MemoryTest;

// Data first, then events, then micro-events; rows in the store's own order,
// which is not sorted; values are not escaped; a data row has a subscriber
// cell although its header has no such column.
TEST_F(StatusPageTest, PageListsKeysByKindWithTheirSubscribers) {
  memory->insertData("lt", std::string("a<b"));
  memory->subscribeToMicroEvent("lt", "C", "", "onEvent");
  memory->subscribeToEvent("E", "B", "onEvent");
  memory->subscribeToEvent("E", "A", "onEvent");
  const std::map<std::string, std::string> eventRows = {
      {"RXMemory/KeyAdded", row("RXMemory/KeyAdded", "string", "\"lt\"")},
      {"RXMemory/KeyRemoved", row("RXMemory/KeyRemoved", "invalid", "invalid")},
      {"RXMemory/KeyTypeChanged", row("RXMemory/KeyTypeChanged", "invalid", "invalid")},
      {"E", row("E", "invalid", "invalid", "A B ")},
  };
  std::string eventTable;
  for (const std::string& name : memory->getListTyped(RX::Event)) eventTable += eventRows.at(name);
  EXPECT_EQ(
      "<html><head><style type=\"text/css\">body, h1, th, td {font-family: verdana;} td, th {font-size: "
      "12px; cell-padding: 2px; text-align: left;}</style></head><body>" +
          table("Data", row("lt", "string", "\"a<b\"", "C ")) + table("Event", eventTable) +
          table("Micro-event", row("TavroReady", "int", "0")) + "</body></html>",
      memory->httpGet());

  // Every kind of value has its type word; an object has none, and a binary
  // shows its companion keys "_type" and "_val" instead.
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

}  // namespace
}  // namespace rxtest
