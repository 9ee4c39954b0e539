#include "core/lifetime_ref.h"

#include <mutex>

#include "core/yielding_lock.h"

namespace quorvel {
namespace lifetime_detail {
namespace {

// Made once and never destroyed: objects that go after static destruction
// has begun still give their slots back.
struct SlotStore {
  YieldingLock lock;
  Slot* free = nullptr;
};

SlotStore& store() {
  static SlotStore* const instance = new SlotStore;
  return *instance;
}

// Slots come in blocks, so that a burst of new objects costs few
// allocations; blocks stay reachable through the free list and the objects
// that hold their slots.
constexpr int SlotsPerBlock = 64;

}  // namespace

Slot* claimSlot(void* object, void* owner, std::shared_ptr<const void> (*keep)(void*)) {
  SlotStore& slots = store();
  Slot* slot = nullptr;
  {
    std::lock_guard<YieldingLock> hold(slots.lock);
    if (!slots.free) {
      Slot* block = new Slot[SlotsPerBlock];
      for (int i = 0; i < SlotsPerBlock - 1; ++i) block[i].nextFree = &block[i + 1];
      slots.free = block;
    }
    slot = slots.free;
    slots.free = slot->nextFree;
  }
  slot->nextFree = nullptr;
  slot->object = object;
  slot->owner = owner;
  slot->keep = keep;
  return slot;
}

void retireSlot(Slot* slot) {
  // References to the old owner stop matching before the slot can serve
  // another.
  slot->generation.fetch_add(1, std::memory_order_release);
  slot->object = nullptr;
  slot->owner = nullptr;
  SlotStore& slots = store();
  std::lock_guard<YieldingLock> hold(slots.lock);
  slot->nextFree = slots.free;
  slots.free = slot;
}

}  // namespace lifetime_detail
}  // namespace quorvel
