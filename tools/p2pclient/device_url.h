#pragma once

#include <string>

namespace quorvel {
namespace p2pclient {

// Where the session request goes: the device as outside clients reach it
// through the relay, http://KEY.<relay domain>[:port][/prefix].
struct DeviceUrl {
  std::string host;       // name or address; an IPv6 address without brackets
  std::string port;       // "80" when the URL has none
  std::string hostField;  // the Host header field: host[:port] as written
  std::string target;     // the request target, prefix + "/sg/sessions"
};

// False with a reason in `error` for anything but a plain http URL with a
// host (the dev relay's outside port speaks plain HTTP only).
bool parseDeviceUrl(const std::string& text, DeviceUrl& url, std::string& error);

}  // namespace p2pclient
}  // namespace quorvel
