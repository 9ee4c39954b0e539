#include "ice/check_list.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"

namespace quorvel {
namespace ice {
namespace {

CandidatePtr candidate(CandidateType type, const char* address, uint16_t port, uint32_t priority,
                       const char* foundation, const SocketAddress& base = SocketAddress()) {
  return std::make_shared<Candidate>(type, SocketAddress(AF_INET, address, port), priority, foundation, base);
}

std::vector<std::string> order(const CheckList& list) {
  std::vector<std::string> texts;
  for (const CandidatePairPtr& pair : list) texts.push_back(pair->toString());
  return texts;
}

TEST(PairPriority, ControllingSideDecidesGAndD) {
  const uint64_t g = 2130706431u, d = 1694498815u;
  EXPECT_EQ((d << 32) + 2 * g + 1, pairPriority(2130706431u, 1694498815u, true));
  EXPECT_EQ((d << 32) + 2 * g + 0, pairPriority(2130706431u, 1694498815u, false));
  EXPECT_EQ((g << 32) + 2 * g, pairPriority(2130706431u, 2130706431u, true));
  // The largest inputs do not overflow 64 bits.
  EXPECT_EQ((0xFFFFFFFFull << 32) + 2 * 0xFFFFFFFFull, pairPriority(0xFFFFFFFFu, 0xFFFFFFFFu, false));
}

TEST(CheckList, InsertsByPriorityAndKeepsArrivalOrderAmongEquals) {
  CheckList list;
  const CandidatePtr remote = candidate(CandidateType::Host, "198.51.100.2", 6000, 100, "r");
  list.insert(std::make_shared<CandidatePair>(candidate(CandidateType::Host, "192.0.2.1", 1, 50, "a"), remote, true));
  list.insert(std::make_shared<CandidatePair>(candidate(CandidateType::Host, "192.0.2.1", 2, 70, "b"), remote, true));
  list.insert(std::make_shared<CandidatePair>(candidate(CandidateType::Host, "192.0.2.1", 3, 50, "c"), remote, true));
  list.insert(std::make_shared<CandidatePair>(candidate(CandidateType::Host, "192.0.2.1", 4, 10, "d"), remote, true));
  list.insert(std::make_shared<CandidatePair>(candidate(CandidateType::Host, "192.0.2.1", 5, 70, "e"), remote, true));
  EXPECT_EQ((std::vector<std::string>{"[192.0.2.1:2, 198.51.100.2:6000]", "[192.0.2.1:5, 198.51.100.2:6000]",
                                      "[192.0.2.1:1, 198.51.100.2:6000]", "[192.0.2.1:3, 198.51.100.2:6000]",
                                      "[192.0.2.1:4, 198.51.100.2:6000]"}),
            order(list));
  EXPECT_EQ("b/r", list.pairs()[0]->foundation);
  EXPECT_EQ(CandidatePair::State::Frozen, list.pairs()[0]->state);
}

TEST(CheckList, PruningReplacesReflexiveLocalsByTheirBaseAndDropsRepeats) {
  const auto capture = testing::LogCapture::install();
  log::setLevel("icechecklist", log::Debug);
  const CandidatePtr host = candidate(CandidateType::Host, "10.0.0.2", 4000, 2130706177u, "h1");
  host->base = host->address;
  const CandidatePtr reflexive = candidate(CandidateType::ServerReflexive, "203.0.113.9", 4000, 1677721601u, "s1",
                                           host->address);
  const CandidatePtr orphan = candidate(CandidateType::ServerReflexive, "203.0.113.9", 4001, 1677721600u, "s2",
                                        SocketAddress(AF_INET, "10.0.0.3", 4001));
  const CandidatePtr remote1 = candidate(CandidateType::Host, "198.51.100.2", 6000, 2130706431u, "r1");
  const CandidatePtr remote2 = candidate(CandidateType::ServerReflexive, "198.51.100.3", 6001, 1694498815u, "r2");

  CheckList list;
  for (const CandidatePtr& local : {host, reflexive, orphan}) {
    for (const CandidatePtr& remote : {remote1, remote2}) {
      list.insert(std::make_shared<CandidatePair>(local, remote, true));
    }
  }
  ASSERT_EQ(6u, list.size());
  list.prune([&](const Candidate& c) { return c.base == host->address ? host : CandidatePtr(); });

  EXPECT_EQ((std::vector<std::string>{"[10.0.0.2:4000, 198.51.100.2:6000]", "[10.0.0.2:4000, 198.51.100.3:6001]"}),
            order(list));
  // The survivors are the host pairs themselves, with their own priorities.
  EXPECT_EQ(pairPriority(host->priority, remote1->priority, true), list.pairs()[0]->priority);
  EXPECT_EQ(host, list.pairs()[1]->local);
  EXPECT_EQ(2u, capture->count("Pruning invalid pair [203.0.113.9:4001, 198.51.100.2:6000]") +
                    capture->count("Pruning invalid pair [203.0.113.9:4001, 198.51.100.3:6001]"));
  EXPECT_TRUE(capture->contains("Replacing local part of [203.0.113.9:4000, 198.51.100.2:6000] with 10.0.0.2:4000"));
  EXPECT_TRUE(capture->contains("Pruning duplicate pair [10.0.0.2:4000, 198.51.100.2:6000]"));
  for (const auto& line : capture->lines()) {
    EXPECT_EQ("icechecklist", line.log);
    EXPECT_EQ(log::Debug, line.level);
  }
}

TEST(CheckList, RoleChangeReordersAndLimitDropsTheLowest) {
  CheckList list;
  const CandidatePtr localHigh = candidate(CandidateType::Host, "10.0.0.2", 1, 300, "a");
  const CandidatePtr localLow = candidate(CandidateType::Host, "10.0.0.2", 2, 100, "b");
  const CandidatePtr remoteHigh = candidate(CandidateType::Host, "10.0.0.9", 1, 300, "x");
  const CandidatePtr remoteLow = candidate(CandidateType::Host, "10.0.0.9", 2, 100, "y");
  const auto a = std::make_shared<CandidatePair>(localHigh, remoteLow, true);  // G=300 D=100
  const auto b = std::make_shared<CandidatePair>(localLow, remoteHigh, true);  // G=100 D=300
  list.insert(a);
  list.insert(b);
  EXPECT_EQ(a, list.pairs()[0]);  // equal min, max; the G > D bit decides
  list.setRole(false);
  EXPECT_EQ(b, list.pairs()[0]);
  EXPECT_EQ(b, list.find(localLow->address, remoteHigh->address));
  EXPECT_EQ(nullptr, list.find(localLow->address, remoteLow->address));
  EXPECT_EQ(1u, list.limit(1));
  EXPECT_EQ(b, list.pairs()[0]);
  list.remove(b);
  EXPECT_TRUE(list.empty());
}

}  // namespace
}  // namespace ice
}  // namespace quorvel
