// net::HttpStatusServer: the broker's status pages over HTTP.
//   GET /                        index of the modules, their descriptions, the
//                                notifications dropped per subscriber module and
//                                the transport's counters
//   GET /status.json             the same facts as JSON
//   GET /<module>                the module's own page (RXModule::httpGet)
//   GET /<module>/methods.json   the module's published catalogue as JSON
//   GET /live                    the live view of the first module that offers
//                                one (RXModule::liveFeed): a page, its script
//                                and style (/live/live.js, /live/live.css),
//   GET /live/keys.json          its table as JSON,
//   GET /live/events             and its changes as Server-Sent Events.
// Module pages embed names and values unescaped, so every answer carries a
// Content-Security-Policy that forbids scripts and allows only the page's own
// leading <style> block, by its hash. Every client is untrusted: request heads
// and bodies are bounded, a request must arrive within a deadline, a fixed pool
// of threads serves the connections and module pages render one at a time.
// The live view is files and JSON only, so its policy allows the broker's own
// script and style and nothing inline. Each event stream holds a serving
// thread: their number is capped, each keeps a bounded set of changed names,
// sends a heartbeat comment when idle and ends when the server stops.
// Thread safety: start and stop from one thread; requests are served on the
// server's own threads; the page functions may be called from any thread.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include <boost/shared_ptr.hpp>

namespace RX {
class RXBroker;
}

namespace net {

class HttpStatusServer {
 public:
  // Limits on what one client may cost the server. A request that breaks one
  // is answered with its status (408, 413, 431, 503) and a text naming the
  // limit and its value, and its connection is closed.
  struct Options {
    // Threads serving connections; an open connection holds one while it
    // sends a request or waits for the next.
    std::size_t threads = 16;
    // Accepted connections waiting for a free thread; the next one is
    // answered 503 at once. Also the listening socket's backlog.
    std::size_t maxQueuedConnections = 64;
    // Header lines of one request (the request line not counted).
    std::size_t maxHeaderCount = 64;
    // Bytes of one request head: request line, header lines, blank line.
    std::size_t maxHeaderBytes = 16 * 1024;
    // Bytes of one request body (the pages take none).
    std::size_t maxPayloadBytes = 8 * 1024;
    // Time for a whole request (head and body) to arrive, from its first
    // byte, and the longest a kept-alive connection may sit idle.
    int readTimeoutMs = 2000;
    // Time for the client to take a whole answer.
    int writeTimeoutMs = 10000;
    // Requests served on one connection before it is closed.
    std::size_t keepAliveMaxCount = 100;
    // Module pages render one at a time, for they walk the module's whole
    // state under its locks; this many requests may wait for their turn,
    // more are answered 503.
    std::size_t maxWaitingPageRenders = 4;
    // After a refusal, how long the rest of the request is read and dropped
    // so that the client sees the answer rather than a reset connection.
    int closeLingerMs = 500;
    // The folder of the live view's files (live.html, live.js, live.css);
    // empty or missing: /live answers 404.
    std::string webDir;
    // Open /live/events streams; more are answered 503. Keep it well below
    // `threads`: each stream holds a thread.
    std::size_t maxLiveStreams = 8;
    // Changed names a stream keeps for a slow client; beyond them it tells
    // the page to reload the whole table ("resync") instead.
    std::size_t maxLivePending = 1024;
    // A comment is sent on a stream idle this long, so that a client gone
    // without a word is found out by the failed write.
    int liveHeartbeatMs = 15000;
  };

  HttpStatusServer(boost::shared_ptr<RX::RXBroker> broker, std::string host, int port);
  HttpStatusServer(boost::shared_ptr<RX::RXBroker> broker, std::string host, int port, const Options& options);
  ~HttpStatusServer();  // stop()
  HttpStatusServer(const HttpStatusServer&) = delete;
  HttpStatusServer& operator=(const HttpStatusServer&) = delete;

  // Binds and starts serving; throws std::runtime_error "cannot serve HTTP on
  // HOST:PORT: REASON" when the address cannot be bound. Port 0 picks a free port.
  void start();
  // Closes the listening socket and every open connection; returns when the
  // serving threads have finished.
  void stop();
  // The bound port (after start).
  int port() const;
  // "http://HOST:PORT".
  std::string url() const;
  const Options& options() const;
  // Requests now waiting for their turn to render a module page.
  std::size_t pageRendersWaiting() const;
  // Open /live/events streams.
  std::size_t liveStreams() const;
  // The policy of the live view's page, script, style and JSON.
  static const std::string& livePolicy();

  // The policy sent with a page: no scripts, no plugins, no forms, no
  // framing, a sandboxed document, and as styles only the text of the page's
  // first <style> element if it lies in the page's head (none otherwise).
  static std::string contentSecurityPolicy(const std::string& page);
  // The CSP source that allows exactly this style text: 'sha256-BASE64'.
  static std::string styleHashSource(const std::string& styleText);

  // The pages themselves, for tests and other front ends.
  std::string indexPage() const;
  std::string statusJson() const;
  std::string methodsJson(const std::string& module) const;  // empty when no such module
  // {"module", "droppedNotifications", "keys"}: the live table of the first
  // module that offers one; empty when none does.
  std::string liveJson() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace net
