#pragma once

#include <memory>
#include <string>
#include <vector>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <openssl/ssl.h>

#include "core/asio_reactor.h"
#include "net/ssl_socket.h"
#include "net/transfer_spares.h"

namespace quorvel {

// A TLS write's or read's block: what the operation needs until it
// completes. Kept by the socket and used again, lists and all.
struct SslTransfer {
  BufferChainPtr buffers;
  AsyncSocket::TransferCallback callback;
  // A write of several pieces is gathered here.
  std::vector<char> gathered;
  // A write's bytes and how far it has got.
  const char* data = nullptr;
  std::size_t size = 0;
  std::size_t done = 0;
  // The buffer a read fills first.
  Buffer* into = nullptr;
  // The outcome of an operation that ended within the call that started it.
  int error = 0;
  std::size_t result = 0;
};

// What outstanding operations keep alive. The context goes with the
// connection because its OpenSSL object refers to it.
struct SslSocketState {
  SslSocketState(boost::asio::io_context& io, std::shared_ptr<boost::asio::ssl::context> sslContext);
  ~SslSocketState();
  SslSocketState(const SslSocketState&) = delete;
  SslSocketState& operator=(const SslSocketState&) = delete;

  std::shared_ptr<boost::asio::ssl::context> context;
  boost::asio::ip::tcp::socket socket;
  SSL* ssl;
  std::string hostName;
  // Set by close(): from then on nothing touches the TLS object, whose
  // descriptor number may already belong to another socket.
  bool closed = false;
  // The failure a read met: OpenSSL names it once, and every later read
  // reports it again.
  int failure = 0;
  TransferSpares<SslTransfer> spares;
  // The loop the socket belongs to, which outlives what it runs; and the
  // operations that ended within send() or receive(), for its next turn.
  AsioReactor* reactor = nullptr;
  std::vector<std::unique_ptr<SslTransfer>> finished;
  bool completionsPosted = false;
};

// A TLS client connection with the plain stream socket's semantics: send
// writes the whole chain, receive reads what is available, end of stream
// (the peer's close_notify, or the connection closed without one) is 0 bytes
// with error 0, close cancels. Nothing is written by the application before
// the handshake, including verification, has succeeded.
class AsioSslSocket : public SslSocket {
 public:
  AsioSslSocket(std::shared_ptr<AsioReactor> reactor, std::shared_ptr<SslSocketState> state, bool verify);

  void setHostName(const std::string& hostName) override;

  void bind(const SocketAddress& address) override;
  // TCP connect, then the handshake; the callback gets 0, an errno number
  // for TCP failures, or an SslError.
  void connect(const SocketAddress& address, const ConnectCallback& callback) override;
  void send(const BufferChainPtr& buffers, const TransferCallback& callback) override;
  void sendTo(const BufferChainPtr& buffers, const SocketAddress& to, const TransferCallback& callback) override;
  void receive(const BufferChainPtr& buffers, const TransferCallback& callback) override;
  void receiveFrom(const BufferChainPtr& buffers, const ReceiveFromCallback& callback) override;
  void setOption(int level, int name, const void* value, std::size_t length) override;
  void getOption(int level, int name, void* value, std::size_t& length) override;
  SocketAddress localAddress() const override;
  SocketAddress remoteAddress() const override;
  // Without close_notify: the peer sees the connection end, and our own
  // framing (HTTP lengths) is what tells complete from cut-off data.
  void close() override;

 private:
  std::shared_ptr<AsioReactor> reactor_;
  std::shared_ptr<SslSocketState> state_;
  bool verify_;
};

}  // namespace quorvel
