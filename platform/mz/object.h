// Dynamic objects of the messaging layer.
//
// mz::AnyObject is a shared handle to an object, local or remote, that is
// described by its MetaObject (methods with their signatures and texts,
// signals) and used by name: call, post, connect to a signal, emit on it.
// mz::GenericObject is what an AnyObject points to; DynamicObject is the
// in-process implementation that modules and registered object types use.
//
//   mz::AnyObject obj = ...;
//   int n = obj.call<int>("add", 1, 2);
//   mz::SignalLink l = obj.connect("signal", [](mz::AnyValue v) {...}).value();
//   obj.disconnect(l);
//
// Object types: a C++ type registered with ObjectTypeBuilder (its signals, and
// possibly methods) becomes an AnyObject when a boost::shared_ptr of it is
// returned from a published method; the AnyObject keeps the instance alive.
//
// Thread safety: AnyObject and MetaObject are safe to share between threads. A
// DynamicObject's methods may be called concurrently once it has been built;
// building (advertising methods and signals) happens before it is shared.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <typeindex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "mz/anyvalue.h"
#include "mz/future.h"
#include "mz/signal.h"
#include "mz/typeconv.h"

namespace mz {

// Raised when an object handle is used after its target went away.
class ObjectGoneError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};
// Raised when no method of that name accepts the given arguments.
class MethodNotFoundError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct MetaParameter {
  std::string name;
  std::string description;
  ParamType type = ParamType::Value;
};

// One published method. Several entries may share a name (overloads).
struct MetaMethod {
  unsigned int uid = 0;  // index in the object's method list
  std::string name;
  std::string className;
  std::string description;
  int mask = 0;
  std::vector<MetaParameter> parameters;
  bool hasReturn = false;  // whether a return name and description are published
  std::string returnName;
  std::string returnDescription;
  ParamType returnType = ParamType::Void;

  // "RXValue getData(string key, int deprecatedParameter)"
  std::string signature() const;
};

struct MetaSignal {
  unsigned int uid = 0;
  std::string name;
  std::string signature;  // "void (mz::AnyValue)"
};

class MetaObject {
 public:
  std::string description;
  std::vector<MetaMethod> methods;  // in publication order
  std::vector<MetaSignal> signals;

  // Every method of that name, in publication order (empty when none).
  std::vector<MetaMethod> findMethod(const std::string& name) const;
  // The signal's uid, or -1 when the object has no signal of that name.
  int signalId(const std::string& name) const;
  // Picks the overload of `name` that best accepts args: each argument scores
  // 3 when its kind is exactly the parameter's, 2 when the parameter takes any
  // value, 1 for an int going to a float; the highest total wins, the earliest
  // published on a tie. Returns -1 when nothing accepts the arguments.
  int resolve(const std::string& name, const GenericFunctionParameters& args) const;
  // The kinds of the arguments, "(string, array)", for errors such as
  // "RXMemory: no method insertData accepting (string, array)".
  static std::string describeArguments(const GenericFunctionParameters& args);
};

// The interface behind an AnyObject.
class GenericObject {
 public:
  virtual ~GenericObject() = default;
  virtual const MetaObject& metaObject() const = 0;
  // Runs the method on the calling thread (locally) or waits for its reply.
  virtual AnyValue metaCall(const std::string& method, const GenericFunctionParameters& params) = 0;
  // Calls by the uid of a resolved overload (saves the name lookup).
  virtual AnyValue metaCallById(unsigned int uid, const GenericFunctionParameters& params) = 0;
  // Queues the call and returns at once; throws when the target is gone.
  // The parameters are taken by value so that a caller done with them can
  // move them into the queued call instead of having them copied.
  virtual void metaPost(const std::string& method, GenericFunctionParameters params) = 0;
  virtual Future<SignalLink> metaConnect(const std::string& signal, SignalSubscriber subscriber,
                                         MetaCallType callType) = 0;
  virtual Future<void> metaDisconnect(SignalLink link) = 0;
  // Emits on one of the object's signals, as if the object had emitted.
  virtual void metaEmit(const std::string& signal, const GenericFunctionParameters& params) = 0;
  // What this handle designates: two handles on one target compare equal.
  virtual const void* identity() const { return this; }
};

class AnyObject {
 public:
  AnyObject() = default;
  explicit AnyObject(std::shared_ptr<GenericObject> impl) : impl_(std::move(impl)) {}

  bool isValid() const { return static_cast<bool>(impl_); }
  explicit operator bool() const { return isValid(); }
  const std::shared_ptr<GenericObject>& impl() const { return impl_; }

  // Each of the following throws std::runtime_error("This object is null") on
  // an empty handle.
  const MetaObject& metaObject() const;
  std::vector<MetaMethod> findMethod(const std::string& name) const { return metaObject().findMethod(name); }
  int signalId(const std::string& name) const { return metaObject().signalId(name); }

  AnyValue call(const std::string& method, const GenericFunctionParameters& params) const;
  template <typename R, typename... Args>
  R call(const std::string& method, const Args&... args) const {
    AnyValue r = call(method, GenericFunctionParameters{Conv<Args>::to(args)...});
    if constexpr (!std::is_void_v<R>) return Conv<R>::from(r);
  }
  void post(const std::string& method, GenericFunctionParameters params) const;
  Future<SignalLink> connect(const std::string& signal, SignalSubscriber subscriber,
                             MetaCallType callType = MetaCallType_Auto) const;
  // Connects a callable of one mz::AnyValue.
  Future<SignalLink> connect(const std::string& signal, std::function<void(AnyValue)> callback,
                             MetaCallType callType = MetaCallType_Auto) const;
  Future<void> disconnect(SignalLink link) const;
  void emit(const std::string& signal, const GenericFunctionParameters& params) const;

  bool operator==(const AnyObject& o) const;
  bool operator!=(const AnyObject& o) const { return !(*this == o); }

 private:
  GenericObject& checked() const;
  std::shared_ptr<GenericObject> impl_;
};

template <>
struct TypeConv<AnyObject> {
  static constexpr ParamType kind = ParamType::Object;
  static AnyObject from(const AnyValue& v) { return v.toObject(); }
  static AnyValue to(const AnyObject& v) { return AnyValue(v); }
};
template <typename T>
AnyValue TypeConv<boost::shared_ptr<T>>::to(const boost::shared_ptr<T>& p) {
  if (!p) return AnyValue();
  std::shared_ptr<void> owner(p.get(), [keep = p](void*) mutable { keep.reset(); });
  return AnyValue(makeRegisteredObject(typeid(T), std::move(owner), p.get()));
}

// In-process object: methods advertised with an invoker, signals owned
// elsewhere (by the object's C++ instance) and registered by pointer.
class DynamicObject : public GenericObject {
 public:
  using Invoker = std::function<AnyValue(const GenericFunctionParameters&)>;
  // Runs posted calls; when none is set, metaPost runs the call at once.
  using Poster = std::function<void(std::function<void()>)>;

  DynamicObject() = default;
  ~DynamicObject() override;

  // Publishes a method; fills method.uid and returns it.
  unsigned int advertiseMethod(MetaMethod method, Invoker invoker);
  // Replaces the invoker of a published method.
  void setInvoker(unsigned int uid, Invoker invoker);
  unsigned int advertiseSignal(const std::string& name, SignalBase* signal);
  virtual void setMetaObject(const MetaObject& meta);
  void setDescription(const std::string& d) { meta_.description = d; }
  void setPoster(Poster poster) { poster_ = std::move(poster); }

  const MetaObject& metaObject() const override { return meta_; }
  AnyValue metaCall(const std::string& method, const GenericFunctionParameters& params) override;
  AnyValue metaCallById(unsigned int uid, const GenericFunctionParameters& params) override;
  void metaPost(const std::string& method, GenericFunctionParameters params) override;
  Future<SignalLink> metaConnect(const std::string& signal, SignalSubscriber subscriber,
                                 MetaCallType callType) override;
  Future<void> metaDisconnect(SignalLink link) override;
  void metaEmit(const std::string& signal, const GenericFunctionParameters& params) override;

 protected:
  // Hook for subclasses: the object's name in error messages.
  virtual std::string objectName() const { return "object"; }
  // The overload of `method` for these arguments, or MethodNotFoundError.
  unsigned int resolveOrThrow(const std::string& method, const GenericFunctionParameters& params) const;

 private:
  void rebuildOverloads();

  // Set while the object is built, read-only once it is shared.
  MetaObject meta_;
  std::vector<Invoker> invokers_;       // by method uid
  std::vector<SignalBase*> signals_;    // by signal uid
  // The indexes in meta_.methods of each name, in publication order: a call then
  // scores only the few overloads of its name instead of scanning the whole
  // catalogue and comparing every name, which matters for posted
  // notifications that each resolve their callback again.
  std::unordered_map<std::string, std::vector<unsigned int>> overloads_;
  Poster poster_;
};

namespace detail {
template <typename R, typename... Args, typename F, std::size_t... I>
AnyValue invokeConverted(F& f, const GenericFunctionParameters& p, std::index_sequence<I...>) {
  if constexpr (std::is_void_v<R>) {
    f(Conv<Args>::from(p[I])...);
    return AnyValue();
  } else {
    return Conv<R>::to(f(Conv<Args>::from(p[I])...));
  }
}
}  // namespace detail

// Builds an invoker from a callable with typed parameters: arguments are
// converted with TypeConv, the count is checked, the result converted back.
template <typename R, typename... Args, typename F>
DynamicObject::Invoker makeInvoker(F f) {
  return [f = std::move(f)](const GenericFunctionParameters& p) mutable -> AnyValue {
    if (p.size() != sizeof...(Args))
      throw MethodNotFoundError("expected " + std::to_string(sizeof...(Args)) + " arguments, got " +
                                std::to_string(p.size()));
    return detail::invokeConverted<R, Args...>(f, p, std::index_sequence_for<Args...>());
  };
}

// Registration of C++ types as object types (see the file comment).
class ObjectType {
 public:
  using SignalAccessor = std::function<SignalBase*(void*)>;
  std::string typeName;
  MetaObject meta;                       // signals (and methods) of the type
  std::vector<SignalAccessor> signals;   // by signal uid
  std::vector<std::function<AnyValue(void*, const GenericFunctionParameters&)>> methods;  // by uid

  static void registerType(const std::type_info& type, std::shared_ptr<const ObjectType> objectType);
  // nullptr when the type was never registered.
  static std::shared_ptr<const ObjectType> find(const std::type_info& type);
};

template <typename T>
class ObjectTypeBuilder {
 public:
  explicit ObjectTypeBuilder(std::string typeName) { type_->typeName = std::move(typeName); }

  template <typename S>
  ObjectTypeBuilder& advertiseSignal(const std::string& name, S T::*member) {
    static_assert(std::is_base_of_v<SignalBase, S>, "advertiseSignal needs a signal member");
    MetaSignal s;
    s.uid = static_cast<unsigned int>(type_->meta.signals.size());
    s.name = name;
    s.signature = S::typeSignature();
    type_->meta.signals.push_back(s);
    type_->signals.push_back([member](void* o) -> SignalBase* { return &(static_cast<T*>(o)->*member); });
    return *this;
  }
  void registerType() { ObjectType::registerType(typeid(T), type_); }

 private:
  std::shared_ptr<ObjectType> type_ = std::make_shared<ObjectType>();
};

}  // namespace mz
