#include "net/batchwriter.h"

#include <pthread.h>

#include <utility>

namespace net {

BatchWriter::BatchWriter(std::shared_ptr<Connection> connection, std::size_t maxBytes)
    : connection_(std::move(connection)), maxBytes_(maxBytes) {
  thread_ = std::thread([this] {
    ::pthread_setname_np(::pthread_self(), "rx-postwriter");
    run();
  });
}

BatchWriter::~BatchWriter() { stop(); }

void BatchWriter::stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopped_ = true;
    if (failure_.empty()) failure_ = "connection to " + connection_->description() + " is closed";
  }
  wake_.notify_all();
  room_.notify_all();
  if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
}

void BatchWriter::writeUnlocked(std::unique_lock<std::mutex>& lock, const std::string& bytes) {
  lock.unlock();
  std::string error;
  try {
    connection_->sendFrames(bytes);
  } catch (const std::exception& e) {
    error = e.what();
  }
  lock.lock();
  writing_ = false;
  if (!error.empty() && failure_.empty()) failure_ = error;
}

void BatchWriter::send(const Message& message, const ObjectEncoder& objects) {
  thread_local std::string frame;
  frame.clear();
  encodeFrame(message, frame, objects, connection_->limits().maxFrameBytes);
  std::unique_lock<std::mutex> lock(mutex_);
  const auto now = std::chrono::steady_clock::now();
  const bool streaming = now - lastSend_ < kStreamGap;
  lastSend_ = now;
  room_.wait(lock, [&] { return !failure_.empty() || buffer_.size() < maxBytes_; });
  if (!failure_.empty()) throw RemoteError(failure_);
  if (!writing_ && buffer_.empty() && !streaming) {
    // Nothing waits and no stream is under way: no reason to hand it over.
    writing_ = true;
    writeUnlocked(lock, frame);
    if (!buffer_.empty()) wake_.notify_one();
    room_.notify_all();
    if (!failure_.empty()) throw RemoteError(failure_);
    return;
  }
  const bool wasEmpty = buffer_.empty();
  buffer_.append(frame);
  if (wasEmpty && !writing_) wake_.notify_one();
  if (frame.capacity() > (1u << 20)) std::string().swap(frame);
}

void BatchWriter::run() {
  std::string batch;
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    wake_.wait(lock, [&] { return stopped_ || (!buffer_.empty() && !writing_); });
    if (stopped_) return;
    batch.clear();
    batch.swap(buffer_);
    writing_ = true;
    room_.notify_all();
    writeUnlocked(lock, batch);
    room_.notify_all();
    if (batch.capacity() > 2 * maxBytes_) std::string().swap(batch);
  }
}

}  // namespace net
