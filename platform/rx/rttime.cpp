#include "rx/rttime.h"

#include <time.h>

namespace RX {

void RtTime::start() { start_ = nowNs(); }

void RtTime::stop() { stop_ = nowNs(); }

int64_t RtTime::nowNs() {
  // CLOCK_MONOTONIC: unaffected by wall-clock adjustments, so intervals never
  // run backwards.
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

}  // namespace RX
