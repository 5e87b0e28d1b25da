#pragma once
// What the remote commands act on, handed to every command's action: the
// face tracking state, the cue player, the clock both share (seconds on
// the process's monotonic clock, the time cues are triggered and reset at).
// The application builds one over its shared objects; tests build their own.
//
// Threads: the commands run on the main thread, which owns all three.

#include <functional>

namespace velmora {

class CharacterAnimationController;
class FaceTrackingState;
class RemoteReplies;

struct CommandContext {
  FaceTrackingState& state;
  CharacterAnimationController& cues;
  std::function<double()> clock;
  // The cue server's replies and subscriptions while it handles a message
  // from the network; none otherwise (the "Replies & Following" commands
  // then have no one to answer and do nothing).
  RemoteReplies* remote = nullptr;
};

}  // namespace velmora
