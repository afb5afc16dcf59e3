#include "mz/os.h"

#include <errno.h>
#include <time.h>

namespace mz {
namespace os {

int gettimeofday(timeval* tv) {
  if (tv == nullptr) return -1;
  timespec ts{};
  if (clock_gettime(CLOCK_REALTIME, &ts) != 0) return -1;
  tv->tv_sec = static_cast<int64_t>(ts.tv_sec);
  tv->tv_usec = static_cast<int64_t>(ts.tv_nsec / 1000);
  return 0;
}

void msleep(unsigned int milliseconds) {
  timespec remaining{};
  remaining.tv_sec = static_cast<time_t>(milliseconds / 1000);
  remaining.tv_nsec = static_cast<long>(milliseconds % 1000) * 1000000L;
  // A signal handler interrupting the sleep must not shorten it.
  while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
  }
}

}  // namespace os
}  // namespace mz
