#pragma once
// One Euro filter for one scalar signal: an adaptive low-pass filter whose
// cut-off frequency rises with the signal's speed, so slow movement is
// smoothed strongly and fast movement follows with little lag.
//
// Timestamps are seconds on the monotonic clock (base/Clock.h uptime()).
// The arithmetic order and precision (dt in double, the rest in float) are
// fixed so every build gives the same bits. Main thread (owned by
// FaceTrackingState); not thread-safe.

#include <cstddef>
#include <optional>

namespace velmora {

class OneEuroFilter1D {
 public:
  OneEuroFilter1D(float minCutoff, float beta, float dCutoff);

  // Filters one sample. A non-finite sample returns the previous output
  // (0 when empty) and changes nothing. The first finite sample after
  // construction or reset() primes the filter and is returned unchanged.
  float filter(float value, double timestamp);

  // The part of a step that depends only on the two timestamps and dCutoff.
  // Filters that saw the same sample times (the blendshape filters of one
  // stream) can share it; the results are bit for bit those of filter().
  struct TimeStep {
    double previousTime = 0.0;
    double timestamp = 0.0;
    float dCutoff = 0.0f;
    float rate = 0.0f;    // 1 / dt
    float te = 0.0f;      // 1 / max(rate, 0.0001)
    float alphaD = 0.0f;  // derivative smoothing factor
  };
  static TimeStep timeStep(double previousTime, double timestamp, float dCutoff);
  // As filter(value, timestamp), using `shared` when it was made for this
  // filter's previous time, this timestamp and its dCutoff.
  float filter(float value, double timestamp, const TimeStep& shared);

  // Many primed filters at once, all sharing `shared`, which must have been
  // made for each one's previous time, this timestamp and its dCutoff
  // (check with canShare). outputs[k] is, bit for bit, what
  // filters[k]->filter(values[k], shared.timestamp, shared) returns, and each
  // filter ends in the same state; the independent steps are laid out side
  // by side so the processor works on several at once (a face's 52
  // blendshapes share one step). At most maxBatch filters per call.
  static constexpr std::size_t maxBatch = 64;
  static void filterMany(OneEuroFilter1D* const* filters, const float* values, std::size_t count,
                         const TimeStep& shared, float* outputs);
  // True when filterMany may step this filter with `shared` for a finite value.
  bool canShare(const TimeStep& shared) const {
    return previousOutput_ && previousTime_ && *previousTime_ == shared.previousTime && dCutoff == shared.dCutoff;
  }

  std::optional<double> previousTime() const { return previousTime_; }

  // Back to empty; the parameters are kept.
  void reset();

  bool isPrimed() const { return previousOutput_.has_value() && previousTime_.has_value(); }

  float minCutoff;  // Hz
  float beta;       // cut-off increase per unit of speed
  float dCutoff;    // Hz, cut-off of the derivative estimate

 private:
  float step(float value, float rate, float te, float alphaD);

  std::optional<float> previousOutput_;
  float previousDerivative_ = 0.0f;
  std::optional<double> previousTime_;
};

}  // namespace velmora
