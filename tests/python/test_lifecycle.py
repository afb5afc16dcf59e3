# Broker restarts, Ctrl-C, and leaving the interpreter with callbacks flowing.
import os
import queue
import signal
import subprocess
import sys
import time

import pytest
import rxmemory
from conftest import Broker
from test_callbacks import WAIT, Recorder, take


def test_session_reconnects_and_remakes_subscriptions(tmp_path):
    broker = Broker(tmp_path)
    broker.start()
    try:
        with rxmemory.connect(broker.url, timeout=5) as session:
            memory = session.service("RXMemory")
            recorder = Recorder(session, "PyRestart")
            memory.subscribeToEvent("Py/Restart", "PyRestart", "onEvent")
            follower, emitted = memory.subscriber("Py/Restart"), queue.Queue()
            follower.signal.connect(emitted.put)
            broker.stop()
            broker.start()
            # The subscription and the link come back once the session has
            # reconnected; until then a raise fails or reaches nobody.
            deadline = time.monotonic() + 3 * WAIT
            while recorder.calls.empty() and time.monotonic() < deadline:
                try:
                    memory.raiseEvent("Py/Restart", "again")
                except rxmemory.RemoteError:
                    pass
                try:
                    recorder.calls.get(timeout=0.2)
                    break
                except queue.Empty:
                    continue
            else:
                pytest.fail(f"no callback after the broker restart within {3 * WAIT} s")
            assert take(emitted, "the emission after the restart") == "again"
            assert session.connected
    finally:
        broker.stop()


def run_child(code, broker, **kwargs):
    return subprocess.Popen([sys.executable, "-c", code], env={**os.environ, "RXMEMORY_URL": broker.url},
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **kwargs)


def test_ctrl_c_interrupts_a_blocking_call(broker):
    code = ("import rxmemory\n"
            "memory = rxmemory.connect(timeout=120).service('RXMemory')\n"
            "memory.insertData('Py/Never', 0)\n"
            "try:\n"
            "    print('calling', flush=True)\n"
            "    memory.getDataOnChange('Py/Never', 0)\n"
            "except KeyboardInterrupt:\n"
            "    print('interrupted', flush=True)\n")
    child = run_child(code, broker)
    assert child.stdout.readline() == "calling\n"
    # Repeated: a signal landing just before the call enters its wait is
    # handled by Python only at its next check.
    deadline = time.monotonic() + WAIT
    while child.poll() is None and time.monotonic() < deadline:
        child.send_signal(signal.SIGINT)
        try:
            child.wait(timeout=0.5)
        except subprocess.TimeoutExpired:
            pass
    out, err = child.communicate(timeout=WAIT)
    assert out == "interrupted\n", err


def test_exit_without_close_while_callbacks_flow(broker):
    code = ("import rxmemory, threading\n"
            "session = rxmemory.connect()\n"
            "memory = session.service('RXMemory')\n"
            "class Sink(rxmemory.Module):\n"
            "    @rxmemory.method\n"
            "    def onEvent(self, key, value, message): memory.getData('Py/Exit')\n"
            "Sink(session, 'PyExitSink')\n"
            "memory.insertData('Py/Exit', 1)\n"
            "memory.subscribeToEvent('Py/Exit', 'PyExitSink', 'onEvent')\n"
            "memory.subscriber('Py/Exit').signal.connect(lambda v: None)\n"
            "other = rxmemory.connect().service('RXMemory')\n"
            "def raise_forever():\n"
            "    while True: other.raiseEvent('Py/Exit', 1)\n"
            "threading.Thread(target=raise_forever, daemon=True).start()\n"
            "for _ in range(200): memory.raiseEvent('Py/Exit', 2)\n"
            "print('leaving', flush=True)\n")
    child = run_child(code, broker)
    out, err = child.communicate(timeout=3 * WAIT)
    assert (child.returncode, out) == (0, "leaving\n"), err
