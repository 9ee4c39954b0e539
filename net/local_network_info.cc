#include "net/local_network_info.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <cerrno>
#include <memory>

namespace quorvel {
namespace {

using InterfaceList = std::unique_ptr<ifaddrs, void (*)(ifaddrs*)>;

// Freed on every way out, exceptions included.
InterfaceList readInterfaces() {
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) {
    const int error = errno;
    throw NetInfoError("Failed to get interface addresses (" + std::to_string(error) + ")", error);
  }
  return InterfaceList(list, ::freeifaddrs);
}

bool usable(const ifaddrs* entry) {
  return entry->ifa_addr && (entry->ifa_addr->sa_family == AF_INET || entry->ifa_addr->sa_family == AF_INET6);
}

InterfaceInfo describe(const ifaddrs* entry) {
  InterfaceInfo info;
  info.name = entry->ifa_name ? entry->ifa_name : "";
  const std::size_t length = entry->ifa_addr->sa_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
  info.address = SocketAddress(entry->ifa_addr, length);
  info.up = (entry->ifa_flags & IFF_UP) != 0;
  info.loopback = (entry->ifa_flags & IFF_LOOPBACK) != 0;
  return info;
}

}  // namespace

void LinuxLocalNetworkInfo::getInterfaces(std::vector<InterfaceInfo>& interfaces) {
  InterfaceList list = readInterfaces();
  std::vector<InterfaceInfo> found;
  for (const ifaddrs* entry = list.get(); entry; entry = entry->ifa_next) {
    if (usable(entry)) found.push_back(describe(entry));
  }
  interfaces.insert(interfaces.end(), found.begin(), found.end());
}

InterfaceInfo LinuxLocalNetworkInfo::getInterface(int family) {
  InterfaceList list = readInterfaces();
  for (const ifaddrs* entry = list.get(); entry; entry = entry->ifa_next) {
    if (usable(entry) && entry->ifa_addr->sa_family == family && !(entry->ifa_flags & IFF_LOOPBACK)) {
      return describe(entry);
    }
  }
  return InterfaceInfo();
}

}  // namespace quorvel
