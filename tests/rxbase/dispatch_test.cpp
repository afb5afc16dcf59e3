// Notifications (subscription records, the callback contract, order, module churn, key signal objects),
// service signals mapped onto events (the map file, run-time mappings, re-registrations, teardown), and many
// threads at once on keys, the extractor table, a cell's lazy parts and the locks underneath.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <shared_mutex>

#include "memory_test_util.h"
#include "memorylocks.h"

namespace {

class DispatchTest : public MemoryTest {
 protected:
  struct Verbose {  // the cells say whom they notify and drop, for this test only
    Verbose() { RX::log::setLevel("RXMemory", RX::log::Verbose); }
    ~Verbose() { RX::log::setLevel("RXMemory", RX::log::kDefaultThreshold); }
  } verbose;
  Names cellLines(const std::string& prefix) const {  // the cells' lines that start with prefix, without it
    Names out;
    for (const std::string& line : log.items())
      if (line.rfind("verbose: " + prefix, 0) == 0) out.push_back(line.substr(9 + prefix.size()));
    return out;
  }
  LogLines log{"RXMemory"};
};

TEST_F(DispatchTest, SubscribingMakesMissingKeysAndNeverRetypes) {
  memory->subscribeToEvent("E", "Foo", "onEvent");
  memory->subscribeToMicroEvent("ME", "Foo", "", "onEvent");
  auto signalObject = memory->subscriber("K");
  EXPECT_EQ("Event MicroEvent Event", types({"E", "ME", "K"}));
  EXPECT_TRUE(contains(memory->getEventList(), "K"));
  EXPECT_EQ(signalObject, memory->subscriber("K")) << "one signal object per key";
  memory->insertData("d", 1);
  memory->subscribeToEvent("d", "Foo", "onEvent");
  memory->subscribeToMicroEvent("d", "Bar", "", "onEvent");
  EXPECT_TRUE(memory->subscriber("d"));
  EXPECT_EQ("Data", types({"d"}));
  // One record per module, listed byte-wise.
  for (const char* m : {"a", "C", "B", "a"}) memory->subscribeToMicroEvent("d", m, "", "onEvent");
  EXPECT_EQ((Names{"B", "Bar", "C", "Foo", "a"}), memory->getDataSubscriber("d"));
  memory->unsubscribeToMicroEvent("d", "Foo");
  EXPECT_EQ((Names{"B", "Bar", "C", "a"}), memory->getDataSubscriber("d"));
  memory->removeEvent("E");
  memory->declareEvent("E");
  EXPECT_EQ(Names{}, memory->getDataSubscriber("E")) << "a key removed and declared again";
}

TEST_F(DispatchTest, EveryRaiseCallsBackWithKeyValueAndMessage) {
  auto r = startModule<Recorder>(broker, "R");
  auto a = startModule<Recorder>(broker, "a");
  auto c = startModule<Recorder>(broker, "C");
  memory->subscribeToMicroEvent("m", "R", "micro message", "onEvent");
  for (const char* m : {"a", "R", "C"}) memory->subscribeToEvent("e", m, "onOther");
  const RXValue payload = list({RXValue(1), RXValue("a")});
  memory->raiseMicroEvent("m", payload);
  memory->raiseMicroEvent("m", payload);
  memory->raiseEvent("e", RXValue(2));
  memory->raiseEvent("e", RXValue(2));
  memory->insertData("e", 3);  // plain insertion notifies nobody
  const Names notified = cellLines("notifying module: ");
  ASSERT_EQ(8u, notified.size());
  EXPECT_EQ("C for datachange for key: e", notified[2]);
  EXPECT_EQ("C R a C R a", join(Names(notified.begin() + 2, notified.end()),
                                [](const S& line) { return line.substr(0, line.find(' ')); }));
  drain(r);
  ASSERT_EQ((Names{"m=[1, a]", "m=[1, a]", "e=2", "e=2"}), r->keyValues());
  auto got = r->items();
  EXPECT_EQ("onEvent m [1, \"a\"] \"micro message\"", got[0].str());
  EXPECT_EQ("onOther e 2 \"\"", got[2].str()) << "the 3-argument subscribeToEvent sends an empty message";
}

// A failed look-up keeps the record (the module may come later); a failed post to a module found before drops
// it; a re-subscription forgets the cached proxy and reaches a new module of the name.
TEST_F(DispatchTest, LateSubscribersAreKeptGoneOnesDroppedResubscribersReached) {
  auto alive = startModule<Recorder>(broker, "Alive");
  auto dead = startModule<Recorder>(broker, "Dead");
  auto renewed = startModule<Recorder>(broker, "Renewed");
  for (const char* m : {"Dead", "Alive", "Late", "Renewed"}) memory->subscribeToEvent("E", m, "onEvent");
  memory->raiseEvent("E", RXValue(1));  // caches the proxies of Alive, Dead and Renewed
  EXPECT_EQ(1u, cellLines("Late not found, removing module reference:").size());
  EXPECT_EQ((Names{"Alive", "Dead", "Late", "Renewed"}), memory->getDataSubscriber("E"));
  for (auto& gone : {dead, renewed}) {
    drain(gone);
    gone->exit();
  }
  auto late = startModule<Recorder>(broker, "Late");
  auto second = startModule<Recorder>(broker, "Renewed");
  memory->subscribeToEvent("E", "Renewed", "again", "onOther");
  memory->raiseEvent("E", RXValue(2));
  EXPECT_EQ(1u, cellLines("Dead not found, removing module reference:").size());
  EXPECT_EQ((Names{"Alive", "Late", "Renewed"}), memory->getDataSubscriber("E"));
  memory->raiseEvent("E", RXValue(3));
  for (auto& r : {alive, late, second}) drain(r);
  EXPECT_EQ((Names{"E=1", "E=2", "E=3"}), alive->keyValues());
  EXPECT_EQ((Names{"E=1"}), dead->keyValues());
  EXPECT_EQ((Names{"E=2", "E=3"}), late->keyValues());
  EXPECT_EQ((Names{"E=2", "E=3"}), second->keyValues());
  EXPECT_EQ("onOther E 2 \"again\"", second->items()[0].str());
}

using SignalTest = MemoryTest;

TEST_F(SignalTest, RaisesAreEmittedAndEmissionsRaiseHoweverTheKeyWasMade) {
  auto sub = memory->subscriber("K");
  SignalLog got(sub);
  memory->raiseEvent("K", RXValue(5));
  memory->raiseMicroEvent("K", RXValue(6));
  memory->insertData("K", 7);  // insertions are not emitted
  EXPECT_EQ((Names{"5", "6"}), got.take());
  const std::size_t history = memory->getEventHistory("K").getSize();

  sub->signal(mz::AnyValue(RXValue(8)));
  EXPECT_EQ("8", values({"K"}));
  EXPECT_EQ((Names{"8"}), got.take()) << "delivered back once";
  sub->signal.trigger({});
  EXPECT_EQ("invalid", values({"K"}));
  EXPECT_EQ((Names{"invalid"}), got.take());
  const mz::AnyValue one(RXValue(1));
  EXPECT_EQ("std::exception|Invalid number of arguments", errorOf([&] { sub->signal.trigger({one, one}); }));
  EXPECT_THROW(sub->signal.trigger({mz::AnyValue::fromOther(42L)}), mz::ConversionError);
  EXPECT_EQ("invalid", values({"K"})) << "failed emissions raise nothing";
  EXPECT_EQ(Names{}, got.take());
  EXPECT_EQ(history + 1, memory->getEventHistory("K").getSize()) << "the invalid raise stores no history";

  // A key's signal object is made when first asked for, yet must act as if the key had it from birth.
  const std::pair<std::string, std::function<void(const std::string&)>> histories[] = {
      {"plain data", [&](const std::string& k) { memory->insertData(k, 1); }},
      {"described", [&](const std::string& k) { memory->insertData(k, 1), memory->setDescription(k, "d"); }},
      {"subscribed", [&](const std::string& k) { memory->subscribeToMicroEvent(k, "R", "", "onEvent"); }},
      {"raised", [&](const std::string& k) { memory->raiseEvent(k, RXValue(1)); }},
  };
  for (const auto& [name, history] : histories) {
    SCOPED_TRACE(name);
    history("used/" + name);
    auto sub = memory->subscriber("used/" + name);
    SignalLog got(sub);
    memory->raiseMicroEvent("used/" + name, RXValue(2));
    EXPECT_EQ((Names{"2"}), got.take());
    EXPECT_EQ(sub, memory->subscriber("used/" + name));
  }
}

TEST_F(SignalTest, FirstRequestsRacingWithRaisesShareOneObject) {
  constexpr int kKeys = 200;
  std::vector<boost::shared_ptr<RXMemorySubscriber>> seen[3];
  auto key = [](int i) { return "race/" + std::to_string(i); };
  runTogether(kKeys, {[&](int i) { seen[0].push_back(memory->subscriber(key(i))); },
                      [&](int i) { seen[1].push_back(memory->subscriber(key(i))); },
                      [&](int i) { seen[2].push_back(memory->subscriber(key(i))); },
                      [&](int i) { memory->raiseMicroEvent(key(i), RXValue(i)); }});
  for (int i = 0; i < kKeys; ++i) {
    ASSERT_TRUE(seen[0][i] == seen[1][i] && seen[0][i] == seen[2][i]) << key(i);
    SignalLog got(seen[0][i]);
    memory->raiseMicroEvent(key(i), RXValue(-i));
    EXPECT_EQ((Names{std::to_string(-i)}), got.take()) << key(i);
  }
}

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

class RefusingService : public FakeService {
 public:
  RefusingService() : FakeService({"sig"}) {}
  mz::Future<mz::SignalLink> metaConnect(const std::string&, mz::SignalSubscriber,
                                         mz::MetaCallType) override {
    return mz::makeFutureError<mz::SignalLink>("connection refused");
  }
};

TEST_F(MappingTest, MappingsAddedAtRunTimeAndTheirFailures) {
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

using ConcurrencyTest = MemoryTest;

TEST_F(ConcurrencyTest, HammeringLosesNothingAndDoesNotDeadlock) {
  constexpr int kRaisers = 4, kRaisesEach = 400, kKeysEach = 300;
  auto steady = startModule<Recorder>(broker, "Steady");
  auto watcher = startModule<Recorder>(broker, "Watcher");
  auto flicker = startModule<Recorder>(broker, "Flicker");
  memory->subscribeToEvent("hot", "Steady", "onEvent");
  memory->subscribeToEvent(RX::Memory::keyAddedKey, "Watcher", "onEvent");
  memory->subscribeToEvent(RX::Memory::keyRemovedKey, "Watcher", "onOther");
  std::atomic<int> emitted{0};
  memory->subscriber("hot")->signal.connect([&](mz::AnyValue) { ++emitted; });
  auto key = [](int t, int i) { return "t" + std::to_string(t) + "/k" + std::to_string(i); };

  std::vector<std::function<void(int)>> jobs;
  for (int t = 0; t < kRaisers; ++t) {  // raisers of the hot key, and inserters of keys of their own
    jobs.push_back([&, t](int) {
      for (int i = 0; i < kRaisesEach; ++i) memory->raiseEvent("hot", RXValue(t * kRaisesEach + i));
    });
    jobs.push_back([&, t](int) {
      for (int i = 0; i < kKeysEach; ++i) {
        memory->insertData(key(t, i), i);
        memory->raiseMicroEvent(key(t, i) + "/m", RXValue(i));
        memory->removeData(key(t, i) + "/m");
      }
    });
  }
  jobs.push_back([&](int) {  // subscribes and unsubscribes on the hot key, and reads the whole store
    for (int i = 0; i < 100; ++i) {
      memory->subscribeToEvent("hot", "Flicker", "onEvent");
      memory->unsubscribeToEvent("hot", "Flicker");
      (void)memory->getListTyped(RX::Data);
      (void)memory->getDescriptionList({});
      (void)memory->getDataSubscriber("hot");
      (void)memory->getEventHistory("hot");
    }
  });
  runTogether(1, jobs);

  ASSERT_TRUE(steady->waitFor(kRaisers * kRaisesEach)) << steady->size() << " of " << kRaisers * kRaisesEach;
  std::set<int> values;
  for (const auto& n : steady->items()) values.insert(n.value.toInt());
  EXPECT_EQ(std::size_t(kRaisers * kRaisesEach), values.size());
  EXPECT_EQ(kRaisers * kRaisesEach, emitted.load());
  EXPECT_EQ(50u, memory->getEventHistory("hot").getSize());
  EXPECT_EQ(Names{"Steady"}, memory->getDataSubscriber("hot"));

  drain(watcher);
  const Names reports = watcher->keyValues();
  EXPECT_EQ(std::size_t(kRaisers * kKeysEach * 3), reports.size());
  EXPECT_EQ(reports.size(), std::set<std::string>(reports.begin(), reports.end()).size())
      << "a report came twice";
  EXPECT_EQ(kKeysEach - 1, memory->getData(key(kRaisers - 1, kKeysEach - 1)).toInt());
}

// First subscriptions add extractor table entries while removals erase and readers walk it: before its
// writers took its lock exclusively, TSan reported a race here and walks hit erased nodes.
TEST_F(ConcurrencyTest, RacingFirstUsesOfTheExtractorTableAndOfCellsAllLand) {
  constexpr int kNames = 300;
  auto subscriber = [&](const std::string& module) {  // the same names: each first look-up inserts
    return [&, module](int i) { memory->subscribeToEvent("u/" + std::to_string(i), module, "onEvent"); };
  };
  auto remover = [&](const std::string& prefix) {
    return [&, prefix](int i) {
      memory->declareEvent(prefix + std::to_string(i), "X");
      memory->removeEvent(prefix + std::to_string(i));
    };
  };
  auto reader = [&](int) {
    (void)memory->getExtractorEvent("");
    (void)memory->getEventList();
  };
  runTogether(kNames, {subscriber("M0"), subscriber("M1"), subscriber("M2"), remover("r0/"), remover("r1/"),
                       reader, reader});

  EXPECT_EQ(std::size_t(kNames), memory->getExtractorEvent("").size()) << "each first subscription's entry";
  EXPECT_EQ(Names{}, memory->getExtractorEvent("X")) << "each removal erases its own";
  const Names events = memory->getEventList();
  EXPECT_TRUE(std::is_sorted(events.begin(), events.end()));
  EXPECT_EQ(events.end(), std::adjacent_find(events.begin(), events.end())) << "an event is listed twice";

  // A cell's subscriptions, description and history are made on first use, each under its own lock.
  constexpr int kKeys = 1000;
  auto recorder = startModule<Recorder>(broker, "Rec");
  auto key = [](int i) { return "fresh/" + std::to_string(i); };
  for (int i = 0; i < kKeys; ++i) memory->insertData(key(i), i);
  runTogether(kKeys, {[&](int i) { memory->setDescription(key(i), "about " + key(i)); },
                      [&](int i) { memory->subscribeToMicroEvent(key(i), "Rec", "", "onEvent"); },
                      [&](int i) { memory->raiseEvent(key(i), RXValue(i)); }});
  for (int i = 0; i < kKeys; ++i) {
    EXPECT_EQ("[invalid, [\"" + key(i) + "\", \"event\", \"about " + key(i) + "\"]]",
              memory->getDescriptionList({key(i)}).toString());
    EXPECT_EQ(Names{"Rec"}, memory->getDataSubscriber(key(i))) << key(i);
    const RXValue history = memory->getEventHistory(key(i));
    ASSERT_EQ(1u, history.getSize()) << key(i);
    EXPECT_EQ(RXValue(i), history[0][0]) << key(i);
  }
  drain(recorder);
}

// Whether another thread may take m now (shared or not); it must not see the caller's levels.
template <typename M>
bool freeElsewhere(M& m, bool shared = false) {
  return std::async(std::launch::async,
                    [&] {
                      if constexpr (std::is_same_v<M, RX::SharedMutex>)
                        if (shared) return std::shared_lock<M>(m, std::try_to_lock).owns_lock();
                      return std::unique_lock<M>(m, std::try_to_lock).owns_lock();
                    })
      .get();
}

TEST(MemoryLocksTest, RecursiveHolderReentersSharedWritersExcludeAndAreNotStarved) {
  RX::CompactRecursiveMutex r;
  r.lock();
  ASSERT_TRUE(r.try_lock()) << "the holder takes it again";
  r.lock();
  EXPECT_FALSE(freeElsewhere(r)) << "held three levels deep";
  r.unlock();
  r.unlock();
  EXPECT_FALSE(freeElsewhere(r)) << "one level is still held";
  r.unlock();
  EXPECT_TRUE(freeElsewhere(r)) << "every level released";

  RX::SharedMutex m;
  m.lock();
  EXPECT_FALSE(freeElsewhere(m, true)) << "a reader beside a writer";
  EXPECT_FALSE(freeElsewhere(m)) << "two writers";
  m.unlock();
  m.lock_shared();
  EXPECT_TRUE(freeElsewhere(m, true)) << "readers share";
  EXPECT_FALSE(freeElsewhere(m)) << "a writer beside a reader";
  // Once a writer waits for the reader, new readers are refused however long the first one stays.
  std::atomic<bool> wrote{false};
  std::future<void> writer = std::async(std::launch::async, [&] {
    std::lock_guard<RX::SharedMutex> lock(m);
    wrote = true;
  });
  EXPECT_TRUE(testsupport::pollUntil([&] { return !std::shared_lock<RX::SharedMutex>(m, std::try_to_lock); }))
      << "new readers kept overtaking the waiting writer";
  EXPECT_FALSE(wrote);
  m.unlock_shared();
  ASSERT_EQ(std::future_status::ready, writer.wait_for(testsupport::kWait))
      << "the writer never got the lock";
}

}  // namespace
