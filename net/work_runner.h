#pragma once

#include <condition_variable>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "core/delegate.h"

namespace quorvel {
namespace work_detail {

void logItemException(const char* what);
void logCallbackException(const char* what);

}  // namespace work_detail

// One worker thread for blocking work (host lookups) so that the loop never
// blocks. Items run in order; `work` runs each on the worker, then `done`
// hands it on (typically by posting it back to the reactor).
template <typename T>
class WorkRunner {
 public:
  WorkRunner(const Delegate<void(T&)>& work, const Delegate<void(const std::shared_ptr<T>&)>& done)
      : work_(work), done_(done), thread_([this] { loop(); }) {}

  // Items still queued are dropped; an item being worked on is finished
  // first.
  ~WorkRunner() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
  }

  WorkRunner(const WorkRunner&) = delete;
  WorkRunner& operator=(const WorkRunner&) = delete;

  // May be called from any thread.
  void enqueue(std::shared_ptr<T> item) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      queue_.push_back(std::move(item));
    }
    wake_.notify_one();
  }

  // Runs a result's callback, logging rather than passing on what it throws.
  template <typename F>
  static void deliver(F&& callback) {
    try {
      callback();
    } catch (const std::exception& e) {
      work_detail::logCallbackException(e.what());
    } catch (...) {
      work_detail::logCallbackException("unknown exception");
    }
  }

 private:
  void loop() {
    for (;;) {
      std::shared_ptr<T> item;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
        if (stopping_) return;
        item = std::move(queue_.front());
        queue_.pop_front();
      }
      try {
        work_(*item);
      } catch (const std::exception& e) {
        work_detail::logItemException(e.what());
      } catch (...) {
        work_detail::logItemException("unknown exception");
      }
      deliver([&] { done_(item); });
    }
  }

  Delegate<void(T&)> work_;
  Delegate<void(const std::shared_ptr<T>&)> done_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::shared_ptr<T>> queue_;
  bool stopping_ = false;
  std::thread thread_;  // last: starts once everything above is ready
};

}  // namespace quorvel
