// net::ObjectBridge: the objects shared between this process and one other
// (a broker and one of its clients), whichever side we are. It keeps
//   - exports: our objects the other side holds references to, by id;
//   - imports: RemoteObjects standing for the other side's objects;
//   - outbound links: our signals the other side follows (we forward emissions);
//   - inbound links: the other side's signals our subscribers follow;
// and it serves the object requests of the other side (Call, Post, Connect,
// Disconnect, Trigger, MetaObject, Release, Emit). How bytes travel is left to
// the subclass: net::Peer on the broker, the client session's link on a client.
//
// Object ids are allocated by the exporter from 1 and never reused; an object
// sent several times keeps its id, and the receiver's Release says how many
// references it received so that a reference still in flight is never lost.
//
// Thread safety: every public member may be called from any thread. No lock of
// the bridge is held while user code (a method, a subscriber) runs.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "mz/object.h"
#include "net/wirecodec.h"

namespace net {

class RemoteObject;

class ObjectBridge : public std::enable_shared_from_this<ObjectBridge> {
 public:
  // A wire reference to an object the receiver exported (handed back) has
  // this bit set; ids themselves stay below 2^31.
  static constexpr std::uint64_t kHandBackBit = std::uint64_t(1) << 63;
  static constexpr std::uint32_t kMaxId = 0x7fffffff;

  // `localRole` names this side in messages ("broker" or "client").
  ObjectBridge(std::string peerName, std::string localRole);
  virtual ~ObjectBridge();
  ObjectBridge(const ObjectBridge&) = delete;
  ObjectBridge& operator=(const ObjectBridge&) = delete;

  // "client Tool (session 3f2a...)", "broker tcp://127.0.0.1:9780": for messages.
  const std::string& peerName() const { return peerName_; }
  bool isClosed() const { return closed_.load(std::memory_order_acquire); }

  // ---- Object references, for the codec ----
  // Our object -> its export id (registered on first use), or a RemoteObject
  // of this bridge -> its id with kHandBackBit. Throws when closed.
  [[nodiscard]] std::uint64_t encodeObject(const mz::AnyObject& object);
  // A wire reference -> a RemoteObject (one per id while it lives) or, with
  // kHandBackBit, our exported object. Throws for an unknown or bad id.
  [[nodiscard]] mz::AnyObject decodeObject(std::uint64_t wireId);
  const ObjectEncoder& objectEncoder() const { return encoder_; }
  const ObjectDecoder& objectDecoder() const { return decoder_; }
  std::size_t exportCount() const;
  std::size_t importCount() const;
  std::size_t linkCount() const;  // outbound and inbound

  // ---- Serving the other side ----
  // True for the kinds serve() handles.
  static bool isObjectRequest(std::uint8_t kind);
  // Runs one object request. Returns true when `reply` (kind Reply or Error,
  // the request's id) must be sent back. Never throws: failures become an
  // Error reply or, for requests without reply, a log line.
  bool serve(Message& request, Message& reply);
  // Builds the Error reply for the exception being handled: an RXError keeps
  // its module, method, message, file and line; anything else its text.
  static void makeErrorReply(std::uint32_t requestId, std::exception_ptr error, Message& reply);
  // Throws what an Error message carries (RX::RXError or RemoteError); does
  // nothing for another kind.
  static void throwIfError(const Message& message);

  // ---- Used by RemoteObject ----
  // Sends a request, waits for its reply and returns it; an Error reply is
  // thrown (see throwIfError), a broken link throws through throwGone().
  [[nodiscard]] Message roundTrip(Message request);
  // A post to the other side's object `targetId` (fire and forget).
  virtual void sendPost(std::uint64_t targetId, Message post) = 0;
  // Subscribes `subscriber` to a signal of the other side's object; returns
  // a link id unique in this process.
  [[nodiscard]] mz::SignalLink connectRemote(std::uint64_t targetId, const std::string& signal,
                                             mz::SignalSubscriber subscriber);
  // Returns false when the link is not one of this bridge's.
  bool disconnectRemote(mz::SignalLink link);
  // Called by a RemoteObject as it dies: forgets it and sends Release.
  void onImportDestroyed(std::uint64_t id, std::uint32_t received, const RemoteObject* object);
  // Throws the error that says the other side is unreachable.
  [[noreturn]] virtual void throwGone() const = 0;

 protected:
  // Subclass hooks. None of them is called with a lock of the bridge held.
  // Sends a request (the bridge has not set its id) and returns its reply.
  virtual Message exchange(Message request) = 0;
  // Sends a message that has no reply (Release, Emit); must not throw.
  virtual void sendOneWay(Message message) noexcept = 0;
  // An emission from the other side for one of our subscribers.
  virtual void deliverEmit(std::uint32_t linkId, const mz::SignalSubscriber& subscriber,
                           mz::GenericFunctionParameters params) = 0;
  // A post from the other side to our object `target` (export id `objectId`).
  virtual void deliverPost(std::uint32_t objectId, const mz::AnyObject& target, std::string method,
                           mz::GenericFunctionParameters params) = 0;
  // State kept by the subclass per export or per inbound link may go.
  virtual void onExportDropped(std::uint32_t /*objectId*/) {}
  virtual void onInboundLinkDropped(std::uint32_t /*linkId*/) {}
  virtual void onImportDropped(std::uint64_t /*id*/) {}

  // Ends the bridge: later requests fail through throwGone(), our signals stop
  // forwarding, exports and imports are forgotten. Idempotent; REQUIRES: no
  // lock of the subclass held that a user callback could need.
  void closeObjects();

 private:
  struct Export {
    mz::AnyObject object;
    std::uint64_t sent = 0;  // references sent minus references released
  };
  struct OutboundLink {
    mz::AnyObject object;
    mz::SignalLink local = mz::kInvalidSignalLink;
  };
  struct InboundLink {
    mz::SignalSubscriber subscriber;
    mz::SignalLink local = mz::kInvalidSignalLink;
  };

  mz::AnyObject exported(std::uint64_t id) const;
  void serveCall(Message& request, Message& reply);
  void servePost(Message& request);
  void serveConnect(Message& request);
  void serveDisconnect(Message& request);
  void serveTrigger(Message& request);
  void serveMetaObject(Message& request, Message& reply);
  void serveRelease(Message& request);
  void serveEmit(Message& request);

  // Constant after construction.
  const std::string peerName_;
  const std::string localRole_;
  const ObjectEncoder encoder_;
  const ObjectDecoder decoder_;

  std::atomic<bool> closed_{false};

  // Guarded by mutex_.
  mutable std::mutex mutex_;
  std::unordered_map<std::uint64_t, Export> exports_;
  std::unordered_map<const void*, std::uint64_t> exportIds_;  // by object identity
  std::uint64_t nextExportId_ = 1;
  std::unordered_map<std::uint64_t, std::weak_ptr<RemoteObject>> imports_;
  std::unordered_map<std::uint32_t, OutboundLink> outLinks_;     // by the subscriber side's link id
  std::unordered_map<std::uint32_t, InboundLink> inLinks_;       // by our wire link id
  std::unordered_map<mz::SignalLink, std::uint32_t> inLinkIds_;  // local link -> wire link id
  std::uint32_t nextLinkId_ = 1;
};

}  // namespace net
