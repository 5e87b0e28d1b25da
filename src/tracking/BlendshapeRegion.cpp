#include "tracking/BlendshapeRegion.h"

namespace velmora {

BlendshapeRegion blendshapeRegion(std::string_view name) {
  if (name.starts_with("mouth") || name.starts_with("jaw")) return BlendshapeRegion::mouth;
  if (name.starts_with("brow")) return BlendshapeRegion::brow;
  if (name.starts_with("eye")) return BlendshapeRegion::eye;
  return BlendshapeRegion::none;
}

}  // namespace velmora
