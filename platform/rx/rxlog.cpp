#include "rx/rxlog.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <cctype>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>
#include <utility>
#include <vector>

namespace RX {
namespace log {

namespace {

const char* const kAllCategories = "*";

std::string trim(const std::string& s) {
  std::size_t b = 0;
  std::size_t e = s.size();
  while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
  while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
  return s.substr(b, e - b);
}

// Splits "name=level,name=level" into entries; false when any item is
// malformed (no '=', empty name, unknown level). Empty items are skipped so a
// trailing comma is harmless.
bool parseThresholds(const std::string& settings, std::vector<std::pair<std::string, int>>& entries) {
  std::size_t start = 0;
  while (start <= settings.size()) {
    std::size_t comma = settings.find(',', start);
    if (comma == std::string::npos) comma = settings.size();
    const std::string item = trim(settings.substr(start, comma - start));
    start = comma + 1;
    if (item.empty()) continue;
    const std::size_t eq = item.find('=');
    if (eq == std::string::npos) return false;
    const std::string name = trim(item.substr(0, eq));
    const int level = parseLevel(trim(item.substr(eq + 1)));
    if (name.empty() || level < 0) return false;
    entries.emplace_back(name, level);
  }
  return true;
}

spdlog::level::level_enum toSpdlog(int level) {
  switch (level) {
    case Error: return spdlog::level::err;
    case Warning: return spdlog::level::warn;
    case Info: return spdlog::level::info;
    case Debug: return spdlog::level::debug;
    default: return spdlog::level::trace;
  }
}

struct ObserverEntry {
  ObserverEntry(int i, Observer f) : id(i), fn(std::move(f)) {}
  const int id;
  const Observer fn;
  // Held while fn runs, so that removeObserver can wait for a call in flight.
  // Recursive: an observer may log, or remove itself, from inside its call.
  std::recursive_mutex callMutex;
  bool removed = false;  // guarded by callMutex
};
using ObserverList = std::vector<std::shared_ptr<ObserverEntry>>;

class Registry {
 public:
  Registry() {
    auto sink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
    logger_ = std::make_shared<spdlog::logger>("rx", std::move(sink));
    // A local date and time to the millisecond, then the line as emit() formats it.
    logger_->set_pattern("%Y-%m-%d %H:%M:%S.%e %v");
    logger_->set_level(spdlog::level::trace);
    logger_->flush_on(spdlog::level::trace);
    observers_ = std::make_shared<const ObserverList>();

    if (const char* env = std::getenv("RX_LOG")) {
      std::vector<std::pair<std::string, int>> entries;
      if (parseThresholds(env, entries)) {
        apply(entries);
      } else {
        emit("rx", Warning, std::string("ignoring malformed RX_LOG=\"") + env + "\"");
      }
    }
  }

  Category& category(const std::string& name) {
    {
      std::shared_lock<std::shared_mutex> lock(mutex_);
      auto it = categories_.find(name);
      if (it != categories_.end()) return *it->second;
    }
    std::unique_lock<std::shared_mutex> lock(mutex_);
    auto it = categories_.find(name);
    if (it != categories_.end()) return *it->second;
    auto pending = pending_.find(name);
    const int threshold = pending != pending_.end() ? pending->second : defaultThreshold_;
    auto inserted = categories_.emplace(name, std::make_unique<Category>(name, threshold));
    return *inserted.first->second;
  }

  // Applies every "*" entry first (the last one counts), then the named ones,
  // so that "rxmemory=verbose,*=warning" leaves rxmemory verbose.
  void apply(const std::vector<std::pair<std::string, int>>& entries) {
    std::unique_lock<std::shared_mutex> lock(mutex_);
    for (const auto& [name, level] : entries) {
      if (name != kAllCategories) continue;
      defaultThreshold_ = level;
      pending_.clear();
      for (auto& [catName, cat] : categories_) cat->setThreshold(level);
    }
    for (const auto& [name, level] : entries) {
      if (name == kAllCategories) continue;
      auto it = categories_.find(name);
      if (it != categories_.end()) {
        it->second->setThreshold(level);
      } else {
        pending_[name] = level;
      }
    }
  }

  void write(const std::string& category, int level, const std::string& message) {
    // The written line is made printable; observers get the text as the code wrote it.
    emit(category, level, printable(message));
    std::shared_ptr<const ObserverList> observers;
    {
      std::lock_guard<std::mutex> lock(observerMutex_);
      observers = observers_;
    }
    // Called without observerMutex_ held: an observer may log or add observers.
    for (const auto& entry : *observers) {
      std::lock_guard<std::recursive_mutex> call(entry->callMutex);
      if (!entry->removed) entry->fn(category, level, message);
    }
  }

  int addObserver(Observer observer) {
    std::lock_guard<std::mutex> lock(observerMutex_);
    const int id = ++lastObserverId_;
    auto next = std::make_shared<ObserverList>(*observers_);
    next->push_back(std::make_shared<ObserverEntry>(id, std::move(observer)));
    observers_ = std::move(next);
    return id;
  }

  void removeObserver(int id) {
    std::shared_ptr<ObserverEntry> removed;
    {
      std::lock_guard<std::mutex> lock(observerMutex_);
      auto next = std::make_shared<ObserverList>();
      for (const auto& entry : *observers_) {
        if (entry->id == id) {
          removed = entry;
        } else {
          next->push_back(entry);
        }
      }
      if (!removed) return;
      observers_ = std::move(next);
    }
    // Wait for a call already under way on another thread, then make sure no
    // write holding an older snapshot of the list calls it again.
    std::lock_guard<std::recursive_mutex> call(removed->callMutex);
    removed->removed = true;
  }

 private:
  void emit(const std::string& category, int level, const std::string& message) {
    std::string line;
    line.reserve(category.size() + message.size() + 24);
    line += "[rx] [";
    line += levelName(level);
    line += "] [";
    line += category;
    line += "] ";
    line += message;
    logger_->log(toSpdlog(level), spdlog::string_view_t(line));
  }

  // Constant after construction.
  std::shared_ptr<spdlog::logger> logger_;

  // Guarded by mutex_ (the thresholds themselves are atomics of each Category).
  std::shared_mutex mutex_;
  std::unordered_map<std::string, std::unique_ptr<Category>> categories_;
  std::unordered_map<std::string, int> pending_;  // levels set before the category exists
  int defaultThreshold_ = kDefaultThreshold;

  // Guarded by observerMutex_; the list itself is immutable once published.
  std::mutex observerMutex_;
  std::shared_ptr<const ObserverList> observers_;
  int lastObserverId_ = 0;
};

Registry& registry() {
  // Built at the first use (so RX_LOG is read then) and never destroyed:
  // libraries keep category references in statics and may log from their own
  // static destructors, which can run after this one's would have.
  union Holder {
    Holder() : registry() {}
    ~Holder() {}
    Registry registry;
  };
  static Holder holder;
  return holder.registry;
}

}  // namespace

void Category::write(int level, const std::string& message) const {
  if (level <= Silent || !enabled(level)) return;
  registry().write(name_, level, message);
}

std::string printable(const std::string& text) {
  std::size_t end = text.size();
  while (end > 0 && (text[end - 1] == '\n' || text[end - 1] == '\r')) --end;
  std::size_t i = 0;
  while (i < end && static_cast<unsigned char>(text[i]) >= 0x20 && text[i] != 0x7f) ++i;
  if (i == end) return end == text.size() ? text : text.substr(0, end);
  static const char kHex[] = "0123456789abcdef";
  std::string out(text, 0, i);
  out.reserve(end + 16);
  for (; i < end; ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c >= 0x20 && c != 0x7f) {
      out += static_cast<char>(c);
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\t') {
      out += "\\t";
    } else {
      out += "\\x";
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

bool Throttle::allow(std::uint64_t& heldBack) {
  const auto now = std::chrono::steady_clock::now();
  std::lock_guard<std::mutex> lock(mutex_);
  if (!first_ && now - last_ < period_) {
    ++refused_;
    return false;
  }
  first_ = false;
  last_ = now;
  heldBack = refused_;
  refused_ = 0;
  return true;
}

std::string heldBack(std::uint64_t count) {
  return count ? " (" + std::to_string(count) + " similar lines held back)" : std::string();
}

Category& category(const std::string& name) { return registry().category(name); }

void setLevel(const std::string& name, int level) { registry().apply({{name, level}}); }

int parseLevel(const std::string& text) {
  if (text.size() == 1 && text[0] >= '0' && text[0] <= '5') return text[0] - '0';
  std::string lower;
  lower.reserve(text.size());
  for (char c : text) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  static const std::pair<const char*, int> kNames[] = {
      {"silent", Silent}, {"error", Error},   {"warning", Warning},
      {"info", Info},     {"debug", Debug},   {"verbose", Verbose},
  };
  for (const auto& [name, level] : kNames) {
    if (lower == name) return level;
  }
  return -1;
}

bool applyThresholds(const std::string& settings) {
  std::vector<std::pair<std::string, int>> entries;
  if (!parseThresholds(settings, entries)) return false;
  registry().apply(entries);
  return true;
}

const char* levelName(int level) {
  switch (level) {
    case Silent: return "silent";
    case Error: return "error";
    case Warning: return "warning";
    case Info: return "info";
    case Debug: return "debug";
    case Verbose: return "verbose";
    default: return "unknown";
  }
}

int addObserver(Observer observer) { return registry().addObserver(std::move(observer)); }

void removeObserver(int id) { registry().removeObserver(id); }

}  // namespace log
}  // namespace RX
