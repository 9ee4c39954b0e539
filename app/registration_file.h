#pragma once

#include <memory>
#include <string>

#include "core/delegate.h"
#include "core/lifetime.h"
#include "core/reactor.h"
#include "core/time.h"

namespace quorvel {
namespace ferrule {

// The device key from a registration file: the value of the first
// "DeviceRelayKey = value" line (key compared without case). Empty when the
// file cannot be opened, has a line without "=" before the key, or has no
// key line.
std::string readDeviceKey(const std::string& fileName);

// The file's modification time, or MinTime when it cannot be stat'ed.
Time fileModificationTime(const std::string& fileName);

// Polls the registration file once a second on the reactor and reports each
// new non-empty key. The file is read only when its modification time
// changes, so a rewrite with the same key is read but reports nothing, and
// a broken file is not read again until it is written again.
class RegistrationFileWatch {
 public:
  using KeyHandler = Delegate<void(const std::string& key)>;

  RegistrationFileWatch(std::shared_ptr<Reactor> reactor, const std::string& fileName, const KeyHandler& onNewKey);
  RegistrationFileWatch(const RegistrationFileWatch&) = delete;
  RegistrationFileWatch& operator=(const RegistrationFileWatch&) = delete;

  // Posts the first check; each check schedules the next.
  void start();
  void check();

  const std::string& currentKey() const { return currentKey_; }

 private:
  std::shared_ptr<Reactor> reactor_;
  const std::string fileName_;
  KeyHandler onNewKey_;
  std::string currentKey_;
  Time lastModified_ = MinTime;
  bool missingReported_ = false;
  LifetimeToken lifetime_ = makeLifetimeToken();
};

}  // namespace ferrule
}  // namespace quorvel
