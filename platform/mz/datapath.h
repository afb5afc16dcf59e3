// Data-path lookup: finds a data file by domain and name in an ordered list of
// data directories: first those added at run time with addDataDirectory (the
// broker's --data-path, latest first), then those of RX_DATA_PATH (separated by
// ':'), then the data folder of the installed tree (share/rx beside the
// library's lib folder, found from where the library is).
// A file DOMAIN/NAME is looked for in each directory in turn.
// Thread-safe.
#pragma once

#include <string>
#include <vector>

namespace mz {
namespace path {

// Full path of the first DIR/domain/name that exists as a regular file, or an
// empty string when none does.
std::string findData(const std::string& domain, const std::string& name);
// The directories searched, in order.
std::vector<std::string> dataDirectories();
// Puts a directory in front of the run-time list.
void addDataDirectory(const std::string& dir);

}  // namespace path
}  // namespace mz
