// Python objects <-> RX::RXValue.
#include <cfloat>
#include <climits>
#include <cmath>

#include "common.h"
#include "mz/object.h"
#include "object.h"

namespace rxpy {

namespace {

// Deeper nesting is a self-referencing list or a mistake, not data.
constexpr int kMaxDepth = 100;

py::object& objectFactory() {
  // Leaked on purpose: it must not be released after Python has finalized.
  static py::object* factory = new py::object();
  return *factory;
}

RX::RXValue toValueAt(py::handle o, int depth) {
  if (o.is_none()) return RX::RXValue();
  if (PyBool_Check(o.ptr())) return RX::RXValue(o.ptr() == Py_True);
  if (PyLong_Check(o.ptr())) {
    int overflow = 0;
    const long long v = PyLong_AsLongLongAndOverflow(o.ptr(), &overflow);
    if (overflow != 0 || v < INT_MIN || v > INT_MAX) {
      PyErr_Format(PyExc_OverflowError, "int %R does not fit the memory's signed 32-bit int (%d to %d)", o.ptr(),
                   INT_MIN, INT_MAX);
      throw py::error_already_set();
    }
    return RX::RXValue(static_cast<int>(v));
  }
  if (PyFloat_Check(o.ptr())) {
    const double d = PyFloat_AS_DOUBLE(o.ptr());
    if (std::isfinite(d) && std::fabs(d) > FLT_MAX) {
      PyErr_Format(PyExc_OverflowError, "float %R is out of the range of the memory's 32-bit floats", o.ptr());
      throw py::error_already_set();
    }
    return RX::RXValue(static_cast<float>(d));
  }
  if (PyUnicode_Check(o.ptr())) {
    Py_ssize_t size = 0;
    const char* text = PyUnicode_AsUTF8AndSize(o.ptr(), &size);
    if (!text) throw py::error_already_set();
    return RX::RXValue(std::string(text, static_cast<std::size_t>(size)));
  }
  if (PyBytes_Check(o.ptr()))
    return RX::RXValue(PyBytes_AS_STRING(o.ptr()), static_cast<std::size_t>(PyBytes_GET_SIZE(o.ptr())));
  if (PyByteArray_Check(o.ptr()))
    return RX::RXValue(PyByteArray_AS_STRING(o.ptr()), static_cast<std::size_t>(PyByteArray_GET_SIZE(o.ptr())));
  if (PyList_Check(o.ptr()) || PyTuple_Check(o.ptr())) {
    if (depth >= kMaxDepth)
      throw py::value_error("a list nested deeper than " + std::to_string(kMaxDepth) + " levels cannot be a value");
    py::sequence seq = py::reinterpret_borrow<py::sequence>(o);
    const std::size_t n = seq.size();
    RX::RXValue array = RX::RXValue::array(n);
    for (std::size_t i = 0; i < n; ++i) array[i] = toValueAt(seq[i], depth + 1);
    return array;
  }
  if (py::isinstance<Object>(o)) return RX::RXValue(o.cast<const Object&>().object());
  py::object core = py::getattr(o, "_core", py::none());
  if (!core.is_none() && py::isinstance<Object>(core)) return RX::RXValue(core.cast<const Object&>().object());
  throw py::type_error("cannot send a " + std::string(Py_TYPE(o.ptr())->tp_name) +
                       " as a value: use None, bool, int, float, str, bytes, list or tuple");
}

}  // namespace

RX::RXValue toValue(py::handle object) { return toValueAt(object, 0); }

py::object fromValue(const RX::RXValue& v) {
  switch (v.getType()) {
    case RX::RXValue::TypeInvalid: return py::none();
    case RX::RXValue::TypeBool: return py::bool_(v.toBool());
    case RX::RXValue::TypeInt: return py::int_(v.toInt());
    case RX::RXValue::TypeFloat: return py::float_(static_cast<double>(v.toFloat()));
    case RX::RXValue::TypeString: {
      const std::string& s = v.toStdString();
      PyObject* text = PyUnicode_DecodeUTF8(s.data(), static_cast<Py_ssize_t>(s.size()), "surrogateescape");
      if (!text) throw py::error_already_set();
      return py::reinterpret_steal<py::object>(text);
    }
    case RX::RXValue::TypeBinary: {
      const RX::RXValue::Binary& b = v.toBinary();
      return py::bytes(reinterpret_cast<const char*>(b.data()), b.size());
    }
    case RX::RXValue::TypeArray: {
      py::list list(v.getSize());
      for (std::size_t i = 0; i < v.getSize(); ++i) list[i] = fromValue(v[i]);
      return std::move(list);
    }
    case RX::RXValue::TypeObject: {
      py::object core = py::cast(Object(v.toObject()));
      return objectFactory() ? objectFactory()(core) : core;
    }
  }
  return py::none();
}

py::object fromValue(const mz::AnyValue& v) {
  if (v.isOther()) return py::none();  // an in-process C++ value has no Python form
  return fromValue(v.toRXValue());
}

mz::GenericFunctionParameters toParams(const py::args& args) {
  mz::GenericFunctionParameters params;
  params.reserve(args.size());
  for (py::handle a : args) params.emplace_back(toValue(a));
  return params;
}

py::tuple fromParams(const mz::GenericFunctionParameters& params) {
  py::tuple out(params.size());
  for (std::size_t i = 0; i < params.size(); ++i) out[i] = fromValue(params[i]);
  return out;
}

void setObjectFactory(py::object factory) { objectFactory() = std::move(factory); }

void bindValues(py::module_& m) {
  m.def("_set_object_factory", &setObjectFactory, "Sets the class wrapping objects returned by calls.");
  m.def("_roundtrip", [](py::handle o) { return fromValue(toValue(o)); },
        "The value as the memory would give it back (no broker involved).");
}

}  // namespace rxpy
