#pragma once

#include <memory>

namespace quorvel {

// A lifetime token is a shared object owned by whoever schedules work; the
// reactor keeps only a weak reference, so work whose owner is gone is
// silently dropped instead of calling into a destroyed object.
using LifetimeToken = std::shared_ptr<void>;
using WeakLifetimeToken = std::weak_ptr<void>;

inline LifetimeToken makeLifetimeToken() { return std::make_shared<int>(0); }

}  // namespace quorvel
