// Futures and promises: the three endings, waiting with and without a time
// limit, and a future that says why it has no value.
#include "mz/future.h"

#include <gtest/gtest.h>

#include <thread>

#include "support/capture.h"

namespace {

using testsupport::errorOf;
using testsupport::kWait;

TEST(Future, ValueFromAnotherThreadAndTheFirstOutcomeSticks) {
  mz::Promise<int> p;
  mz::Future<int> f = p.future();
  EXPECT_EQ(mz::FutureState::Running, f.wait(std::chrono::milliseconds(1))) << "a limited wait gives up";
  std::thread producer([p]() mutable { p.setValue(3); });
  EXPECT_EQ(mz::FutureState::FinishedWithValue, f.wait(kWait)) << "the producer's value never arrived";
  producer.join();
  EXPECT_FALSE(p.setValue(4) || p.setError("late")) << "a finished future keeps its first outcome";
  EXPECT_EQ(3, f.value());
  mz::Promise<void> v;
  mz::Future<void> g = v.future();
  std::thread waiter([g] { g.waitAndCheck(); });
  EXPECT_TRUE(v.setValue());
  waiter.join();
  EXPECT_TRUE(g.hasValue());
}

TEST(Future, ErrorCancelAndABrokenPromiseSayWhy) {
  mz::Promise<int> p;
  mz::Future<int> copy = p.future();
  EXPECT_TRUE(p.setError("disk on fire"));
  EXPECT_EQ("disk on fire", errorOf([&] { copy.value(); })) << "copies share one outcome";
  EXPECT_EQ("no route", errorOf([] { mz::makeFutureError<void>("no route").waitAndCheck(); }));
  mz::Promise<int> c;
  mz::Future<int> cf = c.future();
  cf.cancel();
  EXPECT_TRUE(c.isCancelRequested());
  EXPECT_FALSE(c.setValue(1) || c.setError("late")) << "the producer's late answer is dropped";
  EXPECT_EQ("future canceled", errorOf([&] { cf.value(); }));
  mz::Promise<void> q;
  EXPECT_TRUE(q.setCanceled("shutting down"));
  EXPECT_EQ("future canceled: shutting down", errorOf([&] { q.future().waitAndCheck(); }));
  mz::Future<int> done = mz::makeFutureValue(5);
  done.cancel();
  EXPECT_EQ(5, done.value()) << "cancelling a finished future changes nothing";
  // A default future has no producer: it is cancelled from the start.
  EXPECT_EQ(mz::FutureState::Canceled, mz::Future<int>().wait(std::chrono::milliseconds(1)));

  // The last promise going away fails its waiters instead of leaving them hanging.
  mz::Future<int> f;
  mz::Future<void> g;
  std::thread waiter;
  {
    mz::Promise<int> broken;
    f = broken.future();
    { mz::Promise<int> brokenCopy = broken; }
    EXPECT_EQ(mz::FutureState::Running, f.state()) << "a copy going away must not break the promise";
    mz::Promise<void> brokenVoid;
    g = brokenVoid.future();
    waiter = std::thread([g] { EXPECT_EQ(mz::FutureState::FinishedWithError, g.wait(kWait)); });
  }
  waiter.join();
  EXPECT_EQ("promise broken: the operation ended without a result", errorOf([&] { f.value(); }));
}

}  // namespace
