#pragma once

#include <memory>
#include <string>

#include "http/web_client.h"

namespace quorvel {

// The process's HTTP/1.1 client, as the relay client, the forwarder and the
// stream relays see it.
class HttpClient {
 public:
  virtual ~HttpClient() = default;

  // `hostValue` goes into the Host field; `connectHost` is where to connect:
  // "host", "host:port" or "[v6]:port" (without a port, the scheme's). The
  // caller installs its handlers on the request and then sends it.
  virtual std::shared_ptr<WebClientRequest> createRequest(const std::string& method, const std::string& scheme,
                                                          const std::string& hostValue,
                                                          const std::string& connectHost,
                                                          const std::string& path) = 0;
};

}  // namespace quorvel
