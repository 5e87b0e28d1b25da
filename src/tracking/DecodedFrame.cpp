#include "tracking/DecodedFrame.h"

#include <algorithm>
#include <cmath>

namespace velmora {

namespace {

// Components `set` of `newer` win; those only `olderSet` has come from `older`.
void mergeHead(std::optional<float3>& newer, std::array<bool, 3>& newerSet, std::optional<float3>& older,
               const std::array<bool, 3>& olderSet) {
  if (!older) return;
  if (!newer) {
    newer = older;
    newerSet = olderSet;
    return;
  }
  for (int i = 0; i < 3; ++i) {
    if (!newerSet[i] && olderSet[i]) {
      (*newer)[i] = (*older)[i];
      newerSet[i] = true;
    }
  }
}

}  // namespace

void DecodedFrame::mergeOlder(DecodedFrame&& older, std::size_t maxNames) {
  mergeHead(frame.rotation, rotationSet, older.frame.rotation, older.rotationSet);
  mergeHead(frame.position, positionSet, older.frame.position, older.positionSet);
  frame.arrivalTime = std::max(frame.arrivalTime, older.frame.arrivalTime);
  if (!frame.leftEyeRotation) frame.leftEyeRotation = older.frame.leftEyeRotation;
  if (!frame.rightEyeRotation) frame.rightEyeRotation = older.frame.rightEyeRotation;

  if (!older.frame.blendshapes || older.frame.blendshapes->empty()) return;
  if (!frame.blendshapes) {
    frame.blendshapes = std::move(older.frame.blendshapes);
    return;
  }
  BlendshapeMap& newer = *frame.blendshapes;
  const auto keepOlder = [&](float* mine, float value) {
    // Present in both: ingesting skips a non-finite newer value, so the
    // older finite one is what both in order would leave.
    if (!std::isfinite(*mine) && std::isfinite(value)) *mine = value;
  };
  older.frame.blendshapes->forEachSlot([&](ARKitBlendShape shape, float value) {
    if (float* mine = newer.get(shape)) {
      keepOlder(mine, value);
    } else if (newer.size() < maxNames) {
      newer.set(shape, value);
    }
  });
  for (const auto& [name, value] : older.frame.blendshapes->others()) {
    if (float* mine = newer.get(name)) {
      keepOlder(mine, value);
    } else if (newer.size() < maxNames) {
      newer.insert_or_assign(name, value);
    }
  }
}

}  // namespace velmora
