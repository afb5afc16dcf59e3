// End to end: the rxmemory program against a real rxbroker on free ports.
#include <gtest/gtest.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <regex>

#include "support/process.h"

namespace {

using nlohmann::json;
using testsupport::BrokerProcess;
using testsupport::Child;
using testsupport::Stderr;
using testsupport::TempDir;
using Args = std::vector<std::string>;

std::unique_ptr<BrokerProcess> startBroker(const TempDir& dir,
                                           const std::string& listen = "tcp://127.0.0.1:0") {
  return std::make_unique<BrokerProcess>(RX_BROKER_PATH, dir.path, Args{listen},
                                         Args{"--http", "127.0.0.1:0"});
}

// A command line, what it exits with and prints. Rows run in order, so a row
// may store what a later row reads.
struct Row {
  Row(Args a, int s = 0, std::string o = "", std::string e = "")
      : args(std::move(a)), status(s), out(std::move(o)), err(std::move(e)) {}
  Args args;
  int status;
  std::string out, err;
};

class CliE2E : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { broker_ = startBroker(dir_); }
  static void TearDownTestSuite() { broker_.reset(); }

  static Args argv(const Args& args, const BrokerProcess* broker = nullptr) {
    if (!broker) broker = broker_.get();
    Args all = {RXMEMORY_CLI_PATH, "--url", broker->endpoints.at(0), "--http", broker->http};
    all.insert(all.end(), args.begin(), args.end());
    return all;
  }
  static Row rx(const Args& args, const BrokerProcess* broker = nullptr) {
    Child p(argv(args, broker), Stderr::Pipe);
    const int status = p.finish();
    return {args, status, p.out(), p.err()};
  }
  // Runs a command that must succeed; returns its standard output.
  static std::string ok(const Args& args, const BrokerProcess* broker = nullptr) {
    const Row r = rx(args, broker);
    EXPECT_EQ(0, r.status) << args[0] << ": " << r.err;
    EXPECT_EQ("", r.err) << args[0];
    return r.out;
  }
  static void expectRows(const std::vector<Row>& rows, const BrokerProcess* broker = nullptr) {
    for (const Row& row : rows) {
      const Row got = rx(row.args, broker);
      SCOPED_TRACE(row.args[0] + " " + (row.args.size() > 1 ? row.args[1] : ""));
      EXPECT_EQ(row.status, got.status);
      EXPECT_EQ(row.out, got.out);
      EXPECT_EQ(row.err, got.err);
    }
  }
  // The first line of a watch's stderr starting with `prefix`: a call in flight
  // when the broker went may say first that it failed.
  static std::string errStarting(Child& watch, const std::string& prefix) {
    while (auto line = watch.errLine())
      if (line->rfind(prefix, 0) == 0) return *line;
    return "(no line starting with " + prefix + "; stderr: " + watch.err() + ")";
  }
  // Runs `command`, then reads the next line of a watch without its time of
  // day (or says why there is none).
  static std::string changeAfter(Child& watch, const Args& command, const BrokerProcess* broker = nullptr) {
    ok(command, broker);
    const auto line = watch.readLine();
    if (!line) return "(nothing printed; stderr: " + watch.err() + ")";
    std::smatch m;
    static const std::regex timed(R"(\d\d:\d\d:\d\d\.\d{3} (.*))");
    return std::regex_match(*line, m, timed) ? m[1].str() : "(not a change line: " + *line + ")";
  }
  static TempDir dir_;
  static std::unique_ptr<BrokerProcess> broker_;
};
TempDir CliE2E::dir_;
std::unique_ptr<BrokerProcess> CliE2E::broker_;

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
  // One command for all the keys: a process per key would take long under the sanitizers.
  Args get = {"get"}, again = {"--json", "get"};
  std::string readable, printed;
  for (std::size_t n = 0; n < cases.size(); ++n) {
    const std::string key = "rt/" + std::to_string(n);
    ok({"insert", key, cases[n][0]});
    ok({"insert", key + "/again", cases[n][2]});  // what --json prints goes back in unchanged
    get.push_back(key);
    again.push_back(key + "/again");
    readable += cases[n][1] + "\n";
    printed += cases[n][2] + "\n";
  }
  EXPECT_EQ(readable, ok(get));  // one line per key, in the order asked
  get.push_back("--json");
  EXPECT_EQ(printed, ok(get));
  EXPECT_EQ(printed, ok(again));
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
  });
  // clang-format on
  EXPECT_NE(std::string::npos, ok({"events"}).find("\nev/Bump\n"));
  EXPECT_NE(std::string::npos, ok({"descriptions"}).find("ev/data (data): seven, as a test\n"));

  // Times are local and readable (their JSON form: cli_test).
  const std::string stamp = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} )";
  EXPECT_TRUE(
      std::regex_match(ok({"history", "ev/Bump"}), std::regex(stamp + "1\n" + stamp + R"(\[2, "x"\]\n)")));
  EXPECT_TRUE(std::regex_match(ok({"timestamp", "ev/data"}), std::regex(stamp + "7\n")));
  expectRows({{{"remove", "ev/data"}}, {{"list", "ev/data"}}});
}

TEST_F(CliE2E, WatchPrintsRaisesOfEveryKeyUntilTheCountAndWritesOnlyWithChanges) {
  Child watch(argv({"watch", "w/A", "w/B", "--count", "2"}), Stderr::Pipe);
  EXPECT_EQ("watching w/A, w/B... (Ctrl-C to stop)", watch.errLine().value_or(watch.err()));
  ok({"insert", "w/A", "0"});  // plain insertion: not a raise
  EXPECT_EQ("w/A 1", changeAfter(watch, {"raise", "w/A", "1"}));
  EXPECT_EQ("w/B \"x\"", changeAfter(watch, {"raise-micro", "w/B", "\"x\""}));
  EXPECT_EQ(0, watch.finish()) << "watch did not end after 2 raises: " << watch.err();

  Child changes(argv({"watch", "w/A", "--changes", "--interval", "0.05", "--count", "3"}), Stderr::Pipe);
  ASSERT_TRUE(changes.errLine()) << changes.err();
  EXPECT_EQ("w/A 2 (write)", changeAfter(changes, {"insert", "w/A", "2"}));
  EXPECT_EQ("w/A 3", changeAfter(changes, {"raise", "w/A", "3"}));
  EXPECT_EQ("w/A 4 (write)", changeAfter(changes, {"insert", "w/A", "4"}))
      << "a raise printed again as a write?";
  EXPECT_EQ(0, changes.finish());

  // --json: one document per raise; a missing plain name is declared as an event.
  Child json1(argv({"watch", "w/New", "--count", "1", "--json"}), Stderr::Pipe);
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

// A broker of its own, which the test restarts.
TEST_F(CliE2E, WatchPatternFollowsKeysAddedLaterCreatesNoneAndFollowsAgainAfterARestart) {
  TempDir dir;
  auto broker = startBroker(dir);
  const BrokerProcess* b = broker.get();
  const std::string url = b->endpoints.at(0);
  ok({"insert", "pat/A", "0"}, b);
  Child watch(argv({"watch", "rs/K", "pat/*"}, b), Stderr::Pipe);
  EXPECT_EQ("watching rs/K, pat/*... (Ctrl-C to stop)", watch.errLine().value_or(watch.err()));
  EXPECT_EQ("pat/A\n", ok({"list", "pat"}, b));
  EXPECT_EQ("pat/A 1", changeAfter(watch, {"raise", "pat/A", "1"}, b));
  // A new key: its raise, or, when that went before the key was followed, the key.
  const std::string created = changeAfter(watch, {"raise", "pat/B", "2"}, b);
  EXPECT_TRUE(created == "pat/B 2 (new)" || created == "pat/B 2") << created;
  EXPECT_EQ("pat/B 3", changeAfter(watch, {"raise", "pat/B", "3"}, b));
  // Made without "RXMemory/KeyAdded": found by listing.
  EXPECT_EQ("pat/C invalid (new)", changeAfter(watch, {"call", "subscriber", "pat/C"}, b));

  broker->stop(SIGTERM);
  EXPECT_EQ("broker gone, waiting for it at " + url + "... (Ctrl-C to stop)",
            errStarting(watch, "broker gone"));
  broker = startBroker(dir, url);  // the same port
  b = broker.get();
  EXPECT_EQ("broker back at " + url + ", following again", errStarting(watch, "broker back"));
  EXPECT_EQ("rs/K 1", changeAfter(watch, {"raise", "rs/K", "1"}, b));
  const std::string again = changeAfter(watch, {"raise", "pat/L", "2"}, b);
  EXPECT_TRUE(again == "pat/L 2 (new)" || again == "pat/L 2") << again;
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
  // A broker of its own: the page fails on binary keys without their
  // "_type" and "_val" companions, which other tests leave behind.
  TempDir dir;
  auto broker = startBroker(dir);
  ok({"insert", "page/Key", "\"page value\""}, broker.get());
  const std::string html = ok({"page"}, broker.get());
  EXPECT_EQ(0u, html.find("<html><head>"));
  EXPECT_NE(std::string::npos, html.find("<tr><td>page/Key</td><td>\nstring</td>\n<td>\"page value\"</td>"));
  EXPECT_NE(std::string::npos,
            json::parse(ok({"page", "--json"}, broker.get())).get<std::string>().find("page/Key"));
  ok({"insert", "page/Bin", "{\"$binary\": \"AAE=\"}"}, broker.get());
  const Row r = rx({"page"}, broker.get());
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("error: GET " + broker->http +
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
