#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "http/web_handler_container.h"
#include "tests/support/http_fakes.h"

namespace quorvel {
namespace {

using testing::FakeWebRequest;

// Records the order of calls in a shared journal and answers as told.
class ScriptedHandler : public WebRequestHandler {
 public:
  ScriptedHandler(std::string name, bool takes, std::vector<std::string>& journal)
      : name_(std::move(name)), takes_(takes), journal_(journal) {}
  bool handle(const std::shared_ptr<WebRequest>& request) override {
    journal_.push_back(name_ + " " + request->headers().requestTarget().str());
    return takes_;
  }

 private:
  std::string name_;
  bool takes_;
  std::vector<std::string>& journal_;
};

TEST(WebHandlerContainer, EmptyContainerTakesNothing) {
  WebHandlerContainer container;
  auto request = FakeWebRequest::make("GET /a HTTP/1.1\r\n");
  EXPECT_FALSE(container.handle(request));
  EXPECT_FALSE(container.handle(request));
  EXPECT_EQ(request->responses, 0);
}

TEST(WebHandlerContainer, FirstTakerEndsTheWalk) {
  std::vector<std::string> journal;
  WebHandlerContainer container;
  container.addHandler(std::make_shared<ScriptedHandler>("first", true, journal));
  container.addHandler(std::make_shared<ScriptedHandler>("second", true, journal));
  EXPECT_TRUE(container.handle(FakeWebRequest::make("GET /a HTTP/1.1\r\n")));
  EXPECT_TRUE(container.handle(FakeWebRequest::make("GET /b HTTP/1.1\r\n")));
  EXPECT_EQ(journal, (std::vector<std::string>{"first /a", "first /b"}));
}

TEST(WebHandlerContainer, DecliningHandlersPassTheRequestOnInOrder) {
  std::vector<std::string> journal;
  WebHandlerContainer container;
  container.addHandler(std::make_shared<ScriptedHandler>("one", false, journal));
  container.addHandler(std::make_shared<ScriptedHandler>("two", false, journal));
  auto taker = std::make_shared<ScriptedHandler>("three", true, journal);
  container.addHandler(taker);
  container.addHandler(taker);  // added twice: nothing checks it
  EXPECT_EQ(container.handlerCount(), 4u);
  auto request = FakeWebRequest::make("GET /x HTTP/1.1\r\n");
  EXPECT_TRUE(container.handle(request));
  EXPECT_EQ(journal, (std::vector<std::string>{"one /x", "two /x", "three /x"}));
  EXPECT_EQ(request->responses, 0);
}

TEST(WebHandlerContainer, FalseWhenEveryHandlerDeclines) {
  std::vector<std::string> journal;
  WebHandlerContainer container;
  container.addHandler(std::make_shared<ScriptedHandler>("one", false, journal));
  container.addHandler(std::make_shared<ScriptedHandler>("two", false, journal));
  EXPECT_FALSE(container.handle(FakeWebRequest::make("POST /y HTTP/1.1\r\n")));
  EXPECT_EQ(journal, (std::vector<std::string>{"one /y", "two /y"}));
}

}  // namespace
}  // namespace quorvel
