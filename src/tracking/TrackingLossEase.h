#pragma once
// What the character does when the phone stops sending: after `timeout`
// seconds without a packet the live face eases to neutral (every blendshape
// to 0, the head to the recentred neutral pose, which is rotation 0 in the
// published values) over easeOutDuration with the quintic ease, and eases
// back over easeInDuration once packets return. It is one stage applied
// after the published values: `blendshapes` and `headRotation` of the state
// stay as ingestPacket leaves them, and cues play over the eased face.
//
// While packets arrive within the timeout, or with the timeout 0 (off), the
// weight is exactly 1 and apply() leaves the face untouched.
//
// Threads: main thread (owned by the face tracking state). Times are
// seconds on the state's monotonic clock.

#include <optional>
#include <string>

#include "base/Math.h"
#include "stage/FaceFrame.h"

namespace velmora {

class TrackingLossEase {
 public:
  static constexpr double defaultTimeout = 0.5;   // seconds without a packet
  static constexpr double easeOutDuration = 1.0;  // seconds, live to neutral
  static constexpr double easeInDuration = 0.25;  // seconds, back to live

  // "Tracking lost (no data for 1.5 s)": the status line and the
  // dashboard's warning while the face is eased out; one decimal.
  static std::string lostText(double secondsWithoutData);

  // The quintic ease S(u) = u^3 (u (6u - 15) + 10), u clamped to 0..1.
  static double quintic(double u);

  // Seconds without a packet before the face eases out; 0 turns the ease
  // off (a face already eased out comes back). Negative or NaN counts as 0.
  void setTimeout(double seconds);
  double timeout() const { return timeout_; }

  // A packet arrived at `now`.
  void packetArrived(double now);
  // Moves the ease to `now` (call once per tick, before apply()). Returns
  // true when isLost() changed.
  bool update(double now);

  // The phone counts as gone: no packet for `timeout` seconds (and at least
  // one packet arrived before; never-connected is not lost).
  bool isLost() const { return lost_; }
  // When the last packet arrived, while lost; none otherwise.
  std::optional<double> lostSince() const;
  // 1: the live face; 0: neutral.
  double weight() const { return weight_; }

  // Scales every blendshape and the head rotation by weight().
  void apply(BlendshapeMap& blendshapes, float3& headRotation) const;

 private:
  enum class Phase { live, easingOut, easingIn };
  // The weight the current phase gives at time t.
  double weightAt(double t) const;

  double timeout_ = defaultTimeout;
  std::optional<double> lastPacket_;
  bool lost_ = false;
  Phase phase_ = Phase::live;
  double phaseStart_ = 0.0;  // when the current ease began
  double phaseFrom_ = 1.0;   // the weight it began from
  double weight_ = 1.0;  // as of the last update
};

}  // namespace velmora
