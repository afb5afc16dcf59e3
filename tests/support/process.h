// Child processes for tests: a program with its standard input and output on
// pipes, and the real rxbroker started on free ports. Every wait is bounded,
// so a child that hangs fails its test instead of stalling the suite.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/wait.h"

extern char** environ;

namespace testsupport {

// A fresh directory under /tmp, removed with its contents.
struct TempDir {
  TempDir() {
    char tmpl[] = "/tmp/rxtest-XXXXXX";
    if (!::mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
    path = tmpl;
  }
  ~TempDir() { std::filesystem::remove_all(path); }
  std::string path;
};

// A running program with its standard input and output (and, with
// mergeStderr, its standard error) on pipes. Killed and reaped when it goes.
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
      ::close(stdin_);
      ::close(stdout_);
      throw std::runtime_error("cannot start " + args[0]);
    }
  }
  ~Child() {
    ::close(stdin_);
    if (pid_ > 0) signal(SIGKILL), wait();
    ::close(stdout_);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // The next line of output, or nothing when none came in time or the output closed.
  std::optional<std::string> readLine(std::chrono::milliseconds timeout = kWait) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (buffer_.find('\n') == std::string::npos) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      pollfd p{stdout_, POLLIN, 0};
      if (left.count() <= 0) return std::nullopt;
      if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
      char chunk[4096];
      const ssize_t n = ::read(stdout_, chunk, sizeof chunk);
      if (n <= 0) return std::nullopt;
      buffer_.append(chunk, static_cast<std::size_t>(n));
    }
    std::string line = buffer_.substr(0, buffer_.find('\n'));
    buffer_.erase(0, line.size() + 1);
    return line;
  }
  // The first line starting with `prefix` (lines before it are skipped).
  std::optional<std::string> expectLine(const std::string& prefix) {
    while (auto line = readLine())
      if (line->compare(0, prefix.size(), prefix) == 0) return line;
    return std::nullopt;
  }
  // The lines before the first one containing `marker`; nothing when it did not come.
  std::optional<std::vector<std::string>> linesUntil(const std::string& marker) {
    std::vector<std::string> lines;
    while (auto line = readLine()) {
      if (line->find(marker) != std::string::npos) return lines;
      lines.push_back(*line);
    }
    return std::nullopt;
  }
  // Does nothing once the program has been reaped: its pid may be someone else's by then.
  void signal(int sig) {
    if (pid_ > 0) ::kill(pid_, sig);
  }
  // The wait status once the program has ended, or -1 when it did not end in time.
  int wait(std::chrono::milliseconds timeout = kWait) {
    int status = -1;
    if (pid_ > 0 && !pollUntil([&] { return ::waitpid(pid_, &status, WNOHANG) != 0; }, timeout)) return -1;
    pid_ = -1;
    return status;
  }

 private:
  pid_t pid_ = -1;
  int stdin_ = -1;
  int stdout_ = -1;
  std::string buffer_;  // output read but not yet returned as lines
};

// The real rxbroker listening on `listen` ("tcp://127.0.0.1:0" takes a free
// port), its data in `dataPath`, logging warnings, without its status pages
// unless `extra` asks for them.
// Ready once constructed: it throws when the broker has not said where it
// listens within kWait. Stopped with SIGTERM (SIGKILL after kWait) when it goes.
class BrokerProcess {
 public:
  BrokerProcess(const std::string& program, const std::string& dataPath,
                const std::vector<std::string>& listen, const std::vector<std::string>& extra = {},
                bool mergeLog = false)
      : child_(arguments(program, dataPath, listen, extra), mergeLog) {
    const std::string listening = "rxbroker: listening on ";
    while (auto line = child_.readLine()) {
      if (line->compare(0, listening.size(), listening) == 0)
        endpoints.push_back(line->substr(listening.size()));
      if (*line == "rxbroker: press Ctrl-C to stop") return;
    }
    throw std::runtime_error("rxbroker did not say it listens on " + listen.at(0));
  }
  ~BrokerProcess() { stop(SIGTERM); }
  void stop(int sig) {
    child_.signal(sig);
    if (child_.wait() == -1) child_.signal(SIGKILL), child_.wait();
  }
  // Its output after the start-up lines (its log too, with mergeLog).
  Child& output() { return child_; }

  std::vector<std::string> endpoints;  // as the broker reported them, in the order given
  std::string http;                    // the status pages' URL, when `extra` asks for them with --http

 private:
  static std::vector<std::string> arguments(const std::string& program, const std::string& dataPath,
                                            const std::vector<std::string>& listen,
                                            const std::vector<std::string>& extra) {
    std::vector<std::string> args{program, "--data-path", dataPath, "--log", "*=warning"};
    for (const std::string& endpoint : listen) args.insert(args.end(), {"--listen", endpoint});
    args.insert(args.end(), extra.begin(), extra.end());
    if (std::find(extra.begin(), extra.end(), "--http") == extra.end()) args.push_back("--no-http");
    return args;
  }
  Child child_;
};

}  // namespace testsupport
