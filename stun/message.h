#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/random_source.h"
#include "net/socket_address.h"

namespace quorvel {
namespace stun {

using TransactionId = std::array<uint8_t, 12>;

// A contiguous range of bytes inside a message (valid until it is changed).
struct ByteRange {
  const uint8_t* begin = nullptr;
  const uint8_t* end = nullptr;
  std::size_t size() const { return static_cast<std::size_t>(end - begin); }
};

struct Attribute {
  uint16_t type = 0;
  ByteRange value;
  // Where the record's 4-byte head starts, counted from the message start.
  std::size_t offset = 0;
};

// One STUN message held only in its wire form: accessors read the bytes and
// every add appends a record and rewrites the header's length, so the message
// is well-formed after each step (integrity and fingerprint depend on that).
class Message {
 public:
  enum Class { Request = 0, Indication = 1, SuccessResponse = 2, ErrorResponse = 3 };

  static constexpr int MethodBinding = 1;
  static constexpr std::size_t HeaderSize = 20;
  static constexpr uint32_t MagicCookie = 0x2112A442u;

  static constexpr uint16_t MappedAddress = 0x0001;
  static constexpr uint16_t Username = 0x0006;
  static constexpr uint16_t MessageIntegrity = 0x0008;
  static constexpr uint16_t ErrorCode = 0x0009;
  static constexpr uint16_t XorMappedAddress = 0x0020;
  static constexpr uint16_t Priority = 0x0024;
  static constexpr uint16_t UseCandidate = 0x0025;
  static constexpr uint16_t Software = 0x8022;
  static constexpr uint16_t Fingerprint = 0x8028;
  static constexpr uint16_t IceControlled = 0x8029;
  static constexpr uint16_t IceControlling = 0x802A;

  // An all-zero header: a placeholder to parse into or to copy over.
  Message();
  // Throws std::logic_error "Transaction ID is wrong size" unless the id is
  // exactly 12 bytes.
  Message(int messageClass, int method, const uint8_t* idBegin, const uint8_t* idEnd);
  Message(int messageClass, int method, const TransactionId& id);

  // Takes a copy of a received datagram; leaves the message invalid (empty)
  // when the datagram is not well-formed. Returns valid().
  bool parse(const uint8_t* data, std::size_t size);

  bool valid() const { return bytes_.size() >= HeaderSize; }
  int messageClass() const;
  int method() const;
  TransactionId transactionId() const;

  // The wire form.
  const uint8_t* data() const { return bytes_.data(); }
  std::size_t size() const { return bytes_.size(); }
  const std::vector<uint8_t>& bytes() const { return bytes_; }

  // Returns false, leaving the message unchanged, when the value or the whole
  // message would no longer fit the 16-bit length fields.
  bool addAttribute(uint16_t type, const uint8_t* begin, const uint8_t* end);
  bool addAttribute(uint16_t type) { return addAttribute(type, nullptr, nullptr); }
  bool addStringAttribute(uint16_t type, const std::string& text);
  // Big-endian in `width` bytes (leading zeros above 4 or 8 bytes); widths over
  // 16 throw std::logic_error "Integer length too big".
  bool addIntegerAttribute(uint16_t type, std::size_t width, uint32_t value);
  bool addIntegerAttribute(uint16_t type, std::size_t width, uint32_t high, uint32_t low);

  // The first record of that type only.
  std::optional<Attribute> findAttribute(uint16_t type) const;

  bool addXorMappedAddress(const SocketAddress& address);
  // XOR-MAPPED-ADDRESS when present (even when it does not decode), else
  // MAPPED-ADDRESS, else the empty address.
  SocketAddress getMappedAddress() const;

  // 300-699 only (std::invalid_argument "Invalid error code"); the reason is
  // cut to 60 bytes.
  bool addErrorCode(int code, const std::string& reason);
  // 0 when there is no usable ERROR-CODE record.
  int getErrorCode() const;
  int getErrorCode(ByteRange& reason) const;

  // For the integrity and fingerprint code, which patch bytes in place.
  uint8_t* mutableData() { return bytes_.data(); }
  void setLengthField(uint16_t length);

 private:
  void writeHeader(int messageClass, int method, const uint8_t* id);

  std::vector<uint8_t> bytes_;
};

// Messages travel between the agent, its callbacks and the session shared.
using MessagePtr = std::shared_ptr<Message>;

// A fresh id for a new transaction.
TransactionId makeTransactionId(RandomSource& random);

uint16_t encodeMessageType(int messageClass, int method);
int decodeMessageClass(uint16_t type);
int decodeMessageMethod(uint16_t type);

}  // namespace stun
}  // namespace quorvel
