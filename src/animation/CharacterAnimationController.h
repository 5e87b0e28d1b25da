#pragma once
// Plays one animation cue at a time over live face tracking.
//
// The controller keeps no clock: every call is given the current time in
// seconds on the process's one monotonic clock (base/Clock.h uptime()).
// All state belongs to the main thread. trigger() and reset() called from
// any other thread post themselves to MainQueue::shared() and return at
// once; sample() must be called on the main thread (the frame update).

#include <functional>
#include <map>
#include <optional>
#include <string>

#include "animation/AnimationCue.h"
#include "animation/AnimationOutput.h"

namespace velmora {

class CharacterAnimationController {
 public:
  // Seconds of the cross-fade back to live tracking after reset(fadeOut: true).
  static constexpr double defaultFadeDuration = 0.35;

  // The process-wide player, created on first use.
  static CharacterAnimationController& shared();

  // Tests make private instances; the application uses shared().
  CharacterAnimationController() = default;
  CharacterAnimationController(const CharacterAnimationController&) = delete;
  CharacterAnimationController& operator=(const CharacterAnimationController&) = delete;

  // Starts `cue` at `time`, replacing whatever was playing (no cross-fade)
  // and bringing an offstage ghost back.
  void trigger(const AnimationCue& cue, double time);
  // Stops the cue. With fadeOut and a cue (or fade) running, the output at
  // `time` is captured and eased back to neutral over 0.35 s; otherwise the
  // player goes idle at once. Either way activeCue becomes none, "Idle".
  void reset(bool fadeOut, double time);
  // The output for `time`. Main thread; ends a finished fade or cue.
  AnimationOutput sample(double time);

  // Published state (main thread).
  const std::optional<AnimationCue>& activeCue() const { return activeCue_; }
  const std::string& activeCueName() const { return activeCueName_; }
  // Observers are told (on the main thread) whenever activeCue or
  // activeCueName is written.
  int observe(std::function<void()> observer);
  void unobserve(int token);

  // Read-only views of the private state, for the dashboard and tests.
  bool isPlaying() const { return isPlaying_; }
  bool isFadingOut() const { return isFadingOut_; }
  bool isOffstage() const { return isOffstage_; }
  // When the active cue started (seconds, the clock trigger() was given);
  // meaningful while isPlaying().
  double cueStartTime() const { return cueStartTime_; }

 private:
  void triggerOnMain(const AnimationCue& cue, double time);
  void resetOnMain(bool fadeOut, double time);
  void setActive(std::optional<AnimationCue> cue);
  void notify();

  std::optional<AnimationCue> activeCue_;
  std::string activeCueName_ = "Idle";

  double cueStartTime_ = 0;
  bool isPlaying_ = false;
  bool isFadingOut_ = false;
  double fadeStartTime_ = 0;
  double fadeDuration_ = defaultFadeDuration;
  AnimationOutput fadeFromOutput_ = AnimationOutput::neutral();
  bool isOffstage_ = false;

  std::map<int, std::function<void()>> observers_;
  int nextObserverToken_ = 1;
};

}  // namespace velmora
