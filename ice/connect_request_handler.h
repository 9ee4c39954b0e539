#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "core/delegate.h"
#include "core/lifetime.h"
#include "core/reactor.h"
#include "core/time.h"
#include "http/web_request.h"
#include "ice/ice_session_manager.h"
#include "ice/session.h"

namespace quorvel {

// The "/sg/" resources: a POST to "/sg/sessions" carries a remote client's
// ICE description; the answer (201) carries the device's once its
// candidates are gathered, and the session, once established, goes to the
// established-session callback. Answers: 400 for a description that does
// not parse or cannot authenticate (no user fragment, no password, or a
// password longer than the HMAC key limit), 404 for other resources under
// "/sg/", 405 for other methods, 500 for a session that fails before the
// answer, 503 when every session of the bound below is established.
//
// Sessions are bounded: at most MaxSessions at once, established or not.
// A remote party can ask for sessions as fast as the relay carries its
// requests, and each one holds a UDP socket per local address until its
// checks end; the device has about a thousand descriptors for everything.
// At the bound a new request replaces a session that is not yet
// established: the oldest one whose client has not been heard from (a
// client that asked and went quiet), else the oldest of them all. A client
// at work on its checks, which across NATs can take seconds, thus outlives
// a flood of silent ones. Only when all sessions are established is the
// new request refused with 503. An established session is never ended for
// a newcomer.
class ConnectRequestHandler : public WebRequestHandler {
 public:
  using SessionCallback = Delegate<void(const ice::SessionPtr& session)>;

  // Bodies longer than this are not descriptions (a hundred candidates take
  // under 8 KB) and are refused like any unparsable text.
  static constexpr std::size_t MaxBodySize = 64 * 1024;
  // A body not complete this long after its request arrived never will be:
  // the relay exchange that carried it failed, was cut or was cancelled,
  // and its end will not come. The request is then let go (answered 400 if
  // the relay still carries it).
  static constexpr Duration BodyWait = Duration::seconds(10);
  // Sessions at once, those being set up and those handed on as
  // established: a camera serves a handful of viewers.
  static constexpr std::size_t MaxSessions = 16;

  ConnectRequestHandler(std::shared_ptr<Reactor> reactor, std::shared_ptr<ice::IceSessionManager> manager);
  ~ConnectRequestHandler() override;
  ConnectRequestHandler(const ConnectRequestHandler&) = delete;
  ConnectRequestHandler& operator=(const ConnectRequestHandler&) = delete;

  bool handle(const std::shared_ptr<WebRequest>& request) override;

  void setSessionEstablishedCallback(const SessionCallback& callback) { established_ = callback; }
  // How long a finished request's record (and a failed session) lingers
  // before it is destroyed: never inside the callback that finished it.
  void setCleanupDelay(Duration delay) { cleanupDelay_ = delay; }

  // Requests whose session is neither established nor failed yet.
  std::size_t pendingCount() const { return pending_.size(); }
  // Sessions that count against MaxSessions.
  std::size_t sessionCount();

 private:
  struct Pending;
  using PendingPtr = std::shared_ptr<Pending>;

  void startSession(const PendingPtr& pending, const std::string& body);
  // Below the bound, or brought below it by ending a session not
  // yet established; false when every session is established.
  bool makeRoom();
  void onBody(const std::weak_ptr<Pending>& weak, const BufferChainPtr& piece, bool end);
  void onBodyWaitOver(const std::weak_ptr<Pending>& weak);
  void onEvent(const std::weak_ptr<Pending>& weak, ice::Session::Event event);
  void finish(const PendingPtr& pending);

  std::shared_ptr<Reactor> reactor_;
  std::shared_ptr<ice::IceSessionManager> manager_;
  SessionCallback established_;
  Duration cleanupDelay_ = Duration::milliseconds(100);
  std::list<PendingPtr> pending_;  // in order of arrival
  // The established sessions handed on, while their owner keeps them.
  std::vector<std::weak_ptr<ice::Session>> handedOn_;
  LifetimeToken token_ = makeLifetimeToken();
};

}  // namespace quorvel
