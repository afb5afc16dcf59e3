// The command line's value syntax: JSON text <-> RXValue, base64 for binaries.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <stdexcept>
#include <string>

#include "base64.h"
#include "jsonvalue.h"
#include "mz/object.h"

namespace {

using rxcli::Base64;
using rxcli::JsonValue;
using RX::RXValue;

// The argument read as a value, printed back as JSON.
std::string roundTrip(const std::string& argument) { return JsonValue::toText(JsonValue::fromArgument(argument)); }

// The error text of a refused argument, or "accepted".
std::string refusal(const std::string& argument, JsonValue::Objects objects = JsonValue::Objects::Refuse) {
  try {
    (void)JsonValue::fromArgument(argument, objects);
    return "accepted";
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
}

TEST(JsonValue, ArgumentsBecomeEveryKind) {
  EXPECT_EQ(RXValue(5), JsonValue::fromArgument("5"));
  EXPECT_EQ(RXValue(-5), JsonValue::fromArgument("-5"));
  EXPECT_EQ(RXValue(5.5f), JsonValue::fromArgument("5.5"));
  EXPECT_EQ(RXValue(5.0f), JsonValue::fromArgument("5.0"));  // a fraction makes a float
  EXPECT_EQ(RXValue(1000.0f), JsonValue::fromArgument("1e3"));
  EXPECT_EQ(RXValue(true), JsonValue::fromArgument("true"));
  EXPECT_EQ(RXValue(false), JsonValue::fromArgument(" false "));
  EXPECT_EQ(RXValue("a b"), JsonValue::fromArgument("\"a b\""));
  EXPECT_EQ(RXValue("5"), JsonValue::fromArgument("\"5\""));
  EXPECT_EQ(RXValue(), JsonValue::fromArgument("null"));
  EXPECT_EQ(RXValue(RXValue::Binary{0, 1, 2}), JsonValue::fromArgument("{\"$binary\": \"AAEC\"}"));
  EXPECT_EQ(RXValue(RXValue::Binary{}), JsonValue::fromArgument("{\"$binary\": \"\"}"));

  RXValue inner = RXValue::array();
  inner.arrayPush(RXValue(2.5f));
  inner.arrayPush(RXValue());
  RXValue nested = RXValue::array();
  nested.arrayPush(RXValue(1));
  nested.arrayPush(RXValue("a"));
  nested.arrayPush(inner);
  EXPECT_EQ(nested, JsonValue::fromArgument("[1, \"a\", [2.5, null]]"));
  EXPECT_EQ(RXValue::array(), JsonValue::fromArgument("[]"));
  // The 32-bit limits are still ints.
  EXPECT_EQ(RXValue(2147483647), JsonValue::fromArgument("2147483647"));
  EXPECT_EQ(RXValue(-2147483647 - 1), JsonValue::fromArgument("-2147483648"));
}

TEST(JsonValue, TextThatIsNotJsonIsAString) {
  EXPECT_EQ(RXValue("word"), JsonValue::fromArgument("word"));
  EXPECT_EQ(RXValue("a b"), JsonValue::fromArgument("a b"));
  EXPECT_EQ(RXValue(""), JsonValue::fromArgument(""));
  EXPECT_EQ(RXValue("Robot/Battery"), JsonValue::fromArgument("Robot/Battery"));
  EXPECT_EQ(RXValue("NaN"), JsonValue::fromArgument("NaN"));
  EXPECT_EQ(RXValue("5 6"), JsonValue::fromArgument("5 6"));          // two documents
  EXPECT_EQ(RXValue("[1, 2"), JsonValue::fromArgument("[1, 2"));      // unfinished
  EXPECT_EQ(RXValue("{\"a\":}"), JsonValue::fromArgument("{\"a\":}"));  // malformed
  EXPECT_EQ(RXValue("'x'"), JsonValue::fromArgument("'x'"));          // JSON has no single quotes
  EXPECT_EQ(RXValue("True"), JsonValue::fromArgument("True"));
}

TEST(JsonValue, JsonThatNamesNoValueIsRefused) {
  EXPECT_EQ("2147483648 does not fit a 32-bit int (write 2147483648.0 for a float)", refusal("2147483648"));
  EXPECT_EQ("-2147483649 does not fit a 32-bit int (write -2147483649.0 for a float)", refusal("-2147483649"));
  EXPECT_EQ("1e+39 does not fit a 32-bit float", refusal("1e39"));
  EXPECT_NE(std::string::npos, refusal("{\"a\": 1}").find("JSON objects are not values: {\"a\":1}"));
  EXPECT_NE(std::string::npos, refusal("[1, {\"a\": \"b\"}]").find("JSON objects are not values"));
  EXPECT_EQ("an object reference cannot be written on the command line", refusal("{\"$object\": true}"));
  EXPECT_EQ("{\"$binary\": ...} needs a base64 string, got 5", refusal("{\"$binary\": 5}"));
  EXPECT_EQ("bad base64: character '!' at position 2", refusal("{\"$binary\": \"AA!C\"}"));
  // An array inside an array never becomes a map, even where maps are allowed.
  EXPECT_NE("accepted", refusal("[{\"a\": \"b\"}]", JsonValue::Objects::AsStringMap));
}

TEST(JsonValue, ObjectsOfStringsAreMapsWhereAllowed) {
  RXValue expected = RXValue::array();
  for (const char* k : {"a", "b"}) {
    RXValue pair = RXValue::array();
    pair.arrayPush(RXValue(k));
    pair.arrayPush(RXValue(std::string(k) + "!"));
    expected.arrayPush(pair);
  }
  // Pairs come in key order whatever the order typed.
  EXPECT_EQ(expected, JsonValue::fromArgument("{\"b\": \"b!\", \"a\": \"a!\"}", JsonValue::Objects::AsStringMap));
  EXPECT_EQ(RXValue::array(), JsonValue::fromArgument("{}", JsonValue::Objects::AsStringMap));
  EXPECT_EQ("a map from string to string needs string values; \"a\" holds 1",
            refusal("{\"a\": 1}", JsonValue::Objects::AsStringMap));
  // The binary form keeps its meaning.
  EXPECT_EQ(RXValue(RXValue::Binary{0xFF}),
            JsonValue::fromArgument("{\"$binary\": \"/w==\"}", JsonValue::Objects::AsStringMap));
}

TEST(JsonValue, ValuesPrintInTheFormsTheyAreTypedIn) {
  EXPECT_EQ("5", JsonValue::toText(RXValue(5)));
  EXPECT_EQ("5.0", JsonValue::toText(RXValue(5.0f)));  // a float keeps its fraction
  EXPECT_EQ("1.1", JsonValue::toText(RXValue(1.1f)));  // the float's own shortest text
  EXPECT_EQ("-0.5", JsonValue::toText(RXValue(-0.5f)));
  EXPECT_EQ("true", JsonValue::toText(RXValue(true)));
  EXPECT_EQ("\"a \\\"b\\\"\"", JsonValue::toText(RXValue("a \"b\"")));
  EXPECT_EQ("null", JsonValue::toText(RXValue()));
  EXPECT_EQ("{\"$binary\":\"AAEC\"}", JsonValue::toText(RXValue(RXValue::Binary{0, 1, 2})));
  RXValue array = RXValue::array();
  array.arrayPush(RXValue(1));
  array.arrayPush(RXValue(2.0f));
  array.arrayPush(RXValue::array());
  EXPECT_EQ("[1,2.0,[]]", JsonValue::toText(array));
  // A string that is not UTF-8 still prints (the bad byte replaced).
  EXPECT_EQ("\"a\xEF\xBF\xBD\"", JsonValue::toText(RXValue(std::string("a\xFF"))));
  // An object reference has no value form: it is only shown as one.
  EXPECT_EQ(nlohmann::json({{"$object", true}}), JsonValue::toJson(RXValue(mz::AnyObject())));
}

TEST(JsonValue, PrintedValuesReadBackUnchanged) {
  for (const char* text : {"5", "-17", "5.0", "0.1", "3.4028235e38", "1e-45", "true", "false", "\"\"",
                           "\"a b\"", "\"5\"", "null", "[]", "[1,\"a\",[2.5,null,false]]", "{\"$binary\":\"\"}",
                           "{\"$binary\":\"AA==\"}", "{\"$binary\":\"AAE=\"}", "{\"$binary\":\"AAEC\"}"}) {
    SCOPED_TRACE(text);
    const RXValue first = JsonValue::fromArgument(text);
    EXPECT_EQ(first, JsonValue::fromArgument(JsonValue::toText(first)));
  }
  EXPECT_EQ("0.1", roundTrip("0.1"));
  EXPECT_EQ("[1,\"a\",[2.5,null,false]]", roundTrip("[1, \"a\", [2.5, null, false]]"));
  EXPECT_EQ("\"word\"", roundTrip("word"));
}

TEST(Base64, EncodesAndDecodesEveryTailLength) {
  EXPECT_EQ("", Base64::encode({}));
  EXPECT_EQ("Zg==", Base64::encode({'f'}));
  EXPECT_EQ("Zm8=", Base64::encode({'f', 'o'}));
  EXPECT_EQ("Zm9v", Base64::encode({'f', 'o', 'o'}));
  EXPECT_EQ("Zm9vYg==", Base64::encode({'f', 'o', 'o', 'b'}));
  EXPECT_EQ("AP/+", Base64::encode({0x00, 0xFF, 0xFE}));

  std::vector<unsigned char> all;
  for (int i = 0; i < 256; ++i) all.push_back(static_cast<unsigned char>(i));
  for (std::size_t n = 0; n <= all.size(); n += 37) {
    const std::vector<unsigned char> part(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(n));
    EXPECT_EQ(part, Base64::decode(Base64::encode(part))) << n << " bytes";
  }
  // Padding may be left out.
  EXPECT_EQ((std::vector<unsigned char>{'f', 'o'}), Base64::decode("Zm8"));
  EXPECT_EQ((std::vector<unsigned char>{'f'}), Base64::decode("Zg"));
}

TEST(Base64, RefusesWhatIsNotBase64) {
  auto refused = [](const std::string& text) {
    try {
      (void)Base64::decode(text);
      return std::string("accepted");
    } catch (const std::invalid_argument& e) {
      return std::string(e.what());
    }
  };
  EXPECT_EQ("bad base64: character ' ' at position 2", refused("Zm 9v"));
  EXPECT_EQ("bad base64: character '-' at position 0", refused("-_=="));  // the URL alphabet is another one
  EXPECT_EQ("bad base64: a lone character at the end", refused("Zm9vY"));
  EXPECT_EQ("bad base64: padded text must have a length that is a multiple of 4", refused("Zg="));
  EXPECT_EQ("bad base64: '=' before the end at position 2", refused("Zg==Zg=="));
}

}  // namespace
