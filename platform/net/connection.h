// net::Connection: one framed stream socket (TCP or Unix-domain) between a
// client and a broker. Frames are written whole under a write mutex, so any
// number of threads may send at once; one thread at a time reads the next
// message with a blocking read. close() may be called from any thread: it
// shuts the socket down, which wakes a blocked reader with Closed.
// On the broker's side a connection writes in buffered mode: a send never
// waits for the client, what the socket does not take is kept (bounded) and
// written later by a WriteFlusher, and a client that lets too much pile up is
// cut off. Reads may count what partial frames hold against an InputBudget
// shared by all connections.
//
//   auto c = net::Connection::connect(net::Endpoint::parse("tcp://127.0.0.1:9780"), 5s);
//   c->send(message);
//   net::Message reply;
//   if (c->read(reply) == net::Connection::ReadStatus::Message) ...
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
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

class WriteFlusher;
class Outbox;

// What a connection in buffered mode may keep of the bytes written to it that
// the other side has not read yet.
struct OutputLimits {
  std::size_t hardBytes = 32u << 20;          // over this the connection is cut off at once
  std::size_t softBytes = 8u << 20;           // over this for softTime, cut off as well
  std::chrono::milliseconds softTime{10000};
};

// Bytes that partial frames hold across all connections, beyond the first
// kFreeBytes of each connection (the usual small frames never touch it).
// Thread-safe.
class InputBudget {
 public:
  static constexpr std::size_t kFreeBytes = 256u << 10;
  explicit InputBudget(std::size_t limit) : limit_(limit) {}
  // Takes `bytes` if they fit in the limit.
  [[nodiscard]] bool tryTake(std::size_t bytes);
  void give(std::size_t bytes) { used_.fetch_sub(bytes, std::memory_order_relaxed); }
  std::size_t limit() const { return limit_; }
  std::size_t used() const { return used_.load(std::memory_order_relaxed); }

 private:
  const std::size_t limit_;
  std::atomic<std::size_t> used_{0};
};

class Connection : public std::enable_shared_from_this<Connection> {
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
  // Called on a thread whose blocking read was interrupted by a signal, before
  // the read goes on. It may throw to abandon the read: the exception leaves
  // read(), and the connection must then be dropped (a reply may still come on
  // it). An embedded interpreter uses it so that Ctrl-C stops a blocking call.
  // Per thread; none (the default) simply reads on.
  using InterruptCheck = void (*)();
  static void setInterruptCheck(InterruptCheck check);

  // Blocking reads give up with TimedOut after `timeout` (zero: wait forever);
  // blocked writes fail after `timeout` and close the connection.
  void setReadTimeout(std::chrono::milliseconds timeout);
  void setWriteTimeout(std::chrono::milliseconds timeout);

  // Switches to buffered, never-waiting writes (the broker's side): what the
  // socket does not take at once is kept and written by `flusher`. A
  // connection whose kept bytes go over limits.hardBytes, or stay over
  // limits.softBytes for limits.softTime, is closed, and `onCutOff` is called
  // once with which limit it was and the reason. REQUIRES: before the first send.
  void setBufferedOutput(const OutputLimits& limits, std::shared_ptr<WriteFlusher> flusher,
                         std::function<void(bool hardLimit, const std::string& reason)> onCutOff);
  // Counts what this connection's partial frames hold against `budget`; a
  // read that would overdraw it fails with OutOfSync. REQUIRES: no read under way.
  void setInputBudget(std::shared_ptr<InputBudget> budget);
  // Whether the last OutOfSync came from the input budget. Reader only.
  bool overInputBudget() const { return overInputBudget_; }
  // Buffered mode: writes what is kept, without waiting. Called by the flusher.
  void flush() noexcept;
  // Buffered mode: cuts the connection off when its kept bytes have stayed
  // over the soft limit for too long (a client that has stopped reading
  // writes nothing more that would notice). Called periodically.
  void checkOutput(std::chrono::steady_clock::time_point now);
  // Buffered mode: bytes written but not taken by the socket yet.
  std::size_t outputBuffered() const;

  // Encodes and writes one frame. Throws EncodeError when the message cannot
  // be encoded (nothing is written, the connection stays usable) and
  // RemoteError when the socket fails (the connection is then closed).
  void send(const Message& message, const ObjectEncoder& objects = ObjectEncoder());
  // Writes bytes that already form whole frames (see encodeFrame).
  void sendFrames(std::string_view frames);
  // Buffered mode: writes frames that belong to `lane` (see Outbox): straight
  // to the socket when nothing waits, else behind what waits, where at most
  // `capacity` frames of the lane may wait (the oldest is dropped). Returns
  // how many frames were dropped. Throws RemoteError like sendFrames.
  std::size_t sendFrames(std::string_view frames, std::uint64_t lane, std::size_t capacity);

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
  // Writes without waiting; returns how much the socket took. Closes the
  // connection and throws RemoteError when it fails.
  std::size_t writeSome(const char* data, std::size_t size);
  // After a failed non-blocking send: true to try again (interrupted), false
  // when the socket would block; closes the connection and throws
  // RemoteError on any other error.
  bool retryAfterSendError();
  // REQUIRES: writeMutex_ held. Writes what the outbox holds, many frames per
  // system call, until it is empty or the socket would block. Throws like writeSome.
  void writeOutbox();
  // REQUIRES: writeMutex_ held. Asks the flusher to write the kept bytes; false without one.
  bool arm();
  // REQUIRES: writeMutex_ held. The reason to cut the connection off now, or empty.
  std::string overLimit(std::chrono::steady_clock::time_point now);
  // REQUIRES: writeMutex_ held. Closes and drops the kept bytes; returns what
  // the one report, done outside the lock, says.
  struct CutOff {
    std::string text;
    bool hard = false;
  };
  CutOff cutOff(const std::string& reason);
  void reportCutOff(const CutOff& cut);
  // Accounts the decoder's buffer against the input budget; false when it is exhausted.
  bool accountInput();

  // Constant after construction.
  const int fd_;
  const std::string description_;
  const Limits limits_;
  // Thread-safe.
  std::atomic<bool> closed_{false};
  std::atomic<std::int64_t> lastReceiveNs_;
  const std::uint64_t id_;
  // Guarded by writeMutex_: the sending side of the socket.
  mutable std::mutex writeMutex_;
  bool buffered_ = false;
  OutputLimits outputLimits_;
  std::weak_ptr<WriteFlusher> flusher_;  // owned by the server, which outlives its writes
  std::function<void(bool, const std::string&)> onCutOff_;
  const std::unique_ptr<Outbox> outbox_;  // frames waiting for the socket
  bool armed_ = false;       // the flusher will call flush()
  std::optional<std::chrono::steady_clock::time_point> overSoftSince_;
  // Used by the reading thread only.
  std::shared_ptr<InputBudget> inputBudget_;
  std::size_t budgeted_ = 0;  // taken from inputBudget_
  bool overInputBudget_ = false;
  ObjectDecoder objectDecoder_;
  FrameDecoder decoder_;
  std::optional<DecodeError> lastError_;
};

}  // namespace net
