#include "mz/os.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "rx/rttime.h"

namespace {

// gettimeofday reads the wall clock; msleep and RtTime never come back early.
TEST(OsTest, WallClockSleepAndMonotonicIntervals) {
  mz::os::timeval tv, later;
  ASSERT_EQ(0, mz::os::gettimeofday(&tv));
  EXPECT_EQ(-1, mz::os::gettimeofday(nullptr));
  const auto now = std::chrono::system_clock::now().time_since_epoch() / std::chrono::seconds(1);
  EXPECT_LE(std::llabs(now - tv.tv_sec), 5) << tv.tv_sec << " vs " << now;
  EXPECT_TRUE(tv.tv_usec >= 0 && tv.tv_usec < 1000000) << tv.tv_usec;
  RX::RtTime watch(0);
  watch.start();
  mz::os::msleep(2);
  watch.stop();
  ASSERT_EQ(0, mz::os::gettimeofday(&later));
  EXPECT_GE((later.tv_sec - tv.tv_sec) * 1000000 + (later.tv_usec - tv.tv_usec), 2000) << "msleep returned early";
  EXPECT_GE(watch.diffNs64(), 2000000);
  EXPECT_EQ(0, RX::RtTime(100).diffNs64()) << "nothing measured yet";
}

}  // namespace
