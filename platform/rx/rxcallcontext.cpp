#include "rx/rxcallcontext.h"

#include <utility>

namespace RX {

namespace {
thread_local const std::atomic<bool>* tlsGone = nullptr;
}  // namespace

CallContext::CallContext(Flag gone) : flag_(std::move(gone)), previous_(tlsGone) { tlsGone = flag_.get(); }

CallContext::~CallContext() { tlsGone = previous_; }

bool CallContext::callerGone() { return tlsGone && tlsGone->load(std::memory_order_acquire); }

}  // namespace RX
