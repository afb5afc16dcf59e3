// The rxmemory command line: its value syntax, printing and globs alone, then every
// command against a real rxbroker on free ports (as a program where it runs on).
#include "cli.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "base64.h"
#include "glob.h"
#include "jsonvalue.h"
#include "printer.h"
#include "rx/rxversion.h"
#include "support/process.h"

namespace {

using nlohmann::json;
using RX::RXValue;
using rxcli::Base64;
using rxcli::JsonValue;
using rxcli::Printer;
using testsupport::BrokerProcess;
using testsupport::Child;
using testsupport::Stderr;
using testsupport::TempDir;
using Args = std::vector<std::string>;
const auto kMap = JsonValue::Objects::AsStringMap;

// A command line, what it exits with and prints.
struct Row {
  Row(Args a, int s = 0, std::string o = "", std::string e = "")
      : args(std::move(a)), status(s), out(std::move(o)), err(std::move(e)) {}
  Args args;
  int status;
  std::string out, err;
};

// The command line run in this process: main() only hands it its streams.
Row run(const Args& args) {
  std::vector<const char*> argv = {"rxmemory"};
  for (const std::string& a : args) argv.push_back(a.c_str());
  std::ostringstream out, err;
  const int status = rxcli::Cli(out, err).run(static_cast<int>(argv.size()), argv.data());
  return {args, status, out.str(), err.str()};
}

// Runs the rows in order, so a row may store what a later row reads; `before`
// goes ahead of each row's arguments.
void expectRows(const std::vector<Row>& rows, const Args& before = {}) {
  for (const Row& row : rows) {
    Args args = before;
    args.insert(args.end(), row.args.begin(), row.args.end());
    const Row got = run(args);
    SCOPED_TRACE(::testing::PrintToString(row.args));
    EXPECT_EQ(row.status, got.status);
    EXPECT_EQ(row.out, got.out);
    EXPECT_EQ(row.err, got.err);
  }
}

// What the command line makes of a typed value: what --json prints for it
// (which must read back as the same value), or why it is refused.
std::string typed(const std::string& text, JsonValue::Objects objects = JsonValue::Objects::Refuse) {
  try {
    const RXValue value = JsonValue::fromArgument(text, objects);
    EXPECT_EQ(value, JsonValue::fromArgument(JsonValue::toText(value))) << text << " does not read back";
    return JsonValue::toText(value);
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
}

// Nothing listens on a reserved low port (a port bound and closed again would race).
const std::string kDeadUrl = "tcp://127.0.0.1:1";

TEST(CliUsage, HelpNamesTheValueSyntaxTheEnvironmentAndTheExitStatus) {
  // clang-format off
  const std::vector<std::pair<Args, std::string>> cases = {
      {{"--help"}, "{\"$binary\": \"<base64>\"}"}, {{"--help"}, "(Env:RXMEMORY_URL)"},
      {{"--help"}, "Exit status: 0 done, 1 the command failed, 2 bad usage, 3 no broker"},
      {{"--help"}, "RXMEMORY_URL and RXMEMORY_HTTP, when set, replace the defaults"},
      {{"watch", "--help"}, "Usage: rxmemory watch [OPTIONS] KEY..."},
      {{"watch", "--help"}, "Example: rxmemory watch "}};
  // clang-format on
  for (const auto& [args, part] : cases) {
    const Row r = run(args);
    EXPECT_EQ(0, r.status);
    EXPECT_EQ("", r.err);
    EXPECT_NE(std::string::npos, r.out.find(part)) << part;
  }
  EXPECT_EQ(0u, run({"--version"}).out.find("rxmemory " RX_VERSION " (git revision "));
}

TEST(CliUsage, BadCommandLinesExitWithTwoSayingWhyAndNoBrokerWithThreeNamingTheAddress) {
  // Arguments, the error and its hint, the command whose help is named.
  // clang-format off
  const std::vector<std::tuple<Args, std::string, std::string>> cases = {
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
  std::vector<Row> rows;
  for (const auto& [args, error, command] : cases)
    rows.push_back({args, 2, "", "error: " + error + "\nsee `rxmemory " + command + "--help`\n"});
  const std::string start = "\nis the broker running? start one with `make run`\n";
  const std::string refused = "error: cannot connect to " + kDeadUrl + ": Connection refused" + start;
  for (const Args& args : {Args{"--url", kDeadUrl, "get", "K"}, Args{"--url", kDeadUrl, "watch", "K"},
                           Args{"--url", kDeadUrl, "--timeout", "0.5", "methods"}})
    rows.push_back({args, 3, "", refused});
  rows.push_back({{"--http", "http://127.0.0.1:1", "page"},
                  3,
                  "",
                  "error: cannot reach the status pages at http://127.0.0.1:1: connection refused" + start});
  expectRows(rows);
}

TEST(JsonValue, TypedValuesPrintInTheFormsTheyAreTypedInOrAreRefusedSayingWhy) {
  const std::string notValue =
      "JSON objects are not values: {\"a\":\"b\"} (the one object form is "
      "{\"$binary\": \"<base64>\"}; write pairs as [[\"key\", value], ...])";
  // clang-format off
  const std::vector<std::tuple<std::string, JsonValue::Objects, std::string>> cases = {
      {"5.5", {}, "5.5"}, {"1e3", {}, "1000.0"}, {" false ", {}, "false"}, {"-17", {}, "-17"},
      {"2147483647", {}, "2147483647"}, {"-2147483648", {}, "-2147483648"}, {"1e-45", {}, "1e-45"},
      {"0.1", {}, "0.1"}, {"3.4028235e38", {}, "3.4028235e+38"}, {"[1, [2.5, null]]", {}, "[1,[2.5,null]]"},
      {"{\"$binary\":\"AA==\"}", {}, "{\"$binary\":\"AA==\"}"},
      // Not JSON: the text itself.
      {"NaN", {}, "\"NaN\""}, {"5 6", {}, "\"5 6\""}, {"[1, 2", {}, "\"[1, 2\""}, {"'x'", {}, "\"'x'\""},
      {"{\"a\":}", {}, R"("{\"a\":}")"}, {"True", {}, "\"True\""},
      // Where maps are allowed, objects of strings are maps in key order.
      {"{\"b\": \"b!\", \"a\": \"a!\"}", kMap, R"([["a","a!"],["b","b!"]])"}, {"{}", kMap, "[]"},
      {"{\"$binary\": \"/w==\"}", kMap, "{\"$binary\":\"/w==\"}"},
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
  for (const auto& [text, objects, said] : cases) EXPECT_EQ(said, typed(text, objects)) << text;
  EXPECT_EQ("\"a\xEF\xBF\xBD\"",
            JsonValue::toText(RXValue(std::string("a\xFF"))));  // not UTF-8: still prints
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
    EXPECT_EQ("bad base64: " + error, typed("{\"$binary\": \"" + text + "\"}")) << text;
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
  const RXValue stamped = JsonValue::fromArgument("[5, 1000000000, 7]");
  const RXValue history = JsonValue::fromArgument("[[5, 1000000000, 7], [\"x\", 1000000001, 250000]]");

  EXPECT_EQ("2001-09-09 03:46:40.000007 5\n2001-09-09 03:46:41.250000 \"x\"\n",
            print(false, [&](Printer& p) { p.history(history); }));
  EXPECT_EQ("invalid\n", print(false, [](Printer& p) { p.history(RXValue()); }));  // never raised
  EXPECT_EQ("03:46:40.123 K [1]\n03:46:40.123 K 2 (write)\n03:46:40.123 K 2 (new)\n",
            print(false, [&](Printer& p) {
              p.change(Printer::Change::kRaise, "K", when, JsonValue::fromArgument("[1]"));
              p.change(Printer::Change::kWrite, "K", when, RXValue(2));
              p.change(Printer::Change::kNew, "K", when, RXValue(2));
            }));

  EXPECT_EQ("{\"key\":\"K\",\"kind\":\"raise\",\"time\":\"2001-09-09T01:46:40.123456Z\",\"value\":0.5}\n",
            print(true, [&](Printer& p) { p.change(Printer::Change::kRaise, "K", when, RXValue(0.5f)); }));
  const std::string fields =
      "{\"microseconds\":7,\"seconds\":1000000000,\"time\":\"2001-09-09T01:46:40.000007Z\",\"value\":5}";
  EXPECT_EQ(fields + "\n", print(true, [&](Printer& p) { p.timestamped(stamped); }));
  EXPECT_EQ("[" + fields + "]\n",
            print(true, [&](Printer& p) { p.history(JsonValue::fromArgument("[[5, 1000000000, 7]]")); }));
  EXPECT_EQ("null\n", print(true, [](Printer& p) { p.history(RXValue()); }));
  saved ? ::setenv("TZ", old.c_str(), 1) : ::unsetenv("TZ");
  ::tzset();
}

TEST(Glob, MatchesWholeNamesWithStarsAndQuestionMarks) {
  // pattern, name, matches (a star crossing slashes and whole names: the list rows)
  const std::vector<std::tuple<std::string, std::string, bool>> cases = {
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

// ---- Against a real rxbroker ----

std::unique_ptr<BrokerProcess> startBroker(const TempDir& dir,
                                           const std::string& listen = "tcp://127.0.0.1:0") {
  return std::make_unique<BrokerProcess>(RX_BROKER_PATH, dir.path, Args{listen},
                                         Args{"--http", "127.0.0.1:0"});
}

// A broker of each test's own: the page fails on binary keys without their "_type" and
// "_val" companions, which other tests leave behind.
class CliE2E : public ::testing::Test {
 protected:
  // The broker's addresses, then `args`.
  Args at(const Args& args) const {
    Args all = {"--url", broker_->endpoints.at(0), "--http", broker_->http};
    all.insert(all.end(), args.begin(), args.end());
    return all;
  }
  // The same for the program in a process of its own, for what runs on while the test acts.
  Args program(const Args& args) const {
    Args all = at(args);
    all.insert(all.begin(), RXMEMORY_CLI_PATH);
    return all;
  }
  // Runs a command that must succeed; returns its standard output.
  std::string ok(const Args& args) const {
    const Row r = run(at(args));
    EXPECT_EQ(0, r.status) << args[0] << ": " << r.err;
    EXPECT_EQ("", r.err) << args[0];
    return r.out;
  }
  // The first line of a watch's stderr starting with `prefix`: a call in flight
  // when the broker went may say first that it failed.
  static std::string errStarting(Child& watch, const std::string& prefix) {
    while (auto line = watch.errLine())
      if (line->rfind(prefix, 0) == 0) return *line;
    return "(no line starting with " + prefix + "; stderr: " + watch.err() + ")";
  }
  // Runs `command`, then reads the next line of a watch without its time of day (format: Printer).
  std::string changeAfter(Child& watch, const Args& command) const {
    ok(command);
    const auto line = watch.readLine();
    return line ? line->substr(std::min<std::size_t>(13, line->size()))
                : "(nothing; stderr: " + watch.err() + ")";
  }
  TempDir dir_;
  std::unique_ptr<BrokerProcess> broker_ = startBroker(dir_);
};

TEST_F(CliE2E, EveryValueKindRoundTripsThroughInsertAndGet) {
  // clang-format off
  const std::vector<Args> cases = {  // typed, get, get --json
      {"5", "5", "5"}, {"-5", "-5", "-5"}, {"5.0", "5.0", "5.0"}, {"0.1", "0.1", "0.1"}, {"true", "true", "true"},
      {"-2.5e-3", "-0.0025", "-0.0025"}, {"\"5\"", "\"5\"", "\"5\""}, {"\"a b\"", "\"a b\"", "\"a b\""},
      {"bare", "\"bare\"", "\"bare\""}, {"two words", "\"two words\"", "\"two words\""}, {"", "\"\"", "\"\""},
      {"\"h\u00e9 \\\"q\\\"\"", "\"h\u00e9 \\\"q\\\"\"", "\"h\u00e9 \\\"q\\\"\""}, {"null", "invalid", "null"},
      {"[1, \"a\", [2.5, null, false]]", "[1, \"a\", [2.5, invalid, false]]", "[1,\"a\",[2.5,null,false]]"},
      {"[]", "[]", "[]"}, {"{\"$binary\": \"AAEC/w==\"}", "<binary 4 bytes>", "{\"$binary\":\"AAEC/w==\"}"}};
  // clang-format on
  Args get = {"get"};
  std::string readable, printed;
  for (std::size_t n = 0; n < cases.size(); ++n) {
    const std::string key = "rt/" + std::to_string(n);
    ok({"insert", key, cases[n][0]});
    get.push_back(key);
    readable += cases[n][1] + "\n";
    printed += cases[n][2] + "\n";
  }
  EXPECT_EQ(readable, ok(get));  // one line per key, in the order asked
  get.push_back("--json");
  EXPECT_EQ(printed, ok(get));
  EXPECT_EQ("[5,\"5\",5.0]\n", ok({"call", "getListData", "[\"rt/0\", \"rt/6\", \"rt/2\"]", "--json"}));
}

TEST_F(CliE2E, CommandsPrintExactlyAndFailuresSayWhatWentWrongAndWhatThereIs) {
  const std::string url = broker_->endpoints.at(0), http = broker_->http;
  const std::string all = "ev/Bump\nev/Empty\nev/Near\nev/data\nev/sub/deep\n";
  // clang-format off
  expectRows({
      {{"raise", "ev/Bump", "1"}}, {{"raise", "ev/Bump", "[2, \"x\"]"}}, {{"raise", "ev/Empty"}},  // no value: invalid
      {{"raise-micro", "ev/Near", "0.5"}}, {{"insert", "ev/data", "7"}}, {{"insert", "ev/sub/deep", "8"}},
      {{"call", "subscribeToEvent", "ev/Bump", "SomeModule", "onEvent"}},
      {{"describe", "ev/data", "seven, as a test"}},
      {{"list", "ev/"}, 0, all}, {{"list", "v/"}, 0, all}, {{"list", "no-such-part"}},  // a word: part of names
      {{"list", "ev/*"}, 0, all}, {{"list", "v/*"}}, {{"list", "ev/?ump"}, 0, "ev/Bump\n"},  // a glob: whole names
      {{"list", "*/d?t?"}, 0, "ev/data\n"},
      {{"list", "ev/", "--json"}, 0, "[\"ev/Bump\",\"ev/Empty\",\"ev/Near\",\"ev/data\",\"ev/sub/deep\"]\n"},
      {{"type", "ev/Bump"}, 0, "Event\n"}, {{"type", "ev/Near"}, 0, "MicroEvent\n"}, {{"type", "ev/data"}, 0, "Data\n"},
      {{"get", "ev/Empty"}, 0, "invalid\n"}, {{"type", "ev/Bump", "--json"}, 0, "\"Event\"\n"},
      {{"subscribers", "ev/Bump"}, 0, "SomeModule\n"}, {{"subscribers", "ev/Near", "--json"}, 0, "[]\n"},
      {{"history", "ev/Near"}, 0, "invalid\n"},  // no history
      {{"descriptions", "ev/data", "ev/Bump"}, 0, "ev/data (data): seven, as a test\nev/Bump (event)\n"},
      {{"descriptions", "ev/data", "ev/Bump", "--json"}, 0, R"([{"description":"seven, as a test","kind":"data",)"
       R"("name":"ev/data"},{"description":"","kind":"event","name":"ev/Bump"}])" "\n"},
      // Each overload of a call, chosen by the kind of its arguments.
      {{"call", "insertData", "call/5", "5"}}, {{"call", "insertData", "call/5.5", "5.5"}},
      {{"call", "insertData", "call/five", "five"}}, {{"call", "insertData", "call/[5]", "[5]"}},
      {{"get", "call/5", "call/5.5", "call/five", "call/[5]", "--json"}, 0, "5\n5.5\n\"five\"\n[5]\n"},
      {{"call", "getData", "call/5.5", "0"}, 0, "5.5\n"},  // the deprecated overload
      {{"call", "getDataList", "call/f"}, 0, "call/five\n"},  // names: one per line
      {{"call", "declareEvent", "call/E", "SomeExtractor"}},  // void: nothing
      {{"call", "declareEvent", "call/E2", "--json"}, 0, "null\n"},
      {{"call", "getExtractorEvent", "SomeExtractor", "--json"}, 0, "[\"call/E\"]\n"},
      {{"call", "addMapping", "CallService", "{\"pinged\": \"call/Pinged\"}"}},  // an object: a string map
      {{"call", "subscriber", "call/E", "--json"}, 0, "{\"$object\":true}\n"},
      {{"call", "subscriber", "call/E"}, 0, "<object>\n"},
      // Failures print nothing on stdout, also when one of several keys is missing.
      {{"get", "rt/none"}, 1, "", "error: RXMemory::getData: Data not found rt/none\n"},
      {{"get", "ev/data", "fail/missing"}, 1, "", "error: RXMemory::getData: Data not found fail/missing\n"},
      {{"remove", "fail/missing"}, 1, "", "error: RXMemory::removeData: Data not found fail/missing\n"},
      {{"describe", "fail/missing", "text"}, 1, "", "error: RXMemory::setDescription: fail/missing not found\n"},
      {{"call", "getDataPtr", "ev/data"}, 1, "", "error: RXMemory::getDataPtr: getDataPtr returns an address that "
       "is only valid inside the broker process and cannot be called remotely\n"},
      {{"call", "getData", "5"}, 1, "", "error: RXMemory: no method getData accepting (int)\ngetData has these "
       "overloads:\n  RXValue getData(string key)\n  RXValue getData(string key, int deprecatedParameter)\n"},
      {{"call", "raiseEvnt", "E"}, 1, "", "error: RXMemory: no method named raiseEvnt\ndid you mean raiseEvent?\n"},
      {{"call", "nosuch"}, 1, "", "error: RXMemory: no method named nosuch\n"},
      {{"methods", "getdata"}, 1, "", "error: RXMemory has no method named getdata\n"
       "did you mean getData, getDataList or getDataListName?\n"},
      {{"--module", "Nobody", "methods"}, 1, "", "error: no module Nobody at " + url + " (Service not found: Nobody)\n"},
      {{"--module", "Nobody", "page"}, 1, "",
       "error: GET " + http + "/Nobody answered 404: No module named Nobody on this broker\n"},
      {{"insert", "fail/b", "99999999999"}, 2, "", "error: bad VALUE '99999999999': 99999999999 does not fit a 32-bit "
       "int (write 99999999999.0 for a float)\nsee `rxmemory insert --help`\n"},
      {{"get", "fail/b"}, 1, "", "error: RXMemory::getData: Data not found fail/b\n"},  // a refused value is not stored
  }, at({}));
  // clang-format on
  EXPECT_NE(std::string::npos, ok({"events"}).find("\nev/Bump\n"));
  EXPECT_NE(std::string::npos, ok({"descriptions"}).find("ev/data (data): seven, as a test\n"));

  // Times are local and readable (their JSON form: cli_test).
  const std::string stamp = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} )";
  EXPECT_TRUE(
      std::regex_match(ok({"history", "ev/Bump"}), std::regex(stamp + "1\n" + stamp + R"(\[2, "x"\]\n)")));
  EXPECT_TRUE(std::regex_match(ok({"timestamp", "ev/data"}), std::regex(stamp + "7\n")));
  expectRows({{{"remove", "ev/data"}}, {{"list", "ev/data"}}}, at({}));
}

TEST_F(CliE2E, WatchPrintsRaisesOfEveryKeyUntilTheCountAndWritesOnlyWithChanges) {
  Child watch(program({"watch", "w/A", "w/B", "--count", "2"}), Stderr::Pipe);
  EXPECT_EQ("watching w/A, w/B... (Ctrl-C to stop)", watch.errLine().value_or(watch.err()));
  ok({"insert", "w/A", "0"});  // plain insertion: not a raise
  EXPECT_EQ("w/A 1", changeAfter(watch, {"raise", "w/A", "1"}));
  EXPECT_EQ("w/B \"x\"", changeAfter(watch, {"raise-micro", "w/B", "\"x\""}));
  EXPECT_EQ(0, watch.finish()) << "watch did not end after 2 raises: " << watch.err();

  Child changes(program({"watch", "w/A", "--changes", "--interval", "0.05", "--count", "3"}), Stderr::Pipe);
  ASSERT_TRUE(changes.errLine()) << changes.err();
  EXPECT_EQ("w/A 2 (write)", changeAfter(changes, {"insert", "w/A", "2"}));
  EXPECT_EQ("w/A 3", changeAfter(changes, {"raise", "w/A", "3"}));
  EXPECT_EQ("w/A 4 (write)", changeAfter(changes, {"insert", "w/A", "4"}))
      << "a raise printed again as a write?";
  EXPECT_EQ(0, changes.finish());

  // --json: one document per raise; a missing plain name is declared as an event.
  Child json1(program({"watch", "w/New", "--count", "1", "--json"}), Stderr::Pipe);
  ASSERT_TRUE(json1.errLine()) << json1.err();
  EXPECT_EQ("Event\n", ok({"type", "w/New"}));
  ok({"raise", "w/New", "{\"$binary\": \"AAE=\"}"});
  json j = json::parse(json1.readLine().value_or("{}"));
  EXPECT_TRUE(
      std::regex_match(j["time"].get<std::string>(), std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z)")))
      << j;
  j.erase("time");
  EXPECT_EQ(json::parse(R"({"key": "w/New", "kind": "raise", "value": {"$binary": "AAE="}})"), j);
  EXPECT_EQ(0, json1.finish());
}

TEST_F(CliE2E, WatchPatternFollowsKeysAddedLaterCreatesNoneAndFollowsAgainAfterARestart) {
  const std::string url = broker_->endpoints.at(0);
  ok({"insert", "pat/A", "0"});
  Child watch(program({"watch", "rs/K", "pat/*"}), Stderr::Pipe);
  EXPECT_EQ("watching rs/K, pat/*... (Ctrl-C to stop)", watch.errLine().value_or(watch.err()));
  EXPECT_EQ("pat/A\n", ok({"list", "pat"}));
  EXPECT_EQ("pat/A 1", changeAfter(watch, {"raise", "pat/A", "1"}));
  // A new key: its raise, or, when that went before the key was followed, the key.
  const std::string created = changeAfter(watch, {"raise", "pat/B", "2"});
  EXPECT_TRUE(created == "pat/B 2 (new)" || created == "pat/B 2") << created;
  EXPECT_EQ("pat/B 3", changeAfter(watch, {"raise", "pat/B", "3"}));
  // Made without "RXMemory/KeyAdded": found by listing.
  EXPECT_EQ("pat/C invalid (new)", changeAfter(watch, {"call", "subscriber", "pat/C"}));

  broker_->stop(SIGTERM);
  EXPECT_EQ("broker gone, waiting for it at " + url + "... (Ctrl-C to stop)",
            errStarting(watch, "broker gone"));
  broker_ = startBroker(dir_, url);  // the same port
  EXPECT_EQ("broker back at " + url + ", following again", errStarting(watch, "broker back"));
  // Said once every key is followed again: the first raises after it show.
  EXPECT_EQ("rs/K 1", changeAfter(watch, {"raise", "rs/K", "1"}));
  const std::string later = changeAfter(watch, {"raise", "pat/L", "2"});
  EXPECT_TRUE(later == "pat/L 2 (new)" || later == "pat/L 2") << later;
  watch.signal(SIGINT);
  EXPECT_EQ(0, watch.finish());
  EXPECT_EQ("", watch.out() + watch.err());
}

TEST_F(CliE2E, MethodsShowThePublishedTexts) {
  EXPECT_EQ(
      "pointer getDataPtr(string key)\n"
      "    Gets a pointer to 32 a bit data item. Beware, the pointer will only be valid during the "
      "lifetime of the RXMemory object. Use with care, at initialization, not every loop.\n"
      "    key: Name of the data.\n"
      "    returns ptr: A pointer converted to int\n"
      "    mask 4: not callable from another process\n",
      ok({"methods", "getDataPtr"}));
  // The module first, then every method, overloads too, each after a blank line.
  const std::string all = ok({"methods"});
  EXPECT_EQ(
      0u, all.find("RXMemory: RXMemory provides a centralized memory that can be used to store and retrieve "
                   "named values. It also acts as a hub for the distribution of event notifications.\n\n"
                   "void declareEvent(string eventName)\n"));
  EXPECT_NE(std::string::npos,
            all.find("\n\nRXValue getData(string key, int deprecatedParameter)\n    DEPRECATED"));
  const std::string names = ok({"methods", "--names"});
  EXPECT_EQ(0u, names.find("_insertObject\n_perf\n")) << names;
  EXPECT_NE(std::string::npos, names.find("\ngetData\ngetDataList\ngetDataListName\n")) << names;

  const json doc = json::parse(ok({"methods", "--json"}));
  EXPECT_EQ(41, std::count_if(doc["methods"].begin(), doc["methods"].end(),
                              [](const json& m) { return m["className"] == "RXMemory"; }));
  const json insert = json::parse(ok({"methods", "insertData", "--json"}))["methods"];
  ASSERT_EQ(4u, insert.size());
  EXPECT_EQ("float", insert[1]["parameters"][1]["type"]);
}

TEST_F(CliE2E, PageShowsTheMemory) {
  ok({"insert", "page/Key", "\"page value\""});
  const std::string html = ok({"page"});
  EXPECT_EQ(0u, html.find("<html><head>"));
  EXPECT_NE(std::string::npos, html.find("<tr><td>page/Key</td><td>\nstring</td>\n<td>\"page value\"</td>"));
  EXPECT_NE(std::string::npos, json::parse(ok({"page", "--json"})).get<std::string>().find("page/Key"));
  ok({"insert", "page/Bin", "{\"$binary\": \"AAE=\"}"});
  const Row r = run(at({"page"}));
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("error: GET " + broker_->http +
                "/RXMemory answered 500: The page of RXMemory failed: "
                "RXMemory::getData: Data not found page/Bin_type (rxbase/src/rxmemory.cpp:",
            r.err.substr(0, r.err.find("cpp:") + 4));
}

TEST_F(CliE2E, EnvironmentAndCompletionFindTheBroker) {
  ok({"insert", "env/K", "1"});
  Child byEnv({"/usr/bin/env", "RXMEMORY_URL=" + broker_->endpoints.at(0), RXMEMORY_CLI_PATH, "get", "env/K"},
              Stderr::Pipe);
  EXPECT_EQ(0, byEnv.finish());
  EXPECT_EQ("1\n", byEnv.out());
  Child badEnv({"/usr/bin/env", "RXMEMORY_URL=nowhere", RXMEMORY_CLI_PATH, "get", "env/K"}, Stderr::Pipe);
  EXPECT_EQ(2, badEnv.finish());
  EXPECT_EQ(0u, badEnv.err().find("error: bad --url (from RXMEMORY_URL): invalid endpoint 'nowhere'"));

  // Words typed so far -> what Tab offers.
  const std::string url = broker_->endpoints.at(0);
  // clang-format off
  const std::vector<std::pair<Args, std::string>> cases = {
      {{"ca"}, "call"}, {{"micro"}, "micro-events"}, {{"get", "--js"}, "--json"}, {{"watch", "--ch"}, "--changes"},
      {{"--url", url, "call", "getDataL"}, "getDataList getDataListName"}, {{"--url", url, "get", "env/"}, "env/K"},
      {{"--url", "tcp://127.0.0.1:1", "call", "get"}, ""}};  // no broker: nothing, quickly
  // clang-format on
  for (const auto& [words, offered] : cases) {
    Args args = {
        "/bin/bash", "-c",
        "source \"$0\"; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _rxmemory; echo \"${COMPREPLY[*]}\"",
        RXMEMORY_COMPLETION_PATH, RXMEMORY_CLI_PATH};
    args.insert(args.end(), words.begin(), words.end());
    Child bash(args, Stderr::Pipe);
    EXPECT_EQ(0, bash.finish());
    EXPECT_EQ(offered + "\n", bash.out()) << words.back() << ": " << bash.err();
  }
}

}  // namespace
