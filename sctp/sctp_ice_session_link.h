#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "core/reactor.h"
#include "ice/session.h"
#include "sctp/ice_session_link.h"
#include "sctp/sctp_udp_output.h"
#include "sctp/sctp_udp_service.h"

namespace quorvel {

// Carries SCTP over one established ICE session: the stack's packets for
// this link's address go out as datagrams on the selected pair, and every
// datagram the session hands up (everything that is not STUN) goes into the
// stack. Owns the session; closing or destroying the link closes it.
class SctpIceSessionLink : public IceSessionLink, public SctpUdpOutput {
 public:
  SctpIceSessionLink(std::shared_ptr<Reactor> reactor, std::shared_ptr<SctpUdpService> service,
                     ice::SessionPtr session);
  ~SctpIceSessionLink() override;
  SctpIceSessionLink(const SctpIceSessionLink&) = delete;
  SctpIceSessionLink& operator=(const SctpIceSessionLink&) = delete;

  std::shared_ptr<AsyncSocket> createSocket(int family, int type, int protocol) override;
  std::shared_ptr<AsyncListener> createListener(int family, int type, int protocol) override;
  void close() override;

  void output(const uint8_t* packet, std::size_t size) override;

  // The stack's address value of this end of the link.
  uintptr_t connData() const { return connData_; }
  const ice::SessionPtr& session() const { return session_; }

 private:
  void onDatagram(const uint8_t* data, std::size_t size);

  std::shared_ptr<Reactor> reactor_;
  std::shared_ptr<SctpUdpService> service_;
  ice::SessionPtr session_;
  uintptr_t connData_;
  bool closed_ = false;
};

}  // namespace quorvel
