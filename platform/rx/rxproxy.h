// RXProxy: how a module reaches another module by name. It wraps the target's
// mz::AnyObject, which is a module of the same broker or a service in another
// process; callers do not see the difference, only the speed differs.
//
//   boost::shared_ptr<RXProxy> p = broker->getProxy("RXMemory");
//   p->call<void>("insertData", std::string("k"), 5);
//   RX::RXValue v = p->call<RX::RXValue>("getData", std::string("k"));
//
// call() runs the method on the calling thread for a local target (waits for
// the reply for a remote one) and throws what the method throws (RXError keeps
// its module, method and message). pCallNotify() posts and returns at once.
// A proxy may be used from several threads at once.
#pragma once

#include <string>
#include <utility>

#include "mz/object.h"
#include "rx/rxvalue.h"

namespace RX {

class RXProxy {
 public:
  RXProxy(std::string moduleName, mz::AnyObject object);
  virtual ~RXProxy() = default;

  const std::string& getModuleName() const { return moduleName_; }
  // The target object; empty only for a proxy built on an empty handle.
  const mz::AnyObject& object() const { return object_; }

  template <typename R = void, typename... Args>
  R call(const std::string& method, const Args&... args) {
    mz::AnyValue r = genericCall(method, mz::GenericFunctionParameters{mz::Conv<Args>::to(args)...});
    if constexpr (!std::is_void_v<R>) return mz::Conv<R>::from(r);
  }
  mz::AnyValue genericCall(const std::string& method, const mz::GenericFunctionParameters& params);
  // Calls an overload resolved beforehand (see resolve), skipping the lookup.
  mz::AnyValue callById(unsigned int uid, const mz::GenericFunctionParameters& params);
  // The uid of the overload of `method` that accepts these arguments; throws
  // mz::MethodNotFoundError when none does.
  unsigned int resolve(const std::string& method, const mz::GenericFunctionParameters& params) const;

  // Posts method(key, value, message) to the target and returns at once.
  // notifyState counts the posts made through it (first) and is otherwise the
  // caller's. Throws a std::exception when the target is gone.
  // The message is taken by value: a caller that built it for the post moves
  // it in.
  void pCallNotify(const std::string& method, const std::string& key, const RXValue& value, RXValue message,
                   std::pair<int, int>* notifyState);
  void genericPost(const std::string& method, const mz::GenericFunctionParameters& params);

 private:
  std::string moduleName_;
  mz::AnyObject object_;
};

}  // namespace RX
