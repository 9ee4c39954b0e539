#include <cstring>
#include <stdexcept>

#include "net/async_socket.h"

namespace quorvel {
namespace {

// Numbers of the IPv4 level and its membership options, as the socket layer
// knows them.
constexpr int IpLevel = 0;
constexpr int AddMembership = 35;
constexpr int DropMembership = 36;

void setMembership(AsyncSocket& socket, const SocketAddress& group, const SocketAddress& interfaceAddress,
                   int option, const char* error) {
  // An IPv4 address always holds its four bytes.
  if (group.family() != 2 || interfaceAddress.family() != 2) throw std::invalid_argument(error);
  uint8_t request[8];
  std::memcpy(request, group.addressBytes(), 4);
  std::memcpy(request + 4, interfaceAddress.addressBytes(), 4);
  socket.setOption(IpLevel, option, request, sizeof(request));
}

}  // namespace

void joinMulticastGroup(AsyncSocket& socket, const SocketAddress& group, const SocketAddress& interfaceAddress) {
  setMembership(socket, group, interfaceAddress, AddMembership, "joinMulticastGroup: Address types not supported");
}

void leaveMulticastGroup(AsyncSocket& socket, const SocketAddress& group, const SocketAddress& interfaceAddress) {
  setMembership(socket, group, interfaceAddress, DropMembership, "leaveMulticastGroup: Address types not supported");
}

}  // namespace quorvel
