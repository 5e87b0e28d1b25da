#pragma once
// Turns what changed since the last look into the typed event messages a
// subscribed controller receives. It compares the operator-visible values
// (RemoteValues) tick to tick, so a change is announced whoever made it:
// a remote command, the dashboard, a shortcut, the state itself.
//
//   /velmora/event/cue ss <cue name> started|finished|stopped
//   /velmora/event/cue/progress sf <cue name> <0..1>  (at most 10 a second)
//   /velmora/event/character s <character>
//   /velmora/event/tracking s lost|found
//   /velmora/event/output ss syphon|ndi|projector <status text>
//   /velmora/event/setting s<value> <name> <new value>
//   and the new value again on the value's own command address
//   (/velmora/sensitivity f 2.0, /velmora/ndi T).
//
// Main thread only; poll it once per tick while anyone is subscribed.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "control/RemoteValues.h"

namespace velmora {

struct CommandContext;

class ChangeFeed {
 public:
  using Bytes = std::vector<std::uint8_t>;
  static constexpr double progressInterval = 0.1;  // seconds between progress events

  // Forgets what was seen: the next poll only takes a baseline.
  void reset();
  // The events since the last poll, each one encoded OSC message, in the
  // order they should be sent. `now` is the cue clock in seconds.
  std::vector<Bytes> poll(const CommandContext& context, double now);

  // One value as a typed message on `address`.
  static Bytes valueMessage(const std::string& address, const RemoteValues::Value& value);

 private:
  struct PlayingCue {
    std::string name;
    double start = 0;
    double end = 0;
  };
  bool primed_ = false;
  std::vector<RemoteValues::Entry> last_;
  std::optional<PlayingCue> cue_;
  double lastProgress_ = -1e9;
};

}  // namespace velmora
