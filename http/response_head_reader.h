#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include "http/encoding_parser.h"
#include "http/head_end_finder.h"
#include "http/message_headers.h"
#include "net/buffer_chain.h"

namespace quorvel {

// Collects a response head from the bytes a connection delivers, parses it,
// and reads from it how the body is framed and whether the connection can be
// kept. The HTTP client runs one per request; log lines go to "httpclient"
// and begin with the request's identity.
class ResponseHeadReader {
 public:
  enum class State { Collecting, Complete, Bad };

  // The request's error text when the head does not parse.
  static constexpr const char* BadFormatText = "Bad HTTP response format";

  // `identity` is printed as "0x%x" (the request's address, say).
  explicit ResponseHeadReader(uintptr_t identity);
  ~ResponseHeadReader();
  ResponseHeadReader(const ResponseHeadReader&) = delete;
  ResponseHeadReader& operator=(const ResponseHeadReader&) = delete;

  // Takes the received bytes (leaves `received` empty) and looks for the end
  // of the head. Once the state is no longer Collecting, further bytes are
  // body bytes and are kept for takeBodyBytes().
  State feed(BufferChain& received);
  State state() const { return state_; }
  // Bytes taken so far, head and body.
  std::size_t receivedBytes() const { return received_; }

  // Valid once Complete.
  const MessageHeaders& headers() const { return headers_; }
  // Hands the head to `out` (the response keeps it) and takes what `out`
  // held, whose block the next head is parsed into when it is big enough.
  void giveHeaders(MessageHeaders& out) { headers_.swap(out); }
  bool closeConnection() const { return close_; }
  bool chunked() const { return chunked_; }
  bool contentLengthKnown() const { return lengthKnown_; }
  uint32_t contentLength() const { return contentLength_; }
  // The body rule, for the method of the request this answers.
  bool hasBody(StringSection requestMethod) const;

  // The bytes after the empty line; the caller owns them.
  BufferChain takeBodyBytes();
  // Readies the parser for this response's body framing, one of the two
  // given, and returns it.
  WebEncodingParser& prepareBodyParser(PlainEncodingParser& plain, ChunkedEncodingParser& chunked) const;

  // For the next response: as if made anew, the head's block kept.
  void reset();

 private:
  void checkFields();

  const uintptr_t identity_;
  State state_ = State::Collecting;
  BufferChain bytes_;
  std::size_t received_ = 0;
  HeadEndFinder finder_;
  MessageHeaders headers_;
  bool close_ = false;
  bool chunked_ = false;
  bool lengthKnown_ = false;
  // A Content-Length field is there, read or not.
  bool lengthPresent_ = false;
  uint32_t contentLength_ = 0;
};

}  // namespace quorvel
