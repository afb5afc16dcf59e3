// Values, objects, signals, the service directory and futures: how calls and events travel in a process.
#include <gtest/gtest.h>

#include <atomic>
#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>
#include <mutex>
#include <set>
#include <thread>

#include "mz/object.h"
#include "mz/session.h"
#include "rx/rxerror.h"
#include "rx/rxvalue.h"
#include "support/capture.h"

namespace {

using mz::AnyValue;
using mz::ParamType;
using Params = mz::GenericFunctionParameters;
using RX::RXValue;
using testsupport::errorOf;
using testsupport::kWait;

static_assert(sizeof(RXValue) == 16, "RXValue is a 16-byte value");

using Custom = std::pair<int, int>;  // any C++ type with no conversion to RXValue

RXValue list(std::vector<RXValue> items) {
  RXValue a = RXValue::array();
  for (auto& v : items) a.arrayPush(std::move(v));
  return a;
}

TEST(RXValueTest, EveryKindHasItsCodeNameTextAndSize) {
  const unsigned char bytes[] = {0, 1, 255};
  const std::tuple<RXValue, std::string, std::string> cases[] = {
      {RXValue(), "0 invalid 0", "invalid"},
      {list({RXValue(1), RXValue("a"), list({RXValue(true)})}), "1 array 3", "[1, \"a\", [true]]"},
      {RXValue(false), "2 bool 0", "false"},
      {RXValue(-2147483647 - 1), "3 int 0", "-2147483648"},
      {RXValue(2.0f), "4 float 0", "2.0"},
      {RXValue(0.1f), "4 float 0", "0.1"},
      {RXValue(1e20f), "4 float 0", "1e+20"},
      {RXValue("say \"hi\" \\o/"), "5 string 12", "\"say \\\"hi\\\" \\\\o/\""},
      {RXValue(static_cast<const char*>(nullptr)), "5 string 0", "\"\""},
      {RXValue(mz::AnyObject()), "6 object 0", "<object>"},
      {RXValue(bytes, sizeof bytes), "7 binary 3", "<binary 3 bytes>"},
  };
  for (const auto& [v, kind, text] : cases) {
    EXPECT_EQ(text, v.toString());
    EXPECT_EQ(kind, std::to_string(v.getType()) + " " + RXValue::TypeToString(v.getType()) + " " +
                        std::to_string(v.getSize()));
  }
  // Verbosity 0 leaves strings unquoted; floats read back to the same float.
  EXPECT_EQ("[1, say \"hi\"]", list({RXValue(1), RXValue("say \"hi\"")}).toString(0));
  for (float x : {3.14159274f, 1.0f / 3.0f, 16777216.0f, 1.17549435e-38f})
    EXPECT_EQ(x, std::stof(RXValue(x).toString())) << RXValue(x).toString();
  EXPECT_EQ(std::vector<std::string>({"a", "", "c"}),
            RXValue(std::vector<std::string>{"a", "", "c"}).toStringList());
}

// Both layers name the kind they expected and the kind (and text, cut short) they got.
TEST(RXValueTest, ConversionErrorsOfBothLayersNameBothKindsAndRXErrorNamesItsPlace) {
  const RXValue mixed = list({RXValue("a"), RXValue(2)}), pairs = list({mixed});
  AnyValue custom = AnyValue::fromOther(Custom{4, 0});
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[] { (void)RXValue("abc").toInt(); }, "RXValue::toInt: Can't convert a string to int"},
      {[] { (void)static_cast<int>(RXValue(1.0f)); }, "RXValue::toInt: Can't convert a float to int"},
      {[] { (void)RXValue(1).toFloat(); }, "RXValue::toFloat: Can't convert an int to float"},
      {[] { (void)RXValue(1).toBool(); }, "RXValue::toBool: Can't convert an int to bool"},
      {[] { (void)RXValue().toStdString(); },
       "RXValue::toStdString: Can't convert an invalid value to string"},
      {[] { (void)RXValue("x").toBinary(); }, "RXValue::toBinary: Can't convert a string to binary"},
      {[] { (void)RXValue(true).toObject(); }, "RXValue::toObject: Can't convert a bool to object"},
      {[] { (void)RXValue(3).toStringList(); },
       "RXValue::toStringList: Can't convert an int to list of strings"},
      {[&] { (void)mixed.toStringList(); },
       "RXValue::toStringList: Can't convert an array holding an int at index 1 to list of strings"},
      {[] { (void)RXValue(1)[0]; }, "RXValue::operator[]: Can't index an int: not an array"},
      {[] { (void)RXValue("s").arrayPush(RXValue(1)); }, "RXValue::array: Can't use a string as an array"},
      {[] { (void)AnyValue("abc").toInt(); }, "expected int, got string \"abc\""},
      {[] { (void)AnyValue(1.5f).toInt(); }, "expected int, got float 1.5"},
      {[] { (void)AnyValue(true).toFloat(); }, "expected float, got bool true"},
      {[] { (void)AnyValue(1).toBool(); }, "expected bool, got int 1"},
      {[] { (void)AnyValue().toString(); }, "expected string, got invalid"},
      {[] { (void)AnyValue(RXValue(RXValue::Binary(3, 0))).toString(); },
       "expected string, got binary of 3 bytes"},
      {[] { (void)AnyValue(5).toObject(); }, "expected object, got int 5"},
      {[&] { (void)AnyValue(mixed).toStringList(); }, "expected list of strings, got array [\"a\", 2]"},
      {[&] { (void)AnyValue(pairs).toStringMap(); },
       "expected map from string to string, got array [[\"a\", 2]]"},
      {[&] { (void)custom.toRXValue(); },
       "Can't convert a C++ value of type std::pair<int, int> to an RXValue"},
      {[&] { (void)custom.toInt(); }, "expected int, got C++ value of type std::pair<int, int>"},
      {[] { (void)mz::TypeConv<void*>::from(AnyValue(3)); }, "expected a pointer, got int 3"},
      {[] { (void)AnyValue(std::string(1000, 'z')).toInt(); },
       "expected int, got string \"" + std::string(199, 'z') + "..."},
  };
  for (const auto& [f, text] : cases) EXPECT_EQ(text, errorOf(f));
  EXPECT_THROW((void)RXValue(1).toFloat(), RX::RXError);
  EXPECT_THROW((void)AnyValue(1).toBool(), mz::ConversionError);
  const int line = __LINE__ + 2;
  try {
    RX_THROW("Mod", "meth", "thrown");
  } catch (const RX::RXError& e) {
    // Files of this tree are named from the tree's root, wherever it was built.
    EXPECT_EQ("Mod::meth: thrown (tests/platform/messaging_test.cpp:" + std::to_string(line) + ")",
              std::string(e.what()));
  }
}

TEST(RXValueTest, ArraysGrowShrinkAndCheckIndexes) {
  RXValue v;
  v.arrayReserve(10);  // an invalid value becomes an empty array
  EXPECT_EQ("[]", v.toString());
  v.arrayPush(RXValue(1));
  v.arrayPush(RXValue("two"));
  v.arraySetSize(4);
  v[3] = RXValue(4.5f);
  EXPECT_EQ("[1, \"two\", invalid, 4.5]", v.toString());
  v.arraySetSize(2);
  const RXValue& cv = v;
  EXPECT_EQ("RXValue::operator[]: Index 2 out of range for an array of size 2",
            errorOf([&] { (void)cv[2]; }));
  EXPECT_EQ("RXValue::operator[]: Index 7 out of range for an array of size 2", errorOf([&] { (void)v[7]; }));
  RXValue invalid, str("abc");
  EXPECT_THROW((void)invalid[0], RX::RXError);
  EXPECT_THROW(str.arraySetSize(2), RX::RXError);
  EXPECT_EQ("invalid \"abc\"", invalid.toString() + " " + str.toString()) << "changed by a failed index";
  // Pushing the array into itself, or one of its own elements, copies first.
  RXValue self = list({RXValue(1)});
  self.arrayPush(self);
  self.arrayPush(self[0]);
  EXPECT_EQ("[1, [1], 1]", self.toString());
}

// Each value equals a copy built apart and differs from every other one.
TEST(RXValueTest, EqualityComparesKindAndContent) {
  mz::AnyObject o1(std::make_shared<mz::DynamicObject>()), o2(std::make_shared<mz::DynamicObject>());
  auto values = [&] {
    const std::vector<std::string> xy{"x", "y"}, xz{"x", "z"};
    const RXValue nested = list({RXValue(xy)}), bin1(RXValue::Binary(1, 1)), bin2(RXValue::Binary(1, 2));
    return std::vector<RXValue>{
        RXValue(),   RXValue(0),   RXValue(1),  RXValue(3),  RXValue(1.0f),     RXValue(true),
        RXValue(""), RXValue("a"), RXValue(xy), RXValue(xz), RXValue::array(1), RXValue::array(2),
        nested,      bin1,         bin2,        RXValue(o1), RXValue(o2)};
  };
  const std::vector<RXValue> a = values(), b = values();
  for (std::size_t i = 0; i < a.size(); ++i)
    for (std::size_t j = 0; j < b.size(); ++j)
      EXPECT_EQ(i == j, a[i] == b[j]) << a[i].toString() << " vs " << b[j].toString();
}

// Modules hand out getPtrValue() addresses: a value of the same kind, copied or moved, is written
// into the existing storage (an invalid value's receives its first scalar).
TEST(RXValueTest, AssignmentKeepsTheStorageOfTheSameKindAndCopiesDeep) {
  const std::pair<RXValue, RXValue> cases[] = {
      {RXValue(1), RXValue(7)},
      {RXValue(1.0f), RXValue(2.5f)},
      {RXValue(false), RXValue(true)},
      {RXValue("short"), RXValue(std::string(200, 'y'))},
      {RXValue(std::vector<std::string>{"a"}), RXValue(std::vector<std::string>{"b", "c"})},
      {RXValue(RXValue::Binary{1}), RXValue(RXValue::Binary{4, 5})},
      {RXValue(), RXValue(7)},
      {RXValue(), RXValue(0.5f)}};
  for (const bool moved : {false, true}) {
    for (const auto& [before, after] : cases) {
      SCOPED_TRACE((moved ? "moved " : "copied ") + after.toString());
      RXValue v(before), source(after);
      void* p = v.getPtrValue();
      if (moved)
        v = std::move(source);
      else
        v = source;
      EXPECT_EQ(p, v.getPtrValue());
      EXPECT_EQ(after, v);
      EXPECT_TRUE(!moved || !source.isValid()) << "a moved-from value must be invalid";
    }
  }
  RXValue i(1);
  *static_cast<int*>(i.getPtrValue()) = 9;
  EXPECT_EQ(9, i.toInt()) << "writes through the pointer are seen by the value";

  RXValue original = list({RXValue("a"), RXValue(std::vector<std::string>{"b"})});
  RXValue copy(original), assigned(5);
  copy[1][0] = RXValue("changed");
  assigned = original;
  assigned[0] = RXValue(0);
  EXPECT_EQ("[\"a\", [\"b\"]]", original.toString());
  RXValue self("keep");
  RXValue& alias = self;
  self = alias;
  self = std::move(alias);
  EXPECT_EQ("keep", self.toStdString());
  RXValue tree = list({RXValue("leaf")}), nested = list({RXValue(std::vector<std::string>{"p"}), RXValue(1)});
  tree = tree[0];
  nested = nested[0];
  EXPECT_EQ("\"leaf\" [\"p\"]", tree.toString() + " " + nested.toString());
  RXValue nestedMove = list({RXValue(std::vector<std::string>{"m"})}), scalarMove = list({RXValue(8)});
  nestedMove = std::move(nestedMove[0]);
  scalarMove = std::move(scalarMove[0]);
  EXPECT_EQ("[\"m\"] 8", nestedMove.toString() + " " + scalarMove.toString());
}

// Lists and maps travel as arrays (maps as pairs in key order); handles keep their identity.
TEST(AnyValueTest, ContainersTravelAsArraysAndHandlesKeepTheirIdentity) {
  const std::vector<std::string> list{"a", "b"};
  EXPECT_EQ("[\"a\", \"b\"]", AnyValue(list).toRXValue().toString());
  EXPECT_EQ(list, AnyValue(list).toStringList());
  const std::map<std::string, std::string> map{{"k2", "v2"}, {"k1", "v1"}};
  EXPECT_EQ("[[\"k1\", \"v1\"], [\"k2\", \"v2\"]]", AnyValue(map).toRXValue().toString());
  EXPECT_EQ(map, AnyValue(map).toStringMap());
  EXPECT_TRUE(AnyValue(RXValue::array()).toStringMap().empty());
  mz::AnyObject handle(std::make_shared<mz::DynamicObject>());
  EXPECT_EQ(handle, mz::TypeConv<mz::AnyObject>::from(mz::TypeConv<mz::AnyObject>::to(handle)));
  AnyValue custom = AnyValue::fromOther(Custom{4, 0});
  ASSERT_NE(nullptr, custom.otherAs<Custom>());
  EXPECT_EQ(4, custom.otherAs<Custom>()->first);
  EXPECT_EQ(nullptr, custom.otherAs<int>());
  int target = 0;
  EXPECT_EQ(&target, mz::TypeConv<void*>::from(mz::TypeConv<void*>::to(&target)));
}

mz::MetaMethod method(const std::string& name, std::vector<ParamType> kinds,
                      ParamType result = ParamType::Void) {
  mz::MetaMethod m;
  m.name = name;
  m.returnType = result;
  for (ParamType t : kinds)
    m.parameters.push_back(mz::MetaParameter{"p" + std::to_string(m.parameters.size()), "", t});
  return m;
}

// Names itself in error messages, as modules do, and records which of its methods were reached.
class NamedObject : public mz::DynamicObject {
 public:
  explicit NamedObject(std::string name) : name(std::move(name)) {}
  template <typename... Args>
  unsigned int add(const std::string& name, const std::string& tag) {
    return advertiseMethod(
        method(name, {mz::Conv<Args>::kind...}),
        mz::makeInvoker<void, Args...>([this, tag](const Args&...) { hit.push_back(tag); }));
  }
  mz::AnyObject handle() {
    return mz::AnyObject(std::shared_ptr<mz::GenericObject>(this, [](mz::GenericObject*) {}));
  }
  std::string objectName() const override { return name; }
  const std::string name;
  std::vector<std::string> hit;
};

// Exact kind first, then any value, then an int going to a float; the earlier publication wins a tie.
TEST(DynamicObject, SignaturesNameEveryKindAndOverloadsAreChosenByArgumentKindOrNamedInTheError) {
  mz::MetaMethod m = method("f",
                            {ParamType::Bool, ParamType::Int, ParamType::Float, ParamType::String,
                             ParamType::StringMap, ParamType::Object, ParamType::Pointer, ParamType::Value},
                            ParamType::StringList);
  m.parameters[1].name = "";
  EXPECT_EQ(
      "list of strings f(bool p0, int, float p2, string p3, map from string to string p4, object p5, "
      "pointer p6, RXValue p7)",
      m.signature());
  EXPECT_EQ("void ping()", method("ping", {}).signature());
  NamedObject o("Kinds");
  o.add<std::string, float>("set", "set float");
  o.add<std::string, std::string>("set", "set string");
  o.add<std::vector<std::string>>("take", "list");
  o.add<std::map<std::string, std::string>>("take", "map");
  o.add<void*>("take", "pointer");
  o.add<mz::AnyObject>("take", "object");
  o.add<std::map<std::string, std::string>>("rtake", "map first");
  o.add<std::vector<std::string>>("rtake", "list second");
  const RXValue pairs = list({RXValue(std::vector<std::string>{"k", "v"})}),
                mixed = list({RXValue("a"), RXValue(1)});
  int x = 0;
  const std::tuple<std::string, Params, std::string> cases[] = {
      {"set", {AnyValue("k"), AnyValue(3)}, "set float"},
      {"set", {AnyValue("k"), AnyValue(true)}, "Kinds: no method set accepting (string, bool)"},
      {"take", {AnyValue(std::vector<std::string>{"a", "b"})}, "list"},
      {"take", {AnyValue(pairs)}, "map"},
      {"take", {AnyValue::fromOther(static_cast<void*>(&x))}, "pointer"},
      {"take", {AnyValue(o.handle())}, "object"},
      {"take", {AnyValue(RXValue::array())}, "list"},
      {"rtake", {AnyValue(RXValue::array())}, "map first"},
      {"take", {AnyValue(mixed)}, "Kinds: no method take accepting (array)"},
      {"take", {AnyValue::fromOther(&x)}, "Kinds: no method take accepting (int*)"},
      {"set", {AnyValue("k")}, "Kinds: no method set accepting (string)"},
      {"set",
       {AnyValue(), AnyValue::fromOther(static_cast<void*>(nullptr)), AnyValue(1), AnyValue(1.5f)},
       "Kinds: no method set accepting (invalid, pointer, int, float)"},
      {"foo", {}, "Kinds: no method named foo"},
  };
  for (const auto& [name, args, outcome] : cases) {
    o.hit.clear();
    const std::string error = errorOf([&] { o.metaCall(name, args); });
    EXPECT_EQ(outcome, o.hit.empty() ? error : o.hit.at(0))
        << name << mz::MetaObject::describeArguments(args);
    const int uid = o.metaObject().resolve(name, args);
    ASSERT_EQ(o.hit.empty(), uid < 0) << "the catalogue's resolution disagrees with the call by name";
    if (uid < 0) continue;
    o.metaCallById(static_cast<unsigned int>(uid), args);
    EXPECT_EQ(outcome, o.hit.back()) << "the catalogue's resolution disagrees with the call by name";
  }
  EXPECT_THROW(o.metaCall("foo", {}), mz::MethodNotFoundError);
  EXPECT_EQ(4u, o.handle().findMethod("take").size());
  const unsigned int add =
      o.advertiseMethod(method("add", {ParamType::Int, ParamType::Int}, ParamType::Int),
                        mz::makeInvoker<int, int, int>([](int a, int b) { return a + b; }));
  EXPECT_EQ(5, o.handle().call<int>("add", 2, 3));
  EXPECT_EQ("expected 2 arguments, got 1", errorOf([&] { o.metaCallById(add, {AnyValue(4)}); }));
  EXPECT_THROW(o.setInvoker(99, nullptr), mz::MethodNotFoundError);
  EXPECT_THROW(o.metaCallById(99, {}), mz::MethodNotFoundError);
}

struct CopyCounted {
  explicit CopyCounted(std::shared_ptr<int> c) : copies(std::move(c)) {}
  CopyCounted(const CopyCounted& o) : copies(o.copies) { ++*copies; }
  CopyCounted(CopyCounted&&) noexcept = default;
  std::shared_ptr<int> copies;
};

// Arguments handed over are moved, not copied, into the queued call.
TEST(DynamicObject, PostRunsAtOnceOrThroughThePosterMovesItsArgumentsAndLogsFailures) {
  NamedObject o("Poster");
  o.advertiseMethod(method("note", {ParamType::Int}), mz::makeInvoker<void, int>([&](int v) {
                      if (v < 0) throw std::runtime_error("negative note");
                      o.hit.push_back(std::to_string(v));
                    }));
  o.advertiseMethod(method("take", {ParamType::Value}), [&](const Params& p) {
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
    Params p;  // not an initializer list: that would copy
    p.push_back(AnyValue::fromOther(CopyCounted(copies)));
    return p;
  };
  Params kept = params(), given = params();
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
  // Overloads scattered among other names, as a catalogue received from elsewhere may list them.
  mz::MetaObject meta;
  meta.methods = {method("get", {ParamType::String}), method("put", {ParamType::String, ParamType::Int}),
                  method("get", {ParamType::String, ParamType::Int}),
                  method("put", {ParamType::String, ParamType::String})};
  for (unsigned int uid = 0; uid < meta.methods.size(); ++uid) meta.methods[uid].uid = uid;
  o.setMetaObject(meta);
  for (unsigned int uid = 0; uid < meta.methods.size(); ++uid)
    o.setInvoker(uid, [uid, &o](const Params&) {
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

struct Widget {
  mz::SignalF<void(AnyValue)> signal;
};

mz::AnyObject widgetObject(const boost::shared_ptr<Widget>& w) {
  [[maybe_unused]] static bool registered = [] {
    mz::ObjectTypeBuilder<Widget>("Widget").advertiseSignal("signal", &Widget::signal).registerType();
    return true;
  }();
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

TEST(ObjectType, NullHandlesRefuseEverythingOthersCompareByInstanceAndForeignTypesAreRefused) {
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
  EXPECT_EQ("type std::pair<int, int> is not registered as an object type",
            errorOf([] { mz::Conv<boost::shared_ptr<Custom>>::to(boost::make_shared<Custom>()); }));
}

// The on-subscribers callback may use the signal it reports on.
TEST(Signal, LinksDisconnectOnceOnSubscribersReportsFirstAndLastAndDeliveryMayChangeTheList) {
  std::vector<bool> events;
  mz::SignalF<void(mz::AnyValue)> a([&](bool on) { events.push_back(on); });
  mz::SignalBase b;
  a.trigger({});  // nobody connected: nothing to do, nothing to fail
  mz::SignalLink l1 = a.connect([](mz::AnyValue) {}), l2 = a.connect([](mz::AnyValue) {});
  mz::SignalLink l3 = b.connect([](const Params&) {});
  EXPECT_EQ(4u, std::set<mz::SignalLink>({l1, l2, l3, mz::kInvalidSignalLink}).size()) << "links are unique";
  EXPECT_FALSE(a.disconnect(l3) || a.disconnect(mz::kInvalidSignalLink)) << "a foreign link was found";
  EXPECT_TRUE(a.disconnect(l1));
  EXPECT_FALSE(a.disconnect(l1)) << "a link disconnects once";
  EXPECT_TRUE(a.disconnect(l2));
  a.disconnect(l2);  // already gone: no second "false"
  a.connect([](mz::AnyValue) {});
  a.disconnectAll();
  a.disconnectAll();
  EXPECT_EQ((std::vector<bool>{true, false, true, false}), events);
  EXPECT_TRUE(b.disconnect(l3));

  mz::SignalBase* self = nullptr;
  int reentered = 0;
  mz::SignalBase reentrant("void (int)",
                           [&](bool on) { reentered += on ? int(self->subscriberCount()) : 10; });
  self = &reentrant;
  reentrant.disconnect(reentrant.connect([](const Params&) {}));
  EXPECT_EQ(11, reentered);

  mz::SignalF<void(int)> sig;
  std::vector<std::string> calls;
  mz::SignalLink selfLink = 0, victim = 0, late = 0;
  selfLink = sig.connect([&](int) {
    calls.push_back("self");
    EXPECT_TRUE(sig.disconnect(selfLink));
  });
  sig.connect([&](int depth) {
    calls.push_back("killer" + std::to_string(depth));
    if (victim && !sig.disconnect(victim)) ADD_FAILURE() << "the victim could not be disconnected";
    victim = 0;
    if (!late) late = sig.connect([&](int) { calls.push_back("late"); });
    if (depth == 2) sig(3);
  });
  victim = sig.connect([&](int) { calls.push_back("victim"); });
  // The victim goes before its turn; the late one joins after the emission started.
  sig(1);
  EXPECT_EQ((std::vector<std::string>{"self", "killer1"}), calls);
  calls.clear();
  sig(2);
  // A queued call type is still delivered before trigger returns.
  sig.trigger({mz::AnyValue(9)}, mz::MetaCallType_Queued);
  EXPECT_EQ((std::vector<std::string>{"killer2", "killer3", "late", "late", "killer9", "late"}), calls);
  EXPECT_EQ(2u, sig.subscriberCount());
}

// Every memory key carries a signal: an unused one stays two pointers wide. A raw emission of the
// wrong shape is logged like a throwing callable.
TEST(Signal, SignaturesAreKeptAnUnusedSignalIsSmallAndFailingCallablesAreLogged) {
  EXPECT_LE(sizeof(mz::SignalF<void(mz::AnyValue)>), 16u);
  mz::SignalBase plain, named("void (int)");
  mz::SignalF<void(unsigned int, std::string, RXValue, float, bool)> typed;
  const std::pair<mz::SignalBase*, std::string> cases[] = {
      {&plain, "void ()"},
      {&named, "void (int)"},
      {&typed, "void (unsigned int, std::string, RXValue, float, bool)"}};
  for (const auto& [sig, text] : cases) {
    sig->connect([](const Params&) {});
    EXPECT_EQ(text, sig->signature());
  }
  testsupport::LogLines log("mz.signal");
  mz::SignalF<void(unsigned int, std::string)> sig;
  std::vector<std::string> calls;
  sig.connect([&](unsigned int id, const std::string& name) { calls.push_back(std::to_string(id) + name); });
  sig.connect([](const Params&) { throw std::runtime_error("boom in subscriber"); });
  sig.connect([](const Params&) { throw 42; });
  sig.connect([&](const Params& p) { calls.push_back(std::to_string(p.size()) + " arguments"); });
  EXPECT_NO_THROW(sig(7u, "Battery"));
  EXPECT_NO_THROW(sig.trigger({mz::AnyValue(1)}));
  EXPECT_EQ((std::vector<std::string>{"7Battery", "2 arguments", "1 arguments"}), calls);
  const std::string lines = log.joined();
  EXPECT_EQ(5u, log.size()) << lines;
  for (const char* part : {"boom in subscriber", "not a std::exception", "wrong number of arguments"})
    EXPECT_NE(std::string::npos, lines.find(part)) << lines;
  for (const auto& l : log.items()) EXPECT_EQ(0u, l.rfind("error: ", 0)) << l;
}

// Emitters and threads that keep connecting and disconnecting at once: a subscriber connected
// throughout sees every emission once, links stay unique, on-subscribers calls alternate.
TEST(Signal, ConcurrentConnectDisconnectEmit) {
  constexpr int kEmitters = 3, kEmissions = 2000, kChurners = 3, kChurn = 1000, kStable = 4;
  std::mutex mutex;
  std::vector<bool> transitions;
  std::set<mz::SignalLink> links;
  mz::SignalF<void(int)> sig([&](bool on) {
    std::lock_guard<std::mutex> l(mutex);
    transitions.push_back(on);
  });
  std::vector<std::atomic<long>> stable(kStable);
  std::vector<mz::SignalLink> stableLinks;
  for (auto& count : stable) stableLinks.push_back(sig.connect([&count](int v) { count += v; }));
  links.insert(stableLinks.begin(), stableLinks.end());
  // Without stable subscribers, transitions must still alternate.
  testsupport::Collector<bool> bare;
  mz::SignalBase flapping("void ()", [&](bool on) { bare.add(on); });

  std::vector<std::thread> threads;
  for (int t = 0; t < kChurners; ++t)
    threads.emplace_back([&] {
      std::vector<mz::SignalLink> mine;
      for (int i = 0; i < kChurn; ++i) {
        mine.push_back(sig.connect([](int) {}));
        if (!sig.disconnect(mine.back()))
          ADD_FAILURE() << "fresh link " << mine.back() << " not disconnected";
        flapping.disconnect(flapping.connect([](const Params&) {}));
      }
      std::lock_guard<std::mutex> g(mutex);
      links.insert(mine.begin(), mine.end());
    });
  for (int t = 0; t < kEmitters; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < kEmissions; ++i) {
        sig(1);
        flapping.trigger({});
      }
    });
  for (auto& th : threads) th.join();

  for (auto& count : stable) EXPECT_EQ(kEmitters * kEmissions, count.load());
  EXPECT_EQ(static_cast<std::size_t>(kStable + kChurners * kChurn), links.size()) << "duplicate link ids";
  for (auto l : stableLinks) EXPECT_TRUE(sig.disconnect(l));
  EXPECT_EQ((std::vector<bool>{true, false}), transitions) << "stable subscribers kept the signal subscribed";
  const std::vector<bool> flaps = bare.items();
  ASSERT_EQ(0u, flaps.size() % 2);
  for (std::size_t i = 0; i < flaps.size(); ++i) ASSERT_EQ(i % 2 == 0, flaps[i]) << "transition " << i;
  EXPECT_FALSE(flapping.hasSubscribers());
}

mz::AnyObject makeService() { return mz::AnyObject(std::make_shared<mz::DynamicObject>()); }

// Refused registrations announce nothing and use no id; ids are never reused.
TEST(Session, RegisterLookupUnregisterAndRefusals) {
  mz::Session s;
  std::vector<std::string> events;
  s.serviceRegistered.connect([&](unsigned int id, const std::string& name) {
    // The directory is updated and unlocked: lookups and registrations work here.
    events.push_back("+" + std::to_string(id) + name + (s.service(name).hasValue() ? " found" : " missing"));
    if (name == "A") s.registerService("B", makeService());
  });
  s.serviceUnregistered.connect([&](unsigned int id, const std::string& name) {
    events.push_back("-" + std::to_string(id) + name + (s.service(name).hasError() ? " gone" : " kept"));
  });
  mz::AnyObject a = makeService();
  EXPECT_EQ(1u, s.registerService("A", a));
  EXPECT_EQ("Service already registered: A", errorOf([&] { s.registerService("A", makeService()); }));
  EXPECT_EQ("Cannot register service M: the object is null",
            errorOf([&] { s.registerService("M", mz::AnyObject()); }));
  EXPECT_THROW(s.registerService("", makeService()), std::runtime_error);
  EXPECT_TRUE(s.service("A").value() == a) << "the first registration stays";
  std::string listed;
  for (const auto& info : s.services()) listed += std::to_string(info.id) + info.name + " ";
  EXPECT_EQ("1A 2B ", listed);
  EXPECT_TRUE(s.unregisterService(1));
  EXPECT_FALSE(s.unregisterService(1) || s.unregisterService(42));
  EXPECT_EQ("Service not found: A", errorOf([&] { s.service("A").value(); }));
  EXPECT_EQ(3u, s.registerService("A", a)) << "a refused registration used an id, or an id was reused";
  EXPECT_EQ((std::vector<std::string>{"+1A found", "+2B found", "-1A gone", "+3A found"}), events);
}

TEST(Session, ConcurrentRegistrationsGetUniqueIdsAndAreAllAnnounced) {
  mz::Session s;
  testsupport::Collector<unsigned int> announced;
  s.serviceRegistered.connect([&](unsigned int id, const std::string&) { announced.add(id); });
  constexpr int kThreads = 4, kEach = 200;
  std::vector<std::thread> threads;
  std::vector<std::vector<unsigned int>> ids(kThreads);
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        const std::string name = "svc" + std::to_string(t) + "_" + std::to_string(i);
        ids[t].push_back(s.registerService(name, makeService()));
        if (!s.service(name).hasValue()) ADD_FAILURE() << name << " not found right after registration";
        if (i % 2 && !s.unregisterService(ids[t].back())) ADD_FAILURE() << "could not unregister " << name;
      }
    });
  for (auto& th : threads) th.join();
  std::set<unsigned int> all;
  for (const auto& v : ids) all.insert(v.begin(), v.end());
  EXPECT_EQ(static_cast<std::size_t>(kThreads * kEach), all.size()) << "ids must be unique";
  const auto seen = announced.items();
  EXPECT_EQ(all, std::set<unsigned int>(seen.begin(), seen.end()));
  EXPECT_EQ(static_cast<std::size_t>(kThreads * kEach / 2), s.services().size());
}

TEST(Future, ValueErrorCancelAndABrokenPromiseSayWhyAndTheFirstOutcomeSticks) {
  mz::Promise<int> p;
  mz::Future<int> f = p.future();
  EXPECT_EQ(mz::FutureState::Running, f.wait(std::chrono::milliseconds(1))) << "a limited wait gives up";
  std::thread producer([p]() mutable { p.setValue(3); });
  EXPECT_EQ(mz::FutureState::FinishedWithValue, f.wait(kWait)) << "the producer's value never arrived";
  producer.join();
  EXPECT_FALSE(p.setValue(4) || p.setError("late")) << "a finished future keeps its first outcome";
  EXPECT_EQ(3, f.value());
  mz::Promise<void> v;
  mz::Future<void> g = v.future();
  std::thread waiter([g] { g.waitAndCheck(); });
  EXPECT_TRUE(v.setValue());
  waiter.join();
  EXPECT_TRUE(g.hasValue());

  mz::Promise<int> e;
  mz::Future<int> copy = e.future();
  EXPECT_TRUE(e.setError("disk on fire"));
  EXPECT_EQ("disk on fire", errorOf([&] { copy.value(); })) << "copies share one outcome";
  EXPECT_EQ("no route", errorOf([] { mz::makeFutureError<void>("no route").waitAndCheck(); }));
  mz::Promise<int> c;
  mz::Future<int> cf = c.future();
  cf.cancel();
  EXPECT_TRUE(c.isCancelRequested());
  EXPECT_FALSE(c.setValue(1) || c.setError("late")) << "the producer's late answer is dropped";
  EXPECT_EQ("future canceled", errorOf([&] { cf.value(); }));
  mz::Promise<void> q;
  EXPECT_TRUE(q.setCanceled("shutting down"));
  EXPECT_EQ("future canceled: shutting down", errorOf([&] { q.future().waitAndCheck(); }));
  mz::Future<int> done = mz::makeFutureValue(5);
  done.cancel();
  EXPECT_EQ(5, done.value()) << "cancelling a finished future changes nothing";
  // A default future has no producer: it is cancelled from the start.
  EXPECT_EQ(mz::FutureState::Canceled, mz::Future<int>().wait(std::chrono::milliseconds(1)));

  // The last promise going away fails its waiters instead of leaving them hanging.
  {
    mz::Promise<int> broken;
    f = broken.future();
    { mz::Promise<int> brokenCopy = broken; }
    EXPECT_EQ(mz::FutureState::Running, f.state()) << "a copy going away must not break the promise";
    mz::Promise<void> brokenVoid;
    g = brokenVoid.future();
    waiter = std::thread([g] { EXPECT_EQ(mz::FutureState::FinishedWithError, g.wait(kWait)); });
  }
  waiter.join();
  EXPECT_EQ("promise broken: the operation ended without a result", errorOf([&] { f.value(); }));
}

}  // namespace
