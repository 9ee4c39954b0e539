#include "ice/session_description.h"

#include <string>

#include <gtest/gtest.h>

#include "core/errors.h"
#include "core/random_source.h"
#include "ice/credentials.h"

namespace quorvel {
namespace ice {
namespace {

TEST(CandidatePriority, CombinesTypeAndLocalPreferenceWithComponentTermOne) {
  EXPECT_EQ(2130706177u, computePriority(CandidateType::Host, 65535));
  EXPECT_EQ(1677721601u, computePriority(CandidateType::ServerReflexive, 0));
  EXPECT_EQ((110u << 24) + (7u << 8) + 1, computePriority(CandidateType::PeerReflexive, 7));
  EXPECT_EQ(1u, computePriority(CandidateType::Relayed, 0));
}

TEST(CandidateType, TextBothWays) {
  const struct {
    CandidateType type;
    const char* text;
  } table[] = {{CandidateType::Host, "host"},
               {CandidateType::ServerReflexive, "srflx"},
               {CandidateType::PeerReflexive, "prflx"},
               {CandidateType::Relayed, "relay"}};
  for (const auto& row : table) {
    EXPECT_EQ(row.text, candidateTypeText(row.type));
    CandidateType parsed = CandidateType::Relayed;
    EXPECT_TRUE(parseCandidateType(row.text, parsed));
    EXPECT_EQ(row.type, parsed);
  }
  // An unknown type, also the first one past the table, prints as its number
  // and has no preference.
  for (const int unknown : {4, 9}) {
    EXPECT_EQ(std::to_string(unknown), candidateTypeText(static_cast<CandidateType>(unknown)));
    EXPECT_EQ(0u, typePreference(static_cast<CandidateType>(unknown)));
  }
  CandidateType unused;
  EXPECT_FALSE(parseCandidateType("HOST", unused));
}

// Accepted ("" or "+1": one candidate more), refused ("refused") or the text
// of the exception thrown.
TEST(SessionDescriptionLine, AcceptsRefusesOrThrows) {
  const struct {
    const char* line;
    std::string outcome;
  } table[] = {
      {"", ""},
      {"   \r", ""},
      {"candidate=1 1 UDP 2130706431 192.0.2.1 5000 typ host", "+1"},
      {" candidate = 1 1 udp 2130706431 192.0.2.1 5000 typ host ", "+1"},
      {"candidate=1 1 UDP 2130706431 192.0.2.1 5000 typ host raddr 0.0.0.0 rport 9", "+1"},
      {"candidate=1 2 UDP 2130706431 192.0.2.1 5000 typ host", "refused"},
      {"candidate=1 01 UDP 2130706431 192.0.2.1 5000 typ host", "refused"},
      {"candidate=1 1 TCP 2130706431 192.0.2.1 5000 typ host", "refused"},
      {"candidate=1 1 UDP 2130706431 192.0.2.1 5000 typ", "refused"},
      {"candidate=1 1 UDP 2130706431 192.0.2.1 5000 typ ", "refused"},
      {"candidate=1  1 UDP 2130706431 192.0.2.1 5000 typ host", "refused"},
      {"candidate", "refused"},
      {"userfrag=", "refused"},
      {"password=  ", "refused"},
      {"foo=bar", ""},
      {"Candidate=whatever", ""},
      {"candidate=1 1 UDP x 192.0.2.1 5000 typ host", "Badly formatted number field"},
      {"candidate=1 1 UDP 1 192.0.2.1 50x0 typ host", "Badly formatted number field"},
      {"candidate=1 1 UDP 1 192.0.2.1 -1 typ host", "Badly formatted number field"},
      {"candidate=1 1 UDP 1 192.0.2.1 65536 typ host", "Badly formatted number field"},
      {"candidate=1 1 UDP 4294967296 192.0.2.1 5 typ host", "Badly formatted number field"},
      {"candidate=1 1 UDP 1 192.0.2.1 5000 typ bogus", "Invalid candidate type"},
  };
  for (const auto& row : table) {
    SessionDescription description;
    std::string outcome;
    try {
      outcome = parseDescriptionLine(row.line, description) ? "" : "refused";
      if (!description.candidates.empty()) outcome += "+1";
    } catch (const BadFormatError& e) {
      outcome = e.what();
    }
    EXPECT_EQ(row.outcome, outcome) << row.line;
  }
  SessionDescription description;
  EXPECT_THROW(parseDescriptionLine("candidate=1 1 UDP 1 192.0.2.999 5 typ host", description),
               std::invalid_argument);
}

TEST(SessionDescription, PrintsExactlyAndParsesBack) {
  SessionDescription description;
  description.candidates.push_back(std::make_shared<Candidate>(
      CandidateType::Host, SocketAddress(AF_INET, "192.0.2.1", 5000), 2130706177u, "h1"));
  description.candidates.push_back(std::make_shared<Candidate>(
      CandidateType::ServerReflexive, SocketAddress(AF_INET6, "2001:db8::7", 65535), 1677721601u, "s1"));
  description.userFragment = "ufrg";
  description.password = "0123456789abcdefghijkl";
  const std::string text = printDescription(description);
  EXPECT_EQ(
      "candidate=h1 1 UDP 2130706177 192.0.2.1 5000 typ host\n"
      "candidate=s1 1 UDP 1677721601 2001:db8::7 65535 typ srflx\n"
      "userfrag=ufrg\n"
      "password=0123456789abcdefghijkl\n",
      text);

  // What the device reads back prints the same (the fuzz target holds this
  // for any text).
  SessionDescription parsed;
  ASSERT_TRUE(parseDescription(text, parsed));
  EXPECT_EQ(text, printDescription(parsed));
}

TEST(SessionDescription, WholeTextStopsAtTheFirstMalformedLine) {
  SessionDescription description;
  // The last of repeated credentials holds.
  EXPECT_TRUE(parseDescription("userfrag=z\r\nuserfrag=a\r\npassword=b\r\n\r\n", description));
  EXPECT_EQ("a", description.userFragment);
  EXPECT_EQ("b", description.password);
  EXPECT_FALSE(parseDescription("userfrag=a\nnonsense\npassword=b\n", description));
}

TEST(Credentials, DrawnFromTheAlphabetAtTheirLengths) {
  PseudoRandomSource random(7u);
  const std::string fragment = randomIceText(random, UserFragmentLength);
  const std::string password = randomIceText(random, PasswordLength);
  EXPECT_GE(fragment.size(), 4u);
  EXPECT_GE(password.size(), 22u);
  const std::string alphabet = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789$!";
  std::string all;
  for (int i = 0; i < 200; ++i) all += randomIceText(random, 32);
  EXPECT_EQ(std::string::npos, (fragment + password + all).find_first_not_of(alphabet));
  // Every symbol shows up in 6400 draws.
  for (char c : alphabet) EXPECT_NE(std::string::npos, all.find(c)) << c;
}

}  // namespace
}  // namespace ice
}  // namespace quorvel
