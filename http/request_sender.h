#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "http/chunk_framing.h"
#include "http/message_headers.h"
#include "http/web_client.h"
#include "net/buffer_chain.h"
#include "net/buffer_chain_ptr.h"

namespace quorvel {

// The outgoing half of one client request: what goes onto the connection
// next and when all of it has gone. The request does the sending and reports
// each completion back. Either the whole request in one chain, or the head
// followed by the body from a sink, chunked unless a length was given. Log
// lines go to "httpclient" and begin with the request's identity.
class RequestSender {
 public:
  enum class Piece { None, Ready, OutOfMemory };

  // The most body bytes one write gathers.
  static constexpr std::size_t GatherBytes = 65536;

  RequestSender(uintptr_t identity, std::shared_ptr<BufferChainAllocator> allocator);

  // Head and body, to go out in one write. False when there are no buffers.
  bool setWhole(const MessageHeaders& headers, const void* data, std::size_t length);
  // The head now; the body comes through nextPiece(). False when there are
  // no buffers.
  bool setStreaming(const MessageHeaders& headers, bool chunked);

  // A head (or whole request) waits for a connection.
  bool hasHead() const { return !headSent_ && static_cast<bool>(whole_); }
  // Something of the request has gone onto a connection.
  bool hasSent() const { return headSent_; }
  bool isStreaming() const { return streaming_; }
  std::size_t bodyBytes() const { return bodyBytes_; }
  // Takes the head for sending, with the streamed body that `sink` holds
  // already; null when there are no buffers for that. A `repeatable` whole
  // request is kept for one rewind().
  BufferChainPtr takeHead(bool repeatable, BodySink* sink = nullptr);
  // The body pieces from `sink` into `out`, all that are there (up to
  // GatherBytes), when they can go now.
  Piece nextPiece(BodySink& sink, BufferChain& out);

  // Completions carry the attempt they belong to; those of an earlier
  // connection are stale.
  unsigned attempt() const { return attempt_; }
  void onSendDone() { sending_ = false; }
  // Counts a completed send; true when more of the body may go.
  bool onSent(std::size_t bytes);
  bool isFinished() const { return sendFinished_; }

  // Makes the kept request ready to go again from its start, once; false
  // when there is none to send again.
  bool rewind();
  // The server has answered: nothing will need sending again.
  void dropResend() { resend_.reset(); }

  // For the request's next use: nothing of this one is kept.
  void reset();

 private:
  Piece gather(BodySink& sink, BufferChain& out);

  const uintptr_t identity_;
  std::shared_ptr<BufferChainAllocator> allocator_;
  BufferChainPtr whole_;
  // The whole request as sent, for one more go on a new connection.
  BufferChainPtr resend_;
  bool rewound_ = false;
  unsigned attempt_ = 0;
  bool streaming_ = false;
  bool chunked_ = false;
  ChunkFramer framer_;
  bool headSent_ = false;
  bool sending_ = false;
  bool sendFinished_ = false;
  std::size_t bodyBytes_ = 0;
  std::size_t sentBytes_ = 0;
};

}  // namespace quorvel
