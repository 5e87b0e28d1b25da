#include "tracking/OneEuroFilter1D.h"

#include <algorithm>
#include <cmath>

namespace velmora {

namespace {
// 2 pi as a single-precision float.
constexpr float twoPi = 6.283185f;
// Shortest time step; equal or reversed timestamps count as this long.
constexpr double minimumStep = 0.0001;
constexpr float minimumRate = 0.0001f;
}  // namespace

OneEuroFilter1D::OneEuroFilter1D(float minCutoff, float beta, float dCutoff)
    : minCutoff(minCutoff), beta(beta), dCutoff(dCutoff) {}

float OneEuroFilter1D::filter(float value, double timestamp) {
  if (!std::isfinite(value)) return previousOutput_.value_or(0.0f);
  if (!previousTime_ || !previousOutput_) {
    previousTime_ = timestamp;
    previousOutput_ = value;
    previousDerivative_ = 0.0f;
    return value;
  }

  double step = timestamp - *previousTime_;
  if (step <= minimumStep) step = minimumStep;
  previousTime_ = timestamp;

  // Single precision from here on; the smoothing factors are written as
  // 1 / (1 + tau / te) on purpose (not te / (te + tau)).
  const float dt = static_cast<float>(step);
  const float rate = 1.0f / dt;
  const float previous = *previousOutput_;
  const float dx = (value - previous) * rate;
  const float te = 1.0f / std::max(rate, minimumRate);

  const float tauD = 1.0f / (dCutoff * twoPi);
  const float alphaD = 1.0f / (1.0f + tauD / te);
  const float dxHat = alphaD * dx + (1.0f - alphaD) * previousDerivative_;
  previousDerivative_ = dxHat;

  const float cutoff = minCutoff + beta * std::fabs(dxHat);
  const float tau = 1.0f / (cutoff * twoPi);
  const float alpha = 1.0f / (1.0f + tau / te);
  const float out = alpha * value + (1.0f - alpha) * previous;
  previousOutput_ = out;
  return out;
}

void OneEuroFilter1D::reset() {
  previousOutput_.reset();
  previousDerivative_ = 0.0f;
  previousTime_.reset();
}

}  // namespace velmora
