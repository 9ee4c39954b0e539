#include "http/web_handler_container.h"

#include <utility>

namespace quorvel {

void WebHandlerContainer::addHandler(std::shared_ptr<WebRequestHandler> handler) {
  handlers_.push_back(std::move(handler));
}

bool WebHandlerContainer::handle(const std::shared_ptr<WebRequest>& request) {
  // By index and with its own reference for the call, so that a handler
  // added from inside a call cannot pull the ground from under the walk.
  for (std::size_t i = 0; i < handlers_.size(); ++i) {
    const std::shared_ptr<WebRequestHandler> handler = handlers_[i];
    if (handler->handle(request)) return true;
  }
  return false;
}

}  // namespace quorvel
