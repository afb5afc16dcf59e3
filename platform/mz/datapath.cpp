#include "mz/datapath.h"

#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <system_error>

// The build defines the install prefix; this keeps a stand-alone compile working.
#ifndef RX_INSTALL_PREFIX
#define RX_INSTALL_PREFIX "/usr/local"
#endif

namespace mz {
namespace path {

namespace {

std::mutex& runtimeMutex() {
  static std::mutex m;
  return m;
}

// Guarded by runtimeMutex(); latest addition first.
std::vector<std::string>& runtimeDirectories() {
  static std::vector<std::string> dirs;
  return dirs;
}

}  // namespace

std::vector<std::string> dataDirectories() {
  std::vector<std::string> dirs;
  {
    std::lock_guard<std::mutex> lock(runtimeMutex());
    dirs = runtimeDirectories();
  }
  // Read at each lookup, not cached: the variable may be set after start-up.
  if (const char* env = std::getenv("RX_DATA_PATH")) {
    const std::string list(env);
    std::size_t start = 0;
    while (start <= list.size()) {
      std::size_t colon = list.find(':', start);
      if (colon == std::string::npos) colon = list.size();
      if (colon > start) dirs.push_back(list.substr(start, colon - start));
      start = colon + 1;
    }
  }
  dirs.push_back(std::string(RX_INSTALL_PREFIX) + "/share/rx");
  return dirs;
}

void addDataDirectory(const std::string& dir) {
  if (dir.empty()) return;
  std::lock_guard<std::mutex> lock(runtimeMutex());
  auto& dirs = runtimeDirectories();
  dirs.insert(dirs.begin(), dir);
}

std::string findData(const std::string& domain, const std::string& name) {
  if (name.empty()) return std::string();
  for (const std::string& dir : dataDirectories()) {
    std::filesystem::path candidate(dir);
    if (!domain.empty()) candidate /= domain;
    candidate /= name;
    std::error_code ec;
    if (std::filesystem::is_regular_file(candidate, ec)) return candidate.string();
  }
  return std::string();
}

}  // namespace path
}  // namespace mz
