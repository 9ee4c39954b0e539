#include "http/request_shelf.h"

#include "http/net_http_client_request.h"

namespace quorvel {

constexpr std::size_t RequestShelf::Limit;

RequestShelf::~RequestShelf() {
  for (NetHttpClientRequest* request : kept_) delete request;
}

NetHttpClientRequest* RequestShelf::take() {
  if (kept_.empty()) return nullptr;
  NetHttpClientRequest* request = kept_.back();
  kept_.pop_back();
  return request;
}

void RequestShelf::put(NetHttpClientRequest* request) {
  if (kept_.size() >= Limit) {
    delete request;
    return;
  }
  kept_.push_back(request);
}

}  // namespace quorvel
