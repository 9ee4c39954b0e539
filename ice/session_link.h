#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "core/random_source.h"
#include "core/reactor.h"
#include "ice/candidate_pair.h"
#include "net/async_socket.h"
#include "net/local_network_info.h"
#include "net/name_resolver.h"
#include "net/socket_address.h"
#include "stun/message.h"
#include "stun/stun_agent.h"

namespace quorvel {
namespace ice {

// What a session is built from; each of its parts takes what it uses.
struct SessionDependencies {
  std::shared_ptr<Reactor> reactor;
  std::shared_ptr<AsyncSocketFactory> socketFactory;
  std::shared_ptr<stun::StunAgent> agent;
  std::shared_ptr<LocalNetworkInfo> networkInfo;
  std::shared_ptr<NameResolver> resolver;
  std::shared_ptr<RandomSource> random;
  std::string stunServer;
};

// Where one session stands. Only the session (NetSession) moves it on.
enum class SessionState { Idle, Gathering, Checking, Established, Failed, Closed };

// What the parts of one session (the check pacer, the check results, the
// nomination, the check answerer) see of the session and call back into:
// NetSession, which routes each call to the part that owns the job. The
// parts never call each other directly, so none of them needs to know the
// others.
class SessionLink {
 public:
  virtual SessionState state() const = 0;
  virtual bool isControlling() const = 0;
  virtual uint64_t tieBreaker() const = 0;
  // For callbacks that may come after the session is gone: they reach it
  // only while it lives.
  virtual std::weak_ptr<SessionLink> weakLink() = 0;

  // Sends a check on the pair, nominating it or not; the request's handle,
  // 0 when the pair's local candidate has no socket (the pair then fails).
  virtual stun::RequestHandle sendCheck(const CandidatePairPtr& pair, bool nominate) = 0;
  // The answer to a check came, or its transaction ended without one.
  virtual void onCheckResult(const CandidatePairPtr& pair, bool nominate, int error, const stun::MessagePtr& response,
                             const SocketAddress& from, const SocketAddress& local) = 0;
  // Checks the pair again at the next tick, ahead of the others.
  virtual void trigger(const CandidatePairPtr& pair) = 0;
  // A valid pair came or went: nominate now, later, or not at all.
  virtual void nominateOrWait() = 0;
  // Ends the check phase once nothing is left to check.
  virtual void checkCompletion() = 0;
  // Takes the other role (a role conflict).
  virtual void switchRole() = 0;
  // The pair carries the session's data from now on.
  virtual void establish(const CandidatePairPtr& pair) = 0;

 protected:
  ~SessionLink() = default;
};

}  // namespace ice
}  // namespace quorvel
