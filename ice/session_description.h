#pragma once

#include <string>
#include <vector>

#include "ice/candidate.h"

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

}  // namespace ice
}  // namespace quorvel
