"""Python client of the RXMemory broker.

Connect to a broker, call any of its modules by name, follow keys as
signals, and publish modules of your own that the broker calls back::

    import rxmemory
    with rxmemory.connect() as session:            # $RXMEMORY_URL, else tcp://127.0.0.1:9780
        memory = session.service("RXMemory")
        memory.insertData("Robot/Battery", 87)
        print(memory.getData("Robot/Battery"))    # 87

Values: None, bool, int (signed 32-bit), float (sent as a 32-bit float),
str, bytes, and lists or tuples of values (returned as lists).

Threads: blocking calls release the GIL; callbacks (module methods, signal
callbacks) run on the session's threads, one at a time and in order for each
module or link, with the GIL taken. An exception raised in a callback is
logged with its traceback on the logger "rxmemory" and stops nothing.
Ctrl-C interrupts a blocking call of the main thread.
"""

import atexit
import inspect
import os
from typing import Any, Callable, Dict, List, NamedTuple, Optional, Tuple

from . import _rxmemory

__all__ = [
    "DEFAULT_URL", "RXError", "RemoteError", "Session", "Service", "Method", "Signal",
    "MethodInfo", "Parameter", "Module", "method", "connect",
]

#: The broker's endpoint when neither the url argument nor $RXMEMORY_URL gives one.
DEFAULT_URL = "tcp://127.0.0.1:9780"


class RXError(Exception):
    """An error raised by a module's method (here or in the broker).

    Attributes: ``module``, ``method``, ``message``, and where it was raised
    (``file``, ``line``; empty and 0 when unknown).
    """

    def __init__(self, module: str, method: str, message: str, file: str = "", line: int = 0):
        super().__init__(module, method, message)
        self.module = module
        self.method = method
        self.message = message
        self.file = file
        self.line = line

    def __str__(self) -> str:
        return f"{self.module}.{self.method}: {self.message}"


class RemoteError(ConnectionError):
    """The broker cannot be reached, the connection was lost, or no reply came in time."""


_rxmemory._set_error_types(RXError, RemoteError)


class Parameter(NamedTuple):
    """One parameter of a published method; kind is "int", "string", "any", ..."""
    name: str
    kind: str
    description: str


class MethodInfo(NamedTuple):
    """One published overload of a method, as its module describes it."""
    name: str
    description: str
    parameters: List[Parameter]
    returns: str
    return_description: str
    signature: str


class Method:
    """A published method of a service: call it with the method's arguments.

    The overload is chosen by the kinds of the arguments (an int goes to an
    int parameter before a float one).
    """

    __slots__ = ("_call", "_name", "_service")

    def __init__(self, service: "Service", name: str):
        self._service = service
        self._name = name
        self._call = service._core.call

    def __call__(self, *args: Any) -> Any:
        return self._call(self._name, *args)

    def post(self, *args: Any) -> None:
        """Posts the call and returns at once, without its result or error."""
        self._service._core.post(self._name, *args)

    def overloads(self) -> List[MethodInfo]:
        """The published overloads of this method."""
        return [m for m in self._service.methods() if m.name == self._name]

    def __repr__(self) -> str:
        return f"<rxmemory.Method {self._service.name}.{self._name}>"


class Signal:
    """A signal of a service or object (``memory.subscriber(key).signal``)."""

    __slots__ = ("_core", "_name")

    def __init__(self, core: "_rxmemory.Object", name: str):
        self._core = core
        self._name = name

    def connect(self, callback: Callable[..., Any]) -> int:
        """Calls ``callback(*values)`` at every emission; returns the link id.

        Callbacks of one link run one at a time, in emission order, on the
        session's threads. After a broker restart the link is made again.
        """
        return self._core.connect(self._name, callback)

    def disconnect(self, link: int) -> None:
        """Ends the link that connect() returned."""
        self._core.disconnect(link)

    def emit(self, *values: Any) -> None:
        """Emits on the signal (on a key's signal: raises the key)."""
        self._core.emit(self._name, *values)

    def __repr__(self) -> str:
        return f"<rxmemory.Signal {self._name}>"


class Service:
    """A module of the broker, or an object one of its methods returned.

    Every published method is an attribute (``memory.getData(key)``), as is
    every signal (``follower.signal``). ``call(name, *args)`` reaches methods
    whose names clash with this class's own.
    """

    def __init__(self, core: "_rxmemory.Object", name: str = ""):
        self._core = core
        self._name = name
        self._methods: Optional[List[MethodInfo]] = None

    @property
    def name(self) -> str:
        """The service's name ("" for an object returned by a call)."""
        return self._name

    def __getattr__(self, name: str) -> Any:
        if name.startswith("_"):
            raise AttributeError(name)
        if self._core.has_method(name):
            attribute: Any = Method(self, name)
        elif self._core.has_signal(name):
            attribute = Signal(self._core, name)
        else:
            raise AttributeError(f"{self._name or 'the object'} has no method or signal {name!r}")
        self.__dict__[name] = attribute  # found at once next time
        return attribute

    def __dir__(self) -> List[str]:
        names = {m.name for m in self.methods()} | set(self.signals())
        return sorted(set(super().__dir__()) | names)

    def call(self, method: str, *args: Any) -> Any:
        """Calls the published method ``method``; returns its result."""
        return self._core.call(method, *args)

    def post(self, method: str, *args: Any) -> None:
        """Posts a call to ``method`` and returns at once."""
        self._core.post(method, *args)

    def methods(self) -> List[MethodInfo]:
        """The published catalogue: every overload with its texts and parameters."""
        if self._methods is None:
            self._methods = [
                MethodInfo(m["name"], m["description"], [Parameter(*p) for p in m["parameters"]],
                           m["returns"], m["return_description"], m["signature"])
                for m in self._core.methods()
            ]
        return self._methods

    def signals(self) -> List[str]:
        """The names of the signals of this service or object."""
        return list(self._core.signals())

    def description(self) -> str:
        """The module's own description."""
        return self._core.description()

    def __eq__(self, other: object) -> bool:
        return isinstance(other, Service) and self._core == other._core

    __hash__ = None  # type: ignore[assignment]

    def __repr__(self) -> str:
        return f"<rxmemory.Service {self._name}>" if self._name else "<rxmemory.Service (object)>"


_rxmemory._set_object_factory(Service)


class Session:
    """A connection to a broker; see :func:`connect`.

    Also a context manager: the session is closed at the end of the block.
    A session stays open until close() or the interpreter's exit. After a
    broker restart it reconnects by itself and makes again the memory's
    subscriptions and the signal links it made.
    """

    def __init__(self, url: Optional[str] = None, timeout: float = 10.0, name: str = ""):
        self._core = _rxmemory.Session(url or os.environ.get("RXMEMORY_URL") or DEFAULT_URL,
                                       float(timeout), name)

    def service(self, name: str) -> Service:
        """The module or service ``name``; LookupError when the broker has none."""
        return Service(self._core.service(name), name)

    def services(self) -> List[Tuple[int, str]]:
        """(id, name) of every service the broker knows."""
        return self._core.services()

    @property
    def url(self) -> str:
        """The broker's endpoint."""
        return self._core.endpoint

    @property
    def connected(self) -> bool:
        """False while the broker is unreachable (the session reconnects by itself)."""
        return self._core.connected

    @property
    def closed(self) -> bool:
        return self._core.closed

    def close(self) -> None:
        """Ends this process's modules and the connection. Idempotent.

        Must not be called from a callback of this session (RuntimeError).
        """
        self._core.close()

    def __enter__(self) -> "Session":
        return self

    def __exit__(self, *exc: Any) -> None:
        self.close()

    def __repr__(self) -> str:
        state = "closed" if self.closed else ("connected" if self.connected else "reconnecting")
        return f"<rxmemory.Session {self.url} {state}>"


def connect(url: Optional[str] = None, timeout: float = 10.0, name: str = "") -> Session:
    """Connects to a broker and returns the session.

    ``url``: "tcp://HOST:PORT" or "unix:///path"; by default $RXMEMORY_URL,
    else "tcp://127.0.0.1:9780". ``timeout``: seconds for connecting and for
    each reply. ``name``: how the broker shows this client. Raises
    RemoteError when the broker cannot be reached.
    """
    return Session(url, timeout, name)


def method(description: Any = "", *, params: Optional[Dict[str, str]] = None) -> Any:
    """Marks a method of a :class:`Module` subclass as published.

    ``@rxmemory.method("What it does")`` or bare ``@rxmemory.method``;
    ``params`` maps parameter names to their descriptions. Parameters and
    the result may be of any value kind.
    """
    def mark(function: Callable[..., Any], text: str) -> Callable[..., Any]:
        function._rxmemory_method = (text or inspect.getdoc(function) or "", dict(params or {}))  # type: ignore[attr-defined]
        return function

    if callable(description):  # used bare: @rxmemory.method
        return mark(description, "")
    return lambda function: mark(function, description)


# A function taking *args is published for up to this many arguments.
_MAX_VARIADIC = 8


def _method_spec(name: str, bound: Callable[..., Any], text: str, docs: Dict[str, str]) -> tuple:
    positional = [p for p in inspect.signature(bound).parameters.values()
                  if p.kind in (p.POSITIONAL_ONLY, p.POSITIONAL_OR_KEYWORD)]
    variadic = any(p.kind == p.VAR_POSITIONAL for p in inspect.signature(bound).parameters.values())
    required = sum(1 for p in positional if p.default is p.empty)
    params = [(p.name, docs.get(p.name, "")) for p in positional]
    return (name, text, params, required, _MAX_VARIADIC if variadic else len(positional), bound)


class Module:
    """A module of this process that the broker and its modules call by name.

    Subclass it and mark the published methods with :func:`method`::

        class Watcher(rxmemory.Module):
            @rxmemory.method("Called back on every raise")
            def onBumped(self, key, value, message):
                ...

        watcher = Watcher(session, "PyWatcher")   # registered under that name

    Methods run on the session's threads, one call at a time and in order for
    this module; they may call the broker themselves. What a method returns
    goes back to the caller; an exception it raises is logged and reaches the
    caller as an RXError. The module lives until exit() or its session's close().
    """

    def __init__(self, session: Session, name: str, description: Optional[str] = None):
        specs = []
        for attribute in dir(type(self)):
            marked = getattr(getattr(type(self), attribute, None), "_rxmemory_method", None)
            if marked is not None:
                specs.append(_method_spec(attribute, getattr(self, attribute), *marked))
        text = description if description is not None else (inspect.getdoc(type(self)) or "")
        self._core = _rxmemory.ModuleCore(session._core, name, text, specs)

    @property
    def name(self) -> str:
        """The name the module is registered under."""
        return self._core.name

    def exit(self) -> None:
        """Unregisters the module: the broker calls it no more."""
        self._core.exit()

    def __enter__(self) -> "Module":
        return self

    def __exit__(self, *exc: Any) -> None:
        self.exit()

    def __repr__(self) -> str:
        return f"<rxmemory.Module {self.name}>"


atexit.register(_rxmemory._at_exit)
