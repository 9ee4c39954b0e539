#pragma once

#include <cstddef>
#include <utility>

namespace quorvel {

// Memory for the loop's pending operations. Every socket transfer and every
// posted task makes an operation object in the I/O library, freed when it
// completes; the library keeps only one block per thread for reuse, so with
// a few operations in flight most of them went to malloc. These blocks come
// from free lists kept per thread and per size class instead. A block may be
// freed on another thread than the one that took it (a task posted by a
// worker runs on the loop): it then joins that thread's lists.
namespace handler_memory {

void* allocate(std::size_t size);
void deallocate(void* block) noexcept;
// False in a sanitizer build, where every block goes back to the heap.
bool keepsBlocks() noexcept;

}  // namespace handler_memory

// The allocator the I/O library finds on a handler (its associated
// allocator) and makes the operation's memory with.
template <typename T>
class HandlerAllocator {
 public:
  using value_type = T;

  HandlerAllocator() noexcept = default;
  template <typename U>
  HandlerAllocator(const HandlerAllocator<U>&) noexcept {}  // NOLINT

  T* allocate(std::size_t n) { return static_cast<T*>(handler_memory::allocate(n * sizeof(T))); }
  void deallocate(T* block, std::size_t) noexcept { handler_memory::deallocate(block); }

  template <typename U>
  bool operator==(const HandlerAllocator<U>&) const noexcept {
    return true;
  }
  template <typename U>
  bool operator!=(const HandlerAllocator<U>&) const noexcept {
    return false;
  }
};

// A completion handler whose operation memory comes from HandlerAllocator.
template <typename F>
class PooledHandler {
 public:
  using allocator_type = HandlerAllocator<void>;

  explicit PooledHandler(F f) : f_(std::move(f)) {}
  allocator_type get_allocator() const noexcept { return allocator_type(); }

  template <typename... Args>
  void operator()(Args&&... args) {
    f_(std::forward<Args>(args)...);
  }
  template <typename... Args>
  void operator()(Args&&... args) const {
    f_(std::forward<Args>(args)...);
  }

 private:
  F f_;
};

template <typename F>
PooledHandler<F> pooled(F f) {
  return PooledHandler<F>(std::move(f));
}

}  // namespace quorvel
