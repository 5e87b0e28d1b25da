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

void OneEuroFilter1D::filterMany(OneEuroFilter1D* const* filters, const float* values, std::size_t count,
                                 const TimeStep& shared, float* outputs) {
  // Structure of arrays over a fixed number of lanes (no remainder loop, so
  // the compiler can use vector instructions); unused lanes hold harmless
  // numbers and are never read back. The arithmetic is step()'s, in its order.
  alignas(32) float value[maxBatch] = {}, previous[maxBatch] = {}, derivative[maxBatch] = {};
  alignas(32) float minCutoffs[maxBatch], betas[maxBatch], out[maxBatch];
  for (std::size_t k = 0; k < maxBatch; ++k) {
    minCutoffs[k] = 1.0f;
    betas[k] = 0.0f;
  }
  for (std::size_t k = 0; k < count; ++k) {
    const OneEuroFilter1D& f = *filters[k];
    value[k] = values[k];
    previous[k] = *f.previousOutput_;
    derivative[k] = f.previousDerivative_;
    minCutoffs[k] = f.minCutoff;
    betas[k] = f.beta;
  }
  const float rate = shared.rate, te = shared.te, alphaD = shared.alphaD;
  for (std::size_t k = 0; k < maxBatch; ++k) {
    const float dx = (value[k] - previous[k]) * rate;
    const float dxHat = alphaD * dx + (1.0f - alphaD) * derivative[k];
    derivative[k] = dxHat;
    const float cutoff = minCutoffs[k] + betas[k] * std::fabs(dxHat);
    const float tau = 1.0f / (cutoff * twoPi);
    const float alpha = 1.0f / (1.0f + tau / te);
    out[k] = alpha * value[k] + (1.0f - alpha) * previous[k];
  }
  for (std::size_t k = 0; k < count; ++k) {
    OneEuroFilter1D& f = *filters[k];
    f.previousDerivative_ = derivative[k];
    f.previousOutput_ = out[k];
    f.previousTime_ = shared.timestamp;
    outputs[k] = out[k];
  }
}

void OneEuroFilter1D::reset() {
  previousOutput_.reset();
  previousDerivative_ = 0.0f;
  previousTime_.reset();
}

}  // namespace velmora
