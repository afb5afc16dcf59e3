// mz::AnyValue: a value travelling through the messaging layer: arguments and
// results of dynamic calls, signal payloads. It holds an RX::RXValue (every kind,
// objects included) or, for in-process use only, another C++ value (a raw
// pointer, a custom type) held type-erased.
//
// toRXValue() converts; a value that has no RXValue form raises
// mz::ConversionError naming its C++ type. Thread safety as for RXValue.
#pragma once

#include <any>
#include <map>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

#include "rx/rxvalue.h"

namespace mz {

class ConversionError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class AnyObject;

class AnyValue {
 public:
  AnyValue() = default;
  AnyValue(const RX::RXValue& v) : value_(v) {}
  AnyValue(RX::RXValue&& v) : value_(std::move(v)) {}
  AnyValue(int v) : value_(v) {}
  AnyValue(float v) : value_(v) {}
  AnyValue(bool v) : value_(v) {}
  AnyValue(const char* v) : value_(v) {}
  AnyValue(const std::string& v) : value_(v) {}
  AnyValue(std::string&& v) : value_(std::move(v)) {}
  AnyValue(const std::vector<std::string>& v) : value_(v) {}
  // A map travels as an array of [key, value] string pairs, in key order.
  AnyValue(const std::map<std::string, std::string>& v);
  AnyValue(const AnyObject& object);

  // Wraps any other C++ value (in-process only; it cannot cross the network).
  template <typename T>
  static AnyValue fromOther(T v) {
    AnyValue a;
    a.other_ = std::move(v);
    return a;
  }

  // True when this holds a plain RXValue (possibly invalid).
  bool isRXValue() const { return !other_.has_value(); }
  bool isOther() const { return other_.has_value(); }
  const std::type_info& otherType() const { return other_.type(); }
  template <typename T>
  const T* otherAs() const { return std::any_cast<T>(&other_); }

  // The value as an RXValue; throws ConversionError for a foreign C++ value.
  const RX::RXValue& toRXValue() const;
  RX::RXValue& rxValue() { return value_; }

  // Typed access used by the call machinery; each throws ConversionError with
  // a message naming the expected and the actual kind.
  int toInt() const;
  float toFloat() const;  // an int is accepted and converted
  bool toBool() const;
  std::string toString() const;
  std::vector<std::string> toStringList() const;
  std::map<std::string, std::string> toStringMap() const;
  AnyObject toObject() const;

  // Readable text, for logs and messages.
  std::string describe() const;

 private:
  RX::RXValue value_;
  std::any other_;
};

using GenericFunctionParameters = std::vector<AnyValue>;

// How a call or an emission is delivered: Auto and Direct run on the calling
// thread, Queued is handed to an executor.
enum MetaCallType { MetaCallType_Auto = 0, MetaCallType_Direct = 1, MetaCallType_Queued = 2 };

}  // namespace mz
