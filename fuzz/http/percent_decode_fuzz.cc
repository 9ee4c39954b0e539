#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "http/text_codecs.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using quorvel::PercentEncoding;
  const std::string input(reinterpret_cast<const char*>(data), size);
  try {
    const std::string decoded = PercentEncoding::decode(input);
    if (decoded.size() > input.size()) __builtin_trap();
  } catch (const std::runtime_error&) {
  }
  if (PercentEncoding::decode(PercentEncoding::encode(input)) != input) __builtin_trap();
  return 0;
}
