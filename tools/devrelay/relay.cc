#include "tools/devrelay/relay.h"

#include <algorithm>
#include <cstdio>
#include <random>

#include "core/log.h"

namespace quorvel {
namespace devrelay {

namespace {
const log::Log Log("devrelay");
}  // namespace

Relay::Relay(const Settings& settings) : settings_(settings) {
  // Ids and sessions differ between runs, so a device still talking to an
  // earlier run of the relay is told so instead of reaching a stranger.
  std::random_device random;
  nextSession_ = (random() % 9000) + 1000;
  char prefix[16];
  std::snprintf(prefix, sizeof prefix, "%08x", static_cast<unsigned>(random()));
  idPrefix_ = prefix;
}

std::uint64_t Relay::registerDevice(const std::string& key) {
  Device& device = devices_[key];
  device.key = key;
  device.session = nextSession_++;
  device.lastSeen = Clock::now();
  std::vector<std::shared_ptr<PollWaiter>> stale;
  stale.swap(device.waiters);
  for (auto& waiter : stale) waiter->dismiss();
  return device.session;
}

Relay::Device* Relay::findDevice(const std::string& key) {
  auto found = devices_.find(key);
  if (found == devices_.end()) return nullptr;
  Device& device = found->second;
  // A device that stopped polling (killed, unplugged) is forgotten, so its
  // outside clients get a quick 502 instead of waiting for a 504.
  const auto expiry = std::chrono::duration_cast<Clock::duration>(settings_.pollTimeout * 2 + Seconds(10));
  if (device.waiters.empty() && Clock::now() - device.lastSeen > expiry) {
    QLOG(Log, log::Notice, "Device %s has not polled for %.0f s, forgetting it", key,
         std::chrono::duration_cast<Seconds>(Clock::now() - device.lastSeen).count());
    devices_.erase(found);
    return nullptr;
  }
  return &device;
}

bool Relay::hasDevice(const std::string& key) { return findDevice(key) != nullptr; }

std::shared_ptr<Exchange> Relay::takeQueued(Device& device) {
  while (!device.queue.empty()) {
    std::shared_ptr<Exchange> exchange = device.queue.front();
    device.queue.pop_front();
    if (exchange->state == Exchange::State::Queued) return exchange;
  }
  return nullptr;
}

bool Relay::poll(const std::string& key, std::uint64_t session, const std::shared_ptr<PollWaiter>& waiter) {
  Device* device = findDevice(key);
  if (!device || device->session != session) return false;
  device->lastSeen = Clock::now();
  if (std::shared_ptr<Exchange> exchange = takeQueued(*device)) {
    waiter->deliver(exchange);
  } else {
    device->waiters.push_back(waiter);
  }
  return true;
}

void Relay::cancelPoll(const std::string& key, const PollWaiter* waiter) {
  auto found = devices_.find(key);
  if (found == devices_.end()) return;
  Device& device = found->second;
  device.lastSeen = Clock::now();
  device.waiters.erase(std::remove_if(device.waiters.begin(), device.waiters.end(),
                                      [waiter](const std::shared_ptr<PollWaiter>& w) { return w.get() == waiter; }),
                       device.waiters.end());
}

Relay::Submitted Relay::submit(const std::shared_ptr<Exchange>& exchange) {
  Device* device = findDevice(exchange->key);
  if (!device) return Submitted::NoDevice;
  if (device->queue.size() >= settings_.maxQueue) return Submitted::QueueFull;
  exchanges_[exchange->id] = exchange;
  if (!device->waiters.empty()) {
    std::shared_ptr<PollWaiter> waiter = device->waiters.front();
    device->waiters.erase(device->waiters.begin());
    device->lastSeen = Clock::now();
    waiter->deliver(exchange);
  } else {
    device->queue.push_back(exchange);
  }
  return Submitted::Accepted;
}

void Relay::requeue(const std::shared_ptr<Exchange>& exchange) {
  Device* device = findDevice(exchange->key);
  if (!device) return;  // the exchange's own answer timer ends it
  if (!device->waiters.empty()) {
    std::shared_ptr<PollWaiter> waiter = device->waiters.front();
    device->waiters.erase(device->waiters.begin());
    waiter->deliver(exchange);
  } else {
    device->queue.push_front(exchange);
  }
}

void Relay::withdraw(const Exchange& exchange) {
  exchanges_.erase(exchange.id);
  auto found = devices_.find(exchange.key);
  if (found == devices_.end()) return;
  auto& queue = found->second.queue;
  queue.erase(std::remove_if(queue.begin(), queue.end(),
                             [&exchange](const std::shared_ptr<Exchange>& e) { return e.get() == &exchange; }),
              queue.end());
}

std::shared_ptr<Exchange> Relay::findExchange(const std::string& id) const {
  auto found = exchanges_.find(id);
  return found == exchanges_.end() ? nullptr : found->second.lock();
}

std::string Relay::newExchangeId() { return idPrefix_ + "-" + std::to_string(nextExchange_++); }

std::size_t Relay::queued(const std::string& key) const {
  auto found = devices_.find(key);
  return found == devices_.end() ? 0 : found->second.queue.size();
}

}  // namespace devrelay
}  // namespace quorvel
