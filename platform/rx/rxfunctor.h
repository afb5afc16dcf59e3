// RXFunctorBase: the callable through which an overloaded published method is
// bound. call() takes the arguments as one RXValue array and writes the result
// into `result`. The base call() only logs "RXFunctor::call not implemented"
// (category "rxcommon.RXFunctor", error level) and leaves the result alone.
//
// RXFunctor<C, R, Args...> holds a module and a member function; it unpacks the
// array into the member's arguments (RXError on a wrong count or kind) and
// stores the member's result. createFunctor() deduces the types:
//   createFunctor(this, static_cast<void (M::*)(const std::string&)>(&M::declareEvent))
// Functors are immutable once built; call() is as thread-safe as the member.
#pragma once

#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "mz/typeconv.h"
#include "rx/rxerror.h"
#include "rx/rxvalue.h"

namespace RX {

class RXFunctorBase {
 public:
  virtual ~RXFunctorBase();
  virtual void call(const RXValue& params, RXValue& result);
  // Kinds of the bound member's parameters and result, for the catalogue.
  virtual std::vector<mz::ParamType> paramTypes() const { return {}; }
  virtual mz::ParamType returnType() const { return mz::ParamType::Void; }
};

template <typename C, typename R, typename... Args>
class RXFunctor : public RXFunctorBase {
 public:
  using Member = R (C::*)(Args...);
  RXFunctor(C* object, Member member) : object_(object), member_(member) {}

  void call(const RXValue& params, RXValue& result) override {
    if (params.getSize() != sizeof...(Args) || (sizeof...(Args) > 0 && !params.isArray()))
      throw RXError("RXFunctor", "call",
                    "expected " + std::to_string(sizeof...(Args)) + " arguments, got " +
                        std::to_string(params.isArray() ? params.getSize() : 0));
    callWith(params, result, std::index_sequence_for<Args...>());
  }
  std::vector<mz::ParamType> paramTypes() const override { return {mz::Conv<Args>::kind...}; }
  mz::ParamType returnType() const override { return mz::Conv<R>::kind; }

 private:
  template <std::size_t... I>
  void callWith(const RXValue& params, RXValue& result, std::index_sequence<I...>) {
    std::tuple<std::remove_cv_t<std::remove_reference_t<Args>>...> args;
    try {
      args = std::make_tuple(mz::Conv<Args>::from(mz::AnyValue(params[I]))...);
    } catch (const mz::ConversionError& e) {
      throw RXError("RXFunctor", "call", e.what());
    }
    if constexpr (std::is_void_v<R>) {
      (object_->*member_)(std::get<I>(args)...);
    } else {
      result = mz::Conv<R>::to((object_->*member_)(std::get<I>(args)...)).toRXValue();
    }
  }
  C* object_;
  Member member_;
};

template <typename C, typename R, typename... Args>
std::unique_ptr<RXFunctorBase> createFunctor(C* object, R (C::*member)(Args...)) {
  return std::make_unique<RXFunctor<C, R, Args...>>(object, member);
}

}  // namespace RX
