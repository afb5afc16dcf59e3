# Modules of this process called back by the broker, and signals.
import logging
import queue

import pytest
import rxmemory
from conftest import take


class Recorder(rxmemory.Module):
    def __init__(self, session, name, memory=None):
        self.calls = queue.Queue()
        self.memory = memory
        super().__init__(session, name)

    @rxmemory.method("Called back on every raise")
    def onEvent(self, key, value, message):
        if value == "boom":
            raise ValueError("boom in a callback")
        # A callback may call the broker itself.
        seen = self.memory.getData("Py/Seen") if self.memory else None
        self.calls.put((key, value, message, seen))

    @rxmemory.method(params={"name": "Who to greet"})
    def greet(self, name, punctuation="!"):
        return f"hello {name}{punctuation}"


def test_thousand_callbacks_arrive_in_order(session, memory):
    recorder = Recorder(session, "PyOrdered")
    memory.subscribeToEvent("Py/Ordered", "PyOrdered", "onEvent")
    for i in range(1000):
        memory.raiseEvent("Py/Ordered", i)
    got = [take(recorder.calls, f"callback {i}")[1] for i in range(1000)]
    assert got == list(range(1000))


def test_callback_calls_broker_and_survives_its_exception(session, memory, caplog):
    recorder = Recorder(session, "PyReentrant", memory)
    memory.insertData("Py/Seen", 42)
    memory.subscribeToEvent("Py/Reentrant", "PyReentrant", "onEvent")
    with caplog.at_level(logging.ERROR, logger="rxmemory"):
        memory.raiseEvent("Py/Reentrant", "boom")
        memory.raiseEvent("Py/Reentrant", 1)
        assert take(recorder.calls, "the raise after the failing one") == ("Py/Reentrant", 1, "", 42)
    assert "PyReentrant.onEvent raised an exception" in caplog.text
    assert "ValueError: boom in a callback" in caplog.text  # with its traceback


def test_module_methods_called_by_another_client(session, broker):
    Recorder(session, "PyGreeter")
    with rxmemory.connect(broker.url) as other:
        greeter = other.service("PyGreeter")
        assert greeter.greet("Nao") == "hello Nao!"
        assert greeter.greet("Nao", "?") == "hello Nao?"  # one overload per arity
        with pytest.raises(rxmemory.RXError, match="PyGreeter.onEvent: ValueError: boom in a callback"):
            greeter.onEvent("k", "boom", "")
        params = [m.parameters for m in greeter.methods() if m.name == "greet"]
        assert [("name", "any", "Who to greet")] in [[tuple(p) for p in ps] for ps in params]


def test_signal_links_and_no_close_from_a_callback(session, memory):
    follower = memory.subscriber("Py/Signal")
    first, second, refusals = queue.Queue(), queue.Queue(), queue.Queue()

    def close_here(value):
        try:
            session.close()
        except RuntimeError as e:
            refusals.put(str(e))
    link = follower.signal.connect(first.put)
    follower.signal.connect(second.put)
    follower.signal.connect(close_here)
    memory.raiseEvent("Py/Signal", [1, "a"])
    assert take(first, "the emission") == [1, "a"]
    assert take(second, "the emission") == [1, "a"]
    assert take(refusals, "the refusal") == "a session cannot be closed from one of its own callbacks"
    follower.signal.disconnect(link)
    memory.raiseEvent("Py/Signal", 2)
    assert take(second, "the emission after the disconnect") == 2
    assert first.empty()
