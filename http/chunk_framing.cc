#include "http/chunk_framing.h"

#include <algorithm>
#include <iterator>
#include <string>

#include "http/http_names.h"

namespace quorvel {

// Written by hand: a formatted print costs more than the rest of the chunk's
// framing put together, and every relayed answer goes through here.
std::size_t ChunkFramer::open(std::size_t size, char (&out)[MaxOpenLength]) {
  char* p = out;
  if (chunkOpen_) p = std::copy_n("\r\n", 2, p);
  char digits[2 * sizeof(std::size_t)];
  char* first = std::end(digits);
  do {
    *--first = "0123456789ABCDEF"[size & 0xF];
    size >>= 4;
  } while (size != 0);
  p = std::copy(first, std::end(digits), p);
  p = std::copy_n("\r\n", 3, p);
  chunkOpen_ = true;
  return static_cast<std::size_t>(p - out) - 1;
}

const char* ChunkFramer::endMarker() {
  const char* marker = chunkOpen_ ? "\r\n0\r\n\r\n" : "0\r\n\r\n";
  chunkOpen_ = false;
  return marker;
}

BufferChain ChunkFramer::frame(BufferChainAllocator& allocator, BufferChain data) {
  const std::size_t size = data.size();
  if (size == 0) {
    data.releaseBuffers();
    return BufferChain();
  }
  BufferChain chain = sizeLine(allocator, size);
  if (chain.empty()) {
    data.releaseBuffers();
    return chain;
  }
  chain.append(data);
  return chain;
}

BufferChain ChunkFramer::sizeLine(BufferChainAllocator& allocator, std::size_t size) {
  const bool wasOpen = chunkOpen_;
  char line[MaxOpenLength];
  BufferChain chain = chainOf(allocator, line, open(size, line));
  if (chain.empty()) chunkOpen_ = wasOpen;
  return chain;
}

BufferChain ChunkFramer::end(BufferChainAllocator& allocator) {
  const bool wasOpen = chunkOpen_;
  const char* marker = endMarker();
  BufferChain chain = chainOf(allocator, marker, std::char_traits<char>::length(marker));
  if (chain.empty()) chunkOpen_ = wasOpen;
  return chain;
}

bool isChunked(const MessageHeaders& headers) {
  const MessageHeaders::FieldIterator encoding = headers.find(HttpHeader::TransferEncoding);
  return encoding != headers.end() && encoding->value.equalsIgnoreCase("chunked");
}

BufferChain takeOrCopy(BufferChainAllocator& allocator, BufferChainPtr& piece) {
  if (!piece) return BufferChain();
  if (piece.useCount() == 1) return piece.release();
  const BufferChain& source = piece.chain();
  BufferChain copy = allocator.allocate(source.size());
  if (!copy.empty()) copyChainRange(source.begin(), source.end(), copy.begin());
  return copy;
}

BufferChain chainOf(BufferChainAllocator& allocator, const char* text, std::size_t size) {
  BufferChain chain = allocator.allocate(size);
  if (!chain.empty()) copyToChain(text, text + size, chain.begin());
  return chain;
}

}  // namespace quorvel
