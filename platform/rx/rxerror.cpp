#include "rx/rxerror.h"

#include <cstring>
#include <utility>

namespace RX {

namespace {

// Length of the source-tree prefix of __FILE__ in this build ("/work/main/"),
// derived from this file's own path. Files raised from inside the tree are
// reported relative to it ("rxbase/src/rxmemory.cpp"), so messages read the same
// whatever directory the product was built in.
std::size_t sourceRootLength() {
  static const std::size_t length = [] {
    const char* self = __FILE__;
    const char* suffix = "platform/rx/rxerror.cpp";
    const std::size_t selfLen = std::strlen(self);
    const std::size_t suffixLen = std::strlen(suffix);
    if (selfLen < suffixLen || std::strcmp(self + selfLen - suffixLen, suffix) != 0) return std::size_t{0};
    return selfLen - suffixLen;
  }();
  return length;
}

std::string relativeToSourceRoot(std::string file) {
  const std::size_t root = sourceRootLength();
  if (root == 0 || file.size() <= root) return file;
  if (file.compare(0, root, __FILE__, root) != 0) return file;
  return file.substr(root);
}

}  // namespace

RXError::RXError(std::string module, std::string method, std::string message, std::string file, int line)
    : module_(std::move(module)),
      method_(std::move(method)),
      message_(std::move(message)),
      file_(relativeToSourceRoot(std::move(file))),
      line_(line) {
  what_.reserve(module_.size() + method_.size() + message_.size() + file_.size() + 24);
  what_ += module_;
  what_ += "::";
  what_ += method_;
  what_ += ": ";
  what_ += message_;
  if (!file_.empty()) {
    what_ += " (";
    what_ += file_;
    what_ += ':';
    what_ += std::to_string(line_);
    what_ += ')';
  }
}

}  // namespace RX
