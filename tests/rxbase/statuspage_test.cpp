// The HTML status page: one table each for data, events and micro-events.
#include "memory_test_util.h"

using RX::RXValue;

namespace {

class StatusPageTest : public rxtest::MemoryTest {};

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
      "<html><head><style type=\"text/css\">body, h1, th, td {font-family: verdana;} td, th {font-size: 12px; "
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
  const std::size_t eventRow = page.find("\n<tr><td>E</td><td>\ninvalid</td>\n<td>invalid</td>\n<td>A B </td></tr>\n");
  EXPECT_TRUE(eventRow > events && eventRow < micro) << page;
  EXPECT_NE(std::string::npos, page.find("<tr><td>TavroReady</td><td>\nint</td>", micro));

  memory->insertData("orphan", RXValue(RX::RXValue::Binary{1}));
  EXPECT_EQ("getData|Data not found orphan_type", rxtest::errorOf([&] { (void)memory->httpGet(); }));
}

}  // namespace
