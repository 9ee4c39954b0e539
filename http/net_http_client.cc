#include "http/net_http_client.h"

#include <stdexcept>

#include "core/handler_memory.h"
#include "http/net_http_client_request.h"
#include "http/request_shelf.h"
#include "http/request_watchdog.h"
#include "http/string_section.h"

namespace quorvel {

const Duration NetHttpClient::RequestTimeout = Duration::seconds(60);

NetHttpClient::NetHttpClient(std::shared_ptr<Reactor> reactor, std::shared_ptr<BufferChainAllocator> allocator,
                             std::shared_ptr<AsyncSocketFactory> plain, std::shared_ptr<AsyncSocketFactory> ssl,
                             std::shared_ptr<NameResolver> resolver, unsigned connectionLimit)
    : reactor_(std::move(reactor)),
      allocator_(std::move(allocator)),
      resolver_(std::move(resolver)),
      watchdog_(std::make_shared<RequestWatchdog>(reactor_)),
      shelf_(std::make_shared<RequestShelf>()) {
  plainPool_ = std::make_shared<HttpConnectionPool>(reactor_, std::move(plain), allocator_, connectionLimit);
  if (ssl) sslPool_ = std::make_shared<HttpConnectionPool>(reactor_, std::move(ssl), allocator_, connectionLimit);
}

NetHttpClient::~NetHttpClient() = default;

std::shared_ptr<WebClientRequest> NetHttpClient::createRequest(const std::string& method, const std::string& scheme,
                                                               const std::string& hostValue,
                                                               const std::string& connectHost,
                                                               const std::string& path) {
  std::shared_ptr<HttpConnectionPool> pool = plainPool_;
  if (StringSection(scheme) == StringSection("https")) {
    if (!sslPool_) throw std::runtime_error("HTTPS connections not supported");
    pool = sslPool_;
  }
  NetHttpClientRequest* object = shelf_->take();
  if (!object) object = new NetHttpClientRequest(reactor_, allocator_, resolver_, watchdog_, shelf_);
  try {
    object->open(std::move(pool), method, scheme, hostValue, connectHost, path);
  } catch (...) {
    shelf_->put(object);
    throw;
  }
  // The handle's count block, made for every request, comes from the loop's
  // free lists rather than the heap.
  const std::shared_ptr<NetHttpClientRequest> request(object, NetHttpClientRequest::HandleRelease(),
                                                      HandlerAllocator<NetHttpClientRequest>());
  request->begin();
  return request;
}

void NetHttpClient::splitConnectHost(const std::string& connectHost, const std::string& defaultService,
                                     std::string& host, std::string& service) {
  service = defaultService;
  if (!connectHost.empty() && connectHost[0] == '[') {
    const std::size_t close = connectHost.find(']');
    if (close != std::string::npos) {
      host.assign(connectHost, 1, close - 1);
      if (close + 1 < connectHost.size() && connectHost[close + 1] == ':' && close + 2 < connectHost.size()) {
        service.assign(connectHost, close + 2, std::string::npos);
      }
      return;
    }
  }
  const std::size_t colon = connectHost.find(':');
  // Two colons or more: a bare IPv6 address, which has no port.
  if (colon != std::string::npos && connectHost.find(':', colon + 1) == std::string::npos) {
    // Assigned in place: callers keep these strings from one request to the next.
    host.assign(connectHost, 0, colon);
    if (colon + 1 < connectHost.size()) service.assign(connectHost, colon + 1, std::string::npos);
    return;
  }
  host = connectHost;
}

}  // namespace quorvel
