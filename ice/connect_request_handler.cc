#include "ice/connect_request_handler.h"

#include <algorithm>
#include <exception>

#include "core/log.h"
#include "ice/session_description.h"

namespace quorvel {
namespace {

const log::Log Log("connreqhandler");

const char* const Prefix = "/sg/";
const char* const SessionsPath = "/sg/sessions";
const char* const ParseFailure = "Unable to parse session information";

// The request target without its query.
std::string pathOf(const WebRequest& request) {
  const StringSection target = request.headers().requestTarget();
  const std::size_t query = target.find('?');
  return (query == StringSection::npos ? target : target.substr(0, query)).str();
}

void answer(WebRequest& request, uint32_t code, const char* reason, const std::string& body = std::string()) {
  const std::shared_ptr<WebResponse> response = request.createResponse(code, reason);
  if (!response) return;
  if (!body.empty()) response->headers().addField(HttpHeader::ContentType, "text/plain");
  response->headers().addNoCacheFields();
  response->send(body.data(), body.size());
}

}  // namespace

struct ConnectRequestHandler::Pending {
  std::shared_ptr<WebRequest> request;
  std::string body;
  bool tooLong = false;
  ice::SessionPtr session;
  // Answered, or finished and never to be answered: body pieces, timers and
  // session events that come later leave it alone.
  bool responded = false;
};

ConnectRequestHandler::ConnectRequestHandler(std::shared_ptr<Reactor> reactor,
                                             std::shared_ptr<ice::IceSessionManager> manager)
    : reactor_(std::move(reactor)), manager_(std::move(manager)) {}

ConnectRequestHandler::~ConnectRequestHandler() {
  for (const PendingPtr& pending : pending_) {
    if (pending->session) pending->session->close();
  }
}

bool ConnectRequestHandler::handle(const std::shared_ptr<WebRequest>& request) {
  const std::string path = pathOf(*request);
  if (path.compare(0, 4, Prefix) != 0) {
    QLOG(Log, log::Debug, "Request for %s is not for us", path);
    return false;
  }
  if (path != SessionsPath) {
    QLOG(Log, log::Debug, "Resource not found: %s", path);
    answer(*request, 404, "Resource not found");
    return true;
  }
  const StringSection method = request->headers().method();
  if (!method.equals("POST")) {
    QLOG(Log, log::Debug, "%s method not supported for sessions resource", method.str());
    answer(*request, 405, "Method not supported");
    return true;
  }
  QLOG(Log, log::Debug, "Handling new session request");
  auto pending = std::make_shared<Pending>();
  pending->request = request;
  pending_.push_back(pending);
  const std::weak_ptr<Pending> weak = pending;
  request->setBodyDataHandler(
      [this, weak](const BufferChainPtr& piece, bool end) { onBody(weak, piece, end); });
  if (!pending->session && !pending->responded) {
    reactor_->scheduleAfter(token_, BodyWait, [this, weak] { onBodyWaitOver(weak); });
  }
  return true;
}

void ConnectRequestHandler::onBodyWaitOver(const std::weak_ptr<Pending>& weak) {
  const PendingPtr pending = weak.lock();
  if (!pending || pending->session || pending->responded) return;
  QLOG(Log, log::Notice, "Session request body incomplete after %ds, dropping the request",
       static_cast<int>(BodyWait.count() / 1000000));
  if (pending->request->isActive()) answer(*pending->request, 400, ParseFailure, ParseFailure);
  finish(pending);
}

void ConnectRequestHandler::onBody(const std::weak_ptr<Pending>& weak, const BufferChainPtr& piece, bool end) {
  const PendingPtr pending = weak.lock();
  if (!pending || pending->session || pending->responded) return;
  if (piece && !pending->tooLong) {
    const BufferChain& chain = piece.chain();
    const std::size_t size = chain.size();
    if (pending->body.size() + size > MaxBodySize) {
      pending->tooLong = true;
    } else {
      const std::size_t old = pending->body.size();
      pending->body.resize(old + size);
      copyFromChain(chain.begin(), chain.end(), reinterpret_cast<uint8_t*>(&pending->body[old]));
    }
  }
  if (end) startSession(pending, pending->body);
}

void ConnectRequestHandler::startSession(const PendingPtr& pending, const std::string& body) {
  ice::SessionDescription description;
  bool parsed = false;
  try {
    // A description that cannot authenticate is answered as one that does
    // not parse, before any socket opens.
    parsed = !pending->tooLong && ice::parseDescription(body, description) && ice::canAuthenticate(description);
  } catch (const std::exception& e) {
    QLOG(Log, log::Notice, "Exception thrown while processing session request: %s", e.what());
  }
  if (!parsed) {
    QLOG(Log, log::Notice, "Failed to parse session input:\n%s", body);
    answer(*pending->request, 400, ParseFailure, ParseFailure);
    finish(pending);
    return;
  }
  QLOG(Log, log::Debug, "Processing session request with %u candidates",
       static_cast<unsigned>(description.candidates.size()));
  // Only a usable description counts against the bound: junk ends no one.
  if (!makeRoom()) {
    answer(*pending->request, 503, "Service Unavailable");
    finish(pending);
    return;
  }
  try {
    pending->session = manager_->createSession(description);
    const std::weak_ptr<Pending> weak = pending;
    pending->session->start([this, weak](ice::Session::Event event) { onEvent(weak, event); });
  } catch (const std::exception& e) {
    QLOG(Log, log::Notice, "Exception thrown while processing session request: %s", e.what());
    if (!pending->responded) answer(*pending->request, 500, "Session failed");
    finish(pending);
  }
}

std::size_t ConnectRequestHandler::sessionCount() {
  handedOn_.erase(std::remove_if(handedOn_.begin(), handedOn_.end(),
                                 [](const std::weak_ptr<ice::Session>& session) { return session.expired(); }),
                  handedOn_.end());
  std::size_t count = handedOn_.size();
  for (const PendingPtr& pending : pending_) {
    if (pending->session) ++count;
  }
  return count;
}

bool ConnectRequestHandler::makeRoom() {
  if (sessionCount() < MaxSessions) return true;
  // In order of arrival: the oldest silent one, else the oldest.
  PendingPtr oldest, oldestSilent;
  for (const PendingPtr& pending : pending_) {
    if (!pending->session) continue;
    if (!oldest) oldest = pending;
    if (!pending->session->hasHeardFromPeer()) {
      oldestSilent = pending;
      break;
    }
  }
  if (!oldest) {
    QLOG(Log, log::Notice, "Session limit of %u reached with every session established, refusing new session",
         static_cast<unsigned>(MaxSessions));
    return false;
  }
  const PendingPtr ending = oldestSilent ? oldestSilent : oldest;
  QLOG(Log, log::Notice, "Session limit of %u reached, ending a session not yet established",
       static_cast<unsigned>(MaxSessions));
  if (!ending->responded) answer(*ending->request, 503, "Service Unavailable");
  finish(ending);
  return true;
}

void ConnectRequestHandler::onEvent(const std::weak_ptr<Pending>& weak, ice::Session::Event event) {
  const PendingPtr pending = weak.lock();
  if (!pending) return;
  switch (event) {
    case ice::Session::Event::CandidatesGathered:
      QLOG(Log, log::Debug, "Found candidates, starting connectivity checks");
      if (pending->responded) return;
      pending->responded = true;
      if (!pending->request->isActive()) {
        // Nobody is left to hear the device's candidates: the session
        // cannot succeed.
        QLOG(Log, log::Debug, "Session request went away before the answer");
        finish(pending);
        return;
      }
      answer(*pending->request, 201, "Created", ice::printDescription(pending->session->localDescription()));
      return;
    case ice::Session::Event::Established: {
      const ice::SessionPtr session = pending->session;
      QLOG(Log, log::Info, "ICE session established: %s <-> %s", session->localAddress().toString(),
           session->remoteAddress().toString());
      // The session is the callback's now: this record only lets go of it.
      pending->session.reset();
      finish(pending);
      handedOn_.push_back(session);
      if (established_) established_(session);
      return;
    }
    case ice::Session::Event::Failed:
      QLOG(Log, log::Info, "ICE session failed");
      if (!pending->responded) answer(*pending->request, 500, "Session failed");
      finish(pending);
      return;
  }
}

void ConnectRequestHandler::finish(const PendingPtr& pending) {
  pending->responded = true;
  pending_.remove(pending);
  // Closed now, destroyed later: this may be running inside the session's
  // own callback.
  if (pending->session) pending->session->close();
  reactor_->scheduleAfter(token_, cleanupDelay_, [pending]() {});
}

}  // namespace quorvel
