#include "object.h"

#include <utility>

#include "net/connection.h"

namespace rxpy {

namespace {

const char* kindName(mz::ParamType t) {
  switch (t) {
    case mz::ParamType::Value: return "any";
    default: return mz::paramTypeName(t);
  }
}

}  // namespace

const mz::MetaObject& Object::meta() const { return object_.metaObject(); }

py::object Object::call(const std::string& method, const py::args& args) const {
  mz::GenericFunctionParameters params = toParams(args);
  mz::AnyValue result;
  {
    Blocking blocking;
    try {
      result = object_.call(method, params);
    } catch (const net::RemoteError& e) {
      // The other side reports a call that resolves to nothing as a failure
      // of its own; for Python it is the caller's TypeError.
      if (meta().resolve(method, params) >= 0) throw;
      throw mz::MethodNotFoundError(e.what());
    }
  }
  return fromValue(result);
}

void Object::post(const std::string& method, const py::args& args) const {
  mz::GenericFunctionParameters params = toParams(args);
  Blocking blocking;
  object_.post(method, std::move(params));
}

py::list Object::methods() const {
  std::vector<mz::MetaMethod> methods;
  {
    Blocking blocking;
    methods = meta().methods;
  }
  py::list out;
  for (const mz::MetaMethod& m : methods) {
    if (m.mask & 4) continue;  // not offered to other processes
    py::list params;
    for (const mz::MetaParameter& p : m.parameters)
      params.append(py::make_tuple(p.name, kindName(p.type), p.description));
    py::dict entry;
    entry["name"] = m.name;
    entry["description"] = m.description;
    entry["parameters"] = params;
    entry["returns"] = kindName(m.returnType);
    entry["return_description"] = m.returnDescription;
    entry["signature"] = m.signature();
    out.append(entry);
  }
  return out;
}

py::list Object::signals() const {
  std::vector<mz::MetaSignal> signals;
  {
    Blocking blocking;
    signals = meta().signals;
  }
  py::list out;
  for (const mz::MetaSignal& s : signals) out.append(s.name);
  return out;
}

bool Object::hasMethod(const std::string& name) const {
  Blocking blocking;
  return !meta().findMethod(name).empty();
}

bool Object::hasSignal(const std::string& name) const {
  Blocking blocking;
  return meta().signalId(name) >= 0;
}

std::string Object::description() const {
  Blocking blocking;
  return meta().description;
}

std::uint64_t Object::connect(const std::string& signal, py::object callback) const {
  if (!PyCallable_Check(callback.ptr())) throw py::type_error("the callback must be callable");
  auto ref = std::make_shared<const PyRef>(std::move(callback));
  mz::SignalSubscriber subscriber = [ref, signal](const mz::GenericFunctionParameters& params) {
    if (pythonGone()) return;
    CallbackGil gil;
    try {
      ref->get()(*fromParams(params));
    } catch (py::error_already_set& e) {
      logCallbackError("a callback of signal " + signal, e);
    }
  };
  Blocking blocking;
  return object_.connect(signal, std::move(subscriber)).value();
}

void Object::disconnect(std::uint64_t link) const {
  Blocking blocking;
  object_.disconnect(link).waitAndCheck();
}

void Object::emit(const std::string& signal, const py::args& args) const {
  mz::GenericFunctionParameters params = toParams(args);
  Blocking blocking;
  object_.emit(signal, params);
}

void bindObject(py::module_& m) {
  py::class_<Object>(m, "Object", "A module of the broker, or an object one of its methods returned.")
      .def("call", &Object::call, py::arg("method"), "Calls a published method; returns its result.")
      .def("post", &Object::post, py::arg("method"), "Posts a call and returns at once.")
      .def("methods", &Object::methods, "The published catalogue, one dict per overload.")
      .def("signals", &Object::signals, "The names of the object's signals.")
      .def("has_method", &Object::hasMethod, py::arg("name"))
      .def("has_signal", &Object::hasSignal, py::arg("name"))
      .def("description", &Object::description)
      .def("connect", &Object::connect, py::arg("signal"), py::arg("callback"),
           "Connects a callback to a signal; returns the link id.")
      .def("disconnect", &Object::disconnect, py::arg("link"))
      .def("emit", &Object::emit, py::arg("signal"), "Emits on one of the object's signals.")
      .def("__eq__", &Object::operator==);
}

}  // namespace rxpy
