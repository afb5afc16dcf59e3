// Service signals mapped onto events: the map file, run-time mappings, re-registrations, teardown.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "memory_test_util.h"

namespace {

using SignalEvents = std::map<std::string, std::string>;

class MapFileTest : public MemoryTest {
 protected:
  void SetUp() override {
    startBroker();
    dir = std::filesystem::temp_directory_path() / ("rxmemory-map-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir / "tavro");
    ::setenv("RX_DATA_PATH", dir.c_str(), 1);
  }
  void TearDown() override {
    ::unsetenv("RX_DATA_PATH");
    MemoryTest::TearDown();
    std::filesystem::remove_all(dir);
  }
  void startMemoryWithMap(const std::string& map) {
    if (!map.empty()) std::ofstream(dir / "tavro" / "rxmemory_map_signal_event.txt", std::ios::binary) << map;
    startMemory();
  }
  std::size_t registrationListeners() const { return broker->session()->serviceRegistered.subscriberCount(); }

  std::filesystem::path dir;
};

TEST_F(MapFileTest, MissingFileOnlyWarnsAndLinesAreParsedOneByOne) {
  LogLines log("rxmemory");
  startMemoryWithMap("");
  EXPECT_EQ("warning: Can't not open file rxmemory_map_signal_event.txt", log.items().at(0));
  EXPECT_EQ((Names{"RXMemory/KeyAdded", "RXMemory/KeyRemoved", "RXMemory/KeyTypeChanged"}),
            memory->getEventList());
  EXPECT_EQ(0u, fakeService("Battery", {"levelChanged"})->connections("levelChanged"));

  auto parse = [&](const std::string& line) {
    std::string service, signal, event;
    if (!memory->_parseEventFromLine(line, service, signal, event)) return std::string("rejected");
    return service + "|" + signal + "|" + event;
  };
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

TEST_F(MapFileTest, ServicesPresentAtLoadAreConnectedTwiceUntilTheModuleIsGone) {
  // 511 characters make one read; the rest of the line is a line of its own.
  const std::string longEvent(511 - std::string("Long.signalChanged:").size(), 'E');
  std::map<std::string, std::shared_ptr<FakeService>> services;
  for (const char* name : {"Battery", "AudioMixer", "Long", "Split"})
    services[name] = fakeService(name, {"signalChanged"});
  auto localization = fakeService("Localization", {"up"});
  const std::size_t listenersBefore = registrationListeners();
  startMemoryWithMap(
      "# services of the test robot\nBattery.signalChanged: BatteryLevel # from the battery service\n"
      "Audio Mixer . signal Changed : Mixer/Volume\r\n\nLocalization.up:Moved\nBattery.missingSignal:Never\n"
      "Battery.signalChanged:\nGhost.ghostSignal:GhostEvent\nLong.signalChanged:" +
      longEvent + S(70, ' ') + "Split.signalChanged:Tail\n");
  EXPECT_EQ(listenersBefore + 1, registrationListeners());
  // Once when the file's line is read, once more when the map is replayed.
  for (const auto& [name, service] : services) EXPECT_EQ(2u, service->connections("signalChanged")) << name;
  EXPECT_EQ(0u, localization->connections("up"));
  const Names events = memory->getEventList();
  for (const S& e : {S("BatteryLevel"), S("Mixer/Volume"), longEvent, S("Tail")})
    EXPECT_TRUE(contains(events, e)) << e << " was not declared";
  for (const char* e : {"Moved", "Never", "GhostEvent"}) EXPECT_FALSE(contains(events, e)) << e;

  // Each emission is raised once per connection, the micro-event way.
  SignalLog onSignal(memory->subscriber("BatteryLevel"));
  services["Battery"]->emit("signalChanged", RXValue(7));
  EXPECT_EQ("7 MicroEvent", values({"BatteryLevel"}) + " " + types({"BatteryLevel"}));
  EXPECT_EQ(0u, memory->getEventHistory("BatteryLevel").getSize()) << "micro-event raises keep no history";
  EXPECT_EQ((Names{"7", "7"}), onSignal.take());

  // Once the module is gone, no registration nor emission reaches it (MappingTest covers registrations).
  boost::weak_ptr<RX::RXMemory> weak = memory;
  memory->exit();
  memory.reset();
  ASSERT_TRUE(weak.expired()) << "something still holds the module";
  EXPECT_EQ(listenersBefore, registrationListeners());
  EXPECT_EQ(0u, fakeService("Ghost", {"ghostSignal"})->connections("ghostSignal"));
  EXPECT_NO_THROW(services["Battery"]->emit("signalChanged", RXValue(1)));
}

class NullingSession : public mz::Session {
 public:
  mz::Future<mz::AnyObject> service(const std::string& name, const std::string& protocol) override {
    if (name == "Null") return mz::makeFutureValue(mz::AnyObject());
    return mz::Session::service(name, protocol);
  }
};

class MappingTest : public MemoryTest {
  void SetUp() override {
    startBroker(std::make_shared<NullingSession>());
    startMemory();
  }
};

TEST_F(MappingTest, MappingsAddedAtRunTime) {
  auto r = startModule<Recorder>(broker, "R");
  memory->subscribeToEvent(RX::Memory::keyAddedKey, "R", "onOther");
  memory->addMapping("Later", "sig", "LaterEvent");
  EXPECT_FALSE(contains(memory->getEventList(), "LaterEvent")) << "not registered yet: kept for later";
  auto later = std::make_shared<FakeService>(Names{"sig"});
  const unsigned int laterId = broker->session()->registerService("Later", mz::AnyObject(later));
  EXPECT_EQ(1u, later->connections("sig"));
  EXPECT_EQ("Event", types({"LaterEvent"}));
  memory->subscribeToEvent("LaterEvent", "R", "onEvent");
  later->emit("sig", RXValue(3));
  // A second event for the pair waits for the next registration; the first connection stays.
  memory->addMapping("Later", "sig", "LaterEvent2");
  EXPECT_EQ(2u, later->connections("sig"));
  memory->subscribeToMicroEvent("LaterEvent2", "R", "", "onEvent");
  later->emit("sig", RXValue(4));
  ASSERT_TRUE(broker->session()->unregisterService(laterId));
  broker->session()->registerService("Later", mz::AnyObject(later));
  EXPECT_EQ(3u, later->connections("sig"));
  later->emit("sig", RXValue(5));
  EXPECT_NO_THROW(later->emit("sig", mz::AnyValue::fromOther(42L)));  // no RXValue form: not raised
  EXPECT_EQ("5 5", values({"LaterEvent", "LaterEvent2"}));

  // A registered service without the signal, and an unmapped service.
  auto other = fakeService("NoSig", {"other"});
  memory->addMapping("NoSig", "sig", "NoSigEvent");
  EXPECT_EQ(0u, other->connections("other"));
  const Names eventsBefore = memory->getEventList();
  fakeService("Unmapped", {"sig"});
  EXPECT_EQ(eventsBefore, memory->getEventList());
  EXPECT_FALSE(contains(eventsBefore, "NoSigEvent"));
  // The map form, declared in ascending order of signal name.
  auto multi = fakeService("Multi", {"a", "b"});
  memory->addMapping("Multi", SignalEvents{{"b", "MultiB"}, {"a", "MultiA"}});
  memory->addMapping("Multi", SignalEvents{});
  EXPECT_EQ(2u, multi->connections("a") + multi->connections("b"));

  drain(r);
  EXPECT_EQ((Names{"RXMemory/KeyAdded=LaterEvent", "LaterEvent=3", "RXMemory/KeyAdded=LaterEvent2",
                   "LaterEvent=4", "LaterEvent2=4", "LaterEvent=5", "LaterEvent2=5", "LaterEvent2=5",
                   "RXMemory/KeyAdded=MultiA", "RXMemory/KeyAdded=MultiB"}),
            r->keyValues());
}

class RefusingService : public FakeService {
 public:
  RefusingService() : FakeService({"sig"}) {}
  mz::Future<mz::SignalLink> metaConnect(const std::string&, mz::SignalSubscriber,
                                         mz::MetaCallType) override {
    return mz::makeFutureError<mz::SignalLink>("connection refused");
  }
};

TEST_F(MappingTest, EmptyObjectsAndRefusedConnectionsReachTheCaller) {
  EXPECT_EQ("std::exception|This object is null", errorOf([&] { memory->addMapping("Null", "sig", "E"); }));
  EXPECT_EQ("std::exception|This object is null", errorOf([&] {
              memory->addMapping("Null", SignalEvents{{"sig", "E"}});
            }));
  EXPECT_FALSE(contains(memory->getEventList(), "E"));
  // The registration's failure stays in the signal's delivery.
  EXPECT_NO_THROW(
      broker->session()->registerService("Null", mz::AnyObject(std::make_shared<FakeService>(Names{"sig"}))));
  broker->session()->registerService("Refusing", mz::AnyObject(std::make_shared<RefusingService>()));
  EXPECT_EQ("std::exception|connection refused",
            errorOf([&] { memory->addMapping("Refusing", "sig", "Refused"); }));
  EXPECT_TRUE(contains(memory->getEventList(), "Refused")) << "the event is declared before connecting";
}

}  // namespace
