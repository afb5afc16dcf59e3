// RtTime: a nanosecond stopwatch on the monotonic clock. start() and stop()
// mark the interval; diffNs() is the time between the last start and stop as a
// signed 32-bit count of nanoseconds (it wraps after about 2.1 s, which callers
// accept). Not thread-safe: one stopwatch per thread.
#pragma once

#include <cstdint>

namespace RX {

class RtTime {
 public:
  explicit RtTime(int64_t initialNs = 0) : start_(initialNs), stop_(initialNs) {}
  void start();
  void stop();
  int32_t diffNs() const { return static_cast<int32_t>(stop_ - start_); }
  // The full 64-bit interval, for callers that time longer spans.
  int64_t diffNs64() const { return stop_ - start_; }
  static int64_t nowNs();

 private:
  int64_t start_;
  int64_t stop_;
};

}  // namespace RX
