#pragma once

#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "core/lifetime.h"
#include "core/reactor.h"
#include "http/http_client.h"
#include "http/string_section.h"
#include "http/web_client.h"

namespace quorvel {

// Steps that every part of the relay client takes with the HTTP client.

// An absolute URL taken apart for the client's request call: its scheme, its
// authority (both Host value and destination) and its path ("/" when it has
// none). Kept by callers that send to URL after URL, so that the strings keep
// their room.
struct UrlParts {
  std::string scheme;
  std::string authority;
  std::string path;

  void set(StringSection url);
};

// A request to an absolute URL. Throws what the client throws for a URL it
// cannot serve.
std::shared_ptr<WebClientRequest> requestTo(HttpClient& client, const char* method, const UrlParts& url);
std::shared_ptr<WebClientRequest> requestTo(HttpClient& client, const char* method, const std::string& url);

// Responses whose body nobody wants are still read to their end, so that the
// exchange completes and its connection can be used again.
void discardBody(const std::shared_ptr<WebClientResponse>& response);

// Nothing is destroyed inside its own callback: `held` (anything with
// reset()) lets go of what it holds on a later turn of the loop.
template <typename T>
void releaseLater(Reactor& reactor, const LifetimeToken& token, T&& held) {
  auto box = std::make_shared<std::decay_t<T>>(std::forward<T>(held));
  reactor.post(token, [box]() { box->reset(); });
}

}  // namespace quorvel
