// The msgpack writer and reader on their own: exact encodings, bounds checks
// and the texts of decoding errors.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "net/msgpackreader.h"
#include "net/msgpackwriter.h"

namespace {

using net::DecodeError;
using net::MsgpackReader;
using net::MsgpackType;
using net::MsgpackWriter;

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

template <typename F>
std::string written(F&& write) {
  std::string out;
  MsgpackWriter w(out);
  write(w);
  return out;
}

std::string intBytes(std::int64_t v) {
  return hex(written([&](auto& w) { w.writeInt(v); }));
}

// The text of the DecodeError that f throws, or a note saying it did not throw.
template <typename F>
std::string errorOf(F&& f) {
  try {
    f();
  } catch (const DecodeError& e) {
    return e.what();
  }
  return "<no DecodeError>";
}

TEST(MsgpackWriterTest, IntsTakeTheSmallestForm) {
  EXPECT_EQ("00", intBytes(0));
  EXPECT_EQ("7f", intBytes(127));
  EXPECT_EQ("cc 80", intBytes(128));
  EXPECT_EQ("cc ff", intBytes(255));
  EXPECT_EQ("cd 01 00", intBytes(256));
  EXPECT_EQ("cd ff ff", intBytes(65535));
  EXPECT_EQ("ce 00 01 00 00", intBytes(65536));
  EXPECT_EQ("ce 7f ff ff ff", intBytes(INT32_MAX));
  EXPECT_EQ("ce ff ff ff ff", intBytes(UINT32_MAX));
  EXPECT_EQ("cf 00 00 00 01 00 00 00 00", intBytes(std::int64_t{1} << 32));
  EXPECT_EQ("cf 7f ff ff ff ff ff ff ff", intBytes(INT64_MAX));
  EXPECT_EQ("ff", intBytes(-1));
  EXPECT_EQ("e0", intBytes(-32));
  EXPECT_EQ("d0 df", intBytes(-33));
  EXPECT_EQ("d0 80", intBytes(-128));
  EXPECT_EQ("d1 ff 7f", intBytes(-129));
  EXPECT_EQ("d1 80 00", intBytes(-32768));
  EXPECT_EQ("d2 ff ff 7f ff", intBytes(-32769));
  EXPECT_EQ("d2 80 00 00 00", intBytes(INT32_MIN));
  EXPECT_EQ("d3 ff ff ff ff 7f ff ff ff", intBytes(std::int64_t{INT32_MIN} - 1));
  EXPECT_EQ("d3 80 00 00 00 00 00 00 00", intBytes(INT64_MIN));
  EXPECT_EQ("cf ff ff ff ff ff ff ff ff",
            hex(written([](auto& w) { w.writeUInt(UINT64_MAX); })));
}

TEST(MsgpackWriterTest, ScalarsAndHeaders) {
  EXPECT_EQ("c0 c2 c3", hex(written([](auto& w) {
              w.writeNil();
              w.writeBool(false);
              w.writeBool(true);
            })));
  EXPECT_EQ("ca 3f c0 00 00", hex(written([](auto& w) { w.writeFloat(1.5f); })));
  EXPECT_EQ("cb 3f f8 00 00 00 00 00 00", hex(written([](auto& w) { w.writeDouble(1.5); })));

  // The first `keep` bytes written for a str of n bytes.
  auto strHead = [](std::size_t n, std::size_t keep) {
    return hex(written([&](auto& w) { w.writeStr(std::string(n, 'x')); }).substr(0, keep));
  };
  EXPECT_EQ("a0", strHead(0, 5));
  EXPECT_EQ("bf 78", strHead(31, 2));
  EXPECT_EQ("d9 20 78", strHead(32, 3));
  EXPECT_EQ("d9 ff 78", strHead(255, 3));
  EXPECT_EQ("da 01 00 78", strHead(256, 4));
  EXPECT_EQ("db 00 01 00 00 78", strHead(65536, 6));
  EXPECT_EQ("a1 61", hex(written([](auto& w) { w.writeStr("a"); })));

  auto binHeader = [](std::size_t n) {
    std::string payload(n, 'x');
    return hex(written([&](auto& w) { w.writeBin(payload.data(), n); }).substr(0, 5));
  };
  EXPECT_EQ("c4 00", binHeader(0));
  EXPECT_EQ("c4 ff 78 78 78", binHeader(255));
  EXPECT_EQ("c5 01 00 78 78", binHeader(256));
  EXPECT_EQ("c6 00 01 00 00", binHeader(65536));

  EXPECT_EQ("90 9f dc 00 10 dd 00 01 00 00", hex(written([](auto& w) {
              w.writeArrayHeader(0);
              w.writeArrayHeader(15);
              w.writeArrayHeader(16);
              w.writeArrayHeader(65536);
            })));
  EXPECT_EQ("80 8f de 00 10 df 00 01 00 00", hex(written([](auto& w) {
              w.writeMapHeader(0);
              w.writeMapHeader(15);
              w.writeMapHeader(16);
              w.writeMapHeader(65536);
            })));

  auto extHeader = [](std::size_t n) {
    std::string payload(n, 'x');
    return hex(written([&](auto& w) { w.writeExt(-2, payload.data(), n); }).substr(0, 4));
  };
  EXPECT_EQ("d4 fe 78", extHeader(1));
  EXPECT_EQ("d5 fe 78 78", extHeader(2));
  EXPECT_EQ("d6 fe 78 78", extHeader(4));
  EXPECT_EQ("d7 fe 78 78", extHeader(8));
  EXPECT_EQ("d8 fe 78 78", extHeader(16));
  EXPECT_EQ("c7 00 fe", extHeader(0));
  EXPECT_EQ("c7 03 fe 78", extHeader(3));
  EXPECT_EQ("c8 01 00 fe", extHeader(256));
  EXPECT_EQ("c9 00 01 00", extHeader(65536));

  // Both buffer kinds get the same bytes, appended after what was there.
  std::vector<char> v{'z'};
  MsgpackWriter vw(v);
  vw.writeStr("a");
  vw.writeInt(-33);
  EXPECT_EQ(bytes({'z', 0xa1, 'a', 0xd0, 0xdf}), std::string(v.begin(), v.end()));
}

TEST(MsgpackReaderTest, ReadsBackEveryIntEncoding) {
  std::vector<std::int64_t> values = {0, 1, 127, 128, 255, 256, 65535, 65536, INT32_MAX,
                                      UINT32_MAX, std::int64_t{1} << 32, INT64_MAX, -1, -32, -33,
                                      -128, -129, -32768, -32769, INT32_MIN, INT64_MIN};
  std::string buf;
  MsgpackWriter w(buf);
  for (std::int64_t v : values) w.writeInt(v);
  w.writeUInt(UINT64_MAX);
  // Non-minimal forms that other encoders may produce are read too.
  buf += bytes({0xcd, 0x00, 0x05, 0xd3, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xfe});

  MsgpackReader r(buf.data(), buf.size());
  for (std::int64_t v : values) {
    ASSERT_EQ(MsgpackType::Int, r.peekType());
    EXPECT_EQ(v, r.readInt());
  }
  const std::size_t at = r.position();
  EXPECT_EQ("int out of 64-bit range: 18446744073709551615", errorOf([&] { (void)r.readInt(); }));
  EXPECT_EQ(at, r.position());
  EXPECT_EQ(UINT64_MAX, r.readUInt());
  EXPECT_EQ(5, r.readUInt());
  EXPECT_EQ("expected an unsigned int, got -2", errorOf([&] { (void)r.readUInt(); }));
  EXPECT_EQ(-2, r.readInt());
  EXPECT_TRUE(r.atEnd());
}

TEST(MsgpackReaderTest, ErrorsArePreciseAndLeaveTheCursor) {
  // A str8 announcing 200 bytes with 12 present.
  std::string s = bytes({0xd9, 200}) + std::string(12, 'x');
  MsgpackReader str(s.data(), s.size());
  EXPECT_EQ("truncated str: need 200 bytes, 12 left", errorOf([&] { (void)str.readStr(); }));
  EXPECT_EQ("expected array, got str", errorOf([&] { (void)str.readArrayHeader(); }));
  EXPECT_EQ("expected int, got str", errorOf([&] { (void)str.readInt(); }));
  EXPECT_EQ(0u, str.position());

  std::string empty;
  MsgpackReader end(empty.data(), 0);
  EXPECT_EQ("truncated input: need 1 byte, 0 left", errorOf([&] { (void)end.peekType(); }));

  auto firstError = [](const std::string& data, auto read) {
    MsgpackReader r(data.data(), data.size());
    return errorOf([&] { read(r); });
  };
  EXPECT_EQ("invalid msgpack byte 0xc1", firstError(bytes({0xc1}), [](auto& r) { r.skip(); }));
  EXPECT_EQ("truncated int: need 4 bytes, 2 left",
            firstError(bytes({0xd2, 1, 2}), [](auto& r) { (void)r.readInt(); }));
  EXPECT_EQ("truncated str length: need 2 bytes, 1 left",
            firstError(bytes({0xda, 1}), [](auto& r) { (void)r.readStr(); }));
  EXPECT_EQ("truncated bin: need 3 bytes, 2 left",
            firstError(bytes({0xc4, 3, 1, 2}), [](auto& r) { (void)r.readBin(); }));
  EXPECT_EQ("truncated float: need 8 bytes, 7 left",
            firstError(bytes({0xcb, 0, 0, 0, 0, 0, 0, 0}), [](auto& r) { (void)r.readFloat(); }));
  EXPECT_EQ("truncated ext: need 9 bytes, 8 left",
            firstError(bytes({0xd7, 1, 0, 0, 0, 0, 0, 0, 0}), [](auto& r) { (void)r.readExt(); }));
  EXPECT_EQ("expected bool, got nil", firstError(bytes({0xc0}), [](auto& r) { (void)r.readBool(); }));
  EXPECT_EQ("expected map, got array",
            firstError(bytes({0x90}), [](auto& r) { (void)r.readMapHeader(); }));
  // Counts that the remaining bytes cannot hold are refused before anyone
  // reserves memory for them.
  EXPECT_EQ("truncated array: 1000 elements need at least 1000 bytes, 12 left",
            firstError(bytes({0xdc, 0x03, 0xe8}) + std::string(12, '\0'),
                       [](auto& r) { (void)r.readArrayHeader(); }));
  EXPECT_EQ("truncated array: 4294967295 elements need at least 4294967295 bytes, 0 left",
            firstError(bytes({0xdd, 0xff, 0xff, 0xff, 0xff}),
                       [](auto& r) { (void)r.readArrayHeader(); }));
  EXPECT_EQ("truncated map: 5 entries need at least 10 bytes, 9 left",
            firstError(bytes({0x85}) + std::string(9, '\0'), [](auto& r) { (void)r.readMapHeader(); }));
}

TEST(MsgpackReaderTest, StrBinExtAndFloats) {
  std::string buf;
  MsgpackWriter w(buf);
  const std::string big(70000, 'q');
  w.writeStr("");
  w.writeStr(big);
  const char raw[] = {0, 1, 0, 2};
  w.writeBin(raw, sizeof raw);
  w.writeExt(-7, raw, 3);
  w.writeFloat(0.1f);
  w.writeDouble(0.1);
  w.writeDouble(1e300);
  w.writeDouble(-1e300);
  w.writeDouble(static_cast<double>(std::numeric_limits<float>::max()));
  w.writeDouble(std::nan(""));
  w.writeFloat(-0.0f);
  w.writeNil();

  MsgpackReader r(buf.data(), buf.size());
  EXPECT_EQ("", r.readStr());
  EXPECT_EQ(big, r.readStr());
  EXPECT_EQ(std::string(raw, sizeof raw), r.readBin());
  const net::MsgpackExt ext = r.readExt();
  EXPECT_EQ(-7, ext.type);
  EXPECT_EQ(std::string(raw, 3), ext.data);
  EXPECT_TRUE(r.nextIsFloat32());
  EXPECT_EQ(0.1f, r.readFloat());
  EXPECT_FALSE(r.nextIsFloat32());
  EXPECT_EQ(0.1f, r.readFloat());  // float64 narrowed
  EXPECT_EQ(std::numeric_limits<float>::infinity(), r.readFloat());
  EXPECT_EQ(-std::numeric_limits<float>::infinity(), r.readFloat());
  EXPECT_EQ(std::numeric_limits<float>::max(), r.readFloat());
  EXPECT_TRUE(std::isnan(r.readFloat()));
  const double negZero = r.readDouble();  // float32 widened
  EXPECT_TRUE(negZero == 0.0 && std::signbit(negZero));
  r.readNil();
  EXPECT_TRUE(r.atEnd());
}

TEST(MsgpackReaderTest, SkipWalksWholeItemsWithinTheDepthLimit) {
  std::string buf;
  MsgpackWriter w(buf);
  // [ {"k": [1, -200, UINT64_MAX]}, bin, ext, 1.5, nil, true ] then a marker.
  w.writeArrayHeader(6);
  w.writeMapHeader(1);
  w.writeStr("k");
  w.writeArrayHeader(3);
  w.writeInt(1);
  w.writeInt(-200);
  w.writeUInt(UINT64_MAX);
  w.writeBin("ab", 2);
  w.writeExt(3, "abcd", 4);
  w.writeDouble(1.5);
  w.writeNil();
  w.writeBool(true);
  w.writeStr("marker");
  MsgpackReader r(buf.data(), buf.size());
  r.skip();
  EXPECT_EQ("marker", r.readStr());

  auto nested = [](int levels) {
    std::string s;
    for (int i = 0; i < levels - 1; ++i) s += '\x91';  // [[[...]]]
    s += '\x90';
    return s;
  };
  const std::string deep32 = nested(32);
  MsgpackReader ok(deep32.data(), deep32.size());
  ok.skip(32);
  EXPECT_TRUE(ok.atEnd());

  const std::string deep33 = nested(33);
  MsgpackReader tooDeep(deep33.data(), deep33.size());
  EXPECT_EQ("nesting depth 33 exceeds maxDepth 32", errorOf([&] { tooDeep.skip(32); }));
  EXPECT_EQ(0u, tooDeep.position());

  const std::string mapInMap = bytes({0x81, 0xa1, 'k', 0x81, 0xa1, 'j', 0x90});
  MsgpackReader maps(mapInMap.data(), mapInMap.size());
  EXPECT_EQ("nesting depth 3 exceeds maxDepth 2", errorOf([&] { maps.skip(2); }));
  maps.skip(3);
  EXPECT_TRUE(maps.atEnd());

  // A truncated item inside a container fails the whole skip.
  const std::string cut = bytes({0x92, 0x01, 0xa5, 'a'});
  MsgpackReader truncated(cut.data(), cut.size());
  EXPECT_EQ("truncated str: need 5 bytes, 1 left", errorOf([&] { truncated.skip(); }));
  EXPECT_EQ(0u, truncated.position());
}

}  // namespace
