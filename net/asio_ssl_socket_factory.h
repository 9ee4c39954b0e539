#pragma once

#include <memory>

#include "core/asio_reactor.h"
#include "net/async_socket.h"

namespace boost {
namespace asio {
namespace ssl {
class context;
}  // namespace ssl
}  // namespace asio
}  // namespace boost

namespace quorvel {

// TLS client sockets (TLS 1.2 or newer) over TCP on the reactor's I/O loop.
// Servers are verified against OpenSSL's default trust store (the system's
// CA list, or the file named by SSL_CERT_FILE / the directory named by
// SSL_CERT_DIR when those are set before the factory is built) and against
// the host name each socket is given (SslSocket::setHostName).
class AsioSslSocketFactory : public AsyncSocketFactory {
 public:
  // `skipVerification` is a development-only switch: when true, any
  // certificate from any server is accepted, which leaves the connection
  // open to interception. The daemon always passes false.
  AsioSslSocketFactory(std::shared_ptr<AsioReactor> reactor, bool skipVerification);
  ~AsioSslSocketFactory() override;

  // Stream sockets only (an SslSocket behind the AsyncSocket): throws
  // std::invalid_argument "Unsupported protocol family" / "Unsupported stream
  // protocol", std::logic_error "Unsupported protocol" for any other type;
  // SocketError if the system cannot open the socket.
  std::shared_ptr<AsyncSocket> createSocket(int family, int type, int protocol) override;
  // A TLS server needs a certificate and key, which this factory is never
  // given: after the same argument checks as createSocket (with "Unsupported
  // socket type" for non-stream types) it throws std::logic_error "SSL
  // listeners not supported: no server certificate".
  std::shared_ptr<AsyncListener> createListener(int family, int type, int protocol) override;

 private:
  std::shared_ptr<AsioReactor> reactor_;
  std::shared_ptr<boost::asio::ssl::context> context_;
  bool verify_;
};

}  // namespace quorvel
