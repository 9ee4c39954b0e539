#include "sctp/conn_address.h"

#include <cstring>
#include <stdexcept>

#include <arpa/inet.h>

namespace quorvel {

sockaddr_conn toConnAddress(const SocketAddress& address, uintptr_t connData) {
  if (address.family() != SocketAddress::FamilySpecial) throw std::invalid_argument("Unsupported address type");
  sockaddr_conn conn;
  std::memset(&conn, 0, sizeof conn);
  conn.sconn_family = AF_CONN;
  conn.sconn_port = htons(address.port());
  conn.sconn_addr = reinterpret_cast<void*>(connData);
  return conn;
}

SocketAddress fromConnAddress(const sockaddr_conn& address) {
  return SocketAddress(SocketAddress::FamilySpecial, std::string(), ntohs(address.sconn_port));
}

namespace {

SocketAddress firstConnAddress(struct sockaddr* addresses, int count) {
  SocketAddress result;
  if (count > 0 && addresses && addresses->sa_family == AF_CONN) {
    result = fromConnAddress(*reinterpret_cast<const sockaddr_conn*>(addresses));
  }
  return result;
}

}  // namespace

SocketAddress stackLocalAddress(struct socket* handle) {
  struct sockaddr* addresses = nullptr;
  const int count = usrsctp_getladdrs(handle, 0, &addresses);
  SocketAddress result = firstConnAddress(addresses, count);
  if (count > 0) usrsctp_freeladdrs(addresses);
  return result;
}

SocketAddress stackPeerAddress(struct socket* handle) {
  struct sockaddr* addresses = nullptr;
  const int count = usrsctp_getpaddrs(handle, 0, &addresses);
  SocketAddress result = firstConnAddress(addresses, count);
  if (count > 0) usrsctp_freepaddrs(addresses);
  return result;
}

}  // namespace quorvel
