#include "sctp/sctp_udp_service.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

#include <usrsctp.h>

#include "core/log.h"
#include "sctp/sctp_udp_output.h"
#include "sctp/stack_clock.h"
#include "sctp/stack_calls.h"

namespace quorvel {
namespace {

const log::Log Log("sctpudp");
const log::Log StackLog("usrsctp");

// The one live service: the stack's output and debug callbacks carry no
// context of their own.
SctpUdpService* instance = nullptr;

constexpr Duration TimerPeriod = Duration::milliseconds(10);
constexpr Duration QuietTimerPeriod = Duration::milliseconds(250);
constexpr Duration QuietAfter = Duration::seconds(1);

// Stack settings, applied once right after init (sysctls only reach sockets
// made afterwards).
// - 512 KiB socket buffers: the bandwidth-delay product of a gigabit LAN at
//   4 ms, or 80 Mbit/s at 50 ms across the Internet; memory is only taken
//   while data is queued.
// - Initial window and burst of 10 packets, SACKs after at most 20 ms (the
//   default 200 ms stalls a sender whose window is nearly used up).
// - RTO 200 ms .. 3 s starting at 1 s, heartbeats every 10 s (the ICE
//   session's keepalives need no help), ECN off (no ECN over UDP).
// - An association gives up after 5 unanswered retransmissions in a row
//   (the default 10 keeps a vanished client's relay for about a minute).
//   With the RTO backing off from 200 ms to at most 3 s that is about 9 s
//   of silence during a transfer, and at most 18 s when the RTO had already
//   backed off (window probes of a slow reader), close to the 10 s after
//   which a client's ICE agent gives up on an unanswering path. A path
//   whose round trip varies by seconds gets a spurious retransmission now
//   and then instead.
// - 16 streams each way: every stream costs memory per association.
void applyStackSettings() {
  usrsctp_sysctl_set_sctp_ecn_enable(0);
  usrsctp_sysctl_set_sctp_sendspace(512 * 1024);
  usrsctp_sysctl_set_sctp_recvspace(512 * 1024);
  usrsctp_sysctl_set_sctp_initial_cwnd(10);
  usrsctp_sysctl_set_sctp_max_burst_default(10);
  usrsctp_sysctl_set_sctp_delayed_sack_time_default(20);
  usrsctp_sysctl_set_sctp_heartbeat_interval_default(10000);
  usrsctp_sysctl_set_sctp_rto_min_default(200);
  usrsctp_sysctl_set_sctp_rto_initial_default(1000);
  usrsctp_sysctl_set_sctp_rto_max_default(3000);
  usrsctp_sysctl_set_sctp_init_rto_max_default(10000);
  usrsctp_sysctl_set_sctp_assoc_rtx_max_default(5);
  usrsctp_sysctl_set_sctp_path_rtx_max_default(5);
  usrsctp_sysctl_set_sctp_nr_outgoing_streams_default(16);
}

// Per socket: no Nagle delay (each send is a whole message the peer waits
// for), the stream id and PPID of received messages, few streams, and a fixed
// path MTU that fits any UDP path (the stack does no probing of its own).
bool applySocketOptions(struct socket* handle) {
  const int on = 1;
  if (usrsctp_setsockopt(handle, IPPROTO_SCTP, SCTP_NODELAY, &on, sizeof on) != 0) return false;
  if (usrsctp_setsockopt(handle, IPPROTO_SCTP, SCTP_RECVRCVINFO, &on, sizeof on) != 0) return false;
  struct sctp_initmsg init;
  std::memset(&init, 0, sizeof init);
  init.sinit_num_ostreams = 16;
  init.sinit_max_instreams = 16;
  if (usrsctp_setsockopt(handle, IPPROTO_SCTP, SCTP_INITMSG, &init, sizeof init) != 0) return false;
  struct sctp_paddrparams path;
  std::memset(&path, 0, sizeof path);
  path.spp_flags = SPP_PMTUD_DISABLE;
  path.spp_pathmtu = 1200;
  if (usrsctp_setsockopt(handle, IPPROTO_SCTP, SCTP_PEER_ADDR_PARAMS, &path, sizeof path) != 0) return false;
  return true;
}

}  // namespace

SctpUdpService::SctpUdpService(std::shared_ptr<Reactor> reactor) : reactor_(std::move(reactor)) {
  if (instance) throw std::logic_error("SctpUdpService already exists");
  instance = this;
}

void SctpUdpService::startStack() {
  if (started_) return;
  started_ = true;
  // Anchors the stack's clock before its first reading, and links it in.
  stackClockMicroseconds();
  // No UDP encapsulation port: the links carry the packets.
  usrsctp_init_nothreads(0, &SctpUdpService::onOutput, &SctpUdpService::onDebugText);
  applyStackSettings();
  scratch_.resize(64 * 1024);
}

SctpUdpService::~SctpUdpService() {
  if (started_) stopStack();
  instance = nullptr;
}

void SctpUdpService::stopStack() {
  while (!sockets_.empty()) abortSocket(sockets_.begin()->first);
  for (const auto& link : links_) usrsctp_deregister_address(reinterpret_cast<void*>(link.first));
  links_.clear();
  // The stack frees what is left of closed endpoints on its timers; finishing
  // fails until they are gone.
  int attempts = 0;
  while (usrsctp_finish() != 0) {
    if (++attempts == 500) {
      QLOG(Log, log::Warning, "SCTP stack still busy at exit");
      break;
    }
    usrsctp_handle_timers(10);
  }
}

// ---- links

uintptr_t SctpUdpService::registerLink(SctpUdpOutput* output) {
  startStack();
  const uintptr_t connData = nextConnData_++;
  links_[connData] = output;
  usrsctp_register_address(reinterpret_cast<void*>(connData));
  ensureTimer();
  return connData;
}

void SctpUdpService::abortClosing(uintptr_t connData) {
  std::vector<struct socket*> closing;
  for (const auto& entry : sockets_) {
    if (entry.second.connData == connData && entry.second.closing) closing.push_back(entry.first);
  }
  for (struct socket* handle : closing) abortSocket(handle);
}

void SctpUdpService::deregisterLink(uintptr_t connData) {
  if (!links_.count(connData)) return;
  abortClosing(connData);
  links_.erase(connData);
  if (inCallback_) {
    reactor_->post(token_, [connData] { usrsctp_deregister_address(reinterpret_cast<void*>(connData)); });
  } else {
    usrsctp_deregister_address(reinterpret_cast<void*>(connData));
  }
}

void SctpUdpService::input(uintptr_t connData, const uint8_t* data, std::size_t size) {
  if (!links_.count(connData)) return;
  if (inCallback_) {
    // A session that delivers synchronously to a peer in this same process.
    auto copy = std::make_shared<std::vector<uint8_t>>(data, data + size);
    reactor_->post(token_, [this, connData, copy] { input(connData, copy->data(), copy->size()); });
    return;
  }
  noteActivity();
  ++stackCall_;
  usrsctp_conninput(reinterpret_cast<void*>(connData), data, size, 0);
  --stackCall_;
  // What the packet changed (a SACK that made room, data that arrived) is
  // taken up at once, now that the stack is out of its callbacks.
  drainEvents();
}

// ---- sockets

struct socket* SctpUdpService::openSocket() {
  startStack();
  struct socket* handle = usrsctp_socket(AF_CONN, SOCK_STREAM, IPPROTO_SCTP, nullptr, nullptr, 0, nullptr);
  if (!handle) return nullptr;
  if (usrsctp_set_non_blocking(handle, 1) != 0 || !applySocketOptions(handle)) {
    const int error = errno;
    usrsctp_close(handle);
    errno = error;
    return nullptr;
  }
  return handle;
}

void SctpUdpService::watch(struct socket* handle, uintptr_t connData, const std::weak_ptr<SctpStackEvents>& owner) {
  SocketEntry& entry = sockets_[handle];
  entry.connData = connData;
  entry.owner = owner;
  entry.closing = false;
  usrsctp_set_upcall(handle, &SctpUdpService::onUpcall, this);
  ensureTimer();
}

void SctpUdpService::release(struct socket* handle, bool graceful) {
  auto found = sockets_.find(handle);
  if (found == sockets_.end()) {
    sockets_[handle].connData = 0;
    found = sockets_.find(handle);
  }
  found->second.owner.reset();
  if (!graceful || !links_.count(found->second.connData) || usrsctp_shutdown(handle, SHUT_WR) != 0) {
    abortSocket(handle);
    return;
  }
  found->second.closing = true;
  continueClosing(handle);
}

// Reads and drops what the peer still sends until the association is over.
void SctpUdpService::continueClosing(struct socket* handle) {
  for (int reads = 0; reads < 64; ++reads) {
    int flags = 0;
    uint16_t stream = 0;
    const ssize_t got = stackReceive(handle, scratch_.data(), scratch_.size(), flags, stream);
    if (got > 0) continue;
    if (got < 0 && (errno == EWOULDBLOCK || errno == EAGAIN)) return;
    break;
  }
  usrsctp_close(handle);
  sockets_.erase(handle);
}

void SctpUdpService::abortSocket(struct socket* handle) {
  const struct linger abortive = {1, 0};
  usrsctp_setsockopt(handle, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
  usrsctp_close(handle);
  sockets_.erase(handle);
}

// ---- the stack's callbacks

int SctpUdpService::onOutput(void* address, void* buffer, std::size_t length, uint8_t, uint8_t) noexcept {
  SctpUdpService* self = instance;
  if (!self) return 0;
  const uintptr_t connData = reinterpret_cast<uintptr_t>(address);
  const uint8_t* data = static_cast<const uint8_t*>(buffer);
  if (!self->reactor_->isLoopThread()) {
    // The stack's iterator thread: hand the packet over to the loop.
    auto copy = std::make_shared<std::vector<uint8_t>>(data, data + length);
    self->reactor_->post(self->token_,
                         [self, connData, copy] { self->deliverOutput(connData, copy->data(), copy->size()); });
    return 0;
  }
  self->deliverOutput(connData, data, length);
  return 0;
}

void SctpUdpService::deliverOutput(uintptr_t connData, const uint8_t* data, std::size_t size) {
  auto link = links_.find(connData);
  if (link == links_.end()) return;
  noteActivity();
  ++inCallback_;
  link->second->output(data, size);
  --inCallback_;
}

void SctpUdpService::onUpcall(struct socket* handle, void* arg, int) noexcept {
  SctpUdpService* self = static_cast<SctpUdpService*>(arg);
  std::lock_guard<std::mutex> lock(self->eventsMutex_);
  self->pendingEvents_.push_back(handle);
  // Inside input or a timer tick, which drain when the stack returns.
  if (self->drainPosted_ || (self->reactor_->isLoopThread() && self->stackCall_)) return;
  self->drainPosted_ = true;
  self->reactor_->post(self->token_, [self] { self->drainEvents(); });
}

void SctpUdpService::onDebugText(const char* format, ...) noexcept {
  if (!StackLog.isEnabled(log::Debug)) return;
  char text[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  std::string line(text);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
  QLOG(StackLog, log::Debug, "%s", line);
}

void SctpUdpService::drainEvents() {
  std::vector<struct socket*> handles;
  {
    std::lock_guard<std::mutex> lock(eventsMutex_);
    handles.swap(pendingEvents_);
    drainPosted_ = false;
  }
  struct socket* previous = nullptr;
  for (struct socket* handle : handles) {
    if (handle == previous) continue;
    previous = handle;
    auto found = sockets_.find(handle);
    if (found == sockets_.end()) continue;
    if (found->second.closing) {
      continueClosing(handle);
    } else if (std::shared_ptr<SctpStackEvents> owner = found->second.owner.lock()) {
      owner->onStackEvents();
    }
  }
  // The list's room serves the next round (this runs once per packet).
  handles.clear();
  std::lock_guard<std::mutex> lock(eventsMutex_);
  if (pendingEvents_.empty()) pendingEvents_.swap(handles);
}

// ---- timers

void SctpUdpService::ensureTimer() {
  if (timerTask_.isStarted()) return;
  lastTick_ = lastActivity_ = reactor_->steadyNow();
  slowTicks_ = false;
  reactor_->scheduleAfter(token_, TimerPeriod, timerTask_.start());
}

void SctpUdpService::noteActivity() {
  lastActivity_ = reactor_->steadyNow();
  if (!slowTicks_ || !timerTask_.isStarted()) return;
  slowTicks_ = false;
  timerTask_.cancel();
  reactor_->scheduleAfter(token_, TimerPeriod, timerTask_.start());
}

void SctpUdpService::onTimer() {
  const SteadyTime now = reactor_->steadyNow();
  const int64_t elapsedMs = static_cast<int64_t>((now - lastTick_).count() / 1000);
  if (elapsedMs > 0) {
    lastTick_ += Duration::milliseconds(elapsedMs);
    ++stackCall_;
    usrsctp_handle_timers(static_cast<uint32_t>(elapsedMs));
    --stackCall_;
    drainEvents();
  }
  if (links_.empty() && sockets_.empty()) return;
  slowTicks_ = now - lastActivity_ >= QuietAfter;
  reactor_->scheduleAfter(token_, slowTicks_ ? QuietTimerPeriod : TimerPeriod, timerTask_.start());
}

}  // namespace quorvel
