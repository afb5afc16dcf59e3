// How rxmemory prints times: local time, to the microsecond or millisecond.
// (The other forms are checked end to end against a broker.)
#include <gtest/gtest.h>

#include <stdlib.h>
#include <time.h>

#include <chrono>
#include <sstream>
#include <string>

#include "printer.h"

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
  EXPECT_EQ("[5,1000000000,250000]\n", print(true, [&](Printer& p) { p.timestamped(stamped); }));

  RXValue history = RXValue::array();
  history.arrayPush(entry(RXValue(1), 1000000000, 0));
  history.arrayPush(entry(RXValue("x"), 1000000001, 5));
  EXPECT_EQ("2001-09-09 01:46:40.000000 1\n2001-09-09 01:46:41.000005 \"x\"\n",
            print(false, [&](Printer& p) { p.history(history); }));
  // A key never raised as an event has no history at all.
  EXPECT_EQ("invalid\n", print(false, [](Printer& p) { p.history(RXValue()); }));
  EXPECT_EQ("null\n", print(true, [](Printer& p) { p.history(RXValue()); }));

  const auto when = std::chrono::system_clock::time_point(std::chrono::microseconds(1000000000123456LL));
  EXPECT_EQ("01:46:40.123 Robot/Bumped [1, \"left\"]\n", print(false, [&](Printer& p) {
              RXValue v = RXValue::array();
              v.arrayPush(RXValue(1));
              v.arrayPush(RXValue("left"));
              p.raise("Robot/Bumped", when, v);
            }));
  EXPECT_EQ("{\"key\":\"K\",\"time\":\"2001-09-09 01:46:40.123\",\"value\":0.5}\n",
            print(true, [&](Printer& p) { p.raise("K", when, RXValue(0.5f)); }));
}

}  // namespace
