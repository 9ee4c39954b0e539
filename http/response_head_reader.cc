#include "http/response_head_reader.h"

#include "core/log.h"
#include "http/http_names.h"

namespace quorvel {
namespace {

const log::Log Log("httpclient");

}  // namespace

ResponseHeadReader::ResponseHeadReader(uintptr_t identity) : identity_(identity) {}

ResponseHeadReader::~ResponseHeadReader() { bytes_.releaseBuffers(); }

ResponseHeadReader::State ResponseHeadReader::feed(BufferChain& received) {
  received_ += received.size();
  if (state_ != State::Collecting) {
    bytes_.append(received);
    return state_;
  }
  finder_.feed(received.begin(), received.end());
  bytes_.append(received);
  if (!finder_.found()) {
    QLOG(Log, log::Debug, "0x%x: Double CRLF not found", identity_);
    return state_;
  }
  const std::size_t separator = finder_.headEnd() - HeadEndFinder::SeparatorLength;
  QLOG(Log, log::Debug, "0x%x: Found double CRLF at %u", identity_, separator);
  const std::size_t headSize = separator + HttpLineEnd::Length;
  headers_ = MessageHeaders::parseGathered(MessageHeaders::Kind::Response, headSize, [this, headSize](char* out) {
    const BufferChain::Iterator begin = bytes_.begin();
    copyFromChain(begin, begin + headSize, reinterpret_cast<uint8_t*>(out));
  });
  bytes_.trimFront(finder_.headEnd());
  if (!headers_.isValid()) {
    state_ = State::Bad;
    return state_;
  }
  QLOG(Log, log::Debug, "0x%x: Got response: %u %s", identity_, headers_.statusCode(), headers_.reason());
  checkFields();
  state_ = State::Complete;
  return state_;
}

void ResponseHeadReader::checkFields() {
  const auto connection = headers_.find(HttpHeader::Connection);
  if (connection != headers_.end() && connection->value.equalsIgnoreCase("close")) {
    QLOG(Log, log::Debug, "0x%x: Response requested connection close", identity_);
    close_ = true;
  }
  const auto encoding = headers_.find(HttpHeader::TransferEncoding);
  if (encoding != headers_.end() && encoding->value.equalsIgnoreCase("chunked")) {
    QLOG(Log, log::Debug, "0x%x: Response uses chunked transfer encoding", identity_);
    chunked_ = true;
  }
  const auto length = headers_.find(HttpHeader::ContentLength);
  if (length != headers_.end()) {
    if (parseUnsigned(length->value, contentLength_)) {
      QLOG(Log, log::Debug, "0x%x: Response content length is %u", identity_, contentLength_);
      lengthKnown_ = true;
    } else {
      QLOG(Log, log::Notice, "0x%x: Failed to parse Content-Length field: %s", identity_, length->value);
      // The body then runs to the end of the connection, which cannot be
      // used again.
      close_ = true;
    }
  }
}

BufferChain ResponseHeadReader::takeBodyBytes() { return std::exchange(bytes_, BufferChain()); }

std::unique_ptr<WebEncodingParser> ResponseHeadReader::makeBodyParser(
    const std::shared_ptr<BufferChainAllocator>& allocator) const {
  if (chunked_) return std::make_unique<ChunkedEncodingParser>(allocator);
  return std::make_unique<PlainEncodingParser>(lengthKnown_, contentLength_);
}

}  // namespace quorvel
