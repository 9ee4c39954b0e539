#pragma once

#include <memory>
#include <string>

#include "core/cancelable_task.h"
#include "core/lifetime.h"
#include "ice/candidate_gathering.h"
#include "ice/check_answerer.h"
#include "ice/check_list.h"
#include "ice/check_pacer.h"
#include "ice/check_results.h"
#include "ice/keepalive.h"
#include "ice/nomination.h"
#include "ice/session.h"
#include "ice/session_candidates.h"
#include "ice/session_description.h"
#include "ice/session_link.h"
#include "stun/stun_agent.h"

namespace quorvel {
namespace ice {

// The device's side of one ICE session (RFC 5245 / 8445, one component, UDP):
// gathers host and server-reflexive candidates, checks the pairs it forms
// with the remote candidates, answers the peer's checks, and as the
// controlling agent nominates one valid pair by regular nomination. Every
// clock it runs on is in session_timing.h.
//
// It owns and wires its parts, each with one job: CandidateGathering,
// CheckPacer, CheckResults, Nomination, CheckAnswerer and Keepalive. It
// holds what they share (credentials, role, candidates, check list, valid
// pairs, selected pair), alone moves from state to state and reports
// events, and routes each part's calls on the link (SessionLink) to the part
// whose job they are. Its own jobs: the check phase's time limit, the end of
// the checks, role switches, and establishing on the selected pair.
class NetSession : public Session, public SessionLink, public std::enable_shared_from_this<NetSession> {
 public:
  using Dependencies = SessionDependencies;

  // Starts in the controlling role, as the device always does.
  explicit NetSession(Dependencies dependencies, bool controlling = true);
  ~NetSession() override;
  NetSession(const NetSession&) = delete;
  NetSession& operator=(const NetSession&) = delete;

  void setRemoteDescription(const SessionDescription& remote) override;
  void start(const EventCallback& callback) override;
  const SessionDescription& localDescription() const override { return local_; }
  bool hasHeardFromPeer() const override { return answerer_.hasAnsweredPeer() || !valid_.empty(); }
  SocketAddress localAddress() const override;
  SocketAddress remoteAddress() const override;
  void setDatagramHandler(const DatagramHandler& handler) override { datagramHandler_ = handler; }
  bool sendDatagram(const uint8_t* data, std::size_t size) override;
  void close() override;

  // For tests and diagnostics.
  bool isControlling() const override { return controlling_; }
  uint64_t tieBreaker() const override { return tieBreaker_; }
  const CheckList& checkList() const { return checkList_; }
  const ValidPairs& validPairs() const { return valid_; }
  std::size_t socketCount() const { return candidates_.hosts().size(); }

 private:
  SessionState state() const override { return state_; }
  std::weak_ptr<SessionLink> weakLink() override { return weak_from_this(); }
  stun::RequestHandle sendCheck(const CandidatePairPtr& pair, bool nominate) override;
  void onCheckResult(const CandidatePairPtr& pair, bool nominate, int error, const stun::MessagePtr& response,
                     const SocketAddress& from, const SocketAddress& local) override;
  void trigger(const CandidatePairPtr& pair) override { pacer_.trigger(pair); }
  void nominateOrWait() override { nomination_.nominateOrWait(); }
  void checkCompletion() override;
  void switchRole() override;
  void establish(const CandidatePairPtr& pair) override;

  void onGathered();
  void startChecks();
  void onCheckPhaseLimit();
  void fail();
  void onDatagram(const std::shared_ptr<SessionSocket>& socket, const SocketAddress& from, const uint8_t* data,
                  std::size_t size);
  void report(Event event);
  void release();

  Dependencies deps_;
  bool controlling_;
  uint64_t tieBreaker_;
  SessionState state_ = SessionState::Idle;
  EventCallback callback_;
  stun::StunAgent::RequestHandler requestHandler_;
  DatagramHandler datagramHandler_;

  SessionDescription local_;
  SessionDescription remote_;
  std::string outgoingUserName_;  // remote fragment ":" local fragment
  std::string incomingUserName_;  // local fragment ":" remote fragment

  SessionCandidates candidates_;
  CheckList checkList_;
  ValidPairs valid_;
  CandidatePairPtr selected_;
  std::shared_ptr<SessionSocket> selectedSocket_;

  CandidateGathering gathering_;
  CheckPacer pacer_;
  CheckResults results_;
  Nomination nomination_;
  CheckAnswerer answerer_;
  Keepalive keepalive_;

  CancelableTask phaseLimitTask_;
  LifetimeToken token_ = makeLifetimeToken();
};

}  // namespace ice
}  // namespace quorvel
