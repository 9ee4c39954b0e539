#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "net/async_socket.h"
#include "sctp/sctp_udp_service.h"

namespace quorvel {

// One SCTP association (a one-to-one stack socket) on a link, as an
// AsyncSocket. At most one send and one receive are outstanding.
//
// Framing: a receive completes at the end of an SCTP message, so one message
// from the peer is one receive (when it fits the buffers). A send goes out as
// one message, or as messages of 64 KiB when the chain is longer; it
// completes once the stack has taken every byte. Sends go on the stream of
// the last message received (0 before any), with payload protocol id 0: the
// bytes carry no protocol of their own.
//
// close() and destruction shut the association down gracefully: what the
// stack holds is still delivered before the SHUTDOWN. Outstanding operations
// complete with ECANCELED.
class SctpUdpSocket : public AsyncSocket, public SctpStackEvents, public std::enable_shared_from_this<SctpUdpSocket> {
 public:
  // Opens a new stack socket; throws SocketError "Failed to open usrsctp
  // socket: <system text>". Call start() before use.
  SctpUdpSocket(std::shared_ptr<SctpUdpService> service, uintptr_t connData);
  // Around a stack socket that already exists (an accepted association).
  SctpUdpSocket(std::shared_ptr<SctpUdpService> service, uintptr_t connData, struct socket* existing);
  ~SctpUdpSocket() override;

  // Hooks the socket to the stack's events (needs the shared owner).
  void start();

  void bind(const SocketAddress& address) override;
  void connect(const SocketAddress& address, const ConnectCallback& callback) override;
  void send(const BufferChainPtr& buffers, const TransferCallback& callback) override;
  void sendTo(const BufferChainPtr& buffers, const SocketAddress& to, const TransferCallback& callback) override;
  void receive(const BufferChainPtr& buffers, const TransferCallback& callback) override;
  void receiveFrom(const BufferChainPtr& buffers, const ReceiveFromCallback& callback) override;
  void setOption(int level, int name, const void* value, std::size_t length) override;
  void getOption(int level, int name, void* value, std::size_t& length) override;
  SocketAddress localAddress() const override;
  SocketAddress remoteAddress() const override;
  void close() override;

  void onStackEvents() override;

  struct socket* handle() const { return handle_; }

 private:
  enum class State { Open, Connecting, Connected, Closed };

  void continueConnect();
  void continueSend();
  void gatherMessage();
  void continueReceive();
  void completeSend(int error);
  void completeReceive(int error, std::size_t bytes);

  std::shared_ptr<SctpUdpService> service_;
  const uintptr_t connData_;
  struct socket* handle_ = nullptr;  // null once closed
  uintptr_t loggedHandle_ = 0;
  State state_ = State::Open;
  bool bound_ = false;
  SocketAddress peer_;

  ConnectCallback connectCallback_;

  BufferChainPtr sendChain_;
  TransferCallback sendCallback_;
  std::size_t sendDone_ = 0;
  std::size_t sendTotal_ = 0;
  BufferChain::Iterator sendPosition_;  // the first byte not yet gathered
  // The message offered to the stack (up to 64 KiB), allocated at the first
  // send; messageSize_ is 0 when none is waiting.
  std::unique_ptr<uint8_t[]> message_;
  std::size_t messageSize_ = 0;

  BufferChainPtr receiveChain_;
  TransferCallback receiveCallback_;

  uint16_t replyStream_ = 0;
};

}  // namespace quorvel
