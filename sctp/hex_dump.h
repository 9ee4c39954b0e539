#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace quorvel {

// Lines of 16 bytes in hex for transfer logs, at most `limit` bytes, with
// " ..." when more were given.
std::string hexDump(const uint8_t* data, std::size_t size, std::size_t limit = 64);

}  // namespace quorvel
