#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "core/cancelable_task.h"
#include "core/lifetime.h"
#include "core/random_source.h"
#include "core/reactor.h"
#include "ice/check_list.h"
#include "ice/host_candidates.h"
#include "ice/reflexive_discovery.h"
#include "ice/session.h"
#include "ice/session_description.h"
#include "net/local_network_info.h"
#include "net/name_resolver.h"
#include "stun/stun_agent.h"

namespace quorvel {
namespace ice {

// The device's side of one ICE session (RFC 5245 / 8445, one component, UDP):
// gathers host and server-reflexive candidates, checks the pairs it forms
// with the remote candidates, answers the peer's checks, and as the
// controlling agent nominates one valid pair by regular nomination. Every
// clock it runs on is in session_timing.h.
class NetSession : public Session, public std::enable_shared_from_this<NetSession> {
 public:
  struct Dependencies {
    std::shared_ptr<Reactor> reactor;
    std::shared_ptr<AsyncSocketFactory> socketFactory;
    std::shared_ptr<stun::StunAgent> agent;
    std::shared_ptr<LocalNetworkInfo> networkInfo;
    std::shared_ptr<NameResolver> resolver;
    std::shared_ptr<RandomSource> random;
    std::string stunServer;
  };

  // Starts in the controlling role, as the device always does.
  explicit NetSession(Dependencies dependencies, bool controlling = true);
  ~NetSession() override;
  NetSession(const NetSession&) = delete;
  NetSession& operator=(const NetSession&) = delete;

  void setRemoteDescription(const SessionDescription& remote) override;
  void start(const EventCallback& callback) override;
  const SessionDescription& localDescription() const override { return local_; }
  SocketAddress localAddress() const override;
  SocketAddress remoteAddress() const override;
  void setDatagramHandler(const DatagramHandler& handler) override { datagramHandler_ = handler; }
  bool sendDatagram(const uint8_t* data, std::size_t size) override;
  void close() override;

  // For tests and diagnostics.
  bool isControlling() const { return controlling_; }
  uint64_t tieBreaker() const { return tieBreaker_; }
  const CheckList& checkList() const { return checkList_; }
  const std::vector<CandidatePairPtr>& validPairs() const { return valid_; }
  std::size_t socketCount() const { return hosts_.size(); }

 private:
  enum class State { Idle, Gathering, Checking, Established, Failed, Closed };

  void onGathered();
  void startChecks();
  void formPairs();
  void scheduleTick();
  void onTick();
  void performCheck(const CandidatePairPtr& pair, bool nominate);
  void onCheckResult(const CandidatePairPtr& pair, bool nominate, int error, const stun::MessagePtr& response,
                     const SocketAddress& from, const SocketAddress& local);
  void onCheckSucceeded(const CandidatePairPtr& pair, const stun::Message& response);
  void addValidPair(const CandidatePairPtr& checked, const SocketAddress& mapped);
  void unfreezeFoundation(const std::string& foundation);
  void nominateOrWait();
  void onNominationWait();
  void checkCompletion();
  void onCheckPhaseLimit();
  void establish(const CandidatePairPtr& pair);
  void fail();
  void switchRole();
  void trigger(const CandidatePairPtr& pair);

  void onDatagram(const std::shared_ptr<SessionSocket>& socket, const SocketAddress& from, const uint8_t* data,
                  std::size_t size);
  void nominate(const CandidatePairPtr& pair);
  void onRequest(const std::shared_ptr<AsyncSocket>& socket, const SocketAddress& from,
                 const stun::MessagePtr& request);
  void handleCheck(const std::shared_ptr<AsyncSocket>& socket, const SocketAddress& from,
                   const stun::Message& request);
  void sendKeepalive();
  void reject(const std::shared_ptr<AsyncSocket>& socket, const SocketAddress& from, const stun::Message& request,
              int code, const char* reason);
  CandidatePairPtr validPairFor(const CandidatePair& checked) const;

  const HostCandidate* hostFor(const Candidate& local) const;
  CandidatePtr localCandidateAt(const SocketAddress& address) const;
  CandidatePtr remoteCandidateAt(const SocketAddress& address) const;
  bool isPending(const CandidatePair& pair) const;
  void report(Event event);
  void release();

  Dependencies deps_;
  bool controlling_;
  uint64_t tieBreaker_;
  State state_ = State::Idle;
  EventCallback callback_;
  stun::StunAgent::RequestHandler requestHandler_;
  DatagramHandler datagramHandler_;

  SessionDescription local_;
  SessionDescription remote_;
  std::string outgoingUserName_;  // remote fragment ":" local fragment
  std::string incomingUserName_;  // local fragment ":" remote fragment

  std::vector<HostCandidate> hosts_;
  std::shared_ptr<ReflexiveDiscovery> discovery_;
  std::vector<CandidatePtr> localCandidates_;  // hosts, server and peer reflexive
  std::vector<CandidatePtr> remoteCandidates_;
  unsigned peerReflexiveCount_ = 0;

  CheckList checkList_;
  std::deque<CandidatePairPtr> triggered_;
  std::vector<CandidatePairPtr> valid_;
  Duration checkRto_;
  SteadyTime nextTick_;
  CandidatePairPtr nominated_;
  stun::RequestHandle nominationRequest_ = 0;
  CandidatePairPtr selected_;
  std::shared_ptr<SessionSocket> selectedSocket_;

  CancelableTask tickTask_;
  CancelableTask nominationWaitTask_;
  CancelableTask phaseLimitTask_;
  CancelableTask keepaliveTask_;
  LifetimeToken token_ = makeLifetimeToken();
};

}  // namespace ice
}  // namespace quorvel
