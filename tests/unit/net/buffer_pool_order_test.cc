#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "net/buffer_pool.h"

namespace quorvel {
namespace {

std::vector<Buffer*> buffersOf(const BufferChain& chain) {
  std::vector<Buffer*> buffers;
  for (Buffer* b = chain.first(); b; b = b->next) buffers.push_back(b);
  return buffers;
}

// The free list's order holds across growths although a new block's
// buffers are laid out only as they are handed out: released buffers first,
// then the newest block's in address order, then those free at its growth.
TEST(BufferPoolOrderTest, HandsOutReleasedThenNewThenOlderBuffers) {
  BufferPool pool(8, 0, 0);
  BufferChain first = pool.allocate(8 * 30);  // block of 32: 2 left fresh
  const std::vector<Buffer*> block1 = buffersOf(first);
  const auto stride = reinterpret_cast<char*>(block1[1]) - reinterpret_cast<char*>(block1[0]);
  BufferChain second = pool.allocate(8 * 4);  // 2 short: a block of 64, whose buffers go first
  const std::vector<Buffer*> block2 = buffersOf(second);
  ASSERT_EQ(pool.totalBuffers(), 96u);
  for (std::size_t i = 1; i < block2.size(); ++i) {
    EXPECT_EQ(reinterpret_cast<char*>(block2[i]) - reinterpret_cast<char*>(block2[i - 1]), stride);
  }
  std::set<Buffer*> seen(block1.begin(), block1.end());
  for (Buffer* b : block2) EXPECT_TRUE(seen.insert(b).second) << "handed out twice";

  BufferChain one = pool.allocate(8);
  Buffer* const fresh = one.first();
  one.releaseBuffers();
  BufferChain again = pool.allocate(8 * 61);
  const std::vector<Buffer*> later = buffersOf(again);
  EXPECT_EQ(later[0], fresh);  // the released one first
  // Then the new block's next ones in order (block2[4] was that one), then
  // the 2 buffers of the first block that were free at the growth.
  EXPECT_EQ(reinterpret_cast<char*>(later[1]) - reinterpret_cast<char*>(block2[3]), 2 * stride);
  EXPECT_EQ(reinterpret_cast<char*>(later[60]) - reinterpret_cast<char*>(block1[29]), stride);
  for (std::size_t i = 1; i < later.size(); ++i) EXPECT_TRUE(seen.insert(later[i]).second) << i;

  EXPECT_EQ(pool.freeBuffers(), 1u);
  for (BufferChain* chain : {&first, &second, &again}) chain->releaseBuffers();
  EXPECT_EQ(pool.freeBuffers(), pool.totalBuffers());
  // Everything comes back out once each, whatever the mix of laid-out and
  // fresh buffers.
  BufferChain all = pool.allocate(8 * pool.totalBuffers());
  const std::vector<Buffer*> every = buffersOf(all);
  EXPECT_EQ(std::set<Buffer*>(every.begin(), every.end()).size(), every.size());
  EXPECT_EQ(pool.freeBuffers(), 0u);
  all.releaseBuffers();
}

}  // namespace
}  // namespace quorvel
