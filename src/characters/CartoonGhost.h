#pragma once
// The cartoon ghost: a friendly classic sheet ghost in the mask's scene units
// (framed by the same camera, within x -0.8..0.8, y -1.05..1.0,
// z -0.45..0.45 at rest).
//
// Node tree:
//   "CartoonGhost"          the body: a thin shell (outer surface, darker inner
//                           surface, rim walls at the hem and the mouth) with
//                           the body morpher
//     "LeftEye"             glossy near-black ellipsoid at x = +0.21 (the ARKit
//     "RightEye"            "Left" side) and x = -0.21; pivot at the centre, so
//                           the scene's look rotation and blink squash act on it
//     "MouthCavityBacking"  dark curved patch just inside the body behind the
//                           mouth; its morpher follows the body's
//
// The body is a surface of revolution about y, flattened in depth: a dome
// head (top at y = 0.95, radius 0.6) flaring to a hem near y = -0.86 with
// radius 0.75, cut into six rounded tails reaching y = -0.99, with stub arms
// at shoulder height. The mouth is an oval opening (half-width 0.16,
// half-height 0.05) centred at (0, 0.08) whose rim is snapped onto the
// ellipse. Expressions are displacement fields over the body's rest
// positions; blink and gaze act through the eye nodes.
//
// All immutable data (meshes, 41 targets) is built once per process and
// shared by every node built afterwards; any thread may call these.

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/Math.h"
#include "characters/CharacterBuild.h"
#include "stage/Geometry.h"

namespace velmora {

// The body's rest surface, before shell assembly.
struct GhostBodyTopology {
  std::vector<float3> outer;           // outer-surface rest positions (n)
  std::vector<float3> directions;      // outward unit normals at rest; the inner shell is offset along them
  std::vector<float2> uvs;             // (angle / 2 pi, row / rows)
  std::vector<std::int32_t> outerTriangles, innerTriangles, rimTriangles, allTriangles;
  std::vector<std::int32_t> rimVertices;   // boundary vertices (hem ring and mouth rim), k
  std::vector<std::int32_t> mouthRim;      // outer vertices snapped onto the mouth ellipse
  std::size_t outerCount() const { return outer.size(); }
  std::size_t shellCount() const { return 2 * outer.size() + 2 * rimVertices.size(); }
};

class CartoonGhost {
 public:
  static constexpr float eyeX = 0.21f;
  static constexpr float eyeY = 0.42f;
  static constexpr float mouthCentreY = 0.08f;
  static constexpr float mouthHalfWidth = 0.16f;
  static constexpr float mouthHalfHeight = 0.05f;
  static constexpr float shellThickness = 0.02f;

  struct Entry {
    std::string name;  // ARKit blendshape name
    std::function<float3(float3 restPosition)> displacement;
  };
  // The 41 expression targets in morpher order.
  static const std::vector<Entry>& displacements();

  // Rest surface of the body (lazily built, thread-safe).
  static const GhostBodyTopology& body();
  // Body surface point for angle theta (0 faces +z, pi/2 faces +x) and
  // height y in the part above the hem rows (no tails, no arms near the
  // front).
  static float3 surfacePoint(float theta, float y);
  // Outline radius in x of the body at height y (before arms and tails).
  static float radiusAt(float y);

  // Shared immutable geometries.
  static std::shared_ptr<const Geometry> bodyGeometry();
  static std::shared_ptr<const Geometry> eyeGeometry();
  static std::shared_ptr<const Geometry> cavityGeometry();
  static std::shared_ptr<const MorphTargetList> bodyTargets();
  static std::shared_ptr<const MorphTargetList> cavityTargets();
  static const std::unordered_map<std::string, int>& targetNameToIndex();
};

// A new ghost node tree with its morpher (followed by the mouth cavity's)
// and the map from lower-cased blendshape name to target index.
CharacterBuild createGhostNode();

// Among the body's outer-surface rest vertices at most 0.06 below the
// topmost one, the largest |x|: the width of the dome near its top.
float ghostHeadTopHalfWidth();

}  // namespace velmora
