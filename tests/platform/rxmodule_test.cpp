// RXModule: publication into the catalogue, calls by argument kinds through a
// proxy, the functor base, the module lifecycle and its weak handle.
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "mz/session.h"
#include "rx/rxbroker.h"
#include "rx/rxerror.h"
#include "rx/rxfunctor.h"
#include "rx/rxlog.h"
#include "rx/rxmodule.h"
#include "rx/rxproxy.h"

namespace {

using RX::RXValue;

// A module with the shape of the memory's overloaded publications: four
// insertData overloads told apart by the kind of their second argument, one
// advertised read, one advertised method with mask 4.
class Store : public RX::RXModule {
 public:
  Store(boost::shared_ptr<RX::RXBroker> broker, const std::string& name) : RXModule(broker, name) {
    setModuleDescription("Stores <values> & more");
    using Self = Store;
    functionName("insertData", "Store", "Inserts an int", 0);
    addParam("key", "Name of the value.");
    addParam("value", "The int to be inserted");
    bindMethodOverload(RX::createFunctor(this, static_cast<void (Self::*)(const std::string&, int)>(&Self::insertData)));

    functionName("insertData", "Store", "Inserts a float", 0);
    addParam("key", "Name of the value.");
    addParam("value", "The float to be inserted");
    bindMethodOverload(
        RX::createFunctor(this, static_cast<void (Self::*)(const std::string&, float)>(&Self::insertData)));

    functionName("insertData", "Store", "Inserts a string", 0);
    addParam("key", "Name of the value.");
    addParam("value", "The string to be inserted");
    bindMethodOverload(RX::createFunctor(
        this, static_cast<void (Self::*)(const std::string&, const std::string&)>(&Self::insertData)));

    functionName("insertData", "Store", "Inserts an RXValue", 0);
    addParam("key", "Name of the value.");
    addParam("data", "The RXValue to be inserted.");
    bindMethodOverload(
        RX::createFunctor(this, static_cast<void (Self::*)(const std::string&, const RXValue&)>(&Self::insertData)));

    functionName("getData", "Store", "Gets a value", 0);
    addParam("key", "Name of the value.");
    setReturn("data", "The data as an RXValue.");
    advertiseMethod(getCurrentMethodDescription(), this, &Self::getData);

    functionName("getDataPtr", "Store", "Gets a raw address", 4);
    addParam("key", "Name of the data.");
    setReturn("ptr", "A pointer converted to int");
    advertiseMethod(getCurrentMethodDescription(), this, &Self::getDataPtr);
  }

  void insertData(const std::string& key, int v) { record(key, "int", RXValue(v)); }
  void insertData(const std::string& key, float v) { record(key, "float", RXValue(v)); }
  void insertData(const std::string& key, const std::string& v) { record(key, "string", RXValue(v)); }
  void insertData(const std::string& key, const RXValue& v) { record(key, "RXValue", v); }
  RXValue getData(const std::string& key) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (key != lastKey_) RX_THROW("Store", "getData", "Data not found " + key);
    return lastValue_;
  }
  void* getDataPtr(const std::string&) { return &lastValue_; }

  std::string lastOverload() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lastOverload_;
  }

 private:
  void record(const std::string& key, const std::string& overload, const RXValue& v) {
    std::lock_guard<std::mutex> lock(mutex_);
    lastKey_ = key;
    lastOverload_ = overload;
    lastValue_ = v;
  }
  std::mutex mutex_;
  std::string lastKey_;
  std::string lastOverload_;
  RXValue lastValue_;
};

struct ModuleFixture : ::testing::Test {
  void SetUp() override {
    broker = RX::RXBroker::create("test-broker");
    store = boost::make_shared<Store>(broker, "Store");
    store->initModule();
  }
  void TearDown() override { broker->shutdown(); }

  boost::shared_ptr<RX::RXBroker> broker;
  boost::shared_ptr<Store> store;
};

TEST_F(ModuleFixture, OverloadsAreReachedByTheKindsOfTheirArguments) {
  boost::shared_ptr<RX::RXProxy> p = broker->getProxy("Store");
  ASSERT_TRUE(p);
  EXPECT_EQ("Store", p->getModuleName());

  p->call<void>("insertData", std::string("k"), 5);
  EXPECT_EQ("int", store->lastOverload());
  EXPECT_EQ(RXValue(5), p->call<RXValue>("getData", std::string("k")));

  p->call<void>("insertData", std::string("k"), 1.5f);
  EXPECT_EQ("float", store->lastOverload());
  EXPECT_EQ(RXValue(1.5f), p->call<RXValue>("getData", std::string("k")));

  p->call<void>("insertData", std::string("k"), std::string("text"));
  EXPECT_EQ("string", store->lastOverload());
  EXPECT_EQ(RXValue("text"), p->call<RXValue>("getData", std::string("k")));

  RXValue list = RXValue::array();
  list.arrayPush(RXValue(1));
  list.arrayPush(RXValue("two"));
  p->call<void>("insertData", std::string("k"), list);
  EXPECT_EQ("RXValue", store->lastOverload());
  EXPECT_EQ(list, p->call<RXValue>("getData", std::string("k")));

  // A bool has no overload of its own: it goes to the one taking any value.
  p->call<void>("insertData", std::string("k"), true);
  EXPECT_EQ("RXValue", store->lastOverload());

  // Resolving once and calling by id reaches the same overload.
  mz::GenericFunctionParameters args{mz::AnyValue(std::string("k")), mz::AnyValue(7)};
  unsigned int uid = p->resolve("insertData", args);
  EXPECT_EQ(0u, uid);
  p->callById(uid, args);
  EXPECT_EQ(RXValue(7), p->call<RXValue>("getData", std::string("k")));

  // An RXError thrown by the method reaches the caller whole.
  try {
    p->call<RXValue>("getData", std::string("missing"));
    FAIL() << "getData of a missing key did not throw";
  } catch (const RX::RXError& e) {
    EXPECT_EQ("Store", e.module());
    EXPECT_EQ("getData", e.method());
    EXPECT_EQ("Data not found missing", e.message());
  }
}

TEST_F(ModuleFixture, CallsMatchingNothingNameTheMethodAndTheArgumentKinds) {
  boost::shared_ptr<RX::RXProxy> p = broker->getProxy("Store");
  try {
    p->call<void>("insertData", 3, std::string("k"));
    FAIL() << "insertData(int, string) did not throw";
  } catch (const mz::MethodNotFoundError& e) {
    EXPECT_EQ("Store: no method insertData accepting (int, string)", std::string(e.what()));
  }
  try {
    p->call<void>("insertData", std::string("k"));
    FAIL() << "insertData(string) did not throw";
  } catch (const mz::MethodNotFoundError& e) {
    EXPECT_EQ("Store: no method insertData accepting (string)", std::string(e.what()));
  }
  try {
    p->call<void>("exit");
    FAIL() << "a base operation was reachable through the catalogue";
  } catch (const mz::MethodNotFoundError& e) {
    EXPECT_EQ("Store: no method named exit", std::string(e.what()));
  }
  mz::GenericFunctionParameters wrong{mz::AnyValue(1), mz::AnyValue(2)};
  try {
    (void)p->resolve("insertData", wrong);
    FAIL() << "resolve of insertData(int, int) did not throw";
  } catch (const mz::MethodNotFoundError& e) {
    EXPECT_EQ("Store: no method insertData accepting (int, int)", std::string(e.what()));
  }
}

TEST_F(ModuleFixture, CatalogueHoldsExactlyWhatWasPublishedInOrder) {
  const std::vector<mz::MetaMethod>& m = store->methods();
  ASSERT_EQ(6u, m.size()) << "the catalogue must hold only the module's own publications";

  const char* descriptions[] = {"Inserts an int", "Inserts a float", "Inserts a string", "Inserts an RXValue"};
  const mz::ParamType kinds[] = {mz::ParamType::Int, mz::ParamType::Float, mz::ParamType::String,
                                 mz::ParamType::Value};
  for (unsigned int i = 0; i < 4; ++i) {
    SCOPED_TRACE("insertData overload " + std::to_string(i));
    EXPECT_EQ(i, m[i].uid);
    EXPECT_EQ("insertData", m[i].name);
    EXPECT_EQ("Store", m[i].className);
    EXPECT_EQ(descriptions[i], m[i].description);
    EXPECT_EQ(0, m[i].mask);
    ASSERT_EQ(2u, m[i].parameters.size());
    EXPECT_EQ("key", m[i].parameters[0].name);
    EXPECT_EQ("Name of the value.", m[i].parameters[0].description);
    EXPECT_EQ(mz::ParamType::String, m[i].parameters[0].type);
    EXPECT_EQ(kinds[i], m[i].parameters[1].type);
    EXPECT_FALSE(m[i].hasReturn);
    EXPECT_EQ(mz::ParamType::Void, m[i].returnType);
  }
  EXPECT_EQ("value", m[2].parameters[1].name);
  EXPECT_EQ("The string to be inserted", m[2].parameters[1].description);
  EXPECT_EQ("data", m[3].parameters[1].name);

  EXPECT_EQ("getData", m[4].name);
  EXPECT_EQ("Gets a value", m[4].description);
  ASSERT_EQ(1u, m[4].parameters.size());
  EXPECT_EQ(mz::ParamType::String, m[4].parameters[0].type);
  EXPECT_TRUE(m[4].hasReturn);
  EXPECT_EQ("data", m[4].returnName);
  EXPECT_EQ("The data as an RXValue.", m[4].returnDescription);
  EXPECT_EQ(mz::ParamType::Value, m[4].returnType);

  EXPECT_EQ("getDataPtr", m[5].name);
  EXPECT_EQ(4, m[5].mask);
  EXPECT_EQ(mz::ParamType::Pointer, m[5].returnType);
  EXPECT_EQ("ptr", m[5].returnName);

  // Callers see the same catalogue through a proxy.
  boost::shared_ptr<RX::RXProxy> p = broker->getProxy("Store");
  EXPECT_EQ(4u, p->object().findMethod("insertData").size());
  EXPECT_EQ("Stores <values> & more", p->object().metaObject().description);
}

TEST_F(ModuleFixture, PublicationMistakesAreRefused) {
  auto broken = boost::make_shared<Store>(broker, "Broken");
  // Two parameters described, the functor takes one.
  broken->functionName("getData", "Store", "Gets a value", 0);
  broken->addParam("key", "k");
  broken->addParam("extra", "e");
  try {
    broken->bindMethodOverload(RX::createFunctor(broken.get(), &Store::getData));
    FAIL() << "a functor with a wrong parameter count was published";
  } catch (const RX::RXError& e) {
    EXPECT_EQ("bindMethodOverload", e.method());
    EXPECT_NE(std::string::npos, e.message().find("getData")) << e.message();
  }
  EXPECT_EQ(6u, broken->methods().size());
  // A described method is published once; describing starts over with functionName.
  broken->functionName("getData", "Store", "Gets a value", 0);
  broken->addParam("key", "k");
  broken->bindMethodOverload(RX::createFunctor(broken.get(), &Store::getData));
  EXPECT_EQ(7u, broken->methods().size());
  EXPECT_THROW(broken->addParam("late", "after publication"), RX::RXError);
  EXPECT_THROW(broken->bindMethodOverload(RX::createFunctor(broken.get(), &Store::getData)), RX::RXError);
}

// A functor that does not implement call().
class Unimplemented : public RX::RXFunctorBase {};

TEST(RXFunctorBase, DefaultCallLogsAndLeavesTheResult) {
  std::mutex mutex;
  std::vector<std::string> lines;
  int id = RX::log::addObserver([&](const std::string& category, int level, const std::string& message) {
    std::lock_guard<std::mutex> lock(mutex);
    if (category == "rxcommon.RXFunctor") lines.push_back(std::string(RX::log::levelName(level)) + " " + message);
  });
  Unimplemented functor;
  RXValue result(42);
  RXValue params = RXValue::array();
  params.arrayPush(RXValue("x"));
  EXPECT_NO_THROW(functor.call(params, result));
  RX::log::removeObserver(id);
  EXPECT_EQ(RXValue(42), result);
  std::lock_guard<std::mutex> lock(mutex);
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(std::string(RX::log::levelName(RX::log::Error)) + " RXFunctor::call not implemented", lines[0]);
}

TEST_F(ModuleFixture, LifecycleRegistersAndExitForgets) {
  EXPECT_TRUE(store->isRegistered());
  EXPECT_EQ(std::vector<std::string>{"Store"}, broker->moduleNames());
  EXPECT_EQ(store, broker->getModule("Store"));
  EXPECT_EQ(broker, store->getParentBroker());
  mz::Future<mz::AnyObject> service = broker->session()->service("Store");
  ASSERT_TRUE(service.hasValue()) << service.error();
  // The directory's handle and a fresh weak handle designate the same module.
  EXPECT_EQ(service.value(), store->weakObject());

  // A second module of the same name is refused and leaves the first alone.
  auto twin = boost::make_shared<Store>(broker, "Store");
  EXPECT_THROW(twin->initModule(), std::runtime_error);
  EXPECT_EQ(store, broker->getModule("Store"));

  boost::shared_ptr<RX::RXProxy> p = broker->getProxy("Store");
  store->exit();
  store->exit();  // idempotent
  EXPECT_TRUE(store->hasExited());
  EXPECT_FALSE(store->isRegistered());
  EXPECT_TRUE(broker->moduleNames().empty());
  EXPECT_TRUE(broker->session()->service("Store").hasError());
  EXPECT_THROW(broker->getProxy("Store"), RX::ModuleNotFoundError);
  // A proxy taken earlier now says that the module is gone.
  try {
    p->call<void>("insertData", std::string("k"), 1);
    FAIL() << "a call reached an exited module";
  } catch (const mz::ObjectGoneError& e) {
    EXPECT_EQ("module Store has gone away", std::string(e.what()));
  }
  EXPECT_THROW(p->genericPost("insertData", {mz::AnyValue(std::string("k")), mz::AnyValue(1)}), mz::ObjectGoneError);
  EXPECT_THROW(store->initModule(), RX::RXError);
}

TEST(RXModule, WeakHandleDoesNotKeepTheModuleAlive) {
  auto broker = RX::RXBroker::create("weak-broker");
  auto module = boost::make_shared<Store>(broker, "Solo");
  mz::AnyObject handle = module->weakObject();
  boost::weak_ptr<Store> watch = module;
  handle.call<void>("insertData", std::string("k"), 3);
  EXPECT_EQ("int", module->lastOverload());
  module.reset();
  EXPECT_TRUE(watch.expired());
  // The catalogue stays readable; calls say the module is gone.
  EXPECT_EQ(4u, handle.findMethod("insertData").size());
  try {
    handle.call<void>("insertData", std::string("k"), 3);
    FAIL() << "a call reached a destroyed module";
  } catch (const mz::ObjectGoneError& e) {
    EXPECT_EQ("module Solo has gone away", std::string(e.what()));
  }
  EXPECT_THROW(handle.post("insertData", {mz::AnyValue(std::string("k")), mz::AnyValue(1)}), mz::ObjectGoneError);
  broker->shutdown();
}

TEST_F(ModuleFixture, BaseOperations) {
  EXPECT_EQ("0.1.0", store->version());
  try {
    store->execute("reboot", RXValue());
    FAIL() << "execute of an unknown command did not throw";
  } catch (const RX::RXError& e) {
    EXPECT_EQ("Store", e.module());
    EXPECT_EQ("execute", e.method());
    EXPECT_EQ("no command reboot", e.message());
  }
  std::string page = store->httpGet();
  EXPECT_NE(std::string::npos, page.find("<h1>Store</h1>")) << page;
  EXPECT_NE(std::string::npos, page.find("Stores &lt;values&gt; &amp; more")) << page;
  EXPECT_EQ(std::string::npos, page.find("<values>")) << "the description was not escaped";
  EXPECT_NE(std::string::npos, page.find(mz::MetaMethod(store->methods()[4]).signature())) << page;
  EXPECT_NE(std::string::npos, page.find("The float to be inserted")) << page;
  EXPECT_NE(std::string::npos, page.find("The data as an RXValue.")) << page;
}

}  // namespace
