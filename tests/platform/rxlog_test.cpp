#include "rx/rxlog.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace RX {
namespace log {
namespace {

// Collects the lines written to one category while it lives.
class Recorder {
 public:
  explicit Recorder(std::string category) : category_(std::move(category)) {
    id_ = addObserver([this](const std::string& cat, int level, const std::string& message) {
      if (cat != category_) return;
      std::lock_guard<std::mutex> lock(mutex_);
      lines_.push_back(std::string(levelName(level)) + ":" + message);
    });
  }
  ~Recorder() { removeObserver(id_); }

  // Lines seen so far, joined by '|'.
  std::string lines() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::string out;
    for (const auto& l : lines_) out += (out.empty() ? "" : "|") + l;
    return out;
  }

 private:
  const std::string category_;
  int id_ = 0;
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

TEST(LogTest, ParsesLevelNamesAndDigits) {
  EXPECT_EQ(Silent, parseLevel("silent"));
  EXPECT_EQ(Error, parseLevel("error"));
  EXPECT_EQ(Warning, parseLevel("WARNING"));
  EXPECT_EQ(Info, parseLevel("Info"));
  EXPECT_EQ(Debug, parseLevel("debug"));
  EXPECT_EQ(Verbose, parseLevel("VerBose"));
  for (int d = 0; d <= 5; ++d) EXPECT_EQ(d, parseLevel(std::to_string(d)));
  for (const char* bad : {"6", "-1", "10", "", "warn", "loud", " info"}) {
    EXPECT_EQ(-1, parseLevel(bad)) << '"' << bad << '"';
  }

  const char* names[] = {"silent", "error", "warning", "info", "debug", "verbose"};
  for (int l = 0; l <= 5; ++l) EXPECT_STREQ(names[l], levelName(l));
  EXPECT_STREQ("unknown", levelName(6));
}

TEST(LogTest, WritesOnlyLinesAtOrBelowTheThreshold) {
  Category& cat = category("test.filter");
  EXPECT_EQ(&cat, &category("test.filter")) << "one category per name";
  EXPECT_EQ("test.filter", cat.name());
  Recorder rec("test.filter");

  setLevel("test.filter", Warning);
  EXPECT_EQ(Warning, cat.threshold());
  RX_ERROR(cat, "e" << 1);
  RX_WARNING(cat, "w" << 2);
  RX_INFO(cat, "i" << 3);
  RX_DEBUG(cat, "d" << 4);
  RX_VERBOSE(cat, "v" << 5);
  cat.write(Info, "direct info");  // direct writes are filtered as well
  EXPECT_EQ("error:e1|warning:w2", rec.lines());

  setLevel("test.filter", Verbose);
  RX_VERBOSE(cat, "v");
  RX_DEBUG(cat, "d");
  setLevel("test.filter", Silent);
  RX_ERROR(cat, "silenced");
  EXPECT_EQ("error:e1|warning:w2|verbose:v|debug:d", rec.lines());
}

TEST(LogTest, BuildsNoTextWhenTheLevelIsOff) {
  Category& cat = category("test.lazy");
  setLevel("test.lazy", Error);
  int evaluated = 0;
  auto expensive = [&evaluated] {
    ++evaluated;
    return std::string("costly");
  };
  RX_WARNING(cat, expensive());
  RX_VERBOSE(cat, expensive() << expensive());
  EXPECT_EQ(0, evaluated) << "a disabled level must not evaluate its message";
  {
    Recorder rec("test.lazy");
    RX_ERROR(cat, expensive());
    EXPECT_EQ(1, evaluated);
    EXPECT_EQ("error:costly", rec.lines());
  }
}

TEST(LogTest, AppliesSpecsAtomicallyWithNamedEntriesBeatingTheDefault) {
  Category& a = category("test.thresholds.a");
  Category& b = category("test.thresholds.b");

  EXPECT_TRUE(applyThresholds("test.thresholds.a=verbose, test.thresholds.b = 2"));
  EXPECT_EQ(Verbose, a.threshold());
  EXPECT_EQ(Warning, b.threshold());

  // A level given before the category exists is kept for it.
  EXPECT_TRUE(applyThresholds("test.thresholds.later=error,"));
  EXPECT_EQ(Error, category("test.thresholds.later").threshold());

  // Malformed specs apply nothing at all, not even their valid entries.
  for (const char* bad : {"test.thresholds.a=1,oops", "test.thresholds.a=1,=3", "test.thresholds.a=1,test.thresholds.b=loud",
                          "test.thresholds.a=1,test.thresholds.b=6"}) {
    EXPECT_FALSE(applyThresholds(bad)) << bad;
    EXPECT_EQ(Verbose, a.threshold()) << bad;
    EXPECT_EQ(Warning, b.threshold()) << bad;
  }
  EXPECT_TRUE(applyThresholds(""));

  // "*" sets every existing category and the default of future ones; a named
  // entry wins over it wherever it stands in the settings.
  EXPECT_TRUE(applyThresholds("test.thresholds.b=debug,*=error"));
  EXPECT_EQ(Error, a.threshold());
  EXPECT_EQ(Debug, b.threshold());
  EXPECT_EQ(Error, category("test.thresholds.created.after").threshold());

  setLevel("*", Verbose);
  EXPECT_EQ(Verbose, a.threshold());
  EXPECT_EQ(Verbose, b.threshold());
  EXPECT_EQ(Verbose, category("test.thresholds.created.later").threshold());

  setLevel("*", kDefaultThreshold);
  EXPECT_EQ(kDefaultThreshold, category("test.thresholds.fresh").threshold());
}

TEST(LogTest, ObserversSeeWrittenLinesUntilRemoved) {
  Category& cat = category("test.observer");
  setLevel("test.observer", Info);
  std::vector<std::string> first;
  std::vector<std::string> second;
  const int id1 = addObserver([&](const std::string& c, int level, const std::string& m) {
    if (c == "test.observer") first.push_back(std::to_string(level) + m);
  });
  const int id2 = addObserver([&](const std::string& c, int, const std::string& m) {
    if (c != "test.observer") return;
    second.push_back(m);
    // An observer may log itself without deadlocking.
    if (m == "outer") RX_INFO(category("test.observer"), "inner");
  });
  EXPECT_NE(id1, id2);

  RX_INFO(cat, "outer");
  RX_VERBOSE(cat, "filtered");
  EXPECT_EQ((std::vector<std::string>{"3outer", "3inner"}), first);
  EXPECT_EQ((std::vector<std::string>{"outer", "inner"}), second);

  removeObserver(id1);
  removeObserver(id1);     // removing twice is harmless
  removeObserver(-12345);  // and so is an unknown id
  RX_ERROR(cat, "after");
  EXPECT_EQ(2u, first.size());
  EXPECT_EQ("after", second.back());
  removeObserver(id2);
  RX_ERROR(cat, "gone");
  EXPECT_EQ("after", second.back());
}

TEST(LogTest, RemoveObserverWaitsForACallInFlight) {
  Category& cat = category("test.observer.inflight");
  setLevel("test.observer.inflight", Info);
  std::mutex m;
  std::condition_variable cv;
  bool entered = false;
  bool release = false;
  bool removeReturned = false;
  bool removeReturnedDuringCall = false;
  int calls = 0;
  const int id = addObserver([&](const std::string& c, int, const std::string&) {
    if (c != "test.observer.inflight") return;
    std::unique_lock<std::mutex> lock(m);
    ++calls;
    entered = true;
    cv.notify_all();
    cv.wait_for(lock, std::chrono::seconds(5), [&] { return release; });
    removeReturnedDuringCall = removeReturned;
  });

  std::thread writer([&] { RX_INFO(cat, "held"); });
  bool observerRan = false;
  {
    std::unique_lock<std::mutex> lock(m);
    observerRan = cv.wait_for(lock, std::chrono::seconds(5), [&] { return entered; });
  }
  std::thread remover([&] {
    removeObserver(id);
    std::lock_guard<std::mutex> lock(m);
    removeReturned = true;
    cv.notify_all();
  });
  {
    // A correct removeObserver stays blocked until the call ends; a broken one
    // would return within this grace period and be seen by the observer.
    std::unique_lock<std::mutex> lock(m);
    cv.wait_for(lock, std::chrono::milliseconds(200), [&] { return removeReturned; });
    release = true;
    cv.notify_all();
  }
  writer.join();
  remover.join();
  ASSERT_TRUE(observerRan) << "the line never reached the observer";
  EXPECT_FALSE(removeReturnedDuringCall) << "removeObserver returned while the observer was running";

  RX_INFO(cat, "after removal");
  std::lock_guard<std::mutex> lock(m);
  EXPECT_EQ(1, calls) << "observer called after its removal";
}

TEST(LogTest, CategoriesAreSharedBetweenThreads) {
  constexpr int kThreads = 4;
  constexpr int kNames = 50;
  std::vector<std::vector<const Category*>> seen(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &seen] {
      for (int n = 0; n < kNames; ++n) seen[t].push_back(&category("test.concurrent." + std::to_string(n)));
    });
  }
  for (auto& th : threads) th.join();
  for (int t = 1; t < kThreads; ++t) EXPECT_EQ(seen[0], seen[t]) << "thread " << t;
}

// ---- Environment: RX_LOG is read at the first use of the log, so it is
// checked in a child process started with the variable set.

std::string runChild(const std::string& rxLog, const std::string& mode) {
  char self[4096];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return "cannot find the test executable";
  self[n] = '\0';
  const std::string command = "RX_LOG='" + rxLog + "' RX_LOG_TEST_CHILD=" + mode + " '" + std::string(self) +
                              "' --gtest_filter=LogEnvChild.ThresholdsComeFromTheEnvironment 2>&1";
  std::string output;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return "popen failed";
  char buf[512];
  while (fgets(buf, sizeof buf, pipe) != nullptr) output += buf;
  const int status = pclose(pipe);
  if (status != 0) output += "\n(child exit status " + std::to_string(status) + ")";
  return output;
}

TEST(LogTest, ReadsRxLogFromTheEnvironmentAtFirstUse) {
  const std::string good = runChild("envtest.a=verbose,*=warning", "good");
  EXPECT_NE(std::string::npos, good.find("[  PASSED  ] 1 test")) << good;
  EXPECT_EQ(std::string::npos, good.find("SKIPPED")) << good;
  const std::size_t line = good.find("[rx] [error] [envtest.a] hello child 42\n");
  ASSERT_NE(std::string::npos, line) << good;
  // Every line starts with the date and time: "2025-03-01 14:02:03.517 [rx] ...".
  const std::size_t start = good.rfind('\n', line) == std::string::npos ? 0 : good.rfind('\n', line) + 1;
  EXPECT_TRUE(std::regex_match(good.substr(start, line - start),
                               std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )")))
      << "the log line must start with its timestamp:\n" << good;
  EXPECT_EQ(std::string::npos, good.find("not shown")) << good;
  // A line feed in logged text (a client's name, say) cannot start a line of its own.
  EXPECT_NE(std::string::npos, good.find("[envtest.a] client evil\\n[rx] [error] [rx] forged\n")) << good;
  EXPECT_EQ(std::string::npos, good.find("\n[rx] [error] [rx] forged")) << good;

  const std::string bad = runChild("envtest.a=loud", "bad");
  EXPECT_NE(std::string::npos, bad.find("[  PASSED  ] 1 test")) << bad;
  EXPECT_NE(std::string::npos, bad.find("[rx] [warning] [rx] ignoring malformed RX_LOG=\"envtest.a=loud\""))
      << bad;
}

TEST(LogEnvChild, ThresholdsComeFromTheEnvironment) {
  const char* mode = std::getenv("RX_LOG_TEST_CHILD");
  if (mode == nullptr) GTEST_SKIP() << "runs only as the child of LogTest.ReadsRxLogFromTheEnvironmentAtFirstUse";
  if (std::string(mode) == "good") {
    EXPECT_EQ(Verbose, category("envtest.a").threshold());
    EXPECT_EQ(Warning, category("envtest.other").threshold());
    RX_ERROR(category("envtest.a"), "hello child " << 42);
    RX_ERROR(category("envtest.a"), "client evil\n[rx] [error] [rx] forged");
    RX_INFO(category("envtest.other"), "not shown");
  } else {
    EXPECT_EQ(kDefaultThreshold, category("envtest.a").threshold());
  }
}

// A client's name or key is logged as given; it must never start a line of its own.
TEST(LogTest, ControlCharactersCannotForgeLines) {
  const std::pair<std::string, std::string> cases[] = {
      {"plain name", "plain name"},
      {"evil\n[info] broker stopped", "evil\\n[info] broker stopped"},
      {"a\rb\tc", "a\\rb\\tc"},
      {std::string("nul\0bell\a\x7f", 10), "nul\\x00bell\\x07\\x7f"},
      {"trailing line end\n", "trailing line end"},
      {"\xc3\xa9t\xc3\xa9", "\xc3\xa9t\xc3\xa9"},  // UTF-8 stays as it is
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(out, printable(in)) << in;
}

TEST(LogTest, ThrottleLetsOneLineThroughPerPeriodAndCountsTheRest) {
  Throttle throttle(std::chrono::hours(1));
  std::uint64_t held = 99;
  ASSERT_TRUE(throttle.allow(held));
  EXPECT_EQ(0u, held);
  for (int i = 0; i < 5; ++i) EXPECT_FALSE(throttle.allow(held));
  EXPECT_EQ("", heldBack(0));
  EXPECT_EQ(" (5 similar lines held back)", heldBack(5));

  Throttle open(std::chrono::milliseconds(0));
  ASSERT_TRUE(open.allow(held));
  ASSERT_TRUE(open.allow(held));
  EXPECT_EQ(0u, held);
}

}  // namespace
}  // namespace log
}  // namespace RX
