// The command line's value syntax: JSON text <-> RXValue, base64 for binaries.
#include "jsonvalue.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "base64.h"
#include "mz/object.h"

namespace {

using RX::RXValue;
using rxcli::Base64;
using rxcli::JsonValue;

// The error text of a refused argument, or "accepted".
std::string refusal(const std::string& argument, JsonValue::Objects objects = JsonValue::Objects::Refuse) {
  try {
    (void)JsonValue::fromArgument(argument, objects);
    return "accepted";
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
}

RXValue array(std::initializer_list<RXValue> items) {
  RXValue a = RXValue::array();
  for (const RXValue& v : items) a.arrayPush(v);
  return a;
}

// The kinds typed and printed end to end are in cli_e2e_test; here the edges.
TEST(JsonValue, ArgumentsAtTheEdgesOfJson) {
  // clang-format off
  const std::vector<std::pair<std::string, RXValue>> cases = {
      {"5.5", RXValue(5.5f)}, {"1e3", RXValue(1000.0f)}, {" false ", RXValue(false)},
      {"2147483647", RXValue(2147483647)}, {"-2147483648", RXValue(-2147483647 - 1)},
      {"[1, [2.5, null]]", array({RXValue(1), array({RXValue(2.5f), RXValue()})})},
      // Not JSON: the text itself.
      {"NaN", RXValue("NaN")}, {"5 6", RXValue("5 6")}, {"[1, 2", RXValue("[1, 2")},
      {"{\"a\":}", RXValue("{\"a\":}")}, {"'x'", RXValue("'x'")}, {"True", RXValue("True")}};
  // clang-format on
  for (const auto& [typed, value] : cases) EXPECT_EQ(value, JsonValue::fromArgument(typed)) << typed;
}

TEST(JsonValue, JsonThatNamesNoValueIsRefused) {
  EXPECT_EQ("2147483648 does not fit a 32-bit int (write 2147483648.0 for a float)", refusal("2147483648"));
  EXPECT_EQ("-2147483649 does not fit a 32-bit int (write -2147483649.0 for a float)",
            refusal("-2147483649"));
  EXPECT_EQ("1e+39 does not fit a 32-bit float", refusal("1e39"));
  EXPECT_NE(std::string::npos, refusal("[1, {\"a\": \"b\"}]").find("JSON objects are not values"));
  EXPECT_EQ("an object reference cannot be written on the command line", refusal("{\"$object\": true}"));
  EXPECT_EQ("{\"$binary\": ...} needs a base64 string, got 5", refusal("{\"$binary\": 5}"));
  EXPECT_EQ("bad base64: character '!' at position 2", refusal("{\"$binary\": \"AA!C\"}"));
  // An array inside an array never becomes a map, even where maps are allowed.
  EXPECT_NE("accepted", refusal("[{\"a\": \"b\"}]", JsonValue::Objects::AsStringMap));
  EXPECT_EQ("a map from string to string needs string values; \"a\" holds 1",
            refusal("{\"a\": 1}", JsonValue::Objects::AsStringMap));
}

TEST(JsonValue, ObjectsOfStringsAreMapsInKeyOrderWhereAllowed) {
  const auto map = JsonValue::Objects::AsStringMap;
  EXPECT_EQ(array({array({RXValue("a"), RXValue("a!")}), array({RXValue("b"), RXValue("b!")})}),
            JsonValue::fromArgument("{\"b\": \"b!\", \"a\": \"a!\"}", map));
  EXPECT_EQ(RXValue::array(), JsonValue::fromArgument("{}", map));
  EXPECT_EQ(RXValue(RXValue::Binary{0xFF}), JsonValue::fromArgument("{\"$binary\": \"/w==\"}", map));
}

TEST(JsonValue, ValuesPrintInTheFormsTheyAreTypedInAndReadBackUnchanged) {
  // clang-format off
  const std::vector<std::pair<RXValue, std::string>> printed = {
      {RXValue(1.1f), "1.1"}, {RXValue(-0.5f), "-0.5"},  // the float's own shortest text
      {RXValue("a \"b\""), "\"a \\\"b\\\"\""}, {RXValue(RXValue::Binary{0, 1, 2}), "{\"$binary\":\"AAEC\"}"},
      {array({RXValue(1), RXValue(2.0f), RXValue::array()}), "[1,2.0,[]]"},
      {RXValue(std::string("a\xFF")), "\"a\xEF\xBF\xBD\""}};  // not UTF-8: still prints
  // clang-format on
  for (const auto& [value, text] : printed) EXPECT_EQ(text, JsonValue::toText(value));
  EXPECT_EQ(nlohmann::json({{"$object", true}}), JsonValue::toJson(RXValue(mz::AnyObject())));
  for (const char* text : {"-17", "0.1", "3.4028235e38", "1e-45", "{\"$binary\":\"AA==\"}"}) {
    const RXValue first = JsonValue::fromArgument(text);
    EXPECT_EQ(first, JsonValue::fromArgument(JsonValue::toText(first))) << text;
  }
}

TEST(Base64, EncodesDecodesAndRefuses) {
  // clang-format off
  const std::vector<std::pair<std::vector<unsigned char>, std::string>> cases = {
      {{}, ""}, {{'f'}, "Zg=="}, {{'f', 'o'}, "Zm8="}, {{'f', 'o', 'o'}, "Zm9v"}, {{'f', 'o', 'o', 'b'}, "Zm9vYg=="},
      {{0x00, 0xFF, 0xFE}, "AP/+"}};
  const std::vector<std::pair<std::string, std::string>> refused = {
      {"Zm 9v", "bad base64: character ' ' at position 2"},
      {"-_==", "bad base64: character '-' at position 0"},  // the URL alphabet is another one
      {"Zm9vY", "bad base64: a lone character at the end"},
      {"Zg=", "bad base64: padded text must have a length that is a multiple of 4"},
      {"Zg==Zg==", "bad base64: '=' before the end at position 2"}};
  // clang-format on
  for (const auto& [bytes, text] : cases) {
    EXPECT_EQ(text, Base64::encode(bytes));
    EXPECT_EQ(bytes, Base64::decode(text));
  }
  EXPECT_EQ((std::vector<unsigned char>{'f', 'o'}), Base64::decode("Zm8"));  // padding may be left out
  for (const auto& [text, error] : refused) {
    try {
      (void)Base64::decode(text);
      ADD_FAILURE() << text << " accepted";
    } catch (const std::invalid_argument& e) {
      EXPECT_EQ(error, e.what());
    }
  }
}

}  // namespace
