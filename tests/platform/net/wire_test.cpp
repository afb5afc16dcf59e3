// The wire from the msgpack bytes up, with the exact errors of bad input and of each limit; and the outbox.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "mz/object.h"
#include "net/outbox.h"
#include "net/wirecodec.h"
#include "support/capture.h"

namespace {

using namespace net;
using RX::RXValue;
using testsupport::errorOf;

// "d9 ff" -> the two bytes; spaces are ignored.
std::string unhex(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i + 1 < text.size(); i += text[i] == ' ' ? 1 : 2)
    if (text[i] != ' ') out += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
  return out;
}

std::string hex(const std::string& bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string s;
  for (unsigned char c : bytes) {
    if (!s.empty()) s += ' ';
    s += {digits[c >> 4], digits[c & 0x0f]};
  }
  return s;
}

std::string encoded(const RXValue& v, const ObjectEncoder& objects = {}) {
  std::string out;
  MsgpackWriter<std::string> w(out);
  encodeValue(v, w, objects);
  return out;
}

// What decoding gives: the value as text (floats to 9 digits), or the error.
std::string decoded(const std::string& data, const Limits& limits = Limits(),
                    const ObjectDecoder& objects = {}) {
  try {
    const RXValue v = decodeValue(data.data(), data.size(), limits, objects);
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
  MsgpackWriter<std::string>(out).writeDouble(d);
  return out;
}

std::string frame(MessageKind kind, std::uint32_t requestId, std::vector<RXValue> fields = {}) {
  std::string out;
  encodeFrame(Message{static_cast<std::uint8_t>(kind), requestId, std::move(fields)}, out);
  return out;
}

// Messages as "kind/id: fields", errors as "error kind/id: text"; at most 10, so a stuck decoder cannot loop.
std::vector<std::string> drain(FrameDecoder& decoder) {
  std::vector<std::string> out;
  while (out.size() < 10) {
    try {
      std::optional<Message> m = decoder.next();
      if (!m) break;
      out.push_back(std::to_string(m->kind) + "/" + std::to_string(m->requestId) + ":");
      for (const RXValue& f : m->fields) out.back() += " " + f.toString();
    } catch (const DecodeError& e) {
      const std::string kind = e.kind() ? std::to_string(*e.kind()) : "?";
      out.push_back("error" + (e.requestId() ? " " + kind + "/" + std::to_string(*e.requestId()) : "") +
                    ": " + e.what());
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

TEST(Msgpack, IntsAndLengthsTakeTheSmallestFormAtEveryBoundaryAndReadBack) {
  // clang-format off
  const std::pair<std::int64_t, const char*> ints[] = {
      {0, "00"}, {127, "7f"}, {128, "cc 80"}, {255, "cc ff"}, {256, "cd 01 00"}, {65535, "cd ff ff"},
      {65536, "ce 00 01 00 00"}, {UINT32_MAX, "ce ff ff ff ff"}, {INT64_MAX, "cf 7f ff ff ff ff ff ff ff"},
      {INT64_C(1) << 32, "cf 00 00 00 01 00 00 00 00"}, {-1, "ff"}, {-32, "e0"}, {-33, "d0 df"},
      {-128, "d0 80"}, {-129, "d1 ff 7f"}, {-32768, "d1 80 00"}, {-32769, "d2 ff ff 7f ff"},
      {INT32_MIN, "d2 80 00 00 00"}, {std::int64_t{INT32_MIN} - 1, "d3 ff ff ff ff 7f ff ff ff"},
      {INT64_MIN, "d3 80 00 00 00 00 00 00 00"}};
  // clang-format on
  for (const auto& [value, bytes] : ints) {
    std::string out;
    MsgpackWriter<std::string>(out).writeInt(value);
    EXPECT_EQ(bytes, hex(out)) << value;
    MsgpackReader r(out.data(), out.size());
    EXPECT_EQ(value, r.readInt()) << bytes;
    EXPECT_TRUE(r.atEnd()) << bytes;
  }
  std::string out;
  MsgpackWriter<std::string>(out).writeUInt(UINT64_MAX);
  EXPECT_EQ("cf ff ff ff ff ff ff ff ff", hex(out));
  // Non-minimal forms that other encoders may produce are read too.
  out += out + unhex("cd 00 05 d3 ff ff ff ff ff ff ff fe");
  MsgpackReader r(out.data(), out.size());
  r.skip();  // beyond INT64_MAX: skip() must not take it for a signed int
  EXPECT_EQ(UINT64_MAX, r.readUInt());
  EXPECT_EQ(5u, r.readUInt());
  EXPECT_EQ(-2, r.readInt());

  // What the writer puts before the payload of a str, bin or ext of n bytes, or before n items of an array or
  // n entries of a map; the reader reads it back.
  const struct {
    char kind;
    std::size_t n;
    const char* header;
  } rows[] = {// clang-format off
      {'s', 0, "a0"}, {'s', 31, "bf"}, {'s', 32, "d9 20"}, {'s', 255, "d9 ff"}, {'s', 256, "da 01 00"},
      {'s', 65536, "db 00 01 00 00"}, {'b', 0, "c4 00"}, {'b', 255, "c4 ff"}, {'b', 256, "c5 01 00"},
      {'b', 65536, "c6 00 01 00 00"}, {'a', 0, "90"}, {'a', 15, "9f"}, {'a', 16, "dc 00 10"},
      {'a', 65536, "dd 00 01 00 00"}, {'m', 0, "80"}, {'m', 15, "8f"}, {'m', 16, "de 00 10"},
      {'m', 65536, "df 00 01 00 00"}, {'e', 0, "c7 00 fe"}, {'e', 1, "d4 fe"}, {'e', 2, "d5 fe"},
      {'e', 3, "c7 03 fe"}, {'e', 4, "d6 fe"}, {'e', 8, "d7 fe"}, {'e', 16, "d8 fe"},
      {'e', 256, "c8 01 00 fe"}, {'e', 65536, "c9 00 01 00 00 fe"}};
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(1, row.kind) + std::to_string(row.n));
    const bool counted = row.kind == 'a' || row.kind == 'm';
    const std::string payload(row.kind == 'm' ? 2 * row.n : row.n, '\x01');  // ints 1 for the items
    std::string out;
    MsgpackWriter<std::string> w(out);
    if (row.kind == 's') w.writeStr(payload);
    if (row.kind == 'b') w.writeBin(payload.data(), row.n);
    if (row.kind == 'a') w.writeArrayHeader(row.n);
    if (row.kind == 'm') w.writeMapHeader(row.n);
    if (row.kind == 'e') w.writeExt(-2, payload.data(), row.n);
    EXPECT_EQ(row.header, hex(out.substr(0, out.size() - (counted ? 0 : row.n))));
    if (counted) out += payload;
    MsgpackReader r(out.data(), out.size());
    r.skip();
    EXPECT_TRUE(r.atEnd()) << "the reader took " << r.position() << " of " << out.size() << " bytes";
  }
}

TEST(Msgpack, ErrorsArePreciseAndLeaveTheCursor) {
  std::string data = unhex("cf ff ff ff ff ff ff ff ff d3 ff ff ff ff ff ff ff fe");
  MsgpackReader ints(data.data(), data.size());
  EXPECT_EQ("int out of 64-bit range: 18446744073709551615", errorOf([&] { (void)ints.readInt(); }));
  EXPECT_EQ("expected bool, got int", errorOf([&] { (void)ints.readBool(); }));
  EXPECT_EQ(UINT64_MAX, ints.readUInt());
  EXPECT_EQ("expected an unsigned int, got -2", errorOf([&] { (void)ints.readUInt(); }));
  EXPECT_EQ("expected map, got int", errorOf([&] { (void)ints.readMapHeader(); }));
  EXPECT_EQ(9u, ints.position());
  // Each row: bytes, then `zeros` zero bytes, and the error of skipping them.
  const struct {
    const char* bytes;
    std::size_t zeros;
    const char* error;
  } rows[] = {
      {"", 0, "truncated input: need 1 byte, 0 left"},
      {"c1", 0, "invalid msgpack byte 0xc1"},
      {"d2 01 02", 0, "truncated int: need 4 bytes, 2 left"},
      {"d9 c8", 12, "truncated str: need 200 bytes, 12 left"},
      {"da 01", 0, "truncated str length: need 2 bytes, 1 left"},
      {"c4 03 01 02", 0, "truncated bin: need 3 bytes, 2 left"},
      {"cb", 7, "truncated float: need 8 bytes, 7 left"},
      {"d7 01", 7, "truncated ext: need 9 bytes, 8 left"},
      // Counts the bytes left cannot hold are refused before anyone reserves memory for them.
      {"dc 03 e8", 12, "truncated array: 1000 elements need at least 1000 bytes, 12 left"},
      {"dd ff ff ff ff", 0, "truncated array: 4294967295 elements need at least 4294967295 bytes, 0 left"},
      {"85", 9, "truncated map: 5 entries need at least 10 bytes, 9 left"},
      {"92 01 a5 61", 0, "truncated str: need 5 bytes, 1 left"},  // inside a container
      {"81 a1 6b 81 a1 6a 90", 0, "nesting depth 3 exceeds maxDepth 2"},
  };
  for (const auto& row : rows) {
    data = unhex(row.bytes) + std::string(row.zeros, '\0');
    MsgpackReader r(data.data(), data.size());
    EXPECT_EQ(row.error, errorOf([&] { r.skip(2); }));
    EXPECT_EQ(0u, r.position()) << row.error;
  }
}

TEST(WireCodec, EveryValueAndObjectHasItsEncodingAndForeignFormsAndLimitsAreChecked) {
  const RXValue kinds = array({RXValue(5), RXValue("a"), RXValue(), RXValue(true), RXValue(-1),
                               RXValue(INT32_MIN), RXValue(1.5f), RXValue(RXValue::Binary{0x00, 0xff})});
  EXPECT_EQ("98 05 a1 61 c0 c3 ff d2 80 00 00 00 ca 3f c0 00 00 c4 02 00 ff", hex(encoded(kinds)));
  // [version 1, Call, requestId 7, 5]
  EXPECT_EQ("00 00 00 05 94 01 03 07 05", hex(frame(MessageKind::Call, 7, {RXValue(5)})));
  EXPECT_EQ("00 00 00 08 93 01 0f ce 00 01 00 00", hex(frame(MessageKind::Ping, 65536)));
  RXValue::Binary blob(70000);
  for (std::size_t i = 0; i < blob.size(); ++i) blob[i] = static_cast<unsigned char>(i * 31);
  // Back as sent, type included, with the sizes and nestings that change a form.
  const RXValue values[] = {kinds,
                            array({RXValue(false), RXValue(""), RXValue(RXValue::Binary{}), array({})}),
                            RXValue(std::string("a\0b", 3)),
                            RXValue(std::string(100000, 'z')),
                            RXValue(blob),
                            nested(32)};
  for (const RXValue& v : values) {
    const std::string wire = encoded(v);
    const RXValue back = decodeValue(wire.data(), wire.size(), Limits(), {});
    EXPECT_TRUE(v == back && v.getType() == back.getType()) << v.toString().substr(0, 80);
  }
  // Floats cross bit-exact: float32 on the wire, no detour through double text.
  for (float f : {0.1f, -0.0f, 1e-45f, 1.17549435e-38f, 3.40282347e38f, 16777217.0f,
                  std::numeric_limits<float>::infinity(), std::nanf("0x123")}) {
    const std::string wire = encoded(RXValue(f));
    const float back = decodeValue(wire.data(), wire.size(), Limits(), {}).toFloat();
    EXPECT_EQ(0, std::memcmp(&f, &back, sizeof f)) << f;
  }

  // What other encoders send, and every limit.
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
      // Non-minimal forms and float64 from other encoders.
      {unhex("cd 00 05"), "5"},
      {f64(0.1), "0.100000001"},
      // Narrowing at the edge of the float32 range: what rounds to FLT_MAX is kept, what would round to
      // infinity is refused, infinities pass as sent.
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
  Message big;
  big.fields = {RXValue(std::string(19, 'x'))};
  std::string out = "keep";
  EXPECT_EQ("frame body of 24 bytes exceeds maxFrameBytes 23",
            errorOf([&] { encodeFrame(big, out, {}, 23); }));
  EXPECT_EQ("keep", out);

  // Objects travel as ids through the caller's functions.
  const mz::AnyObject a(std::make_shared<mz::DynamicObject>()), b(std::make_shared<mz::DynamicObject>());
  const ObjectEncoder toId = [&](const mz::AnyObject& o) -> std::uint64_t {
    return o == a ? 0x0102030405060708ull : 9;
  };
  const ObjectDecoder fromId = [&](std::uint64_t id) {
    if (id == 5) throw std::runtime_error("no such object");
    return id == 9 ? b : id == 8 ? mz::AnyObject() : a;
  };
  EXPECT_EQ("d7 01 01 02 03 04 05 06 07 08", hex(encoded(RXValue(a), toId)));
  const std::string pair = encoded(array({RXValue(a), RXValue(b)}), toId);
  const RXValue back = decodeValue(pair.data(), pair.size(), Limits(), fromId);
  EXPECT_TRUE(back[0].toObject() == a && back[1].toObject() == b);
  EXPECT_EQ("error: object reference 5: no such object",
            decoded(unhex("d7 01 00 00 00 00 00 00 00 05"), {}, fromId));
  EXPECT_EQ("error: unknown object reference 8", decoded(unhex("d7 01 00 00 00 00 00 00 00 08"), {}, fromId));
  // Without an encoder an object cannot be sent; the buffer keeps what it had.
  std::string prefixed = "prefix";
  MsgpackWriter<std::string> w(prefixed);
  EXPECT_THROW(encodeValue(array({RXValue(1), RXValue(a)}), w), EncodeError);
  EXPECT_EQ("prefix", prefixed);
  const Message m{0, 0, {RXValue(2), RXValue(b)}};
  std::vector<char> frameOut{'x'};
  EXPECT_EQ("cannot send an object value: no object encoder is set",
            errorOf([&] { encodeFrame(m, frameOut); }));
  EXPECT_EQ(1u, frameOut.size());
}

TEST(FrameDecoder, FramesSplitAnywhereMalformedOnesFailAloneAndAnOversizedLengthIsFatal) {
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
  FrameDecoder room;
  (void)room.prepare(4);
  EXPECT_THROW(room.commit(1u << 30), std::out_of_range) << "committed beyond the room prepared";

  // A malformed frame fails alone, naming its request when it can be read, and the next frame is decoded; a
  // length over maxFrameBytes ends the stream.
  const std::pair<std::string, const char*> cases[] = {
      {unhex("94 01 03 09 a5 61 62"), "error 3/9: truncated str: need 5 bytes, 2 left"},
      {unhex("95 01 03 09 01"), "error: truncated array: 5 elements need at least 5 bytes, 4 left"},
      {unhex("94 02 03 09 01"), "error 3/9: unsupported protocol version 2 (expected 1)"},
      {unhex("94 01 03 09 81 01 02"), "error 3/9: maps are not values"},
      {unhex("93 01 03 09 00"), "error 3/9: trailing bytes after the message: 1"},
      {unhex("92 01 03"), "error: message has 2 items, need at least 3 (version, kind, requestId)"},
      {unhex("93 01 cd 01 00 09"), "error: message kind out of range: 256"},
      {unhex("93 01 03 cf 00 00 00 01 00 00 00 00"), "error: requestId out of range: 4294967296"},
      {unhex("81 01 02"), "error: expected array, got map"},
      {"", "error: truncated input: need 1 byte, 0 left"},
  };
  const std::string before = frame(MessageKind::Call, 1, {RXValue("before")});
  const std::string after = frame(MessageKind::Call, 2, {RXValue("after")});
  for (const auto& [body, error] : cases) {
    const std::string framed = before + std::string{0, 0, 0, static_cast<char>(body.size())} + body + after;
    FrameDecoder d;
    d.feed(framed.data(), framed.size());
    EXPECT_EQ((std::vector<std::string>{"3/1: \"before\"", error, "3/2: \"after\""}), drain(d));
  }
  Limits limits;
  limits.maxFrameBytes = 100;
  FrameDecoder d(limits);
  const std::string ok = frame(MessageKind::Emit, 5, {RXValue(std::string(90, 'e'))});
  // Known as soon as the length arrives: no waiting for a body that may never come.
  const std::string oversized = ok + unhex("00 00 00 65");  // 101
  d.feed(oversized.data(), oversized.size());
  EXPECT_EQ((std::vector<std::string>{"12/5: \"" + std::string(90, 'e') + "\"",
                                      "error: frame length 101 exceeds maxFrameBytes 100"}),
            drain(d));
  EXPECT_TRUE(d.failed());
  // The stream cannot be resynchronised: good bytes after it change nothing.
  d.feed(ok.data(), ok.size());
  EXPECT_EQ(std::vector<std::string>{"error: frame length 101 exceeds maxFrameBytes 100"}, drain(d));
  FrameDecoder defaults;
  defaults.feed("\x04\x00\x00\x01", 4);
  EXPECT_EQ(std::vector<std::string>{"error: frame length 67108865 exceeds maxFrameBytes 67108864"},
            drain(defaults));
}

// Writes up to `budget` bytes the way a socket would take them; returns them.
std::string take(Outbox& box, std::size_t budget) {
  iovec iov[64];
  std::string out;
  const int n = box.gather(iov, 64);
  for (int i = 0; i < n && out.size() < budget; ++i)
    out.append(static_cast<const char*>(iov[i].iov_base), std::min(iov[i].iov_len, budget - out.size()));
  box.consume(out.size());
  return out;
}

TEST(Outbox, CappedLanesDropTheirOldestWaitingFrameOnlyAndFramesLeaveWholeInOrder) {
  Outbox box;
  constexpr std::uint64_t kPosts = 7, kEvents = 9;
  EXPECT_EQ(0u, box.push("R1.", Outbox::kUncapped, 0));
  EXPECT_EQ(0u, box.push("a1.", kPosts, 2));
  EXPECT_EQ(0u, box.push("e1.", kEvents, 1));
  EXPECT_EQ(0u, box.push("a2.", kPosts, 2));
  EXPECT_EQ(1u, box.push("a3.", kPosts, 2)) << "a third post over a cap of 2 drops a1";
  EXPECT_EQ(1u, box.push("e2.", kEvents, 1));
  EXPECT_EQ(0u, box.push("R2.", Outbox::kUncapped, 0)) << "uncapped frames are never dropped";
  EXPECT_EQ(15u, box.unsent());
  EXPECT_EQ(15u + 5 * Outbox::kFrameOverhead, box.footprint());
  // a2 starts going out: it can no longer be dropped, so a4 and a5 drop a3 and a4.
  EXPECT_EQ("R1.a", take(box, 4));
  EXPECT_EQ(0u, box.push("a4.", kPosts, 2));
  EXPECT_EQ(1u, box.push("a5.", kPosts, 2));
  EXPECT_EQ(1u, box.push("a6.", kPosts, 2));
  EXPECT_EQ("2.e2.R2.a5.a6.", take(box, 1000));
  EXPECT_TRUE(box.empty());
  EXPECT_EQ(0u, box.footprint());

  // Many frames go out in one gather, and a write that stops mid-frame resumes there.
  std::string all;
  for (int i = 0; i < 100; ++i) {
    const std::string frame = "frame" + std::to_string(i) + ";";
    all += frame;
    box.push(frame, Outbox::kUncapped, 0);
  }
  iovec iov[64];
  EXPECT_EQ(64, box.gather(iov, 64)) << "one system call takes up to the batch size";
  std::string out;
  for (std::size_t budget : {3u, 1u, 50u, 7u, 5000u, 13u}) out += take(box, budget);
  while (!box.empty()) out += take(box, 13);
  EXPECT_EQ(all, out);
}

}  // namespace
