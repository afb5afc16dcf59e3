// net::InlineReader: reads a stream of messages and runs the callbacks they
// carry on the reading thread itself, without handing them to another thread,
// while keeping a blocked callback from stalling the stream.
//
// Callbacks belong to lanes (one target object, one signal link): a callback
// whose lane is idle runs at once on the reader; one whose lane is busy waits
// behind it (at most `laneCapacity`, the oldest dropped and counted), and the
// thread holding the lane runs it next, so each lane keeps its order.
//
// Exactly one thread reads at a time. When a callback run by the reader
// blocks (it calls beforeBlocking(), as a blocking call to the broker does, or
// it simply runs longer than `handOverAfter`), a standby thread takes the
// reader's role over and reads on; the old reader finishes its lane and then
// stands by or ends. So replies and other lanes' callbacks keep flowing while
// one callback waits, with at most `maxThreads` threads in all.
//
// Thread safety: deliver() is for the reading thread (from `readOne`); the
// rest may be called from any thread except stop(), which joins the threads
// and so must not be called from a callback.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace net {

class InlineReader {
 public:
  struct Options {
    std::string label;  // names the stream in log lines
    std::size_t laneCapacity = 10000;
    std::chrono::milliseconds handOverAfter{20};
    unsigned int maxThreads = 16;
    std::function<std::string(std::uint64_t lane)> laneName;  // for log lines
  };
  using Task = std::function<void()>;

  // `readOne` reads one message and dispatches it (calling deliver()); it
  // returns false once the stream has ended, and `onEnd` is then called once.
  InlineReader(Options options, std::function<bool()> readOne, std::function<void()> onEnd);
  ~InlineReader();  // stop()
  InlineReader(const InlineReader&) = delete;
  InlineReader& operator=(const InlineReader&) = delete;

  // Starts the reader and its standby thread.
  void start();
  // Stops: no more reading once the current read returns (the caller closes
  // the stream to make it return), waiting callbacks are dropped, threads
  // joined. Idempotent.
  void stop();

  // Runs `task` in `lane`: now when the lane is idle, else behind its tasks.
  void deliver(std::uint64_t lane, Task task);
  // Forgets a lane (its target is gone); tasks already waiting still run.
  void forgetLane(std::uint64_t lane);
  std::uint64_t dropped(std::uint64_t lane) const;

  // Called by code about to block (a call waiting for the broker's reply):
  // when the calling thread is a reader running a callback, another thread
  // takes over reading at once.
  static void beforeBlocking();

 private:
  struct Lane {
    bool busy = false;
    bool forgotten = false;
    std::deque<Task> waiting;
  };
  struct Worker;

  // The body of every thread: reads while it holds the reader's role, then
  // stands by while no other thread does, else ends.
  void run(const std::shared_ptr<Worker>& self, bool reader);
  void readLoop();
  // Waits as the standby; true when this thread has become the reader.
  bool standBy();
  // REQUIRES: mutex_ held. Starts a thread (reader or standby) unless at maxThreads.
  bool spawnLocked(bool reader);
  // Runs the lane's task now (as the reader: watched), then whatever waits in it.
  void runLane(std::uint64_t lane, Task task);
  // Gives the reader's role away when `state` is still the current one.
  void handOver(std::uint64_t state);
  void countDrop(std::uint64_t lane);

  const Options options_;
  const std::function<bool()> readOne_;
  const std::function<void()> onEnd_;

  // The reader's state: even while it reads, odd while it runs a callback;
  // handing over adds one, so the old reader finds it changed when its
  // callback returns. Written by the reader, and by hand-overs (compare and swap).
  std::atomic<std::uint64_t> state_{0};

  // Guarded by mutex_.
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  bool ended_ = false;       // the stream has ended
  bool hasStandby_ = false;
  bool promote_ = false;     // the standby is to become the reader now
  std::vector<std::shared_ptr<Worker>> workers_;

  // Guarded by lanesMutex_ (apart from the roles, so that the standby's
  // watch never holds up the reader).
  mutable std::mutex lanesMutex_;
  bool lanesStopped_ = false;
  std::unordered_map<std::uint64_t, Lane> lanes_;
  std::unordered_map<std::uint64_t, std::uint64_t> drops_;
};

}  // namespace net
