#pragma once
// One Euro filter for a three-component signal (head rotation, head
// position): one scalar filter per component, all fed the same timestamp.
// Unlike the scalar filter, a non-finite component is fed in as 0 (a real
// sample). Main thread; not thread-safe.

#include "base/Math.h"
#include "tracking/OneEuroFilter1D.h"

namespace velmora {

class OneEuroFilter3D {
 public:
  OneEuroFilter3D(float minCutoff, float beta, float dCutoff);

  float3 filter(float3 value, double timestamp);
  void reset();
  // Writes minCutoff and beta into all three; dCutoff is kept.
  void updateParameters(float minCutoff, float beta);

  const OneEuroFilter1D& x() const { return x_; }
  const OneEuroFilter1D& y() const { return y_; }
  const OneEuroFilter1D& z() const { return z_; }

 private:
  OneEuroFilter1D x_;
  OneEuroFilter1D y_;
  OneEuroFilter1D z_;
};

}  // namespace velmora
