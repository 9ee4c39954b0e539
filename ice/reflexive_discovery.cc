#include "ice/reflexive_discovery.h"

#include <algorithm>

#include "core/log.h"
#include "ice/session_timing.h"
#include "stun/message.h"

namespace quorvel {
namespace ice {
namespace {

const log::Log Log("icesession");

const char* const Software = "Quorvel ICE Agent";

}  // namespace

ReflexiveDiscovery::ReflexiveDiscovery(std::shared_ptr<Reactor> reactor, std::shared_ptr<stun::StunAgent> agent,
                                       std::shared_ptr<NameResolver> resolver, std::shared_ptr<RandomSource> random,
                                       std::string stunServer)
    : reactor_(std::move(reactor)),
      agent_(std::move(agent)),
      resolver_(std::move(resolver)),
      random_(std::move(random)),
      stunServer_(std::move(stunServer)),
      deadlineTask_([this]() { onDeadline(); }) {}

ReflexiveDiscovery::~ReflexiveDiscovery() { cancel(); }

void ReflexiveDiscovery::start(const std::vector<HostCandidate>& hosts, const Delegate<void()>& done) {
  hosts_ = hosts;
  done_ = done;
  running_ = true;
  resolving_ = true;
  deadline_ = reactor_->steadyNow() + GatheringLimit;
  reactor_->scheduleAt(token_, deadline_, deadlineTask_.start());
  const std::weak_ptr<ReflexiveDiscovery> weak = weak_from_this();
  // The resolver answers later on the reactor, never inside this call.
  resolver_->resolve(stunServer_, "stun", [weak](const NameResolver::Result& result, bool found) {
    if (const std::shared_ptr<ReflexiveDiscovery> self = weak.lock()) self->onResolved(result, found);
  });
}

void ReflexiveDiscovery::onResolved(const NameResolver::Result& result, bool found) {
  if (!running_ || !resolving_) return;
  resolving_ = false;
  if (!found) {
    QLOG(Log, log::Warning, "Failed to resolve STUN server %s", stunServer_);
    finishIfDone();
    return;
  }
  // The first address of each family serves the hosts of that family.
  for (const SocketAddress& address : result.addresses) {
    const bool known = std::any_of(servers_.begin(), servers_.end(),
                                   [&](const SocketAddress& s) { return s.family() == address.family(); });
    if (known || (address.family() != AF_INET && address.family() != AF_INET6)) continue;
    servers_.push_back(address);
    QLOG(Log, log::Info, "STUN server %s resolved to %s", stunServer_, address.toString());
  }

  const SteadyTime now = reactor_->steadyNow();
  for (const HostCandidate& host : hosts_) {
    const auto server = std::find_if(servers_.begin(), servers_.end(), [&](const SocketAddress& s) {
      return s.family() == host.candidate->address.family();
    });
    if (server == servers_.end()) continue;
    auto request = std::make_shared<stun::Message>(stun::Message::Request, stun::Message::MethodBinding,
                                                   stun::makeTransactionId(*random_));
    request->addStringAttribute(stun::Message::Software, Software);
    QLOG(Log, log::Debug, "Sending STUN request from %s to %s", host.candidate->address.toString(),
         server->toString());
    const std::weak_ptr<ReflexiveDiscovery> weak = weak_from_this();
    // The handle is known only once sendRequest returns; the callback never
    // runs before that.
    auto handle = std::make_shared<stun::RequestHandle>(0);
    *handle = agent_->sendRequest(
        request, host.socket->socket(), *server, StunServerRto, deadline_ - now, std::string(),
        [weak, host, handle](int error, const stun::MessagePtr& response, const SocketAddress& from,
                             const SocketAddress& local) {
          if (const std::shared_ptr<ReflexiveDiscovery> self = weak.lock()) {
            self->onReply(host, *handle, error, response, from, local);
          }
        });
    requests_.push_back(*handle);
  }
  finishIfDone();
}

void ReflexiveDiscovery::onReply(const HostCandidate& host, stun::RequestHandle handle, int error,
                                 const stun::MessagePtr& response, const SocketAddress& from,
                                 const SocketAddress& local) {
  if (!running_) return;
  forget(handle);
  const std::string base = host.candidate->address.toString();
  if (error) {
    QLOG(Log, log::Debug, "STUN request from %s ended without a reply: %d", base, error);
  } else if (response->messageClass() == stun::Message::ErrorResponse) {
    QLOG(Log, log::Info, "STUN request from %s failed with code %u", base,
         static_cast<unsigned>(response->getErrorCode()));
  } else {
    QLOG(Log, log::Debug, "Got STUN reply from %s to %s", from.toString(), local.toString());
    const SocketAddress mapped = response->getMappedAddress();
    // A mapping equal to the host address (no NAT on the way) adds nothing
    // but duplicate pairs (RFC 8445 section 5.1.3).
    if (mapped.valid() && mapped.family() == host.candidate->address.family() && mapped != host.candidate->address) {
      candidates_.push_back(std::make_shared<Candidate>(
          CandidateType::ServerReflexive, mapped, computePriority(CandidateType::ServerReflexive, host.localPreference),
          "s" + std::to_string(host.index), host.candidate->address));
      QLOG(Log, log::Info, "Adding server reflexive candidate %s with base %s", mapped.toString(), base);
    }
  }
  finishIfDone();
}

void ReflexiveDiscovery::onDeadline() {
  if (!running_) return;
  if (resolving_) QLOG(Log, log::Warning, "Failed to resolve STUN server %s", stunServer_);
  finish();
}

void ReflexiveDiscovery::forget(stun::RequestHandle handle) {
  requests_.erase(std::remove(requests_.begin(), requests_.end(), handle), requests_.end());
}

void ReflexiveDiscovery::finishIfDone() {
  if (running_ && !resolving_ && requests_.empty()) finish();
}

void ReflexiveDiscovery::finish() {
  const Delegate<void()> done = done_;
  cancel();
  if (done) done();
}

bool ReflexiveDiscovery::isServer(const SocketAddress& address) const {
  return std::find(servers_.begin(), servers_.end(), address) != servers_.end();
}

void ReflexiveDiscovery::cancel() {
  running_ = false;
  resolving_ = false;
  deadlineTask_.cancel();
  const std::vector<stun::RequestHandle> requests = std::move(requests_);
  requests_.clear();
  for (stun::RequestHandle handle : requests) agent_->cancel(handle);
  hosts_.clear();
  done_.clear();
}

}  // namespace ice
}  // namespace quorvel
