#include "revhttp/request_head_reader.h"

#include <algorithm>
#include <utility>

#include "http/http_names.h"

namespace quorvel {

constexpr std::size_t RequestHeadReader::Capacity;

RequestHeadReader::State RequestHeadReader::feed(const BufferChain& piece) {
  const std::size_t before = filled_;
  const std::size_t copied = std::min(piece.size(), Capacity - before);
  const BufferChain::Iterator first = piece.begin();
  copyFromChain(first, first + copied, reinterpret_cast<uint8_t*>(head_.data() + before));
  filled_ += copied;
  finder_.feed(head_.data() + before, head_.data() + filled_);
  if (!finder_.found()) {
    if (filled_ == Capacity) state_ = State::TooLarge;
    return state_;
  }
  const std::size_t end = finder_.headEnd();
  headers_ = MessageHeaders::parseRequest(head_.data(), end - HeadEndFinder::SeparatorLength + HttpLineEnd::Length);
  if (!headers_.isValid()) {
    state_ = State::Bad;
    return state_;
  }
  bodyOffset_ = end - before;
  state_ = State::Complete;
  return state_;
}

void RequestHeadReader::reset() {
  filled_ = 0;
  finder_.reset();
  state_ = State::Collecting;
  headers_ = MessageHeaders();
  bodyOffset_ = 0;
}

}  // namespace quorvel
