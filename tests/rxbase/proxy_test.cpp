// Reaching the memory through the framework: the generic proxy and the
// session's service object by method name, and the specialized RXMemoryProxy.
#include <future>

#include "memory_test_util.h"
#include "rx/rxmemoryproxy.h"
#include "rx/rxproxy.h"

using RX::RXValue;
using Names = std::vector<std::string>;

namespace {

class ProxyTest : public rxtest::MemoryTest {
 protected:
  bool contains(const Names& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
  }
};

RXValue pair(const std::string& key, const RXValue& value) {
  RXValue p = RXValue::array();
  p.arrayPush(RXValue(key));
  p.arrayPush(value);
  return p;
}

TEST_F(ProxyTest, GenericProxyReachesEachOverload) {
  boost::shared_ptr<RX::RXProxy> p = broker->getProxy("RXMemory", 0);
  const std::string k("k");

  // insertData: four overloads of two parameters, told apart by kind.
  const unsigned int byInt = p->resolve("insertData", {k, 1});
  const unsigned int byFloat = p->resolve("insertData", {k, 1.5f});
  const unsigned int byString = p->resolve("insertData", {k, k});
  const unsigned int byValue = p->resolve("insertData", {k, RXValue::array()});
  EXPECT_EQ((std::vector<unsigned int>{17, 18, 19, 20}),
            (std::vector<unsigned int>{byInt, byFloat, byString, byValue}));
  p->call<void>("insertData", std::string("i"), 5);
  p->call<void>("insertData", std::string("f"), 2.5f);
  p->call<void>("insertData", std::string("s"), std::string("text"));
  p->call<void>("insertData", std::string("v"), pair("x", RXValue(1)));
  EXPECT_EQ("5 2.5 \"text\" [\"x\", 1]",
            memory->getData("i").toString() + " " + memory->getData("f").toString() + " " +
                memory->getData("s").toString() + " " + memory->getData("v").toString());
  EXPECT_TRUE(memory->getData("i").isInt());
  EXPECT_TRUE(memory->getData("f").isFloat());
  EXPECT_EQ("Data", memory->getStrDataType("v"));

  // getData: the second argument is accepted and ignored.
  EXPECT_EQ(2u, p->resolve("getData", {k}));
  EXPECT_EQ(3u, p->resolve("getData", {k, 0}));
  EXPECT_EQ(5, p->call<RXValue>("getData", std::string("i")).toInt());
  EXPECT_EQ(5, p->call<RXValue>("getData", std::string("i"), 99).toInt());
  EXPECT_EQ("getData|Data not found nope",
            rxtest::errorOf([&] { p->call<RXValue>("getData", std::string("nope"), 1); }));

  // declareEvent with and without an extractor.
  p->call<void>("declareEvent", std::string("E1"));
  p->call<void>("declareEvent", std::string("E2"), std::string("Gen"));
  EXPECT_EQ("Event Event", memory->getStrDataType("E1") + " " + memory->getStrDataType("E2"));
  EXPECT_EQ(Names{"E2"}, memory->getExtractorEvent("Gen"));
  EXPECT_TRUE(contains(memory->getExtractorEvent("Unknown"), "E1"));

  // subscribeToEvent: the three-argument form sends an empty message.
  auto r = rxtest::startModule<rxtest::Recorder>(broker, "R");
  auto q = rxtest::startModule<rxtest::Recorder>(broker, "Q");
  p->call<void>("subscribeToEvent", std::string("E1"), std::string("R"), std::string("onEvent"));
  p->call<void>("subscribeToEvent", std::string("E1"), std::string("Q"), std::string("hello"),
                std::string("onOther"));
  memory->raiseEvent("E1", RXValue(3));
  drain(r);
  drain(q);
  ASSERT_EQ(1u, r->count("E1"));
  ASSERT_EQ(1u, q->count("E1"));
  EXPECT_EQ("onEvent \"\"", r->received()[0].method + " " + r->received()[0].message.toString());
  EXPECT_EQ("onOther \"hello\"", q->received()[0].method + " " + q->received()[0].message.toString());
}

TEST_F(ProxyTest, EveryPublishedMethodIsCallableByName) {
  boost::shared_ptr<RX::RXProxy> p = broker->getProxy("RXMemory", 0);
  auto r = rxtest::startModule<rxtest::Recorder>(broker, "R");
  auto gen = rxtest::startModule<rxtest::Extractor>(broker, "Gen", true);
  using S = std::string;

  p->call<void>("declareEvent", S("E"));
  p->call<void>("declareEvent", S("G"), S("Gen"));
  p->call<void>("insertData", S("q7"), 1);
  p->call<void>("insertData", S("q7"), 1.0f);
  p->call<void>("insertData", S("q7"), S("one"));
  p->call<void>("insertData", S("q7"), RXValue(2));
  EXPECT_EQ(2, p->call<RXValue>("getData", S("q7")).toInt());
  EXPECT_EQ(2, p->call<RXValue>("getData", S("q7"), 0).toInt());

  mz::AnyObject sub = p->call<mz::AnyObject>("subscriber", S("E"));
  EXPECT_GE(sub.signalId("signal"), 0);

  p->call<void>("raiseEvent", S("E"), RXValue(7));
  RXValue stamp = p->call<RXValue>("getTimestamp", S("E"));
  ASSERT_EQ(3u, stamp.getSize());
  EXPECT_EQ(7, stamp[0].toInt());
  EXPECT_GT(stamp[1].toInt(), 0);
  EXPECT_EQ(1u, p->call<RXValue>("getEventHistory", S("E")).getSize());
  EXPECT_EQ(Names{"q7"}, p->call<Names>("getDataList", S("q7")));
  EXPECT_TRUE(contains(p->call<Names>("getDataListName"), "E"));

  // Blocks until the value changes: changed again and again until it returns,
  // since the call's first read cannot be observed from here.
  std::future<RXValue> changed =
      std::async(std::launch::async, [&] { return p->call<RXValue>("getDataOnChange", S("q7"), 0); });
  int next = 100;
  while (changed.wait_for(std::chrono::milliseconds(50)) != std::future_status::ready && next < 400)
    memory->insertData("q7", next++);
  ASSERT_EQ(std::future_status::ready, changed.wait_for(std::chrono::seconds(5)))
      << "getDataOnChange never returned";
  EXPECT_GE(changed.get().toInt(), 100);

  memory->insertData("ptr", 11);
  void* address = p->call<void*>("getDataPtr", S("ptr"));
  EXPECT_EQ(memory->getPtrData("ptr"), address);
  EXPECT_EQ(11, *static_cast<int*>(address));

  EXPECT_TRUE(contains(p->call<Names>("getEventList"), "G"));
  EXPECT_EQ(Names{"G"}, p->call<Names>("getExtractorEvent", S("Gen")));
  RXValue wanted = RXValue::array();
  wanted.arrayPush(RXValue("ptr"));
  wanted.arrayPush(RXValue("absent"));
  EXPECT_EQ("[11, invalid]", p->call<RXValue>("getListData", wanted).toString());

  p->call<void>("subscribeToMicroEvent", S("M"), S("R"), S("msg"), S("onEvent"));
  p->call<void>("raiseMicroEvent", S("M"), RXValue(4));
  EXPECT_TRUE(contains(p->call<Names>("getMicroEventList"), "M"));
  EXPECT_EQ(Names{"R"}, p->call<Names>("getSubscribers", S("M")));
  EXPECT_EQ("MicroEvent", p->call<S>("getType", S("M")));
  drain(r);
  EXPECT_EQ(1u, r->count("M"));

  RXValue list = RXValue::array();
  list.arrayPush(pair("l1", RXValue(1)));
  list.arrayPush(pair("l2", RXValue("two")));
  p->call<void>("insertListData", list);
  EXPECT_EQ("1 \"two\"", memory->getData("l1").toString() + " " + memory->getData("l2").toString());

  p->call<void>("subscribeToEvent", S("G"), S("R"), S("onEvent"));
  p->call<void>("subscribeToEvent", S("G"), S("R"), S("m"), S("onEvent"));
  EXPECT_EQ((Names{"subscribe:RG", "subscribe:RG"}), gen->calls());
  p->call<void>("unsubscribeToEvent", S("G"), S("R"));
  EXPECT_EQ((Names{"subscribe:RG", "subscribe:RG", "unsubscribe:RG"}), gen->calls());
  p->call<void>("unsubscribeToMicroEvent", S("M"), S("R"));
  EXPECT_EQ(Names{}, memory->getDataSubscriber("M"));

  p->call<void>("unregisterModuleReference", S("R"));
  p->call<void>("_subscribeOnDataSetTimePolicy", S("M"), S("R"), 10);
  p->call<void>("_subscribeOnDataSetSynchronizeResponse", S("M"), S("R"), true);

  p->call<void>("_insertObject", S("obj"), RXValue(RXValue::Binary{1, 2}), 2);
  EXPECT_EQ("<binary 2 bytes>", memory->getData("obj").toString());
  p->call<void>("setDescription", S("obj"), S("a blob"));
  RXValue described = p->call<RXValue>("getDescriptionList", Names{"obj"});
  ASSERT_EQ(2u, described.getSize());
  EXPECT_EQ("[\"obj\", \"data\", \"a blob\"]", described[1].toString());

  auto svc = rxtest::registerFakeService(broker, "Svc", {"a", "b"});
  p->call<void>("addMapping", S("Svc"), S("a"), S("SvcA"));
  p->call<void>("addMapping", S("Svc"), std::map<S, S>{{"b", "SvcB"}});
  EXPECT_EQ(1u, svc->connections("a"));
  svc->emit("b", RXValue(6));
  EXPECT_EQ(6, memory->getData("SvcB").toInt());

  p->call<void>("removeData", S("q7"));
  p->call<void>("removeEvent", S("E"));
  p->call<void>("removeMicroEvent", S("M"));
  EXPECT_FALSE(contains(memory->getDataListName(), "q7") || contains(memory->getDataListName(), "E") ||
               contains(memory->getDataListName(), "M"));

  testing::internal::CaptureStdout();
  p->call<void>("_perf");
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(6, std::count(out.begin(), out.end(), '\n')) << out;

  // Other processes reach the module through the session's directory.
  mz::AnyObject service = broker->session()->service("RXMemory").value();
  service.call<void>("insertData", S("viaSession"), 3);
  EXPECT_EQ(3, service.call<RXValue>("getData", S("viaSession")).toInt());
  EXPECT_EQ("Data", service.call<S>("getType", S("viaSession")));
  EXPECT_EQ("getData|Data not found gone",
            rxtest::errorOf([&] { service.call<RXValue>("getData", S("gone")); }));
}

TEST_F(ProxyTest, KeySignalObjectConnectsAndDisconnects) {
  boost::shared_ptr<RX::RXProxy> p = broker->getProxy("RXMemory", 0);
  mz::AnyObject object = p->call<mz::AnyObject>("subscriber", std::string("K"));
  ASSERT_TRUE(object.isValid());
  EXPECT_EQ("Event", memory->getStrDataType("K"));

  std::mutex mutex;
  Names seen;
  mz::SignalLink link = object
                            .connect("signal", std::function<void(mz::AnyValue)>([&](mz::AnyValue v) {
                                       std::lock_guard<std::mutex> lock(mutex);
                                       seen.push_back(v.toRXValue().toString());
                                     }))
                            .value();
  memory->raiseEvent("K", RXValue(1));
  object.emit("signal", {mz::AnyValue(RXValue(2))});
  EXPECT_EQ(2, memory->getData("K").toInt()) << "emitting raises the key";
  object.disconnect(link).waitAndCheck();
  memory->raiseEvent("K", RXValue(3));
  EXPECT_FALSE(object.disconnect(link).hasValue()) << "the link is gone";
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ((Names{"1", "2"}), seen);
}

TEST_F(ProxyTest, SpecializedProxyCallsEveryMethodByUid) {
  RX::RXMemoryProxy m(broker->getProxy("RXMemory", 0));
  EXPECT_EQ(41u, m.resolvedCount());
  auto r = rxtest::startModule<rxtest::Recorder>(broker, "R");

  m.insertData("i", 1);
  m.insertData("f", 1.5f);
  m.insertData("s", std::string("x"));
  m.insertData("v", pair("a", RXValue(2)));
  EXPECT_EQ("1 1.5 \"x\" [\"a\", 2]", m.getData("i").toString() + " " + m.getData("f").toString() + " " +
                                          m.getData("s").toString() + " " + m.getData("v", 0).toString());
  EXPECT_TRUE(m.getData("i").isInt() && m.getData("f").isFloat());
  EXPECT_EQ("getData|Data not found nope", rxtest::errorOf([&] { (void)m.getData("nope"); }));

  m.declareEvent("E");
  m.declareEvent("G", "Gen");
  EXPECT_EQ(Names{"G"}, m.getExtractorEvent("Gen"));
  m.subscribeToEvent("E", "R", "onEvent");
  m.subscribeToEvent("E", "R", "again", "onOther");
  m.subscribeToMicroEvent("M", "R", "micro", "onEvent");
  EXPECT_EQ(Names{"R"}, m.getSubscribers("E"));
  m.raiseEvent("E", RXValue(5));
  m.raiseMicroEvent("M", RXValue(6));
  drain(r);
  ASSERT_EQ(1u, r->count("E"));
  EXPECT_EQ("onOther \"again\"", r->received()[0].method + " " + r->received()[0].message.toString());
  EXPECT_EQ("[5]", [&] {
    RXValue h = m.getEventHistory("E");
    RXValue values = RXValue::array();
    for (std::size_t i = 0; i < h.getSize(); ++i) values.arrayPush(h[i][0]);
    return values.toString();
  }());
  EXPECT_EQ(5, m.getTimestamp("E")[0].toInt());
  EXPECT_EQ("Event MicroEvent Data", m.getType("E") + " " + m.getType("M") + " " + m.getType("i"));
  EXPECT_TRUE(contains(m.getEventList(), "E"));
  EXPECT_TRUE(contains(m.getMicroEventList(), "M"));
  m.insertData("zz1", 0);
  EXPECT_EQ((Names{"zz1"}), m.getDataList("zz"));
  EXPECT_TRUE(contains(m.getDataListName(), "s"));

  RXValue names = RXValue::array();
  names.arrayPush(RXValue("i"));
  EXPECT_EQ("[1]", m.getListData(names).toString());
  RXValue list = RXValue::array();
  list.arrayPush(pair("l", RXValue(3)));
  m.insertListData(list);
  m._insertObject("o", RXValue(RXValue::Binary{9}), 1);
  m.setDescription("o", "blob");
  EXPECT_EQ("[\"o\", \"data\", \"blob\"]", m.getDescriptionList({"o"})[1].toString());
  EXPECT_EQ(3, memory->getData("l").toInt());

  int* address = static_cast<int*>(m.getDataPtr("i"));
  ASSERT_NE(nullptr, address);
  m.insertData("i", 42);
  EXPECT_EQ(42, *address);

  mz::AnyObject object = m.subscriber("E");
  EXPECT_GE(object.signalId("signal"), 0);

  std::future<RXValue> changed = std::async(std::launch::async, [&] { return m.getDataOnChange("s", 0); });
  int next = 0;
  while (changed.wait_for(std::chrono::milliseconds(50)) != std::future_status::ready && next < 300)
    memory->insertData("s", next++);
  ASSERT_EQ(std::future_status::ready, changed.wait_for(std::chrono::seconds(5)));
  EXPECT_TRUE(changed.get().isInt());

  auto svc = rxtest::registerFakeService(broker, "Svc", {"a", "b"});
  m.addMapping("Svc", "a", "SvcA");
  m.addMapping("Svc", std::map<std::string, std::string>{{"b", "SvcB"}});
  EXPECT_EQ(1u, svc->connections("a"));
  EXPECT_EQ(1u, svc->connections("b"));

  m.unsubscribeToEvent("E", "R");
  m.unsubscribeToMicroEvent("M", "R");
  EXPECT_EQ("UnsubscribeToMicroEvent|R is not subscribed to M",
            rxtest::errorOf([&] { m.unsubscribeToMicroEvent("M", "R"); }));
  m.unregisterModuleReference("R");
  m._subscribeOnDataSetTimePolicy("M", "R", 1);
  m._subscribeOnDataSetSynchronizeResponse("M", "R", false);
  m.removeData("f");
  m.removeEvent("E");
  m.removeMicroEvent("M");
  EXPECT_FALSE(contains(m.getDataListName(), "f") || contains(m.getDataListName(), "E"));

  testing::internal::CaptureStdout();
  m._perf();
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(0u, out.find("1000 Direct call\n"));
}

// Overloads that cannot be resolved are called by name, which then fails with
// the framework's own error; resolved ones keep working.
TEST_F(ProxyTest, SpecializedProxyFallsBackToCallsByName) {
  RX::RXMemoryProxy empty(boost::make_shared<RX::RXProxy>("RXMemory", mz::AnyObject()));
  EXPECT_EQ(0u, empty.resolvedCount());
  EXPECT_EQ("std::exception|This object is null", rxtest::errorOf([&] { empty.insertData("k", 1); }));

  // A stand-in that offers only getData(string).
  auto standIn = std::make_shared<mz::DynamicObject>();
  mz::MetaMethod getData;
  getData.name = "getData";
  getData.parameters.resize(1);
  getData.parameters[0].type = mz::ParamType::String;
  getData.returnType = mz::ParamType::Value;
  standIn->advertiseMethod(getData, mz::makeInvoker<RXValue, std::string>(
                                        [](const std::string& key) { return RXValue("stand-in " + key); }));
  RX::RXMemoryProxy partial(boost::make_shared<RX::RXProxy>("StandIn", mz::AnyObject(standIn)));
  EXPECT_EQ(1u, partial.resolvedCount());
  EXPECT_EQ("\"stand-in k\"", partial.getData("k").toString());
  EXPECT_EQ("std::exception|object: no method named insertData",
            rxtest::errorOf([&] { partial.insertData("k", 1); }));
  EXPECT_THROW((void)partial.getData("k", 1), mz::MethodNotFoundError);
}

}  // namespace
