#pragma once

#include <memory>
#include <utility>

#include "net/buffer_pool.h"

namespace quorvel {
namespace testing {

// An allocator that can be told to run dry.
class SwitchableAllocator : public BufferChainAllocator {
 public:
  explicit SwitchableAllocator(std::shared_ptr<BufferPool> pool) : pool_(std::move(pool)) {}
  BufferChain allocate(std::size_t size) override { return dry ? BufferChain() : pool_->allocate(size); }
  std::size_t bufferSize() const override { return pool_->bufferSize(); }
  bool dry = false;

 private:
  std::shared_ptr<BufferPool> pool_;
};

}  // namespace testing
}  // namespace quorvel
