#pragma once
// The door of one listener: admits a datagram when its sender is in the
// allow-list, else drops it and counts it. The first datagram from each
// refused address gets one log line, "[Component] Refused WHAT from a.b.c.d
// (not in the allowed senders)"; later ones from the same address are only
// counted, so a flood never floods the log.
//
// Threads: admit() on the listener's queue; setAllowList() and the counts
// from any thread.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>

#include "net/SenderAllowList.h"

namespace velmora {

class SenderFilter {
 public:
  // Addresses remembered as already logged, at most; beyond that refusals
  // are still counted but no longer logged.
  static constexpr std::size_t maxLoggedSenders = 1024;

  // component: "QLabOSCServer"; what: "OSC".
  SenderFilter(std::string component, std::string what);

  // Any thread. Takes effect from the next datagram; forgets who was logged.
  void setAllowList(SenderAllowList list);
  SenderAllowList allowList() const;

  // Listener's queue. `address` in host byte order.
  bool admit(std::uint32_t address);

  // Any thread. Datagrams refused since construction.
  std::uint64_t refusedCount() const { return refused_.load(std::memory_order_relaxed); }

 private:
  const std::string component_;
  const std::string what_;
  mutable std::mutex mutex_;
  std::shared_ptr<const SenderAllowList> list_;  // guarded by mutex_
  std::unordered_set<std::uint32_t> logged_;        // guarded by mutex_
  std::atomic<std::uint64_t> refused_{0};
};

}  // namespace velmora
