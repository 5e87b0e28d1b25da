#include "scene/LightingRig.h"

namespace velmora {

LightRig LightRig::initial() { return LightRig{}; }

LightRig LightRig::applied(const LightingSettings& settings, float master) {
  LightRig rig;
  const double m = master;
  rig.keyIntensity = static_cast<float>(26.0 * m * settings.key);
  rig.fillIntensity = static_cast<float>(75.0 * m * settings.fill);
  rig.rimIntensity = static_cast<float>(135.0 * m * settings.rim);
  rig.environmentIntensity = static_cast<float>(0.08333 * m * settings.ambient);

  rig.keyColor = float3(tinted(1.0f, 1.0f, 1.0f, settings.warmth));
  rig.fillColor = float3(tinted(0.9f, 0.95f, 1.0f, settings.warmth));
  // The rim keeps its own colour whatever the warmth.

  rig.keyPosition = float3(static_cast<float>(settings.keySide), static_cast<float>(settings.keyHeight), 3.0f);
  rig.keyTarget = float3(0.0f, 0.1f, 0.0f);

  rig.shadowAlpha = static_cast<float>(settings.shadow);
  rig.keyCastsShadows = settings.shadow > 0.01;
  return rig;
}

}  // namespace velmora
