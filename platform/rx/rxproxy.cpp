#include "rx/rxproxy.h"

#include <stdexcept>

namespace RX {

RXProxy::RXProxy(std::string moduleName, mz::AnyObject object)
    : moduleName_(std::move(moduleName)), object_(std::move(object)) {}

mz::AnyValue RXProxy::genericCall(const std::string& method, const mz::GenericFunctionParameters& params) {
  return object_.call(method, params);
}

mz::AnyValue RXProxy::callById(unsigned int uid, const mz::GenericFunctionParameters& params) {
  if (!object_.impl()) throw std::runtime_error("This object is null");
  return object_.impl()->metaCallById(uid, params);
}

unsigned int RXProxy::resolve(const std::string& method, const mz::GenericFunctionParameters& params) const {
  const mz::MetaObject& meta = object_.metaObject();
  int uid = meta.resolve(method, params);
  if (uid >= 0) return static_cast<unsigned int>(uid);
  if (meta.findMethod(method).empty()) throw mz::MethodNotFoundError(moduleName_ + ": no method named " + method);
  throw mz::MethodNotFoundError(moduleName_ + ": no method " + method + " accepting " +
                                mz::MetaObject::describeArguments(params));
}

void RXProxy::pCallNotify(const std::string& method, const std::string& key, const RXValue& value,
                          RXValue message, std::pair<int, int>* notifyState) {
  // Built in place and moved along to the queued call: an initializer list
  // would copy each argument once more, strings and all.
  mz::GenericFunctionParameters params;
  params.reserve(3);
  params.emplace_back(key);
  params.emplace_back(value);
  params.emplace_back(std::move(message));
  object_.post(method, std::move(params));
  if (notifyState) ++notifyState->first;
}

void RXProxy::genericPost(const std::string& method, const mz::GenericFunctionParameters& params) {
  object_.post(method, params);
}

}  // namespace RX
