#include "tracking/MainThreadTrackingSink.h"

#include <algorithm>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/MainQueue.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {

// What one sender has waiting for the main thread.
struct Waiting {
  std::string sender;
  std::optional<DecodedFrame> frame;
  std::uint64_t frames = 0;  // packets merged into `frame`
  std::uint64_t unknown = 0;  // unknown-format datagrams waiting (shown once)
  bool unknownLast = false;   // ...the newest of them arrived after the frame
  std::uint64_t newest = 0;  // sequence number of the sender's newest delivery
};

struct MainThreadTrackingSink::State {
  MainQueue* queue = nullptr;
  FaceTrackingState* target = nullptr;  // nullptr: FaceTrackingState::shared()
  std::size_t maxSenders = 1;

  mutable std::mutex mutex;
  // One entry per sender; `index` finds a sender's entry. Both emptied by
  // every drain.
  std::vector<Waiting> waiting;
  std::unordered_map<std::string, std::size_t> index;
  std::uint64_t sequence = 0;  // deliveries so far, numbering them
  bool drainPosted = false;
  std::uint64_t dropped = 0;
  // Main thread only: the drained entries, kept to reuse their storage.
  std::vector<Waiting> taken;

  // Receiver's queue, under `mutex`: the sender's entry, or nullptr (and
  // the delivery counted as dropped) when maxSenders already wait.
  Waiting* entry(const std::string& sender) {
    const auto it = index.find(sender);
    Waiting* w = nullptr;
    if (it != index.end()) {
      w = &waiting[it->second];
    } else if (waiting.size() >= maxSenders) {
      ++dropped;
      return nullptr;
    } else {
      index.emplace(sender, waiting.size());
      w = &waiting.emplace_back();
      w->sender = sender;
    }
    w->newest = ++sequence;
    return w;
  }

  // Main thread: ingests everything waiting now. Deliveries arriving while
  // it runs are picked up by the next posted drain.
  void drain() {
    {
      std::lock_guard lock(mutex);
      taken.swap(waiting);
      index.clear();
      drainPosted = false;
    }
    // Senders in the order of their newest deliveries, so the last one
    // ingested is the one that sent last, as it would be one by one.
    if (taken.size() > 1) {
      std::sort(taken.begin(), taken.end(), [](const Waiting& a, const Waiting& b) { return a.newest < b.newest; });
    }
    FaceTrackingState& state = target ? *target : FaceTrackingState::shared();
    for (Waiting& w : taken) {
      if (w.unknown && !w.unknownLast) ingestUnknown(state, w.sender, w.unknown);
      if (w.frame) ingest(state, std::move(*w.frame), w.frames);
      if (w.unknown && w.unknownLast) ingestUnknown(state, w.sender, w.unknown);
    }
    taken.clear();
  }

  // `packets` datagrams were merged into the frame: all of them count as
  // received (the ones merged away are also counted as dropped).
  static void ingest(FaceTrackingState& s, DecodedFrame&& frame, std::uint64_t packets) {
    // Partial OSC head updates are completed here, from the state's raw pose
    // as it is now.
    const TrackingApp app = frame.app;
    FaceFrame f = std::move(frame).completed(s.rawRotation(), s.rawPosition());
    s.ingestFrame(f, app);
    s.noteArrival(f.arrivalTime);
    if (packets > 1) s.setTotalPacketsReceived(s.totalPacketsReceived() + (packets - 1));
  }

  static void ingestUnknown(FaceTrackingState& s, const std::string& sender, std::uint64_t packets) {
    s.setIsConnected(true);
    s.setSenderApp({});
    s.setSenderIP(sender + " (Unknown format)");
    s.setTotalPacketsReceived(s.totalPacketsReceived() + packets);
  }

  // Receiver's queue, after releasing `mutex`: asks the main thread for one
  // drain when none is pending.
  static void requestDrain(const std::shared_ptr<State>& self, bool needed) {
    if (!needed) return;
    std::weak_ptr<State> weak = self;
    self->queue->post([weak] {
      if (auto s = weak.lock()) s->drain();
    });
  }

  // Under `mutex`: true when this delivery must post a drain.
  bool claimDrain() {
    if (drainPosted) return false;
    drainPosted = true;
    return true;
  }
};

MainThreadTrackingSink::MainThreadTrackingSink(std::size_t maxSenders)
    : MainThreadTrackingSink(maxSenders, MainQueue::shared(), nullptr) {}

MainThreadTrackingSink::MainThreadTrackingSink(std::size_t maxSenders, MainQueue& queue, FaceTrackingState* state)
    : state_(std::make_shared<State>()) {
  state_->queue = &queue;
  state_->target = state;
  state_->maxSenders = maxSenders == 0 ? 1 : maxSenders;
}

void MainThreadTrackingSink::deliver(DecodedFrame frame) {
  bool post = false;
  {
    std::lock_guard lock(state_->mutex);
    Waiting* w = state_->entry(frame.frame.sender);
    if (!w) return;
    if (w->frame) {
      frame.mergeOlder(std::move(*w->frame), maxMergedNames);
      ++state_->dropped;
    }
    w->frame = std::move(frame);
    ++w->frames;
    w->unknownLast = false;
    post = state_->claimDrain();
  }
  State::requestDrain(state_, post);
}

void MainThreadTrackingSink::deliverUnknown(const std::string& sender) {
  bool post = false;
  {
    std::lock_guard lock(state_->mutex);
    Waiting* w = state_->entry(sender);
    if (!w) return;
    if (w->unknown) ++state_->dropped;
    ++w->unknown;
    w->unknownLast = true;
    post = state_->claimDrain();
  }
  State::requestDrain(state_, post);
}

std::uint64_t MainThreadTrackingSink::droppedCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->dropped;
}

std::size_t MainThreadTrackingSink::waitingSenders() const {
  std::lock_guard lock(state_->mutex);
  return state_->waiting.size();
}

std::size_t MainThreadTrackingSink::maxSenders() const { return state_->maxSenders; }

}  // namespace velmora
