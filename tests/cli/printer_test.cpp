// How rxmemory prints times: local time, to the microsecond or millisecond.
// (The other forms are checked end to end against a broker.)
#include "printer.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <chrono>
#include <sstream>
#include <string>

namespace {

using RX::RXValue;
using rxcli::Printer;

// Local time is printed; the tests pin it to UTC.
class PrinterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* tz = ::getenv("TZ");
    if (tz) savedTz_ = tz;
    hadTz_ = tz != nullptr;
    ::setenv("TZ", "UTC", 1);
    ::tzset();
  }
  void TearDown() override {
    if (hadTz_)
      ::setenv("TZ", savedTz_.c_str(), 1);
    else
      ::unsetenv("TZ");
    ::tzset();
  }
  template <typename F>
  std::string print(bool json, F f) {
    std::ostringstream out;
    Printer printer(out, json);
    f(printer);
    return out.str();
  }
  static RXValue entry(const RXValue& v, int seconds, int micros) {
    RXValue e = RXValue::array();
    e.arrayPush(v);
    e.arrayPush(RXValue(seconds));
    e.arrayPush(RXValue(micros));
    return e;
  }

 private:
  bool hadTz_ = false;
  std::string savedTz_;
};

TEST_F(PrinterTest, TimesAreLocal) {
  EXPECT_EQ("1970-01-01 00:00:00", Printer::localTime(0, 0, 0));
  EXPECT_EQ("2001-09-09 01:46:40.000007", Printer::localTime(1000000000, 7, 6));
  EXPECT_EQ("2001-09-09 01:46:40.999", Printer::localTime(1000000000, 999999, 3));

  const RXValue stamped = entry(RXValue(5), 1000000000, 250000);
  EXPECT_EQ("2001-09-09 01:46:40.250000 5\n", print(false, [&](Printer& p) { p.timestamped(stamped); }));

  RXValue history = RXValue::array();
  history.arrayPush(entry(RXValue(1), 1000000000, 0));
  history.arrayPush(entry(RXValue("x"), 1000000001, 5));
  EXPECT_EQ("2001-09-09 01:46:40.000000 1\n2001-09-09 01:46:41.000005 \"x\"\n",
            print(false, [&](Printer& p) { p.history(history); }));
  // A key never raised as an event has no history at all.
  EXPECT_EQ("invalid\n", print(false, [](Printer& p) { p.history(RXValue()); }));

  const auto when = std::chrono::system_clock::time_point(std::chrono::microseconds(1000000000123456LL));
  EXPECT_EQ("01:46:40.123 Robot/Bumped [1, \"left\"]\n", print(false, [&](Printer& p) {
              RXValue v = RXValue::array();
              v.arrayPush(RXValue(1));
              v.arrayPush(RXValue("left"));
              p.change(Printer::Change::kRaise, "Robot/Bumped", when, v);
            }));
  EXPECT_EQ("01:46:40.123 K 2 (write)\n",
            print(false, [&](Printer& p) { p.change(Printer::Change::kWrite, "K", when, RXValue(2)); }));
  EXPECT_EQ("01:46:40.123 K 2 (new)\n",
            print(false, [&](Printer& p) { p.change(Printer::Change::kNew, "K", when, RXValue(2)); }));
}

TEST_F(PrinterTest, JsonTimesAreNamedFieldsInUtc) {
  ::setenv("TZ", "Asia/Tokyo", 1);  // --json does not depend on the local zone
  ::tzset();
  const auto when = std::chrono::system_clock::time_point(std::chrono::microseconds(1000000000123456LL));
  EXPECT_EQ("{\"key\":\"K\",\"kind\":\"raise\",\"time\":\"2001-09-09T01:46:40.123456Z\",\"value\":0.5}\n",
            print(true, [&](Printer& p) { p.change(Printer::Change::kRaise, "K", when, RXValue(0.5f)); }));
  const RXValue stamped = entry(RXValue(5), 1000000000, 7);
  const std::string fields =
      "{\"microseconds\":7,\"seconds\":1000000000,\"time\":\"2001-09-09T01:46:40.000007Z\",\"value\":5}";
  EXPECT_EQ(fields + "\n", print(true, [&](Printer& p) { p.timestamped(stamped); }));
  RXValue history = RXValue::array();
  history.arrayPush(stamped);
  EXPECT_EQ("[" + fields + "]\n", print(true, [&](Printer& p) { p.history(history); }));
  EXPECT_EQ("null\n", print(true, [](Printer& p) { p.history(RXValue()); }));  // never raised
}

}  // namespace
