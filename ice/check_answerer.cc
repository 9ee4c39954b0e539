#include "ice/check_answerer.h"

#include <optional>

#include "core/log.h"
#include "ice/check_messages.h"
#include "ice/session_timing.h"
#include "stun/integrity.h"

namespace quorvel {
namespace ice {
namespace {

const log::Log Log("icesession");

using stun::Message;

}  // namespace

CheckAnswerer::CheckAnswerer(const SessionDependencies& dependencies, SessionLink& link,
                             SessionCandidates& candidates, CheckList& checkList, const ValidPairs& valid)
    : agent_(dependencies.agent), link_(link), candidates_(candidates), checkList_(checkList), valid_(valid) {}

void CheckAnswerer::start(const std::string& userName, const std::string& password) {
  userName_ = userName;
  password_ = password;
}

void CheckAnswerer::onRequest(const std::shared_ptr<AsyncSocket>& socket, const SocketAddress& from,
                              const stun::MessagePtr& request) {
  // Requests come only through the session's datagram handling, which takes
  // none while the session is idle, failed or closed.
  // Binding indications are the peer's keepalives: nothing to answer.
  if (request->messageClass() != Message::Request) return;
  if (request->method() != Message::MethodBinding) {
    reject(socket, from, *request, 400, "Bad Request");
    return;
  }
  handleCheck(socket, from, *request);
}

void CheckAnswerer::reject(const std::shared_ptr<AsyncSocket>& socket, const SocketAddress& from,
                           const Message& request, int code, const char* reason) {
  QLOG(Log, log::Debug, "Answering check from %s with %d", from.toString(), code);
  agent_->sendMessage(socket, makeCheckError(request, code, reason, password_), from);
}

void CheckAnswerer::handleCheck(const std::shared_ptr<AsyncSocket>& socket, const SocketAddress& from,
                                const Message& request) {
  if (!request.findAttribute(Message::Username) || !request.findAttribute(Message::MessageIntegrity)) {
    reject(socket, from, request, 400, "Bad Request");
    return;
  }
  if (!stun::checkCredentials(request, userName_, password_)) {
    reject(socket, from, request, 401, "Unauthorized");
    return;
  }
  switch (resolveRoleConflict(link_.isControlling(), link_.tieBreaker(), request)) {
    case RoleConflict::Reject487:
      reject(socket, from, request, 487, "Role Conflict");
      return;
    case RoleConflict::SwitchRole:
      if (link_.state() != SessionState::Established) link_.switchRole();
      break;
    case RoleConflict::None:
      break;
  }
  agent_->sendMessage(socket, makeCheckSuccess(request, from, password_), from);
  answeredPeer_ = true;

  const std::optional<uint32_t> priority = readPriority(request);
  const bool useCandidate = request.findAttribute(Message::UseCandidate).has_value();
  const HostCandidate* host = candidates_.hostWithSocket(socket);
  if (!host) {
    QLOG(Log, log::Warning, "Incoming check does not match any local candidates");
    return;
  }
  if (link_.state() == SessionState::Established) return;

  CandidatePtr remote = candidates_.remoteAt(from);
  if (!remote) {
    remote = candidates_.addPeerReflexiveRemote(from, priority.value_or(0));
    if (!remote) return;
  }
  // Before the checks start the pair is formed with all the others.
  if (link_.state() != SessionState::Checking) return;

  CandidatePairPtr pair = checkList_.find(host->candidate->address, from);
  if (!pair) {
    if (checkList_.size() >= MaxPairs) return;
    pair = std::make_shared<CandidatePair>(host->candidate, remote, link_.isControlling());
    checkList_.insert(pair);
  }
  if (useCandidate && !link_.isControlling()) pair->nominatedByPeer = true;
  if (pair->state == CandidatePair::State::Succeeded) {
    if (pair->nominatedByPeer && !link_.isControlling()) {
      if (const CandidatePairPtr valid = validPairFor(valid_, *pair)) link_.establish(valid);
    }
    return;
  }
  // The peer's check just came through, so ours will now too: check at
  // once rather than after the retransmission back-off (RFC 5245 7.2.1.4).
  link_.trigger(pair);
}

}  // namespace ice
}  // namespace quorvel
