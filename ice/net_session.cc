#include "ice/net_session.h"

#include <netinet/in.h>

#include <algorithm>
#include <stdexcept>

#include "core/log.h"
#include "ice/check_messages.h"
#include "ice/credentials.h"
#include "ice/session_timing.h"
#include "stun/integrity.h"

namespace quorvel {
namespace ice {
namespace {

const log::Log Log("icesession");

using stun::Message;

SocketAddress baseOf(const Candidate& candidate) {
  return candidate.base.valid() ? candidate.base : candidate.address;
}

// Remote candidates that no pair of ours could ever reach: link-local IPv6
// needs a scope the peer's text cannot carry, and port 0 is no endpoint.
bool isReachableRemote(const Candidate& candidate) {
  const SocketAddress& address = candidate.address;
  if (address.port() == 0) return false;
  if (address.family() == AF_INET6) {
    const uint8_t* bytes = address.addressBytes();
    return !(bytes[0] == 0xFE && (bytes[1] & 0xC0) == 0x80);
  }
  return address.family() == AF_INET;
}

}  // namespace

NetSession::NetSession(Dependencies dependencies, bool controlling)
    : deps_(std::move(dependencies)),
      controlling_(controlling),
      tieBreaker_((uint64_t{deps_.random->next()} << 32) | deps_.random->next()),
      tickTask_([this]() { onTick(); }),
      nominationWaitTask_([this]() { onNominationWait(); }),
      phaseLimitTask_([this]() { onCheckPhaseLimit(); }),
      keepaliveTask_([this]() { sendKeepalive(); }) {
  local_.userFragment = randomIceText(*deps_.random, UserFragmentLength);
  local_.password = randomIceText(*deps_.random, PasswordLength);
}

NetSession::~NetSession() { release(); }

void NetSession::setRemoteDescription(const SessionDescription& remote) {
  if (state_ != State::Idle) throw std::logic_error("setRemoteDescription: ICE session already started");
  remote_.userFragment = remote.userFragment;
  remote_.password = remote.password;
  remote_.candidates.clear();
  remoteCandidates_.clear();
  for (const CandidatePtr& candidate : remote.candidates) {
    if (remoteCandidates_.size() >= MaxRemoteCandidates) break;
    // A copy: the session records its own state in its candidates.
    remoteCandidates_.push_back(std::make_shared<Candidate>(*candidate));
  }
  remote_.candidates = remoteCandidates_;
  outgoingUserName_ = remote_.userFragment + ":" + local_.userFragment;
  incomingUserName_ = local_.userFragment + ":" + remote_.userFragment;
}

void NetSession::start(const EventCallback& callback) {
  if (state_ != State::Idle) throw std::logic_error("ICE session already started");
  state_ = State::Gathering;
  callback_ = callback;
  QLOG(Log, log::Debug, "Finding candidates...");

  const std::weak_ptr<NetSession> weak = weak_from_this();
  requestHandler_ = [weak](const std::shared_ptr<AsyncSocket>& socket, const SocketAddress& from,
                           const stun::MessagePtr& message) {
    if (const std::shared_ptr<NetSession> self = weak.lock()) self->onRequest(socket, from, message);
  };
  std::vector<InterfaceInfo> interfaces;
  try {
    deps_.networkInfo->getInterfaces(interfaces);
  } catch (const NetInfoError& e) {
    QLOG(Log, log::Warning, "Failed to list local interfaces: %s", e.what());
  }
  hosts_ = bindHostCandidates(*deps_.socketFactory, interfaces,
                              [weak](const std::shared_ptr<SessionSocket>& socket, const SocketAddress& from,
                                     const uint8_t* data, std::size_t size) {
                                if (const std::shared_ptr<NetSession> self = weak.lock()) {
                                  self->onDatagram(socket, from, data, size);
                                }
                              });
  for (const HostCandidate& host : hosts_) {
    localCandidates_.push_back(host.candidate);
    local_.candidates.push_back(host.candidate);
  }
  discovery_ = std::make_shared<ReflexiveDiscovery>(deps_.reactor, deps_.agent, deps_.resolver, deps_.random,
                                                    deps_.stunServer);
  discovery_->start(hosts_, [weak]() {
    if (const std::shared_ptr<NetSession> self = weak.lock()) self->onGathered();
  });
}

void NetSession::onGathered() {
  if (state_ != State::Gathering) return;
  for (const CandidatePtr& candidate : discovery_->candidates()) {
    localCandidates_.push_back(candidate);
    local_.candidates.push_back(candidate);
  }
  QLOG(Log, log::Info, "Finished gathering candidates");
  const std::shared_ptr<NetSession> self = shared_from_this();
  report(Event::CandidatesGathered);
  // The handler may have closed the session while it answered.
  if (state_ != State::Closed) startChecks();
}

void NetSession::startChecks() {
  QLOG(Log, log::Debug, "Starting connectivity checks");
  if (state_ != State::Gathering) {
    QLOG(Log, log::Error, "ICE session in unexpected state");
    return;
  }
  state_ = State::Checking;
  formPairs();
  checkRto_ = checkRto(checkList_.size());
  nextTick_ = deps_.reactor->steadyNow();
  deps_.reactor->scheduleAfter(token_, CheckPhaseLimit, phaseLimitTask_.start());
  scheduleTick();
  checkCompletion();
}

void NetSession::formPairs() {
  for (const CandidatePtr& local : localCandidates_) {
    for (const CandidatePtr& remote : remoteCandidates_) {
      if (remote->address.family() != local->address.family() || !isReachableRemote(*remote)) continue;
      checkList_.insert(std::make_shared<CandidatePair>(local, remote, controlling_));
    }
  }
  checkList_.prune([this](const Candidate& reflexive) {
    const HostCandidate* host = hostFor(reflexive);
    return host ? host->candidate : CandidatePtr();
  });
  checkList_.limit(MaxPairs);
  // The first pair of each foundation starts waiting, the rest frozen
  // (RFC 5245 section 5.7.4).
  std::vector<std::string> seen;
  for (const CandidatePairPtr& pair : checkList_) {
    if (std::find(seen.begin(), seen.end(), pair->foundation) != seen.end()) continue;
    seen.push_back(pair->foundation);
    pair->state = CandidatePair::State::Waiting;
  }
}

void NetSession::scheduleTick() {
  if (state_ != State::Checking || tickTask_.isStarted()) return;
  const SteadyTime now = deps_.reactor->steadyNow();
  deps_.reactor->scheduleAt(token_, std::max(now, nextTick_), tickTask_.start());
}

void NetSession::onTick() {
  if (state_ != State::Checking) return;
  while (!triggered_.empty() && triggered_.front()->state != CandidatePair::State::Waiting) triggered_.pop_front();
  CandidatePairPtr pair;
  if (!triggered_.empty()) {
    pair = triggered_.front();
    triggered_.pop_front();
    QLOG(Log, log::Debug, "Performing triggered check");
  }
  if (!pair) {
    for (const CandidatePairPtr& candidate : checkList_) {
      if (candidate->state == CandidatePair::State::Waiting) {
        pair = candidate;
        QLOG(Log, log::Debug, "Performing check on waiting pair");
        break;
      }
    }
  }
  if (!pair) {
    for (const CandidatePairPtr& candidate : checkList_) {
      if (candidate->state == CandidatePair::State::Frozen) {
        pair = candidate;
        QLOG(Log, log::Debug, "Unfreezing pair %s", pair->toString());
        pair->state = CandidatePair::State::Waiting;
        QLOG(Log, log::Debug, "Performing check on frozen pair");
        break;
      }
    }
  }
  // Nothing to check: the timer rests until a triggered check wakes it.
  if (!pair) return;
  nextTick_ = deps_.reactor->steadyNow() + CheckPacing;
  performCheck(pair, false);
  scheduleTick();
}

void NetSession::performCheck(const CandidatePairPtr& pair, bool nominate) {
  QLOG(Log, log::Debug, "Performing check: %s", pair->toString());
  const HostCandidate* host = hostFor(*pair->local);
  if (!host) {
    pair->state = CandidatePair::State::Failed;
    return;
  }
  CheckParameters parameters;
  parameters.userName = outgoingUserName_;
  parameters.key = remote_.password;
  // The priority a peer-reflexive candidate learned from this check would
  // have (RFC 5245 section 7.1.2.1).
  parameters.priority = computePriority(CandidateType::PeerReflexive, host->localPreference);
  parameters.controlling = controlling_;
  parameters.tieBreaker = tieBreaker_;
  parameters.useCandidate = nominate;
  const stun::MessagePtr request = makeCheckRequest(*deps_.random, parameters);

  const std::weak_ptr<NetSession> weak = weak_from_this();
  const stun::RequestHandle handle = deps_.agent->sendRequest(
      request, host->socket->socket(), pair->remote->address, checkRto_, CheckTimeLimit, remote_.password,
      [weak, pair, nominate](int error, const stun::MessagePtr& response, const SocketAddress& from,
                             const SocketAddress& local) {
        if (const std::shared_ptr<NetSession> self = weak.lock()) {
          self->onCheckResult(pair, nominate, error, response, from, local);
        }
      });
  if (nominate) {
    nominationRequest_ = handle;
  } else {
    pair->request = handle;
    pair->state = CandidatePair::State::InProgress;
  }
}

void NetSession::onCheckResult(const CandidatePairPtr& pair, bool nominate, int error,
                               const stun::MessagePtr& response, const SocketAddress& from,
                               const SocketAddress& local) {
  if (state_ != State::Checking) return;
  if (nominate) {
    nominationRequest_ = 0;
  } else {
    pair->request = 0;
  }
  const auto failed = [&]() {
    if (nominate) {
      QLOG(Log, log::Warning, "Nominated pair check failed");
      valid_.erase(std::remove(valid_.begin(), valid_.end(), pair), valid_.end());
      nominated_.reset();
      nominateOrWait();
    } else {
      pair->state = CandidatePair::State::Failed;
    }
    checkCompletion();
  };

  if (error) {
    QLOG(Log, log::Debug, "Check failed: %s", pair->toString());
    failed();
    return;
  }
  if (response->messageClass() == Message::ErrorResponse) {
    const int code = response->getErrorCode();
    if (code == 487) {
      // The peer holds the same role with the larger tie-breaker: take the
      // other one and check again (RFC 8445 section 7.2.5.1).
      switchRole();
      if (nominate) {
        nominated_.reset();
      } else {
        trigger(pair);
      }
      return;
    }
    QLOG(Log, log::Debug, "Check failed with error response: %s", pair->toString());
    failed();
    return;
  }
  const SocketAddress sentFrom = baseOf(*pair->local);
  if (from != pair->remote->address || local != sentFrom) {
    QLOG(Log, log::Debug, "Check failed because addresses don't match: sent %s -> %s reply %s <- %s",
         sentFrom.toString(), pair->remote->address.toString(), local.toString(), from.toString());
    failed();
    return;
  }
  if (nominate) {
    QLOG(Log, log::Info, "Nominated pair check succeeded");
    establish(pair);
    return;
  }
  onCheckSucceeded(pair, *response);
}

void NetSession::onCheckSucceeded(const CandidatePairPtr& pair, const Message& response) {
  const SocketAddress mapped = response.getMappedAddress();
  QLOG(Log, log::Debug, "Check succeeded: %s, mapped address is %s", pair->toString(), mapped.toString());
  pair->state = CandidatePair::State::Succeeded;
  addValidPair(pair, mapped);
  unfreezeFoundation(pair->foundation);
  if (!controlling_ && pair->nominatedByPeer) {
    if (const CandidatePairPtr valid = validPairFor(*pair)) {
      establish(valid);
      return;
    }
  }
  nominateOrWait();
  checkCompletion();
}

void NetSession::addValidPair(const CandidatePairPtr& checked, const SocketAddress& mapped) {
  CandidatePtr local = mapped.valid() ? localCandidateAt(mapped) : checked->local;
  if (!local) {
    QLOG(Log, log::Debug, "Creating peer reflexive candidate for %s", mapped.toString());
    const HostCandidate* host = hostFor(*checked->local);
    const uint32_t preference = host ? host->localPreference : 0;
    local = std::make_shared<Candidate>(CandidateType::PeerReflexive, mapped,
                                        computePriority(CandidateType::PeerReflexive, preference),
                                        "p" + std::to_string(++peerReflexiveCount_), baseOf(*checked->local));
    localCandidates_.push_back(local);
  }
  CandidatePairPtr valid = checked;
  if (local != checked->local) {
    valid = std::make_shared<CandidatePair>(local, checked->remote, controlling_);
    valid->state = CandidatePair::State::Succeeded;
  }
  for (const CandidatePairPtr& known : valid_) {
    if (known->local->address == valid->local->address && known->remote->address == valid->remote->address) return;
  }
  QLOG(Log, log::Debug, "Adding valid pair %s", valid->toString());
  const auto position = std::upper_bound(
      valid_.begin(), valid_.end(), valid,
      [](const CandidatePairPtr& a, const CandidatePairPtr& b) { return a->priority > b->priority; });
  valid_.insert(position, valid);
}

CandidatePairPtr NetSession::validPairFor(const CandidatePair& checked) const {
  for (const CandidatePairPtr& valid : valid_) {
    if (valid->remote->address == checked.remote->address && baseOf(*valid->local) == baseOf(*checked.local)) {
      return valid;
    }
  }
  return CandidatePairPtr();
}

void NetSession::unfreezeFoundation(const std::string& foundation) {
  for (const CandidatePairPtr& pair : checkList_) {
    if (pair->state == CandidatePair::State::Frozen && pair->foundation == foundation) {
      QLOG(Log, log::Debug, "Unfreezing pair %s", pair->toString());
      pair->state = CandidatePair::State::Waiting;
    }
  }
}

bool NetSession::isPending(const CandidatePair& pair) const {
  return pair.state == CandidatePair::State::Frozen || pair.state == CandidatePair::State::Waiting ||
         pair.state == CandidatePair::State::InProgress;
}

void NetSession::nominateOrWait() {
  if (state_ != State::Checking || !controlling_ || nominated_ || valid_.empty()) return;
  const uint64_t best = valid_.front()->priority;
  const bool betterPending = std::any_of(checkList_.begin(), checkList_.end(), [&](const CandidatePairPtr& pair) {
    return isPending(*pair) && pair->priority > best;
  });
  if (!betterPending) {
    nominate(valid_.front());
    return;
  }
  // Better pairs may still come through, but pairs that never will (private
  // addresses across NATs) would hold the session for their whole check
  // time: wait a little, then take the best pair there is.
  if (!nominationWaitTask_.isStarted()) {
    deps_.reactor->scheduleAfter(token_, NominationWait, nominationWaitTask_.start());
  }
}

void NetSession::onNominationWait() {
  if (state_ == State::Checking && controlling_ && !nominated_ && !valid_.empty()) nominate(valid_.front());
}

void NetSession::nominate(const CandidatePairPtr& pair) {
  nominationWaitTask_.cancel();
  nominated_ = pair;
  QLOG(Log, log::Info, "Sending final check for nominated pair %s", pair->toString());
  performCheck(pair, true);
}

void NetSession::checkCompletion() {
  if (state_ != State::Checking || nominated_ || !triggered_.empty()) return;
  for (const CandidatePairPtr& pair : checkList_) {
    if (isPending(*pair)) return;
  }
  if (valid_.empty()) {
    QLOG(Log, log::Warning, "All checks complete, no valid pairs found");
    fail();
    return;
  }
  QLOG(Log, log::Debug, "All checks complete");
  if (controlling_) nominate(valid_.front());
}

void NetSession::onCheckPhaseLimit() {
  if (state_ != State::Checking) return;
  if (valid_.empty()) {
    QLOG(Log, log::Warning, "Connectivity check timed out with no valid pairs");
  } else {
    QLOG(Log, log::Warning, "Connectivity checks timed out before a pair was nominated");
  }
  fail();
}

void NetSession::establish(const CandidatePairPtr& pair) {
  const HostCandidate* host = hostFor(*pair->local);
  if (!host) return;
  state_ = State::Established;
  selected_ = pair;
  selectedSocket_ = host->socket;
  // The pair is chosen: the other checks only cost traffic now. Their
  // sockets stay open, so the peer's checks on them are still answered.
  tickTask_.cancel();
  nominationWaitTask_.cancel();
  phaseLimitTask_.cancel();
  triggered_.clear();
  for (const CandidatePairPtr& other : checkList_) {
    if (other->request) deps_.agent->cancel(other->request);
    other->request = 0;
  }
  QLOG(Log, log::Debug, "Selected pair %s", pair->toString());
  deps_.reactor->scheduleAfter(token_, KeepaliveInterval, keepaliveTask_.start());
  report(Event::Established);
}

void NetSession::fail() {
  state_ = State::Failed;
  const std::shared_ptr<NetSession> self = shared_from_this();
  const EventCallback callback = callback_;
  release();
  callback_.clear();
  if (callback) callback(Event::Failed);
}

void NetSession::switchRole() {
  controlling_ = !controlling_;
  QLOG(Log, log::Info, "Role conflict: switching to the %s role", controlling_ ? "controlling" : "controlled");
  checkList_.setRole(controlling_);
  for (const CandidatePairPtr& pair : valid_) pair->setRole(controlling_);
  std::stable_sort(valid_.begin(), valid_.end(),
                   [](const CandidatePairPtr& a, const CandidatePairPtr& b) { return a->priority > b->priority; });
  if (!controlling_) {
    nominationWaitTask_.cancel();
    if (nominationRequest_) deps_.agent->cancel(nominationRequest_);
    nominationRequest_ = 0;
    nominated_.reset();
  } else {
    nominateOrWait();
  }
}

void NetSession::trigger(const CandidatePairPtr& pair) {
  if (pair->request) deps_.agent->cancel(pair->request);
  pair->request = 0;
  pair->state = CandidatePair::State::Waiting;
  if (std::find(triggered_.begin(), triggered_.end(), pair) == triggered_.end()) triggered_.push_back(pair);
  scheduleTick();
}

void NetSession::onDatagram(const std::shared_ptr<SessionSocket>& socket, const SocketAddress& from,
                            const uint8_t* data, std::size_t size) {
  if (state_ == State::Idle || state_ == State::Failed || state_ == State::Closed) return;
  // The STUN server answers without FINGERPRINT; the peer always adds it.
  const bool fingerprintRequired = !(discovery_ && discovery_->isServer(from));
  if (deps_.agent->handleDatagram(socket->socket(), from, data, size, fingerprintRequired, requestHandler_)) return;
  if (state_ != State::Established || socket != selectedSocket_ || from != selected_->remote->address) return;
  // A copy: the handler may close the session and clear its own delegate.
  const DatagramHandler handler = datagramHandler_;
  if (handler) handler(data, size);
}

void NetSession::onRequest(const std::shared_ptr<AsyncSocket>& socket, const SocketAddress& from,
                           const stun::MessagePtr& request) {
  if (state_ == State::Idle || state_ == State::Failed || state_ == State::Closed) return;
  // Binding indications are the peer's keepalives: nothing to answer.
  if (request->messageClass() != Message::Request) return;
  if (request->method() != Message::MethodBinding) {
    reject(socket, from, *request, 400, "Bad Request");
    return;
  }
  handleCheck(socket, from, *request);
}

void NetSession::reject(const std::shared_ptr<AsyncSocket>& socket, const SocketAddress& from,
                        const Message& request, int code, const char* reason) {
  QLOG(Log, log::Debug, "Answering check from %s with %d", from.toString(), code);
  deps_.agent->sendMessage(socket, makeCheckError(request, code, reason, local_.password), from);
}

void NetSession::handleCheck(const std::shared_ptr<AsyncSocket>& socket, const SocketAddress& from,
                             const Message& request) {
  if (!request.findAttribute(Message::Username) || !request.findAttribute(Message::MessageIntegrity)) {
    reject(socket, from, request, 400, "Bad Request");
    return;
  }
  if (!stun::checkCredentials(request, incomingUserName_, local_.password)) {
    reject(socket, from, request, 401, "Unauthorized");
    return;
  }
  switch (resolveRoleConflict(controlling_, tieBreaker_, request)) {
    case RoleConflict::Reject487:
      reject(socket, from, request, 487, "Role Conflict");
      return;
    case RoleConflict::SwitchRole:
      if (state_ != State::Established) switchRole();
      break;
    case RoleConflict::None:
      break;
  }
  deps_.agent->sendMessage(socket, makeCheckSuccess(request, from, local_.password), from);

  const std::optional<uint32_t> priority = readPriority(request);
  const bool useCandidate = request.findAttribute(Message::UseCandidate).has_value();
  const auto host = std::find_if(hosts_.begin(), hosts_.end(),
                                 [&](const HostCandidate& h) { return h.socket->socket() == socket; });
  if (host == hosts_.end()) {
    QLOG(Log, log::Warning, "Incoming check does not match any local candidates");
    return;
  }
  if (state_ == State::Established) return;

  CandidatePtr remote = remoteCandidateAt(from);
  if (!remote) {
    // Its priority is the one the check carries (RFC 5245 section 7.2.1.3).
    QLOG(Log, log::Debug, "Creating peer reflexive candidate for %s", from.toString());
    remote = std::make_shared<Candidate>(CandidateType::PeerReflexive, from, priority.value_or(0),
                                         "rp" + std::to_string(++peerReflexiveCount_), from);
    if (remoteCandidates_.size() >= MaxRemoteCandidates) return;
    remoteCandidates_.push_back(remote);
  }
  // Before the checks start the pair is formed with all the others.
  if (state_ != State::Checking) return;

  CandidatePairPtr pair = checkList_.find(host->candidate->address, from);
  if (!pair) {
    if (checkList_.size() >= MaxPairs) return;
    pair = std::make_shared<CandidatePair>(host->candidate, remote, controlling_);
    checkList_.insert(pair);
  }
  if (useCandidate && !controlling_) pair->nominatedByPeer = true;
  if (pair->state == CandidatePair::State::Succeeded) {
    if (pair->nominatedByPeer && !controlling_) {
      if (const CandidatePairPtr valid = validPairFor(*pair)) establish(valid);
    }
    return;
  }
  // The peer's check just came through, so ours will now too: check at
  // once rather than after the retransmission back-off (RFC 5245 7.2.1.4).
  trigger(pair);
}

void NetSession::sendKeepalive() {
  if (state_ != State::Established) return;
  deps_.agent->sendMessage(selectedSocket_->socket(), makeKeepalive(*deps_.random), selected_->remote->address);
  deps_.reactor->scheduleAfter(token_, KeepaliveInterval, keepaliveTask_.start());
}

const HostCandidate* NetSession::hostFor(const Candidate& local) const {
  const SocketAddress base = baseOf(local);
  for (const HostCandidate& host : hosts_) {
    if (host.candidate->address == base) return &host;
  }
  return nullptr;
}

CandidatePtr NetSession::localCandidateAt(const SocketAddress& address) const {
  for (const CandidatePtr& candidate : localCandidates_) {
    if (candidate->address == address) return candidate;
  }
  return CandidatePtr();
}

CandidatePtr NetSession::remoteCandidateAt(const SocketAddress& address) const {
  for (const CandidatePtr& candidate : remoteCandidates_) {
    if (candidate->address == address) return candidate;
  }
  return CandidatePtr();
}

SocketAddress NetSession::localAddress() const {
  return state_ == State::Established ? selected_->local->address : SocketAddress();
}

SocketAddress NetSession::remoteAddress() const {
  return state_ == State::Established ? selected_->remote->address : SocketAddress();
}

bool NetSession::sendDatagram(const uint8_t* data, std::size_t size) {
  if (state_ != State::Established) return false;
  return selectedSocket_->send(data, size, selected_->remote->address);
}

void NetSession::report(Event event) {
  const std::shared_ptr<NetSession> self = shared_from_this();
  const EventCallback callback = callback_;
  if (callback) callback(event);
}

void NetSession::close() {
  if (state_ == State::Closed) return;
  state_ = State::Closed;
  release();
  callback_.clear();
  datagramHandler_.clear();
}

void NetSession::release() {
  if (discovery_) discovery_->cancel();
  tickTask_.cancel();
  nominationWaitTask_.cancel();
  phaseLimitTask_.cancel();
  keepaliveTask_.cancel();
  token_ = makeLifetimeToken();
  if (deps_.agent) {
    for (const CandidatePairPtr& pair : checkList_) {
      if (pair->request) deps_.agent->cancel(pair->request);
      pair->request = 0;
    }
    if (nominationRequest_) deps_.agent->cancel(nominationRequest_);
  }
  nominationRequest_ = 0;
  for (HostCandidate& host : hosts_) host.socket->close();
  hosts_.clear();
  checkList_.clear();
  triggered_.clear();
  valid_.clear();
  nominated_.reset();
  selected_.reset();
  selectedSocket_.reset();
  requestHandler_.clear();
}

}  // namespace ice
}  // namespace quorvel
