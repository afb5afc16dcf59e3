// net::BatchWriter: the one-way frames a client sends on one connection
// (posts, emissions of its signals, releases), written many per system call
// when they come in a stream. A frame sent after a quiet spell is written at
// once by the sending thread; frames that follow it closely are appended to a
// buffer that a writer thread of its own writes in one go, so a loop of posts
// costs a system call per batch rather than per post. Order is kept. A sender
// waits while maxBytes are buffered (the broker reads too slowly): the
// client's own pace, never unbounded memory.
//
// Thread safety: every member may be called from any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "net/connection.h"

namespace net {

class BatchWriter {
 public:
  static constexpr std::size_t kDefaultMaxBytes = 4u << 20;
  // A frame within this long of the previous one joins the batch.
  static constexpr std::chrono::microseconds kStreamGap{50};

  explicit BatchWriter(std::shared_ptr<Connection> connection, std::size_t maxBytes = kDefaultMaxBytes);
  ~BatchWriter();  // stop()
  BatchWriter(const BatchWriter&) = delete;
  BatchWriter& operator=(const BatchWriter&) = delete;

  // Encodes and writes (or buffers) one frame. Throws EncodeError when the
  // message cannot be encoded (nothing is sent), RemoteError once the
  // connection has failed or the writer is stopped.
  void send(const Message& message, const ObjectEncoder& objects = ObjectEncoder());
  // Ends the writer thread; what is still buffered is dropped (the
  // connection is closed first by the owner). Idempotent.
  void stop();

 private:
  void run();
  // REQUIRES: lock held on mutex_, writing_ set by the caller. Writes `bytes`
  // with the lock released; records a failure.
  void writeUnlocked(std::unique_lock<std::mutex>& lock, const std::string& bytes);

  const std::shared_ptr<Connection> connection_;
  const std::size_t maxBytes_;

  // Guarded by mutex_.
  std::mutex mutex_;
  std::condition_variable wake_;   // the writer: bytes to write, or stop
  std::condition_variable room_;   // senders: the buffer has room, or a write ended
  std::string buffer_;
  bool writing_ = false;           // a thread is writing: the next bytes wait for it
  bool stopped_ = false;
  std::string failure_;            // why the connection failed, once it has
  std::chrono::steady_clock::time_point lastSend_{};
  std::thread thread_;
};

}  // namespace net
