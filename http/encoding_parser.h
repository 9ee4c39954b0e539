#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "net/buffer_chain.h"
#include "net/buffer_chain_ptr.h"

namespace quorvel {

// Strips the framing off a response body as it arrives in pieces, whatever
// the piece boundaries. Data produced before a failure can still be taken;
// nothing is produced after it.
class WebEncodingParser {
 public:
  virtual ~WebEncodingParser() = default;
  // Takes ownership of the bytes in `input` and leaves it empty.
  virtual void feed(BufferChain& input) = 0;
  // The connection ended; a body that needed more fails.
  virtual void end() = 0;
  virtual bool isFinished() const = 0;
  virtual bool isFailed() const = 0;
  // Body data produced since the last call; null when there is none.
  virtual BufferChainPtr takeData() = 0;
};

// Identity framing: up to the content length when it is known (anything
// beyond is dropped), otherwise everything until the connection ends.
class PlainEncodingParser : public WebEncodingParser {
 public:
  PlainEncodingParser(bool lengthKnown, uint32_t contentLength);
  ~PlainEncodingParser() override;
  PlainEncodingParser(const PlainEncodingParser&) = delete;
  PlainEncodingParser& operator=(const PlainEncodingParser&) = delete;

  void feed(BufferChain& input) override;
  void end() override;
  bool isFinished() const override { return finished_; }
  bool isFailed() const override { return failed_; }
  BufferChainPtr takeData() override;

  // As if made anew, for the next body.
  void reset(bool lengthKnown, uint32_t contentLength);

 private:
  bool lengthKnown_;
  uint32_t remaining_;
  BufferChain output_;
  bool finished_ = false;
  bool failed_ = false;
};

// Chunked framing. A chunk-size line split across pieces is held back and
// combined, up to 64 bytes; the body ends with exactly "0\r\n\r\n" (trailer
// fields after the last chunk are refused).
class ChunkedEncodingParser : public WebEncodingParser {
 public:
  enum State { Header = 0, Data = 1, ChunkEnd = 2 };
  static constexpr std::size_t MaxHeaderBytes = 64;

  // Chunk data that ends inside a buffer is cut off with one buffer copied
  // from `allocator`.
  explicit ChunkedEncodingParser(std::shared_ptr<BufferChainAllocator> allocator);
  ~ChunkedEncodingParser() override;
  ChunkedEncodingParser(const ChunkedEncodingParser&) = delete;
  ChunkedEncodingParser& operator=(const ChunkedEncodingParser&) = delete;

  void feed(BufferChain& input) override;
  void end() override;
  bool isFinished() const override { return finished_; }
  bool isFailed() const override { return failed_; }
  BufferChainPtr takeData() override;

  State state() const { return state_; }
  // As if made anew, for the next body.
  void reset();

 private:
  // Each returns false when it needs more input or the parser stopped.
  bool parseHeader();
  bool parseData();
  bool parseChunkEnd();
  void consume(std::size_t count);
  void fail();

  std::shared_ptr<BufferChainAllocator> allocator_;
  State state_ = Header;
  BufferChain pending_;           // received, not yet consumed
  std::size_t pendingSize_ = 0;
  std::size_t offset_ = 0;        // consumed since the last piece came in
  uint32_t chunkSize_ = 0;
  uint32_t chunkPassed_ = 0;      // of the current chunk, already passed on
  BufferChain output_;
  bool lastChunk_ = false;
  bool finished_ = false;
  bool failed_ = false;
};

}  // namespace quorvel
