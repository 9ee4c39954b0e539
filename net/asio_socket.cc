#include "net/asio_socket.h"

#include <boost/asio/error.hpp>

#include "core/log.h"
#include "net/asio_socket_factory.h"

namespace quorvel {
namespace {

const log::Log Log("asiosocket");

using boost::asio::ip::tcp;
using boost::asio::ip::udp;

template <typename S, typename Protocol>
std::shared_ptr<SocketState<S>> openSocket(boost::asio::io_context& io, const Protocol& protocol) {
  auto state = std::make_shared<SocketState<S>>(io);
  boost::system::error_code error;
  state->socket.open(protocol, error);
  if (error) asio_detail::throwSocketError("open", error);
  return state;
}

void checkFamily(int family) {
  if (family != AF_INET && family != AF_INET6) throw std::invalid_argument("Unsupported protocol family");
}

}  // namespace

namespace asio_detail {

int errorNumber(const boost::system::error_code& error) {
  if (!error || error == boost::asio::error::eof) return 0;
  if (error.category() == boost::system::system_category()) return error.value();
  return EIO;
}

void throwSocketError(const char* call, const boost::system::error_code& error) {
  throw SocketError(std::string(call) + ": " + error.message(), errorNumber(error));
}

void logBindFailure(const SocketAddress& address, int error) {
  QLOG(Log, log::Warning, "Failed to bind to %s: %d", address.toString(), error);
}

std::vector<boost::asio::const_buffer> constBuffers(const BufferChainPtr& buffers) {
  std::vector<boost::asio::const_buffer> result;
  if (buffers) {
    for (Buffer* b = buffers.chain().first(); b; b = b->next) result.emplace_back(b->data(), b->length);
  }
  return result;
}

std::vector<boost::asio::mutable_buffer> mutableBuffers(const BufferChainPtr& buffers) {
  std::vector<boost::asio::mutable_buffer> result;
  if (buffers) {
    for (Buffer* b = buffers.chain().first(); b; b = b->next) result.emplace_back(b->data(), b->length);
  }
  return result;
}

void setOption(int handle, int level, int name, const void* value, std::size_t length) {
  if (::setsockopt(handle, level, name, value, static_cast<socklen_t>(length)) != 0) {
    throw SocketError("setsockopt failed", errno);
  }
}

void getOption(int handle, int level, int name, void* value, std::size_t& length) {
  auto size = static_cast<socklen_t>(length);
  if (::getsockopt(handle, level, name, value, &size) != 0) throw SocketError("getsockopt failed", errno);
  length = size;
}

}  // namespace asio_detail

std::shared_ptr<AsyncSocket> AsioSocketFactory::createSocket(int family, int type, int protocol) {
  checkFamily(family);
  boost::asio::io_context& io = reactor_->ioContext();
  if (type == SOCK_STREAM) {
    if (protocol != 0 && protocol != IPPROTO_TCP) throw std::invalid_argument("Unsupported stream protocol");
    auto state = openSocket<tcp::socket>(io, family == AF_INET ? tcp::v4() : tcp::v6());
    return std::make_shared<AsioStreamSocket<tcp::socket>>(reactor_, state);
  }
  if (type == SOCK_DGRAM) {
    if (protocol != 0 && protocol != IPPROTO_UDP) throw std::invalid_argument("Unsupported datagram protocol");
    auto state = openSocket<udp::socket>(io, family == AF_INET ? udp::v4() : udp::v6());
    return std::make_shared<AsioDatagramSocket<udp::socket>>(reactor_, state);
  }
  throw std::logic_error("Unsupported protocol");
}

std::shared_ptr<AsyncListener> AsioSocketFactory::createListener(int family, int type, int protocol) {
  checkFamily(family);
  if (type != SOCK_STREAM) throw std::logic_error("Unsupported socket type");
  if (protocol != 0 && protocol != IPPROTO_TCP) throw std::invalid_argument("Unsupported stream protocol");
  auto state = std::make_shared<ListenerState<tcp::acceptor>>(reactor_->ioContext());
  boost::system::error_code error;
  state->acceptor.open(family == AF_INET ? tcp::v4() : tcp::v6(), error);
  if (error) asio_detail::throwSocketError("open", error);
  return std::make_shared<AsioListener<tcp::acceptor, tcp::socket>>(reactor_, state);
}

}  // namespace quorvel
