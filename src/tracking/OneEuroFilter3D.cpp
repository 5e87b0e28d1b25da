#include "tracking/OneEuroFilter3D.h"

#include <cmath>

namespace velmora {

namespace {
float finiteOrZero(float v) { return std::isfinite(v) ? v : 0.0f; }
}  // namespace

OneEuroFilter3D::OneEuroFilter3D(float minCutoff, float beta, float dCutoff)
    : x_(minCutoff, beta, dCutoff), y_(minCutoff, beta, dCutoff), z_(minCutoff, beta, dCutoff) {}

float3 OneEuroFilter3D::filter(float3 value, double timestamp) {
  return float3(x_.filter(finiteOrZero(value.x), timestamp), y_.filter(finiteOrZero(value.y), timestamp),
                z_.filter(finiteOrZero(value.z), timestamp));
}

void OneEuroFilter3D::reset() {
  x_.reset();
  y_.reset();
  z_.reset();
}

void OneEuroFilter3D::updateParameters(float minCutoff, float beta) {
  for (OneEuroFilter1D* f : {&x_, &y_, &z_}) {
    f->minCutoff = minCutoff;
    f->beta = beta;
  }
}

}  // namespace velmora
