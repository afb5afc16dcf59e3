// RX::LiveFeed: tells live viewers (the HTTP server's event streams of /live)
// which items of a module changed, by name. A module that offers a live view
// owns one and calls changed() where its items change; each viewer opens a
// Reader and takes the names pending for it.
//
// The module's writing threads pay one atomic load while no viewer is open,
// and never wait for a viewer: a Reader keeps at most maxPending distinct
// names (a name changed again while pending is kept once, in its first
// place); beyond that its names are dropped and the Reader is marked
// overflowed, so that the viewer reloads the whole table instead.
//
// Thread safety: every member may be called from any thread. A Reader must
// not outlive its feed.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

namespace RX {

class LiveFeed {
 public:
  class Reader {
   public:
    ~Reader();  // leaves the feed
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    // Readable (poll) while names are pending or the reader overflowed.
    int wakeFd() const { return wakeFd_; }
    // The names changed since the last take, in order of first change, and
    // whether some were dropped meanwhile; clears both.
    std::vector<std::string> take(bool& overflowed);

   private:
    friend class LiveFeed;
    Reader(LiveFeed& feed, std::size_t maxPending);
    void add(const std::string& name);

    // Constant after construction.
    LiveFeed& feed_;
    const std::size_t maxPending_;
    int wakeFd_ = -1;  // an eventfd, written when the first name arrives
    // Guarded by mutex_.
    std::mutex mutex_;
    std::vector<std::string> order_;
    std::unordered_set<std::string> pending_;
    bool overflowed_ = false;
  };

  LiveFeed() = default;
  LiveFeed(const LiveFeed&) = delete;
  LiveFeed& operator=(const LiveFeed&) = delete;

  // True while at least one reader is open: the writer's cheap check.
  bool active() const noexcept { return readerCount_.load(std::memory_order_relaxed) != 0; }
  // Marks name as changed for every open reader. Call it after the change is
  // visible to readers of the module. Never blocks on a viewer.
  void changed(const std::string& name);
  // Opens a reader that keeps at most maxPending names. Throws
  // std::runtime_error when no eventfd can be had.
  std::unique_ptr<Reader> open(std::size_t maxPending);

 private:
  // Guarded by mutex_; readerCount_ mirrors readers_.size() for active().
  std::mutex mutex_;
  std::vector<Reader*> readers_;
  std::atomic<std::size_t> readerCount_{0};
};

}  // namespace RX
