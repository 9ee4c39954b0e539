#include "http/chunk_framing.h"

#include <cstdio>
#include <string>

#include "http/http_names.h"

namespace quorvel {

std::size_t ChunkFramer::open(std::size_t size, char (&out)[MaxOpenLength]) {
  const int n = std::snprintf(out, sizeof out, "%s%zX\r\n", chunkOpen_ ? "\r\n" : "", size);
  chunkOpen_ = true;
  return static_cast<std::size_t>(n);
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
