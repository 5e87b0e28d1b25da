#include "net/SenderFilter.h"

#include "base/Log.h"
#include "net/DatagramEnvelope.h"

namespace velmora {

SenderFilter::SenderFilter(std::string component, std::string what)
    : component_(std::move(component)), what_(std::move(what)), list_(std::make_shared<SenderAllowList>()) {}

void SenderFilter::setAllowList(SenderAllowList list) {
  auto shared = std::make_shared<const SenderAllowList>(std::move(list));
  std::lock_guard lock(mutex_);
  list_ = std::move(shared);
  logged_.clear();
}

SenderAllowList SenderFilter::allowList() const {
  std::lock_guard lock(mutex_);
  return *list_;
}

bool SenderFilter::admit(std::uint32_t address) {
  bool log = false;
  {
    // Uncontended except while the operator edits the list.
    std::lock_guard lock(mutex_);
    if (list_->allows(address)) return true;
    if (logged_.size() < maxLoggedSenders) log = logged_.insert(address).second;
  }
  refused_.fetch_add(1, std::memory_order_relaxed);
  if (log) {
    logLine(component_,
            "Refused " + what_ + " from " + DatagramEnvelope::addressText(address) + " (not in the allowed senders)");
  }
  return false;
}

}  // namespace velmora
