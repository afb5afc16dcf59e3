#include "rx/rxmodule.h"

#include <utility>

#include <nlohmann/json.hpp>

#include "mz/session.h"
#include "rx/rxbroker.h"
#include "rx/rxerror.h"
#include "rx/rxexecutor.h"
#include "rx/rxlog.h"

namespace RX {

namespace {

const log::Category& moduleLog() {
  static const log::Category& category = log::category("rx.module");
  return category;
}

std::string goneMessage(const std::string& name) { return "module " + name + " has gone away"; }

// A handle on a module that does not keep it alive: the session's directory
// and proxies hold this, so that a module's lifetime stays with its broker
// (and whoever else owns it), never with the callers that know its name.
class WeakModuleObject : public mz::GenericObject {
 public:
  WeakModuleObject(boost::weak_ptr<RXModule> module, const RXModule& target)
      : module_(std::move(module)),
        name_(target.getName()),
        identity_(static_cast<const mz::GenericObject*>(&target)),
        // A copy, so that the catalogue stays readable through this handle
        // even while the module itself is being destroyed.
        meta_(target.metaObject()) {}

  const mz::MetaObject& metaObject() const override { return meta_; }
  mz::AnyValue metaCall(const std::string& method, const mz::GenericFunctionParameters& params) override {
    return lock()->metaCall(method, params);
  }
  mz::AnyValue metaCallById(unsigned int uid, const mz::GenericFunctionParameters& params) override {
    return lock()->metaCallById(uid, params);
  }
  void metaPost(const std::string& method, mz::GenericFunctionParameters params) override {
    lock()->metaPost(method, std::move(params));
  }
  mz::Future<mz::SignalLink> metaConnect(const std::string& signal, mz::SignalSubscriber subscriber,
                                         mz::MetaCallType callType) override {
    return lock()->metaConnect(signal, std::move(subscriber), callType);
  }
  mz::Future<void> metaDisconnect(mz::SignalLink link) override { return lock()->metaDisconnect(link); }
  void metaEmit(const std::string& signal, const mz::GenericFunctionParameters& params) override {
    lock()->metaEmit(signal, params);
  }
  const void* identity() const override { return identity_; }

 private:
  boost::shared_ptr<RXModule> lock() const {
    boost::shared_ptr<RXModule> module = module_.lock();
    if (!module || module->hasExited()) throw mz::ObjectGoneError(goneMessage(name_));
    return module;
  }

  // Constant after construction.
  boost::weak_ptr<RXModule> module_;
  std::string name_;
  const void* identity_;
  mz::MetaObject meta_;
};

}  // namespace

std::string htmlEscape(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&#39;"; break;
      default: out += c;
    }
  }
  return out;
}

RXModule::RXModule(boost::shared_ptr<RXBroker> broker, const std::string& name) : broker_(broker), name_(name) {
  if (!broker) throw RXError("RXModule", "RXModule", "module " + name + " needs a broker");
  queue_ = broker->executor().makeQueue(name, broker->options().queueCapacity);
}

RXModule::~RXModule() {
  // Posted calls still waiting hold only weak references and would find the
  // module gone; dropping them now frees their arguments at once.
  if (queue_) queue_->close();
}

void RXModule::setModuleDescription(const std::string& description) {
  description_ = description;
  setDescription(description);
}

// ---- Publication ----

void RXModule::functionName(const std::string& name, const std::string& className, const std::string& description,
                            int mask) {
  current_ = mz::MetaMethod();
  current_.name = name;
  current_.className = className;
  current_.description = description;
  current_.mask = mask;
  haveCurrent_ = true;
}

void RXModule::addParam(const std::string& name, const std::string& description) {
  if (!haveCurrent_) throw RXError(name_, "addParam", "no method is being described (call functionName first)");
  mz::MetaParameter param;
  param.name = name;
  param.description = description;
  current_.parameters.push_back(std::move(param));
}

void RXModule::setReturn(const std::string& name, const std::string& description) {
  if (!haveCurrent_) throw RXError(name_, "setReturn", "no method is being described (call functionName first)");
  current_.hasReturn = true;
  current_.returnName = name;
  current_.returnDescription = description;
}

mz::MetaMethod& RXModule::getCurrentMethodDescription() {
  if (!haveCurrent_)
    throw RXError(name_, "getCurrentMethodDescription", "no method is being described (call functionName first)");
  return current_;
}

void RXModule::bindMethodOverload(std::unique_ptr<RXFunctorBase> functor) {
  if (!haveCurrent_)
    throw RXError(name_, "bindMethodOverload", "no method is being described (call functionName first)");
  if (!functor) throw RXError(name_, "bindMethodOverload", "method " + current_.name + ": no functor given");
  std::vector<mz::ParamType> params = functor->paramTypes();
  if (params.size() != current_.parameters.size())
    throw RXError(name_, "bindMethodOverload",
                  "method " + current_.name + ": the functor takes " + std::to_string(params.size()) +
                      " parameters but " + std::to_string(current_.parameters.size()) + " were described");
  mz::ParamType ret = functor->returnType();
  std::shared_ptr<RXFunctorBase> shared(std::move(functor));
  const std::size_t count = params.size();
  publish(
      [shared, count](const mz::GenericFunctionParameters& args) -> mz::AnyValue {
        if (args.size() != count)
          throw mz::MethodNotFoundError("expected " + std::to_string(count) + " arguments, got " +
                                        std::to_string(args.size()));
        RXValue packed = RXValue::array(count);
        for (std::size_t i = 0; i < count; ++i) packed[i] = args[i].toRXValue();
        RXValue result;
        shared->call(packed, result);
        return mz::AnyValue(std::move(result));
      },
      std::move(params), ret);
}

void RXModule::publish(mz::DynamicObject::Invoker invoker, std::vector<mz::ParamType> params, mz::ParamType ret) {
  if (!haveCurrent_) throw RXError(name_, "advertiseMethod", "no method is being described (call functionName first)");
  if (params.size() != current_.parameters.size())
    throw RXError(name_, "advertiseMethod",
                  "method " + current_.name + ": the member takes " + std::to_string(params.size()) +
                      " parameters but " + std::to_string(current_.parameters.size()) + " were described");
  for (std::size_t i = 0; i < params.size(); ++i) current_.parameters[i].type = params[i];
  current_.returnType = ret;
  mz::DynamicObject::advertiseMethod(current_, std::move(invoker));
  // Each description is published once; the next starts with functionName.
  haveCurrent_ = false;
}

void RXModule::metaPost(const std::string& method, mz::GenericFunctionParameters params) {
  boost::weak_ptr<RXModule> weak = weak_from_this();
  if (hasExited() || !queue_ || weak.expired()) throw mz::ObjectGoneError(goneMessage(name_));
  if (PostsRunHere::active() && queue_->runHereIfIdle([&] {
        try {
          metaCall(method, params);
        } catch (const std::exception& e) {
          RX_ERROR(moduleLog(), "posted call " << getName() << "." << method << " failed: " << e.what());
        }
      }))
    return;
  // Resolved now, by the poster: the task then carries a number instead of
  // the method's name and fits inside the queue's slot (no allocation), and
  // the drain thread calls the method straight away. A call that resolves to
  // nothing is queued by name, to fail and be logged in its turn as before.
  int uid = -1;
  try {
    uid = static_cast<int>(resolveOrThrow(method, params));
  } catch (const mz::MethodNotFoundError&) {
  }
  try {
    // The task holds only a weak reference: a module destroyed before its
    // turn comes is simply not called.
    if (uid >= 0) {
      queue_->post([weak = std::move(weak), uid = static_cast<unsigned int>(uid), params = std::move(params)] {
        boost::shared_ptr<RXModule> self = weak.lock();
        if (!self) return;
        try {
          self->metaCallById(uid, params);
        } catch (const std::exception& e) {
          RX_ERROR(moduleLog(), "posted call " << self->getName() << "." << self->methods()[uid].name
                                               << " failed: " << e.what());
        }
      });
      return;
    }
    queue_->post([weak = std::move(weak), method, params = std::move(params)] {
      boost::shared_ptr<RXModule> self = weak.lock();
      if (!self) return;
      try {
        self->metaCall(method, params);
      } catch (const std::exception& e) {
        RX_ERROR(moduleLog(), "posted call " << self->getName() << "." << method << " failed: " << e.what());
      }
    });
  } catch (const ExecutorStoppedError&) {
    if (queue_->isClosed()) throw mz::ObjectGoneError(goneMessage(name_));
    throw;
  }
}

mz::AnyObject RXModule::weakObject() {
  return mz::AnyObject(std::make_shared<WeakModuleObject>(weak_from_this(), *this));
}

// ---- Lifecycle ----

void RXModule::initModule() {
  boost::shared_ptr<RXModule> self = weak_from_this().lock();
  if (!self) throw RXError(name_, "initModule", "module " + name_ + " is not owned by a boost::shared_ptr");
  if (hasExited()) throw RXError(name_, "initModule", "module " + name_ + " has exited");
  if (registered_) return;
  boost::shared_ptr<RXBroker> broker = broker_.lock();
  if (!broker) throw RXError(name_, "initModule", "the broker of module " + name_ + " has gone away");
  broker->registerModule(self);
  try {
    serviceId_ = broker->session()->registerService(name_, weakObject());
  } catch (...) {
    broker->unregisterModule(name_);
    throw;
  }
  registered_ = true;
}

void RXModule::exit() {
  // Unregistering drops the broker's reference, which may be the last one.
  boost::shared_ptr<RXModule> keepAlive = weak_from_this().lock();
  exited_.store(true);
  if (registered_) {
    registered_ = false;
    if (boost::shared_ptr<RXBroker> broker = broker_.lock()) {
      // The directory first, so that no new proxy finds the module while it
      // is leaving the broker.
      if (auto session = broker->session()) session->unregisterService(serviceId_);
      broker->unregisterModule(name_);
    }
  }
  if (queue_) queue_->close();
}

boost::shared_ptr<RXBroker> RXModule::getParentBroker() const { return broker_.lock(); }

// ---- Virtual operations ----

std::string RXModule::httpGet() {
  std::string html;
  html += "<!DOCTYPE html>\n<html>\n<head><meta charset=\"utf-8\"><title>" + htmlEscape(name_) +
          "</title></head>\n<body>\n";
  html += "<h1>" + htmlEscape(name_) + "</h1>\n";
  if (!description_.empty()) html += "<p>" + htmlEscape(description_) + "</p>\n";
  html += "<h2>Methods</h2>\n";
  const std::vector<mz::MetaMethod>& catalogue = methods();
  if (catalogue.empty()) {
    html += "<p>No published methods.</p>\n";
  } else {
    html += "<table border=\"1\">\n<tr><th>Method</th><th>Description</th></tr>\n";
    for (const mz::MetaMethod& m : catalogue) {
      html += "<tr><td><code>" + htmlEscape(m.signature()) + "</code></td><td>" + htmlEscape(m.description);
      if (!m.parameters.empty() || m.hasReturn) {
        html += "<ul>";
        for (const mz::MetaParameter& p : m.parameters)
          html += "<li><b>" + htmlEscape(p.name) + "</b>: " + htmlEscape(p.description) + "</li>";
        if (m.hasReturn)
          html += "<li>returns <b>" + htmlEscape(m.returnName) + "</b>: " + htmlEscape(m.returnDescription) + "</li>";
        html += "</ul>";
      }
      html += "</td></tr>\n";
    }
    html += "</table>\n";
  }
  html += "</body>\n</html>\n";
  return html;
}

void RXModule::init() {}

void RXModule::stop() {}

std::string RXModule::version() const { return "0.1.0"; }

RXValue RXModule::execute(const std::string& command, const RXValue& /*arguments*/) {
  throw RXError(name_, "execute", "no command " + command);
}

LiveFeed* RXModule::liveFeed() { return nullptr; }

std::string RXModule::liveTableJson() { return "[]"; }

std::string RXModule::liveRowJson(const std::string& name) {
  return nlohmann::json({{"name", name}, {"removed", true}}).dump(-1, ' ', false,
                                                                  nlohmann::json::error_handler_t::replace);
}

}  // namespace RX
