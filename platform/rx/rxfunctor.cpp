#include "rx/rxfunctor.h"

#include "rx/rxlog.h"

namespace RX {

namespace {
const log::Category& functorLog() {
  static const log::Category& category = log::category("rxcommon.RXFunctor");
  return category;
}
}  // namespace

RXFunctorBase::~RXFunctorBase() = default;

// A functor type that forgot to override call() must not bring its caller
// down: the mistake is reported in the log and the result stays as it was.
void RXFunctorBase::call(const RXValue& /*params*/, RXValue& /*result*/) {
  RX_ERROR(functorLog(), "RXFunctor::call not implemented");
}

}  // namespace RX
