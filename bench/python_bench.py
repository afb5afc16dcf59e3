"""The Python package next to the C++ client, against one broker, in one run.

    /usr/bin/python3 bench/python_bench.py BUILD_DIR

Starts BUILD_DIR/rxbroker, then measures with the C++ client
(BUILD_DIR/client_figures) and with rxmemory: the getData round trip (goal:
Python within 1.3x of the C++ median) and the raises of a key, posted by
another process, delivered to a link on its signal per second (goal: at least
50,000 into Python). Not a test.
"""
import os
import subprocess
import sys
import tempfile
import threading
import time

ROUNDS, WARMUP, RAISES = 20000, 2000, 50000


def start_broker(build, url):
    broker = subprocess.Popen([os.path.join(build, "rxbroker"), "--listen", url, "--no-http"],
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    for line in broker.stdout:
        if "listening on" in line:
            return broker
    sys.exit("python_bench: rxbroker did not start")


def figures(build, url, *args):
    return subprocess.run([os.path.join(build, "client_figures"), *args[:1], url, *args[1:]],
                          capture_output=True, text=True, check=True).stdout.split()


def python_getdata(memory):
    memory.insertData("Bench/Value", 87)
    get, samples = memory.getData, []
    for i in range(WARMUP + ROUNDS):
        start = time.perf_counter()
        if get("Bench/Value") != 87:
            sys.exit("python_bench: wrong value")
        if i >= WARMUP:
            samples.append((time.perf_counter() - start) * 1e6)
    samples.sort()
    return samples[len(samples) // 2], samples[len(samples) * 99 // 100]


def python_follow(build, url, memory):
    lock, times, finished = threading.Lock(), [], threading.Event()

    def on_raise(value):
        with lock:
            times.append(time.perf_counter())
            if len(times) == RAISES:
                finished.set()
    memory.subscriber("Bench/Py").signal.connect(on_raise)
    figures(build, url, "raise", "Bench/Py", str(RAISES))
    seen = -1
    while not finished.wait(1.0) and len(times) != seen:  # ends once nothing came for 1 s
        seen = len(times)
    return (len(times) - 1) / (times[-1] - times[0]), len(times)


def cpp_follow(build, url):
    follower = subprocess.Popen([os.path.join(build, "client_figures"), "follow", url, "Bench/Cpp", str(RAISES)],
                                stdout=subprocess.PIPE, text=True)
    if follower.stdout.readline() != "ready\n":
        sys.exit("python_bench: client_figures follow did not start")
    figures(build, url, "raise", "Bench/Cpp", str(RAISES))
    rate, received = follower.stdout.read().split()
    follower.wait()
    return float(rate), int(received)


def main():
    build = sys.argv[1] if len(sys.argv) > 1 else "build-bench"
    sys.path.insert(0, os.path.join(build, "python"))
    import rxmemory
    with tempfile.TemporaryDirectory() as folder:
        url = f"unix://{folder}/bench.sock"
        broker = start_broker(build, url)
        try:
            cpp50, cpp99 = map(float, figures(build, url, "getdata"))
            cpp_rate, cpp_received = cpp_follow(build, url)
            with rxmemory.connect(url) as session:
                memory = session.service("RXMemory")
                py50, py99 = python_getdata(memory)
                py_rate, py_received = python_follow(build, url, memory)
        finally:
            broker.kill()
            broker.wait()
    print("Python package next to the C++ client (same broker, same run, Unix socket):")
    print(f"  getData round trip  C++ {cpp50:6.1f} us (p99 {cpp99:5.1f})  Python {py50:6.1f} us (p99 {py99:5.1f})"
          f"  ratio {py50 / cpp50:.2f}x (goal <= 1.3x)")
    print(f"  callbacks per s     C++ {cpp_rate:8.0f} ({cpp_received}/{RAISES})"
          f"  Python {py_rate:8.0f} ({py_received}/{RAISES})  (goal >= 50000)")


if __name__ == "__main__":
    main()
