#include "tracking/OneEuroFilterBank.h"

#include <bit>

namespace velmora {

void OneEuroFilterBank::create(std::size_t lane, float minCutoff, float beta, float dCutoff) {
  load(lane, OneEuroFilter1D(minCutoff, beta, dCutoff));
  exists_ |= bit(lane);
}

OneEuroFilter1D OneEuroFilterBank::filterAt(std::size_t lane) const {
  OneEuroFilter1D f(minCutoff_[lane], beta_[lane], dCutoff_[lane]);
  if (isPrimed(lane)) {
    f.previousOutput_ = previousOutput_[lane];
    f.previousTime_ = previousTime_[lane];
  }
  f.previousDerivative_ = previousDerivative_[lane];
  return f;
}

void OneEuroFilterBank::load(std::size_t lane, const OneEuroFilter1D& f) {
  minCutoff_[lane] = f.minCutoff;
  beta_[lane] = f.beta;
  dCutoff_[lane] = f.dCutoff;
  previousDerivative_[lane] = f.previousDerivative_;
  if (f.isPrimed()) {
    primed_ |= bit(lane);
    previousOutput_[lane] = *f.previousOutput_;
    previousTime_[lane] = *f.previousTime_;
  } else {
    primed_ &= ~bit(lane);
    previousOutput_[lane] = 0.0f;
    previousTime_[lane] = 0.0;
  }
}

float OneEuroFilterBank::filter(std::size_t lane, float value, double timestamp) {
  // The rare single step (a name's first sample, or one that missed
  // packets) goes through the standalone filter's own code.
  OneEuroFilter1D f = filterAt(lane);
  const float out = f.filter(value, timestamp);
  load(lane, f);
  return out;
}

void OneEuroFilterBank::filterShared(std::uint64_t lanes, const float* values, const OneEuroFilter1D::TimeStep& shared,
                                     float* outputs) {
  // Four lanes per vector register (GCC vector extensions: each lane's
  // arithmetic is the scalar IEEE operation, in OneEuroFilter1D::step's
  // order, so the bits are the same). Every lane is computed; only those in
  // `lanes` are kept.
  using Lanes = float __attribute__((vector_size(16)));
  using LaneBits = std::uint32_t __attribute__((vector_size(16)));
  constexpr std::size_t width = 4;
  static_assert(laneCount % width == 0);
  const float rate = shared.rate, te = shared.te, alphaD = shared.alphaD;
  const float keepD = 1.0f - alphaD;
  alignas(16) float derivative[laneCount];
  for (std::size_t first = 0; first < laneCount; first += width) {
    Lanes value, previous, d, minCutoff, beta;
    __builtin_memcpy(&value, values + first, sizeof value);
    __builtin_memcpy(&previous, previousOutput_ + first, sizeof previous);
    __builtin_memcpy(&d, previousDerivative_ + first, sizeof d);
    __builtin_memcpy(&minCutoff, minCutoff_ + first, sizeof minCutoff);
    __builtin_memcpy(&beta, beta_ + first, sizeof beta);
    const Lanes dx = (value - previous) * rate;
    const Lanes dxHat = alphaD * dx + keepD * d;
    const Lanes speed = reinterpret_cast<Lanes>(reinterpret_cast<LaneBits>(dxHat) & 0x7FFFFFFFu);  // fabs
    const Lanes cutoff = minCutoff + beta * speed;
    const Lanes tau = 1.0f / (cutoff * OneEuroFilter1D::twoPi);
    const Lanes alpha = 1.0f / (1.0f + tau / te);
    const Lanes out = alpha * value + (1.0f - alpha) * previous;
    __builtin_memcpy(outputs + first, &out, sizeof out);
    __builtin_memcpy(derivative + first, &dxHat, sizeof dxHat);
  }
  for (std::uint64_t bits = lanes; bits; bits &= bits - 1) {
    const auto lane = static_cast<std::size_t>(std::countr_zero(bits));
    previousOutput_[lane] = outputs[lane];
    previousDerivative_[lane] = derivative[lane];
    previousTime_[lane] = shared.timestamp;
  }
}

void OneEuroFilterBank::updateParameters(float minCutoff, float beta) {
  for (std::uint64_t bits = exists_; bits; bits &= bits - 1) {
    const auto lane = static_cast<std::size_t>(std::countr_zero(bits));
    minCutoff_[lane] = minCutoff;
    beta_[lane] = beta;
  }
}

}  // namespace velmora
