#include "jsonvalue.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "base64.h"

namespace rxcli {

namespace {

constexpr const char* kBinaryTag = "$binary";
constexpr const char* kObjectTag = "$object";

// The float as the double whose shortest decimal text is the float's own
// shortest text: 1.1f prints as 1.1, not 1.100000023841858.
double widen(float f) {
  if (!std::isfinite(f)) return static_cast<double>(f);
  char buf[64];
  const auto res = std::to_chars(buf, buf + sizeof buf - 1, f);
  *res.ptr = '\0';
  return std::strtod(buf, nullptr);
}

RX::RXValue fromObject(const nlohmann::json& json, JsonValue::Objects objects) {
  if (json.size() == 1 && json.contains(kBinaryTag)) {
    const nlohmann::json& text = json.at(kBinaryTag);
    if (!text.is_string())
      throw std::invalid_argument(std::string("{\"") + kBinaryTag + "\": ...} needs a base64 string, got " +
                                  JsonValue::dump(text));
    return RX::RXValue(Base64::decode(text.get<std::string>()));
  }
  if (json.contains(kObjectTag))
    throw std::invalid_argument("an object reference cannot be written on the command line");
  if (objects == JsonValue::Objects::AsStringMap) {
    // nlohmann::json keeps object members in key order: the map's own order.
    RX::RXValue pairs = RX::RXValue::array();
    for (const auto& member : json.items()) {
      if (!member.value().is_string())
        throw std::invalid_argument("a map from string to string needs string values; \"" + member.key() +
                                    "\" holds " + JsonValue::dump(member.value()));
      RX::RXValue pair = RX::RXValue::array();
      pair.arrayPush(RX::RXValue(member.key()));
      pair.arrayPush(RX::RXValue(member.value().get<std::string>()));
      pairs.arrayPush(std::move(pair));
    }
    return pairs;
  }
  throw std::invalid_argument("JSON objects are not values: " + JsonValue::dump(json) +
                              " (the one object form is {\"$binary\": \"<base64>\"}; write pairs as [[\"key\", "
                              "value], ...])");
}

}  // namespace

RX::RXValue JsonValue::fromArgument(const std::string& text, Objects objects) {
  nlohmann::json json = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (json.is_discarded()) return RX::RXValue(text);
  return fromJson(json, objects);
}

RX::RXValue JsonValue::fromJson(const nlohmann::json& json, Objects objects) {
  switch (json.type()) {
    case nlohmann::json::value_t::null:
    case nlohmann::json::value_t::discarded:
      return RX::RXValue();
    case nlohmann::json::value_t::boolean:
      return RX::RXValue(json.get<bool>());
    case nlohmann::json::value_t::number_integer: {
      const auto n = json.get<std::int64_t>();
      if (n < std::numeric_limits<int>::min() || n > std::numeric_limits<int>::max())
        throw std::invalid_argument(std::to_string(n) + " does not fit a 32-bit int (write " + std::to_string(n) +
                                    ".0 for a float)");
      return RX::RXValue(static_cast<int>(n));
    }
    case nlohmann::json::value_t::number_unsigned: {
      const auto n = json.get<std::uint64_t>();
      if (n > static_cast<std::uint64_t>(std::numeric_limits<int>::max()))
        throw std::invalid_argument(std::to_string(n) + " does not fit a 32-bit int (write " + std::to_string(n) +
                                    ".0 for a float)");
      return RX::RXValue(static_cast<int>(n));
    }
    case nlohmann::json::value_t::number_float: {
      const double d = json.get<double>();
      // Halfway between FLT_MAX and the next power of two rounds to infinity.
      if (std::isfinite(d) && std::fabs(d) >= 0x1.ffffffp+127)
        throw std::invalid_argument(dump(json) + " does not fit a 32-bit float");
      return RX::RXValue(static_cast<float>(d));
    }
    case nlohmann::json::value_t::string:
      return RX::RXValue(json.get<std::string>());
    case nlohmann::json::value_t::array: {
      RX::RXValue array = RX::RXValue::array();
      array.arrayReserve(json.size());
      // Maps are arguments, never elements: nested objects are refused.
      for (const nlohmann::json& element : json) array.arrayPush(fromJson(element, Objects::Refuse));
      return array;
    }
    case nlohmann::json::value_t::object:
      return fromObject(json, objects);
    case nlohmann::json::value_t::binary:
      return RX::RXValue(RX::RXValue::Binary(json.get_binary().begin(), json.get_binary().end()));
  }
  throw std::invalid_argument("unsupported JSON value " + dump(json));
}

nlohmann::json JsonValue::toJson(const RX::RXValue& value) {
  switch (value.getType()) {
    case RX::RXValue::TypeInvalid:
      return nullptr;
    case RX::RXValue::TypeBool:
      return value.toBool();
    case RX::RXValue::TypeInt:
      return value.toInt();
    case RX::RXValue::TypeFloat:
      return widen(value.toFloat());
    case RX::RXValue::TypeString:
      return value.toStdString();
    case RX::RXValue::TypeBinary:
      return nlohmann::json{{kBinaryTag, Base64::encode(value.toBinary())}};
    case RX::RXValue::TypeObject:
      return nlohmann::json{{kObjectTag, true}};
    case RX::RXValue::TypeArray: {
      nlohmann::json array = nlohmann::json::array();
      for (std::size_t i = 0, n = value.getSize(); i < n; ++i) array.push_back(toJson(value[i]));
      return array;
    }
  }
  return nullptr;
}

std::string JsonValue::toText(const RX::RXValue& value) { return dump(toJson(value)); }

std::string JsonValue::dump(const nlohmann::json& json) {
  return json.dump(-1, ' ', /*ensure_ascii=*/false, nlohmann::json::error_handler_t::replace);
}

}  // namespace rxcli
