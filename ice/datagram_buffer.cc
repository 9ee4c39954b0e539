#include "ice/datagram_buffer.h"

#include <new>

namespace quorvel {
namespace ice {
namespace {

class HeapBufferDeleter : public BufferDeleter {
 public:
  void release(Buffer* buffer) override {
    buffer->~Buffer();
    ::operator delete(buffer);
  }
};

HeapBufferDeleter heapDeleter;

}  // namespace

BufferChainPtr makeDatagramBuffer(std::size_t capacity) {
  void* memory = ::operator new(sizeof(Buffer) + capacity);
  Buffer* buffer = new (memory) Buffer{nullptr, &heapDeleter, 0, 0, static_cast<uint32_t>(capacity)};
  return BufferChainPtr(BufferChain(buffer));
}

}  // namespace ice
}  // namespace quorvel
