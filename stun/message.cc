#include "stun/message.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "core/byte_order.h"

namespace quorvel {
namespace stun {

namespace {

constexpr std::size_t MaxLengthField = 0xFFFF;
constexpr std::size_t ScratchSize = 64;
constexpr uint8_t FamilyIpv4 = 1;
constexpr uint8_t FamilyIpv6 = 2;
constexpr int SocketFamilyIpv4 = 2;
constexpr int SocketFamilyIpv6 = 10;

inline std::size_t padded(std::size_t length) { return (length + 3) & ~std::size_t{3}; }

// Bounds-checked forward reader for the attribute walk of parse().
class Reader {
 public:
  Reader(const uint8_t* begin, const uint8_t* end) : position_(begin), end_(end) {}
  bool atEnd() const { return position_ == end_; }
  bool skip(std::size_t n) {
    if (static_cast<std::size_t>(end_ - position_) < n) return false;
    position_ += n;
    return true;
  }
  bool read16(uint16_t& value) {
    if (end_ - position_ < 2) return false;
    value = loadBigEndian16(position_);
    position_ += 2;
    return true;
  }

 private:
  const uint8_t* position_;
  const uint8_t* end_;
};

// The XOR key of an address record: cookie then transaction id; all zero for
// the plain MAPPED-ADDRESS form.
void xorKey(const Message& message, bool xored, uint8_t (&key)[16]) {
  std::memset(key, 0, sizeof key);
  if (!xored) return;
  storeBigEndian32(key, Message::MagicCookie);
  const TransactionId id = message.transactionId();
  std::copy(id.begin(), id.end(), key + 4);
}

SocketAddress decodeAddress(const Message& message, const Attribute& attribute, bool xored) {
  const uint8_t* p = attribute.value.begin;
  const std::size_t size = attribute.value.size();
  if (size < 4) return SocketAddress();
  const uint8_t family = p[1];
  if (family != FamilyIpv4 && family != FamilyIpv6) return SocketAddress();
  uint16_t port = loadBigEndian16(p + 2);
  if (xored) port ^= static_cast<uint16_t>(Message::MagicCookie >> 16);
  const std::size_t addressSize = family == FamilyIpv4 ? 4 : 16;
  if (size - 4 != addressSize) return SocketAddress();
  uint8_t key[16];
  xorKey(message, xored, key);
  uint8_t address[16];
  for (std::size_t i = 0; i < addressSize; ++i) address[i] = p[4 + i] ^ key[i];
  return SocketAddress(family == FamilyIpv4 ? SocketFamilyIpv4 : SocketFamilyIpv6, address, addressSize, port);
}

}  // namespace

TransactionId makeTransactionId(RandomSource& random) {
  TransactionId id;
  random.fill(id.data(), static_cast<int>(id.size()));
  return id;
}

uint16_t encodeMessageType(int messageClass, int method) {
  const unsigned m = static_cast<unsigned>(method), c = static_cast<unsigned>(messageClass);
  return static_cast<uint16_t>((m & 0x000F) | ((m & 0x0070) << 1) | ((m & 0x0F80) << 2) | ((c & 1) << 4) |
                               ((c & 2) << 7));
}

int decodeMessageClass(uint16_t type) { return ((type >> 7) & 2) | ((type >> 4) & 1); }

int decodeMessageMethod(uint16_t type) { return ((type >> 1) & 0x0070) | ((type >> 2) & 0x0F80) | (type & 0x000F); }

Message::Message() : bytes_(HeaderSize, 0) {}

Message::Message(int messageClass, int method, const uint8_t* idBegin, const uint8_t* idEnd) {
  if (idEnd - idBegin != 12) throw std::logic_error("Transaction ID is wrong size");
  writeHeader(messageClass, method, idBegin);
}

Message::Message(int messageClass, int method, const TransactionId& id) {
  writeHeader(messageClass, method, id.data());
}

void Message::writeHeader(int messageClass, int method, const uint8_t* id) {
  bytes_.assign(HeaderSize, 0);
  storeBigEndian16(bytes_.data(), encodeMessageType(messageClass, method));
  storeBigEndian32(bytes_.data() + 4, MagicCookie);
  std::memcpy(bytes_.data() + 8, id, 12);
}

bool Message::parse(const uint8_t* data, std::size_t size) {
  bytes_.assign(data, data + size);
  bool good = size >= HeaderSize && (data[0] & 0xC0) == 0 && loadBigEndian16(data + 2) <= size - HeaderSize;
  if (good) {
    // The whole datagram must be records, padding included, not only the
    // part the length field declares.
    Reader reader(data + HeaderSize, data + size);
    while (good && !reader.atEnd()) {
      uint16_t length = 0;
      good = reader.skip(2) && reader.read16(length) && reader.skip(padded(length));
    }
  }
  if (!good) bytes_.clear();
  return good;
}

int Message::messageClass() const { return valid() ? decodeMessageClass(loadBigEndian16(data())) : 0; }

int Message::method() const { return valid() ? decodeMessageMethod(loadBigEndian16(data())) : 0; }

TransactionId Message::transactionId() const {
  TransactionId id{};
  if (valid()) std::copy(data() + 8, data() + 20, id.begin());
  return id;
}

void Message::setLengthField(uint16_t length) {
  if (valid()) storeBigEndian16(bytes_.data() + 2, length);
}

bool Message::addAttribute(uint16_t type, const uint8_t* begin, const uint8_t* end) {
  const std::size_t length = static_cast<std::size_t>(end - begin);
  if (bytes_.size() < HeaderSize) bytes_.resize(HeaderSize, 0);
  if (bytes_.size() - HeaderSize + 4 + padded(length) > MaxLengthField) return false;
  const std::size_t at = bytes_.size();
  bytes_.resize(at + 4 + padded(length), 0);
  storeBigEndian16(bytes_.data() + at, type);
  storeBigEndian16(bytes_.data() + at + 2, static_cast<uint16_t>(length));
  if (length) std::memcpy(bytes_.data() + at + 4, begin, length);
  setLengthField(static_cast<uint16_t>(bytes_.size() - HeaderSize));
  return true;
}

bool Message::addStringAttribute(uint16_t type, const std::string& text) {
  const uint8_t* p = reinterpret_cast<const uint8_t*>(text.data());
  return addAttribute(type, p, p + text.size());
}

bool Message::addIntegerAttribute(uint16_t type, std::size_t width, uint32_t value) {
  return addIntegerAttribute(type, width, 0, value);
}

bool Message::addIntegerAttribute(uint16_t type, std::size_t width, uint32_t high, uint32_t low) {
  if (width > 16) throw std::logic_error("Integer length too big");
  uint8_t value[16] = {};
  const uint64_t whole = (uint64_t{high} << 32) | low;
  for (std::size_t i = 0; i < width && i < 8; ++i) value[width - 1 - i] = static_cast<uint8_t>(whole >> (8 * i));
  return addAttribute(type, value, value + width);
}

std::optional<Attribute> Message::findAttribute(uint16_t type) const {
  if (!valid()) return std::nullopt;
  std::size_t offset = HeaderSize;
  const std::size_t size = bytes_.size();
  while (size - offset >= 4) {
    const uint16_t recordType = loadBigEndian16(data() + offset);
    const std::size_t length = loadBigEndian16(data() + offset + 2);
    if (length > size - offset - 4) break;
    if (recordType == type) return Attribute{recordType, {data() + offset + 4, data() + offset + 4 + length}, offset};
    offset += 4 + padded(length);
    if (offset > size) break;
  }
  return std::nullopt;
}

bool Message::addXorMappedAddress(const SocketAddress& address) {
  uint8_t value[ScratchSize] = {};
  const std::size_t addressSize = std::min<std::size_t>(address.addressSize(), 16);
  value[1] = address.family() == SocketFamilyIpv4 ? FamilyIpv4 : FamilyIpv6;
  storeBigEndian16(value + 2, static_cast<uint16_t>(address.port() ^ (MagicCookie >> 16)));
  uint8_t key[16];
  xorKey(*this, true, key);
  const uint8_t* bytes = address.addressBytes();
  for (std::size_t i = 0; i < addressSize; ++i) value[4 + i] = bytes[i] ^ key[i];
  return addAttribute(XorMappedAddress, value, value + 4 + addressSize);
}

SocketAddress Message::getMappedAddress() const {
  if (std::optional<Attribute> xored = findAttribute(XorMappedAddress)) return decodeAddress(*this, *xored, true);
  if (std::optional<Attribute> plain = findAttribute(MappedAddress)) return decodeAddress(*this, *plain, false);
  return SocketAddress();
}

bool Message::addErrorCode(int code, const std::string& reason) {
  if (code < 300 || code > 699) throw std::invalid_argument("Invalid error code");
  uint8_t value[ScratchSize] = {};
  value[2] = static_cast<uint8_t>(code / 100);
  value[3] = static_cast<uint8_t>(code % 100);
  const std::size_t reasonSize = std::min(reason.size(), ScratchSize - 4);
  std::memcpy(value + 4, reason.data(), reasonSize);
  return addAttribute(ErrorCode, value, value + 4 + reasonSize);
}

int Message::getErrorCode() const {
  ByteRange ignored;
  return getErrorCode(ignored);
}

int Message::getErrorCode(ByteRange& reason) const {
  reason = ByteRange();
  const std::optional<Attribute> record = findAttribute(ErrorCode);
  if (!record || record->value.size() < 4) return 0;
  reason = {record->value.begin + 4, record->value.end};
  return record->value.begin[2] * 100 + record->value.begin[3];
}

}  // namespace stun
}  // namespace quorvel
