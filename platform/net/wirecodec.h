// The wire codec of the network transport: RXValues and messages to bytes and
// back, with no sockets involved. A frame is a 4-byte big-endian length N and
// N bytes holding one msgpack array [protocolVersion, kind, requestId,
// field...]. Decoding is bounded by net::Limits, since the bytes come from
// other processes. FrameDecoder cuts a byte stream into messages.
// Thread safety: the free functions are reentrant; a FrameDecoder belongs to
// one connection and is used by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "net/msgpackreader.h"
#include "net/msgpackwriter.h"
#include "rx/rxvalue.h"

namespace mz {
class AnyObject;
}

namespace net {

constexpr std::uint32_t kProtocolVersion = 1;
// The msgpack ext type of an object reference; its payload is the object id
// as 8 big-endian bytes.
constexpr std::int8_t kObjectExtType = 1;

// What a message asks for. The codec carries the kind without interpreting it.
enum class MessageKind : std::uint8_t {
  Hello = 1,
  HelloAck = 2,
  Call = 3,
  Reply = 4,
  Error = 5,
  Post = 6,
  RegisterService = 7,
  UnregisterService = 8,
  Lookup = 9,
  Connect = 10,
  Disconnect = 11,
  Emit = 12,
  ServiceEvent = 13,
  Release = 14,
  Ping = 15,
  Pong = 16,
  ListServices = 17,
  MetaObject = 18,  // the catalogue of an object known only by reference
  Trigger = 19,     // emit on a signal of the receiver's object
};

// Bounds on what a peer may make us decode. Going past one is a DecodeError
// that names the limit and the offending value.
struct Limits {
  std::size_t maxFrameBytes = 64u << 20;  // body length of one frame
  int maxDepth = 32;                      // arrays nested in one value
  std::size_t maxArrayLength = 1000000;   // elements of one array, frame fields included
  std::size_t maxStringBytes = 16u << 20; // bytes of one str or bin
};

struct Message {
  std::uint8_t kind = 0;
  std::uint32_t requestId = 0;
  std::vector<RX::RXValue> fields;
};

// Raised when something cannot be put on the wire (an object without an
// encoder, a frame over the size limit). The output buffer is left unchanged.
class EncodeError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Maps an object handle to the id its peer will send back, and an id to a
// handle (a remote proxy). The codec only calls them.
using ObjectEncoder = std::function<std::uint64_t(const mz::AnyObject&)>;
using ObjectDecoder = std::function<mz::AnyObject(std::uint64_t)>;

// ---- Values ----

// Appends one value: invalid -> nil, bool, int -> smallest int form, float ->
// float32, string -> str, binary -> bin, array -> array, object -> ext type 1.
// Throws EncodeError for an object when `objects` is empty.
template <typename Buffer>
void encodeValue(const RX::RXValue& value, MsgpackWriter<Buffer>& writer,
                 const ObjectEncoder& objects = ObjectEncoder());

// Reads one value at the reader's cursor. Accepts float64 (narrowed) besides
// float32; rejects ints outside 32 bits, finite floats beyond the float32
// range, maps, ext types other than 1 and anything beyond `limits`. Object references need `objects`; an exception it
// throws becomes a DecodeError.
[[nodiscard]] RX::RXValue decodeValue(MsgpackReader& reader, const Limits& limits = Limits(),
                                      const ObjectDecoder& objects = ObjectDecoder());
// The span must hold exactly one value.
[[nodiscard]] RX::RXValue decodeValue(const void* data, std::size_t size,
                                      const Limits& limits = Limits(),
                                      const ObjectDecoder& objects = ObjectDecoder());

// ---- Frames ----

// Appends a whole frame (length prefix included). Throws EncodeError, and
// leaves `out` as it was, when a field cannot be encoded or when the body
// would exceed maxFrameBytes (the peer would have to drop the connection).
template <typename Buffer>
void encodeFrame(const Message& message, Buffer& out,
                 const ObjectEncoder& objects = ObjectEncoder(),
                 std::size_t maxFrameBytes = Limits().maxFrameBytes);

// Decodes a frame body (the bytes after the length prefix). A DecodeError
// carries the request id and kind when they could be read.
[[nodiscard]] Message decodeMessage(const void* body, std::size_t size,
                                    const Limits& limits = Limits(),
                                    const ObjectDecoder& objects = ObjectDecoder());

// Cuts a byte stream into messages. Feed it bytes as the socket delivers them,
// in chunks of any size, then call next() until it returns nothing.
//
//   decoder.feed(chunk, n);
//   while (auto message = decoder.next()) handle(*message);
//
// A malformed frame makes next() throw a DecodeError (with the request id when
// it could be read); that frame is consumed and the following next() goes on
// with the next frame. A length over maxFrameBytes throws a DecodeError whose
// fatal() is true: the stream is out of sync, every later next() throws it
// again, and the connection should be closed.
class FrameDecoder {
 public:
  explicit FrameDecoder(Limits limits = Limits(), ObjectDecoder objects = ObjectDecoder());
  ~FrameDecoder();
  FrameDecoder(const FrameDecoder&) = delete;
  FrameDecoder& operator=(const FrameDecoder&) = delete;

  // Copies the bytes in.
  void feed(const void* data, std::size_t size);
  // For reading straight into the decoder: prepare(n) returns room for n
  // bytes, valid until the next call on the decoder, and commit(k) (k <= n)
  // adds the k bytes written there.
  [[nodiscard]] char* prepare(std::size_t size);
  void commit(std::size_t size);

  // The next complete message, or nothing until more bytes arrive.
  [[nodiscard]] std::optional<Message> next();

  // Bytes received and not consumed yet.
  std::size_t buffered() const noexcept { return end_ - start_; }
  // Bytes of memory the decoder holds for the stream (at least buffered()).
  std::size_t capacity() const noexcept { return buffer_.capacity(); }
  bool failed() const noexcept { return fatal_.has_value(); }
  const Limits& limits() const noexcept { return limits_; }

 private:
  // Makes room for `size` more bytes after end_.
  void reserveTail(std::size_t size);

  // Constant after construction.
  const Limits limits_;
  const ObjectDecoder objects_;
  // The stream state: bytes [start_, end_) of buffer_ are received and not
  // consumed yet; buffer_ beyond end_ is spare room.
  std::vector<char> buffer_;
  std::size_t start_ = 0;
  std::size_t end_ = 0;
  std::optional<DecodeError> fatal_;
};

extern template void encodeValue(const RX::RXValue&, MsgpackWriter<std::string>&,
                                 const ObjectEncoder&);
extern template void encodeValue(const RX::RXValue&, MsgpackWriter<std::vector<char>>&,
                                 const ObjectEncoder&);
extern template void encodeFrame(const Message&, std::string&, const ObjectEncoder&, std::size_t);
extern template void encodeFrame(const Message&, std::vector<char>&, const ObjectEncoder&,
                                 std::size_t);

}  // namespace net
