#include "net/wirecodec.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>

#include "mz/object.h"

namespace net {

namespace {

// Spare room kept by an idle FrameDecoder; beyond it, an emptied buffer is
// released so that one large frame does not pin its memory for the life of
// the connection.
constexpr std::size_t kIdleBufferBytes = 64 * 1024;

// The rounding midpoint between FLT_MAX and 2^128: a double at or beyond it
// would narrow to an infinity.
constexpr double kFloatOverflow = 0x1.ffffffp127;

void storeBE(char* out, std::uint64_t v, int width) {
  for (int i = width - 1; i >= 0; --i) {
    out[i] = static_cast<char>(v & 0xff);
    v >>= 8;
  }
}

std::uint64_t loadBE(const char* in, int width) {
  std::uint64_t v = 0;
  for (int i = 0; i < width; ++i) v = (v << 8) | static_cast<unsigned char>(in[i]);
  return v;
}

// The shortest text that reads back as d ("1e+39", not 1.0000000000000001e+39).
std::string shortestText(double d) {
  char text[32];
  for (int digits = 1; digits <= 17; ++digits) {
    std::snprintf(text, sizeof text, "%.*g", digits, d);
    if (std::strtod(text, nullptr) == d) break;
  }
  return text;
}

[[noreturn]] void throwLimit(const std::string& what, std::uint64_t value, const char* limit,
                             std::uint64_t max) {
  throw DecodeError(what + " " + std::to_string(value) + " exceeds " + limit + " " +
                    std::to_string(max));
}

// ---- Encoding ----

template <typename Buffer>
void encodeAt(const RX::RXValue& value, MsgpackWriter<Buffer>& writer,
              const ObjectEncoder& objects) {
  switch (value.getType()) {
    case RX::RXValue::TypeInvalid:
      writer.writeNil();
      return;
    case RX::RXValue::TypeBool:
      writer.writeBool(value.toBool());
      return;
    case RX::RXValue::TypeInt:
      writer.writeInt(value.toInt());
      return;
    case RX::RXValue::TypeFloat:
      writer.writeFloat(value.toFloat());
      return;
    case RX::RXValue::TypeString:
      writer.writeStr(value.toStdString());
      return;
    case RX::RXValue::TypeBinary: {
      const RX::RXValue::Binary& bytes = value.toBinary();
      writer.writeBin(bytes.data(), bytes.size());
      return;
    }
    case RX::RXValue::TypeArray: {
      const std::size_t size = value.getSize();
      writer.writeArrayHeader(size);
      for (std::size_t i = 0; i < size; ++i) encodeAt(value[i], writer, objects);
      return;
    }
    case RX::RXValue::TypeObject: {
      if (!objects) {
        throw EncodeError("cannot send an object value: no object encoder is set");
      }
      char id[8];
      storeBE(id, objects(value.toObject()), 8);
      writer.writeExt(kObjectExtType, id, sizeof id);
      return;
    }
  }
  throw EncodeError("cannot send a value of unknown kind " + std::to_string(value.getType()));
}

// ---- Decoding ----

RX::RXValue decodeAt(MsgpackReader& reader, const Limits& limits, const ObjectDecoder& objects,
                     int depth) {
  switch (reader.peekType()) {
    case MsgpackType::Nil:
      reader.readNil();
      return RX::RXValue();
    case MsgpackType::Bool:
      return RX::RXValue(reader.readBool());
    case MsgpackType::Int: {
      std::int64_t v;
      try {
        v = reader.readInt();
      } catch (const DecodeError&) {
        // Either truncated (readUInt throws the same) or a uint64 beyond
        // INT64_MAX, which is out of range like any other large value.
        throw DecodeError("int out of 32-bit range: " + std::to_string(reader.readUInt()));
      }
      if (v < std::numeric_limits<std::int32_t>::min() ||
          v > std::numeric_limits<std::int32_t>::max()) {
        throw DecodeError("int out of 32-bit range: " + std::to_string(v));
      }
      return RX::RXValue(static_cast<int>(v));
    }
    case MsgpackType::Float: {
      // A float64 too large for 32 bits is refused rather than stored as an
      // infinity nobody sent; infinities and NaN themselves pass, as the CLI
      // refuses the same values.
      const double d = reader.readDouble();
      if (std::isfinite(d) && std::fabs(d) >= kFloatOverflow) {
        throw DecodeError("float out of 32-bit range: " + shortestText(d));
      }
      return RX::RXValue(static_cast<float>(d));
    }
    case MsgpackType::Str: {
      const std::string_view s = reader.readStr();
      if (s.size() > limits.maxStringBytes) {
        throwLimit("str length", s.size(), "maxStringBytes", limits.maxStringBytes);
      }
      return RX::RXValue(std::string(s));
    }
    case MsgpackType::Bin: {
      const std::string_view b = reader.readBin();
      if (b.size() > limits.maxStringBytes) {
        throwLimit("bin length", b.size(), "maxStringBytes", limits.maxStringBytes);
      }
      return RX::RXValue(static_cast<const void*>(b.data()), b.size());
    }
    case MsgpackType::Array: {
      if (depth + 1 > limits.maxDepth) {
        throwLimit("array nesting depth", depth + 1, "maxDepth", limits.maxDepth);
      }
      // The reader has checked that the bytes left can hold `size` elements,
      // so reserving for it is bounded by the input.
      const std::uint32_t size = reader.readArrayHeader();
      if (size > limits.maxArrayLength) {
        throwLimit("array length", size, "maxArrayLength", limits.maxArrayLength);
      }
      RX::RXValue array = RX::RXValue::array(0);
      array.arrayReserve(size);
      for (std::uint32_t i = 0; i < size; ++i) {
        array.arrayPush(decodeAt(reader, limits, objects, depth + 1));
      }
      return array;
    }
    case MsgpackType::Map:
      throw DecodeError("maps are not values");
    case MsgpackType::Ext: {
      const MsgpackExt ext = reader.readExt();
      if (ext.type != kObjectExtType) {
        throw DecodeError("unknown ext type " + std::to_string(ext.type));
      }
      if (ext.data.size() != 8) {
        throw DecodeError("object reference must hold 8 bytes, got " +
                          std::to_string(ext.data.size()));
      }
      const std::uint64_t id = loadBE(ext.data.data(), 8);
      if (!objects) {
        throw DecodeError("object reference " + std::to_string(id) +
                          " received but no object decoder is set");
      }
      mz::AnyObject object;
      try {
        object = objects(id);
      } catch (const DecodeError&) {
        throw;
      } catch (const std::exception& e) {
        throw DecodeError("object reference " + std::to_string(id) + ": " + e.what());
      }
      if (!object.isValid()) {
        throw DecodeError("unknown object reference " + std::to_string(id));
      }
      return RX::RXValue(object);
    }
  }
  throw DecodeError("unexpected msgpack type");  // not reached: peekType covers every byte
}

// Reads an unsigned header field of the frame, bounded by max.
std::uint64_t readHeaderField(MsgpackReader& reader, const char* name, std::uint64_t max) {
  const std::uint64_t v = reader.readUInt();
  if (v > max) {
    throw DecodeError(std::string(name) + " out of range: " + std::to_string(v));
  }
  return v;
}

}  // namespace

// ---- Values ----

template <typename Buffer>
void encodeValue(const RX::RXValue& value, MsgpackWriter<Buffer>& writer,
                 const ObjectEncoder& objects) {
  const std::size_t mark = writer.buffer().size();
  try {
    encodeAt(value, writer, objects);
  } catch (const std::length_error& e) {
    writer.buffer().resize(mark);
    throw EncodeError(e.what());
  } catch (...) {
    writer.buffer().resize(mark);
    throw;
  }
}

RX::RXValue decodeValue(MsgpackReader& reader, const Limits& limits, const ObjectDecoder& objects) {
  return decodeAt(reader, limits, objects, 0);
}

RX::RXValue decodeValue(const void* data, std::size_t size, const Limits& limits,
                        const ObjectDecoder& objects) {
  MsgpackReader reader(data, size);
  RX::RXValue value = decodeAt(reader, limits, objects, 0);
  if (!reader.atEnd()) {
    throw DecodeError("trailing bytes after the value: " + std::to_string(reader.remaining()));
  }
  return value;
}

// ---- Frames ----

template <typename Buffer>
void encodeFrame(const Message& message, Buffer& out, const ObjectEncoder& objects,
                 std::size_t maxFrameBytes) {
  const std::size_t start = out.size();
  try {
    out.resize(start + 4);  // the length, patched in below
    MsgpackWriter<Buffer> writer(out);
    writer.writeArrayHeader(3 + message.fields.size());
    writer.writeUInt(kProtocolVersion);
    writer.writeUInt(message.kind);
    writer.writeUInt(message.requestId);
    for (const RX::RXValue& field : message.fields) encodeAt(field, writer, objects);
    const std::size_t body = out.size() - start - 4;
    if (body > maxFrameBytes) {
      throw EncodeError("frame body of " + std::to_string(body) + " bytes exceeds maxFrameBytes " +
                        std::to_string(maxFrameBytes));
    }
    if (body > std::numeric_limits<std::uint32_t>::max()) {
      throw EncodeError("frame body of " + std::to_string(body) +
                        " bytes does not fit a 32-bit length");
    }
    storeBE(&out[start], body, 4);
  } catch (const std::length_error& e) {
    out.resize(start);
    throw EncodeError(e.what());
  } catch (...) {
    out.resize(start);
    throw;
  }
}

Message decodeMessage(const void* body, std::size_t size, const Limits& limits,
                      const ObjectDecoder& objects) {
  MsgpackReader reader(body, size);
  Message message;
  std::optional<std::uint32_t> requestId;
  std::optional<std::uint8_t> kind;
  try {
    const std::uint32_t count = reader.readArrayHeader();
    if (count > limits.maxArrayLength) {
      throwLimit("array length", count, "maxArrayLength", limits.maxArrayLength);
    }
    if (count < 3) {
      throw DecodeError("message has " + std::to_string(count) +
                        " items, need at least 3 (version, kind, requestId)");
    }
    const std::uint64_t version = reader.readUInt();
    // The kind and request id are read even under a foreign version, when
    // they look the same, so that the peer can be told which request failed.
    try {
      kind = static_cast<std::uint8_t>(readHeaderField(reader, "message kind", 0xff));
      requestId = static_cast<std::uint32_t>(
          readHeaderField(reader, "requestId", std::numeric_limits<std::uint32_t>::max()));
    } catch (const DecodeError&) {
      if (version == kProtocolVersion) throw;
    }
    if (version != kProtocolVersion) {
      throw DecodeError("unsupported protocol version " + std::to_string(version) + " (expected " +
                        std::to_string(kProtocolVersion) + ")");
    }
    message.kind = *kind;
    message.requestId = *requestId;
    message.fields.reserve(count - 3);
    for (std::uint32_t i = 3; i < count; ++i) {
      message.fields.push_back(decodeAt(reader, limits, objects, 0));
    }
    if (!reader.atEnd()) {
      throw DecodeError("trailing bytes after the message: " + std::to_string(reader.remaining()));
    }
  } catch (const DecodeError& e) {
    throw DecodeError(e.what(), requestId, kind, false);
  }
  return message;
}

// ---- FrameDecoder ----

FrameDecoder::FrameDecoder(Limits limits, ObjectDecoder objects)
    : limits_(limits), objects_(std::move(objects)) {}

FrameDecoder::~FrameDecoder() = default;

void FrameDecoder::reserveTail(std::size_t size) {
  if (start_ == end_) {
    start_ = end_ = 0;
    if (buffer_.size() > kIdleBufferBytes && size <= kIdleBufferBytes) {
      std::vector<char>().swap(buffer_);
    }
  }
  if (buffer_.size() - end_ >= size) return;
  // Move the unconsumed bytes to the front before growing: frames are consumed
  // from the front, so the dead space there is usually most of the buffer.
  if (start_ > 0) {
    std::memmove(buffer_.data(), buffer_.data() + start_, end_ - start_);
    end_ -= start_;
    start_ = 0;
  }
  if (buffer_.size() - end_ < size) buffer_.resize(end_ + size);
}

void FrameDecoder::feed(const void* data, std::size_t size) {
  if (size == 0) return;
  reserveTail(size);
  std::memcpy(buffer_.data() + end_, data, size);
  end_ += size;
}

char* FrameDecoder::prepare(std::size_t size) {
  reserveTail(size);
  return buffer_.data() + end_;
}

void FrameDecoder::commit(std::size_t size) {
  if (size > buffer_.size() - end_) {
    throw std::out_of_range("FrameDecoder::commit of " + std::to_string(size) +
                            " bytes beyond the prepared room of " +
                            std::to_string(buffer_.size() - end_));
  }
  end_ += size;
}

std::optional<Message> FrameDecoder::next() {
  if (fatal_) throw *fatal_;
  if (end_ - start_ < 4) return std::nullopt;
  const std::uint64_t length = loadBE(buffer_.data() + start_, 4);
  if (length > limits_.maxFrameBytes) {
    // Without trusting the length there is no way to find the next frame.
    fatal_.emplace("frame length " + std::to_string(length) + " exceeds maxFrameBytes " +
                       std::to_string(limits_.maxFrameBytes),
                   std::nullopt, std::nullopt, true);
    throw *fatal_;
  }
  if (end_ - start_ - 4 < length) return std::nullopt;
  const char* body = buffer_.data() + start_ + 4;
  // Consumed before decoding, so that a malformed frame is skipped and the
  // next call goes on with the following one.
  start_ += 4 + length;
  return decodeMessage(body, length, limits_, objects_);
}

// ---- Instantiations ----

template void encodeValue(const RX::RXValue&, MsgpackWriter<std::string>&, const ObjectEncoder&);
template void encodeValue(const RX::RXValue&, MsgpackWriter<std::vector<char>>&,
                          const ObjectEncoder&);
template void encodeFrame(const Message&, std::string&, const ObjectEncoder&, std::size_t);
template void encodeFrame(const Message&, std::vector<char>&, const ObjectEncoder&, std::size_t);

}  // namespace net
