#include <atomic>
#include <cstdint>
#include <deque>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "net/buffer_chain_ptr.h"
#include "net/buffer_pool.h"
#include "tests/support/log_capture.h"

namespace quorvel {
namespace {

using ::testing::StrEq;
using ::testing::ThrowsMessage;

// Buffers of 4 bytes so that every boundary is a few bytes away.
class ChainTest : public ::testing::Test {
 protected:
  ~ChainTest() override {
    for (BufferChain& chain : held_) chain.releaseBuffers();
    EXPECT_EQ(pool_.freeBuffers(), pool_.totalBuffers()) << "buffers leaked";
  }

  // A chain the fixture releases at the end.
  BufferChain& held(const BufferChain& chain = BufferChain()) {
    held_.push_back(chain);
    return held_.back();
  }

  // A chain holding `text`, split over buffers of 4 bytes; make() holds it.
  BufferChain filled(const std::string& text) {
    BufferChain chain = pool_.allocate(text.size());
    copyToChain(text.data(), text.data() + text.size(), chain.begin());
    return chain;
  }
  BufferChain& make(const std::string& text) { return held(filled(text)); }

  static std::string text(const BufferChain& chain) { return std::string(chain.begin(), chain.end()); }

  static std::vector<uint32_t> lengths(const BufferChain& chain) {
    std::vector<uint32_t> result;
    for (Buffer* b = chain.first(); b; b = b->next) result.push_back(b->length);
    return result;
  }

  BufferPool pool_{4, 0, 0};
  std::deque<BufferChain> held_;
};

TEST_F(ChainTest, AllocateSplitsIntoFullBuffersAndARemainder) {
  EXPECT_TRUE(pool_.allocate(0).empty());
  // 2^32 + 1 buffers: a count that unsigned cannot hold, where size_t can.
  const uint64_t tooLarge = ((uint64_t{1} << 32) + 1) * 4;
  if (tooLarge <= SIZE_MAX) {
    EXPECT_TRUE(pool_.allocate(static_cast<std::size_t>(tooLarge)).empty());
  }
  BufferChain one = pool_.allocate(4);
  EXPECT_EQ(lengths(one), (std::vector<uint32_t>{4}));
  BufferChain two = pool_.allocate(5);
  EXPECT_EQ(lengths(two), (std::vector<uint32_t>{4, 1}));
  EXPECT_EQ(two.size(), 5u);
  EXPECT_EQ(two.count(), 2u);
  EXPECT_EQ(pool_.totalBuffers(), 32u);
  EXPECT_EQ(pool_.freeBuffers(), 29u);
  one.releaseBuffers();
  two.releaseBuffers();
  EXPECT_TRUE(one.empty());
}

TEST_F(ChainTest, AppendLinksWithoutCopying) {
  BufferChain& a = make("abcdef");
  BufferChain& b = make("gh");
  Buffer* bFirst = b.first();
  a.append(b);
  EXPECT_TRUE(b.empty());
  EXPECT_EQ(text(a), "abcdefgh");
  EXPECT_EQ(a.first()->next->next, bFirst);
  BufferChain& empty = held();
  empty.append(a);
  EXPECT_EQ(text(empty), "abcdefgh");
  // A chain appended to itself stays as it was rather than become a ring.
  empty.append(empty);
  ASSERT_EQ(empty.first()->next->next->next, nullptr);
  EXPECT_EQ(text(empty), "abcdefgh");
}

TEST_F(ChainTest, TrimFrontByCountOrIterator) {
  BufferChain& chain = make("abcdefghij");  // 4 + 4 + 2
  BufferChain& removed = held();
  chain.trimFront(1, removed);
  EXPECT_TRUE(removed.empty());
  EXPECT_EQ(chain.first()->offset, 1u);
  EXPECT_EQ(text(chain), "bcdefghij");

  chain.trimFront(5, removed);  // the rest of the first buffer and 2 bytes of the second
  EXPECT_EQ(text(removed), "bcd");
  EXPECT_EQ(text(chain), "ghij");
  EXPECT_EQ(lengths(chain), (std::vector<uint32_t>{2, 2}));

  EXPECT_THROW(chain.trimFront(5, removed), std::invalid_argument);
  EXPECT_EQ(text(chain), "ghij");
  EXPECT_THAT([&] { chain.trimFront(5); }, ThrowsMessage<std::invalid_argument>(StrEq("Trim count too big")));
  chain.trimFront(4, removed);
  EXPECT_TRUE(chain.empty());
  EXPECT_EQ(removed.count(), 3u);

  BufferChain& other = make("abcdefghij");
  BufferChain& cut = held();
  other.trimFront(other.begin() + 4, cut);  // lands on the second buffer's start
  EXPECT_EQ(text(cut), "abcd");
  EXPECT_EQ(text(other), "efghij");
  other.trimFront(other.begin() + 1, cut);
  EXPECT_EQ(text(other), "fghij");
  EXPECT_THROW(other.trimFront(make("xy").begin(), cut), std::invalid_argument);
  EXPECT_EQ(text(other), "fghij");
  other.trimFront(other.end(), cut);
  EXPECT_TRUE(other.empty());
  EXPECT_EQ(text(cut), "abcdfghij");
}

TEST_F(ChainTest, TruncateKeepsOffsetsAndDetachesTail) {
  BufferChain& chain = make("abcdefghij");
  chain.trimFront(1);
  BufferChain& tail = held();
  chain.truncate(3, tail);  // exactly the end of the first buffer: kept whole
  EXPECT_EQ(text(chain), "bcd");
  EXPECT_EQ(text(tail), "efghij");
  EXPECT_THROW(chain.truncate(4, tail), std::invalid_argument);
  chain.truncate(0, tail);
  EXPECT_EQ(chain.count(), 1u);
  EXPECT_EQ(chain.size(), 0u);
  EXPECT_EQ(chain.begin(), chain.end());
  chain.releaseBuffers();
  EXPECT_THAT([&] { chain.truncate(0, tail); },
              ThrowsMessage<std::invalid_argument>(StrEq("Can't increase BufferChain size")));
}

TEST_F(ChainTest, Resize) {
  BufferChain& chain = make("abcde");
  ASSERT_TRUE(chain.resize(7, pool_));
  EXPECT_EQ(lengths(chain), (std::vector<uint32_t>{4, 1, 2}));
  ASSERT_TRUE(chain.resize(3, pool_));
  EXPECT_EQ(text(chain), "abc");
  EXPECT_EQ(pool_.freeBuffers(), pool_.totalBuffers() - 1);
}

// At a boundary the buffers move; inside a buffer only its rest is copied.
TEST_F(ChainTest, SplitMovesWholeBuffersAndCopiesOnlyAPartOne) {
  BufferChain& chain = make("abcdefghij");
  Buffer* second = chain.first()->next;
  BufferChain& tail = held(chain.splitAt(4, pool_));
  EXPECT_EQ(tail.first(), second);
  EXPECT_EQ(text(chain), "abcd");
  EXPECT_EQ(text(tail), "efghij");
  EXPECT_TRUE(chain.splitAt(5, pool_).empty());
  EXPECT_EQ(text(chain), "abcd");
  EXPECT_TRUE(chain.splitAt(4, pool_).empty());  // at the end: nothing follows

  BufferChain& other = make("abcdefghij");
  Buffer* third = other.first()->next->next;
  BufferChain& rest = held(other.splitAt(5, pool_));
  EXPECT_EQ(text(other), "abcde");
  EXPECT_EQ(text(rest), "fghij");
  EXPECT_EQ(lengths(rest), (std::vector<uint32_t>{3, 2}));
  EXPECT_EQ(rest.first()->next, third);
  EXPECT_EQ(text(held(other.splitAt(0, pool_))), "abcde");
  EXPECT_EQ(lengths(other), (std::vector<uint32_t>{0}));
}

TEST_F(ChainTest, IteratorNeverRestsAtABufferEnd) {
  BufferChain& chain = make("abcdefghij");
  BufferChain::Iterator it = chain.begin() + 4;
  EXPECT_EQ(it.buffer(), chain.first()->next);
  EXPECT_EQ(*it, 'e');
  EXPECT_EQ(it.segmentSize(), 4u);
  EXPECT_EQ(chain.begin() + 10, chain.end());
  EXPECT_EQ(chain.begin() + 99, chain.end());
  it = chain.begin();
  for (int i = 0; i < 4; ++i) ++it;
  EXPECT_EQ(it, chain.begin() + 4);
  EXPECT_EQ(it.nextSegment().data(), chain.first()->next->next->data());
  EXPECT_EQ(std::distance(chain.begin(), chain.end()), 10);
}

TEST_F(ChainTest, WritesFillBuffersAndStopAtTheEnd) {
  BufferChain& chain = held(pool_.allocate(10));
  const std::string data = "0123456789X";
  EXPECT_EQ(copyToChain(data.data(), data.data() + 0, chain.begin()), chain.begin());
  BufferChain::Iterator it = copyToChain(data.data(), data.data() + 4, chain.begin());
  EXPECT_EQ(it.buffer(), chain.first()->next);
  EXPECT_EQ(copyToChain(data.data() + 4, data.data() + 10, it), chain.end());
  EXPECT_EQ(text(chain), "0123456789");

  BufferChain& fresh = held(pool_.allocate(10));
  EXPECT_THAT([&] { copyToChain(data.data(), data.data() + 11, fresh.begin()); },
              ThrowsMessage<std::out_of_range>(StrEq("BufferChain write out of range")));
  EXPECT_EQ(text(fresh), "0123456789");  // what fitted stays written

  const std::vector<int> values = {'w', 'x', 'y', 'z', 'q'};
  EXPECT_THROW(copyToChain(values.begin(), values.end(), chain.begin() + 6), std::out_of_range);
  EXPECT_EQ(copyToChain(values.begin(), values.begin() + 4, chain.begin() + 6), chain.end());
  EXPECT_EQ(text(chain), "012345wxyz");
}

TEST_F(ChainTest, CopiesBetweenChainsWithDifferentSegmentation) {
  BufferChain& source = make("abcdefghij");
  source.trimFront(3);  // segments of 1, 4, 2
  BufferPool wide(3, 0, 0);
  BufferChain target = wide.allocate(8);  // segments of 3, 3, 2
  BufferChain::Iterator end = copyChainRange(source.begin(), source.begin() + 6, target.begin() + 1);
  EXPECT_EQ(end, target.begin() + 7);
  std::string out(8, '.');
  copyFromChain(target.begin() + 1, end, reinterpret_cast<uint8_t*>(&out[0]));
  EXPECT_EQ(out.substr(0, 6), "defghi");
  EXPECT_THROW(copyChainRange(source.begin(), source.end(), target.begin() + 2), std::out_of_range);

  source.append(target);  // a mixed chain goes back to both pools
  source.releaseBuffers();
  EXPECT_EQ(wide.freeBuffers(), wide.totalBuffers());
}

TEST_F(ChainTest, ScopedChainsMarkHeldAndRelease) {
  BufferChain chain = filled("abcdef");
  Buffer* first = chain.first();
  {
    BufferChainPtr ptr(chain);
    EXPECT_EQ(first->held, 1u);
    BufferChainPtr copy = ptr;
    EXPECT_EQ(text(copy.chain()), "abcdef");
    ptr.reset();
    EXPECT_EQ(pool_.freeBuffers(), pool_.totalBuffers() - 2);
  }
  EXPECT_EQ(pool_.freeBuffers(), pool_.totalBuffers());

  BufferChainPtr kept(filled("xyz"));
  BufferChain back = kept.release();
  EXPECT_EQ(back.first()->held, 0u);
  EXPECT_TRUE(kept.chain().empty());
  kept = filled("more");
  kept.reset();
  EXPECT_EQ(text(back), "xyz");
  back.releaseBuffers();
  EXPECT_TRUE(BufferChainPtr().release().empty());
}

TEST(BufferPoolTest, ConstructionRules) {
  EXPECT_THAT([&] { BufferPool pool(0, 0, 0); },
              ThrowsMessage<std::invalid_argument>(StrEq("Partition size cannot be zero")));
  EXPECT_THAT([&] { BufferPool pool(8, 10, 5); },
              ThrowsMessage<std::invalid_argument>(StrEq("initialPartitions > maxPartitions")));
  // A pool made at its full size up front: all there, and no more.
  BufferPool full(8, 10, 10);
  EXPECT_EQ(full.totalBuffers(), 10u);
  EXPECT_TRUE(full.allocate(8 * 11).empty());
}

TEST(BufferPoolTest, GrowsInDoublingStepsAndLogs) {
  auto capture = testing::LogCapture::install();
  log::setLevel("bufferpool", log::Debug);
  BufferPool pool(8, 0, 0);
  EXPECT_EQ(pool.totalBuffers(), 0u);
  EXPECT_TRUE(pool.allocate(0).empty());
  EXPECT_EQ(capture->lines().size(), 1u);
  EXPECT_TRUE(capture->contains("allocate(0)"));

  BufferChain a = pool.allocate(8);
  ASSERT_EQ(capture->lines().size(), 4u);
  EXPECT_EQ(capture->lines()[2].message, "Allocating 32 more buffers");
  EXPECT_EQ(capture->lines()[2].level, log::Info);
  EXPECT_EQ(pool.totalBuffers(), 32u);
  BufferChain b = pool.allocate(8 * 40);  // 31 free, 9 short: grows by the step of 64
  EXPECT_TRUE(capture->contains("Allocating 64 more buffers"));
  EXPECT_EQ(pool.totalBuffers(), 96u);
  EXPECT_EQ(pool.freeBuffers(), 55u);
  BufferChain c = pool.allocate(8 * 200);  // 145 short, more than the step of 128
  EXPECT_EQ(pool.totalBuffers(), 241u);
  EXPECT_EQ(pool.freeBuffers(), 0u);
  log::setLevel("bufferpool", log::Notice);
  for (BufferChain* chain : {&a, &b, &c}) chain->releaseBuffers();
  EXPECT_EQ(pool.freeBuffers(), 241u);
}

TEST(BufferPoolTest, InitialPartitionsSetTheFirstStep) {
  BufferPool pool(8, 40, 0);
  EXPECT_EQ(pool.totalBuffers(), 40u);
  BufferChain all = pool.allocate(8 * 41);
  EXPECT_EQ(pool.totalBuffers(), 120u);  // the step doubled from 40
  all.releaseBuffers();
}

TEST(BufferPoolTest, MaximumRefusesWholeRequestsAndCutsGrowthBack) {
  BufferPool pool(8, 0, 100);
  std::vector<unsigned> levels;
  pool.setInUseObserver([&levels](unsigned n) { levels.push_back(n); });
  BufferChain first = pool.allocate(8 * 90);  // grows by 90 (more than the step of 32)
  EXPECT_EQ(pool.totalBuffers(), 90u);
  EXPECT_TRUE(pool.allocate(8 * 20).empty());
  EXPECT_EQ(pool.totalBuffers(), 90u);
  BufferChain second = pool.allocate(8 * 5);  // step 64, cut back to the 10 left
  EXPECT_EQ(second.count(), 5u);
  EXPECT_EQ(pool.totalBuffers(), 100u);
  EXPECT_EQ(pool.freeBuffers(), 5u);
  EXPECT_TRUE(pool.allocate(8 * 6).empty());
  pool.release(nullptr);
  second.releaseBuffers();
  EXPECT_EQ(levels.front(), 90u);
  EXPECT_EQ(levels.back(), 90u);
  EXPECT_EQ(levels.size(), 7u);  // two allocations and five releases
  first.releaseBuffers();
}

// A chain of buffers from two pools goes back to each, run by run.
TEST(BufferPoolTest, AMixedChainGoesBackToEachPool) {
  BufferPool a(8, 0, 0), b(8, 0, 0);
  BufferChain chain = a.allocate(16);
  BufferChain middle = b.allocate(24);
  BufferChain tail = a.allocate(8);
  chain.append(middle);
  chain.append(tail);
  EXPECT_EQ(a.freeBuffers(), a.totalBuffers() - 3);
  EXPECT_EQ(b.freeBuffers(), b.totalBuffers() - 3);
  chain.releaseBuffers();
  EXPECT_EQ(a.freeBuffers(), a.totalBuffers());
  EXPECT_EQ(b.freeBuffers(), b.totalBuffers());
  EXPECT_TRUE(chain.empty());
}

TEST(BufferPoolTest, ThreadsShareOnePool) {
  BufferPool pool(16, 0, 0);
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  BufferChainPtr shared(pool.allocate(40));
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&pool, &failures, shared, t] {
      std::vector<BufferChainPtr> handles;
      for (int i = 0; i < 2000; ++i) {
        BufferChain chain = pool.allocate(1 + (i * 7 + t) % 50);
        if (chain.empty()) {
          ++failures;
          continue;
        }
        *chain.first()->data() = static_cast<uint8_t>(t);
        if (*chain.first()->data() != t) ++failures;
        BufferChainPtr handle(chain);
        BufferChainPtr copy = shared;  // handles copied across threads
        if (i % 3 == 0) handles.push_back(handle);
        if (handles.size() > 8) handles.erase(handles.begin());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 0);
  shared.reset();
  EXPECT_EQ(pool.freeBuffers(), pool.totalBuffers());
}

}  // namespace
}  // namespace quorvel
