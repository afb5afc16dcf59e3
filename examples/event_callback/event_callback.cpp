// A module in a client process: it publishes onBumped, subscribes it to the
// memory's event Example/Bumped, and is called back at every raise of the
// event, by any process. Here the program raises the event itself a few times
// and exits once it has been called back for each.
//
//   rxmemory_example_event_callback [ENDPOINT] [RAISES]   (tcp://127.0.0.1:9780, 3)
#include <chrono>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <string>

#include <boost/make_shared.hpp>

#include "net/clientsession.h"
#include "rx/rxbroker.h"
#include "rx/rxmodule.h"
#include "rx/rxproxy.h"

namespace {

// The memory calls a subscriber's method with the event's name, the raised
// value and the message given when subscribing: (string, value, value).
// Calls arrive on the session's threads, one at a time and in raise order.
class BumpListener : public RX::RXModule {
 public:
  BumpListener(boost::shared_ptr<RX::RXBroker> broker, const std::string& name) : RX::RXModule(broker, name) {
    setModuleDescription("Counts the bumps the memory tells it about.");
    functionName("onBumped", getName(), "Called by the memory at each raise of Example/Bumped.");
    addParam("key", "Name of the event.");
    addParam("value", "The raised value.");
    addParam("message", "The message given when subscribing.");
    advertiseMethod(getCurrentMethodDescription(), this, &BumpListener::onBumped);
  }

  void onBumped(const std::string& key, const RX::RXValue& value, const RX::RXValue& message) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::cout << "called back: " << key << " = " << value.toString() << " (" << message.toString() << ")"
              << std::endl;
    ++calls_;
    called_.notify_all();
  }

  // True once `count` calls have arrived, false after `timeout`.
  bool waitForCalls(int count, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return called_.wait_for(lock, timeout, [&] { return calls_ >= count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable called_;
  int calls_ = 0;  // guarded by mutex_
};

}  // namespace

int main(int argc, char** argv) {
  const std::string endpoint = argc > 1 ? argv[1] : "tcp://127.0.0.1:9780";
  const int raises = argc > 2 ? std::stoi(argv[2]) : 3;
  const std::string event = "Example/Bumped";
  try {
    auto session = net::ClientSession::connect(endpoint);
    auto broker = RX::RXBroker::create("example-event-callback", RX::RXBroker::Options(), session);
    // The module becomes a service of the remote broker at initModule(), so
    // the memory can call it back by name.
    auto listener = boost::make_shared<BumpListener>(broker, "ExampleBumpListener");
    listener->initModule();

    boost::shared_ptr<RX::RXProxy> memory = broker->getProxy("RXMemory");
    memory->call<void>("subscribeToEvent", event, listener->getName(), std::string("onBumped"));
    for (int i = 1; i <= raises; ++i) memory->call<void>("raiseEvent", event, i);
    const bool allCalled = listener->waitForCalls(raises, std::chrono::seconds(10));
    memory->call<void>("unsubscribeToEvent", event, listener->getName());
    listener->exit();
    broker->shutdown();
    session->close();
    if (!allCalled) {
      std::cerr << "event_callback: not called back for all " << raises << " raises within 10 s\n";
      return 1;
    }
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "event_callback: " << e.what() << "\n";
    return 1;
  }
}
