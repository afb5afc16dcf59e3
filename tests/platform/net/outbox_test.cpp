// What waits for a slow socket: frames leave whole and in order, a capped lane
// drops its oldest waiting frame (never one already started, never an
// uncapped one), and many frames go out in one gather.
#include "net/outbox.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// Writes up to `budget` bytes the way a socket would take them; returns them.
std::string take(net::Outbox& box, std::size_t budget) {
  iovec iov[64];
  std::string out;
  const int n = box.gather(iov, 64);
  for (int i = 0; i < n && out.size() < budget; ++i)
    out.append(static_cast<const char*>(iov[i].iov_base), std::min(iov[i].iov_len, budget - out.size()));
  box.consume(out.size());
  return out;
}

TEST(Outbox, CappedLanesDropTheirOldestWaitingFrameOnly) {
  net::Outbox box;
  constexpr std::uint64_t kPosts = 7, kEvents = 9;
  EXPECT_EQ(0u, box.push("R1.", net::Outbox::kUncapped, 0));
  EXPECT_EQ(0u, box.push("a1.", kPosts, 2));
  EXPECT_EQ(0u, box.push("e1.", kEvents, 1));
  EXPECT_EQ(0u, box.push("a2.", kPosts, 2));
  EXPECT_EQ(1u, box.push("a3.", kPosts, 2)) << "a third post over a cap of 2 drops a1";
  EXPECT_EQ(1u, box.push("e2.", kEvents, 1));
  EXPECT_EQ(0u, box.push("R2.", net::Outbox::kUncapped, 0)) << "uncapped frames are never dropped";
  EXPECT_EQ(15u, box.unsent());
  EXPECT_EQ(15u + 5 * net::Outbox::kFrameOverhead, box.footprint());
  // a2 starts going out: it can no longer be dropped, so a4 and a5 drop a3 and a4.
  EXPECT_EQ("R1.a", take(box, 4));
  EXPECT_EQ(0u, box.push("a4.", kPosts, 2));
  EXPECT_EQ(1u, box.push("a5.", kPosts, 2));
  EXPECT_EQ(1u, box.push("a6.", kPosts, 2));
  EXPECT_EQ("2.e2.R2.a5.a6.", take(box, 1000));
  EXPECT_TRUE(box.empty());
  EXPECT_EQ(0u, box.footprint());
}

TEST(Outbox, GathersManyFramesAndResumesMidFrame) {
  net::Outbox box;
  std::string all;
  for (int i = 0; i < 100; ++i) {
    const std::string frame = "frame" + std::to_string(i) + ";";
    all += frame;
    box.push(frame, net::Outbox::kUncapped, 0);
  }
  iovec iov[64];
  EXPECT_EQ(64, box.gather(iov, 64)) << "one system call takes up to the batch size";
  std::string out;
  for (std::size_t budget : {3u, 1u, 50u, 7u, 5000u, 13u}) out += take(box, budget);
  while (!box.empty()) out += take(box, 13);
  EXPECT_EQ(all, out);
}

}  // namespace
