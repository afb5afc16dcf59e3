// The command line itself, without a broker: help, bad usage (exit 2), values
// refused before anything is sent, and no broker at the address (exit 3).
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "cli.h"

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

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// A TCP port nothing listens on: the port of a socket bound and closed again
// would race with other tests, so use a reserved low port.
const std::string kDeadUrl = "tcp://127.0.0.1:1";

TEST(CliUsage, HelpNamesEveryCommandAndTheValueSyntax) {
  const Outcome help = run({"--help"});
  EXPECT_EQ(0, help.status);
  EXPECT_EQ("", help.err);
  for (const char* command : {"get", "insert", "raise", "raise-micro", "remove", "list", "events", "micro-events",
                              "type", "timestamp", "history", "describe", "descriptions", "subscribers", "watch",
                              "methods", "page", "call"})
    EXPECT_TRUE(contains(help.out, std::string("\n  ") + command + " ")) << command;
  EXPECT_TRUE(contains(help.out, "{\"$binary\": \"<base64>\"}"));
  EXPECT_TRUE(contains(help.out, "Exit status: 0 done, 1 the command failed, 2 bad usage, 3 no broker"));

  const Outcome watch = run({"watch", "--help"});
  EXPECT_EQ(0, watch.status);
  EXPECT_TRUE(contains(watch.out, "Usage: rxmemory watch [OPTIONS] KEY..."));
  EXPECT_TRUE(contains(watch.out, "--count"));
  EXPECT_TRUE(contains(watch.out, "Example: rxmemory watch "));
}

TEST(CliUsage, BadCommandLinesExitWithTwoAndTheCommandsHelp) {
  struct Case {
    std::vector<std::string> args;
    std::string error;
    std::string usage;
  };
  const std::vector<Case> cases = {
      {{}, "error: A subcommand is required\n", "Usage: rxmemory [OPTIONS] SUBCOMMAND"},
      {{"bogus"}, "error: unknown command 'bogus'\n", "Usage: rxmemory [OPTIONS] SUBCOMMAND"},
      {{"insert", "K"}, "error: VALUE is required\n", "Usage: rxmemory insert [OPTIONS] KEY VALUE"},
      {{"get"}, "error: KEY is required\n", "Usage: rxmemory get [OPTIONS] KEY..."},
      {{"type", "a", "b"}, "error: The following argument was not expected: b\n", "Usage: rxmemory type"},
      {{"--timeout", "0", "events"}, "error: --timeout: Value 0 not in range", "Usage: rxmemory"},
      {{"watch", "K", "--count", "many"}, "error: Could not convert: --count = many", "Usage: rxmemory watch"},
      // Refused before any connection is tried, so the dead address does not matter.
      {{"--url", kDeadUrl, "insert", "K", "{\"a\": 1}"},
       "error: bad VALUE '{\"a\": 1}': JSON objects are not values: {\"a\":1}",
       "Usage: rxmemory insert"},
      {{"--url", kDeadUrl, "raise", "E", "99999999999"},
       "error: bad VALUE '99999999999': 99999999999 does not fit a 32-bit int",
       "Usage: rxmemory raise"},
      {{"--url", kDeadUrl, "call", "insertData", "K", "{\"$binary\": \"A\"}"},
       "error: bad ARG 2 '{\"$binary\": \"A\"}': bad base64: a lone character at the end",
       "Usage: rxmemory call"},
      {{"--url", "foo://x", "events"},
       "error: bad --url: invalid endpoint 'foo://x': expected tcp://HOST:PORT or unix:///path\n",
       "Usage: rxmemory events"},
      {{"--http", "nonsense", "page"}, "error: bad --http 'nonsense': expected http://HOST:PORT\n",
       "Usage: rxmemory page"},
      {{"--http", "https://127.0.0.1:9781", "page"},
       "error: bad --http 'https://127.0.0.1:9781': expected http://HOST:PORT\n", "Usage: rxmemory page"},
  };
  for (const Case& c : cases) {
    std::string joined;
    for (const std::string& a : c.args) joined += a + " ";
    SCOPED_TRACE(joined);
    const Outcome o = run(c.args);
    EXPECT_EQ(2, o.status);
    EXPECT_EQ("", o.out);
    EXPECT_EQ(0u, o.err.find(c.error)) << o.err;
    EXPECT_TRUE(contains(o.err, c.usage)) << o.err;
  }
}

TEST(CliUsage, NoBrokerExitsWithThreeNamingTheAddress) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"--url", kDeadUrl, "get", "K"}, {"--url", kDeadUrl, "watch", "K"},
        {"--url", kDeadUrl, "--timeout", "0.5", "methods"}}) {
    const Outcome o = run(args);
    EXPECT_EQ(3, o.status) << o.err;
    EXPECT_EQ("", o.out);
    EXPECT_EQ("error: cannot connect to " + kDeadUrl + ": Connection refused\n"
              "is the broker running? start one with `make run`\n",
              o.err);
  }
  const Outcome page = run({"--http", "http://127.0.0.1:1", "page"});
  EXPECT_EQ(3, page.status);
  EXPECT_EQ("error: cannot reach the status pages at http://127.0.0.1:1: connection refused\n"
            "is the broker running? start one with `make run`\n",
            page.err);
}

}  // namespace
