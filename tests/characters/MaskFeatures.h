#pragma once
// The mask's feature holes written out independently of the geometry code:
// the literal feature constants and the ellipse formulas, so the tests can
// check the mesh against them instead of against the code that built it.
#include <cmath>

#include "base/Math.h"

namespace velmora::test {

// Local coordinates of p in a frame centred at (s cx, cy), turned by s angle
// (s = +1 for x >= 0, -1 below).
inline float2 maskLocal(float2 p, float cx, float cy, float angle) {
  const float s = p.x >= 0.0f ? 1.0f : -1.0f;
  const float c = std::cos(s * angle);
  const float sn = std::sin(s * angle);
  const float dx = p.x - s * cx;
  const float dy = p.y - cy;
  return {c * dx + sn * dy, -sn * dx + c * dy};
}

// Eye: centre (0.4, 0.33), tilted -2 degrees, semi-axes 0.175 along, 0.046
// upper, 0.056 lower. Local y >= 0 is the upper lid.
inline float2 maskEyeLocal(float2 p) { return maskLocal(p, 0.4f, 0.33f, -0.034906585f); }

// World point of eye-local (lx, ly) on the eye of side s.
inline float2 maskEyePoint(float s, float lx, float ly) {
  const float c = std::cos(-0.034906585f);
  const float sn = s * std::sin(-0.034906585f);
  return {c * lx - sn * ly + s * 0.4f, sn * lx + c * ly + 0.33f};
}

inline float maskEyeRadius(float2 p) {
  const float2 l = maskEyeLocal(p);
  return std::hypot(l.x / 0.175f, l.y / (l.y >= 0.0f ? 0.046f : 0.056f));
}

// Nostril: centre (0.063, -0.084), turned 0.3 rad, semi-axes 0.033 x 0.018.
inline float maskNostrilRadius(float2 p) {
  const float2 l = maskLocal(p, 0.063f, -0.084f, 0.3f);
  return std::hypot(l.x / 0.033f, l.y / 0.018f);
}

}  // namespace velmora::test
