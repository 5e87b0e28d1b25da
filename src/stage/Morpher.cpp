#include "stage/Morpher.h"

#include <algorithm>
#include <glm/geometric.hpp>

namespace velmora {

std::shared_ptr<const MorphTargetList> Morpher::loadedTargets() const {
  if (targets || !source || !source->load) return targets;
  return source->load();
}

void Morpher::setWeight(std::size_t index, float weight) {
  for (auto& f : followers)
    if (f && f.get() != this) f->setWeight(index, weight);
  if (index >= targetCount()) return;
  if (weights.size() < targetCount()) weights.resize(targetCount(), 0.0f);
  weights[index] = weight;
}

float Morpher::weight(std::size_t index) const { return index < weights.size() ? weights[index] : 0.0f; }

std::shared_ptr<const MorphTarget> MorphTarget::fromGeometry(const Geometry& base, const Geometry& target) {
  auto out = std::make_shared<MorphTarget>();
  out->name = target.name;
  const auto* bp = base.source(GeometrySource::Semantic::vertex);
  const auto* bn = base.source(GeometrySource::Semantic::normal);
  const auto* tp = target.source(GeometrySource::Semantic::vertex);
  const auto* tn = target.source(GeometrySource::Semantic::normal);
  out->hasPositions = tp && tp->data && bp && bp->data;
  out->hasNormals = tn && tn->data && bn && bn->data;
  auto count = [](const GeometrySource* a, const GeometrySource* b) {
    return static_cast<std::size_t>(std::max(0, std::min(a->vectorCount, b->vectorCount)));
  };
  const std::size_t np = out->hasPositions ? count(tp, bp) : 0;
  const std::size_t nn = out->hasNormals ? count(tn, bn) : 0;
  for (std::size_t i = 0; i < std::max(np, nn); ++i) {
    const float3 dp = i < np ? tp->vec3(i) - bp->vec3(i) : float3(0.0f);
    const float3 dn = i < nn ? tn->vec3(i) - bn->vec3(i) : float3(0.0f);
    if (dp == float3(0.0f) && dn == float3(0.0f)) continue;
    out->vertices.push_back(static_cast<std::uint32_t>(i));
    if (out->hasPositions) out->positionDeltas.push_back(dp);
    if (out->hasNormals) out->normalDeltas.push_back(dn);
  }
  out->vertices.shrink_to_fit();
  out->positionDeltas.shrink_to_fit();
  out->normalDeltas.shrink_to_fit();
  return out;
}

namespace {
std::vector<float3> scatter(const std::vector<std::uint32_t>& vertices, const std::vector<float3>& deltas, bool present,
                            std::size_t vertexCount) {
  if (!present) return {};
  std::vector<float3> dense(vertexCount, float3(0.0f));
  for (std::size_t k = 0; k < vertices.size(); ++k)
    if (vertices[k] < vertexCount) dense[vertices[k]] = deltas[k];
  return dense;
}
}  // namespace

std::vector<float3> MorphTarget::densePositionDeltas(std::size_t vertexCount) const {
  return scatter(vertices, positionDeltas, hasPositions, vertexCount);
}

std::vector<float3> MorphTarget::denseNormalDeltas(std::size_t vertexCount) const {
  return scatter(vertices, normalDeltas, hasNormals, vertexCount);
}

BlendedMesh referenceBlend(const Geometry& base, const Morpher& morpher) {
  BlendedMesh out;
  const auto* bp = base.source(GeometrySource::Semantic::vertex);
  const auto* bn = base.source(GeometrySource::Semantic::normal);
  if (bp) out.positions = bp->toVec3();
  if (bn) out.normals = bn->toVec3();
  const std::size_t n = out.positions.size();
  const auto targets = morpher.loadedTargets();
  for (std::size_t t = 0; targets && t < targets->size(); ++t) {
    const float w = morpher.weight(t);
    if (w == 0.0f || !(*targets)[t]) continue;  // a null target moves nothing
    const MorphTarget& target = *(*targets)[t];
    for (std::size_t k = 0; k < target.vertices.size(); ++k) {
      const std::size_t i = target.vertices[k];
      if (target.hasPositions && i < n) out.positions[i] += w * target.positionDeltas[k];
      if (target.hasNormals && i < out.normals.size()) out.normals[i] += w * target.normalDeltas[k];
    }
  }
  for (auto& nrm : out.normals) {
    const float len = glm::length(nrm);
    if (len > 1e-12f) nrm /= len;
  }
  return out;
}

}  // namespace velmora
