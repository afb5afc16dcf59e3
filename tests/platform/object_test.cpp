// Dynamic objects: method signatures, overload resolution by argument kind,
// error texts, posting, signals reached by name, null handles, and C++ types
// registered as object types.
#include "mz/object.h"

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>

#include "support/capture.h"

namespace objtest {
struct Unregistered {};
}  // namespace objtest

namespace {

using mz::AnyValue;
using mz::ParamType;
using testsupport::errorOf;

mz::MetaMethod method(const std::string& name, std::vector<ParamType> kinds, ParamType result = ParamType::Void) {
  mz::MetaMethod m;
  m.name = name;
  m.returnType = result;
  for (ParamType t : kinds) m.parameters.push_back(mz::MetaParameter{"p" + std::to_string(m.parameters.size()), "", t});
  return m;
}

// A DynamicObject that names itself in error messages, as modules do, and
// records which of its methods were reached.
class NamedObject : public mz::DynamicObject {
 public:
  explicit NamedObject(std::string name) : name_(std::move(name)) {}
  // Publishes name(Args...) as a method that records `tag` when reached.
  template <typename... Args>
  unsigned int add(const std::string& name, const std::string& tag) {
    return advertiseMethod(method(name, {mz::Conv<Args>::kind...}),
                           mz::makeInvoker<void, Args...>([this, tag](const Args&...) { hit.push_back(tag); }));
  }
  // A handle that does not own the object.
  mz::AnyObject handle() { return mz::AnyObject(std::shared_ptr<mz::GenericObject>(this, [](mz::GenericObject*) {})); }
  std::vector<std::string> hit;

 protected:
  std::string objectName() const override { return name_; }

 private:
  std::string name_;
};

TEST(MetaMethod, SignatureTextNamesEveryKind) {
  mz::MetaMethod m = method("f", {ParamType::Bool, ParamType::Int, ParamType::Float, ParamType::String,
                                  ParamType::StringMap, ParamType::Object, ParamType::Pointer, ParamType::Value},
                            ParamType::StringList);
  m.parameters[1].name = "";
  EXPECT_EQ("list of strings f(bool p0, int, float p2, string p3, map from string to string p4, object p5, "
            "pointer p6, RXValue p7)",
            m.signature());
  EXPECT_EQ("void ping()", method("ping", {}).signature());
}

// Overloads are told apart by the kinds of the arguments: exact kind first,
// then any value, then an int going to a float; the earlier publication wins
// a tie. A call that fits nothing names the method and the kinds it got.
TEST(DynamicObject, OverloadsAreChosenByArgumentKindOrNamedInTheError) {
  NamedObject o("Kinds");
  o.add<std::string, float>("set", "set float");
  o.add<std::string, std::string>("set", "set string");
  o.add<std::vector<std::string>>("take", "list");
  o.add<std::map<std::string, std::string>>("take", "map");
  o.add<void*>("take", "pointer");
  o.add<mz::AnyObject>("take", "object");
  o.add<std::map<std::string, std::string>>("rtake", "map first");
  o.add<std::vector<std::string>>("rtake", "list second");
  RX::RXValue pairs = RX::RXValue::array(), mixed(std::vector<std::string>{"a"});
  pairs.arrayPush(RX::RXValue(std::vector<std::string>{"k", "v"}));
  mixed.arrayPush(RX::RXValue(1));
  int x = 0;
  const struct {
    std::string name;
    mz::GenericFunctionParameters args;
    std::string outcome;  // the tag reached, or the error
  } cases[] = {
      {"set", {AnyValue("k"), AnyValue(3)}, "set float"},
      {"set", {AnyValue("k"), AnyValue(true)}, "Kinds: no method set accepting (string, bool)"},
      {"take", {AnyValue(std::vector<std::string>{"a", "b"})}, "list"},
      {"take", {AnyValue(pairs)}, "map"},
      {"take", {AnyValue::fromOther(static_cast<void*>(&x))}, "pointer"},
      {"take", {AnyValue(o.handle())}, "object"},
      {"take", {AnyValue(RX::RXValue::array())}, "list"},
      {"rtake", {AnyValue(RX::RXValue::array())}, "map first"},
      {"take", {AnyValue(mixed)}, "Kinds: no method take accepting (array)"},
      {"take", {AnyValue::fromOther(&x)}, "Kinds: no method take accepting (int*)"},
      {"set", {AnyValue("k")}, "Kinds: no method set accepting (string)"},
      {"foo", {}, "Kinds: no method named foo"},
  };
  for (const auto& c : cases) {
    o.hit.clear();
    const std::string error = errorOf([&] { o.metaCall(c.name, c.args); });
    EXPECT_EQ(c.outcome, o.hit.empty() ? error : o.hit.at(0)) << c.name << mz::MetaObject::describeArguments(c.args);
    if (o.hit.empty()) continue;
    o.metaCallById(static_cast<unsigned int>(o.metaObject().resolve(c.name, c.args)), c.args);
    EXPECT_EQ(c.outcome, o.hit.back()) << "the catalogue's resolution disagrees with the call by name";
  }
  EXPECT_THROW(o.metaCall("foo", {}), mz::MethodNotFoundError);
  EXPECT_EQ(-1, o.metaObject().resolve("set", {AnyValue("k")}));
  EXPECT_EQ(4u, o.handle().findMethod("take").size());
  EXPECT_EQ("(invalid, pointer, int, float, bool, string)",
            mz::MetaObject::describeArguments({AnyValue(), AnyValue::fromOther(static_cast<void*>(nullptr)),
                                               AnyValue(1), AnyValue(1.5f), AnyValue(false), AnyValue("s")}));
  // Invokers check their arguments; unknown ids are refused.
  const unsigned int add = o.advertiseMethod(method("add", {ParamType::Int, ParamType::Int}, ParamType::Int),
                                             mz::makeInvoker<int, int, int>([](int a, int b) { return a + b; }));
  EXPECT_EQ(5, o.handle().call<int>("add", 2, 3));
  EXPECT_EQ("expected 2 arguments, got 1", errorOf([&] { o.metaCallById(add, {AnyValue(4)}); }));
  EXPECT_THROW(o.setInvoker(99, nullptr), mz::MethodNotFoundError);
  EXPECT_THROW(o.metaCallById(99, {}), mz::MethodNotFoundError);
}

// Counts the copies made of it, wherever they happen.
struct CopyCounted {
  explicit CopyCounted(std::shared_ptr<int> c) : copies(std::move(c)) {}
  CopyCounted(const CopyCounted& o) : copies(o.copies) { ++*copies; }
  CopyCounted(CopyCounted&&) noexcept = default;
  std::shared_ptr<int> copies;
};

// A posted call runs at once, or through the poster with its arguments moved
// (not copied) into the queued call; it fails in the caller when it cannot
// resolve, and is logged when it throws later.
TEST(DynamicObject, PostRunsAtOnceOrThroughThePosterMovesItsArgumentsAndLogsFailures) {
  NamedObject o("Poster");
  o.advertiseMethod(method("note", {ParamType::Int}), mz::makeInvoker<void, int>([&](int v) {
                      if (v < 0) throw std::runtime_error("negative note");
                      o.hit.push_back(std::to_string(v));
                    }));
  o.advertiseMethod(method("take", {ParamType::Value}), [&](const mz::GenericFunctionParameters& p) {
    if (p.size() == 1 && p[0].otherAs<CopyCounted>()) o.hit.push_back("taken");
    return AnyValue();
  });
  o.metaPost("note", {AnyValue(1)});
  std::vector<std::function<void()>> queue;
  o.setPoster([&](std::function<void()> task) { queue.push_back(std::move(task)); });
  o.metaPost("note", {AnyValue(2)});
  o.metaPost("note", {AnyValue(-1)});
  EXPECT_EQ(std::vector<std::string>{"1"}, o.hit) << "a posted call must wait for the poster";
  EXPECT_THROW(o.metaPost("note", {AnyValue("x")}), mz::MethodNotFoundError);
  auto copies = std::make_shared<int>(0);
  auto params = [&] {
    mz::GenericFunctionParameters p;  // not an initializer list: that would copy
    p.push_back(AnyValue::fromOther(CopyCounted(copies)));
    return p;
  };
  mz::GenericFunctionParameters kept = params(), given = params();
  *copies = 0;
  o.handle().post("take", kept);
  EXPECT_EQ(1, *copies) << "arguments the caller keeps are copied once";
  *copies = 0;
  o.handle().post("take", std::move(given));
  o.metaPost("take", params());
  testsupport::LogLines log("mz.object");
  for (auto& task : queue) EXPECT_NO_THROW(task());
  EXPECT_EQ(0, *copies) << "arguments handed over were copied on their way to or through the queue";
  EXPECT_EQ((std::vector<std::string>{"1", "2", "taken", "taken", "taken"}), o.hit);
  EXPECT_EQ("error: posted call Poster.note failed: negative note", log.joined());
}

TEST(DynamicObject, CatalogueReplacedBySetMetaObjectIsResolvedAfresh) {
  NamedObject o("Store");
  o.add<int>("ping", "old ping");
  // Overloads of one name scattered among other names, as a catalogue
  // received from elsewhere may list them.
  mz::MetaObject meta;
  meta.methods = {method("get", {ParamType::String}), method("put", {ParamType::String, ParamType::Int}),
                  method("get", {ParamType::String, ParamType::Int}),
                  method("put", {ParamType::String, ParamType::String})};
  for (unsigned int uid = 0; uid < meta.methods.size(); ++uid) meta.methods[uid].uid = uid;
  o.setMetaObject(meta);
  for (unsigned int uid = 0; uid < meta.methods.size(); ++uid)
    o.setInvoker(uid, [uid, &o](const mz::GenericFunctionParameters&) {
      o.hit.push_back("uid " + std::to_string(uid));
      return AnyValue();
    });
  o.metaCall("get", {AnyValue("k")});
  o.metaCall("put", {AnyValue("k"), AnyValue(1)});
  o.metaCall("put", {AnyValue("k"), AnyValue("v")});
  o.metaCall("get", {AnyValue("k"), AnyValue(1)});
  EXPECT_EQ((std::vector<std::string>{"uid 0", "uid 1", "uid 3", "uid 2"}), o.hit);
  // Names of the replaced catalogue are gone; methods advertised afterwards join the lookup.
  EXPECT_EQ("Store: no method named ping", errorOf([&] { o.metaPost("ping", {AnyValue(1)}); }));
  o.add<int>("ping", "new ping");
  o.metaCall("ping", {AnyValue(7)});
  EXPECT_EQ("new ping", o.hit.back());
}

TEST(AnyObject, NullHandleRefusesEverything) {
  mz::AnyObject null;
  EXPECT_TRUE(!null && null == mz::AnyObject());
  const std::function<void()> uses[] = {
      [&] { null.metaObject(); },      [&] { null.findMethod("x"); },
      [&] { null.signalId("s"); },     [&] { null.call("x", {}); },
      [&] { null.call<int>("x", 1); }, [&] { null.post("x", {}); },
      [&] { null.disconnect(1); },     [&] { null.connect("s", [](AnyValue) {}); },
      [&] { null.emit("s", {}); },
  };
  for (const auto& use : uses) EXPECT_EQ("This object is null", errorOf(use));
}

// ---- Signals by name, on a DynamicObject and on a registered C++ type ----

struct Widget {
  mz::SignalF<void(AnyValue)> signal;
};

mz::AnyObject widgetObject(const boost::shared_ptr<Widget>& w) {
  static bool registered = [] {
    mz::ObjectTypeBuilder<Widget>("Widget")
        .advertiseSignal("signal", &Widget::signal)
        .registerType();
    return true;
  }();
  (void)registered;
  return mz::Conv<boost::shared_ptr<Widget>>::to(w).toObject();
}

TEST(AnyObject, SignalsAreReachedByNameOnEitherKindOfObject) {
  NamedObject o("Widget");
  auto w = boost::make_shared<Widget>();
  mz::SignalF<void(unsigned int, std::string)> pair;
  // "signal" is not the first: a connection by name must not land on signal 0.
  EXPECT_EQ(0u, o.advertiseSignal("pair", &pair));
  EXPECT_EQ(1u, o.advertiseSignal("signal", &w->signal));
  for (mz::AnyObject obj : {o.handle(), widgetObject(w)}) {
    SCOPED_TRACE(obj == o.handle() ? "DynamicObject" : "registered type");
    EXPECT_EQ(-1, obj.signalId("nope"));
    EXPECT_EQ("void (mz::AnyValue)", obj.metaObject().signals.at(obj.signalId("signal")).signature);
    std::vector<int> got;
    mz::Future<mz::SignalLink> f = obj.connect("signal", [&](AnyValue v) { got.push_back(v.toInt()); });
    ASSERT_TRUE(f.isFinished()) << "a local connection is made at once";
    EXPECT_EQ(1u, w->signal.subscriberCount()) << "the connection lands on the instance's own signal";
    w->signal(AnyValue(1));
    obj.emit("signal", {AnyValue(2)});
    EXPECT_TRUE(obj.disconnect(f.value()).hasValue());
    EXPECT_TRUE(obj.disconnect(f.value()).hasError());
    w->signal(AnyValue(3));
    EXPECT_EQ((std::vector<int>{1, 2}), got);
    EXPECT_EQ("Widget: no signal named nope", obj.connect("nope", [](AnyValue) {}).error());
    EXPECT_EQ("Widget: no signal named nope", errorOf([&] { obj.emit("nope", {}); }));
  }
  // A two-argument emission cannot reach a one-value callback (it is logged).
  int reached = 0;
  o.handle().connect("pair", [&](AnyValue) { ++reached; }).value();
  o.handle().emit("pair", {AnyValue(1), AnyValue("a")});
  EXPECT_EQ(0, reached);
  EXPECT_EQ("Widget: no method named m", errorOf([&] { widgetObject(w).call("m", {}); }));
}

TEST(ObjectType, HandlesCompareByInstanceKeepItAliveAndUnregisteredTypesAreRefused) {
  auto w = boost::make_shared<Widget>();
  mz::AnyObject a = widgetObject(w), b = widgetObject(w);
  EXPECT_TRUE(a == b && !(a != b));
  EXPECT_TRUE(a != widgetObject(boost::make_shared<Widget>()));
  boost::weak_ptr<Widget> weak = w;
  w.reset();
  b = mz::AnyObject();
  ASSERT_FALSE(weak.expired()) << "the handle must keep the instance alive";
  a = mz::AnyObject();
  EXPECT_TRUE(weak.expired()) << "the last handle gone, the instance goes";
  // An empty pointer travels as an invalid value, not as an object.
  EXPECT_FALSE(mz::Conv<boost::shared_ptr<Widget>>::to(boost::shared_ptr<Widget>()).toRXValue().isValid());
  EXPECT_EQ(nullptr, mz::ObjectType::find(typeid(objtest::Unregistered)));
  using Foreign = boost::shared_ptr<objtest::Unregistered>;
  EXPECT_EQ("type objtest::Unregistered is not registered as an object type",
            errorOf([] { mz::Conv<Foreign>::to(boost::make_shared<objtest::Unregistered>()); }));
}

}  // namespace
