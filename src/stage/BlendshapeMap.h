#pragma once
// Expression data: blendshape name (normally one of the 52 ARKit names, but
// senders may send others) to coefficient, nominally 0..1. Decoders fill it,
// the face tracking state publishes it, cues produce it and the scene blends
// it onto the character's morph targets.

#include "stage/BlendshapeTable.h"

namespace velmora {

using BlendshapeMap = BlendshapeTable<float>;

}  // namespace velmora
