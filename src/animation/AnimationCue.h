#pragma once
// The closed catalogue of scripted animation cues. A cue value is a kind plus
// the duration its caller asked for (seconds); the effective duration never
// falls below the kind's minimum. Pure data, any thread.

#include <array>
#include <string>

namespace velmora {

struct AnimationCue {
  // The order is the cue index and must be kept.
  enum class Kind {
    ghostFlyIn,
    ghostFlyOut,
    ghostSpook,
    ghostSpin,
    ghostWobble,
    ghostPeek,
    ghostLaugh,
    ghostShiver,
    maskBow,
    maskGasp,
    maskNod,
    maskShake,
    maskLaugh,
    maskSob,
    maskGlare,
  };

  static const std::array<Kind, 15> allKinds;

  Kind kind = Kind::ghostFlyIn;
  double requestedDuration = 0;  // seconds, as given by the caller (may be 0, negative or NaN)

  static AnimationCue make(Kind kind, double requestedDuration) { return AnimationCue{kind, requestedDuration}; }

  // Display name of the kind (UTF-8), e.g. "Ghost 360° Spin".
  static const std::string& name(Kind kind);
  // Shortest duration a cue of this kind plays for, seconds (0.4 or 0.5).
  static double minimumDuration(Kind kind);
  // True for the cues written for the cartoon ghost, false for the mask's.
  static bool isGhostCue(Kind kind);

  const std::string& name() const { return name(kind); }
  // Seconds the cue actually plays: the requested duration, raised to the
  // kind's minimum; a requested value that is not a number gives the minimum.
  double duration() const;

  // Both parts compared: a 1 s spook differs from a 2 s spook.
  bool operator==(const AnimationCue& other) const {
    return kind == other.kind && requestedDuration == other.requestedDuration;
  }
};

}  // namespace velmora
