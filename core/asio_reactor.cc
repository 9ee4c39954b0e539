#include "core/asio_reactor.h"

#include <chrono>
#include <exception>
#include <utility>

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include "core/handler_memory.h"
#include "core/log.h"

namespace quorvel {
namespace {

const log::Log Log("asioreactor");

// Far enough out to mean "not in this process's life", yet small enough that
// the timer library's nanosecond clocks do not overflow.
constexpr int64_t FarFutureUs = int64_t{1} << 52;  // about 140 years

// Rounds of tasks posted by tasks, run after one handler.
constexpr int MaxTaskRounds = 8;

// Runs the task only while its owner's token is alive.
struct GuardedTask {
  WeakLifetimeToken token;
  Delegate<void()> task;

  void operator()() const {
    if (auto alive = token.lock()) task();
  }
};

}  // namespace

AsioReactor::AsioReactor(std::shared_ptr<TimeProvider> timeProvider)
    : work_(boost::asio::make_work_guard(io_)), timeProvider_(std::move(timeProvider)) {}

AsioReactor::~AsioReactor() = default;

// Tasks the loop posts to itself run after the handler that posted them,
// together and in their order, straight from run(): a turn that ends an
// exchange posts several (releases, completions, clean-ups), and each of
// asio's own operations costs a round through its queue. Other threads post
// through asio, one by one, as they come.
void AsioReactor::post(const LifetimeToken& token, Delegate<void()> task) {
  if (!isLoopThread()) {
    boost::asio::post(io_, pooled(GuardedTask{token, std::move(task)}));
    return;
  }
  turnTasks_.emplace_back(token, std::move(task));
}

void AsioReactor::postSelfGuarded(Delegate<void()> task) {
  if (!isLoopThread()) {
    boost::asio::post(io_, pooled(std::move(task)));
    return;
  }
  turnTasks_.emplace_back(std::move(task));
}

void AsioReactor::runTurnTasks() {
  // Tasks these post go to the next round.
  runningTasks_.swap(turnTasks_);
  for (const TurnTask& next : runningTasks_) {
    // One that throws is reported as the loop reports it, and the rest run.
    try {
      if (!next.guarded) {
        next.task();
      } else if (auto alive = next.token.lock()) {
        next.task();
      }
    } catch (const std::exception& e) {
      QLOG(Log, log::Error, "Unhandled exception thrown by scheduled task: %s", e.what());
      if (exceptionHandler_) exceptionHandler_();
    }
  }
  runningTasks_.clear();
}

void AsioReactor::scheduleAt(const LifetimeToken& token, SteadyTime when, Delegate<void()> task) {
  if (when == MaxSteadyTime) return;  // never due
  auto timer = std::make_shared<boost::asio::steady_timer>(io_);
  // steadyClockNow() reads the steady_timer's own clock, so the instant goes
  // in as it is.
  const int64_t us = when.count() > static_cast<uint64_t>(FarFutureUs) ? FarFutureUs : static_cast<int64_t>(when.count());
  timer->expires_at(std::chrono::steady_clock::time_point(
      std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::microseconds(us))));
  timer->async_wait([timer, guarded = GuardedTask{token, std::move(task)}](const boost::system::error_code& error) {
    if (!error) guarded();
  });
}

void AsioReactor::scheduleAfter(const LifetimeToken& token, Duration delay, Delegate<void()> task) {
  if (delay == MaxDuration) return;
  auto timer = std::make_shared<boost::asio::steady_timer>(io_);
  timer->expires_after(std::chrono::microseconds(delay.count() > FarFutureUs ? FarFutureUs : delay.count()));
  timer->async_wait([timer, guarded = GuardedTask{token, std::move(task)}](const boost::system::error_code& error) {
    if (!error) guarded();
  });
}

void AsioReactor::setExceptionHandler(const Delegate<void()>& handler) { exceptionHandler_ = handler; }

bool AsioReactor::isLoopThread() const { return loopThread_.load() == std::this_thread::get_id(); }

void AsioReactor::run() {
  loopThread_ = std::this_thread::get_id();
  for (;;) {
    try {
      // One handler at a time, then the tasks it posted, and the tasks those
      // post, for a few rounds: tasks that keep posting more must not keep
      // asio's handlers waiting, so past that a handler of nothing is queued
      // and the rest wait their turn behind it. Only a stop runs nothing.
      while (io_.run_one() != 0) {
        for (int round = 0; round < MaxTaskRounds && !turnTasks_.empty(); ++round) runTurnTasks();
        if (!turnTasks_.empty()) boost::asio::post(io_, [] {});
      }
      break;
    } catch (const std::exception& e) {
      QLOG(Log, log::Error, "Unhandled exception thrown by scheduled task: %s", e.what());
      if (exceptionHandler_) exceptionHandler_();
    }
  }
  loopThread_ = std::thread::id();
  // Ready for another run(); a stop() that comes before it still ends it.
  io_.restart();
}

void AsioReactor::stop() { io_.stop(); }

}  // namespace quorvel
