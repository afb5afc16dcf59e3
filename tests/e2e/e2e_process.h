// Shared pieces of the end-to-end tests: child processes with piped output,
// a temporary directory, the real rxbroker process (killable and restartable
// on the same endpoint), and a recorder of values delivered on other threads.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "rx/rxvalue.h"

extern char** environ;

namespace e2e {

using namespace std::chrono_literals;
constexpr std::chrono::milliseconds kWait = 10s;

// A child process with its standard input and output on pipes (and its
// standard error on the output pipe too when `mergeStderr`).
class Child {
 public:
  explicit Child(const std::vector<std::string>& args, bool mergeStderr = false) {
    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    if (mergeStderr) posix_spawn_file_actions_adddup2(&actions, out[1], 2);
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    const int rc = ::posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    stdin_ = in[1];
    stdout_ = out[0];
    if (rc != 0) {
      pid_ = -1;
      throw std::runtime_error("cannot start " + args[0]);
    }
  }
  ~Child() {
    if (stdin_ >= 0) ::close(stdin_);
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    ::close(stdout_);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // The next line of output, or nothing when none came within `timeout`.
  std::optional<std::string> readLine(std::chrono::milliseconds timeout = kWait) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
      const auto eol = buffer_.find('\n');
      if (eol != std::string::npos) {
        std::string line = buffer_.substr(0, eol);
        buffer_.erase(0, eol + 1);
        return line;
      }
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return std::nullopt;
      pollfd p{stdout_, POLLIN, 0};
      if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
      char chunk[4096];
      const ssize_t n = ::read(stdout_, chunk, sizeof chunk);
      if (n <= 0) return std::nullopt;
      buffer_.append(chunk, static_cast<std::size_t>(n));
    }
  }
  // Sends `sig` and, for SIGKILL, reaps the process.
  void kill(int sig) {
    if (pid_ <= 0) return;
    ::kill(pid_, sig);
    if (sig == SIGKILL) {
      ::waitpid(pid_, nullptr, 0);
      pid_ = -1;
    }
  }
  // Waits (bounded) for the process to end.
  void wait(std::chrono::milliseconds timeout = kWait) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (pid_ > 0 && ::waitpid(pid_, nullptr, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) return;
      ::poll(nullptr, 0, 10);  // waitpid has no timeout of its own
    }
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
  int stdin_ = -1;
  int stdout_ = -1;
  std::string buffer_;
};

// A temporary directory for the broker's socket and data files.
struct TempDir {
  TempDir() {
    char tmpl[] = "/tmp/rxe2e-XXXXXX";
    path = ::mkdtemp(tmpl);
  }
  ~TempDir() { std::system(("rm -rf '" + path + "'").c_str()); }
  std::string path;
};

// rxbroker listening on `listen` (e.g. tcp://127.0.0.1:0 for a free port),
// logging warnings; with `logToOutput` its log lines are read by readLine().
class BrokerProcess {
 public:
  BrokerProcess(const TempDir& dir, const std::string& listen, bool logToOutput = false)
      : child_({RX_BROKER_PATH, "--listen", listen, "--data-path", dir.path, "--log", "*=warning", "--no-http"},
               logToOutput) {
    const std::string listening = "rxbroker: listening on ";
    while (auto line = child_.readLine()) {
      if (line->compare(0, listening.size(), listening) == 0) endpoint = line->substr(listening.size());
      if (*line == "rxbroker: press Ctrl-C to stop") return;
    }
    throw std::runtime_error("rxbroker did not start on " + listen);
  }
  ~BrokerProcess() {
    child_.kill(SIGTERM);
    child_.wait();
  }
  void kill() { child_.kill(SIGKILL); }
  // Reads output lines until one contains `marker`; returns those before it,
  // or nothing when it did not come in time.
  std::optional<std::vector<std::string>> linesUntil(const std::string& marker) {
    std::vector<std::string> lines;
    while (auto line = child_.readLine()) {
      if (line->find(marker) != std::string::npos) return lines;
      lines.push_back(*line);
    }
    return std::nullopt;
  }

  std::string endpoint;

 private:
  Child child_;
};

class Recorder {
 public:
  void add(const RX::RXValue& v) {
    std::lock_guard<std::mutex> lock(mutex_);
    values_.push_back(v);
    cond_.notify_all();
  }
  bool waitFor(std::size_t n) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cond_.wait_for(lock, kWait, [&] { return values_.size() >= n; });
  }
  std::vector<RX::RXValue> values() {
    std::lock_guard<std::mutex> lock(mutex_);
    return values_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  std::vector<RX::RXValue> values_;
};

}  // namespace e2e
