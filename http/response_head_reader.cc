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
  for (auto piece = received.begin(); piece != received.end() && !finder_.found(); piece.nextSegment()) {
    const char* data = reinterpret_cast<const char*>(piece.data());
    finder_.feed(data, data + piece.segmentSize());
  }
  bytes_.append(received);
  if (!finder_.found()) {
    QLOG(Log, log::Debug, "0x%x: Double CRLF not found", identity_);
    return state_;
  }
  const std::size_t separator = finder_.headEnd() - HeadEndFinder::SeparatorLength;
  QLOG(Log, log::Debug, "0x%x: Found double CRLF at %u", identity_, separator);
  const std::size_t headSize = separator + HttpLineEnd::Length;
  headers_.assignParsed(MessageHeaders::Kind::Response, headSize, [this, headSize](char* out) {
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
  // Noted by the parse: no walk.
  using Field = MessageHeaders::FramingField;
  const MessageHeaders::FieldIterator none = headers_.end();
  const MessageHeaders::FieldIterator connection = headers_.framingField(Field::Connection);
  const MessageHeaders::FieldIterator encoding = headers_.framingField(Field::TransferEncoding);
  const MessageHeaders::FieldIterator length = headers_.framingField(Field::ContentLength);
  lengthPresent_ = length != none;
  if (connection != none && connection->value.equalsIgnoreCase("close")) {
    QLOG(Log, log::Debug, "0x%x: Response requested connection close", identity_);
    close_ = true;
  }
  if (encoding != none && encoding->value.equalsIgnoreCase("chunked")) {
    QLOG(Log, log::Debug, "0x%x: Response uses chunked transfer encoding", identity_);
    chunked_ = true;
  }
  if (length != none) {
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

WebEncodingParser& ResponseHeadReader::prepareBodyParser(PlainEncodingParser& plain,
                                                         ChunkedEncodingParser& chunked) const {
  if (chunked_) {
    chunked.reset();
    return chunked;
  }
  plain.reset(lengthKnown_, contentLength_);
  return plain;
}

void ResponseHeadReader::reset() {
  state_ = State::Collecting;
  bytes_.releaseBuffers();
  received_ = 0;
  finder_.reset();
  close_ = chunked_ = lengthKnown_ = lengthPresent_ = false;
  contentLength_ = 0;
}

bool ResponseHeadReader::hasBody(StringSection requestMethod) const {
  const uint32_t status = headers_.statusCode();
  if (requestMethod == StringSection("HEAD") || status < 200 || status == 204 || status == 304) return false;
  // The rule's own reading of Content-Length, from what checkFields() found.
  if (lengthPresent_) return !lengthKnown_ || contentLength_ != 0;
  return true;
}

}  // namespace quorvel
