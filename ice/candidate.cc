#include "ice/candidate.h"

namespace quorvel {
namespace ice {
namespace {

struct TypeEntry {
  const char* text;
  uint32_t preference;
};

// Indexed by CandidateType. Peer reflexive ranks above server reflexive
// (RFC 5245 section 4.1.2.2); relayed candidates are never gathered here.
constexpr TypeEntry Types[] = {{"host", 126}, {"srflx", 100}, {"prflx", 110}, {"relay", 0}};
constexpr int TypeCount = sizeof Types / sizeof Types[0];

bool known(CandidateType type) {
  const int index = static_cast<int>(type);
  return index >= 0 && index < TypeCount;
}

}  // namespace

uint32_t typePreference(CandidateType type) { return known(type) ? Types[static_cast<int>(type)].preference : 0; }

uint32_t computePriority(CandidateType type, uint32_t localPreference) {
  return (typePreference(type) << 24) + (localPreference << 8) + 1;
}

std::string candidateTypeText(CandidateType type) {
  if (!known(type)) return std::to_string(static_cast<int>(type));
  return Types[static_cast<int>(type)].text;
}

bool parseCandidateType(const std::string& text, CandidateType& type) {
  for (int i = 0; i < TypeCount; ++i) {
    if (text == Types[i].text) {
      type = static_cast<CandidateType>(i);
      return true;
    }
  }
  return false;
}

}  // namespace ice
}  // namespace quorvel
