#include "stage/Node.h"

#include <algorithm>
#include <glm/gtc/matrix_transform.hpp>

namespace velmora {

std::shared_ptr<Node> Node::make(std::string name) {
  auto n = std::make_shared<Node>();
  n->name = std::move(name);
  return n;
}

void Node::addChild(const std::shared_ptr<Node>& child) {
  if (!child || child.get() == this) return;
  child->removeFromParent();
  child->parent_ = this;
  children_.push_back(child);
}

void Node::removeFromParent() {
  if (!parent_) return;
  auto& siblings = parent_->children_;
  siblings.erase(std::remove_if(siblings.begin(), siblings.end(),
                                [this](const std::shared_ptr<Node>& n) { return n.get() == this; }),
                 siblings.end());
  parent_ = nullptr;
}

std::shared_ptr<Node> Node::find(const std::string& childName) const {
  for (const auto& c : children_) {
    if (c->name == childName) return c;
    if (auto found = c->find(childName)) return found;
  }
  return nullptr;
}

float4x4 eulerRotation(const float3& e) {
  const float4x4 id(1.0f);
  return glm::rotate(id, e.x, float3(1, 0, 0)) * glm::rotate(id, e.y, float3(0, 1, 0)) *
         glm::rotate(id, e.z, float3(0, 0, 1));
}

float4x4 Node::localTransform() const {
  return glm::translate(float4x4(1.0f), position) * eulerRotation(eulerAngles) * glm::scale(float4x4(1.0f), scale);
}

float4x4 Node::worldTransform() const {
  return parent_ ? parent_->worldTransform() * localTransform() : localTransform();
}

}  // namespace velmora
