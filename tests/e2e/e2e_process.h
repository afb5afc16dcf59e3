// Shared pieces of the end-to-end tests: the real rxbroker as a child process
// (killable, and restartable on the same endpoint), a temporary directory, and
// a recorder of values delivered on other threads. Every wait is bounded.
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

struct TempDir {
  TempDir() {
    char tmpl[] = "/tmp/rxe2e-XXXXXX";
    path = ::mkdtemp(tmpl);
  }
  ~TempDir() { std::system(("rm -rf '" + path + "'").c_str()); }
  std::string path;
};

// Lines read from a pipe, with a bounded wait for each.
class LineReader {
 public:
  void setFd(int fd) { fd_ = fd; }
  // The next line, or nothing when none came within `timeout` (or the pipe closed).
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
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
      char chunk[4096];
      const ssize_t n = ::read(fd_, chunk, sizeof chunk);
      if (n <= 0) return std::nullopt;
      buffer_.append(chunk, static_cast<std::size_t>(n));
    }
  }

 private:
  int fd_ = -1;
  std::string buffer_;
};

// rxbroker listening on `listen` (tcp://127.0.0.1:0 for a free port), logging
// warnings; with `readLog` its log lines come through readLine() too.
class BrokerProcess {
 public:
  BrokerProcess(const TempDir& dir, const std::string& listen, bool readLog = false) {
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    if (readLog) posix_spawn_file_actions_adddup2(&actions, out[1], 2);
    std::vector<std::string> args{RX_BROKER_PATH, "--listen", listen,      "--data-path",
                                  dir.path,       "--log",    "*=warning", "--no-http"};
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const int rc = ::posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    output_ = out[0];
    lines_.setFd(output_);
    if (rc != 0) pid_ = -1;
    const std::string listening = "rxbroker: listening on ";
    while (auto line = readLine()) {
      if (line->compare(0, listening.size(), listening) == 0) endpoint = line->substr(listening.size());
      if (*line == "rxbroker: press Ctrl-C to stop") return;
    }
    end(SIGKILL);
    ::close(output_);
    throw std::runtime_error("rxbroker did not start on " + listen);
  }
  ~BrokerProcess() {
    end(SIGTERM);
    ::close(output_);
  }
  BrokerProcess(const BrokerProcess&) = delete;
  BrokerProcess& operator=(const BrokerProcess&) = delete;

  void kill() { end(SIGKILL); }

  // The next line of output, or nothing when none came in time.
  std::optional<std::string> readLine() { return lines_.readLine(); }
  // The lines before the first one containing `marker`; nothing when it did not come.
  std::optional<std::vector<std::string>> linesUntil(const std::string& marker) {
    std::vector<std::string> lines;
    while (auto line = readLine()) {
      if (line->find(marker) != std::string::npos) return lines;
      lines.push_back(*line);
    }
    return std::nullopt;
  }

  std::string endpoint;

 private:
  // Signals the process and reaps it; one that ignores SIGTERM for kWait is killed.
  void end(int sig) {
    if (pid_ <= 0) return;
    ::kill(pid_, sig);
    const auto deadline = std::chrono::steady_clock::now() + kWait;
    while (::waitpid(pid_, nullptr, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        break;
      }
      ::poll(nullptr, 0, 10);  // waitpid has no timeout of its own
    }
    pid_ = -1;
  }

  pid_t pid_ = -1;
  int output_ = -1;
  LineReader lines_;
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
