#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "ice/candidate.h"
#include "stun/sha1.h"

namespace quorvel {
namespace ice {

// The text by which the two ends exchange candidates and credentials: one
// "candidate=" line per candidate, then "userfrag=" and "password=".
struct SessionDescription {
  std::vector<CandidatePtr> candidates;
  std::string userFragment;
  std::string password;
};

// "candidate=FOUNDATION 1 UDP PRIORITY ADDRESS PORT typ TYPE\n" per
// candidate, then "userfrag=...\n" and "password=...\n".
std::string printDescription(const SessionDescription& description);

// Adds what one line says to `description`. Returns false for a malformed
// line; throws BadFormatError "Badly formatted number field" or "Invalid
// candidate type", and std::invalid_argument for an address that does not
// parse. Blank lines and unknown keys are ignored.
bool parseDescriptionLine(const std::string& line, SessionDescription& description);

// Every "\n"-separated line of `text`; false as soon as one is malformed.
// Throws as parseDescriptionLine does.
bool parseDescription(const std::string& text, SessionDescription& description);

// The longest password that can key MESSAGE-INTEGRITY: the HMAC takes keys
// of at most one block.
constexpr std::size_t MaxPasswordLength = stun::Sha1Hash::BlockSize;

// Whether a session could authenticate with a remote side that sent this:
// without a user fragment no check can name it, without a password its
// checks and answers would go unsigned and forged answers would pass, and
// a password longer than the HMAC's key cannot sign anything. RFC 8445's
// minimum lengths (4 and 22 characters) are not asked for: a short
// credential weakens only the client's own session, and clients that send
// them work today.
bool canAuthenticate(const SessionDescription& description);

}  // namespace ice
}  // namespace quorvel
