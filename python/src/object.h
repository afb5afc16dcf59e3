// Object: a module of the broker (a service) or an object returned by one of
// its methods, as the Python package drives it: calls and posts by method
// name, the published catalogue, and its signals. Calls release the GIL;
// signal callbacks take it. A copyable handle; every member is thread-safe.
#pragma once

#include <cstdint>
#include <string>

#include "common.h"
#include "mz/object.h"

namespace rxpy {

class Object {
 public:
  explicit Object(mz::AnyObject object) : object_(std::move(object)) {}
  const mz::AnyObject& object() const { return object_; }

  // Calls `method` with the arguments, the overload chosen by their kinds;
  // raises what the method raises (rxmemory.RXError), TypeError when no
  // overload accepts such arguments.
  py::object call(const std::string& method, const py::args& args) const;
  // Posts the call and returns at once (no result, no error from the method).
  void post(const std::string& method, const py::args& args) const;
  // The catalogue: one dict per published overload.
  py::list methods() const;
  py::list signals() const;
  bool hasMethod(const std::string& name) const;
  bool hasSignal(const std::string& name) const;
  std::string description() const;
  // Connects `callback` to a signal; it is called with the emitted values on
  // the session's threads, in emission order. Returns the link id.
  std::uint64_t connect(const std::string& signal, py::object callback) const;
  void disconnect(std::uint64_t link) const;
  void emit(const std::string& signal, const py::args& args) const;
  bool operator==(const Object& other) const { return object_ == other.object_; }

 private:
  const mz::MetaObject& meta() const;  // REQUIRES: GIL released (it may ask the broker)

  mz::AnyObject object_;
};

}  // namespace rxpy
