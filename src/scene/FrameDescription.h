#pragma once
// One frame to render, fixed at the moment the main thread captured it: every
// visible mesh with its world transform, morph weights and opacity, the light
// rig, the camera and the lighting environment. Immutable and self-contained:
// the render thread reads it while the main thread goes on changing the
// scene. Meshes are shared by pointer (never copied); they are immutable.

#include <cstdint>
#include <memory>
#include <vector>

#include "base/Math.h"
#include "scene/EnvironmentImage.h"
#include "scene/LightingRig.h"
#include "stage/Geometry.h"
#include "stage/Node.h"

namespace velmora {

struct FrameCamera {
  float3 position{0.0f, 0.0f, 3.2f};  // looking down -z, y up
  float verticalFieldOfViewDegrees = 45.0f;
  float nearPlane = 0.1f;
  float farPlane = 100.0f;

  float4x4 viewMatrix() const;
  float4x4 projectionMatrix(float aspect) const;
};

// One node's mesh as it is drawn this frame.
struct FrameDrawItem {
  float4x4 worldTransform{1.0f};
  std::shared_ptr<const Geometry> geometry;
  // The morpher's targets (null once let go) and where they come from
  // again (null when nowhere; it also names them for the GPU copy), and the
  // non-zero weights, in target order.
  std::shared_ptr<const MorphTargetList> morphTargets;
  std::shared_ptr<const MorphTargetSource> morphSource;
  std::vector<int> morphIndices;
  std::vector<float> morphWeights;
  float opacity = 1.0f;  // the node's opacity times its ancestors', 0..1
};

struct FrameDescription {
  int width = 1920;
  int height = 1080;
  // Multisampling of the colour pass (1 = none). Edges of a 1080p frame
  // look clean at 4.
  int sampleCount = 4;
  double time = 0.0;           // uptime when captured, seconds
  std::uint64_t sequence = 0;  // increases with every captured frame
  // Arrival (uptime seconds) of the newest tracking datagram whose face this
  // frame shows; 0 when none. Output latency is measured from it.
  double newestArrival = 0.0;

  std::vector<FrameDrawItem> items;  // depth-first scene order
  LightRig lights;
  FrameCamera camera;
  std::shared_ptr<const EnvironmentImage> environment;  // none: no ambient light

  // Walks the visible (not hidden) nodes under root, root included, and
  // records every node that has geometry. Opacity multiplies down the tree
  // and is clamped to 0..1; a node whose opacity reaches 0 is left out with
  // its children.
  void addNodes(const Node& root);
};

}  // namespace velmora
