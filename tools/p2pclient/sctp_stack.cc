#include "tools/p2pclient/sctp_stack.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include <glib.h>
#include <usrsctp.h>

namespace quorvel {
namespace p2pclient {

namespace {

SctpStack* instance = nullptr;

constexpr unsigned TickMilliseconds = 10;

// The device sends messages of up to 64 KiB from a 512 KiB buffer; a 1 MiB
// receive window keeps a LAN path full without waiting for this side's
// reads. ECN means nothing inside UDP.
void applyStackSettings() {
  usrsctp_sysctl_set_sctp_ecn_enable(0);
  usrsctp_sysctl_set_sctp_sendspace(1024 * 1024);
  usrsctp_sysctl_set_sctp_recvspace(1024 * 1024);
  usrsctp_sysctl_set_sctp_delayed_sack_time_default(20);
  usrsctp_sysctl_set_sctp_rto_min_default(200);
  usrsctp_sysctl_set_sctp_rto_initial_default(1000);
  usrsctp_sysctl_set_sctp_rto_max_default(10000);
  usrsctp_sysctl_set_sctp_init_rto_max_default(10000);
}

void setOption(struct socket* handle, int level, int name, const void* value, socklen_t size, const char* what) {
  if (usrsctp_setsockopt(handle, level, name, value, size) != 0) {
    const std::string text = std::string("usrsctp refused ") + what + ": " + std::strerror(errno);
    usrsctp_close(handle);
    throw std::runtime_error(text);
  }
}

}  // namespace

SctpStack::SctpStack(GMainContext* context, DatagramPath& path) : path_(path) {
  if (instance != nullptr) throw std::logic_error("only one SCTP stack per process");
  instance = this;
  // No UDP encapsulation port: the ICE pair carries plain SCTP packets.
  usrsctp_init_nothreads(0, &SctpStack::onOutput, nullptr);
  applyStackSettings();
  usrsctp_register_address(address());
  path_.setReceiver([this](const std::uint8_t* data, std::size_t size) { onDatagram(data, size); });
  lastTick_ = std::chrono::steady_clock::now();
  ticker_ = g_timeout_source_new(TickMilliseconds);
  g_source_set_callback(ticker_, reinterpret_cast<GSourceFunc>(&SctpStack::onTick), this, nullptr);
  g_source_attach(ticker_, context);
}

SctpStack::~SctpStack() {
  path_.setReceiver(nullptr);
  if (!finished_) {
    // Whatever is left goes away on the stack's own timers; bounded, since
    // nothing can answer any more.
    usrsctp_deregister_address(address());
    for (int attempt = 0; attempt < 300 && usrsctp_finish() != 0; ++attempt) usrsctp_handle_timers(TickMilliseconds);
  }
  stopTicking();
  instance = nullptr;
}

struct socket* SctpStack::openSocket() {
  struct socket* handle = usrsctp_socket(AF_CONN, SOCK_STREAM, IPPROTO_SCTP, nullptr, nullptr, 0, nullptr);
  if (handle == nullptr) throw std::runtime_error(std::string("usrsctp could not open a socket: ") + std::strerror(errno));
  if (usrsctp_set_non_blocking(handle, 1) != 0) {
    usrsctp_close(handle);
    throw std::runtime_error("usrsctp could not make a socket non-blocking");
  }
  // Each send is a whole message the other side waits for: no Nagle delay.
  const int on = 1;
  setOption(handle, IPPROTO_SCTP, SCTP_NODELAY, &on, sizeof on, "SCTP_NODELAY");
  // Association state changes come as notifications among the data:
  // refused, up, lost.
  struct sctp_event event;
  std::memset(&event, 0, sizeof event);
  event.se_assoc_id = SCTP_FUTURE_ASSOC;
  event.se_type = SCTP_ASSOC_CHANGE;
  event.se_on = 1;
  setOption(handle, IPPROTO_SCTP, SCTP_EVENT, &event, sizeof event, "SCTP_EVENT");
  // The device offers 16 streams; asking for more only costs memory.
  struct sctp_initmsg init;
  std::memset(&init, 0, sizeof init);
  init.sinit_num_ostreams = 16;
  init.sinit_max_instreams = 16;
  setOption(handle, IPPROTO_SCTP, SCTP_INITMSG, &init, sizeof init, "SCTP_INITMSG");
  // usrsctp does no path MTU probing: a size that fits any UDP path.
  struct sctp_paddrparams path;
  std::memset(&path, 0, sizeof path);
  path.spp_flags = SPP_PMTUD_DISABLE;
  path.spp_pathmtu = 1200;
  setOption(handle, IPPROTO_SCTP, SCTP_PEER_ADDR_PARAMS, &path, sizeof path, "SCTP_PEER_ADDR_PARAMS");
  return handle;
}

void SctpStack::flush() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    sending_.swap(queued_);
  }
  for (const auto& packet : sending_) path_.send(packet.data(), packet.size());
  sending_.clear();
}

bool SctpStack::finished() {
  if (finished_) return true;
  if (usrsctp_finish() != 0) return false;
  finished_ = true;
  stopTicking();
  return true;
}

int SctpStack::onOutput(void*, void* packet, std::size_t size, std::uint8_t, std::uint8_t) {
  SctpStack* self = instance;
  if (self == nullptr) return 0;
  const auto* bytes = static_cast<const std::uint8_t*>(packet);
  std::lock_guard<std::mutex> lock(self->mutex_);
  self->queued_.emplace_back(bytes, bytes + size);
  return 0;
}

int SctpStack::onTick(void* self) {
  static_cast<SctpStack*>(self)->tick();
  return G_SOURCE_CONTINUE;
}

void SctpStack::onDatagram(const std::uint8_t* data, std::size_t size) {
  if (finished_) return;
  ++datagramsIn_;
  // The stack checks the CRC32c and drops what is not SCTP.
  usrsctp_conninput(address(), data, size, 0);
  flush();
  if (activity_) activity_();
}

void SctpStack::tick() {
  const auto now = std::chrono::steady_clock::now();
  const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(now - lastTick_).count();
  lastTick_ = now;
  usrsctp_handle_timers(static_cast<std::uint32_t>(elapsed));
  flush();
  if (activity_) activity_();
}

void SctpStack::stopTicking() {
  if (ticker_ == nullptr) return;
  g_source_destroy(ticker_);
  g_source_unref(ticker_);
  ticker_ = nullptr;
}

}  // namespace p2pclient
}  // namespace quorvel
