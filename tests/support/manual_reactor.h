#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "core/reactor.h"

namespace quorvel {
namespace testing {

// The monotonic clock of a test: it moves only when the test tells it to.
class ManualSteadyClock {
 public:
  SteadyTime now() const { return now_; }
  void set(SteadyTime t) { now_ = t; }
  void advance(Duration d) { now_ += d; }

 private:
  SteadyTime now_{1000000000};  // boot was a while ago
};

// The wall clock of a test: it runs on with the monotonic clock, as a real
// one does, until the test steps it the way NTP steps a board's clock.
class ManualTimeProvider : public TimeProvider {
 public:
  explicit ManualTimeProvider(std::shared_ptr<const ManualSteadyClock> steady,
                              Time start = Time::fromUnixSeconds(1700000000))
      : steady_(std::move(steady)), start_(start), steadyStart_(steady_->now()) {}
  Time now() override { return start_ + (steady_->now() - steadyStart_) + stepped_; }
  void step(Duration d) { stepped_ += d; }

 private:
  std::shared_ptr<const ManualSteadyClock> steady_;
  Time start_;
  SteadyTime steadyStart_;
  Duration stepped_;
};

// A single-threaded reactor on virtual time: tasks run in due-time order (FIFO
// among equal times) only when the test calls runDue() or advance(), so timing
// logic such as retransmission back-off can be checked exactly and instantly.
class ManualReactor : public Reactor {
 public:
  ManualReactor() : steady_(std::make_shared<ManualSteadyClock>()), wall_(std::make_shared<ManualTimeProvider>(steady_)) {}

  void post(const LifetimeToken& token, Delegate<void()> task) override {
    add(steady_->now(), token, std::move(task));
  }
  void scheduleAt(const LifetimeToken& token, SteadyTime when, Delegate<void()> task) override {
    if (when != MaxSteadyTime) add(when, token, std::move(task));
  }
  void scheduleAfter(const LifetimeToken& token, Duration delay, Delegate<void()> task) override {
    if (delay != MaxDuration) add(steady_->now() + delay, token, std::move(task));
  }
  void setExceptionHandler(const Delegate<void()>&) override {}
  std::shared_ptr<TimeProvider> timeProvider() override { return wall_; }
  SteadyTime steadyNow() override { return steady_->now(); }
  void lock() override { mutex_.lock(); }
  void unlock() override { mutex_.unlock(); }
  bool isLoopThread() const override { return true; }

  // The clock the timers run on.
  ManualSteadyClock& clock() { return *steady_; }
  // Steps the wall clock alone; no timer may notice.
  void stepWallClock(Duration d) { wall_->step(d); }

  // Runs every task due at the current time, including ones they post.
  // Returns the number of tasks run.
  int runDue() {
    int ran = 0;
    while (!tasks_.empty() && tasks_.begin()->first.first <= steady_->now()) {
      Entry entry = std::move(tasks_.begin()->second);
      tasks_.erase(tasks_.begin());
      if (entry.token.lock()) {
        entry.task();
        ++ran;
      }
    }
    return ran;
  }

  // Moves time forward in steps to each due task up to now + d, running tasks
  // at their own due times.
  int advance(Duration d) {
    const SteadyTime end = steady_->now() + d;
    int ran = runDue();
    while (!tasks_.empty() && tasks_.begin()->first.first <= end) {
      steady_->set(tasks_.begin()->first.first);
      ran += runDue();
    }
    steady_->set(end);
    return ran;
  }

  std::size_t pending() const { return tasks_.size(); }

  // The due time of the earliest task, or MaxSteadyTime.
  SteadyTime nextDue() const { return tasks_.empty() ? MaxSteadyTime : tasks_.begin()->first.first; }

 private:
  struct Entry {
    WeakLifetimeToken token;
    Delegate<void()> task;
  };

  void add(SteadyTime when, const LifetimeToken& token, Delegate<void()> task) {
    tasks_.emplace(std::make_pair(when, sequence_++), Entry{token, std::move(task)});
  }

  std::shared_ptr<ManualSteadyClock> steady_;
  std::shared_ptr<ManualTimeProvider> wall_;
  std::map<std::pair<SteadyTime, uint64_t>, Entry> tasks_;
  uint64_t sequence_ = 0;
  std::mutex mutex_;
};

}  // namespace testing
}  // namespace quorvel
