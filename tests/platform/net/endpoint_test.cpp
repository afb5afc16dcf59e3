// Endpoint texts: what is accepted, its canonical form, and the errors.
#include "net/endpoint.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string parseError(const std::string& text) {
  try {
    (void)net::Endpoint::parse(text);
  } catch (const net::EndpointError& e) {
    return e.what();
  }
  return "(accepted)";
}

TEST(Endpoint, ParsesTcpAndUnix) {
  net::Endpoint e = net::Endpoint::parse("tcp://127.0.0.1:9780");
  EXPECT_EQ(net::Endpoint::Kind::Tcp, e.kind);
  EXPECT_EQ("127.0.0.1", e.host);
  EXPECT_EQ(9780, e.port);
  EXPECT_EQ("tcp://127.0.0.1:9780", e.toString());
  EXPECT_EQ(e, net::Endpoint::parse(net::Endpoint::kDefault));

  e = net::Endpoint::parse("tcp://localhost:0");
  EXPECT_EQ("localhost", e.host);
  EXPECT_EQ(0, e.port);

  e = net::Endpoint::parse("tcp://[::1]:65535");
  EXPECT_EQ("::1", e.host);
  EXPECT_EQ(65535, e.port);
  EXPECT_EQ("tcp://[::1]:65535", e.toString());

  e = net::Endpoint::parse("unix:///run/rx/broker.sock");
  EXPECT_EQ(net::Endpoint::Kind::Unix, e.kind);
  EXPECT_EQ("/run/rx/broker.sock", e.path);
  EXPECT_EQ("unix:///run/rx/broker.sock", e.toString());
}

TEST(Endpoint, RefusesMalformedTexts) {
  EXPECT_EQ("invalid endpoint '': expected tcp://HOST:PORT or unix:///path", parseError(""));
  EXPECT_EQ("invalid endpoint 'http://a:1': expected tcp://HOST:PORT or unix:///path",
            parseError("http://a:1"));
  EXPECT_EQ("invalid endpoint 'tcp://host': expected tcp://HOST:PORT", parseError("tcp://host"));
  EXPECT_EQ("invalid endpoint 'tcp://:80': the host is empty", parseError("tcp://:80"));
  EXPECT_EQ("invalid endpoint 'tcp://h:99999': port must be 0 to 65535", parseError("tcp://h:99999"));
  EXPECT_EQ("invalid endpoint 'tcp://h:8a': port must be 0 to 65535", parseError("tcp://h:8a"));
  EXPECT_EQ("invalid endpoint 'tcp://h:': port must be 0 to 65535", parseError("tcp://h:"));
  EXPECT_EQ("invalid endpoint 'tcp://::1:80': an IPv6 address must be written in brackets",
            parseError("tcp://::1:80"));
  EXPECT_EQ("invalid endpoint 'tcp://[::1]80': expected tcp://[IPV6]:PORT", parseError("tcp://[::1]80"));
  EXPECT_EQ("invalid endpoint 'unix://rel.sock': expected unix:///absolute/path",
            parseError("unix://rel.sock"));
  const std::string longPath = "unix:///" + std::string(200, 'p');
  EXPECT_EQ("invalid endpoint '" + longPath + "': the path is longer than 107 bytes", parseError(longPath));
}

}  // namespace
