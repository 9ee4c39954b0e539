#pragma once

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "core/asio_reactor.h"
#include "net/async_socket.h"
#include "net/socket_error.h"

namespace quorvel {
// Helpers shared by the plain sockets (net/asio_socket.cc, behind
// AsioSocketFactory) and the TLS socket.
namespace asio_detail {

// The errno number for a completion: 0 on success and for end of stream
// (reported as 0 bytes), EIO for the library's own non-system errors.
int errorNumber(const boost::system::error_code& error);

[[noreturn]] void throwSocketError(const char* call, const boost::system::error_code& error);
void logBindFailure(const SocketAddress& address, int error);

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
}  // namespace quorvel
