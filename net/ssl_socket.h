#pragma once

#include <string>

#include "net/async_socket.h"

namespace quorvel {

// Failures of a TLS connection as they reach connect, send and receive
// callbacks. They sit above every errno number so that one int carries
// either kind; socketErrorText() names both.
enum SslError : int {
  // Any other handshake failure: an alert from the peer, a malformed message,
  // the connection lost half-way.
  SslHandshakeFailed = 1001,
  // The chain does not lead to a trusted authority (unknown or self-signed CA).
  SslUntrustedCertificate = 1002,
  // The certificate is not for the name (or address) that was asked for.
  SslHostNameMismatch = 1003,
  SslCertificateExpired = 1004,
  SslCertificateNotYetValid = 1005,
  // Any other verification failure (bad signature, wrong purpose ...).
  SslCertificateRejected = 1006,
  // The peer cannot do TLS 1.2 or newer.
  SslProtocolVersion = 1007,
  // connect() on a verifying socket that was given no host name.
  SslNoHostName = 1008,
  // A broken record on an established connection (bad MAC, bad alert).
  SslStreamError = 1009,
};

bool isSslError(int error);

// A short English text for logs: the TLS failures above, the system's text
// for errno numbers, "error N" for anything else.
std::string socketErrorText(int error);

// A TLS client socket: an AsyncSocket that has to know which server it
// talks to before connect(), because the address alone cannot be verified.
class SslSocket : public AsyncSocket {
 public:
  // The name sent as SNI and checked against the server's certificate; an
  // IPv4 or IPv6 literal (without brackets) is checked against the
  // certificate's IP addresses and sent without SNI. Call before connect().
  virtual void setHostName(const std::string& hostName) = 0;
};

// Gives `hostName` to `socket` when it is a TLS socket and returns true;
// other sockets are left alone (false). Lets a client that holds sockets
// only as AsyncSocket treat plain and TLS connections alike.
bool setSslHostName(AsyncSocket& socket, const std::string& hostName);

}  // namespace quorvel
