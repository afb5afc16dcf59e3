#include "mz/datapath.h"

#include <dlfcn.h>

#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <system_error>

// The installed data folder relative to the folder of this library (set by the
// build from its install layout); this keeps a stand-alone compile working.
#ifndef RX_LIB_TO_DATA
#define RX_LIB_TO_DATA "../share/rx"
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

// The data folder of the installed tree this library belongs to, found from
// the library's own location so that a tree works wherever it is put.
const std::string& installedDataDirectory() {
  static const std::string dir = [] {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&installedDataDirectory), &info) == 0 || info.dli_fname == nullptr)
      return std::string();
    std::error_code ec;
    std::filesystem::path library = std::filesystem::canonical(info.dli_fname, ec);
    if (ec) library = info.dli_fname;
    return (library.parent_path() / RX_LIB_TO_DATA).lexically_normal().string();
  }();
  return dir;
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
  if (!installedDataDirectory().empty()) dirs.push_back(installedDataDirectory());
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
