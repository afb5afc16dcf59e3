// The command line itself, without a broker: help, bad usage (exit 2), values
// refused before anything is sent, and no broker at the address (exit 3).
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "cli.h"
#include "rx/rxversion.h"

namespace {

struct Outcome {
  int status;
  std::string out;
  std::string err;
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

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// A TCP port nothing listens on: the port of a socket bound and closed again
// would race with other tests, so use a reserved low port.
const std::string kDeadUrl = "tcp://127.0.0.1:1";

TEST(CliUsage, HelpNamesEveryCommandAndTheValueSyntax) {
  const Outcome help = run({"--help"});
  EXPECT_EQ(0, help.status);
  EXPECT_EQ("", help.err);
  for (const char* command : {"get", "insert", "raise", "raise-micro", "remove", "list", "events",
                              "micro-events", "type", "timestamp", "history", "describe", "descriptions",
                              "subscribers", "watch", "methods", "page", "call"})
    EXPECT_TRUE(contains(help.out, std::string("\n  ") + command + " ")) << command;
  EXPECT_TRUE(contains(help.out, "{\"$binary\": \"<base64>\"}"));
  EXPECT_TRUE(contains(help.out, "Exit status: 0 done, 1 the command failed, 2 bad usage, 3 no broker"));

  EXPECT_TRUE(contains(help.out, "RXMEMORY_URL and RXMEMORY_HTTP, when set, replace the defaults"));
  EXPECT_TRUE(contains(help.out, "(Env:RXMEMORY_URL)"));

  const Outcome watch = run({"watch", "--help"});
  EXPECT_EQ(0, watch.status);
  for (const char* part : {"Usage: rxmemory watch [OPTIONS] KEY...", "--count", "--changes", "--interval",
                           "Example: rxmemory watch "})
    EXPECT_TRUE(contains(watch.out, part)) << part;
  const Outcome version = run({"--version"});
  EXPECT_EQ(0, version.status);
  EXPECT_EQ(0u, version.out.find("rxmemory " RX_VERSION " (git revision ")) << version.out;
}

TEST(CliUsage, BadCommandLinesExitWithTwoSayingWhyAndWhereHelpIs) {
  // Arguments, the error and its hint, the command whose help is named.
  // clang-format off
  const std::vector<std::tuple<std::vector<std::string>, std::string, std::string>> cases = {
      {{}, "A subcommand is required", ""},
      {{"bogus"}, "unknown command 'bogus'", ""},
      {{"lsit"}, "unknown command 'lsit'\ndid you mean list?", ""},
      {{"event"}, "unknown command 'event'\ndid you mean events?", ""},
      {{"get", "--jsn", "K"}, "The following argument was not expected: --jsn\ndid you mean --json?", "get "},
      {{"watch", "K", "--change"}, "The following argument was not expected: --change\ndid you mean --changes?",
       "watch "},
      {{"insert", "K"}, "VALUE is required", "insert "},
      {{"get"}, "KEY is required", "get "},
      {{"type", "a", "b"}, "The following argument was not expected: b", "type "},
      {{"--timeout", "0", "events"}, "--timeout: expected a number of seconds above 0, got 0", "events "},
      {{"watch", "K", "--count", "many"}, "Could not convert: --count = many", "watch "},
      // Refused before any connection is tried, so the dead address does not matter.
      {{"--url", kDeadUrl, "insert", "K", "{\"a\": 1}"}, "bad VALUE '{\"a\": 1}': JSON objects are not values: "
       "{\"a\":1} (the one object form is {\"$binary\": \"<base64>\"}; write pairs as [[\"key\", value], ...])",
       "insert "},
      {{"--url", kDeadUrl, "raise", "E", "99999999999"},
       "bad VALUE '99999999999': 99999999999 does not fit a 32-bit int (write 99999999999.0 for a float)", "raise "},
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

}  // namespace
