// The HTML status page: one table each for data, events and micro-events.
#include "memory_test_util.h"

using RX::RXValue;

namespace {

class StatusPageTest : public rxtest::MemoryTest {
 protected:
  static std::string row(const std::string& name, const std::string& type, const std::string& value,
                         const std::string& subscribers) {
    return "\n<tr><td>" + name + "</td><td>\n" + type + "</td>\n<td>" + value + "</td>\n<td>" + subscribers +
           "</td></tr>\n";
  }
  static std::string table(const std::string& title, const std::string& rows) {
    return "<h4>" + title + "</h4><table class=\"memory\" ><tr><th>Name</th><th>Type</th><th>Value</th>" +
           (title == "Data" ? "" : "<th>Subscribers</th>") + "</tr>\n" + rows + "</table>";
  }
};

// A memory that holds only what start-up puts there: the three store-change
// events (KeyAdded last raised for "TavroReady") and the micro-event
// "TavroReady".
TEST_F(StatusPageTest, PageOfAFreshMemory) {
  const std::map<std::string, std::string> eventRows = {
      {"RXMemory/KeyAdded", row("RXMemory/KeyAdded", "string", "\"TavroReady\"", "")},
      {"RXMemory/KeyRemoved", row("RXMemory/KeyRemoved", "invalid", "invalid", "")},
      {"RXMemory/KeyTypeChanged", row("RXMemory/KeyTypeChanged", "invalid", "invalid", "")},
  };
  // Rows come in the store's own order, which is not sorted.
  const std::vector<std::string> events = memory->getListTyped(RX::Event);
  ASSERT_EQ(3u, events.size());
  std::string eventTable;
  for (const std::string& name : events) eventTable += eventRows.at(name);

  EXPECT_EQ(
      "<html><head><style type=\"text/css\">body, h1, th, td {font-family: verdana;} td, th {font-size: "
      "12px; "
      "cell-padding: 2px; text-align: left;}</style></head><body>" +
          table("Data", "") + table("Event", eventTable) +
          table("Micro-event", row("TavroReady", "int", "0", "")) + "</body></html>",
      memory->httpGet());
  EXPECT_EQ(table("Event", ""), memory->httpGetList("Event", {}));
}

TEST_F(StatusPageTest, EveryKindOfValueHasItsTypeWord) {
  RXValue list = RXValue::array();
  list.arrayPush(RXValue(1));
  memory->insertData("b", RXValue(true));
  memory->insertData("f", 1.5f);
  memory->insertData("a", list);
  memory->insertData("o", RXValue(mz::AnyObject(std::make_shared<mz::DynamicObject>())));
  memory->insertData("amp", std::string("x&y>z"));
  const std::string html = memory->httpGetList("Custom", {"b", "f", "a", "amp"});
  EXPECT_EQ(table("Custom", row("b", "bool", "true", "") + row("f", "float", "1.5", "") +
                                row("a", "array", "[1]", "") + row("amp", "string", "\"x&y>z\"", "")),
            html);
  const std::string objectRow = memory->httpGetList("Data", {"o"});
  EXPECT_NE(std::string::npos, objectRow.find("\n<tr><td>o</td><td>\n</td>\n<td>"))
      << "an object has no type word: " << objectRow;
}

TEST_F(StatusPageTest, PageListsKeysByKindWithTheirSubscribers) {
  memory->insertData("K", 5);
  memory->insertData("lt", std::string("a<b"));
  memory->insertData("bin", RXValue(RX::RXValue::Binary{1, 2}));
  memory->insertData("bin_type", std::string("jpeg"));
  memory->insertData("bin_val", 3);
  memory->subscribeToEvent("E", "B", "onEvent");
  memory->subscribeToEvent("E", "A", "onEvent");

  const std::string page = memory->httpGet();
  const std::string head =
      "<html><head><style type=\"text/css\">body, h1, th, td {font-family: verdana;} td, th {font-size: "
      "12px; "
      "cell-padding: 2px; text-align: left;}</style></head><body><h4>Data</h4><table class=\"memory\" ><tr>"
      "<th>Name</th><th>Type</th><th>Value</th></tr>\n";
  EXPECT_EQ(head, page.substr(0, head.size()));
  EXPECT_EQ("</table></body></html>", page.substr(page.size() - 22));
  const std::size_t events = page.find("<h4>Event</h4>");
  const std::size_t micro = page.find("<h4>Micro-event</h4>");
  ASSERT_TRUE(events != std::string::npos && micro != std::string::npos && events < micro);
  EXPECT_EQ(events, page.find("</table>") + 8) << "Data comes first";
  EXPECT_NE(std::string::npos, page.find("<th>Value</th><th>Subscribers</th></tr>\n", events));

  // A data row has a subscriber cell although its header has no such column.
  const std::size_t row = page.find("\n<tr><td>K</td><td>\nint</td>\n<td>5</td>\n<td></td></tr>\n");
  EXPECT_LT(row, events);
  EXPECT_NE(std::string::npos, page.find("<td>\"a<b\"</td>")) << "values are not escaped";
  EXPECT_NE(std::string::npos, page.find("\n<tr><td>bin</td><td>\n\"jpeg\" 3</td>"));
  const std::size_t eventRow =
      page.find("\n<tr><td>E</td><td>\ninvalid</td>\n<td>invalid</td>\n<td>A B </td></tr>\n");
  EXPECT_TRUE(eventRow > events && eventRow < micro) << page;
  EXPECT_NE(std::string::npos, page.find("<tr><td>TavroReady</td><td>\nint</td>", micro));

  memory->insertData("orphan", RXValue(RX::RXValue::Binary{1}));
  EXPECT_EQ("getData|Data not found orphan_type", rxtest::errorOf([&] { (void)memory->httpGet(); }));
}

}  // namespace
