// parse() and every accessor on whatever it accepts: nothing may read outside
// the message, and every record found must lie inside it.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "stun/message.h"

using quorvel::stun::Attribute;
using quorvel::stun::ByteRange;
using quorvel::stun::Message;

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

void checkInside(const Message& message, const Attribute& attribute) {
  const uint8_t* begin = message.data();
  const uint8_t* end = begin + message.size();
  require(attribute.value.begin >= begin + 24 && attribute.value.end <= end);
  require(attribute.value.begin <= attribute.value.end);
  require(begin + attribute.offset + 4 == attribute.value.begin);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  Message message;
  const bool valid = message.parse(data, size);
  require(valid == message.valid());
  require(valid ? message.size() == size : message.size() == 0);

  (void)message.messageClass();
  (void)message.method();
  (void)message.transactionId();
  const uint16_t types[] = {Message::MappedAddress, Message::Username,  Message::MessageIntegrity,
                            Message::ErrorCode,     Message::XorMappedAddress, Message::Priority,
                            Message::UseCandidate,  Message::Software,  Message::Fingerprint,
                            Message::IceControlled, Message::IceControlling, 0x0000, 0xFFFF};
  for (uint16_t type : types) {
    if (const auto attribute = message.findAttribute(type)) {
      require(attribute->type == type);
      checkInside(message, *attribute);
    }
  }
  if (size >= 22) {
    // A type taken from the input, so that any record can be reached.
    const uint16_t type = static_cast<uint16_t>((data[size - 2] << 8) | data[size - 1]);
    if (const auto attribute = message.findAttribute(type)) checkInside(message, *attribute);
  }

  const quorvel::SocketAddress mapped = message.getMappedAddress();
  require(!mapped.valid() || mapped.family() == 2 || mapped.family() == 10);
  ByteRange reason;
  const int code = message.getErrorCode(reason);
  require(code == 0 || reason.end == message.findAttribute(Message::ErrorCode)->value.end);

  // Appending keeps the header's length in step with the bytes.
  Message grown = message;
  if (grown.addStringAttribute(Message::Username, "fuzz")) {
    require(((grown.data()[2] << 8) | grown.data()[3]) == static_cast<int>(grown.size() - 20));
    require(grown.findAttribute(Message::Username).has_value());
  }
  return 0;
}
