#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <utility>

namespace quorvel {
namespace lifetime_detail {

// What a LifetimeRef reads to learn whether its object still lives. Slots
// are never freed, so a reference may read its slot after the object is
// gone; a retired slot serves the next object under a new generation, so
// the most slots there ever are is the most anchored objects alive at once.
struct Slot {
  std::atomic<uint32_t> generation{0};
  void* object = nullptr;
  // What keeps the object alive (itself, or the object it is part of), and
  // a strong reference to that, or none once its last one is gone.
  void* owner = nullptr;
  std::shared_ptr<const void> (*keep)(void* owner) = nullptr;
  Slot* nextFree = nullptr;
};

Slot* claimSlot(void* object, void* owner, std::shared_ptr<const void> (*keep)(void*));

// shared_from_this() takes the count once, where locking weak_from_this()
// would also copy and drop a weak reference. It throws only for an owner
// no shared_ptr holds, or one being destroyed: not there, for callbacks.
template <typename Owner>
std::shared_ptr<const void> keepOwner(void* owner) {
  try {
    return static_cast<Owner*>(owner)->shared_from_this();
  } catch (const std::bad_weak_ptr&) {
    return nullptr;
  }
}
void retireSlot(Slot* slot);

}  // namespace lifetime_detail

// The object a LifetimeRef found alive, held for as long as this lives.
template <typename T>
class Pinned {
 public:
  Pinned() = default;
  Pinned(std::shared_ptr<const void> keep, T* object) : keep_(std::move(keep)), object_(object) {}

  explicit operator bool() const { return object_ != nullptr; }
  T* get() const { return object_; }
  T* operator->() const { return object_; }
  T& operator*() const { return *object_; }

 private:
  std::shared_ptr<const void> keep_;
  T* object_ = nullptr;
};

// A weak reference that copies as plain bytes. A callback that holds one
// instead of a weak_ptr is copied and dropped without touching a reference
// count, and fits a Delegate with a word to spare, so Boost.Function moves
// it with memcpy rather than through a manager call: callbacks are copied
// several times on their way down to a socket and back.
template <typename T>
class LifetimeRef {
 public:
  LifetimeRef() = default;
  LifetimeRef(lifetime_detail::Slot* slot, uint32_t generation) : slot_(slot), generation_(generation) {}

  // The object with a strong reference, or empty once it is gone (or while
  // it is being destroyed).
  Pinned<T> lock() const {
    if (!slot_ || slot_->generation.load(std::memory_order_acquire) != generation_) return {};
    std::shared_ptr<const void> keep = slot_->keep(slot_->owner);
    if (!keep) return {};
    return Pinned<T>(std::move(keep), static_cast<T*>(slot_->object));
  }

 private:
  lifetime_detail::Slot* slot_ = nullptr;
  uint32_t generation_ = 0;
};

// Held by an object (shared, with enable_shared_from_this) as a member, for
// the references its callbacks take. `T` is the type they reach it as: the
// object's own class or one of its bases, or a part of it (a member), which
// lives as long as the object does.
template <typename T>
class LifetimeAnchor {
 public:
  template <typename Owner>
  explicit LifetimeAnchor(Owner* owner) : LifetimeAnchor(owner, static_cast<T*>(owner)) {}
  template <typename Owner>
  LifetimeAnchor(Owner* owner, T* part)
      : slot_(lifetime_detail::claimSlot(part, owner, &lifetime_detail::keepOwner<Owner>)) {}
  ~LifetimeAnchor() { lifetime_detail::retireSlot(slot_); }
  LifetimeAnchor(const LifetimeAnchor&) = delete;
  LifetimeAnchor& operator=(const LifetimeAnchor&) = delete;

  LifetimeRef<T> ref() const { return LifetimeRef<T>(slot_, slot_->generation.load(std::memory_order_relaxed)); }

 private:
  lifetime_detail::Slot* const slot_;
};

}  // namespace quorvel
