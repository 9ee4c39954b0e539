#include "net/ssl_socket.h"

#include <cstring>

namespace quorvel {

bool isSslError(int error) { return error >= SslHandshakeFailed && error <= SslStreamError; }

std::string socketErrorText(int error) {
  switch (error) {
    case SslHandshakeFailed:
      return "TLS handshake failed";
    case SslUntrustedCertificate:
      return "certificate not issued by a trusted authority";
    case SslHostNameMismatch:
      return "certificate does not match the host name";
    case SslCertificateExpired:
      return "certificate has expired";
    case SslCertificateNotYetValid:
      return "certificate is not yet valid";
    case SslCertificateRejected:
      return "certificate rejected";
    case SslProtocolVersion:
      return "peer does not support TLS 1.2 or newer";
    case SslNoHostName:
      return "no host name to verify the server against";
    case SslStreamError:
      return "TLS stream error";
  }
  if (error == 0) return "no error";
  if (error > 0 && error < 4096) return std::strerror(error);
  return "error " + std::to_string(error);
}

bool setSslHostName(AsyncSocket& socket, const std::string& hostName) {
  auto* ssl = dynamic_cast<SslSocket*>(&socket);
  if (!ssl) return false;
  ssl->setHostName(hostName);
  return true;
}

}  // namespace quorvel
