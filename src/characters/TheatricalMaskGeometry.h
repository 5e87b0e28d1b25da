#pragma once
// The theatrical mask's surface and mesh: a relief z = height(x, y) sampled on
// a 191 x 161 grid over the mask's outline, with eye and nostril holes whose
// rims are snapped onto exact ellipses, closed into a thin shell (front, back
// at 0.045 behind along the height field's normal, rim walls).
//
// Units are scene units (the face is about 1.86 wide, 2.04 tall); x right,
// y up, z towards the viewer. Every formula is single-precision float and
// mirror-symmetric in x (s = +1 for x >= 0, -1 below).
//
// Vertex order of an assembled shell, the contract with the expression
// targets: [0, n) front, [n, 2n) back, [2n, 2n+k) front rim copies,
// [2n+k, 2n+2k) back rim copies, where n is the number of front vertices and
// k the number of rim vertices.
//
// Threads: all functions are pure; the topology and the triangle elements are
// lazily built statics (thread-safe one-time initialisation), immutable after.

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "base/Math.h"
#include "stage/Geometry.h"
#include "stage/Material.h"

namespace velmora {

// Built once per process; every per-vertex array is in front-vertex order.
struct TheatricalMaskTopology {
  std::vector<float2> gridPoints;             // after hole snapping; front = (x, y, height)
  std::vector<float3> shellDirections;        // unit height-field normals; the back shell follows them
  std::vector<float2> uvs;
  std::vector<bool> lowerJaw;                 // lower-jaw vertices (rows 137+, mouth-row duplicates)
  std::vector<std::int32_t> frontTriangles;   // counter-clockwise in x-y
  std::vector<std::int32_t> backTriangles;    // (n+a, n+c, n+b) per front triangle
  std::vector<std::int32_t> rimTriangles;     // two per boundary edge
  std::vector<std::int32_t> allTriangles;     // front ++ back ++ rim (for normal smoothing)
  std::vector<std::int32_t> rimVertices;      // boundary vertices, first-seen order; size k

  // Not part of the mesh: which hole-rim ellipse each front vertex was
  // snapped onto (the nostril shading metric needs it).
  enum class Snap : std::uint8_t { none, eye, nostril };
  std::vector<Snap> snapped;

  std::size_t frontCount() const { return gridPoints.size(); }       // n
  std::size_t rimCount() const { return rimVertices.size(); }        // k
  std::size_t shellCount() const { return 2 * frontCount() + 2 * rimCount(); }
};

class TheatricalMaskGeometry {
 public:
  // Feature constants (x >= 0 side; the other side mirrors x).
  static inline const float2 eyeCenter{0.4f, 0.33f};
  static inline const float2 noseTip{0.0f, -0.02f};
  static inline const float2 chinPoint{0.0f, -0.76f};
  static inline const float2 browPoint{0.38f, 0.5f};
  static constexpr float mouthY = -0.41f;
  static constexpr float mouthHalfWidth = 0.33f;
  static constexpr float mouthBend = 0.14f;

  // Eye opening: rotated ellipse, semi-axis along the eye, and different
  // semi-axes for the upper (local y >= 0) and lower halves.
  static constexpr float eyeAngle = -0.034906585f;  // times s; outer corners tilt down 2 degrees
  static constexpr float eyeSemiX = 0.175f;
  static constexpr float eyeSemiUpper = 0.046f;
  static constexpr float eyeSemiLower = 0.056f;
  // Nostril hole ellipse, centre (s*0.063, -0.084), rotated by s*0.3.
  static inline const float2 nostrilCenter{0.063f, -0.084f};
  static constexpr float nostrilAngle = 0.3f;
  static constexpr float nostrilSemiX = 0.033f;
  static constexpr float nostrilSemiY = 0.018f;

  static constexpr float shellThickness = 0.045f;
  static constexpr int rows = 191;
  static constexpr int columns = 161;
  static constexpr int gridVertexCount = rows * columns;  // 30751
  static constexpr int mouthRow = 136;

  // --- surface ---------------------------------------------------------
  static float height(float2 p);
  static float3 surfacePoint(float2 p) { return {p.x, p.y, height(p)}; }
  // Strictly below the mouth curve y = 0.14 x^2 - 0.41.
  static bool isLowerJaw(float2 p);
  // (distance outside the eye outline, clamped at 0; the eye-local y).
  static std::pair<float, float> eyeRadialDistance(float2 p);
  static float lidFoldSculpt(float2 p);
  static float2 snapToEye(float2 p);
  static float2 snapToNostril(float2 p);
  static float concavity(float2 p, float radius);
  static float occlusion(float2 p);

  // Outline half-width at (x, y) and the outline parameter t it came from
  // (t >= 1 is beyond the top or bottom of the outline).
  struct Outline { float halfWidth; float t; };
  static Outline outline(float x, float y);

  // Eye-local coordinates (lx along the eye, ly across, ly >= 0 upper lid)
  // for the eye on p's side, and the normalised radius (1 on the outline).
  static float2 eyeLocal(float2 p);
  static float eyeEllipseRadius(float2 p);
  static float nostrilEllipseRadius(float2 p);

  // --- topology and mesh -----------------------------------------------
  static const TheatricalMaskTopology& topology();  // lazily built, thread-safe
  static TheatricalMaskTopology buildTopology();     // the build itself (used once)

  static std::vector<float3> neutralFront();
  struct Shell { std::vector<float3> positions, normals; };
  static Shell assemble(const std::vector<float3>& front);
  static std::vector<float3> smoothNormals(const std::vector<float3>& positions,
                                           const std::vector<std::int32_t>& indices);

  // Geometry sources in the assembled vertex order.
  static std::pair<GeometrySource, GeometrySource> makeSources(const std::vector<float3>& positions,
                                                               const std::vector<float3>& normals);
  // makeSources(assemble(front)) in one pass, straight into the shared
  // arrays (the same values; used for the 43 targets).
  static std::pair<GeometrySource, GeometrySource> assembleSources(const std::vector<float3>& front);
  // Position and normal sources of a front surface alone (normals smoothed
  // over the front triangles), for the wireframe geometry and its targets.
  static std::pair<GeometrySource, GeometrySource> frontSources(const std::vector<float3>& front);
  static GeometrySource makeUVSource();
  static GeometrySource makeColorSource();
  static std::vector<Material> makeMaterials();
  // Front, back, rim triangle elements (lazily built, shared).
  static const std::vector<GeometryElement>& elements();
  // The neutral front surface alone (positions, normals, one triangle element).
  static std::shared_ptr<const Geometry> makeWireframeGeometry();
};

}  // namespace velmora
