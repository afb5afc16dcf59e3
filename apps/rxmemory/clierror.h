// CliError: a failure of one rxmemory command together with the exit status
// it ends the program with (see Cli). The message is one line, printed after
// "error: "; a hint, when present, is printed on the next line.
// Immutable; safe to share between threads.
#pragma once

#include <stdexcept>
#include <string>

namespace rxcli {

class CliError : public std::runtime_error {
 public:
  enum Status : int {
    kFailure = 1,   // the command ran and failed
    kUsage = 2,     // the command line is wrong
    kNoBroker = 3,  // nothing answers at the broker's address
  };

  CliError(Status status, const std::string& message, std::string hint = std::string());

  Status status() const noexcept { return status_; }
  const std::string& hint() const noexcept { return hint_; }

 private:
  Status status_;
  std::string hint_;
};

}  // namespace rxcli
