#include "net/tls_outcome.h"

#include <cerrno>
#include <cstring>

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include "core/log.h"
#include "net/ssl_socket.h"

namespace quorvel {
namespace {

const log::Log Log("asiossl");

int verifyFailureCode(long result) {
  switch (result) {
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
      return SslHostNameMismatch;
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return SslCertificateExpired;
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return SslCertificateNotYetValid;
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
      return SslUntrustedCertificate;
  }
  return SslCertificateRejected;
}

// The connection ended without close_notify: OpenSSL 3 names it, older
// versions report a system error with no errno.
bool endedWithoutNotice(const TlsOutcome& outcome) {
#ifdef SSL_R_UNEXPECTED_EOF_WHILE_READING
  if (outcome.sslError == SSL_ERROR_SSL && ERR_GET_REASON(outcome.libraryError) == SSL_R_UNEXPECTED_EOF_WHILE_READING)
    return true;
#endif
  return outcome.sslError == SSL_ERROR_SYSCALL && outcome.systemError == 0;
}

// The OpenSSL reason of a library error, e.g. "certificate verify failed".
std::string reasonText(unsigned long error) {
  const char* reason = ERR_reason_error_string(error);
  return reason ? reason : "error " + std::to_string(error);
}

}  // namespace

TlsOutcome tlsOutcomeOf(SSL* ssl, int result) {
  const int systemError = errno;
  const int sslError = SSL_get_error(ssl, result);
  TlsOutcome outcome{sslError, systemError, ERR_get_error()};
  if (outcome.libraryError) ERR_clear_error();
  return outcome;
}

void dropStaleTlsErrors() {
  if (ERR_peek_error() != 0) ERR_clear_error();
}

bool tlsWantsSocket(const TlsOutcome& outcome) {
  return outcome.sslError == SSL_ERROR_WANT_READ || outcome.sslError == SSL_ERROR_WANT_WRITE;
}

TlsFailure handshakeFailure(SSL* ssl, const TlsOutcome& outcome) {
  if (outcome.sslError == SSL_ERROR_SYSCALL && outcome.systemError) {
    return {outcome.systemError, std::strerror(outcome.systemError)};
  }
  if (outcome.sslError != SSL_ERROR_SSL || endedWithoutNotice(outcome)) {
    return {SslHandshakeFailed, "connection closed during handshake"};
  }
  const std::string reason = reasonText(outcome.libraryError);
  switch (ERR_GET_REASON(outcome.libraryError)) {
    case SSL_R_CERTIFICATE_VERIFY_FAILED: {
      const long result = SSL_get_verify_result(ssl);
      if (result == X509_V_OK) return {SslCertificateRejected, reason};
      return {verifyFailureCode(result), reason + ": " + X509_verify_cert_error_string(result)};
    }
    case SSL_R_UNSUPPORTED_PROTOCOL:
    case SSL_R_TLSV1_ALERT_PROTOCOL_VERSION:
    case SSL_R_VERSION_TOO_LOW:
    case SSL_R_NO_PROTOCOLS_AVAILABLE:
      return {SslProtocolVersion, reason};
  }
  return {SslHandshakeFailed, reason};
}

int transferFailure(const TlsOutcome& outcome, const char* operation, const std::string& hostName) {
  if (outcome.sslError == SSL_ERROR_ZERO_RETURN || endedWithoutNotice(outcome)) return 0;
  if (outcome.sslError == SSL_ERROR_SYSCALL) return outcome.systemError;
  QLOG(Log, log::Info, "%s on the connection to %s failed: %s", operation, hostName, reasonText(outcome.libraryError));
  return SslStreamError;
}

}  // namespace quorvel
