#include "mz/datapath.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

// Data files are searched in the run-time directories (latest first), then
// RX_DATA_PATH (read at each lookup), then the install prefix.
TEST(DataPathTest, SearchesRunTimeThenEnvironmentThenInstallPrefix) {
  namespace fs = std::filesystem;
  const fs::path root = fs::temp_directory_path() / ("rx-datapath-" + std::to_string(getpid()));
  auto dir = [&](const std::string& name) {
    fs::create_directories(root / name / "rxmemory");
    return (root / name).string();
  };
  const std::string envA = dir("envA"), envB = dir("envB"), run1 = dir("run1"), run2 = dir("run2");
  const char* old = std::getenv("RX_DATA_PATH");
  const std::string oldEnv = old ? old : "";
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
    fs::create_directories(run1 + "/rxmemory/map.txt");  // a directory, not a file: skipped
  }
  EXPECT_EQ("", mz::path::findData("otherdomain", "map.txt"));
  EXPECT_EQ("", mz::path::findData("rxmemory", ""));
  unsetenv("RX_DATA_PATH");
  for (const auto& d : mz::path::dataDirectories()) EXPECT_TRUE(d != envA && d != envB) << d;
  if (old) setenv("RX_DATA_PATH", oldEnv.c_str(), 1);
  fs::remove_all(root);
}

}  // namespace
