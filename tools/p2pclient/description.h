#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace quorvel {
namespace p2pclient {

// One candidate line of the device's session text, kept as text fields so
// that this half knows nothing of the ICE library that uses it.
struct CandidateLine {
  std::string foundation;
  std::uint32_t priority = 0;
  std::string address;  // IPv4 dotted quad or IPv6 text, no port
  std::uint16_t port = 0;
  std::string type;  // "host", "srflx", "prflx" or "relay"

  bool operator==(const CandidateLine& other) const;
};

// The text both sides of "/sg/sessions" exchange: one
// "candidate=FOUNDATION 1 UDP PRIORITY ADDRESS PORT typ TYPE" line per
// candidate, then "userfrag=" and "password=" lines.
struct Description {
  std::vector<CandidateLine> candidates;
  std::string userFragment;
  std::string password;
};

std::string printDescription(const Description& description);

// Reads a description the way the device does: empty lines and unknown keys
// are skipped, a later userfrag or password wins, component 1 and UDP only.
// Stricter than the device in one way: a text without credentials or without
// candidates is refused too, since the ICE agent cannot use it. Returns
// false with a one-line reason in `error`.
bool parseDescription(const std::string& text, Description& description, std::string& error);

}  // namespace p2pclient
}  // namespace quorvel
