// RXError: the error type of the framework and of every module. It names the
// module and the method that failed, a message, and the source file and line
// that raised it; what() carries all of them in one readable line:
//   "RXMemory::getData: Data not found foo (rxbase/src/rxmemory.cpp:120)"
// Immutable after construction; safe to share between threads.
#pragma once

#include <stdexcept>
#include <string>

namespace RX {

class RXError : public std::exception {
 public:
  RXError(std::string module, std::string method, std::string message,
          std::string file = std::string(), int line = 0);

  const std::string& module() const noexcept { return module_; }
  const std::string& method() const noexcept { return method_; }
  const std::string& message() const noexcept { return message_; }
  const std::string& file() const noexcept { return file_; }
  int line() const noexcept { return line_; }
  const char* what() const noexcept override { return what_.c_str(); }

 private:
  std::string module_;
  std::string method_;
  std::string message_;
  std::string file_;
  int line_;
  std::string what_;
};

}  // namespace RX

// Raises an RXError stamped with the current source file and line.
#define RX_THROW(module, method, message) \
  throw ::RX::RXError((module), (method), (message), __FILE__, __LINE__)
