#include "mz/signal.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <mutex>
#include <typeindex>
#include <unordered_map>
#include <vector>

#include "rx/rxlog.h"

namespace mz {

namespace {

RX::log::Category& signalLog() {
  static RX::log::Category& cat = RX::log::category("mz.signal");
  return cat;
}

// Link ids are unique in the whole process, so a link given to the wrong
// signal is simply not found there instead of cutting someone else's link.
std::atomic<SignalLink> gNextLink{1};

// One connection. `live` is cleared by disconnect so that an emission already
// under way skips a subscriber that was removed before its turn came.
struct Entry {
  Entry(SignalLink l, SignalSubscriber f) : link(l), fn(std::move(f)) {}
  const SignalLink link;
  const SignalSubscriber fn;
  std::atomic<bool> live{true};
};

using EntryList = std::vector<std::shared_ptr<Entry>>;

}  // namespace

// The subscriber list is copy-on-write: an emission takes the current list
// under the lock (one reference count increment) and delivers without it, so
// subscribers may connect and disconnect during delivery, and emissions from
// several threads never wait for each other's callables.
struct SignalBase::Impl {
  // Recursive because the on-subscribe callback runs with the lock held (which
  // keeps the true/false transitions in order) and may use the signal again.
  mutable std::recursive_mutex mutex;
  // Guarded by mutex; replaced, never modified in place.
  std::shared_ptr<const EntryList> list = std::make_shared<const EntryList>();
  // Mirrors list->size() for lock-free hasSubscribers().
  std::atomic<std::size_t> count{0};
  // Constant once the block is published.
  OnSubscribers onSubscribers;
  // Set when the signal was built with a signature of its own; constant
  // once the block is published.
  bool hasSignature = false;
  std::string signature;
};

namespace {
const char* const kDefaultSignature = "void ()";
}  // namespace

SignalBase::SignalBase(std::string signature, OnSubscribers onSubscribers) {
  // Only a signal that has something of its own to remember pays for the
  // block before its first connect.
  if (signature == kDefaultSignature && !onSubscribers) return;
  auto block = std::make_unique<Impl>();
  block->hasSignature = true;
  block->signature = std::move(signature);
  block->onSubscribers = std::move(onSubscribers);
  impl_.store(block.release(), std::memory_order_release);
}

SignalBase::SignalBase(ComputedSignature, OnSubscribers onSubscribers) {
  if (!onSubscribers) return;
  auto block = std::make_unique<Impl>();
  block->onSubscribers = std::move(onSubscribers);
  impl_.store(block.release(), std::memory_order_release);
}

SignalBase::~SignalBase() {
  // Reclaims the list allocated by ensureImpl.
  std::unique_ptr<Impl> owned(impl_.load(std::memory_order_acquire));
}

std::string SignalBase::signature() const {
  const Impl* d = impl();
  return d && d->hasSignature ? d->signature : std::string(kDefaultSignature);
}

SignalBase::Impl* SignalBase::impl() const { return impl_.load(std::memory_order_acquire); }

SignalBase::Impl* SignalBase::ensureImpl() {
  Impl* current = impl();
  if (current) return current;
  auto fresh = std::make_unique<Impl>();
  Impl* expected = nullptr;
  if (impl_.compare_exchange_strong(expected, fresh.get(), std::memory_order_acq_rel)) return fresh.release();
  // Another thread installed its list first; ours is dropped.
  return expected;
}

SignalLink SignalBase::connect(SignalSubscriber subscriber) {
  Impl* d = ensureImpl();
  const SignalLink link = gNextLink.fetch_add(1, std::memory_order_relaxed);
  auto entry = std::make_shared<Entry>(link, std::move(subscriber));
  std::lock_guard<std::recursive_mutex> lock(d->mutex);
  auto next = std::make_shared<EntryList>(*d->list);
  next->push_back(std::move(entry));
  const bool first = d->list->empty();
  d->list = std::move(next);
  d->count.store(d->list->size(), std::memory_order_release);
  if (first && d->onSubscribers) d->onSubscribers(true);
  return link;
}

bool SignalBase::disconnect(SignalLink link) {
  Impl* d = impl();
  if (!d || link == kInvalidSignalLink) return false;
  std::lock_guard<std::recursive_mutex> lock(d->mutex);
  const EntryList& cur = *d->list;
  for (std::size_t i = 0; i < cur.size(); ++i) {
    if (cur[i]->link != link) continue;
    cur[i]->live.store(false, std::memory_order_release);
    auto next = std::make_shared<EntryList>();
    next->reserve(cur.size() - 1);
    next->insert(next->end(), cur.begin(), cur.begin() + static_cast<std::ptrdiff_t>(i));
    next->insert(next->end(), cur.begin() + static_cast<std::ptrdiff_t>(i) + 1, cur.end());
    d->list = std::move(next);
    d->count.store(d->list->size(), std::memory_order_release);
    if (d->list->empty() && d->onSubscribers) d->onSubscribers(false);
    return true;
  }
  return false;
}

void SignalBase::disconnectAll() {
  Impl* d = impl();
  if (!d) return;
  std::lock_guard<std::recursive_mutex> lock(d->mutex);
  if (d->list->empty()) return;
  for (const auto& e : *d->list) e->live.store(false, std::memory_order_release);
  d->list = std::make_shared<const EntryList>();
  d->count.store(0, std::memory_order_release);
  if (d->onSubscribers) d->onSubscribers(false);
}

bool SignalBase::hasSubscribers() const { return subscriberCount() != 0; }

std::size_t SignalBase::subscriberCount() const {
  const Impl* d = impl();
  return d ? d->count.load(std::memory_order_acquire) : 0;
}

void SignalBase::trigger(const GenericFunctionParameters& params, MetaCallType /*callType*/) {
  // Every call type is delivered synchronously on the emitting thread for now:
  // the process has no executor dedicated to signal delivery yet.
  Impl* d = impl();
  if (!d || d->count.load(std::memory_order_acquire) == 0) return;
  std::shared_ptr<const EntryList> snapshot;
  {
    std::lock_guard<std::recursive_mutex> lock(d->mutex);
    snapshot = d->list;
  }
  for (const auto& e : *snapshot) {
    if (!e->live.load(std::memory_order_acquire)) continue;
    try {
      e->fn(params);
    } catch (const std::exception& ex) {
      RX_ERROR(signalLog(), "subscriber " << e->link << " of signal " << signature() << " threw: " << ex.what());
    } catch (...) {
      RX_ERROR(signalLog(), "subscriber " << e->link << " of signal " << signature()
                                          << " threw an exception that is not a std::exception");
    }
  }
}

namespace detail {

const char* signatureName(const std::type_info& t) {
  if (t == typeid(AnyValue)) return "mz::AnyValue";
  if (t == typeid(RX::RXValue)) return "RXValue";
  if (t == typeid(int)) return "int";
  if (t == typeid(unsigned int)) return "unsigned int";
  if (t == typeid(float)) return "float";
  if (t == typeid(bool)) return "bool";
  if (t == typeid(std::string)) return "std::string";
  if (t == typeid(std::vector<std::string>)) return "std::vector<std::string>";
  if (t == typeid(void*)) return "void*";

  // Any other type: its demangled name, computed once and kept for the life of
  // the process so that the pointer returned stays valid.
  static std::mutex mutex;
  static std::unordered_map<std::type_index, std::string> names;
  std::lock_guard<std::mutex> lock(mutex);
  auto it = names.find(std::type_index(t));
  if (it == names.end()) {
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> demangled(abi::__cxa_demangle(t.name(), nullptr, nullptr, &status),
                                                     std::free);
    it = names.emplace(std::type_index(t), status == 0 && demangled ? demangled.get() : t.name()).first;
  }
  return it->second.c_str();
}

}  // namespace detail

}  // namespace mz
