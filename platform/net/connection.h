// net::Connection: one framed stream socket (TCP or Unix-domain) between a
// client and a broker. Frames are written whole under a write mutex, so any
// number of threads may send at once; one thread at a time reads the next
// message with a blocking read. close() may be called from any thread: it
// shuts the socket down, which wakes a blocked reader with Closed.
//
//   auto c = net::Connection::connect(net::Endpoint::parse("tcp://127.0.0.1:9780"), 5s);
//   c->send(message);
//   net::Message reply;
//   if (c->read(reply) == net::Connection::ReadStatus::Message) ...
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "net/endpoint.h"
#include "net/wirecodec.h"

namespace net {

// A transport failure seen by a caller: the broker or client cannot be reached,
// a connection broke, no reply came in time, or the other side failed with an
// exception that is not an RXError (the text is then that exception's).
class RemoteError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Connection {
 public:
  enum class ReadStatus {
    Message,    // `out` holds the next message
    Closed,     // the other side closed, the socket failed, or close() was called
    TimedOut,   // nothing complete arrived within the read timeout
    BadFrame,   // one frame was malformed (see lastError()); the next read goes on
    OutOfSync,  // a frame length beyond the limit: the stream cannot be trusted any more
  };

  // Takes ownership of a connected stream socket.
  Connection(int fd, std::string description, const Limits& limits = Limits());
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Connects to a broker. Throws RemoteError "cannot connect to ENDPOINT: REASON"
  // when the endpoint cannot be reached within `timeout`.
  [[nodiscard]] static std::shared_ptr<Connection> connect(const Endpoint& endpoint,
                                                           std::chrono::milliseconds timeout,
                                                           const Limits& limits = Limits());

  // How object references met while decoding are turned into handles. Set it
  // before the first read that may meet one. REQUIRES: no read under way.
  void setObjectDecoder(ObjectDecoder decoder);
  // Blocking reads give up with TimedOut after `timeout` (zero: wait forever);
  // blocked writes fail after `timeout` and close the connection.
  void setReadTimeout(std::chrono::milliseconds timeout);
  void setWriteTimeout(std::chrono::milliseconds timeout);

  // Encodes and writes one frame. Throws EncodeError when the message cannot
  // be encoded (nothing is written, the connection stays usable) and
  // RemoteError when the socket fails (the connection is then closed).
  void send(const Message& message, const ObjectEncoder& objects = ObjectEncoder());
  // Writes bytes that already form whole frames (see encodeFrame).
  void sendFrames(std::string_view frames);

  // Reads the next message. REQUIRES: one reader at a time.
  [[nodiscard]] ReadStatus read(Message& out);
  // The error behind the last BadFrame or OutOfSync.
  const std::optional<DecodeError>& lastError() const { return lastError_; }

  // Shuts the socket down in both directions; idempotent.
  void close();
  bool isClosed() const { return closed_.load(std::memory_order_acquire); }
  // The other end, for messages: "tcp://127.0.0.1:9780", "client 127.0.0.1:53422".
  const std::string& description() const { return description_; }
  // When bytes last arrived (steady clock), to find silent peers.
  std::chrono::steady_clock::time_point lastReceive() const;
  const Limits& limits() const { return limits_; }

 private:
  void writeAll(const char* data, std::size_t size);

  // Constant after construction.
  const int fd_;
  const std::string description_;
  const Limits limits_;
  // Thread-safe.
  std::atomic<bool> closed_{false};
  std::atomic<std::int64_t> lastReceiveNs_;
  // Guarded by writeMutex_: the sending side of the socket.
  std::mutex writeMutex_;
  // Used by the reading thread only.
  ObjectDecoder objectDecoder_;
  FrameDecoder decoder_;
  std::optional<DecodeError> lastError_;
};

}  // namespace net
