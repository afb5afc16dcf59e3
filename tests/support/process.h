// Child processes for tests, the real rxbroker among them. Every wait is bounded,
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
#include <memory>
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

// Where a child's standard error goes: the test's own, its stdout pipe, a pipe of its own.
enum class Stderr { Inherit, Merge, Pipe };

// A running program with its standard input and output on pipes. Killed and
// reaped when it goes. Not thread-safe: one thread drives a child.
class Child {
 public:
  explicit Child(const std::vector<std::string>& args, bool mergeStderr = false)
      : Child(args, mergeStderr ? Stderr::Merge : Stderr::Inherit) {}
  Child(const std::vector<std::string>& args, Stderr stderrTo) {
    int in[2], out[2], err[2] = {-1, -1};
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 ||
        (stderrTo == Stderr::Pipe && ::pipe2(err, O_CLOEXEC) != 0))
      throw std::runtime_error("pipe failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    if (stderrTo != Stderr::Inherit)
      posix_spawn_file_actions_adddup2(&actions, stderrTo == Stderr::Pipe ? err[1] : out[1], 2);
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    const int rc = ::posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    for (int fd : {in[0], out[1], err[1]}) ::close(fd);
    stdin_ = in[1];
    streams_[0].fd = out[0];
    streams_[1].fd = err[0];
    streams_[1].ended = err[0] < 0;
    if (rc != 0) {
      for (int fd : {in[1], out[0], err[0]}) ::close(fd);
      throw std::runtime_error("cannot start " + args[0]);
    }
  }
  ~Child() {
    ::close(stdin_);
    if (pid_ > 0) signal(SIGKILL), wait();
    for (Stream& s : streams_) ::close(s.fd);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // The next line of standard output (or error); nothing when none came in time.
  std::optional<std::string> readLine(std::chrono::milliseconds timeout = kWait) { return line(0, timeout); }
  std::optional<std::string> errLine(std::chrono::milliseconds timeout = kWait) { return line(1, timeout); }
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
  // Reads the output to its end: the exit code, or -1 when it did not end in time or was killed.
  int finish() {
    const auto deadline = std::chrono::steady_clock::now() + kWait;
    while (!streams_[0].ended || !streams_[1].ended)
      if (!pump(deadline)) return -1;
    const int status = wait();
    return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  // The output not yet taken as lines.
  const std::string& out() const { return streams_[0].buffer; }
  const std::string& err() const { return streams_[1].buffer; }

 private:
  struct Stream {
    int fd = -1;
    std::string buffer;
    bool ended = false;
  };

  std::optional<std::string> line(int which, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    Stream& s = streams_[which];
    while (s.buffer.find('\n') == std::string::npos)
      if (s.ended || !pump(deadline)) return std::nullopt;
    std::string text = s.buffer.substr(0, s.buffer.find('\n'));
    s.buffer.erase(0, text.size() + 1);
    return text;
  }
  // Reads both pipes, so a chatty child never blocks on the one not read. False after the deadline.
  bool pump(std::chrono::steady_clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    pollfd p[2];
    for (int i = 0; i < 2; ++i) p[i] = {streams_[i].ended ? -1 : streams_[i].fd, POLLIN, 0};
    if (::poll(p, 2, static_cast<int>(left.count())) <= 0) return true;  // the caller re-checks the deadline
    for (int i = 0; i < 2; ++i) {
      if (!(p[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      char chunk[4096];
      const ssize_t n = ::read(p[i].fd, chunk, sizeof chunk);
      streams_[i].ended = n <= 0;
      if (n > 0) streams_[i].buffer.append(chunk, static_cast<std::size_t>(n));
    }
    return true;
  }

  pid_t pid_ = -1;
  int stdin_ = -1;
  Stream streams_[2];
};

// The real rxbroker on `listen` ("tcp://127.0.0.1:0": a free port), logging warnings, with
// status pages only if `extra` has --http. Listening once constructed (or it throws);
// stopped with SIGTERM (SIGKILL after kWait) when it goes.
class BrokerProcess {
 public:
  BrokerProcess(const std::string& program, const std::string& dataPath,
                const std::vector<std::string>& listen, const std::vector<std::string>& extra = {},
                bool mergeLog = false) {
    std::vector<std::string> args{program, "--data-path", dataPath, "--log", "*=warning"};
    for (const std::string& endpoint : listen) args.insert(args.end(), {"--listen", endpoint});
    args.insert(args.end(), extra.begin(), extra.end());
    if (std::find(extra.begin(), extra.end(), "--http") == extra.end()) args.push_back("--no-http");
    child_ = std::make_unique<Child>(args, mergeLog);
    const std::string listening = "rxbroker: listening on ", pages = "rxbroker: status pages on ";
    while (auto line = child_->readLine()) {
      if (line->compare(0, listening.size(), listening) == 0)
        endpoints.push_back(line->substr(listening.size()));
      if (line->compare(0, pages.size(), pages) == 0)
        http = line->substr(pages.size(), line->rfind('/') - pages.size());
      if (*line == "rxbroker: press Ctrl-C to stop") return;
    }
    throw std::runtime_error("rxbroker did not say it listens on " + listen.at(0));
  }
  ~BrokerProcess() { stop(SIGTERM); }
  void stop(int sig) {
    child_->signal(sig);
    if (child_->wait() == -1) child_->signal(SIGKILL), child_->wait();
  }
  // Its output after the start-up lines (its log too, with mergeLog).
  Child& output() { return *child_; }

  std::vector<std::string> endpoints;  // as the broker reported them, in the order given
  std::string http;                    // http://HOST:PORT of the status pages, when `extra` has --http

 private:
  std::unique_ptr<Child> child_;
};

}  // namespace testsupport
