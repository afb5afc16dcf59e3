#!/usr/bin/python3
"""Follows a few keys of the memory and prints every value raised on them.

    battery_monitor.py [--url URL] [--count N] [KEY ...]

KEY defaults to Robot/Battery and Robot/Temperature. Stops after N raises in
all (--count), or at Ctrl-C. The broker's address is --url, else
$RXMEMORY_URL, else tcp://127.0.0.1:9780.
"""
import argparse
import queue
import time

import rxmemory


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("keys", nargs="*", default=["Robot/Battery", "Robot/Temperature"])
    parser.add_argument("--url", help="the broker (default: $RXMEMORY_URL, else tcp://127.0.0.1:9780)")
    parser.add_argument("--count", type=int, default=0, help="stop after this many raises (0: never)")
    args = parser.parse_args()

    raised = queue.Queue()
    with rxmemory.connect(args.url) as session:
        memory = session.service("RXMemory")
        for key in args.keys:
            # The callback runs on the session's threads: hand the value over
            # to the main thread, which prints in raise order.
            memory.subscriber(key).signal.connect(lambda value, key=key: raised.put((key, value)))
        print("following", ", ".join(args.keys), flush=True)
        seen = 0
        try:
            while args.count == 0 or seen < args.count:
                key, value = raised.get()
                print(f"{time.strftime('%H:%M:%S')} {key} = {value!r}", flush=True)
                seen += 1
        except KeyboardInterrupt:
            pass


if __name__ == "__main__":
    main()
