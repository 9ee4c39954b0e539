#include "sctp/sctp_udp_listener.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <usrsctp.h>

#include "core/errors.h"
#include "core/log.h"
#include "net/socket_error.h"
#include "sctp/stack_calls.h"
#include "sctp/sctp_udp_socket.h"

namespace quorvel {
namespace {

const log::Log Log("sctpudp");

}  // namespace

SctpUdpListener::SctpUdpListener(std::shared_ptr<SctpUdpService> service, uintptr_t connData)
    : service_(std::move(service)), connData_(connData) {
  handle_ = service_->openSocket();
  if (!handle_) {
    const int error = errno;
    throw SocketError(std::string("Failed to open usrsctp socket: ") + std::strerror(error), error);
  }
}

SctpUdpListener::~SctpUdpListener() { close(); }

void SctpUdpListener::start() { service_->watch(handle_, connData_, weak_from_this()); }

void SctpUdpListener::bind(const SocketAddress& address) {
  sockaddr_conn local = toConnAddress(address, connData_);
  if (!handle_ || usrsctp_bind(handle_, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
    throw SocketError("Failed to bind to point to point address", handle_ ? errno : EBADF);
  }
}

void SctpUdpListener::listen(int backlog) {
  if (!handle_ || usrsctp_listen(handle_, backlog) != 0) {
    throw SocketError("Failed to listen for incoming connections", handle_ ? errno : EBADF);
  }
}

void SctpUdpListener::accept(const AcceptCallback& callback) {
  if (!handle_ || acceptCallback_) throw BadCallError("Unexpected accept call");
  acceptCallback_ = callback;
  continueAccept();
}

void SctpUdpListener::continueAccept() {
  struct sockaddr_conn from;
  socklen_t fromLength = sizeof from;
  struct socket* accepted = usrsctp_accept(handle_, reinterpret_cast<sockaddr*>(&from), &fromLength);
  if (!accepted && (errno == EWOULDBLOCK || errno == EAGAIN)) return;  // the next readable event goes on
  AcceptCallback callback;
  callback.swap(acceptCallback_);
  std::shared_ptr<AsyncSocket> socket;
  int error = 0;
  if (accepted) {
    auto made = std::make_shared<SctpUdpSocket>(service_, connData_, accepted);
    made->start();
    socket = made;
    acceptFailing_ = false;
  } else {
    error = errno;
    // Once per run of failures: a persistent error would repeat the line at
    // every retry of the owner.
    if (!acceptFailing_) QLOG(Log, log::Warning, "Accept failed");
    acceptFailing_ = true;
  }
  service_->reactor().post(service_->token(), [callback, error, socket] { callback(error, socket); });
}

void SctpUdpListener::setOption(int level, int name, const void* value, std::size_t length) {
  if (!handle_ || usrsctp_setsockopt(handle_, level, name, value, static_cast<socklen_t>(length)) != 0) {
    throw SocketError("Failed to set socket option", handle_ ? errno : EBADF);
  }
}

void SctpUdpListener::getOption(int level, int name, void* value, std::size_t& length) {
  socklen_t size = static_cast<socklen_t>(length);
  if (!handle_ || usrsctp_getsockopt(handle_, level, name, value, &size) != 0) {
    throw SocketError("Failed to get socket option", handle_ ? errno : EBADF);
  }
  length = size;
}

SocketAddress SctpUdpListener::localAddress() const { return handle_ ? stackLocalAddress(handle_) : SocketAddress(); }

void SctpUdpListener::close() {
  if (!handle_) return;
  if (AcceptCallback callback = std::move(acceptCallback_)) {
    acceptCallback_.clear();
    service_->reactor().post(service_->token(), [callback] { callback(ECANCELED, nullptr); });
  }
  service_->release(handle_, false);
  handle_ = nullptr;
}

void SctpUdpListener::onStackEvents() {
  if (handle_ && acceptCallback_) continueAccept();
}

}  // namespace quorvel
