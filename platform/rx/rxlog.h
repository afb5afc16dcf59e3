// Logging by category and level. Each category ("rxmemory", "RXMemory",
// "rxcommon.RXFunctor", ...) has its own threshold, settable at run time from
// code (RX::log::setLevel) or from the RX_LOG environment variable read at the
// first use of the log:  RX_LOG="rxmemory=verbose,RXMemory=5,*=warning".
// The macros build no text at all when the level is off for the category.
// Output goes to spdlog (standard error), one line per message:
//   2025-03-01 14:02:03.517 [rx] [info] [net.server] broker rxbroker listening on ...
// All functions are thread-safe.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>

namespace RX {
namespace log {

// Levels: a message is written when its level is at or below the category's
// threshold. Threshold 0 silences a category.
enum Level : int {
  Silent = 0,
  Error = 1,
  Warning = 2,
  Info = 3,
  Debug = 4,
  Verbose = 5,
};
constexpr int kDefaultThreshold = Info;

// One category. Obtain it once with category(name) and keep the reference:
// categories live until the end of the process.
class Category {
 public:
  explicit Category(std::string name, int threshold)
      : name_(std::move(name)), threshold_(threshold) {}
  const std::string& name() const { return name_; }
  int threshold() const { return threshold_.load(std::memory_order_relaxed); }
  void setThreshold(int level) { threshold_.store(level, std::memory_order_relaxed); }
  bool enabled(int level) const { return level <= threshold(); }
  void write(int level, const std::string& message) const;

 private:
  std::string name_;
  std::atomic<int> threshold_;
};

// Registers (or finds) a category; its threshold comes from RX_LOG, else the
// "*" entry of RX_LOG, else kDefaultThreshold.
Category& category(const std::string& name);
// Sets the threshold of one category ("*" sets every category, present and future).
void setLevel(const std::string& name, int level);
// Parses "error", "warning", "info", "debug", "verbose", "silent" or a digit;
// returns -1 for anything else.
int parseLevel(const std::string& text);
// Applies thresholds written as "rxmemory=verbose,*=warning"; returns false (and
// applies nothing) when it is malformed.
bool applyThresholds(const std::string& settings);
const char* levelName(int level);

// The text as one log line: trailing line ends dropped, every other control
// character (and DEL) written as \n, \r, \t or \xNN, so a name chosen by a
// client can never start a forged line. Every line written to the log output
// goes through it (observers see the text as the code wrote it).
std::string printable(const std::string& text);

// Lets a repeated line through at most once per period (malformed input from
// a client, say, that could otherwise flood the log). Thread-safe.
//   static RX::log::Throttle throttle;
//   std::uint64_t held;
//   if (throttle.allow(held)) RX_WARNING(cat, "bad frame" << RX::log::heldBack(held));
class Throttle {
 public:
  explicit Throttle(std::chrono::milliseconds period = std::chrono::seconds(1)) : period_(period) {}
  // True when a line may be written now; `heldBack` is then the number of
  // lines refused since the last one that passed.
  [[nodiscard]] bool allow(std::uint64_t& heldBack);

 private:
  const std::chrono::milliseconds period_;
  std::mutex mutex_;
  std::chrono::steady_clock::time_point last_{};  // guarded by mutex_
  bool first_ = true;                             // guarded by mutex_
  std::uint64_t refused_ = 0;                     // guarded by mutex_
};
// " (N similar lines held back)" when N > 0, else an empty text.
std::string heldBack(std::uint64_t count);

// Observers see every written line (after level filtering); used by tests and
// by tools that collect logs. Returns an id for removeObserver.
using Observer = std::function<void(const std::string& category, int level, const std::string& message)>;
int addObserver(Observer observer);
void removeObserver(int id);

}  // namespace log
}  // namespace RX

#define RX_LOG(cat, level, expr)                          \
  do {                                                    \
    const ::RX::log::Category& rx_log_cat_ = (cat);       \
    if (rx_log_cat_.enabled(level)) {                     \
      std::ostringstream rx_log_os_;                      \
      rx_log_os_ << expr;                                 \
      rx_log_cat_.write((level), rx_log_os_.str());       \
    }                                                     \
  } while (0)

#define RX_ERROR(cat, expr) RX_LOG(cat, ::RX::log::Error, expr)
#define RX_WARNING(cat, expr) RX_LOG(cat, ::RX::log::Warning, expr)
#define RX_INFO(cat, expr) RX_LOG(cat, ::RX::log::Info, expr)
#define RX_DEBUG(cat, expr) RX_LOG(cat, ::RX::log::Debug, expr)
#define RX_VERBOSE(cat, expr) RX_LOG(cat, ::RX::log::Verbose, expr)
