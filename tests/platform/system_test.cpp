// What the framework takes from the system: clocks, data files, and the log.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <regex>
#include <thread>

#include "mz/datapath.h"
#include "mz/os.h"
#include "rx/rttime.h"
#include "rx/rxlog.h"
#include "support/capture.h"
#include "support/process.h"

namespace RX {
namespace log {
namespace {

// gettimeofday reads the wall clock; msleep and RtTime never come back early.
TEST(OsTest, WallClockSleepAndMonotonicIntervals) {
  mz::os::timeval tv, later;
  ASSERT_EQ(0, mz::os::gettimeofday(&tv));
  EXPECT_EQ(-1, mz::os::gettimeofday(nullptr));
  const auto now = std::chrono::system_clock::now().time_since_epoch() / std::chrono::seconds(1);
  EXPECT_LE(std::llabs(now - tv.tv_sec), 5) << tv.tv_sec << " vs " << now;
  EXPECT_TRUE(tv.tv_usec >= 0 && tv.tv_usec < 1000000) << tv.tv_usec;
  RX::RtTime watch(0);
  watch.start();
  mz::os::msleep(2);
  watch.stop();
  ASSERT_EQ(0, mz::os::gettimeofday(&later));
  EXPECT_GE((later.tv_sec - tv.tv_sec) * 1000000 + (later.tv_usec - tv.tv_usec), 2000)
      << "msleep returned early";
  EXPECT_GE(watch.diffNs64(), 2000000);
  EXPECT_EQ(0, RX::RtTime(100).diffNs64()) << "nothing measured yet";
}

// Run-time directories come latest first; RX_DATA_PATH is read at each lookup.
TEST(DataPathTest, SearchesRunTimeThenEnvironmentThenInstallPrefix) {
  testsupport::TempDir root;
  auto dir = [&](const std::string& name) {
    std::filesystem::create_directories(root.path + "/" + name + "/rxmemory");
    return root.path + "/" + name;
  };
  const std::string envA = dir("envA"), envB = dir("envB"), run1 = dir("run1"), run2 = dir("run2");
  setenv("RX_DATA_PATH", (envA + "::" + envB + ":").c_str(), 1);
  mz::path::addDataDirectory(run1);
  mz::path::addDataDirectory(run2);
  std::vector<std::string> dirs = mz::path::dataDirectories();
  ASSERT_GE(dirs.size(), 5u);
  EXPECT_EQ((std::vector<std::string>{run2, run1}), std::vector<std::string>(dirs.begin(), dirs.begin() + 2));
  EXPECT_EQ((std::vector<std::string>{envA, envB}), std::vector<std::string>(dirs.end() - 3, dirs.end() - 1));
  EXPECT_EQ("/share/rx", dirs.back().substr(dirs.back().size() - 9)) << dirs.back();

  // The first directory holding DOMAIN/NAME as a regular file wins.
  EXPECT_EQ("", mz::path::findData("rxmemory", "map.txt"));
  for (const std::string& d : {envB, envA, run2}) {
    std::ofstream(d + "/rxmemory/map.txt") << "data\n";
    EXPECT_EQ(d + "/rxmemory/map.txt", mz::path::findData("rxmemory", "map.txt"));
    std::filesystem::create_directories(run1 + "/rxmemory/map.txt");  // a directory, not a file: skipped
  }
  EXPECT_EQ("", mz::path::findData("otherdomain", "map.txt"));
  EXPECT_EQ("", mz::path::findData("rxmemory", ""));
  unsetenv("RX_DATA_PATH");
  for (const auto& d : mz::path::dataDirectories()) EXPECT_TRUE(d != envA && d != envB) << d;
}

TEST(LogTest, ParsesLevelNamesAnyCaseAndDigitsAndThrottlesToOneLinePerPeriod) {
  const char* names[] = {"silent", "ERROR", "Warning", "info", "debug", "VerBose"};
  for (int l = 0; l <= 5; ++l)
    EXPECT_TRUE(l == parseLevel(names[l]) && l == parseLevel(std::to_string(l)) &&
                l == parseLevel(levelName(l)))
        << l;
  for (const char* bad : {"6", "-1", "10", "", "warn", " info"}) EXPECT_EQ(-1, parseLevel(bad)) << bad;
  EXPECT_STREQ("unknown", levelName(6));
  Throttle throttle(std::chrono::hours(1));
  std::uint64_t held = 99;
  EXPECT_TRUE(throttle.allow(held) && held == 0);
  for (int i = 0; i < 5; ++i) EXPECT_FALSE(throttle.allow(held));
  EXPECT_EQ("| (5 similar lines held back)", heldBack(0) + "|" + heldBack(5));
  Throttle open(std::chrono::milliseconds(0));
  EXPECT_TRUE(open.allow(held) && open.allow(held));
}

TEST(LogTest, WritesOnlyLinesAtOrBelowTheThresholdAndAppliesSettingsAtomically) {
  Category& cat = category("test.filter");
  testsupport::LogLines rec("test.filter");
  int evaluated = 0;
  auto expensive = [&evaluated] { return std::to_string(++evaluated); };
  setLevel("test.filter", Warning);
  RX_ERROR(cat, "e" << expensive());
  RX_WARNING(cat, "w" << expensive());
  RX_VERBOSE(cat, "v" << expensive() << expensive());
  cat.write(Info, "direct info");  // direct writes are filtered as well
  EXPECT_EQ(2, evaluated) << "a disabled level must not evaluate its message";
  setLevel("test.filter", Verbose);
  RX_DEBUG(cat, "d");
  setLevel("test.filter", Silent);
  RX_ERROR(cat, "silenced");
  EXPECT_EQ("error: e1|warning: w2|debug: d", rec.joined());

  Category& a = category("test.thresholds.a");
  Category& b = category("test.thresholds.b");
  EXPECT_TRUE(applyThresholds("test.thresholds.a=verbose, test.thresholds.b = 2"));
  EXPECT_TRUE(a.threshold() == Verbose && b.threshold() == Warning);
  // A level given before the category exists is kept for it.
  EXPECT_TRUE(applyThresholds("test.thresholds.later=error,"));
  EXPECT_EQ(Error, category("test.thresholds.later").threshold());
  // Malformed settings apply nothing at all, not even their valid entries.
  for (const char* bad :
       {"test.thresholds.a=1,oops", "test.thresholds.a=1,=3", "test.thresholds.a=1,test.thresholds.b=6"})
    EXPECT_TRUE(!applyThresholds(bad) && a.threshold() == Verbose) << bad;
  // "*" sets every category and future ones' default; a named entry wins wherever it stands.
  EXPECT_TRUE(applyThresholds("test.thresholds.b=debug,*=error"));
  EXPECT_EQ((std::vector<int>{Error, Debug, Error}),
            (std::vector<int>{a.threshold(), b.threshold(),
                              category("test.thresholds.created.after").threshold()}));
  setLevel("*", kDefaultThreshold);
  EXPECT_EQ(kDefaultThreshold, a.threshold());
}

// No call reaches an observer after removeObserver returned.
TEST(LogTest, ObserversMayLogThemselvesAndRemovalWaitsForACallInFlight) {
  Category& cat = category("test.observer");
  setLevel("test.observer", Info);
  std::promise<void> entered, release;
  std::shared_future<void> released = release.get_future().share();
  std::atomic<bool> removeReturned{false}, removeReturnedDuringCall{false};
  std::vector<std::string> seen;  // written by one call at a time
  const int id = addObserver([&](const std::string& c, int level, const std::string& m) {
    if (c != "test.observer") return;
    seen.push_back(std::to_string(level) + m);
    if (m == "outer") RX_INFO(category("test.observer"), "inner");  // must not deadlock
    if (m != "held") return;
    entered.set_value();
    released.wait_for(testsupport::kWait);
    removeReturnedDuringCall = removeReturned.load();
  });
  RX_INFO(cat, "outer");
  std::thread writer([&] { RX_INFO(cat, "held"); });
  EXPECT_EQ(std::future_status::ready, entered.get_future().wait_for(testsupport::kWait))
      << "no call in flight";
  std::thread remover([&] {
    removeObserver(id);
    removeReturned = true;
  });
  // A broken removeObserver returns within this grace period, while the call is held.
  (void)testsupport::pollUntil([&] { return removeReturned.load(); }, std::chrono::milliseconds(200));
  release.set_value();
  writer.join();
  remover.join();
  EXPECT_FALSE(removeReturnedDuringCall) << "removeObserver returned while the observer was running";
  removeObserver(id);  // removing twice is harmless
  RX_ERROR(cat, "after removal");
  EXPECT_EQ((std::vector<std::string>{"3outer", "3inner", "3held"}), seen);
}

TEST(LogTest, CategoriesAreSharedBetweenThreads) {
  std::vector<std::vector<const Category*>> seen(4);
  std::vector<std::thread> threads;
  for (auto& mine : seen)
    threads.emplace_back([&mine] {
      for (int n = 0; n < 50; ++n) mine.push_back(&category("test.concurrent." + std::to_string(n)));
    });
  for (auto& th : threads) th.join();
  for (const auto& s : seen) EXPECT_EQ(seen[0], s);
}

// RX_LOG is read at the first use of the log: a child (this executable) runs with it set.
std::string runChild(const std::string& rxLog) {
  setenv("RX_LOG", rxLog.c_str(), 1);
  testsupport::Child child({"/proc/self/exe", "--gtest_filter=LogEnvChild.ThresholdsComeFromTheEnvironment"},
                           true);
  unsetenv("RX_LOG");  // for the child only
  std::string output;
  while (auto line = child.readLine()) output += *line + "\n";
  return output + (child.wait() == 0 ? "" : "(the child failed)");
}

TEST(LogTest, ReadsRxLogFromTheEnvironmentAtFirstUse) {
  const std::string good = runChild("envtest.a=verbose,*=warning");
  EXPECT_NE(std::string::npos, good.find("[  PASSED  ] 1 test")) << good;
  EXPECT_EQ(std::string::npos, good.find("not shown")) << good;
  // Lines start with date and time; a line feed in logged text cannot start a line.
  EXPECT_TRUE(
      std::regex_search(good, std::regex(R"((^|\n)\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )"
                                         R"(\[rx\] \[error\] \[envtest.a\] hello 42\\n\[rx\] forged\n)")))
      << good;
  const std::string bad = runChild("envtest.a=loud");
  EXPECT_NE(std::string::npos, bad.find("[  PASSED  ] 1 test")) << bad;
  EXPECT_NE(std::string::npos, bad.find("[rx] [warning] [rx] ignoring malformed RX_LOG=\"envtest.a=loud\""))
      << bad;
}

TEST(LogEnvChild, ThresholdsComeFromTheEnvironment) {
  const std::string rxLog = std::getenv("RX_LOG") ? std::getenv("RX_LOG") : "";
  if (rxLog.rfind("envtest.a=", 0) != 0)
    GTEST_SKIP() << "runs as the child of LogTest.ReadsRxLogFromTheEnvironmentAtFirstUse";
  const bool good = rxLog == "envtest.a=verbose,*=warning";
  EXPECT_EQ(good ? Verbose : kDefaultThreshold, category("envtest.a").threshold());
  if (!good) return;
  EXPECT_EQ(Warning, category("envtest.other").threshold());
  RX_ERROR(category("envtest.a"), "hello " << 42 << "\n[rx] forged");
  RX_INFO(category("envtest.other"), "not shown");
}

// A client's name or key is logged as given; it must never start a line of its own.
TEST(LogTest, ControlCharactersCannotForgeLines) {
  const std::pair<std::string, std::string> cases[] = {
      {"evil\n[info] broker stopped", "evil\\n[info] broker stopped"},
      {"a\rb\tc", "a\\rb\\tc"},
      {std::string("nul\0bell\a\x7f", 10), "nul\\x00bell\\x07\\x7f"},
      {"trailing line end\n", "trailing line end"},
      {"\xc3\xa9t\xc3\xa9", "\xc3\xa9t\xc3\xa9"},  // UTF-8 stays as it is
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(out, printable(in)) << in;
}

}  // namespace
}  // namespace log
}  // namespace RX
