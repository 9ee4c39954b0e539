#include <cstddef>
#include <cstdint>
#include <memory>

#include "fuzz/http/head_checks.h"
#include "http/response_head_reader.h"
#include "net/buffer_pool.h"

// The first byte chooses where the bytes are split when they go through the
// head reader; the rest is the response.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using namespace quorvel;
  if (size < 1) return 0;
  const std::size_t cut = data[0];
  ++data;
  --size;
  const MessageHeaders headers = MessageHeaders::parseResponse(reinterpret_cast<const char*>(data), size);
  fuzzing::checkHead(MessageHeaders::Kind::Response, headers);

  static BufferPool pool(16, 0, 0);
  ResponseHeadReader reader(1);
  std::size_t offset = 0;
  for (std::size_t piece : {cut, size}) {
    piece = std::min(piece, size - offset);
    BufferChain chain = pool.allocate(piece);
    copyToChain(data + offset, data + offset + piece, chain.begin());
    reader.feed(chain);
    offset += piece;
  }
  BufferChain rest = reader.takeBodyBytes();
  if (reader.state() == ResponseHeadReader::State::Complete) {
    if (!reader.headers().isValid() || reader.headers().size() + rest.size() != size) __builtin_trap();
  }
  rest.releaseBuffers();
  return 0;
}
