#include "net/asio_ssl_socket.h"

#include <arpa/inet.h>

#include <cerrno>
#include <stdexcept>

#include <boost/asio/post.hpp>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include "core/handler_memory.h"
#include "core/log.h"
#include "net/asio_socket.h"
#include "net/socket_bio.h"
#include "net/tls_outcome.h"

namespace quorvel {
namespace {

const log::Log Log("asiossl");

using boost::asio::ip::tcp;
using boost::system::error_code;

using Transfer = std::unique_ptr<SslTransfer>;
using StatePtr = std::shared_ptr<SslSocketState>;
// The next try of an operation; `withinCall` is true while send() or
// receive() is still on the stack.
using Step = void (*)(const StatePtr&, Transfer, bool withinCall);

bool isIpLiteral(const std::string& host) {
  unsigned char address[16];
  return inet_pton(AF_INET, host.c_str(), address) == 1 || inet_pton(AF_INET6, host.c_str(), address) == 1;
}

tcp::socket::wait_type waitFor(const TlsOutcome& outcome) {
  return outcome.sslError == SSL_ERROR_WANT_READ ? tcp::socket::wait_read : tcp::socket::wait_write;
}

// Holding no bytes and no close_notify from the peer. (A failed connection
// never gets here: its failure is kept and reported first.)
bool quietTls(SSL* ssl) { return SSL_get_shutdown(ssl) == 0 && !SSL_has_pending(ssl); }

void finish(const StatePtr& state, Transfer transfer, int error, std::size_t bytes) {
  if (transfer->callback) transfer->callback(error, bytes);
  state->spares.giveBack(std::move(transfer));
}

void finishWithinCall(const StatePtr& state) {
  state->completionsPosted = false;
  // Callbacks may start operations that end at once: those join the list
  // and run in this same pass, in their order.
  for (std::size_t i = 0; i < state->finished.size(); ++i) {
    Transfer transfer = std::move(state->finished[i]);
    const int error = transfer->error;
    const std::size_t bytes = transfer->result;
    finish(state, std::move(transfer), error, bytes);
  }
  state->finished.clear();
}

// A completion found within send() or receive() waits for the loop: a
// callback never runs inside the call that started it. It goes with the
// turn's other tasks rather than queued alone.
void complete(const StatePtr& state, Transfer transfer, int error, std::size_t bytes, bool withinCall) {
  if (!withinCall) return finish(state, std::move(transfer), error, bytes);
  transfer->error = error;
  transfer->result = bytes;
  state->finished.push_back(std::move(transfer));
  if (state->completionsPosted) return;
  state->completionsPosted = true;
  state->reactor->postSelfGuarded([state]() { finishWithinCall(state); });
}

// Waits until the socket can do what OpenSSL asked for, then tries again.
// Asked only after the socket said EAGAIN, as edge-triggered readiness needs.
void await(const StatePtr& state, Transfer transfer, const TlsOutcome& outcome, Step next) {
  state->socket.async_wait(waitFor(outcome),
                           pooled([state, transfer = std::move(transfer), next](const error_code& error) mutable {
                             if (!error && !state->closed) return next(state, std::move(transfer), false);
                             const int code = state->closed ? ECANCELED : asio_detail::errorNumber(error);
                             const std::size_t done = transfer->done;
                             finish(state, std::move(transfer), code, done);
                           }));
}

void continueWrite(const StatePtr& state, Transfer write, bool withinCall) {
  while (write->done < write->size) {
    const std::size_t done = write->done;
    if (state->closed) return complete(state, std::move(write), ECANCELED, done, withinCall);
    dropStaleTlsErrors();
    std::size_t written = 0;
    const int result = SSL_write_ex(state->ssl, write->data + done, write->size - done, &written);
    if (result == 1) {
      write->done += written;
      continue;
    }
    const TlsOutcome outcome = tlsOutcomeOf(state->ssl, result);
    if (tlsWantsSocket(outcome)) return await(state, std::move(write), outcome, continueWrite);
    // An ended stream takes nothing more either.
    const int error = transferFailure(outcome, "Send", state->hostName);
    return complete(state, std::move(write), error ? error : EPIPE, done, withinCall);
  }
  const std::size_t done = write->done;
  complete(state, std::move(write), 0, done, withinCall);
}

// A TLS read fills one buffer; what is left of a record already decrypted,
// or already read ahead from the socket, then goes into the following
// buffers without waiting.
void continueRead(const StatePtr& state, Transfer read, bool withinCall) {
  if (state->closed) return complete(state, std::move(read), ECANCELED, 0, withinCall);
  if (state->failure) return complete(state, std::move(read), state->failure, 0, withinCall);
  Buffer* buffer = read->into;
  if (!buffer) return complete(state, std::move(read), 0, 0, withinCall);
  // A read started while the answer is still on its way is the usual case:
  // one look at the socket spares a TLS read that would only fail after all
  // its bookkeeping. A TLS layer that holds bytes or has seen the peer's
  // close_notify answers without the socket, and must be asked.
  if (withinCall && quietTls(state->ssl) && socketIsDry(state->socket.native_handle())) {
    return await(state, std::move(read), TlsOutcome{SSL_ERROR_WANT_READ, 0, 0}, continueRead);
  }
  dropStaleTlsErrors();
  std::size_t bytes = 0;
  const int result = SSL_read_ex(state->ssl, buffer->data(), buffer->length, &bytes);
  if (result != 1) {
    const TlsOutcome outcome = tlsOutcomeOf(state->ssl, result);
    if (tlsWantsSocket(outcome)) return await(state, std::move(read), outcome, continueRead);
    state->failure = transferFailure(outcome, "Receive", state->hostName);
    return complete(state, std::move(read), state->failure, 0, withinCall);
  }
  std::size_t offset = bytes;
  while (buffer && SSL_has_pending(state->ssl)) {
    if (offset == buffer->length) {
      buffer = buffer->next;
      offset = 0;
      continue;
    }
    std::size_t got = 0;
    const int more = SSL_read_ex(state->ssl, buffer->data() + offset, buffer->length - offset, &got);
    if (more != 1) {
      // Part of a record, the end of the stream (which the next read finds
      // again), or a failure, which the next read reports.
      const TlsOutcome outcome = tlsOutcomeOf(state->ssl, more);
      if (!tlsWantsSocket(outcome)) state->failure = transferFailure(outcome, "Receive", state->hostName);
      break;
    }
    offset += got;
    bytes += got;
  }
  complete(state, std::move(read), 0, bytes, withinCall);
}

void continueHandshake(const StatePtr& state, const SocketAddress& address,
                       const AsyncSocket::ConnectCallback& callback) {
  if (!state->closed) {
    dropStaleTlsErrors();
    const int result = SSL_do_handshake(state->ssl);
    if (result == 1) {
      QLOG(Log, log::Debug, "TLS connection to %s (%s) established: %s, %s", state->hostName, address.toString(),
           SSL_get_version(state->ssl), SSL_get_cipher_name(state->ssl));
      if (callback) callback(0);
      return;
    }
    const TlsOutcome outcome = tlsOutcomeOf(state->ssl, result);
    if (tlsWantsSocket(outcome)) {
      state->socket.async_wait(waitFor(outcome), [state, address, callback](const error_code& error) {
        if (!error || state->closed) return continueHandshake(state, address, callback);
        QLOG(Log, log::Warning, "TLS handshake with %s (%s) failed: %s", state->hostName, address.toString(),
             error.message());
        if (callback) callback(asio_detail::errorNumber(error));
      });
      return;
    }
    if (!state->closed) {
      const TlsFailure failure = handshakeFailure(state->ssl, outcome);
      QLOG(Log, log::Warning, "TLS handshake with %s (%s) failed: %s", state->hostName, address.toString(),
           failure.reason);
      if (callback) callback(failure.code);
      return;
    }
  }
  QLOG(Log, log::Debug, "TLS handshake with %s (%s) cancelled", state->hostName, address.toString());
  if (callback) callback(ECANCELED);
}

}  // namespace

SslSocketState::SslSocketState(boost::asio::io_context& io, std::shared_ptr<boost::asio::ssl::context> sslContext)
    : context(std::move(sslContext)), socket(io), ssl(SSL_new(context->native_handle())) {
  if (!ssl) throw std::runtime_error("Failed to create a TLS connection object");
  // A write goes out a record at a time, and what is left is passed again
  // once the socket has room.
  SSL_set_mode(ssl, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  // A read takes what the socket has, so a record costs one system call.
  SSL_set_read_ahead(ssl, 1);
}

SslSocketState::~SslSocketState() { SSL_free(ssl); }

AsioSslSocket::AsioSslSocket(std::shared_ptr<AsioReactor> reactor, std::shared_ptr<SslSocketState> state,
                             bool verify)
    : reactor_(std::move(reactor)), state_(std::move(state)), verify_(verify) {
  state_->reactor = reactor_.get();
}

void AsioSslSocket::setHostName(const std::string& hostName) {
  std::string host = hostName;
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  state_->hostName = host;
}

void AsioSslSocket::bind(const SocketAddress& address) { asio_detail::bind(state_->socket, address); }

void AsioSslSocket::connect(const SocketAddress& address, const ConnectCallback& callback) {
  auto state = state_;
  const std::string& host = state->hostName;
  SSL* ssl = state->ssl;
  const bool literal = isIpLiteral(host);
  if (verify_) {
    // Without a name (or with one OpenSSL cannot take) any certificate from
    // the trusted authorities would pass: refuse rather than connect.
    X509_VERIFY_PARAM* param = SSL_get0_param(ssl);
    X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    const bool named = !host.empty() && (literal ? X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str())
                                                 : X509_VERIFY_PARAM_set1_host(param, host.c_str(), host.size())) == 1;
    if (!named) {
      QLOG(Log, log::Warning, "Refusing to connect to %s: no usable host name to verify the server against ('%s')",
           address.toString(), host);
      boost::asio::post(state->socket.get_executor(), [state, callback] {
        if (callback) callback(SslNoHostName);
      });
      return;
    }
  }
  // Server name indication carries names only, never address literals.
  if (!host.empty() && !literal) SSL_set_tlsext_host_name(ssl, host.c_str());

  state->socket.async_connect(
      asio_detail::toEndpoint<tcp::endpoint>(address), [state, address, callback](const error_code& error) {
        if (error) {
          QLOG(Log, log::Debug, "TCP connection to %s (%s) failed: %s", state->hostName, address.toString(),
               error.message());
          if (callback) callback(state->closed ? ECANCELED : asio_detail::errorNumber(error));
          return;
        }
        if (!state->closed) {
          // OpenSSL reads and writes the socket itself; asio only says when
          // it is ready.
          BIO* bio = newSocketBio(state->socket.native_handle());
          if (!bio) {
            if (callback) callback(ENOMEM);
            return;
          }
          error_code ignored;
          state->socket.non_blocking(true, ignored);
          SSL_set_bio(state->ssl, bio, bio);
          SSL_set_connect_state(state->ssl);
        }
        continueHandshake(state, address, callback);
      });
}

void AsioSslSocket::send(const BufferChainPtr& buffers, const TransferCallback& callback) {
  // Every write becomes at least one TLS record, so a chain of small buffers
  // is gathered first rather than sent as a record per buffer.
  std::unique_ptr<SslTransfer> write = state_->spares.take(buffers, callback);
  write->done = 0;
  std::size_t total = 0;
  std::size_t count = 0;
  write->data = nullptr;
  if (buffers) {
    for (Buffer* b = buffers.chain().first(); b; b = b->next) {
      total += b->length;
      ++count;
      write->data = reinterpret_cast<const char*>(b->data());
    }
  }
  if (count > 1) {
    write->gathered.clear();
    write->gathered.reserve(total);
    for (Buffer* b = buffers.chain().first(); b; b = b->next) {
      const char* data = reinterpret_cast<const char*>(b->data());
      write->gathered.insert(write->gathered.end(), data, data + b->length);
    }
    write->data = write->gathered.data();
  }
  write->size = total;
  continueWrite(state_, std::move(write), true);
}

void AsioSslSocket::sendTo(const BufferChainPtr&, const SocketAddress&, const TransferCallback&) {
  throw std::logic_error("sendTo not supported by stream sockets");
}

void AsioSslSocket::receive(const BufferChainPtr& buffers, const TransferCallback& callback) {
  std::unique_ptr<SslTransfer> read = state_->spares.take(buffers, callback);
  read->done = 0;
  // A read into no room at all would complete with nothing, which a reader
  // takes for the end of the stream: a chain's empty buffers are passed over.
  Buffer* first = buffers ? buffers.chain().first() : nullptr;
  while (first && first->length == 0) first = first->next;
  read->into = first;
  continueRead(state_, std::move(read), true);
}

void AsioSslSocket::receiveFrom(const BufferChainPtr&, const ReceiveFromCallback&) {
  throw std::logic_error("receiveFrom not supported by stream sockets");
}

void AsioSslSocket::setOption(int level, int name, const void* value, std::size_t length) {
  asio_detail::setOption(state_->socket.native_handle(), level, name, value, length);
}

void AsioSslSocket::getOption(int level, int name, void* value, std::size_t& length) {
  asio_detail::getOption(state_->socket.native_handle(), level, name, value, length);
}

SocketAddress AsioSslSocket::localAddress() const { return asio_detail::localAddress(state_->socket); }

SocketAddress AsioSslSocket::remoteAddress() const { return asio_detail::remoteAddress(state_->socket); }

void AsioSslSocket::close() {
  state_->closed = true;
  asio_detail::cancelAndClose(state_->socket);
}

}  // namespace quorvel
