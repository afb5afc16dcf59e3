// RXModule: publication, calls through a proxy, the functor base, the module
// lifecycle and its weak handle. The full catalogue texts are checked on the
// memory itself (tests/rxbase/catalogue_test.cpp).
#include <mutex>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "mz/session.h"
#include "rx/rxbroker.h"
#include "rx/rxerror.h"
#include "rx/rxfunctor.h"
#include "rx/rxmodule.h"
#include "rx/rxproxy.h"
#include "support/capture.h"

namespace {

using RX::RXValue;
using testsupport::errorOf;

// A module with the shape of the memory's publications: insertData overloads
// told apart by the kind of their second argument, an advertised read that
// throws RXError.
class Store : public RX::RXModule {
 public:
  Store(boost::shared_ptr<RX::RXBroker> broker, const std::string& name) : RXModule(broker, name) {
    setModuleDescription("Stores <values> & more");
    publishInsert<int>("Inserts an int");
    publishInsert<float>("Inserts a float");
    functionName("getData", "Store", "Gets a value", 0);
    addParam("key", "Name of the value.");
    setReturn("data", "The data as an RXValue.");
    advertiseMethod(getCurrentMethodDescription(), this, &Store::getData);
  }
  template <typename T>
  void insertData(const std::string& key, T v) {
    std::lock_guard<std::mutex> lock(mutex_);
    last_ = key + "=" + RXValue(v).toString();
  }
  RXValue getData(const std::string& key) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (last_.rfind(key + "=", 0) != 0) RX_THROW("Store", "getData", "Data not found " + key);
    return RXValue(last_);
  }

 private:
  template <typename T>
  void publishInsert(const std::string& description) {
    functionName("insertData", "Store", description, 0);
    addParam("key", "Name of the value.");
    addParam("value", description);
    bindMethodOverload(RX::createFunctor(this, &Store::insertData<T>));
  }
  std::mutex mutex_;
  std::string last_;  // guarded by mutex_
};

struct ModuleFixture : ::testing::Test {
  void SetUp() override { store->initModule(); }
  void TearDown() override { broker->shutdown(); }
  boost::shared_ptr<RX::RXBroker> broker = RX::RXBroker::create("test-broker");
  boost::shared_ptr<Store> store = boost::make_shared<Store>(broker, "Store");
};

// Through a proxy: overloads by argument kind, RXError whole, and base
// operations that are not published.
TEST_F(ModuleFixture, ProxyCallsReachOverloadsByKindOrNameWhatDidNotMatch) {
  boost::shared_ptr<RX::RXProxy> p = broker->getProxy("Store");
  p->call<void>("insertData", std::string("k"), 1.5f);
  EXPECT_EQ(RXValue("k=1.5"), p->call<RXValue>("getData", std::string("k")));
  mz::GenericFunctionParameters args{mz::AnyValue(std::string("k")), mz::AnyValue(7)};
  p->callById(p->resolve("insertData", args), args);
  EXPECT_EQ(RXValue("k=7"), p->call<RXValue>("getData", std::string("k")));
  try {
    p->call<RXValue>("getData", std::string("missing"));
    ADD_FAILURE() << "getData of a missing key did not throw";
  } catch (const RX::RXError& e) {
    EXPECT_EQ("Store|getData|Data not found missing", e.module() + "|" + e.method() + "|" + e.message());
  }
  EXPECT_EQ("Store: no method named exit", errorOf([&] { p->call<void>("exit"); }));
  EXPECT_THROW((void)p->resolve("insertData", {mz::AnyValue(1), mz::AnyValue(2)}), mz::MethodNotFoundError);
  EXPECT_EQ("Stores <values> & more", p->object().metaObject().description);
}

TEST_F(ModuleFixture, PublicationMistakesAreRefused) {
  auto broken = boost::make_shared<Store>(broker, "Broken");
  broken->functionName("getData", "Store", "Gets a value", 0);
  broken->addParam("key", "k");
  broken->addParam("extra", "e");
  EXPECT_EQ("Broken::bindMethodOverload: method getData: the functor takes 1 parameters but 2 were described",
            errorOf([&] { broken->bindMethodOverload(RX::createFunctor(broken.get(), &Store::getData)); }));
  // A described method is published once; describing starts over with functionName.
  broken->functionName("getData", "Store", "Gets a value", 0);
  broken->addParam("key", "k");
  broken->bindMethodOverload(RX::createFunctor(broken.get(), &Store::getData));
  EXPECT_EQ(4u, broken->methods().size());
  EXPECT_THROW(broken->addParam("late", "after publication"), RX::RXError);
  EXPECT_THROW(broken->bindMethodOverload(RX::createFunctor(broken.get(), &Store::getData)), RX::RXError);
}

TEST(RXFunctorBase, DefaultCallLogsAndLeavesTheResult) {
  struct Unimplemented : RX::RXFunctorBase {} functor;
  testsupport::LogLines log("rxcommon.RXFunctor");
  RXValue result(42);
  EXPECT_NO_THROW(functor.call(RXValue(std::vector<std::string>{"x"}), result));
  EXPECT_EQ(RXValue(42), result);
  EXPECT_EQ("error: RXFunctor::call not implemented", log.joined());
}

TEST_F(ModuleFixture, LifecycleRegistersAndExitForgetsEverywhere) {
  EXPECT_EQ(std::vector<std::string>{"Store"}, broker->moduleNames());
  EXPECT_EQ(store, broker->getModule("Store"));
  EXPECT_EQ(broker, store->getParentBroker());
  // The directory's handle and a fresh weak handle designate the same module.
  EXPECT_EQ(broker->session()->service("Store").value(), store->weakObject());
  // A second module of the same name is refused and leaves the first alone.
  EXPECT_THROW(boost::make_shared<Store>(broker, "Store")->initModule(), std::runtime_error);
  EXPECT_EQ(store, broker->getModule("Store"));

  boost::shared_ptr<RX::RXProxy> p = broker->getProxy("Store");
  store->exit();
  store->exit();  // idempotent
  EXPECT_TRUE(store->hasExited() && !store->isRegistered());
  EXPECT_TRUE(broker->moduleNames().empty());
  EXPECT_TRUE(broker->session()->service("Store").hasError());
  EXPECT_THROW(broker->getProxy("Store"), RX::ModuleNotFoundError);
  // A proxy taken earlier now says that the module is gone.
  EXPECT_EQ("module Store has gone away", errorOf([&] { p->call<void>("insertData", std::string("k"), 1); }));
  EXPECT_THROW(p->genericPost("insertData", {mz::AnyValue(std::string("k")), mz::AnyValue(1)}), mz::ObjectGoneError);
  EXPECT_THROW(store->initModule(), RX::RXError);
}

TEST_F(ModuleFixture, BaseOperationsVersionExecuteAndAnEscapedPage) {
  EXPECT_EQ("0.1.0", store->version());
  EXPECT_EQ("Store::execute: no command reboot", errorOf([&] { store->execute("reboot", RXValue()); }));
  const std::string page = store->httpGet();
  for (const std::string& part :
       {std::string("<h1>Store</h1>"), std::string("Stores &lt;values&gt; &amp; more"),
        std::string("The data as an RXValue."), store->methods()[2].signature()})
    EXPECT_NE(std::string::npos, page.find(part)) << part << " not in\n" << page;
  EXPECT_EQ(std::string::npos, page.find("<values>")) << "the description was not escaped";
}

}  // namespace
