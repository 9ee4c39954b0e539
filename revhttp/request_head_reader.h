#pragma once

#include <array>
#include <cstddef>

#include "http/head_end_finder.h"
#include "http/message_headers.h"
#include "net/buffer_chain.h"

namespace quorvel {

// Collects a relayed request's head from the pieces of a relay response's
// body, the way ResponseHeadReader collects response heads, into a buffer of
// fixed size that the recycled exchange keeps: a head that does not end
// within it is refused.
class RequestHeadReader {
 public:
  static constexpr std::size_t Capacity = 4096;
  enum class State { Collecting, Complete, TooLarge, Bad };

  // Copies the piece's bytes (as many as fit) and looks for the end of the
  // head in them. Call only while Collecting.
  State feed(const BufferChain& piece);
  State state() const { return state_; }

  // Valid once Complete.
  MessageHeaders takeHeaders() { return std::move(headers_); }
  // Where the body starts in the piece that completed the head.
  std::size_t bodyOffset() const { return bodyOffset_; }

  void reset();

 private:
  std::array<char, Capacity> head_;
  std::size_t filled_ = 0;
  HeadEndFinder finder_;
  State state_ = State::Collecting;
  MessageHeaders headers_;
  std::size_t bodyOffset_ = 0;
};

}  // namespace quorvel
