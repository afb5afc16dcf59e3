// rxbroker: the broker process. Creates a broker, loads module libraries with
// dlopen and their _createModule entry point, and runs until SIGINT/SIGTERM.
#include <dlfcn.h>
#include <signal.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "rx/rxbroker.h"
#include "rx/rxlog.h"

namespace {

using CreateModuleFn = int (*)(boost::shared_ptr<RX::RXBroker>);

void usage(std::ostream& os) {
  os << "usage: rxbroker [--module PATH]...\n"
        "  Starts a broker and loads the memory module (" RX_DEFAULT_MODULE ")\n"
        "  and every module library given with --module.\n"
        "  Logging: RX_LOG=category=level,... (levels: error, warning, info, verbose).\n";
}

// Loads one module library; returns false (having said why) when it cannot.
bool loadModule(const std::string& path, const boost::shared_ptr<RX::RXBroker>& broker,
                std::vector<void*>& handles) {
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL);
  if (!handle) {
    std::cerr << "rxbroker: cannot load " << path << ": " << dlerror() << "\n";
    return false;
  }
  auto create = reinterpret_cast<CreateModuleFn>(dlsym(handle, "_createModule"));
  if (!create) {
    std::cerr << "rxbroker: " << path << " has no _createModule entry point\n";
    dlclose(handle);
    return false;
  }
  try {
    create(broker);
  } catch (const std::exception& e) {
    std::cerr << "rxbroker: _createModule of " << path << " failed: " << e.what() << "\n";
    return false;
  }
  handles.push_back(handle);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> modules{RX_DEFAULT_MODULE};
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--module" && i + 1 < argc) {
      modules.push_back(argv[++i]);
    } else if (arg == "--help" || arg == "-h") {
      usage(std::cout);
      return 0;
    } else {
      std::cerr << "rxbroker: unknown argument '" << arg << "'\n";
      usage(std::cerr);
      return 2;
    }
  }

  // Block the stop signals before any thread starts, so that only sigwait sees them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  boost::shared_ptr<RX::RXBroker> broker = RX::RXBroker::create("rxbroker");
  std::vector<void*> handles;
  for (const std::string& path : modules) {
    if (!loadModule(path, broker, handles)) {
      broker->shutdown();
      return 1;
    }
  }
  std::cout << "rxbroker: running with modules:";
  for (const std::string& name : broker->moduleNames()) std::cout << " " << name;
  std::cout << "\nrxbroker: no network transport yet: the modules serve only this process. "
               "Press Ctrl-C to stop.\n"
            << std::flush;

  int received = 0;
  sigwait(&stopSignals, &received);
  std::cout << "rxbroker: " << strsignal(received) << ", stopping\n" << std::flush;
  broker->shutdown();
  broker.reset();
  // Libraries stay loaded until exit: objects they created may still be
  // released by static destructors.
  return 0;
}
