#include "scene/FrameDescription.h"

#include <algorithm>
#include <glm/gtc/matrix_transform.hpp>

namespace velmora {

float4x4 FrameCamera::viewMatrix() const {
  return glm::lookAt(position, position + float3(0.0f, 0.0f, -1.0f), float3(0.0f, 1.0f, 0.0f));
}

float4x4 FrameCamera::projectionMatrix(float aspect) const {
  return glm::perspective(glm::radians(verticalFieldOfViewDegrees), aspect, nearPlane, farPlane);
}

namespace {

void addNode(FrameDescription& frame, const Node& node, const float4x4& parentTransform, float parentOpacity) {
  if (node.hidden) return;
  const float opacity = std::clamp(parentOpacity * node.opacity, 0.0f, 1.0f);
  if (!(opacity > 0.0f)) return;  // also drops NaN
  const float4x4 world = parentTransform * node.localTransform();
  if (node.geometry) {
    FrameDrawItem item;
    item.worldTransform = world;
    item.geometry = node.geometry;
    item.opacity = opacity;
    if (node.morpher && node.morpher->targetCount() > 0) {
      const auto& m = *node.morpher;
      item.morphTargets = m.targets;
      item.morphSource = m.source;
      for (std::size_t i = 0; i < m.targetCount(); ++i) {
        const float w = m.weight(i);
        if (w != 0.0f) {
          item.morphIndices.push_back(static_cast<int>(i));
          item.morphWeights.push_back(w);
        }
      }
    }
    frame.items.push_back(std::move(item));
  }
  for (const auto& child : node.children()) addNode(frame, *child, world, opacity);
}

}  // namespace

void FrameDescription::addNodes(const Node& root) {
  const float4x4 parent = root.parent() ? root.parent()->worldTransform() : float4x4(1.0f);
  float opacity = 1.0f;
  for (const Node* p = root.parent(); p; p = p->parent()) opacity *= p->opacity;
  addNode(*this, root, parent, opacity);
}

}  // namespace velmora
