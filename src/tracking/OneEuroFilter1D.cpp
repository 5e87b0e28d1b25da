#include "tracking/OneEuroFilter1D.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

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
  // Four filters per vector register (GCC vector extensions: each lane's
  // arithmetic is the scalar IEEE operation, so the bits are step()'s, in
  // its order). The lanes past `count` in the last group hold harmless
  // numbers and are never read back.
  using Lanes = float __attribute__((vector_size(16)));
  using LaneBits = std::uint32_t __attribute__((vector_size(16)));
  constexpr std::size_t width = 4;
  constexpr std::size_t groups = (maxBatch + width - 1) / width;
  Lanes value[groups], previous[groups], derivative[groups], minCutoffs[groups], betas[groups], out[groups];
  const std::size_t used = (count + width - 1) / width;
  for (std::size_t g = 0; g < used; ++g) {
    value[g] = previous[g] = derivative[g] = betas[g] = Lanes{};
    minCutoffs[g] = Lanes{1.0f, 1.0f, 1.0f, 1.0f};
  }
  for (std::size_t k = 0; k < count; ++k) {
    const OneEuroFilter1D& f = *filters[k];
    const std::size_t g = k / width, lane = k % width;
    value[g][lane] = values[k];
    previous[g][lane] = *f.previousOutput_;
    derivative[g][lane] = f.previousDerivative_;
    minCutoffs[g][lane] = f.minCutoff;
    betas[g][lane] = f.beta;
  }
  const float rate = shared.rate, te = shared.te, alphaD = shared.alphaD;
  const float keepD = 1.0f - alphaD;
  for (std::size_t g = 0; g < used; ++g) {
    const Lanes dx = (value[g] - previous[g]) * rate;
    const Lanes dxHat = alphaD * dx + keepD * derivative[g];
    derivative[g] = dxHat;
    const Lanes speed = reinterpret_cast<Lanes>(reinterpret_cast<LaneBits>(dxHat) & 0x7FFFFFFFu);  // fabs
    const Lanes cutoff = minCutoffs[g] + betas[g] * speed;
    const Lanes tau = 1.0f / (cutoff * twoPi);
    const Lanes alpha = 1.0f / (1.0f + tau / te);
    out[g] = alpha * value[g] + (1.0f - alpha) * previous[g];
  }
  for (std::size_t k = 0; k < count; ++k) {
    OneEuroFilter1D& f = *filters[k];
    const std::size_t g = k / width, lane = k % width;
    f.previousDerivative_ = derivative[g][lane];
    f.previousOutput_ = out[g][lane];
    f.previousTime_ = shared.timestamp;
    outputs[k] = out[g][lane];
  }
}

void OneEuroFilter1D::reset() {
  previousOutput_.reset();
  previousDerivative_ = 0.0f;
  previousTime_.reset();
}

}  // namespace velmora
