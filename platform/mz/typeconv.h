// Conversions between C++ parameter types and mz::AnyValue, used wherever a
// typed function meets the dynamic call machinery: advertised methods, overload
// functors, typed signals and typed proxy calls. Each supported type T has a
// TypeConv<T> with its kind (for catalogues and overload resolution), from()
// and to(). Conversions that cannot be made throw mz::ConversionError.
#pragma once

#include <map>
#include <string>
#include <type_traits>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "mz/anyvalue.h"

namespace mz {

// Kinds of parameters and results, as a catalogue shows them.
enum class ParamType {
  Void,
  Bool,
  Int,
  Float,
  String,
  Value,       // RX::RXValue or mz::AnyValue: accepts any kind
  StringList,  // std::vector<std::string>
  StringMap,   // std::map<std::string, std::string>
  Object,      // a dynamic object (registered type or mz::AnyObject)
  Pointer,     // an untyped address, valid only in its own process
};
// "void", "bool", "int", "float", "string", "RXValue", "list of strings",
// "map from string to string", "object", "pointer".
const char* paramTypeName(ParamType t);

class AnyObject;
// Wraps a shared pointer of a registered object type (see object.h).
AnyObject makeRegisteredObject(const std::type_info& type, std::shared_ptr<void> owner, void* object);

template <typename T, typename Enable = void>
struct TypeConv;

template <>
struct TypeConv<void> {
  static constexpr ParamType kind = ParamType::Void;
};
template <>
struct TypeConv<bool> {
  static constexpr ParamType kind = ParamType::Bool;
  static bool from(const AnyValue& v) { return v.toBool(); }
  static AnyValue to(bool v) { return AnyValue(v); }
};
template <>
struct TypeConv<int> {
  static constexpr ParamType kind = ParamType::Int;
  static int from(const AnyValue& v) { return v.toInt(); }
  static AnyValue to(int v) { return AnyValue(v); }
};
template <>
struct TypeConv<unsigned int> {
  static constexpr ParamType kind = ParamType::Int;
  static unsigned int from(const AnyValue& v) { return static_cast<unsigned int>(v.toInt()); }
  static AnyValue to(unsigned int v) { return AnyValue(static_cast<int>(v)); }
};
template <>
struct TypeConv<float> {
  static constexpr ParamType kind = ParamType::Float;
  static float from(const AnyValue& v) { return v.toFloat(); }
  static AnyValue to(float v) { return AnyValue(v); }
};
template <>
struct TypeConv<std::string> {
  static constexpr ParamType kind = ParamType::String;
  static std::string from(const AnyValue& v) { return v.toString(); }
  static AnyValue to(const std::string& v) { return AnyValue(v); }
};
template <>
struct TypeConv<RX::RXValue> {
  static constexpr ParamType kind = ParamType::Value;
  static RX::RXValue from(const AnyValue& v) { return v.toRXValue(); }
  static AnyValue to(const RX::RXValue& v) { return AnyValue(v); }
};
template <>
struct TypeConv<AnyValue> {
  static constexpr ParamType kind = ParamType::Value;
  static AnyValue from(const AnyValue& v) { return v; }
  static AnyValue to(const AnyValue& v) { return v; }
};
template <>
struct TypeConv<std::vector<std::string>> {
  static constexpr ParamType kind = ParamType::StringList;
  static std::vector<std::string> from(const AnyValue& v) { return v.toStringList(); }
  static AnyValue to(const std::vector<std::string>& v) { return AnyValue(v); }
};
template <>
struct TypeConv<std::map<std::string, std::string>> {
  static constexpr ParamType kind = ParamType::StringMap;
  static std::map<std::string, std::string> from(const AnyValue& v) { return v.toStringMap(); }
  static AnyValue to(const std::map<std::string, std::string>& v) { return AnyValue(v); }
};
template <>
struct TypeConv<void*> {
  static constexpr ParamType kind = ParamType::Pointer;
  static void* from(const AnyValue& v) {
    if (const auto* p = v.otherAs<void*>()) return *p;
    throw ConversionError("expected a pointer, got " + v.describe());
  }
  static AnyValue to(void* v) { return AnyValue::fromOther(v); }
};
// A shared pointer to a registered object type becomes an object for the caller.
template <typename T>
struct TypeConv<boost::shared_ptr<T>> {
  static constexpr ParamType kind = ParamType::Object;
  static AnyValue to(const boost::shared_ptr<T>& p);
};

// Strips references and const: the conversion of `const std::string&` is that
// of std::string.
template <typename T>
using Conv = TypeConv<std::remove_cv_t<std::remove_reference_t<T>>>;

}  // namespace mz
