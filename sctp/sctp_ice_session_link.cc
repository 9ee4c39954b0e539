#include "sctp/sctp_ice_session_link.h"

#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>

#include "core/log.h"
#include "sctp/sctp_udp_listener.h"
#include "sctp/sctp_udp_socket.h"

namespace quorvel {
namespace {

const log::Log Log("icesessionlink");

void checkPointToPoint(int family, int type, int protocol) {
  if (family != SocketAddress::FamilySpecial || type != SOCK_STREAM || (protocol != 0 && protocol != IPPROTO_SCTP)) {
    throw std::invalid_argument("Only point to point sockets are supported");
  }
}

}  // namespace

SctpIceSessionLink::SctpIceSessionLink(std::shared_ptr<Reactor> reactor, std::shared_ptr<SctpUdpService> service,
                                       ice::SessionPtr session)
    : reactor_(std::move(reactor)), service_(std::move(service)), session_(std::move(session)) {
  connData_ = service_->registerLink(this);
  QLOG(Log, log::Debug, "Registering address 0x%x", connData_);
  // The destructor takes the handler back before this object goes, and the
  // session calls it only on the loop thread.
  session_->setDatagramHandler([this](const uint8_t* data, std::size_t size) { onDatagram(data, size); });
}

SctpIceSessionLink::~SctpIceSessionLink() {
  close();
  QLOG(Log, log::Debug, "Deregistering address 0x%x", connData_);
  service_->deregisterLink(connData_);
}

std::shared_ptr<AsyncSocket> SctpIceSessionLink::createSocket(int family, int type, int protocol) {
  checkPointToPoint(family, type, protocol);
  auto socket = std::make_shared<SctpUdpSocket>(service_, connData_);
  socket->start();
  return socket;
}

std::shared_ptr<AsyncListener> SctpIceSessionLink::createListener(int family, int type, int protocol) {
  checkPointToPoint(family, type, protocol);
  auto listener = std::make_shared<SctpUdpListener>(service_, connData_);
  listener->start();
  return listener;
}

void SctpIceSessionLink::close() {
  if (closed_) return;
  // Associations shutting down send their ABORT while the path is still
  // there; the client hears of the end at once.
  service_->abortClosing(connData_);
  closed_ = true;
  session_->setDatagramHandler(ice::Session::DatagramHandler());
  session_->close();
}

void SctpIceSessionLink::output(const uint8_t* packet, std::size_t size) {
  // A packet the session cannot send counts as lost: SCTP retransmits it.
  if (!closed_) session_->sendDatagram(packet, size);
}

void SctpIceSessionLink::onDatagram(const uint8_t* data, std::size_t size) {
  if (!closed_) service_->input(connData_, data, size);
}

}  // namespace quorvel
