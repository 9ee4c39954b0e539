#include "net/asio_ssl_socket.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <vector>

#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/asio/write.hpp>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include "core/handler_memory.h"
#include "core/log.h"
#include "net/asio_socket.h"

namespace quorvel {
namespace {

const log::Log Log("asiossl");

using boost::asio::ip::tcp;
using boost::system::error_code;

bool isIpLiteral(const std::string& host) {
  unsigned char address[16];
  return inet_pton(AF_INET, host.c_str(), address) == 1 || inet_pton(AF_INET6, host.c_str(), address) == 1;
}

bool isSslCategory(const error_code& error) { return error.category() == boost::asio::error::get_ssl_category(); }

// The OpenSSL reason of a library error, e.g. "certificate verify failed".
std::string reasonText(const error_code& error) {
  const char* reason = ERR_reason_error_string(static_cast<unsigned long>(error.value()));
  return reason ? reason : error.message();
}

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

struct Failure {
  int code;
  std::string reason;
};

Failure handshakeFailure(SslSocketState& state, const error_code& error) {
  if (state.closed) return {ECANCELED, "cancelled"};
  SSL* ssl = state.stream.native_handle();
  if (error.category() == boost::system::system_category()) return {error.value(), error.message()};
  if (!isSslCategory(error)) {
    // End of stream or a cut connection before the handshake finished.
    return {SslHandshakeFailed, "connection closed during handshake (" + error.message() + ")"};
  }
  const std::string reason = reasonText(error);
  switch (ERR_GET_REASON(static_cast<unsigned long>(error.value()))) {
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

// For transfers on an established connection. The peer's close_notify and a
// connection that ends without one are both plain end of stream: callers
// rely on their own framing, as over TCP.
int transferError(const SslSocketState& state, const error_code& error) {
  if (!error) return 0;
  if (state.closed) return ECANCELED;
  if (error == boost::asio::ssl::error::stream_truncated) return 0;
  if (isSslCategory(error)) return SslStreamError;
  return asio_detail::errorNumber(error);
}

// An end of stream without close_notify (stream_truncated) is in asio's
// stream category, not OpenSSL's, so it never makes a line here.
void logTransferFailure(const SslSocketState& state, const char* operation, const error_code& error) {
  if (!state.closed && isSslCategory(error)) {
    QLOG(Log, log::Info, "%s on the connection to %s failed: %s", operation, state.hostName, reasonText(error));
  }
}

}  // namespace

AsioSslSocket::AsioSslSocket(std::shared_ptr<AsioReactor> reactor, std::shared_ptr<SslSocketState> state,
                             bool verify)
    : reactor_(std::move(reactor)), state_(std::move(state)), verify_(verify) {}

void AsioSslSocket::setHostName(const std::string& hostName) {
  std::string host = hostName;
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  state_->hostName = host;
}

void AsioSslSocket::bind(const SocketAddress& address) { asio_detail::bind(state_->stream.next_layer(), address); }

void AsioSslSocket::connect(const SocketAddress& address, const ConnectCallback& callback) {
  auto state = state_;
  const std::string& host = state->hostName;
  SSL* ssl = state->stream.native_handle();
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
      boost::asio::post(state->stream.get_executor(), [state, callback] {
        if (callback) callback(SslNoHostName);
      });
      return;
    }
  }
  // Server name indication carries names only, never address literals.
  if (!host.empty() && !literal) SSL_set_tlsext_host_name(ssl, host.c_str());

  state->stream.next_layer().async_connect(
      asio_detail::toEndpoint<tcp::endpoint>(address), [state, address, callback](const error_code& error) {
        if (error) {
          QLOG(Log, log::Debug, "TCP connection to %s (%s) failed: %s", state->hostName, address.toString(),
               error.message());
          if (callback) callback(state->closed ? ECANCELED : asio_detail::errorNumber(error));
          return;
        }
        state->stream.async_handshake(
            boost::asio::ssl::stream_base::client, [state, address, callback](const error_code& error) {
              if (!error) {
                SSL* ssl = state->stream.native_handle();
                QLOG(Log, log::Debug, "TLS connection to %s (%s) established: %s, %s", state->hostName,
                     address.toString(), SSL_get_version(ssl), SSL_get_cipher_name(ssl));
                if (callback) callback(0);
                return;
              }
              const Failure failure = handshakeFailure(*state, error);
              if (failure.code == ECANCELED) {
                QLOG(Log, log::Debug, "TLS handshake with %s (%s) cancelled", state->hostName, address.toString());
              } else {
                QLOG(Log, log::Warning, "TLS handshake with %s (%s) failed: %s", state->hostName,
                     address.toString(), failure.reason);
              }
              if (callback) callback(failure.code);
            });
      });
}

std::unique_ptr<SslTransfer> SslSocketState::takeTransfer(const BufferChainPtr& buffers,
                                                          const AsyncSocket::TransferCallback& callback) {
  std::unique_ptr<SslTransfer> transfer;
  if (spares.empty()) {
    transfer = std::make_unique<SslTransfer>();
  } else {
    transfer = std::move(spares.back());
    spares.pop_back();
  }
  transfer->buffers = buffers;
  transfer->callback = callback;
  return transfer;
}

void SslSocketState::giveBack(std::unique_ptr<SslTransfer> transfer) {
  transfer->buffers.reset();
  transfer->callback.clear();
  spares.push_back(std::move(transfer));
}

void AsioSslSocket::send(const BufferChainPtr& buffers, const TransferCallback& callback) {
  // Every write becomes at least one TLS record, so a chain of small buffers
  // is gathered first rather than sent as a record per buffer. The write's
  // own block holds all it needs, so the handler that asio moves from layer
  // to layer carries two pointers and no Delegate.
  auto state = state_;
  std::unique_ptr<SslTransfer> write = state->takeTransfer(buffers, callback);
  std::size_t total = 0;
  std::size_t count = 0;
  boost::asio::const_buffer whole;
  if (buffers) {
    for (Buffer* b = buffers.chain().first(); b; b = b->next) {
      total += b->length;
      ++count;
      whole = boost::asio::const_buffer(b->data(), b->length);
    }
  }
  if (count > 1) {
    write->gathered.clear();
    write->gathered.reserve(total);
    for (Buffer* b = buffers.chain().first(); b; b = b->next) {
      const char* data = reinterpret_cast<const char*>(b->data());
      write->gathered.insert(write->gathered.end(), data, data + b->length);
    }
    whole = boost::asio::buffer(write->gathered);
  }
  boost::asio::async_write(
      state->stream, whole,
      pooled([state, write = std::move(write), total](const error_code& error, std::size_t bytes) mutable {
        logTransferFailure(*state, "Send", error);
        // A stream whose handshake failed takes nothing and says nothing:
        // the write ends short without an error.
        int code = transferError(*state, error);
        if (!code && bytes < total) code = SslStreamError;
        if (write->callback) write->callback(code, bytes);
        state->giveBack(std::move(write));
      }));
}

void AsioSslSocket::sendTo(const BufferChainPtr&, const SocketAddress&, const TransferCallback&) {
  throw std::logic_error("sendTo not supported by stream sockets");
}

void AsioSslSocket::receive(const BufferChainPtr& buffers, const TransferCallback& callback) {
  // A TLS read fills one buffer; what is left of the record already
  // decrypted is then taken into the following buffers without waiting.
  // The read's own block holds all it needs, so the handler that asio moves
  // from layer to layer carries two pointers and no Delegate.
  auto state = state_;
  std::unique_ptr<SslTransfer> read = state->takeTransfer(buffers, callback);
  // The stream reads into the first buffer that has room and nothing more, so
  // it is given that one alone, and the chain is walked only as far as the
  // record fills it.
  Buffer* first = buffers ? buffers.chain().first() : nullptr;
  while (first && first->length == 0) first = first->next;
  const boost::asio::mutable_buffer piece =
      first ? boost::asio::mutable_buffer(first->data(), first->length) : boost::asio::mutable_buffer();
  state->stream.async_read_some(
      piece, pooled([state, read = std::move(read), first](const error_code& error, std::size_t bytes) mutable {
        if (error) {
          logTransferFailure(*state, "Receive", error);
          if (read->callback) read->callback(transferError(*state, error), bytes);
          state->giveBack(std::move(read));
          return;
        }
        SSL* ssl = state->stream.native_handle();
        Buffer* buffer = first;
        std::size_t offset = bytes;
        while (buffer && SSL_pending(ssl) > 0) {
          if (offset == buffer->length) {
            buffer = buffer->next;
            offset = 0;
            continue;
          }
          const int room = static_cast<int>(std::min<std::size_t>(buffer->length - offset, 1 << 30));
          const int got = SSL_read(ssl, reinterpret_cast<char*>(buffer->data()) + offset, room);
          if (got <= 0) break;
          offset += static_cast<std::size_t>(got);
          bytes += static_cast<std::size_t>(got);
        }
        if (read->callback) read->callback(0, bytes);
        state->giveBack(std::move(read));
      }));
}

void AsioSslSocket::receiveFrom(const BufferChainPtr&, const ReceiveFromCallback&) {
  throw std::logic_error("receiveFrom not supported by stream sockets");
}

void AsioSslSocket::setOption(int level, int name, const void* value, std::size_t length) {
  asio_detail::setOption(state_->stream.next_layer().native_handle(), level, name, value, length);
}

void AsioSslSocket::getOption(int level, int name, void* value, std::size_t& length) {
  asio_detail::getOption(state_->stream.next_layer().native_handle(), level, name, value, length);
}

SocketAddress AsioSslSocket::localAddress() const { return asio_detail::localAddress(state_->stream.next_layer()); }

SocketAddress AsioSslSocket::remoteAddress() const {
  return asio_detail::remoteAddress(state_->stream.next_layer());
}

void AsioSslSocket::close() {
  state_->closed = true;
  asio_detail::cancelAndClose(state_->stream.next_layer());
}

}  // namespace quorvel
