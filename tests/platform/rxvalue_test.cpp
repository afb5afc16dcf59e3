#include "rx/rxvalue.h"

#include <gtest/gtest.h>

#include "mz/object.h"
#include "rx/rxerror.h"
#include "support/capture.h"

namespace RX {
namespace {

using testsupport::errorOf;

static_assert(sizeof(RXValue) == 16, "RXValue is a 16-byte value");

RXValue list(std::vector<RXValue> items) {
  RXValue a = RXValue::array();
  for (auto& v : items) a.arrayPush(std::move(v));
  return a;
}

// Each kind: its code, name and size, its text for logs and the CLI.
TEST(RXValueTest, EveryKindHasItsCodeNameTextAndSize) {
  const unsigned char bytes[] = {0, 1, 255};
  const struct {
    RXValue v;
    std::string kind, text;
  } cases[] = {
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
  for (const auto& c : cases) {
    EXPECT_EQ(c.text, c.v.toString());
    EXPECT_EQ(c.kind, std::to_string(c.v.getType()) + " " + RXValue::TypeToString(c.v.getType()) + " " +
                          std::to_string(c.v.getSize()));
  }
  // Verbosity 0 leaves strings unquoted; floats read back to the same float.
  EXPECT_EQ("[1, say \"hi\", [true]]", list({RXValue(1), RXValue("say \"hi\""), list({RXValue(true)})}).toString(0));
  for (float x : {3.14159274f, 1.0f / 3.0f, 16777216.0f, 1.17549435e-38f})
    EXPECT_EQ(x, std::stof(RXValue(x).toString())) << RXValue(x).toString();
  EXPECT_EQ(RXValue::Binary({0, 1, 255}), RXValue(bytes, sizeof bytes).toBinary());
  EXPECT_EQ(std::vector<std::string>({"a", "", "c"}), RXValue(std::vector<std::string>{"a", "", "c"}).toStringList());
}

TEST(RXValueTest, ConversionsAreExactAndErrorsNameBothKinds) {
  RXValue mixed(std::vector<std::string>{"a"});
  mixed.arrayPush(RXValue(2));
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[] { (void)RXValue("abc").toInt(); }, "toInt: Can't convert a string to int"},
      {[] { (void)static_cast<int>(RXValue(1.0f)); }, "toInt: Can't convert a float to int"},
      {[] { (void)RXValue(1).toFloat(); }, "toFloat: Can't convert an int to float"},
      {[] { (void)RXValue(1).toBool(); }, "toBool: Can't convert an int to bool"},
      {[] { (void)RXValue().toStdString(); }, "toStdString: Can't convert an invalid value to string"},
      {[] { (void)RXValue("x").toBinary(); }, "toBinary: Can't convert a string to binary"},
      {[] { (void)RXValue(true).toObject(); }, "toObject: Can't convert a bool to object"},
      {[] { (void)RXValue(3).toStringList(); }, "toStringList: Can't convert an int to list of strings"},
      {[&] { (void)mixed.toStringList(); },
       "toStringList: Can't convert an array holding an int at index 1 to list of strings"},
      {[] { (void)RXValue(1)[0]; }, "operator[]: Can't index an int: not an array"},
      {[] { (void)RXValue("s").arrayPush(RXValue(1)); }, "array: Can't use a string as an array"},
  };
  for (const auto& [f, text] : cases) EXPECT_EQ("RXValue::" + text, errorOf(f));
  EXPECT_THROW((void)RXValue(1).toFloat(), RXError);
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
  EXPECT_EQ("RXValue::operator[]: Index 2 out of range for an array of size 2", errorOf([&] { (void)cv[2]; }));
  EXPECT_EQ("RXValue::operator[]: Index 7 out of range for an array of size 2", errorOf([&] { (void)v[7]; }));
  RXValue invalid, str("abc");
  EXPECT_THROW((void)invalid[0], RXError);
  EXPECT_THROW(str.arraySetSize(2), RXError);
  EXPECT_EQ("invalid \"abc\"", invalid.toString() + " " + str.toString()) << "a failed index changed the value";
  // Pushing the array into itself, or one of its own elements, copies first.
  RXValue self = list({RXValue(1)});
  self.arrayPush(self);
  self.arrayPush(self[0]);
  EXPECT_EQ("[1, [1], 1]", self.toString());
}

TEST(RXValueTest, EqualityComparesKindAndContent) {
  mz::AnyObject o1(std::make_shared<mz::DynamicObject>()), o2(std::make_shared<mz::DynamicObject>());
  const std::vector<std::string> xy{"x", "y"}, xz{"x", "z"};
  const std::pair<RXValue, RXValue> equal[] = {{RXValue(), RXValue()}, {RXValue("a"), RXValue(std::string("a"))},
      {list({RXValue(xy)}), list({RXValue(xy)})}, {RXValue(RXValue::Binary{1}), RXValue(RXValue::Binary{1})},
      {RXValue(o1), RXValue(o1)}};
  const std::pair<RXValue, RXValue> different[] = {{RXValue(3), RXValue(4)}, {RXValue(1), RXValue(1.0f)},
      {RXValue(1), RXValue(true)}, {RXValue(), RXValue(0)}, {RXValue(""), RXValue()}, {RXValue(xy), RXValue(xz)},
      {RXValue::array(1), RXValue::array(2)}, {RXValue(RXValue::Binary{1}), RXValue(RXValue::Binary{2})},
      {RXValue(o1), RXValue(o2)}};
  for (const auto& [a, b] : equal) EXPECT_TRUE(a == b) << a.toString();
  for (const auto& [a, b] : different) EXPECT_FALSE(a == b) << a.toString() << " vs " << b.toString();
}

// Modules hand out getPtrValue() addresses: assigning a value of the same kind,
// copied or moved, writes into the existing storage (an invalid value's
// address receives its first scalar). Copies are deep; a moved-from value is
// invalid; assigning the value, or one of its own elements, to itself is safe.
TEST(RXValueTest, AssignmentKeepsTheStorageOfTheSameKindAndCopiesDeep) {
  const std::pair<RXValue, RXValue> cases[] = {{RXValue(1), RXValue(7)}, {RXValue(1.0f), RXValue(2.5f)},
      {RXValue(false), RXValue(true)}, {RXValue("short"), RXValue(std::string(200, 'y'))},
      {RXValue(std::vector<std::string>{"a"}), RXValue(std::vector<std::string>{"b", "c"})},
      {RXValue(RXValue::Binary{1}), RXValue(RXValue::Binary{4, 5})}, {RXValue(), RXValue(7)},
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
  EXPECT_STREQ("M::m: text", RXError("M", "m", "text").what());
  const int line = __LINE__ + 2;
  try {
    RX_THROW("Mod", "meth", "thrown");
  } catch (const RXError& e) {
    // Files of this tree are named from the tree's root, wherever it was built.
    EXPECT_EQ("Mod::meth: thrown (tests/platform/rxvalue_test.cpp:" + std::to_string(line) + ")",
              std::string(e.what()));
  }
}

}  // namespace
}  // namespace RX
