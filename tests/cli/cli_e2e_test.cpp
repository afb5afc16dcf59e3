// End to end: the rxmemory program against a real rxbroker on free ports.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>
#include <vector>

#include "cliprocess.h"

namespace {

using clitest::CliProcess;
using nlohmann::json;

const std::regex kIsoTime(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z)");

// rxbroker on `listen` (a free TCP port by default), its status pages on a
// free port and its data path in a temporary directory.
class Broker {
 public:
  explicit Broker(const std::string& listen = "tcp://127.0.0.1:0") {
    char tmpl[] = "/tmp/rxcli-XXXXXX";
    dir_ = ::mkdtemp(tmpl);
    process_ = std::make_unique<CliProcess>(std::vector<std::string>{RX_BROKER_PATH, "--listen", listen,
                                                                     "--http", "127.0.0.1:0", "--data-path",
                                                                     dir_, "--log", "*=error"});
    const std::string listening = "rxbroker: listening on ", pages = "rxbroker: status pages on ";
    while (auto line = process_->outLine()) {
      if (line->rfind(listening, 0) == 0) url = line->substr(listening.size());
      if (line->rfind(pages, 0) == 0) http = line->substr(pages.size(), line->rfind('/') - pages.size());
      if (*line == "rxbroker: press Ctrl-C to stop") return;
    }
    throw std::runtime_error("rxbroker did not start: " + process_->err());
  }
  ~Broker() {
    process_.reset();
    std::system(("rm -rf '" + dir_ + "'").c_str());
  }
  void stop() {
    process_->kill(SIGTERM);
    process_->finish();
  }
  std::string url;   // tcp://127.0.0.1:PORT
  std::string http;  // http://127.0.0.1:PORT

 private:
  std::string dir_;
  std::unique_ptr<CliProcess> process_;
};

struct Outcome {
  int status;
  std::string out;
  std::string err;
};

class CliE2E : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { broker_ = std::make_unique<Broker>(); }
  static void TearDownTestSuite() { broker_.reset(); }

  static std::vector<std::string> argv(const std::vector<std::string>& args, const Broker* broker = nullptr) {
    if (!broker) broker = broker_.get();
    std::vector<std::string> all = {RXMEMORY_CLI_PATH, "--url", broker->url, "--http", broker->http};
    all.insert(all.end(), args.begin(), args.end());
    return all;
  }
  static Outcome rx(const std::vector<std::string>& args, const Broker* broker = nullptr) {
    CliProcess p(argv(args, broker));
    const int status = p.finish();
    return {status, p.out(), p.err()};
  }
  // Runs a command that must succeed; returns its standard output.
  static std::string ok(const std::vector<std::string>& args, const Broker* broker = nullptr) {
    const Outcome o = rx(args, broker);
    std::string joined;
    for (const std::string& a : args) joined += " " + a;
    EXPECT_EQ(0, o.status) << "rxmemory" << joined << ": " << o.err;
    EXPECT_EQ("", o.err) << "rxmemory" << joined;
    return o.out;
  }
  // The next line of a watch without its time of day, or why there is none.
  static std::string nextChange(CliProcess& watch) {
    const auto line = watch.outLine();
    if (!line) return "(nothing printed; stderr: " + watch.err() + ")";
    std::smatch m;
    static const std::regex timed(R"(\d\d:\d\d:\d\d\.\d{3} (.*))");
    return std::regex_match(*line, m, timed) ? m[1].str() : "(not a change line: " + *line + ")";
  }
  static std::unique_ptr<Broker> broker_;
};
std::unique_ptr<Broker> CliE2E::broker_;

TEST_F(CliE2E, EveryValueKindRoundTripsThroughInsertAndGet) {
  // clang-format off
  const std::vector<std::vector<std::string>> cases = {  // typed, get, get --json
      {"5", "5", "5"}, {"-5", "-5", "-5"}, {"5.0", "5.0", "5.0"}, {"0.1", "0.1", "0.1"}, {"true", "true", "true"},
      {"-2.5e-3", "-0.0025", "-0.0025"}, {"\"5\"", "\"5\"", "\"5\""}, {"\"a b\"", "\"a b\"", "\"a b\""},
      {"bare", "\"bare\"", "\"bare\""}, {"two words", "\"two words\"", "\"two words\""}, {"", "\"\"", "\"\""},
      {"\"h\u00e9 \\\"q\\\"\"", "\"h\u00e9 \\\"q\\\"\"", "\"h\u00e9 \\\"q\\\"\""}, {"null", "invalid", "null"},
      {"[1, \"a\", [2.5, null, false]]", "[1, \"a\", [2.5, invalid, false]]", "[1,\"a\",[2.5,null,false]]"},
      {"[]", "[]", "[]"}, {"{\"$binary\": \"AAEC/w==\"}", "<binary 4 bytes>", "{\"$binary\":\"AAEC/w==\"}"}};
  // clang-format on
  for (std::size_t n = 0; n < cases.size(); ++n) {
    SCOPED_TRACE("typed: " + cases[n][0]);
    const std::string key = "rt/" + std::to_string(n);
    ok({"insert", key, cases[n][0]});
    EXPECT_EQ(cases[n][1] + "\n", ok({"get", key}));
    EXPECT_EQ(cases[n][2] + "\n", ok({"get", key, "--json"}));
    ok({"insert", key + "/again", cases[n][2]});  // what --json prints goes back in unchanged
    EXPECT_EQ(cases[n][2] + "\n", ok({"--json", "get", key + "/again"}));
    EXPECT_EQ("Data\n", ok({"type", key}));
  }
  EXPECT_EQ("5\n\"bare\"\n", ok({"get", "rt/0", "rt/8"}));  // one line per key, in the order asked
  EXPECT_EQ("[5,\"5\",5.0]\n", ok({"call", "getListData", "[\"rt/0\", \"rt/6\", \"rt/2\"]", "--json"}));
}

TEST_F(CliE2E, FailuresSayWhatWentWrongAndWhatThereIs) {
  ok({"insert", "fail/a", "1"});
  const std::string url = broker_->url, http = broker_->http;
  // clang-format off
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"get", "rt/none"}, "error: RXMemory::getData: Data not found rt/none\n"},
      {{"get", "fail/a", "fail/missing"}, "error: RXMemory::getData: Data not found fail/missing\n"},
      {{"remove", "fail/missing"}, "error: RXMemory::removeData: Data not found fail/missing\n"},
      {{"describe", "fail/missing", "text"}, "error: RXMemory::setDescription: fail/missing not found\n"},
      {{"call", "getDataPtr", "fail/a"}, "error: RXMemory::getDataPtr: getDataPtr returns an address that is "
       "only valid inside the broker process and cannot be called remotely\n"},
      {{"call", "getData", "5"}, "error: RXMemory: no method getData accepting (int)\ngetData has these "
       "overloads:\n  RXValue getData(string key)\n  RXValue getData(string key, int deprecatedParameter)\n"},
      {{"call", "raiseEvnt", "E"}, "error: RXMemory: no method named raiseEvnt\ndid you mean raiseEvent?\n"},
      {{"call", "nosuch"}, "error: RXMemory: no method named nosuch\n"},
      {{"methods", "getdata"}, "error: RXMemory has no method named getdata\n"
       "did you mean getData, getDataList or getDataListName?\n"},
      {{"--module", "Nobody", "methods"}, "error: no module Nobody at " + url + " (Service not found: Nobody)\n"},
      {{"--module", "Nobody", "page"},
       "error: GET " + http + "/Nobody answered 404: No module named Nobody on this broker\n"}};
  // clang-format on
  for (const auto& [args, err] : cases) {
    SCOPED_TRACE(args[1]);
    const Outcome o = rx(args);
    EXPECT_EQ(1, o.status);
    EXPECT_EQ("", o.out);  // also no partial output when one of several keys is missing
    EXPECT_EQ(err, o.err);
  }
  const Outcome bad = rx({"insert", "fail/b", "{\"a\": 1}"});
  EXPECT_EQ(2, bad.status);
  EXPECT_EQ("see `rxmemory insert --help`\n", bad.err.substr(bad.err.find('\n') + 1));
  EXPECT_EQ(1, rx({"get", "fail/b"}).status) << "a refused value must not be stored";
}

TEST_F(CliE2E, EventsListsDescriptionsAndHistory) {
  ok({"raise", "ev/Bump", "1"});
  ok({"raise", "ev/Bump", "[2, \"x\"]"});
  ok({"raise", "ev/Empty"});  // no value: invalid
  ok({"raise-micro", "ev/Near", "0.5"});
  ok({"insert", "ev/data", "7"});
  ok({"insert", "ev/sub/deep", "8"});
  ok({"call", "subscribeToEvent", "ev/Bump", "SomeModule", "onEvent"});
  ok({"describe", "ev/data", "seven, as a test"});
  const std::string all = "ev/Bump\nev/Empty\nev/Near\nev/data\nev/sub/deep\n";
  // clang-format off
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"list", "ev/"}, all}, {{"list", "v/"}, all}, {{"list", "no-such-part"}, ""},  // a word: part of names
      {{"list", "ev/*"}, all}, {{"list", "v/*"}, ""}, {{"list", "ev/?ump"}, "ev/Bump\n"},  // a glob: whole names
      {{"list", "*/d?t?"}, "ev/data\n"},
      {{"list", "ev/", "--json"}, "[\"ev/Bump\",\"ev/Empty\",\"ev/Near\",\"ev/data\",\"ev/sub/deep\"]\n"},
      {{"type", "ev/Bump"}, "Event\n"}, {{"type", "ev/Near"}, "MicroEvent\n"}, {{"get", "ev/Empty"}, "invalid\n"},
      {{"type", "ev/Bump", "--json"}, "\"Event\"\n"}, {{"subscribers", "ev/Bump"}, "SomeModule\n"},
      {{"subscribers", "ev/Near", "--json"}, "[]\n"}, {{"history", "ev/Near"}, "invalid\n"},  // no history
      {{"descriptions", "ev/data", "ev/Bump"}, "ev/data (data): seven, as a test\nev/Bump (event)\n"},
      {{"descriptions", "ev/data", "ev/Bump", "--json"}, R"([{"description":"seven, as a test","kind":"data",)"
       R"("name":"ev/data"},{"description":"","kind":"event","name":"ev/Bump"}])" "\n"}};
  // clang-format on
  for (const auto& [args, out] : cases) EXPECT_EQ(out, ok(args)) << args[0] << " " << args[1];
  EXPECT_NE(std::string::npos, ok({"events"}).find("\nev/Bump\n"));
  EXPECT_NE(std::string::npos, ok({"descriptions"}).find("ev/data (data): seven, as a test\n"));

  // Times: local and readable, or named fields with --json.
  const std::string stamp = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} )";
  EXPECT_TRUE(
      std::regex_match(ok({"history", "ev/Bump"}), std::regex(stamp + "1\n" + stamp + R"(\[2, "x"\]\n)")));
  EXPECT_TRUE(std::regex_match(ok({"timestamp", "ev/data"}), std::regex(stamp + "7\n")));
  const json t = json::parse(ok({"timestamp", "ev/data", "--json"}));
  EXPECT_EQ(7, t["value"]);
  EXPECT_TRUE(std::regex_match(t["time"].get<std::string>(), kIsoTime)) << t;
  EXPECT_EQ(t["microseconds"].get<int>(), std::stoi(t["time"].get<std::string>().substr(20, 6))) << t;
  const json h = json::parse(ok({"history", "ev/Bump", "--json"}));
  ASSERT_EQ(2u, h.size()) << h;
  EXPECT_EQ(json::parse("[2, \"x\"]"), h[1]["value"]);
  EXPECT_LE(h[0]["seconds"].get<long>(), h[1]["seconds"].get<long>());
  ok({"remove", "ev/data"});
  EXPECT_EQ("", ok({"list", "ev/data"}));
}

TEST_F(CliE2E, WatchPrintsRaisesOfEveryKeyUntilTheCount) {
  CliProcess watch(argv({"watch", "w/A", "w/B", "--count", "2"}));
  EXPECT_EQ("watching w/A, w/B... (Ctrl-C to stop)", watch.errLine().value_or(watch.err()));
  ok({"insert", "w/A", "0"});  // plain insertion: not a raise
  ok({"raise", "w/A", "1"});
  EXPECT_EQ("w/A 1", nextChange(watch));
  ok({"raise-micro", "w/B", "\"x\""});
  EXPECT_EQ("w/B \"x\"", nextChange(watch));
  EXPECT_EQ(0, watch.finish()) << "watch did not end after 2 raises: " << watch.err();

  // --json: one document per raise; a missing plain name is declared as an event.
  CliProcess json1(argv({"watch", "w/New", "--count", "1", "--json"}));
  ASSERT_TRUE(json1.errLine()) << json1.err();
  EXPECT_EQ("Event\n", ok({"type", "w/New"}));
  ok({"raise", "w/New", "{\"$binary\": \"AAE=\"}"});
  const json j = json::parse(json1.outLine().value_or("{}"));
  EXPECT_EQ(json::parse(R"({"$binary": "AAE="})"), j["value"]);
  EXPECT_EQ("w/New", j["key"]);
  EXPECT_EQ("raise", j["kind"]);
  EXPECT_TRUE(std::regex_match(j["time"].get<std::string>(), kIsoTime)) << j;
  EXPECT_EQ(0, json1.finish());
}

TEST_F(CliE2E, WatchPatternFollowsKeysAddedLaterAndCreatesNone) {
  ok({"insert", "pat/A", "0"});
  CliProcess watch(argv({"watch", "pat/*"}));
  EXPECT_EQ("watching pat/*... (Ctrl-C to stop)", watch.errLine().value_or(watch.err()));
  EXPECT_EQ("pat/A\n", ok({"list", "pat"}));
  ok({"raise", "pat/A", "1"});
  EXPECT_EQ("pat/A 1", nextChange(watch));
  ok({"raise", "pat/B",
      "2"});  // a new key: its raise, or, when that went before the key was followed, the key
  const std::string created = nextChange(watch);
  EXPECT_TRUE(created == "pat/B 2 (new)" || created == "pat/B 2") << created;
  ok({"raise", "pat/B", "3"});
  EXPECT_EQ("pat/B 3", nextChange(watch));
  ok({"call", "subscriber", "pat/C"});  // made without "RXMemory/KeyAdded": found by listing
  EXPECT_EQ("pat/C invalid (new)", nextChange(watch));
  watch.kill(SIGINT);
  EXPECT_EQ(0, watch.finish());
  EXPECT_EQ("", watch.out() + watch.err());
}

TEST_F(CliE2E, WatchChangesMarksPlainWritesAndPrintsRaisesOnce) {
  ok({"insert", "chg/A", "1"});
  CliProcess watch(argv({"watch", "chg/A", "--changes", "--interval", "0.05", "--count", "3"}));
  ASSERT_TRUE(watch.errLine()) << watch.err();
  ok({"insert", "chg/A", "2"});
  EXPECT_EQ("chg/A 2 (write)", nextChange(watch));
  ok({"raise", "chg/A", "3"});
  EXPECT_EQ("chg/A 3", nextChange(watch));
  ok({"insert", "chg/A", "4"});
  EXPECT_EQ("chg/A 4 (write)", nextChange(watch)) << "a raise printed again as a write?";
  EXPECT_EQ(0, watch.finish());
}

TEST_F(CliE2E, WatchFollowsAgainAfterTheBrokerRestarts) {
  auto broker = std::make_unique<Broker>();
  const std::string url = broker->url;
  CliProcess watch(argv({"watch", "rs/K", "rs/*"}, broker.get()));
  ASSERT_TRUE(watch.errLine()) << watch.err();
  broker->stop();
  EXPECT_EQ("broker gone, waiting for it at " + url + "... (Ctrl-C to stop)",
            watch.errLine().value_or(watch.err()));
  broker = std::make_unique<Broker>(url);  // the same port
  EXPECT_EQ("broker back at " + url + ", following again", watch.errLine().value_or(watch.err()));
  ok({"raise", "rs/K", "1"}, broker.get());
  EXPECT_EQ("rs/K 1", nextChange(watch));
  ok({"raise", "rs/L", "2"}, broker.get());
  const std::string created = nextChange(watch);
  EXPECT_TRUE(created == "rs/L 2 (new)" || created == "rs/L 2") << created;
  watch.kill(SIGTERM);
  EXPECT_EQ(0, watch.finish());
}

TEST_F(CliE2E, MethodsShowThePublishedTexts) {
  EXPECT_EQ(
      "RXValue getData(string key)\n"
      "    Gets the value of a key-value pair stored in memory\n"
      "    key: Name of the value.\n"
      "    returns data: The data as an RXValue. This can often be cast transparently into the original "
      "type.\n"
      "\n"
      "RXValue getData(string key, int deprecatedParameter)\n"
      "    DEPRECATED - Gets the value of a key-value pair stored in memory. Please use the version of this "
      "method "
      "with no second parameter.\n"
      "    key: Name of the value.\n"
      "    deprecatedParameter: DEPRECATED - This parameter has no effect, but is left for compatibility "
      "reason.\n"
      "    returns data: The data as an RXValue\n",
      ok({"methods", "getData"}));
  EXPECT_NE(std::string::npos,
            ok({"methods", "getDataPtr"}).find("    mask 4: not callable from another process\n"));
  const std::string all = ok({"methods"});
  EXPECT_EQ(
      0u, all.find("RXMemory: RXMemory provides a centralized memory that can be used to store and retrieve "
                   "named values. It also acts as a hub for the distribution of event notifications.\n"));
  EXPECT_NE(std::string::npos, all.find("void subscribeToEvent(string name, string callbackModule, string "
                                        "callbackMessage, string callbacMethod)\n"));
  const std::string names = ok({"methods", "--names"});
  EXPECT_EQ(0u, names.find("_insertObject\n_perf\n")) << names;
  EXPECT_NE(std::string::npos, names.find("\ngetData\ngetDataList\ngetDataListName\n")) << names;

  const json doc = json::parse(ok({"methods", "--json"}));
  std::size_t memoryMethods = 0;
  for (const json& m : doc["methods"]) memoryMethods += m["className"] == "RXMemory" ? 1 : 0;
  EXPECT_EQ(41u, memoryMethods);
  const json insert = json::parse(ok({"methods", "insertData", "--json"}))["methods"];
  ASSERT_EQ(4u, insert.size());
  EXPECT_EQ("Inserts a key-value pair into memory, where value is a float", insert[1]["description"]);
  EXPECT_EQ("float", insert[1]["parameters"][1]["type"]);
}

TEST_F(CliE2E, CallReachesEveryOverload) {
  for (const char* v : {"5", "5.5", "five", "[5]"}) ok({"call", "insertData", std::string("call/") + v, v});
  EXPECT_EQ("5\n5.5\n\"five\"\n[5]\n", ok({"get", "call/5", "call/5.5", "call/five", "call/[5]", "--json"}));
  EXPECT_EQ("5.5\n", ok({"call", "getData", "call/5.5", "0"}));            // the deprecated overload
  EXPECT_EQ("call/five\n", ok({"call", "getDataList", "call/f"}));         // names: one per line
  EXPECT_EQ("", ok({"call", "declareEvent", "call/E", "SomeExtractor"}));  // void: nothing
  EXPECT_EQ("null\n", ok({"call", "declareEvent", "call/E2", "--json"}));
  EXPECT_EQ("[\"call/E\"]\n", ok({"call", "getExtractorEvent", "SomeExtractor", "--json"}));
  ok({"call", "addMapping", "CallService", "{\"pinged\": \"call/Pinged\"}"});  // an object: a string map
  EXPECT_EQ("{\"$object\":true}\n", ok({"call", "subscriber", "call/E", "--json"}));
  EXPECT_EQ("<object>\n", ok({"call", "subscriber", "call/E"}));
}

TEST_F(CliE2E, PageShowsTheMemory) {
  // A broker of its own: the page fails on binary keys without their
  // "_type" and "_val" companions, which other tests leave behind.
  Broker broker;
  ok({"insert", "page/Key", "\"page value\""}, &broker);
  const std::string html = ok({"page"}, &broker);
  EXPECT_EQ(0u, html.find("<html><head>"));
  EXPECT_NE(std::string::npos, html.find("<tr><td>page/Key</td><td>\nstring</td>\n<td>\"page value\"</td>"));
  EXPECT_NE(std::string::npos,
            json::parse(ok({"page", "--json"}, &broker)).get<std::string>().find("page/Key"));
  ok({"insert", "page/Bin", "{\"$binary\": \"AAE=\"}"}, &broker);
  const Outcome o = rx({"page"}, &broker);
  EXPECT_EQ(1, o.status);
  EXPECT_EQ("error: GET " + broker.http +
                "/RXMemory answered 500: The page of RXMemory failed: "
                "RXMemory::getData: Data not found page/Bin_type (rxbase/src/rxmemory.cpp:",
            o.err.substr(0, o.err.find("cpp:") + 4));
}

TEST_F(CliE2E, EnvironmentAndCompletionFindTheBroker) {
  ok({"insert", "env/K", "1"});
  CliProcess byEnv({RXMEMORY_CLI_PATH, "get", "env/K"}, {"RXMEMORY_URL=" + broker_->url});
  EXPECT_EQ(0, byEnv.finish());
  EXPECT_EQ("1\n", byEnv.out());
  CliProcess badEnv({RXMEMORY_CLI_PATH, "get", "env/K"}, {"RXMEMORY_URL=nowhere"});
  EXPECT_EQ(2, badEnv.finish());
  EXPECT_EQ(0u, badEnv.err().find("error: bad --url (from RXMEMORY_URL): invalid endpoint 'nowhere'"));

  // Words typed so far -> what Tab offers.
  // clang-format off
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"ca"}, "call"}, {{"micro"}, "micro-events"}, {{"get", "--js"}, "--json"}, {{"watch", "--ch"}, "--changes"},
      {{"--url", broker_->url, "call", "getDataL"}, "getDataList getDataListName"},
      {{"--url", broker_->url, "get", "env/"}, "env/K"},
      {{"--url", "tcp://127.0.0.1:1", "call", "get"}, ""}};  // no broker: nothing, quickly
  // clang-format on
  for (const auto& [words, offered] : cases) {
    std::vector<std::string> args = {"/bin/bash", "-c",
                                     "source \"$0\"; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _rxmemory; "
                                     "echo \"${COMPREPLY[*]}\"",
                                     RXMEMORY_COMPLETION_PATH, RXMEMORY_CLI_PATH};
    args.insert(args.end(), words.begin(), words.end());
    CliProcess bash(args);
    EXPECT_EQ(0, bash.finish());
    EXPECT_EQ(offered + "\n", bash.out()) << words.back() << ": " << bash.err();
  }
}

}  // namespace
