#include "watcher.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>

#include "clierror.h"
#include "mz/future.h"
#include "net/clientsession.h"
#include "printer.h"

namespace rxcli {

namespace {

// Why the wait ended; written as one byte into the wake-up pipe.
enum Wake : char { kStopSignal = 's', kCountReached = 'c', kBrokerLost = 'l' };

// The write end of the current run's pipe, for the signal handler.
std::atomic<int> gWakeFd{-1};

extern "C" void onStopSignal(int) {
  const int fd = gWakeFd.load();
  if (fd >= 0) {
    const char byte = kStopSignal;
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
  void wake(Wake why) const {
    const char byte = why;
    [[maybe_unused]] const ssize_t n = ::write(fds_[1], &byte, 1);
  }
  // Blocks until something was written; returns the first reason.
  Wake wait() const {
    for (;;) {
      pollfd p{fds_[0], POLLIN, 0};
      if (::poll(&p, 1, -1) < 0 && errno != EINTR) return kBrokerLost;
      char byte = 0;
      if (::read(fds_[0], &byte, 1) == 1) return static_cast<Wake>(byte);
    }
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

// What the callbacks share with the waiting thread. Callbacks may still run
// after run() returned (until their links are gone), so they hold it by
// shared_ptr and neither print nor wake anybody once `done` is set.
struct Shared {
  Shared(Printer& p, const WakePipe& w, unsigned int limit) : printer(p), pipe(w), count(limit) {}

  // Constant after construction.
  Printer& printer;      // used under mutex, one line at a time
  const WakePipe& pipe;  // valid while !done
  const unsigned int count;

  // Guarded by mutex.
  std::mutex mutex;
  unsigned int seen = 0;
  bool done = false;
};

}  // namespace

Watcher::Watcher(net::ClientSession& session, mz::AnyObject memory, Printer& printer, std::ostream& err)
    : session_(session), memory_(std::move(memory)), printer_(printer), err_(err) {}

void Watcher::run(const std::vector<std::string>& keys, unsigned int count, std::chrono::milliseconds timeout) {
  WakePipe pipe;
  StopSignals stopSignals(pipe.writeEnd());
  auto shared = std::make_shared<Shared>(printer_, pipe, count);

  const mz::SignalLink lostLink = session_.disconnected.connect([weak = std::weak_ptr<Shared>(shared)] {
    if (auto s = weak.lock()) {
      std::lock_guard<std::mutex> lock(s->mutex);
      if (!s->done) s->pipe.wake(kBrokerLost);
    }
  });
  std::vector<std::pair<mz::AnyObject, mz::SignalLink>> links;
  // Runs on every way out: nothing may touch the pipe once run() has left.
  auto stop = [&] {
    {
      std::lock_guard<std::mutex> lock(shared->mutex);
      shared->done = true;
    }
    session_.disconnected.disconnect(lostLink);
    for (auto& [object, link] : links) {
      try {
        // Best effort: closing the session drops the links anyway.
        object.disconnect(link).wait(timeout);
      } catch (const std::exception&) {
      }
    }
  };

  try {
    for (const std::string& key : keys) {
      // The memory declares a missing key as an event and hands out its signal object.
      mz::AnyObject signalObject = memory_.call("subscriber", {mz::AnyValue(key)}).toObject();
      mz::Future<mz::SignalLink> connected = signalObject.connect("signal", [shared, key](mz::AnyValue value) {
        const auto when = std::chrono::system_clock::now();
        std::lock_guard<std::mutex> lock(shared->mutex);
        if (shared->done) return;
        shared->printer.raise(key, when, value.isRXValue() ? value.toRXValue() : RX::RXValue(value.describe()));
        if (++shared->seen == shared->count) {
          shared->done = true;
          shared->pipe.wake(kCountReached);
        }
      });
      if (connected.wait(timeout) == mz::FutureState::Running)
        throw CliError(CliError::kFailure, "no answer within " + std::to_string(timeout.count()) +
                                               " ms while connecting to the signal of " + key);
      if (!connected.hasValue())
        throw CliError(CliError::kFailure, "cannot follow " + key + ": " + connected.error());
      links.emplace_back(signalObject, connected.value());
    }
  } catch (...) {
    stop();
    throw;
  }

  std::string list;
  for (const std::string& key : keys) list += (list.empty() ? "" : ", ") + key;
  err_ << "watching " << list << "... (Ctrl-C to stop)" << std::endl;

  const Wake why = pipe.wait();
  stop();
  if (why == kBrokerLost)
    throw CliError(CliError::kFailure, "lost the connection to the broker at " + session_.endpoint());
}

}  // namespace rxcli
