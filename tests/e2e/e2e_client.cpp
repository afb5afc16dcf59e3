// rx_e2e_client ENDPOINT EVENT [MODULE]: serves a module subscribed to EVENT, says
// "ready", prints "event KEY VALUE MESSAGE" per notification; "raise N KEY" on stdin
// raises KEY N times (bench/syscalls_per_event.sh counts system calls with it).
#include <boost/make_shared.hpp>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>

#include "net/clientsession.h"
#include "rx/rxbroker.h"
#include "rx/rxmodule.h"
#include "rx/rxproxy.h"

namespace {

std::mutex outMutex;

void say(const std::string& line) {
  std::lock_guard<std::mutex> lock(outMutex);
  std::cout << line << std::endl;
}

class E2EClient : public RX::RXModule {
 public:
  E2EClient(boost::shared_ptr<RX::RXBroker> broker, const std::string& name) : RX::RXModule(broker, name) {
    functionName("onEvent", "E2EClient", "Prints a notification.");
    for (const char* param : {"key", "value", "message"}) addParam(param, "");
    advertiseMethod(getCurrentMethodDescription(), this, &E2EClient::onEvent);
  }
  void onEvent(const std::string& key, const RX::RXValue& value, const RX::RXValue& message) {
    say("event " + key + " " + value.toString() + " " + message.toString(0));
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    std::cerr << "usage: rx_e2e_client ENDPOINT EVENT [MODULE]\n";
    return 2;
  }
  try {
    net::ClientSession::Options options;
    options.clientName = "rx_e2e_client";
    auto session = net::ClientSession::connect(argv[1], options);
    auto broker = RX::RXBroker::create("e2e-client", RX::RXBroker::Options(), session);
    auto module = boost::make_shared<E2EClient>(broker, argc == 4 ? argv[3] : "E2EClient");
    module->initModule();
    boost::shared_ptr<RX::RXProxy> memory = broker->getProxy("RXMemory");
    memory->call<void>("subscribeToEvent", std::string(argv[2]), module->getName(), std::string("onEvent"));
    say("ready");
    std::string line;
    while (std::getline(std::cin, line)) {
      std::istringstream words(line);
      std::string verb, key;
      int n = 0;
      if (!(words >> verb >> n >> key) || verb != "raise") continue;
      for (int i = 0; i < n; ++i) memory->call<void>("raiseEvent", key, RX::RXValue(i));
      say("raised " + std::to_string(n));
    }
    broker->shutdown();
    session->close();
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "rx_e2e_client: " << e.what() << "\n";
    return 1;
  }
}
