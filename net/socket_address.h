#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>

#include <sys/socket.h>

namespace quorvel {

// An endpoint kept in the platform's own socket address layout, so that it
// goes to socket calls without conversion: IPv4 (family 2), IPv6 (10), the
// point-to-point family 255 used for SCTP carried over an ICE path (just a
// port), or any raw address the system hands in.
class SocketAddress {
 public:
  static constexpr int FamilySpecial = 255;
  static constexpr std::size_t StorageSize = 128;

  enum SpecialAddress { Any = 0, Loopback = 1 };

  // The empty address: family 0, length 0.
  SocketAddress();
  // Family 2 (dotted text) or 10 (IPv6 text); family 255 ignores the text.
  // Throws std::invalid_argument "Invalid SocketAddress family" / "Invalid
  // SocketAddress string".
  SocketAddress(int family, const std::string& address, uint16_t port);
  // Raw address bytes: 4 for family 2 ("IPv4 address is wrong size"), 16 for
  // family 10 ("IPv6 address is wrong size").
  SocketAddress(int family, const uint8_t* address, std::size_t size, uint16_t port);
  // The unspecified or loopback address of family 2 or 10 ("Invalid special
  // address" for other values).
  SocketAddress(int family, SpecialAddress special, uint16_t port);
  // The IPv4 or IPv6 address of `other` with another port.
  SocketAddress(const SocketAddress& other, uint16_t port);
  // A platform address as the system gave it ("Address length too long" above
  // 128 bytes).
  SocketAddress(const sockaddr* raw, std::size_t length);

  SocketAddress(const SocketAddress&) = default;
  SocketAddress& operator=(const SocketAddress&) = default;

  void clear();

  bool valid() const { return family() != 0; }
  int family() const { return storage_.ss_family; }
  // Host order; 0 for families without a port.
  uint16_t port() const;
  // Families 2, 10 and 255 only; others are left as they are.
  void setPort(uint16_t port);

  // The 4 or 16 address bytes (null for other families).
  const uint8_t* addressBytes() const;
  std::size_t addressSize() const;
  const uint8_t* addressEnd() const { return addressBytes() + addressSize(); }

  // For socket calls.
  const sockaddr* raw() const { return reinterpret_cast<const sockaddr*>(&storage_); }
  sockaddr* raw() { return reinterpret_cast<sockaddr*>(&storage_); }
  std::size_t length() const { return length_; }
  void setLength(std::size_t length) { length_ = static_cast<uint32_t>(length); }

  // Dotted IPv4 or IPv6 text without the port; empty for other families.
  std::string addressText() const;
  // The form used in log lines: "192.0.2.1:80", "[2001:db8::1]:443" (IPv6 in
  // brackets, scope id not shown), "p2p:5000" for the point-to-point family,
  // "(none)" for the empty address and "family N" for any other.
  std::string toString() const;

  // 127.x.x.x (and, as the top bit is ignored, 255.x.x.x), or ::1.
  bool isLoopback() const;

  // Equal lengths and equal meaningful bytes.
  bool operator==(const SocketAddress& other) const;
  bool operator!=(const SocketAddress& other) const { return !(*this == other); }
  // Deliberately loose ordering kept for the containers that rely on it: IPv6
  // compares only the first 4 address bytes, then port, flow information and
  // scope; two IPv4 addresses that differ only in port are each less than the
  // other.
  bool operator<(const SocketAddress& other) const;

 private:
  const uint8_t* bytes() const { return reinterpret_cast<const uint8_t*>(&storage_); }
  uint8_t* bytes() { return reinterpret_cast<uint8_t*>(&storage_); }
  void setFamilyAndPort(int family, uint16_t port);

  sockaddr_storage storage_;
  uint32_t length_;
};

// For test output. A template, so that nothing in the daemon links iostreams.
template <class Char, class Traits>
std::basic_ostream<Char, Traits>& operator<<(std::basic_ostream<Char, Traits>& out, const SocketAddress& address) {
  return out << address.toString();
}

}  // namespace quorvel
