// remote_roundtrip: what a blocking remote call costs next to the bare socket.
// In one run, on TCP loopback and on a Unix socket:
//   - raw: 16 bytes written and echoed back by a thread doing blocking I/O;
//   - call: RXProxy::call<int>("add", i, 1) from a client session to a module
//     of an in-process broker served by net::Server.
// Prints the median and the 99th percentile of 20,000 round trips each.
// Built only with -DRX_BUILD_BENCH=ON; not a test.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "net/clientsession.h"
#include "net/server.h"
#include "rx/rxbroker.h"
#include "rx/rxmodule.h"
#include "rx/rxproxy.h"

namespace {

constexpr int kRounds = 20000;
constexpr int kWarmup = 2000;
using Clock = std::chrono::steady_clock;

struct Figures {
  double p50us;
  double p99us;
};

Figures summarize(std::vector<double>& samples) {
  std::sort(samples.begin(), samples.end());
  return {samples[samples.size() / 2], samples[samples.size() * 99 / 100]};
}

template <typename F>
Figures measure(F&& roundTrip) {
  for (int i = 0; i < kWarmup; ++i) roundTrip(i);
  std::vector<double> samples;
  samples.reserve(kRounds);
  for (int i = 0; i < kRounds; ++i) {
    const auto start = Clock::now();
    roundTrip(i);
    samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  return summarize(samples);
}

bool readAll(int fd, char* p, std::size_t n) {
  while (n > 0) {
    const ssize_t got = ::recv(fd, p, n, 0);
    if (got <= 0) return false;
    p += got;
    n -= static_cast<std::size_t>(got);
  }
  return true;
}

// Echo server on an accepted socket; the client side measures.
Figures rawPingPong(bool unixSocket) {
  int listener;
  std::string path;
  if (unixSocket) {
    path = "/tmp/rx-bench-raw-" + std::to_string(::getpid()) + ".sock";
    ::unlink(path.c_str());
    listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, path.c_str());
    ::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  } else {
    listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  }
  ::listen(listener, 1);
  sockaddr_storage bound{};
  socklen_t len = sizeof bound;
  ::getsockname(listener, reinterpret_cast<sockaddr*>(&bound), &len);

  std::thread echo([listener] {
    const int fd = ::accept(listener, nullptr, nullptr);
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    char buf[16];
    while (readAll(fd, buf, sizeof buf)) ::send(fd, buf, sizeof buf, MSG_NOSIGNAL);
    ::close(fd);
  });
  const int fd = ::socket(unixSocket ? AF_UNIX : AF_INET, SOCK_STREAM, 0);
  ::connect(fd, reinterpret_cast<sockaddr*>(&bound), len);
  int one = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  char buf[16] = "ping-pong-bytes";
  Figures f = measure([&](int) {
    ::send(fd, buf, sizeof buf, MSG_NOSIGNAL);
    readAll(fd, buf, sizeof buf);
  });
  ::close(fd);
  echo.join();
  ::close(listener);
  if (unixSocket) ::unlink(path.c_str());
  return f;
}

class BenchModule : public RX::RXModule {
 public:
  explicit BenchModule(boost::shared_ptr<RX::RXBroker> broker) : RX::RXModule(broker, "Bench") {
    functionName("add", "Bench", "a + b");
    addParam("a", "");
    addParam("b", "");
    setReturn("sum", "");
    advertiseMethod(getCurrentMethodDescription(), this, &BenchModule::add);
  }
  int add(int a, int b) { return a + b; }
};

Figures remoteCall(const std::string& endpoint) {
  auto session = net::ClientSession::connect(endpoint);
  auto client = RX::RXBroker::create("bench-client", RX::RXBroker::Options(), session);
  boost::shared_ptr<RX::RXProxy> proxy = client->getProxy("Bench");
  Figures f = measure([&](int i) {
    if (proxy->call<int>("add", i, 1) != i + 1) std::abort();
  });
  client->shutdown();
  session->close();
  return f;
}

}  // namespace

int main() {
  auto broker = RX::RXBroker::create("bench");
  auto module = boost::make_shared<BenchModule>(broker);
  module->initModule();
  const std::string unixPath = "/tmp/rx-bench-" + std::to_string(::getpid()) + ".sock";
  net::Server server(broker, {"tcp://127.0.0.1:0", "unix://" + unixPath});
  server.start();
  const std::vector<std::string> endpoints = server.endpoints();

  std::printf("%d round trips each (after %d of warm-up), microseconds\n", kRounds, kWarmup);
  std::printf("%-44s %8s %8s\n", "", "p50", "p99");
  const Figures rawTcp = rawPingPong(false);
  std::printf("%-44s %8.1f %8.1f\n", "raw 16-byte ping-pong, TCP loopback", rawTcp.p50us, rawTcp.p99us);
  const Figures callTcp = remoteCall(endpoints[0]);
  std::printf("%-44s %8.1f %8.1f\n", "RXProxy::call add(i, 1), TCP loopback", callTcp.p50us, callTcp.p99us);
  const Figures rawUnix = rawPingPong(true);
  std::printf("%-44s %8.1f %8.1f\n", "raw 16-byte ping-pong, Unix socket", rawUnix.p50us, rawUnix.p99us);
  const Figures callUnix = remoteCall(endpoints[1]);
  std::printf("%-44s %8.1f %8.1f\n", "RXProxy::call add(i, 1), Unix socket", callUnix.p50us, callUnix.p99us);

  server.stop();
  broker->shutdown();
  return 0;
}
