#include "net/buffer_chain.h"

#include <algorithm>
#include <stdexcept>

namespace quorvel {
namespace {

const char TrimTooBig[] = "Trim count too big";

}  // namespace

BufferChain::Iterator& BufferChain::Iterator::operator+=(std::size_t n) {
  while (buffer_) {
    const std::size_t left = segmentSize();
    if (n < left) {
      pointer_ += n;
      return *this;
    }
    n -= left;
    enter(buffer_->next);
    if (n == 0) break;
  }
  return *this;
}

void throwChainWriteOutOfRange() { throw std::out_of_range("BufferChain write out of range"); }

Buffer* BufferChain::last() const {
  Buffer* b = first_;
  if (b) {
    while (b->next) b = b->next;
  }
  return b;
}

std::size_t BufferChain::size() const {
  std::size_t total = 0;
  for (const Buffer* b = first_; b; b = b->next) total += b->length;
  return total;
}

std::size_t BufferChain::count() const {
  std::size_t n = 0;
  for (const Buffer* b = first_; b; b = b->next) ++n;
  return n;
}

void BufferChain::append(BufferChain& other) {
  if (&other == this || !other.first_) return;
  if (first_) {
    last()->next = other.first_;
  } else {
    first_ = other.first_;
  }
  other.first_ = nullptr;
}

void BufferChain::trimFront(std::size_t count, BufferChain& removed) {
  const std::size_t total = size();
  if (count > total) throw std::invalid_argument(TrimTooBig);
  if (count == 0) return;
  if (count == total) {
    BufferChain all(first_);
    first_ = nullptr;
    removed.append(all);
    return;
  }
  Buffer* head = first_;
  Buffer* cutAfter = nullptr;  // last buffer consumed whole
  Buffer* b = first_;
  while (count >= b->length) {
    count -= b->length;
    cutAfter = b;
    b = b->next;  // cannot run off: count < total
    if (count == 0) break;
  }
  b->offset += static_cast<uint32_t>(count);
  b->length -= static_cast<uint32_t>(count);
  if (cutAfter) {
    cutAfter->next = nullptr;
    first_ = b;
    BufferChain detached(head);
    removed.append(detached);
  }
}

void BufferChain::trimFront(const Iterator& position, BufferChain& removed) {
  if (!position.buffer()) {
    BufferChain all(first_);
    first_ = nullptr;
    removed.append(all);
    return;
  }
  Buffer* before = nullptr;
  Buffer* b = first_;
  while (b && b != position.buffer()) {
    before = b;
    b = b->next;
  }
  if (!b) throw std::invalid_argument(TrimTooBig);
  const auto consumed = static_cast<uint32_t>(position.data() - b->data());
  if (consumed > b->length) throw std::invalid_argument(TrimTooBig);
  b->offset += consumed;
  b->length -= consumed;
  if (before) {
    before->next = nullptr;
    BufferChain detached(first_);
    first_ = b;
    removed.append(detached);
  }
}

void BufferChain::trimFront(std::size_t count) {
  BufferChain removed;
  trimFront(count, removed);
  removed.releaseBuffers();
}

void BufferChain::truncate(std::size_t newSize, BufferChain& tail) {
  const char* const message = "Can't increase BufferChain size";
  if (!first_) throw std::invalid_argument(message);
  std::size_t seen = 0;
  for (Buffer* b = first_; b; b = b->next) {
    if (newSize <= seen + b->length) {
      b->length = static_cast<uint32_t>(newSize - seen);
      BufferChain rest(b->next);
      b->next = nullptr;
      tail.append(rest);
      return;
    }
    seen += b->length;
  }
  throw std::invalid_argument(message);
}

bool BufferChain::resize(std::size_t newSize, BufferChainAllocator& allocator) {
  const std::size_t current = size();
  if (newSize > current) {
    BufferChain more = allocator.allocate(newSize - current);
    if (more.empty()) return false;
    append(more);
  } else if (newSize < current) {
    BufferChain tail;
    truncate(newSize, tail);
    tail.releaseBuffers();
  }
  return true;
}

BufferChain BufferChain::splitAt(std::size_t position, BufferChainAllocator& allocator) {
  std::size_t seen = 0;
  for (Buffer* b = first_; b; b = b->next) {
    if (position < seen + b->length) {
      // Inside this buffer: copy its remaining bytes rather than sharing it.
      const std::size_t keep = position - seen;
      const std::size_t moved = b->length - keep;
      BufferChain tail = allocator.allocate(moved);
      if (tail.empty()) return tail;
      copyToChain(b->data() + keep, b->data() + b->length, tail.begin());
      BufferChain rest(b->next);
      b->next = nullptr;
      b->length = static_cast<uint32_t>(keep);
      tail.append(rest);
      return tail;
    }
    seen += b->length;
    if (position == seen) {
      BufferChain tail(b->next);
      b->next = nullptr;
      return tail;
    }
  }
  return BufferChain();
}

void BufferChain::releaseBuffers() {
  Buffer* b = first_;
  first_ = nullptr;
  // A run of one deleter's buffers goes back in one call.
  while (b) b = b->deleter->releaseRun(b);
}

BufferChain::Iterator copyToChain(const uint8_t* first, const uint8_t* last, BufferChain::Iterator out) {
  std::size_t left = static_cast<std::size_t>(last - first);
  while (left > 0) {
    if (!out.buffer()) throwChainWriteOutOfRange();
    const std::size_t n = std::min(left, out.segmentSize());
    std::memmove(out.data(), first, n);
    first += n;
    left -= n;
    out += n;
  }
  return out;
}

BufferChain::Iterator copyChainRange(BufferChain::Iterator first, BufferChain::Iterator last,
                                     BufferChain::Iterator out) {
  while (first != last) {
    if (!out.buffer()) throwChainWriteOutOfRange();
    std::size_t n = first.segmentSize();
    if (first.buffer() == last.buffer()) n = static_cast<std::size_t>(last.data() - first.data());
    n = std::min(n, out.segmentSize());
    std::memmove(out.data(), first.data(), n);
    first += n;
    out += n;
  }
  return out;
}

uint8_t* copyFromChain(BufferChain::Iterator first, BufferChain::Iterator last, uint8_t* out) {
  while (first != last) {
    std::size_t n = first.segmentSize();
    if (first.buffer() == last.buffer()) n = static_cast<std::size_t>(last.data() - first.data());
    std::memcpy(out, first.data(), n);
    out += n;
    first += n;
  }
  return out;
}

}  // namespace quorvel
