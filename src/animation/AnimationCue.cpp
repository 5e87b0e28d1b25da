#include "animation/AnimationCue.h"

#include <cmath>

namespace velmora {

using K = AnimationCue::Kind;

const std::array<K, 15> AnimationCue::allKinds = {
    K::ghostFlyIn, K::ghostFlyOut, K::ghostSpook, K::ghostSpin, K::ghostWobble,
    K::ghostPeek,  K::ghostLaugh,  K::ghostShiver, K::maskBow,  K::maskGasp,
    K::maskNod,    K::maskShake,   K::maskLaugh,   K::maskSob,  K::maskGlare,
};

const std::string& AnimationCue::name(Kind kind) {
  // Indexed by the kind's value; u8 literals would be char8_t in C++20.
  static const std::array<std::string, 15> names = {
      "Ghost Fly In",
      "Ghost Fly Out",
      "Ghost Spook (Boo!)",
      "Ghost 360\xC2\xB0 Spin",  // degree sign, U+00B0
      "Ghost Eerie Wobble",
      "Ghost Side Peek",
      "Ghost Chuckle & Laugh",
      "Ghost Scared Shiver",
      "Mask Dramatic Bow",
      "Mask Gasp",
      "Mask Nod",
      "Mask Shake",
      "Mask Belly Laugh",
      "Mask Tragedy Sob",
      "Mask Menacing Glare",
  };
  return names[static_cast<std::size_t>(kind)];
}

double AnimationCue::minimumDuration(Kind kind) {
  switch (kind) {
    case K::ghostSpook:
    case K::ghostShiver:
    case K::maskGasp:
    case K::maskNod:
    case K::maskShake:
    case K::maskGlare:
      return 0.4;
    default:
      return 0.5;
  }
}

bool AnimationCue::isGhostCue(Kind kind) { return static_cast<int>(kind) <= static_cast<int>(K::ghostShiver); }

double AnimationCue::duration() const {
  const double minimum = minimumDuration(kind);
  if (std::isnan(requestedDuration)) return minimum;
  return requestedDuration > minimum ? requestedDuration : minimum;
}

}  // namespace velmora
