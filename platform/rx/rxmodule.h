// RXModule: base class of every module a broker hosts. A module publishes
// methods into its catalogue, which other modules call by name through proxies
// (RXProxy), in the same process or over the network.
//
// Publishing one method:
//   functionName("getData", "RXMemory", "Gets the value ...");
//   addParam("key", "Name of the value.");
//   setReturn("data", "The data as an RXValue.");
//   bindMethodOverload(createFunctor(this, &RXMemory::getData));      // or
//   advertiseMethod(getCurrentMethodDescription(), this, &RXMemory::getData);
//
// Lifecycle: construct (publish), initModule() (the broker and its session
// know the module from then on), init(), ..., exit() (the broker forgets the
// module; its pending posted calls are dropped), destruction when the last
// shared reference goes. Modules are owned by boost::shared_ptr.
//
// Thread safety: publication happens during construction, on one thread.
// Published methods may be called concurrently from any thread once
// initModule() has returned; the base adds no locking around them.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include "mz/object.h"
#include "rx/rxfunctor.h"
#include "rx/rxvalue.h"

namespace RX {

class LiveFeed;
class RXBroker;
class SerialQueue;

// Escapes text for HTML (&, <, >, " and '): for the pages the framework
// writes about modules. A module's own page (httpGet) escapes as it sees fit.
std::string htmlEscape(const std::string& text);

class RXModule : public mz::DynamicObject, public boost::enable_shared_from_this<RXModule> {
 public:
  RXModule(boost::shared_ptr<RXBroker> broker, const std::string& name);
  ~RXModule() override;

  const std::string& getName() const { return name_; }
  void setModuleDescription(const std::string& description);
  const std::string& getModuleDescription() const { return description_; }

  // ---- Publication ----
  // Opens the description of a new method; mask 4 marks a method that must not
  // be offered to callers in other processes (it hands out raw addresses).
  void functionName(const std::string& name, const std::string& className, const std::string& description,
                    int mask = 0);
  void addParam(const std::string& name, const std::string& description);
  void setReturn(const std::string& name, const std::string& description);
  // The method being described (the last functionName).
  mz::MetaMethod& getCurrentMethodDescription();
  // Publishes the current method, called through an overload functor. Throws
  // RXError when the functor's parameter count differs from the addParam count.
  void bindMethodOverload(std::unique_ptr<RXFunctorBase> functor);
  // Publishes `description` as a member function of `object`, with the
  // signature taken from the member's types.
  template <typename C, typename R, typename... Args>
  void advertiseMethod(const mz::MetaMethod& description, C* object, R (C::*member)(Args...),
                       mz::MetaCallType callType = mz::MetaCallType_Auto);
  template <typename C, typename R, typename... Args>
  void advertiseMethod(const mz::MetaMethod& description, C* object, R (C::*member)(Args...) const,
                       mz::MetaCallType callType = mz::MetaCallType_Auto);

  // Posted calls run on the broker's executor, one at a time and in order
  // for this module. Throws mz::ObjectGoneError once the module has exited.
  void metaPost(const std::string& method, mz::GenericFunctionParameters params) override;
  // A handle that designates this module without keeping it alive: calls
  // through it throw mz::ObjectGoneError once the module is destroyed.
  mz::AnyObject weakObject();

  // The published catalogue, in publication order.
  const std::vector<mz::MetaMethod>& methods() const { return metaObject().methods; }

  // ---- Lifecycle ----
  // Registers the finished module with its broker (reachable by name through
  // getProxy) and as a service of the broker's session. REQUIRES: the module
  // is owned by a boost::shared_ptr.
  void initModule();
  // Unregisters the module from its broker and session. Idempotent.
  virtual void exit();
  boost::shared_ptr<RXBroker> getParentBroker() const;
  bool isRegistered() const { return registered_; }
  // True once exit() has run: the module refuses calls and posts from then on.
  bool hasExited() const { return exited_.load(); }
  // The queue of this module's posted calls (pending, dropped, capacity).
  const std::shared_ptr<SerialQueue>& postQueue() const { return queue_; }

  // ---- Virtual operations ----
  // An HTML page of the module's state; the base gives a page with the name,
  // the description and the catalogue.
  virtual std::string httpGet();
  // Start-up, called once after initModule(); the base does nothing.
  virtual void init();
  // Asks a running module to stop its activity; the base does nothing.
  virtual void stop();
  virtual std::string version() const;
  // Runs a module-specific command; the base knows none and throws RXError.
  virtual RXValue execute(const std::string& command, const RXValue& arguments);

  // ---- Live view (the broker's /live page) ----
  // A module that offers a live table of its items returns the feed on which
  // it reports changed item names; the base offers none (null).
  virtual LiveFeed* liveFeed();
  // Every item as a JSON array of objects, one per item, sorted by name; must
  // not fail on any item. The base: "[]".
  virtual std::string liveTableJson();
  // One item's object as in liveTableJson; {"name": NAME, "removed": true}
  // when there is no such item. The base: always removed.
  virtual std::string liveRowJson(const std::string& name);

 protected:
  std::string objectName() const override { return name_; }

 private:
  void publish(mz::DynamicObject::Invoker invoker, std::vector<mz::ParamType> params, mz::ParamType ret);

  // Constant after construction.
  boost::weak_ptr<RXBroker> broker_;
  std::string name_;
  std::string description_;
  std::shared_ptr<SerialQueue> queue_;  // this module's posted calls
  // Publication state, used only while the module is being built.
  mz::MetaMethod current_;
  bool haveCurrent_ = false;
  // Set by initModule / exit on the loading thread.
  bool registered_ = false;
  unsigned int serviceId_ = 0;
  // Set once by exit(), read from any thread.
  std::atomic<bool> exited_{false};
};

template <typename C, typename R, typename... Args>
void RXModule::advertiseMethod(const mz::MetaMethod& description, C* object, R (C::*member)(Args...),
                               mz::MetaCallType) {
  current_ = description;
  haveCurrent_ = true;
  publish(mz::makeInvoker<R, Args...>([object, member](auto&&... a) -> R {
            return (object->*member)(std::forward<decltype(a)>(a)...);
          }),
          {mz::Conv<Args>::kind...}, mz::Conv<R>::kind);
}

template <typename C, typename R, typename... Args>
void RXModule::advertiseMethod(const mz::MetaMethod& description, C* object, R (C::*member)(Args...) const,
                               mz::MetaCallType) {
  current_ = description;
  haveCurrent_ = true;
  publish(mz::makeInvoker<R, Args...>([object, member](auto&&... a) -> R {
            return (object->*member)(std::forward<decltype(a)>(a)...);
          }),
          {mz::Conv<Args>::kind...}, mz::Conv<R>::kind);
}

}  // namespace RX
