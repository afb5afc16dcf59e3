#include "net/endpoint.h"

#include <sys/un.h>

#include <cctype>

namespace net {

namespace {

[[noreturn]] void fail(const std::string& text, const std::string& why) {
  throw EndpointError("invalid endpoint '" + text + "': " + why);
}

}  // namespace

Endpoint Endpoint::parse(const std::string& text) {
  static const std::string kTcp = "tcp://";
  static const std::string kUnix = "unix://";
  Endpoint e;
  if (text.compare(0, kUnix.size(), kUnix) == 0) {
    e.kind = Kind::Unix;
    e.path = text.substr(kUnix.size());
    if (e.path.empty() || e.path[0] != '/') fail(text, "expected unix:///absolute/path");
    // sockaddr_un holds the path and its terminating zero.
    if (e.path.size() >= sizeof(sockaddr_un{}.sun_path))
      fail(text, "the path is longer than " + std::to_string(sizeof(sockaddr_un{}.sun_path) - 1) + " bytes");
    return e;
  }
  if (text.compare(0, kTcp.size(), kTcp) != 0) fail(text, "expected tcp://HOST:PORT or unix:///path");
  e.kind = Kind::Tcp;
  const std::string rest = text.substr(kTcp.size());
  std::string portText;
  if (!rest.empty() && rest[0] == '[') {
    const auto close = rest.find(']');
    if (close == std::string::npos || close + 1 >= rest.size() || rest[close + 1] != ':')
      fail(text, "expected tcp://[IPV6]:PORT");
    e.host = rest.substr(1, close - 1);
    portText = rest.substr(close + 2);
  } else {
    const auto colon = rest.rfind(':');
    if (colon == std::string::npos) fail(text, "expected tcp://HOST:PORT");
    e.host = rest.substr(0, colon);
    portText = rest.substr(colon + 1);
    if (e.host.find(':') != std::string::npos) fail(text, "an IPv6 address must be written in brackets");
  }
  if (e.host.empty()) fail(text, "the host is empty");
  if (e.host.find('/') != std::string::npos) fail(text, "expected tcp://HOST:PORT");
  if (portText.empty() || portText.size() > 5) fail(text, "port must be 0 to 65535");
  unsigned long port = 0;
  for (char c : portText) {
    if (!std::isdigit(static_cast<unsigned char>(c))) fail(text, "port must be 0 to 65535");
    port = port * 10 + static_cast<unsigned long>(c - '0');
  }
  if (port > 65535) fail(text, "port must be 0 to 65535");
  e.port = static_cast<std::uint16_t>(port);
  return e;
}

std::string Endpoint::toString() const {
  if (kind == Kind::Unix) return "unix://" + path;
  if (host.find(':') != std::string::npos) return "tcp://[" + host + "]:" + std::to_string(port);
  return "tcp://" + host + ":" + std::to_string(port);
}

}  // namespace net
