#include "sctp/sctp_udp_socket.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include <arpa/inet.h>
#include <usrsctp.h>

#include "core/errors.h"
#include "core/log.h"
#include "net/socket_error.h"
#include "sctp/stack_calls.h"
#include "sctp/hex_dump.h"

namespace quorvel {
namespace {

const log::Log Log("sctpudpsocket");

// The largest message one send puts to the stack: well under the send
// buffer, which refuses a message larger than itself instead of splitting it.
constexpr std::size_t MaxMessage = 64 * 1024;

bool wouldBlock(int error) { return error == EWOULDBLOCK || error == EAGAIN; }

}  // namespace

SctpUdpSocket::SctpUdpSocket(std::shared_ptr<SctpUdpService> service, uintptr_t connData)
    : service_(std::move(service)), connData_(connData) {
  handle_ = service_->openSocket();
  if (!handle_) {
    const int error = errno;
    throw SocketError(std::string("Failed to open usrsctp socket: ") + std::strerror(error), error);
  }
  loggedHandle_ = handleValue(handle_);
  QLOG(Log, log::Info, "Created socket 0x%x, connData 0x%x", handleValue(handle_), connData_);
}

SctpUdpSocket::SctpUdpSocket(std::shared_ptr<SctpUdpService> service, uintptr_t connData, struct socket* existing)
    : service_(std::move(service)),
      connData_(connData),
      handle_(existing),
      loggedHandle_(handleValue(existing)),
      state_(State::Connected),
      bound_(true),
      peer_(stackPeerAddress(existing)) {
  QLOG(Log, log::Info, "Using existing socket 0x%x, connData 0x%x", handleValue(handle_), connData_);
}

SctpUdpSocket::~SctpUdpSocket() {
  QLOG(Log, log::Info, "Closing socket 0x%x, connData 0x%x", loggedHandle_, connData_);
  close();
}

void SctpUdpSocket::start() { service_->watch(handle_, connData_, weak_from_this()); }

void SctpUdpSocket::bind(const SocketAddress& address) {
  sockaddr_conn local = toConnAddress(address, connData_);
  if (state_ != State::Open || bound_) throw BadCallError("Unexpected bind call");
  if (usrsctp_bind(handle_, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
    throw SocketError("Failed to bind to point to point address", errno);
  }
  bound_ = true;
}

void SctpUdpSocket::connect(const SocketAddress& address, const ConnectCallback& callback) {
  sockaddr_conn remote = toConnAddress(address, connData_);
  if (state_ != State::Open) throw BadCallError("Unexpected connect call");
  // Bound to this link's address explicitly: with several links registered
  // the stack could otherwise pick another link's address as the source.
  if (!bound_) bind(SocketAddress(SocketAddress::FamilySpecial, std::string(), 0));
  peer_ = address;
  connectCallback_ = callback;
  state_ = State::Connecting;
  if (usrsctp_connect(handle_, reinterpret_cast<sockaddr*>(&remote), sizeof remote) != 0 && errno != EINPROGRESS) {
    const int error = errno;
    QLOG(Log, log::Warning, "Connection to %s failed: %d", address.toString(), error);
    state_ = State::Open;
    connectCallback_.clear();
    service_->reactor().post(service_->token(), [callback, error] { callback(error); });
    return;
  }
  continueConnect();
}

void SctpUdpSocket::continueConnect() {
  int error = 0;
  socklen_t length = sizeof error;
  usrsctp_getsockopt(handle_, SOL_SOCKET, SO_ERROR, &error, &length);
  const int events = usrsctp_get_events(handle_);
  if (!error && !(events & SCTP_EVENT_WRITE)) {
    if (!(events & SCTP_EVENT_ERROR)) return;  // still setting up
    error = ECONNREFUSED;
  }
  ConnectCallback callback;
  callback.swap(connectCallback_);
  if (error) {
    QLOG(Log, log::Warning, "Connection to %s failed: %d", peer_.toString(), error);
    // A failed association cannot be tried again on the same socket.
    state_ = State::Closed;
    service_->release(handle_, false);
    handle_ = nullptr;
  } else {
    state_ = State::Connected;
  }
  service_->reactor().post(service_->token(), [callback, error] { callback(error); });
}

void SctpUdpSocket::send(const BufferChainPtr& buffers, const TransferCallback& callback) {
  if (state_ != State::Connected || sendCallback_) throw BadCallError("Unexpected send call");
  if (!buffers || buffers.chain().size() == 0) throw std::invalid_argument("Empty send call");
  sendChain_ = buffers;
  sendCallback_ = callback;
  sendDone_ = 0;
  sendTotal_ = buffers.chain().size();
  sendPosition_ = buffers.chain().begin();
  continueSend();
}

// The stack takes a message whole or not at all, and refuses it while its
// send buffer lacks room: a busy sender is refused about once per SACK the
// peer sends. So each message is gathered from the chain once, into a buffer
// of this socket, and only handed over again on the writable events that
// follow.
void SctpUdpSocket::continueSend() {
  while (sendDone_ < sendTotal_) {
    if (messageSize_ == 0) gatherMessage();
    struct sctp_sndinfo info;
    std::memset(&info, 0, sizeof info);
    info.snd_sid = replyStream_;
    info.snd_ppid = htonl(0);
    const ssize_t sent =
        usrsctp_sendv(handle_, message_.get(), messageSize_, nullptr, 0, &info, sizeof info, SCTP_SENDV_SNDINFO, 0);
    const int error = sent < 0 ? errno : 0;
    const std::size_t taken = sent > 0 ? static_cast<std::size_t>(sent) : 0;
    QLOG(Log, log::Spam, "sendv(%u) returned %d (%d) - done/total = %u/%u\n%s", messageSize_, sent, error,
         sendDone_ + taken, sendTotal_, hexDump(message_.get(), taken));
    if (taken) {
      // Whole, as a rule; a part taken leaves the rest for the next message.
      sendDone_ += taken;
      messageSize_ -= taken;
      if (messageSize_) std::memmove(message_.get(), message_.get() + taken, messageSize_);
    }
    if (sent <= 0) {
      if (sent < 0 && wouldBlock(error)) return;  // the next writable event goes on
      completeSend(sent < 0 ? error : EIO);
      return;
    }
  }
  completeSend(0);
}

void SctpUdpSocket::gatherMessage() {
  if (!message_) message_.reset(new uint8_t[MaxMessage]);
  const std::size_t piece = std::min(sendTotal_ - sendDone_, MaxMessage);
  const BufferChain::Iterator last = sendPosition_ + piece;
  copyFromChain(sendPosition_, last, message_.get());
  sendPosition_ = last;
  messageSize_ = piece;
}

void SctpUdpSocket::completeSend(int error) {
  TransferCallback callback;
  callback.swap(sendCallback_);
  sendChain_.reset();
  sendPosition_ = BufferChain::Iterator();
  messageSize_ = 0;
  const std::size_t bytes = sendDone_;
  service_->reactor().post(service_->token(), [callback, error, bytes] { callback(error, bytes); });
}

void SctpUdpSocket::sendTo(const BufferChainPtr&, const SocketAddress&, const TransferCallback&) {
  throw std::logic_error("sendTo not supported for SCTP sockets");
}

void SctpUdpSocket::receive(const BufferChainPtr& buffers, const TransferCallback& callback) {
  if (state_ != State::Connected || receiveCallback_) throw BadCallError("Unexpected recv call");
  if (!buffers || buffers.chain().size() == 0) throw std::invalid_argument("Empty recv call");
  receiveChain_ = buffers;
  receiveCallback_ = callback;
  continueReceive();
}

// Fills the chain's buffers in turn and stops at the end of a message, so
// that two messages never merge into one receive.
void SctpUdpSocket::continueReceive() {
  const BufferChain& chain = receiveChain_.chain();
  const std::size_t total = chain.size();
  std::size_t done = 0;
  Buffer* buffer = chain.first();
  std::size_t used = 0;  // of the current buffer
  while (buffer) {
    if (used == buffer->length) {
      buffer = buffer->next;
      used = 0;
      continue;
    }
    uint8_t* room = buffer->data() + used;
    const std::size_t roomSize = buffer->length - used;
    int flags = 0;
    uint16_t stream = replyStream_;
    const ssize_t got = stackReceive(handle_, room, roomSize, flags, stream);
    const int error = got < 0 ? errno : 0;
    QLOG(Log, log::Spam, "recvv(%u) returned %d (%d) - done/total = %u/%u\n%s", roomSize, got, error,
         done + (got > 0 ? got : 0), total, hexDump(room, got > 0 ? static_cast<std::size_t>(got) : 0));
    if (got < 0) {
      if (wouldBlock(error)) {
        if (done) completeReceive(0, done);
        return;  // else the next readable event goes on
      }
      completeReceive(done ? 0 : error, done);
      return;
    }
    if (got == 0) {  // the peer shut the association down
      completeReceive(0, done);
      return;
    }
    if (flags & MSG_NOTIFICATION) continue;  // none subscribed; never data
    if (done == 0) replyStream_ = stream;
    done += static_cast<std::size_t>(got);
    used += static_cast<std::size_t>(got);
    if (flags & MSG_EOR) break;
  }
  completeReceive(0, done);
}

void SctpUdpSocket::completeReceive(int error, std::size_t bytes) {
  TransferCallback callback;
  callback.swap(receiveCallback_);
  receiveChain_.reset();
  service_->reactor().post(service_->token(), [callback, error, bytes] { callback(error, bytes); });
}

void SctpUdpSocket::receiveFrom(const BufferChainPtr&, const ReceiveFromCallback&) {
  throw std::logic_error("receiveFrom not supported for SCTP sockets");
}

void SctpUdpSocket::setOption(int level, int name, const void* value, std::size_t length) {
  if (!handle_) throw SocketError("Failed to set socket option", EBADF);
  if (usrsctp_setsockopt(handle_, level, name, value, static_cast<socklen_t>(length)) != 0) {
    throw SocketError("Failed to set socket option", errno);
  }
}

void SctpUdpSocket::getOption(int level, int name, void* value, std::size_t& length) {
  if (!handle_) throw SocketError("Failed to get socket option", EBADF);
  socklen_t size = static_cast<socklen_t>(length);
  if (usrsctp_getsockopt(handle_, level, name, value, &size) != 0) {
    throw SocketError("Failed to get socket option", errno);
  }
  length = size;
}

SocketAddress SctpUdpSocket::localAddress() const { return handle_ ? stackLocalAddress(handle_) : SocketAddress(); }

SocketAddress SctpUdpSocket::remoteAddress() const {
  if (peer_.valid()) return peer_;
  return handle_ ? stackPeerAddress(handle_) : SocketAddress();
}

void SctpUdpSocket::close() {
  // The handle goes only when the socket closes, so without one there is
  // nothing left to close.
  if (!handle_) return;
  state_ = State::Closed;
  Reactor& reactor = service_->reactor();
  if (ConnectCallback callback = std::move(connectCallback_)) {
    connectCallback_.clear();
    reactor.post(service_->token(), [callback] { callback(ECANCELED); });
  }
  if (sendCallback_) completeSend(ECANCELED);
  if (receiveCallback_) completeReceive(ECANCELED, 0);
  message_.reset();
  service_->release(handle_, true);
  handle_ = nullptr;
}

void SctpUdpSocket::onStackEvents() {
  if (state_ == State::Connecting) continueConnect();
  if (state_ != State::Connected) return;
  if (sendCallback_) continueSend();
  if (receiveCallback_) continueReceive();
}

}  // namespace quorvel
