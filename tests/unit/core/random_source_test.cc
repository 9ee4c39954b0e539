#include "core/random_source.h"

#include <random>

#include <gtest/gtest.h>

#include "tests/support/manual_reactor.h"

namespace quorvel {
namespace {

TEST(PseudoRandomSource, MatchesStandardMersenneTwister) {
  PseudoRandomSource source(5489u);
  EXPECT_EQ(source.next(), 3499211612u);
  std::mt19937 reference(5489u);
  reference();
  for (int i = 0; i < 2000; ++i) ASSERT_EQ(source.next(), reference()) << i;  // across regenerations
}

TEST(PseudoRandomSource, SeedsFromLow32BitsOfTheTime) {
  auto clock = std::make_shared<testing::ManualTimeProvider>(std::make_shared<testing::ManualSteadyClock>(),
                                                             Time((uint64_t{7} << 32) | 12345u));
  PseudoRandomSource source(clock);
  std::mt19937 reference(12345u);
  EXPECT_EQ(source.next(), reference());
}

TEST(PseudoRandomSource, FillIsBigEndianWordsWithALeadingTail) {
  PseudoRandomSource source(1u);
  std::mt19937 reference(1u);
  const uint32_t first = reference(), second = reference(), third = reference();

  uint8_t bytes[7] = {};
  source.fill(bytes, 6);
  const uint8_t expected[6] = {uint8_t(first >> 24), uint8_t(first >> 16), uint8_t(first >> 8), uint8_t(first),
                               uint8_t(second >> 24), uint8_t(second >> 16)};
  EXPECT_EQ(0, std::memcmp(bytes, expected, 6));
  EXPECT_EQ(bytes[6], 0);  // nothing past the length

  source.fill(bytes, 0);  // draws nothing
  EXPECT_EQ(source.next(), third);
}

}  // namespace
}  // namespace quorvel
