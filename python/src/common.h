// Shared pieces of the _rxmemory extension: the conversions between Python
// objects and RX::RXValue, the handle that lets C++ threads drop Python
// objects safely, and the way blocking calls give up the GIL.
//
// Threads: the sessions' threads (event readers, executors) call into Python
// only through PyRef holders and with the GIL taken; every call into the C++
// client is made with the GIL released (Blocking), so those threads are never
// kept waiting by a thread that holds the GIL while it waits for them.
#pragma once

#include <pybind11/pybind11.h>

#include <memory>
#include <string>

#include "mz/anyvalue.h"
#include "rx/rxvalue.h"

namespace rxpy {

namespace py = pybind11;

// True once Python is finalizing or the exit hook has closed every session:
// threads of the sessions must not touch Python any more.
bool pythonGone();

// A Python object that C++ code may drop on any thread: the reference is
// released with the GIL taken, or left alone once Python is gone.
class PyRef {
 public:
  explicit PyRef(py::object object) : object_(std::move(object)) {}
  ~PyRef();
  PyRef(const PyRef&) = delete;
  PyRef& operator=(const PyRef&) = delete;
  // REQUIRES: GIL held.
  const py::object& get() const { return object_; }

 private:
  py::object object_;
};
using PyRefPtr = std::shared_ptr<const PyRef>;

// Releases the GIL for a call into the C++ client; while it waits for a reply
// on the main thread, Ctrl-C (any Python signal handler that raises) abandons
// the call with that exception.
class Blocking {
 public:
  Blocking();

 private:
  py::gil_scoped_release release_;
};

// Set on the threads running a callback into Python, for the calls that must
// not be made from one (closing its own session).
bool inCallback();
class CallbackScope {
 public:
  CallbackScope();
  ~CallbackScope();
};

// Takes the GIL for a callback on a thread of a session. The thread's Python
// state is made on its first callback and kept for the next ones: making one
// per call would cost more than a small callback itself.
class CallbackGil {
 public:
  CallbackGil();

 private:
  py::gil_scoped_acquire gil_;
  CallbackScope scope_;
};

// ---- Values (value.cpp) ----
// None, bool, int (signed 32-bit), float, str, bytes/bytearray, list/tuple
// (nested) and service objects; anything else raises TypeError naming its
// kind, an int out of range OverflowError. REQUIRES: GIL held.
RX::RXValue toValue(py::handle object);
// The Python form of a value: arrays become lists, binaries bytes, objects
// what the object factory makes of them. REQUIRES: GIL held.
py::object fromValue(const RX::RXValue& value);
py::object fromValue(const mz::AnyValue& value);
mz::GenericFunctionParameters toParams(const py::args& args);
py::tuple fromParams(const mz::GenericFunctionParameters& params);
// The Python class wrapping a returned object (rxmemory.Service).
void setObjectFactory(py::object factory);

// Logs the Python exception being handled (with its traceback) on the logger
// "rxmemory": a callback's failure must be seen, and must stop nothing.
// REQUIRES: GIL held.
void logCallbackError(const std::string& where, py::error_already_set& error);
// "ValueError: text": the exception's type and message, for an RXError.
std::string describeError(const py::error_already_set& error);

// ---- Bindings of each part ----
void bindValues(py::module_& m);
void bindObject(py::module_& m);
void bindSession(py::module_& m);
void bindModule(py::module_& m);

}  // namespace rxpy
