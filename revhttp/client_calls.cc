#include "revhttp/client_calls.h"

#include <limits>

#include "http/url.h"

namespace quorvel {

std::shared_ptr<WebClientRequest> requestTo(HttpClient& client, const char* method, const std::string& url) {
  const std::string authority = Url::authority(url);
  std::string path = Url::path(url);
  if (path.empty()) path = "/";
  return client.createRequest(method, Url::scheme(url), authority, authority, path);
}

void discardBody(const std::shared_ptr<WebClientResponse>& response) {
  // A source whose sink has gone drops what it is given without holding the
  // producer back, and a sink that is never full lets go of a producer
  // waiting already.
  auto sink = std::make_shared<BodySink>(std::numeric_limits<std::size_t>::max());
  response->body().connect(sink);
}

void discardInto(const std::shared_ptr<BodySink>& sink) {
  if (!sink) return;
  const std::weak_ptr<BodySink> weak = sink;
  sink->setReadyHandler([weak]() {
    if (std::shared_ptr<BodySink> held = weak.lock()) {
      while (held->hasItem()) held->take();
    }
  });
  while (sink->hasItem()) sink->take();
}

}  // namespace quorvel
