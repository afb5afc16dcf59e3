// Endpoint texts: what is accepted, in its canonical form, and the errors.
#include "net/endpoint.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// The canonical text of what `text` parses to, or the error.
std::string parsed(const std::string& text) {
  try {
    return net::Endpoint::parse(text).toString();
  } catch (const net::EndpointError& e) {
    return e.what();
  }
}

TEST(Endpoint, ParsesTcpAndUnixOrSaysWhy) {
  const std::string kForms = "': expected tcp://HOST:PORT or unix:///path";
  const std::string longPath = "unix:///" + std::string(200, 'p');
  const std::pair<std::string, std::string> rows[] = {
      {"tcp://127.0.0.1:9780", "tcp://127.0.0.1:9780"},
      {"tcp://localhost:0", "tcp://localhost:0"},
      {"tcp://[::1]:65535", "tcp://[::1]:65535"},
      {"unix:///run/rx/broker.sock", "unix:///run/rx/broker.sock"},
      {"", "invalid endpoint '" + kForms},
      {"http://a:1", "invalid endpoint 'http://a:1" + kForms},
      {"tcp://host", "invalid endpoint 'tcp://host': expected tcp://HOST:PORT"},
      {"tcp://:80", "invalid endpoint 'tcp://:80': the host is empty"},
      {"tcp://h:65536", "invalid endpoint 'tcp://h:65536': port must be 0 to 65535"},
      {"tcp://h:8a", "invalid endpoint 'tcp://h:8a': port must be 0 to 65535"},
      {"tcp://h:", "invalid endpoint 'tcp://h:': port must be 0 to 65535"},
      {"tcp://::1:80", "invalid endpoint 'tcp://::1:80': an IPv6 address must be written in brackets"},
      {"tcp://[::1]80", "invalid endpoint 'tcp://[::1]80': expected tcp://[IPV6]:PORT"},
      {"unix://rel.sock", "invalid endpoint 'unix://rel.sock': expected unix:///absolute/path"},
      {longPath, "invalid endpoint '" + longPath + "': the path is longer than 107 bytes"},
  };
  for (const auto& [text, outcome] : rows) EXPECT_EQ(outcome, parsed(text));
  const net::Endpoint e = net::Endpoint::parse("tcp://[::1]:80");
  EXPECT_EQ("::1 80", e.host + " " + std::to_string(e.port));
  EXPECT_EQ(net::Endpoint::Kind::Unix, net::Endpoint::parse("unix:///a").kind);
  EXPECT_EQ(net::Endpoint::parse("tcp://127.0.0.1:9780"), net::Endpoint::parse(net::Endpoint::kDefault));
}

}  // namespace
