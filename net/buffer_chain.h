#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <type_traits>

namespace quorvel {

class BufferDeleter;

// One element of a chain: this header, then the payload area of the pool's
// buffer size. Valid bytes are [payload() + offset, payload() + offset + length).
struct Buffer {
  Buffer* next;            // following buffer of the chain (or of the free list)
  BufferDeleter* deleter;  // where the buffer goes back to; null while free
  uint32_t held;           // 1 while a ScopedBufferChain owns the chain this buffer starts
  uint32_t offset;
  uint32_t length;

  uint8_t* payload() { return reinterpret_cast<uint8_t*>(this + 1); }
  uint8_t* data() { return payload() + offset; }
};

// Takes back single buffers; each buffer remembers its own deleter, so a chain
// may mix buffers of several pools.
class BufferDeleter {
 public:
  virtual ~BufferDeleter() = default;
  virtual void release(Buffer* buffer) = 0;
  // Takes back `first` and the buffers after it that are this deleter's
  // too; returns the first one that is not (null at the chain's end).
  virtual Buffer* releaseRun(Buffer* first) {
    Buffer* next = first->next;
    release(first);
    return next;
  }
};

class BufferChain;

class BufferChainAllocator {
 public:
  virtual ~BufferChainAllocator() = default;
  // A chain whose total length is exactly `size`; empty when size is 0 or
  // when no memory is left.
  virtual BufferChain allocate(std::size_t size) = 0;
  virtual std::size_t bufferSize() const = 0;
};

// A singly linked list of buffers, held by its first buffer. Copying the value
// copies the pointer only: ownership is by convention, and whoever holds the
// chain must release it (releaseBuffers, or through a ScopedBufferChain /
// BufferChainPtr). Not synchronised: one owner at a time.
class BufferChain {
 public:
  // A byte position within a chain. An iterator never rests at the end of a
  // buffer: a move that lands there goes on to the start of the next buffer,
  // and past the last one it becomes the end iterator (all null).
  class Iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = uint8_t;
    using difference_type = std::ptrdiff_t;
    using pointer = uint8_t*;
    using reference = uint8_t&;

    Iterator() = default;
    // Positions at the first valid byte at or after `buffer`.
    explicit Iterator(Buffer* buffer) { enter(buffer); }

    reference operator*() const { return *pointer_; }
    Iterator& operator++() {
      if (++pointer_ == end_) enter(buffer_->next);
      return *this;
    }
    Iterator operator++(int) {
      Iterator old = *this;
      ++*this;
      return old;
    }
    // Advances by n bytes; moving beyond the chain's last byte gives the end
    // iterator.
    Iterator& operator+=(std::size_t n);
    Iterator operator+(std::size_t n) const {
      Iterator moved = *this;
      return moved += n;
    }
    bool operator==(const Iterator& other) const { return pointer_ == other.pointer_; }
    bool operator!=(const Iterator& other) const { return pointer_ != other.pointer_; }

    // The current buffer (null at the end), the current byte and the bytes
    // left in the current buffer.
    Buffer* buffer() const { return buffer_; }
    uint8_t* data() const { return pointer_; }
    std::size_t segmentSize() const { return static_cast<std::size_t>(end_ - pointer_); }
    // Moves to the start of the next non-empty buffer.
    Iterator& nextSegment() {
      enter(buffer_->next);
      return *this;
    }

   private:
    void enter(Buffer* buffer) {
      while (buffer && buffer->length == 0) buffer = buffer->next;
      buffer_ = buffer;
      if (buffer) {
        pointer_ = buffer->data();
        end_ = pointer_ + buffer->length;
      } else {
        pointer_ = end_ = nullptr;
      }
    }

    Buffer* buffer_ = nullptr;
    uint8_t* pointer_ = nullptr;
    uint8_t* end_ = nullptr;
  };
  using iterator = Iterator;

  BufferChain() = default;
  explicit BufferChain(Buffer* first) : first_(first) {}

  Buffer* first() const { return first_; }
  Buffer* last() const;
  bool empty() const { return first_ == nullptr; }
  // Sum of the buffers' lengths, and the number of buffers.
  std::size_t size() const;
  std::size_t count() const;

  Iterator begin() const { return Iterator(first_); }
  Iterator end() const { return Iterator(); }

  // Links `other` behind this chain's last buffer and leaves `other` empty.
  void append(BufferChain& other);
  void append(BufferChain&& other) { append(other); }

  // Removes `count` bytes from the front. Buffers consumed whole are appended
  // to `removed`; a buffer consumed in part stays first with its offset
  // raised. Throws std::invalid_argument "Trim count too big" (chain
  // unchanged) when count exceeds the size.
  void trimFront(std::size_t count, BufferChain& removed);
  // The same up to `position`, an iterator into this chain (end() moves the
  // whole chain). A position outside the chain throws "Trim count too big".
  void trimFront(const Iterator& position, BufferChain& removed);
  // The same, releasing the removed buffers at once.
  void trimFront(std::size_t count);

  // Keeps the first `newSize` bytes; buffers after the cut are appended to
  // `tail`. A cut at a buffer's end keeps that buffer whole; newSize 0 leaves
  // the first buffer with length 0. Throws std::invalid_argument "Can't
  // increase BufferChain size" (chain unchanged) when the chain is empty or
  // newSize exceeds the size.
  void truncate(std::size_t newSize, BufferChain& tail);

  // Grows by appending a chain of the difference from `allocator`, or
  // truncates and releases the tail. Returns false (chain unchanged) when the
  // allocator has no memory left.
  bool resize(std::size_t newSize, BufferChainAllocator& allocator);

  // Cuts the chain at byte `position` and returns the tail. At a buffer
  // boundary nothing is copied; inside a buffer that buffer's remaining bytes
  // are copied into a new buffer from `allocator` which heads the tail.
  // A position beyond the size, or an allocator out of memory, gives the
  // empty chain and leaves this chain unchanged.
  BufferChain splitAt(std::size_t position, BufferChainAllocator& allocator);

  // Gives every buffer back to its own deleter and leaves the chain empty.
  void releaseBuffers();

  bool operator==(const BufferChain& other) const { return first_ == other.first_; }
  bool operator!=(const BufferChain& other) const { return first_ != other.first_; }

 private:
  Buffer* first_ = nullptr;
};

// Copies [first, last) into the chain's existing valid bytes from `out` on and
// returns the position after the last byte written (which may be the start of
// the next buffer, or end()). Throws std::out_of_range "BufferChain write out
// of range" when the chain runs out; bytes written until then stay written.
BufferChain::Iterator copyToChain(const uint8_t* first, const uint8_t* last, BufferChain::Iterator out);

inline BufferChain::Iterator copyToChain(const char* first, const char* last, BufferChain::Iterator out) {
  return copyToChain(reinterpret_cast<const uint8_t*>(first), reinterpret_cast<const uint8_t*>(last), out);
}

[[noreturn]] void throwChainWriteOutOfRange();

// Any input range of bytes, one at a time.
template <typename InputIt>
BufferChain::Iterator copyToChain(InputIt first, InputIt last, BufferChain::Iterator out) {
  for (; first != last; ++first) {
    if (!out.buffer()) throwChainWriteOutOfRange();
    *out = static_cast<uint8_t>(*first);
    ++out;
  }
  return out;
}

// Copies the chain range [first, last) to `out` in another (or the same, not
// overlapping) chain, a segment at a time. Same exception as copyToChain.
BufferChain::Iterator copyChainRange(BufferChain::Iterator first, BufferChain::Iterator last,
                                     BufferChain::Iterator out);

// Copies the chain range [first, last) out to plain memory; returns the
// position after the last byte written.
uint8_t* copyFromChain(BufferChain::Iterator first, BufferChain::Iterator last, uint8_t* out);

}  // namespace quorvel
