#pragma once

#include <cstddef>
#include <cstdint>

namespace quorvel {

// Where the SCTP stack's outgoing packets for one registered address go.
class SctpUdpOutput {
 public:
  virtual ~SctpUdpOutput() = default;
  // One whole SCTP packet; the bytes are valid only for the call. Called on
  // the reactor's thread, from inside the stack: must not call back into it.
  virtual void output(const uint8_t* packet, std::size_t size) = 0;
};

}  // namespace quorvel
