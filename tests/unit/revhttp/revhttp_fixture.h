#pragma once

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/log.h"
#include "revhttp/reverse_http_client.h"
#include "tests/support/log_capture.h"
#include "tests/support/manual_reactor.h"
#include "tests/support/switchable_allocator.h"
#include "tests/support/http_fakes.h"

namespace quorvel {
namespace testing {

// Takes (or declines) every request and keeps what it was given.
class RecordingHandler : public WebRequestHandler {
 public:
  bool handle(const std::shared_ptr<WebRequest>& request) override {
    requests.push_back(request);
    if (!takes) return false;
    request->setBodyDataHandler([this](const BufferChainPtr& piece, bool end) {
      if (end) {
        ++ends;
      } else {
        bodyPieces.push_back(pieceText(piece));
        body += bodyPieces.back();
      }
    });
    if (onRequest) onRequest(request);
    return true;
  }

  bool takes = true;
  Delegate<void(const std::shared_ptr<WebRequest>&)> onRequest;
  std::vector<std::shared_ptr<WebRequest>> requests;
  std::vector<std::string> bodyPieces;
  std::string body;
  int ends = 0;
};

class RevHttpTest : public ::testing::Test {
 protected:
  static constexpr const char* RegistrationUrl = "https://k1.relay.test/rhttp/register";
  static constexpr const char* RelayUrl = "https://k1.relay.test/rhttp/relay/k1/1";
  static constexpr const char* ReplyLink = "Link: <http://k1.relay.test:8080/rhttp/reply/7>; rel=\"reply\"\r\n";

  RevHttpTest() {
    log::setLevel("revhttp", log::Spam);
    client = std::make_shared<ReverseHttpClient>(reactor, allocator, http, RegistrationUrl, "k1");
    client->setRequestHandler(handler);
  }
  ~RevHttpTest() override { log::setLevel("revhttp", 0); }

  std::shared_ptr<FakeClientRequest> last() { return http->requests.back(); }
  std::size_t sent() const { return http->requests.size(); }

  // Registration answered with the first relay URL; returns the first GET.
  std::shared_ptr<FakeClientRequest> registered() {
    client->start();
    respond(*last(), "HTTP/1.1 201 Created\r\nLink: </rhttp/relay/k1/1>; rel=\"first\"\r\n");
    return last();
  }

  // Answers the current relay GET with a relayed request whose body comes in
  // the given pieces (no end yet). Returns that GET.
  std::shared_ptr<FakeClientRequest> relay(const std::vector<std::string>& pieces,
                                           const std::string& links = std::string(ReplyLink) +
                                                                      "Link: </rhttp/relay/k1/2>; rel=\"next\"\r\n") {
    std::shared_ptr<FakeClientRequest> get = currentGet();
    respond(*get, "HTTP/1.1 200 OK\r\nContent-Type: message/http\r\n" + links);
    for (const std::string& piece : pieces) get->response->put(piece);
    return get;
  }

  // Answers a request with a response head given as its wire text.
  static std::shared_ptr<FakeClientResponse> respond(FakeClientRequest& request, const std::string& head) {
    const MessageHeaders parsed = MessageHeaders::parseResponse(head.data(), head.size());
    HeaderList fields;
    for (const MessageHeaders::Field& field : parsed) fields.emplace_back(field.name.str(), field.value.str());
    return request.respond(parsed.statusCode(), parsed.reason().str(), fields);
  }
  static std::string url(const FakeClientRequest& request) {
    return request.scheme + "://" + request.connectHost + request.path;
  }
  static bool hasField(const FakeClientRequest& request, const std::string& name, const std::string& value) {
    const std::vector<std::string> values = fieldValues(request.headers_, name);
    return std::find(values.begin(), values.end(), value) != values.end();
  }
  // A fresh client for the next row of a table.
  void restart(const std::shared_ptr<BufferChainAllocator>& buffers) {
    http->requests.clear();
    client = std::make_shared<ReverseHttpClient>(reactor, buffers, http, RegistrationUrl, "k1");
    client->setRequestHandler(handler);
  }

  // The relay GET that is outstanding.
  std::shared_ptr<FakeClientRequest> currentGet() {
    for (auto it = http->requests.rbegin(); it != http->requests.rend(); ++it) {
      if ((*it)->method == "GET") return *it;
    }
    return nullptr;
  }

  // The reply POST made for the latest relayed request.
  std::shared_ptr<FakeClientRequest> replyPost() {
    for (auto it = http->requests.rbegin(); it != http->requests.rend(); ++it) {
      if ((*it)->method == "POST" && (*it)->path.find("/rhttp/register") == std::string::npos) return *it;
    }
    return nullptr;
  }

  bool logged(const std::string& message, int level) const {
    for (const LogCapture::Line& line : logs->lines()) {
      if (line.log == "revhttp" && line.message == message && line.level == level) return true;
    }
    return false;
  }

  std::shared_ptr<LogCapture> logs = LogCapture::install();
  // Small buffers, so that heads and bodies span several of them. The pool
  // outlives everything that may hold its buffers, the reactor's tasks too.
  std::shared_ptr<BufferPool> pool = std::make_shared<BufferPool>(16, 0, 0);
  std::shared_ptr<SwitchableAllocator> allocator = std::make_shared<SwitchableAllocator>(pool);
  std::shared_ptr<ManualReactor> reactor = std::make_shared<ManualReactor>();
  std::shared_ptr<FakeHttpClient> http = std::make_shared<FakeHttpClient>();
  std::shared_ptr<RecordingHandler> handler = std::make_shared<RecordingHandler>();
  std::shared_ptr<ReverseHttpClient> client;
};

}  // namespace testing
}  // namespace quorvel
