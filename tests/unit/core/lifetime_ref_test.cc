#include "core/lifetime_ref.h"

#include <memory>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "core/delegate.h"

namespace quorvel {
namespace {

class Interface {
 public:
  virtual ~Interface() = default;
  virtual int value() const = 0;
};

// The anchor reaches the object through a base that is not the first.
class Anchored : public std::enable_shared_from_this<Anchored>, public Interface {
 public:
  explicit Anchored(int value) : value_(value) {}
  int value() const override { return value_; }
  LifetimeRef<Interface> ref() const { return anchor_.ref(); }

 private:
  int value_;
  LifetimeAnchor<Interface> anchor_{this};
};

static_assert(std::is_trivially_copyable_v<LifetimeRef<Interface>>);

// A reference reaches its object, holds it while used, and finds nothing
// once it is gone, though its slot then serves a newer object.
TEST(LifetimeRef, ReachesItsOwnObjectOnly) {
  auto first = std::make_shared<Anchored>(1);
  const LifetimeRef<Interface> ref = first->ref();
  {
    const Pinned<Interface> pinned = ref.lock();
    ASSERT_TRUE(pinned);
    EXPECT_EQ(pinned->value(), 1);
    EXPECT_EQ(first.use_count(), 2);
  }
  EXPECT_EQ(first.use_count(), 1);
  first.reset();
  EXPECT_FALSE(ref.lock());
  // The freed slot is the next one claimed.
  auto second = std::make_shared<Anchored>(2);
  EXPECT_FALSE(ref.lock());
  EXPECT_EQ(second->ref().lock()->value(), 2);
  EXPECT_FALSE(LifetimeRef<Interface>().lock());
}

// An object no shared_ptr owns, or whose last one is going, is not handed
// out: its callbacks find nothing.
TEST(LifetimeRef, AnObjectNotSharedIsNotReached) {
  const Anchored onStack(3);
  EXPECT_FALSE(onStack.ref().lock());
}

// Held by a delegate, copies are plain bytes: the object's count does not
// move, and the callback runs only while the object lives.
TEST(LifetimeRef, DelegatesCopyItWithoutCounting) {
  auto object = std::make_shared<Anchored>(4);
  int seen = 0;
  Delegate<void()> callback = [ref = object->ref(), &seen]() {
    if (auto held = ref.lock()) seen += held->value();
  };
  std::vector<Delegate<void()>> copies(8, callback);
  EXPECT_EQ(object.use_count(), 1);
  for (auto& copy : copies) copy();
  EXPECT_EQ(seen, 32);
  object.reset();
  callback();
  EXPECT_EQ(seen, 32);
}

// Objects made and dropped on several threads at once each get a slot of
// their own.
TEST(LifetimeRef, SlotsAreClaimedSafelyFromSeveralThreads) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t]() {
      for (int i = 0; i < 2000; ++i) {
        auto a = std::make_shared<Anchored>(t * 10000 + i);
        auto b = std::make_shared<Anchored>(-1);
        const auto ref = a->ref();
        ASSERT_EQ(ref.lock()->value(), t * 10000 + i);
        a.reset();
        ASSERT_FALSE(ref.lock());
      }
    });
  }
  for (auto& thread : threads) thread.join();
}

}  // namespace
}  // namespace quorvel
