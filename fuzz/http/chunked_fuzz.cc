#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "http/encoding_parser.h"
#include "net/buffer_pool.h"

namespace {

using namespace quorvel;

struct Outcome {
  std::string data;
  bool finished;
  bool failed;
};

Outcome parse(BufferPool& pool, const std::shared_ptr<BufferPool>& allocator, const uint8_t* body, std::size_t size,
              const std::vector<std::size_t>& pieces) {
  ChunkedEncodingParser parser(allocator);
  Outcome outcome{};
  std::size_t offset = 0;
  for (std::size_t i = 0; i <= pieces.size(); ++i) {
    const std::size_t piece = i < pieces.size() ? std::min(pieces[i], size - offset) : size - offset;
    BufferChain chain = pool.allocate(piece);
    copyToChain(body + offset, body + offset + piece, chain.begin());
    parser.feed(chain);
    offset += piece;
    if (BufferChainPtr out = parser.takeData()) {
      const std::size_t before = outcome.data.size();
      outcome.data.resize(before + out.chain().size());
      copyFromChain(out.chain().begin(), out.chain().end(), reinterpret_cast<uint8_t*>(&outcome.data[before]));
    }
  }
  outcome.finished = parser.isFinished();
  outcome.failed = parser.isFailed();
  return outcome;
}

}  // namespace

// The first bytes give piece sizes (until a zero byte); the rest is the body.
// Whatever the split, the result must be that of one piece, except that a
// chunk-size line held back across pieces may fail earlier on its 64-byte
// limit, with what was passed on so far a prefix of the one-piece body.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  static std::shared_ptr<BufferPool> pool = std::make_shared<BufferPool>(13, 0, 0);
  std::vector<std::size_t> pieces;
  std::size_t i = 0;
  while (i < size && data[i] != 0 && pieces.size() < 64) pieces.push_back(data[i++]);
  if (i < size) ++i;
  const Outcome whole = parse(*pool, pool, data + i, size - i, {});
  const Outcome split = parse(*pool, pool, data + i, size - i, pieces);
  if (split.failed) {
    if (whole.data.compare(0, split.data.size(), split.data) != 0) __builtin_trap();
  } else if (split.data != whole.data || split.finished != whole.finished || split.failed != whole.failed) {
    __builtin_trap();
  }
  if (pool->freeBuffers() != pool->totalBuffers()) __builtin_trap();
  return 0;
}
