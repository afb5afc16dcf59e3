// End to end: the rxmemory program against a real rxbroker on free ports.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "cliprocess.h"

namespace {

using clitest::CliProcess;
using clitest::kWait;
using nlohmann::json;

// A temporary directory for the broker's data path.
struct TempDir {
  TempDir() {
    char tmpl[] = "/tmp/rxcli-XXXXXX";
    path = ::mkdtemp(tmpl);
  }
  ~TempDir() { std::system(("rm -rf '" + path + "'").c_str()); }
  std::string path;
};

// rxbroker on a free TCP port, with its status pages on another.
class Broker {
 public:
  Broker()
      : process_({RX_BROKER_PATH, "--listen", "tcp://127.0.0.1:0", "--http", "127.0.0.1:0", "--data-path", dir_.path,
                  "--log", "*=error"}) {
    const std::string listening = "rxbroker: listening on ";
    const std::string pages = "rxbroker: status pages on ";
    while (auto line = process_.outLine()) {
      if (line->rfind(listening, 0) == 0) url = line->substr(listening.size());
      if (line->rfind(pages, 0) == 0) http = line->substr(pages.size(), line->rfind('/') - pages.size());
      if (*line == "rxbroker: press Ctrl-C to stop") return;
    }
    throw std::runtime_error("rxbroker did not start: " + process_.err());
  }
  void stop() {
    process_.kill(SIGTERM);
    process_.finish();
  }
  std::string url;   // tcp://127.0.0.1:PORT
  std::string http;  // http://127.0.0.1:PORT

 private:
  TempDir dir_;
  CliProcess process_;
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
  // Runs rxmemory with these arguments to its end.
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
  static std::unique_ptr<Broker> broker_;
};
std::unique_ptr<Broker> CliE2E::broker_;

TEST_F(CliE2E, EveryValueKindRoundTripsThroughInsertAndGet) {
  struct Case {
    std::string typed;     // as given to insert
    std::string readable;  // get
    std::string asJson;    // get --json
  };
  const std::vector<Case> cases = {
      {"5", "5", "5"},
      {"-5", "-5", "-5"},
      {"5.0", "5.0", "5.0"},
      {"0.1", "0.1", "0.1"},
      {"-2.5e-3", "-0.0025", "-0.0025"},
      {"true", "true", "true"},
      {"\"5\"", "\"5\"", "\"5\""},
      {"\"a b\"", "\"a b\"", "\"a b\""},
      {"bare", "\"bare\"", "\"bare\""},
      {"two words", "\"two words\"", "\"two words\""},
      {"", "\"\"", "\"\""},
      {"\"h\u00e9 \\\"q\\\"\"", "\"h\u00e9 \\\"q\\\"\"", "\"h\u00e9 \\\"q\\\"\""},
      {"null", "invalid", "null"},
      {"[1, \"a\", [2.5, null, false]]", "[1, \"a\", [2.5, invalid, false]]", "[1,\"a\",[2.5,null,false]]"},
      {"[]", "[]", "[]"},
      {"{\"$binary\": \"AAEC/w==\"}", "<binary 4 bytes>", "{\"$binary\":\"AAEC/w==\"}"},
  };
  int n = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE("typed: " + c.typed);
    const std::string key = "rt/" + std::to_string(n++);
    ok({"insert", key, c.typed});
    EXPECT_EQ(c.readable + "\n", ok({"get", key}));
    const std::string printed = ok({"get", key, "--json"});
    EXPECT_EQ(c.asJson + "\n", printed);
    // What --json prints goes back in unchanged.
    ok({"insert", key + "/again", printed.substr(0, printed.size() - 1)});
    EXPECT_EQ(printed, ok({"--json", "get", key + "/again"}));
    EXPECT_EQ("Data\n", ok({"type", key}));
  }
  // Several keys: one line each, in the order asked.
  EXPECT_EQ("5\n\"bare\"\n", ok({"get", "rt/0", "rt/8"}));
  EXPECT_EQ("5\n\"bare\"\n", ok({"get", "rt/0", "rt/8", "--json"}));
  // The int, float and string overloads keep their kinds.
  EXPECT_EQ("[5,\"5\",5.0]\n",
            ok({"call", "getListData", "[\"rt/0\", \"rt/6\", \"rt/2\"]", "--json"}));
}

TEST_F(CliE2E, FailuresSayWhatWentWrongAndExitWithOne) {
  Outcome o = rx({"get", "rt/none"});
  EXPECT_EQ(1, o.status);
  EXPECT_EQ("", o.out);
  EXPECT_EQ("error: RXMemory::getData: Data not found rt/none\n", o.err);

  // No partial output when one of several keys is missing.
  ok({"insert", "fail/a", "1"});
  o = rx({"get", "fail/a", "fail/missing"});
  EXPECT_EQ(1, o.status);
  EXPECT_EQ("", o.out);
  EXPECT_EQ("error: RXMemory::getData: Data not found fail/missing\n", o.err);

  o = rx({"remove", "fail/missing"});
  EXPECT_EQ(1, o.status);
  EXPECT_EQ("error: RXMemory::removeData: Data not found fail/missing\n", o.err);
  o = rx({"describe", "fail/missing", "text"});
  EXPECT_EQ(1, o.status);
  EXPECT_EQ("error: RXMemory::setDescription: fail/missing not found\n", o.err);
  o = rx({"call", "getDataPtr", "fail/a"});
  EXPECT_EQ(1, o.status);
  EXPECT_EQ(
      "error: RXMemory::getDataPtr: getDataPtr returns an address that is only valid inside the broker process and "
      "cannot be called remotely\n",
      o.err);
  o = rx({"call", "getData", "5"});
  EXPECT_EQ(1, o.status);
  EXPECT_EQ("error: RXMemory: no method getData accepting (int)\n", o.err);
  o = rx({"call", "nosuch"});
  EXPECT_EQ(1, o.status);
  EXPECT_EQ("error: RXMemory: no method named nosuch\n", o.err);
  o = rx({"methods", "nosuch"});
  EXPECT_EQ(1, o.status);
  EXPECT_EQ("error: RXMemory has no method named nosuch\n", o.err);
  o = rx({"--module", "Nobody", "methods"});
  EXPECT_EQ(1, o.status);
  EXPECT_EQ("error: no module Nobody at " + broker_->url + " (Service not found: Nobody)\n", o.err);
  o = rx({"--module", "Nobody", "page"});
  EXPECT_EQ(1, o.status);
  EXPECT_EQ("error: GET " + broker_->http + "/Nobody answered 404: No module named Nobody on this broker\n", o.err);

  // Bad usage is caught by the program itself, against a live broker too.
  o = rx({"insert", "fail/b", "{\"a\": 1}"});
  EXPECT_EQ(2, o.status);
  EXPECT_NE(std::string::npos, o.err.find("Usage: rxmemory insert [OPTIONS] KEY VALUE"));
  EXPECT_EQ(1, rx({"get", "fail/b"}).status) << "a refused value must not be stored";
}

TEST_F(CliE2E, EventsListsDescriptionsAndHistory) {
  ok({"raise", "ev/Bump", "1"});
  ok({"raise", "ev/Bump", "[2, \"x\"]"});
  ok({"raise", "ev/Empty"});  // no value: invalid
  ok({"raise-micro", "ev/Near", "0.5"});
  ok({"insert", "ev/data", "7"});
  ok({"call", "subscribeToEvent", "ev/Bump", "SomeModule", "onEvent"});

  const std::string events = ok({"events"});
  EXPECT_NE(std::string::npos, events.find("\nev/Bump\n")) << events;
  EXPECT_EQ(std::string::npos, events.find("ev/Near"));
  EXPECT_NE(std::string::npos, ok({"micro-events"}).find("ev/Near\n"));
  EXPECT_EQ("ev/Bump\nev/Empty\nev/Near\nev/data\n", ok({"list", "ev/"}));
  EXPECT_EQ("[\"ev/Bump\",\"ev/Empty\",\"ev/Near\",\"ev/data\"]\n", ok({"list", "ev/", "--json"}));
  EXPECT_EQ("", ok({"list", "no-such-part"}));
  EXPECT_EQ("Event\n", ok({"type", "ev/Bump"}));
  EXPECT_EQ("MicroEvent\n", ok({"type", "ev/Near"}));
  EXPECT_EQ("\"Event\"\n", ok({"type", "ev/Bump", "--json"}));
  EXPECT_EQ("invalid\n", ok({"get", "ev/Empty"}));
  EXPECT_EQ("SomeModule\n", ok({"subscribers", "ev/Bump"}));
  EXPECT_EQ("[]\n", ok({"subscribers", "ev/Near", "--json"}));

  // History: every raise with its time, oldest first.
  const std::regex stamped(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} (.*))");
  const std::string history = ok({"history", "ev/Bump"});
  std::smatch m;
  const std::string first = history.substr(0, history.find('\n'));
  const std::string second = history.substr(first.size() + 1, history.size() - first.size() - 2);
  ASSERT_TRUE(std::regex_match(first, m, stamped)) << history;
  EXPECT_EQ("1", m[1].str());
  ASSERT_TRUE(std::regex_match(second, m, stamped)) << history;
  EXPECT_EQ("[2, \"x\"]", m[1].str());
  const json h = json::parse(ok({"history", "ev/Bump", "--json"}));
  ASSERT_EQ(2u, h.size()) << h;
  EXPECT_EQ(json(1), h[0][0]);
  EXPECT_EQ(json::parse("[2, \"x\"]"), h[1][0]);
  EXPECT_TRUE(h[1][1].is_number_integer() && h[1][2].is_number_integer()) << h;
  // Micro-events and plain data keep no history.
  EXPECT_EQ("invalid\n", ok({"history", "ev/Near"}));

  const std::string stamp = ok({"timestamp", "ev/data"});
  const std::string stampLine = stamp.substr(0, stamp.size() - 1);
  ASSERT_TRUE(std::regex_match(stampLine, m, stamped)) << stamp;
  EXPECT_EQ("7", m[1].str());
  const json t = json::parse(ok({"timestamp", "ev/data", "--json"}));
  EXPECT_EQ(7, t[0]);

  ok({"describe", "ev/data", "seven, as a test"});
  EXPECT_EQ("ev/data (data): seven, as a test\nev/Bump (event)\n", ok({"descriptions", "ev/data", "ev/Bump"}));
  // --json shows the answer as the memory gives it, empty slots first.
  EXPECT_EQ("[null,null,[\"ev/data\",\"data\",\"seven, as a test\"],[\"ev/Bump\",\"event\",\"\"]]\n",
            ok({"descriptions", "ev/data", "ev/Bump", "--json"}));
  EXPECT_NE(std::string::npos, ok({"descriptions"}).find("ev/data (data): seven, as a test\n"));

  ok({"remove", "ev/data"});
  EXPECT_EQ(1, rx({"get", "ev/data"}).status);
  EXPECT_EQ("", ok({"list", "ev/data"}));
}

TEST_F(CliE2E, WatchPrintsRaisesOfEveryKeyUntilTheCount) {
  CliProcess watch(argv({"watch", "w/A", "w/B", "--count", "2"}));
  const auto ready = watch.errLine();
  ASSERT_TRUE(ready) << "no readiness line; stderr: " << watch.err();
  EXPECT_EQ("watching w/A, w/B... (Ctrl-C to stop)", *ready);

  ok({"insert", "w/A", "0"});  // plain insertion: not a raise
  ok({"raise", "w/A", "1"});
  ok({"raise-micro", "w/B", "\"x\""});
  // Raises of different keys may be printed in either order.
  const std::regex line(R"(\d\d:\d\d:\d\d\.\d{3} (\S+ .*))");
  std::vector<std::string> seen;
  for (int i = 0; i < 2; ++i) {
    const auto printed = watch.outLine();
    ASSERT_TRUE(printed) << "raise " << i << " not printed; stderr: " << watch.err();
    std::smatch m;
    ASSERT_TRUE(std::regex_match(*printed, m, line)) << *printed;
    seen.push_back(m[1].str());
  }
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ((std::vector<std::string>{"w/A 1", "w/B \"x\""}), seen);
  EXPECT_EQ(0, watch.finish()) << "watch did not end after 2 raises: " << watch.err();
  EXPECT_EQ("", watch.out());

  // --json: one document per raise; a missing key is declared as an event.
  CliProcess json1(argv({"watch", "w/New", "--count", "1", "--json"}));
  ASSERT_TRUE(json1.errLine()) << json1.err();
  EXPECT_EQ("Event\n", ok({"type", "w/New"}));
  ok({"raise", "w/New", "{\"$binary\": \"AAE=\"}"});
  const auto doc = json1.outLine();
  ASSERT_TRUE(doc) << json1.err();
  const json j = json::parse(*doc);
  EXPECT_EQ("w/New", j["key"]);
  EXPECT_EQ(json::parse("{\"$binary\": \"AAE=\"}"), j["value"]);
  EXPECT_TRUE(std::regex_match(j["time"].get<std::string>(),
                               std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})")))
      << j;
  EXPECT_EQ(0, json1.finish());
}

TEST_F(CliE2E, WatchEndsOnCtrlC) {
  CliProcess watch(argv({"watch", "w/C"}));
  ASSERT_TRUE(watch.errLine()) << watch.err();
  ok({"raise", "w/C", "3"});
  ASSERT_TRUE(watch.outLine()) << watch.err();
  watch.kill(SIGINT);
  EXPECT_EQ(0, watch.finish());
  EXPECT_EQ("", watch.err());
}

TEST_F(CliE2E, MethodsShowThePublishedTexts) {
  EXPECT_EQ(
      "RXValue getData(string key)\n"
      "    Gets the value of a key-value pair stored in memory\n"
      "    key: Name of the value.\n"
      "    returns data: The data as an RXValue. This can often be cast transparently into the original type.\n"
      "\n"
      "RXValue getData(string key, int deprecatedParameter)\n"
      "    DEPRECATED - Gets the value of a key-value pair stored in memory. Please use the version of this method "
      "with no second parameter.\n"
      "    key: Name of the value.\n"
      "    deprecatedParameter: DEPRECATED - This parameter has no effect, but is left for compatibility reason.\n"
      "    returns data: The data as an RXValue\n",
      ok({"methods", "getData"}));
  EXPECT_NE(std::string::npos, ok({"methods", "getDataPtr"}).find("    mask 4: not callable from another process\n"));

  const std::string all = ok({"methods"});
  EXPECT_EQ(0u, all.find("RXMemory: RXMemory provides a centralized memory that can be used to store and retrieve "
                         "named values. It also acts as a hub for the distribution of event notifications.\n"));
  EXPECT_NE(std::string::npos, all.find("void subscribeToEvent(string name, string callbackModule, string "
                                        "callbackMessage, string callbacMethod)\n"));

  const json doc = json::parse(ok({"methods", "--json"}));
  EXPECT_EQ("RXMemory", doc["module"]);
  std::size_t memoryMethods = 0;
  for (const json& m : doc["methods"]) memoryMethods += m["className"] == "RXMemory" ? 1 : 0;
  EXPECT_EQ(41u, memoryMethods);
  const json insert = json::parse(ok({"methods", "insertData", "--json"}))["methods"];
  ASSERT_EQ(4u, insert.size());
  EXPECT_EQ("Inserts a key-value pair into memory, where value is a float", insert[1]["description"]);
  EXPECT_EQ("float", insert[1]["parameters"][1]["type"]);
}

TEST_F(CliE2E, CallReachesEveryOverload) {
  // insertData: the int, float, string and RXValue overloads by argument kind.
  ok({"call", "insertData", "call/i", "5"});
  ok({"call", "insertData", "call/f", "5.5"});
  ok({"call", "insertData", "call/s", "five"});
  ok({"call", "insertData", "call/a", "[5]"});
  EXPECT_EQ("5\n5.5\n\"five\"\n[5]\n", ok({"get", "call/i", "call/f", "call/s", "call/a", "--json"}));
  // getData with and without the deprecated second parameter.
  EXPECT_EQ("5.5\n", ok({"call", "getData", "call/f"}));
  EXPECT_EQ("5.5\n", ok({"call", "getData", "call/f", "0"}));
  // A list result prints one name per line; a void one prints nothing.
  EXPECT_EQ("call/a\ncall/f\ncall/i\ncall/s\n", [&] {
    std::string out = ok({"call", "getDataList", "call/"});
    std::vector<std::string> lines;
    for (std::size_t at = 0; at < out.size();) {
      const std::size_t eol = out.find('\n', at);
      lines.push_back(out.substr(at, eol - at + 1));
      at = eol + 1;
    }
    std::sort(lines.begin(), lines.end());
    std::string sorted;
    for (const std::string& l : lines) sorted += l;
    return sorted;
  }());
  EXPECT_EQ("", ok({"call", "declareEvent", "call/E", "SomeExtractor"}));
  EXPECT_EQ("null\n", ok({"call", "declareEvent", "call/E2", "--json"}));
  EXPECT_EQ("[\"call/E\"]\n", ok({"call", "getExtractorEvent", "SomeExtractor", "--json"}));
  // A JSON object of strings is a map from string to string.
  ok({"call", "addMapping", "CallService", "{\"pinged\": \"call/Pinged\"}"});
  // The object the memory returns for a key prints as a reference.
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
  EXPECT_NE(std::string::npos, html.find("<tr><td>page/Key</td><td>\nstring</td>\n<td>\"page value\"</td>")) << html;
  const json asJson = json::parse(ok({"page", "--json"}, &broker));
  EXPECT_NE(std::string::npos, asJson.get<std::string>().find("page/Key"));

  ok({"insert", "page/Bin", "{\"$binary\": \"AAE=\"}"}, &broker);
  const Outcome o = rx({"page"}, &broker);
  EXPECT_EQ(1, o.status);
  EXPECT_EQ("error: GET " + broker.http + "/RXMemory answered 500: The page of RXMemory failed: "
            "RXMemory::getData: Data not found page/Bin_type (rxbase/src/rxmemory.cpp:",
            o.err.substr(0, o.err.find("cpp:") + 4));
}

TEST_F(CliE2E, WatchEndsWhenTheBrokerGoes) {
  Broker broker;
  CliProcess watch(argv({"watch", "gone/K"}, &broker));
  ASSERT_TRUE(watch.errLine()) << watch.err();
  broker.stop();
  const auto line = watch.errLine();
  ASSERT_TRUE(line) << watch.err();
  EXPECT_EQ("error: lost the connection to the broker at " + broker.url, *line);
  EXPECT_EQ(1, watch.finish());
  const Outcome after = rx({"get", "gone/K"}, &broker);
  EXPECT_EQ(3, after.status);
  EXPECT_EQ("error: cannot connect to " + broker.url +
                ": Connection refused\nis the broker running? start one with `make run`\n",
            after.err);
}

}  // namespace
