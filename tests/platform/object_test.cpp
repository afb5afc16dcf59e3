// Dynamic objects: method signatures, overload resolution by argument kind,
// error texts, posting, signals reached by name, null handles, and C++ types
// registered as object types.
#include "mz/object.h"

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>

#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "rx/rxlog.h"

namespace objtest {
struct Unregistered {
  int x = 0;
};
}  // namespace objtest

namespace {

// A DynamicObject that names itself in error messages, as modules do.
class NamedObject : public mz::DynamicObject {
 public:
  explicit NamedObject(std::string name) : name_(std::move(name)) {}

  // Publishes name(params...) as a method that records `tag` when reached.
  template <typename... Args>
  unsigned int add(const std::string& name, const std::string& tag, std::vector<std::string>* log) {
    mz::MetaMethod m;
    m.name = name;
    int i = 0;
    for (mz::ParamType t : {mz::Conv<Args>::kind...}) {
      mz::MetaParameter p;
      p.name = "p" + std::to_string(i++);
      p.type = t;
      m.parameters.push_back(p);
    }
    return advertiseMethod(m, mz::makeInvoker<void, Args...>([tag, log](const Args&...) { log->push_back(tag); }));
  }

 protected:
  std::string objectName() const override { return name_; }

 private:
  std::string name_;
};

mz::MetaParameter param(const std::string& name, mz::ParamType type) {
  mz::MetaParameter p;
  p.name = name;
  p.type = type;
  return p;
}

std::string errorOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "(no exception)";
}

RX::RXValue stringArray(std::vector<std::string> items) { return RX::RXValue(items); }

RX::RXValue pairArray(const std::vector<std::pair<std::string, std::string>>& items) {
  RX::RXValue a = RX::RXValue::array();
  for (const auto& [k, v] : items) {
    RX::RXValue pair = RX::RXValue::array();
    pair.arrayPush(RX::RXValue(k));
    pair.arrayPush(RX::RXValue(v));
    a.arrayPush(pair);
  }
  return a;
}

TEST(MetaMethod, SignatureText) {
  mz::MetaMethod m;
  m.name = "getData";
  m.returnType = mz::ParamType::Value;
  m.parameters = {param("key", mz::ParamType::String), param("deprecatedParameter", mz::ParamType::Int)};
  EXPECT_EQ("RXValue getData(string key, int deprecatedParameter)", m.signature());

  mz::MetaMethod n;
  n.name = "getSubscribers";
  n.returnType = mz::ParamType::StringList;
  n.parameters = {param("", mz::ParamType::String)};
  EXPECT_EQ("list of strings getSubscribers(string)", n.signature());

  mz::MetaMethod v;
  v.name = "ping";
  EXPECT_EQ("void ping()", v.signature());
}

TEST(DynamicObject, OverloadsReachedByArgumentKind) {
  std::vector<std::string> hit;
  NamedObject o("RXMemory");
  o.add<std::string, int>("insertData", "int", &hit);
  o.add<std::string, float>("insertData", "float", &hit);
  o.add<std::string, std::string>("insertData", "string", &hit);
  o.add<std::string, RX::RXValue>("insertData", "value", &hit);
  mz::AnyObject obj(std::shared_ptr<mz::GenericObject>(&o, [](mz::GenericObject*) {}));

  obj.call<void>("insertData", std::string("k"), 5);
  obj.call<void>("insertData", std::string("k"), 2.5f);
  obj.call<void>("insertData", std::string("k"), std::string("text"));
  obj.call<void>("insertData", std::string("k"), RX::RXValue(stringArray({"a"})));
  obj.call<void>("insertData", std::string("k"), true);  // no bool overload: the value one takes it
  EXPECT_EQ((std::vector<std::string>{"int", "float", "string", "value", "value"}), hit);

  // The resolver on its own: uids in publication order.
  const mz::MetaObject& meta = obj.metaObject();
  EXPECT_EQ(0, meta.resolve("insertData", {mz::AnyValue("k"), mz::AnyValue(1)}));
  EXPECT_EQ(3, meta.resolve("insertData", {mz::AnyValue("k"), mz::AnyValue(RX::RXValue())}));
  EXPECT_EQ(-1, meta.resolve("insertData", {mz::AnyValue("k")}));
  EXPECT_EQ(-1, meta.resolve("nothing", {}));
  EXPECT_EQ(4u, obj.findMethod("insertData").size());
  EXPECT_TRUE(obj.findMethod("nothing").empty());
}

TEST(DynamicObject, IntGoesToFloatOnlyWithoutBetterOverload) {
  NamedObject o("RXMemory");
  float got = 0;
  mz::MetaMethod m;
  m.name = "set";
  m.parameters = {param("key", mz::ParamType::String), param("value", mz::ParamType::Float)};
  o.advertiseMethod(m, mz::makeInvoker<void, std::string, float>([&](const std::string&, float f) { got = f; }));
  std::vector<std::string> hit;
  o.add<std::string, std::string>("set", "string", &hit);

  o.metaCall("set", {mz::AnyValue("k"), mz::AnyValue(3)});
  EXPECT_FLOAT_EQ(3.0f, got);
  EXPECT_TRUE(hit.empty());
  // An int never reaches a string parameter.
  EXPECT_EQ("RXMemory: no method set accepting (string, bool)",
            errorOf([&] { o.metaCall("set", {mz::AnyValue("k"), mz::AnyValue(true)}); }));
}

TEST(DynamicObject, ListMapPointerAndObjectKinds) {
  std::vector<std::string> hit;
  NamedObject o("Kinds");
  o.add<std::vector<std::string>>("take", "list", &hit);
  o.add<std::map<std::string, std::string>>("take", "map", &hit);
  o.add<void*>("take", "pointer", &hit);
  o.add<mz::AnyObject>("take", "object", &hit);
  NamedObject reversed("Reversed");
  reversed.add<std::map<std::string, std::string>>("take", "map", &hit);
  reversed.add<std::vector<std::string>>("take", "list", &hit);

  int x = 0;
  mz::AnyObject self(std::shared_ptr<mz::GenericObject>(&reversed, [](mz::GenericObject*) {}));
  o.metaCall("take", {mz::AnyValue(stringArray({"a", "b"}))});
  o.metaCall("take", {mz::AnyValue(pairArray({{"a", "1"}, {"b", "2"}}))});
  o.metaCall("take", {mz::AnyValue(std::map<std::string, std::string>{{"k", "v"}})});
  o.metaCall("take", {mz::AnyValue::fromOther(static_cast<void*>(&x))});
  o.metaCall("take", {mz::AnyValue(self)});
  EXPECT_EQ((std::vector<std::string>{"list", "map", "map", "pointer", "object"}), hit);

  // An empty array fits a list and a map alike: the earlier publication wins.
  hit.clear();
  o.metaCall("take", {mz::AnyValue(RX::RXValue::array())});
  reversed.metaCall("take", {mz::AnyValue(RX::RXValue::array())});
  EXPECT_EQ((std::vector<std::string>{"list", "map"}), hit);

  // A mixed array fits neither; a foreign pointer type is not a pointer.
  RX::RXValue mixed = stringArray({"a"});
  mixed.arrayPush(RX::RXValue(1));
  EXPECT_EQ("Kinds: no method take accepting (array)", errorOf([&] { o.metaCall("take", {mz::AnyValue(mixed)}); }));
  EXPECT_EQ(-1, o.metaObject().resolve("take", {mz::AnyValue::fromOther(&x)}));
}

TEST(DynamicObject, ErrorTexts) {
  std::vector<std::string> hit;
  NamedObject o("RXMemory");
  o.add<std::string, int>("insertData", "int", &hit);
  o.add<std::string, float>("insertData", "float", &hit);
  o.add<std::string, std::string>("insertData", "string", &hit);

  RX::RXValue ints = RX::RXValue::array();
  ints.arrayPush(RX::RXValue(1));
  EXPECT_EQ("RXMemory: no method insertData accepting (string, array)",
            errorOf([&] { o.metaCall("insertData", {mz::AnyValue("k"), mz::AnyValue(ints)}); }));
  EXPECT_EQ("RXMemory: no method insertData accepting (string)",
            errorOf([&] { o.metaCall("insertData", {mz::AnyValue("k")}); }));
  EXPECT_EQ("RXMemory: no method named foo", errorOf([&] { o.metaCall("foo", {}); }));
  EXPECT_THROW(o.metaCall("foo", {}), mz::MethodNotFoundError);
  EXPECT_EQ("(invalid, pointer, int, float, bool, string)",
            mz::MetaObject::describeArguments({mz::AnyValue(), mz::AnyValue::fromOther(static_cast<void*>(nullptr)),
                                               mz::AnyValue(1), mz::AnyValue(1.5f), mz::AnyValue(false),
                                               mz::AnyValue("s")}));
  EXPECT_EQ("()", mz::MetaObject::describeArguments({}));
  EXPECT_TRUE(hit.empty());

  // What the invoker throws reaches the caller unchanged.
  mz::MetaMethod m;
  m.name = "fail";
  o.advertiseMethod(m, [](const mz::GenericFunctionParameters&) -> mz::AnyValue {
    throw std::logic_error("fail on purpose");
  });
  EXPECT_THROW(o.metaCall("fail", {}), std::logic_error);
  EXPECT_THROW(o.metaCallById(99, {}), mz::MethodNotFoundError);
}

TEST(DynamicObject, CallsByIdAndReturnValues) {
  NamedObject o("Calc");
  mz::MetaMethod m;
  m.name = "add";
  m.returnType = mz::ParamType::Int;
  m.parameters = {param("a", mz::ParamType::Int), param("b", mz::ParamType::Int)};
  unsigned int uid = o.advertiseMethod(m, mz::makeInvoker<int, int, int>([](int a, int b) { return a + b; }));
  EXPECT_EQ(0u, uid);
  EXPECT_EQ(0u, o.metaObject().methods[0].uid);
  mz::AnyObject obj(std::shared_ptr<mz::GenericObject>(&o, [](mz::GenericObject*) {}));
  EXPECT_EQ(5, obj.call<int>("add", 2, 3));
  EXPECT_EQ(9, o.metaCallById(uid, {mz::AnyValue(4), mz::AnyValue(5)}).toInt());
  // A wrong argument count given straight to an invoker is refused by it.
  EXPECT_EQ("expected 2 arguments, got 1", errorOf([&] { o.metaCallById(uid, {mz::AnyValue(4)}); }));

  o.setInvoker(uid, mz::makeInvoker<int, int, int>([](int a, int b) { return a * b; }));
  EXPECT_EQ(6, obj.call<int>("add", 2, 3));
  EXPECT_THROW(o.setInvoker(7, nullptr), mz::MethodNotFoundError);
}

TEST(DynamicObject, PostRunsAtOnceOrThroughPoster) {
  NamedObject o("Poster");
  std::vector<int> ran;
  mz::MetaMethod m;
  m.name = "note";
  m.parameters = {param("v", mz::ParamType::Int)};
  o.advertiseMethod(m, mz::makeInvoker<void, int>([&](int v) {
                      if (v < 0) throw std::runtime_error("negative note");
                      ran.push_back(v);
                    }));
  o.metaPost("note", {mz::AnyValue(1)});
  EXPECT_EQ(std::vector<int>{1}, ran);

  std::vector<std::function<void()>> queue;
  o.setPoster([&](std::function<void()> task) { queue.push_back(std::move(task)); });
  o.metaPost("note", {mz::AnyValue(2)});
  o.metaPost("note", {mz::AnyValue(-1)});
  EXPECT_EQ(std::vector<int>{1}, ran) << "a posted call must wait for the poster";
  ASSERT_EQ(2u, queue.size());

  // A call that cannot resolve fails in the poster's caller, not later.
  EXPECT_THROW(o.metaPost("note", {mz::AnyValue("x")}), mz::MethodNotFoundError);
  EXPECT_EQ(2u, queue.size());

  std::vector<std::string> logged;
  int id = RX::log::addObserver([&](const std::string& cat, int, const std::string& msg) {
    if (cat == "mz.object") logged.push_back(msg);
  });
  for (auto& task : queue) EXPECT_NO_THROW(task());
  RX::log::removeObserver(id);
  EXPECT_EQ((std::vector<int>{1, 2}), ran);
  ASSERT_EQ(1u, logged.size()) << "the failing posted call is logged";
  EXPECT_NE(std::string::npos, logged[0].find("negative note")) << logged[0];
}

TEST(DynamicObject, CatalogueReplacedBySetMetaObjectIsResolvedAfresh) {
  std::vector<std::string> hit;
  NamedObject o("Store");
  o.add<int>("ping", "ping", &hit);
  o.add<std::string>("get", "old get", &hit);

  // Overloads of one name scattered among other names, as a catalogue
  // received from elsewhere may list them.
  mz::MetaObject meta;
  const std::vector<std::pair<std::string, std::vector<mz::ParamType>>> entries = {
      {"get", {mz::ParamType::String}},
      {"put", {mz::ParamType::String, mz::ParamType::Int}},
      {"get", {mz::ParamType::String, mz::ParamType::Int}},
      {"put", {mz::ParamType::String, mz::ParamType::Value}},
      {"put", {mz::ParamType::String, mz::ParamType::String}},
  };
  for (std::size_t i = 0; i < entries.size(); ++i) {
    mz::MetaMethod m;
    m.uid = static_cast<unsigned int>(i);
    m.name = entries[i].first;
    for (mz::ParamType t : entries[i].second) m.parameters.push_back(param("p", t));
    meta.methods.push_back(m);
  }
  o.setMetaObject(meta);
  for (unsigned int uid = 0; uid < entries.size(); ++uid)
    o.setInvoker(uid, [uid, &hit](const mz::GenericFunctionParameters&) {
      hit.push_back("uid " + std::to_string(uid));
      return mz::AnyValue();
    });

  const std::vector<std::pair<std::string, mz::GenericFunctionParameters>> calls = {
      {"get", {mz::AnyValue("k")}},
      {"get", {mz::AnyValue("k"), mz::AnyValue(1)}},
      {"put", {mz::AnyValue("k"), mz::AnyValue(1)}},
      {"put", {mz::AnyValue("k"), mz::AnyValue("v")}},
      {"put", {mz::AnyValue("k"), mz::AnyValue(1.5f)}},
  };
  for (const auto& [name, args] : calls) o.metaCall(name, args);
  EXPECT_EQ((std::vector<std::string>{"uid 0", "uid 2", "uid 1", "uid 4", "uid 3"}), hit);
  // The object's own lookup and the catalogue's agree on every call.
  hit.clear();
  for (const auto& [name, args] : calls) o.metaCallById(static_cast<unsigned int>(meta.resolve(name, args)), args);
  EXPECT_EQ((std::vector<std::string>{"uid 0", "uid 2", "uid 1", "uid 4", "uid 3"}), hit);

  // Names of the replaced catalogue are gone; wrong kinds are still named.
  EXPECT_EQ("Store: no method named ping", errorOf([&] { o.metaCall("ping", {mz::AnyValue(1)}); }));
  EXPECT_EQ("Store: no method get accepting (string, float)",
            errorOf([&] { o.metaCall("get", {mz::AnyValue("k"), mz::AnyValue(1.5f)}); }));
  EXPECT_EQ("Store: no method named ping", errorOf([&] { o.metaPost("ping", {mz::AnyValue(1)}); }));

  // Methods advertised afterwards join the lookup.
  o.add<int>("ping", "new ping", &hit);
  hit.clear();
  o.metaCall("ping", {mz::AnyValue(7)});
  EXPECT_EQ(std::vector<std::string>{"new ping"}, hit);
}

// Counts the copies made of it, wherever they happen.
struct CopyCounted {
  explicit CopyCounted(std::shared_ptr<int> c) : copies(std::move(c)) {}
  CopyCounted(const CopyCounted& o) : copies(o.copies) { ++*copies; }
  CopyCounted(CopyCounted&&) noexcept = default;
  CopyCounted& operator=(const CopyCounted&) = delete;
  CopyCounted& operator=(CopyCounted&&) = delete;
  std::shared_ptr<int> copies;
};

TEST(AnyObject, PostMovesTheArgumentsIntoTheQueuedCall) {
  NamedObject o("Sink");
  mz::MetaMethod m;
  m.name = "take";
  m.parameters = {param("v", mz::ParamType::Value)};
  int received = 0;
  o.advertiseMethod(m, [&](const mz::GenericFunctionParameters& p) {
    if (p.size() == 1 && p[0].otherAs<CopyCounted>()) ++received;
    return mz::AnyValue();
  });
  std::vector<std::function<void()>> queue;
  o.setPoster([&](std::function<void()> task) { queue.push_back(std::move(task)); });
  mz::AnyObject obj(std::shared_ptr<mz::GenericObject>(&o, [](mz::GenericObject*) {}));

  auto copies = std::make_shared<int>(0);
  auto params = [&] {
    mz::GenericFunctionParameters p;
    p.push_back(mz::AnyValue::fromOther(CopyCounted(copies)));
    return p;
  };
  mz::GenericFunctionParameters kept = params();
  *copies = 0;
  obj.post("take", kept);
  EXPECT_EQ(1, *copies) << "arguments the caller keeps are copied once";

  *copies = 0;
  mz::GenericFunctionParameters given = params();
  obj.post("take", std::move(given));
  o.metaPost("take", params());
  EXPECT_EQ(0, *copies) << "arguments handed over were copied on their way to the queue";
  ASSERT_EQ(3u, queue.size());
  for (auto& task : queue) task();
  EXPECT_EQ(3, received);
  EXPECT_EQ(0, *copies) << "running the queued call copied its arguments";
}

TEST(DynamicObject, SignalsByName) {
  NamedObject o("Sensor");
  mz::SignalF<void(mz::AnyValue)> changed;
  mz::SignalF<void(unsigned int, std::string)> pair;
  EXPECT_EQ(0u, o.advertiseSignal("changed", &changed));
  EXPECT_EQ(1u, o.advertiseSignal("pair", &pair));
  mz::AnyObject obj(std::shared_ptr<mz::GenericObject>(&o, [](mz::GenericObject*) {}));
  EXPECT_EQ(0, obj.signalId("changed"));
  EXPECT_EQ(1, obj.signalId("pair"));
  EXPECT_EQ(-1, obj.signalId("nope"));
  EXPECT_EQ("void (unsigned int, std::string)", obj.metaObject().signals[1].signature);

  std::vector<int> got;
  mz::Future<mz::SignalLink> f = obj.connect("changed", [&](mz::AnyValue v) { got.push_back(v.toInt()); });
  ASSERT_TRUE(f.isFinished()) << "a local connection is made at once";
  mz::SignalLink link = f.value();
  changed(mz::AnyValue(1));
  obj.emit("changed", {mz::AnyValue(2)});
  EXPECT_EQ((std::vector<int>{1, 2}), got);
  // A two-argument emission cannot reach a one-value callback; it is logged.
  std::vector<std::string> seen;
  obj.connect("pair", [&](mz::AnyValue v) { seen.push_back(v.toString()); }).value();
  obj.emit("pair", {mz::AnyValue(1), mz::AnyValue("a")});
  EXPECT_TRUE(seen.empty());

  mz::Future<void> d = obj.disconnect(link);
  ASSERT_TRUE(d.isFinished());
  EXPECT_TRUE(d.hasValue());
  changed(mz::AnyValue(3));
  EXPECT_EQ((std::vector<int>{1, 2}), got);

  mz::Future<void> again = obj.disconnect(link);
  EXPECT_TRUE(again.hasError());
  mz::Future<mz::SignalLink> bad = obj.connect("nope", [](mz::AnyValue) {});
  EXPECT_TRUE(bad.hasError());
  EXPECT_EQ("Sensor: no signal named nope", bad.error());
  EXPECT_THROW(bad.value(), mz::FutureError);
  EXPECT_EQ("Sensor: no signal named nope", errorOf([&] { obj.emit("nope", {}); }));
}

TEST(AnyObject, NullHandleRefusesEverything) {
  mz::AnyObject null;
  EXPECT_FALSE(null.isValid());
  EXPECT_FALSE(static_cast<bool>(null));
  const std::string text = "This object is null";
  EXPECT_EQ(text, errorOf([&] { null.metaObject(); }));
  EXPECT_EQ(text, errorOf([&] { null.findMethod("x"); }));
  EXPECT_EQ(text, errorOf([&] { null.signalId("signal"); }));
  EXPECT_EQ(text, errorOf([&] { null.call("x", {}); }));
  EXPECT_EQ(text, errorOf([&] { null.call<int>("x", 1); }));
  EXPECT_EQ(text, errorOf([&] { null.post("x", {}); }));
  EXPECT_EQ(text, errorOf([&] { null.connect("signal", [](mz::AnyValue) {}); }));
  EXPECT_EQ(text, errorOf([&] { null.disconnect(1); }));
  EXPECT_EQ(text, errorOf([&] { null.emit("signal", {}); }));
  EXPECT_THROW(null.metaObject(), std::runtime_error);
  EXPECT_TRUE(null == mz::AnyObject());
}

// ---- Registered object types ----

// Gives emissions from outside a meaning of its own, as the memory's key
// signal does: it records them and delivers them doubled.
class DoublingSignal : public mz::SignalF<void(mz::AnyValue)> {
 public:
  void trigger(const mz::GenericFunctionParameters& params, mz::MetaCallType) override {
    ++outsideEmits;
    mz::SignalBase::trigger({mz::AnyValue(params.at(0).toInt() * 2)});
  }
  int outsideEmits = 0;
};

struct Widget {
  mz::SignalF<void(mz::AnyValue)> signal;
  DoublingSignal doubled;
};

void registerWidget() {
  static bool done = [] {
    mz::ObjectTypeBuilder<Widget>("Widget").advertiseSignal("signal", &Widget::signal)
        .advertiseSignal("doubled", &Widget::doubled)
        .registerType();
    return true;
  }();
  (void)done;
}

TEST(ObjectType, RegisteredTypeSignalsThroughAnyObject) {
  registerWidget();
  auto w = boost::make_shared<Widget>();
  mz::AnyObject obj = mz::Conv<boost::shared_ptr<Widget>>::to(w).toObject();
  ASSERT_TRUE(obj.isValid());
  EXPECT_EQ(0, obj.signalId("signal"));
  EXPECT_EQ(1, obj.signalId("doubled"));
  EXPECT_EQ("void (mz::AnyValue)", obj.metaObject().signals.at(0).signature);
  EXPECT_TRUE(obj.metaObject().methods.empty());

  std::vector<int> got;
  mz::SignalLink link = obj.connect("signal", [&](mz::AnyValue v) { got.push_back(v.toInt()); }).value();
  EXPECT_EQ(1u, w->signal.subscriberCount()) << "the connection lands on the instance's own signal";
  w->signal(mz::AnyValue(4));
  obj.emit("signal", {mz::AnyValue(5)});
  EXPECT_EQ((std::vector<int>{4, 5}), got);
  EXPECT_TRUE(obj.disconnect(link).hasValue());
  EXPECT_EQ(0u, w->signal.subscriberCount());
  w->signal(mz::AnyValue(6));
  EXPECT_EQ((std::vector<int>{4, 5}), got);
  EXPECT_TRUE(obj.disconnect(link).hasError());

  // Emitting from outside goes through the signal's own trigger.
  std::vector<int> doubled;
  obj.connect("doubled", [&](mz::AnyValue v) { doubled.push_back(v.toInt()); }).value();
  obj.emit("doubled", {mz::AnyValue(21)});
  EXPECT_EQ(1, w->doubled.outsideEmits);
  EXPECT_EQ(std::vector<int>{42}, doubled);

  EXPECT_EQ("Widget: no signal named nope", obj.connect("nope", [](mz::AnyValue) {}).error());
  EXPECT_EQ("Widget: no method named m", errorOf([&] { obj.call("m", {}); }));
}

TEST(ObjectType, HandlesCompareByInstanceAndKeepItAlive) {
  registerWidget();
  auto w = boost::make_shared<Widget>();
  mz::AnyObject a = mz::Conv<boost::shared_ptr<Widget>>::to(w).toObject();
  mz::AnyObject b = mz::Conv<boost::shared_ptr<Widget>>::to(w).toObject();
  mz::AnyObject other = mz::Conv<boost::shared_ptr<Widget>>::to(boost::make_shared<Widget>()).toObject();
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(a != b);
  EXPECT_TRUE(a != other);
  EXPECT_TRUE(a != mz::AnyObject());

  boost::weak_ptr<Widget> weak = w;
  w.reset();
  b = mz::AnyObject();
  ASSERT_FALSE(weak.expired()) << "the handle must keep the instance alive";
  int got = 0;
  a.connect("signal", [&](mz::AnyValue v) { got = v.toInt(); }).value();
  a.emit("signal", {mz::AnyValue(8)});
  EXPECT_EQ(8, got);
  a = mz::AnyObject();
  EXPECT_TRUE(weak.expired()) << "the last handle gone, the instance goes";

  // An empty pointer travels as an invalid value, not as an object.
  EXPECT_FALSE(mz::Conv<boost::shared_ptr<Widget>>::to(boost::shared_ptr<Widget>()).toRXValue().isValid());
}

TEST(ObjectType, UnregisteredTypeIsRefused) {
  auto u = boost::make_shared<objtest::Unregistered>();
  EXPECT_EQ("type objtest::Unregistered is not registered as an object type",
            errorOf([&] { mz::Conv<boost::shared_ptr<objtest::Unregistered>>::to(u); }));
  EXPECT_THROW(mz::Conv<boost::shared_ptr<objtest::Unregistered>>::to(u), mz::ConversionError);
  EXPECT_EQ(nullptr, mz::ObjectType::find(typeid(objtest::Unregistered)));
  registerWidget();
  ASSERT_NE(nullptr, mz::ObjectType::find(typeid(Widget)));
  EXPECT_EQ("Widget", mz::ObjectType::find(typeid(Widget))->typeName);
}

}  // namespace
