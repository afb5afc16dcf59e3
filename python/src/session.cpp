#include "session.h"

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <set>

#include "mz/future.h"
#include "net/clientsession.h"
#include "rx/rxbroker.h"

namespace rxpy {

namespace {

// The sessions still open, for the exit hook. Sessions are held here rather
// than closed when Python drops them: the last reference may go on one of the
// session's own threads (in a callback), which cannot join itself.
std::mutex openMutex;
std::set<std::shared_ptr<Session>>& openSessions() {
  static auto* sessions = new std::set<std::shared_ptr<Session>>();
  return *sessions;
}

// Threads started while this lives do not take SIGINT: Python runs its
// handlers on the main thread only, and a signal taken by another thread
// would not interrupt the main thread's blocking call.
class SignalsToMainThread {
 public:
  SignalsToMainThread() {
    sigset_t block;
    sigemptyset(&block);
    sigaddset(&block, SIGINT);
    sigaddset(&block, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &block, &previous_);
  }
  ~SignalsToMainThread() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }

 private:
  sigset_t previous_;
};

}  // namespace

Session::Session(const std::string& url, double timeout, const std::string& name) {
  if (!(timeout > 0)) throw py::value_error("timeout must be a positive number of seconds");
  net::ClientSession::Options options;
  options.timeout = std::chrono::milliseconds(static_cast<long long>(timeout * 1000));
  options.clientName = name.empty() ? "python-" + std::to_string(::getpid()) : name;
  Blocking blocking;
  SignalsToMainThread signals;
  session_ = net::ClientSession::connect(url, options);
  broker_ = RX::RXBroker::create(options.clientName, RX::RXBroker::Options(), session_);
}

Object Session::service(const std::string& name) const {
  mz::Future<mz::AnyObject> found;
  {
    Blocking blocking;
    found = session_->service(name);
    found.wait();
  }
  if (!found.hasValue()) {
    const std::string error = found.error();
    if (error.rfind("Service not found", 0) == 0) {
      PyErr_SetString(PyExc_LookupError, error.c_str());
      throw py::error_already_set();
    }
    throw net::RemoteError(error);
  }
  return Object(found.value());
}

py::list Session::services() const {
  std::vector<mz::ServiceInfo> infos;
  {
    Blocking blocking;
    infos = session_->services();
  }
  py::list out;
  for (const mz::ServiceInfo& s : infos) out.append(py::make_tuple(s.id, s.name));
  return out;
}

bool Session::isConnected() const { return session_->isConnected(); }
std::string Session::endpoint() const { return session_->endpoint(); }

bool Session::isClosed() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return closed_;
}

void Session::close() {
  if (inCallback()) throw std::runtime_error("a session cannot be closed from one of its own callbacks");
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) return;
    closed_ = true;
  }
  {
    Blocking blocking;
    // Modules first, so that the broker forgets them while we can still say so.
    broker_->shutdown();
    session_->close();
  }
  std::lock_guard<std::mutex> lock(openMutex);
  for (auto it = openSessions().begin(); it != openSessions().end(); ++it)
    if (it->get() == this) {
      openSessions().erase(it);
      break;
    }
}

void Session::closeAll() {
  std::set<std::shared_ptr<Session>> sessions;
  {
    std::lock_guard<std::mutex> lock(openMutex);
    sessions = openSessions();
  }
  for (const auto& s : sessions) s->close();
}

void bindSession(py::module_& m) {
  py::class_<Session, std::shared_ptr<Session>>(m, "Session", "A connection to a broker (see rxmemory.connect).")
      .def(py::init([](const std::string& url, double timeout, const std::string& name) {
             auto s = std::make_shared<Session>(url, timeout, name);
             std::lock_guard<std::mutex> lock(openMutex);
             openSessions().insert(s);
             return s;
           }),
           py::arg("url"), py::arg("timeout"), py::arg("name") = "")
      .def("service", &Session::service, py::arg("name"))
      .def("services", &Session::services)
      .def("close", &Session::close)
      .def_property_readonly("connected", &Session::isConnected)
      .def_property_readonly("closed", &Session::isClosed)
      .def_property_readonly("endpoint", &Session::endpoint);
}

}  // namespace rxpy
