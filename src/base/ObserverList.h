#pragma once
// Observers of one object, told about each change with a value saying what
// changed (a property, an event). Observers may observe, unobserve and cause
// further notifications from inside a notification: an observer removed
// while notified is skipped from then on and dropped after the outermost
// notification (so it is never destroyed under itself), and one added while
// notified hears from the next notification on.
//
// Threads: one thread (the owner's); no locks.

#include <cstddef>
#include <deque>
#include <functional>
#include <utility>

namespace velmora {

template <class Change>
class ObserverList {
 public:
  // Returns a token for unobserve.
  int observe(std::function<void(Change)> observer) {
    const int token = nextToken_++;
    observers_.push_back(Entry{token, std::move(observer)});
    return token;
  }

  // Unknown tokens are ignored.
  void unobserve(int token) {
    for (auto it = observers_.begin(); it != observers_.end(); ++it) {
      if (it->token != token) continue;
      if (depth_ > 0) {
        it->active = false;
        needsCompaction_ = true;
      } else {
        observers_.erase(it);
      }
      return;
    }
  }

  void notify(Change change) {
    if (observers_.empty()) return;
    struct Depth {
      ObserverList& list;
      explicit Depth(ObserverList& l) : list(l) { ++list.depth_; }
      ~Depth() {
        if (--list.depth_ == 0 && list.needsCompaction_) {
          std::erase_if(list.observers_, [](const Entry& e) { return !e.active; });
          list.needsCompaction_ = false;
        }
      }
    } depth(*this);
    // Deque elements stay put when others are appended.
    const std::size_t count = observers_.size();
    for (std::size_t i = 0; i < count; ++i) {
      Entry& entry = observers_[i];
      if (entry.active && entry.function) entry.function(change);
    }
  }

 private:
  struct Entry {
    int token;
    std::function<void(Change)> function;
    bool active = true;  // cleared by unobserve during a notification
  };

  std::deque<Entry> observers_;
  int nextToken_ = 1;
  int depth_ = 0;
  bool needsCompaction_ = false;
};

}  // namespace velmora
