#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "core/cancelable_task.h"
#include "core/lifetime.h"
#include "core/reactor.h"
#include "core/time.h"

struct socket;

namespace quorvel {

class SctpUdpOutput;

// Told, on the reactor's thread, that the stack has news for one of its
// sockets (readable, writable, connected, failed); it then retries whatever
// it has outstanding.
class SctpStackEvents {
 public:
  virtual ~SctpStackEvents() = default;
  virtual void onStackEvents() = 0;
};

// The process's one SCTP stack (usrsctp in AF_CONN mode, without threads of
// its own apart from the iterator) and the boundary between the stack and the
// reactor. Every call into the stack is made on the reactor's thread; the
// stack's callbacks (packet output, socket upcalls, debug text) come back on
// it, from inside those calls. The stack itself is started for the first
// link or socket and kept until the service goes.
//
// The rule of this boundary: nothing enters the stack from inside its own
// callback. The stack holds its locks while it calls out, so a packet fed to
// it from there would deadlock; the callbacks only hand packets to a link's
// session (which copies them) and note socket events, which the input or
// timer call that caused them takes up once the stack has returned (a busy
// sender refills after each SACK without a trip through the reactor);
// events from any other call are posted to the reactor.
//
// Links register an output and get a fresh address value (the AF_CONN
// address of their end, never reused, as a reused value can make the stack
// drop a new association's COOKIE-ECHO). The stack's timers are driven from
// the reactor, only while a link or a socket exists: every 10 ms while
// packets move, every 250 ms after a second without any (heartbeats and
// backed-off retransmissions do not need more), so that an idle session
// costs 4 wakeups a second instead of 100.
class SctpUdpService {
 public:
  // Throws std::logic_error "SctpUdpService already exists" for a second live
  // instance: the stack is a process-wide singleton.
  explicit SctpUdpService(std::shared_ptr<Reactor> reactor);
  // Aborts what is left and shuts the stack down.
  ~SctpUdpService();
  SctpUdpService(const SctpUdpService&) = delete;
  SctpUdpService& operator=(const SctpUdpService&) = delete;

  // ---- links
  // The address value under which `output` receives the stack's packets.
  uintptr_t registerLink(SctpUdpOutput* output);
  // Aborts the link's associations that are still shutting down, while the
  // link can carry their ABORTs: a peer told nothing would learn of the end
  // only from its own retransmission limit.
  void abortClosing(uintptr_t connData);
  // No packet goes to the output after this; associations still closing on
  // that address are aborted first.
  void deregisterLink(uintptr_t connData);
  // One datagram that arrived for the link.
  void input(uintptr_t connData, const uint8_t* data, std::size_t size);

  // ---- sockets
  // A new non-blocking one-to-one stack socket with this program's options,
  // or null with errno set.
  struct socket* openSocket();
  // Routes the stack's events for `handle` to `owner` from now on. Sockets
  // the stack made (accepted ones) are adopted the same way.
  void watch(struct socket* handle, uintptr_t connData, const std::weak_ptr<SctpStackEvents>& owner);
  // Takes the socket back from its owner. A graceful release first lets the
  // association deliver what is queued and shut down (bounded by the stack's
  // retransmission limits and by the link's deregistration); otherwise it is
  // aborted at once.
  void release(struct socket* handle, bool graceful);

  Reactor& reactor() { return *reactor_; }
  // Completions are posted under this token: it lives as long as the stack,
  // so a socket's callbacks still run after the socket object has gone.
  const LifetimeToken& token() const { return token_; }

  // Live links, and stack sockets not yet closed (those shutting down
  // included); for tests and statistics.
  std::size_t linkCount() const { return links_.size(); }
  std::size_t socketCount() const { return sockets_.size(); }
  bool timerRunning() const { return timerTask_.isStarted(); }

 private:
  struct SocketEntry {
    uintptr_t connData = 0;
    std::weak_ptr<SctpStackEvents> owner;
    bool closing = false;
  };

  // The stack's callbacks. The stack is C, built for the device without
  // unwind tables: an exception must never leave a callback into its frames
  // (it would end the program there, with the stack's locks held on the way).
  // noexcept makes that a rule of the compiler: a throw (only bad_alloc can)
  // ends the program at the callback's own edge.
  static int onOutput(void* address, void* buffer, std::size_t length, uint8_t tos, uint8_t setDf) noexcept;
  static void onUpcall(struct socket* handle, void* arg, int flags) noexcept;
  static void onDebugText(const char* format, ...) noexcept;

  // The stack, its threads and its tables are set up for the first link or
  // socket: a device that only relays HTTP never pays for them.
  void startStack();
  // Undoes startStack(), aborting what is left first.
  void stopStack();
  void deliverOutput(uintptr_t connData, const uint8_t* data, std::size_t size);
  void drainEvents();
  void continueClosing(struct socket* handle);
  void abortSocket(struct socket* handle);
  void ensureTimer();
  void onTimer();
  // Packets move: back to the short period if the timer has slowed down.
  void noteActivity();

  std::shared_ptr<Reactor> reactor_;
  bool started_ = false;
  LifetimeToken token_ = makeLifetimeToken();
  std::map<uintptr_t, SctpUdpOutput*> links_;
  uintptr_t nextConnData_ = 1;
  std::map<struct socket*, SocketEntry> sockets_;
  // Depth of stack callbacks on the loop thread: input waits while inside.
  int inCallback_ = 0;
  // Depth of input and timer calls into the stack, which take up the
  // sockets' events themselves when the stack returns (loop thread only).
  int stackCall_ = 0;

  // Filled by upcalls, drained after input and timer calls or else by one
  // posted task.
  std::mutex eventsMutex_;
  std::vector<struct socket*> pendingEvents_;
  bool drainPosted_ = false;

  CancelableTask timerTask_{[this] { onTimer(); }};
  SteadyTime lastTick_;
  SteadyTime lastActivity_;
  bool slowTicks_ = false;
  // Where closing associations' last messages are read and dropped.
  std::vector<uint8_t> scratch_;
};

}  // namespace quorvel
