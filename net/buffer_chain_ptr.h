#pragma once

#include <memory>
#include <utility>

#include "core/handler_memory.h"
#include "net/buffer_chain.h"

namespace quorvel {

// Sole owner of one chain: marks it held while it has it and gives its
// buffers back when destroyed.
class ScopedBufferChain {
 public:
  ScopedBufferChain() = default;
  explicit ScopedBufferChain(BufferChain chain) : chain_(chain) {
    if (Buffer* first = chain_.first()) first->held = 1;
  }
  ~ScopedBufferChain() {
    unmark();
    chain_.releaseBuffers();
  }
  ScopedBufferChain(const ScopedBufferChain&) = delete;
  ScopedBufferChain& operator=(const ScopedBufferChain&) = delete;

  // The chain may be worked on in place (trimmed, appended to ...).
  BufferChain& chain() { return chain_; }
  const BufferChain& chain() const { return chain_; }

  // Hands the chain back to the caller; this holder then owns nothing.
  BufferChain release() {
    unmark();
    return std::exchange(chain_, BufferChain());
  }

 private:
  void unmark() {
    if (Buffer* first = chain_.first()) first->held = 0;
  }

  BufferChain chain_;
};

// The shared handle by which a chain travels between asynchronous
// operations; the last copy to go releases the buffers. Copies may be made on
// different threads (the count is atomic); the chain itself is still used by
// one thread at a time. Holders are made for nearly every transfer, so their
// memory comes from the same free lists as the operations that carry them.
class BufferChainPtr {
 public:
  BufferChainPtr() = default;
  BufferChainPtr(std::nullptr_t) {}
  // A new holder that takes ownership of `chain` (even an empty one).
  explicit BufferChainPtr(BufferChain chain) : holder_(makeHolder(chain)) {}

  // Replaces the holder; the old chain goes when its last handle does.
  BufferChainPtr& operator=(BufferChain chain) {
    holder_ = makeHolder(chain);
    return *this;
  }

  // Takes the chain out of the shared holder (every copy then sees an empty
  // chain); a null handle gives the empty chain.
  BufferChain release() { return holder_ ? holder_->release() : BufferChain(); }

  // Drops this handle's reference.
  void reset() { holder_.reset(); }

  explicit operator bool() const { return static_cast<bool>(holder_); }
  ScopedBufferChain* get() const { return holder_.get(); }
  ScopedBufferChain& operator*() const { return *holder_; }
  ScopedBufferChain* operator->() const { return holder_.get(); }
  // The held chain; the handle must not be null.
  BufferChain& chain() const { return holder_->chain(); }
  long useCount() const { return holder_.use_count(); }

  bool operator==(const BufferChainPtr& other) const { return holder_ == other.holder_; }
  bool operator!=(const BufferChainPtr& other) const { return holder_ != other.holder_; }

 private:
  static std::shared_ptr<ScopedBufferChain> makeHolder(BufferChain chain) {
    return std::allocate_shared<ScopedBufferChain>(HandlerAllocator<ScopedBufferChain>(), chain);
  }

  std::shared_ptr<ScopedBufferChain> holder_;
};

}  // namespace quorvel
