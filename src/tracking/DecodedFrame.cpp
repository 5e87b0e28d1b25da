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

  if (!older.frame.blendshapes || older.frame.blendshapes->empty()) return;
  if (!frame.blendshapes) {
    frame.blendshapes = std::move(older.frame.blendshapes);
    return;
  }
  BlendshapeMap& newer = *frame.blendshapes;
  for (const auto& [name, value] : *older.frame.blendshapes) {
    const auto it = newer.find(name);
    if (it == newer.end()) {
      if (newer.size() < maxNames) newer.insert_or_assign(name, value);
    } else if (!std::isfinite(it->second) && std::isfinite(value)) {
      it->second = value;
    }
  }
}

}  // namespace velmora
