// RXValue, the value of the memory and the wire, and AnyValue, the argument of dynamic calls.
#include <gtest/gtest.h>

#include "mz/object.h"
#include "rx/rxerror.h"
#include "rx/rxvalue.h"
#include "support/capture.h"

namespace {

using mz::AnyValue;
using RX::RXValue;
using testsupport::errorOf;

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
  EXPECT_EQ(RXValue::Binary({0, 1, 255}), RXValue(bytes, sizeof bytes).toBinary());
  EXPECT_EQ(std::vector<std::string>({"a", "", "c"}),
            RXValue(std::vector<std::string>{"a", "", "c"}).toStringList());
}

// Both layers name the kind they expected and the kind (and text, cut short) they got.
TEST(RXValueTest, ConversionErrorsOfBothLayersNameBothKinds) {
  RXValue mixed(std::vector<std::string>{"a"}), pairs = RXValue::array();
  mixed.arrayPush(RXValue(2));
  pairs.arrayPush(mixed);
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
  EXPECT_EQ(RXValue("a"), RXValue(std::string("a")));
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

TEST(RXErrorTest, WhatCarriesModuleMethodMessageAndPlace) {
  EXPECT_STREQ("M::m: text", RX::RXError("M", "m", "text").what());
  const int line = __LINE__ + 2;
  try {
    RX_THROW("Mod", "meth", "thrown");
  } catch (const RX::RXError& e) {
    // Files of this tree are named from the tree's root, wherever it was built.
    EXPECT_EQ("Mod::meth: thrown (tests/platform/values_test.cpp:" + std::to_string(line) + ")",
              std::string(e.what()));
  }
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

}  // namespace
