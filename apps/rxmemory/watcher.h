// Watcher: the `watch` command. Follows keys of the memory as signals (the
// signal "signal" of the object the memory's `subscriber` method returns for
// each key) and prints every raise until it has printed `count` of them, the
// user presses Ctrl-C (or sends SIGTERM), or the broker goes away.
// One run at a time per process: it installs SIGINT and SIGTERM handlers for
// the duration of run(). Raises arrive on the session's threads; printing is
// serialised by the watcher.
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
  Watcher(net::ClientSession& session, mz::AnyObject memory, Printer& printer, std::ostream& err);

  // Connects to every key (the memory declares a missing key as an event),
  // writes "watching KEY, KEY... (Ctrl-C to stop)" on `err` once all are
  // connected, then prints raises until one of the ends above. count 0 means
  // no limit. Throws CliError kFailure when a key cannot be followed within
  // `timeout` or the broker goes away while watching.
  void run(const std::vector<std::string>& keys, unsigned int count, std::chrono::milliseconds timeout);

 private:
  net::ClientSession& session_;
  mz::AnyObject memory_;
  Printer& printer_;
  std::ostream& err_;
};

}  // namespace rxcli
