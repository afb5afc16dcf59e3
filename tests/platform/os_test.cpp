#include "mz/os.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>

#include "rx/rttime.h"

namespace {

TEST(OsTest, GettimeofdayReadsTheWallClock) {
  mz::os::timeval tv;
  ASSERT_EQ(0, mz::os::gettimeofday(&tv));
  EXPECT_EQ(-1, mz::os::gettimeofday(nullptr));
  const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                       std::chrono::system_clock::now().time_since_epoch())
                       .count();
  // Same clock as the system's: a few seconds apart at most, whatever the load.
  EXPECT_LE(std::llabs(now - tv.tv_sec), 5) << tv.tv_sec << " vs " << now;
  EXPECT_GE(tv.tv_usec, 0);
  EXPECT_LT(tv.tv_usec, 1000000);

  mz::os::timeval later;
  mz::os::msleep(2);
  ASSERT_EQ(0, mz::os::gettimeofday(&later));
  const int64_t elapsedUs = (later.tv_sec - tv.tv_sec) * 1000000 + (later.tv_usec - tv.tv_usec);
  EXPECT_GE(elapsedUs, 2000) << "msleep returned early";
}

TEST(RtTimeTest, MeasuresIntervalsOnTheMonotonicClock) {
  RX::RtTime zero(0);
  EXPECT_EQ(0, zero.diffNs());
  RX::RtTime preset(100);
  EXPECT_EQ(0, preset.diffNs64());

  RX::RtTime watch(0);
  watch.start();
  mz::os::msleep(1);
  watch.stop();
  EXPECT_GE(watch.diffNs64(), 1000000) << "a 1 ms sleep lasts at least 1 ms";
  EXPECT_EQ(static_cast<int32_t>(watch.diffNs64()), watch.diffNs());

  const int64_t a = RX::RtTime::nowNs();
  const int64_t b = RX::RtTime::nowNs();
  EXPECT_LE(a, b);
  EXPECT_GT(a, 0);
}

}  // namespace
