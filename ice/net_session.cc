#include "ice/net_session.h"

#include <algorithm>
#include <stdexcept>

#include "core/log.h"
#include "ice/credentials.h"
#include "ice/session_timing.h"

namespace quorvel {
namespace ice {
namespace {

const log::Log Log("icesession");

}  // namespace

NetSession::NetSession(Dependencies dependencies, bool controlling)
    : deps_(std::move(dependencies)),
      controlling_(controlling),
      tieBreaker_((uint64_t{deps_.random->next()} << 32) | deps_.random->next()),
      gathering_(deps_, candidates_),
      pacer_(deps_, *this, candidates_, checkList_),
      results_(*this, candidates_, checkList_, valid_),
      nomination_(deps_, *this, checkList_, valid_),
      answerer_(deps_, *this, candidates_, checkList_, valid_),
      keepalive_(deps_),
      phaseLimitTask_([this]() { onCheckPhaseLimit(); }) {
  local_.userFragment = randomIceText(*deps_.random, UserFragmentLength);
  local_.password = randomIceText(*deps_.random, PasswordLength);
}

NetSession::~NetSession() { release(); }

void NetSession::setRemoteDescription(const SessionDescription& remote) {
  if (state_ != SessionState::Idle) throw std::logic_error("setRemoteDescription: ICE session already started");
  remote_.userFragment = remote.userFragment;
  remote_.password = remote.password;
  candidates_.setRemote(remote.candidates);
  remote_.candidates = candidates_.remotes();
  outgoingUserName_ = remote_.userFragment + ":" + local_.userFragment;
  incomingUserName_ = local_.userFragment + ":" + remote_.userFragment;
}

void NetSession::start(const EventCallback& callback) {
  if (state_ != SessionState::Idle) throw std::logic_error("ICE session already started");
  state_ = SessionState::Gathering;
  callback_ = callback;
  QLOG(Log, log::Debug, "Finding candidates...");

  answerer_.start(incomingUserName_, local_.password);
  const std::weak_ptr<NetSession> weak = weak_from_this();
  requestHandler_ = [weak](const std::shared_ptr<AsyncSocket>& socket, const SocketAddress& from,
                           const stun::MessagePtr& message) {
    if (const std::shared_ptr<NetSession> self = weak.lock()) self->answerer_.onRequest(socket, from, message);
  };
  gathering_.start(
      [weak](const std::shared_ptr<SessionSocket>& socket, const SocketAddress& from, const uint8_t* data,
             std::size_t size) {
        if (const std::shared_ptr<NetSession> self = weak.lock()) self->onDatagram(socket, from, data, size);
      },
      [weak]() {
        if (const std::shared_ptr<NetSession> self = weak.lock()) self->onGathered();
      });
  local_.candidates = candidates_.locals();
}

void NetSession::onGathered() {
  if (state_ != SessionState::Gathering) return;
  gathering_.finish();
  local_.candidates = candidates_.locals();
  const std::shared_ptr<NetSession> self = shared_from_this();
  report(Event::CandidatesGathered);
  // The handler may have closed the session while it answered.
  if (state_ != SessionState::Closed) startChecks();
}

void NetSession::startChecks() {
  QLOG(Log, log::Debug, "Starting connectivity checks");
  if (state_ != SessionState::Gathering) {
    QLOG(Log, log::Error, "ICE session in unexpected state");
    return;
  }
  state_ = SessionState::Checking;
  pacer_.start(outgoingUserName_, remote_.password);
  deps_.reactor->scheduleAfter(token_, CheckPhaseLimit, phaseLimitTask_.start());
  pacer_.scheduleTick();
  checkCompletion();
}

stun::RequestHandle NetSession::sendCheck(const CandidatePairPtr& pair, bool nominate) {
  return pacer_.send(pair, nominate);
}

void NetSession::onCheckResult(const CandidatePairPtr& pair, bool nominate, int error,
                               const stun::MessagePtr& response, const SocketAddress& from,
                               const SocketAddress& local) {
  if (nominate) {
    nomination_.onResult(pair, error, response, from, local);
  } else {
    results_.onResult(pair, error, response, from, local);
  }
}

void NetSession::checkCompletion() {
  if (state_ != SessionState::Checking || nomination_.isNominating() || pacer_.hasTriggered()) return;
  for (const CandidatePairPtr& pair : checkList_) {
    if (pair->isPending()) return;
  }
  if (valid_.empty()) {
    QLOG(Log, log::Warning, "All checks complete, no valid pairs found");
    fail();
    return;
  }
  QLOG(Log, log::Debug, "All checks complete");
  if (controlling_) nomination_.nominate(valid_.front());
}

void NetSession::onCheckPhaseLimit() {
  if (state_ != SessionState::Checking) return;
  if (valid_.empty()) {
    QLOG(Log, log::Warning, "Connectivity check timed out with no valid pairs");
  } else {
    QLOG(Log, log::Warning, "Connectivity checks timed out before a pair was nominated");
  }
  fail();
}

void NetSession::establish(const CandidatePairPtr& pair) {
  const HostCandidate* host = candidates_.hostFor(*pair->local);
  if (!host) return;
  state_ = SessionState::Established;
  selected_ = pair;
  selectedSocket_ = host->socket;
  // The pair is chosen: the other checks only cost traffic now. Their
  // sockets stay open, so the peer's checks on them are still answered.
  pacer_.stop();
  nomination_.stopWaiting();
  phaseLimitTask_.cancel();
  QLOG(Log, log::Debug, "Selected pair %s", pair->toString());
  keepalive_.start(selectedSocket_, selected_->remote->address);
  report(Event::Established);
}

void NetSession::fail() {
  state_ = SessionState::Failed;
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
  nomination_.onRoleSwitched();
}

void NetSession::onDatagram(const std::shared_ptr<SessionSocket>& socket, const SocketAddress& from,
                            const uint8_t* data, std::size_t size) {
  if (state_ == SessionState::Idle || state_ == SessionState::Failed || state_ == SessionState::Closed) return;
  // The STUN server answers without FINGERPRINT; the peer always adds it.
  const bool fingerprintRequired = !gathering_.isServer(from);
  if (deps_.agent->handleDatagram(socket->socket(), from, data, size, fingerprintRequired, requestHandler_)) return;
  if (state_ != SessionState::Established || socket != selectedSocket_ || from != selected_->remote->address) return;
  // A copy: the handler may close the session and clear its own delegate.
  const DatagramHandler handler = datagramHandler_;
  if (handler) handler(data, size);
}

SocketAddress NetSession::localAddress() const {
  return state_ == SessionState::Established ? selected_->local->address : SocketAddress();
}

SocketAddress NetSession::remoteAddress() const {
  return state_ == SessionState::Established ? selected_->remote->address : SocketAddress();
}

bool NetSession::sendDatagram(const uint8_t* data, std::size_t size) {
  if (state_ != SessionState::Established) return false;
  return selectedSocket_->send(data, size, selected_->remote->address);
}

void NetSession::report(Event event) {
  const std::shared_ptr<NetSession> self = shared_from_this();
  const EventCallback callback = callback_;
  if (callback) callback(event);
}

void NetSession::close() {
  if (state_ == SessionState::Closed) return;
  state_ = SessionState::Closed;
  release();
  callback_.clear();
  datagramHandler_.clear();
}

void NetSession::release() {
  gathering_.cancel();
  pacer_.release();
  nomination_.release();
  phaseLimitTask_.cancel();
  keepalive_.stop();
  token_ = makeLifetimeToken();
  candidates_.closeSockets();
  checkList_.clear();
  valid_.clear();
  selected_.reset();
  selectedSocket_.reset();
  requestHandler_.clear();
}

}  // namespace ice
}  // namespace quorvel
