// remote_driver: the memory served over the network, side by side with what a
// robot developer would otherwise use, a Redis server on the same machine.
//
// It starts a redis-server (free loopback port, a Unix socket in a temporary
// directory, no persistence) and, in this process, a broker with the memory
// behind a net::Server on TCP and Unix endpoints. Then, on each transport, one
// client connection per system and the same keys and values:
//   - a raw 16-byte ping-pong on the same loopback (the floor);
//   - blocking insertData vs SET, getData vs GET (p50, p99 of 20,000 calls);
//   - posted insertData vs SET pipelined 16 deep (writes per second);
//   - raiseEvent in one client to the callback in another vs PUBLISH to a
//     subscribed connection (p50, p99);
// and once: resident bytes per key after 1M int data keys (broker RSS growth
// vs Redis INFO used_memory growth). Latencies are sampled in turn, one call
// of each system per round, so that load from other processes falls on both.
// Writes the latency distributions as gnuplot data files next to a script and
// renders docs/perf_roundtrip.png when gnuplot is installed.
//
//   remote_driver [OUTPUT_DIR]      (default: docs)
// Built only with -DRX_BUILD_BENCH=ON (make bench); never a test.
#include <fcntl.h>
#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <hiredis/hiredis.h>

#include <algorithm>
#include <cerrno>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>

#include "net/clientsession.h"
#include "net/server.h"
#include "rx/rxbroker.h"
#include "rx/rxlog.h"
#include "rx/rxmemoryproxy.h"
#include "rx/rxmodule.h"
#include "rx/rxproxy.h"
#include "rxmemory.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
using RX::RXValue;

constexpr int kRounds = 20000;
constexpr int kWarmup = 2000;
constexpr int kPosted = 200000;
constexpr int kPipelineDepth = 16;
constexpr int kEvents = 10000;
constexpr int kEventWarmup = 500;
constexpr std::size_t kKeys = 1000000;
constexpr std::size_t kBatch = 1000;
constexpr std::chrono::seconds kWait(30);

const std::string kHotKey = "Device/SubDeviceList/Battery/Charge/Sensor/Value";

std::string keyName(std::size_t i) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "Bench/Key/%07zu", i);
  return buf;
}

double microsSince(Clock::time_point t0) { return std::chrono::duration<double, std::micro>(Clock::now() - t0).count(); }

// Sorted latency samples in microseconds.
struct Distribution {
  std::vector<double> us;
  bool empty() const { return us.empty(); }
  double at(double fraction) const {
    if (us.empty()) return 0;
    const std::size_t i = std::min(us.size() - 1, static_cast<std::size_t>(fraction * static_cast<double>(us.size())));
    return us[i];
  }
  double p50() const { return at(0.50); }
  double p99() const { return at(0.99); }
};

std::size_t residentBytes() {
  std::ifstream statm("/proc/self/statm");
  std::size_t size = 0, resident = 0;
  statm >> size >> resident;
  return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

// ---- Redis ----

int freeLoopbackPort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  socklen_t len = sizeof addr;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  ::close(fd);
  return ntohs(addr.sin_port);
}

struct ReplyDeleter {
  void operator()(redisReply* r) const { freeReplyObject(r); }
};
using Reply = std::unique_ptr<redisReply, ReplyDeleter>;
struct ContextDeleter {
  void operator()(redisContext* c) const { redisFree(c); }
};
using RedisConnection = std::unique_ptr<redisContext, ContextDeleter>;

// Throws with the connection's error when the command failed.
Reply command(redisContext* c, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  Reply r(static_cast<redisReply*>(redisvCommand(c, format, ap)));
  va_end(ap);
  if (!r) throw std::runtime_error(std::string("redis: ") + c->errstr);
  if (r->type == REDIS_REPLY_ERROR) throw std::runtime_error(std::string("redis: ") + r->str);
  return r;
}

Reply nextReply(redisContext* c) {
  void* raw = nullptr;
  if (redisGetReply(c, &raw) != REDIS_OK) throw std::runtime_error(std::string("redis: ") + c->errstr);
  Reply r(static_cast<redisReply*>(raw));
  if (r && r->type == REDIS_REPLY_ERROR) throw std::runtime_error(std::string("redis: ") + r->str);
  return r;
}

// A redis-server of our own, without persistence, on a free loopback port and
// a Unix socket; stopped (by its pid) when this goes.
class RedisServer {
 public:
  explicit RedisServer(const std::string& dir) : port_(freeLoopbackPort()), socket_(dir + "/redis.sock") {
    const std::string port = std::to_string(port_);
    std::vector<std::string> args = {"redis-server", "--port", port, "--bind", "127.0.0.1", "--save", "",
                                     "--appendonly", "no", "--unixsocket", socket_, "--unixsocketperm", "700",
                                     "--daemonize", "no", "--loglevel", "warning", "--dir", dir};
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    const int rc = posix_spawnp(&pid_, "redis-server", &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) throw std::runtime_error("cannot start redis-server: " + std::string(std::strerror(rc)));
    // Ready once it answers PING on both endpoints.
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    for (;;) {
      try {
        RedisConnection tcp = connectTcp();
        RedisConnection local = connectUnix();
        command(tcp.get(), "PING");
        command(local.get(), "PING");
        return;
      } catch (const std::exception& e) {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
          pid_ = 0;
          throw std::runtime_error("redis-server exited at start-up");
        }
        if (Clock::now() > deadline) {
          stop();  // the destructor will not run
          throw std::runtime_error(std::string("redis-server not ready after 10 s: ") + e.what());
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
    }
  }
  ~RedisServer() { stop(); }
  RedisServer(const RedisServer&) = delete;
  RedisServer& operator=(const RedisServer&) = delete;

  RedisConnection connectTcp() const { return check(redisConnect("127.0.0.1", port_)); }
  RedisConnection connectUnix() const { return check(redisConnectUnix(socket_.c_str())); }
  RedisConnection connect(bool unixSocket) const { return unixSocket ? connectUnix() : connectTcp(); }

  // A field of INFO memory, in bytes.
  std::size_t memoryField(const std::string& field) const {
    RedisConnection c = connectTcp();
    Reply r = command(c.get(), "INFO memory");
    const std::string text(r->str, r->len);
    const std::size_t at = text.find("\n" + field + ":");
    if (at == std::string::npos) throw std::runtime_error("INFO memory has no " + field);
    return std::stoull(text.substr(at + field.size() + 2));
  }

 private:
  // Stops the server we started (by its pid), waiting at most 5 s before SIGKILL.
  void stop() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    int status = 0;
    while (::waitpid(pid_, &status, WNOHANG) == 0) {
      if (Clock::now() > deadline) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, &status, 0);
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    pid_ = 0;
  }
  static RedisConnection check(redisContext* c) {
    RedisConnection conn(c);
    if (!c) throw std::runtime_error("redis: cannot allocate a context");
    if (c->err) throw std::runtime_error(std::string("redis: ") + c->errstr);
    if (c->connection_type == REDIS_CONN_TCP) redisEnableKeepAlive(c);
    return conn;
  }
  int port_;
  std::string socket_;
  pid_t pid_ = 0;
};

// ---- Raw ping-pong: the floor ----

bool readAll(int fd, char* p, std::size_t n) {
  while (n > 0) {
    const ssize_t got = ::recv(fd, p, n, 0);
    if (got <= 0) return false;
    p += got;
    n -= static_cast<std::size_t>(got);
  }
  return true;
}

// A 16-byte echo over a socket pair of our own: a thread echoes with
// blocking I/O, roundTrip() sends and waits for the echo.
class RawEcho {
 public:
  RawEcho(bool unixSocket, const std::string& dir) : path_(unixSocket ? dir + "/raw.sock" : std::string()) {
    if (unixSocket) {
      listener_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
      sockaddr_un addr{};
      addr.sun_family = AF_UNIX;
      std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path_.c_str());
      if (::bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) fail("bind " + path_);
    } else {
      listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
      sockaddr_in addr{};
      addr.sin_family = AF_INET;
      addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      if (::bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) fail("bind 127.0.0.1:0");
    }
    ::listen(listener_, 1);
    sockaddr_storage bound{};
    socklen_t len = sizeof bound;
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&bound), &len);
    echo_ = std::thread([this] {
      const int fd = ::accept(listener_, nullptr, nullptr);
      int one = 1;
      ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      char buf[16];
      while (readAll(fd, buf, sizeof buf)) ::send(fd, buf, sizeof buf, MSG_NOSIGNAL);
      ::close(fd);
    });
    fd_ = ::socket(unixSocket ? AF_UNIX : AF_INET, SOCK_STREAM, 0);
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&bound), len) != 0) fail("connect to the echo");
    int one = 1;
    ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  }
  ~RawEcho() {
    if (fd_ >= 0) ::close(fd_);  // the echo thread sees the end and returns
    if (echo_.joinable()) echo_.join();
    ::close(listener_);
    if (!path_.empty()) ::unlink(path_.c_str());
  }
  RawEcho(const RawEcho&) = delete;
  RawEcho& operator=(const RawEcho&) = delete;

  void roundTrip() {
    ::send(fd_, buf_, sizeof buf_, MSG_NOSIGNAL);
    if (!readAll(fd_, buf_, sizeof buf_)) throw std::runtime_error("the raw echo closed");
  }

 private:
  [[noreturn]] void fail(const std::string& what) {
    const std::string why = what + ": " + std::strerror(errno);
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    if (echo_.joinable()) {
      ::shutdown(listener_, SHUT_RDWR);  // unblocks accept()
      echo_.join();
    }
    ::close(listener_);
    throw std::runtime_error(why);
  }

  std::string path_;
  int listener_ = -1;
  int fd_ = -1;
  std::thread echo_;
  char buf_[16] = "ping-pong-bytes";
};

// Samples several systems in turn, one call of each per round, so that a
// burst of load on the machine (other processes) falls on all of them alike.
// Each function returns one sample in microseconds.
std::vector<Distribution> interleaved(const std::vector<std::function<double(int)>>& systems, int rounds,
                                      int warmup) {
  for (int i = 0; i < warmup; ++i)
    for (const auto& once : systems) once(i);
  std::vector<Distribution> out(systems.size());
  for (Distribution& d : out) d.us.reserve(static_cast<std::size_t>(rounds));
  for (int i = 0; i < rounds; ++i)
    for (std::size_t s = 0; s < systems.size(); ++s) out[s].us.push_back(systems[s](warmup + i));
  for (Distribution& d : out) std::sort(d.us.begin(), d.us.end());
  return out;
}

// A round trip timed on the calling thread.
template <typename F>
std::function<double(int)> timed(F roundTrip) {
  return [roundTrip](int i) mutable {
    const auto t0 = Clock::now();
    roundTrip(i);
    return microsSince(t0);
  };
}

// ---- The memory's clients ----

// Where the event callbacks of the listening client report their arrival.
class Arrivals {
 public:
  void record(int sequence) {
    const auto now = Clock::now();
    std::lock_guard<std::mutex> lock(mutex_);
    last_ = sequence;
    at_ = now;
    cond_.notify_all();
  }
  // The arrival time of `sequence`; false when it did not come within kWait.
  bool waitFor(int sequence, Clock::time_point& at) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!cond_.wait_for(lock, kWait, [&] { return last_ >= sequence; })) return false;
    at = at_;
    return true;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  int last_ = -1;
  Clock::time_point at_;
};

class Listener : public RX::RXModule {
 public:
  Listener(boost::shared_ptr<RX::RXBroker> broker, const std::string& name, Arrivals& arrivals)
      : RXModule(broker, name), arrivals_(arrivals) {
    functionName("onEvent", name, "Records the arrival of a raised event");
    addParam("key", "Name of the raised key");
    addParam("value", "Sequence number");
    addParam("message", "Subscription message");
    advertiseMethod(getCurrentMethodDescription(), this, &Listener::onEvent);
  }
  void onEvent(const std::string&, const RXValue& value, const RXValue&) { arrivals_.record(value.toInt()); }

 private:
  Arrivals& arrivals_;
};

// One client process's view of the memory: its own session (connections) and
// broker, and a typed proxy.
struct RxClient {
  explicit RxClient(const std::string& endpoint, const std::string& name) {
    net::ClientSession::Options options;
    options.clientName = name;
    session = net::ClientSession::connect(endpoint, options);
    broker = RX::RXBroker::create(name, RX::RXBroker::Options(), session);
    proxy = broker->getProxy("RXMemory", 0);
    memory = std::make_unique<RX::RXMemoryProxy>(proxy);
  }
  ~RxClient() {
    memory.reset();
    proxy.reset();
    broker->shutdown();
    session->close();
  }
  RxClient(const RxClient&) = delete;
  RxClient& operator=(const RxClient&) = delete;

  std::shared_ptr<net::ClientSession> session;
  boost::shared_ptr<RX::RXBroker> broker;
  boost::shared_ptr<RX::RXProxy> proxy;
  std::unique_ptr<RX::RXMemoryProxy> memory;
};

// ---- Figures of one transport ----

struct TransportFigures {
  std::string name;
  Distribution raw, rxInsert, redisSet, rxGet, redisGet, rxEvent, redisEvent;
  double rxPostedPerSec = 0, redisPipelinedPerSec = 0;
};

// RX_BENCH_ONLY=TEXT runs only the sections whose name holds TEXT (to profile one).
void section(const char* what, const std::function<void()>& run) {
  const char* only = std::getenv("RX_BENCH_ONLY");
  if (only && *only && std::string(what).find(only) == std::string::npos) return;
  std::fprintf(stderr, "remote_driver: %s\n", what);
  try {
    run();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "remote_driver: %s failed: %s\n", what, e.what());
  }
}

TransportFigures runTransport(bool unixSocket, const std::string& endpoint, const RedisServer& redis,
                              const std::string& dir) {
  TransportFigures f;
  f.name = unixSocket ? "Unix" : "TCP";

  section("round trips", [&] {
    RawEcho raw(unixSocket, dir);
    RxClient client(endpoint, "bench-rx-" + f.name);
    RedisConnection r = redis.connect(unixSocket);
    std::vector<Distribution> writes = interleaved(
        {timed([&](int) { raw.roundTrip(); }), timed([&](int i) { client.memory->insertData(kHotKey, i); }),
         timed([&](int i) { command(r.get(), "SET %s %d", kHotKey.c_str(), i); })},
        kRounds, kWarmup);
    f.raw = std::move(writes[0]);
    f.rxInsert = std::move(writes[1]);
    f.redisSet = std::move(writes[2]);
    std::vector<Distribution> reads = interleaved(
        {timed([&](int) {
           if (!client.memory->getData(kHotKey).isInt()) throw std::runtime_error("getData: not an int");
         }),
         timed([&](int) {
           if (command(r.get(), "GET %s", kHotKey.c_str())->type != REDIS_REPLY_STRING)
             throw std::runtime_error("GET: not a string");
         })},
        kRounds, kWarmup);
    f.rxGet = std::move(reads[0]);
    f.redisGet = std::move(reads[1]);
  });

  section("posted and pipelined writes", [&] {
    // Alternating chunks, so that both see the same load on the machine.
    constexpr int kChunk = 20000;
    RxClient client(endpoint, "bench-rx-post-" + f.name);
    RedisConnection r = redis.connect(unixSocket);
    const std::string key = "Bench/Posted/" + f.name;
    double rxSeconds = 0, redisSeconds = 0;
    for (int first = 0; first < kPosted; first += kChunk) {
      client.memory->insertData(key, -1);
      const auto t0 = Clock::now();
      for (int i = first; i < first + kChunk; ++i)
        client.proxy->genericPost("insertData", mz::GenericFunctionParameters{mz::AnyValue(key), mz::AnyValue(i)});
      // Done once the last value is stored (posts of one client run in order).
      const auto deadline = Clock::now() + kWait;
      // Polled gently: a tight loop of round trips would take a core from
      // the broker on a small machine (the error is at most one pause).
      while (client.memory->getData(key).toInt() != first + kChunk - 1) {
        if (Clock::now() > deadline) throw std::runtime_error("posted writes not all applied within 30 s");
        std::this_thread::sleep_for(std::chrono::microseconds(100));
      }
      rxSeconds += std::chrono::duration<double>(Clock::now() - t0).count();

      const auto t1 = Clock::now();
      for (int i = first; i < first + kChunk; i += kPipelineDepth) {
        for (int j = 0; j < kPipelineDepth; ++j) redisAppendCommand(r.get(), "SET %s %d", key.c_str(), i + j);
        for (int j = 0; j < kPipelineDepth; ++j) nextReply(r.get());
      }
      redisSeconds += std::chrono::duration<double>(Clock::now() - t1).count();
    }
    f.rxPostedPerSec = kPosted / rxSeconds;
    f.redisPipelinedPerSec = kPosted / redisSeconds;
  });

  section("event latency", [&] {
    // The memory: raiseEvent by one client, callback in another.
    Arrivals arrivals;
    RxClient producer(endpoint, "bench-producer-" + f.name);
    RxClient consumer(endpoint, "bench-consumer-" + f.name);
    auto listener = boost::make_shared<Listener>(consumer.broker, "BenchListener" + f.name, arrivals);
    listener->initModule();
    const std::string key = "Bench/Latency/" + f.name;
    consumer.memory->subscribeToEvent(key, listener->getName(), "onEvent");

    // Redis: PUBLISH on one connection, a reader thread on the subscribed one.
    RedisConnection publisher = redis.connect(unixSocket);
    RedisConnection subscriber = redis.connect(unixSocket);
    const std::string channel = "bench-latency-" + f.name;
    command(subscriber.get(), "SUBSCRIBE %s", channel.c_str());
    Arrivals published;
    std::thread reader([&] {
      try {
        for (;;) {
          Reply m = nextReply(subscriber.get());
          if (m && m->type == REDIS_REPLY_ARRAY && m->elements == 3 && m->element[2]->type == REDIS_REPLY_STRING)
            published.record(std::atoi(m->element[2]->str));
        }
      } catch (const std::exception&) {
        // The socket was shut down: done.
      }
    });
    // Stops the reader however this section ends.
    struct Join {
      redisContext* c;
      std::thread& t;
      ~Join() {
        ::shutdown(c->fd, SHUT_RDWR);
        t.join();
      }
    } join{subscriber.get(), reader};

    std::vector<Distribution> events = interleaved(
        {[&](int i) {
           const auto t0 = Clock::now();
           producer.memory->raiseEvent(key, RXValue(i));
           Clock::time_point at;
           if (!arrivals.waitFor(i, at)) throw std::runtime_error("an event did not reach the other client within 30 s");
           return std::chrono::duration<double, std::micro>(at - t0).count();
         },
         [&](int i) {
           const auto t0 = Clock::now();
           command(publisher.get(), "PUBLISH %s %d", channel.c_str(), i);
           Clock::time_point at;
           if (!published.waitFor(i, at)) throw std::runtime_error("a PUBLISH did not reach the subscriber within 30 s");
           return std::chrono::duration<double, std::micro>(at - t0).count();
         }},
        kEvents, kEventWarmup);
    f.rxEvent = std::move(events[0]);
    f.redisEvent = std::move(events[1]);
    consumer.memory->unsubscribeToEvent(key, listener->getName());
    listener->exit();
  });
  return f;
}

struct KeyFigures {
  double rxBytes = 0;
  double redisUsedBytes = 0;
  double redisRssBytes = 0;
};

// 1M int data keys into each system, by batches of 1000 (insertListData, MSET).
KeyFigures runKeys(const std::string& endpoint, const RedisServer& redis) {
  KeyFigures k;
  section("1M keys into the memory", [&] {
    RxClient client(endpoint, "bench-rx-keys");
    malloc_trim(0);
    const std::size_t before = residentBytes();
    for (std::size_t first = 0; first < kKeys; first += kBatch) {
      RXValue list = RXValue::array();
      list.arrayReserve(kBatch);
      for (std::size_t i = first; i < first + kBatch; ++i) {
        RXValue pair = RXValue::array();
        pair.arrayPush(RXValue(keyName(i)));
        pair.arrayPush(RXValue(static_cast<int>(i)));
        list.arrayPush(std::move(pair));
      }
      client.memory->insertListData(list);
    }
    if (client.memory->getData(keyName(kKeys - 1)).toInt() != static_cast<int>(kKeys - 1))
      throw std::runtime_error("the last key does not hold its value");
    malloc_trim(0);
    k.rxBytes = static_cast<double>(residentBytes() - before) / kKeys;
  });
  section("1M keys into Redis", [&] {
    RedisConnection r = redis.connectUnix();
    const std::size_t usedBefore = redis.memoryField("used_memory");
    const std::size_t rssBefore = redis.memoryField("used_memory_rss");
    std::vector<std::string> args;
    std::vector<const char*> argv;
    std::vector<std::size_t> lengths;
    for (std::size_t first = 0; first < kKeys; first += kBatch) {
      args.assign(1, "MSET");
      for (std::size_t i = first; i < first + kBatch; ++i) {
        args.push_back(keyName(i));
        args.push_back(std::to_string(i));
      }
      argv.clear();
      lengths.clear();
      for (const std::string& a : args) {
        argv.push_back(a.data());
        lengths.push_back(a.size());
      }
      Reply reply(static_cast<redisReply*>(
          redisCommandArgv(r.get(), static_cast<int>(argv.size()), argv.data(), lengths.data())));
      if (!reply || reply->type == REDIS_REPLY_ERROR) throw std::runtime_error("MSET failed");
    }
    Reply value = command(r.get(), "GET %s", keyName(kKeys - 1).c_str());
    if (value->type != REDIS_REPLY_STRING || std::stoul(value->str) != kKeys - 1)
      throw std::runtime_error("the last Redis key does not hold its value");
    k.redisUsedBytes = static_cast<double>(redis.memoryField("used_memory") - usedBefore) / kKeys;
    k.redisRssBytes = static_cast<double>(redis.memoryField("used_memory_rss") - rssBefore) / kKeys;
  });
  return k;
}

// ---- Output ----

// The first three fields of /proc/loadavg: how busy the machine was.
std::string loadAverage() {
  std::ifstream in("/proc/loadavg");
  std::string a, b, c;
  in >> a >> b >> c;
  return a + " " + b + " " + c;
}

std::string us(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.1f us", v);
  return buf;
}
std::string ratio(double a, double b) {
  if (a <= 0 || b <= 0) return "";
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.2fx", a / b);
  return buf;
}
std::string perSec(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.0f /s", v);
  return buf;
}

void row(const std::string& what, const std::string& a, const std::string& b, const std::string& c,
         const std::string& d, const std::string& e, const std::string& g) {
  std::printf("| %-40s | %11s | %11s | %7s | %11s | %11s | %7s |\n", what.c_str(), a.c_str(), b.c_str(), c.c_str(),
              d.c_str(), e.c_str(), g.c_str());
}

void latencyRows(const std::string& what, const Distribution TransportFigures::*rx,
                 const Distribution TransportFigures::*redis, const TransportFigures& t, const TransportFigures& u) {
  const Distribution &tr = t.*rx, &tR = t.*redis, &ur = u.*rx, &uR = u.*redis;
  row(what + ", p50", us(tr.p50()), us(tR.p50()), ratio(tr.p50(), tR.p50()), us(ur.p50()), us(uR.p50()),
      ratio(ur.p50(), uR.p50()));
  row(what + ", p99", us(tr.p99()), us(tR.p99()), ratio(tr.p99(), tR.p99()), us(ur.p99()), us(uR.p99()),
      ratio(ur.p99(), uR.p99()));
}

// One goal, judged on both transports from this run's figures.
void goalRow(const std::string& goal, const std::string& tcp, bool tcpMet, const std::string& unixText, bool unixMet) {
  std::printf("| %-52s | %-16s | %-16s |\n", goal.c_str(), (tcp + (tcpMet ? " met" : " MISSED")).c_str(),
              (unixText + (unixMet ? " met" : " MISSED")).c_str());
}

void printGoals(const TransportFigures& t, const TransportFigures& u, const KeyFigures& k) {
  std::printf("\nGoals, judged on this run\n\n| %-52s | %-16s | %-16s |\n|%s|%s|%s|\n", "goal", "TCP", "Unix",
              std::string(54, '-').c_str(), std::string(18, '-').c_str(), std::string(18, '-').c_str());
  const auto atMost = [](const std::string& goal, double tr, double tR, double ur, double uR, double limit) {
    goalRow(goal, ratio(tr, tR), tr <= limit * tR, ratio(ur, uR), ur <= limit * uR);
  };
  atMost("event latency p50 <= Redis PUBLISH (ratio)", t.rxEvent.p50(), t.redisEvent.p50(), u.rxEvent.p50(),
         u.redisEvent.p50(), 1.0);
  atMost("event latency p99 <= Redis PUBLISH (ratio)", t.rxEvent.p99(), t.redisEvent.p99(), u.rxEvent.p99(),
         u.redisEvent.p99(), 1.0);
  goalRow("posted writes/s >= 1.5x Redis pipelined x16 (ratio)", ratio(t.rxPostedPerSec, t.redisPipelinedPerSec),
          t.rxPostedPerSec >= 1.5 * t.redisPipelinedPerSec, ratio(u.rxPostedPerSec, u.redisPipelinedPerSec),
          u.rxPostedPerSec >= 1.5 * u.redisPipelinedPerSec);
  atMost("insertData p50 <= Redis SET (ratio)", t.rxInsert.p50(), t.redisSet.p50(), u.rxInsert.p50(),
         u.redisSet.p50(), 1.0);
  atMost("getData p50 <= Redis GET (ratio)", t.rxGet.p50(), t.redisGet.p50(), u.rxGet.p50(), u.redisGet.p50(), 1.0);
  const auto overFloor = [](double v, double floor) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%+.1f us", v - floor);
    return std::string(buf);
  };
  goalRow("insertData p50 within 5 us of the raw ping-pong", overFloor(t.rxInsert.p50(), t.raw.p50()),
          t.rxInsert.p50() - t.raw.p50() <= 5.0, overFloor(u.rxInsert.p50(), u.raw.p50()),
          u.rxInsert.p50() - u.raw.p50() <= 5.0);
  goalRow("getData p50 within 5 us of the raw ping-pong", overFloor(t.rxGet.p50(), t.raw.p50()),
          t.rxGet.p50() - t.raw.p50() <= 5.0, overFloor(u.rxGet.p50(), u.raw.p50()), u.rxGet.p50() - u.raw.p50() <= 5.0);
  char bytes[32];
  std::snprintf(bytes, sizeof bytes, "%.0f B", k.rxBytes);
  std::printf("| %-52s | %-16s | %-16s |\n", "bytes per int key at 1M keys <= 300 B (broker process)",
              (std::string(bytes) + (k.rxBytes > 0 && k.rxBytes <= 300 ? " met" : " MISSED")).c_str(), "");
}

void printTable(const TransportFigures& t, const TransportFigures& u, const KeyFigures& k) {
  std::printf("\nRXMemory (net::Server, in-process broker) vs redis-server, one client connection each; "
              "ratio = RXMemory / Redis (below 1: RXMemory is faster or smaller)\n\n");
  row("figure", "RX TCP", "Redis TCP", "ratio", "RX Unix", "Redis Unix", "ratio");
  std::printf("|%s|%s|%s|%s|%s|%s|%s|\n", std::string(42, '-').c_str(), std::string(13, '-').c_str(),
              std::string(13, '-').c_str(), std::string(9, '-').c_str(), std::string(13, '-').c_str(),
              std::string(13, '-').c_str(), std::string(9, '-').c_str());
  row("raw 16-byte ping-pong (floor), p50", us(t.raw.p50()), us(t.raw.p50()), "", us(u.raw.p50()), us(u.raw.p50()), "");
  row("raw 16-byte ping-pong (floor), p99", us(t.raw.p99()), us(t.raw.p99()), "", us(u.raw.p99()), us(u.raw.p99()), "");
  latencyRows("insertData vs SET", &TransportFigures::rxInsert, &TransportFigures::redisSet, t, u);
  latencyRows("getData vs GET", &TransportFigures::rxGet, &TransportFigures::redisGet, t, u);
  row("posted insertData vs SET pipelined x16", perSec(t.rxPostedPerSec), perSec(t.redisPipelinedPerSec),
      ratio(t.rxPostedPerSec, t.redisPipelinedPerSec), perSec(u.rxPostedPerSec), perSec(u.redisPipelinedPerSec),
      ratio(u.rxPostedPerSec, u.redisPipelinedPerSec));
  latencyRows("raiseEvent->callback vs PUBLISH->message", &TransportFigures::rxEvent, &TransportFigures::redisEvent, t,
              u);
  char a[32], b[32], c[32];
  std::snprintf(a, sizeof a, "%.0f B", k.rxBytes);
  std::snprintf(b, sizeof b, "%.0f B", k.redisUsedBytes);
  std::snprintf(c, sizeof c, "%.0f B", k.redisRssBytes);
  row("bytes per int key at 1M keys (used_memory)", a, b, ratio(k.rxBytes, k.redisUsedBytes), "", "", "");
  row("bytes per int key at 1M keys (Redis RSS)", a, c, ratio(k.rxBytes, k.redisRssBytes), "", "", "");
  std::printf("\n(for writes per second, below 1 means Redis writes more per second; RX bytes are the broker "
              "process's resident growth)\n");
  printGoals(t, u, k);
}

// Quantiles of every distribution, one row per fraction, for gnuplot.
void writeData(const std::string& path, const TransportFigures& f) {
  std::ofstream out(path);
  out << "# " << f.name << " loopback, microseconds at each fraction of " << kRounds << " round trips (" << kEvents
      << " events)\n";
  out << "# fraction raw rx_insertData redis_SET rx_getData redis_GET rx_event redis_publish\n";
  for (int i = 1; i <= 1000; ++i) {
    const double q = i / 1000.0 - 0.0005;
    out << q;
    for (const Distribution* d : {&f.raw, &f.rxInsert, &f.redisSet, &f.rxGet, &f.redisGet, &f.rxEvent, &f.redisEvent})
      out << ' ' << d->at(q);
    out << '\n';
  }
}

void writePlot(const std::string& outDir, const TransportFigures& t, const TransportFigures& u) {
  writeData(outDir + "/perf_roundtrip_tcp.dat", t);
  writeData(outDir + "/perf_roundtrip_unix.dat", u);
  std::ofstream gp(outDir + "/perf_roundtrip.gp");
  gp << "# Latency distributions written by bench/remote_driver (make bench).\n"
        "set terminal pngcairo size 1500,520 font ',10'\n"
        "set output 'perf_roundtrip.png'\n"
        "set multiplot layout 1,3 title 'RXMemory vs Redis on loopback (cumulative distribution; tails beyond 1 ms not shown)'\n"
        "set logscale x\nset xlabel 'microseconds'\nset ylabel 'fraction of calls'\n"
        "set key right bottom\nset grid\nset yrange [0:1]\nset xrange [5:1000]\n"
        "set title 'TCP round trips'\n"
        "plot 'perf_roundtrip_tcp.dat' using 2:1 with lines lw 2 title 'raw ping-pong', \\\n"
        "     '' using 3:1 with lines lw 2 title 'RX insertData', '' using 4:1 with lines lw 2 title 'Redis SET', \\\n"
        "     '' using 5:1 with lines lw 2 title 'RX getData', '' using 6:1 with lines lw 2 title 'Redis GET'\n"
        "set title 'Unix socket round trips'\n"
        "plot 'perf_roundtrip_unix.dat' using 2:1 with lines lw 2 title 'raw ping-pong', \\\n"
        "     '' using 3:1 with lines lw 2 title 'RX insertData', '' using 4:1 with lines lw 2 title 'Redis SET', \\\n"
        "     '' using 5:1 with lines lw 2 title 'RX getData', '' using 6:1 with lines lw 2 title 'Redis GET'\n"
        "set title 'Event to subscriber'\n"
        "plot 'perf_roundtrip_tcp.dat' using 7:1 with lines lw 2 title 'RX raiseEvent, TCP', \\\n"
        "     '' using 8:1 with lines lw 2 title 'Redis PUBLISH, TCP', \\\n"
        "     'perf_roundtrip_unix.dat' using 7:1 with lines lw 2 title 'RX raiseEvent, Unix', \\\n"
        "     '' using 8:1 with lines lw 2 title 'Redis PUBLISH, Unix'\n"
        "unset multiplot\n";
  gp.close();
  const std::string cmd = "cd '" + outDir + "' && gnuplot perf_roundtrip.gp";
  if (std::system("command -v gnuplot >/dev/null 2>&1") != 0) {
    std::fprintf(stderr, "remote_driver: gnuplot not installed; %s/perf_roundtrip.gp not rendered\n", outDir.c_str());
    return;
  }
  if (std::system(cmd.c_str()) != 0) std::fprintf(stderr, "remote_driver: gnuplot failed\n");
  else std::printf("\nPlot: %s/perf_roundtrip.png (data: perf_roundtrip_tcp.dat, perf_roundtrip_unix.dat)\n", outDir.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  const std::string outDir = argc > 1 ? argv[1] : "docs";
  RX::log::setLevel("*", RX::log::Warning);
  char dirTemplate[] = "/tmp/rx-remote-bench-XXXXXX";
  if (!::mkdtemp(dirTemplate)) {
    std::perror("mkdtemp");
    return 1;
  }
  const std::string dir = dirTemplate;
  int status = 0;
  const std::string loadBefore = loadAverage();
  try {
    RedisServer redis(dir);
    boost::shared_ptr<RX::RXBroker> broker = RX::RXBroker::create("bench-broker");
    if (_createModule(broker) != 0) throw std::runtime_error("_createModule failed");
    {
      net::Server server(broker, {"tcp://127.0.0.1:0", "unix://" + dir + "/rx.sock"});
      server.start();
      const std::vector<std::string> endpoints = server.endpoints();
      std::fprintf(stderr, "remote_driver: broker on %s and %s\n", endpoints[0].c_str(), endpoints[1].c_str());
      const TransportFigures tcp = runTransport(false, endpoints[0], redis, dir);
      const TransportFigures local = runTransport(true, endpoints[1], redis, dir);
      const KeyFigures keys = runKeys(endpoints[1], redis);
      printTable(tcp, local, keys);
      std::printf("Load average at the start: %s, at the end: %s; figures are comparable only on an otherwise idle machine\n", loadBefore.c_str(),
                  loadAverage().c_str());
      writePlot(outDir, tcp, local);
      server.stop();
    }
    broker->shutdown();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "remote_driver: %s\n", e.what());
    status = 1;
  }
  for (const char* name : {"/redis.sock", "/rx.sock", "/raw.sock"}) ::unlink((dir + name).c_str());
  ::rmdir(dir.c_str());
  return status;
}
