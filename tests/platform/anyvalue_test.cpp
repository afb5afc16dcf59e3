#include "mz/anyvalue.h"

#include <gtest/gtest.h>

#include "mz/object.h"
#include "mz/typeconv.h"
#include "support/capture.h"

namespace anyvaluetest {
struct Custom {
  int x = 0;
};
}  // namespace anyvaluetest

namespace mz {
namespace {

using testsupport::errorOf;

TEST(AnyValueTest, TypedAccessConvertsOrNamesBothKinds) {
  EXPECT_EQ(3.0f, AnyValue(3).toFloat()) << "an int is accepted where a float is expected";
  AnyValue custom = AnyValue::fromOther(anyvaluetest::Custom{4});
  RX::RXValue mixed(std::vector<std::string>{"a"}), pairs = RX::RXValue::array();
  mixed.arrayPush(RX::RXValue(2));
  pairs.arrayPush(mixed);
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[] { (void)AnyValue("abc").toInt(); }, "expected int, got string \"abc\""},
      {[] { (void)AnyValue(1.5f).toInt(); }, "expected int, got float 1.5"},
      {[] { (void)AnyValue(true).toFloat(); }, "expected float, got bool true"},
      {[] { (void)AnyValue(1).toBool(); }, "expected bool, got int 1"},
      {[] { (void)AnyValue().toString(); }, "expected string, got invalid"},
      {[] { (void)AnyValue(RX::RXValue(RX::RXValue::Binary(3, 0))).toString(); },
       "expected string, got binary of 3 bytes"},
      {[] { (void)AnyValue(5).toObject(); }, "expected object, got int 5"},
      {[&] { (void)AnyValue(mixed).toStringList(); }, "expected list of strings, got array [\"a\", 2]"},
      {[&] { (void)AnyValue(pairs).toStringMap(); }, "expected map from string to string, got array [[\"a\", 2]]"},
      {[&] { (void)custom.toRXValue(); }, "Can't convert a C++ value of type anyvaluetest::Custom to an RXValue"},
      {[&] { (void)custom.toInt(); }, "expected int, got C++ value of type anyvaluetest::Custom"},
      {[] { (void)TypeConv<void*>::from(AnyValue(3)); }, "expected a pointer, got int 3"},
  };
  for (const auto& [f, text] : cases) EXPECT_EQ(text, errorOf(f));
  EXPECT_THROW((void)AnyValue(1).toBool(), ConversionError);
  // A very long value is cut short in messages.
  const std::string text = errorOf([] { (void)AnyValue(std::string(1000, 'z')).toInt(); });
  EXPECT_EQ(0u, text.find("expected int, got string \"zzz"));
  EXPECT_EQ("...", text.substr(text.size() - 3));
  EXPECT_LT(text.size(), 300u);
}

// Lists and maps travel as arrays (of pairs, in key order); objects, pointers
// and C++ values keep their identity.
TEST(AnyValueTest, ContainersTravelAsArraysAndHandlesKeepTheirIdentity) {
  const std::vector<std::string> list{"a", "b"};
  EXPECT_EQ("[\"a\", \"b\"]", AnyValue(list).toRXValue().toString());
  EXPECT_EQ(list, AnyValue(list).toStringList());
  const std::map<std::string, std::string> map{{"k2", "v2"}, {"k1", "v1"}};
  EXPECT_EQ("[[\"k1\", \"v1\"], [\"k2\", \"v2\"]]", AnyValue(map).toRXValue().toString());
  EXPECT_EQ(map, AnyValue(map).toStringMap());
  EXPECT_TRUE(AnyValue(RX::RXValue::array()).toStringMap().empty());
  AnyObject handle(std::make_shared<DynamicObject>());
  EXPECT_EQ(handle, TypeConv<AnyObject>::from(TypeConv<AnyObject>::to(handle)));
  AnyValue custom = AnyValue::fromOther(anyvaluetest::Custom{4});
  ASSERT_NE(nullptr, custom.otherAs<anyvaluetest::Custom>());
  EXPECT_EQ(4, custom.otherAs<anyvaluetest::Custom>()->x);
  EXPECT_EQ(nullptr, custom.otherAs<int>());
  int target = 0;
  EXPECT_EQ(&target, TypeConv<void*>::from(TypeConv<void*>::to(&target)));
}

}  // namespace
}  // namespace mz
