#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "http/web_request.h"

namespace quorvel {
namespace {

class FakeResponse : public WebResponse {
 public:
  explicit FakeResponse(MessageHeaders headers) : headers_(std::move(headers)) {}
  MessageHeaders& headers() override { return headers_; }
  void start() override {}
  void send(const void* data, std::size_t length) override {
    sent.assign(static_cast<const char*>(data), length);
    ++sends;
  }
  std::weak_ptr<BodySink> bodySink() override { return {}; }

  MessageHeaders headers_;
  std::string sent;
  int sends = 0;
};

class FakeRequest : public WebRequest, public std::enable_shared_from_this<FakeRequest> {
 public:
  void setBodyDataHandler(const BodyDataHandler&) override {}
  const MessageHeaders& headers() const override { return headers_; }
  const WebClientInfo& clientInfo() const override { return info_; }
  bool isBodyComplete() const override { return true; }
  bool isActive() const override { return true; }
  std::weak_ptr<WebRequest> weakRef() override { return shared_from_this(); }
  using WebRequest::createResponse;
  std::shared_ptr<WebResponse> createResponse(uint32_t code, StringSection reason) override {
    response = std::make_shared<FakeResponse>(MessageHeaders::response(code, reason, HttpVersion::V11));
    return response;
  }

  MessageHeaders headers_ = MessageHeaders::request("GET", "/", HttpVersion::V11);
  WebClientInfo info_;
  std::shared_ptr<FakeResponse> response;
};

std::string wire(const MessageHeaders& headers) { return std::string(headers.data(), headers.size()); }

TEST(SimpleResponse, TextBodyIsPlainAndNotCached) {
  FakeRequest request;
  sendSimpleResponse(request, HttpStatus::BadGateway, "Unable to relay request", "text/plain", false);
  ASSERT_TRUE(request.response);
  EXPECT_EQ(wire(request.response->headers_),
            "HTTP/1.1 502 Bad Gateway\r\nContent-Type: text/plain\r\nCache-Control: no-cache\r\n"
            "Pragma: no-cache\r\n\r\n");
  EXPECT_EQ(request.response->sent, "Unable to relay request");
  EXPECT_EQ(request.response->sends, 1);
}

TEST(SimpleResponse, DefaultsAndCacheableEmptyBody) {
  FakeRequest request;
  sendSimpleResponse(request, HttpStatus::Ok, "{}");
  EXPECT_EQ(request.response->headers_.find(HttpHeader::ContentType)->value.str(), "text/plain");
  EXPECT_TRUE(request.response->headers_.has(HttpHeader::Pragma));
  FakeRequest other;
  sendSimpleResponse(other, HttpStatus::NotFound, "", "application/json", true);
  EXPECT_EQ(wire(other.response->headers_), "HTTP/1.1 404 Not Found\r\n\r\n");
  EXPECT_EQ(other.response->sends, 1);
  EXPECT_EQ(other.response->sent, "");
}

}  // namespace
}  // namespace quorvel
