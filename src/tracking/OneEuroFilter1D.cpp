#include "tracking/OneEuroFilter1D.h"

#include <algorithm>
#include <cmath>

namespace velmora {

namespace {
// Shortest time step; equal or reversed timestamps count as this long.
constexpr double minimumStep = 0.0001;
constexpr float minimumRate = 0.0001f;
}  // namespace

OneEuroFilter1D::OneEuroFilter1D(float minCutoff, float beta, float dCutoff)
    : minCutoff(minCutoff), beta(beta), dCutoff(dCutoff) {}

OneEuroFilter1D::TimeStep OneEuroFilter1D::timeStep(double previousTime, double timestamp, float dCutoff) {
  double step = timestamp - previousTime;
  if (step <= minimumStep) step = minimumStep;
  // Single precision from here on; the smoothing factors are written as
  // 1 / (1 + tau / te) on purpose (not te / (te + tau)).
  TimeStep out;
  out.previousTime = previousTime;
  out.timestamp = timestamp;
  out.dCutoff = dCutoff;
  const float dt = static_cast<float>(step);
  out.rate = 1.0f / dt;
  out.te = 1.0f / std::max(out.rate, minimumRate);
  const float tauD = 1.0f / (dCutoff * twoPi);
  out.alphaD = 1.0f / (1.0f + tauD / out.te);
  return out;
}

float OneEuroFilter1D::filter(float value, double timestamp) {
  if (!std::isfinite(value)) return previousOutput_.value_or(0.0f);
  if (!previousTime_ || !previousOutput_) {
    previousTime_ = timestamp;
    previousOutput_ = value;
    previousDerivative_ = 0.0f;
    return value;
  }
  const TimeStep t = timeStep(*previousTime_, timestamp, dCutoff);
  previousTime_ = timestamp;
  return step(value, t.rate, t.te, t.alphaD);
}

float OneEuroFilter1D::filter(float value, double timestamp, const TimeStep& shared) {
  if (!std::isfinite(value) || !previousTime_ || !previousOutput_ || *previousTime_ != shared.previousTime ||
      timestamp != shared.timestamp || dCutoff != shared.dCutoff) {
    return filter(value, timestamp);
  }
  previousTime_ = timestamp;
  return step(value, shared.rate, shared.te, shared.alphaD);
}

float OneEuroFilter1D::step(float value, float rate, float te, float alphaD) {
  const float previous = *previousOutput_;
  const float dx = (value - previous) * rate;
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
