#pragma once
// Where the in-place OSC reader decodes one message's arguments to: room
// for 16 in place (tracking senders send one to three), more on the heap.
// One per datagram walk, reused for each of its messages; the arguments of
// a message stay valid until the next message is decoded.

#include <cstddef>
#include <type_traits>
#include <vector>

#include "osc/OSCMessageView.h"

namespace velmora::oscwalk {

class ArgumentStore {
 public:
  ArgumentStore() = default;
  ArgumentStore(const ArgumentStore&) = delete;  // the handed-out pointers are into this one
  ArgumentStore& operator=(const ArgumentStore&) = delete;

  // Room for `count` arguments; the storage stays valid until the next call.
  OSCArgumentView* reserve(std::size_t count) {
    if (count <= kInPlace) return reinterpret_cast<OSCArgumentView*>(inPlace_);
    heap_.resize(count);
    return heap_.data();
  }

 private:
  static constexpr std::size_t kInPlace = 16;
  static_assert(std::is_trivially_copyable_v<OSCArgumentView> && std::is_trivially_destructible_v<OSCArgumentView>);
  alignas(OSCArgumentView) std::byte inPlace_[kInPlace * sizeof(OSCArgumentView)];
  std::vector<OSCArgumentView> heap_;
};

}  // namespace velmora::oscwalk
