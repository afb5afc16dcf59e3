#include "mz/anyvalue.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "mz/object.h"
#include "mz/typeconv.h"

namespace anyvaluetest {
struct Custom {
  int x = 0;
};
}  // namespace anyvaluetest

namespace mz {
namespace {

// Runs f, which must throw ConversionError, and returns its text.
template <typename F>
std::string conversionError(F&& f) {
  try {
    f();
  } catch (const ConversionError& e) {
    return e.what();
  }
  return "no error";
}

TEST(AnyValueTest, TypedAccessConvertsOrNamesBothKinds) {
  EXPECT_EQ(7, AnyValue(7).toInt());
  EXPECT_EQ(2.5f, AnyValue(2.5f).toFloat());
  EXPECT_EQ(3.0f, AnyValue(3).toFloat()) << "an int is accepted where a float is expected";
  EXPECT_TRUE(AnyValue(true).toBool());
  EXPECT_EQ("s", AnyValue("s").toString());
  EXPECT_EQ("t", AnyValue(std::string("t")).toString());

  EXPECT_EQ("expected int, got string \"abc\"", conversionError([] { (void)AnyValue("abc").toInt(); }));
  EXPECT_EQ("expected int, got float 1.5", conversionError([] { (void)AnyValue(1.5f).toInt(); }));
  EXPECT_EQ("expected float, got bool true", conversionError([] { (void)AnyValue(true).toFloat(); }));
  EXPECT_EQ("expected bool, got int 1", conversionError([] { (void)AnyValue(1).toBool(); }));
  EXPECT_EQ("expected string, got invalid", conversionError([] { (void)AnyValue().toString(); }));
  EXPECT_EQ("expected string, got binary of 3 bytes",
            conversionError([] { (void)AnyValue(RX::RXValue(RX::RXValue::Binary(3, 0))).toString(); }));
  EXPECT_EQ("expected object, got int 5", conversionError([] { (void)AnyValue(5).toObject(); }));

  // A very long value is cut short in messages.
  const std::string text = conversionError([] { (void)AnyValue(std::string(1000, 'z')).toInt(); });
  EXPECT_EQ(0u, text.find("expected int, got string \"zzz"));
  EXPECT_EQ("...", text.substr(text.size() - 3));
  EXPECT_LT(text.size(), 300u);
}

TEST(AnyValueTest, ListsAndMapsTravelAsArrays) {
  const std::vector<std::string> list{"a", "b"};
  AnyValue l(list);
  EXPECT_EQ("[\"a\", \"b\"]", l.toRXValue().toString());
  EXPECT_EQ(list, l.toStringList());
  EXPECT_EQ("expected list of strings, got array [\"a\", 2]", conversionError([] {
              RX::RXValue v(std::vector<std::string>{"a"});
              v.arrayPush(RX::RXValue(2));
              (void)AnyValue(v).toStringList();
            }));
  EXPECT_EQ("expected list of strings, got string \"a\"", conversionError([] { (void)AnyValue("a").toStringList(); }));

  const std::map<std::string, std::string> map{{"k2", "v2"}, {"k1", "v1"}};
  AnyValue m(map);
  EXPECT_EQ("[[\"k1\", \"v1\"], [\"k2\", \"v2\"]]", m.toRXValue().toString()) << "pairs in key order";
  EXPECT_EQ(map, m.toStringMap());
  EXPECT_TRUE(AnyValue(std::map<std::string, std::string>{}).toStringMap().empty());
  EXPECT_TRUE(AnyValue(RX::RXValue::array()).toStringMap().empty());

  RX::RXValue shortPair = RX::RXValue::array();
  shortPair.arrayPush(RX::RXValue(std::vector<std::string>{"only key"}));
  EXPECT_EQ("expected map from string to string, got array [[\"only key\"]]",
            conversionError([&] { (void)AnyValue(shortPair).toStringMap(); }));
  RX::RXValue intValue = RX::RXValue::array();
  RX::RXValue pair = RX::RXValue::array();
  pair.arrayPush(RX::RXValue("k"));
  pair.arrayPush(RX::RXValue(1));
  intValue.arrayPush(pair);
  EXPECT_EQ("expected map from string to string, got array [[\"k\", 1]]",
            conversionError([&] { (void)AnyValue(intValue).toStringMap(); }));
}

TEST(AnyValueTest, ObjectsAndForeignValues) {
  AnyObject handle(std::make_shared<DynamicObject>());
  AnyValue o(handle);
  EXPECT_TRUE(o.isRXValue());
  EXPECT_TRUE(o.toRXValue().isObject());
  EXPECT_EQ(handle, o.toObject());
  EXPECT_EQ("object", o.describe());
  EXPECT_EQ(handle, TypeConv<AnyObject>::from(TypeConv<AnyObject>::to(handle)));

  AnyValue custom = AnyValue::fromOther(anyvaluetest::Custom{4});
  EXPECT_TRUE(custom.isOther());
  EXPECT_FALSE(custom.isRXValue());
  ASSERT_NE(nullptr, custom.otherAs<anyvaluetest::Custom>());
  EXPECT_EQ(4, custom.otherAs<anyvaluetest::Custom>()->x);
  EXPECT_EQ(nullptr, custom.otherAs<int>());
  EXPECT_EQ("Can't convert a C++ value of type anyvaluetest::Custom to an RXValue",
            conversionError([&] { (void)custom.toRXValue(); }));
  EXPECT_EQ("expected int, got C++ value of type anyvaluetest::Custom",
            conversionError([&] { (void)custom.toInt(); }));

  int target = 0;
  AnyValue ptr = TypeConv<void*>::to(&target);
  EXPECT_EQ(&target, TypeConv<void*>::from(ptr));
  EXPECT_EQ("expected a pointer, got int 3", conversionError([] { (void)TypeConv<void*>::from(AnyValue(3)); }));

  AnyValue plain(5);
  plain.rxValue() = RX::RXValue("edited");
  EXPECT_EQ("edited", plain.toString());
}

TEST(AnyValueTest, ParamTypeNames) {
  EXPECT_STREQ("void", paramTypeName(ParamType::Void));
  EXPECT_STREQ("bool", paramTypeName(ParamType::Bool));
  EXPECT_STREQ("int", paramTypeName(ParamType::Int));
  EXPECT_STREQ("float", paramTypeName(ParamType::Float));
  EXPECT_STREQ("string", paramTypeName(ParamType::String));
  EXPECT_STREQ("RXValue", paramTypeName(ParamType::Value));
  EXPECT_STREQ("list of strings", paramTypeName(ParamType::StringList));
  EXPECT_STREQ("map from string to string", paramTypeName(ParamType::StringMap));
  EXPECT_STREQ("object", paramTypeName(ParamType::Object));
  EXPECT_STREQ("pointer", paramTypeName(ParamType::Pointer));
  EXPECT_EQ(ParamType::String, Conv<const std::string&>::kind);
}

}  // namespace
}  // namespace mz
