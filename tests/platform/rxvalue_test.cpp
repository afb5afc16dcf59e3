#include "rx/rxvalue.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "mz/object.h"
#include "rx/rxerror.h"

namespace RX {
namespace {

static_assert(sizeof(RXValue) == 16, "RXValue is a 16-byte value");

// Runs f, which must throw RXError, and returns "method|message".
template <typename F>
std::string errorOf(F&& f) {
  try {
    f();
  } catch (const RXError& e) {
    EXPECT_EQ("RXValue", e.module());
    return e.method() + "|" + e.message();
  }
  return "no error";
}

TEST(RXValueTest, KindsRoundTripWithTheirCodes) {
  RXValue invalid;
  EXPECT_EQ(0, invalid.getType());
  EXPECT_FALSE(invalid.isValid());

  RXValue array = RXValue::array(2);
  EXPECT_EQ(1, array.getType());
  EXPECT_TRUE(array.isArray());
  EXPECT_EQ(2u, array.getSize());

  RXValue b(true);
  EXPECT_EQ(2, b.getType());
  EXPECT_TRUE(b.isBool());
  EXPECT_TRUE(b.toBool());
  EXPECT_FALSE(RXValue(false).toBool());

  RXValue i(-42);
  EXPECT_EQ(3, i.getType());
  EXPECT_TRUE(i.isInt());
  EXPECT_EQ(-42, i.toInt());
  EXPECT_EQ(-42, static_cast<int>(i));
  EXPECT_EQ(0u, i.getSize());

  RXValue f(1.25f);
  EXPECT_EQ(4, f.getType());
  EXPECT_TRUE(f.isFloat());
  EXPECT_EQ(1.25f, f.toFloat());

  RXValue fromLiteral("abc");
  RXValue fromString(std::string("abcd"));
  std::string movable(100, 'x');
  RXValue fromMoved(std::move(movable));
  EXPECT_EQ(5, fromLiteral.getType());
  EXPECT_TRUE(fromLiteral.isString());
  EXPECT_EQ("abc", fromLiteral.toStdString());
  EXPECT_EQ("abcd", static_cast<const std::string&>(fromString));
  EXPECT_EQ(4u, fromString.getSize());
  EXPECT_EQ(std::string(100, 'x'), fromMoved.toStdString());
  EXPECT_EQ("", RXValue(static_cast<const char*>(nullptr)).toStdString());

  mz::AnyObject handle(std::make_shared<mz::DynamicObject>());
  RXValue object(handle);
  EXPECT_EQ(6, object.getType());
  EXPECT_TRUE(object.isObject());
  EXPECT_EQ(handle, object.toObject());
  EXPECT_EQ(0u, object.getSize());

  const unsigned char bytes[] = {0, 1, 255};
  RXValue binary(bytes, sizeof bytes);
  EXPECT_EQ(7, binary.getType());
  EXPECT_TRUE(binary.isBinary());
  EXPECT_EQ(RXValue::Binary({0, 1, 255}), binary.toBinary());
  EXPECT_EQ(3u, binary.getSize());
  EXPECT_EQ(binary, RXValue(RXValue::Binary({0, 1, 255})));
  EXPECT_EQ(0u, RXValue(nullptr, 0).getSize());

  const std::vector<std::string> list{"a", "", "c"};
  RXValue strings(list);
  ASSERT_TRUE(strings.isArray());
  EXPECT_EQ(3u, strings.getSize());
  EXPECT_EQ("", strings[1].toStdString());
  EXPECT_EQ(list, strings.toStringList());
  EXPECT_EQ(std::vector<std::string>{}, RXValue(std::vector<std::string>{}).toStringList());
}

TEST(RXValueTest, TypeToStringNamesEveryCode) {
  const char* expected[] = {"invalid", "array", "bool", "int", "float", "string", "object", "binary"};
  for (int code = 0; code < 8; ++code) EXPECT_STREQ(expected[code], RXValue::TypeToString(code)) << code;
  EXPECT_STREQ("unknown", RXValue::TypeToString(8));
  EXPECT_STREQ("unknown", RXValue::TypeToString(-1));
}

TEST(RXValueTest, ConversionsAreExactAndNameBothKinds) {
  EXPECT_EQ("toInt|Can't convert a string to int", errorOf([] { (void)RXValue("abc").toInt(); }));
  EXPECT_EQ("toInt|Can't convert a float to int", errorOf([] { (void)static_cast<int>(RXValue(1.0f)); }));
  // Kinds are exact: an int is not silently a float.
  EXPECT_EQ("toFloat|Can't convert an int to float", errorOf([] { (void)RXValue(1).toFloat(); }));
  EXPECT_EQ("toBool|Can't convert an int to bool", errorOf([] { (void)RXValue(1).toBool(); }));
  EXPECT_EQ("toStdString|Can't convert an invalid value to string",
            errorOf([] { (void)RXValue().toStdString(); }));
  EXPECT_EQ("toStdString|Can't convert an array to string",
            errorOf([] { (void)static_cast<const std::string&>(RXValue::array()); }));
  EXPECT_EQ("toBinary|Can't convert a string to binary", errorOf([] { (void)RXValue("x").toBinary(); }));
  EXPECT_EQ("toObject|Can't convert a bool to object", errorOf([] { (void)RXValue(true).toObject(); }));
  EXPECT_EQ("toStringList|Can't convert an int to list of strings",
            errorOf([] { (void)RXValue(3).toStringList(); }));
  RXValue mixed(std::vector<std::string>{"a"});
  mixed.arrayPush(RXValue(2));
  EXPECT_EQ("toStringList|Can't convert an array holding an int at index 1 to list of strings",
            errorOf([&] { (void)mixed.toStringList(); }));

  try {
    (void)RXValue("abc").toInt();
    FAIL() << "no error";
  } catch (const RXError& e) {
    EXPECT_STREQ("RXValue::toInt: Can't convert a string to int", e.what());
  }
}

TEST(RXValueTest, ArraysGrowShrinkAndCheckIndexes) {
  RXValue v;
  v.arrayReserve(10);  // an invalid value becomes an empty array
  ASSERT_TRUE(v.isArray());
  EXPECT_EQ(0u, v.getSize());

  v.arrayPush(RXValue(1));
  RXValue s("two");
  v.arrayPush(s);
  EXPECT_EQ("two", s.toStdString()) << "pushing a copy leaves the source alone";
  RXValue moved("three");
  v.arrayPush(std::move(moved));
  EXPECT_FALSE(moved.isValid());
  EXPECT_EQ("[1, \"two\", \"three\"]", v.toString());

  v.arraySetSize(5);
  EXPECT_EQ(5u, v.getSize());
  EXPECT_FALSE(v[4].isValid());
  v[4] = RXValue(4.5f);
  EXPECT_EQ(4.5f, v[4].toFloat());
  v.arraySetSize(2);
  EXPECT_EQ("[1, \"two\"]", v.toString());

  RXValue grown;
  grown.arraySetSize(3);
  EXPECT_EQ("[invalid, invalid, invalid]", grown.toString());
  RXValue pushed;
  pushed.arrayPush(RXValue(true));
  EXPECT_EQ("[true]", pushed.toString());

  // Pushing the array into itself, or one of its own elements, copies first.
  RXValue self = RXValue::array();
  self.arrayPush(RXValue(1));
  self.arrayPush(self);
  self.arrayPush(self[0]);
  EXPECT_EQ("[1, [1], 1]", self.toString());

  const RXValue& cv = v;
  EXPECT_EQ("operator[]|Index 2 out of range for an array of size 2", errorOf([&] { (void)cv[2]; }));
  EXPECT_EQ("operator[]|Index 7 out of range for an array of size 2", errorOf([&] { (void)v[7]; }));
  EXPECT_EQ("operator[]|Can't index an int: not an array", errorOf([] { (void)RXValue(1)[0]; }));
  RXValue invalid;
  EXPECT_EQ("operator[]|Can't index an invalid value: not an array", errorOf([&] { (void)invalid[0]; }));
  EXPECT_FALSE(invalid.isValid()) << "a failed index must not change the value";
  RXValue str("abc");
  EXPECT_EQ("array|Can't use a string as an array", errorOf([&] { str.arrayPush(RXValue(1)); }));
  EXPECT_EQ("array|Can't use a string as an array", errorOf([&] { str.arraySetSize(2); }));
  EXPECT_EQ("abc", str.toStdString());
}

TEST(RXValueTest, EqualityComparesKindAndContent) {
  EXPECT_EQ(RXValue(), RXValue());
  EXPECT_EQ(RXValue(3), RXValue(3));
  EXPECT_NE(RXValue(3), RXValue(4));
  EXPECT_NE(RXValue(1), RXValue(1.0f)) << "different kinds are never equal";
  EXPECT_NE(RXValue(1), RXValue(true));
  EXPECT_NE(RXValue(), RXValue(0));
  EXPECT_EQ(RXValue(0.5f), RXValue(0.5f));
  EXPECT_EQ(RXValue("a"), RXValue(std::string("a")));
  EXPECT_NE(RXValue("a"), RXValue("b"));
  EXPECT_NE(RXValue(""), RXValue());

  RXValue a(std::vector<std::string>{"x", "y"});
  RXValue b(std::vector<std::string>{"x", "y"});
  EXPECT_EQ(a, b);
  b[1] = RXValue("z");
  EXPECT_NE(a, b);
  RXValue nested1 = RXValue::array();
  nested1.arrayPush(a);
  RXValue nested2 = RXValue::array();
  nested2.arrayPush(RXValue(std::vector<std::string>{"x", "y"}));
  EXPECT_EQ(nested1, nested2);
  EXPECT_NE(RXValue::array(1), RXValue::array(2));

  EXPECT_EQ(RXValue(RXValue::Binary{1, 2}), RXValue(RXValue::Binary{1, 2}));
  EXPECT_NE(RXValue(RXValue::Binary{1, 2}), RXValue(RXValue::Binary{1, 3}));

  mz::AnyObject o1(std::make_shared<mz::DynamicObject>());
  mz::AnyObject o2(std::make_shared<mz::DynamicObject>());
  EXPECT_EQ(RXValue(o1), RXValue(o1));
  EXPECT_NE(RXValue(o1), RXValue(o2));
}

TEST(RXValueTest, ToStringOfEveryKind) {
  EXPECT_EQ("invalid", RXValue().toString());
  EXPECT_EQ("true", RXValue(true).toString());
  EXPECT_EQ("false", RXValue(false).toString());
  EXPECT_EQ("5", RXValue(5).toString());
  EXPECT_EQ("-2147483648", RXValue(-2147483647 - 1).toString());
  EXPECT_EQ("1.5", RXValue(1.5f).toString());
  EXPECT_EQ("2.0", RXValue(2.0f).toString());
  EXPECT_EQ("-3.0", RXValue(-3.0f).toString());
  EXPECT_EQ("0.1", RXValue(0.1f).toString());
  EXPECT_EQ("1e+20", RXValue(1e20f).toString());
  EXPECT_EQ("0.0", RXValue(0.0f).toString());
  // The text reads back to the very same float.
  for (float x : {3.14159274f, 1.0f / 3.0f, 16777216.0f, 1.17549435e-38f}) {
    EXPECT_EQ(x, std::stof(RXValue(x).toString())) << RXValue(x).toString();
  }

  EXPECT_EQ("\"say \\\"hi\\\" \\\\o/\"", RXValue("say \"hi\" \\o/").toString(1));
  EXPECT_EQ("\"plain\"", RXValue("plain").toString());
  EXPECT_EQ("say \"hi\"", RXValue("say \"hi\"").toString(0));
  EXPECT_EQ("<b>", RXValue("<b>").toString(0));

  RXValue inner = RXValue::array();
  inner.arrayPush(RXValue(true));
  RXValue list = RXValue::array();
  list.arrayPush(RXValue(1));
  list.arrayPush(RXValue("a"));
  list.arrayPush(inner);
  EXPECT_EQ("[1, \"a\", [true]]", list.toString(1));
  EXPECT_EQ("[1, a, [true]]", list.toString(0));
  EXPECT_EQ("[]", RXValue::array().toString());

  EXPECT_EQ("<binary 12 bytes>", RXValue(RXValue::Binary(12, 0)).toString());
  EXPECT_EQ("<object>", RXValue(mz::AnyObject()).toString());
}

TEST(RXValueTest, PointerStaysValidAcrossSameKindAssignment) {
  RXValue i(1);
  void* pi = i.getPtrValue();
  i = RXValue(7);
  EXPECT_EQ(pi, i.getPtrValue());
  EXPECT_EQ(7, *static_cast<int*>(pi));
  *static_cast<int*>(pi) = 9;  // writes through the pointer are seen by the value
  EXPECT_EQ(9, i.toInt());

  RXValue f(1.0f);
  void* pf = f.getPtrValue();
  RXValue two(2.5f);
  f = two;
  EXPECT_EQ(pf, f.getPtrValue());
  EXPECT_EQ(2.5f, *static_cast<float*>(pf));

  RXValue b(false);
  void* pb = b.getPtrValue();
  b = RXValue(true);
  EXPECT_EQ(pb, b.getPtrValue());
  EXPECT_TRUE(*static_cast<bool*>(pb));

  RXValue s("short");
  void* ps = s.getPtrValue();
  RXValue longer(std::string(200, 'y'));
  s = longer;
  EXPECT_EQ(ps, s.getPtrValue());
  EXPECT_EQ(std::string(200, 'y'), *static_cast<std::string*>(ps));
  s = RXValue("moved in");
  EXPECT_EQ(ps, s.getPtrValue());
  EXPECT_EQ("moved in", *static_cast<std::string*>(ps));

  RXValue a(std::vector<std::string>{"a"});
  void* pa = a.getPtrValue();
  a = RXValue(std::vector<std::string>{"b", "c"});
  EXPECT_EQ(pa, a.getPtrValue());
  auto* vec = static_cast<std::vector<RXValue>*>(pa);
  ASSERT_EQ(2u, vec->size());
  EXPECT_EQ("c", (*vec)[1].toStdString());

  RXValue bin(RXValue::Binary{1});
  void* pbin = bin.getPtrValue();
  bin = RXValue(RXValue::Binary{4, 5});
  EXPECT_EQ(pbin, bin.getPtrValue());
  EXPECT_EQ(RXValue::Binary({4, 5}), *static_cast<RXValue::Binary*>(pbin));

  // A different kind replaces the payload.
  RXValue changing(3);
  changing = RXValue("text");
  EXPECT_EQ("text", *static_cast<std::string*>(changing.getPtrValue()));
  changing = RXValue();
  void* pc = changing.getPtrValue();
  changing = RXValue(4);
  EXPECT_EQ(pc, changing.getPtrValue()) << "back to invalid, then a scalar again";
}

// An address taken from an invalid value is where its first scalar lands,
// whether the scalar is copied or moved in.
TEST(RXValueTest, InvalidValueAddressReceivesTheFirstScalar) {
  const RXValue seven(7);
  const RXValue half(0.5f);
  for (const bool moved : {false, true}) {
    SCOPED_TRACE(moved ? "moved in" : "copied in");
    RXValue i;
    RXValue f;
    void* pi = i.getPtrValue();
    void* pf = f.getPtrValue();
    ASSERT_NE(nullptr, pi);
    ASSERT_NE(nullptr, pf);
    if (moved) {
      i = RXValue(7);
      f = RXValue(0.5f);
    } else {
      i = seven;
      f = half;
    }
    EXPECT_EQ(pi, i.getPtrValue());
    EXPECT_EQ(7, *static_cast<int*>(pi));
    EXPECT_EQ(pf, f.getPtrValue());
    EXPECT_EQ(0.5f, *static_cast<float*>(pf));
  }
}

TEST(RXValueTest, CopyIsDeepAndMoveLeavesSourceInvalid) {
  RXValue original = RXValue::array();
  original.arrayPush(RXValue("a"));
  original.arrayPush(RXValue(std::vector<std::string>{"b"}));

  RXValue copy(original);
  copy[0] = RXValue("changed");
  copy[1][0] = RXValue("changed too");
  EXPECT_EQ("[\"a\", [\"b\"]]", original.toString());
  EXPECT_EQ("[\"changed\", [\"changed too\"]]", copy.toString());

  RXValue assigned(5);
  assigned = original;
  EXPECT_EQ(original, assigned);
  assigned[1] = RXValue(0);
  EXPECT_EQ("[\"a\", [\"b\"]]", original.toString());

  RXValue moved(std::move(copy));
  EXPECT_FALSE(copy.isValid());
  EXPECT_EQ("[\"changed\", [\"changed too\"]]", moved.toString());

  RXValue target("x");
  target = std::move(moved);
  EXPECT_FALSE(moved.isValid());
  EXPECT_TRUE(target.isArray());
  RXValue sameKind("old");
  RXValue source("new");
  sameKind = std::move(source);
  EXPECT_FALSE(source.isValid());
  EXPECT_EQ("new", sameKind.toStdString());
  RXValue scalar(1);
  RXValue scalarSource(2);
  scalar = std::move(scalarSource);
  EXPECT_FALSE(scalarSource.isValid());
  EXPECT_EQ(2, scalar.toInt());

  // Self-assignment keeps the value.
  RXValue self("keep");
  RXValue& alias = self;
  self = alias;
  EXPECT_EQ("keep", self.toStdString());
  self = std::move(alias);
  EXPECT_EQ("keep", self.toStdString());

  // Assignment from one of the value's own elements, same kind and not.
  RXValue tree = RXValue::array();
  tree.arrayPush(RXValue("leaf"));
  tree = tree[0];
  EXPECT_EQ("leaf", tree.toStdString());

  RXValue nested = RXValue::array();
  nested.arrayPush(RXValue(std::vector<std::string>{"p", "q"}));
  nested.arrayPush(RXValue(1));
  nested = nested[0];
  EXPECT_EQ("[\"p\", \"q\"]", nested.toString());

  RXValue nestedMove = RXValue::array();
  nestedMove.arrayPush(RXValue(std::vector<std::string>{"m"}));
  nestedMove = std::move(nestedMove[0]);
  EXPECT_EQ("[\"m\"]", nestedMove.toString());
  RXValue scalarMove = RXValue::array();
  scalarMove.arrayPush(RXValue(8));
  scalarMove = std::move(scalarMove[0]);
  EXPECT_EQ(8, scalarMove.toInt());

  // Objects copy the handle.
  mz::AnyObject handle(std::make_shared<mz::DynamicObject>());
  RXValue obj(handle);
  RXValue objCopy(obj);
  EXPECT_EQ(handle, objCopy.toObject());
  RXValue objMoved(std::move(obj));
  EXPECT_FALSE(obj.isValid());
  EXPECT_EQ(handle, objMoved.toObject());
}

TEST(RXErrorTest, WhatCarriesModuleMethodMessageAndPlace) {
  RXError withPlace("RXMemory", "getData", "Data not found foo", "rxbase/src/rxmemory.cpp", 120);
  EXPECT_STREQ("RXMemory::getData: Data not found foo (rxbase/src/rxmemory.cpp:120)", withPlace.what());
  EXPECT_EQ("RXMemory", withPlace.module());
  EXPECT_EQ("getData", withPlace.method());
  EXPECT_EQ("Data not found foo", withPlace.message());
  EXPECT_EQ(120, withPlace.line());

  RXError noPlace("M", "m", "text");
  EXPECT_STREQ("M::m: text", noPlace.what());
  EXPECT_EQ("", noPlace.file());

  int line = 0;
  try {
    line = __LINE__ + 1;
    RX_THROW("Mod", "meth", "thrown");
  } catch (const RXError& e) {
    // Files of this tree are named from the tree's root, wherever it was built.
    EXPECT_EQ("tests/platform/rxvalue_test.cpp", e.file());
    EXPECT_EQ(line, e.line());
    EXPECT_EQ("Mod::meth: thrown (tests/platform/rxvalue_test.cpp:" + std::to_string(line) + ")",
              std::string(e.what()));
    const std::exception& base = e;
    EXPECT_STREQ(e.what(), base.what());
  }
}

}  // namespace
}  // namespace RX
