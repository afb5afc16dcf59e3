// The wire codec: values and frames to bytes and back, limits, and how the
// frame decoder copes with split, merged and malformed frames.
#include "net/wirecodec.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "mz/object.h"

namespace {

using net::DecodeError;
using net::FrameDecoder;
using net::Limits;
using net::Message;
using net::MessageKind;
using RX::RXValue;

std::string hex(const std::string& bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string s;
  for (unsigned char c : bytes) {
    if (!s.empty()) s += ' ';
    s += digits[c >> 4];
    s += digits[c & 0x0f];
  }
  return s;
}

std::string bytes(std::initializer_list<int> list) {
  std::string s;
  for (int b : list) s += static_cast<char>(b);
  return s;
}

std::string encoded(const RXValue& v, const net::ObjectEncoder& objects = {}) {
  std::string out;
  net::MsgpackWriter w(out);
  net::encodeValue(v, w, objects);
  return out;
}

RXValue decoded(const std::string& data, const Limits& limits = Limits(),
                const net::ObjectDecoder& objects = {}) {
  return net::decodeValue(data.data(), data.size(), limits, objects);
}

template <typename F>
std::string errorOf(F&& f) {
  try {
    f();
  } catch (const DecodeError& e) {
    return e.what();
  } catch (const net::EncodeError& e) {
    return std::string("EncodeError: ") + e.what();
  }
  return "<no error>";
}

std::string decodeError(const std::string& data, const Limits& limits = Limits()) {
  return errorOf([&] { (void)decoded(data, limits); });
}

// A frame around hand-made body bytes.
std::string frameOf(const std::string& body) {
  const auto n = static_cast<std::uint32_t>(body.size());
  return bytes({static_cast<int>(n >> 24), static_cast<int>((n >> 16) & 0xff),
                static_cast<int>((n >> 8) & 0xff), static_cast<int>(n & 0xff)}) +
         body;
}

Message message(MessageKind kind, std::uint32_t requestId, std::vector<RXValue> fields) {
  Message m;
  m.kind = static_cast<std::uint8_t>(kind);
  m.requestId = requestId;
  m.fields = std::move(fields);
  return m;
}

std::string frame(const Message& m) {
  std::string out;
  net::encodeFrame(m, out);
  return out;
}

// "kind/requestId: field, field" for comparing messages in one line.
std::string describe(const Message& m) {
  std::string s = std::to_string(m.kind) + "/" + std::to_string(m.requestId) + ":";
  for (const RXValue& f : m.fields) s += " " + f.toString();
  return s;
}

// Drains the decoder: messages as describe() lines, errors as "error: text".
std::vector<std::string> drain(FrameDecoder& decoder) {
  std::vector<std::string> out;
  for (;;) {
    try {
      std::optional<Message> m = decoder.next();
      if (!m) return out;
      out.push_back(describe(*m));
    } catch (const DecodeError& e) {
      out.push_back(std::string("error: ") + e.what());
      if (e.fatal()) return out;
    }
  }
}

RXValue array(std::initializer_list<RXValue> items) {
  RXValue a = RXValue::array(0);
  for (const RXValue& v : items) a.arrayPush(v);
  return a;
}

RXValue nestedArrays(int levels) {
  RXValue v = RXValue::array(0);
  for (int i = 1; i < levels; ++i) v = array({v});
  return v;
}

std::uint32_t floatBits(float f) {
  std::uint32_t b;
  std::memcpy(&b, &f, sizeof b);
  return b;
}

TEST(WireCodecTest, KnownEncodings) {
  EXPECT_EQ("05", hex(encoded(RXValue(5))));
  EXPECT_EQ("a1 61", hex(encoded(RXValue("a"))));
  EXPECT_EQ("c0", hex(encoded(RXValue())));
  EXPECT_EQ("c3", hex(encoded(RXValue(true))));
  EXPECT_EQ("ff", hex(encoded(RXValue(-1))));
  EXPECT_EQ("d2 80 00 00 00", hex(encoded(RXValue(INT32_MIN))));
  EXPECT_EQ("ca 3f c0 00 00", hex(encoded(RXValue(1.5f))));
  EXPECT_EQ("c4 02 00 ff", hex(encoded(RXValue(RXValue::Binary{0x00, 0xff}))));
  EXPECT_EQ("92 01 91 a1 61", hex(encoded(array({RXValue(1), array({RXValue("a")})}))));
  // [version 1, Call, requestId 7, 5]
  EXPECT_EQ("00 00 00 05 94 01 03 07 05", hex(frame(message(MessageKind::Call, 7, {RXValue(5)}))));
  EXPECT_EQ("00 00 00 08 93 01 0f ce 00 01 00 00",
            hex(frame(message(MessageKind::Ping, 65536, {}))));
}

TEST(WireCodecTest, EveryValueKindRoundTrips) {
  const std::string big(100000, 'z');
  RXValue::Binary blob(70000);
  for (std::size_t i = 0; i < blob.size(); ++i) blob[i] = static_cast<unsigned char>(i * 31);
  const std::vector<RXValue> values = {
      RXValue(), RXValue(true), RXValue(false), RXValue(0), RXValue(127), RXValue(128),
      RXValue(-32), RXValue(-33), RXValue(65536), RXValue(INT32_MAX), RXValue(INT32_MIN),
      RXValue(0.0f), RXValue(-2.5f), RXValue(""), RXValue("with \"quotes\" and \0 nul"),
      RXValue(std::string("a\0b", 3)), RXValue(big), RXValue(RXValue::Binary{}),
      RXValue(blob), RXValue::array(0), nestedArrays(32),
      array({RXValue(1), RXValue("two"), array({RXValue(3.0f), RXValue(), array({})}),
             RXValue(RXValue::Binary{1, 0, 2})}),
  };
  for (const RXValue& v : values) {
    const RXValue back = decoded(encoded(v));
    EXPECT_EQ(v, back) << v.toString();
    EXPECT_EQ(v.getType(), back.getType()) << v.toString();
  }

  // Floats cross bit-exact: float32 on the wire, no detour through double text.
  for (float f : {0.1f, -0.0f, 1e-45f, 1.17549435e-38f, 3.40282347e38f, 16777217.0f,
                  std::numeric_limits<float>::infinity(), std::nanf("0x123")}) {
    const RXValue back = decoded(encoded(RXValue(f)));
    ASSERT_TRUE(back.isFloat());
    EXPECT_EQ(floatBits(f), floatBits(back.toFloat())) << f;
  }
}

TEST(WireCodecTest, ForeignEncodingsAreAcceptedOrRefusedClearly) {
  // Non-minimal ints and float64 from other encoders.
  EXPECT_EQ(RXValue(5), decoded(bytes({0xcd, 0x00, 0x05})));
  EXPECT_EQ(RXValue(-3), decoded(bytes({0xd3, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xfd})));
  std::string f64;
  net::MsgpackWriter(f64).writeDouble(0.1);
  EXPECT_EQ(RXValue(0.1f), decoded(f64));

  // float64 narrowing at the edge of the float32 range: what rounds to FLT_MAX
  // is kept, what would round to infinity is refused, infinities pass as sent.
  const double kMax = std::numeric_limits<float>::max();
  const double kInf = std::numeric_limits<double>::infinity();
  const struct {
    double sent;
    const char* outcome;  // the float kept, or the decode error
  } narrowing[] = {
      {kMax, "3.40282347e+38"},
      {-0x1.fffffefffffffp127, "-3.40282347e+38"},  // just below the midpoint
      {0x1.ffffffp127, "float out of 32-bit range: 3.4028235677973366e+38"},
      {-1e39, "float out of 32-bit range: -1e+39"},
      {1.7976931348623157e308, "float out of 32-bit range: 1.7976931348623157e+308"},
      {kInf, "inf"},
      {-kInf, "-inf"},
      {1e-50, "0"},  // underflow is ordinary rounding
  };
  for (const auto& row : narrowing) {
    std::string wire;
    net::MsgpackWriter(wire).writeDouble(row.sent);
    std::string outcome = decodeError(wire);
    if (outcome == "<no error>") {
      char text[32];
      std::snprintf(text, sizeof text, "%.9g", decoded(wire).toFloat());
      outcome = text;
    }
    EXPECT_EQ(row.outcome, outcome) << row.sent;
  }

  EXPECT_EQ("int out of 32-bit range: 2147483648", decodeError(bytes({0xce, 0x80, 0, 0, 0})));
  EXPECT_EQ("int out of 32-bit range: -2147483649",
            decodeError(bytes({0xd3, 0xff, 0xff, 0xff, 0xff, 0x7f, 0xff, 0xff, 0xff})));
  EXPECT_EQ("int out of 32-bit range: 18446744073709551615",
            decodeError(bytes({0xcf, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff})));
  EXPECT_EQ("maps are not values", decodeError(bytes({0x80})));
  EXPECT_EQ("maps are not values", decodeError(bytes({0x92, 0x01, 0x81, 0x01, 0x02})));
  EXPECT_EQ("unknown ext type 2", decodeError(bytes({0xd7, 0x02, 0, 0, 0, 0, 0, 0, 0, 1})));
  EXPECT_EQ("object reference must hold 8 bytes, got 4",
            decodeError(bytes({0xd6, 0x01, 0, 0, 0, 1})));
  EXPECT_EQ("object reference 42 received but no object decoder is set",
            decodeError(bytes({0xd7, 0x01, 0, 0, 0, 0, 0, 0, 0, 42})));
  EXPECT_EQ("truncated str: need 5 bytes, 2 left", decodeError(bytes({0xa5, 'a', 'b'})));
  EXPECT_EQ("invalid msgpack byte 0xc1", decodeError(bytes({0x91, 0xc1})));
  EXPECT_EQ("trailing bytes after the value: 1", decodeError(bytes({0x01, 0x02})));
}

TEST(WireCodecTest, ObjectsTravelAsIdsThroughTheCallerFunctions) {
  const mz::AnyObject a(std::make_shared<mz::DynamicObject>());
  const mz::AnyObject b(std::make_shared<mz::DynamicObject>());
  std::map<std::uint64_t, mz::AnyObject> table = {{0x0102030405060708ull, a}, {9, b}};
  const net::ObjectEncoder toId = [&](const mz::AnyObject& o) -> std::uint64_t {
    for (const auto& [id, obj] : table) {
      if (obj == o) return id;
    }
    throw std::runtime_error("not in the table");
  };
  const net::ObjectDecoder fromId = [&](std::uint64_t id) {
    auto it = table.find(id);
    if (it == table.end()) throw std::runtime_error("no such object");
    return it->second;
  };

  EXPECT_EQ("d7 01 01 02 03 04 05 06 07 08", hex(encoded(RXValue(a), toId)));
  const RXValue pair = array({RXValue(a), RXValue(b)});
  const RXValue back = decoded(encoded(pair, toId), Limits(), fromId);
  ASSERT_TRUE(back[0].isObject() && back[1].isObject());
  EXPECT_TRUE(back[0].toObject() == a);
  EXPECT_TRUE(back[1].toObject() == b);

  const std::string unknownId = bytes({0xd7, 0x01, 0, 0, 0, 0, 0, 0, 0, 5});
  EXPECT_EQ("object reference 5: no such object",
            errorOf([&] { (void)decoded(unknownId, Limits(), fromId); }));
  EXPECT_EQ("unknown object reference 5",
            errorOf([&] { (void)decoded(unknownId, Limits(), [](std::uint64_t) {
                                          return mz::AnyObject();
                                        }); }));

  // Without an encoder an object cannot be sent; the buffer keeps what it had.
  std::string out = "prefix";
  net::MsgpackWriter w(out);
  EXPECT_EQ("EncodeError: cannot send an object value: no object encoder is set",
            errorOf([&] { net::encodeValue(array({RXValue(1), RXValue(a)}), w); }));
  EXPECT_EQ("prefix", out);
  std::vector<char> frameOut{'x'};
  EXPECT_EQ("EncodeError: cannot send an object value: no object encoder is set",
            errorOf([&] {
              net::encodeFrame(message(MessageKind::Reply, 1, {RXValue(2), RXValue(b)}), frameOut);
            }));
  EXPECT_EQ(1u, frameOut.size());
}

TEST(WireCodecTest, EveryLimitIsEnforcedAndNamed) {
  Limits small;
  small.maxStringBytes = 4;
  small.maxArrayLength = 3;
  small.maxDepth = 2;

  EXPECT_EQ(RXValue("abcd"), decoded(encoded(RXValue("abcd")), small));
  EXPECT_EQ("str length 5 exceeds maxStringBytes 4", decodeError(encoded(RXValue("abcde")), small));
  EXPECT_EQ("bin length 5 exceeds maxStringBytes 4",
            decodeError(encoded(RXValue(RXValue::Binary(5))), small));
  EXPECT_EQ(3u, decoded(encoded(array({RXValue(1), RXValue(2), RXValue(3)})), small).getSize());
  EXPECT_EQ("array length 4 exceeds maxArrayLength 3",
            decodeError(encoded(array({RXValue(1), RXValue(2), RXValue(3), RXValue(4)})), small));
  EXPECT_EQ(nestedArrays(2), decoded(encoded(nestedArrays(2)), small));
  EXPECT_EQ("array nesting depth 3 exceeds maxDepth 2",
            decodeError(encoded(nestedArrays(3)), small));
  // The defaults: 32 levels pass, the 33rd is refused.
  EXPECT_EQ(nestedArrays(32), decoded(encoded(nestedArrays(32))));
  EXPECT_EQ("array nesting depth 33 exceeds maxDepth 32", decodeError(encoded(nestedArrays(33))));

  // The frame's own array counts against maxArrayLength: 3 header items + 1 field.
  const std::string fourItems = frame(message(MessageKind::Post, 3, {RXValue(1)}));
  FrameDecoder limited(small);
  limited.feed(fourItems.data(), fourItems.size());
  EXPECT_EQ((std::vector<std::string>{"error: array length 4 exceeds maxArrayLength 3"}),
            drain(limited));

  // maxFrameBytes: the sender refuses to build a frame its peer would drop.
  std::string out = "keep";
  EXPECT_EQ("EncodeError: frame body of 24 bytes exceeds maxFrameBytes 23", errorOf([&] {
              net::encodeFrame(message(MessageKind::Emit, 1, {RXValue(std::string(19, 'x'))}), out,
                               {}, 23);
            }));
  EXPECT_EQ("keep", out);
}

TEST(FrameDecoderTest, FramesSplitAtEveryByteBoundary) {
  const std::vector<Message> messages = {
      message(MessageKind::Hello, 0, {RXValue("session-1")}),
      message(MessageKind::Call, 4000000000u,
              {RXValue("RXMemory"), RXValue("getData"), array({RXValue("key"), RXValue(0)})}),
      message(MessageKind::Reply, 4000000000u, {RXValue(1.25f)}),
      message(MessageKind::Pong, 1, {}),
  };
  std::string stream;
  std::vector<std::string> expected;
  for (const Message& m : messages) {
    net::encodeFrame(m, stream);
    expected.push_back(describe(m));
  }
  EXPECT_EQ("3/4000000000: \"RXMemory\" \"getData\" [\"key\", 0]", expected[1]);

  // All frames in one chunk.
  FrameDecoder whole;
  whole.feed(stream.data(), stream.size());
  EXPECT_EQ(expected, drain(whole));
  EXPECT_EQ(0u, whole.buffered());

  // Every cut into two chunks.
  for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
    FrameDecoder d;
    d.feed(stream.data(), cut);
    std::vector<std::string> got = drain(d);
    d.feed(stream.data() + cut, stream.size() - cut);
    for (std::string& s : drain(d)) got.push_back(std::move(s));
    ASSERT_EQ(expected, got) << "cut at byte " << cut;
  }

  // One byte at a time, through prepare/commit as a socket read would.
  FrameDecoder bytewise;
  std::vector<std::string> got;
  for (char c : stream) {
    *bytewise.prepare(1) = c;
    bytewise.commit(1);
    for (std::string& s : drain(bytewise)) got.push_back(std::move(s));
  }
  EXPECT_EQ(expected, got);
}

TEST(FrameDecoderTest, MalformedFrameFailsAloneAndTheStreamGoesOn) {
  const std::string before = frame(message(MessageKind::Call, 1, {RXValue("before")}));
  const std::string after = frame(message(MessageKind::Call, 2, {RXValue("after")}));
  struct Case {
    std::string body;
    std::string error;
    std::optional<std::uint32_t> requestId;
  };
  const std::vector<Case> cases = {
      // [1, Call, 9, "ab...] cut short
      {bytes({0x94, 0x01, 0x03, 0x09, 0xa5, 'a', 'b'}), "truncated str: need 5 bytes, 2 left", 9},
      // announces 5 items, holds 4
      {bytes({0x95, 0x01, 0x03, 0x09, 0x01}), "truncated array: 5 elements need at least 5 bytes, 4 left",
       std::nullopt},
      {bytes({0x94, 0x02, 0x03, 0x09, 0x01}), "unsupported protocol version 2 (expected 1)", 9},
      {bytes({0x94, 0x01, 0x03, 0x09, 0x81, 0x01, 0x02}), "maps are not values", 9},
      {bytes({0x94, 0x01, 0x03, 0x09}) + std::string(33, '\x91') + "\x90",
       "array nesting depth 33 exceeds maxDepth 32", 9},
      {bytes({0x94, 0x01, 0x03, 0x09, 0xce, 0x80, 0, 0, 0}), "int out of 32-bit range: 2147483648", 9},
      {bytes({0x93, 0x01, 0x03, 0x09, 0x00}), "trailing bytes after the message: 1", 9},
      {bytes({0x92, 0x01, 0x03}), "message has 2 items, need at least 3 (version, kind, requestId)",
       std::nullopt},
      {bytes({0x93, 0x01, 0xcd, 0x01, 0x00, 0x09}), "message kind out of range: 256", std::nullopt},
      {bytes({0x93, 0x01, 0x03, 0xcf, 0, 0, 0, 1, 0, 0, 0, 0}), "requestId out of range: 4294967296",
       std::nullopt},
      {bytes({0x81, 0x01, 0x02}), "expected array, got map", std::nullopt},
      {"", "truncated input: need 1 byte, 0 left", std::nullopt},
  };
  for (const Case& c : cases) {
    FrameDecoder d;
    const std::string stream = before + frameOf(c.body) + after;
    d.feed(stream.data(), stream.size());
    auto first = d.next();
    ASSERT_TRUE(first.has_value());
    EXPECT_EQ(1u, first->requestId);
    try {
      (void)d.next();
      ADD_FAILURE() << "no error for " << hex(c.body) << ", expected " << c.error;
    } catch (const DecodeError& e) {
      EXPECT_EQ(c.error, e.what());
      EXPECT_FALSE(e.fatal()) << c.error;
      EXPECT_EQ(c.requestId, e.requestId()) << c.error;
      if (c.requestId) {
        EXPECT_EQ(std::optional<std::uint8_t>(3), e.kind()) << c.error;
      }
    }
    EXPECT_FALSE(d.failed());
    auto next = d.next();
    ASSERT_TRUE(next.has_value()) << c.error;
    EXPECT_EQ("3/2: \"after\"", describe(*next));
    EXPECT_FALSE(d.next().has_value());
  }
}

TEST(FrameDecoderTest, OversizedLengthIsFatal) {
  Limits limits;
  limits.maxFrameBytes = 100;
  FrameDecoder d(limits);
  const std::string ok = frame(message(MessageKind::Emit, 5, {RXValue(std::string(90, 'e'))}));
  d.feed(ok.data(), ok.size());
  // Known as soon as the length arrives: no waiting for a body that may never come.
  const std::string header = bytes({0x00, 0x00, 0x00, 0x65});  // 101
  d.feed(header.data(), header.size());
  EXPECT_EQ((std::vector<std::string>{"12/5: \"" + std::string(90, 'e') + "\"",
                                      "error: frame length 101 exceeds maxFrameBytes 100"}),
            drain(d));
  EXPECT_TRUE(d.failed());
  // The stream cannot be resynchronised: good bytes after it change nothing.
  d.feed(ok.data(), ok.size());
  try {
    (void)d.next();
    ADD_FAILURE() << "a failed decoder returned a message";
  } catch (const DecodeError& e) {
    EXPECT_TRUE(e.fatal());
    EXPECT_FALSE(e.requestId().has_value());
    EXPECT_STREQ("frame length 101 exceeds maxFrameBytes 100", e.what());
  }

  // The default limit: 64 MiB.
  FrameDecoder defaults;
  const std::string huge = bytes({0x04, 0x00, 0x00, 0x01});
  defaults.feed(huge.data(), huge.size());
  EXPECT_EQ((std::vector<std::string>{"error: frame length 67108865 exceeds maxFrameBytes 67108864"}),
            drain(defaults));
}

TEST(FrameDecoderTest, LargeFramesAndBufferReuse) {
  // A 1 MiB frame among small ones; the decoder's buffer is empty afterwards.
  const std::string big(1 << 20, 'b');
  const std::string stream = frame(message(MessageKind::Reply, 8, {RXValue(big)})) +
                             frame(message(MessageKind::Pong, 9, {}));
  FrameDecoder d;
  // Fed in socket-sized pieces.
  std::vector<Message> got;
  for (std::size_t at = 0; at < stream.size(); at += 65536) {
    const std::size_t n = std::min<std::size_t>(65536, stream.size() - at);
    std::memcpy(d.prepare(n), stream.data() + at, n);
    d.commit(n);
    while (auto m = d.next()) got.push_back(std::move(*m));
  }
  ASSERT_EQ(2u, got.size());
  EXPECT_EQ(big, got[0].fields.at(0).toStdString());
  EXPECT_EQ(9u, got[1].requestId);
  EXPECT_EQ(0u, d.buffered());

  (void)d.prepare(4);
  EXPECT_THROW(d.commit(1u << 30), std::out_of_range);
}

}  // namespace
