#include "net/socket_bio.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdint>

namespace quorvel {
namespace {

int descriptorOf(BIO* bio) { return static_cast<int>(reinterpret_cast<std::intptr_t>(BIO_get_data(bio))); }

bool worthRetrying(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

int writeSocket(BIO* bio, const char* data, int length) {
  BIO_clear_retry_flags(bio);
  const ssize_t sent = ::send(descriptorOf(bio), data, static_cast<std::size_t>(length), MSG_NOSIGNAL);
  if (sent < 0 && worthRetrying(errno)) BIO_set_retry_write(bio);
  return static_cast<int>(sent);
}

int readSocket(BIO* bio, char* data, int length) {
  BIO_clear_retry_flags(bio);
  const ssize_t got = ::recv(descriptorOf(bio), data, static_cast<std::size_t>(length), 0);
  if (got < 0 && worthRetrying(errno)) BIO_set_retry_read(bio);
  // Remembered so that the TLS layer can tell the peer's end of the stream
  // from a read that merely found nothing yet.
  if (got == 0) BIO_set_flags(bio, BIO_FLAGS_IN_EOF);
  return static_cast<int>(got);
}

long controlSocket(BIO* bio, int command, long, void*) {
  switch (command) {
    case BIO_CTRL_FLUSH:
      return 1;  // nothing is held back: every write went to the socket
    case BIO_CTRL_EOF:
      return BIO_test_flags(bio, BIO_FLAGS_IN_EOF) != 0;
  }
  return 0;
}

int createSocketBio(BIO* bio) {
  BIO_set_init(bio, 1);
  return 1;
}

BIO_METHOD* makeMethod() {
  BIO_METHOD* method = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "socket without SIGPIPE");
  BIO_meth_set_write(method, writeSocket);
  BIO_meth_set_read(method, readSocket);
  BIO_meth_set_ctrl(method, controlSocket);
  BIO_meth_set_create(method, createSocketBio);
  return method;
}

}  // namespace

bool socketIsDry(int fd) {
  char probe;
  const ssize_t peeked = ::recv(fd, &probe, 1, MSG_PEEK | MSG_DONTWAIT);
  return peeked < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
}

BIO* newSocketBio(int fd) {
  // One method for the process's lifetime, made on first use.
  static BIO_METHOD* const method = makeMethod();
  BIO* bio = BIO_new(method);
  if (bio) BIO_set_data(bio, reinterpret_cast<void*>(static_cast<std::intptr_t>(fd)));
  return bio;
}

}  // namespace quorvel
