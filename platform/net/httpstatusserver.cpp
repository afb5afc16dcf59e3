#include "net/httpstatusserver.h"

#include <httplib.h>

#include <cstring>
#include <map>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "mz/object.h"
#include "net/catalogjson.h"
#include "rx/rxbroker.h"
#include "rx/rxlog.h"
#include "rx/rxmodule.h"

namespace net {

const char* const HttpStatusServer::kContentSecurityPolicy =
    "default-src 'none'; script-src 'none'; object-src 'none'; style-src 'unsafe-inline'; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

namespace {

RX::log::Category& httpLog() {
  static RX::log::Category& category = RX::log::category("rx.http");
  return category;
}

void setCommonHeaders(httplib::Response& res) {
  res.set_header("Content-Security-Policy", HttpStatusServer::kContentSecurityPolicy);
  res.set_header("X-Content-Type-Options", "nosniff");
  res.set_header("Cache-Control", "no-store");
}

}  // namespace

struct HttpStatusServer::Impl {
  boost::shared_ptr<RX::RXBroker> broker;
  std::string host;
  int requestedPort;
  int boundPort = 0;
  httplib::Server server;
  std::thread thread;
};

HttpStatusServer::HttpStatusServer(boost::shared_ptr<RX::RXBroker> broker, std::string host, int port)
    : impl_(std::make_unique<Impl>()) {
  impl_->broker = std::move(broker);
  impl_->host = std::move(host);
  impl_->requestedPort = port;

  httplib::Server& server = impl_->server;
  // The library's default also sets SO_REUSEPORT, which would let a second
  // broker share the port silently instead of being told it is taken.
  server.set_socket_options([](socket_t sock) {
    int yes = 1;
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
  });
  server.Get("/", [this](const httplib::Request&, httplib::Response& res) {
    setCommonHeaders(res);
    res.set_content(indexPage(), "text/html; charset=utf-8");
  });
  server.Get(R"(/([^/]+)/methods\.json)", [this](const httplib::Request& req, httplib::Response& res) {
    setCommonHeaders(res);
    std::string json = methodsJson(req.matches[1]);
    if (json.empty()) {
      res.status = 404;
      res.set_content("No module named " + std::string(req.matches[1]) + " on this broker\n",
                      "text/plain; charset=utf-8");
      return;
    }
    res.set_content(json, "application/json");
  });
  server.Get(R"(/([^/]+))", [this](const httplib::Request& req, httplib::Response& res) {
    setCommonHeaders(res);
    const std::string name = req.matches[1];
    boost::shared_ptr<RX::RXModule> module = impl_->broker->getModule(name);
    if (!module) {
      res.status = 404;
      res.set_content("No module named " + name + " on this broker\n", "text/plain; charset=utf-8");
      return;
    }
    try {
      res.set_content(module->httpGet(), "text/html; charset=utf-8");
    } catch (const std::exception& e) {
      res.status = 500;
      res.set_content("The page of " + name + " failed: " + e.what() + "\n", "text/plain; charset=utf-8");
    }
  });
}

HttpStatusServer::~HttpStatusServer() { stop(); }

void HttpStatusServer::start() {
  Impl& impl = *impl_;
  int port = impl.requestedPort;
  bool bound = port == 0 ? (port = impl.server.bind_to_any_port(impl.host)) > 0
                         : impl.server.bind_to_port(impl.host, port);
  if (!bound) {
    throw std::runtime_error("cannot serve HTTP on " + impl.host + ":" + std::to_string(impl.requestedPort) +
                             ": " + std::strerror(errno ? errno : EADDRINUSE));
  }
  impl.boundPort = port;
  impl.thread = std::thread([&impl] { impl.server.listen_after_bind(); });
  // The library's stop() does nothing until its loop runs; waiting here makes
  // a stop that follows right after start() effective instead of hanging.
  while (!impl.server.is_running()) std::this_thread::yield();
  RX_INFO(httpLog(), "status pages on " << url());
}

void HttpStatusServer::stop() {
  if (!impl_ || !impl_->thread.joinable()) return;
  impl_->server.stop();
  impl_->thread.join();
}

int HttpStatusServer::port() const { return impl_->boundPort; }

std::string HttpStatusServer::url() const {
  return "http://" + impl_->host + ":" + std::to_string(impl_->boundPort);
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
  std::map<std::string, uint64_t> dropped = broker.droppedCounts();
  os << "<table><tr><th>Subscriber module</th><th>Dropped</th></tr>\n";
  for (const auto& entry : dropped)
    os << "<tr><td>" << RX::htmlEscape(entry.first) << "</td><td>" << entry.second << "</td></tr>\n";
  os << "</table>\n</body></html>\n";
  return os.str();
}

std::string HttpStatusServer::methodsJson(const std::string& name) const {
  boost::shared_ptr<RX::RXModule> module = impl_->broker->getModule(name);
  if (!module) return std::string();
  nlohmann::json methods = nlohmann::json::array();
  for (const mz::MetaMethod& m : module->methods()) methods.push_back(methodToJson(m));
  nlohmann::json doc = {{"module", name}, {"description", module->getModuleDescription()}, {"methods", methods}};
  return doc.dump(2) + "\n";
}

}  // namespace net
