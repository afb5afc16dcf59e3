// The compiled core of the rxmemory package: values, sessions, objects and
// modules over the C++ client library, and how its errors and threads meet
// Python's. The pure-Python package (rxmemory/__init__.py) adds the sugar.
#include <atomic>

#include "common.h"
#include "mz/future.h"
#include "mz/object.h"
#include "net/connection.h"
#include "rx/rxerror.h"
#include "session.h"

namespace rxpy {

namespace {

std::atomic<bool> sessionsClosedAtExit{false};
thread_local int callbackDepth = 0;

// The exception classes the package defines (RXError, RemoteError), leaked on
// purpose: C++ threads may still translate errors during finalization.
py::object* rxErrorType = nullptr;
py::object* remoteErrorType = nullptr;

// Run when a blocking read of a reply is interrupted by a signal: Python's
// handler runs now, and when it raises (KeyboardInterrupt) the call is
// abandoned with that exception.
void checkSignals() {
  if (pythonGone()) return;
  py::gil_scoped_acquire gil;
  if (PyErr_CheckSignals() != 0) throw py::error_already_set();
}

void raiseAs(py::object* type, PyObject* fallback, const py::object& value) {
  if (type) {
    PyErr_SetObject(type->ptr(), value.ptr());
  } else {
    PyErr_SetObject(fallback, value.ptr());
  }
}

void translate(std::exception_ptr p) {
  try {
    std::rethrow_exception(p);
  } catch (const RX::RXError& e) {
    if (!rxErrorType) {
      PyErr_SetString(PyExc_RuntimeError, e.what());
      return;
    }
    py::object error = (*rxErrorType)(e.module(), e.method(), e.message(), e.file(), e.line());
    PyErr_SetObject(rxErrorType->ptr(), error.ptr());
  } catch (const mz::MethodNotFoundError& e) {
    PyErr_SetString(PyExc_TypeError, e.what());
  } catch (const mz::ConversionError& e) {
    PyErr_SetString(PyExc_TypeError, e.what());
  } catch (const net::RemoteError& e) {
    raiseAs(remoteErrorType, PyExc_ConnectionError, py::str(e.what()));
  } catch (const mz::ObjectGoneError& e) {
    raiseAs(remoteErrorType, PyExc_ConnectionError, py::str(e.what()));
  } catch (const mz::FutureError& e) {
    raiseAs(remoteErrorType, PyExc_ConnectionError, py::str(e.what()));
  }
}

}  // namespace

bool pythonGone() {
#if PY_VERSION_HEX >= 0x030D0000
  return sessionsClosedAtExit.load() || !Py_IsInitialized() || Py_IsFinalizing();
#else
  return sessionsClosedAtExit.load() || !Py_IsInitialized() || _Py_IsFinalizing();
#endif
}

PyRef::~PyRef() {
  if (pythonGone()) {
    object_.release();  // Python is going away with everything it holds
    return;
  }
  py::gil_scoped_acquire gil;
  object_ = py::object();
}

Blocking::Blocking() { net::Connection::setInterruptCheck(&checkSignals); }

bool inCallback() { return callbackDepth > 0; }
CallbackScope::CallbackScope() { ++callbackDepth; }
CallbackScope::~CallbackScope() { --callbackDepth; }

CallbackGil::CallbackGil() {
  thread_local bool stateKept = false;
  if (!stateKept) {
    gil_.inc_ref();
    stateKept = true;
  }
}

std::string describeError(const py::error_already_set& error) {
  std::string type = py::str(error.type().attr("__name__"));
  std::string text = py::str(error.value());
  return text.empty() ? type : type + ": " + text;
}

void logCallbackError(const std::string& where, py::error_already_set& error) {
  try {
    py::object logger = py::module_::import("logging").attr("getLogger")("rxmemory");
    logger.attr("error")("%s raised an exception", where,
                         py::arg("exc_info") = py::make_tuple(error.type(), error.value(), error.trace()));
  } catch (py::error_already_set&) {
    PyErr_Clear();  // logging itself failed: nothing more to do from this thread
  }
}

}  // namespace rxpy

PYBIND11_MODULE(_rxmemory, m) {
  namespace py = pybind11;
  using namespace rxpy;
  m.doc() = "Compiled core of the rxmemory package; use the rxmemory package itself.";
  py::register_exception_translator(&translate);
  m.def(
      "_set_error_types",
      [](py::object rxError, py::object remoteError) {
        rxErrorType = new py::object(std::move(rxError));
        remoteErrorType = new py::object(std::move(remoteError));
      },
      "Sets the classes raised for a module's errors and for transport failures.");
  m.def(
      "_at_exit",
      [] {
        Session::closeAll();
        sessionsClosedAtExit.store(true);
      },
      "Closes every open session; from then on no callback reaches Python.");
  bindValues(m);
  bindObject(m);
  bindSession(m);
  bindModule(m);
}
