#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "net/async_socket.h"
#include "sctp/sctp_udp_service.h"

namespace quorvel {

// A listening stack socket on a link's address. Each association the peer
// opens (one per SCTP port of the peer) is accepted as an SctpUdpSocket.
class SctpUdpListener : public AsyncListener,
                        public SctpStackEvents,
                        public std::enable_shared_from_this<SctpUdpListener> {
 public:
  // Throws SocketError "Failed to open usrsctp socket: <system text>". Call
  // start() before use.
  SctpUdpListener(std::shared_ptr<SctpUdpService> service, uintptr_t connData);
  ~SctpUdpListener() override;

  void start();

  void bind(const SocketAddress& address) override;
  void listen(int backlog) override;
  void accept(const AcceptCallback& callback) override;
  void setOption(int level, int name, const void* value, std::size_t length) override;
  void getOption(int level, int name, void* value, std::size_t& length) override;
  SocketAddress localAddress() const override;
  void close() override;

  void onStackEvents() override;

 private:
  void continueAccept();

  std::shared_ptr<SctpUdpService> service_;
  const uintptr_t connData_;
  struct socket* handle_ = nullptr;  // null once closed
  AcceptCallback acceptCallback_;
  bool acceptFailing_ = false;  // since the last accept that worked
};

}  // namespace quorvel
