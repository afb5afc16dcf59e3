# A real rxbroker for the tests, on a Unix socket of a temporary folder (so a
# restarted broker listens where the first one did).
import os
import queue
import subprocess
import threading
import time

import pytest
import rxmemory

STARTUP_SECONDS = 15


class Broker:
    def __init__(self, folder):
        self.url = f"unix://{folder}/broker.sock"
        self.process = None

    def start(self):
        self.process = subprocess.Popen(
            [os.environ["RXMEMORY_BROKER"], "--listen", self.url, "--no-http"],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        lines = queue.Queue()
        threading.Thread(target=lambda: [lines.put(line) for line in self.process.stdout],
                         daemon=True).start()
        deadline = time.monotonic() + STARTUP_SECONDS
        while True:
            try:
                line = lines.get(timeout=max(0, deadline - time.monotonic()))
            except queue.Empty:
                pytest.fail(f"rxbroker did not listen on {self.url} within {STARTUP_SECONDS} s")
            if "listening on" in line:
                return

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
