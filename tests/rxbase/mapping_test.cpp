// Mapping of service signals onto memory events: the map file's line format,
// loading at start-up, mappings added at run time, services that register
// later or again, and the module's teardown.
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "memory_test_util.h"

namespace rxtest {
namespace {

class ParseTest : public MemoryTest {
 protected:
  std::string parse(const std::string& line) {
    std::string service, signal, event;
    if (!memory->_parseEventFromLine(line, service, signal, event)) return "rejected";
    return service + "|" + signal + "|" + event;
  }
};

TEST_F(ParseTest, LinesOfTheMapFile) {
  const std::pair<const char*, const char*> cases[] = {
      {"Battery.levelChanged: BatteryLevel # from the battery service", "Battery|levelChanged|BatteryLevel"},
      {"Audio Mixer . volume Changed : Mixer/Volume", "AudioMixer|volumeChanged|Mixer/Volume"},
      {"\tS .\tsig\t: E\t# comment . with : separators\n", "S|sig|E"},
      {"S.a.b:c:d.e", "S|a.b|c:d.e"},
      {"Abc.xyz:E", "Abc|xyz|E"},  // a signal as long as its service is fine
      // Line ends are not part of the event; a lone carriage return is; only spaces and tabs are removed.
      {"S.sig:E\r\n", "S|sig|E"},
      {"S.sig:E\n", "S|sig|E"},
      {"S.sig:E\r", "S|sig|E\r"},
      {"S.sig:E\v", "S|sig|E\v"},
  };
  for (const auto& [line, parsed] : cases) EXPECT_EQ(parsed, parse(line)) << "line \"" << line << "\"";
  for (const char* line :
       {"", "\n", "\r\n", "   \t ", "# Battery.levelChanged:BatteryLevel", "#",
        "Battery.levelChanged:", "Battery.levelChanged: # no event", "Battery.levelChanged BatteryLevel",
        "NoDot:E", ".sig:E", "S.:E", "Localization.up:Moved", "Srv.ab:E", "S.sig#:E"})
    EXPECT_EQ("rejected", parse(line)) << "line \"" << line << "\"";
}

// Creates the memory module on its own broker, with the data path pointing at
// a temporary directory that may hold a map file.
class MapFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    static std::atomic<int> counter{0};
    dir = std::filesystem::temp_directory_path() /
          ("rxmemory-map-" + std::to_string(::getpid()) + "-" + std::to_string(counter++));
    std::filesystem::create_directories(dir / "tavro");
    RX::RXBroker::Options options;
    options.queueCapacity = 1000000;
    broker = RX::RXBroker::create("map-broker", options);
  }
  void TearDown() override {
    memory.reset();
    broker->shutdown();
    std::filesystem::remove_all(dir);
  }
  void createMemory(const std::string& map = "") {
    if (!map.empty()) std::ofstream(dir / "tavro" / "rxmemory_map_signal_event.txt", std::ios::binary) << map;
    const char* previous = std::getenv("RX_DATA_PATH");
    const std::string saved = previous ? previous : "";
    ::setenv("RX_DATA_PATH", dir.c_str(), 1);
    const int rc = _createModule(broker);
    previous ? ::setenv("RX_DATA_PATH", saved.c_str(), 1) : ::unsetenv("RX_DATA_PATH");
    ASSERT_EQ(0, rc);
    memory = boost::dynamic_pointer_cast<RX::RXMemory>(broker->getModule("RXMemory"));
    ASSERT_TRUE(memory);
  }
  std::size_t registrationListeners() const { return broker->session()->serviceRegistered.subscriberCount(); }

  std::filesystem::path dir;
  boost::shared_ptr<RX::RXBroker> broker;
  boost::shared_ptr<RX::RXMemory> memory;
};

TEST_F(MapFileTest, ServicesPresentAtLoadAreConnectedTwice) {
  // 511 characters make one read; the rest of the line is a line of its own.
  const std::string longEvent(499, 'E');
  const std::string longLine = "Long.signal:" + longEvent + std::string(70, ' ') + "Split.splitSig:Tail";
  ASSERT_EQ(600u, longLine.size());
  auto battery = registerFakeService(broker, "Battery", {"levelChanged"});
  auto mixer = registerFakeService(broker, "AudioMixer", {"volumeChanged"});
  auto localization = registerFakeService(broker, "Localization", {"up"});
  auto longService = registerFakeService(broker, "Long", {"signal"});
  auto split = registerFakeService(broker, "Split", {"splitSig"});
  const std::size_t listenersBefore = registrationListeners();
  createMemory(
      "# services of the test robot\nBattery.levelChanged: BatteryLevel # from the battery service\n"
      "Audio Mixer . volume Changed : Mixer/Volume\r\n\nLocalization.up:Moved\nBattery.missing:Never\n"
      "Battery.levelChanged:\nGhost.ghostSig:GhostEvent\n" +
      longLine + "\n");
  EXPECT_EQ(listenersBefore + 1, registrationListeners());
  // Once when the file's line is read, once more when the map is replayed.
  EXPECT_EQ("2 2 0 2 2", std::to_string(battery->connections("levelChanged")) + " " +
                             std::to_string(mixer->connections("volumeChanged")) + " " +
                             std::to_string(localization->connections("up")) + " " +
                             std::to_string(longService->connections("signal")) + " " +
                             std::to_string(split->connections("splitSig")));
  const Names events = memory->getEventList();
  for (const std::string& e :
       {std::string("BatteryLevel"), std::string("Mixer/Volume"), longEvent, std::string("Tail")})
    EXPECT_TRUE(contains(events, e)) << e << " was not declared";
  for (const char* e : {"Moved", "Never", "GhostEvent"}) EXPECT_FALSE(contains(events, e)) << e;

  // Each emission is raised once per connection, the micro-event way.
  auto r = startModule<Recorder>(broker, "R");
  memory->subscribeToEvent("BatteryLevel", "R", "onEvent");
  SignalLog onSignal;
  memory->subscriber("BatteryLevel")->signal.connect([&](mz::AnyValue v) { onSignal(v); });
  battery->emit("levelChanged", RXValue(7));
  EXPECT_EQ("7 MicroEvent",
            memory->getData("BatteryLevel").toString() + " " + memory->getStrDataType("BatteryLevel"));
  EXPECT_EQ(0u, memory->getEventHistory("BatteryLevel").getSize()) << "micro-event raises keep no history";
  EXPECT_EQ((Names{"7", "7"}), onSignal.take());
  drain(memory, r);
  EXPECT_EQ((Names{"BatteryLevel=7", "BatteryLevel=7"}), r->keyValues());

  // A mapped service that registers later is connected then, and again each time it registers.
  unsigned int ghostId = 0;
  auto ghost = registerFakeService(broker, "Ghost", {"ghostSig"}, &ghostId);
  EXPECT_EQ(1u, ghost->connections("ghostSig"));
  EXPECT_EQ("Event", memory->getStrDataType("GhostEvent"));
  ASSERT_TRUE(broker->session()->unregisterService(ghostId));
  broker->session()->registerService("Ghost", mz::AnyObject(ghost));
  EXPECT_EQ(2u, ghost->connections("ghostSig"));
  ghost->emit("ghostSig", RXValue("boo"));
  EXPECT_EQ("\"boo\"", memory->getData("GhostEvent").toString());
}

TEST_F(MapFileTest, MissingMapFileOnlyWarns) {
  LogCapture log;
  createMemory();
  EXPECT_TRUE(contains(log.items(), "rxmemory|2|Can't not open file rxmemory_map_signal_event.txt"));
  EXPECT_EQ((Names{RX::Memory::keyAddedKey, RX::Memory::keyRemovedKey, RX::Memory::keyTypeChanged}),
            memory->getEventList());
  EXPECT_EQ(0u, registerFakeService(broker, "Battery", {"levelChanged"})->connections("levelChanged"));
}

TEST_F(MapFileTest, ModuleGoneLeavesNothingConnected) {
  auto battery = registerFakeService(broker, "Battery", {"levelChanged"});
  const std::size_t listenersBefore = registrationListeners();
  createMemory("Battery.levelChanged:BatteryLevel\nLater.laterSig:LaterEvent\n");
  ASSERT_EQ(listenersBefore + 1, registrationListeners());
  ASSERT_EQ(2u, battery->connections("levelChanged"));
  boost::weak_ptr<RX::RXMemory> weak = memory;
  memory->exit();
  memory.reset();
  ASSERT_TRUE(weak.expired()) << "something still holds the module";
  EXPECT_EQ(listenersBefore, registrationListeners());
  // Neither a registration nor an emission reaches the destroyed module (the
  // mapped connections themselves stay).
  EXPECT_EQ(0u, registerFakeService(broker, "Later", {"laterSig"})->connections("laterSig"));
  EXPECT_NO_THROW(battery->emit("levelChanged", RXValue(1)));
  EXPECT_EQ(2u, battery->connections("levelChanged"));
}

class MappingTest : public MemoryTest {};

TEST_F(MappingTest, MappingsAddedAtRunTime) {
  auto r = startModule<Recorder>(broker, "R");
  memory->subscribeToEvent(RX::Memory::keyAddedKey, "R", "onOther");
  // Not registered yet: kept for later, nothing declared.
  memory->addMapping("Later", "sig", "LaterEvent");
  EXPECT_FALSE(contains(memory->getEventList(), "LaterEvent"));
  unsigned int laterId = 0;
  auto later = registerFakeService(broker, "Later", {"sig"}, &laterId);
  EXPECT_EQ(1u, later->connections("sig"));
  EXPECT_EQ("Event", memory->getStrDataType("LaterEvent"));
  memory->subscribeToEvent("LaterEvent", "R", "onEvent");
  later->emit("sig", RXValue(3));
  // A second event for the pair: stored for the next registration, while the
  // first connection keeps raising the first event.
  memory->addMapping("Later", "sig", "LaterEvent2");
  EXPECT_EQ(2u, later->connections("sig"));
  memory->subscribeToMicroEvent("LaterEvent2", "R", "", "onEvent");
  later->emit("sig", RXValue(4));
  ASSERT_TRUE(broker->session()->unregisterService(laterId));
  broker->session()->registerService("Later", mz::AnyObject(later));
  EXPECT_EQ(3u, later->connections("sig"));
  later->emit("sig", RXValue(5));
  // A value with no RXValue form is not raised.
  EXPECT_NO_THROW(later->emit("sig", mz::AnyValue::fromOther(42L)));
  EXPECT_EQ("5 5",
            memory->getData("LaterEvent").toString() + " " + memory->getData("LaterEvent2").toString());

  // A registered service without the signal, and an unmapped service.
  auto other = registerFakeService(broker, "NoSig", {"other"});
  memory->addMapping("NoSig", "sig", "NoSigEvent");
  EXPECT_EQ(0u, other->connections("other"));
  const Names eventsBefore = memory->getEventList();
  registerFakeService(broker, "Unmapped", {"sig"});
  EXPECT_EQ(eventsBefore, memory->getEventList());
  EXPECT_FALSE(contains(eventsBefore, "NoSigEvent"));
  // The map form, declared in ascending order of signal name.
  auto multi = registerFakeService(broker, "Multi", {"a", "b"});
  memory->addMapping("Multi", std::map<std::string, std::string>{{"b", "MultiB"}, {"a", "MultiA"}});
  memory->addMapping("Multi", std::map<std::string, std::string>{});
  EXPECT_EQ(2u, multi->connections("a") + multi->connections("b"));

  drain(r);
  Names raised, added;
  for (const Notification& n : r->items()) {
    if (n.key.rfind("LaterEvent", 0) == 0) raised.push_back(n.key + "=" + n.value.toString(0));
    if (n.key == RX::Memory::keyAddedKey && n.value.toString(0).rfind("Multi", 0) == 0)
      added.push_back(n.value.toString(0));
  }
  EXPECT_EQ((Names{"LaterEvent=3", "LaterEvent=4", "LaterEvent2=4", "LaterEvent=5", "LaterEvent2=5",
                   "LaterEvent2=5"}),
            raised);
  EXPECT_EQ((Names{"MultiA", "MultiB"}), added);
}

// A session whose look-up hands out an empty object for "Null".
class NullingSession : public mz::Session {
 public:
  mz::Future<mz::AnyObject> service(const std::string& name, const std::string& protocol) override {
    if (name == "Null") return mz::makeFutureValue(mz::AnyObject());
    return mz::Session::service(name, protocol);
  }
};

// A service whose signals cannot be connected to.
class RefusingService : public FakeService {
 public:
  RefusingService() : FakeService({"sig"}) {}
  mz::Future<mz::SignalLink> metaConnect(const std::string&, mz::SignalSubscriber,
                                         mz::MetaCallType) override {
    return mz::makeFutureError<mz::SignalLink>("connection refused");
  }
};

TEST(MappingFailureTest, EmptyObjectsAndRefusedConnectionsReachTheCaller) {
  auto broker =
      RX::RXBroker::create("nulling-broker", RX::RXBroker::Options(), std::make_shared<NullingSession>());
  ASSERT_EQ(0, _createModule(broker));
  auto memory = boost::dynamic_pointer_cast<RX::RXMemory>(broker->getModule("RXMemory"));
  ASSERT_TRUE(memory);
  EXPECT_EQ("std::exception|This object is null", errorOf([&] { memory->addMapping("Null", "sig", "E"); }));
  EXPECT_EQ("std::exception|This object is null", errorOf([&] {
              memory->addMapping("Null", std::map<std::string, std::string>{{"sig", "E"}});
            }));
  EXPECT_FALSE(contains(memory->getEventList(), "E"));
  // The registration's failure stays in the signal's delivery.
  EXPECT_NO_THROW(
      broker->session()->registerService("Null", mz::AnyObject(std::make_shared<FakeService>(Names{"sig"}))));
  broker->session()->registerService("Refusing", mz::AnyObject(std::make_shared<RefusingService>()));
  try {
    memory->addMapping("Refusing", "sig", "Refused");
    ADD_FAILURE() << "a refused connection went unreported";
  } catch (const mz::FutureError& e) {
    EXPECT_STREQ("connection refused", e.what());
  }
  EXPECT_TRUE(contains(memory->getEventList(), "Refused")) << "the event is declared before connecting";
  memory.reset();
  broker->shutdown();
}

}  // namespace
}  // namespace rxtest
