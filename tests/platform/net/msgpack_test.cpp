// The msgpack writer and reader on their own: the exact bytes of every form,
// read back, and the texts of decoding errors, which leave the cursor alone.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "codec_util.h"
#include "net/msgpackreader.h"
#include "net/msgpackwriter.h"

namespace nettest {
namespace {

using net::MsgpackReader;
using net::MsgpackWriter;

TEST(Msgpack, IntsTakeTheSmallestFormAndReadBack) {
  // clang-format off
  const std::pair<std::int64_t, const char*> ints[] = {
      {0, "00"}, {127, "7f"}, {128, "cc 80"}, {255, "cc ff"}, {256, "cd 01 00"}, {65535, "cd ff ff"},
      {65536, "ce 00 01 00 00"}, {UINT32_MAX, "ce ff ff ff ff"}, {INT64_C(1) << 32, "cf 00 00 00 01 00 00 00 00"},
      {INT64_MAX, "cf 7f ff ff ff ff ff ff ff"}, {-1, "ff"}, {-32, "e0"}, {-33, "d0 df"}, {-128, "d0 80"},
      {-129, "d1 ff 7f"}, {-32768, "d1 80 00"}, {-32769, "d2 ff ff 7f ff"}, {INT32_MIN, "d2 80 00 00 00"},
      {std::int64_t{INT32_MIN} - 1, "d3 ff ff ff ff 7f ff ff ff"}, {INT64_MIN, "d3 80 00 00 00 00 00 00 00"}};
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
}

// What the writer puts before the payload of a str, bin or ext of n bytes, or
// before n items of an array or n entries of a map; the reader reads it back.
TEST(Msgpack, LengthHeadersAtEveryBoundary) {
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

}  // namespace
}  // namespace nettest
