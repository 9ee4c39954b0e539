#include "core/handler_memory.h"

#include <cstdint>
#include <new>

namespace quorvel {
namespace handler_memory {
namespace {

// Size classes of 64, 128, 256, 512 and 1024 bytes cover the library's
// operations; anything larger goes to the heap as it is.
constexpr std::size_t Classes = 5;
constexpr std::size_t SmallestShift = 6;
constexpr uint32_t Unpooled = 0xffffffffu;
// Kept per class and thread; beyond that freed blocks go back to the heap.
constexpr std::size_t KeptPerClass = 16;

// In front of every block: its class, so that any thread can file it.
struct alignas(std::max_align_t) Header {
  uint32_t sizeClass;
};

struct FreeBlock {
  FreeBlock* next;
};

// Plain data, so that it stays usable while the thread's other objects
// are destroyed; Cleanup empties it when the thread ends, and from then on
// every block goes straight back to the heap.
struct ClassList {
  FreeBlock* first;
  std::size_t count;
};

struct Lists {
  ClassList classes[Classes];
  bool closed;
};

thread_local Lists lists;

struct Cleanup {
  ~Cleanup() {
    lists.closed = true;
    for (ClassList& list : lists.classes) {
      while (FreeBlock* block = list.first) {
        list.first = block->next;
        ::operator delete(reinterpret_cast<Header*>(block) - 1);
      }
      list.count = 0;
    }
  }
};

thread_local Cleanup cleanup;

// Under the address sanitizer every block comes from the heap and goes back
// to it: a block kept for reuse would hide a use after its free.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool Pooling = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool Pooling = false;
#else
constexpr bool Pooling = true;
#endif
#else
constexpr bool Pooling = true;
#endif

uint32_t classFor(std::size_t size) {
  if (!Pooling) return Unpooled;
  std::size_t capacity = std::size_t{1} << SmallestShift;
  for (uint32_t c = 0; c < Classes; ++c, capacity <<= 1) {
    if (size <= capacity) return c;
  }
  return Unpooled;
}

}  // namespace

bool keepsBlocks() noexcept { return Pooling; }

void* allocate(std::size_t size) {
  const uint32_t sizeClass = classFor(size);
  if (sizeClass != Unpooled) {
    (void)&cleanup;  // made with the thread's first block, so it runs when the thread ends
    ClassList& list = lists.classes[sizeClass];
    if (FreeBlock* block = list.first) {
      list.first = block->next;
      --list.count;
      return block;
    }
    size = std::size_t{1} << (SmallestShift + sizeClass);
  }
  auto* header = static_cast<Header*>(::operator new(sizeof(Header) + size));
  header->sizeClass = sizeClass;
  return header + 1;
}

void deallocate(void* block) noexcept {
  if (!block) return;
  Header* header = static_cast<Header*>(block) - 1;
  const uint32_t sizeClass = header->sizeClass;
  if (sizeClass == Unpooled || lists.closed || lists.classes[sizeClass].count >= KeptPerClass) {
    ::operator delete(header);
    return;
  }
  (void)&cleanup;
  ClassList& list = lists.classes[sizeClass];
  auto* free = static_cast<FreeBlock*>(block);
  free->next = list.first;
  list.first = free;
  ++list.count;
}

}  // namespace handler_memory
}  // namespace quorvel
