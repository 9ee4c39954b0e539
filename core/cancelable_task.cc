#include "core/cancelable_task.h"

#include <stdexcept>

namespace quorvel {

void CancelableTask::CancelableTaskProxy::operator()() {
  CancelableTask* owner = owner_;
  if (!owner) return;  // cancelled
  owner_ = nullptr;
  // Cleared before running so that the task may start itself again.
  owner->current_.reset();
  owner->task_();
}

Delegate<void()> CancelableTask::start() {
  if (current_) throw std::logic_error("CancelableTask already started");
  current_ = std::make_shared<CancelableTaskProxy>(this);
  std::shared_ptr<CancelableTaskProxy> proxy = current_;
  return [proxy]() { (*proxy)(); };
}

void CancelableTask::cancel() {
  if (!current_) return;
  current_->owner_ = nullptr;
  current_.reset();
}

}  // namespace quorvel
