#pragma once

#include <chrono>
#include <stdexcept>
#include <string>

#include "tools/p2pclient/device_url.h"

namespace quorvel {
namespace p2pclient {

// The relay could not be reached or gave no whole answer (name, connection,
// time-out, connection closed); the text says which, for a person.
class RelayError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct SessionAnswer {
  unsigned status = 0;
  std::string reason;
  std::string body;
};

// POSTs the description text to the device's "/sg/sessions" through the
// relay and waits for the whole answer, at most `timeout` in all (name
// lookup, connection, request and answer). Every resolved address is tried
// in turn. Throws RelayError.
SessionAnswer postSession(const DeviceUrl& url, const std::string& description, std::chrono::milliseconds timeout);

}  // namespace p2pclient
}  // namespace quorvel
