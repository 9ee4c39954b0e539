#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "net/socket_address.h"

namespace quorvel {

// One address of one local interface.
struct InterfaceInfo {
  std::string name;
  SocketAddress address;  // port 0; IPv6 keeps its scope id
  bool up = false;
  bool loopback = false;
};

// The interface list could not be read; carries the system's error number.
class NetInfoError : public std::runtime_error {
 public:
  NetInfoError(const std::string& message, int32_t error) : std::runtime_error(message), error_(error) {}
  int32_t error() const { return error_; }

 private:
  int32_t error_;
};

class LocalNetworkInfo {
 public:
  virtual ~LocalNetworkInfo() = default;
  // Appends every IPv4 and IPv6 interface address in the system's order,
  // down and loopback ones included. Throws NetInfoError (list untouched).
  virtual void getInterfaces(std::vector<InterfaceInfo>& interfaces) = 0;
  // The first address of `family` on a non-loopback interface (up or not), or
  // an empty InterfaceInfo. Throws NetInfoError.
  virtual InterfaceInfo getInterface(int family) = 0;
};

class LinuxLocalNetworkInfo : public LocalNetworkInfo {
 public:
  void getInterfaces(std::vector<InterfaceInfo>& interfaces) override;
  InterfaceInfo getInterface(int family) override;
};

}  // namespace quorvel
