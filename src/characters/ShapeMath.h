#pragma once
// Shape helpers shared by the character builders. Everything is single
// precision on purpose: the mask's mesh and targets are defined in float
// arithmetic, and the float overloads of exp/pow keep it that way.

#include <algorithm>
#include <cmath>

namespace velmora::shape {

inline float clamp01(float t) { return std::min(std::max(t, 0.0f), 1.0f); }

// exp(x) for single-precision x. Below -105 the float result is exactly +0;
// returning it directly skips libm's underflow (errno) path, which is slow
// and hit constantly by the Gaussian tails. Same values as std::exp(float).
inline float expf32(float x) { return x < -105.0f ? 0.0f : std::exp(x); }

// Hermite smoothstep t^2 (3 - 2t); callers clamp t to 0..1 first.
inline float smoothstep(float t) { return t * t * (3.0f - 2.0f * t); }

// Gaussian bump exp(-0.5 ((dx/sx)^2 + (dy/sy)^2)).
inline float gaussian(float dx, float dy, float sx, float sy) {
  const float a = dx / sx;
  const float b = dy / sy;
  return expf32(-0.5f * (a * a + b * b));
}

// Side sign of a point: +1 for x >= 0 (the ARKit "Left" half), else -1.
inline float sideOf(float x) { return x >= 0.0f ? 1.0f : -1.0f; }

}  // namespace velmora::shape
