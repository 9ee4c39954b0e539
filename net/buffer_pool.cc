#include "net/buffer_pool.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>

#include "core/log.h"

namespace quorvel {
namespace {

const log::Log Log("bufferpool");

constexpr unsigned MinGrowStep = 32;

std::size_t strideFor(std::size_t bufferSize) {
  const std::size_t raw = sizeof(Buffer) + bufferSize;
  const std::size_t align = alignof(Buffer);
  return (raw + align - 1) / align * align;
}

}  // namespace

BufferPool::BufferPool(std::size_t bufferSize, unsigned initialPartitions, unsigned maxPartitions)
    : bufferSize_(bufferSize),
      stride_(strideFor(bufferSize)),
      maxBuffers_(maxPartitions),
      growStep_(std::max(initialPartitions, MinGrowStep)) {
  if (bufferSize == 0) throw std::invalid_argument("Partition size cannot be zero");
  if (maxPartitions != 0 && maxPartitions < initialPartitions) {
    throw std::invalid_argument("initialPartitions > maxPartitions");
  }
  if (initialPartitions > 0) {
    std::lock_guard<YieldingLock> guard(lock_);
    grow(initialPartitions);
  }
}

BufferPool::~BufferPool() {
  while (blocks_) {
    Block* next = blocks_->next;
    std::free(blocks_);
    blocks_ = next;
  }
}

Buffer* BufferPool::bufferAt(Block* block, std::size_t i) const {
  return reinterpret_cast<Buffer*>(reinterpret_cast<uint8_t*>(block + 1) + stride_ * i);
}

// Never asked for nothing: the constructor and allocate() call it only for
// a shortfall.
bool BufferPool::grow(unsigned count) {
  // The request must fit whole, though the enlargement may be cut back.
  if (maxBuffers_ != 0 && static_cast<uint64_t>(total_) + count > maxBuffers_) return false;
  unsigned n = std::max(count, growStep_);
  if (maxBuffers_ != 0) n = std::min(n, maxBuffers_ - total_);
  QLOG(Log, log::Info, "Allocating %u more buffers", n);
  if (n > (SIZE_MAX - sizeof(Block)) / stride_) return false;
  auto* block = static_cast<Block*>(std::calloc(1, sizeof(Block) + stride_ * n));
  if (!block) return false;
  // What is free now goes behind the new buffers, in its order.
  layOutFresh();
  block->next = blocks_;
  block->count = n;
  blocks_ = block;
  freshIndex_ = 0;
  growStep_ *= 2;
  total_ += n;
  freeCount_ += n;
  return true;
}

BufferChain BufferPool::allocate(std::size_t size) {
  // One look at the level for the lines of a whole allocation.
  const bool debug = Log.isEnabled(log::Debug);
  if (debug) QLOG(Log, log::Debug, "allocate(%u)", size);
  std::lock_guard<YieldingLock> guard(lock_);
  const std::size_t wanted = (size + bufferSize_ - 1) / bufferSize_;
  if (wanted == 0) return BufferChain();
  if (wanted > 0xffffffffu) return BufferChain();
  const auto count = static_cast<unsigned>(wanted);
  if (freeCount_ < count && !grow(count - freeCount_)) return BufferChain();
  const bool spam = debug && Log.isEnabled(log::Spam);
  Buffer* first = takeFree();
  Buffer* b = first;
  for (unsigned i = 0;; ++i) {
    b->deleter = this;
    b->offset = 0;
    b->length = static_cast<uint32_t>(bufferSize_);
    if (spam) QLOG(Log, log::Spam, "  Allocating block 0x%x", reinterpret_cast<uintptr_t>(b));
    if (i + 1 == count) break;
    b->next = takeFree();
    b = b->next;
  }
  b->length = static_cast<uint32_t>(size - (count - 1) * bufferSize_);
  b->next = nullptr;
  freeCount_ -= count;
  if (debug) {
    QLOG(Log, log::Debug, "allocate: New chain starts at 0x%x, count %u, total %u", reinterpret_cast<uintptr_t>(first),
         count, total_ - freeCount_);
  }
  publish();
  return BufferChain(first);
}

// With the mutex held; a free buffer must exist.
Buffer* BufferPool::takeFree() {
  Buffer* b = freeList_;
  if (b) {
    freeList_ = b->next;
    return b;
  }
  if (blocks_ && freshIndex_ < blocks_->count) return bufferAt(blocks_, freshIndex_++);
  b = olderFree_;
  olderFree_ = b->next;
  return b;
}

// Before a growth: links every free buffer, in the order they would be
// handed out, into olderFree_, behind which the new block's buffers go.
void BufferPool::layOutFresh() {
  Buffer* rest = olderFree_;
  olderFree_ = nullptr;
  if (blocks_) {
    for (std::size_t i = blocks_->count; i > freshIndex_; --i) {
      Buffer* b = bufferAt(blocks_, i - 1);
      b->next = rest;
      rest = b;
    }
    freshIndex_ = blocks_->count;
  }
  if (freeList_) {
    Buffer* last = freeList_;
    while (last->next) last = last->next;
    last->next = rest;
    rest = freeList_;
    freeList_ = nullptr;
  }
  olderFree_ = rest;
}

void BufferPool::release(Buffer* buffer) {
  if (!buffer) return;
  std::lock_guard<YieldingLock> guard(lock_);
  QLOG(Log, log::Spam, "  Releasing block 0x%x", reinterpret_cast<uintptr_t>(buffer));
  buffer->deleter = nullptr;
  buffer->next = freeList_;
  freeList_ = buffer;
  ++freeCount_;
  publish();
}

Buffer* BufferPool::releaseRun(Buffer* first) {
  const bool spam = Log.isEnabled(log::Spam);
  std::lock_guard<YieldingLock> guard(lock_);
  Buffer* buffer = first;
  while (buffer && buffer->deleter == this) {
    Buffer* const next = buffer->next;
    if (spam) QLOG(Log, log::Spam, "  Releasing block 0x%x", reinterpret_cast<uintptr_t>(buffer));
    buffer->deleter = nullptr;
    buffer->next = freeList_;
    freeList_ = buffer;
    ++freeCount_;
    publish();
    buffer = next;
  }
  return buffer;
}

void BufferPool::setInUseObserver(const Delegate<void(unsigned)>& observer) {
  std::lock_guard<YieldingLock> guard(lock_);
  inUseObserver_ = observer;
}

void BufferPool::publish() {
  if (inUseObserver_) inUseObserver_(total_ - freeCount_);
}

unsigned BufferPool::totalBuffers() const {
  std::lock_guard<YieldingLock> guard(lock_);
  return total_;
}

unsigned BufferPool::freeBuffers() const {
  std::lock_guard<YieldingLock> guard(lock_);
  return freeCount_;
}

}  // namespace quorvel
