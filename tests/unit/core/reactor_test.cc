#include "core/asio_reactor.h"

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/cancelable_task.h"
#include "tests/support/log_capture.h"

namespace quorvel {
namespace {

using ::testing::StrEq;
using ::testing::ThrowsMessage;

class AsioReactorTest : public ::testing::Test {
 protected:
  void SetUp() override { capture_ = testing::LogCapture::install(); }

  // Stops the loop from inside once the queue has drained this far.
  void stopSoon() { reactor_.post(token_, [this] { reactor_.stop(); }); }

  AsioReactor reactor_;
  LifetimeToken token_ = makeLifetimeToken();
  std::shared_ptr<testing::LogCapture> capture_;
};

TEST_F(AsioReactorTest, ExpiredTokenSkipsTheTask) {
  bool ran = false;
  auto owner = makeLifetimeToken();
  reactor_.post(owner, [&ran] { ran = true; });
  reactor_.scheduleAfter(owner, Duration::milliseconds(1), [&ran] { ran = true; });
  owner.reset();
  reactor_.scheduleAfter(token_, Duration::milliseconds(20), [this] { reactor_.stop(); });
  reactor_.run();
  EXPECT_FALSE(ran);
}

// Timers keep due order even when the loop is late and several are due at
// once (as on a loaded machine). The absolute ones share one "now", so their
// order is exact; a relative one is due from its own call, and a loaded
// machine may stretch the calls apart, so for those only "never early" holds.
TEST_F(AsioReactorTest, TimersFireInDueOrderAndNeverEarly) {
  std::vector<int> at;
  std::vector<Duration> early;
  int fired = 0;
  auto done = [&] {
    if (++fired == 6) reactor_.stop();
  };
  const SteadyTime now = reactor_.steadyNow();
  reactor_.scheduleAt(token_, now + Duration::milliseconds(30), [&] { at.push_back(3), done(); });
  reactor_.scheduleAt(token_, now + Duration::milliseconds(10), [&] { at.push_back(1), done(); });
  reactor_.scheduleAt(token_, now + Duration::milliseconds(20), [&] { at.push_back(2), done(); });
  reactor_.scheduleAt(token_, MaxSteadyTime, [&] { at.push_back(99); });
  for (int ms : {30, 10, 20}) {
    const SteadyTime called = reactor_.steadyNow();
    const Duration wait = Duration::milliseconds(ms);
    reactor_.scheduleAfter(token_, wait, [&, called, wait] {
      if (reactor_.steadyNow() - called < wait) early.push_back(wait);
      done();
    });
  }
  reactor_.scheduleAfter(token_, MaxDuration, [&] { at.push_back(98); });
  reactor_.run();
  EXPECT_EQ(at, (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(fired, 6);
  EXPECT_TRUE(early.empty());
}

// Posted from outside the loop, before it runs.
TEST_F(AsioReactorTest, PostedTasksRunInOrderAndAThrowingOneIsLoggedAndTheLoopGoesOn) {
  int handlerCalls = 0;
  std::vector<int> order;
  reactor_.setExceptionHandler([&handlerCalls] { ++handlerCalls; });
  for (int i = 0; i < 2; ++i) reactor_.post(token_, [&order, i] { order.push_back(i); });
  reactor_.post(token_, [] { throw std::runtime_error("boom"); });
  for (int i = 2; i < 5; ++i) reactor_.post(token_, [&order, i] { order.push_back(i); });
  stopSoon();
  reactor_.run();
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
  EXPECT_EQ(handlerCalls, 1);
  EXPECT_EQ(capture_->count("Unhandled exception thrown by scheduled task: boom"), 1u);
  ASSERT_FALSE(capture_->lines().empty());
  EXPECT_EQ(capture_->lines()[0].level, log::Error);
  EXPECT_EQ(capture_->lines()[0].log, "asioreactor");
}

// Tasks the loop posts to itself run in their order too; one that throws is
// reported and the others still run, and one whose owner has gone does not.
TEST_F(AsioReactorTest, TasksTheLoopPostsRunInOrderWhateverOneOfThemDoes) {
  std::vector<int> order;
  int handlerCalls = 0;
  reactor_.setExceptionHandler([&handlerCalls] { ++handlerCalls; });
  reactor_.post(token_, [&] {
    ASSERT_TRUE(reactor_.isLoopThread());
    auto gone = makeLifetimeToken();
    reactor_.post(token_, [&] {
      order.push_back(1);
      // After all that is queued now.
      reactor_.post(token_, [&] {
        order.push_back(4);
        reactor_.stop();
      });
    });
    reactor_.post(token_, [] { throw std::runtime_error("boom"); });
    reactor_.post(gone, [&] { order.push_back(0); });
    reactor_.post(token_, [&] { order.push_back(2); });
    reactor_.post(token_, [&] { order.push_back(3); });
    // One with no token of its own keeps its place too.
    reactor_.postSelfGuarded([&] { order.push_back(30); });
  });
  reactor_.run();
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 30, 4}));
  EXPECT_EQ(handlerCalls, 1);
  EXPECT_EQ(capture_->count("Unhandled exception thrown by scheduled task: boom"), 1u);
}

// A task that posts itself again and again keeps nothing else waiting: a
// timer that is due, and then a stop, still get their turn.
TEST_F(AsioReactorTest, TasksThatKeepPostingLeaveRoomForTheRest) {
  long rounds = 0;
  bool timerRan = false;
  Delegate<void()> again;
  again = [&] {
    ++rounds;
    reactor_.post(token_, again);
  };
  reactor_.post(token_, [&] { reactor_.post(token_, again); });
  reactor_.scheduleAfter(token_, Duration::milliseconds(20), [&] {
    timerRan = true;
    reactor_.stop();
  });
  reactor_.run();
  EXPECT_TRUE(timerRan);
  EXPECT_GT(rounds, 0);
}

TEST_F(AsioReactorTest, StopFromAnotherThreadEndsRun) {
  std::atomic<bool> running{false};
  reactor_.post(token_, [&running] { running = true; });
  std::thread stopper([&] {
    while (!running) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    reactor_.stop();
  });
  reactor_.run();  // would hang without the stop: the loop keeps itself alive
  stopper.join();
  EXPECT_TRUE(running);
}

TEST_F(AsioReactorTest, PostFromAnotherThreadRunsOnTheLoopThread) {
  std::thread::id ranOn;
  std::thread poster([&] {
    reactor_.post(token_, [&] {
      ranOn = std::this_thread::get_id();
      EXPECT_TRUE(reactor_.isLoopThread());
      reactor_.stop();
    });
  });
  reactor_.run();
  poster.join();
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_FALSE(reactor_.isLoopThread());
}

TEST_F(AsioReactorTest, RunsAgainAfterStop) {
  int runs = 0;
  for (int round = 0; round < 2; ++round) {
    reactor_.post(token_, [&runs] { ++runs; });
    stopSoon();
    reactor_.run();
  }
  EXPECT_EQ(runs, 2);
}

TEST(CancelableTask, CancelledProxyDoesNothingAndTaskRestarts) {
  int runs = 0;
  CancelableTask task([&runs] { ++runs; });
  auto cancelled = task.start();
  task.cancel();
  EXPECT_FALSE(task.isStarted());
  auto second = task.start();
  EXPECT_THAT([&] { task.start(); }, ThrowsMessage<std::logic_error>(StrEq("CancelableTask already started")));
  cancelled();
  EXPECT_EQ(runs, 0);
  second();
  EXPECT_EQ(runs, 1);
  second();  // a proxy runs at most once
  EXPECT_EQ(runs, 1);
  EXPECT_FALSE(task.isStarted());
}

TEST(CancelableTask, TaskMayRestartItselfWhileRunning) {
  int runs = 0;
  Delegate<void()> next;
  CancelableTask* self = nullptr;
  CancelableTask task([&] {
    if (++runs < 3) next = self->start();
  });
  self = &task;
  next = task.start();
  for (int i = 0; i < 5 && next; ++i) {
    auto current = next;
    next.clear();
    current();
  }
  EXPECT_EQ(runs, 3);
}

TEST(CancelableTask, ProxyOutlivingItsTaskDoesNothing) {
  int runs = 0;
  Delegate<void()> proxy;
  {
    CancelableTask task([&runs] { ++runs; });
    proxy = task.start();
  }
  proxy();
  EXPECT_EQ(runs, 0);
}

TEST_F(AsioReactorTest, CancelledTimerDoesNotRun) {
  int runs = 0;
  CancelableTask task([&runs] { ++runs; });
  reactor_.scheduleAfter(token_, Duration::milliseconds(5), task.start());
  task.cancel();
  reactor_.scheduleAfter(token_, Duration::milliseconds(10), task.start());
  reactor_.scheduleAfter(token_, Duration::milliseconds(30), [this] { reactor_.stop(); });
  reactor_.run();
  EXPECT_EQ(runs, 1);
}

}  // namespace
}  // namespace quorvel
