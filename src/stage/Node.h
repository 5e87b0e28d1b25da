#pragma once
// A scene graph node: transform, opacity, optional geometry and morpher,
// children. Plain data owned by the main thread; the renderer sees only the
// immutable frame description built from it.
//
// Euler angles are (pitch about x, yaw about y, roll about z) in radians,
// applied roll first, then yaw, then pitch: R = Rx(pitch) * Ry(yaw) * Rz(roll).
// Positive pitch tilts the front (+z) of a node downwards.

#include <memory>
#include <string>
#include <vector>

#include "base/Math.h"
#include "stage/Geometry.h"
#include "stage/Morpher.h"

namespace velmora {

class Node : public std::enable_shared_from_this<Node> {
 public:
  static std::shared_ptr<Node> make(std::string name = {});

  std::string name;
  float3 position{0.0f};
  float3 eulerAngles{0.0f};
  float3 scale{1.0f};
  float opacity = 1.0f;
  bool hidden = false;
  std::shared_ptr<const Geometry> geometry;
  std::shared_ptr<Morpher> morpher;

  const std::vector<std::shared_ptr<Node>>& children() const { return children_; }
  Node* parent() const { return parent_; }
  void addChild(const std::shared_ptr<Node>& child);  // moves it from its old parent
  void removeFromParent();

  // Depth-first search of the descendants (not this node) by exact name.
  std::shared_ptr<Node> find(const std::string& childName) const;

  // Translation * rotation * scale of this node relative to its parent.
  float4x4 localTransform() const;
  float4x4 worldTransform() const;

 private:
  std::vector<std::shared_ptr<Node>> children_;
  Node* parent_ = nullptr;
};

// The rotation matrix of the Euler angles above.
float4x4 eulerRotation(const float3& eulerAngles);

}  // namespace velmora
