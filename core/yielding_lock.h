#pragma once

#include <atomic>
#include <thread>

namespace quorvel {

// A lock for sections of a few pointer moves that one thread takes nearly
// all the time. Taking and giving back an uncontended std::mutex costs more
// than such a section; this costs one atomic exchange and one store. A
// thread that finds it held gives up its time slice rather than spin, so a
// holder preempted on a single core gets to finish. Not for long sections
// or for sections that block.
class YieldingLock {
 public:
  void lock() {
    while (held_.exchange(true, std::memory_order_acquire)) std::this_thread::yield();
  }
  void unlock() { held_.store(false, std::memory_order_release); }

 private:
  std::atomic<bool> held_{false};
};

}  // namespace quorvel
