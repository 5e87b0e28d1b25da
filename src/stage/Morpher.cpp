#include "stage/Morpher.h"

#include <glm/geometric.hpp>

namespace velmora {

void Morpher::setWeight(std::size_t index, float weight) {
  for (auto& f : followers)
    if (f && f.get() != this) f->setWeight(index, weight);
  if (index >= targetCount()) return;
  if (weights.size() < targetCount()) weights.resize(targetCount(), 0.0f);
  weights[index] = weight;
}

float Morpher::weight(std::size_t index) const { return index < weights.size() ? weights[index] : 0.0f; }

BlendedMesh referenceBlend(const Geometry& base, const Morpher& morpher) {
  BlendedMesh out;
  const auto* bp = base.source(GeometrySource::Semantic::vertex);
  const auto* bn = base.source(GeometrySource::Semantic::normal);
  if (bp) out.positions = bp->toVec3();
  if (bn) out.normals = bn->toVec3();
  const std::size_t n = out.positions.size();
  for (std::size_t t = 0; t < morpher.targetCount(); ++t) {
    const float w = morpher.weight(t);
    if (w == 0.0f || !(*morpher.targets)[t]) continue;  // a null target moves nothing
    const Geometry& target = *(*morpher.targets)[t];
    const auto* tp = target.source(GeometrySource::Semantic::vertex);
    const auto* tn = target.source(GeometrySource::Semantic::normal);
    if (tp && bp) {
      for (std::size_t i = 0; i < n && i < static_cast<std::size_t>(tp->vectorCount); ++i)
        out.positions[i] += w * (tp->vec3(i) - bp->vec3(i));
    }
    if (tn && bn) {
      for (std::size_t i = 0; i < out.normals.size() && i < static_cast<std::size_t>(tn->vectorCount); ++i)
        out.normals[i] += w * (tn->vec3(i) - bn->vec3(i));
    }
  }
  for (auto& nrm : out.normals) {
    const float len = glm::length(nrm);
    if (len > 1e-12f) nrm /= len;
  }
  return out;
}

}  // namespace velmora
