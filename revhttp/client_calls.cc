#include "revhttp/client_calls.h"


#include "http/url.h"

namespace quorvel {

void UrlParts::set(StringSection url) {
  const auto assign = [](std::string& out, StringSection text) {
    if (text.empty()) {
      out.clear();
    } else {
      out.assign(text.data(), text.size());
    }
  };
  assign(scheme, Url::schemeOf(url));
  assign(authority, Url::authorityOf(url));
  assign(path, Url::pathOf(url));
  if (path.empty()) path = "/";
}

std::shared_ptr<WebClientRequest> requestTo(HttpClient& client, const char* method, const UrlParts& url) {
  return client.createRequest(method, url.scheme, url.authority, url.authority, url.path);
}

std::shared_ptr<WebClientRequest> requestTo(HttpClient& client, const char* method, const std::string& url) {
  UrlParts parts;
  parts.set(url);
  return requestTo(client, method, parts);
}

void discardBody(const std::shared_ptr<WebClientResponse>& response) { response->body().discard(); }

}  // namespace quorvel
