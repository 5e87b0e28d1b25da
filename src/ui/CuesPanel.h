#pragma once
// Cues: one button per cue, grouped by the character it is written for,
// each with its default duration; the active cue's name and progress; stop
// with a fade back to live tracking. Firing a cue for the other character
// switches the character first, as the remote cue commands do. Main thread.

#include <optional>

#include "animation/AnimationCue.h"

namespace velmora {

struct DashboardContext;

class CuesPanel {
 public:
  explicit CuesPanel(DashboardContext& context);
  ~CuesPanel();
  CuesPanel(const CuesPanel&) = delete;
  CuesPanel& operator=(const CuesPanel&) = delete;

  void draw();

  // Starts the cue with its default duration at the context's clock.
  void fire(AnimationCue::Kind kind);
  // Ends the active cue with the cross-fade back to live tracking.
  void stopWithFade();
  // 0..1 of the active cue at the context's clock; none when idle.
  std::optional<double> progress() const;

 private:
  DashboardContext& context_;
  int observerToken_ = 0;
  // When the active cue started (the player tells us when it changes).
  std::optional<double> cueStartTime_;
};

}  // namespace velmora
