#pragma once

#include <memory>
#include <vector>

#include "http/web_request.h"

namespace quorvel {

// The one handler the relay client sees: offers each request to the handlers
// it holds, in the order they were added, until one takes it. It matches
// nothing itself and answers nothing when no handler takes a request; that is
// its caller's business.
class WebHandlerContainer : public WebRequestHandler {
 public:
  // Appends; the same handler may be added twice. Handlers are added at
  // start-up, before the first request.
  void addHandler(std::shared_ptr<WebRequestHandler> handler);

  // True when a handler took the request; false when none did, or there are
  // none.
  bool handle(const std::shared_ptr<WebRequest>& request) override;

  std::size_t handlerCount() const { return handlers_.size(); }

 private:
  std::vector<std::shared_ptr<WebRequestHandler>> handlers_;
};

}  // namespace quorvel
