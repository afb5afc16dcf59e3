// Futures and promises: the three endings, waiting with and without a time
// limit, and a future that says why it has no value.
#include "mz/future.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

std::string errorOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const mz::FutureError& e) {
    return e.what();
  }
  return "(no FutureError)";
}

TEST(Future, ValueFromAnotherThread) {
  mz::Promise<int> p;
  mz::Future<int> f = p.future();
  EXPECT_EQ(mz::FutureState::Running, f.state());
  EXPECT_FALSE(f.isFinished());
  // Nothing produces a value yet: a limited wait gives up and says so.
  EXPECT_EQ(mz::FutureState::Running, f.wait(milliseconds(1)));

  std::thread producer([p]() mutable { p.setValue(3); });
  EXPECT_EQ(mz::FutureState::FinishedWithValue, f.wait(seconds(5))) << "the producer's value never arrived";
  producer.join();
  EXPECT_TRUE(f.hasValue());
  EXPECT_EQ(3, f.value());
  EXPECT_EQ("", f.error());
  EXPECT_FALSE(p.setValue(4)) << "a finished future keeps its first outcome";
  EXPECT_FALSE(p.setError("late"));
  EXPECT_EQ(3, f.value());
  EXPECT_NO_THROW(f.waitAndCheck());

  mz::Future<std::string> ready = mz::makeFutureValue<std::string>("ready");
  EXPECT_TRUE(ready.isFinished());
  EXPECT_EQ("ready", ready.value());
}

TEST(Future, ErrorSaysWhy) {
  mz::Promise<int> p;
  mz::Future<int> f = p.future();
  mz::Future<int> copy = f;
  EXPECT_TRUE(p.setError("disk on fire"));
  EXPECT_TRUE(copy.hasError()) << "copies share one outcome";
  EXPECT_EQ("disk on fire", f.error());
  EXPECT_EQ("disk on fire", errorOf([&] { f.value(); }));
  EXPECT_EQ("disk on fire", errorOf([&] { f.waitAndCheck(); }));
  EXPECT_FALSE(p.setValue(1));

  mz::Future<void> v = mz::makeFutureError<void>("no route");
  EXPECT_TRUE(v.hasError());
  EXPECT_EQ("no route", errorOf([&] { v.waitAndCheck(); }));
}

TEST(Future, CancelFromEitherSide) {
  mz::Promise<int> p;
  mz::Future<int> f = p.future();
  EXPECT_FALSE(p.isCancelRequested());
  f.cancel();
  EXPECT_TRUE(f.isCanceled());
  EXPECT_TRUE(p.isCancelRequested());
  EXPECT_FALSE(p.setValue(1)) << "the producer's late answer is dropped";
  EXPECT_EQ("future canceled", errorOf([&] { f.value(); }));
  f.cancel();  // idempotent
  EXPECT_TRUE(f.isCanceled());

  mz::Promise<void> q;
  mz::Future<void> g = q.future();
  EXPECT_TRUE(q.setCanceled("shutting down"));
  EXPECT_EQ(mz::FutureState::Canceled, g.wait());
  EXPECT_EQ("future canceled: shutting down", errorOf([&] { g.waitAndCheck(); }));

  // Cancelling a finished future changes nothing.
  mz::Future<int> done = mz::makeFutureValue(5);
  done.cancel();
  EXPECT_TRUE(done.hasValue());
  EXPECT_EQ(5, done.value());

  // A default future has no producer: it is cancelled from the start.
  mz::Future<int> none;
  EXPECT_TRUE(none.isCanceled());
  EXPECT_EQ(mz::FutureState::Canceled, none.wait(milliseconds(1)));
  EXPECT_EQ("future canceled", errorOf([&] { none.value(); }));
}

TEST(Future, VoidFutureAndBlockedWaiterReleased) {
  mz::Promise<void> p;
  mz::Future<void> f = p.future();
  std::thread waiter([f] { f.waitAndCheck(); });
  EXPECT_TRUE(p.setValue());
  waiter.join();
  EXPECT_TRUE(f.hasValue());
  EXPECT_FALSE(p.setValue());
}

TEST(Future, BrokenPromiseFailsInsteadOfHanging) {
  mz::Future<int> f;
  {
    mz::Promise<int> p;
    f = p.future();
    {
      mz::Promise<int> copy = p;
      (void)copy;
    }
    EXPECT_EQ(mz::FutureState::Running, f.state()) << "a copy going away must not break the promise";
  }
  ASSERT_EQ(mz::FutureState::FinishedWithError, f.wait(seconds(5)));
  EXPECT_EQ("promise broken: the operation ended without a result", errorOf([&] { f.value(); }));

  // A promise dropped by a task that never ran, seen by a waiting thread.
  mz::Future<void> g;
  std::thread t;
  {
    mz::Promise<void> q;
    g = q.future();
    t = std::thread([g] { EXPECT_EQ(mz::FutureState::FinishedWithError, g.wait(seconds(5))); });
  }
  t.join();
  EXPECT_TRUE(g.hasError());
}

}  // namespace
