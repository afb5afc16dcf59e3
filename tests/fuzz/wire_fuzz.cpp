// libFuzzer target (README.md): bytes to the value decoder and, in chunks, to a FrameDecoder;
// besides crashes, leaks and undefined behaviour, whatever decodes must re-encode stably.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>

#include "mz/object.h"
#include "net/wirecodec.h"

namespace {

// Object references: every id decodes to an object, except odd ids, which
// play the unknown ones; encoding maps the object back to its id.
struct ObjectTable {
  std::map<const void*, std::uint64_t> ids;

  net::ObjectDecoder decoder() {
    return [this](std::uint64_t id) {
      if (id % 2 == 1) throw std::runtime_error("no such object");
      auto impl = std::make_shared<mz::DynamicObject>();
      ids[impl->identity()] = id;
      return mz::AnyObject(impl);
    };
  }
  net::ObjectEncoder encoder() {
    return [this](const mz::AnyObject& o) { return ids.at(o.impl()->identity()); };
  }
};

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "wire_fuzz: %s\n", what);
  std::abort();
}

std::string valueBytes(const RX::RXValue& value, ObjectTable& objects) {
  std::string out;
  net::MsgpackWriter writer(out);
  net::encodeValue(value, writer, objects.encoder());
  return out;
}

std::string frameBytes(const net::Message& m, const net::Limits& limits, ObjectTable& objects) {
  std::string out;
  net::encodeFrame(m, out, objects.encoder(), limits.maxFrameBytes);
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  // The first byte picks the limits and the chunk size for the stream.
  const std::uint8_t control = *data++;
  --size;
  net::Limits limits;
  if (control & 0x80) {
    limits.maxFrameBytes = 512;
    limits.maxDepth = 4;
    limits.maxArrayLength = 16;
    limits.maxStringBytes = 64;
  }
  const std::size_t chunk = (control & 0x7f) + 1;
  ObjectTable objects;

  try {
    const std::string once = valueBytes(net::decodeValue(data, size, limits, objects.decoder()), objects);
    if (valueBytes(net::decodeValue(once.data(), once.size(), limits, objects.decoder()), objects) != once)
      fail("value re-encoding differs");
  } catch (const net::DecodeError&) {
  }

  net::FrameDecoder decoder(limits, objects.decoder());
  bool fatal = false;
  for (std::size_t at = 0; at < size && !fatal; at += chunk) {
    decoder.feed(data + at, std::min(chunk, size - at));
    for (;;) {
      try {
        std::optional<net::Message> m = decoder.next();
        if (!m) break;
        const std::string once = frameBytes(*m, limits, objects);
        const net::Message again = net::decodeMessage(once.data() + 4, once.size() - 4, limits, objects.decoder());
        if (frameBytes(again, limits, objects) != once) fail("frame re-encoding differs");
      } catch (const net::DecodeError& e) {
        if (e.fatal()) {
          fatal = true;
          break;
        }
      }
    }
  }
  if (!fatal && decoder.failed()) fail("failed() without a fatal error");
  return 0;
}
