#pragma once
// The theatrical mask's expression targets: one displacement function per
// supported blendshape (43, in a fixed order), the weighting functions they
// share, and the builders that turn them into a morphing character.
//
// A displacement maps a front grid vertex (its 2D grid point and its
// lower-jaw flag) to a 3D offset in scene units; a target's front is the
// neutral front plus that offset, and its back shell and rim follow through
// the same shell assembly as the neutral mesh.
//
// Building is expensive (43 full shells of about 62 000 vertices), so the
// neutral geometry and the targets are built once per process, in parallel,
// and shared (immutable) by every node built afterwards. Any thread may call
// these functions; the one-time builds are thread-safe.

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/Math.h"
#include "characters/CharacterBuild.h"
#include "stage/Geometry.h"
#include "stage/Morpher.h"

namespace velmora {

class MaskExpressionTargets {
 public:
  struct Entry {
    std::string name;  // ARKit blendshape name, e.g. "eyeBlinkLeft"
    std::function<float3(float2 point, bool lower)> displacement;
  };

  // 16 sided names for "Left" (s = +1, the x >= 0 half) then "Right", then
  // the 11 unsided names: 43 entries. Lazily built, immutable.
  static const std::vector<Entry>& blendShapeDisplacements();

  // --- shared weights (p is a grid point; m = y - (0.14 x^2 - 0.41)) ----
  static float jawWeight(float2 p, bool lower);
  static float upperLipBand(float2 p, bool lower);
  static float lowerLipBand(float2 p, bool lower);

  // The eye frame of side s as the lid weights see it: local coordinates,
  // the normalised half-length r = |lx| / 0.175 and the lid margins at lx.
  struct EyeFrame {
    float s, cosTheta, sinTheta;
    float lx, ly, r;
    float upperMargin, lowerMargin;  // hu, hl (0 beyond the eye's ends)
    // A local vertical offset v in world x-y.
    float2 toWorld(float v) const { return {-sinTheta * v, cosTheta * v}; }
  };
  static EyeFrame eyeFrame(float2 p, float side);
  static float upperLidWeight(float2 p, float side);
  static float lowerLidWeight(float2 p, float side);
  static float mouthCornerBump(float2 p, float side);  // Gc

  // Lower-cased blendshape name -> target index, 43 entries.
  static const std::unordered_map<std::string, int>& targetNameToIndex();

  // The neutral shell geometry with sources, elements and materials
  // (shared, built once).
  static std::shared_ptr<const Geometry> neutralGeometry();
  // The 43 targets in table order: shared while anyone holds them, built
  // again (identical, about 0.3 s) when asked after everyone let them go.
  // Any thread.
  static std::shared_ptr<const MorphTargetList> targets();

  // Displaced front of one table entry: neutral front + displacement.
  static std::vector<float3> displacedFront(const Entry& entry, const std::vector<float3>& neutralFront);
};

// A new "TheatricalMask" node with the shared neutral geometry and a new
// morpher over the shared targets (all weights 0; its `source` gives them
// again once it let them go), and the target map.
CharacterBuild createTheatricalMaskNode();

// A new morpher for the wireframe geometry of
// TheatricalMaskGeometry::makeWireframeGeometry(), over the character's own
// shared targets: the wireframe's vertices are the shell's first ones, the
// front, and the targets move them alike; the back and rim entries lie past
// the wireframe's vertices and are ignored.
std::shared_ptr<Morpher> makeWireframeMorpher();

// Mean baked occlusion over the front vertices snapped onto the two nostril
// ellipses: natural shading sits above 0.5, and an opening darkens it below 1.
float maskNostrilOcclusionMetric();

}  // namespace velmora
