#pragma once
// The per-packet maths of face tracking, apart from publication and
// persistence: One Euro filters for the head and for each blendshape name,
// the neutral-pose offset and head options, per-blendshape floor/ceiling
// ranges and the global and regional sensitivities. FaceTrackingState owns
// one and publishes what it computes; tests drive it directly.
//
// Order per blendshape: filter, then map the filtered value through its
// range, then scale by the sensitivities, so a range maps the filtered
// signal onto 0..1 and sensitivity amplifies within that scale.
//
// Threads: one thread at a time (the main thread in the application).
// Times are seconds on one monotonic clock.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "base/Math.h"
#include "stage/FaceFrame.h"
#include "tracking/BlendshapeRange.h"
#include "tracking/BlendshapeRegion.h"
#include "tracking/OneEuroFilter1D.h"
#include "tracking/OneEuroFilterBank.h"
#include "tracking/OneEuroFilter3D.h"

namespace velmora {

class FacePipeline {
 public:
  static constexpr float minRangeGap = 0.02f;  // smallest allowed ceiling - floor

  // How the head is turned before filtering.
  struct HeadOptions {
    bool lockRotation = false;  // the filter is fed zeros
    float rotationScale = 1.0f;
    // Each set flag keeps the sender's sign for its axis: pitch, yaw, roll.
    bool reverseUpDown = false;
    bool reverseLeftRight = false;
    bool reverseTilt = false;
    // Subtracted from every rotation when present (the recentred pose).
    std::optional<float3> neutralRotation;
  };

  struct Sensitivities {
    float global = 1.0f;
    float mouth = 1.2f;  // names beginning "mouth" or "jaw"
    float brow = 1.2f;   // names beginning "brow"
    float eye = 1.0f;    // names beginning "eye"
  };

  // Where one packet's blendshapes go: the raw values as received and the
  // processed ones, each in [0, 1].
  struct BlendshapeOutputs {
    BlendshapeMap& raw;
    BlendshapeMap& processed;
  };

  // The filters start with their creation parameters; call
  // updateFilterParameters to derive them from a smoothing value.
  FacePipeline() = default;

  // The filtered head rotation (pitch, yaw, roll, radians) for a received one.
  float3 rotation(const float3& received, const HeadOptions& options, double now);
  // The filtered head position. The character stays in place: the filter is
  // always driven with zeros and the received position is for display only.
  float3 position(double now);
  // Each finite value of `received` is stored raw and, processed, in
  // `outputs`; non-finite values are skipped. False when nothing was stored.
  bool blendshapes(const BlendshapeMap& received, double now, const BlendshapeRanges& ranges,
                   const Sensitivities& sensitivities, BlendshapeOutputs outputs);

  // Rewrites every filter's parameters from smoothing (0 = light, 1 = heavy):
  // head minCutoff max((1 - s) * 3, 0.2), beta max((1 - s) * 0.02, 0.001);
  // blendshapes respond a little faster (minCutoff * 1.2, beta * 1.5).
  void updateFilterParameters(float smoothing);
  // Forgets the head filters' history, so the head settles at once.
  void resetHeadFilters();

  // setRange's clamping: floor >= 0 and <= ceiling - minRangeGap, ceiling
  // <= 1 and >= floor + minRangeGap; the neutral range (0, 1) removes the
  // name's entry.
  static void applyRange(BlendshapeRanges& ranges, std::string_view name, std::optional<float> floor,
                         std::optional<float> ceiling);

  const OneEuroFilter3D& rotationFilter() const { return rotationFilter_; }
  const OneEuroFilter3D& positionFilter() const { return positionFilter_; }
  // A copy of a blendshape name's filter, none before its first sample.
  std::optional<OneEuroFilter1D> blendshapeFilter(std::string_view name) const;

 private:
  // A name outside the vocabulary: its filter and region.
  struct Channel {
    OneEuroFilter1D filter{1.5f, 0.02f, 1.0f};
    BlendshapeRegion region = BlendshapeRegion::none;
  };

  OneEuroFilter3D rotationFilter_{1.2f, 0.01f, 1.0f};
  OneEuroFilter3D positionFilter_{1.0f, 0.008f, 1.0f};
  // The vocabulary's filters side by side, by case index, and their regions.
  OneEuroFilterBank slotFilters_;
  static const std::array<BlendshapeRegion, arkitBlendShapeCount> slotRegions_;
  // Names outside the vocabulary (rare).
  std::unordered_map<std::string, Channel> otherChannels_;
};

}  // namespace velmora
