// A client of a running broker: stores a key in the memory, reads it back,
// then follows it as a signal and prints the values raised on it.
//
//   rxmemory_example_client [ENDPOINT]        (default tcp://127.0.0.1:9780)
#include <chrono>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <string>
#include <vector>

#include "net/clientsession.h"
#include "rx/rxbroker.h"
#include "rx/rxproxy.h"

int main(int argc, char** argv) {
  const std::string endpoint = argc > 1 ? argv[1] : "tcp://127.0.0.1:9780";
  const std::string key = "Example/Battery";
  try {
    // A session connected to the broker, and a broker of this process on it.
    auto session = net::ClientSession::connect(endpoint);
    auto broker = RX::RXBroker::create("example-client", RX::RXBroker::Options(), session);
    boost::shared_ptr<RX::RXProxy> memory = broker->getProxy("RXMemory");

    // Store and read.
    memory->call<void>("insertData", key, 87);
    RX::RXValue level = memory->call<RX::RXValue>("getData", key);
    std::cout << "stored " << key << " = " << level.toString() << std::endl;

    // Follow: the key's signal object emits every value raised on the key.
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> seen;
    mz::AnyObject signal = memory->call<mz::AnyObject>("subscriber", key);
    mz::Future<mz::SignalLink> connected = signal.connect("signal", [&](mz::AnyValue value) {
      std::lock_guard<std::mutex> lock(mutex);
      seen.push_back(value.toRXValue().toString());
      changed.notify_all();
    });
    const mz::SignalLink link = connected.value();  // throws if the connection failed

    for (int value : {86, 85}) memory->call<void>("raiseEvent", key, value);
    {
      std::unique_lock<std::mutex> lock(mutex);
      if (!changed.wait_for(lock, std::chrono::seconds(10), [&] { return seen.size() == 2; })) {
        std::cerr << "client: followed " << seen.size() << " of 2 raises of " << key << " in 10 s\n";
        return 1;
      }
      for (const std::string& value : seen) std::cout << "followed " << key << " = " << value << std::endl;
    }

    signal.disconnect(link).wait(std::chrono::seconds(10));
    broker->shutdown();
    session->close();
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "client: " << e.what() << "\n";
    return 1;
  }
}
