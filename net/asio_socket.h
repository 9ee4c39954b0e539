#pragma once

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/udp.hpp>
#include <boost/asio/write.hpp>

#include "core/asio_reactor.h"
#include "net/async_socket.h"
#include "net/socket_error.h"

namespace quorvel {
namespace asio_detail {

// The errno number for a completion: 0 on success and for end of stream
// (reported as 0 bytes), EIO for the library's own non-system errors.
int errorNumber(const boost::system::error_code& error);

[[noreturn]] void throwSocketError(const char* call, const boost::system::error_code& error);
void logBindFailure(const SocketAddress& address, int error);

// The chain's valid bytes as the library's buffer sequences; a null handle is
// an empty sequence.
std::vector<boost::asio::const_buffer> constBuffers(const BufferChainPtr& buffers);
std::vector<boost::asio::mutable_buffer> mutableBuffers(const BufferChainPtr& buffers);

template <typename Endpoint>
Endpoint toEndpoint(const SocketAddress& address) {
  Endpoint endpoint;
  std::size_t length = address.length();
  if (length > endpoint.capacity()) length = endpoint.capacity();
  std::memcpy(endpoint.data(), address.raw(), length);
  endpoint.resize(length);
  return endpoint;
}

template <typename Endpoint>
SocketAddress fromEndpoint(const Endpoint& endpoint) {
  return SocketAddress(endpoint.data(), endpoint.size());
}

void setOption(int handle, int level, int name, const void* value, std::size_t length);
void getOption(int handle, int level, int name, void* value, std::size_t& length);

// Shared by sockets and acceptors.
template <typename Object>
void bind(Object& object, const SocketAddress& address) {
  boost::system::error_code error;
  object.bind(toEndpoint<typename Object::endpoint_type>(address), error);
  if (error) {
    logBindFailure(address, errorNumber(error));
    throwSocketError("bind", error);
  }
}

template <typename Object>
SocketAddress localAddress(const Object& object) {
  boost::system::error_code error;
  const auto endpoint = object.local_endpoint(error);
  if (error) throwSocketError("local_endpoint", error);
  return fromEndpoint(endpoint);
}

template <typename Object>
SocketAddress remoteAddress(const Object& object) {
  boost::system::error_code error;
  const auto endpoint = object.remote_endpoint(error);
  if (error) throwSocketError("remote_endpoint", error);
  return fromEndpoint(endpoint);
}

template <typename Object>
void cancelAndClose(Object& object) {
  boost::system::error_code ignored;
  object.cancel(ignored);
  object.close(ignored);
}

}  // namespace asio_detail

// What outstanding operations keep alive: the socket itself, so that the
// AsyncSocket object may go while they are in flight.
template <typename S>
struct SocketState {
  explicit SocketState(boost::asio::io_context& io) : socket(io) {}
  S socket;
};

// The operations common to stream and datagram sockets.
template <typename S>
class AsioSocket : public AsyncSocket {
 public:
  using Endpoint = typename S::protocol_type::endpoint;

  AsioSocket(std::shared_ptr<AsioReactor> reactor, std::shared_ptr<SocketState<S>> state)
      : reactor_(std::move(reactor)), state_(std::move(state)) {}

  void bind(const SocketAddress& address) override { asio_detail::bind(state_->socket, address); }

  void connect(const SocketAddress& address, const ConnectCallback& callback) override {
    state_->socket.async_connect(asio_detail::toEndpoint<Endpoint>(address),
                                 [state = state_, callback](const boost::system::error_code& error) {
                                   if (callback) callback(asio_detail::errorNumber(error));
                                 });
  }

  void setOption(int level, int name, const void* value, std::size_t length) override {
    asio_detail::setOption(state_->socket.native_handle(), level, name, value, length);
  }

  void getOption(int level, int name, void* value, std::size_t& length) override {
    asio_detail::getOption(state_->socket.native_handle(), level, name, value, length);
  }

  SocketAddress localAddress() const override { return asio_detail::localAddress(state_->socket); }

  SocketAddress remoteAddress() const override { return asio_detail::remoteAddress(state_->socket); }

  void close() override { asio_detail::cancelAndClose(state_->socket); }

 protected:
  // Completion of a transfer: keeps the state and the buffers until it runs.
  static auto transferHandler(std::shared_ptr<SocketState<S>> state, const BufferChainPtr& buffers,
                              const TransferCallback& callback) {
    return [state = std::move(state), buffers, callback](const boost::system::error_code& error, std::size_t bytes) {
      if (callback) callback(asio_detail::errorNumber(error), bytes);
    };
  }

  std::shared_ptr<AsioReactor> reactor_;
  std::shared_ptr<SocketState<S>> state_;
};

template <typename S>
class AsioStreamSocket : public AsioSocket<S> {
 public:
  using AsioSocket<S>::AsioSocket;
  using typename AsyncSocket::ReceiveFromCallback;
  using typename AsyncSocket::TransferCallback;

  // Writes the whole chain.
  void send(const BufferChainPtr& buffers, const TransferCallback& callback) override {
    boost::asio::async_write(this->state_->socket, asio_detail::constBuffers(buffers),
                             this->transferHandler(this->state_, buffers, callback));
  }

  void sendTo(const BufferChainPtr&, const SocketAddress&, const TransferCallback&) override {
    throw std::logic_error("sendTo not supported by stream sockets");
  }

  // Whatever is available, up to the chain's size.
  void receive(const BufferChainPtr& buffers, const TransferCallback& callback) override {
    this->state_->socket.async_read_some(asio_detail::mutableBuffers(buffers),
                                         this->transferHandler(this->state_, buffers, callback));
  }

  void receiveFrom(const BufferChainPtr&, const ReceiveFromCallback&) override {
    throw std::logic_error("receiveFrom not supported by stream sockets");
  }
};

template <typename S>
class AsioDatagramSocket : public AsioSocket<S> {
 public:
  using AsioSocket<S>::AsioSocket;
  using typename AsyncSocket::ReceiveFromCallback;
  using typename AsyncSocket::TransferCallback;
  using Endpoint = typename AsioSocket<S>::Endpoint;

  // One datagram to the connected peer.
  void send(const BufferChainPtr& buffers, const TransferCallback& callback) override {
    this->state_->socket.async_send(asio_detail::constBuffers(buffers),
                                    this->transferHandler(this->state_, buffers, callback));
  }

  void sendTo(const BufferChainPtr& buffers, const SocketAddress& to, const TransferCallback& callback) override {
    this->state_->socket.async_send_to(asio_detail::constBuffers(buffers), asio_detail::toEndpoint<Endpoint>(to),
                                       this->transferHandler(this->state_, buffers, callback));
  }

  void receive(const BufferChainPtr& buffers, const TransferCallback& callback) override {
    this->state_->socket.async_receive(asio_detail::mutableBuffers(buffers),
                                       this->transferHandler(this->state_, buffers, callback));
  }

  void receiveFrom(const BufferChainPtr& buffers, const ReceiveFromCallback& callback) override {
    // The sender is written when the datagram arrives, so it lives with the
    // operation rather than on this stack.
    auto from = std::make_shared<Endpoint>();
    this->state_->socket.async_receive_from(
        asio_detail::mutableBuffers(buffers), *from,
        [state = this->state_, buffers, callback, from](const boost::system::error_code& error, std::size_t bytes) {
          if (callback) callback(asio_detail::errorNumber(error), bytes, asio_detail::fromEndpoint(*from));
        });
  }
};

template <typename A>
struct ListenerState {
  explicit ListenerState(boost::asio::io_context& io) : acceptor(io) {}
  A acceptor;
};

// Everything of a listener but the kind of socket it accepts.
template <typename A, typename S>
class AsioListenerBase : public AsyncListener {
 public:
  AsioListenerBase(std::shared_ptr<AsioReactor> reactor, std::shared_ptr<ListenerState<A>> state)
      : reactor_(std::move(reactor)), state_(std::move(state)) {}

  void bind(const SocketAddress& address) override { asio_detail::bind(state_->acceptor, address); }

  void listen(int backlog) override {
    boost::system::error_code error;
    state_->acceptor.listen(backlog, error);
    if (error) asio_detail::throwSocketError("listen", error);
  }

  void setOption(int level, int name, const void* value, std::size_t length) override {
    asio_detail::setOption(state_->acceptor.native_handle(), level, name, value, length);
  }

  void getOption(int level, int name, void* value, std::size_t& length) override {
    asio_detail::getOption(state_->acceptor.native_handle(), level, name, value, length);
  }

  SocketAddress localAddress() const override { return asio_detail::localAddress(state_->acceptor); }

  void close() override { asio_detail::cancelAndClose(state_->acceptor); }

 protected:
  std::shared_ptr<AsioReactor> reactor_;
  std::shared_ptr<ListenerState<A>> state_;
};

template <typename A, typename S>
class AsioListener : public AsioListenerBase<A, S> {
 public:
  using AsioListenerBase<A, S>::AsioListenerBase;
  using typename AsyncListener::AcceptCallback;

  void accept(const AcceptCallback& callback) override {
    auto accepted = std::make_shared<SocketState<S>>(this->reactor_->ioContext());
    // A weak reference: a pending accept must not keep the loop's owner alive.
    std::weak_ptr<AsioReactor> reactor = this->reactor_;
    this->state_->acceptor.async_accept(
        accepted->socket,
        [state = this->state_, accepted, reactor, callback](const boost::system::error_code& error) {
          if (!callback) return;
          auto owner = reactor.lock();
          if (error || !owner) {
            callback(error ? asio_detail::errorNumber(error) : ECANCELED, nullptr);
            return;
          }
          callback(0, std::make_shared<AsioStreamSocket<S>>(owner, accepted));
        });
  }
};

}  // namespace quorvel
