#include "sctp/stack_calls.h"

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

// The first AF_CONN address of a getladdrs/getpaddrs answer, which is freed.
// The stack hands out a list only when it allocated one, even an empty one (a
// zeroed block), and leaves the pointer alone when it has none or fails; so
// the pointer, not the count, says whether there is something to free.
SocketAddress firstConnAddress(struct sockaddr* addresses, void (*release)(struct sockaddr*)) {
  SocketAddress result;
  if (!addresses) return result;
  if (addresses->sa_family == AF_CONN) result = fromConnAddress(*reinterpret_cast<const sockaddr_conn*>(addresses));
  release(addresses);
  return result;
}

}  // namespace

SocketAddress stackLocalAddress(struct socket* handle) {
  struct sockaddr* addresses = nullptr;
  usrsctp_getladdrs(handle, 0, &addresses);
  return firstConnAddress(addresses, usrsctp_freeladdrs);
}

SocketAddress stackPeerAddress(struct socket* handle) {
  struct sockaddr* addresses = nullptr;
  usrsctp_getpaddrs(handle, 0, &addresses);
  return firstConnAddress(addresses, usrsctp_freepaddrs);
}

ssize_t stackReceive(struct socket* handle, void* buffer, std::size_t size, int& flags, uint16_t& stream) {
  struct sctp_rcvinfo info;
  socklen_t infoLength = sizeof info;
  unsigned int infoType = 0;
  struct sockaddr_conn from;
  socklen_t fromLength = sizeof from;
  flags = 0;
  const ssize_t got = usrsctp_recvv(handle, buffer, size, reinterpret_cast<sockaddr*>(&from), &fromLength, &info,
                                    &infoLength, &infoType, &flags);
  if (got > 0 && infoType == SCTP_RECVV_RCVINFO) stream = info.rcv_sid;
  return got;
}

}  // namespace quorvel
