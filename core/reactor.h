#pragma once

#include <memory>
#include <utility>

#include "core/delegate.h"
#include "core/lifetime.h"
#include "core/steady_time.h"
#include "core/time.h"
#include "core/time_provider.h"

namespace quorvel {

// The program's one event loop. Every call takes the caller's lifetime token;
// work whose token has expired by the time it comes due is not run.
class Reactor {
 public:
  virtual ~Reactor() = default;

  // May be called from any thread. Tasks are taken by value so that a
  // lambda becomes one Delegate, moved on rather than copied.
  virtual void post(const LifetimeToken& token, Delegate<void()> task) = 0;
  // For a task that guards itself: it holds what it works on, or reaches it
  // through a lifetime reference. It always runs, and costs no token.
  virtual void postSelfGuarded(Delegate<void()> task) {
    static const LifetimeToken always = makeLifetimeToken();
    post(always, std::move(task));
  }
  // An instant on the monotonic clock (steadyNow()); MaxSteadyTime means
  // "never". A step of the wall clock moves no timer.
  virtual void scheduleAt(const LifetimeToken& token, SteadyTime when, Delegate<void()> task) = 0;
  virtual void scheduleAfter(const LifetimeToken& token, Duration delay, Delegate<void()> task) = 0;
  // Called after an exception that escaped a task has been logged.
  virtual void setExceptionHandler(const Delegate<void()>& handler) = 0;
  // The wall clock, for what a person reads: dates in log lines and files.
  // Never for measuring or waiting; that is steadyNow().
  virtual std::shared_ptr<TimeProvider> timeProvider() = 0;
  // "Now" on the clock the timers run on, for deadlines, pacing, time-outs
  // and ages.
  virtual SteadyTime steadyNow() = 0;
  // Guards state that other threads share with the loop.
  virtual void lock() = 0;
  virtual void unlock() = 0;
  // True on the thread that is running the loop, for checks of thread
  // confinement in code that other threads may reach.
  virtual bool isLoopThread() const = 0;
};

}  // namespace quorvel
