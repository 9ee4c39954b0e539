#pragma once

#include <string>

#include "net/buffer_chain.h"
#include "net/buffer_pool.h"

namespace quorvel {
namespace testing {

// Chains from text and back, for tests that feed parsers.
inline BufferChain chainOf(BufferPool& pool, const std::string& text) {
  BufferChain chain = pool.allocate(text.size());
  copyToChain(text.data(), text.data() + text.size(), chain.begin());
  return chain;
}

inline std::string textOf(const BufferChain& chain) {
  std::string text(chain.size(), '\0');
  copyFromChain(chain.begin(), chain.end(), reinterpret_cast<uint8_t*>(&text[0]));
  return text;
}

}  // namespace testing
}  // namespace quorvel
