#include "http/net_http_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <optional>
#include <stdexcept>

#include "chain_text.h"
#include "http/request_watchdog.h"
#include "net/buffer_pool.h"
#include "tests/unit/http/fake_network.h"
#include "tests/support/log_capture.h"
#include "tests/support/manual_reactor.h"
#include "tests/support/switchable_allocator.h"
#include "tests/support/wall_clock_steps.h"

namespace quorvel {
namespace {

using ::testing::StrEq;
using ::testing::ThrowsMessage;

using testing::FakeResolver;
using testing::FakeSocket;
using testing::FakeSocketFactory;
using testing::LogCapture;
using testing::ManualReactor;

// What one request saw.
struct Outcome {
  int responses = 0;
  uint32_t status = 0;
  std::string head;
  bool hasBody = false;
  std::string body;
  int ends = 0;
  int errorCalls = 0;  // success included
  std::optional<boost::system::error_code> code;
};

const boost::system::error_code Success;
const char Ok5[] = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello";

class NetHttpClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    log::setLevel("httpclient", log::Spam);
    log::setLevel("httppool", log::Debug);
    capture = LogCapture::install();
    resolver->names["example"] = {"192.0.2.1"};
    resolver->names["other"] = {"192.0.2.2"};
    resolver->names["localhost"] = {"::1", "::1", "127.0.0.1", "127.0.0.1"};
  }
  void TearDown() override { logAtDefaults(); }

  // The daemon's own thresholds, under which the client's lines are not
  // formatted: nothing a request needs may hide in a line's arguments.
  static void logAtDefaults() {
    log::setLevel("httpclient", log::Notice);
    log::setLevel("httppool", log::Notice);
  }

  std::shared_ptr<WebClientRequest> start(const std::string& method, const std::string& path, Outcome& outcome,
                                          const std::string& host = "example") {
    auto request = client->createRequest(method, "http", host, host, path);
    watch(*request, outcome);
    return request;
  }

  static void watch(WebClientRequest& request, Outcome& outcome) {
    request.setResponseHandler([&outcome](const std::shared_ptr<WebClientResponse>& response) {
      ++outcome.responses;
      outcome.status = response->headers().statusCode();
      outcome.head.assign(response->headers().data(), response->headers().size());
      outcome.hasBody = response->hasBody();
    });
    request.setBodyDataHandler([&outcome](const BufferChainPtr& piece, bool end) {
      if (end) {
        ++outcome.ends;
        return;
      }
      outcome.body += testing::textOf(piece.chain());
    });
    request.setErrorHandler([&outcome](const boost::system::error_code& code) {
      ++outcome.errorCalls;
      outcome.code = code;
    });
  }

  // A line containing `text` at `level`.
  bool hasLine(const std::string& text, int level) const {
    for (const auto& line : capture->lines()) {
      if (line.level == level && line.message.find(text) != std::string::npos) return true;
    }
    return false;
  }

  // A GET without body, resolved, connected and sent.
  std::shared_ptr<WebClientRequest> get(const std::string& path, Outcome& outcome,
                                        const std::string& host = "example") {
    auto request = start("GET", path, outcome, host);
    request->send(nullptr, 0);
    run();
    return request;
  }

  // A GET answered in full, which leaves its connection in the pool.
  void fetchHello(const std::string& path) {
    Outcome outcome;
    auto request = get(path, outcome);
    factory->last().deliver(Ok5);
    run();
    EXPECT_TRUE(outcome.hasBody);
    EXPECT_EQ("hello", outcome.body);
  }

  // Resolves, connects and sends.
  void run() { reactor->runDue(); }

  // First, so that it outlives every chain still held by queued tasks.
  std::shared_ptr<BufferPool> pool = std::make_shared<BufferPool>(512, 0, 0);
  std::shared_ptr<ManualReactor> reactor = std::make_shared<ManualReactor>();
  std::shared_ptr<FakeSocketFactory> factory = std::make_shared<FakeSocketFactory>(reactor);
  std::shared_ptr<FakeResolver> resolver = std::make_shared<FakeResolver>(reactor);
  std::shared_ptr<NetHttpClient> client =
      std::make_shared<NetHttpClient>(reactor, pool, factory, nullptr, resolver, 2);
  std::shared_ptr<LogCapture> capture;
};

TEST(HttpClientError, CodesHaveTheirTexts) {
  EXPECT_STREQ("httpclient", httpClientCategory().name());
  EXPECT_EQ("Bad HTTP response format", make_error_code(HttpClientError::BadResponse).message());
  EXPECT_EQ("Request body could not be sent", make_error_code(HttpClientError::RequestBodyFailed).message());
  EXPECT_EQ("Unknown HTTP client error 99", boost::system::error_code(99, httpClientCategory()).message());
  const boost::system::error_code code = HttpClientError::TimedOut;
  EXPECT_EQ(9, code.value());
}

TEST_F(NetHttpClientTest, ConnectHostGivesNameAndService) {
  struct Case {
    const char* connect;
    const char* host;
    const char* service;
  } cases[] = {{"example", "example", "http"},     {"example:8080", "example", "8080"},
               {"[::1]:8443", "::1", "8443"},      {"[::1]", "::1", "http"},
               {"::1", "::1", "http"},             {"example:", "example", "http"}};
  for (const Case& c : cases) {
    std::string host, service;
    NetHttpClient::splitConnectHost(c.connect, "http", host, service);
    EXPECT_EQ(c.host, host) << c.connect;
    EXPECT_EQ(c.service, service) << c.connect;
  }
  EXPECT_THAT([&] { client->createRequest("GET", "https", "example", "example", "/"); },
              ThrowsMessage<std::runtime_error>(StrEq("HTTPS connections not supported")));
  auto named = client->createRequest("GET", "http", "example", "example:8080", "/");
  reactor->runDue();
  ASSERT_EQ(1u, resolver->lookups.size());
  EXPECT_EQ(std::make_pair(std::string("example"), std::string("8080")), resolver->lookups[0]);
  // One request object, used again: a new host or scheme is split anew.
  named.reset();
  client = std::make_shared<NetHttpClient>(reactor, pool, factory, factory, resolver, 2);
  resolver->lookups.clear();
  for (const auto& [scheme, connect] : {std::make_pair("http", "example"), std::make_pair("https", "example"),
                                        std::make_pair("https", "example"), std::make_pair("https", "example:8080")}) {
    client->createRequest("GET", scheme, "example", connect, "/");
  }
  using Lookup = std::pair<std::string, std::string>;
  EXPECT_EQ((std::vector<Lookup>{{"example", "http"}, {"example", "https"}, {"example", "https"}, {"example", "8080"}}),
            resolver->lookups);
}

TEST_F(NetHttpClientTest, GetSendsHeadAndDeliversBody) {
  Outcome outcome;
  auto request = start("GET", "/a", outcome);
  request->headers().addField("Accept", "text/plain");
  request->send(nullptr, 0);
  run();
  ASSERT_EQ(1u, factory->sockets.size());
  FakeSocket& socket = factory->last();
  EXPECT_EQ("GET /a HTTP/1.1\r\nHost: example\r\nAccept: text/plain\r\n\r\n", socket.sent);
  // A chunked body across reads (one with a length is fetchHello's).
  socket.deliver("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhel");
  run();
  socket.deliver("lo\r\n0\r\n\r\n");
  run();
  EXPECT_EQ(1, outcome.responses);
  EXPECT_EQ(200u, outcome.status);
  EXPECT_EQ("hello", outcome.body);
  EXPECT_EQ(1, outcome.ends);
  EXPECT_EQ(outcome.code, Success);
  EXPECT_EQ(1u, client->plainPool()->freeCount());
  // A head and the body pieces after it must not wait for the peer's delayed ACK.
  const auto option = socket.options.find({IPPROTO_TCP, TCP_NODELAY});
  ASSERT_NE(socket.options.end(), option);
  EXPECT_EQ(1, option->second);
}

// Only a response that lets the connection stay open leaves it for the next request.
TEST_F(NetHttpClientTest, ConnectionIsKeptUnlessEitherSideCloses) {
  struct Case {
    const char* response;
    bool askClose;
    bool kept;
  } cases[] = {{Ok5, false, true},
               {"HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 5\r\n\r\nhello", false, false},
               {"HTTP/1.0 200 OK\r\nContent-Length: 5\r\n\r\nhello", false, false},
               {"HTTP/1.0 200 OK\r\nConnection: keep-alive\r\nContent-Length: 5\r\n\r\nhello", false, true},
               {Ok5, true, false},
               // Bytes after a response without body belong to no response.
               {"HTTP/1.1 204 No Content\r\n\r\nhello", false, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.response);
    client = std::make_shared<NetHttpClient>(reactor, pool, factory, nullptr, resolver, 2);
    Outcome first, second;
    auto a = start("GET", "/", first);
    if (c.askClose) {
      a->setCloseConnection();
      a->setCloseConnection();
    }
    a->send(nullptr, 0);
    run();
    FakeSocket& socket = factory->last();
    EXPECT_EQ(c.askClose ? "GET / HTTP/1.1\r\nHost: example\r\nConnection: close\r\n\r\n"
                         : "GET / HTTP/1.1\r\nHost: example\r\n\r\n",
              socket.sent);
    socket.deliver(c.response);
    run();
    EXPECT_EQ(first.code, Success);
    EXPECT_EQ(!c.kept, socket.closed);
    EXPECT_EQ(c.kept ? 1u : 0u, client->plainPool()->freeCount());
    const std::size_t before = factory->sockets.size();
    auto b = get("/2", second);
    EXPECT_EQ(c.kept ? before : before + 1, factory->sockets.size());
  }
  // Asked for in a field the caller copied from elsewhere, with a streamed
  // body: the same.
  Outcome streamed;
  auto c = start("POST", "/s", streamed);
  c->headers().addField("connection", "Close");
  c->startStreaming();
  c->bodySink().lock()->end();
  run();
  FakeSocket& socket = factory->last();
  socket.deliver(Ok5);
  run();
  EXPECT_EQ(streamed.code, Success);
  EXPECT_TRUE(socket.closed);
}

// Releases wait for a later turn of the loop and then run in the order they
// were scheduled; the log shows each. Whoever releases a connection with
// close set, it is closed rather than kept, open as it is.
TEST_F(NetHttpClientTest, ReleasesRunLaterInTheirOrder) {
  fetchHello("/");
  Outcome second;
  auto other = get("/", second, "other");
  factory->last().deliver(Ok5);
  const std::shared_ptr<HttpConnectionPool>& connections = client->plainPool();
  ASSERT_EQ(1u, connections->freeCount());
  const std::shared_ptr<HttpConnection> taken =
      connections->tryConnection(HttpDestination{"example", {SocketAddress(AF_INET, "192.0.2.1", 80)}, {}, {}, {}});
  ASSERT_TRUE(taken && taken->isOpen());
  connections->releaseConnection(taken, true);
  EXPECT_EQ(2u, connections->usedCount());
  run();  // the response to "other" completes and schedules its release too
  EXPECT_EQ("hello", second.body);
  EXPECT_EQ(0u, connections->usedCount());
  EXPECT_EQ(1u, connections->freeCount());
  EXPECT_TRUE(factory->sockets[0]->closed);
  EXPECT_FALSE(factory->sockets[1]->closed);
  std::vector<std::string> releasing;
  for (const auto& line : capture->lines()) {
    if (line.message.rfind("Releasing connection", 0) == 0) releasing.push_back(line.message);
  }
  ASSERT_GE(releasing.size(), 3u);
  EXPECT_NE(std::string::npos, releasing[releasing.size() - 2].find("(example (192.0.2.1:80)), close=1"));
  EXPECT_NE(std::string::npos, releasing.back().find("(other (192.0.2.2:80)), close=0"));
}

// Every address of a name is tried, in order; a name that does not resolve
// fails with an error of its own.
TEST_F(NetHttpClientTest, TriesDistinctAddressesInOrder) {
  factory->refused.insert("[::1]:8080");
  Outcome outcome;
  auto request = get("/", outcome, "localhost:8080");
  ASSERT_EQ(2u, factory->sockets.size());
  EXPECT_EQ("[::1]:8080", factory->sockets[0]->connectedTo.toString());
  EXPECT_EQ("127.0.0.1:8080", factory->sockets[1]->connectedTo.toString());
  EXPECT_EQ(10, factory->families[0]);
  EXPECT_EQ(2, factory->families[1]);
  EXPECT_FALSE(factory->sockets[1]->sent.empty());
  // The outcome ends the line; the reason has a line of its own.
  const std::string failed = ": Connection to [::1]:8080 failed";
  EXPECT_TRUE(std::any_of(capture->lines().begin(), capture->lines().end(), [&](const auto& line) {
    return line.level == log::Notice && line.message.size() > failed.size() &&
           line.message.compare(line.message.size() - failed.size(), failed.size(), failed) == 0;
  }));
  EXPECT_TRUE(hasLine(": Connect error 111: Connection refused", log::Notice));

  factory->refused.insert("127.0.0.1:8080");
  Outcome refused;
  auto other = get("/", refused, "localhost:8080");
  EXPECT_EQ(refused.code, make_error_code(HttpClientError::ConnectFailed));
  EXPECT_EQ("Connection failed", refused.code->message());

  Outcome unknown;
  auto nowhere = get("/", unknown, "nowhere");
  EXPECT_EQ(unknown.code, make_error_code(HttpClientError::ResolveFailed));
  EXPECT_TRUE(capture->contains("Failed to resolve host nowhere"));
}

TEST_F(NetHttpClientTest, PostBodiesWithLengthAndChunked) {
  Outcome whole;
  auto a = start("POST", "/p", whole);
  a->send("drk=1", 5);
  run();
  EXPECT_EQ("POST /p HTTP/1.1\r\nHost: example\r\nContent-Length: 5\r\n\r\ndrk=1", factory->last().sent);
  EXPECT_EQ(1, factory->last().sends);
  factory->last().deliver(Ok5);
  run();
  // The same connection carries the next requests.
  factory->last().sent.clear();

  Outcome streamed;
  auto b = start("POST", "/c", streamed);
  b->startStreaming();
  run();
  auto sink = b->bodySink().lock();
  ASSERT_TRUE(sink);
  sink->put(BufferChainPtr(testing::chainOf(*pool, "hello")));
  run();
  sink->put(BufferChainPtr(BufferChain()));  // no chunk: an empty one would end the body
  sink->put(BufferChainPtr(testing::chainOf(*pool, std::string(300, 'x'))));
  sink->end();
  run();
  EXPECT_EQ("POST /c HTTP/1.1\r\nHost: example\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n12C\r\n" +
                std::string(300, 'x') + "\r\n0\r\n\r\n",
            factory->last().sent);
  factory->last().deliver(Ok5);
  run();
  EXPECT_EQ(streamed.code, Success);
  EXPECT_EQ(1u, client->plainPool()->freeCount());
  factory->last().sent.clear();

  // A body connected before the start, as a forwarder does it.
  Outcome sized;
  auto c = start("POST", "/l", sized);
  c->headers().addField("Content-Length", 3u);
  BodySource source;
  source.connect(c->bodySink());
  source.put(BufferChainPtr(testing::chainOf(*pool, "abc")));
  source.end();
  c->startStreaming();
  run();
  EXPECT_EQ("POST /l HTTP/1.1\r\nHost: example\r\nContent-Length: 3\r\n\r\nabc", factory->last().sent);
}

// A streamed head waits for the end of the turn it was started in, so that
// what the producer puts in that turn leaves with it in one write; a head
// with nothing behind it still goes at the end of the turn.
TEST_F(NetHttpClientTest, AStreamedHeadLeavesWithWhatItsTurnPuts) {
  fetchHello("/");
  FakeSocket& socket = factory->last();
  // A request on the kept connection, connected before it starts streaming.
  auto streamOn = [&](const char* path, Outcome& outcome) {
    socket.sent.clear();
    socket.sends = 0;
    auto request = start("POST", path, outcome);
    run();
    request->startStreaming();
    return request;
  };
  const std::string head = " HTTP/1.1\r\nHost: example\r\nTransfer-Encoding: chunked\r\n\r\n";

  Outcome streamed;
  auto a = streamOn("/a", streamed);
  auto sink = a->bodySink().lock();
  ASSERT_TRUE(sink);
  sink->put(BufferChainPtr(testing::chainOf(*pool, "hello")));
  run();
  EXPECT_EQ("POST /a" + head + "5\r\nhello", socket.sent);
  EXPECT_EQ(1, socket.sends);
  sink->end();
  run();
  EXPECT_EQ(2, socket.sends);
  socket.deliver(Ok5);
  run();
  EXPECT_EQ(streamed.code, Success);

  Outcome quiet;
  auto b = streamOn("/b", quiet);
  run();
  EXPECT_EQ("POST /b" + head, socket.sent);
  EXPECT_EQ(1, socket.sends);
  b->bodySink().lock()->end();
  run();
  EXPECT_EQ(2, socket.sends);
  EXPECT_EQ(1u, factory->sockets.size());
}

TEST_F(NetHttpClientTest, ResponsesWithoutBodyEndAfterHead) {
  struct Case {
    const char* method;
    const char* response;
  } cases[] = {{"HEAD", "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n"},
               {"GET", "HTTP/1.1 204 No Content\r\nContent-Length: 10\r\n\r\n"},
               {"GET", "HTTP/1.1 304 Not Modified\r\nContent-Length: 10\r\n\r\n"}};
  for (const Case& c : cases) {
    Outcome outcome;
    auto request = start(c.method, "/", outcome);
    request->send(nullptr, 0);
    run();
    factory->last().deliver(c.response);
    run();
    EXPECT_EQ(outcome.code, Success) << c.response;
    EXPECT_EQ(1, outcome.ends);
    EXPECT_TRUE(outcome.body.empty());
    EXPECT_FALSE(outcome.hasBody);
  }
  // All three went over the one kept connection.
  EXPECT_EQ(1u, factory->sockets.size());
}

// A request that finds no buffers fails with nothing sent, also when a kept
// connection is there for it at once; a body piece that finds none ends the
// sending: a later piece must not follow it onto the wire with a gap in the body.
TEST_F(NetHttpClientTest, NoBuffersFailTheRequestWithNothingMoreSent) {
  auto allocator = std::make_shared<testing::SwitchableAllocator>(pool);
  client = std::make_shared<NetHttpClient>(reactor, allocator, factory, nullptr, resolver, 2);
  fetchHello("/");
  const std::string sent = factory->last().sent;
  for (bool streaming : {false, true}) {
    Outcome outcome;
    auto request = start("POST", "/p", outcome);
    allocator->dry = true;
    if (streaming) {
      request->startStreaming();
    } else {
      request->send("x", 1);
    }
    allocator->dry = false;
    run();
    EXPECT_EQ(outcome.code, make_error_code(HttpClientError::OutOfMemory));
  }
  EXPECT_EQ(sent, factory->sockets[0]->sent);

  Outcome outcome;
  auto request = start("POST", "/c", outcome);
  request->startStreaming();
  run();
  const std::string head = factory->last().sent;
  ASSERT_NE(sent, head);
  auto sink = request->bodySink().lock();
  allocator->dry = true;
  sink->put(BufferChainPtr(testing::chainOf(*pool, "lost")));
  allocator->dry = false;
  sink->put(BufferChainPtr(testing::chainOf(*pool, "later")));
  run();
  EXPECT_EQ(head, factory->last().sent);
  EXPECT_EQ(outcome.code, make_error_code(HttpClientError::OutOfMemory));
}

// One timer serves every request in flight, however many are added.
TEST(RequestWatchdog, KeepsOneTimerForAllRequests) {
  struct Counted final : RequestWatchdog::Watched {
    void checkTimeout() override { ++checks; }
    int checks = 0;
  };
  auto reactor = std::make_shared<ManualReactor>();
  auto watchdog = std::make_shared<RequestWatchdog>(reactor);
  auto a = std::make_shared<Counted>(), b = std::make_shared<Counted>();
  watchdog->add(a);
  watchdog->add(b);
  EXPECT_EQ(1u, reactor->pending());
  reactor->advance(RequestWatchdog::Tick);
  EXPECT_EQ(1, a->checks);
  EXPECT_EQ(1u, reactor->pending());
}

// A broken response ends only its own request; its connection is dropped.
TEST_F(NetHttpClientTest, BadResponsesFailAndDropTheConnection) {
  struct Case {
    std::string response;
    bool close;
    HttpClientError error;
  } cases[] = {{"HTTP/1.1 2x0 OK\r\n\r\n", false, HttpClientError::BadResponse},
               {"HTTP/1.1 200 OK\r\nX: " + std::string(70000, 'a'), false, HttpClientError::HeadTooLarge},
               {"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhello", true, HttpClientError::BadBody},
               {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhelloXX", false, HttpClientError::BadBody},
               {"HTTP/1.1 200 OK\r\nContent-", true, HttpClientError::ConnectionLost}};
  for (const Case& c : cases) {
    Outcome outcome;
    auto request = get("/", outcome);
    FakeSocket& socket = factory->last();
    for (std::size_t at = 0; at < c.response.size() && socket.receiving() && !outcome.code;) {
      const std::string piece = c.response.substr(at, socket.receiveSize());
      socket.deliver(piece);
      at += piece.size();
      run();
    }
    if (c.close && !outcome.code) {
      socket.deliverClose();
      run();
    }
    EXPECT_EQ(outcome.code, make_error_code(c.error)) << c.response.substr(0, 40);
    EXPECT_TRUE(socket.closed);
    EXPECT_EQ(0u, client->plainPool()->freeCount());
  }
  // A good exchange still works afterwards.
  fetchHello("/");
}

// Requests beyond the limit wait; one dropped while waiting gives up its place.
TEST_F(NetHttpClientTest, RequestsBeyondTheLimitWait) {
  Outcome o[4];
  std::shared_ptr<WebClientRequest> r[4];
  for (int i = 0; i < 4; ++i) {
    r[i] = start("GET", "/" + std::to_string(i), o[i]);
    r[i]->send(nullptr, 0);
  }
  run();
  EXPECT_EQ(2u, factory->sockets.size());
  EXPECT_EQ(2u, client->plainPool()->waitingCount());
  EXPECT_TRUE(capture->contains("Too many used connections"));
  r[2].reset();
  factory->sockets[1]->deliver(Ok5);
  run();
  EXPECT_EQ(2u, factory->sockets.size());
  EXPECT_EQ(0u, client->plainPool()->waitingCount());
  EXPECT_EQ("GET /1 HTTP/1.1\r\nHost: example\r\n\r\nGET /3 HTTP/1.1\r\nHost: example\r\n\r\n",
            factory->sockets[1]->sent);
}

// Idle connections to one host must not keep another waiting for ever.
TEST_F(NetHttpClientTest, FullPoolClosesTheOldestIdleConnectionForAnotherHost) {
  Outcome o[3];
  auto a = get("/a", o[0]);
  auto b = get("/b", o[1]);
  factory->sockets[0]->deliver(Ok5);
  factory->sockets[1]->deliver(Ok5);
  run();
  ASSERT_EQ(2u, client->plainPool()->freeCount());
  auto c = get("/c", o[2], "other");
  ASSERT_EQ(3u, factory->sockets.size());
  EXPECT_TRUE(factory->sockets[0]->closed);
  EXPECT_FALSE(factory->sockets[1]->closed);
  EXPECT_EQ("GET /c HTTP/1.1\r\nHost: other\r\n\r\n", factory->sockets[2]->sent);
  EXPECT_EQ(0u, client->plainPool()->waitingCount());
  EXPECT_EQ(1u, client->plainPool()->freeCount());
}

// Reads grow while they come back full and shrink when mostly empty.
TEST_F(NetHttpClientTest, ReadSizeFollowsWhatTheReadsBring) {
  Outcome outcome;
  auto request = get("/", outcome);
  FakeSocket& socket = factory->last();
  ASSERT_EQ(2048u, socket.receiveSize());
  const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n";
  socket.deliver(head + std::string(2048 - head.size(), 'a'));
  run();
  EXPECT_EQ(4096u, socket.receiveSize());
  for (std::size_t size = 4096; size < 32768; size *= 2) {
    socket.deliver(std::string(size, 'b'));
    run();
  }
  EXPECT_EQ(32768u, socket.receiveSize());
  socket.deliver(std::string(32768, 'c'));
  run();
  // The largest size, kept.
  EXPECT_EQ(32768u, socket.receiveSize());
  socket.deliver("small");
  run();
  EXPECT_EQ(16384u, socket.receiveSize());
}

// Progress is stamped at the watchdog's next tick: the minute runs from
// there, up to a second after the bytes came.
TEST_F(NetHttpClientTest, TimesOutWithoutProgressOnly) {
  Outcome outcome;
  auto request = get("/", outcome);
  reactor->advance(Duration::seconds(50));
  factory->last().deliver("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhe");
  reactor->advance(Duration::seconds(59));
  EXPECT_FALSE(outcome.code);
  reactor->advance(Duration::seconds(2));
  EXPECT_EQ(outcome.code, make_error_code(HttpClientError::TimedOut));
  EXPECT_TRUE(capture->contains("Request timed out: GET http://example/"));
  EXPECT_TRUE(factory->last().closed);
}

// The time-out counts monotonic time without progress: a step of the wall
// clock neither ends a request early nor keeps it alive longer.
TEST(NetHttpClientClock, AWallClockStepMovesNoTimeOut) {
  struct Run : NetHttpClientTest {
    void TestBody() override {}
    std::vector<int64_t> trace(Duration step) {
      SetUp();
      Outcome outcome;
      auto request = get("/", outcome);
      reactor->advance(Duration::seconds(30));
      reactor->stepWallClock(step);
      reactor->advance(Duration::seconds(20));
      factory->last().deliver("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhe");
      std::vector<int64_t> seen;
      for (int second = 0; second < 70 && !outcome.code; ++second) reactor->advance(Duration::seconds(1));
      seen.push_back((reactor->clock().now() - SteadyTime()).count() / 1000000);
      seen.push_back(outcome.code == make_error_code(HttpClientError::TimedOut));
      TearDown();
      return seen;
    }
  };
  testing::expectNoWallClockStepMatters([](Duration step) { return Run().trace(step); });
}

// A consumer that cannot take more stops the reading; taking resumes it.
TEST_F(NetHttpClientTest, BlockedSourcePausesReading) {
  auto sink = std::make_shared<BodySink>(1);
  std::shared_ptr<WebClientResponse> kept;
  auto request = client->createRequest("GET", "http", "example", "example", "/");
  request->setResponseHandler([&](const std::shared_ptr<WebClientResponse>& response) {
    kept = response;
    response->body().connect(sink);
  });
  std::optional<boost::system::error_code> code;
  request->setErrorHandler([&](const boost::system::error_code& c) { code = c; });
  request->send(nullptr, 0);
  run();
  FakeSocket& socket = factory->last();
  socket.deliver("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhello");
  run();
  EXPECT_FALSE(socket.receiving());
  // Blocked time is not network time.
  reactor->advance(Duration::seconds(120));
  EXPECT_FALSE(code);
  sink->take();
  EXPECT_TRUE(socket.receiving());
  socket.deliver("world");
  run();
  ASSERT_TRUE(sink->hasItem());
  sink->take();
  EXPECT_TRUE(sink->isEnded());
  EXPECT_EQ(code, Success);
}

TEST_F(NetHttpClientTest, IdleConnectionClosedByServerIsDropped) {
  // An end, a reset and stray bytes all drop it; only the bytes are news.
  for (int error : {0, ECONNRESET, -1}) {
    fetchHello("/");
    ASSERT_EQ(1u, client->plainPool()->freeCount());
    ASSERT_TRUE(factory->last().receiving());
    error < 0 ? factory->last().deliver("stray") : factory->last().deliverClose(error);
    run();
    EXPECT_EQ(0u, client->plainPool()->freeCount());
  }
  EXPECT_GE(capture->count("Now have 0 free, 0 used"), 3u);
  const auto& lines = capture->lines();
  EXPECT_EQ(1, std::count_if(lines.begin(), lines.end(), [](const LogCapture::Line& line) {
              return line.message.find("): No request!") != std::string::npos;
            }));
  EXPECT_EQ(3u, factory->sockets.size());
}

TEST_F(NetHttpClientTest, CancelAndDropCallNoHandlerAndCloseTheConnection) {
  // Cancelled while its host is being looked up: it never goes out.
  Outcome early;
  auto cancelled = start("GET", "/early", early);
  cancelled->send(nullptr, 0);
  cancelled->cancel();
  run();
  EXPECT_TRUE(factory->sockets.empty());
  EXPECT_FALSE(early.code);

  Outcome outcome;
  auto request = get("/", outcome);
  request->cancel();
  run();
  EXPECT_TRUE(factory->last().closed);
  EXPECT_FALSE(outcome.code);
  Outcome other;
  auto dropped = get("/", other);
  dropped.reset();
  run();
  EXPECT_TRUE(factory->last().closed);
  EXPECT_EQ(0u, client->plainPool()->usedCount());
}

// A host the resolver knows needs no turn of the loop: the request takes a
// kept connection as it is made and writes as soon as it is sent. One that
// goes back unsent leaves the connection fit for the next.
TEST_F(NetHttpClientTest, AKnownHostTakesAKeptConnectionAtOnce) {
  fetchHello("/");
  resolver->known.insert("example");
  const std::size_t lookups = resolver->lookups.size();
  const std::size_t sentBefore = factory->last().sent.size();
  Outcome outcome;
  auto request = start("GET", "/now", outcome);
  EXPECT_EQ(1u, client->plainPool()->usedCount());
  request->send(nullptr, 0);
  EXPECT_EQ("GET /now HTTP/1.1\r\nHost: example\r\n\r\n", factory->last().sent.substr(sentBefore));
  EXPECT_EQ(lookups, resolver->lookups.size());
  EXPECT_EQ(1u, resolver->knownAnswers.size());
  factory->last().deliver(Ok5);
  run();
  EXPECT_EQ("hello", outcome.body);
  EXPECT_EQ(outcome.code, Success);

  Outcome unsent;
  auto dropped = start("GET", "/never", unsent);
  EXPECT_EQ(0u, client->plainPool()->freeCount());
  dropped.reset();
  run();
  EXPECT_EQ(1u, client->plainPool()->freeCount());
  EXPECT_FALSE(factory->last().closed);
  EXPECT_EQ(1u, factory->sockets.size());
}

TEST_F(NetHttpClientTest, SendFailureIsReported) {
  Outcome outcome;
  auto request = start("GET", "/", outcome);
  run();
  factory->last().failSends = true;
  request->send(nullptr, 0);
  run();
  EXPECT_EQ(outcome.code, make_error_code(HttpClientError::SendFailed));
}

// The server may close a kept connection just as a request takes it.
TEST_F(NetHttpClientTest, GetOnAKeptConnectionTheServerClosedGoesOnceMore) {
  Outcome second, third;
  fetchHello("/");
  auto b = get("/again", second);
  ASSERT_EQ(1u, factory->sockets.size());
  factory->sockets[0]->deliverClose();
  run();
  ASSERT_EQ(2u, factory->sockets.size());
  EXPECT_EQ("GET /again HTTP/1.1\r\nHost: example\r\n\r\n", factory->sockets[1]->sent);
  factory->sockets[1]->deliver(Ok5);
  run();
  EXPECT_EQ(second.code, Success);
  EXPECT_EQ("hello", second.body);
  // A POST might have been acted on: it is not repeated.
  auto c = start("POST", "/p", third);
  c->send("x", 1);
  run();
  factory->sockets[1]->deliverClose();
  run();
  EXPECT_EQ(third.code, make_error_code(HttpClientError::ConnectionLost));
  EXPECT_EQ(2u, factory->sockets.size());
}

// The same at the daemon's log levels, where the kept connection is taken
// without a lookup: the retry goes to the destination it was made for.
TEST_F(NetHttpClientTest, ARetryFromAConnectionTakenWithoutALookupFindsItsDestination) {
  logAtDefaults();
  resolver->known.insert("example");
  resolver->known.insert("other");
  fetchHello("/");
  // The request object's own last lookup was for another host.
  Outcome first, second;
  auto a = get("/", first, "other");
  factory->sockets[1]->deliver(Ok5);
  run();
  a.reset();
  run();
  auto b = get("/again", second);
  factory->sockets[0]->deliverClose();
  run();
  ASSERT_EQ(3u, factory->sockets.size());
  EXPECT_EQ(SocketAddress(AF_INET, "192.0.2.1", 80), factory->sockets[2]->connectedTo);
  EXPECT_EQ("GET /again HTTP/1.1\r\nHost: example\r\n\r\n", factory->sockets[2]->sent);
  factory->sockets[2]->deliver(Ok5);
  run();
  EXPECT_EQ("hello", second.body);
}

// Once only: when the retry lands on a second kept connection that the server
// closes as well, the request fails rather than going round again.
TEST_F(NetHttpClientTest, AGetIsRetriedOnlyOnce) {
  Outcome a, b, c;
  auto first = get("/a", a);
  auto second = get("/b", b);
  factory->sockets[0]->deliver(Ok5);
  factory->sockets[1]->deliver(Ok5);
  run();
  ASSERT_EQ(2u, client->plainPool()->freeCount());
  auto again = get("/c", c);
  for (int i = 0; i < 2; ++i) {
    for (auto& socket : factory->sockets) {
      if (socket->receiving() && socket->sent.find("GET /c") != std::string::npos) socket->deliverClose();
    }
    run();
  }
  EXPECT_EQ(c.code, make_error_code(HttpClientError::ConnectionLost));
  EXPECT_EQ(2u, factory->sockets.size());
}

// At the daemon's log levels a request for the host of a free connection
// takes it without a lookup, as long as the resolver still answers with its
// address at once; another host, or a changed answer, goes the full way.
TEST_F(NetHttpClientTest, AFreeConnectionForTheSameHostIsTakenWhileItsAddressHolds) {
  logAtDefaults();
  resolver->known.insert("example");
  resolver->known.insert("other");
  // Answered on whichever socket the request went out on.
  const auto fetch = [this](const std::string& host) {
    std::vector<std::size_t> sentBefore;
    for (const auto& socket : factory->sockets) sentBefore.push_back(socket->sent.size());
    Outcome outcome;
    auto request = start("GET", "/", outcome, host);
    request->send(nullptr, 0);
    run();
    for (std::size_t i = 0; i < factory->sockets.size(); ++i) {
      if (i >= sentBefore.size() || factory->sockets[i]->sent.size() > sentBefore[i]) factory->sockets[i]->deliver(Ok5);
    }
    run();
    EXPECT_EQ("hello", outcome.body);
  };
  fetch("example");
  fetch("other");
  fetch("example");
  EXPECT_EQ(2u, factory->sockets.size());
  EXPECT_EQ(2u, client->plainPool()->freeCount());
  resolver->names["example"] = {"192.0.2.9"};
  fetch("example");
  ASSERT_EQ(3u, factory->sockets.size());
  EXPECT_EQ(SocketAddress(AF_INET, "192.0.2.9", 80), factory->last().connectedTo);
}

// The client keeps its request objects between uses. Whatever one use did,
// the next starts from nothing, and nothing of an old use is reached again.
TEST_F(NetHttpClientTest, AUseAfterAFailedOneCarriesNothingOver) {
  logAtDefaults();
  Outcome first;
  auto failed = start("POST", "/first", first);
  failed->headers().addField("X-Only-First", "1");
  failed->setCloseConnection();
  failed->send("abc", 3);
  run();
  // A chunked body whose chunk is not ended as it must be.
  factory->last().deliver("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nhe");
  run();
  factory->last().deliver("XX");
  run();
  ASSERT_TRUE(first.code);
  EXPECT_TRUE(*first.code);
  WebClientRequest* const object = failed.get();
  failed.reset();
  run();

  Outcome second;
  auto next = start("GET", "/second", second);
  EXPECT_EQ(object, next.get());  // the same object, used again
  EXPECT_FALSE(next->isStarted());
  EXPECT_EQ("GET /second HTTP/1.1\r\nHost: example\r\n\r\n",
            std::string(next->headers().data(), next->headers().size()));
  next->send(nullptr, 0);
  run();
  EXPECT_EQ("GET /second HTTP/1.1\r\nHost: example\r\n\r\n", factory->last().sent);
  factory->last().deliver(Ok5);
  run();
  EXPECT_EQ(1, second.responses);
  EXPECT_EQ("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n", second.head);
  EXPECT_EQ("hello", second.body);
  EXPECT_EQ(1, second.ends);
  EXPECT_EQ(1, second.errorCalls);
  EXPECT_EQ(second.code, Success);
  // Nothing more reached the first use's handlers, and the connection of the
  // second was kept: no close was asked for this time.
  EXPECT_EQ(1, first.errorCalls);
  EXPECT_EQ(1u, client->plainPool()->freeCount());
}

// A caller may keep a response after letting its request go: the object is
// not used again while it does, and the response stays as it came.
TEST_F(NetHttpClientTest, AResponseStillHeldKeepsItsObjectOffTheShelf) {
  logAtDefaults();
  Outcome first;
  auto request = start("GET", "/a", first);
  std::shared_ptr<WebClientResponse> kept;
  request->setResponseHandler([&kept](const std::shared_ptr<WebClientResponse>& response) { kept = response; });
  request->send(nullptr, 0);
  run();
  factory->last().deliver("HTTP/1.1 200 OK\r\nServer: first\r\nContent-Length: 1\r\n\r\na");
  run();
  ASSERT_TRUE(kept);
  WebClientRequest* const object = request.get();
  request.reset();
  run();

  Outcome second;
  auto other = get("/b", second);
  EXPECT_NE(object, other.get());
  factory->last().deliver("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
  run();
  EXPECT_EQ(404u, second.status);
  EXPECT_EQ("first", kept->headers().find("Server")->value.str());
  other.reset();

  kept.reset();
  Outcome third;
  auto again = start("GET", "/c", third);
  EXPECT_EQ(object, again.get());
}

// Handles an old use gave out reach nothing of the next: its body sink has
// expired and a source connected to it puts into nothing.
TEST_F(NetHttpClientTest, AnOldUsesBodySinkIsGone) {
  logAtDefaults();
  Outcome first;
  auto request = start("POST", "/a", first);
  const std::weak_ptr<BodySink> oldSink = request->bodySink();
  BodySource source;
  source.connect(oldSink);
  request.reset();
  run();
  EXPECT_TRUE(oldSink.expired());

  Outcome second;
  auto next = start("POST", "/b", second);
  next->startStreaming();
  run();
  source.put(BufferChainPtr(testing::chainOf(*pool, "stale")));
  source.end();
  auto sink = next->bodySink().lock();
  ASSERT_TRUE(sink);
  EXPECT_FALSE(sink->hasItem());
  EXPECT_FALSE(sink->endArrived());
  sink->put(BufferChainPtr(testing::chainOf(*pool, "new")));
  sink->end();
  run();
  EXPECT_EQ("POST /b HTTP/1.1\r\nHost: example\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nnew\r\n0\r\n\r\n",
            factory->last().sent);
}

}  // namespace
}  // namespace quorvel
