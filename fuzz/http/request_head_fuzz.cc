#include <cstddef>
#include <cstdint>

#include "fuzz/http/head_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using quorvel::MessageHeaders;
  const MessageHeaders headers = MessageHeaders::parseRequest(reinterpret_cast<const char*>(data), size);
  quorvel::fuzzing::checkHead(MessageHeaders::Kind::Request, headers);
  return 0;
}
