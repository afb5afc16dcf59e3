// rxbroker: the broker process. Loads module libraries (the memory by default)
// with dlopen and their _createModule entry point, makes the modules reachable
// over the network, and runs until SIGINT or SIGTERM.
#include <dlfcn.h>
#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <boost/shared_ptr.hpp>

#include "mz/datapath.h"
#include "net/httpstatusserver.h"
#include "net/server.h"
#include "rx/rxbroker.h"
#include "rx/rxlog.h"
#include "rx/rxmemorybudget.h"
#include "rx/rxversion.h"

// The module folder relative to the broker's own folder in an installed tree
// (set by the build from its install layout).
#ifndef RX_BIN_TO_MODULES
#define RX_BIN_TO_MODULES "../lib/rxmemory/modules"
#endif

namespace {

const char* const kMemoryModule = "rxmemory";

// Where --module NAME is looked for: the installed module folder, then the
// broker's own folder (a build tree keeps the modules next to the broker).
// Found from the executable's location, so an installed tree works wherever
// it is put.
std::vector<std::filesystem::path> moduleFolders() {
  std::vector<std::filesystem::path> folders;
  std::error_code ec;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec) return folders;
  folders.push_back((self.parent_path() / RX_BIN_TO_MODULES).lexically_normal());
  folders.push_back(self.parent_path());
  return folders;
}

// A module given by path (it has a '/') is loaded from there; a NAME is
// libNAME.so or NAME in the module folders, in order, else what dlopen finds
// by that name (LD_LIBRARY_PATH, the system's folders).
std::string resolveModule(const std::string& nameOrPath) {
  if (nameOrPath.find('/') != std::string::npos) return nameOrPath;
  for (const std::filesystem::path& folder : moduleFolders()) {
    for (const std::string& file : {"lib" + nameOrPath + ".so", nameOrPath}) {
      std::error_code ec;
      if (std::filesystem::is_regular_file(folder / file, ec)) return (folder / file).string();
    }
  }
  return nameOrPath;
}

std::string folderList() {
  std::string text;
  for (const std::filesystem::path& folder : moduleFolders()) text += (text.empty() ? "" : ", ") + folder.string();
  return text.empty() ? "(unknown: /proc/self/exe unreadable)" : text;
}

// The live view's files: --web-dir, else web/live in the data folders
// (--data-path, RX_DATA_PATH, the installed share/rx), else web/live next to
// the broker (a build tree keeps a copy there). Empty when none is found.
std::string webFolder(const std::string& given) {
  if (!given.empty()) return given;
  const std::string page = mz::path::findData("web/live", "live.html");
  if (!page.empty()) return std::filesystem::path(page).parent_path().string();
  std::error_code ec;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (!ec && std::filesystem::is_regular_file(self.parent_path() / "web/live/live.html", ec))
    return (self.parent_path() / "web/live").string();
  return std::string();
}

using CreateModuleFn = int (*)(boost::shared_ptr<RX::RXBroker>);

// Loads one module library. Returns an error text, empty on success.
std::string loadModule(const std::string& path, const boost::shared_ptr<RX::RXBroker>& broker) {
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL);
  if (!handle) return std::string("cannot load ") + dlerror();
  auto create = reinterpret_cast<CreateModuleFn>(dlsym(handle, "_createModule"));
  if (!create) {
    dlclose(handle);
    return "cannot load " + path + ": it has no _createModule entry point";
  }
  try {
    create(broker);
  } catch (const std::exception& e) {
    return "_createModule of " + path + " failed: " + e.what();
  }
  // The library stays loaded until exit: objects it created may be released
  // late, by static destructors.
  return std::string();
}

int fail(const std::string& message) {
  std::cerr << "rxbroker: " << message << "\n";
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> modules;
  std::vector<std::string> listen;
  std::vector<std::string> dataPaths;
  std::vector<std::string> logs;
  std::string http = "127.0.0.1:9781";
  bool noHttp = false;
  unsigned int threads = 2;
  std::size_t queueCapacity = 10000;
  net::Server::Options serverOptions;
  unsigned int handshakeMs = static_cast<unsigned int>(serverOptions.handshakeTimeout.count());
  unsigned int softOutputMs = static_cast<unsigned int>(serverOptions.output.softTime.count());

  CLI::App app{"rxbroker: hosts RXMemory and other modules and serves them to every process of the robot."};
  app.set_version_flag("--version", std::string("rxbroker " RX_VERSION " (git revision " RX_GIT_REVISION ")"),
                       "Print the version and the git revision it was built from, and exit");
  app.add_option("--module", modules,
                 "Module library to load after the memory (repeatable): a path, or a NAME looked up as libNAME.so "
                 "or NAME in " + folderList() + ". The memory is the module " + kMemoryModule);
  app.add_option("--listen", listen,
                 "Endpoint to listen on, tcp://HOST:PORT or unix:///path (repeatable; default "
                 "tcp://127.0.0.1:9780)");
  app.add_option("--data-path", dataPaths, "Directory searched first for data files (repeatable)");
  app.add_option("--log", logs, "Log threshold CATEGORY=LEVEL, e.g. rxmemory=verbose or '*=warning' (repeatable)");
  app.add_option("--http", http, "Address and port of the HTTP status pages (default 127.0.0.1:9781)");
  app.add_flag("--no-http", noHttp, "Serve no HTTP status pages");
  net::HttpStatusServer::Options httpOptions;
  app.add_option("--http-threads", httpOptions.threads, "Threads serving HTTP connections")
      ->check(CLI::Range(1, 256))
      ->capture_default_str();
  app.add_option("--http-timeout-ms", httpOptions.readTimeoutMs,
                 "Time for an HTTP request to arrive, and the longest an HTTP connection may sit idle")
      ->check(CLI::Range(10, 600000))
      ->capture_default_str();
  app.add_option("--http-write-timeout-ms", httpOptions.writeTimeoutMs, "Time for an HTTP client to take an answer")
      ->check(CLI::Range(10, 600000))
      ->capture_default_str();
  app.add_option("--http-max-headers", httpOptions.maxHeaderCount, "Header lines of an HTTP request")
      ->check(CLI::Range(1, 10000))
      ->capture_default_str();
  app.add_option("--http-max-header-bytes", httpOptions.maxHeaderBytes, "Bytes of an HTTP request head")
      ->check(CLI::Range(256, 1048576))
      ->capture_default_str();
  std::string webDir;
  app.add_option("--web-dir", webDir,
                 "Folder of the live view's files served at /live (default: web/live in the data folders, then "
                 "next to the broker)");
  app.add_option("--http-live-streams", httpOptions.maxLiveStreams,
                 "Live views (/live/events streams) open at once; each holds an HTTP thread")
      ->check(CLI::Range(std::size_t(0), std::size_t(1024)))
      ->capture_default_str();
  app.add_option("--threads", threads, "Threads running posted calls (notifications)")->check(CLI::Range(2, 64));
  app.add_option("--queue-capacity", queueCapacity, "Pending notifications kept per subscriber module")
      ->check(CLI::Range(1, 100000000));
  // What one client may cost the broker; every limit has a default a robot can live with.
  app.add_option("--max-clients", serverOptions.maxClients, "Client processes (sessions) served at once")
      ->capture_default_str()
      ->check(CLI::Range(std::size_t(1), std::size_t(100000)));
  app.add_option("--max-connections", serverOptions.maxConnections,
                 "Open connections, greeted or not (each client uses a few)")
      ->capture_default_str()
      ->check(CLI::Range(std::size_t(2), std::size_t(1000000)));
  app.add_option("--handshake-timeout-ms", handshakeMs, "Time a new connection has to say Hello")
      ->capture_default_str()
      ->check(CLI::Range(10u, 3600000u));
  app.add_option("--max-input-bytes", serverOptions.maxInputBytes,
                 "Bytes of partial frames held across all connections (suffixes KiB, MiB, GiB)")
      ->capture_default_str()
      ->transform(CLI::AsSizeValue(false));
  app.add_option("--max-output-bytes", serverOptions.output.hardBytes,
                 "Bytes kept for a client that reads too slowly; beyond them it is cut off at once")
      ->capture_default_str()
      ->transform(CLI::AsSizeValue(false));
  app.add_option("--soft-output-bytes", serverOptions.output.softBytes,
                 "A slow client with more than this kept for --soft-output-ms is cut off")
      ->capture_default_str()
      ->transform(CLI::AsSizeValue(false));
  app.add_option("--soft-output-ms", softOutputMs, "How long a client may stay over --soft-output-bytes")
      ->capture_default_str()
      ->check(CLI::Range(0u, 3600000u));
  std::size_t maxMemory = 0;
  app.add_option("--max-memory", maxMemory,
                 "Resident memory beyond which the memory's writes fail with an error instead of the process "
                 "being killed by the system (e.g. 2GiB; 0: no limit)")
      ->capture_default_str()
      ->transform(CLI::AsSizeValue(false));
  CLI11_PARSE(app, argc, argv);
  serverOptions.handshakeTimeout = std::chrono::milliseconds(handshakeMs);
  serverOptions.output.softTime = std::chrono::milliseconds(softOutputMs);
  if (serverOptions.output.softBytes > serverOptions.output.hardBytes)
    return fail("--soft-output-bytes " + std::to_string(serverOptions.output.softBytes) +
                " exceeds --max-output-bytes " + std::to_string(serverOptions.output.hardBytes));

  for (const std::string& settings : logs)
    if (!RX::log::applyThresholds(settings)) return fail("bad --log '" + settings + "': expected CATEGORY=LEVEL");
  for (const std::string& dir : dataPaths) mz::path::addDataDirectory(dir);
  if (listen.empty()) listen.push_back("tcp://127.0.0.1:9780");
  std::string httpHost;
  int httpPort = 0;
  if (!noHttp) {
    std::size_t colon = http.rfind(':');
    try {
      if (colon == std::string::npos || colon == 0) throw std::invalid_argument(http);
      httpHost = http.substr(0, colon);
      std::size_t used = 0;
      httpPort = std::stoi(http.substr(colon + 1), &used);
      if (used != http.size() - colon - 1 || httpPort < 0 || httpPort > 65535) throw std::invalid_argument(http);
    } catch (const std::exception&) {
      return fail("bad --http '" + http + "': expected ADDRESS:PORT, e.g. 127.0.0.1:9781");
    }
  }

  // Block the stop signals before any thread starts, so that only sigwait sees them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  std::unique_ptr<RX::MemoryBudget> memoryBudget;
  if (maxMemory) memoryBudget = std::make_unique<RX::MemoryBudget>(maxMemory);

  RX::RXBroker::Options options;
  options.threads = threads;
  options.queueCapacity = queueCapacity;
  boost::shared_ptr<RX::RXBroker> broker = RX::RXBroker::create("rxbroker", options);

  modules.insert(modules.begin(), kMemoryModule);
  for (const std::string& module : modules) {
    const std::string path = resolveModule(module);
    std::string error = loadModule(path, broker);
    if (!error.empty() && path == module && module.find('/') == std::string::npos)
      error += " (looked for lib" + module + ".so and " + module + " in " + folderList() + ")";
    if (!error.empty()) {
      broker->shutdown();
      return fail(error);
    }
  }

  std::unique_ptr<net::Server> server;
  std::unique_ptr<net::HttpStatusServer> pages;
  try {
    server = std::make_unique<net::Server>(broker, listen, serverOptions);
    server->start();
    if (!noHttp) {
      httpOptions.webDir = webFolder(webDir);
      pages = std::make_unique<net::HttpStatusServer>(broker, httpHost, httpPort, httpOptions);
      pages->start();
    }
  } catch (const std::exception& e) {
    if (server) server->stop();
    broker->shutdown();
    return fail(e.what());
  }

  std::cout << "rxbroker: modules:";
  for (const std::string& name : broker->moduleNames()) std::cout << " " << name;
  std::cout << "\n";
  for (const std::string& endpoint : server->endpoints()) std::cout << "rxbroker: listening on " << endpoint << "\n";
  if (pages) std::cout << "rxbroker: status pages on " << pages->url() << "/RXMemory\n";
  if (pages) std::cout << "rxbroker: live view on " << pages->url() << "/live\n";
  std::cout << "rxbroker: press Ctrl-C to stop" << std::endl;

  int received = 0;
  sigwait(&stopSignals, &received);
  std::cout << "rxbroker: " << strsignal(received) << ", stopping" << std::endl;
  // No new calls from other processes, then the posted calls drain and the
  // modules leave in reverse order of loading.
  if (pages) pages->stop();
  server->stop();
  broker->shutdown();
  pages.reset();
  server.reset();
  broker.reset();
  return 0;
}
