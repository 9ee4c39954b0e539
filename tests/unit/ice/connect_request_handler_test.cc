#include "ice/connect_request_handler.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ice/session_description.h"
#include "tests/support/fake_ice_session.h"
#include "tests/support/http_fakes.h"
#include "tests/support/log_capture.h"
#include "tests/support/manual_reactor.h"

namespace quorvel {
namespace {

using ice::Session;
using testing::FakeIceSession;
using testing::FakeWebRequest;

const char* const Description =
    "candidate=1 1 UDP 2130706431 198.51.100.2 6000 typ host\n"
    "candidate=2 1 UDP 1694498815 203.0.113.2 6001 typ srflx\n"
    "userfrag=peer\npassword=peerpasswordpeerpassword\n";

class FakeFactory : public ice::SessionFactory {
 public:
  explicit FakeFactory(std::shared_ptr<Reactor> reactor) : reactor_(std::move(reactor)) {}
  ice::SessionPtr createSession() override {
    auto session = std::make_shared<FakeIceSession>(reactor_, SocketAddress(AF_INET, "10.0.0.2", 5000),
                                                    SocketAddress(AF_INET, "198.51.100.2", 6000));
    session->failStart = failStart;
    session->local.candidates.push_back(std::make_shared<ice::Candidate>(
        ice::CandidateType::Host, SocketAddress(AF_INET, "10.0.0.2", 5000), 2130706177u, "h1"));
    session->local.userFragment = "devi";
    session->local.password = "devicepassworddevicepas";
    sessions.push_back(session);
    return session;
  }
  std::vector<std::shared_ptr<FakeIceSession>> sessions;
  bool failStart = false;

 private:
  std::shared_ptr<Reactor> reactor_;
};

class ConnectRequestHandlerTest : public ::testing::Test {
 protected:
  ConnectRequestHandlerTest() {
    log::setLevel("connreqhandler", log::Debug);
    handler_->setSessionEstablishedCallback([this](const ice::SessionPtr& s) { established_.push_back(s); });
  }
  // Finished requests are let go of a little later, and their sessions hold
  // the reactor that holds them until then.
  ~ConnectRequestHandlerTest() override { reactor_->advance(Duration::seconds(1)); }

  static std::shared_ptr<FakeWebRequest> request(const std::string& method, const std::string& target,
                                                 bool withBody = false) {
    return FakeWebRequest::make(method + " " + target + " HTTP/1.1\r\nHost: dev\r\n" +
                                (withBody ? "Transfer-Encoding: chunked\r\n" : "") + "\r\n");
  }

  // A POST whose body arrives in pieces of `piece` bytes.
  std::shared_ptr<FakeWebRequest> post(const std::string& body, std::size_t piece = 7) {
    const auto r = request("POST", "/sg/sessions", true);
    EXPECT_TRUE(handler_->handle(r));
    for (std::size_t i = 0; i < body.size(); i += piece) r->pushBody(body.substr(i, piece));
    r->endBody();
    return r;
  }

  std::shared_ptr<testing::ManualReactor> reactor_ = std::make_shared<testing::ManualReactor>();
  std::shared_ptr<FakeFactory> factory_ = std::make_shared<FakeFactory>(reactor_);
  std::shared_ptr<ConnectRequestHandler> handler_ =
      std::make_shared<ConnectRequestHandler>(reactor_, std::make_shared<ice::IceSessionManager>(factory_));
  std::vector<ice::SessionPtr> established_;
};

TEST_F(ConnectRequestHandlerTest, DispatchesByPathAndMethod) {
  const struct {
    const char* method;
    const char* target;
    bool taken;
    uint32_t code;  // 0: no answer (yet)
    const char* reason;
  } table[] = {
      {"GET", "/sg/sessions", true, 405, "Method not supported"},
      {"PUT", "/sg/sessions", true, 405, "Method not supported"},
      {"POST", "/sg/other", true, 404, "Resource not found"},
      {"POST", "/sg/sessions/1", true, 404, "Resource not found"},
      {"POST", "/sg/sessions?x=1", true, 0, ""},
      {"GET", "/index.html", false, 0, ""},
      {"POST", "/sgsessions", false, 0, ""},
      {"GET", "/sg", false, 0, ""},
  };
  for (const auto& row : table) {
    const auto r = request(row.method, row.target);
    EXPECT_EQ(row.taken, handler_->handle(r)) << row.method << " " << row.target;
    if (!row.code) {
      EXPECT_EQ(0, r->responses) << row.target;
      continue;
    }
    ASSERT_TRUE(r->response) << row.target;
    EXPECT_EQ(row.code, r->response->headers().statusCode()) << row.target;
    EXPECT_EQ(row.reason, r->response->headers().reason().str()) << row.target;
  }
}

// One answer per request, sent once candidates are gathered; the session is
// handed on once established and closed in every other end.
TEST_F(ConnectRequestHandlerTest, AnswersOnceThenHandsOnOrClosesTheSession) {
  using Event = Session::Event;
  const struct {
    const char* name;
    std::vector<Event> events;
    bool clientGone;
    uint32_t code;  // 0: no answer
    int closes;
  } table[] = {
      {"established", {Event::CandidatesGathered, Event::Established}, false, 201, 0},
      {"failed after the answer", {Event::CandidatesGathered, Event::Failed}, false, 201, 1},
      {"failed before the answer", {Event::Failed}, false, 500, 1},
      {"client gone before the answer", {Event::CandidatesGathered}, true, 0, 1},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.name);
    established_.clear();
    const auto r = post(Description);
    const auto session = factory_->sessions.back();
    EXPECT_EQ(2u, session->remote.candidates.size());
    EXPECT_EQ("peer", session->remote.userFragment);
    EXPECT_EQ(0, r->responses);
    r->active = !row.clientGone;
    for (Event event : row.events) session->events(event);
    ASSERT_EQ(row.code ? 1 : 0, r->responses);
    if (row.code) {
      EXPECT_EQ(row.code, r->response->headers().statusCode());
    }
    if (row.code == 201) {
      EXPECT_EQ("candidate=h1 1 UDP 2130706177 10.0.0.2 5000 typ host\nuserfrag=devi\npassword=devicepassworddevicepas\n",
                r->response->bodyText());
      EXPECT_EQ((std::vector<std::string>{"text/plain"}), testing::fieldValues(r->response->headers(), "Content-Type"));
    }
    EXPECT_EQ(row.closes, session->closes);
    EXPECT_EQ(row.events.back() == Event::Established ? std::vector<ice::SessionPtr>{session}
                                                      : std::vector<ice::SessionPtr>{},
              established_);
    EXPECT_EQ(0u, handler_->pendingCount());
  }
  factory_->failStart = true;
  const auto r = post(Description);
  ASSERT_EQ(1, r->responses);
  EXPECT_EQ(500u, r->response->headers().statusCode());
  EXPECT_EQ(0u, handler_->pendingCount());
}

// Nor is a session started that could never authenticate: without a user
// fragment no check names it, without a password its checks would go
// unsigned, and a password over the HMAC key limit signs nothing.
TEST_F(ConnectRequestHandlerTest, RefusesWhatDoesNotParseOrCannotAuthenticate) {
  const std::string candidate = "candidate=1 1 UDP 2130706431 198.51.100.2 6000 typ host\n";
  // A good description, made too long by the empty lines after it.
  const std::string tooLong = Description + std::string(ConnectRequestHandler::MaxBodySize, '\n');
  for (const std::string& body :
       {std::string("nonsense\n"), std::string("candidate=1 1 UDP x 1.2.3.4 5 typ host\n"),
        std::string("candidate=1 1 UDP 1 1.2.3.4 5 typ bogus\n"),
        std::string("candidate=1 1 UDP 1 1.2.3.999 5 typ host\n"), std::string("userfrag=\n"), tooLong,
        candidate + "password=peerpasswordpeerpassword\n", candidate + "userfrag=peer\n", candidate,
        candidate + "userfrag=peer\npassword=" + std::string(ice::MaxPasswordLength + 1, 'p') + "\n"}) {
    const auto r = post(body, 4096);
    ASSERT_EQ(1, r->responses) << body.substr(0, 80);
    EXPECT_EQ(400u, r->response->headers().statusCode());
    EXPECT_EQ("Unable to parse session information", r->response->headers().reason().str());
  }
  EXPECT_TRUE(factory_->sessions.empty());
  EXPECT_EQ(0u, handler_->pendingCount());
}

// Short credentials are the client's own risk and work, and so does a
// password right at the key limit.
TEST_F(ConnectRequestHandlerTest, ShortCredentialsAndTheLongestPasswordAreTaken) {
  const std::string longest(ice::MaxPasswordLength, 'p');
  for (const std::string& credentials :
       {"userfrag=peer\npassword=" + longest + "\n", std::string("userfrag=p\npassword=q\n")}) {
    const auto r = post("candidate=1 1 UDP 2130706431 198.51.100.2 6000 typ host\n" + credentials);
    EXPECT_EQ(0, r->responses) << credentials;
    ASSERT_FALSE(factory_->sessions.empty());
    const auto session = factory_->sessions.back();
    EXPECT_EQ(credentials,
              "userfrag=" + session->remote.userFragment + "\npassword=" + session->remote.password + "\n");
    session->events(Session::Event::Failed);
  }
  EXPECT_EQ(2u, factory_->sessions.size());
  EXPECT_EQ(0u, handler_->pendingCount());
}

// A body whose end never comes (the relay exchange failed, was cut or was
// cancelled) does not keep its request for ever: after the body wait it is
// let go, answered 400 only if the relay still carries it.
TEST_F(ConnectRequestHandlerTest, ARequestWhoseBodyNeverEndsIsLetGo) {
  std::weak_ptr<testing::FakeWebRequest> cut, slow;
  {
    const auto r = request("POST", "/sg/sessions", true);
    ASSERT_TRUE(handler_->handle(r));
    r->pushBody("candidate=1 1 UDP 2130706431 198.51.100.2 6000 typ host\n");
    r->active = false;  // its exchange is over: answers go nowhere
    cut = r;
    const auto s = request("POST", "/sg/sessions", true);
    ASSERT_TRUE(handler_->handle(s));
    s->pushBody("userfrag=peer\n");
    slow = s;
  }
  const auto stillCarried = slow.lock();
  reactor_->advance(ConnectRequestHandler::BodyWait - Duration::milliseconds(1));
  EXPECT_EQ(2u, handler_->pendingCount());
  reactor_->advance(Duration::milliseconds(1));
  EXPECT_EQ(0u, handler_->pendingCount());
  ASSERT_EQ(1, stillCarried->responses);
  EXPECT_EQ(400u, stillCarried->response->headers().statusCode());
  // A body that ends later changes nothing, even before the dropped record
  // is let go of.
  stillCarried->endBody();
  EXPECT_EQ(1, stillCarried->responses);
  EXPECT_TRUE(factory_->sessions.empty());
  reactor_->advance(Duration::seconds(1));
  EXPECT_TRUE(cut.expired());
}

// At the bound a new request takes the place of a session not yet
// established: the oldest whose client has not been heard from, so that a
// client at work on its checks outlives a flood of silent ones; else the
// oldest. Established sessions are never ended for it.
TEST_F(ConnectRequestHandlerTest, AtTheBoundASessionNotYetEstablishedMakesRoom) {
  const auto capture = testing::LogCapture::install();
  const std::size_t bound = ConnectRequestHandler::MaxSessions;
  std::vector<std::shared_ptr<FakeWebRequest>> requests;
  for (std::size_t i = 0; i < bound; ++i) requests.push_back(post(Description));
  const auto& sessions = factory_->sessions;
  // The oldest is still gathering; the second is established; the rest have
  // their answer and check, and the third's client has answered.
  sessions[1]->events(Session::Event::CandidatesGathered);
  sessions[1]->events(Session::Event::Established);
  for (std::size_t i = 2; i < bound; ++i) sessions[i]->events(Session::Event::CandidatesGathered);
  sessions[2]->heardFromPeer = true;
  EXPECT_EQ(bound, handler_->sessionCount());

  requests.push_back(post(Description));
  ASSERT_EQ(bound + 1, sessions.size());
  EXPECT_EQ(1, sessions[0]->closes);
  ASSERT_EQ(1, requests[0]->responses);
  EXPECT_EQ(503u, requests[0]->response->headers().statusCode());
  EXPECT_EQ("Service Unavailable", requests[0]->response->headers().reason().str());

  requests.push_back(post(Description));
  EXPECT_EQ(0, sessions[1]->closes);  // established: never ended for a newcomer
  EXPECT_EQ(0, sessions[2]->closes);  // heard from: spared while a silent one is left
  EXPECT_EQ(1, sessions[3]->closes);
  EXPECT_EQ(1, requests[3]->responses);  // its 201, nothing more

  // With every client heard from, the oldest goes.
  for (const auto& session : sessions) session->heardFromPeer = true;
  requests.push_back(post(Description));
  EXPECT_EQ(1, sessions[2]->closes);
  EXPECT_EQ(0, sessions[4]->closes);
  EXPECT_EQ(0, sessions[1]->closes);
  EXPECT_EQ(bound, handler_->sessionCount());
  EXPECT_EQ(3u, capture->count("Session limit of 16 reached, ending a session not yet established"));
}

TEST_F(ConnectRequestHandlerTest, WithEverySessionEstablishedANewRequestIsRefused) {
  const auto capture = testing::LogCapture::install();
  for (std::size_t i = 0; i < ConnectRequestHandler::MaxSessions; ++i) {
    post(Description);
    factory_->sessions.back()->events(Session::Event::CandidatesGathered);
    factory_->sessions.back()->events(Session::Event::Established);
  }
  const auto refused = post(Description);
  EXPECT_EQ(ConnectRequestHandler::MaxSessions, factory_->sessions.size());
  ASSERT_EQ(1, refused->responses);
  EXPECT_EQ(503u, refused->response->headers().statusCode());
  EXPECT_EQ(0u, handler_->pendingCount());
  EXPECT_EQ(1u, capture->count("Session limit of 16 reached with every session established, refusing new session"));
  for (const auto& session : factory_->sessions) EXPECT_EQ(0, session->closes);

  // Once an established session's owner lets it go, there is room again.
  established_.erase(established_.begin());
  factory_->sessions.erase(factory_->sessions.begin());
  const auto admitted = post(Description);
  EXPECT_EQ(ConnectRequestHandler::MaxSessions, factory_->sessions.size());
  EXPECT_EQ(0, admitted->responses);
}

TEST_F(ConnectRequestHandlerTest, LogLinesAndLevels) {
  const auto capture = testing::LogCapture::install();
  handler_->handle(request("GET", "/x"));
  handler_->handle(request("GET", "/sg/sessions"));
  handler_->handle(request("POST", "/sg/x"));
  post("bad\n");
  post(Description);
  auto session = factory_->sessions.back();
  session->events(Session::Event::CandidatesGathered);
  session->events(Session::Event::Established);
  post(Description);
  factory_->sessions.back()->events(Session::Event::Failed);

  const std::vector<std::pair<int, std::string>> expected = {
      {log::Debug, "Request for /x is not for us"},
      {log::Debug, "GET method not supported for sessions resource"},
      {log::Debug, "Resource not found: /sg/x"},
      {log::Debug, "Handling new session request"},
      {log::Notice, "Failed to parse session input:\nbad\n"},
      {log::Debug, "Handling new session request"},
      {log::Debug, "Processing session request with 2 candidates"},
      {log::Debug, "Found candidates, starting connectivity checks"},
      {log::Info, "ICE session established: 10.0.0.2:5000 <-> 198.51.100.2:6000"},
      {log::Debug, "Handling new session request"},
      {log::Debug, "Processing session request with 2 candidates"},
      {log::Info, "ICE session failed"},
  };
  std::vector<std::pair<int, std::string>> got;
  for (const auto& line : capture->lines()) {
    if (line.log == "connreqhandler") got.emplace_back(line.level, line.message);
  }
  EXPECT_EQ(expected, got);
}

}  // namespace
}  // namespace quorvel
