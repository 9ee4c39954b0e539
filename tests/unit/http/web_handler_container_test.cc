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

// Handlers are asked in the order they were added until one takes the request.
TEST(WebHandlerContainer, AsksInOrderUntilOneTakes) {
  struct Case {
    std::vector<bool> takes;
    bool taken;
    std::vector<std::string> asked;
  } cases[] = {{{}, false, {}},
               {{true, true}, true, {"0 /x"}},
               {{false, false, true, true}, true, {"0 /x", "1 /x", "2 /x"}},
               {{false, false}, false, {"0 /x", "1 /x"}}};
  for (const Case& c : cases) {
    std::vector<std::string> journal;
    WebHandlerContainer container;
    for (std::size_t i = 0; i < c.takes.size(); ++i) {
      container.addHandler(std::make_shared<ScriptedHandler>(std::to_string(i), c.takes[i], journal));
    }
    EXPECT_EQ(container.handlerCount(), c.takes.size());
    auto request = FakeWebRequest::make("GET /x HTTP/1.1\r\n");
    EXPECT_EQ(container.handle(request), c.taken);
    EXPECT_EQ(journal, c.asked);
    EXPECT_EQ(request->responses, 0);
  }
}

}  // namespace
}  // namespace quorvel
