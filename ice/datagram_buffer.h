#pragma once

#include <cstddef>

#include "net/buffer_chain_ptr.h"

namespace quorvel {

namespace ice {

// A chain of one buffer with room for `capacity` bytes in one piece (STUN
// parsing and the SCTP stack's input want contiguous bytes; the pool's
// buffers are smaller than a datagram). Its length is the capacity. The
// buffer comes from the heap and goes back there with the last handle.
BufferChainPtr makeDatagramBuffer(std::size_t capacity);

}  // namespace ice
}  // namespace quorvel
