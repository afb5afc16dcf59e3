// The broker's HTTP status pages and live view, and what untrusted clients cannot do to the server.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <unistd.h>

#include <boost/make_shared.hpp>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <future>
#include <nlohmann/json.hpp>

#include "net/httpstatusserver.h"
#include "rx/rxbroker.h"
#include "rx/rxlivefeed.h"
#include "rx/rxmodule.h"
#include "support/capture.h"

namespace {

using namespace std::chrono_literals;
using Server = net::HttpStatusServer;

const char* const kPage =
    "<html><head><style type=\"text/css\">td {font-size: 12px;}</style></head><body>"
    "<script>alert(1)</script><style>td {color: red;}</style>value</body></html>";
const char* const kTextPolicy =
    "default-src 'none'; script-src 'none'; object-src 'none'; style-src 'none'; base-uri 'none'; "
    "form-action 'none'; frame-ancestors 'none'; sandbox";

// A module whose page holds markup that must never run, whose renders wait at a gate, with a live view.
class PageModule : public RX::RXModule {
 public:
  explicit PageModule(boost::shared_ptr<RX::RXBroker> broker) : RXModule(broker, "Pages") {
    setModuleDescription("Serves a page with <b>markup</b>");
    functionName("echo", "PageModule", "Returns its argument", 0);
    addParam("text", "What to return");
    setReturn("same", "The same text");
    advertiseMethod(getCurrentMethodDescription(), this, &PageModule::echo);
    functionName("rawAddress", "PageModule", "An address", 4);
    advertiseMethod(getCurrentMethodDescription(), this, &PageModule::rawAddress);
  }
  std::string echo(const std::string& text) { return text; }
  void* rawAddress() { return this; }
  RX::LiveFeed* liveFeed() override { return &feed; }
  std::string liveRowJson(const std::string& name) override { return R"({"name":")" + name + R"("})"; }
  std::string httpGet() override {
    std::unique_lock<std::mutex> lock(mutex_);
    maxInside_ = std::max(maxInside_, ++inside_);
    changed_.notify_all();
    changed_.wait(lock, [this] { return !gateClosed_; });
    --inside_;
    return kPage;
  }
  void setGate(bool closed) {
    std::lock_guard<std::mutex> lock(mutex_);
    gateClosed_ = closed;
    changed_.notify_all();
  }
  bool waitInside(int count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, testsupport::kWait, [&] { return inside_ == count; });
  }

  // Locked: the answer reaches the test through a socket, which ThreadSanitizer does not see as ordering.
  int maxInside() {
    std::lock_guard<std::mutex> lock(mutex_);
    return maxInside_;
  }
  RX::LiveFeed feed;

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool gateClosed_ = false;
  int inside_ = 0, maxInside_ = 0;
};

// A raw connection whose every wait is bounded.
int connectTo(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const timeval timeout{5, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
  EXPECT_EQ(0, ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr))) << std::strerror(errno);
  return fd;
}

// What the server sends until it closes, or until `until` has arrived.
std::string receive(int fd, const std::string& until = std::string()) {
  std::string answer;
  char buf[4096];
  ssize_t n;
  while ((until.empty() || answer.find(until) == std::string::npos) &&
         (n = ::recv(fd, buf, sizeof(buf), 0)) > 0)
    answer.append(buf, static_cast<std::size_t>(n));
  return answer;
}

// Sends the bytes on a new connection: "STATUS LINE\nBODY" of the answer, or what came without a head.
std::string exchange(int port, const std::string& request) {
  const int fd = connectTo(port);
  ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
  const std::string answer = receive(fd);
  ::close(fd);
  const std::size_t head = answer.find("\r\n\r\n");
  if (head == std::string::npos) return answer;
  return answer.substr(0, answer.find("\r\n")) + "\n" + answer.substr(head + 4);
}

class HttpStatusTest : public ::testing::Test {
 protected:
  HttpStatusTest() { module->initModule(); }
  ~HttpStatusTest() override {
    module->setGate(false);
    server.reset();
    broker->shutdown();
  }
  void start(const Server::Options& options = {}) {
    server = std::make_unique<Server>(broker, "127.0.0.1", 0, options);
    server->start();
  }
  httplib::Result get(const std::string& path) {
    httplib::Client client("127.0.0.1", server->port());
    client.set_read_timeout(5);
    return client.Get(path);
  }
  // The HTTP status of GET `path`, or "no answer".
  std::string status(const std::string& path) {
    auto res = get(path);
    return res ? std::to_string(res->status) : "no answer";
  }
  std::future<std::string> statusAsync(const std::string& path) {
    return std::async(std::launch::async, [this, path] { return status(path); });
  }

  boost::shared_ptr<RX::RXBroker> broker = RX::RXBroker::create("testbroker");
  boost::shared_ptr<PageModule> module = boost::make_shared<PageModule>(broker);
  std::unique_ptr<Server> server;
};

// Every route with its type and policy; the index and the JSON documents show the modules, their catalogue,
// drops and transport counters; live streams push the rows that changed.
TEST_F(HttpStatusTest, AnswersByPathWithTheirTypesPoliciesAndContentsAndStreamLiveRows) {
  const std::filesystem::path dir =
      std::filesystem::temp_directory_path() / ("rxweb" + std::to_string(getpid()));
  std::filesystem::create_directories(dir);
  std::ofstream(dir / "other.js") << "not one of the live view's files";
  Server::Options options;
  options.webDir = dir.string();
  options.maxLiveStreams = 1;
  broker->setTransportCounters([] {
    return std::map<std::string, uint64_t>{{"clients connected", 3}, {"cut off: <b>slow</b>", 1}};
  });
  start(options);
  const std::string text = "text/plain; charset=utf-8";
  struct {
    const char* path;
    int status;
    std::string body, type, policy;
  } cases[] = {
      // The module's page as it is, under a policy allowing only its head's style.
      {"/Pages", 200, kPage, "text/html; charset=utf-8",
       "default-src 'none'; script-src 'none'; object-src 'none'; style-src " +
           Server::styleHashSource("td {font-size: 12px;}") +
           "; base-uri 'none'; form-action 'none'; frame-ancestors 'none'; sandbox"},
      {"/Nobody/methods.json", 404, "No module named Nobody on this broker\n", text, kTextPolicy},
      // Only the live view's own files (checked in a browser) are served: not the rest, nothing above.
      {"/live/other.js", 404, "HTTP error 404\n", text, kTextPolicy},
      {"/live/../live.html", 404, "HTTP error 404\n", text, kTextPolicy},
      {"/live", 404, "The live view's file live.html is not installed (web folder: " + dir.string() + ")\n",
       text, kTextPolicy},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    auto res = get(c.path);
    ASSERT_TRUE(res);
    EXPECT_EQ(c.status, res->status);
    EXPECT_EQ(c.body, res->body);
    EXPECT_EQ(c.type, res->get_header_value("Content-Type"));
    EXPECT_EQ(c.policy, res->get_header_value("Content-Security-Policy"));
    EXPECT_EQ(1u, res->get_header_value_count("Content-Security-Policy"));
  }
  std::filesystem::remove_all(dir);
  auto res = get("/");
  ASSERT_TRUE(res);
  for (const char* needle :
       {"<a href=\"/Pages\">Pages</a>", "Serves a page with &lt;b&gt;markup&lt;/b&gt;",
        "<a href=\"/Pages/methods.json\">2 methods</a>", "<h4>Dropped notifications</h4>",
        "<tr><td>Pages</td><td>0</td></tr>\n</table>\n<h4>Transport</h4>\n<table><tr><th>Counter</th>"
        "<th>Count</th></tr>\n<tr><td>clients connected</td><td>3</td></tr>\n"
        "<tr><td>cut off: &lt;b&gt;slow&lt;/b&gt;</td><td>1</td></tr>\n</table>"})
    EXPECT_NE(std::string::npos, res->body.find(needle)) << needle << "\n" << res->body;
  EXPECT_EQ(Server::contentSecurityPolicy(res->body), res->get_header_value("Content-Security-Policy"));
  EXPECT_NE(std::string::npos, res->get_header_value("Content-Security-Policy").find("'sha256-"));

  const std::pair<const char*, const char*> documents[] = {
      {"/status.json", R"({"broker": "testbroker",
          "modules": [{"name": "Pages", "description": "Serves a page with <b>markup</b>"}],
          "droppedNotifications": {"Pages": 0},
          "transport": {"clients connected": 3, "cut off: <b>slow</b>": 1}})"},
      {"/Pages/methods.json",
       R"({"module": "Pages", "description": "Serves a page with <b>markup</b>", "methods": [
          {"name": "echo", "className": "PageModule", "description": "Returns its argument", "mask": 0,
           "parameters": [{"name": "text", "description": "What to return", "type": "string"}],
           "return": {"name": "same", "description": "The same text", "type": "string"}},
          {"name": "rawAddress", "className": "PageModule", "description": "An address", "mask": 4,
           "parameters": [], "return": null}]})"}};
  for (const auto& d : documents) {
    auto json = get(d.first);
    ASSERT_TRUE(json);
    EXPECT_EQ(200, json->status);
    EXPECT_EQ("application/json", json->get_header_value("Content-Type"));
    nlohmann::json doc = nlohmann::json::parse(json->body);
    if (doc.contains("methods"))
      for (auto& method : doc["methods"]) method.erase("signature");
    EXPECT_EQ(nlohmann::json::parse(d.second), doc) << d.first;
  }

  const std::string taken =
      testsupport::errorOf([&] { Server(broker, "127.0.0.1", server->port()).start(); });
  EXPECT_EQ(0u, taken.find("cannot serve HTTP on 127.0.0.1:" + std::to_string(server->port()) + ": "))
      << taken;

  // Live streams: rows pushed once per change, capped, ended by stop().
  const std::string request = "GET /live/events HTTP/1.1\r\nHost: x\r\n\r\n";
  const int stream = connectTo(server->port());
  ::send(stream, request.data(), request.size(), MSG_NOSIGNAL);
  const std::string hello = receive(stream, "event: hello\ndata: \n\n");
  EXPECT_NE(std::string::npos, hello.find("Content-Type: text/event-stream")) << hello;
  EXPECT_NE(std::string::npos, hello.find("Content-Security-Policy: " + Server::livePolicy())) << hello;
  module->feed.changed("k");
  module->feed.changed("k");  // pending once
  module->feed.changed("j");
  const std::string rows = receive(stream, "{\"name\":\"j\"}\n\n");
  EXPECT_NE(std::string::npos,
            rows.find("event: row\ndata: {\"name\":\"k\"}\n\nevent: row\ndata: {\"name\":\"j\"}"))
      << rows;
  EXPECT_EQ(
      "HTTP/1.1 503 Service Unavailable\nService unavailable: 1 live streams already open (limit "
      "maxLiveStreams = 1)\n",
      exchange(server->port(), "GET /live/events HTTP/1.1\r\nConnection: close\r\n\r\n"));
  server->stop();  // returns although the stream's client is still there
  EXPECT_EQ(0u, server->liveStreams());
  ::close(stream);
}

TEST(HttpStatusPolicyTest, StyleHashesAndWhichStyleBlockCounts) {
  // Standard SHA-256 vectors (the memory page's own style hash is checked in a browser).
  EXPECT_EQ("'sha256-47DEQpj8HBSa+/TImW+5JCeuQeRkm5NMpJWZG3hSuFU='", Server::styleHashSource(""));
  EXPECT_EQ("'sha256-ungWv48Bz+pBQUDeXa4iI7ADYaOWF3qctBD/YfIAFa0='", Server::styleHashSource("abc"));
  const std::string none = "style-src 'none';", a = "style-src " + Server::styleHashSource("a{}") + ";";
  const std::pair<const char*, std::string> cases[] = {
      {"<html><head><style>a{}</style></head><body>x</body></html>", a},
      {"<html><head></head><body><style>a{}</style></body></html>", none},  // planted in the body
      {"<html><body>x</body></html>", none},
      {"{\"json\": true}", none},
      {"<html><head><style>a{}", none},  // never closed
  };
  for (const auto& c : cases)
    EXPECT_NE(std::string::npos, Server::contentSecurityPolicy(c.first).find(c.second)) << c.first;
}

TEST_F(HttpStatusTest, RequestsBreakingALimitAreRefusedByNameAndTheServerGoesOn) {
  Server::Options options;
  options.maxHeaderCount = 8;
  options.maxHeaderBytes = 1024;
  options.maxPayloadBytes = 100;
  options.readTimeoutMs = 300;
  start(options);
  std::string headers;
  for (int i = 0; i < 10000; ++i) headers += "X-" + std::to_string(i) + ": v\r\n";
  const std::string get = "GET /status.json HTTP/1.1\r\nConnection: close\r\n";
  const std::pair<std::string, std::string> cases[] = {
      {get + headers.substr(0, headers.find("X-7")) + "\r\n", "HTTP/1.1 200 OK"},  // 8 lines: the limit
      {get + headers + "\r\n",
       "HTTP/1.1 431 Request Header Fields Too Large\nRequest header fields too large: more than 8 header "
       "lines (limit maxHeaderCount = 8)\n"},
      {get + "X-Long: " + std::string(2000, 'a') + "\r\n\r\n",
       "HTTP/1.1 431 Request Header Fields Too Large\nRequest header fields too large: request head longer "
       "than 1024 bytes (limit maxHeaderBytes = 1024)\n"},
      {"POST /status.json HTTP/1.1\r\nContent-Length: 1000\r\n\r\n" + std::string(1000, 'b'),
       "HTTP/1.1 413 Payload Too Large\nPayload too large: request body longer than 100 bytes (limit "
       "maxPayloadBytes = 100)\n"},
      {"GET / HTTP/1.1\r\nX-Never-Finished: ",
       "HTTP/1.1 408 Request Timeout\nRequest timeout: the request did not arrive within 300 ms (limit "
       "readTimeoutMs = 300)\n"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.second, exchange(server->port(), c.first).substr(0, c.second.size()))
        << c.first.substr(0, 80);
    EXPECT_EQ("200", status("/status.json")) << "after " << c.first.substr(0, 80);
  }
}

TEST_F(HttpStatusTest, OthersAreServedWhileClientsTrickleAndModulePagesRenderOneAtATime) {
  Server::Options options;
  options.maxWaitingPageRenders = 1;
  start(options);
  // The default threads and request deadline leave room for a request while eight clients trickle theirs.
  std::vector<int> slow;
  for (int i = 0; i < 8; ++i) {
    slow.push_back(connectTo(server->port()));
    ::send(slow.back(), "GET / HTTP/1.1\r\nX-Slow: ", 24, MSG_NOSIGNAL);
  }
  std::promise<void> stop;
  std::thread trickle([&, stopped = stop.get_future()] {
    while (stopped.wait_for(100ms) == std::future_status::timeout)
      for (int fd : slow) ::send(fd, "a", 1, MSG_NOSIGNAL);
  });
  const std::string answer = status("/Pages");
  stop.set_value();
  trickle.join();
  for (int fd : slow) ::close(fd);
  EXPECT_EQ("200", answer) << "within 5 s while 8 clients trickle";

  module->setGate(true);
  auto first = statusAsync("/Pages");
  ASSERT_TRUE(module->waitInside(1)) << "the first render did not start";
  auto second = statusAsync("/Pages");
  ASSERT_TRUE(testsupport::pollUntil([&] { return server->pageRendersWaiting() == 1; }))
      << "the second render is not waiting";
  EXPECT_EQ(
      "HTTP/1.1 503 Service Unavailable\nService unavailable: 1 requests already wait to render a "
      "module page (limit maxWaitingPageRenders = 1)\n",
      exchange(server->port(), "GET /Pages HTTP/1.1\r\nConnection: close\r\n\r\n"));
  EXPECT_EQ("200", status("/")) << "the index waited for module pages";
  module->setGate(false);
  EXPECT_EQ("200", first.get());
  EXPECT_EQ("200", second.get());
  EXPECT_EQ(1, module->maxInside());
}

TEST_F(HttpStatusTest, ConnectionsBeyondTheQueueAreRefusedAtOnce) {
  Server::Options options;
  options.threads = 1;
  options.maxQueuedConnections = 1;
  start(options);
  module->setGate(true);
  auto busy = statusAsync("/Pages");  // holds the only thread
  ASSERT_TRUE(module->waitInside(1));
  const int queued = connectTo(server->port());
  EXPECT_EQ(
      "HTTP/1.1 503 Service Unavailable\nService unavailable: 1 connections already wait for a thread (limit "
      "maxQueuedConnections = 1)\n",
      exchange(server->port(), "GET / HTTP/1.1\r\n\r\n"));
  module->setGate(false);
  EXPECT_EQ("200", busy.get());
  ::close(queued);
}

}  // namespace
