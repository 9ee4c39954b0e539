// Datagrams from the peer into an established SCTP link: whatever arrives on
// the selected pair goes into the stack. Nothing may crash, and the
// association must either keep working or end cleanly (then it is set up
// again for the next input).
//
// The first byte steers the harness: bit 0 puts the association's real ports
// and verification tag into the common header, bit 1 gives the packet a
// correct CRC32c, bit 2 sends it to the client's end instead of the device's.
// Without them nearly every input would stop at the checksum.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "net/buffer_pool.h"
#include "sctp/sctp_ice_session_link.h"
#include "sctp/sctp_udp_service.h"
#include "tests/support/fake_ice_session.h"
#include "tests/support/manual_reactor.h"

using namespace quorvel;
using quorvel::testing::FakeIceSessionPair;
using quorvel::testing::ManualReactor;

namespace {

uint32_t crc32c(const uint8_t* data, std::size_t size) {
  uint32_t crc = 0xffffffff;
  for (std::size_t i = 0; i < size; ++i) {
    crc ^= data[i];
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0x82f63b78 & (0u - (crc & 1)));
  }
  return ~crc;
}

SocketAddress p2p(uint16_t port) { return SocketAddress(SocketAddress::FamilySpecial, std::string(), port); }

// One association between two links in this process, kept across inputs.
struct Endpoints {
  std::shared_ptr<ManualReactor> reactor = std::make_shared<ManualReactor>();
  std::shared_ptr<SctpUdpService> service = std::make_shared<SctpUdpService>(reactor);
  BufferPool pool{512, 0, 0};
  std::unique_ptr<FakeIceSessionPair> sessions;
  std::shared_ptr<SctpIceSessionLink> deviceLink, clientLink;
  std::shared_ptr<AsyncListener> listener;
  std::shared_ptr<AsyncSocket> client, accepted;
  bool ended = false;

  void run(int milliseconds) { reactor->advance(Duration::milliseconds(milliseconds)); }

  void associate() {
    accepted.reset();
    client.reset();
    listener.reset();
    deviceLink.reset();
    clientLink.reset();
    run(20);
    sessions = std::make_unique<FakeIceSessionPair>(reactor);
    deviceLink = std::make_shared<SctpIceSessionLink>(reactor, service, sessions->device);
    clientLink = std::make_shared<SctpIceSessionLink>(reactor, service, sessions->client);
    listener = deviceLink->createListener(SocketAddress::FamilySpecial, SOCK_STREAM, 0);
    listener->bind(p2p(5000));
    listener->listen(4);
    listener->accept([this](int error, std::shared_ptr<AsyncSocket> socket) {
      if (!error) accepted = socket;
    });
    client = clientLink->createSocket(SocketAddress::FamilySpecial, SOCK_STREAM, 0);
    client->bind(p2p(5000));
    client->connect(p2p(5000), [](int) {});
    run(100);
    if (!accepted) std::abort();
    ended = false;
    watch(accepted);
    watch(client);
  }

  // Keeps a receive pending; its end (error or shutdown) ends the round.
  void watch(const std::shared_ptr<AsyncSocket>& socket) {
    BufferChainPtr chain(pool.allocate(4096));
    std::weak_ptr<AsyncSocket> weak = socket;
    socket->receive(chain, [this, weak, chain](int error, std::size_t bytes) {
      if (error || bytes == 0) {
        ended = true;
        return;
      }
      if (std::shared_ptr<AsyncSocket> again = weak.lock()) watch(again);
    });
  }

  // The device's verification tag as the client's packets carry it.
  std::vector<uint8_t> headerTowards(bool toClient) {
    const std::vector<uint8_t>& seen = toClient ? sessions->device->lastSent : sessions->client->lastSent;
    return std::vector<uint8_t>(seen.begin(), seen.begin() + (seen.size() >= 8 ? 8 : seen.size()));
  }
};

Endpoints& endpoints() {
  static Endpoints* e = [] {
    auto* made = new Endpoints;
    made->associate();
    return made;
  }();
  return *e;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  Endpoints& e = endpoints();
  const uint8_t mode = data[0];
  const bool toClient = mode & 4;
  std::vector<uint8_t> packet(data + 1, data + size);
  if ((mode & 1) && packet.size() >= 12) {
    const std::vector<uint8_t> header = e.headerTowards(toClient);
    for (std::size_t i = 0; i < header.size(); ++i) packet[i] = header[i];
  }
  if ((mode & 2) && packet.size() >= 12) {
    packet[8] = packet[9] = packet[10] = packet[11] = 0;
    const uint32_t crc = crc32c(packet.data(), packet.size());
    // Stored little-endian, as the stack computes it.
    packet[8] = static_cast<uint8_t>(crc);
    packet[9] = static_cast<uint8_t>(crc >> 8);
    packet[10] = static_cast<uint8_t>(crc >> 16);
    packet[11] = static_cast<uint8_t>(crc >> 24);
  }
  testing::FakeIceSession& to = toClient ? *e.sessions->client : *e.sessions->device;
  to.receive(packet.data(), packet.size());
  e.run(30);
  if (e.ended) e.associate();
  // Ended associations leave nothing behind in the glue's tables.
  if (e.service->linkCount() != 2 || e.service->socketCount() > 3) std::abort();
  return 0;
}
