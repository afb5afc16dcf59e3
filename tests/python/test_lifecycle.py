# Broker restarts, Ctrl-C, and leaving the interpreter with callbacks flowing.
import contextlib
import os
import queue
import signal
import subprocess
import sys
import time

import rxmemory
from conftest import WAIT, Broker
from test_callbacks import Recorder


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
            # The subscription and then the link come back once the session
            # has reconnected; until both have, a raise fails or misses one.
            deadline = time.monotonic() + 3 * WAIT
            while True:
                assert time.monotonic() < deadline, f"no callback and emission after the restart within {3 * WAIT} s"
                with contextlib.suppress(rxmemory.RemoteError):
                    memory.raiseEvent("Py/Restart", "again")
                with contextlib.suppress(queue.Empty):
                    if emitted.get(timeout=0.2) == "again" and not recorder.calls.empty():
                        break
            assert session.connected
    finally:
        broker.stop()


# The children find the broker through $RXMEMORY_URL, as rxmemory.connect() does by default.
def run_child(code, broker):
    return subprocess.Popen([sys.executable, "-c", code], env={**os.environ, "RXMEMORY_URL": broker.url},
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)


def test_ctrl_c_interrupts_a_blocking_call(broker):
    child = run_child("""
import rxmemory
memory = rxmemory.connect(timeout=120).service('RXMemory')
memory.insertData('Py/Never', 0)
try:
    print('calling', flush=True)
    memory.getDataOnChange('Py/Never', 0)
except KeyboardInterrupt:
    print('interrupted', flush=True)
""", broker)
    assert child.stdout.readline() == "calling\n"
    # Signals only once the child sleeps in the call: one landing before it is
    # handled by Python between two statements, which would prove nothing.
    deadline = time.monotonic() + WAIT
    while open(f"/proc/{child.pid}/stat").read().rsplit(") ", 1)[1][0] != "S":
        assert time.monotonic() < deadline, "the child did not block in its call"
        time.sleep(0.001)
    while child.poll() is None and time.monotonic() < deadline:
        child.send_signal(signal.SIGINT)
        with contextlib.suppress(subprocess.TimeoutExpired):
            child.wait(timeout=0.5)
    out, err = child.communicate(timeout=WAIT)
    assert out == "interrupted\n", err


def test_exit_without_close_while_callbacks_flow(broker):
    child = run_child("""
import rxmemory, threading
session = rxmemory.connect()
memory = session.service('RXMemory')
class Sink(rxmemory.Module):
    @rxmemory.method
    def onEvent(self, key, value, message): memory.getData('Py/Exit')
Sink(session, 'PyExitSink')
memory.insertData('Py/Exit', 1)
memory.subscribeToEvent('Py/Exit', 'PyExitSink', 'onEvent')
memory.subscriber('Py/Exit').signal.connect(lambda v: None)
other = rxmemory.connect().service('RXMemory')
def raise_forever():
    while True: other.raiseEvent('Py/Exit', 1)
threading.Thread(target=raise_forever, daemon=True).start()
for _ in range(200): memory.raiseEvent('Py/Exit', 2)
print('leaving', flush=True)
""", broker)
    out, err = child.communicate(timeout=3 * WAIT)
    assert (child.returncode, out) == (0, "leaving\n"), err
