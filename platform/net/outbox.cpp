#include "net/outbox.h"

namespace net {

std::size_t Outbox::push(std::string_view bytes, std::uint64_t lane, std::size_t capacity) {
  std::size_t dropped = 0;
  if (lane != kUncapped) {
    std::deque<Frame*>& waiting = lanes_[lane];
    if (capacity > 0 && waiting.size() >= capacity) {
      Frame* oldest = waiting.front();
      waiting.pop_front();
      unsent_ -= oldest->bytes.size();
      --waiting_;
      std::string().swap(oldest->bytes);
      oldest->dropped = true;
      dropped = 1;
    }
  }
  frames_.push_back(Frame{std::string(bytes), lane, false});
  if (lane != kUncapped) lanes_[lane].push_back(&frames_.back());
  unsent_ += bytes.size();
  ++waiting_;
  return dropped;
}

int Outbox::gather(iovec* iov, int max) const {
  int n = 0;
  std::size_t skip = head_;
  for (auto it = frames_.begin(); it != frames_.end() && n < max; ++it) {
    if (it->dropped) continue;
    iov[n].iov_base = const_cast<char*>(it->bytes.data() + skip);
    iov[n].iov_len = it->bytes.size() - skip;
    skip = 0;
    ++n;
  }
  return n;
}

void Outbox::unlane(Frame& frame) {
  if (frame.lane == kUncapped) return;
  auto lane = lanes_.find(frame.lane);
  if (lane == lanes_.end() || lane->second.empty() || lane->second.front() != &frame) return;
  lane->second.pop_front();
  if (lane->second.empty()) lanes_.erase(lane);
}

void Outbox::popFront() {
  Frame& front = frames_.front();
  if (!front.dropped) {
    unlane(front);
    --waiting_;
  }
  frames_.pop_front();
  head_ = 0;
}

void Outbox::consume(std::size_t n) {
  unsent_ -= n;
  while (!frames_.empty()) {
    Frame& front = frames_.front();
    if (front.dropped) {
      popFront();
      continue;
    }
    const std::size_t left = front.bytes.size() - head_;
    if (n < left) {
      // Started: it can no longer be dropped without breaking the stream.
      if (n > 0) unlane(front);
      head_ += n;
      return;
    }
    n -= left;
    popFront();
  }
}

void Outbox::clear() {
  frames_.clear();
  lanes_.clear();
  head_ = unsent_ = waiting_ = 0;
}

}  // namespace net
