#include "http/request_sender.h"

#include <utility>

#include "core/log.h"

namespace quorvel {
namespace {

const log::Log Log("httpclient");

}  // namespace

RequestSender::RequestSender(uintptr_t identity, std::shared_ptr<BufferChainAllocator> allocator)
    : identity_(identity), allocator_(std::move(allocator)) {}

bool RequestSender::setWhole(const MessageHeaders& headers, const void* data, std::size_t length) {
  bodyBytes_ = length;
  BufferChain chain = allocator_->allocate(headers.size() + length);
  if (chain.empty()) {
    QLOG(Log, log::Error, "0x%x: No buffers for a request of %u bytes", identity_, headers.size() + length);
    return false;
  }
  BufferChain::Iterator out = copyToChain(headers.data(), headers.data() + headers.size(), chain.begin());
  const char* bytes = static_cast<const char*>(data);
  if (length > 0) copyToChain(bytes, bytes + length, out);
  whole_ = BufferChainPtr(chain);
  return true;
}

bool RequestSender::setStreaming(const MessageHeaders& headers, bool chunked) {
  streaming_ = true;
  chunked_ = chunked;
  BufferChain head = chainOf(*allocator_, headers.data(), headers.size());
  if (head.empty()) {
    QLOG(Log, log::Error, "0x%x: No buffers for a request head of %u bytes", identity_, headers.size());
    return false;
  }
  whole_ = BufferChainPtr(head);
  return true;
}

BufferChainPtr RequestSender::takeHead(bool repeatable, BodySink* sink) {
  headSent_ = true;
  sending_ = true;
  BufferChainPtr chain = std::move(whole_);
  whole_.reset();
  if (repeatable && !rewound_ && !streaming_) resend_ = chain;
  if (streaming_ && sink && chain) {
    // The body that is there already goes with the head.
    BufferChain body;
    if (gather(*sink, body) == Piece::OutOfMemory) {
      chain.release().releaseBuffers();
      return BufferChainPtr();
    }
    chain.chain().append(body);
  }
  return chain;
}

RequestSender::Piece RequestSender::nextPiece(BodySink& sink, BufferChain& out) {
  if (!streaming_ || !headSent_ || sending_ || sendFinished_) return Piece::None;
  BufferChain chain;
  const Piece piece = gather(sink, chain);
  if (piece != Piece::Ready) return piece;
  sending_ = true;
  out = chain;
  return Piece::Ready;
}

// Every piece the sink holds now (taking one lets its source put the next),
// each framed, and the end marker once the sink has ended: one write instead
// of one per piece, a wakeup and a system call saved for each.
RequestSender::Piece RequestSender::gather(BodySink& sink, BufferChain& out) {
  std::size_t gathered = 0;
  while (!sendFinished_ && gathered < GatherBytes) {
    if (sink.hasItem()) {
      BufferChainPtr item = sink.take();
      // Nothing to frame; an empty chunk would end the body.
      if (!item || item.chain().empty()) continue;
      const std::size_t size = item.chain().size();
      BufferChain chain = takeOrCopy(*allocator_, item);
      if (chunked_ && !chain.empty()) chain = framer_.frame(*allocator_, chain);
      if (chain.empty()) {
        QLOG(Log, log::Error, "0x%x: No buffers for %u bytes of request body", identity_, size);
        sendFinished_ = true;
        out.releaseBuffers();
        return Piece::OutOfMemory;
      }
      bodyBytes_ += size;
      gathered += size;
      out.append(chain);
      continue;
    }
    if (!sink.isEnded()) break;
    sendFinished_ = true;
    if (!chunked_) {
      if (out.empty()) {
        QLOG(Log, log::Debug, "0x%x: Finished sending %u bytes", identity_, sentBytes_);
      }
      break;
    }
    BufferChain marker = framer_.end(*allocator_);
    if (marker.empty()) {
      out.releaseBuffers();
      return Piece::OutOfMemory;
    }
    QLOG(Log, log::Debug, "0x%x: Sent chunked encoding end marker", identity_);
    out.append(marker);
  }
  return out.empty() ? Piece::None : Piece::Ready;
}

bool RequestSender::onSent(std::size_t bytes) {
  sentBytes_ += bytes;
  QLOG(Log, log::Spam, "0x%x: Sent %u bytes", identity_, bytes);
  if (!streaming_) sendFinished_ = true;
  if (sendFinished_) {
    QLOG(Log, log::Debug, "0x%x: Finished sending %u bytes", identity_, sentBytes_);
    return false;
  }
  return true;
}

bool RequestSender::rewind() {
  if (!resend_ || rewound_) return false;
  rewound_ = true;
  ++attempt_;
  whole_ = std::move(resend_);
  resend_.reset();
  headSent_ = sending_ = sendFinished_ = false;
  return true;
}

void RequestSender::reset() {
  whole_.reset();
  resend_.reset();
  rewound_ = false;
  // Completions of the last use, should any still come, are stale.
  ++attempt_;
  streaming_ = chunked_ = false;
  framer_ = ChunkFramer();
  headSent_ = sending_ = sendFinished_ = false;
  bodyBytes_ = sentBytes_ = 0;
}

}  // namespace quorvel
