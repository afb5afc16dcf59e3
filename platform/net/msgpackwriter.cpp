#include "net/msgpackwriter.h"

#include <cstring>
#include <limits>
#include <stdexcept>

namespace net {

namespace {

constexpr std::uint64_t kMax32 = std::numeric_limits<std::uint32_t>::max();

void checkLength(std::size_t length, const char* what) {
  if (length > kMax32) {
    throw std::length_error(std::string(what) + " too long for msgpack: " + std::to_string(length));
  }
}

}  // namespace

template <typename Buffer>
void MsgpackWriter<Buffer>::putBytes(const void* data, std::size_t size) {
  if (size == 0) return;
  const char* p = static_cast<const char*>(data);
  out_.insert(out_.end(), p, p + size);
}

template <typename Buffer>
void MsgpackWriter<Buffer>::putTagged(std::uint8_t tag, std::uint64_t v, int width) {
  // Built on the stack and appended at once: one capacity check per item.
  char bytes[9];
  bytes[0] = static_cast<char>(tag);
  for (int i = 0; i < width; ++i) {
    bytes[width - i] = static_cast<char>((v >> (8 * i)) & 0xff);
  }
  putBytes(bytes, static_cast<std::size_t>(width) + 1);
}

template <typename Buffer>
void MsgpackWriter<Buffer>::putLengthHeader(std::size_t length, std::uint8_t fix,
                                            std::size_t fixLimit, std::uint8_t tag8,
                                            std::uint8_t tag16, std::uint8_t tag32,
                                            const char* what) {
  checkLength(length, what);
  if (length < fixLimit) {
    put(static_cast<std::uint8_t>(fix | length));
  } else if (tag8 != 0 && length <= 0xff) {
    putTagged(tag8, length, 1);
  } else if (length <= 0xffff) {
    putTagged(tag16, length, 2);
  } else {
    putTagged(tag32, length, 4);
  }
}

template <typename Buffer>
void MsgpackWriter<Buffer>::writeNil() {
  put(0xc0);
}

template <typename Buffer>
void MsgpackWriter<Buffer>::writeBool(bool v) {
  put(v ? 0xc3 : 0xc2);
}

template <typename Buffer>
void MsgpackWriter<Buffer>::writeUInt(std::uint64_t v) {
  if (v <= 0x7f) {
    put(static_cast<std::uint8_t>(v));
  } else if (v <= 0xff) {
    putTagged(0xcc, v, 1);
  } else if (v <= 0xffff) {
    putTagged(0xcd, v, 2);
  } else if (v <= kMax32) {
    putTagged(0xce, v, 4);
  } else {
    putTagged(0xcf, v, 8);
  }
}

template <typename Buffer>
void MsgpackWriter<Buffer>::writeInt(std::int64_t v) {
  if (v >= 0) {
    writeUInt(static_cast<std::uint64_t>(v));
    return;
  }
  // Two's complement bits of v; putTagged keeps the low `width` bytes.
  const auto bits = static_cast<std::uint64_t>(v);
  if (v >= -32) {
    put(static_cast<std::uint8_t>(bits & 0xff));  // negative fixint 0xe0..0xff
  } else if (v >= std::numeric_limits<std::int8_t>::min()) {
    putTagged(0xd0, bits, 1);
  } else if (v >= std::numeric_limits<std::int16_t>::min()) {
    putTagged(0xd1, bits, 2);
  } else if (v >= std::numeric_limits<std::int32_t>::min()) {
    putTagged(0xd2, bits, 4);
  } else {
    putTagged(0xd3, bits, 8);
  }
}

template <typename Buffer>
void MsgpackWriter<Buffer>::writeFloat(float v) {
  std::uint32_t bits;
  static_assert(sizeof bits == sizeof v, "float must be 32-bit IEEE 754");
  std::memcpy(&bits, &v, sizeof bits);
  putTagged(0xca, bits, 4);
}

template <typename Buffer>
void MsgpackWriter<Buffer>::writeDouble(double v) {
  std::uint64_t bits;
  static_assert(sizeof bits == sizeof v, "double must be 64-bit IEEE 754");
  std::memcpy(&bits, &v, sizeof bits);
  putTagged(0xcb, bits, 8);
}

template <typename Buffer>
void MsgpackWriter<Buffer>::writeStr(std::string_view s) {
  putLengthHeader(s.size(), 0xa0, 32, 0xd9, 0xda, 0xdb, "str");
  putBytes(s.data(), s.size());
}

template <typename Buffer>
void MsgpackWriter<Buffer>::writeBin(const void* data, std::size_t size) {
  // bin has no fix form: a fixLimit of 0 goes straight to bin8.
  putLengthHeader(size, 0, 0, 0xc4, 0xc5, 0xc6, "bin");
  putBytes(data, size);
}

template <typename Buffer>
void MsgpackWriter<Buffer>::writeArrayHeader(std::size_t count) {
  putLengthHeader(count, 0x90, 16, 0, 0xdc, 0xdd, "array");
}

template <typename Buffer>
void MsgpackWriter<Buffer>::writeMapHeader(std::size_t count) {
  putLengthHeader(count, 0x80, 16, 0, 0xde, 0xdf, "map");
}

template <typename Buffer>
void MsgpackWriter<Buffer>::writeExt(std::int8_t type, const void* data, std::size_t size) {
  checkLength(size, "ext");
  const auto typeByte = static_cast<char>(type);
  switch (size) {
    case 1: put(0xd4); break;
    case 2: put(0xd5); break;
    case 4: put(0xd6); break;
    case 8: put(0xd7); break;
    case 16: put(0xd8); break;
    default:
      if (size <= 0xff) {
        putTagged(0xc7, size, 1);
      } else if (size <= 0xffff) {
        putTagged(0xc8, size, 2);
      } else {
        putTagged(0xc9, size, 4);
      }
  }
  out_.push_back(typeByte);
  putBytes(data, size);
}

template class MsgpackWriter<std::string>;
template class MsgpackWriter<std::vector<char>>;

}  // namespace net
