// net::MsgpackReader: a cursor over a byte span that reads msgpack items one
// at a time. Every read checks the bounds first: running past the end, meeting
// another type than the one asked for, or a malformed byte throws
// net::DecodeError with a precise text ("truncated str: need 200 bytes, 12
// left", "expected array, got str") and leaves the cursor where it was.
// Strings, binaries and ext payloads are returned as views into the span: the
// reader never allocates. The span must outlive the views.
// Thread safety: none; one reader per thread (the span may be shared).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace net {

// Raised when bytes from the wire cannot be decoded. Errors found while
// decoding a frame carry the frame's request id and kind when they could be
// read, so the transport can answer the request that failed. A fatal error
// means the byte stream itself is out of sync: the connection must be closed.
class DecodeError : public std::runtime_error {
 public:
  explicit DecodeError(const std::string& what) : std::runtime_error(what) {}
  DecodeError(const std::string& what, std::optional<std::uint32_t> requestId,
              std::optional<std::uint8_t> kind, bool fatal)
      : std::runtime_error(what), requestId_(requestId), kind_(kind), fatal_(fatal) {}

  const std::optional<std::uint32_t>& requestId() const noexcept { return requestId_; }
  const std::optional<std::uint8_t>& kind() const noexcept { return kind_; }
  bool fatal() const noexcept { return fatal_; }

 private:
  std::optional<std::uint32_t> requestId_;
  std::optional<std::uint8_t> kind_;
  bool fatal_ = false;
};

// The families of msgpack items; every int format is Int, both float formats
// are Float.
enum class MsgpackType { Nil, Bool, Int, Float, Str, Bin, Array, Map, Ext };

struct MsgpackExt {
  std::int8_t type;
  std::string_view data;
};

class MsgpackReader {
 public:
  MsgpackReader(const void* data, std::size_t size) noexcept
      : data_(static_cast<const unsigned char*>(data)), size_(size) {}

  std::size_t position() const noexcept { return pos_; }
  std::size_t remaining() const noexcept { return size_ - pos_; }
  bool atEnd() const noexcept { return pos_ == size_; }

  // "nil", "bool", "int", "float", "str", "bin", "array", "map", "ext".
  static const char* typeName(MsgpackType type) noexcept;

  // Type of the next item without consuming it; throws at the end of the span
  // or on the byte 0xc1, which msgpack never uses.
  [[nodiscard]] MsgpackType peekType() const;
  // True when the next item is a float32 (as opposed to a float64).
  [[nodiscard]] bool nextIsFloat32() const;

  void readNil();
  [[nodiscard]] bool readBool();
  // Any int format. A uint64 above INT64_MAX throws "int out of 64-bit range".
  [[nodiscard]] std::int64_t readInt();
  // Any int format holding a value >= 0; a negative value throws.
  [[nodiscard]] std::uint64_t readUInt();
  // A float32 as is, or a float64 narrowed (finite values beyond the float
  // range become +/- infinity, as IEEE 754 rounding gives).
  [[nodiscard]] float readFloat();
  // Either float format, widened to double.
  [[nodiscard]] double readDouble();
  [[nodiscard]] std::string_view readStr();
  [[nodiscard]] std::string_view readBin();
  // Element counts. An array of n elements needs at least n more bytes and a
  // map of n entries 2n: a larger count throws before anyone trusts it.
  [[nodiscard]] std::uint32_t readArrayHeader();
  [[nodiscard]] std::uint32_t readMapHeader();
  [[nodiscard]] MsgpackExt readExt();

  // Skips one whole item, containers included. Containers nested deeper than
  // maxDepth levels throw "nesting depth 33 exceeds maxDepth 32".
  void skip(int maxDepth = 32);

 private:
  // Throws "truncated <what>: need N bytes, M left" unless n bytes remain
  // after `from`.
  void require(std::size_t from, std::size_t n, const char* what) const;
  std::uint8_t peekByte() const;
  [[noreturn]] void throwExpected(const char* expected) const;
  // Big-endian unsigned of `width` bytes at pos_ + offset (already checked).
  std::uint64_t loadBE(std::size_t offset, int width) const noexcept;
  // Reads a length-prefixed payload (str, bin) whose length field of `width`
  // bytes follows the type byte (width 0: the fix form, of length fixLength).
  std::string_view readPayload(int width, std::size_t fixLength, const char* what,
                               const char* lengthWhat);
  std::uint32_t readCount(std::uint8_t fixBase, std::uint8_t tag16, std::uint8_t tag32,
                          std::size_t bytesPerItem, const char* what, const char* lengthWhat);
  void skipItem(int depth, int maxDepth);

  // Constant after construction.
  const unsigned char* data_;
  std::size_t size_;
  // The cursor.
  std::size_t pos_ = 0;
};

}  // namespace net
