// How rxmemory prints times: readable lines in local time, JSON in UTC with
// named fields. (The other forms are checked end to end against a broker.)
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

// Runs `f` on a printer with TZ set to `zone`, and puts TZ back.
template <typename F>
std::string print(bool json, const char* zone, F f) {
  const char* saved = ::getenv("TZ");
  const std::string old = saved ? saved : "";
  ::setenv("TZ", zone, 1);
  ::tzset();
  std::ostringstream out;
  Printer printer(out, json);
  f(printer);
  saved ? ::setenv("TZ", old.c_str(), 1) : ::unsetenv("TZ");
  ::tzset();
  return out.str();
}

RXValue entry(const RXValue& v, int seconds, int micros) {
  RXValue e = RXValue::array();
  for (const RXValue& part : {v, RXValue(seconds), RXValue(micros)}) e.arrayPush(part);
  return e;
}

const auto kWhen = std::chrono::system_clock::time_point(std::chrono::microseconds(1000000000123456LL));
const RXValue kStamped = entry(RXValue(5), 1000000000, 7);

TEST(Printer, ReadableTimesAreLocal) {
  RXValue history = RXValue::array();
  history.arrayPush(kStamped);
  history.arrayPush(entry(RXValue("x"), 1000000001, 250000));
  EXPECT_EQ("2001-09-09 03:46:40.000007 5\n2001-09-09 03:46:41.250000 \"x\"\n",
            print(false, "CET-2", [&](Printer& p) { p.history(history); }));
  EXPECT_EQ("invalid\n", print(false, "UTC", [](Printer& p) { p.history(RXValue()); }));  // never raised
  EXPECT_EQ("01:46:40.123 K [1]\n01:46:40.123 K 2 (write)\n01:46:40.123 K 2 (new)\n",
            print(false, "UTC", [&](Printer& p) {
              RXValue one = RXValue::array();
              one.arrayPush(RXValue(1));
              p.change(Printer::Change::kRaise, "K", kWhen, one);
              p.change(Printer::Change::kWrite, "K", kWhen, RXValue(2));
              p.change(Printer::Change::kNew, "K", kWhen, RXValue(2));
            }));
}

TEST(Printer, JsonTimesAreNamedFieldsInUtc) {
  EXPECT_EQ("{\"key\":\"K\",\"kind\":\"raise\",\"time\":\"2001-09-09T01:46:40.123456Z\",\"value\":0.5}\n",
            print(true, "CET-2",
                  [&](Printer& p) { p.change(Printer::Change::kRaise, "K", kWhen, RXValue(0.5f)); }));
  const std::string fields =
      "{\"microseconds\":7,\"seconds\":1000000000,\"time\":\"2001-09-09T01:46:40.000007Z\",\"value\":5}";
  EXPECT_EQ(fields + "\n", print(true, "CET-2", [&](Printer& p) { p.timestamped(kStamped); }));
  RXValue history = RXValue::array();
  history.arrayPush(kStamped);
  EXPECT_EQ("[" + fields + "]\n", print(true, "CET-2", [&](Printer& p) { p.history(history); }));
  EXPECT_EQ("null\n", print(true, "UTC", [](Printer& p) { p.history(RXValue()); }));
}

}  // namespace
