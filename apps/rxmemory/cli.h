// Cli: the rxmemory command line. Parses one command line, runs its command
// against a broker (or its HTTP status pages), prints the result, and returns
// the exit status: 0 done, 1 the command failed (one line "error: ..."),
// 2 bad usage (the error, then the command's help), 3 no broker at the
// address (the address tried and how to start one).
//
//   rxcli::Cli cli(std::cout, std::cerr);
//   return cli.run(argc, argv);
//
// One run at a time per Cli; `watch` installs process-wide SIGINT/SIGTERM
// handlers while it runs.
#pragma once

#include <ostream>

namespace rxcli {

class Cli {
 public:
  Cli(std::ostream& out, std::ostream& err);

  // argv[0] is the program name.
  [[nodiscard]] int run(int argc, const char* const* argv);

 private:
  std::ostream& out_;
  std::ostream& err_;
};

}  // namespace rxcli
