#include "rx/rxlivefeed.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>

namespace RX {

LiveFeed::Reader::Reader(LiveFeed& feed, std::size_t maxPending)
    : feed_(feed), maxPending_(std::max<std::size_t>(maxPending, 1)) {
  wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wakeFd_ < 0) throw std::runtime_error(std::string("cannot open a live feed reader: ") + std::strerror(errno));
}

LiveFeed::Reader::~Reader() {
  {
    std::lock_guard<std::mutex> lock(feed_.mutex_);
    feed_.readers_.erase(std::remove(feed_.readers_.begin(), feed_.readers_.end(), this), feed_.readers_.end());
    feed_.readerCount_.store(feed_.readers_.size(), std::memory_order_relaxed);
  }
  ::close(wakeFd_);
}

void LiveFeed::Reader::add(const std::string& name) {
  std::lock_guard<std::mutex> lock(mutex_);
  const bool wasIdle = order_.empty() && !overflowed_;
  if (overflowed_ || pending_.count(name)) return;
  if (order_.size() >= maxPending_) {
    // The viewer reloads everything: the pending names are of no more use.
    order_.clear();
    pending_.clear();
    overflowed_ = true;
  } else {
    order_.push_back(name);
    pending_.insert(name);
  }
  if (wasIdle) {
    const std::uint64_t one = 1;
    // Non-blocking; a full counter still reads as readable.
    if (::write(wakeFd_, &one, sizeof(one)) < 0) {
    }
  }
}

std::vector<std::string> LiveFeed::Reader::take(bool& overflowed) {
  std::uint64_t count;
  std::lock_guard<std::mutex> lock(mutex_);
  // Drained under the lock, so that a name added after it writes again.
  if (::read(wakeFd_, &count, sizeof(count)) < 0) {
  }
  overflowed = overflowed_;
  overflowed_ = false;
  pending_.clear();
  std::vector<std::string> names;
  names.swap(order_);
  return names;
}

void LiveFeed::changed(const std::string& name) {
  if (!active()) return;
  std::lock_guard<std::mutex> lock(mutex_);
  for (Reader* reader : readers_) reader->add(name);
}

std::unique_ptr<LiveFeed::Reader> LiveFeed::open(std::size_t maxPending) {
  std::unique_ptr<Reader> reader(new Reader(*this, maxPending));
  std::lock_guard<std::mutex> lock(mutex_);
  readers_.push_back(reader.get());
  readerCount_.store(readers_.size(), std::memory_order_relaxed);
  return reader;
}

}  // namespace RX
