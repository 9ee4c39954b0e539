#include "net/asio_ssl_socket_factory.h"

#include <sys/socket.h>

#include <netinet/in.h>

#include <stdexcept>

#include <openssl/ssl.h>

#include "core/log.h"
#include "net/asio_socket.h"
#include "net/asio_ssl_socket.h"

namespace quorvel {
namespace {

const log::Log Log("asiossl");

namespace ssl = boost::asio::ssl;
using boost::asio::ip::tcp;

void checkStreamArguments(int family, int type, int protocol, const char* otherType) {
  if (family != AF_INET && family != AF_INET6) throw std::invalid_argument("Unsupported protocol family");
  if (type != SOCK_STREAM) throw std::logic_error(otherType);
  if (protocol != 0 && protocol != IPPROTO_TCP) throw std::invalid_argument("Unsupported stream protocol");
}

std::shared_ptr<ssl::context> clientContext(bool verify) {
  auto context = std::make_shared<ssl::context>(ssl::context::tls_client);
  SSL_CTX* handle = context->native_handle();
  SSL_CTX_set_min_proto_version(handle, TLS1_2_VERSION);
  context->set_options(ssl::context::default_workarounds | ssl::context::no_compression);
  SSL_CTX_set_options(handle, SSL_OP_NO_RENEGOTIATION);
  // Idle pooled connections then hold no record buffers.
  SSL_CTX_set_mode(handle, SSL_MODE_RELEASE_BUFFERS);
  if (!verify) {
    QLOG(Log, log::Warning, "Certificate verification is switched off: any server is accepted (development only)");
    context->set_verify_mode(ssl::verify_none);
    return context;
  }
  if (SSL_CTX_set_default_verify_paths(handle) != 1) {
    QLOG(Log, log::Error, "Failed to load the default trusted certificates; every server will be refused");
  }
  context->set_verify_mode(ssl::verify_peer);
  return context;
}

}  // namespace

AsioSslSocketFactory::AsioSslSocketFactory(std::shared_ptr<AsioReactor> reactor, bool skipVerification)
    : reactor_(std::move(reactor)), context_(clientContext(!skipVerification)), verify_(!skipVerification) {}

AsioSslSocketFactory::~AsioSslSocketFactory() = default;

std::shared_ptr<AsyncSocket> AsioSslSocketFactory::createSocket(int family, int type, int protocol) {
  checkStreamArguments(family, type, protocol, "Unsupported protocol");
  auto state = std::make_shared<SslSocketState>(reactor_->ioContext(), context_);
  boost::system::error_code error;
  state->socket.open(family == AF_INET ? tcp::v4() : tcp::v6(), error);
  if (error) asio_detail::throwSocketError("open", error);
  return std::make_shared<AsioSslSocket>(reactor_, state, verify_);
}

std::shared_ptr<AsyncListener> AsioSslSocketFactory::createListener(int family, int type, int protocol) {
  checkStreamArguments(family, type, protocol, "Unsupported socket type");
  throw std::logic_error("SSL listeners not supported: no server certificate");
}

}  // namespace quorvel
