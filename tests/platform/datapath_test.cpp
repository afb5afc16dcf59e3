#include "mz/datapath.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

// A fresh directory tree removed at the end of the test.
class DataPathTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = fs::temp_directory_path() / ("rx-datapath-" + std::to_string(getpid()) + "-" +
                                         ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(root_);
    fs::create_directories(root_);
    const char* old = std::getenv("RX_DATA_PATH");
    hadEnv_ = old != nullptr;
    if (hadEnv_) oldEnv_ = old;
  }
  void TearDown() override {
    if (hadEnv_) {
      setenv("RX_DATA_PATH", oldEnv_.c_str(), 1);
    } else {
      unsetenv("RX_DATA_PATH");
    }
    std::error_code ec;
    fs::remove_all(root_, ec);
  }
  std::string dir(const std::string& name) {
    fs::create_directories(root_ / name);
    return (root_ / name).string();
  }
  void makeFile(const std::string& path) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << "data\n";
  }

  fs::path root_;
  bool hadEnv_ = false;
  std::string oldEnv_;
};

TEST_F(DataPathTest, SearchesRunTimeThenEnvironmentThenInstallPrefix) {
  const std::string envA = dir("envA");
  const std::string envB = dir("envB");
  setenv("RX_DATA_PATH", (envA + "::" + envB + ":").c_str(), 1);

  std::vector<std::string> dirs = mz::path::dataDirectories();
  ASSERT_GE(dirs.size(), 3u);
  EXPECT_EQ(envA, dirs[dirs.size() - 3]);
  EXPECT_EQ(envB, dirs[dirs.size() - 2]);
  EXPECT_EQ("/share/rx", dirs.back().substr(dirs.back().size() - 9)) << dirs.back();

  const std::string run1 = dir("run1");
  const std::string run2 = dir("run2");
  mz::path::addDataDirectory(run1);
  mz::path::addDataDirectory(run2);
  dirs = mz::path::dataDirectories();
  ASSERT_GE(dirs.size(), 5u);
  EXPECT_EQ(run2, dirs[0]) << "the latest added directory comes first";
  EXPECT_EQ(run1, dirs[1]);

  // The first directory holding DOMAIN/NAME as a regular file wins.
  EXPECT_EQ("", mz::path::findData("rxmemory", "map.txt"));
  makeFile(envB + "/rxmemory/map.txt");
  EXPECT_EQ(envB + "/rxmemory/map.txt", mz::path::findData("rxmemory", "map.txt"));
  makeFile(envA + "/rxmemory/map.txt");
  EXPECT_EQ(envA + "/rxmemory/map.txt", mz::path::findData("rxmemory", "map.txt"));
  fs::create_directories(run1 + "/rxmemory/map.txt");  // a directory, not a file: skipped
  EXPECT_EQ(envA + "/rxmemory/map.txt", mz::path::findData("rxmemory", "map.txt"));
  makeFile(run2 + "/rxmemory/map.txt");
  EXPECT_EQ(run2 + "/rxmemory/map.txt", mz::path::findData("rxmemory", "map.txt"));

  EXPECT_EQ("", mz::path::findData("otherdomain", "map.txt"));
  EXPECT_EQ("", mz::path::findData("rxmemory", ""));

  unsetenv("RX_DATA_PATH");
  dirs = mz::path::dataDirectories();
  for (const auto& d : dirs) EXPECT_TRUE(d != envA && d != envB) << d;
}

}  // namespace
