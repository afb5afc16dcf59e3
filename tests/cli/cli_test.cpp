// The command line without a broker: help, bad usage (exit 2), no broker at
// the address (exit 3); values typed as JSON (base64 for binaries) and printed
// back, times printed local or in UTC, globs of list and watch, and the nearest
// names offered for a mistyped command, option or method. The kinds typed and
// printed end to end are in cli_e2e_test; here the edges.
#include "cli.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <sstream>
#include <stdexcept>

#include "base64.h"
#include "glob.h"
#include "jsonvalue.h"
#include "printer.h"
#include "rx/rxversion.h"
#include "suggest.h"

namespace {

using RX::RXValue;
using rxcli::Base64;
using rxcli::JsonValue;
using rxcli::Printer;
const auto kMap = JsonValue::Objects::AsStringMap;

// The error text of a refused argument, or "accepted".
std::string refusal(const std::string& argument, JsonValue::Objects objects = JsonValue::Objects::Refuse) {
  try {
    (void)JsonValue::fromArgument(argument, objects);
    return "accepted";
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
}

RXValue array(std::initializer_list<RXValue> items) {
  RXValue a = RXValue::array();
  for (const RXValue& v : items) a.arrayPush(v);
  return a;
}

struct Outcome {
  int status;
  std::string out, err;
};

Outcome run(std::vector<std::string> args) {
  args.insert(args.begin(), "rxmemory");
  std::vector<const char*> argv;
  for (const std::string& a : args) argv.push_back(a.c_str());
  std::ostringstream out, err;
  rxcli::Cli cli(out, err);
  const int status = cli.run(static_cast<int>(argv.size()), argv.data());
  return {status, out.str(), err.str()};
}

// A TCP port nothing listens on: the port of a socket bound and closed again
// would race with other tests, so use a reserved low port.
const std::string kDeadUrl = "tcp://127.0.0.1:1";

TEST(CliUsage, HelpNamesTheValueSyntaxTheEnvironmentAndTheExitStatus) {
  const Outcome help = run({"--help"});
  EXPECT_EQ(0, help.status);
  EXPECT_EQ("", help.err);
  for (const char* part : {"{\"$binary\": \"<base64>\"}", "(Env:RXMEMORY_URL)",
                           "Exit status: 0 done, 1 the command failed, 2 bad usage, 3 no broker",
                           "RXMEMORY_URL and RXMEMORY_HTTP, when set, replace the defaults"})
    EXPECT_NE(std::string::npos, help.out.find(part)) << part;
  const Outcome watch = run({"watch", "--help"});
  EXPECT_EQ(0, watch.status);
  for (const char* part : {"Usage: rxmemory watch [OPTIONS] KEY...", "Example: rxmemory watch "})
    EXPECT_NE(std::string::npos, watch.out.find(part)) << part;
  EXPECT_EQ(0u, run({"--version"}).out.find("rxmemory " RX_VERSION " (git revision "));
}

TEST(CliUsage, BadCommandLinesExitWithTwoSayingWhyAndWhereHelpIs) {
  // Arguments, the error and its hint, the command whose help is named.
  // clang-format off
  const std::vector<std::tuple<std::vector<std::string>, std::string, std::string>> cases = {
      {{}, "A subcommand is required", ""}, {{"bogus"}, "unknown command 'bogus'", ""},
      {{"lsit"}, "unknown command 'lsit'\ndid you mean list?", ""},
      {{"event"}, "unknown command 'event'\ndid you mean events?", ""},
      {{"get", "--jsn", "K"}, "The following argument was not expected: --jsn\ndid you mean --json?", "get "},
      {{"watch", "K", "--change"}, "The following argument was not expected: --change\ndid you mean --changes?",
       "watch "},
      {{"insert", "K"}, "VALUE is required", "insert "}, {{"get"}, "KEY is required", "get "},
      {{"type", "a", "b"}, "The following argument was not expected: b", "type "},
      {{"--timeout", "0", "events"}, "--timeout: expected a number of seconds above 0, got 0", "events "},
      {{"watch", "K", "--count", "many"}, "Could not convert: --count = many", "watch "},
      // Refused before any connection is tried, so the dead address does not matter.
      {{"--url", kDeadUrl, "insert", "K", "{\"a\": 1}"}, "bad VALUE '{\"a\": 1}': JSON objects are not values: "
       "{\"a\":1} (the one object form is {\"$binary\": \"<base64>\"}; write pairs as [[\"key\", value], ...])",
       "insert "},
      {{"--url", kDeadUrl, "call", "insertData", "K", "{\"$binary\": \"A\"}"},
       "bad ARG 2 '{\"$binary\": \"A\"}': bad base64: a lone character at the end", "call "},
      {{"--url", "foo://x", "events"},
       "bad --url: invalid endpoint 'foo://x': expected tcp://HOST:PORT or unix:///path", "events "},
      {{"--http", "nonsense", "page"}, "bad --http 'nonsense': expected http://HOST:PORT", "page "},
      {{"--http", "https://127.0.0.1:9781", "page"},
       "bad --http 'https://127.0.0.1:9781': expected http://HOST:PORT", "page "}};
  // clang-format on
  for (const auto& [args, error, command] : cases) {
    const Outcome o = run(args);
    EXPECT_EQ(2, o.status);
    EXPECT_EQ("", o.out);
    EXPECT_EQ("error: " + error + "\nsee `rxmemory " + command + "--help`\n", o.err);
  }
}

TEST(CliUsage, NoBrokerExitsWithThreeNamingTheAddress) {
  for (const std::vector<std::string>& args : {std::vector<std::string>{"--url", kDeadUrl, "get", "K"},
                                               {"--url", kDeadUrl, "watch", "K"},
                                               {"--url", kDeadUrl, "--timeout", "0.5", "methods"}}) {
    const Outcome o = run(args);
    EXPECT_EQ(3, o.status) << o.err;
    EXPECT_EQ("", o.out);
    EXPECT_EQ("error: cannot connect to " + kDeadUrl +
                  ": Connection refused\n"
                  "is the broker running? start one with `make run`\n",
              o.err);
  }
  const Outcome page = run({"--http", "http://127.0.0.1:1", "page"});
  EXPECT_EQ(3, page.status);
  EXPECT_EQ(
      "error: cannot reach the status pages at http://127.0.0.1:1: connection refused\n"
      "is the broker running? start one with `make run`\n",
      page.err);
}

TEST(JsonValue, ArgumentsAtTheEdgesOfJson) {
  // clang-format off
  const std::vector<std::pair<std::string, RXValue>> cases = {
      {"5.5", RXValue(5.5f)}, {"1e3", RXValue(1000.0f)}, {" false ", RXValue(false)},
      {"2147483647", RXValue(2147483647)}, {"-2147483648", RXValue(-2147483647 - 1)},
      {"[1, [2.5, null]]", array({RXValue(1), array({RXValue(2.5f), RXValue()})})},
      // Not JSON: the text itself.
      {"NaN", RXValue("NaN")}, {"5 6", RXValue("5 6")}, {"[1, 2", RXValue("[1, 2")},
      {"{\"a\":}", RXValue("{\"a\":}")}, {"'x'", RXValue("'x'")}, {"True", RXValue("True")}};
  // clang-format on
  for (const auto& [typed, value] : cases) EXPECT_EQ(value, JsonValue::fromArgument(typed)) << typed;
  // Where maps are allowed, objects of strings are maps in key order.
  EXPECT_EQ(array({array({RXValue("a"), RXValue("a!")}), array({RXValue("b"), RXValue("b!")})}),
            JsonValue::fromArgument("{\"b\": \"b!\", \"a\": \"a!\"}", kMap));
  EXPECT_EQ(RXValue::array(), JsonValue::fromArgument("{}", kMap));
  EXPECT_EQ(RXValue(RXValue::Binary{0xFF}), JsonValue::fromArgument("{\"$binary\": \"/w==\"}", kMap));
}

TEST(JsonValue, JsonThatNamesNoValueIsRefused) {
  const std::string notValue =
      "JSON objects are not values: {\"a\":\"b\"} (the one object form is "
      "{\"$binary\": \"<base64>\"}; write pairs as [[\"key\", value], ...])";
  // clang-format off
  const std::vector<std::tuple<std::string, JsonValue::Objects, std::string>> cases = {
      {"2147483648", {}, "2147483648 does not fit a 32-bit int (write 2147483648.0 for a float)"},
      {"-2147483649", {}, "-2147483649 does not fit a 32-bit int (write -2147483649.0 for a float)"},
      {"1e39", {}, "1e+39 does not fit a 32-bit float"},
      {"[1, {\"a\": \"b\"}]", {}, notValue},
      {"[{\"a\": \"b\"}]", kMap, notValue},  // an array inside an array never becomes a map
      {"{\"$object\": true}", {}, "an object reference cannot be written on the command line"},
      {"{\"$binary\": 5}", {}, "{\"$binary\": ...} needs a base64 string, got 5"},
      {"{\"$binary\": \"AA!C\"}", {}, "bad base64: character '!' at position 2"},
      {"{\"a\": 1}", kMap, "a map from string to string needs string values; \"a\" holds 1"}};
  // clang-format on
  for (const auto& [typed, objects, error] : cases) EXPECT_EQ(error, refusal(typed, objects));
}

TEST(JsonValue, ValuesPrintInTheFormsTheyAreTypedInAndReadBackUnchanged) {
  EXPECT_EQ("\"a\xEF\xBF\xBD\"",
            JsonValue::toText(RXValue(std::string("a\xFF"))));  // not UTF-8: still prints
  for (const char* text : {"-17", "0.1", "3.4028235e38", "1e-45", "{\"$binary\":\"AA==\"}"}) {
    const RXValue first = JsonValue::fromArgument(text);
    EXPECT_EQ(first, JsonValue::fromArgument(JsonValue::toText(first))) << text;
  }
}

TEST(Base64, EncodesDecodesAndRefuses) {
  // clang-format off
  const std::vector<std::pair<std::vector<unsigned char>, std::string>> cases = {
      {{}, ""}, {{'f'}, "Zg=="}, {{'f', 'o'}, "Zm8="}, {{'f', 'o', 'o'}, "Zm9v"}, {{'f', 'o', 'o', 'b'}, "Zm9vYg=="},
      {{0x00, 0xFF, 0xFE}, "AP/+"}};
  const std::vector<std::pair<std::string, std::string>> refused = {
      {"Zm 9v", "character ' ' at position 2"},
      {"-_==", "character '-' at position 0"},  // the URL alphabet is another one
      {"Zm9vY", "a lone character at the end"},
      {"Zg=", "padded text must have a length that is a multiple of 4"},
      {"Zg==Zg==", "'=' before the end at position 2"}};
  // clang-format on
  for (const auto& [bytes, text] : cases) {
    EXPECT_EQ(text, Base64::encode(bytes));
    EXPECT_EQ(bytes, Base64::decode(text));
  }
  EXPECT_EQ((std::vector<unsigned char>{'f', 'o'}), Base64::decode("Zm8"));  // padding may be left out
  for (const auto& [text, error] : refused)
    EXPECT_EQ("bad base64: " + error, refusal("{\"$binary\": \"" + text + "\"}")) << text;
}

// What `f` prints on a printer, readable or JSON.
template <typename F>
std::string print(bool json, F f) {
  std::ostringstream out;
  Printer printer(out, json);
  f(printer);
  return out.str();
}

TEST(Printer, ReadableTimesAreLocalAndJsonTimesAreNamedFieldsInUtc) {
  const char* saved = ::getenv("TZ");
  const std::string old = saved ? saved : "";
  ::setenv("TZ", "CET-2", 1);
  ::tzset();
  const auto when = std::chrono::system_clock::time_point(std::chrono::microseconds(1000000000123456LL));
  const RXValue stamped = array({RXValue(5), RXValue(1000000000), RXValue(7)});
  const RXValue history = array({stamped, array({RXValue("x"), RXValue(1000000001), RXValue(250000)})});

  EXPECT_EQ("2001-09-09 03:46:40.000007 5\n2001-09-09 03:46:41.250000 \"x\"\n",
            print(false, [&](Printer& p) { p.history(history); }));
  EXPECT_EQ("invalid\n", print(false, [](Printer& p) { p.history(RXValue()); }));  // never raised
  EXPECT_EQ("03:46:40.123 K [1]\n03:46:40.123 K 2 (write)\n03:46:40.123 K 2 (new)\n",
            print(false, [&](Printer& p) {
              p.change(Printer::Change::kRaise, "K", when, array({RXValue(1)}));
              p.change(Printer::Change::kWrite, "K", when, RXValue(2));
              p.change(Printer::Change::kNew, "K", when, RXValue(2));
            }));

  EXPECT_EQ("{\"key\":\"K\",\"kind\":\"raise\",\"time\":\"2001-09-09T01:46:40.123456Z\",\"value\":0.5}\n",
            print(true, [&](Printer& p) { p.change(Printer::Change::kRaise, "K", when, RXValue(0.5f)); }));
  const std::string fields =
      "{\"microseconds\":7,\"seconds\":1000000000,\"time\":\"2001-09-09T01:46:40.000007Z\",\"value\":5}";
  EXPECT_EQ(fields + "\n", print(true, [&](Printer& p) { p.timestamped(stamped); }));
  EXPECT_EQ("[" + fields + "]\n", print(true, [&](Printer& p) { p.history(array({stamped})); }));
  EXPECT_EQ("null\n", print(true, [](Printer& p) { p.history(RXValue()); }));
  saved ? ::setenv("TZ", old.c_str(), 1) : ::unsetenv("TZ");
  ::tzset();
}

TEST(Glob, MatchesWholeNamesWithStarsAndQuestionMarks) {
  // pattern, name, matches
  const std::vector<std::tuple<std::string, std::string, bool>> cases = {
      {"Robot/*", "Robot/Battery", true},
      {"Robot/*", "Robot/Arm/Left", true},  // * crosses slashes
      {"Robot/*", "MyRobot/Battery", false},
      {"*/Battery", "Robot/Battery/Low", false},
      {"R?bot", "Rbot", false},
      {"a*b*c", "axxbyyc", true},
      {"*a*a*a*a*b", std::string(200, 'a'), false},  // no exponential backtracking
      {"Robot", "robot", false},
      {"*", "", true},
  };
  for (const auto& [pattern, name, matches] : cases)
    EXPECT_EQ(matches, rxcli::Glob(pattern).matches(name)) << pattern << " " << name;
  EXPECT_EQ("/Battery", rxcli::Glob("Ro*/Battery?").longestLiteral());
  EXPECT_EQ("", rxcli::Glob("*").longestLiteral());
}

TEST(Suggest, OffersTheNearestNamesFirst) {
  const std::vector<std::string> names = {"get",  "getData", "getDataList", "insert",
                                          "list", "events",  "raise"};
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"lsit", "did you mean list?"},                       // swapped neighbours
      {"GETDATA", "did you mean getData or getDataList?"},  // case ignored; a prefix counts as typed
      {"insrt", "did you mean insert?"},
      {"zzzzzz", ""},
      {std::string(10000, 'x'), ""},  // a pasted paragraph costs nothing
  };
  for (const auto& [typed, said] : cases)
    EXPECT_EQ(said, rxcli::didYouMean(rxcli::nearestNames(typed, names))) << typed.substr(0, 10);
}

}  // namespace
