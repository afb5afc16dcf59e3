#include "net/connection.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <cerrno>
#include <cstring>
#include <utility>

#include "mz/object.h"
#include "net/outbox.h"
#include "net/writeflusher.h"
#include "rx/rxlog.h"

namespace net {

namespace {

std::int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

std::string errnoText(int err) { return std::strerror(err); }

RX::log::Category& connectionLog() {
  static RX::log::Category& cat = RX::log::category("net.server");
  return cat;
}

std::atomic<std::uint64_t> nextConnectionId{1};

// Waiting frames written by one system call at most (well under IOV_MAX).
constexpr int kBatchFrames = 256;

timeval toTimeval(std::chrono::milliseconds t) {
  timeval tv{};
  tv.tv_sec = static_cast<time_t>(t.count() / 1000);
  tv.tv_usec = static_cast<suseconds_t>((t.count() % 1000) * 1000);
  return tv;
}

// Connects one socket of `family` to `addr` within `timeout`; returns the
// descriptor, or -1 with `error` set.
int connectOne(int family, const sockaddr* addr, socklen_t len, std::chrono::milliseconds timeout,
               std::string& error) {
  const int fd = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) {
    error = errnoText(errno);
    return -1;
  }
  int rc = ::connect(fd, addr, len);
  if (rc < 0 && errno == EINPROGRESS) {
    pollfd p{fd, POLLOUT, 0};
    const int timeoutMs = timeout.count() > 0 ? static_cast<int>(timeout.count()) : -1;
    do {
      rc = ::poll(&p, 1, timeoutMs);
    } while (rc < 0 && errno == EINTR);
    if (rc == 0) {
      ::close(fd);
      error = "no answer within " + std::to_string(timeout.count()) + " ms";
      return -1;
    }
    int soError = 0;
    socklen_t soLen = sizeof soError;
    if (rc < 0 || ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &soError, &soLen) < 0) soError = errno;
    if (soError != 0) {
      ::close(fd);
      error = errnoText(soError);
      return -1;
    }
  } else if (rc < 0) {
    error = errnoText(errno);
    ::close(fd);
    return -1;
  }
  // Back to blocking mode: every later read and write blocks its own thread.
  ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  if (family != AF_UNIX) {
    // Requests and replies are small: send them at once rather than batch them.
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  }
  return fd;
}

}  // namespace

bool InputBudget::tryTake(std::size_t bytes) {
  std::size_t used = used_.load(std::memory_order_relaxed);
  do {
    if (bytes > limit_ || used > limit_ - bytes) return false;
  } while (!used_.compare_exchange_weak(used, used + bytes, std::memory_order_relaxed));
  return true;
}

Connection::Connection(int fd, std::string description, const Limits& limits)
    : fd_(fd),
      description_(std::move(description)),
      limits_(limits),
      lastReceiveNs_(nowNs()),
      id_(nextConnectionId.fetch_add(1, std::memory_order_relaxed)),
      outbox_(std::make_unique<Outbox>()),
      decoder_(limits, [this](std::uint64_t id) -> mz::AnyObject {
        if (!objectDecoder_)
          throw DecodeError("object reference " + std::to_string(id) + " not expected here");
        return objectDecoder_(id);
      }) {}

Connection::~Connection() {
  if (auto flusher = flusher_.lock()) flusher->forget(id_);
  if (inputBudget_) inputBudget_->give(budgeted_);
  ::close(fd_);
}

std::shared_ptr<Connection> Connection::connect(const Endpoint& endpoint, std::chrono::milliseconds timeout,
                                                const Limits& limits) {
  const std::string name = endpoint.toString();
  std::string error;
  int fd = -1;
  if (endpoint.kind == Endpoint::Kind::Unix) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, endpoint.path.c_str(), endpoint.path.size() + 1);
    fd = connectOne(AF_UNIX, reinterpret_cast<const sockaddr*>(&addr), sizeof addr, timeout, error);
  } else {
    boost::asio::io_context io;
    boost::asio::ip::tcp::resolver resolver(io);
    boost::system::error_code ec;
    auto results = resolver.resolve(endpoint.host, std::to_string(endpoint.port),
                                    boost::asio::ip::tcp::resolver::numeric_service, ec);
    if (ec) throw RemoteError("cannot connect to " + name + ": " + ec.message());
    for (const auto& entry : results) {
      const auto ep = entry.endpoint();
      fd = connectOne(ep.protocol().family(), ep.data(), static_cast<socklen_t>(ep.size()), timeout, error);
      if (fd >= 0) break;
    }
    if (fd < 0 && error.empty()) error = "the host has no address";
  }
  if (fd < 0) throw RemoteError("cannot connect to " + name + ": " + error);
  return std::make_shared<Connection>(fd, name, limits);
}

void Connection::setObjectDecoder(ObjectDecoder decoder) { objectDecoder_ = std::move(decoder); }

void Connection::setReadTimeout(std::chrono::milliseconds timeout) {
  const timeval tv = toTimeval(timeout);
  ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
}

void Connection::setWriteTimeout(std::chrono::milliseconds timeout) {
  const timeval tv = toTimeval(timeout);
  ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

void Connection::send(const Message& message, const ObjectEncoder& objects) {
  // One encoding buffer per thread: no allocation once it has grown to the
  // usual frame size.
  thread_local std::string buffer;
  buffer.clear();
  encodeFrame(message, buffer, objects, limits_.maxFrameBytes);
  sendFrames(buffer);
  if (buffer.capacity() > (1u << 20)) std::string().swap(buffer);
}

void Connection::setBufferedOutput(const OutputLimits& limits, std::shared_ptr<WriteFlusher> flusher,
                                   std::function<void(bool hardLimit, const std::string& reason)> onCutOff) {
  std::lock_guard<std::mutex> lock(writeMutex_);
  buffered_ = flusher != nullptr;
  outputLimits_ = limits;
  flusher_ = std::move(flusher);
  onCutOff_ = std::move(onCutOff);
}

void Connection::setInputBudget(std::shared_ptr<InputBudget> budget) {
  if (inputBudget_) inputBudget_->give(budgeted_);
  budgeted_ = 0;
  inputBudget_ = std::move(budget);
}

void Connection::sendFrames(std::string_view frames) { (void)sendFrames(frames, Outbox::kUncapped, 0); }

std::size_t Connection::sendFrames(std::string_view frames, std::uint64_t lane, std::size_t capacity) {
  CutOff cutOffText;
  {
    std::lock_guard<std::mutex> lock(writeMutex_);
    if (!buffered_) {
      writeAll(frames.data(), frames.size());
      return 0;
    }
    if (isClosed()) throw RemoteError("connection to " + description_ + " is closed");
    // Straight to the socket when nothing waits before these bytes; behind
    // the waiting frames otherwise, so that frames never interleave.
    std::size_t taken = 0;
    if (outbox_->empty()) {
      taken = writeSome(frames.data(), frames.size());
      if (taken == frames.size()) return 0;
    }
    // A frame cut short has started: it waits uncapped, as it cannot be dropped.
    const std::size_t dropped =
        outbox_->push(frames.substr(taken), taken > 0 ? Outbox::kUncapped : lane, capacity);
    const std::string reason = overLimit(std::chrono::steady_clock::now());
    if (reason.empty()) {
      if (!armed_) armed_ = arm();
      return dropped;
    }
    cutOffText = cutOff(reason);
  }
  reportCutOff(cutOffText);
  throw RemoteError("connection to " + description_ + " cut off: " + cutOffText.text);
}

bool Connection::arm() {
  auto flusher = flusher_.lock();
  // Without a flusher (the server has stopped) the kept bytes stay until the
  // connection is closed with the rest.
  if (flusher) flusher->arm(shared_from_this(), fd_, id_);
  return flusher != nullptr;
}

std::size_t Connection::writeSome(const char* data, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n = ::send(fd_, data + done, size - done, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n >= 0)
      done += static_cast<std::size_t>(n);
    else if (!retryAfterSendError())
      break;
  }
  return done;
}

bool Connection::retryAfterSendError() {
  if (errno == EINTR) return true;
  if (errno == EAGAIN || errno == EWOULDBLOCK) return false;
  const int err = errno;
  close();
  throw RemoteError("connection to " + description_ + " lost: " + errnoText(err));
}

void Connection::writeOutbox() {
  iovec iov[kBatchFrames];
  while (!outbox_->empty()) {
    msghdr msg{};
    msg.msg_iov = iov;
    msg.msg_iovlen = static_cast<std::size_t>(outbox_->gather(iov, kBatchFrames));
    if (msg.msg_iovlen == 0) {
      outbox_->consume(0);  // only dropped frames were left
      continue;
    }
    const ssize_t n = ::sendmsg(fd_, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n >= 0)
      outbox_->consume(static_cast<std::size_t>(n));
    else if (!retryAfterSendError())
      return;
  }
}

void Connection::flush() noexcept {
  CutOff cutOffText;
  {
    std::lock_guard<std::mutex> lock(writeMutex_);
    armed_ = false;
    if (isClosed()) {
      outbox_->clear();
      return;
    }
    try {
      writeOutbox();
    } catch (const std::exception&) {
      outbox_->clear();
      return;  // the connection is closed; its reader reports the end
    }
    if (outbox_->empty()) {
      overSoftSince_.reset();
      return;
    }
    const std::string reason = overLimit(std::chrono::steady_clock::now());
    if (reason.empty()) {
      armed_ = arm();
      return;
    }
    cutOffText = cutOff(reason);
  }
  reportCutOff(cutOffText);
}

void Connection::checkOutput(std::chrono::steady_clock::time_point now) {
  CutOff cutOffText;
  {
    std::lock_guard<std::mutex> lock(writeMutex_);
    if (!buffered_ || isClosed() || outbox_->empty()) return;
    const std::string reason = overLimit(now);
    if (reason.empty()) return;
    cutOffText = cutOff(reason);
  }
  reportCutOff(cutOffText);
}

std::size_t Connection::outputBuffered() const {
  std::lock_guard<std::mutex> lock(writeMutex_);
  return outbox_->unsent();
}

std::string Connection::overLimit(std::chrono::steady_clock::time_point now) {
  const std::size_t kept = outbox_->footprint();
  if (kept > outputLimits_.hardBytes)
    return "output buffer of " + std::to_string(kept) + " bytes over its hard limit maxOutputBytes " +
           std::to_string(outputLimits_.hardBytes);
  if (kept <= outputLimits_.softBytes) {
    overSoftSince_.reset();
    return std::string();
  }
  if (!overSoftSince_) overSoftSince_ = now;
  if (now - *overSoftSince_ < outputLimits_.softTime) return std::string();
  return "output buffer over its soft limit softOutputBytes " + std::to_string(outputLimits_.softBytes) +
         " for " + std::to_string(outputLimits_.softTime.count()) + " ms";
}

Connection::CutOff Connection::cutOff(const std::string& reason) {
  const std::size_t lost = outbox_->unsent();
  // Only the hard limit cuts a connection off while it keeps more than it.
  const bool hard = outbox_->footprint() > outputLimits_.hardBytes;
  outbox_->clear();
  overSoftSince_.reset();
  close();
  return CutOff{reason + " (" + std::to_string(lost) + " bytes not delivered)", hard};
}

void Connection::reportCutOff(const CutOff& cut) {
  RX_WARNING(connectionLog(), "cutting off " << description_ << ": " << cut.text);
  if (onCutOff_) onCutOff_(cut.hard, cut.text);
}

bool Connection::accountInput() {
  const std::size_t held =
      decoder_.capacity() > InputBudget::kFreeBytes ? decoder_.capacity() - InputBudget::kFreeBytes : 0;
  if (held < budgeted_) {
    inputBudget_->give(budgeted_ - held);
  } else if (held > budgeted_ && !inputBudget_->tryTake(held - budgeted_)) {
    return false;
  }
  budgeted_ = held;
  return true;
}

// REQUIRES: writeMutex_ held.
void Connection::writeAll(const char* data, std::size_t size) {
  if (isClosed()) throw RemoteError("connection to " + description_ + " is closed");
  while (size > 0) {
    const ssize_t n = ::send(fd_, data, size, MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) continue;
      const int err = errno;
      // A frame cut short leaves the stream out of sync: the connection is done.
      close();
      if (err == EAGAIN || err == EWOULDBLOCK)
        throw RemoteError("connection to " + description_ + " closed: the other side stopped reading");
      throw RemoteError("connection to " + description_ + " lost: " + errnoText(err));
    }
    data += n;
    size -= static_cast<std::size_t>(n);
  }
}

namespace {
thread_local Connection::InterruptCheck interruptCheck = nullptr;
}  // namespace

void Connection::setInterruptCheck(InterruptCheck check) { interruptCheck = check; }

Connection::ReadStatus Connection::read(Message& out) {
  constexpr std::size_t kChunk = 64 * 1024;
  for (;;) {
    try {
      if (auto message = decoder_.next()) {
        out = std::move(*message);
        return ReadStatus::Message;
      }
    } catch (const DecodeError& e) {
      lastError_ = e;
      return e.fatal() ? ReadStatus::OutOfSync : ReadStatus::BadFrame;
    }
    if (isClosed()) return ReadStatus::Closed;
    char* room = decoder_.prepare(kChunk);
    if (inputBudget_ && !accountInput()) {
      // Too much is held in partial frames across all clients: this one,
      // which asks for more, is the one refused.
      overInputBudget_ = true;
      lastError_.emplace("buffered input over its budget maxInputBytes " + std::to_string(inputBudget_->limit()) +
                             " across all connections",
                         std::nullopt, std::nullopt, true);
      return ReadStatus::OutOfSync;
    }
    const ssize_t n = ::recv(fd_, room, kChunk, 0);
    if (n > 0) {
      decoder_.commit(static_cast<std::size_t>(n));
      lastReceiveNs_.store(nowNs(), std::memory_order_relaxed);
      continue;
    }
    if (n < 0 && errno == EINTR) {
      if (interruptCheck) interruptCheck();
      continue;
    }
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) && !isClosed()) return ReadStatus::TimedOut;
    return ReadStatus::Closed;
  }
}

void Connection::close() {
  if (closed_.exchange(true, std::memory_order_acq_rel)) return;
  // shutdown, not close: the descriptor stays ours until destruction, so a
  // thread still blocked on it is woken and cannot meet a reused number.
  ::shutdown(fd_, SHUT_RDWR);
}

std::chrono::steady_clock::time_point Connection::lastReceive() const {
  return std::chrono::steady_clock::time_point(
      std::chrono::nanoseconds(lastReceiveNs_.load(std::memory_order_relaxed)));
}

}  // namespace net
