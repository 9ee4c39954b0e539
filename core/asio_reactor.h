#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>

#include "core/reactor.h"

namespace quorvel {

class AsioReactor : public Reactor {
 public:
  explicit AsioReactor(std::shared_ptr<TimeProvider> timeProvider = std::make_shared<SystemTimeProvider>());
  ~AsioReactor() override;

  void post(const LifetimeToken& token, Delegate<void()> task) override;
  void postSelfGuarded(Delegate<void()> task) override;
  void scheduleAt(const LifetimeToken& token, SteadyTime when, Delegate<void()> task) override;
  void scheduleAfter(const LifetimeToken& token, Duration delay, Delegate<void()> task) override;
  void setExceptionHandler(const Delegate<void()>& handler) override;
  std::shared_ptr<TimeProvider> timeProvider() override { return timeProvider_; }
  SteadyTime steadyNow() override { return steadyClockNow(); }
  void lock() override { mutex_.lock(); }
  void unlock() override { mutex_.unlock(); }
  bool isLoopThread() const override;

  // Runs the loop on the calling thread until stop(); a task that throws is
  // logged and the loop goes on.
  void run();
  // Safe from any thread and from the SIGINT handler. Tasks still queued are
  // dropped.
  void stop();

  // For the socket implementations that live on this loop.
  boost::asio::io_context& ioContext() { return io_; }

 private:
  struct TurnTask {
    TurnTask(const LifetimeToken& owner, Delegate<void()>&& work)
        : token(owner), task(std::move(work)), guarded(true) {}
    explicit TurnTask(Delegate<void()>&& work) : task(std::move(work)), guarded(false) {}
    WeakLifetimeToken token;
    Delegate<void()> task;
    // Run only while the token lives; else always.
    bool guarded;
  };
  void runTurnTasks();

  // Only run() runs it, on one thread, and every socket lives on that thread:
  // asio then queues that thread's own posts and completions without taking
  // its lock, and starts and completes socket operations without a lock per
  // socket. Other threads still post, and set timers, safely.
  boost::asio::io_context io_{BOOST_ASIO_CONCURRENCY_HINT_UNSAFE_IO};
  // Keeps run() waiting while only other threads (the resolver, the SCTP
  // stack) have work that will come back through post().
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_;
  std::shared_ptr<TimeProvider> timeProvider_;
  Delegate<void()> exceptionHandler_;
  std::mutex mutex_;
  std::atomic<std::thread::id> loopThread_{};
  // What the loop has posted to itself since its last run of them, and the
  // list being run (kept, with its room, for the next turn).
  std::vector<TurnTask> turnTasks_;
  std::vector<TurnTask> runningTasks_;
};

}  // namespace quorvel
