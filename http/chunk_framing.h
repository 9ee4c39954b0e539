#pragma once

#include <cstddef>

#include "http/message_headers.h"
#include "net/buffer_chain.h"
#include "net/buffer_chain_ptr.h"

namespace quorvel {

// The sending side of the chunked transfer coding. Each chunk's closing
// "\r\n" is held back and goes out in front of the next chunk's size line or
// of the end marker, so that a chunk costs one small buffer besides its data,
// which is linked in as it is, never copied.
class ChunkFramer {
 public:
  // Room for "\r\n", the size in hexadecimal, "\r\n" and a terminating 0.
  static constexpr std::size_t MaxOpenLength = 2 + 2 * sizeof(std::size_t) + 2 + 1;

  // Writes what goes in front of the data of a chunk of `size` (not 0)
  // bytes into `out` and returns its length.
  std::size_t open(std::size_t size, char (&out)[MaxOpenLength]);
  // What ends the body after the last chunk: "0\r\n\r\n", with the last
  // chunk's "\r\n" in front.
  const char* endMarker();

  // The size line of the next chunk, of `size` (not 0) bytes, in a chain of
  // its own, for data that cannot be linked on (it is shared); empty when
  // the allocator is exhausted.
  BufferChain sizeLine(BufferChainAllocator& allocator, std::size_t size);
  // `data` as the next chunk: the size line in a buffer of its own with the
  // data's buffers linked on. Takes the data over. Empty data gives the empty
  // chain (an empty chunk would end the body); so does an exhausted
  // allocator, which releases the data.
  BufferChain frame(BufferChainAllocator& allocator, BufferChain data);
  // The end marker in a chain of its own; empty when the allocator is
  // exhausted.
  BufferChain end(BufferChainAllocator& allocator);

 private:
  bool chunkOpen_ = false;  // a chunk's closing "\r\n" is still owed
};

// Whether a message with this head has its body sent chunked.
bool isChunked(const MessageHeaders& headers);

// The chain of a piece, to be linked into another chain: taken out of the
// piece when this handle is its only one, otherwise copied so that the other
// holders keep theirs intact. Empty when a copy cannot be allocated.
BufferChain takeOrCopy(BufferChainAllocator& allocator, BufferChainPtr& piece);

// A chain holding `text`; empty when the allocator is exhausted.
BufferChain chainOf(BufferChainAllocator& allocator, const char* text, std::size_t size);

}  // namespace quorvel
