// What code under test says: the text of an exception it throws, the lines it
// writes to a log category.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "rx/rxlog.h"
#include "support/wait.h"

namespace testsupport {

// The what() of the exception f throws, or "(no exception)".
inline std::string errorOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "(no exception)";
}

// Records "level: message" for each line written to one category while it lives.
class LogLines : public Collector<std::string> {
 public:
  explicit LogLines(std::string category) : category_(std::move(category)) {
    id_ = RX::log::addObserver([this](const std::string& c, int level, const std::string& m) {
      if (c == category_) add(std::string(RX::log::levelName(level)) + ": " + m);
    });
  }
  ~LogLines() { RX::log::removeObserver(id_); }

  // The lines so far, joined by '|'.
  std::string joined() const {
    std::string out;
    for (const auto& l : items()) out += (out.empty() ? "" : "|") + l;
    return out;
  }

 private:
  const std::string category_;
  int id_ = 0;
};

}  // namespace testsupport
