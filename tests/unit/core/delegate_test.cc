#include "core/delegate.h"

#include <memory>
#include <stdexcept>

#include <gtest/gtest.h>

namespace quorvel {
namespace {

// Assignments take the other delegate's target itself, not the delegate as
// a new target: an empty one stays empty (callers test before calling), and
// what it captured is shared, not copied again behind another layer.
TEST(Delegate, AssignmentsCarryTheTargetAndEmptiness) {
  auto kept = std::make_shared<int>(0);
  int calls = 0;
  auto target = [kept, &calls](int add) { calls += add; };
  const Delegate<void(int)> full = target;
  const Delegate<void(int)> empty;

  Delegate<void(int)> copied;
  copied = full;
  ASSERT_NE(copied.target<decltype(target)>(), nullptr);
  Delegate<void(int)> moved;
  moved = Delegate<void(int)>(full);
  ASSERT_NE(moved.target<decltype(target)>(), nullptr);
  const boost::function<void(int)> plain = target;
  Delegate<void(int)> fromPlain;
  fromPlain = plain;
  ASSERT_NE(fromPlain.target<decltype(target)>(), nullptr);
  copied(1);
  moved(2);
  fromPlain(4);
  EXPECT_EQ(calls, 7);
  EXPECT_EQ(kept.use_count(), 7);

  copied = empty;
  moved = Delegate<void(int)>();
  fromPlain = nullptr;
  EXPECT_TRUE(copied.empty());
  EXPECT_TRUE(moved.empty());
  EXPECT_TRUE(fromPlain.empty());
  EXPECT_EQ(kept.use_count(), 4);
  EXPECT_THROW(copied(1), boost::bad_function_call);
}

}  // namespace
}  // namespace quorvel
