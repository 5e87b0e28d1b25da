#include "animation/AnimationCue.h"

#include <cmath>

namespace velmora {

using K = AnimationCue::Kind;

const std::array<K, 15> AnimationCue::allKinds = {
    K::ghostFlyIn, K::ghostFlyOut, K::ghostSpook, K::ghostSpin, K::ghostWobble,
    K::ghostPeek,  K::ghostLaugh,  K::ghostShiver, K::maskBow,  K::maskGasp,
    K::maskNod,    K::maskShake,   K::maskLaugh,   K::maskSob,  K::maskGlare,
};

const AnimationCue::Facts& AnimationCue::facts(Kind kind) {
  constexpr auto ghost = CharacterModelType::cartoonGhost;
  constexpr auto mask = CharacterModelType::theatricalMask;
  // Indexed by the kind's value; u8 literals would be char8_t in C++20.
  // name, minimum s, default s, character, leaves it offstage
  static const std::array<Facts, 15> table = {{
      {"Ghost Fly In", 0.5, 2.5, ghost, false},
      {"Ghost Fly Out", 0.5, 2.2, ghost, true},
      {"Ghost Spook (Boo!)", 0.4, 1.8, ghost, false},
      {"Ghost 360\xC2\xB0 Spin", 0.5, 2.0, ghost, false},  // degree sign, U+00B0
      {"Ghost Eerie Wobble", 0.5, 2.4, ghost, false},
      {"Ghost Side Peek", 0.5, 2.8, ghost, false},
      {"Ghost Chuckle & Laugh", 0.5, 2.2, ghost, false},
      {"Ghost Scared Shiver", 0.4, 2.0, ghost, false},
      {"Mask Dramatic Bow", 0.5, 2.5, mask, false},
      {"Mask Gasp", 0.4, 1.8, mask, false},
      {"Mask Nod", 0.4, 1.6, mask, false},
      {"Mask Shake", 0.4, 1.6, mask, false},
      {"Mask Belly Laugh", 0.5, 2.4, mask, false},
      {"Mask Tragedy Sob", 0.5, 2.6, mask, false},
      {"Mask Menacing Glare", 0.4, 2.2, mask, false},
  }};
  return table[static_cast<std::size_t>(kind)];
}

double AnimationCue::duration() const {
  const double minimum = minimumDuration(kind);
  if (std::isnan(requestedDuration)) return minimum;
  return requestedDuration > minimum ? requestedDuration : minimum;
}

}  // namespace velmora
