#pragma once

#include <openssl/bio.h>

namespace quorvel {

// A BIO over a connected, non-blocking socket that someone else owns: the
// TLS layer reads and writes the socket itself, with no buffer pair between.
// Unlike OpenSSL's own socket BIO it sends with MSG_NOSIGNAL, so a peer that
// resets the connection ends in an error for that connection, not in SIGPIPE
// for the whole process. Freeing the BIO leaves the socket open.
BIO* newSocketBio(int fd);

// Whether a read of the socket would find nothing now (EAGAIN): waiting for
// it to become readable is then safe under edge-triggered readiness.
bool socketIsDry(int fd);

}  // namespace quorvel
