// The wire codec: values and frames to bytes and back, limits, and how the
// frame decoder copes with split, merged and malformed frames.
#include "net/wirecodec.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "codec_util.h"
#include "mz/object.h"

namespace nettest {
namespace {

using net::DecodeError;
using net::FrameDecoder;
using net::Limits;
using net::MessageKind;
using RX::RXValue;

std::string encoded(const RXValue& v, const net::ObjectEncoder& objects = {}) {
  std::string out;
  net::MsgpackWriter<std::string> w(out);
  net::encodeValue(v, w, objects);
  return out;
}

// What decoding gives: the value as text (floats to 9 digits), or the error.
std::string decoded(const std::string& data, const Limits& limits = Limits(),
                    const net::ObjectDecoder& objects = {}) {
  try {
    const RXValue v = net::decodeValue(data.data(), data.size(), limits, objects);
    if (!v.isFloat()) return v.toString();
    char text[32];
    std::snprintf(text, sizeof text, "%.9g", v.toFloat());
    return text;
  } catch (const DecodeError& e) {
    return std::string("error: ") + e.what();
  }
}

std::string f64(double d) {
  std::string out;
  net::MsgpackWriter<std::string>(out).writeDouble(d);
  return out;
}

std::string frame(MessageKind kind, std::uint32_t requestId, std::vector<RXValue> fields = {}) {
  net::Message m;
  m.kind = static_cast<std::uint8_t>(kind);
  m.requestId = requestId;
  m.fields = std::move(fields);
  std::string out;
  net::encodeFrame(m, out);
  return out;
}

// Drains the decoder: messages as "kind/requestId: field field", errors as
// "error: text"; at most 10 lines, so that a decoder stuck on an error cannot
// loop forever.
std::vector<std::string> drain(FrameDecoder& decoder) {
  std::vector<std::string> out;
  while (out.size() < 10) {
    try {
      std::optional<net::Message> m = decoder.next();
      if (!m) break;
      out.push_back(std::to_string(m->kind) + "/" + std::to_string(m->requestId) + ":");
      for (const RXValue& f : m->fields) out.back() += " " + f.toString();
    } catch (const DecodeError& e) {
      out.push_back(std::string("error: ") + e.what());
      if (e.fatal()) break;
    }
  }
  return out;
}

RXValue array(std::initializer_list<RXValue> items) {
  RXValue a = RXValue::array(0);
  for (const RXValue& v : items) a.arrayPush(v);
  return a;
}

RXValue nested(int levels) {
  RXValue v = RXValue::array(0);
  for (int i = 1; i < levels; ++i) v = array({v});
  return v;
}

TEST(WireCodec, EveryValueKindHasItsEncodingAndRoundTrips) {
  EXPECT_EQ("98 05 a1 61 c0 c3 ff d2 80 00 00 00 ca 3f c0 00 00 c4 02 00 ff",
            hex(encoded(array({RXValue(5), RXValue("a"), RXValue(), RXValue(true), RXValue(-1),
                               RXValue(INT32_MIN), RXValue(1.5f), RXValue(RXValue::Binary{0x00, 0xff})}))));
  // [version 1, Call, requestId 7, 5]
  EXPECT_EQ("00 00 00 05 94 01 03 07 05", hex(frame(MessageKind::Call, 7, {RXValue(5)})));
  EXPECT_EQ("00 00 00 08 93 01 0f ce 00 01 00 00", hex(frame(MessageKind::Ping, 65536)));
  RXValue::Binary blob(70000);
  for (std::size_t i = 0; i < blob.size(); ++i) blob[i] = static_cast<unsigned char>(i * 31);
  const RXValue values[] = {
      RXValue(),
      RXValue(false),
      RXValue(0),
      RXValue(128),
      RXValue(-33),
      RXValue(65536),
      RXValue(INT32_MAX),
      RXValue(-2.5f),
      RXValue(""),
      RXValue(std::string("a\0b", 3)),
      RXValue(std::string(100000, 'z')),
      RXValue(RXValue::Binary{}),
      RXValue(blob),
      RXValue::array(0),
      nested(32),
      array({RXValue(1), array({RXValue(3.0f), RXValue(), array({})}), RXValue("two")})};
  for (const RXValue& v : values) {
    const std::string wire = encoded(v);
    const RXValue back = net::decodeValue(wire.data(), wire.size(), Limits(), {});
    EXPECT_TRUE(v == back && v.getType() == back.getType()) << v.toString().substr(0, 80);
  }
  // Floats cross bit-exact: float32 on the wire, no detour through double text.
  for (float f : {0.1f, -0.0f, 1e-45f, 1.17549435e-38f, 3.40282347e38f, 16777217.0f,
                  std::numeric_limits<float>::infinity(), std::nanf("0x123")}) {
    const std::string wire = encoded(RXValue(f));
    const float back = net::decodeValue(wire.data(), wire.size(), Limits(), {}).toFloat();
    EXPECT_EQ(0, std::memcmp(&f, &back, sizeof f)) << f;
  }
}

TEST(WireCodec, ForeignEncodingsAndLimits) {
  Limits small;
  small.maxStringBytes = 4;
  small.maxArrayLength = 3;
  small.maxDepth = 2;
  const double kInf = std::numeric_limits<double>::infinity();
  const struct {
    std::string wire;
    std::string outcome;
    Limits limits = Limits();
  } rows[] = {
      // Non-minimal ints and float64 from other encoders.
      {unhex("cd 00 05"), "5"},
      {unhex("d3 ff ff ff ff ff ff ff fd"), "-3"},
      {f64(0.1), "0.100000001"},
      // Narrowing at the edge of the float32 range: what rounds to FLT_MAX is
      // kept, what would round to infinity is refused, infinities pass as sent.
      {f64(std::numeric_limits<float>::max()), "3.40282347e+38"},
      {f64(-0x1.fffffefffffffp127), "-3.40282347e+38"},  // just below the midpoint
      {f64(0x1.ffffffp127), "error: float out of 32-bit range: 3.4028235677973366e+38"},
      {f64(-1e39), "error: float out of 32-bit range: -1e+39"},
      {f64(1.7976931348623157e308), "error: float out of 32-bit range: 1.7976931348623157e+308"},
      {f64(kInf), "inf"},
      {f64(-kInf), "-inf"},
      {f64(1e-50), "0"},  // underflow is ordinary rounding
      {unhex("ce 80 00 00 00"), "error: int out of 32-bit range: 2147483648"},
      {unhex("d3 ff ff ff ff 7f ff ff ff"), "error: int out of 32-bit range: -2147483649"},
      {unhex("cf ff ff ff ff ff ff ff ff"), "error: int out of 32-bit range: 18446744073709551615"},
      {unhex("92 01 81 01 02"), "error: maps are not values"},
      {unhex("d7 02 00 00 00 00 00 00 00 01"), "error: unknown ext type 2"},
      {unhex("d6 01 00 00 00 01"), "error: object reference must hold 8 bytes, got 4"},
      {unhex("d7 01 00 00 00 00 00 00 00 2a"),
       "error: object reference 42 received but no object decoder is set"},
      {unhex("01 02"), "error: trailing bytes after the value: 1"},
      // Every limit is enforced and named.
      {encoded(RXValue("abcd")), "\"abcd\"", small},
      {encoded(RXValue("abcde")), "error: str length 5 exceeds maxStringBytes 4", small},
      {encoded(RXValue(RXValue::Binary(5))), "error: bin length 5 exceeds maxStringBytes 4", small},
      {encoded(array({RXValue(1), RXValue(2), RXValue(3)})), "[1, 2, 3]", small},
      {encoded(array({RXValue(1), RXValue(2), RXValue(3), RXValue(4)})),
       "error: array length 4 exceeds maxArrayLength 3", small},
      {encoded(nested(2)), "[[]]", small},
      {encoded(nested(3)), "error: array nesting depth 3 exceeds maxDepth 2", small},
      {encoded(nested(33)), "error: array nesting depth 33 exceeds maxDepth 32"},
  };
  for (const auto& row : rows) EXPECT_EQ(row.outcome, decoded(row.wire, row.limits)) << hex(row.wire);

  // The frame's own array counts against maxArrayLength: 3 header items + 1 field.
  const std::string fourItems = frame(MessageKind::Post, 3, {RXValue(1)});
  FrameDecoder limited(small);
  limited.feed(fourItems.data(), fourItems.size());
  EXPECT_EQ(std::vector<std::string>{"error: array length 4 exceeds maxArrayLength 3"}, drain(limited));
  // maxFrameBytes: the sender refuses to build a frame its peer would drop, and keeps what it had.
  net::Message big;
  big.fields = {RXValue(std::string(19, 'x'))};
  std::string out = "keep";
  EXPECT_EQ("frame body of 24 bytes exceeds maxFrameBytes 23",
            errorOf([&] { net::encodeFrame(big, out, {}, 23); }));
  EXPECT_EQ("keep", out);
}

TEST(WireCodec, ObjectsTravelAsIdsThroughTheCallerFunctions) {
  const mz::AnyObject a(std::make_shared<mz::DynamicObject>()), b(std::make_shared<mz::DynamicObject>());
  const net::ObjectEncoder toId = [&](const mz::AnyObject& o) -> std::uint64_t {
    return o == a ? 0x0102030405060708ull : 9;
  };
  const net::ObjectDecoder fromId = [&](std::uint64_t id) {
    if (id == 5) throw std::runtime_error("no such object");
    return id == 9 ? b : id == 8 ? mz::AnyObject() : a;
  };
  EXPECT_EQ("d7 01 01 02 03 04 05 06 07 08", hex(encoded(RXValue(a), toId)));
  const std::string pair = encoded(array({RXValue(a), RXValue(b)}), toId);
  const RXValue back = net::decodeValue(pair.data(), pair.size(), Limits(), fromId);
  EXPECT_TRUE(back[0].toObject() == a && back[1].toObject() == b);
  EXPECT_EQ("error: object reference 5: no such object",
            decoded(unhex("d7 01 00 00 00 00 00 00 00 05"), {}, fromId));
  EXPECT_EQ("error: unknown object reference 8", decoded(unhex("d7 01 00 00 00 00 00 00 00 08"), {}, fromId));

  // Without an encoder an object cannot be sent; the buffer keeps what it had.
  std::string out = "prefix";
  net::MsgpackWriter<std::string> w(out);
  EXPECT_THROW(net::encodeValue(array({RXValue(1), RXValue(a)}), w), net::EncodeError);
  EXPECT_EQ("prefix", out);
  net::Message m;
  m.fields = {RXValue(2), RXValue(b)};
  std::vector<char> frameOut{'x'};
  EXPECT_EQ("cannot send an object value: no object encoder is set",
            errorOf([&] { net::encodeFrame(m, frameOut); }));
  EXPECT_EQ(1u, frameOut.size());
}

TEST(FrameDecoder, FramesSplitAtEveryByteBoundary) {
  const std::string stream = frame(MessageKind::Hello, 0, {RXValue("session-1")}) +
                             frame(MessageKind::Call, 4000000000u,
                                   {RXValue("RXMemory"), RXValue("getData"), array({RXValue("k")})}) +
                             frame(MessageKind::Pong, 1);
  const std::vector<std::string> expected = {"1/0: \"session-1\"",
                                             "3/4000000000: \"RXMemory\" \"getData\" [\"k\"]", "16/1:"};
  // Every cut into two chunks, the second through prepare/commit as a socket read would.
  for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
    FrameDecoder d;
    d.feed(stream.data(), cut);
    std::vector<std::string> got = drain(d);
    std::memcpy(d.prepare(stream.size() - cut), stream.data() + cut, stream.size() - cut);
    d.commit(stream.size() - cut);
    for (std::string& s : drain(d)) got.push_back(std::move(s));
    ASSERT_EQ(expected, got) << "cut at byte " << cut;
    EXPECT_EQ(0u, d.buffered());
  }
  FrameDecoder d;
  (void)d.prepare(4);
  EXPECT_THROW(d.commit(1u << 30), std::out_of_range) << "committed beyond the room prepared";
}

TEST(FrameDecoder, MalformedFrameFailsAloneAndTheStreamGoesOn) {
  const struct {
    std::string body;
    const char* error;
    bool requestKnown;  // then it is 9, of kind 3
  } cases[] = {
      {unhex("94 01 03 09 a5 61 62"), "truncated str: need 5 bytes, 2 left", true},
      {unhex("95 01 03 09 01"), "truncated array: 5 elements need at least 5 bytes, 4 left", false},
      {unhex("94 02 03 09 01"), "unsupported protocol version 2 (expected 1)", true},
      {unhex("94 01 03 09 81 01 02"), "maps are not values", true},
      {unhex("93 01 03 09 00"), "trailing bytes after the message: 1", true},
      {unhex("92 01 03"), "message has 2 items, need at least 3 (version, kind, requestId)", false},
      {unhex("93 01 cd 01 00 09"), "message kind out of range: 256", false},
      {unhex("93 01 03 cf 00 00 00 01 00 00 00 00"), "requestId out of range: 4294967296", false},
      {unhex("81 01 02"), "expected array, got map", false},
      {"", "truncated input: need 1 byte, 0 left", false},
  };
  const std::string before = frame(MessageKind::Call, 1, {RXValue("before")});
  const std::string after = frame(MessageKind::Call, 2, {RXValue("after")});
  for (const auto& c : cases) {
    SCOPED_TRACE(c.error);
    const std::string stream =
        before + std::string{0, 0, 0, static_cast<char>(c.body.size())} + c.body + after;
    FrameDecoder d;
    d.feed(stream.data(), stream.size());
    (void)d.next();
    try {
      (void)d.next();
      ADD_FAILURE() << "no error";
    } catch (const DecodeError& e) {
      EXPECT_EQ(c.error, std::string(e.what()));
      EXPECT_FALSE(e.fatal());
      EXPECT_EQ(c.requestKnown ? std::optional<std::uint32_t>(9) : std::nullopt, e.requestId());
      if (c.requestKnown) EXPECT_EQ(std::optional<std::uint8_t>(3), e.kind());
    }
    EXPECT_EQ(std::vector<std::string>{"3/2: \"after\""}, drain(d));
  }
}

TEST(FrameDecoder, OversizedLengthIsFatal) {
  Limits limits;
  limits.maxFrameBytes = 100;
  FrameDecoder d(limits);
  const std::string ok = frame(MessageKind::Emit, 5, {RXValue(std::string(90, 'e'))});
  // Known as soon as the length arrives: no waiting for a body that may never come.
  const std::string stream = ok + unhex("00 00 00 65");  // 101
  d.feed(stream.data(), stream.size());
  EXPECT_EQ((std::vector<std::string>{"12/5: \"" + std::string(90, 'e') + "\"",
                                      "error: frame length 101 exceeds maxFrameBytes 100"}),
            drain(d));
  EXPECT_TRUE(d.failed());
  // The stream cannot be resynchronised: good bytes after it change nothing.
  d.feed(ok.data(), ok.size());
  EXPECT_EQ(std::vector<std::string>{"error: frame length 101 exceeds maxFrameBytes 100"}, drain(d));
  // The default limit: 64 MiB.
  FrameDecoder defaults;
  defaults.feed("\x04\x00\x00\x01", 4);
  EXPECT_EQ(std::vector<std::string>{"error: frame length 67108865 exceeds maxFrameBytes 67108864"},
            drain(defaults));
}

}  // namespace
}  // namespace nettest
