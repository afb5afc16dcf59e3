#include "mz/object.h"

#include <cxxabi.h>

#include <cstdlib>
#include <mutex>
#include <stdexcept>

#include "rx/rxlog.h"

namespace mz {

namespace {

RX::log::Category& objectLog() {
  static RX::log::Category& cat = RX::log::category("mz.object");
  return cat;
}

std::string demangle(const std::type_info& t) {
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> name(abi::__cxa_demangle(t.name(), nullptr, nullptr, &status), std::free);
  return status == 0 && name ? std::string(name.get()) : std::string(t.name());
}

bool isStringPair(const RX::RXValue& v) {
  return v.isArray() && v.getSize() == 2 && v[0].isString() && v[1].isString();
}

// How well an argument fits a parameter: 3 exact kind, 2 any value, 1 an int
// going to a float, 0 no fit.
int score(const AnyValue& arg, ParamType param) {
  if (param == ParamType::Value) return 2;
  if (arg.isOther()) return param == ParamType::Pointer && arg.otherAs<void*>() ? 3 : 0;
  const RX::RXValue& v = arg.toRXValue();
  switch (param) {
    case ParamType::Int:
      return v.isInt() ? 3 : 0;
    case ParamType::Float:
      return v.isFloat() ? 3 : v.isInt() ? 1 : 0;
    case ParamType::String:
      return v.isString() ? 3 : 0;
    case ParamType::Bool:
      return v.isBool() ? 3 : 0;
    case ParamType::Object:
      return v.isObject() ? 3 : 0;
    case ParamType::StringList:
    case ParamType::StringMap: {
      // An empty array fits both: the caller could not say which it meant.
      if (!v.isArray()) return 0;
      for (std::size_t i = 0; i < v.getSize(); ++i) {
        const bool fits = param == ParamType::StringList ? v[i].isString() : isStringPair(v[i]);
        if (!fits) return 0;
      }
      return 3;
    }
    case ParamType::Void:
    case ParamType::Value:
    case ParamType::Pointer:
      return 0;
  }
  return 0;
}

// The total score of args against m's parameters, -1 when one does not fit.
int scoreMethod(const MetaMethod& m, const GenericFunctionParameters& args) {
  if (m.parameters.size() != args.size()) return -1;
  int total = 0;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const int s = score(args[i], m.parameters[i].type);
    if (s == 0) return -1;
    total += s;
  }
  return total;
}

[[noreturn]] void throwNotFound(const MetaObject& meta, const std::string& objectName, const std::string& name,
                                const GenericFunctionParameters& params) {
  if (meta.findMethod(name).empty()) throw MethodNotFoundError(objectName + ": no method named " + name);
  throw MethodNotFoundError(objectName + ": no method " + name + " accepting " +
                            MetaObject::describeArguments(params));
}

// Resolves name against meta, or throws MethodNotFoundError saying what was
// missing on behalf of objectName.
unsigned int resolveOrThrow(const MetaObject& meta, const std::string& objectName, const std::string& name,
                            const GenericFunctionParameters& params) {
  const int uid = meta.resolve(name, params);
  if (uid >= 0) return static_cast<unsigned int>(uid);
  throwNotFound(meta, objectName, name, params);
}

// Runs a call whose caller does not wait for it: failures are logged because
// there is nobody left to report them to.
template <typename F>
void runDetached(const std::string& objectName, const std::string& method, F&& call) {
  try {
    call();
  } catch (const std::exception& e) {
    RX_ERROR(objectLog(), "posted call " << objectName << "." << method << " failed: " << e.what());
  } catch (...) {
    RX_ERROR(objectLog(), "posted call " << objectName << "." << method << " failed with an unknown exception");
  }
}

Future<void> finishedVoid() {
  Promise<void> p;
  p.setValue();
  return p.future();
}

}  // namespace

// ---- MetaMethod / MetaObject ----

std::string MetaMethod::signature() const {
  std::string s = paramTypeName(returnType);
  s += ' ';
  s += name;
  s += '(';
  for (std::size_t i = 0; i < parameters.size(); ++i) {
    if (i) s += ", ";
    s += paramTypeName(parameters[i].type);
    if (!parameters[i].name.empty()) s += ' ' + parameters[i].name;
  }
  return s + ')';
}

std::vector<MetaMethod> MetaObject::findMethod(const std::string& name) const {
  std::vector<MetaMethod> found;
  for (const MetaMethod& m : methods)
    if (m.name == name) found.push_back(m);
  return found;
}

int MetaObject::signalId(const std::string& name) const {
  for (const MetaSignal& s : signals)
    if (s.name == name) return static_cast<int>(s.uid);
  return -1;
}

int MetaObject::resolve(const std::string& name, const GenericFunctionParameters& args) const {
  int best = -1;
  int bestScore = -1;
  for (const MetaMethod& m : methods) {
    if (m.name != name) continue;
    const int total = scoreMethod(m, args);
    // Strictly greater: on a tie the earlier publication keeps the call.
    if (total > bestScore) {
      bestScore = total;
      best = static_cast<int>(m.uid);
    }
  }
  return best;
}

std::string MetaObject::describeArguments(const GenericFunctionParameters& args) {
  std::string s = "(";
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (i) s += ", ";
    if (args[i].isRXValue())
      s += RX::RXValue::TypeToString(args[i].toRXValue().getType());
    else if (args[i].otherAs<void*>())
      s += "pointer";
    else
      s += demangle(args[i].otherType());
  }
  return s + ")";
}

// ---- AnyObject ----

GenericObject& AnyObject::checked() const {
  if (!impl_) throw std::runtime_error("This object is null");
  return *impl_;
}

const MetaObject& AnyObject::metaObject() const { return checked().metaObject(); }

AnyValue AnyObject::call(const std::string& method, const GenericFunctionParameters& params) const {
  return checked().metaCall(method, params);
}

void AnyObject::post(const std::string& method, GenericFunctionParameters params) const {
  checked().metaPost(method, std::move(params));
}

Future<SignalLink> AnyObject::connect(const std::string& signal, SignalSubscriber subscriber,
                                      MetaCallType callType) const {
  return checked().metaConnect(signal, std::move(subscriber), callType);
}

Future<SignalLink> AnyObject::connect(const std::string& signal, std::function<void(AnyValue)> callback,
                                      MetaCallType callType) const {
  GenericObject& target = checked();
  return target.metaConnect(
      signal,
      [callback = std::move(callback)](const GenericFunctionParameters& p) {
        // A signal of no argument reaches the callback as an invalid value.
        if (p.empty()) return callback(AnyValue());
        if (p.size() != 1)
          throw ConversionError("signal emitted " + std::to_string(p.size()) +
                                " arguments to a callback that takes one");
        callback(p[0]);
      },
      callType);
}

Future<void> AnyObject::disconnect(SignalLink link) const { return checked().metaDisconnect(link); }

void AnyObject::emit(const std::string& signal, const GenericFunctionParameters& params) const {
  checked().metaEmit(signal, params);
}

bool AnyObject::operator==(const AnyObject& o) const {
  if (!impl_ || !o.impl_) return !impl_ && !o.impl_;
  return impl_ == o.impl_ || impl_->identity() == o.impl_->identity();
}

// ---- DynamicObject ----

DynamicObject::~DynamicObject() = default;

unsigned int DynamicObject::advertiseMethod(MetaMethod method, Invoker invoker) {
  method.uid = static_cast<unsigned int>(meta_.methods.size());
  meta_.methods.push_back(std::move(method));
  invokers_.push_back(std::move(invoker));
  overloads_[meta_.methods.back().name].push_back(meta_.methods.back().uid);
  return meta_.methods.back().uid;
}

void DynamicObject::rebuildOverloads() {
  overloads_.clear();
  for (std::size_t i = 0; i < meta_.methods.size(); ++i)
    overloads_[meta_.methods[i].name].push_back(static_cast<unsigned int>(i));
}

unsigned int DynamicObject::resolveOrThrow(const std::string& method, const GenericFunctionParameters& params) const {
  // Same choice as MetaObject::resolve: best total score, earliest on a tie.
  auto found = overloads_.find(method);
  if (found != overloads_.end()) {
    int best = -1;
    int bestScore = -1;
    for (unsigned int index : found->second) {
      const MetaMethod& m = meta_.methods[index];
      const int total = scoreMethod(m, params);
      if (total > bestScore) {
        bestScore = total;
        best = static_cast<int>(m.uid);
      }
    }
    if (best >= 0) return static_cast<unsigned int>(best);
  }
  throwNotFound(meta_, objectName(), method, params);
}

void DynamicObject::setInvoker(unsigned int uid, Invoker invoker) {
  if (uid >= invokers_.size())
    throw MethodNotFoundError(objectName() + ": no method with id " + std::to_string(uid));
  invokers_[uid] = std::move(invoker);
}

unsigned int DynamicObject::advertiseSignal(const std::string& name, SignalBase* signal) {
  MetaSignal s;
  s.uid = static_cast<unsigned int>(meta_.signals.size());
  s.name = name;
  s.signature = signal ? signal->signature() : std::string("void ()");
  meta_.signals.push_back(s);
  signals_.push_back(signal);
  return s.uid;
}

void DynamicObject::setMetaObject(const MetaObject& meta) {
  meta_ = meta;
  rebuildOverloads();
  // Entries the new description adds have no invoker or signal yet.
  invokers_.resize(meta_.methods.size());
  signals_.resize(meta_.signals.size(), nullptr);
}

AnyValue DynamicObject::metaCall(const std::string& method, const GenericFunctionParameters& params) {
  return metaCallById(resolveOrThrow(method, params), params);
}

AnyValue DynamicObject::metaCallById(unsigned int uid, const GenericFunctionParameters& params) {
  if (uid >= invokers_.size())
    throw MethodNotFoundError(objectName() + ": no method with id " + std::to_string(uid));
  if (!invokers_[uid])
    throw MethodNotFoundError(objectName() + ": method " + meta_.methods[uid].name + " has no implementation");
  return invokers_[uid](params);
}

void DynamicObject::metaPost(const std::string& method, GenericFunctionParameters params) {
  // Resolved now, so that a call that can never succeed fails in the caller.
  const unsigned int uid = resolveOrThrow(method, params);
  // REQUIRES (of the poster): it runs the task while this object lives, or drops it.
  auto task = [this, uid, method, params = std::move(params)] {
    runDetached(objectName(), method, [&] { metaCallById(uid, params); });
  };
  if (poster_)
    poster_(std::move(task));
  else
    task();
}

Future<SignalLink> DynamicObject::metaConnect(const std::string& signal, SignalSubscriber subscriber,
                                              MetaCallType /*callType*/) {
  const int id = meta_.signalId(signal);
  if (id < 0) return makeFutureError<SignalLink>(objectName() + ": no signal named " + signal);
  SignalBase* target = signals_[static_cast<std::size_t>(id)];
  if (!target) return makeFutureError<SignalLink>(objectName() + ": signal " + signal + " is not available");
  return makeFutureValue<SignalLink>(target->connect(std::move(subscriber)));
}

Future<void> DynamicObject::metaDisconnect(SignalLink link) {
  // Links are unique in the process, so asking each signal is unambiguous.
  for (SignalBase* s : signals_)
    if (s && s->disconnect(link)) return finishedVoid();
  return makeFutureError<void>(objectName() + ": no signal connection " + std::to_string(link));
}

void DynamicObject::metaEmit(const std::string& signal, const GenericFunctionParameters& params) {
  const int id = meta_.signalId(signal);
  if (id < 0 || !signals_[static_cast<std::size_t>(id)])
    throw std::runtime_error(objectName() + ": no signal named " + signal);
  signals_[static_cast<std::size_t>(id)]->trigger(params);
}

// ---- Object types ----

namespace {

struct TypeRegistry {
  std::mutex mutex;
  // Guarded by mutex.
  std::unordered_map<std::type_index, std::shared_ptr<const ObjectType>> types;
};

// Built on first use: types are registered from static initialisers of other
// libraries, whose order relative to ours is unknown.
TypeRegistry& registry() {
  static TypeRegistry r;
  return r;
}

// The AnyObject form of an instance of a registered type. Holds the instance
// alive through `owner`; its methods and signals come from the type.
class RegisteredObject : public GenericObject {
 public:
  RegisteredObject(std::shared_ptr<const ObjectType> type, std::shared_ptr<void> owner, void* object)
      : type_(std::move(type)), owner_(std::move(owner)), object_(object) {}

  const MetaObject& metaObject() const override { return type_->meta; }

  AnyValue metaCall(const std::string& method, const GenericFunctionParameters& params) override {
    return metaCallById(resolveOrThrow(type_->meta, type_->typeName, method, params), params);
  }
  AnyValue metaCallById(unsigned int uid, const GenericFunctionParameters& params) override {
    if (uid >= type_->methods.size() || !type_->methods[uid])
      throw MethodNotFoundError(type_->typeName + ": no method with id " + std::to_string(uid));
    return type_->methods[uid](object_, params);
  }
  void metaPost(const std::string& method, GenericFunctionParameters params) override {
    const unsigned int uid = resolveOrThrow(type_->meta, type_->typeName, method, params);
    runDetached(type_->typeName, method, [&] { metaCallById(uid, params); });
  }
  Future<SignalLink> metaConnect(const std::string& signal, SignalSubscriber subscriber, MetaCallType) override {
    SignalBase* s = find(signal);
    if (!s) return makeFutureError<SignalLink>(type_->typeName + ": no signal named " + signal);
    return makeFutureValue<SignalLink>(s->connect(std::move(subscriber)));
  }
  Future<void> metaDisconnect(SignalLink link) override {
    for (const auto& accessor : type_->signals)
      if (SignalBase* s = accessor(object_); s && s->disconnect(link)) return finishedVoid();
    return makeFutureError<void>(type_->typeName + ": no signal connection " + std::to_string(link));
  }
  void metaEmit(const std::string& signal, const GenericFunctionParameters& params) override {
    SignalBase* s = find(signal);
    if (!s) throw std::runtime_error(type_->typeName + ": no signal named " + signal);
    // Virtual: the type's signal decides what an emission from outside means.
    s->trigger(params);
  }
  const void* identity() const override { return object_; }

 private:
  SignalBase* find(const std::string& signal) const {
    const int id = type_->meta.signalId(signal);
    if (id < 0 || static_cast<std::size_t>(id) >= type_->signals.size()) return nullptr;
    return type_->signals[static_cast<std::size_t>(id)](object_);
  }

  // Constant after construction.
  const std::shared_ptr<const ObjectType> type_;
  const std::shared_ptr<void> owner_;
  void* const object_;
};

}  // namespace

void ObjectType::registerType(const std::type_info& type, std::shared_ptr<const ObjectType> objectType) {
  TypeRegistry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.types[std::type_index(type)] = std::move(objectType);
}

std::shared_ptr<const ObjectType> ObjectType::find(const std::type_info& type) {
  TypeRegistry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto it = r.types.find(std::type_index(type));
  return it == r.types.end() ? nullptr : it->second;
}

AnyObject makeRegisteredObject(const std::type_info& type, std::shared_ptr<void> owner, void* object) {
  std::shared_ptr<const ObjectType> objectType = ObjectType::find(type);
  if (!objectType) throw ConversionError("type " + demangle(type) + " is not registered as an object type");
  return AnyObject(std::make_shared<RegisteredObject>(std::move(objectType), std::move(owner), object));
}

}  // namespace mz
