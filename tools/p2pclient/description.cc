#include "tools/p2pclient/description.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <sstream>

namespace quorvel {
namespace p2pclient {

namespace {

std::string trim(const std::string& text) {
  const char* space = " \t\r\n";
  const auto first = text.find_first_not_of(space);
  if (first == std::string::npos) return std::string();
  return text.substr(first, text.find_last_not_of(space) - first + 1);
}

bool parseNumber(const std::string& text, unsigned long long limit, unsigned long long& value) {
  if (text.empty() || text.size() > 20 || text.find_first_not_of("0123456789") != std::string::npos) return false;
  errno = 0;
  value = std::strtoull(text.c_str(), nullptr, 10);
  return errno == 0 && value <= limit;
}

bool equalsIgnoringCase(const std::string& text, const char* lower) {
  std::size_t i = 0;
  for (; i < text.size() && lower[i] != '\0'; ++i) {
    if (static_cast<char>(std::tolower(static_cast<unsigned char>(text[i]))) != lower[i]) return false;
  }
  return i == text.size() && lower[i] == '\0';
}

std::vector<std::string> splitOnSpaces(const std::string& text) {
  std::vector<std::string> tokens;
  std::size_t start = 0;
  while (true) {
    const auto space = text.find(' ', start);
    tokens.push_back(text.substr(start, space == std::string::npos ? std::string::npos : space - start));
    if (space == std::string::npos) return tokens;
    start = space + 1;
  }
}

bool parseCandidate(const std::string& value, CandidateLine& candidate, std::string& error) {
  const auto tokens = splitOnSpaces(value);
  if (tokens.size() < 8 || tokens[7].empty()) {
    error = "candidate line has fewer than 8 fields";
    return false;
  }
  if (tokens[1] != "1") {
    error = "candidate of component " + tokens[1] + " (only 1 is used)";
    return false;
  }
  if (!equalsIgnoringCase(tokens[2], "udp")) {
    error = "candidate with transport " + tokens[2] + " (only UDP is used)";
    return false;
  }
  unsigned long long priority = 0, port = 0;
  if (!parseNumber(tokens[3], 0xffffffffULL, priority) || !parseNumber(tokens[5], 65535, port)) {
    error = "candidate with a bad priority or port";
    return false;
  }
  if (tokens[7] != "host" && tokens[7] != "srflx" && tokens[7] != "prflx" && tokens[7] != "relay") {
    error = "candidate of unknown type " + tokens[7];
    return false;
  }
  candidate.foundation = tokens[0];
  candidate.priority = static_cast<std::uint32_t>(priority);
  candidate.address = tokens[4];
  candidate.port = static_cast<std::uint16_t>(port);
  candidate.type = tokens[7];
  return true;
}

}  // namespace

bool CandidateLine::operator==(const CandidateLine& other) const {
  return foundation == other.foundation && priority == other.priority && address == other.address &&
         port == other.port && type == other.type;
}

std::string printDescription(const Description& description) {
  std::ostringstream text;
  for (const auto& candidate : description.candidates) {
    text << "candidate=" << candidate.foundation << " 1 UDP " << candidate.priority << ' ' << candidate.address << ' '
         << candidate.port << " typ " << candidate.type << '\n';
  }
  text << "userfrag=" << description.userFragment << '\n' << "password=" << description.password << '\n';
  return text.str();
}

bool parseDescription(const std::string& text, Description& description, std::string& error) {
  Description parsed;
  std::istringstream lines(text);
  std::string line;
  for (unsigned number = 1; std::getline(lines, line); ++number) {
    if (trim(line).empty()) continue;
    const auto equals = line.find('=');
    const std::string where = "line " + std::to_string(number) + ": ";
    if (equals == std::string::npos) {
      error = where + "no '='";
      return false;
    }
    const std::string key = trim(line.substr(0, equals));
    const std::string value = trim(line.substr(equals + 1));
    if (key == "candidate") {
      CandidateLine candidate;
      if (!parseCandidate(value, candidate, error)) {
        error = where + error;
        return false;
      }
      parsed.candidates.push_back(candidate);
    } else if (key == "userfrag" || key == "password") {
      if (value.empty()) {
        error = where + "empty " + key;
        return false;
      }
      (key == "userfrag" ? parsed.userFragment : parsed.password) = value;
    }
  }
  if (parsed.userFragment.empty() || parsed.password.empty()) {
    error = "no userfrag or password line";
    return false;
  }
  if (parsed.candidates.empty()) {
    error = "no candidates";
    return false;
  }
  description = std::move(parsed);
  return true;
}

}  // namespace p2pclient
}  // namespace quorvel
