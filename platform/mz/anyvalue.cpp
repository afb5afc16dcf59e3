#include "mz/anyvalue.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

#include "mz/object.h"

namespace mz {

namespace {

std::string demangle(const std::type_info& type) {
  int status = 0;
  std::unique_ptr<char, decltype(&std::free)> name(abi::__cxa_demangle(type.name(), nullptr, nullptr, &status),
                                                   &std::free);
  return (status == 0 && name) ? std::string(name.get()) : std::string(type.name());
}

[[noreturn]] void throwExpected(const char* expected, const AnyValue& got) {
  throw ConversionError(std::string("expected ") + expected + ", got " + got.describe());
}

}  // namespace

AnyValue::AnyValue(const std::map<std::string, std::string>& v) : value_(RX::RXValue::array()) {
  value_.arrayReserve(v.size());
  for (const auto& [key, val] : v) {
    RX::RXValue pair = RX::RXValue::array();
    pair.arrayReserve(2);
    pair.arrayPush(RX::RXValue(key));
    pair.arrayPush(RX::RXValue(val));
    value_.arrayPush(std::move(pair));
  }
}

AnyValue::AnyValue(const AnyObject& object) : value_(object) {}

const RX::RXValue& AnyValue::toRXValue() const {
  if (other_.has_value()) {
    throw ConversionError("Can't convert a C++ value of type " + demangle(other_.type()) + " to an RXValue");
  }
  return value_;
}

int AnyValue::toInt() const {
  if (other_.has_value() || !value_.isInt()) throwExpected("int", *this);
  return value_.toInt();
}

float AnyValue::toFloat() const {
  if (!other_.has_value()) {
    if (value_.isFloat()) return value_.toFloat();
    if (value_.isInt()) return static_cast<float>(value_.toInt());
  }
  throwExpected("float", *this);
}

bool AnyValue::toBool() const {
  if (other_.has_value() || !value_.isBool()) throwExpected("bool", *this);
  return value_.toBool();
}

std::string AnyValue::toString() const {
  if (other_.has_value() || !value_.isString()) throwExpected("string", *this);
  return value_.toStdString();
}

std::vector<std::string> AnyValue::toStringList() const {
  if (other_.has_value() || !value_.isArray()) throwExpected("list of strings", *this);
  std::vector<std::string> out;
  out.reserve(value_.getSize());
  for (std::size_t i = 0; i < value_.getSize(); ++i) {
    if (!value_[i].isString()) throwExpected("list of strings", *this);
    out.push_back(value_[i].toStdString());
  }
  return out;
}

std::map<std::string, std::string> AnyValue::toStringMap() const {
  if (other_.has_value() || !value_.isArray()) throwExpected("map from string to string", *this);
  std::map<std::string, std::string> out;
  for (std::size_t i = 0; i < value_.getSize(); ++i) {
    const RX::RXValue& pair = value_[i];
    if (!pair.isArray() || pair.getSize() != 2 || !pair[0].isString() || !pair[1].isString()) {
      throwExpected("map from string to string", *this);
    }
    // A repeated key keeps its last value, as successive insertions would.
    out[pair[0].toStdString()] = pair[1].toStdString();
  }
  return out;
}

AnyObject AnyValue::toObject() const {
  if (other_.has_value() || !value_.isObject()) throwExpected("object", *this);
  return value_.toObject();
}

std::string AnyValue::describe() const {
  if (other_.has_value()) return "C++ value of type " + demangle(other_.type());
  switch (value_.getType()) {
    case RX::RXValue::TypeInvalid:
      return "invalid";
    case RX::RXValue::TypeObject:
      return "object";
    case RX::RXValue::TypeBinary:
      return "binary of " + std::to_string(value_.getSize()) + " bytes";
    default: {
      // Messages stay readable when a large array is passed by mistake.
      constexpr std::size_t kMaxText = 200;
      std::string text = value_.toString(1);
      if (text.size() > kMaxText) text = text.substr(0, kMaxText) + "...";
      return std::string(RX::RXValue::TypeToString(value_.getType())) + " " + text;
    }
  }
}

}  // namespace mz
