#include "net/metacodec.h"

#include <stdexcept>
#include <string>

namespace net {

namespace {

constexpr int kLastParamType = static_cast<int>(mz::ParamType::Pointer);

[[noreturn]] void malformed(const std::string& why) {
  throw std::runtime_error("malformed meta object: " + why);
}

const RX::RXValue& element(const RX::RXValue& array, std::size_t index, RX::RXValue::Type type,
                           const char* what) {
  if (!array.isArray() || index >= array.getSize()) malformed(std::string("missing ") + what);
  const RX::RXValue& v = array[index];
  if (v.getType() != type)
    malformed(std::string(what) + " should be " + RX::RXValue::TypeToString(type) + ", got " +
              RX::RXValue::TypeToString(v.getType()));
  return v;
}

std::string str(const RX::RXValue& a, std::size_t i, const char* what) {
  return element(a, i, RX::RXValue::TypeString, what).toStdString();
}
int integer(const RX::RXValue& a, std::size_t i, const char* what) {
  return element(a, i, RX::RXValue::TypeInt, what).toInt();
}
mz::ParamType paramType(const RX::RXValue& a, std::size_t i, const char* what) {
  const int t = integer(a, i, what);
  if (t < 0 || t > kLastParamType)
    malformed(std::string(what) + " " + std::to_string(t) + " is not a type code");
  return static_cast<mz::ParamType>(t);
}

}  // namespace

RX::RXValue encodeMetaObject(const mz::MetaObject& meta) {
  RX::RXValue methods = RX::RXValue::array(0);
  methods.arrayReserve(meta.methods.size());
  for (const mz::MetaMethod& m : meta.methods) {
    RX::RXValue params = RX::RXValue::array(0);
    for (const mz::MetaParameter& p : m.parameters) {
      RX::RXValue param = RX::RXValue::array(0);
      param.arrayPush(RX::RXValue(p.name));
      param.arrayPush(RX::RXValue(p.description));
      param.arrayPush(RX::RXValue(static_cast<int>(p.type)));
      params.arrayPush(std::move(param));
    }
    RX::RXValue method = RX::RXValue::array(0);
    method.arrayReserve(10);
    method.arrayPush(RX::RXValue(static_cast<int>(m.uid)));
    method.arrayPush(RX::RXValue(m.name));
    method.arrayPush(RX::RXValue(m.className));
    method.arrayPush(RX::RXValue(m.description));
    method.arrayPush(RX::RXValue(m.mask));
    method.arrayPush(std::move(params));
    method.arrayPush(RX::RXValue(m.hasReturn));
    method.arrayPush(RX::RXValue(m.returnName));
    method.arrayPush(RX::RXValue(m.returnDescription));
    method.arrayPush(RX::RXValue(static_cast<int>(m.returnType)));
    methods.arrayPush(std::move(method));
  }
  RX::RXValue signals = RX::RXValue::array(0);
  for (const mz::MetaSignal& s : meta.signals) {
    RX::RXValue signal = RX::RXValue::array(0);
    signal.arrayPush(RX::RXValue(static_cast<int>(s.uid)));
    signal.arrayPush(RX::RXValue(s.name));
    signal.arrayPush(RX::RXValue(s.signature));
    signals.arrayPush(std::move(signal));
  }
  RX::RXValue out = RX::RXValue::array(0);
  out.arrayPush(RX::RXValue(meta.description));
  out.arrayPush(std::move(methods));
  out.arrayPush(std::move(signals));
  return out;
}

mz::MetaObject decodeMetaObject(const RX::RXValue& value) {
  if (!value.isArray() || value.getSize() != 3) malformed("expected [description, methods, signals]");
  mz::MetaObject meta;
  meta.description = str(value, 0, "description");
  const RX::RXValue& methods = element(value, 1, RX::RXValue::TypeArray, "method list");
  meta.methods.reserve(methods.getSize());
  for (std::size_t i = 0; i < methods.getSize(); ++i) {
    const RX::RXValue& m = element(methods, i, RX::RXValue::TypeArray, "method");
    if (m.getSize() != 10) malformed("a method has " + std::to_string(m.getSize()) + " items, expected 10");
    mz::MetaMethod method;
    const int uid = integer(m, 0, "method uid");
    // The uid is the method's index: calls by uid rely on it.
    if (uid != static_cast<int>(i))
      malformed("method " + std::to_string(i) + " has uid " + std::to_string(uid));
    method.uid = static_cast<unsigned int>(uid);
    method.name = str(m, 1, "method name");
    method.className = str(m, 2, "class name");
    method.description = str(m, 3, "method description");
    method.mask = integer(m, 4, "mask");
    const RX::RXValue& params = element(m, 5, RX::RXValue::TypeArray, "parameter list");
    for (std::size_t j = 0; j < params.getSize(); ++j) {
      const RX::RXValue& p = element(params, j, RX::RXValue::TypeArray, "parameter");
      if (p.getSize() != 3)
        malformed("a parameter has " + std::to_string(p.getSize()) + " items, expected 3");
      method.parameters.push_back({str(p, 0, "parameter name"), str(p, 1, "parameter description"),
                                   paramType(p, 2, "parameter type")});
    }
    method.hasReturn = element(m, 6, RX::RXValue::TypeBool, "hasReturn").toBool();
    method.returnName = str(m, 7, "return name");
    method.returnDescription = str(m, 8, "return description");
    method.returnType = paramType(m, 9, "return type");
    meta.methods.push_back(std::move(method));
  }
  const RX::RXValue& signals = element(value, 2, RX::RXValue::TypeArray, "signal list");
  for (std::size_t i = 0; i < signals.getSize(); ++i) {
    const RX::RXValue& s = element(signals, i, RX::RXValue::TypeArray, "signal");
    if (s.getSize() != 3) malformed("a signal has " + std::to_string(s.getSize()) + " items, expected 3");
    mz::MetaSignal signal;
    const int uid = integer(s, 0, "signal uid");
    if (uid < 0) malformed("negative signal uid");
    signal.uid = static_cast<unsigned int>(uid);
    signal.name = str(s, 1, "signal name");
    signal.signature = str(s, 2, "signal signature");
    meta.signals.push_back(std::move(signal));
  }
  return meta;
}

}  // namespace net
