#include "core/handler_memory.h"

#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quorvel {
namespace {

// A block that comes back is the next one handed out for its size class,
// and only for it; blocks of any size hold what is written into them.
TEST(HandlerMemory, FreedBlocksServeTheNextOfTheirSize) {
  void* small = handler_memory::allocate(40);
  std::memset(small, 0xab, 40);
  handler_memory::deallocate(small);
  void* again = handler_memory::allocate(64);
  // A sanitizer build gives every block back, so that it can see a use
  // after the free.
  if (handler_memory::keepsBlocks()) {
    EXPECT_EQ(small, again);
  }
  small = again;
  void* other = handler_memory::allocate(65);
  EXPECT_NE(small, other);
  handler_memory::deallocate(other);
  handler_memory::deallocate(small);

  void* big = handler_memory::allocate(5000);
  std::memset(big, 0xcd, 5000);
  handler_memory::deallocate(big);
  handler_memory::deallocate(nullptr);
}

// Many blocks in flight at once, and blocks freed on another thread than
// the one that took them (a task posted by a worker runs on the loop).
TEST(HandlerMemory, BlocksMayBeFreedOnAnotherThread) {
  std::vector<void*> taken;
  std::thread worker([&taken] {
    for (std::size_t size : {24, 100, 200, 400, 900, 2000}) {
      for (int i = 0; i < 40; ++i) {
        void* block = handler_memory::allocate(size);
        std::memset(block, i, size);
        taken.push_back(block);
      }
    }
  });
  worker.join();
  for (void* block : taken) handler_memory::deallocate(block);
  // The loop thread's own lists now serve blocks the worker made.
  void* again = handler_memory::allocate(24);
  handler_memory::deallocate(again);
}

// The allocator the I/O library finds on a pooled handler.
TEST(HandlerMemory, PooledHandlerCallsThroughAndCarriesTheAllocator) {
  int called = 0;
  auto handler = pooled([&called](int add) { called += add; });
  handler(2);
  EXPECT_EQ(2, called);
  HandlerAllocator<uint64_t> allocator(handler.get_allocator());
  uint64_t* values = allocator.allocate(4);
  values[3] = 7;
  allocator.deallocate(values, 4);
  EXPECT_TRUE(allocator == handler.get_allocator());
}

}  // namespace
}  // namespace quorvel
