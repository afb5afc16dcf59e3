#include "net/httpstatusserver.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

// Debian's cpp-httplib is a compiled library: its CPPHTTPLIB_* limits are
// fixed inside it (and it has no limit on the number of header lines), so the
// limits here are applied by our own socket stream and connection loop below,
// around the library's request parser and router.
#include <httplib.h>
// OpenSSL comes with the HTTP library (libcpp-httplib-dev depends on
// libssl-dev and its header includes OpenSSL already): its SHA-256 hashes the
// style blocks that the pages' policy allows.
#include <openssl/evp.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "mz/object.h"
#include "net/catalogjson.h"
#include "rx/rxbroker.h"
#include "rx/rxlivefeed.h"
#include "rx/rxlog.h"
#include "rx/rxmodule.h"

namespace net {

namespace {

using Clock = std::chrono::steady_clock;
using Options = HttpStatusServer::Options;

RX::log::Category& httpLog() {
  static RX::log::Category& category = RX::log::category("rx.http");
  return category;
}

std::string policyWithStyles(const std::string& styleSource) {
  return "default-src 'none'; script-src 'none'; object-src 'none'; style-src " + styleSource +
         "; base-uri 'none'; form-action 'none'; frame-ancestors 'none'; sandbox";
}

void setCommonHeaders(httplib::Response& res, const std::string& page = std::string()) {
  res.set_header("Content-Security-Policy", HttpStatusServer::contentSecurityPolicy(page));
  res.set_header("X-Content-Type-Options", "nosniff");
  res.set_header("Cache-Control", "no-store");
}

const std::string kLivePolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self'; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

void setLiveHeaders(httplib::Response& res) {
  res.set_header("Content-Security-Policy", kLivePolicy);
  res.set_header("X-Content-Type-Options", "nosniff");
  res.set_header("Cache-Control", "no-store");
}

// The first module that offers a live view, or null.
boost::shared_ptr<RX::RXModule> liveModule(RX::RXBroker& broker) {
  for (const std::string& name : broker.moduleNames()) {
    boost::shared_ptr<RX::RXModule> module = broker.getModule(name);
    if (module && module->liveFeed()) return module;
  }
  return nullptr;
}

std::string droppedJson(RX::RXBroker& broker) {
  return nlohmann::json(broker.droppedCounts()).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

// Headers are added, not replaced: each answer must set them exactly once.
void setText(httplib::Response& res, int status, const std::string& text) {
  setCommonHeaders(res);
  res.status = status;
  res.set_content(text, "text/plain; charset=utf-8");
}

// Takes one of `limit` slots counted by `taken`. When all are taken, answers
// 503 naming what is full and the option that bounds it, and returns false.
bool takeSlot(std::atomic<std::size_t>& taken, std::size_t limit, const std::string& full, const char* option,
              const char* retryAfter, httplib::Response& res) {
  if (taken.fetch_add(1) < limit) return true;
  --taken;
  res.set_header("Retry-After", retryAfter);
  setText(res, 503,
          "Service unavailable: " + std::to_string(limit) + " " + full + " (limit " + option + " = " +
              std::to_string(limit) + ")\n");
  return false;
}

// Set by BoundedPool::enqueue on the accepting thread when no more
// connections may wait: the connection it hands over is refused at once.
thread_local bool tRefuseConnection = false;

// The connection pool: a fixed number of threads and a bounded queue of
// accepted connections waiting for one.
class BoundedPool final : public httplib::TaskQueue {
 public:
  BoundedPool(std::size_t threads, std::size_t maxQueued) : maxQueued_(maxQueued) {
    for (std::size_t i = 0; i < std::max<std::size_t>(threads, 1); ++i) threads_.emplace_back([this] { work(); });
  }
  ~BoundedPool() override { shutdown(); }

  void enqueue(std::function<void()> job) override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (jobs_.size() < maxQueued_) {
        jobs_.push_back(std::move(job));
        wake_.notify_one();
        return;
      }
    }
    tRefuseConnection = true;
    job();
    tRefuseConnection = false;
  }

  // Runs what is queued (connections close at once when the server stops),
  // then joins the threads.
  void shutdown() override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (shuttingDown_) return;
      shuttingDown_ = true;
    }
    wake_.notify_all();
    for (std::thread& t : threads_) t.join();
  }

 private:
  void work() {
    for (;;) {
      std::function<void()> job;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        wake_.wait(lock, [this] { return shuttingDown_ || !jobs_.empty(); });
        if (jobs_.empty()) return;
        job = std::move(jobs_.front());
        jobs_.pop_front();
      }
      job();
    }
  }

  // Constant after construction.
  const std::size_t maxQueued_;
  std::vector<std::thread> threads_;
  // Guarded by mutex_.
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> jobs_;
  bool shuttingDown_ = false;
};

void endpointOf(int sock, bool peer, std::string& ip, int& port) {
  sockaddr_storage addr{};
  socklen_t len = sizeof(addr);
  int rc = peer ? getpeername(sock, reinterpret_cast<sockaddr*>(&addr), &len)
                : getsockname(sock, reinterpret_cast<sockaddr*>(&addr), &len);
  char text[INET6_ADDRSTRLEN] = "";
  port = 0;
  if (rc == 0 && addr.ss_family == AF_INET) {
    auto* in = reinterpret_cast<sockaddr_in*>(&addr);
    inet_ntop(AF_INET, &in->sin_addr, text, sizeof(text));
    port = ntohs(in->sin_port);
  } else if (rc == 0 && addr.ss_family == AF_INET6) {
    auto* in6 = reinterpret_cast<sockaddr_in6*>(&addr);
    inet_ntop(AF_INET6, &in6->sin6_addr, text, sizeof(text));
    port = ntohs(in6->sin6_port);
  }
  ip = text;
}

// One client connection as the HTTP library reads and writes it. Counts the
// bytes and lines of each request as the parser takes them, and stops the
// request (read fails) at the first limit it breaks; waits on the socket only
// until the request's deadline or until the server stops.
class GuardedStream final : public httplib::Stream {
 public:
  enum class Refusal { kNone, kTimeout, kTooManyHeaders, kHeadTooLarge, kBodyTooLarge };
  enum class Wait { kReady, kTimedOut, kStopped };

  GuardedStream(int sock, int stopFd, const Options& options) : sock_(sock), stopFd_(stopFd), options_(options) {}

  // Waits for the first byte of the next request, at most readTimeoutMs.
  bool awaitRequest() {
    return begin_ < end_ || waitFor(POLLIN, Clock::now() + std::chrono::milliseconds(options_.readTimeoutMs)) ==
                                Wait::kReady;
  }
  void beginRequest() {
    readDeadline_ = Clock::now() + std::chrono::milliseconds(options_.readTimeoutMs);
    writing_ = false;
    inHead_ = true;
    sawRequestLine_ = false;
    headBytes_ = headerLines_ = lineLength_ = bodyBytes_ = 0;
  }
  Refusal refusal() const { return refusal_; }

  // Answers the refusal, then reads and drops what the client still sends
  // for a short while (closeLingerMs; with linger false only what has
  // already arrived), so that it sees the answer rather than a reset.
  void answerRefusal(const std::string& status, const std::string& text, bool linger = true) {
    std::string answer = "HTTP/1.1 " + status +
                         "\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Length: " +
                         std::to_string(text.size()) + "\r\nConnection: close\r\nContent-Security-Policy: " +
                         HttpStatusServer::contentSecurityPolicy(std::string()) + "\r\n\r\n" + text;
    writeDeadline_ = Clock::now() + std::chrono::milliseconds(linger ? options_.writeTimeoutMs : 0);
    if (!sendAll(answer.data(), answer.size())) return;
    ::shutdown(sock_, SHUT_WR);
    const Clock::time_point lingerEnd = Clock::now() + std::chrono::milliseconds(linger ? options_.closeLingerMs : 0);
    char scratch[4096];
    while (waitFor(POLLIN, lingerEnd) == Wait::kReady && ::recv(sock_, scratch, sizeof(scratch), 0) > 0) {
    }
  }

  // A stream that writes for long (an event stream) renews its deadline
  // before each write: the deadline bounds one write, not the stream.
  void renewWriteDeadline() {
    writing_ = true;
    writeDeadline_ = Clock::now() + std::chrono::milliseconds(options_.writeTimeoutMs);
  }

  bool is_readable() const override { return begin_ < end_ || waitFor(POLLIN, readDeadline_) == Wait::kReady; }
  bool is_writable() const override { return waitFor(POLLOUT, writeDeadline()) == Wait::kReady; }

  ssize_t read(char* ptr, size_t size) override {
    if (refusal_ != Refusal::kNone) return -1;
    if (begin_ == end_) {
      Wait wait = waitFor(POLLIN, readDeadline_);
      if (wait != Wait::kReady) {
        if (wait == Wait::kTimedOut) refusal_ = Refusal::kTimeout;
        return -1;
      }
      ssize_t n = ::recv(sock_, buffer_, sizeof(buffer_), 0);
      if (n <= 0) return n == 0 ? 0 : -1;
      begin_ = 0;
      end_ = static_cast<std::size_t>(n);
    }
    std::size_t n = std::min(size, end_ - begin_);
    if (!account(buffer_ + begin_, n)) return -1;
    std::memcpy(ptr, buffer_ + begin_, n);
    begin_ += n;
    return static_cast<ssize_t>(n);
  }

  ssize_t write(const char* ptr, size_t size) override {
    // After a refusal the library writes its own generic answer; ours replaces it.
    if (refusal_ != Refusal::kNone) return static_cast<ssize_t>(size);
    if (!writing_) {
      writing_ = true;
      writeDeadline_ = Clock::now() + std::chrono::milliseconds(options_.writeTimeoutMs);
    }
    return sendAll(ptr, size) ? static_cast<ssize_t>(size) : -1;
  }

  void get_remote_ip_and_port(std::string& ip, int& port) const override { endpointOf(sock_, true, ip, port); }
  void get_local_ip_and_port(std::string& ip, int& port) const override { endpointOf(sock_, false, ip, port); }
  socket_t socket() const override { return sock_; }

 private:
  Clock::time_point writeDeadline() const {
    return writing_ ? writeDeadline_ : Clock::now() + std::chrono::milliseconds(options_.writeTimeoutMs);
  }

  Wait waitFor(short events, Clock::time_point deadline) const {
    for (;;) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (left < 0) return Wait::kTimedOut;
      pollfd fds[2] = {{sock_, events, 0}, {stopFd_, POLLIN, 0}};
      int rc = ::poll(fds, 2, static_cast<int>(std::min<long long>(left + 1, 60000)));
      if (rc < 0 && errno != EINTR) return Wait::kStopped;
      if (rc <= 0) continue;
      if (fds[1].revents != 0) return Wait::kStopped;
      return Wait::kReady;  // ready, or an error/hang-up that the next call reports
    }
  }

  bool sendAll(const char* data, std::size_t size) {
    std::size_t done = 0;
    while (done < size) {
      ssize_t n = ::send(sock_, data + done, size - done, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n > 0) {
        done += static_cast<std::size_t>(n);
      } else if (n < 0 && errno == EINTR) {
        continue;
      } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        if (waitFor(POLLOUT, writeDeadline_) != Wait::kReady) return false;
      } else {
        return false;
      }
    }
    return true;
  }

  // Counts bytes handed to the parser; false (and a refusal) at the first
  // limit broken. The parser takes the head a byte at a time, so the count
  // of head and body bytes is exact.
  bool account(const char* data, std::size_t size) {
    if (!inHead_) return accountBody(size);
    for (std::size_t i = 0; i < size; ++i) {
      if (++headBytes_ > options_.maxHeaderBytes) {
        refusal_ = Refusal::kHeadTooLarge;
        return false;
      }
      const char c = data[i];
      if (c == '\r') continue;
      if (c != '\n') {
        ++lineLength_;
        continue;
      }
      if (lineLength_ == 0 && sawRequestLine_) {  // the blank line: the head is complete
        inHead_ = false;
        return accountBody(size - i - 1);
      }
      if (sawRequestLine_ && ++headerLines_ > options_.maxHeaderCount) {
        refusal_ = Refusal::kTooManyHeaders;
        return false;
      }
      sawRequestLine_ = sawRequestLine_ || lineLength_ > 0;
      lineLength_ = 0;
    }
    return true;
  }
  bool accountBody(std::size_t size) {
    bodyBytes_ += size;
    if (bodyBytes_ <= options_.maxPayloadBytes) return true;
    refusal_ = Refusal::kBodyTooLarge;
    return false;
  }

  // Constant after construction; the stream is used by one thread at a time.
  const int sock_;
  const int stopFd_;
  const Options& options_;
  // Read buffer.
  char buffer_[4096];
  std::size_t begin_ = 0, end_ = 0;
  // The request being read and answered.
  Clock::time_point readDeadline_, writeDeadline_;
  bool writing_ = false;
  bool inHead_ = true, sawRequestLine_ = false;
  std::size_t headBytes_ = 0, headerLines_ = 0, lineLength_ = 0, bodyBytes_ = 0;
  Refusal refusal_ = Refusal::kNone;
};

// The stream of the request this thread serves: a handler that streams its
// answer reaches the socket through it.
thread_local GuardedStream* tCurrentStream = nullptr;

// The library's server with our connection loop: each request read through
// a GuardedStream, refusals answered with a text naming the limit.
class GuardedServer final : public httplib::Server {
 public:
  GuardedServer(const HttpStatusServer::Options& options, int stopFd) : options_(options), stopFd_(stopFd) {}

  // The library listens with a backlog of 5: a burst of a few more
  // connections (a browser opens six) would wait for the client's SYN
  // retry, a second or more. Call after binding.
  void widenBacklog() {
    ::listen(svr_sock_, static_cast<int>(std::min<std::size_t>(options_.maxQueuedConnections, SOMAXCONN)));
  }

 private:
  bool process_and_close_socket(socket_t sock) override {
    GuardedStream stream(sock, stopFd_, options_);
    if (tRefuseConnection) {
      // On the accepting thread: no waiting on this client at all.
      stream.answerRefusal("503 Service Unavailable",
                           "Service unavailable: " + std::to_string(options_.maxQueuedConnections) +
                               " connections already wait for a thread (limit maxQueuedConnections = " +
                               std::to_string(options_.maxQueuedConnections) + ")\n",
                           false);
    } else {
      serve(stream);
    }
    ::shutdown(sock, SHUT_RDWR);
    ::close(sock);
    return true;
  }

  void serve(GuardedStream& stream) {
    tCurrentStream = &stream;
    struct Reset {
      ~Reset() { tCurrentStream = nullptr; }
    } reset;
    for (std::size_t count = options_.keepAliveMaxCount; count > 0 && stream.awaitRequest(); --count) {
      stream.beginRequest();
      bool connectionClosed = false;
      bool ok = process_request(stream, count == 1, connectionClosed, nullptr);
      if (stream.refusal() != GuardedStream::Refusal::kNone) {
        refuse(stream);
        return;
      }
      if (!ok || connectionClosed) return;
    }
  }

  void refuse(GuardedStream& stream) {
    const std::string limit = [&] {
      switch (stream.refusal()) {
        case GuardedStream::Refusal::kTimeout:
          return "readTimeoutMs = " + std::to_string(options_.readTimeoutMs);
        case GuardedStream::Refusal::kTooManyHeaders:
          return "maxHeaderCount = " + std::to_string(options_.maxHeaderCount);
        case GuardedStream::Refusal::kHeadTooLarge:
          return "maxHeaderBytes = " + std::to_string(options_.maxHeaderBytes);
        default:
          return "maxPayloadBytes = " + std::to_string(options_.maxPayloadBytes);
      }
    }();
    switch (stream.refusal()) {
      case GuardedStream::Refusal::kTimeout:
        RX_VERBOSE(httpLog(), "request not complete after " << options_.readTimeoutMs << " ms: closed");
        stream.answerRefusal("408 Request Timeout", "Request timeout: the request did not arrive within " +
                                                        std::to_string(options_.readTimeoutMs) + " ms (limit " +
                                                        limit + ")\n");
        break;
      case GuardedStream::Refusal::kTooManyHeaders:
        stream.answerRefusal("431 Request Header Fields Too Large",
                             "Request header fields too large: more than " +
                                 std::to_string(options_.maxHeaderCount) + " header lines (limit " + limit + ")\n");
        break;
      case GuardedStream::Refusal::kHeadTooLarge:
        stream.answerRefusal("431 Request Header Fields Too Large",
                             "Request header fields too large: request head longer than " +
                                 std::to_string(options_.maxHeaderBytes) + " bytes (limit " + limit + ")\n");
        break;
      default:
        stream.answerRefusal("413 Payload Too Large", "Payload too large: request body longer than " +
                                                          std::to_string(options_.maxPayloadBytes) +
                                                          " bytes (limit " + limit + ")\n");
        break;
    }
  }

  const HttpStatusServer::Options options_;
  const int stopFd_;
};

}  // namespace

struct HttpStatusServer::Impl {
  // Constant after construction.
  boost::shared_ptr<RX::RXBroker> broker;
  std::string host;
  int requestedPort = 0;
  Options options;
  // Written by stop(): wakes every connection's waits so that they close.
  int stopFds[2] = {-1, -1};
  std::unique_ptr<GuardedServer> server;
  // Set by start(), read after it.
  int boundPort = 0;
  std::thread thread;
  // One module page renders at a time; the count of those waiting is bounded.
  std::mutex renderMutex;
  std::atomic<std::size_t> rendersWaiting{0};
  // Open event streams, at most options.maxLiveStreams.
  std::atomic<std::size_t> liveStreams{0};
};

namespace {

// One /live/events stream: holds its slot among maxLiveStreams, the module
// and its feed reader for as long as the library holds the answer.
class LiveStream {
 public:
  static constexpr std::chrono::milliseconds kBatchInterval{50};

  // Takes one of `slots` (already counted) and gives it back when destroyed.
  LiveStream(std::atomic<std::size_t>& slots, RX::RXBroker& broker, const Options& options,
             boost::shared_ptr<RX::RXModule> module, int stopFd)
      : slots_(slots), broker_(broker), options_(options), module_(std::move(module)), stopFd_(stopFd) {
    reader_ = module_->liveFeed()->open(options_.maxLivePending);
  }
  ~LiveStream() {
    reader_.reset();
    --slots_;
  }

  // Writes events until the client leaves, a write fails or the server
  // stops; false ends the connection. Each wait is on the client's socket
  // (a hang-up), the server's stop pipe and the reader, at most one
  // heartbeat long.
  bool run(httplib::DataSink& sink) {
    GuardedStream* const socketStream = tCurrentStream;
    if (!socketStream) return false;
    auto send = [&](const std::string& text) {
      socketStream->renewWriteDeadline();
      return sink.write(text.data(), text.size());
    };
    // The page loads the table when it hears "hello": changes from then on
    // are already kept for it.
    if (!send("retry: 2000\nevent: hello\ndata: \n\n")) return false;
    std::string lastDropped;
    Clock::time_point nextDroppedCheck = Clock::now(), nextBatch = Clock::now();
    for (;;) {
      // At most one batch of rows per kBatchInterval: a key written without
      // pause is then sent once per interval, not once per write.
      const Clock::time_point now = Clock::now();
      const bool batchDue = now >= nextBatch;
      const int timeout = batchDue ? options_.liveHeartbeatMs
                                   : static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(nextBatch - now).count());
      pollfd fds[3] = {{socketStream->socket(), POLLIN, 0}, {stopFd_, POLLIN, 0}, {reader_->wakeFd(), POLLIN, 0}};
      const int rc = ::poll(fds, batchDue ? 3 : 2, timeout);
      if (rc < 0 && errno != EINTR) return false;
      if (!batchDue) fds[2].revents = 0;
      if (fds[1].revents != 0) return false;
      if (fds[0].revents != 0) {
        // An event stream's client sends nothing: data or a hang-up ends it.
        char byte;
        const ssize_t n = ::recv(socketStream->socket(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
        if (n >= 0 || (errno != EAGAIN && errno != EINTR)) return false;
      }
      std::string batch;
      if (fds[2].revents != 0) {
        nextBatch = Clock::now() + kBatchInterval;
        bool overflowed = false;
        const std::vector<std::string> names = reader_->take(overflowed);
        if (overflowed) batch = "event: resync\ndata: \n\n";
        for (std::size_t i = 0; !overflowed && i < names.size(); ++i) {
          batch += "event: row\ndata: " + rowOf(names[i]) + "\n\n";
          if (batch.size() >= 64 * 1024) {
            if (!send(batch)) return false;
            batch.clear();
          }
        }
      } else if (rc == 0 && batchDue) {
        batch = ": heartbeat\n\n";
      }
      if (Clock::now() >= nextDroppedCheck) {
        nextDroppedCheck = Clock::now() + std::chrono::seconds(1);
        std::string dropped = droppedJson(broker_);
        if (dropped != lastDropped) batch += "event: dropped\ndata: " + dropped + "\n\n";
        lastDropped = std::move(dropped);
      }
      if (!batch.empty() && !send(batch)) return false;
    }
  }

 private:
  std::string rowOf(const std::string& name) {
    try {
      return module_->liveRowJson(name);
    } catch (const std::exception& e) {
      return nlohmann::json({{"name", name}, {"note", std::string("cannot be shown: ") + e.what()}})
          .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    }
  }

  // The server outlives its streams (stop() joins the serving threads).
  std::atomic<std::size_t>& slots_;
  RX::RXBroker& broker_;
  const Options& options_;
  // The module before its reader: the reader must go first.
  const boost::shared_ptr<RX::RXModule> module_;
  std::unique_ptr<RX::LiveFeed::Reader> reader_;
  const int stopFd_;
};

// One of the live view's files, read at each request so that an edited file
// shows on reload; empty when it cannot be read.
std::string readWebFile(const std::string& dir, const std::string& name) {
  if (dir.empty()) return std::string();
  std::ifstream in(dir + "/" + name, std::ios::binary);
  if (!in) return std::string();
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

HttpStatusServer::HttpStatusServer(boost::shared_ptr<RX::RXBroker> broker, std::string host, int port)
    : HttpStatusServer(std::move(broker), std::move(host), port, Options()) {}

HttpStatusServer::HttpStatusServer(boost::shared_ptr<RX::RXBroker> broker, std::string host, int port,
                                   const Options& options)
    : impl_(std::make_unique<Impl>()) {
  if (options.threads == 0 || options.maxQueuedConnections == 0 || options.readTimeoutMs <= 0 ||
      options.writeTimeoutMs <= 0 || options.keepAliveMaxCount == 0)
    throw std::invalid_argument(
        "HTTP server options: threads, maxQueuedConnections, readTimeoutMs, writeTimeoutMs and keepAliveMaxCount "
        "must be at least 1");
  impl_->broker = std::move(broker);
  impl_->host = std::move(host);
  impl_->requestedPort = port;
  impl_->options = options;
  if (::pipe2(impl_->stopFds, O_CLOEXEC | O_NONBLOCK) != 0)
    throw std::runtime_error(std::string("cannot create the HTTP server's stop pipe: ") + std::strerror(errno));
  impl_->server = std::make_unique<GuardedServer>(impl_->options, impl_->stopFds[0]);

  httplib::Server& server = *impl_->server;
  // The library's default also sets SO_REUSEPORT, which would let a second
  // broker share the port silently instead of being told it is taken.
  server.set_socket_options([](socket_t sock) {
    int yes = 1;
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
  });
  const Options& limits = impl_->options;
  server.new_task_queue = [&limits] { return new BoundedPool(limits.threads, limits.maxQueuedConnections); };
  server.set_payload_max_length(limits.maxPayloadBytes);
  server.set_read_timeout(std::chrono::milliseconds(limits.readTimeoutMs));
  server.set_write_timeout(std::chrono::milliseconds(limits.writeTimeoutMs));
  // Answers the library makes itself (400, unknown paths) get a text and the policy.
  server.set_error_handler([](const httplib::Request&, httplib::Response& res) {
    if (res.body.empty()) {
      setText(res, res.status, "HTTP error " + std::to_string(res.status) + "\n");
    }
  });
  server.set_exception_handler([](const httplib::Request& req, httplib::Response& res, std::exception_ptr error) {
    std::string what = "unknown error";
    try {
      std::rethrow_exception(error);
    } catch (const std::exception& e) {
      what = e.what();
    } catch (...) {
    }
    RX_WARNING(httpLog(), "GET " << RX::log::printable(req.path) << " failed: " << RX::log::printable(what));
    setText(res, 500, "The page failed: " + what + "\n");
  });

  server.Get("/", [this](const httplib::Request&, httplib::Response& res) {
    std::string page = indexPage();
    setCommonHeaders(res, page);
    res.set_content(std::move(page), "text/html; charset=utf-8");
  });
  server.Get("/status.json", [this](const httplib::Request&, httplib::Response& res) {
    setCommonHeaders(res);
    res.set_content(statusJson(), "application/json");
  });
  // The live view, before the module pages: a module named "live" is not
  // reachable by its page.
  server.Get(R"(/live|/live/(live\.js|live\.css))", [this](const httplib::Request& req, httplib::Response& res) {
    const std::string name = req.matches[1].matched ? std::string(req.matches[1]) : std::string("live.html");
    std::string body = readWebFile(impl_->options.webDir, name);
    if (body.empty())
      return setText(res, 404, "The live view's file " + name + " is not installed (web folder: " +
                                   (impl_->options.webDir.empty() ? "none" : impl_->options.webDir) + ")\n");
    setLiveHeaders(res);
    const char* type = name == "live.js" ? "text/javascript; charset=utf-8"
                                         : name == "live.css" ? "text/css; charset=utf-8" : "text/html; charset=utf-8";
    res.set_content(std::move(body), type);
  });
  server.Get("/live/keys.json", [this](const httplib::Request&, httplib::Response& res) {
    std::string json = liveJson();
    if (json.empty()) return setText(res, 404, "No module of this broker offers a live view\n");
    setLiveHeaders(res);
    res.set_content(std::move(json), "application/json");
  });
  server.Get("/live/events", [this](const httplib::Request&, httplib::Response& res) {
    Impl& impl = *impl_;
    boost::shared_ptr<RX::RXModule> module = liveModule(*impl.broker);
    if (!module) return setText(res, 404, "No module of this broker offers a live view\n");
    if (!takeSlot(impl.liveStreams, impl.options.maxLiveStreams, "live streams already open", "maxLiveStreams", "5",
                  res))
      return;
    std::shared_ptr<LiveStream> stream;
    try {
      stream = std::make_shared<LiveStream>(impl.liveStreams, *impl.broker, impl.options, std::move(module),
                                            impl.stopFds[0]);
    } catch (...) {
      --impl.liveStreams;  // the stream never took its slot
      throw;
    }
    setLiveHeaders(res);
    res.set_chunked_content_provider("text/event-stream",
                                     [stream](std::size_t, httplib::DataSink& sink) { return stream->run(sink); });
  });
  server.Get(R"(/([^/]+)/methods\.json)", [this](const httplib::Request& req, httplib::Response& res) {
    std::string json = methodsJson(req.matches[1]);
    if (json.empty()) return setText(res, 404, "No module named " + std::string(req.matches[1]) + " on this broker\n");
    setCommonHeaders(res);
    res.set_content(json, "application/json");
  });
  server.Get(R"(/([^/]+))", [this](const httplib::Request& req, httplib::Response& res) {
    const std::string name = req.matches[1];
    boost::shared_ptr<RX::RXModule> module = impl_->broker->getModule(name);
    if (!module) return setText(res, 404, "No module named " + name + " on this broker\n");
    Impl& impl = *impl_;
    if (!takeSlot(impl.rendersWaiting, impl.options.maxWaitingPageRenders,
                  "requests already wait to render a module page", "maxWaitingPageRenders", "1", res))
      return;
    std::unique_lock<std::mutex> turn(impl.renderMutex);
    --impl.rendersWaiting;
    std::string page;
    try {
      page = module->httpGet();
    } catch (const std::exception& e) {
      return setText(res, 500, "The page of " + name + " failed: " + e.what() + "\n");
    }
    turn.unlock();
    setCommonHeaders(res, page);
    res.set_content(std::move(page), "text/html; charset=utf-8");
  });
}

HttpStatusServer::~HttpStatusServer() {
  stop();
  for (int fd : impl_->stopFds)
    if (fd >= 0) ::close(fd);
}

void HttpStatusServer::start() {
  Impl& impl = *impl_;
  int port = impl.requestedPort;
  bool bound = port == 0 ? (port = impl.server->bind_to_any_port(impl.host)) > 0
                         : impl.server->bind_to_port(impl.host, port);
  if (!bound) {
    throw std::runtime_error("cannot serve HTTP on " + impl.host + ":" + std::to_string(impl.requestedPort) +
                             ": " + std::strerror(errno ? errno : EADDRINUSE));
  }
  impl.boundPort = port;
  impl.server->widenBacklog();
  impl.thread = std::thread([&impl] { impl.server->listen_after_bind(); });
  // The library's stop() does nothing until its loop runs; waiting here makes
  // a stop that follows right after start() effective instead of hanging.
  while (!impl.server->is_running()) std::this_thread::yield();
  RX_INFO(httpLog(), "status pages on " << url() << " (" << impl.options.threads << " threads, requests within "
                                        << impl.options.readTimeoutMs << " ms)");
}

void HttpStatusServer::stop() {
  if (!impl_ || !impl_->thread.joinable()) return;
  const char byte = 1;
  if (::write(impl_->stopFds[1], &byte, 1) < 0) {
    // The pipe is empty and non-blocking: this cannot fail; connections
    // would still end at their deadlines.
  }
  impl_->server->stop();
  impl_->thread.join();
}

int HttpStatusServer::port() const { return impl_->boundPort; }

std::string HttpStatusServer::url() const {
  return "http://" + impl_->host + ":" + std::to_string(impl_->boundPort);
}

const HttpStatusServer::Options& HttpStatusServer::options() const { return impl_->options; }

std::size_t HttpStatusServer::pageRendersWaiting() const { return impl_->rendersWaiting.load(); }

std::size_t HttpStatusServer::liveStreams() const { return impl_->liveStreams.load(); }

const std::string& HttpStatusServer::livePolicy() { return kLivePolicy; }

std::string HttpStatusServer::styleHashSource(const std::string& styleText) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(styleText.data(), styleText.size(), digest, &length, EVP_sha256(), nullptr) != 1)
    throw std::runtime_error("SHA-256 of a style block failed");
  unsigned char base64[4 * ((EVP_MAX_MD_SIZE + 2) / 3) + 1];
  int written = EVP_EncodeBlock(base64, digest, static_cast<int>(length));
  return "'sha256-" + std::string(reinterpret_cast<char*>(base64), static_cast<std::size_t>(written)) + "'";
}

std::string HttpStatusServer::contentSecurityPolicy(const std::string& page) {
  // Only a style element inside the head counts: the module pages write
  // names and values after it, unescaped, and a <style> planted there must
  // stay refused.
  const std::size_t headEnd = std::min(page.find("</head>"), page.find("<body"));
  const std::size_t open = page.find("<style");
  if (headEnd == std::string::npos || open >= headEnd) return policyWithStyles("'none'");
  const std::size_t textStart = page.find('>', open);
  const std::size_t textEnd = page.find("</style>", open);
  if (textStart >= textEnd || textEnd >= headEnd) return policyWithStyles("'none'");
  return policyWithStyles(styleHashSource(page.substr(textStart + 1, textEnd - textStart - 1)));
}

std::string HttpStatusServer::indexPage() const {
  RX::RXBroker& broker = *impl_->broker;
  std::ostringstream os;
  os << "<!DOCTYPE html><html><head><meta charset=\"utf-8\"><title>" << RX::htmlEscape(broker.getName())
     << "</title><style>body, h1, th, td {font-family: verdana;} td, th {font-size: 12px; padding: 2px; "
        "text-align: left;}</style></head><body>\n<h1>"
     << RX::htmlEscape(broker.getName()) << "</h1>\n<h4>Modules</h4>\n<table><tr><th>Module</th><th>Description</th>"
     << "<th>Methods</th></tr>\n";
  for (const std::string& name : broker.moduleNames()) {
    boost::shared_ptr<RX::RXModule> module = broker.getModule(name);
    if (!module) continue;  // left since the listing
    os << "<tr><td><a href=\"/" << RX::htmlEscape(name) << "\">" << RX::htmlEscape(name) << "</a></td><td>"
       << RX::htmlEscape(module->getModuleDescription()) << "</td><td><a href=\"/" << RX::htmlEscape(name)
       << "/methods.json\">" << module->methods().size() << " methods</a></td></tr>\n";
  }
  os << "</table>\n<h4>Dropped notifications</h4>\n";
  os << "<table><tr><th>Subscriber module</th><th>Dropped</th></tr>\n";
  for (const auto& entry : broker.droppedCounts())
    os << "<tr><td>" << RX::htmlEscape(entry.first) << "</td><td>" << entry.second << "</td></tr>\n";
  os << "</table>\n<h4>Transport</h4>\n<table><tr><th>Counter</th><th>Count</th></tr>\n";
  for (const auto& entry : broker.transportCounters())
    os << "<tr><td>" << RX::htmlEscape(entry.first) << "</td><td>" << entry.second << "</td></tr>\n";
  os << "</table>\n</body></html>\n";
  return os.str();
}

std::string HttpStatusServer::statusJson() const {
  RX::RXBroker& broker = *impl_->broker;
  nlohmann::json modules = nlohmann::json::array();
  for (const std::string& name : broker.moduleNames()) {
    boost::shared_ptr<RX::RXModule> module = broker.getModule(name);
    if (module) modules.push_back({{"name", name}, {"description", module->getModuleDescription()}});
  }
  nlohmann::json doc = {{"broker", broker.getName()},
                        {"modules", modules},
                        {"droppedNotifications", broker.droppedCounts()},
                        {"transport", broker.transportCounters()}};
  // Names come from clients: bytes that are not UTF-8 are replaced, not fatal.
  return doc.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string HttpStatusServer::liveJson() const {
  RX::RXBroker& broker = *impl_->broker;
  boost::shared_ptr<RX::RXModule> module = liveModule(broker);
  if (!module) return std::string();
  return "{\"module\":" +
         nlohmann::json(module->getName()).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) +
         ",\"droppedNotifications\":" + droppedJson(broker) + ",\"keys\":" + module->liveTableJson() + "}\n";
}

std::string HttpStatusServer::methodsJson(const std::string& name) const {
  boost::shared_ptr<RX::RXModule> module = impl_->broker->getModule(name);
  if (!module) return std::string();
  nlohmann::json methods = nlohmann::json::array();
  for (const mz::MetaMethod& m : module->methods()) methods.push_back(methodToJson(m));
  nlohmann::json doc = {{"module", name}, {"description", module->getModuleDescription()}, {"methods", methods}};
  return doc.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace net
