#!/usr/bin/python3
"""A module of this process that reacts to an event by writing a key.

    bump_reactor.py [--url URL] [--count N]

Registers the module PyBumpReactor, subscribes it to the event Robot/Bumped,
and at every raise writes Robot/LastBump = [value, number of bumps so far].
Stops after N raises (--count), or at Ctrl-C.
"""
import argparse
import threading

import rxmemory


class BumpReactor(rxmemory.Module):
    """Counts bumps and writes the last one to Robot/LastBump."""

    def __init__(self, session, name, memory, count):
        self.memory = memory
        self.bumps = 0
        self.count = count
        self.done = threading.Event()
        super().__init__(session, name)

    @rxmemory.method("Called by the memory at every raise of Robot/Bumped",
                     params={"key": "the event", "value": "the raised value", "message": "given at subscription"})
    def onBumped(self, key, value, message):
        # Calls of one module arrive one at a time, in raise order; calling
        # the broker from here is fine.
        self.bumps += 1
        self.memory.insertData("Robot/LastBump", [value, self.bumps])
        print(f"bump {self.bumps}: {value!r} -> Robot/LastBump", flush=True)
        if self.count and self.bumps >= self.count:
            self.done.set()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--url", help="the broker (default: $RXMEMORY_URL, else tcp://127.0.0.1:9780)")
    parser.add_argument("--count", type=int, default=0, help="stop after this many bumps (0: never)")
    args = parser.parse_args()

    with rxmemory.connect(args.url) as session:
        memory = session.service("RXMemory")
        reactor = BumpReactor(session, "PyBumpReactor", memory, args.count)
        memory.subscribeToEvent("Robot/Bumped", reactor.name, "onBumped")
        print("waiting for Robot/Bumped", flush=True)
        try:
            while not reactor.done.wait(0.5):  # wakes up now and then for Ctrl-C
                pass
        except KeyboardInterrupt:
            pass
        memory.unsubscribeToEvent("Robot/Bumped", reactor.name)


if __name__ == "__main__":
    main()
