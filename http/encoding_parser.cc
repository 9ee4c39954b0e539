#include "http/encoding_parser.h"

#include <algorithm>
#include <string>

#include "core/log.h"

namespace quorvel {
namespace {

const log::Log Log("chunkedparser");

BufferChainPtr takeChain(BufferChain& chain) {
  if (chain.empty()) return BufferChainPtr();
  return BufferChainPtr(std::exchange(chain, BufferChain()));
}

// A chunk-size line: hex digits, then optionally blanks and an extension
// after ";" (ignored).
bool parseChunkSize(BufferChain::Iterator it, std::size_t length, uint32_t& size) {
  uint64_t value = 0;
  std::size_t digits = 0;
  for (; digits < length; ++digits, ++it) {
    const char c = static_cast<char>(*it);
    int digit;
    if (c >= '0' && c <= '9') {
      digit = c - '0';
    } else if (c >= 'a' && c <= 'f') {
      digit = c - 'a' + 10;
    } else if (c >= 'A' && c <= 'F') {
      digit = c - 'A' + 10;
    } else {
      break;
    }
    value = value * 16 + static_cast<uint64_t>(digit);
    if (value > 0xffffffffu) return false;
  }
  if (digits == 0) return false;
  for (std::size_t i = digits; i < length; ++i, ++it) {
    const char c = static_cast<char>(*it);
    if (c == ';') break;
    if (c != ' ' && c != '\t') return false;
  }
  size = static_cast<uint32_t>(value);
  return true;
}

}  // namespace

// ---- plain

PlainEncodingParser::PlainEncodingParser(bool lengthKnown, uint32_t contentLength)
    : lengthKnown_(lengthKnown), remaining_(contentLength), finished_(lengthKnown && contentLength == 0) {}

PlainEncodingParser::~PlainEncodingParser() { output_.releaseBuffers(); }

void PlainEncodingParser::feed(BufferChain& input) {
  if (finished_ || failed_) {
    input.releaseBuffers();
    return;
  }
  if (lengthKnown_) {
    const std::size_t size = input.size();
    if (size >= remaining_ && size > 0) {
      if (size > remaining_) {
        BufferChain beyond;
        input.truncate(remaining_, beyond);
        beyond.releaseBuffers();
      }
      remaining_ = 0;
      finished_ = true;
    } else {
      remaining_ -= static_cast<uint32_t>(size);
    }
  }
  output_.append(input);
}

void PlainEncodingParser::end() {
  if (finished_ || failed_) return;
  if (lengthKnown_) {
    failed_ = true;
  } else {
    finished_ = true;
  }
}

BufferChainPtr PlainEncodingParser::takeData() { return takeChain(output_); }

void PlainEncodingParser::reset(bool lengthKnown, uint32_t contentLength) {
  output_.releaseBuffers();
  lengthKnown_ = lengthKnown;
  remaining_ = contentLength;
  finished_ = lengthKnown && contentLength == 0;
  failed_ = false;
}

// ---- chunked

ChunkedEncodingParser::ChunkedEncodingParser(std::shared_ptr<BufferChainAllocator> allocator)
    : allocator_(std::move(allocator)) {}

ChunkedEncodingParser::~ChunkedEncodingParser() {
  pending_.releaseBuffers();
  output_.releaseBuffers();
}

void ChunkedEncodingParser::feed(BufferChain& input) {
  if (finished_ || failed_) {
    input.releaseBuffers();
    return;
  }
  pendingSize_ += input.size();
  pending_.append(input);
  offset_ = 0;
  bool more = true;
  while (more && pendingSize_ != 0) {
    switch (state_) {
      case Header:
        more = parseHeader();
        break;
      case Data:
        more = parseData();
        break;
      case ChunkEnd:
        more = parseChunkEnd();
        break;
    }
  }
  if (finished_) {
    // Nothing may follow the last chunk on this exchange.
    pending_.releaseBuffers();
    pendingSize_ = 0;
  }
}

void ChunkedEncodingParser::consume(std::size_t count) {
  pending_.trimFront(count);
  pendingSize_ -= count;
  offset_ += count;
}

void ChunkedEncodingParser::fail() {
  failed_ = true;
  pending_.releaseBuffers();
  pendingSize_ = 0;
}

bool ChunkedEncodingParser::parseHeader() {
  QLOG(Log, log::Debug, "Parsing header, %u bytes remaining", pendingSize_);
  // Position of "\r\n": a CR whose next byte is LF.
  std::size_t position = 0;
  bool found = false;
  bool sawCr = false;
  for (BufferChain::Iterator it = pending_.begin(); it != pending_.end(); ++it, ++position) {
    if (sawCr && *it == '\n') {
      found = true;
      --position;
      break;
    }
    sawCr = *it == '\r';
  }
  // Without its line end the header waits for more, unless it is already
  // too long to be one; either way nothing more can be parsed now.
  if (!found) {
    if (pendingSize_ >= MaxHeaderBytes) {
      QLOG(Log, log::Notice, "Parsing header; CRLF not found in %u bytes", pendingSize_);
      fail();
    }
    return false;
  }
  uint32_t size = 0;
  if (!parseChunkSize(pending_.begin(), position, size)) {
    // Only the start of a long line goes into the log.
    std::string line(std::min<std::size_t>(position, 2 * MaxHeaderBytes), '\0');
    copyFromChain(pending_.begin(), pending_.begin() + line.size(), reinterpret_cast<uint8_t*>(&line[0]));
    QLOG(Log, log::Notice, "Failed to parse chunk header: %s", line);
    fail();
    return false;
  }
  QLOG(Log, log::Debug, "Chunk is %u bytes", size);
  consume(position + 2);
  chunkSize_ = size;
  chunkPassed_ = 0;
  if (size == 0) {
    lastChunk_ = true;
    state_ = ChunkEnd;
  } else {
    state_ = Data;
  }
  return true;
}

bool ChunkedEncodingParser::parseData() {
  QLOG(Log, log::Debug, "Parsing body, %u bytes remaining, offset = %u", pendingSize_, offset_);
  const std::size_t wanted = chunkSize_ - chunkPassed_;
  const std::size_t n = std::min(wanted, pendingSize_);
  if (n == pendingSize_) {
    output_.append(pending_);
  } else {
    BufferChain rest = pending_.splitAt(n, *allocator_);
    if (rest.empty()) {
      QLOG(Log, log::Error, "No buffer to split chunk data, dropping the body");
      fail();
      return false;
    }
    output_.append(pending_);
    pending_ = rest;
  }
  pendingSize_ -= n;
  offset_ += n;
  chunkPassed_ += static_cast<uint32_t>(n);
  if (chunkPassed_ < chunkSize_) {
    QLOG(Log, log::Debug, "Will combine %u bytes with next fragment", chunkSize_ - chunkPassed_);
    return false;
  }
  state_ = ChunkEnd;
  return true;
}

bool ChunkedEncodingParser::parseChunkEnd() {
  QLOG(Log, log::Debug, "Parsing trailer, %u bytes remaining, offset = %u", pendingSize_, offset_);
  if (pendingSize_ < 2) {
    QLOG(Log, log::Debug, "Only got partial trailer");
    return false;
  }
  BufferChain::Iterator it = pending_.begin();
  const uint8_t first = *it;
  const uint8_t second = *++it;
  if (first != '\r' || second != '\n') {
    QLOG(Log, log::Notice, "Malformed chunk trailer");
    fail();
    return false;
  }
  consume(2);
  if (lastChunk_) {
    finished_ = true;
    return false;
  }
  state_ = Header;
  return true;
}

void ChunkedEncodingParser::end() {
  if (!finished_) fail();
}

BufferChainPtr ChunkedEncodingParser::takeData() { return takeChain(output_); }

void ChunkedEncodingParser::reset() {
  pending_.releaseBuffers();
  output_.releaseBuffers();
  state_ = Header;
  pendingSize_ = offset_ = 0;
  chunkSize_ = chunkPassed_ = 0;
  lastChunk_ = finished_ = failed_ = false;
}

}  // namespace quorvel
