// Watcher: the `watch` command. Follows keys of the memory as signals (the
// signal "signal" of the object the memory's `subscriber` method returns for
// each key) and prints every raise until it has printed `count` lines, the
// user presses Ctrl-C (or sends SIGTERM).
//
// Names with `*` or `?` are patterns (see Glob): the keys matching one are
// found without creating anything, from the memory's key list, and keys that
// appear later are followed too, as soon as the memory's "RXMemory/KeyAdded"
// event names them, and at the latest at the next listing (every
// Options::listInterval; it also finds keys made without that event). A plain
// name is followed whether it exists or not: a key missing from the memory is
// declared as an event by the memory (that is how it hands out a key's signal).
//
// A key matching a pattern that appears while watching is printed once with
// its value, marked "(new)": the raise that made it was sent before it could
// be followed.
//
// With Options::changes, plain writes, which notify nobody, are found by
// polling the followed keys' timestamps every Options::interval and printed
// marked "(write)". A raise also renews the timestamp: a change whose value
// was printed as a raise within one interval is not printed again as a write.
// Writes closer together than the interval show as the last of them.
//
// The broker going away does not end the watch: the session reconnects (the
// broker may restart on the same address), the watcher says so on `err` and
// follows its names again on the new broker.
//
// One run at a time per process: it installs SIGINT and SIGTERM handlers for
// the duration of run(). Raises arrive on the session's threads; printing is
// serialised by the watcher; every call to the broker is made by the thread
// in run().
#pragma once

#include <chrono>
#include <ostream>
#include <string>
#include <vector>

#include "mz/object.h"

namespace net {
class ClientSession;
}

namespace rxcli {

class Printer;

class Watcher {
 public:
  struct Options {
    std::vector<std::string> names;           // key names and patterns
    unsigned int count = 0;                   // stop after this many lines; 0: never
    std::chrono::milliseconds timeout{3000};  // for each reply of the broker
    bool changes = false;                     // also poll for plain writes
    std::chrono::milliseconds interval{100};  // between two polls of the timestamps
    // Between two listings of the memory's keys, when a name is a pattern.
    std::chrono::milliseconds listInterval{500};
  };

  // `session` must reconnect by itself and not remake subscriptions: the
  // watcher makes its own again, without creating keys for patterns.
  Watcher(net::ClientSession& session, mz::AnyObject memory, Printer& printer, std::ostream& err);

  // Follows every name, writes "watching NAME, NAME... (Ctrl-C to stop)" on
  // `err` once all are followed, then prints until one of the ends above.
  // Throws CliError kFailure when a plain name cannot be followed within
  // `timeout` at the start.
  void run(const Options& options);

 private:
  net::ClientSession& session_;
  mz::AnyObject memory_;
  Printer& printer_;
  std::ostream& err_;
};

}  // namespace rxcli
