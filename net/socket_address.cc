#include "net/socket_address.h"

#include <cstring>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>

#include "core/byte_order.h"

namespace quorvel {
namespace {

static_assert(sizeof(sockaddr_storage) == SocketAddress::StorageSize, "platform address storage");

const char InvalidFamily[] = "Invalid SocketAddress family";

// Offsets within the platform structures (the same on every Linux target).
constexpr std::size_t PortOffset = 2;
constexpr std::size_t V4AddressOffset = 4;
constexpr std::size_t V6FlowOffset = 4;
constexpr std::size_t V6AddressOffset = 8;
constexpr std::size_t V6ScopeOffset = 24;

std::size_t storedLength(int family) {
  switch (family) {
    case AF_INET:
      return sizeof(sockaddr_in);
    case AF_INET6:
      return sizeof(sockaddr_in6);
    case SocketAddress::FamilySpecial:
      return 4;
  }
  return 0;
}

}  // namespace

SocketAddress::SocketAddress() { clear(); }

void SocketAddress::clear() {
  std::memset(&storage_, 0, sizeof(storage_));
  length_ = 0;
}

void SocketAddress::setFamilyAndPort(int family, uint16_t port) {
  storage_.ss_family = static_cast<sa_family_t>(family);
  storeBigEndian16(bytes() + PortOffset, port);
  length_ = static_cast<uint32_t>(storedLength(family));
}

SocketAddress::SocketAddress(int family, const std::string& address, uint16_t port) {
  clear();
  uint8_t* target;
  if (family == AF_INET) {
    target = bytes() + V4AddressOffset;
  } else if (family == AF_INET6) {
    target = bytes() + V6AddressOffset;
  } else if (family == FamilySpecial) {
    setFamilyAndPort(family, port);
    return;
  } else {
    throw std::invalid_argument(InvalidFamily);
  }
  if (inet_pton(family, address.c_str(), target) != 1) {
    clear();
    throw std::invalid_argument("Invalid SocketAddress string");
  }
  setFamilyAndPort(family, port);
}

SocketAddress::SocketAddress(int family, const uint8_t* address, std::size_t size, uint16_t port) {
  clear();
  if (family == AF_INET) {
    if (size != 4) throw std::invalid_argument("IPv4 address is wrong size");
    std::memcpy(bytes() + V4AddressOffset, address, 4);
  } else if (family == AF_INET6) {
    if (size != 16) throw std::invalid_argument("IPv6 address is wrong size");
    std::memcpy(bytes() + V6AddressOffset, address, 16);
  } else {
    throw std::invalid_argument(InvalidFamily);
  }
  setFamilyAndPort(family, port);
}

SocketAddress::SocketAddress(int family, SpecialAddress special, uint16_t port) {
  clear();
  if (family != AF_INET && family != AF_INET6) throw std::invalid_argument(InvalidFamily);
  if (special != Any && special != Loopback) throw std::invalid_argument("Invalid special address");
  if (special == Loopback) {
    if (family == AF_INET) {
      storeBigEndian32(bytes() + V4AddressOffset, INADDR_LOOPBACK);
    } else {
      bytes()[V6AddressOffset + 15] = 1;
    }
  }
  setFamilyAndPort(family, port);
}

SocketAddress::SocketAddress(const SocketAddress& other, uint16_t port)
    : SocketAddress(other.family(), other.addressBytes(), other.addressSize(), port) {}

SocketAddress::SocketAddress(const sockaddr* raw, std::size_t length) {
  clear();
  if (length > StorageSize) throw std::invalid_argument("Address length too long");
  std::memcpy(&storage_, raw, length);
  length_ = static_cast<uint32_t>(length);
}

uint16_t SocketAddress::port() const {
  const int f = family();
  if (f == AF_INET || f == AF_INET6 || f == FamilySpecial) return loadBigEndian16(bytes() + PortOffset);
  return 0;
}

void SocketAddress::setPort(uint16_t port) {
  const int f = family();
  if (f == AF_INET || f == AF_INET6 || f == FamilySpecial) storeBigEndian16(bytes() + PortOffset, port);
}

const uint8_t* SocketAddress::addressBytes() const {
  switch (family()) {
    case AF_INET:
      return bytes() + V4AddressOffset;
    case AF_INET6:
      return bytes() + V6AddressOffset;
  }
  return nullptr;
}

std::size_t SocketAddress::addressSize() const {
  switch (family()) {
    case AF_INET:
      return 4;
    case AF_INET6:
      return 16;
  }
  return 0;
}

std::string SocketAddress::addressText() const {
  const uint8_t* address = addressBytes();
  if (!address) return std::string();
  char text[256];
  if (!inet_ntop(family(), address, text, sizeof(text))) return std::string();
  return text;
}

std::string SocketAddress::toString() const {
  const int f = family();
  if (f == AF_INET) return addressText() + ":" + std::to_string(port());
  if (f == AF_INET6) return "[" + addressText() + "]:" + std::to_string(port());
  if (f == FamilySpecial) return "p2p:" + std::to_string(port());
  if (f == 0) return "(none)";
  return "family " + std::to_string(f);
}

bool SocketAddress::isLoopback() const {
  if (family() == AF_INET) return (bytes()[V4AddressOffset] & 0x7f) == 127;
  if (family() == AF_INET6) {
    static const uint8_t loopback[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    return std::memcmp(bytes() + V6AddressOffset, loopback, 16) == 0;
  }
  return false;
}

bool SocketAddress::operator==(const SocketAddress& other) const {
  return length_ == other.length_ && std::memcmp(bytes(), other.bytes(), length_) == 0;
}

bool SocketAddress::operator<(const SocketAddress& other) const {
  if (family() != other.family()) return family() < other.family();
  const uint8_t* a = bytes();
  const uint8_t* b = other.bytes();
  switch (family()) {
    case AF_INET6: {
      const std::pair<std::size_t, std::size_t> fields[] = {
          {V6AddressOffset, 4}, {PortOffset, 2}, {V6FlowOffset, 4}, {V6ScopeOffset, 4}};
      for (const auto& field : fields) {
        const int order = std::memcmp(a + field.first, b + field.first, field.second);
        if (order != 0) return order < 0;
      }
      return false;
    }
    case FamilySpecial:
      return std::memcmp(a + PortOffset, b + PortOffset, 2) < 0;
    case AF_INET: {
      const int order = std::memcmp(a + V4AddressOffset, b + V4AddressOffset, 4);
      if (order != 0) return order < 0;
      return std::memcmp(a + PortOffset, b + PortOffset, 2) != 0;
    }
  }
  const std::size_t after = sizeof(storage_.ss_family);
  std::size_t n = length_;
  if (n > StorageSize - after) n = StorageSize - after;
  return std::memcmp(a + after, b + after, n) < 0;
}

}  // namespace quorvel
