#pragma once

#include <string>

#include <openssl/ssl.h>

namespace quorvel {

// How an OpenSSL call that did not succeed ended, read at once: errno and
// the error queue belong to whatever runs next.
struct TlsOutcome {
  int sslError;
  int systemError;
  // The first error OpenSSL queued, which names the cause; 0 if none.
  unsigned long libraryError;
};

// Reads and empties what the failed call left.
TlsOutcome tlsOutcomeOf(SSL* ssl, int result);

// OpenSSL reports an error only if its queue was empty before the call.
// Something else on this thread may have left an entry; emptying the queue
// every time costs more than the rest of a small record's bookkeeping.
void dropStaleTlsErrors();

// The call waits for the socket: readable or writable as sslError says.
bool tlsWantsSocket(const TlsOutcome& outcome);

struct TlsFailure {
  int code;  // an SslError or an errno number
  std::string reason;
};

// Why a handshake that was not cancelled failed, in the terms of SslError.
TlsFailure handshakeFailure(SSL* ssl, const TlsOutcome& outcome);

// For transfers on an established connection: 0 when the stream simply
// ended, with the peer's close_notify or without it (callers rely on their
// own framing, as over TCP), otherwise an errno number or SslStreamError.
// A broken record makes a line naming the operation and the host; an
// ordinary end of stream does not.
int transferFailure(const TlsOutcome& outcome, const char* operation, const std::string& hostName);

}  // namespace quorvel
