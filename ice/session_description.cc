#include "ice/session_description.h"

#include <cstdint>

#include "core/errors.h"
#include "http/string_section.h"

namespace quorvel {
namespace ice {
namespace {

constexpr std::size_t CandidateTokens = 8;
constexpr uint32_t MaxPort = 0xFFFF;

uint32_t parseNumber(StringSection text) {
  uint32_t value = 0;
  if (!parseUnsigned(text, value, 10)) throw BadFormatError("Badly formatted number field");
  return value;
}

// Splits on every single blank, so two blanks in a row give an empty token.
std::vector<StringSection> splitTokens(StringSection text) {
  std::vector<StringSection> tokens;
  std::size_t start = 0;
  while (true) {
    const std::size_t blank = text.find(' ', start);
    if (blank == StringSection::npos) {
      tokens.push_back(text.substr(start));
      return tokens;
    }
    tokens.push_back(text.substr(start, blank - start));
    start = blank + 1;
  }
}

bool parseCandidate(StringSection value, SessionDescription& description) {
  const std::vector<StringSection> tokens = splitTokens(value);
  // foundation, component, transport, priority, address, port, "typ", type
  if (tokens.size() < CandidateTokens || tokens[7].empty()) return false;
  if (!tokens[1].equals("1")) return false;
  if (!tokens[2].equalsIgnoreCase("udp")) return false;
  const uint32_t priority = parseNumber(tokens[3]);
  const uint32_t port = parseNumber(tokens[5]);
  if (port > MaxPort) throw BadFormatError("Badly formatted number field");
  CandidateType type;
  if (!parseCandidateType(tokens[7].str(), type)) throw BadFormatError("Invalid candidate type");
  const std::string host = tokens[4].str();
  const int family = host.find(':') != std::string::npos ? AF_INET6 : AF_INET;
  const SocketAddress address(family, host, static_cast<uint16_t>(port));
  description.candidates.push_back(std::make_shared<Candidate>(type, address, priority, tokens[0].str()));
  return true;
}

}  // namespace

std::string printDescription(const SessionDescription& description) {
  std::string text;
  for (const CandidatePtr& candidate : description.candidates) {
    text += "candidate=";
    text += candidate->foundation;
    text += " 1 UDP ";
    text += std::to_string(candidate->priority);
    text += ' ';
    text += candidate->address.addressText();
    text += ' ';
    text += std::to_string(candidate->address.port());
    text += " typ ";
    text += candidateTypeText(candidate->type);
    text += '\n';
  }
  text += "userfrag=" + description.userFragment + "\n";
  text += "password=" + description.password + "\n";
  return text;
}

bool parseDescriptionLine(const std::string& line, SessionDescription& description) {
  const StringSection whole(line);
  // A line of blanks (or the CR of a CRLF text) counts as empty.
  if (whole.trim().empty()) return true;
  const std::size_t equals = whole.find('=');
  if (equals == StringSection::npos) return false;
  const StringSection key = whole.substr(0, equals).trim();
  const StringSection value = whole.substr(equals + 1).trim();
  if (key.equals("candidate")) return parseCandidate(value, description);
  if (key.equals("userfrag") || key.equals("password")) {
    if (value.empty()) return false;
    (key.equals("userfrag") ? description.userFragment : description.password) = value.str();
    return true;
  }
  return true;
}

bool parseDescription(const std::string& text, SessionDescription& description) {
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    if (!parseDescriptionLine(text.substr(start, end - start), description)) return false;
    start = end + 1;
  }
  return true;
}

bool canAuthenticate(const SessionDescription& description) {
  return !description.userFragment.empty() && !description.password.empty() &&
         description.password.size() <= MaxPasswordLength;
}

}  // namespace ice
}  // namespace quorvel
