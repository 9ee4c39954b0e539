#include "tools/p2pclient/device_url.h"

namespace quorvel {
namespace p2pclient {

bool parseDeviceUrl(const std::string& text, DeviceUrl& url, std::string& error) {
  const std::string scheme = "http://";
  if (text.compare(0, scheme.size(), scheme) != 0) {
    error = "the device URL must begin with http://";
    return false;
  }
  const auto slash = text.find_first_of("/?#", scheme.size());
  const std::string authority = text.substr(scheme.size(), slash == std::string::npos ? slash : slash - scheme.size());
  std::string prefix = slash == std::string::npos ? std::string() : text.substr(slash);
  if (prefix.find_first_of("?#") != std::string::npos) {
    error = "the device URL must not have a query or fragment";
    return false;
  }
  while (!prefix.empty() && prefix.back() == '/') prefix.pop_back();

  DeviceUrl parsed;
  std::string portText;
  if (!authority.empty() && authority[0] == '[') {
    const auto close = authority.find(']');
    if (close == std::string::npos) {
      error = "unclosed [ in the device URL";
      return false;
    }
    parsed.host = authority.substr(1, close - 1);
    if (close + 1 < authority.size()) {
      if (authority[close + 1] != ':') {
        error = "unexpected text after ] in the device URL";
        return false;
      }
      portText = authority.substr(close + 2);
    }
  } else {
    const auto colon = authority.find(':');
    parsed.host = authority.substr(0, colon);
    if (colon != std::string::npos) portText = authority.substr(colon + 1);
  }
  if (parsed.host.empty() || authority.find('@') != std::string::npos) {
    error = "the device URL has no host";
    return false;
  }
  if (authority.back() == ':' ||
      (!portText.empty() && (portText.size() > 5 || portText.find_first_not_of("0123456789") != std::string::npos ||
                             std::stoul(portText) == 0 || std::stoul(portText) > 65535))) {
    error = "bad port in the device URL";
    return false;
  }
  parsed.port = portText.empty() ? "80" : portText;
  parsed.hostField = authority;
  parsed.target = prefix + "/sg/sessions";
  url = parsed;
  return true;
}

}  // namespace p2pclient
}  // namespace quorvel
