#pragma once

#include <memory>
#include <string>

#include "ice/check_list.h"
#include "ice/check_results.h"
#include "ice/session_candidates.h"
#include "ice/session_link.h"
#include "stun/message.h"
#include "stun/stun_agent.h"

namespace quorvel {
namespace ice {

// Answers the peer's checks, from the moment the session starts for as long
// as it lives: refuses bad credentials (400, 401) and role conflicts it wins
// (487), confirms the rest, and learns from them: a peer-reflexive remote
// candidate, a new pair, the peer's nomination, and a triggered check back.
// Log: "icesession".
//   Owns: the credentials it checks with, and whether a check has passed them.
//   Changes: the remote candidates and the check list (adds to them); marks
//     a pair the peer nominated.
//   Reads: the session's state and role, the hosts, the valid pairs.
//   Calls back: the link's switchRole, trigger and establish.
class CheckAnswerer {
 public:
  CheckAnswerer(const SessionDependencies& dependencies, SessionLink& link, SessionCandidates& candidates,
                CheckList& checkList, const ValidPairs& valid);

  // Checks are expected with this user name (local fragment ":" remote
  // fragment) and keyed with the local password.
  void start(const std::string& userName, const std::string& password);
  // A request on one of the session's sockets, handed over by the agent.
  void onRequest(const std::shared_ptr<AsyncSocket>& socket, const SocketAddress& from,
                 const stun::MessagePtr& request);
  // A check with the right credentials has come: the peer is at work.
  bool hasAnsweredPeer() const { return answeredPeer_; }

 private:
  void handleCheck(const std::shared_ptr<AsyncSocket>& socket, const SocketAddress& from,
                   const stun::Message& request);
  void reject(const std::shared_ptr<AsyncSocket>& socket, const SocketAddress& from, const stun::Message& request,
              int code, const char* reason);

  std::shared_ptr<stun::StunAgent> agent_;
  SessionLink& link_;
  SessionCandidates& candidates_;
  CheckList& checkList_;
  const ValidPairs& valid_;
  std::string userName_;
  std::string password_;
  bool answeredPeer_ = false;
};

}  // namespace ice
}  // namespace quorvel
