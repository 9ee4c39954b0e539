#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "net/async_socket.h"

namespace quorvel {

// The blocks a socket's finished transfers leave behind, kept for its next
// ones so that a transfer costs no allocation. `Block` has at least
// `buffers` and `callback`; what they hold goes when the block is given back,
// the rest is the taker's to set.
template <typename Block>
class TransferSpares {
 public:
  std::unique_ptr<Block> take(const BufferChainPtr& buffers, const AsyncSocket::TransferCallback& callback) {
    std::unique_ptr<Block> block;
    if (spares_.empty()) {
      block = std::make_unique<Block>();
    } else {
      block = std::move(spares_.back());
      spares_.pop_back();
    }
    block->buffers = buffers;
    block->callback = callback;
    return block;
  }

  void giveBack(std::unique_ptr<Block> block) {
    block->buffers.reset();
    block->callback.clear();
    spares_.push_back(std::move(block));
  }

 private:
  std::vector<std::unique_ptr<Block>> spares_;
};

}  // namespace quorvel
