// Operating-system helpers of the messaging layer: wall-clock time with
// microseconds and a sleep in milliseconds. Thread-safe.
#pragma once

#include <cstdint>

namespace mz {
namespace os {

struct timeval {
  int64_t tv_sec = 0;
  int64_t tv_usec = 0;
};

// Wall clock (realtime). Returns 0 on success, as the POSIX call does.
int gettimeofday(timeval* tv);
void msleep(unsigned int milliseconds);

}  // namespace os
}  // namespace mz
