#include "tracking/TrackingLossEase.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace velmora {

std::string TrackingLossEase::lostText(double secondsWithoutData) {
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%.1f", secondsWithoutData);
  return std::string("Tracking lost (no data for ") + seconds + " s)";
}

double TrackingLossEase::quintic(double u) {
  if (!(u > 0.0)) return 0.0;  // NaN too
  if (u >= 1.0) return 1.0;
  return u * u * u * (u * (6.0 * u - 15.0) + 10.0);
}

void TrackingLossEase::setTimeout(double seconds) { timeout_ = std::isfinite(seconds) && seconds > 0.0 ? seconds : 0.0; }

void TrackingLossEase::packetArrived(double now) { lastPacket_ = now; }

double TrackingLossEase::weightAt(double t) const {
  switch (phase_) {
    case Phase::live:
      return 1.0;
    case Phase::easingOut:
      return phaseFrom_ * (1.0 - quintic((t - phaseStart_) / easeOutDuration));
    case Phase::easingIn:
      return phaseFrom_ + (1.0 - phaseFrom_) * quintic((t - phaseStart_) / easeInDuration);
  }
  return 1.0;
}

bool TrackingLossEase::update(double now) {
  const bool wasLost = lost_;
  const bool lostNow = timeout_ > 0.0 && lastPacket_ && now - *lastPacket_ >= timeout_;
  if (lostNow && !lost_) {
    // The ease starts when the timeout ran out, not at the tick that saw it,
    // so its course does not depend on the tick rate; it starts from where
    // the face was at that moment.
    const double start = *lastPacket_ + timeout_;
    phaseFrom_ = weightAt(start);
    phaseStart_ = start;
    phase_ = Phase::easingOut;
    lost_ = true;
  } else if (!lostNow && lost_) {
    // Packets are back (or the ease was switched off): ease in from where
    // the face was when they came back.
    const double start = timeout_ > 0.0 && lastPacket_ ? std::clamp(*lastPacket_, phaseStart_, now) : now;
    phaseFrom_ = weightAt(start);
    phaseStart_ = start;
    phase_ = Phase::easingIn;
    lost_ = false;
  }
  weight_ = weightAt(now);
  if (phase_ == Phase::easingIn && now - phaseStart_ >= easeInDuration) {
    phase_ = Phase::live;
    weight_ = 1.0;
  }
  return lost_ != wasLost;
}

std::optional<double> TrackingLossEase::lostSince() const {
  if (!lost_) return std::nullopt;
  return lastPacket_;
}

void TrackingLossEase::apply(BlendshapeMap& blendshapes, float3& headRotation) const {
  if (weight_ >= 1.0) return;  // the live face, bit for bit
  const float w = static_cast<float>(weight_);
  for (auto&& [name, value] : blendshapes) value *= w;
  headRotation *= w;
}

}  // namespace velmora
