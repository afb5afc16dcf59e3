// net::WriteFlusher: one thread that finishes the writes the broker could not
// complete at once. A connection in buffered mode writes what the socket takes
// without waiting and keeps the rest; it then arms the flusher, which waits
// (epoll) until the socket can take more and writes it from its own thread. So
// no thread that serves, raises or posts ever waits on a client's socket.
// Thread safety: arm() may be called from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>

namespace net {

class Connection;

class WriteFlusher {
 public:
  // Starts the thread; throws std::runtime_error when epoll is not available.
  WriteFlusher();
  ~WriteFlusher();  // stop()
  WriteFlusher(const WriteFlusher&) = delete;
  WriteFlusher& operator=(const WriteFlusher&) = delete;

  // Flushes `connection` once its socket is writable (then again while bytes
  // remain). Holds it weakly: a connection that ends is simply forgotten.
  void arm(const std::shared_ptr<Connection>& connection, int fd, std::uint64_t id);
  // Forgets a connection that is being destroyed.
  void forget(std::uint64_t id);
  // Ends the thread. Idempotent.
  void stop();

 private:
  void run();

  // Constant after construction.
  int epoll_ = -1;
  int wakeFd_ = -1;  // eventfd that ends run()
  // Guarded by mutex_.
  std::mutex mutex_;
  std::unordered_map<std::uint64_t, std::weak_ptr<Connection>> armed_;  // by connection id
  std::thread thread_;
};

}  // namespace net
