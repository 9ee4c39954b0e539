#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/p2pclient/datagram_path.h"
#include "tools/p2pclient/description.h"

typedef struct _NiceAgent NiceAgent;
typedef struct _GMainContext GMainContext;

namespace quorvel {
namespace p2pclient {

// libnice refused something it should take (a stream, the device's
// candidates); the text says what.
class IceError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// One endpoint of the pair ICE selected, in the text forms the device logs
// ("198.18.0.2:40000", "[fd18::2]:40000").
struct PairEnd {
  std::string address;  // the candidate's transport address
  std::string base;     // where this side sends from (the same for remote ends)
  std::string type;     // "host", "srflx", "prflx", "relay"
};

struct SelectedPair {
  PairEnd local;
  PairEnd remote;
};

// One libnice agent in RFC 5245 mode with regular nomination and one
// single-component UDP stream: gathers, takes the other side's description,
// runs the checks and then carries datagrams on the selected pair. The
// remote client is the controlled side; the controlling role is only for
// standing in for the device in tests and benchmarks.
//
// Every wait below runs the GLib main context on the calling thread and is
// bounded by its own limit.
class IceAgent : public DatagramPath {
 public:
  struct Settings {
    bool controlling = false;
    std::string stunAddress;  // numeric; empty for host candidates only
    std::uint16_t stunPort = 3478;
    std::vector<std::string> localAddresses;  // numeric; empty for every interface
  };

  enum class Outcome { Connected, Failed, TimedOut };

  IceAgent(GMainContext* context, const Settings& settings);
  ~IceAgent() override;
  IceAgent(const IceAgent&) = delete;
  IceAgent& operator=(const IceAgent&) = delete;

  // Gathers host and, with a STUN server, server-reflexive candidates.
  // Returns false when gathering had not ended by the limit; what was found
  // by then is still used.
  bool gather(std::chrono::milliseconds limit);

  // This side's candidates and credentials. Loopback and IPv6 link-local
  // candidates are left out: a device never reaches them, and checks on
  // them only delay the ones that can work.
  Description localDescription() const;

  // Hands libnice the other side's credentials and candidates, which starts
  // the checks. Throws IceError when libnice takes none of the candidates.
  void setRemote(const Description& remote);

  // Runs the checks until a pair is selected (for the controlled side: the
  // controlling side nominated it and its check succeeded), ICE failed, or
  // the limit passed. libnice itself reports "ready" only once every other
  // pair has finished too, which behind NATs means waiting out the checks
  // on unreachable host pairs (about 2 s) on a path that already works.
  Outcome connect(std::chrono::milliseconds limit);

  // The pair in use; valid after connect() returned Connected.
  SelectedPair selectedPair() const;

  // Runs the main context until done() holds or the limit passes; returns
  // done()'s last value. Keeps answering checks and keepalives meanwhile.
  bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds limit);

  bool send(const std::uint8_t* data, std::size_t size) override;
  void setReceiver(Receiver receiver) override;

  // State changes as libnice reports them, for --verbose.
  void setTrace(std::function<void(const std::string&)> trace) { trace_ = std::move(trace); }

 private:
  static void onGatheringDone(NiceAgent* agent, unsigned stream, void* self);
  static void onSelectedPair(NiceAgent* agent, unsigned stream, unsigned component, void* local, void* remote,
                             void* self);
  static void onStateChanged(NiceAgent* agent, unsigned stream, unsigned component, unsigned state, void* self);
  static void onReceive(NiceAgent* agent, unsigned stream, unsigned component, unsigned size, char* data, void* self);

  void trace(const std::string& text) const;

  GMainContext* context_;
  NiceAgent* agent_ = nullptr;
  unsigned stream_ = 0;
  bool gathered_ = false;
  bool selected_ = false;
  unsigned state_ = 0;  // NiceComponentState
  Receiver receiver_;
  std::function<void(const std::string&)> trace_;
};

}  // namespace p2pclient
}  // namespace quorvel
