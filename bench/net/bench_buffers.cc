// Pool allocation and chain surgery against plain malloc/free of the same
// sizes, in the same run, so the ratios hold on whatever machine runs it.
#include <cstdlib>
#include <cstring>

#include <benchmark/benchmark.h>

#include "net/buffer_pool.h"

namespace quorvel {
namespace {

constexpr std::size_t BufferSize = 512;  // as the daemon's pool

BufferPool& warmPool() {
  static BufferPool pool(BufferSize, 64, 0);
  return pool;
}

void PoolAllocateRelease(benchmark::State& state) {
  BufferPool& pool = warmPool();
  const std::size_t size = BufferSize * static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    BufferChain chain = pool.allocate(size);
    benchmark::DoNotOptimize(chain.first());
    chain.releaseBuffers();
  }
}
BENCHMARK(PoolAllocateRelease)->Arg(1)->Arg(8);

// The same number of separate blocks of the same size from the system.
void MallocFree(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  void* blocks[8];
  for (auto _ : state) {
    for (int i = 0; i < count; ++i) {
      blocks[i] = std::malloc(BufferSize);
      benchmark::DoNotOptimize(blocks[i]);
    }
    for (int i = 0; i < count; ++i) std::free(blocks[i]);
  }
}
BENCHMARK(MallocFree)->Arg(1)->Arg(8);

// Trim a header's worth off the front, split at a buffer boundary (no copy)
// and inside a buffer (one new buffer, its bytes copied), then give the new
// buffer back and append the pieces again, so every round starts alike.
void ChainTrimSplitAppend(benchmark::State& state) {
  BufferPool& pool = warmPool();
  BufferChain chain = pool.allocate(BufferSize * 8);
  for (auto _ : state) {
    chain.trimFront(20);
    BufferChain tail = chain.splitAt(BufferSize * 4 - 20, pool);
    BufferChain piece = tail.splitAt(100, pool);
    piece.trimFront(BufferSize - 100);  // releases the copied buffer
    benchmark::DoNotOptimize(piece.first());
    tail.first()->length = BufferSize;  // undo the cut
    tail.append(piece);
    chain.append(tail);
    chain.first()->offset = 0;  // undo the trim
    chain.first()->length = BufferSize;
  }
  if (chain.count() != 8 || chain.size() != BufferSize * 8) state.SkipWithError("chain changed shape");
  chain.releaseBuffers();
}
BENCHMARK(ChainTrimSplitAppend);

// The same reshaping done the plain way: a contiguous message of the same
// size, trimmed and split by copying into fresh blocks.
void MallocCopyTrimSplitAppend(benchmark::State& state) {
  const std::size_t total = BufferSize * 8;
  char* message = static_cast<char*>(std::malloc(total));
  std::memset(message, 'x', total);
  for (auto _ : state) {
    const std::size_t headSize = BufferSize * 4 - 20;
    char* head = static_cast<char*>(std::malloc(headSize));
    std::memcpy(head, message + 20, headSize);
    char* rest = static_cast<char*>(std::malloc(total - 20 - headSize));
    std::memcpy(rest, message + 20 + headSize, total - 20 - headSize);
    char* joined = static_cast<char*>(std::malloc(total - 20));
    std::memcpy(joined, head, headSize);
    std::memcpy(joined + headSize, rest, total - 20 - headSize);
    benchmark::DoNotOptimize(joined);
    std::free(head);
    std::free(rest);
    std::free(joined);
  }
  std::free(message);
}
BENCHMARK(MallocCopyTrimSplitAppend);

}  // namespace
}  // namespace quorvel

BENCHMARK_MAIN();
