// net::MsgpackWriter: appends msgpack items to a caller's byte buffer
// (std::string or std::vector<char>), always in the smallest encoding the
// format allows. It holds a reference to the buffer and nothing else, so
// making one per message costs nothing.
// Thread safety: none of its own; the buffer must not be touched by others.
//
//   std::vector<char> out;
//   net::MsgpackWriter w(out);
//   w.writeArrayHeader(2);
//   w.writeInt(5);
//   w.writeStr("a");  // out == {0x92, 0x05, 0xa1, 0x61}
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace net {

// Buffer is std::string or std::vector<char> (both are instantiated in the
// .cpp file). Writing a str, bin, ext or container longer than 2^32 - 1
// throws std::length_error and leaves the buffer as it was.
template <typename Buffer>
class MsgpackWriter {
 public:
  explicit MsgpackWriter(Buffer& out) noexcept : out_(out) {}

  Buffer& buffer() noexcept { return out_; }

  void writeNil();
  void writeBool(bool v);
  // Positive values use the unsigned forms, negative ones the signed forms.
  void writeInt(std::int64_t v);
  void writeUInt(std::uint64_t v);
  void writeFloat(float v);    // always float32
  void writeDouble(double v);  // always float64
  void writeStr(std::string_view s);
  void writeBin(const void* data, std::size_t size);
  // Headers only: the caller writes the elements (maps: key, value, key, ...).
  void writeArrayHeader(std::size_t count);
  void writeMapHeader(std::size_t count);
  // An extension item of the application type `type` and the payload bytes.
  void writeExt(std::int8_t type, const void* data, std::size_t size);

 private:
  void put(std::uint8_t byte) { out_.push_back(static_cast<char>(byte)); }
  void putBytes(const void* data, std::size_t size);
  // A type byte followed by `width` (1, 2, 4 or 8) big-endian bytes of v.
  void putTagged(std::uint8_t tag, std::uint64_t v, int width);
  void putLengthHeader(std::size_t length, std::uint8_t fix, std::size_t fixLimit,
                       std::uint8_t tag8, std::uint8_t tag16, std::uint8_t tag32, const char* what);

  Buffer& out_;
};

template <typename Buffer>
MsgpackWriter(Buffer&) -> MsgpackWriter<Buffer>;

extern template class MsgpackWriter<std::string>;
extern template class MsgpackWriter<std::vector<char>>;

}  // namespace net
