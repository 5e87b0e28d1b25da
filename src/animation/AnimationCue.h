#pragma once
// The closed catalogue of scripted animation cues, and every fact about each
// kind in one table: display name, minimum and default duration, the
// character it is written for and whether it leaves that character
// offstage. Its curves are in CharacterAnimationController.cpp (fillCurves).
// A cue value is a kind plus the duration its caller asked for (seconds);
// the effective duration never falls below the kind's minimum. Pure data,
// any thread.

#include <array>
#include <string>

#include "stage/CharacterModelType.h"

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

  // What never changes about a kind of cue.
  struct Facts {
    std::string name;               // display name (UTF-8), e.g. "Ghost 360° Spin"
    double minimumDuration;         // seconds it plays at least (0.4 or 0.5)
    double defaultDuration;         // seconds a trigger passes when given none
    CharacterModelType character;   // triggering the cue switches to it
    bool leavesCharacterOffstage;   // hidden after the cue ends, until the next trigger or reset
  };

  static const std::array<Kind, 15> allKinds;

  Kind kind = Kind::ghostFlyIn;
  double requestedDuration = 0;  // seconds, as given by the caller (may be 0, negative or NaN)

  static AnimationCue make(Kind kind, double requestedDuration) { return AnimationCue{kind, requestedDuration}; }

  static const Facts& facts(Kind kind);
  static const std::string& name(Kind kind) { return facts(kind).name; }
  static double minimumDuration(Kind kind) { return facts(kind).minimumDuration; }
  static double defaultDuration(Kind kind) { return facts(kind).defaultDuration; }
  static CharacterModelType character(Kind kind) { return facts(kind).character; }
  // True for the cues written for the cartoon ghost, false for the mask's.
  static bool isGhostCue(Kind kind) { return character(kind) == CharacterModelType::cartoonGhost; }

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
