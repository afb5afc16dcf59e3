// client_figures: what the C++ client achieves against a running broker, for
// bench/python_bench.py to print next to the Python package's figures from the
// same run and the same broker.
//
//   client_figures getdata URL       the getData round trip, 20,000 blocking
//                                    calls: prints "P50_US P99_US"
//   client_figures raise URL KEY N   posts N raises of KEY as fast as it can
//   client_figures follow URL KEY N  prints "ready", then counts the raises of
//                                    KEY delivered to a link on its signal
//                                    (raised by another process) and prints
//                                    "RATE_PER_S RECEIVED" once N arrived or
//                                    nothing came for a second
// Built only with -DRX_BUILD_BENCH=ON; not a test.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "mz/object.h"
#include "net/clientsession.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRounds = 20000;
constexpr int kWarmup = 2000;

void getdata(const mz::AnyObject& memory) {
  memory.call<void>("insertData", std::string("Bench/Value"), 87);
  std::vector<double> samples;
  samples.reserve(kRounds);
  for (int i = 0; i < kWarmup + kRounds; ++i) {
    const auto start = Clock::now();
    if (memory.call<RX::RXValue>("getData", std::string("Bench/Value")).toInt() != 87) std::abort();
    if (i >= kWarmup) samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  std::sort(samples.begin(), samples.end());
  std::printf("%.2f %.2f\n", samples[samples.size() / 2], samples[samples.size() * 99 / 100]);
}

void follow(const mz::AnyObject& memory, const std::string& key, int count) {
  mz::AnyObject follower = memory.call<mz::AnyObject>("subscriber", key);
  std::mutex mutex;
  std::condition_variable done;
  int received = 0;
  Clock::time_point first, last;
  follower
      .connect("signal",
               [&](mz::AnyValue) {
                 std::lock_guard<std::mutex> lock(mutex);
                 last = Clock::now();
                 if (received++ == 0) first = last;
                 if (received == count) done.notify_all();
               })
      .value();
  std::printf("ready\n");
  std::fflush(stdout);
  std::unique_lock<std::mutex> lock(mutex);
  if (!done.wait_for(lock, std::chrono::seconds(30), [&] { return received > 0; })) return;
  for (int seen = -1; received < count && received != seen;) {
    seen = received;
    done.wait_for(lock, std::chrono::seconds(1));
  }
  std::printf("%.0f %d\n", (received - 1) / std::chrono::duration<double>(last - first).count(), received);
}

}  // namespace

int main(int argc, char** argv) {
  const bool getdataMode = argc == 3 && std::strcmp(argv[1], "getdata") == 0;
  if (!getdataMode && !(argc == 5 && (std::strcmp(argv[1], "raise") == 0 || std::strcmp(argv[1], "follow") == 0))) {
    std::fprintf(stderr, "usage: client_figures getdata URL | raise URL KEY N | follow URL KEY N\n");
    return 2;
  }
  auto session = net::ClientSession::connect(argv[2]);
  mz::AnyObject memory = session->service("RXMemory").value();
  if (getdataMode) {
    getdata(memory);
  } else if (std::strcmp(argv[1], "raise") == 0) {
    const int n = std::stoi(argv[4]);
    for (int i = 0; i < n; ++i) memory.post("raiseEvent", mz::GenericFunctionParameters{std::string(argv[3]), i});
    // Posts travel on a connection of their own: closing at once could lose
    // the last ones. The key holds the last raised value once they are all in.
    const auto deadline = Clock::now() + std::chrono::seconds(30);
    while (memory.call<RX::RXValue>("getData", std::string(argv[3])) != RX::RXValue(n - 1)) {
      if (Clock::now() > deadline) return 1;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  } else {
    follow(memory, argv[3], std::stoi(argv[4]));
  }
  session->close();
  return 0;
}
