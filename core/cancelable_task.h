#pragma once

#include <memory>

#include "core/delegate.h"

namespace quorvel {

class TaskProxy {
 public:
  virtual ~TaskProxy() = default;
  virtual void operator()() = 0;
};

// A piece of work that can be scheduled, cancelled before it runs, and
// scheduled again. At most one scheduled instance (proxy) is live at a time.
class CancelableTask {
 public:
  class CancelableTaskProxy : public TaskProxy {
   public:
    explicit CancelableTaskProxy(CancelableTask* owner) : owner_(owner) {}
    void operator()() override;

   private:
    friend class CancelableTask;
    CancelableTask* owner_;  // null once cancelled or run
  };

  explicit CancelableTask(const Delegate<void()>& task) : task_(task) {}
  ~CancelableTask() { cancel(); }
  CancelableTask(const CancelableTask&) = delete;
  CancelableTask& operator=(const CancelableTask&) = delete;

  // Returns the delegate to hand to the reactor. Throws std::logic_error
  // "CancelableTask already started" while a previous start is still pending.
  Delegate<void()> start();
  // The pending instance, if any, will do nothing when it comes due.
  void cancel();
  bool isStarted() const { return static_cast<bool>(current_); }

 private:
  Delegate<void()> task_;
  std::shared_ptr<CancelableTaskProxy> current_;
};

}  // namespace quorvel
