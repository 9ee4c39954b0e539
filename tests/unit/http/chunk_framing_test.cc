#include "http/chunk_framing.h"

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "net/buffer_pool.h"
#include "tests/support/switchable_allocator.h"
#include "tests/unit/http/chain_text.h"

namespace quorvel {
namespace testing {
namespace {

class ChunkFraming : public ::testing::Test {
 protected:
  // Consumes the chain.
  std::string framed(BufferChain chain) {
    const std::string text = textOf(chain);
    chain.releaseBuffers();
    return text;
  }
  bool contains(const BufferChain& chain, const Buffer* buffer) {
    for (Buffer* b = chain.first(); b; b = b->next) {
      if (b == buffer) return true;
    }
    return false;
  }

  std::shared_ptr<BufferPool> pool = std::make_shared<BufferPool>(8, 0, 0);
  SwitchableAllocator allocator{pool};
  ChunkFramer framer;
};

TEST_F(ChunkFraming, ChunksCloseInFrontOfTheNextSizeLineAndTheEnd) {
  EXPECT_EQ(framed(framer.frame(allocator, chainOf(*pool, "hello world, longer"))), "13\r\nhello world, longer");
  EXPECT_EQ(framed(framer.frame(allocator, chainOf(*pool, "abc"))), "\r\n3\r\nabc");
  // Shared data goes after a size line of its own.
  EXPECT_EQ(framed(framer.sizeLine(allocator, 0x1F)), "\r\n1F\r\n");
  EXPECT_EQ(framed(framer.end(allocator)), "\r\n0\r\n\r\n");
  EXPECT_EQ(pool->freeBuffers(), pool->totalBuffers());
}

TEST_F(ChunkFraming, ABodyWithoutChunksIsTheEndMarkerAlone) {
  EXPECT_TRUE(framer.frame(allocator, BufferChain()).empty());
  EXPECT_EQ(framed(framer.end(allocator)), "0\r\n\r\n");
  // The text forms follow the same state.
  ChunkFramer text;
  char line[ChunkFramer::MaxOpenLength];
  EXPECT_EQ(std::string(line, text.open(0xABCDEF, line)), "ABCDEF\r\n");
  EXPECT_EQ(std::string(line, text.open(static_cast<std::size_t>(-1), line)),
            "\r\n" + std::string(2 * sizeof(std::size_t), 'F') + "\r\n");
  EXPECT_EQ(std::string(text.endMarker()), "\r\n0\r\n\r\n");
  EXPECT_EQ(std::string(text.endMarker()), "0\r\n\r\n");
}

TEST_F(ChunkFraming, DataIsLinkedNotCopied) {
  BufferChain data = chainOf(*pool, "0123456789abcdefXYZ");
  Buffer* const first = data.first();
  Buffer* const last = data.last();
  const unsigned before = pool->totalBuffers() - pool->freeBuffers();
  BufferChain chain = framer.frame(allocator, data);
  EXPECT_TRUE(contains(chain, first));
  EXPECT_EQ(chain.last(), last);
  // One small buffer for the size line, nothing else.
  EXPECT_EQ(pool->totalBuffers() - pool->freeBuffers(), before + 1);
  EXPECT_EQ(framed(chain), "13\r\n0123456789abcdefXYZ");
}

TEST_F(ChunkFraming, AnExhaustedAllocatorReleasesTheDataAndKeepsTheState) {
  framer.frame(allocator, chainOf(*pool, "ab")).releaseBuffers();
  allocator.dry = true;
  EXPECT_TRUE(framer.frame(allocator, chainOf(*pool, "cd")).empty());
  EXPECT_TRUE(framer.end(allocator).empty());
  EXPECT_EQ(pool->freeBuffers(), pool->totalBuffers());
  allocator.dry = false;
  // The first chunk's closing line is still owed.
  EXPECT_EQ(framed(framer.end(allocator)), "\r\n0\r\n\r\n");
}

TEST_F(ChunkFraming, APieceIsTakenWhenUnsharedAndCopiedWhenShared) {
  BufferChainPtr alone(chainOf(*pool, "mine"));
  Buffer* const first = alone.chain().first();
  BufferChain taken = takeOrCopy(allocator, alone);
  EXPECT_EQ(taken.first(), first);
  EXPECT_TRUE(alone.chain().empty());
  taken.releaseBuffers();

  BufferChainPtr shared(chainOf(*pool, "ours"));
  BufferChainPtr other = shared;
  BufferChain copy = takeOrCopy(allocator, shared);
  EXPECT_NE(copy.first(), other.chain().first());
  EXPECT_EQ(framed(copy), "ours");
  EXPECT_EQ(textOf(other.chain()), "ours");
  BufferChainPtr none;
  EXPECT_TRUE(takeOrCopy(allocator, none).empty());
}

TEST_F(ChunkFraming, OnlyAChunkedTransferEncodingCounts) {
  MessageHeaders head = MessageHeaders::response(200, "OK");
  EXPECT_FALSE(isChunked(head));
  head.addField("transfer-encoding", "Chunked");
  EXPECT_TRUE(isChunked(head));
  MessageHeaders other = MessageHeaders::response(200, "OK");
  other.addField("Transfer-Encoding", "gzip");
  EXPECT_FALSE(isChunked(other));
}

}  // namespace
}  // namespace testing
}  // namespace quorvel
