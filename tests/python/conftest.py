# A real rxbroker on a Unix socket in a temporary folder, where a restarted one listens again.
import os
import queue
import subprocess
import threading

import pytest
import rxmemory

WAIT = 10  # seconds, for anything that comes from the broker or a child


def take(q, what):
    try:
        return q.get(timeout=WAIT)
    except queue.Empty:
        pytest.fail(f"{what} did not arrive within {WAIT} s")


class Broker:
    def __init__(self, folder):
        self.url = f"unix://{folder}/broker.sock"

    def start(self):
        self.process = subprocess.Popen(
            [os.environ["RXMEMORY_BROKER"], "--listen", self.url, "--no-http"],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        # A reader thread, so that the wait for the ready line is bounded.
        lines = queue.Queue()
        threading.Thread(target=lambda: [lines.put(line) for line in self.process.stdout],
                         daemon=True).start()
        while "press Ctrl-C" not in take(lines, f"the ready line of rxbroker on {self.url}"):
            pass

    def stop(self):
        self.process.kill()
        self.process.wait()


@pytest.fixture(scope="module")
def broker(tmp_path_factory):
    b = Broker(tmp_path_factory.mktemp("broker"))
    b.start()
    yield b
    b.stop()


@pytest.fixture
def session(broker):
    with rxmemory.connect(broker.url) as s:
        yield s


@pytest.fixture
def memory(session):
    return session.service("RXMemory")
