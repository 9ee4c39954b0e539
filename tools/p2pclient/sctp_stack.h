#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include "tools/p2pclient/datagram_path.h"

struct socket;
typedef struct _GMainContext GMainContext;
typedef struct _GSource GSource;

namespace quorvel {
namespace p2pclient {

// usrsctp in AF_CONN mode over the pair ICE reached, driven from the GLib
// loop that runs the ICE agent: no stack threads of our own (only the
// stack's iterator), its timers ticked from a 10 ms source, incoming
// datagrams fed in as libnice hands them over.
//
// The stack's output callback only copies the packet into a queue: feeding
// the stack (or libnice) from inside it would re-enter the stack under its
// own lock. The queue is sent after every call into the stack that can
// produce packets (flush()), and on every tick as a backstop for packets the
// iterator thread produced.
//
// One per process: usrsctp has one global instance. Its single registered
// address stands for both ends of the path; the SCTP ports tell
// associations apart.
class SctpStack {
 public:
  SctpStack(GMainContext* context, DatagramPath& path);
  ~SctpStack();
  SctpStack(const SctpStack&) = delete;
  SctpStack& operator=(const SctpStack&) = delete;

  // A non-blocking one-to-one SCTP socket with this tool's options; throws
  // std::runtime_error when the stack refuses.
  struct socket* openSocket();

  // The sconn_addr value of both ends.
  void* address() { return this; }

  // Called on the loop after every incoming datagram and every tick, once
  // what the stack queued has been sent: the place to poll sockets.
  void setActivity(std::function<void()> activity) { activity_ = std::move(activity); }

  // Sends what the stack queued for the path.
  void flush();

  // True once every association is gone and the stack has been shut down;
  // until then it keeps the timers going. Call from a runUntil() predicate
  // after closing the sockets, so that closing handshakes can complete.
  bool finished();

  std::uint64_t datagramsIn() const { return datagramsIn_; }

 private:
  static int onOutput(void* address, void* packet, std::size_t size, std::uint8_t tos, std::uint8_t setDf);
  static int onTick(void* self);
  void onDatagram(const std::uint8_t* data, std::size_t size);
  void tick();
  void stopTicking();

  DatagramPath& path_;
  GSource* ticker_ = nullptr;
  std::chrono::steady_clock::time_point lastTick_;
  std::function<void()> activity_;
  std::mutex mutex_;  // the iterator thread may produce packets too
  std::vector<std::vector<std::uint8_t>> queued_;
  std::vector<std::vector<std::uint8_t>> sending_;
  std::uint64_t datagramsIn_ = 0;
  bool finished_ = false;
};

}  // namespace p2pclient
}  // namespace quorvel
