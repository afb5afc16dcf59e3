// net::Outbox: the frames a connection has been given but its socket has not
// taken yet, in the order they were given, ready to be written many at a time
// (gather() fills an iovec array for one sendmsg). Frames may belong to a lane
// (one target of posts, or the emissions towards one client) that holds at
// most `capacity` waiting frames: a frame beyond that makes the lane's oldest
// waiting frame dropped, as a slow reader only needs the newest notifications.
// Frames of lane kUncapped (replies, pings) are never dropped.
//
// Not thread-safe: the owning connection guards it with its write mutex.
#pragma once

#include <sys/uio.h>

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>

namespace net {

class Outbox {
 public:
  static constexpr std::uint64_t kUncapped = 0;
  // What a waiting frame costs besides its bytes (its record and allocation),
  // so that limits in bytes also bound a flood of tiny frames.
  static constexpr std::size_t kFrameOverhead = 64;

  // Appends a copy of `bytes` (whole frames). Returns how many waiting frames
  // of `lane` were dropped to keep it within `capacity` (0 or 1).
  std::size_t push(std::string_view bytes, std::uint64_t lane, std::size_t capacity);
  bool empty() const { return frames_.empty(); }
  // Bytes not written yet.
  std::size_t unsent() const { return unsent_; }
  // unsent() plus kFrameOverhead per waiting frame: what the output limits count.
  std::size_t footprint() const { return unsent_ + waiting_ * kFrameOverhead; }
  // Points up to `max` entries of `iov` at the next bytes to write, in order;
  // returns how many it filled.
  int gather(iovec* iov, int max) const;
  // Forgets the first `n` bytes gather() pointed at: the socket took them.
  void consume(std::size_t n);
  void clear();

 private:
  struct Frame {
    std::string bytes;
    std::uint64_t lane;
    bool dropped;
  };
  // Takes the front frame out of its lane's count: it is being written.
  void unlane(Frame& frame);
  void popFront();

  std::deque<Frame> frames_;  // references stay valid: only the ends change
  std::size_t head_ = 0;      // bytes of frames_.front() already written
  std::size_t unsent_ = 0;
  std::size_t waiting_ = 0;   // frames not dropped
  std::unordered_map<std::uint64_t, std::deque<Frame*>> lanes_;  // waiting, unstarted frames of capped lanes
};

}  // namespace net
