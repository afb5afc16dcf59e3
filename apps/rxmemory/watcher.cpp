#include "watcher.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>

#include "clierror.h"
#include "glob.h"
#include "mz/future.h"
#include "net/clientsession.h"
#include "printer.h"

namespace rxcli {

namespace {

using Clock = std::chrono::steady_clock;

// The byte a signal handler writes into the wake-up pipe; anything else means
// "look at the shared state".
constexpr char kStopByte = 's';
constexpr char kLookByte = 'l';

// The write end of the current run's pipe, for the signal handler.
std::atomic<int> gWakeFd{-1};

extern "C" void onStopSignal(int) {
  const int fd = gWakeFd.load();
  if (fd >= 0) {
    const char byte = kStopByte;
    // Nothing useful can be done about a full pipe: a wake-up is pending anyway.
    [[maybe_unused]] const ssize_t n = ::write(fd, &byte, 1);
  }
}

// The pipe through which signal handlers and the session's threads wake the
// waiting thread (a signal handler may only write to a descriptor).
class WakePipe {
 public:
  WakePipe() {
    if (::pipe2(fds_, O_CLOEXEC | O_NONBLOCK) != 0)
      throw CliError(CliError::kFailure, "cannot create a pipe for watch");
  }
  ~WakePipe() {
    ::close(fds_[0]);
    ::close(fds_[1]);
  }
  WakePipe(const WakePipe&) = delete;
  WakePipe& operator=(const WakePipe&) = delete;
  int writeEnd() const { return fds_[1]; }
  void wake() const {
    const char byte = kLookByte;
    [[maybe_unused]] const ssize_t n = ::write(fds_[1], &byte, 1);
  }
  // Waits until something was written or `until` has come, and reads all
  // there is. True when a stop signal came.
  bool wait(Clock::time_point until) const {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now()).count();
    pollfd p{fds_[0], POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(std::clamp<long long>(left, 0, 60000))) <= 0) return false;
    bool stop = false;
    char bytes[64];
    ssize_t n;
    while ((n = ::read(fds_[0], bytes, sizeof bytes)) > 0)
      stop = stop || std::find(bytes, bytes + n, kStopByte) != bytes + n;
    return stop;
  }

 private:
  int fds_[2] = {-1, -1};
};

// Installs the stop handlers for its lifetime and puts the old ones back.
class StopSignals {
 public:
  explicit StopSignals(int wakeFd) {
    gWakeFd.store(wakeFd);
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, &oldInt_);
    ::sigaction(SIGTERM, &action, &oldTerm_);
  }
  ~StopSignals() {
    ::sigaction(SIGINT, &oldInt_, nullptr);
    ::sigaction(SIGTERM, &oldTerm_, nullptr);
    gWakeFd.store(-1);
  }
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

 private:
  struct sigaction oldInt_ {};
  struct sigaction oldTerm_ {};
};

// Which names a watch follows: plain names and patterns.
struct Names {
  explicit Names(const std::vector<std::string>& all) {
    for (const std::string& n : all) {
      if (Glob::hasWildcards(n))
        globs.emplace_back(n);
      else
        exact.insert(n);
    }
  }
  bool matches(const std::string& key) const {
    return exact.count(key) > 0 ||
           std::any_of(globs.begin(), globs.end(), [&](const Glob& g) { return g.matches(key); });
  }
  std::set<std::string> exact;
  std::vector<Glob> globs;
};

// Bounds on what the session's threads may queue for the waiting thread.
constexpr std::size_t kMaxAddedQueued = 1024;  // beyond: list the keys again instead
constexpr std::size_t kMaxRaisesKept = 64;     // per key, for telling raises from writes
// How long a key that appeared waits for the raise that made it before it is
// shown as "(new)": that raise is sent around the time the key is followed.
constexpr std::chrono::milliseconds kFreshGrace{300};

// What the callbacks share with the waiting thread. Callbacks may still run
// after run() returned (until the session is closed), so they hold it by
// shared_ptr and neither print nor wake anybody once `done` is set.
struct Shared {
  Shared(Printer& p, const WakePipe& w, const Names& n, unsigned int limit, bool changes)
      : printer(p), pipe(w), names(n), count(limit), trackRaises(changes) {}

  // REQUIRES: mutex held and !done. Prints one line; ends the watch when it
  // was the last one asked for.
  void emit(Printer::Change kind, const std::string& key, std::chrono::system_clock::time_point when,
            const RX::RXValue& value) {
    printer.change(kind, key, when, value);
    if (++seen == count) {
      done = true;
      pipe.wake();
    }
  }
  // REQUIRES: mutex held and !done.
  void look() {
    if (!wakePending) pipe.wake();
    wakePending = true;
  }

  // Constant after construction.
  Printer& printer;      // used under mutex, one line at a time
  const WakePipe& pipe;  // valid while !done
  const Names names;
  const unsigned int count;
  const bool trackRaises;

  // Guarded by mutex.
  std::mutex mutex;
  unsigned int seen = 0;
  bool done = false;
  bool wakePending = false;
  bool lost = false;               // the broker went away since the last look
  bool back = false;               // and came back
  std::vector<std::string> added;  // matching keys the memory announced
  bool relist = false;             // `added` overflowed
  // The values printed as raises, with the poll generation they came in, for
  // the poll not to print their timestamps' changes as writes.
  std::uint64_t generation = 0;
  std::map<std::string, std::deque<std::pair<RX::RXValue, std::uint64_t>>> raised;
  // Keys that appeared, while it is not known whether the raise that made
  // them reaches their new link: shown "(new)" only when it does not.
  struct Fresh {
    std::vector<RX::RXValue> seen;  // raised while being followed, before `armed`
    bool armed = false;             // value and deadline known
    RX::RXValue value;
    std::chrono::system_clock::time_point written;
    Clock::time_point deadline;
  };
  std::map<std::string, Fresh> fresh;
};

// One run of `watch`: everything below runs on the thread that called run().
class WatchRun {
 public:
  WatchRun(net::ClientSession& session, mz::AnyObject& memory, std::ostream& err,
           const Watcher::Options& options, std::shared_ptr<Shared> shared)
      : session_(session), memory_(memory), err_(err), options_(options), shared_(std::move(shared)) {}

  // Follows everything there is to follow now. `first`: a plain name that
  // cannot be followed is an error (later, after a restart, a warning).
  void follow(bool first) {
    keyAdded_ = connect("RXMemory/KeyAdded", [s = shared_](mz::AnyValue value) {
      if (!value.isRXValue() || !value.toRXValue().isString()) return;
      const std::string key = value.toRXValue().toStdString();
      if (!s->names.matches(key)) return;
      std::lock_guard<std::mutex> lock(s->mutex);
      if (s->done) return;
      if (s->added.size() < kMaxAddedQueued)
        s->added.push_back(key);
      else
        s->relist = true;
      s->look();
    });
    for (const std::string& key : shared_->names.exact) {
      try {
        followKey(key, false);
      } catch (const std::exception& e) {
        if (first) throw;
        err_ << "cannot follow " << key << ": " << e.what() << std::endl;
      }
    }
    list(false);
  }

  // Follows the keys the patterns match now that are not followed yet;
  // forgets those no longer in the memory.
  void list(bool announce) {
    if (shared_->names.globs.empty()) return;
    std::set<std::string> present;
    for (const Glob& glob : shared_->names.globs) {
      const RX::RXValue names =
          memory_.call("getDataList", {mz::AnyValue(glob.longestLiteral())}).toRXValue();
      for (const std::string& name : names.toStringList())
        if (glob.matches(name)) present.insert(name);
    }
    for (auto it = followed_.begin(); it != followed_.end();) {
      const std::string key = (it++)->first;  // before unlink() erases it
      if (!present.count(key) && !shared_->names.exact.count(key)) {
        stamps_.erase(key);
        unlink(key);
      }
    }
    for (const std::string& key : present)
      if (!followed_.count(key)) followKey(key, announce);
  }

  // Follows a key the memory said it added: again when it was followed, as
  // the key is a new one (the old key's signal went with it), but shown as
  // new only once (the listing may have found it first).
  void added(const std::string& key) { followKey(key, followed_.count(key) == 0); }

  // The broker is gone: what was followed there is gone with it.
  void forget() {
    {
      std::lock_guard<std::mutex> lock(shared_->mutex);
      shared_->fresh.clear();
    }
    followed_.clear();
    keyAdded_ = Followed();
    stamps_.clear();
    pending_.clear();
  }

  // Reads the timestamps of the followed keys, and prints the writes among
  // their changes.
  void poll() {
    std::uint64_t generation;
    {
      std::lock_guard<std::mutex> lock(shared_->mutex);
      generation = ++shared_->generation;
    }
    // Changes seen one poll ago: a raise behind one had a whole interval to arrive.
    for (const auto& [key, change] : pending_)
      if (!wasRaised(key, change.value))
        print(Printer::Change::kWrite, key, change.value, change.seconds, change.micros);
    pending_.clear();
    for (const auto& entry : followed_) {
      const std::string& key = entry.first;
      RX::RXValue stamped;
      try {
        stamped = memory_.call("getTimestamp", {mz::AnyValue(key)}).toRXValue();
      } catch (const std::exception&) {
        continue;  // removed, or the broker is gone: the listing or the reconnection sees to it
      }
      if (!(stamped.isArray() && stamped.getSize() == 3)) continue;
      const Stamp now{stamped[1].toInt(), stamped[2].toInt()};
      auto known = stamps_.find(key);
      if (known == stamps_.end()) {
        stamps_.emplace(key, now);  // followed since the last poll: its baseline
        continue;
      }
      if (known->second == now) continue;
      known->second = now;
      if (!wasRaised(key, stamped[0])) pending_[key] = Change{stamped[0], now.first, now.second};
    }
    std::lock_guard<std::mutex> lock(shared_->mutex);
    for (auto it = shared_->raised.begin(); it != shared_->raised.end();) {
      auto& values = it->second;
      while (!values.empty() && values.front().second + 1 < generation) values.pop_front();
      it = values.empty() ? shared_->raised.erase(it) : std::next(it);
    }
  }

 private:
  struct Followed {
    mz::AnyObject object;
    mz::SignalLink link{};
  };
  using Stamp = std::pair<int, int>;
  struct Change {
    RX::RXValue value;
    int seconds;
    int micros;
  };

  Followed connect(const std::string& key, std::function<void(mz::AnyValue)> callback) {
    mz::AnyObject signalObject = memory_.call("subscriber", {mz::AnyValue(key)}).toObject();
    mz::Future<mz::SignalLink> connected = signalObject.connect("signal", std::move(callback));
    if (connected.wait(options_.timeout) == mz::FutureState::Running)
      throw CliError(CliError::kFailure, "no answer within " + std::to_string(options_.timeout.count()) +
                                             " ms while connecting to the signal of " + key);
    if (!connected.hasValue())
      throw CliError(CliError::kFailure, "cannot follow " + key + ": " + connected.error());
    return Followed{signalObject, connected.value()};
  }

  void followKey(const std::string& key, bool announce) {
    if (!announce) return link(key, false);
    {
      std::lock_guard<std::mutex> lock(shared_->mutex);
      shared_->fresh[key] = Shared::Fresh();
    }
    try {
      link(key, true);
    } catch (...) {
      // Gone again, or the broker is: nothing to announce.
      std::lock_guard<std::mutex> lock(shared_->mutex);
      shared_->fresh.erase(key);
      throw;
    }
  }

  // Ends the link to a key, if there is one. Both links on one key would
  // print its raises twice; a removed key's link would hold its cell.
  void unlink(const std::string& key) {
    auto old = followed_.find(key);
    if (old == followed_.end()) return;
    try {
      (void)old->second.object.disconnect(old->second.link).wait(options_.timeout);
    } catch (const std::exception&) {
    }
    followed_.erase(old);
  }

  void link(const std::string& key, bool announce) {
    unlink(key);
    followed_[key] = connect(key, [s = shared_, key](mz::AnyValue value) {
      const auto when = std::chrono::system_clock::now();
      const RX::RXValue v = value.isRXValue() ? value.toRXValue() : RX::RXValue(value.describe());
      std::lock_guard<std::mutex> lock(s->mutex);
      if (s->done) return;
      auto fresh = s->fresh.find(key);
      if (fresh != s->fresh.end()) {
        // The raise that made the key, printed as what it is: no "(new)" line.
        if (fresh->second.armed && fresh->second.value == v)
          s->fresh.erase(fresh);
        else if (!fresh->second.armed && fresh->second.seen.size() < kMaxRaisesKept)
          fresh->second.seen.push_back(v);
      }
      if (s->trackRaises) {
        auto& values = s->raised[key];
        if (values.size() == kMaxRaisesKept) values.pop_front();
        values.emplace_back(v, s->generation);
      }
      s->emit(Printer::Change::kRaise, key, when, v);
    });
    if (!options_.changes && !announce) return;
    const RX::RXValue stamped = memory_.call("getTimestamp", {mz::AnyValue(key)}).toRXValue();
    if (!(stamped.isArray() && stamped.getSize() == 3)) return;
    // The baseline of later polls.
    if (options_.changes) stamps_[key] = Stamp{stamped[1].toInt(), stamped[2].toInt()};
    if (!announce) return;
    // The raise that made the key may have been sent before the link was
    // made, or after: the key is shown as it came unless that raise arrives
    // within the grace period (or has arrived already).
    std::lock_guard<std::mutex> lock(shared_->mutex);
    auto fresh = shared_->fresh.find(key);
    if (fresh == shared_->fresh.end()) return;
    const std::vector<RX::RXValue>& seen = fresh->second.seen;
    if (std::find(seen.begin(), seen.end(), stamped[0]) != seen.end()) {
      shared_->fresh.erase(fresh);
      return;
    }
    fresh->second = Shared::Fresh{
        {}, true, stamped[0], writeTime(stamped[1].toInt(), stamped[2].toInt()), Clock::now() + kFreshGrace};
  }

 public:
  // Prints "(new)" for the keys whose grace period has passed; returns when
  // the next one ends (or `until`).
  Clock::time_point flushFresh(Clock::time_point until) {
    const auto now = Clock::now();
    std::lock_guard<std::mutex> lock(shared_->mutex);
    for (auto it = shared_->fresh.begin(); it != shared_->fresh.end() && !shared_->done;) {
      if (!it->second.armed) {
        ++it;
      } else if (it->second.deadline <= now) {
        shared_->emit(Printer::Change::kNew, it->first, it->second.written, it->second.value);
        it = shared_->fresh.erase(it);
      } else {
        until = std::min(until, it->second.deadline);
        ++it;
      }
    }
    return until;
  }

 private:
  static std::chrono::system_clock::time_point writeTime(int seconds, int micros) {
    // A key made by a subscription carries no write time: show when it was seen.
    if (seconds == 0 && micros == 0) return std::chrono::system_clock::now();
    return std::chrono::system_clock::time_point(std::chrono::seconds(seconds) +
                                                 std::chrono::microseconds(micros));
  }

  // True (and forgotten) when `value` was printed as a raise of `key` lately.
  bool wasRaised(const std::string& key, const RX::RXValue& value) {
    std::lock_guard<std::mutex> lock(shared_->mutex);
    auto it = shared_->raised.find(key);
    if (it == shared_->raised.end()) return false;
    auto& values = it->second;
    auto found = std::find_if(values.begin(), values.end(), [&](const auto& v) { return v.first == value; });
    if (found == values.end()) return false;
    values.erase(found);
    return true;
  }

  void print(Printer::Change kind, const std::string& key, const RX::RXValue& value, int seconds,
             int micros) {
    const auto when = writeTime(seconds, micros);
    std::lock_guard<std::mutex> lock(shared_->mutex);
    if (!shared_->done) shared_->emit(kind, key, when, value);
  }

  net::ClientSession& session_;
  mz::AnyObject& memory_;
  std::ostream& err_;
  const Watcher::Options& options_;
  const std::shared_ptr<Shared> shared_;

  Followed keyAdded_;
  std::map<std::string, Followed> followed_;
  std::map<std::string, Stamp> stamps_;    // --changes: the last write time seen
  std::map<std::string, Change> pending_;  // --changes: changes to print at the next poll
};

}  // namespace

Watcher::Watcher(net::ClientSession& session, mz::AnyObject memory, Printer& printer, std::ostream& err)
    : session_(session), memory_(std::move(memory)), printer_(printer), err_(err) {}

void Watcher::run(const Options& options) {
  WakePipe pipe;
  StopSignals stopSignals(pipe.writeEnd());
  auto shared =
      std::make_shared<Shared>(printer_, pipe, Names(options.names), options.count, options.changes);
  WatchRun watch(session_, memory_, err_, options, shared);

  auto onConnection = [weak = std::weak_ptr<Shared>(shared)](bool back) {
    return [weak, back] {
      if (auto s = weak.lock()) {
        std::lock_guard<std::mutex> lock(s->mutex);
        if (s->done) return;
        (back ? s->back : s->lost) = true;
        s->look();
      }
    };
  };
  const mz::SignalLink lostLink = session_.disconnected.connect(onConnection(false));
  const mz::SignalLink backLink = session_.reconnected.connect(onConnection(true));
  // Runs on every way out: nothing may touch the pipe once run() has left.
  // Closing the session (by its owner) drops the links to the broker.
  auto stop = [&] {
    {
      std::lock_guard<std::mutex> lock(shared->mutex);
      shared->done = true;
    }
    session_.disconnected.disconnect(lostLink);
    session_.reconnected.disconnect(backLink);
  };

  try {
    watch.follow(true);
  } catch (...) {
    stop();
    throw;
  }
  std::string list;
  for (const std::string& name : options.names) list += (list.empty() ? "" : ", ") + name;
  err_ << "watching " << list << "... (Ctrl-C to stop)" << std::endl;

  bool connected = true;
  auto nextList = Clock::now() + options.listInterval;
  auto nextPoll = Clock::now() + options.interval;
  for (;;) {
    auto until = Clock::now() + std::chrono::seconds(60);
    if (connected && !shared->names.globs.empty()) until = std::min(until, nextList);
    if (connected && options.changes) until = std::min(until, nextPoll);
    until = watch.flushFresh(until);
    if (pipe.wait(until)) break;

    bool lost, back, relist;
    std::vector<std::string> added;
    {
      std::lock_guard<std::mutex> lock(shared->mutex);
      if (shared->done) break;
      shared->wakePending = false;
      lost = std::exchange(shared->lost, false);
      back = std::exchange(shared->back, false);
      relist = std::exchange(shared->relist, false);
      added.swap(shared->added);
    }
    try {
      if (lost) {
        if (connected)
          err_ << "broker gone, waiting for it at " << session_.endpoint() << "... (Ctrl-C to stop)"
               << std::endl;
        connected = false;
        watch.forget();
      }
      if (back && session_.isConnected()) {
        connected = true;
        // Said once the keys are followed again: a raise made on seeing the line must show.
        watch.follow(false);
        err_ << "broker back at " << session_.endpoint() << ", following again" << std::endl;
      }
      if (!connected) continue;
      for (const std::string& key : added) watch.added(key);
      const auto now = Clock::now();
      if (relist || (!shared->names.globs.empty() && now >= nextList)) {
        watch.list(true);
        nextList = now + options.listInterval;
      }
      if (options.changes && now >= nextPoll) {
        watch.poll();
        nextPoll = Clock::now() + options.interval;
      }
    } catch (const std::exception& e) {
      // A call that failed because the broker just went: its loss is being
      // reported. Anything else is said and the watch goes on.
      if (session_.isConnected()) err_ << "watch: " << e.what() << std::endl;
    }
  }
  stop();
}

}  // namespace rxcli
