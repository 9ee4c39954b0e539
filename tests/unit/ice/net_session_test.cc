#include "ice/net_session.h"

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ice/check_messages.h"
#include "ice/session_timing.h"
#include "net/buffer_pool.h"
#include "stun/integrity.h"
#include "stun/net_stun_agent.h"
#include "tests/support/log_capture.h"
#include "tests/support/wall_clock_steps.h"
#include "tests/unit/ice/fake_udp_network.h"

namespace quorvel {
namespace ice {
namespace {

using stun::Message;
using testing::FakeUdpNetwork;

const SocketAddress StunServer(AF_INET, "192.0.2.100", 3478);
const SocketAddress Peer(AF_INET, "198.51.100.2", 6000);
const std::string PeerFragment = "peerfrag";
const std::string PeerPassword = "peerpasswordpeerpassword";

Message parsed(const std::vector<uint8_t>& bytes) {
  Message message;
  message.parse(bytes.data(), bytes.size());
  return message;
}

// The remote client's side, played by the test: a few lines of ICE that
// answer checks and check back.
struct ScriptedPeer {
  SocketAddress address = Peer;
  bool answer = true;
  bool checkBack = true;
  // Where answers come from (another port shows a broken path).
  SocketAddress answerFrom = Peer;
  // What the answers say the check came from; empty: the truth.
  SocketAddress mapped;
  uint64_t tieBreaker = 1;
  std::vector<Message> received;
  std::vector<std::vector<uint8_t>> data;
  int useCandidates = 0;
  bool answerNomination = true;
};

class NetSessionTest : public ::testing::Test {
 protected:
  NetSessionTest() {
    log::setLevel("icesession", log::Debug);
    networkInfo_->add("eth0", AF_INET, "10.0.0.2");
    addStunServer(StunServer);
  }

  // Answers Binding requests with the address they came from, while
  // stunAnswers_ is set.
  void addStunServer(const SocketAddress& server) {
    network_.addResponder(server, [this, server](const SocketAddress& from, const std::vector<uint8_t>& bytes) {
      if (!stunAnswers_) return;
      Message response(Message::SuccessResponse, Message::MethodBinding, parsed(bytes).transactionId());
      response.addXorMappedAddress(from);
      network_.send(server, from, response.data(), response.size());
    });
  }

  std::shared_ptr<NetSession> makeSession(const std::vector<CandidatePtr>& remoteCandidates) {
    NetSession::Dependencies deps{reactor_, factory_, agent_, networkInfo_, resolver_, random_, "stun.test"};
    auto session = std::make_shared<NetSession>(deps);
    SessionDescription remote;
    remote.candidates = remoteCandidates;
    remote.userFragment = PeerFragment;
    remote.password = PeerPassword;
    session->setRemoteDescription(remote);
    return session;
  }

  static CandidatePtr remote(const SocketAddress& address, uint32_t priority = 2130706431u) {
    return std::make_shared<Candidate>(CandidateType::Host, address, priority, "r1");
  }

  // A session with the peer as its one remote candidate, the peer playing.
  std::shared_ptr<NetSession> startWith(ScriptedPeer& peer, const SocketAddress& candidate = Peer) {
    const auto session = makeSession({remote(candidate)});
    play(peer, session);
    start(session);
    return session;
  }

  void start(const std::shared_ptr<NetSession>& session) {
    session->start([this](Session::Event event) {
      events_.push_back(event);
      eventTimes_.push_back(reactor_->clock().now());
    });
  }

  void play(ScriptedPeer& peer, const std::shared_ptr<NetSession>& session) {
    network_.addResponder(peer.address, [this, &peer, session](const SocketAddress& from,
                                                               const std::vector<uint8_t>& bytes) {
      if (!stun::isStunMessage(bytes.data(), bytes.size(), false)) {
        peer.data.push_back(bytes);
        return;
      }
      Message message = parsed(bytes);
      peer.received.push_back(message);
      if (message.messageClass() != Message::Request) return;
      const bool nomination = message.findAttribute(Message::UseCandidate).has_value();
      if (nomination) ++peer.useCandidates;
      if (peer.answer && (peer.answerNomination || !nomination)) {
        Message response(Message::SuccessResponse, Message::MethodBinding, message.transactionId());
        response.addXorMappedAddress(peer.mapped.valid() ? peer.mapped : from);
        stun::addMessageIntegrity(response, PeerPassword);
        stun::addFingerprint(response);
        network_.send(peer.answerFrom, from, response.data(), response.size());
      }
      if (peer.checkBack) {
        peer.checkBack = false;
        sendCheck(peer.address, from, session->localDescription(), false, peer.tieBreaker);
      }
    });
  }

  // A check from the peer as a controlled RFC 5245 agent sends it, or with
  // the given role.
  stun::MessagePtr sendCheck(const SocketAddress& from, const SocketAddress& to, const SessionDescription& local,
                             bool controlling, uint64_t tieBreaker, uint32_t priority = 1862270975u,
                             bool useCandidate = false) {
    CheckParameters parameters;
    parameters.userName = local.userFragment + ":" + PeerFragment;
    parameters.key = local.password;
    parameters.priority = priority;
    parameters.controlling = controlling;
    parameters.tieBreaker = tieBreaker;
    parameters.useCandidate = useCandidate;
    stun::MessagePtr check = makeCheckRequest(*random_, parameters);
    network_.send(from, to, check->data(), check->size());
    return check;
  }

  std::shared_ptr<testing::ManualReactor> reactor_ = std::make_shared<testing::ManualReactor>();
  FakeUdpNetwork network_{*reactor_};
  std::shared_ptr<testing::FakeUdpFactory> factory_ = std::make_shared<testing::FakeUdpFactory>(network_);
  std::shared_ptr<testing::FakeNetworkInfo> networkInfo_ = std::make_shared<testing::FakeNetworkInfo>();
  std::shared_ptr<testing::FakeResolver> resolver_ = std::make_shared<testing::FakeResolver>(*reactor_);
  std::shared_ptr<BufferPool> pool_ = std::make_shared<BufferPool>(512, 0, 0);
  std::shared_ptr<stun::NetStunAgent> agent_ =
      std::make_shared<stun::NetStunAgent>(reactor_, pool_, AgentSendInterval);
  std::shared_ptr<RandomSource> random_ = std::make_shared<PseudoRandomSource>(42u);
  std::vector<Session::Event> events_;
  std::vector<SteadyTime> eventTimes_;
  bool stunAnswers_ = true;
};

TEST_F(NetSessionTest, GathersReachableHostsAndTheirMappings) {
  networkInfo_->add("lo", AF_INET, "127.0.0.1", true, true);
  networkInfo_->add("lo", AF_INET, "10.0.9.2", true, true);  // loopback interface, routable-looking address
  networkInfo_->add("dummy0", AF_INET6, "::1");               // loopback address on another interface
  networkInfo_->add("eth1", AF_INET, "10.0.1.2", false);
  networkInfo_->add("eth0", AF_INET6, "2001:db8::2");
  networkInfo_->add("eth0", AF_INET6, "febf::2");  // link-local: fe80::/10 ends at febf
  networkInfo_->add("eth0", AF_INET, "10.0.0.2");  // an alias listed twice
  resolver_->addresses = {StunServer, SocketAddress(AF_INET6, "2001:db8::100", 3478)};
  addStunServer(SocketAddress(AF_INET6, "2001:db8::100", 3478));
  // No NAT for IPv4: mapped to the host address itself, which adds no candidate.
  network_.addNat(SocketAddress(AF_INET6, "2001:db8::2", 40001), SocketAddress(AF_INET6, "2001:db8:5::5", 50001));
  // Remote candidates that cannot be reached (link-local, port 0) get no pair.
  const auto session = makeSession({remote(SocketAddress(AF_INET6, "fe80::9", 1)),
                                    remote(SocketAddress(AF_INET6, "2001:db8::9", 2)),
                                    remote(SocketAddress(AF_INET, "198.51.100.9", 0)), remote(Peer)});
  const SteadyTime begin = reactor_->clock().now();
  start(session);
  EXPECT_THROW(start(session), std::logic_error);
  reactor_->advance(Duration::milliseconds(50));

  ASSERT_EQ(1u, events_.size());
  EXPECT_EQ(Session::Event::CandidatesGathered, events_[0]);
  EXPECT_LT(eventTimes_[0] - begin, Duration::milliseconds(20));
  const SessionDescription& local = session->localDescription();
  EXPECT_EQ(8u, local.userFragment.size());
  EXPECT_EQ(24u, local.password.size());
  EXPECT_EQ("candidate=h1 1 UDP 2130706177 10.0.0.2 40000 typ host\n"
            "candidate=h2 1 UDP 2130705921 2001:db8::2 40001 typ host\n"
            "candidate=s2 1 UDP 1694498305 2001:db8:5::5 50001 typ srflx\n"
            "userfrag=" + local.userFragment + "\npassword=" + local.password + "\n",
            printDescription(local));
  EXPECT_EQ(SocketAddress(AF_INET6, "2001:db8::2", 40001), local.candidates[2]->base);
  std::vector<std::string> pairs;
  for (const CandidatePairPtr& pair : session->checkList()) pairs.push_back(pair->toString());
  EXPECT_EQ((std::vector<std::string>{"[10.0.0.2:40000, 198.51.100.2:6000]",
                                      "[[2001:db8::2]:40001, [2001:db8::9]:2]"}),
            pairs);
}

TEST_F(NetSessionTest, GatheringEndsInBoundedTimeWhateverTheServerDoes) {
  const struct {
    const char* name;
    bool resolverSilent;
    bool resolves;
    bool serverAnswers;
    int64_t expectedMs;
  } table[] = {
      {"server answers", false, true, true, 15},
      {"server silent", false, true, false, 1000},
      {"resolver silent", true, true, true, 1000},
      {"name unknown", false, false, true, 15},
  };
  for (const auto& row : table) {
    events_.clear();
    eventTimes_.clear();
    resolver_->silent = row.resolverSilent;
    resolver_->addresses = row.resolves ? std::vector<SocketAddress>{StunServer} : std::vector<SocketAddress>{};
    stunAnswers_ = row.serverAnswers;
    const auto session = makeSession({remote(Peer)});
    const SteadyTime begin = reactor_->clock().now();
    start(session);
    reactor_->advance(Duration::seconds(2));
    ASSERT_FALSE(events_.empty()) << row.name;
    EXPECT_EQ(Session::Event::CandidatesGathered, events_[0]) << row.name;
    EXPECT_LE((eventTimes_[0] - begin).count(), row.expectedMs * 1000) << row.name;
    session->close();
    EXPECT_EQ(0u, agent_->pendingCount()) << row.name;
    EXPECT_EQ(0u, network_.openSockets()) << row.name;
  }
}

TEST_F(NetSessionTest, ChecksArePacedAndRetransmittedAtTheRto) {
  // Per destination port: when the check went out and was sent again, in ms
  // from the first check. New checks go 20 ms apart; the RTO is 20 ms per
  // pair, at least 100 ms, doubling.
  const struct {
    uint16_t pairs;
    std::vector<int64_t> firstPair, lastPair;
  } table[] = {
      {3, {0, 100, 300}, {40, 140, 340}},
      {10, {0, 200}, {180, 380}},
  };
  for (const auto& row : table) {
    network_.log.clear();
    std::vector<CandidatePtr> remotes;
    for (uint16_t i = 0; i < row.pairs; ++i) remotes.push_back(remote(SocketAddress(AF_INET, "198.51.100.9", 7000 + i)));
    const auto session = makeSession(remotes);
    start(session);
    reactor_->advance(Duration::milliseconds(10));
    ASSERT_EQ(row.pairs, session->checkList().size());
    const SteadyTime checksBegin = network_.log.front().at;
    reactor_->advance(Duration::milliseconds(390));
    std::map<uint16_t, std::vector<int64_t>> sends;
    for (const auto& d : network_.log) sends[d.to.port()].push_back((d.at - checksBegin).count() / 1000);
    EXPECT_EQ(row.firstPair, sends[7000]) << row.pairs;
    EXPECT_EQ(row.lastPair, sends[7000 + row.pairs - 1]) << row.pairs;

    // The checks carry what the peer must act on before the integrity.
    const Message check = parsed(network_.log.front().bytes);
    EXPECT_EQ(Message::Request, check.messageClass());
    EXPECT_TRUE(stun::checkCredentials(check, PeerFragment + ":" + session->localDescription().userFragment,
                                       PeerPassword));
    EXPECT_EQ(computePriority(CandidateType::PeerReflexive, 65535), readPriority(check));
    EXPECT_EQ(session->tieBreaker(), readTieBreaker(check, Message::IceControlling));
    EXPECT_LT(check.findAttribute(Message::IceControlling)->offset,
              check.findAttribute(Message::MessageIntegrity)->offset);
    EXPECT_TRUE(stun::isStunMessage(check.data(), check.size(), true));
    session->close();
  }
}

TEST_F(NetSessionTest, SilentPeerFailsInBoundedTimeAndReleasesEverything) {
  const auto session = makeSession({remote(Peer), remote(SocketAddress(AF_INET, "198.51.100.3", 6001))});
  start(session);
  const SteadyTime begin = reactor_->clock().now();
  reactor_->advance(Duration::seconds(1));
  EXPECT_FALSE(session->hasHeardFromPeer());
  reactor_->advance(Duration::seconds(9));
  ASSERT_EQ(2u, events_.size());
  EXPECT_EQ(Session::Event::Failed, events_[1]);
  EXPECT_LE(eventTimes_[1] - begin, CheckTimeLimit + Duration::milliseconds(100));
  EXPECT_EQ(0u, network_.openSockets());
  EXPECT_EQ(0u, agent_->pendingCount());
  EXPECT_FALSE(session->sendDatagram(reinterpret_cast<const uint8_t*>("x"), 1));
  const std::size_t sent = network_.log.size();
  reactor_->advance(Duration::seconds(30));
  EXPECT_EQ(sent, network_.log.size());
  EXPECT_EQ(2u, events_.size());
}

TEST_F(NetSessionTest, EstablishesWithAPeerAndCarriesDatagramsBothWays) {
  ScriptedPeer peer;
  const auto session = startWith(peer);
  std::vector<std::string> received;
  session->setDatagramHandler(
      [&](const uint8_t* data, std::size_t size) { received.emplace_back(reinterpret_cast<const char*>(data), size); });
  reactor_->advance(Duration::milliseconds(5));
  // Not STUN, before establishment: dropped, nothing changes.
  network_.send(Peer, SocketAddress(AF_INET, "10.0.0.2", 40000), reinterpret_cast<const uint8_t*>("early"), 5);
  reactor_->advance(Duration::milliseconds(300));

  ASSERT_EQ((std::vector<Session::Event>{Session::Event::CandidatesGathered, Session::Event::Established}), events_);
  EXPECT_LT(eventTimes_[1] - eventTimes_[0], Duration::milliseconds(60));
  EXPECT_TRUE(session->hasHeardFromPeer());
  EXPECT_EQ(SocketAddress(AF_INET, "10.0.0.2", 40000), session->localAddress());
  EXPECT_EQ(Peer, session->remoteAddress());
  EXPECT_EQ(1, peer.useCandidates);
  EXPECT_TRUE(received.empty());

  ASSERT_TRUE(session->sendDatagram(reinterpret_cast<const uint8_t*>("hello"), 5));
  network_.send(Peer, session->localAddress(), reinterpret_cast<const uint8_t*>("world"), 5);
  // From another address: not the selected pair.
  network_.send(SocketAddress(AF_INET, "198.51.100.66", 1), session->localAddress(),
                reinterpret_cast<const uint8_t*>("stray"), 5);
  reactor_->advance(Duration::milliseconds(10));
  EXPECT_EQ((std::vector<std::string>{"world"}), received);
  ASSERT_EQ(1u, peer.data.size());
  EXPECT_EQ("hello", std::string(peer.data[0].begin(), peer.data[0].end()));

  // Still answering the peer's checks, and keeping the path open.
  peer.received.clear();
  const stun::MessagePtr check = sendCheck(Peer, session->localAddress(), session->localDescription(), false, 1);
  reactor_->advance(Duration::seconds(16));
  ASSERT_GE(peer.received.size(), 2u);
  EXPECT_EQ(Message::SuccessResponse, peer.received[0].messageClass());
  EXPECT_EQ(check->transactionId(), peer.received[0].transactionId());
  EXPECT_EQ(Message::Indication, peer.received.back().messageClass());

  session->close();
  session->close();
  EXPECT_EQ(0u, network_.openSockets());
  EXPECT_EQ(0u, agent_->pendingCount());
  EXPECT_FALSE(session->sendDatagram(reinterpret_cast<const uint8_t*>("x"), 1));
}

// A better pair still being checked holds the nomination back only briefly:
// pairs that never work (private addresses across NATs) must not hold the
// session for their whole check time.
TEST_F(NetSessionTest, ASilentBetterPairDelaysTheNominationOnlyBriefly) {
  ScriptedPeer peer;
  peer.checkBack = false;
  const auto session = makeSession({remote(SocketAddress(AF_INET, "198.51.100.9", 7000)), remote(Peer, 1694498815u)});
  play(peer, session);
  start(session);
  reactor_->advance(NominationWait - Duration::milliseconds(10));
  EXPECT_EQ(0, peer.useCandidates);  // the better pair may still answer
  reactor_->advance(Duration::milliseconds(210));
  ASSERT_EQ(Session::Event::Established, events_.back());
  EXPECT_EQ(Peer, session->remoteAddress());
  EXPECT_EQ(1, peer.useCandidates);
}

// A pair that succeeds while the nomination is still out starts no second one.
TEST_F(NetSessionTest, OneNominationAtATime) {
  ScriptedPeer best, other;
  best.checkBack = other.checkBack = false;
  best.answerNomination = false;
  other.address = other.answerFrom = SocketAddress(AF_INET, "198.51.100.3", 6001);
  const auto session = makeSession({remote(Peer), remote(other.address, 1694498815u)});
  play(best, session);
  play(other, session);
  start(session);
  reactor_->advance(Duration::milliseconds(80));  // both checks answered, short of a retransmission
  ASSERT_EQ(1u, other.received.size());
  EXPECT_EQ(2u, session->validPairs().size());
  EXPECT_EQ(1, best.useCandidates + other.useCandidates);
}

// Pairs to one remote candidate from two local ones are two valid pairs.
TEST_F(NetSessionTest, EachLocalCandidateMakesItsOwnValidPair) {
  networkInfo_->add("eth1", AF_INET, "10.0.1.2");
  ScriptedPeer peer;
  peer.checkBack = false;
  peer.answerNomination = false;
  const auto session = makeSession({remote(Peer)});
  play(peer, session);
  start(session);
  reactor_->advance(Duration::milliseconds(80));
  ASSERT_EQ(2u, session->validPairs().size());
  EXPECT_NE(session->validPairs()[0]->local->address, session->validPairs()[1]->local->address);
}

TEST_F(NetSessionTest, AnswersIncomingChecksExactly) {
  ScriptedPeer peer;
  peer.answer = peer.checkBack = false;
  const auto session = startWith(peer, SocketAddress(AF_INET, "198.51.100.50", 1));
  reactor_->advance(Duration::milliseconds(5));
  const SocketAddress local(AF_INET, "10.0.0.2", 40000);
  const SessionDescription& mine = session->localDescription();
  const std::size_t pairs = session->checkList().size();

  const auto send = [&](const Message& message) {
    network_.send(Peer, local, message.data(), message.size());
    reactor_->advance(Duration::milliseconds(10));
  };

  const std::string user = mine.userFragment + ":" + PeerFragment;
  // A Binding request (or another method) with what is asked of it.
  const auto make = [&](const std::string& name, const std::string& key, bool fingerprint, int method = Message::MethodBinding) {
    Message message(Message::Request, method, stun::makeTransactionId(*random_));
    if (!key.empty()) stun::addCredentials(message, name, key);
    if (key.empty() && !name.empty()) message.addStringAttribute(Message::Username, name);
    if (fingerprint) stun::addFingerprint(message);
    return message;
  };
  const Message bare = make("", "", true), noIntegrity = make(user, "", true), wrongKey = make(user, "not it", true),
                wrongUser = make("someone:else", mine.password, true), otherMethod = make(user, mine.password, true, 2),
                noFingerprint = make(user, mine.password, false);

  const struct {
    const char* name;
    const Message* request;
    int code;  // 0: no answer at all
    const char* reason;
  } table[] = {
      {"no credentials", &bare, 400, "Bad Request"},
      {"no integrity", &noIntegrity, 400, "Bad Request"},
      {"wrong password", &wrongKey, 401, "Unauthorized"},
      {"wrong user name", &wrongUser, 401, "Unauthorized"},
      {"not a Binding", &otherMethod, 400, "Bad Request"},
      {"no fingerprint", &noFingerprint, 0, ""},
  };
  for (const auto& row : table) {
    peer.received.clear();
    send(*row.request);
    if (!row.code) {
      EXPECT_TRUE(peer.received.empty()) << row.name;
      continue;
    }
    ASSERT_EQ(1u, peer.received.size()) << row.name;
    const Message& answer = peer.received[0];
    EXPECT_EQ(Message::ErrorResponse, answer.messageClass()) << row.name;
    EXPECT_EQ(row.request->method(), answer.method()) << row.name;
    EXPECT_EQ(row.request->transactionId(), answer.transactionId()) << row.name;
    stun::ByteRange reason;
    EXPECT_EQ(row.code, answer.getErrorCode(reason)) << row.name;
    EXPECT_EQ(row.reason, std::string(reason.begin, reason.end)) << row.name;
    EXPECT_TRUE(stun::checkMessageIntegrity(answer, mine.password)) << row.name;
    EXPECT_TRUE(stun::isStunMessage(answer.data(), answer.size(), true)) << row.name;
    EXPECT_EQ(pairs, session->checkList().size()) << row.name;
  }
  EXPECT_EQ(Session::Event::CandidatesGathered, events_.back());
  // None of those proves that the client is at work on this session.
  EXPECT_FALSE(session->hasHeardFromPeer());

  peer.received.clear();
  const stun::MessagePtr check = sendCheck(Peer, local, mine, false, 1, 1862270975u);
  reactor_->advance(Duration::milliseconds(10));
  EXPECT_TRUE(session->hasHeardFromPeer());
  ASSERT_FALSE(peer.received.empty());
  const Message& answer = peer.received[0];
  EXPECT_EQ(Message::SuccessResponse, answer.messageClass());
  EXPECT_EQ(check->transactionId(), answer.transactionId());
  EXPECT_EQ(Peer, answer.getMappedAddress());
  EXPECT_TRUE(answer.findAttribute(Message::XorMappedAddress).has_value());
  EXPECT_TRUE(stun::checkMessageIntegrity(answer, mine.password));
  EXPECT_TRUE(stun::isStunMessage(answer.data(), answer.size(), true));
  // The peer was not in its own description: a peer-reflexive candidate with
  // the check's priority, and a triggered check back.
  const CandidatePairPtr pair = session->checkList().find(local, Peer);
  ASSERT_TRUE(pair);
  EXPECT_EQ(CandidateType::PeerReflexive, pair->remote->type);
  EXPECT_EQ(1862270975u, pair->remote->priority);
  EXPECT_EQ(Message::Request, peer.received.back().messageClass());
}

// Both halves of the tie-breaker are drawn: none of its 64 bits is fixed.
TEST_F(NetSessionTest, TheTieBreakerTakesAllSixtyFourBits) {
  struct AllOnes : RandomSource {
    uint32_t next() override { return ~0u; }
    void fill(uint8_t* buffer, int length) override { std::fill(buffer, buffer + length, 0xff); }
  };
  random_ = std::make_shared<AllOnes>();
  EXPECT_EQ(~uint64_t{0}, makeSession({remote(Peer)})->tieBreaker());
}

TEST_F(NetSessionTest, RoleConflictsFollowTheTieBreakers) {
  const struct {
    const char* name;
    bool peerControlling;
    bool peerTieBreakerLarger;
    int expectedCode;  // 0: success
    bool controllingAfter;
  } table[] = {
      {"both controlling, peer larger", true, true, 0, false},
      {"both controlling, ours larger", true, false, 487, true},
      {"peer controlled", false, true, 0, true},
  };
  for (const auto& row : table) {
    ScriptedPeer peer;
    peer.answer = peer.checkBack = false;
    const auto session = startWith(peer, SocketAddress(AF_INET, "198.51.100.50", 1));
    reactor_->advance(Duration::milliseconds(5));
    const uint64_t theirs = row.peerTieBreakerLarger ? ~uint64_t{0} : 0;
    sendCheck(Peer, session->checkList().pairs()[0]->local->address, session->localDescription(),
              row.peerControlling, theirs);
    reactor_->advance(Duration::milliseconds(10));
    ASSERT_FALSE(peer.received.empty()) << row.name;
    const Message& answer = peer.received[0];
    EXPECT_EQ(row.expectedCode, answer.getErrorCode()) << row.name;
    EXPECT_EQ(row.controllingAfter, session->isControlling()) << row.name;
    session->close();
  }
}

TEST_F(NetSessionTest, InTheControlledRoleThePeerNominates) {
  ScriptedPeer peer;
  peer.checkBack = false;
  const auto session = startWith(peer);
  reactor_->advance(Duration::milliseconds(2));
  const SocketAddress local(AF_INET, "10.0.0.2", 40000);
  // A controlling peer with the larger tie-breaker: the device gives way
  // and waits for the peer's choice instead of nominating.
  sendCheck(Peer, local, session->localDescription(), true, ~uint64_t{0});
  reactor_->advance(Duration::milliseconds(500));
  EXPECT_FALSE(session->isControlling());
  EXPECT_EQ(0, peer.useCandidates);
  EXPECT_EQ(Session::Event::CandidatesGathered, events_.back());
  EXPECT_EQ(1u, session->validPairs().size());

  sendCheck(Peer, local, session->localDescription(), true, ~uint64_t{0}, 1862270975u, true);
  reactor_->advance(Duration::milliseconds(10));
  ASSERT_EQ(Session::Event::Established, events_.back());
  EXPECT_EQ(Peer, session->remoteAddress());
}

// A nomination that comes before the device's own check of that pair has
// succeeded is taken up when the check succeeds, with nothing more from the peer.
TEST_F(NetSessionTest, InTheControlledRoleAnEarlyNominationIsUsedOnceTheCheckSucceeds) {
  ScriptedPeer peer;
  peer.checkBack = false;
  peer.answer = false;
  const auto session = startWith(peer);
  reactor_->advance(Duration::milliseconds(2));
  sendCheck(Peer, SocketAddress(AF_INET, "10.0.0.2", 40000), session->localDescription(), true, ~uint64_t{0},
            1862270975u, true);
  reactor_->advance(Duration::milliseconds(10));
  EXPECT_EQ(Session::Event::CandidatesGathered, events_.back());
  peer.answer = true;
  reactor_->advance(Duration::milliseconds(1000));
  EXPECT_FALSE(session->isControlling());
  ASSERT_EQ(Session::Event::Established, events_.back());
  EXPECT_EQ(Peer, session->remoteAddress());
}

// Controlled, the device's own check succeeding is not enough: the pair is
// used only once the peer has nominated it, and a peer that takes the
// controlling role but never nominates is given up on.
TEST_F(NetSessionTest, InTheControlledRoleASucceededCheckWaitsForTheNominationUntilTheLimit) {
  ScriptedPeer peer;
  peer.checkBack = false;
  peer.answer = false;
  const auto capture = testing::LogCapture::install();
  const auto session = startWith(peer);
  reactor_->advance(Duration::milliseconds(2));
  sendCheck(Peer, SocketAddress(AF_INET, "10.0.0.2", 40000), session->localDescription(), true, ~uint64_t{0});
  peer.answer = true;
  reactor_->advance(Duration::milliseconds(500));
  EXPECT_FALSE(session->isControlling());
  EXPECT_FALSE(session->validPairs().empty());
  EXPECT_EQ(Session::Event::CandidatesGathered, events_.back());
  reactor_->advance(CheckPhaseLimit - Duration::milliseconds(500));
  EXPECT_EQ(Session::Event::Failed, events_.back());
  EXPECT_TRUE(capture->contains("Connectivity checks timed out before a pair was nominated"));
}

TEST_F(NetSessionTest, ARoleConflictAnswerSwitchesRoleAndChecksAgain) {
  int checks = 0;
  bool controlledSeen = false;
  const auto session = makeSession({remote(Peer)});
  network_.addResponder(Peer, [&](const SocketAddress& from, const std::vector<uint8_t>& bytes) {
    Message check = parsed(bytes);
    if (check.messageClass() != Message::Request) return;
    ++checks;
    controlledSeen |= check.findAttribute(Message::IceControlled).has_value();
    Message response = makeCheckError(check, 487, "Role Conflict", PeerPassword);
    if (!controlledSeen) network_.send(Peer, from, response.data(), response.size());
  });
  start(session);
  reactor_->advance(Duration::milliseconds(100));
  EXPECT_FALSE(session->isControlling());
  EXPECT_TRUE(controlledSeen);
  EXPECT_GE(checks, 2);
}

TEST_F(NetSessionTest, AnswerFromTheWrongAddressFailsTheCheck) {
  ScriptedPeer peer;
  peer.checkBack = false;
  peer.answerFrom = SocketAddress(AF_INET, "198.51.100.2", 6001);
  const auto capture = testing::LogCapture::install();
  const auto session = startWith(peer);
  reactor_->advance(Duration::milliseconds(100));
  EXPECT_TRUE(capture->contains(
      "Check failed because addresses don't match: sent 10.0.0.2:40000 -> 198.51.100.2:6000 "
      "reply 10.0.0.2:40000 <- 198.51.100.2:6001"));
  EXPECT_TRUE(session->validPairs().empty());
  EXPECT_EQ(Session::Event::Failed, events_.back());
}

TEST_F(NetSessionTest, AnUnknownMappedAddressBecomesAPeerReflexiveLocalCandidate) {
  ScriptedPeer peer;
  peer.mapped = SocketAddress(AF_INET, "203.0.113.77", 61000);
  const auto session = startWith(peer);
  reactor_->advance(Duration::milliseconds(300));
  ASSERT_EQ(Session::Event::Established, events_.back());
  EXPECT_EQ(peer.mapped, session->localAddress());
  ASSERT_TRUE(session->sendDatagram(reinterpret_cast<const uint8_t*>("via base"), 8));
  reactor_->advance(Duration::milliseconds(5));
  EXPECT_EQ(1u, peer.data.size());
}

TEST_F(NetSessionTest, CloseWhileGatheringOrCheckingReleasesEverything) {
  resolver_->addresses = {StunServer};
  for (int64_t at : {0, 3, 30, 2000}) {
    stunAnswers_ = at != 3;
    events_.clear();
    const auto session = makeSession({remote(Peer)});
    start(session);
    reactor_->advance(Duration::milliseconds(at));
    const std::size_t before = events_.size();
    session->close();
    EXPECT_EQ(0u, network_.openSockets()) << at;
    EXPECT_EQ(0u, agent_->pendingCount()) << at;
    reactor_->advance(Duration::seconds(20));
    EXPECT_EQ(before, events_.size()) << at;
  }
}

// Gathering's limit, the pacing of checks, their time limit and keepalives all
// run on the monotonic clock: steps of the wall clock during gathering, checks
// and an established path move no datagram and no event.
TEST(NetSessionClock, WallClockStepsMoveNoCheckNoLimitAndNoKeepalive) {
  struct Run : NetSessionTest {
    void TestBody() override {}
    std::vector<int64_t> trace(Duration step) {
      const SteadyTime begin = reactor_->clock().now();
      stunAnswers_ = false;  // gathering waits out its limit
      const auto silent = makeSession({remote(Peer), remote(SocketAddress(AF_INET, "198.51.100.3", 6001))});
      start(silent);
      reactor_->advance(Duration::milliseconds(300));
      reactor_->stepWallClock(step);
      reactor_->advance(GatheringLimit + Duration::milliseconds(500));
      reactor_->stepWallClock(step);
      reactor_->advance(CheckPhaseLimit + Duration::seconds(1));

      stunAnswers_ = true;
      ScriptedPeer peer;
      const auto session = startWith(peer);
      reactor_->advance(Duration::milliseconds(500));
      reactor_->stepWallClock(step);
      reactor_->advance(KeepaliveInterval * 3);

      std::vector<int64_t> seen;
      for (const auto& datagram : network_.log) seen.push_back((datagram.at - begin).count());
      for (std::size_t i = 0; i < events_.size(); ++i) {
        seen.insert(seen.end(), {static_cast<int64_t>(events_[i]), (eventTimes_[i] - begin).count()});
      }
      return seen;
    }
  };
  testing::expectNoWallClockStepMatters([](Duration step) { return Run().trace(step); });
}

}  // namespace
}  // namespace ice
}  // namespace quorvel
