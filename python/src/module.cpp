// ModuleCore: a module of this process written in Python, registered with the
// broker under its name so that the memory and other modules call it back.
// Every method is published with parameters and a result of any kind (one
// overload per arity the Python function accepts), so the memory's
// subscriber calls (string, value, value) always resolve.
#include <pybind11/stl.h>

#include <boost/make_shared.hpp>

#include "mz/typeconv.h"
#include "rx/rxbroker.h"
#include "rx/rxerror.h"
#include "rx/rxmodule.h"
#include "session.h"

namespace rxpy {

namespace {

class PythonModule : public RX::RXModule {
 public:
  PythonModule(boost::shared_ptr<RX::RXBroker> broker, const std::string& name) : RX::RXModule(broker, name) {}

  // Publishes `function` as `name` taking `arity` values.
  void publishPython(const std::string& name, const std::string& description,
                     const std::vector<std::pair<std::string, std::string>>& params, std::size_t arity,
                     const PyRefPtr& function) {
    mz::MetaMethod m;
    m.name = name;
    m.className = getName();
    m.description = description;
    for (std::size_t i = 0; i < arity; ++i) {
      mz::MetaParameter p;
      p.name = i < params.size() ? params[i].first : "arg" + std::to_string(i);
      p.description = i < params.size() ? params[i].second : std::string();
      p.type = mz::ParamType::Value;
      m.parameters.push_back(std::move(p));
    }
    m.returnType = mz::ParamType::Value;
    const std::string module = getName();
    mz::DynamicObject::advertiseMethod(
        std::move(m), [function, module, name](const mz::GenericFunctionParameters& args) -> mz::AnyValue {
          if (pythonGone()) throw RX::RXError(module, name, "the Python interpreter is shutting down");
          CallbackGil gil;
          try {
            return mz::AnyValue(toValue(function->get()(*fromParams(args))));
          } catch (py::error_already_set& e) {
            // Logged here with the traceback; the caller, if it waits, gets the error.
            logCallbackError(module + "." + name, e);
            throw RX::RXError(module, name, describeError(e));
          }
        });
  }
};

// A Python module's handle on its C++ module.
class ModuleCore {
 public:
  // `methods`: (name, description, [(param, description)], min arity, max arity, callable).
  ModuleCore(const std::shared_ptr<Session>& session, const std::string& name, const std::string& description,
             const py::list& methods) {
    if (session->isClosed()) throw std::runtime_error("the session is closed");
    module_ = boost::make_shared<PythonModule>(session->broker(), name);
    module_->setModuleDescription(description);
    for (py::handle entry : methods) {
      auto t = entry.cast<py::tuple>();
      const auto methodName = t[0].cast<std::string>();
      const auto text = t[1].cast<std::string>();
      const auto params = t[2].cast<std::vector<std::pair<std::string, std::string>>>();
      const auto minArity = t[3].cast<std::size_t>();
      const auto maxArity = t[4].cast<std::size_t>();
      auto function = std::make_shared<const PyRef>(py::reinterpret_borrow<py::object>(t[5]));
      for (std::size_t arity = minArity; arity <= maxArity; ++arity)
        module_->publishPython(methodName, text, params, arity, function);
    }
    Blocking blocking;
    module_->initModule();
  }

  std::string name() const { return module_->getName(); }
  bool exited() const { return module_->hasExited(); }
  // Unregisters the module; its methods are not called any more.
  void exit() {
    Blocking blocking;
    module_->exit();
  }

 private:
  boost::shared_ptr<PythonModule> module_;
};

}  // namespace

void bindModule(py::module_& m) {
  py::class_<ModuleCore>(m, "ModuleCore", "The C++ side of an rxmemory.Module.")
      .def(py::init<const std::shared_ptr<Session>&, const std::string&, const std::string&, const py::list&>(),
           py::arg("session"), py::arg("name"), py::arg("description"), py::arg("methods"))
      .def_property_readonly("name", &ModuleCore::name)
      .def_property_readonly("exited", &ModuleCore::exited)
      .def("exit", &ModuleCore::exit);
}

}  // namespace rxpy
