#include "net/msgpackreader.h"

#include <cmath>
#include <cstring>
#include <limits>

namespace net {

namespace {

std::string bytesText(std::size_t n) {
  return std::to_string(n) + (n == 1 ? " byte" : " bytes");
}

std::string hexByte(std::uint8_t b) {
  static const char digits[] = "0123456789abcdef";
  std::string s = "0x";
  s += digits[b >> 4];
  s += digits[b & 0x0f];
  return s;
}

MsgpackType typeOf(std::uint8_t b) {
  if (b <= 0x7f || b >= 0xe0) return MsgpackType::Int;
  if (b <= 0x8f) return MsgpackType::Map;
  if (b <= 0x9f) return MsgpackType::Array;
  if (b <= 0xbf) return MsgpackType::Str;
  switch (b) {
    case 0xc0: return MsgpackType::Nil;
    case 0xc2:
    case 0xc3: return MsgpackType::Bool;
    case 0xc4:
    case 0xc5:
    case 0xc6: return MsgpackType::Bin;
    case 0xc7:
    case 0xc8:
    case 0xc9: return MsgpackType::Ext;
    case 0xca:
    case 0xcb: return MsgpackType::Float;
    case 0xd4:
    case 0xd5:
    case 0xd6:
    case 0xd7:
    case 0xd8: return MsgpackType::Ext;
    case 0xd9:
    case 0xda:
    case 0xdb: return MsgpackType::Str;
    case 0xdc:
    case 0xdd: return MsgpackType::Array;
    case 0xde:
    case 0xdf: return MsgpackType::Map;
    default: break;
  }
  if (b >= 0xcc && b <= 0xd3) return MsgpackType::Int;
  // Only 0xc1 is left: msgpack reserves it and never writes it.
  throw DecodeError("invalid msgpack byte " + hexByte(b));
}

// Length-field width (1, 2 or 4 bytes) of the 8/16/32 forms that start at tag8.
int widthOf(std::uint8_t b, std::uint8_t tag8) { return 1 << (b - tag8); }

}  // namespace

const char* MsgpackReader::typeName(MsgpackType type) noexcept {
  switch (type) {
    case MsgpackType::Nil: return "nil";
    case MsgpackType::Bool: return "bool";
    case MsgpackType::Int: return "int";
    case MsgpackType::Float: return "float";
    case MsgpackType::Str: return "str";
    case MsgpackType::Bin: return "bin";
    case MsgpackType::Array: return "array";
    case MsgpackType::Map: return "map";
    case MsgpackType::Ext: return "ext";
  }
  return "unknown";
}

void MsgpackReader::require(std::size_t from, std::size_t n, const char* what) const {
  const std::size_t left = size_ - from;
  if (n > left) {
    throw DecodeError(std::string("truncated ") + what + ": need " + bytesText(n) + ", " +
                      std::to_string(left) + " left");
  }
}

std::uint8_t MsgpackReader::peekByte() const {
  require(pos_, 1, "input");
  return data_[pos_];
}

MsgpackType MsgpackReader::peekType() const { return typeOf(peekByte()); }

bool MsgpackReader::nextIsFloat32() const { return peekByte() == 0xca; }

void MsgpackReader::throwExpected(const char* expected) const {
  throw DecodeError(std::string("expected ") + expected + ", got " + typeName(peekType()));
}

std::uint64_t MsgpackReader::loadBE(std::size_t offset, int width) const noexcept {
  const unsigned char* p = data_ + pos_ + offset;
  std::uint64_t v = 0;
  for (int i = 0; i < width; ++i) v = (v << 8) | p[i];
  return v;
}

void MsgpackReader::readNil() {
  if (peekByte() != 0xc0) throwExpected("nil");
  ++pos_;
}

bool MsgpackReader::readBool() {
  const std::uint8_t b = peekByte();
  if (b != 0xc2 && b != 0xc3) throwExpected("bool");
  ++pos_;
  return b == 0xc3;
}

std::int64_t MsgpackReader::readInt() {
  const std::uint8_t b = peekByte();
  if (b <= 0x7f) {
    ++pos_;
    return b;
  }
  if (b >= 0xe0) {
    ++pos_;
    return static_cast<std::int8_t>(b);
  }
  if (b >= 0xcc && b <= 0xcf) {
    const int width = widthOf(b, 0xcc);
    require(pos_ + 1, width, "int");
    const std::uint64_t v = loadBE(1, width);
    if (v > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      throw DecodeError("int out of 64-bit range: " + std::to_string(v));
    }
    pos_ += 1 + width;
    return static_cast<std::int64_t>(v);
  }
  if (b >= 0xd0 && b <= 0xd3) {
    const int width = widthOf(b, 0xd0);
    require(pos_ + 1, width, "int");
    const std::uint64_t raw = loadBE(1, width);
    std::int64_t v;
    switch (width) {
      case 1: v = static_cast<std::int8_t>(raw); break;
      case 2: v = static_cast<std::int16_t>(raw); break;
      case 4: v = static_cast<std::int32_t>(raw); break;
      default: v = static_cast<std::int64_t>(raw); break;
    }
    pos_ += 1 + width;
    return v;
  }
  throwExpected("int");
}

std::uint64_t MsgpackReader::readUInt() {
  const std::uint8_t b = peekByte();
  if (b >= 0xcc && b <= 0xcf) {
    const int width = widthOf(b, 0xcc);
    require(pos_ + 1, width, "int");
    const std::uint64_t v = loadBE(1, width);
    pos_ += 1 + width;
    return v;
  }
  const std::size_t start = pos_;
  const std::int64_t v = readInt();
  if (v < 0) {
    pos_ = start;
    throw DecodeError("expected an unsigned int, got " + std::to_string(v));
  }
  return static_cast<std::uint64_t>(v);
}

double MsgpackReader::readDouble() {
  const std::uint8_t b = peekByte();
  if (b == 0xca) {
    require(pos_ + 1, 4, "float");
    const auto bits = static_cast<std::uint32_t>(loadBE(1, 4));
    float f;
    std::memcpy(&f, &bits, sizeof f);
    pos_ += 5;
    return f;
  }
  if (b == 0xcb) {
    require(pos_ + 1, 8, "float");
    const std::uint64_t bits = loadBE(1, 8);
    double d;
    std::memcpy(&d, &bits, sizeof d);
    pos_ += 9;
    return d;
  }
  throwExpected("float");
}

float MsgpackReader::readFloat() {
  const double d = readDouble();
  // Beyond the rounding midpoint between FLT_MAX and 2^128 the IEEE result is
  // an infinity; the cast alone would be undefined behaviour there.
  constexpr double kOverflow = 0x1.ffffffp127;
  if (std::fabs(d) >= kOverflow) {
    return std::signbit(d) ? -std::numeric_limits<float>::infinity()
                           : std::numeric_limits<float>::infinity();
  }
  return static_cast<float>(d);  // NaN and in-range values narrow normally
}

std::string_view MsgpackReader::readPayload(int width, std::size_t fixLength, const char* what,
                                            const char* lengthWhat) {
  std::size_t length = fixLength;
  if (width > 0) {
    require(pos_ + 1, width, lengthWhat);
    length = loadBE(1, width);
  }
  const std::size_t start = pos_ + 1 + width;
  require(start, length, what);
  pos_ = start + length;
  return std::string_view(reinterpret_cast<const char*>(data_ + start), length);
}

std::string_view MsgpackReader::readStr() {
  const std::uint8_t b = peekByte();
  if (b >= 0xa0 && b <= 0xbf) return readPayload(0, b & 0x1f, "str", "str length");
  if (b >= 0xd9 && b <= 0xdb) return readPayload(widthOf(b, 0xd9), 0, "str", "str length");
  throwExpected("str");
}

std::string_view MsgpackReader::readBin() {
  const std::uint8_t b = peekByte();
  if (b >= 0xc4 && b <= 0xc6) return readPayload(widthOf(b, 0xc4), 0, "bin", "bin length");
  throwExpected("bin");
}

std::uint32_t MsgpackReader::readCount(std::uint8_t fixBase, std::uint8_t tag16,
                                       std::uint8_t tag32, std::size_t bytesPerItem,
                                       const char* what, const char* lengthWhat) {
  const std::uint8_t b = peekByte();
  std::uint32_t count;
  int width;
  if (b >= fixBase && b <= fixBase + 0x0f) {
    count = b & 0x0f;
    width = 0;
  } else if (b == tag16 || b == tag32) {
    width = b == tag16 ? 2 : 4;
    require(pos_ + 1, width, lengthWhat);
    count = static_cast<std::uint32_t>(loadBE(1, width));
  } else {
    throwExpected(what);
  }
  // Every element takes at least one byte, so a count the bytes left cannot
  // hold is a lie; refusing it here keeps callers from reserving for it.
  const std::size_t left = size_ - (pos_ + 1 + width);
  if (count > left / bytesPerItem) {
    throw DecodeError(std::string("truncated ") + what + ": " + std::to_string(count) +
                      (bytesPerItem == 1 ? " elements" : " entries") + " need at least " +
                      bytesText(count * bytesPerItem) + ", " + std::to_string(left) + " left");
  }
  pos_ += 1 + width;
  return count;
}

std::uint32_t MsgpackReader::readArrayHeader() { return readCount(0x90, 0xdc, 0xdd, 1, "array", "array length"); }

std::uint32_t MsgpackReader::readMapHeader() { return readCount(0x80, 0xde, 0xdf, 2, "map", "map length"); }

MsgpackExt MsgpackReader::readExt() {
  const std::uint8_t b = peekByte();
  std::size_t length;
  int width = 0;
  if (b >= 0xd4 && b <= 0xd8) {
    length = std::size_t{1} << (b - 0xd4);
  } else if (b >= 0xc7 && b <= 0xc9) {
    width = widthOf(b, 0xc7);
    require(pos_ + 1, width, "ext length");
    length = loadBE(1, width);
  } else {
    throwExpected("ext");
  }
  const std::size_t start = pos_ + 1 + width;
  require(start, length + 1, "ext");  // the type byte, then the payload
  pos_ = start + 1 + length;
  return MsgpackExt{static_cast<std::int8_t>(data_[start]),
                    std::string_view(reinterpret_cast<const char*>(data_ + start + 1), length)};
}

void MsgpackReader::skip(int maxDepth) {
  const std::size_t start = pos_;
  try {
    skipItem(0, maxDepth);
  } catch (...) {
    pos_ = start;
    throw;
  }
}

void MsgpackReader::skipItem(int depth, int maxDepth) {
  switch (peekType()) {
    case MsgpackType::Nil: readNil(); return;
    case MsgpackType::Bool: (void)readBool(); return;
    case MsgpackType::Int:
      // uint64 values above INT64_MAX are legal msgpack: only readUInt takes them.
      if (peekByte() >= 0xcc && peekByte() <= 0xcf) {
        (void)readUInt();
      } else {
        (void)readInt();
      }
      return;
    case MsgpackType::Float: (void)readDouble(); return;
    case MsgpackType::Str: (void)readStr(); return;
    case MsgpackType::Bin: (void)readBin(); return;
    case MsgpackType::Ext: (void)readExt(); return;
    case MsgpackType::Array:
    case MsgpackType::Map: break;
  }
  const bool isMap = peekType() == MsgpackType::Map;
  if (depth + 1 > maxDepth) {
    throw DecodeError("nesting depth " + std::to_string(depth + 1) + " exceeds maxDepth " +
                      std::to_string(maxDepth));
  }
  const std::uint64_t items = isMap ? 2ull * readMapHeader() : readArrayHeader();
  for (std::uint64_t i = 0; i < items; ++i) skipItem(depth + 1, maxDepth);
}

}  // namespace net
