#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "core/reactor.h"

namespace quorvel {
namespace testing {

// A time provider that moves only when a test tells it to.
class ManualTimeProvider : public TimeProvider {
 public:
  explicit ManualTimeProvider(Time start = Time::fromUnixSeconds(1700000000)) : now_(start) {}
  Time now() override { return now_; }
  void set(Time t) { now_ = t; }
  void advance(Duration d) { now_ += d; }

 private:
  Time now_;
};

// A single-threaded reactor on virtual time: tasks run in due-time order (FIFO
// among equal times) only when the test calls runDue() or advance(), so timing
// logic such as retransmission back-off can be checked exactly and instantly.
class ManualReactor : public Reactor {
 public:
  ManualReactor() : time_(std::make_shared<ManualTimeProvider>()) {}

  void post(const LifetimeToken& token, Delegate<void()> task) override {
    add(time_->now(), token, std::move(task));
  }
  void scheduleAt(const LifetimeToken& token, Time when, Delegate<void()> task) override {
    if (when != MaxTime) add(when, token, std::move(task));
  }
  void scheduleAfter(const LifetimeToken& token, Duration delay, Delegate<void()> task) override {
    if (delay != MaxDuration) add(time_->now() + delay, token, std::move(task));
  }
  void setExceptionHandler(const Delegate<void()>&) override {}
  std::shared_ptr<TimeProvider> timeProvider() override { return time_; }
  void lock() override { mutex_.lock(); }
  void unlock() override { mutex_.unlock(); }
  bool isLoopThread() const override { return true; }

  ManualTimeProvider& clock() { return *time_; }

  // Runs every task due at the current time, including ones they post.
  // Returns the number of tasks run.
  int runDue() {
    int ran = 0;
    while (!tasks_.empty() && tasks_.begin()->first.first <= time_->now()) {
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
    const Time end = time_->now() + d;
    int ran = runDue();
    while (!tasks_.empty() && tasks_.begin()->first.first <= end) {
      time_->set(tasks_.begin()->first.first);
      ran += runDue();
    }
    time_->set(end);
    return ran;
  }

  std::size_t pending() const { return tasks_.size(); }

  // The due time of the earliest task, or MaxTime.
  Time nextDue() const { return tasks_.empty() ? MaxTime : tasks_.begin()->first.first; }

 private:
  struct Entry {
    WeakLifetimeToken token;
    Delegate<void()> task;
  };

  void add(Time when, const LifetimeToken& token, Delegate<void()> task) {
    tasks_.emplace(std::make_pair(when, sequence_++), Entry{token, std::move(task)});
  }

  std::shared_ptr<ManualTimeProvider> time_;
  std::map<std::pair<Time, uint64_t>, Entry> tasks_;
  uint64_t sequence_ = 0;
  std::mutex mutex_;
};

}  // namespace testing
}  // namespace quorvel
