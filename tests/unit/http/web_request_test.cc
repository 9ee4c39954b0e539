#include <gtest/gtest.h>

#include "http/web_request.h"
#include "tests/support/http_fakes.h"

namespace quorvel {
namespace {

using testing::FakeWebRequest;

// The plain, non-cacheable text form is the forwarder's 502 (see its tests).
TEST(SimpleResponse, DefaultsAndCacheableEmptyBody) {
  auto request = FakeWebRequest::make("GET / HTTP/1.1\r\n");
  sendSimpleResponse(*request, HttpStatus::Ok, "{}");
  EXPECT_EQ(request->response->headers_.find(HttpHeader::ContentType)->value.str(), "text/plain");
  EXPECT_TRUE(request->response->headers_.has(HttpHeader::Pragma));
  auto other = FakeWebRequest::make("GET / HTTP/1.1\r\n");
  sendSimpleResponse(*other, HttpStatus::NotFound, "", "application/json", true);
  EXPECT_EQ(other->response->wire(), "HTTP/1.1 404 Not Found\r\n\r\n");
  EXPECT_EQ(other->response->sends, 1);
  EXPECT_EQ(other->response->sent, "");
}

}  // namespace
}  // namespace quorvel
