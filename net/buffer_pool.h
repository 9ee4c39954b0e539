#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>

#include "core/delegate.h"
#include "core/yielding_lock.h"
#include "net/buffer_chain.h"

namespace quorvel {

// The process-wide source of payload buffers, shared by every thread.
// Buffers are carved out of large zero-filled blocks (32, then 64, 128 ... at a
// time) so that allocation is a free-list pop and release a push under one
// lock; blocks go back to the system only when the pool is destroyed, so the
// pool must outlive every chain it handed out.
class BufferPool : public BufferChainAllocator, public BufferDeleter {
 public:
  // Throws std::invalid_argument "Partition size cannot be zero" and
  // "initialPartitions > maxPartitions". maxPartitions 0 means no limit.
  BufferPool(std::size_t bufferSize, unsigned initialPartitions, unsigned maxPartitions);
  ~BufferPool() override;
  BufferPool(const BufferPool&) = delete;
  BufferPool& operator=(const BufferPool&) = delete;

  // Never throws for lack of memory: the empty chain instead.
  BufferChain allocate(std::size_t size) override;
  std::size_t bufferSize() const override { return bufferSize_; }
  // Takes back one buffer; null is ignored.
  void release(Buffer* buffer) override;
  // Takes back a run of this pool's buffers under one lock.
  Buffer* releaseRun(Buffer* first) override;

  // Called under the pool's lock with the number of buffers in use after each
  // allocation and release (for a level counter); keep it short.
  void setInUseObserver(const Delegate<void(unsigned)>& observer);

  // Snapshot figures, for tests and statistics.
  unsigned totalBuffers() const;
  unsigned freeBuffers() const;

 private:
  struct Block {
    Block* next;
    std::size_t count;
  };

  bool grow(unsigned count);
  Buffer* bufferAt(Block* block, std::size_t i) const;
  Buffer* takeFree();
  void layOutFresh();
  void publish();

  const std::size_t bufferSize_;
  const std::size_t stride_;  // header + payload, rounded up to the header's alignment
  unsigned total_ = 0;
  const unsigned maxBuffers_;
  unsigned growStep_;
  Block* blocks_ = nullptr;
  // The free buffers, in the order they are handed out: those released since
  // the last growth (freeList_), the newest block's buffers that were never
  // handed out (fresh, from freshIndex_ on), then the buffers that were free
  // when it grew (olderFree_). Fresh buffers are laid out only when first
  // handed out, so a block's pages become resident as they are used rather
  // than all at its growth.
  Buffer* freeList_ = nullptr;
  std::size_t freshIndex_ = 0;
  Buffer* olderFree_ = nullptr;
  unsigned freeCount_ = 0;
  mutable YieldingLock lock_;
  Delegate<void(unsigned)> inUseObserver_;
};

}  // namespace quorvel
