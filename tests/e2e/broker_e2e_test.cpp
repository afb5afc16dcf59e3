// End to end: the real rxbroker process with the memory module, driven by
// clients in this process and in a child process over TCP and Unix sockets.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/make_shared.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "mz/session.h"
#include "net/clientsession.h"
#include "rx/rxbroker.h"
#include "rx/rxerror.h"
#include "rx/rxmodule.h"
#include "rx/rxproxy.h"
#include "e2e_process.h"

extern char** environ;

namespace {

using e2e::kWait;
using e2e::Recorder;
using e2e::TempDir;

// A child process with its standard input and output on pipes.
class Child {
 public:
  explicit Child(const std::vector<std::string>& args) {
    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    const int rc = ::posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    stdin_ = in[1];
    stdout_ = out[0];
    lines_.setFd(stdout_);
    if (rc != 0) throw std::runtime_error("cannot start " + args[0]);
  }
  ~Child() {
    closeStdin();
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    ::close(stdout_);
  }

  // The next line of output, or nothing when none came within `timeout`.
  std::optional<std::string> readLine(std::chrono::milliseconds timeout = kWait) { return lines_.readLine(timeout); }
  // Reads lines until one starts with `prefix`; returns it.
  std::optional<std::string> expectLine(const std::string& prefix,
                                        std::chrono::milliseconds timeout = kWait) {
    while (auto line = readLine(timeout))
      if (line->compare(0, prefix.size(), prefix) == 0) return line;
    return std::nullopt;
  }
  void closeStdin() {
    if (stdin_ >= 0) ::close(stdin_);
    stdin_ = -1;
  }
  void kill(int sig) { ::kill(pid_, sig); }
  // The exit status, or -1 when the process did not end in time.
  int wait(std::chrono::milliseconds timeout = kWait) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    while (::waitpid(pid_, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) return -1;
      ::poll(nullptr, 0, 10);  // waitpid has no timeout of its own
    }
    pid_ = -1;
    return status;
  }

 private:
  pid_t pid_ = -1;
  int stdin_ = -1;
  int stdout_ = -1;
  e2e::LineReader lines_;
};


// rxbroker listening on a free TCP port and a Unix socket of `dir`.
class BrokerProcess {
 public:
  explicit BrokerProcess(const TempDir& dir, const std::vector<std::string>& extra = {})
      : child_(arguments(dir, extra)) {
    while (auto line = child_.readLine()) {
      const std::string listening = "rxbroker: listening on ";
      if (line->compare(0, listening.size(), listening) == 0)
        endpoints.push_back(line->substr(listening.size()));
      if (*line == "rxbroker: press Ctrl-C to stop") return;
    }
    throw std::runtime_error("rxbroker did not start");
  }
  ~BrokerProcess() {
    child_.kill(SIGTERM);
    child_.wait();
  }
  std::vector<std::string> endpoints;  // tcp first, then unix

 private:
  static std::vector<std::string> arguments(const TempDir& dir, const std::vector<std::string>& extra) {
    std::vector<std::string> args = {RX_BROKER_PATH, "--listen", "tcp://127.0.0.1:0", "--listen",
                                     "unix://" + dir.path + "/rx.sock", "--data-path", dir.path,
                                     "--log", "*=warning", "--no-http"};
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
  }

  Child child_;
};


// A client module: subscriber callback, extractor entry points, a mapped signal.
class E2ETool : public RX::RXModule {
 public:
  explicit E2ETool(boost::shared_ptr<RX::RXBroker> broker) : RX::RXModule(broker, "E2ETool") {
    functionName("onEvent", "E2ETool", "");
    addParam("key", "");
    addParam("value", "");
    addParam("message", "");
    advertiseMethod(getCurrentMethodDescription(), this, &E2ETool::onEvent);
    functionName("getCurrentPrecision", "E2ETool", "Marks this module as an extractor.");
    advertiseMethod(getCurrentMethodDescription(), this, &E2ETool::getCurrentPrecision);
    functionName("subscribe", "E2ETool", "");
    addParam("subscriberId", "");
    advertiseMethod(getCurrentMethodDescription(), this, &E2ETool::subscribe);
    functionName("unsubscribe", "E2ETool", "");
    addParam("subscriberId", "");
    advertiseMethod(getCurrentMethodDescription(), this, &E2ETool::unsubscribe);
    advertiseSignal("beepedLoud", &beeped);
  }
  void onEvent(const std::string& key, const RX::RXValue& value, const RX::RXValue&) {
    (key == "E2E/Beep" ? beeps : events).add(value);
  }
  float getCurrentPrecision() { return 1.0f; }
  void subscribe(const std::string& id) { subscribed.add(RX::RXValue(id)); }
  void unsubscribe(const std::string& id) { unsubscribed.add(RX::RXValue(id)); }

  mz::SignalF<void(mz::AnyValue)> beeped;
  Recorder events, beeps, subscribed, unsubscribed;
};

TEST(BrokerE2E, MemoryServesClientProcesses) {
  TempDir dir;
  ::mkdir((dir.path + "/tavro").c_str(), 0755);
  // (A signal name may not be shorter than its service's name.)
  std::ofstream(dir.path + "/tavro/rxmemory_map_signal_event.txt")
      << "E2ETool.beepedLoud: E2E/Beep # mapped\n";
  BrokerProcess broker(dir);
  ASSERT_EQ(2u, broker.endpoints.size());

  for (const std::string& endpoint : broker.endpoints) {
    SCOPED_TRACE(endpoint);
    auto session = net::ClientSession::connect(endpoint);
    auto client = RX::RXBroker::create("e2e", RX::RXBroker::Options(), session);
    auto tool = boost::make_shared<E2ETool>(client);
    tool->initModule();
    boost::shared_ptr<RX::RXProxy> memory = client->getProxy("RXMemory");

    // Store and read back every kind.
    memory->call<void>("insertData", std::string("e2e/int"), 42);
    memory->call<void>("insertData", std::string("e2e/float"), 1.5f);
    memory->call<void>("insertData", std::string("e2e/string"), std::string("text"));
    RX::RXValue list = RX::RXValue::array(0);
    list.arrayPush(RX::RXValue(1));
    list.arrayPush(RX::RXValue("two"));
    memory->call<void>("insertData", std::string("e2e/array"), list);
    EXPECT_EQ(42, memory->call<RX::RXValue>("getData", std::string("e2e/int")).toInt());
    EXPECT_EQ(1.5f, memory->call<RX::RXValue>("getData", std::string("e2e/float")).toFloat());
    EXPECT_EQ("text", memory->call<RX::RXValue>("getData", std::string("e2e/string")).toStdString());
    EXPECT_TRUE(list == memory->call<RX::RXValue>("getData", std::string("e2e/array")));
    try {
      memory->call<RX::RXValue>("getData", std::string("e2e/missing"));
      ADD_FAILURE() << "no error for a missing key";
    } catch (const RX::RXError& e) {
      EXPECT_EQ("RXMemory", e.module());
      EXPECT_EQ("getData", e.method());
      EXPECT_EQ("Data not found e2e/missing", e.message());
    }
    try {
      memory->call<RX::RXValue>("getDataPtr", std::string("e2e/int"));
      ADD_FAILURE() << "getDataPtr was served remotely";
    } catch (const RX::RXError& e) {
      EXPECT_EQ(
          "getDataPtr returns an address that is only valid inside the broker process and cannot be called "
          "remotely",
          e.message());
    }

    // Notifications posted to the client's module, in order.
    memory->call<void>("subscribeToEvent", std::string("E2E/Event"), std::string("E2ETool"),
                       std::string("onEvent"));
    for (int i = 0; i < 200; ++i) memory->call<void>("raiseEvent", std::string("E2E/Event"), RX::RXValue(i));
    ASSERT_TRUE(tool->events.waitFor(200));
    for (int i = 0; i < 200; ++i) ASSERT_EQ(i, tool->events.values()[static_cast<std::size_t>(i)].toInt());

    // The key's signal object, followed and emitted on from here.
    mz::AnyObject signal = memory->call<mz::AnyObject>("subscriber", std::string("E2E/Event"));
    Recorder emitted;
    mz::SignalLink link =
        signal.connect("signal", [&](mz::AnyValue v) { emitted.add(v.toRXValue()); }).value();
    memory->call<void>("raiseEvent", std::string("E2E/Event"), RX::RXValue(500));
    ASSERT_TRUE(emitted.waitFor(1));
    EXPECT_EQ(500, emitted.values()[0].toInt());
    signal.emit("signal", {mz::AnyValue(501)});  // raises the key
    EXPECT_EQ(501, memory->call<RX::RXValue>("getData", std::string("E2E/Event")).toInt());
    ASSERT_TRUE(emitted.waitFor(2));
    signal.disconnect(link).waitAndCheck();

    // An extractor in this process, called by the memory while this thread
    // waits for subscribeToEvent.
    memory->call<void>("declareEvent", std::string("E2E/Extracted"), std::string("E2ETool"));
    memory->call<void>("subscribeToEvent", std::string("E2E/Extracted"), std::string("E2ETool"),
                       std::string("onEvent"));
    EXPECT_EQ(1u, tool->subscribed.values().size()) << "the extractor was not called during the subscription";
    memory->call<void>("unsubscribeToEvent", std::string("E2E/Extracted"), std::string("E2ETool"));
    EXPECT_EQ(1u, tool->unsubscribed.values().size());

    // The mapping file maps this module's signal to a memory event.
    memory->call<void>("subscribeToMicroEvent", std::string("E2E/Beep"), std::string("E2ETool"),
                       std::string("m"), std::string("onEvent"));
    tool->beeped(mz::AnyValue(9));
    ASSERT_TRUE(tool->beeps.waitFor(1)) << "the mapped signal did not raise E2E/Beep";
    EXPECT_EQ(9, tool->beeps.values()[0].toInt());

    client->shutdown();
    session->close();
  }
}

TEST(BrokerE2E, KilledClientProcessIsDropped) {
  TempDir dir;
  BrokerProcess broker(dir);
  const std::string endpoint = broker.endpoints.at(1);
  auto session = net::ClientSession::connect(endpoint);
  auto client = RX::RXBroker::create("observer", RX::RXBroker::Options(), session);
  boost::shared_ptr<RX::RXProxy> memory = client->getProxy("RXMemory");

  std::mutex mutex;
  std::condition_variable cond;
  std::vector<std::string> gone;
  session->serviceUnregistered.connect([&](unsigned int, std::string name) {
    std::lock_guard<std::mutex> lock(mutex);
    gone.push_back(name);
    cond.notify_all();
  });

  Child other({RX_E2E_CLIENT_PATH, endpoint, "E2E/Killed"});
  ASSERT_TRUE(other.expectLine("ready"));
  EXPECT_EQ(std::vector<std::string>{"E2EClient"},
            memory->call<std::vector<std::string>>("getSubscribers", std::string("E2E/Killed")));
  memory->call<void>("raiseEvent", std::string("E2E/Killed"), RX::RXValue(1));
  EXPECT_EQ("event E2E/Killed 1 ", other.expectLine("event").value_or("(nothing)"));

  other.kill(SIGKILL);
  {
    std::unique_lock<std::mutex> lock(mutex);
    ASSERT_TRUE(cond.wait_for(lock, kWait, [&] { return !gone.empty(); }))
        << "the broker kept the dead client";
    EXPECT_EQ("E2EClient", gone[0]);
  }
  // The next raise finds the subscriber gone and drops it.
  memory->call<void>("raiseEvent", std::string("E2E/Killed"), RX::RXValue(2));
  EXPECT_EQ(std::vector<std::string>{},
            memory->call<std::vector<std::string>>("getSubscribers", std::string("E2E/Killed")));
  client->shutdown();
  session->close();
}

// Two subscriber processes stop reading (stopped by a signal) while events
// are raised: the broker cuts them off at their output limit, and a healthy
// subscriber gets every event, in order, with no pause.
TEST(BrokerE2E, StalledSubscriberProcessesAreCutOffAndStallNobody) {
  TempDir dir;
  BrokerProcess broker(dir, {"--max-output-bytes", "256KiB", "--soft-output-bytes", "64KiB"});
  const std::string endpoint = broker.endpoints.at(0);
  Child stalled1({RX_E2E_CLIENT_PATH, endpoint, "E2E/Flood", "Stalled1"});
  Child stalled2({RX_E2E_CLIENT_PATH, endpoint, "E2E/Flood", "Stalled2"});
  ASSERT_TRUE(stalled1.expectLine("ready"));
  ASSERT_TRUE(stalled2.expectLine("ready"));

  auto session = net::ClientSession::connect(endpoint);
  auto client = RX::RXBroker::create("healthy", RX::RXBroker::Options(), session);
  auto tool = boost::make_shared<E2ETool>(client);
  tool->initModule();
  boost::shared_ptr<RX::RXProxy> memory = client->getProxy("RXMemory");
  memory->call<void>("subscribeToEvent", std::string("E2E/Flood"), std::string("E2ETool"), std::string("onEvent"));
  std::mutex mutex;
  std::condition_variable cond;
  int gone = 0;
  session->serviceUnregistered.connect([&](unsigned int, std::string name) {
    std::lock_guard<std::mutex> lock(mutex);
    if (name.compare(0, 7, "Stalled") == 0) ++gone;
    cond.notify_all();
  });

  stalled1.kill(SIGSTOP);
  stalled2.kill(SIGSTOP);
  const int kEvents = 3000;  // 6 MB towards each stalled process
  const std::string payload(2048, 'x');
  for (int i = 0; i < kEvents; ++i) {
    RX::RXValue value = RX::RXValue::array(0);
    value.arrayPush(RX::RXValue(i));
    value.arrayPush(RX::RXValue(payload));
    memory->call<void>("raiseEvent", std::string("E2E/Flood"), value);
  }
  ASSERT_TRUE(tool->events.waitFor(kEvents)) << "the healthy subscriber got " << tool->events.values().size()
                                             << " of " << kEvents << " events";
  const std::vector<RX::RXValue> got = tool->events.values();
  for (int i = 0; i < kEvents; ++i) ASSERT_EQ(i, got[static_cast<std::size_t>(i)][0].toInt()) << "out of order";
  {
    std::unique_lock<std::mutex> lock(mutex);
    EXPECT_TRUE(cond.wait_for(lock, kWait, [&] { return gone == 2; })) << "stalled clients still served: " << gone;
  }
  stalled1.kill(SIGCONT);
  stalled2.kill(SIGCONT);
  client->shutdown();
  session->close();
}

}  // namespace
