// net::Endpoint: where a broker listens and a client connects, parsed from
// "tcp://HOST:PORT" (HOST a name, an IPv4 address or a bracketed IPv6 address;
// PORT 0 lets the system choose when listening) or "unix:///absolute/path".
// Parsing failures throw net::EndpointError saying what was expected.
// An Endpoint is a plain value: safe to copy and share between threads.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace net {

class EndpointError : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

struct Endpoint {
  enum class Kind { Tcp, Unix };

  Kind kind = Kind::Tcp;
  std::string host;        // tcp only, without brackets
  std::uint16_t port = 0;  // tcp only
  std::string path;        // unix only

  // The endpoint the broker listens on unless told otherwise.
  static constexpr const char* kDefault = "tcp://127.0.0.1:9780";

  // Throws EndpointError, e.g. "invalid endpoint 'tcp://host': expected
  // tcp://HOST:PORT", "invalid endpoint 'tcp://h:99999': port must be 0 to 65535".
  [[nodiscard]] static Endpoint parse(const std::string& text);
  // The canonical text: "tcp://127.0.0.1:9780", "tcp://[::1]:9780", "unix:///run/rx.sock".
  [[nodiscard]] std::string toString() const;

  bool operator==(const Endpoint& o) const {
    return kind == o.kind && host == o.host && port == o.port && path == o.path;
  }
  bool operator!=(const Endpoint& o) const { return !(*this == o); }
};

}  // namespace net
