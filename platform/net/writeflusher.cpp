#include "net/writeflusher.h"

#include <pthread.h>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "net/connection.h"

namespace net {

namespace {
constexpr std::uint64_t kWakeId = ~std::uint64_t(0);
}  // namespace

WriteFlusher::WriteFlusher() {
  epoll_ = ::epoll_create1(EPOLL_CLOEXEC);
  wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (epoll_ < 0 || wakeFd_ < 0) {
    const std::string why = std::strerror(errno);
    if (epoll_ >= 0) ::close(epoll_);
    if (wakeFd_ >= 0) ::close(wakeFd_);
    throw std::runtime_error("cannot start the write flusher: " + why);
  }
  epoll_event wake{};
  wake.events = EPOLLIN;
  wake.data.u64 = kWakeId;
  ::epoll_ctl(epoll_, EPOLL_CTL_ADD, wakeFd_, &wake);
  thread_ = std::thread([this] {
    ::pthread_setname_np(::pthread_self(), "rx-flusher");
    run();
  });
}

WriteFlusher::~WriteFlusher() {
  stop();
  ::close(wakeFd_);
  ::close(epoll_);
}

void WriteFlusher::stop() {
  const std::uint64_t one = 1;
  if (::write(wakeFd_, &one, sizeof one) < 0) {
    // The counter cannot overflow with one write; nothing else can fail here.
  }
  if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
}

void WriteFlusher::arm(const std::shared_ptr<Connection>& connection, int fd, std::uint64_t id) {
  std::lock_guard<std::mutex> lock(mutex_);
  armed_[id] = connection;
  epoll_event ev{};
  // One shot: the flusher re-arms while bytes remain, and a connection
  // re-arms itself when it buffers again.
  ev.events = EPOLLOUT | EPOLLONESHOT;
  ev.data.u64 = id;
  if (::epoll_ctl(epoll_, EPOLL_CTL_MOD, fd, &ev) < 0 && errno == ENOENT)
    ::epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &ev);
}

void WriteFlusher::forget(std::uint64_t id) {
  std::lock_guard<std::mutex> lock(mutex_);
  armed_.erase(id);
}

void WriteFlusher::run() {
  std::vector<epoll_event> events(64);
  for (;;) {
    const int n = ::epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), -1);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;
    }
    for (int i = 0; i < n; ++i) {
      const std::uint64_t id = events[i].data.u64;
      if (id == kWakeId) return;
      std::shared_ptr<Connection> connection;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = armed_.find(id);
        if (it == armed_.end()) continue;
        connection = it->second.lock();
        armed_.erase(it);
      }
      // flush() re-arms through arm() when the socket takes only part.
      if (connection) connection->flush();
    }
  }
}

}  // namespace net
