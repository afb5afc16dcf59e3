// CliProcess: a child process (rxbroker, rxmemory) with its standard output
// and error on pipes, read with bounded waits. The end-to-end tests of the
// command line start the real programs with it.
// Not thread-safe: one thread drives a child.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

namespace clitest {

using namespace std::chrono_literals;
constexpr std::chrono::milliseconds kWait = 10s;

class CliProcess {
 public:
  // `env`: NAME=VALUE entries set on top of this process's environment.
  explicit CliProcess(const std::vector<std::string>& args, const std::vector<std::string>& env = {}) {
    int out[2], err[2];
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (char** e = environ; *e; ++e) {
      const std::string entry(*e);
      bool replaced = false;
      for (const std::string& mine : env)
        replaced |= entry.compare(0, mine.find('=') + 1, mine, 0, mine.find('=') + 1) == 0;
      if (!replaced) envp.push_back(*e);
    }
    for (const std::string& mine : env) envp.push_back(const_cast<char*>(mine.c_str()));
    envp.push_back(nullptr);
    const int rc = ::posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    ::close(err[1]);
    streams_[0].fd = out[0];
    streams_[1].fd = err[0];
    if (rc != 0) throw std::runtime_error("cannot start " + args[0]);
  }
  ~CliProcess() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    for (Stream& s : streams_) ::close(s.fd);
  }
  CliProcess(const CliProcess&) = delete;
  CliProcess& operator=(const CliProcess&) = delete;

  // The next line of standard output (or error), or nothing when none came
  // within `timeout` or the stream ended.
  std::optional<std::string> outLine(std::chrono::milliseconds timeout = kWait) { return line(0, timeout); }
  std::optional<std::string> errLine(std::chrono::milliseconds timeout = kWait) { return line(1, timeout); }

  void kill(int sig) { ::kill(pid_, sig); }

  // Waits for the end (at most `timeout`) and reads both streams to their end.
  // Returns the exit status, or -1 when the process did not end in time (or
  // ended by a signal).
  int finish(std::chrono::milliseconds timeout = kWait) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!streams_[0].ended || !streams_[1].ended) {
      if (!pump(deadline)) return -1;
    }
    int status = 0;
    while (::waitpid(pid_, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) return -1;
      ::poll(nullptr, 0, 5);  // waitpid has no timeout of its own; the pipes have closed already
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  // Everything not yet taken by outLine / errLine.
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
    for (;;) {
      const auto eol = s.buffer.find('\n');
      if (eol != std::string::npos) {
        std::string text = s.buffer.substr(0, eol);
        s.buffer.erase(0, eol + 1);
        return text;
      }
      if (s.ended || !pump(deadline)) return std::nullopt;
    }
  }
  // Reads what is available on either stream (both are drained so that a
  // chatty child never blocks on a full pipe). False when the time is up.
  bool pump(std::chrono::steady_clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    pollfd p[2];
    nfds_t n = 0;
    Stream* polled[2];
    for (Stream& s : streams_) {
      if (s.ended) continue;
      p[n] = {s.fd, POLLIN, 0};
      polled[n++] = &s;
    }
    if (n == 0) return true;
    if (::poll(p, n, static_cast<int>(left.count())) <= 0) return true;  // loop re-checks the deadline
    for (nfds_t i = 0; i < n; ++i) {
      if (!(p[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      char chunk[4096];
      const ssize_t got = ::read(polled[i]->fd, chunk, sizeof chunk);
      if (got <= 0)
        polled[i]->ended = true;
      else
        polled[i]->buffer.append(chunk, static_cast<std::size_t>(got));
    }
    return true;
  }

  pid_t pid_ = -1;
  Stream streams_[2];
};

}  // namespace clitest
