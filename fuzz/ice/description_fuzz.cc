// A remote client's session description as the device receives it.
// - The parser may refuse the text or throw its documented errors, and
//   whatever it accepts prints back to a text that parses to the same
//   description.
// - Posted to the session request handler, the text either starts a session
//   that has both credentials and a password that can key the HMAC, or is
//   answered 400 and starts nothing.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/errors.h"
#include "core/log.h"
#include "ice/connect_request_handler.h"
#include "ice/session_description.h"
#include "tests/support/fake_ice_session.h"
#include "tests/support/http_fakes.h"
#include "tests/support/manual_reactor.h"

using quorvel::ice::SessionDescription;

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

// The parser alone; true when it accepted the text.
bool parsesAndPrintsBack(const std::string& text, SessionDescription& description) {
  try {
    if (!quorvel::ice::parseDescription(text, description)) return false;
  } catch (const quorvel::BadFormatError&) {
    return false;
  } catch (const std::invalid_argument&) {
    return false;  // an address text that does not parse
  }
  // The printed form needs both credentials, as every real description has.
  if (description.userFragment.empty() || description.password.empty()) return true;

  const std::string printed = quorvel::ice::printDescription(description);
  SessionDescription again;
  require(quorvel::ice::parseDescription(printed, again));
  require(again.candidates.size() == description.candidates.size());
  for (std::size_t i = 0; i < again.candidates.size(); ++i) {
    const auto& a = *description.candidates[i];
    const auto& b = *again.candidates[i];
    require(a.type == b.type && a.address == b.address && a.priority == b.priority && a.foundation == b.foundation);
  }
  require(again.userFragment == description.userFragment && again.password == description.password);
  require(quorvel::ice::printDescription(again) == printed);
  return true;
}

class RecordingFactory : public quorvel::ice::SessionFactory {
 public:
  explicit RecordingFactory(std::shared_ptr<quorvel::Reactor> reactor) : reactor_(std::move(reactor)) {}
  quorvel::ice::SessionPtr createSession() override {
    auto session = std::make_shared<quorvel::testing::FakeIceSession>(reactor_, quorvel::SocketAddress(),
                                                                      quorvel::SocketAddress());
    sessions.push_back(session);
    return session;
  }
  std::vector<std::shared_ptr<quorvel::testing::FakeIceSession>> sessions;

 private:
  std::shared_ptr<quorvel::Reactor> reactor_;
};

// The text posted to "/sg/sessions" in one piece.
void postToHandler(const std::string& text, bool usable) {
  auto reactor = std::make_shared<quorvel::testing::ManualReactor>();
  auto factory = std::make_shared<RecordingFactory>(reactor);
  auto handler = std::make_shared<quorvel::ConnectRequestHandler>(
      reactor, std::make_shared<quorvel::ice::IceSessionManager>(factory));
  auto request = quorvel::testing::FakeWebRequest::make(
      "POST /sg/sessions HTTP/1.1\r\nHost: dev\r\nTransfer-Encoding: chunked\r\n\r\n");
  require(handler->handle(request));
  if (!text.empty()) request->pushBody(text);
  request->endBody();

  if (factory->sessions.empty()) {
    require(!usable);
    require(request->responses == 1 && request->response->headers().statusCode() == 400);
  } else {
    require(usable && factory->sessions.size() == 1 && request->responses == 0);
    const SessionDescription& remote = factory->sessions[0]->remote;
    require(!remote.userFragment.empty() && !remote.password.empty());
    require(remote.password.size() <= quorvel::ice::MaxPasswordLength);
  }
  handler.reset();
  reactor->advance(quorvel::Duration::seconds(1));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  static const bool quiet = [] {
    quorvel::log::setLevel("connreqhandler", quorvel::log::Fatal);
    return true;
  }();
  (void)quiet;
  const std::string text(reinterpret_cast<const char*>(data), size);
  SessionDescription description;
  const bool parsed = parsesAndPrintsBack(text, description);
  // What the handler takes: a body of at most MaxBodySize that parses and
  // can authenticate.
  const bool usable = parsed && size <= quorvel::ConnectRequestHandler::MaxBodySize &&
                      quorvel::ice::canAuthenticate(description);
  postToHandler(text, usable);
  return 0;
}
