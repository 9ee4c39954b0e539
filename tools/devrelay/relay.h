#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tools/devrelay/options.h"

namespace quorvel {
namespace devrelay {

using Clock = std::chrono::steady_clock;

class OutsideConnection;

// One outside request on its way to a device and the answer on its way back.
struct Exchange {
  enum class State { Queued, Delivering, AwaitingReply, Replying, Finished };

  std::string id;   // names the exchange in its reply URL
  std::string key;  // device key, lower case
  std::string method;
  std::string target;
  std::string head;  // the request head as relayed to the device
  bool hasBody = false;
  bool chunked = false;  // the body is relayed chunk-encoded
  std::uint64_t contentLength = 0;
  bool headRequest = false;
  State state = State::Queued;
  // Cleared when the exchange finishes, which breaks the reference cycle.
  std::shared_ptr<OutsideConnection> outside;
};

// A relay GET waiting for something to carry.
class PollWaiter {
 public:
  virtual ~PollWaiter() = default;
  virtual void deliver(std::shared_ptr<Exchange> exchange) = 0;
  // The device registered again, so this session's GET is stale.
  virtual void dismiss() = 0;
};

// The registry of devices, their queues and the exchanges awaiting replies.
// Everything runs on the one I/O thread.
class Relay {
 public:
  explicit Relay(const Settings& settings);

  const Settings& settings() const { return settings_; }

  // Returns the new session number; GETs of an earlier session are dismissed.
  std::uint64_t registerDevice(const std::string& key);

  // False for an unknown key or session. Otherwise the waiter either gets an
  // exchange at once (deliver is called before this returns) or waits.
  bool poll(const std::string& key, std::uint64_t session, const std::shared_ptr<PollWaiter>& waiter);
  void cancelPoll(const std::string& key, const PollWaiter* waiter);

  bool hasDevice(const std::string& key);

  enum class Submitted { NoDevice, QueueFull, Accepted };
  Submitted submit(const std::shared_ptr<Exchange>& exchange);

  // A delivery that failed before the device got the head goes back first in line.
  void requeue(const std::shared_ptr<Exchange>& exchange);

  // Drops a finished exchange from its queue and from the reply index.
  void withdraw(const Exchange& exchange);

  std::shared_ptr<Exchange> findExchange(const std::string& id) const;
  std::string newExchangeId();

  std::size_t queued(const std::string& key) const;

 private:
  struct Device {
    std::string key;
    std::uint64_t session = 0;
    std::deque<std::shared_ptr<Exchange>> queue;
    std::vector<std::shared_ptr<PollWaiter>> waiters;
    Clock::time_point lastSeen;
  };

  Device* findDevice(const std::string& key);
  std::shared_ptr<Exchange> takeQueued(Device& device);

  const Settings& settings_;
  std::map<std::string, Device> devices_;
  std::map<std::string, std::weak_ptr<Exchange>> exchanges_;
  std::uint64_t nextSession_;
  std::uint64_t nextExchange_ = 1;
  std::string idPrefix_;
};

}  // namespace devrelay
}  // namespace quorvel
