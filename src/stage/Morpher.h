#pragma once
// Morph targets over a base geometry. Each target is a whole geometry with
// position and normal sources in the base's vertex order. In normalised mode
// the blended result is base + sum(weight_i * (target_i - base)) for
// positions and normals; the renderer's GPU path must match
// referenceBlend() below.

#include <cstddef>
#include <memory>
#include <vector>

#include "stage/Geometry.h"

namespace velmora {

struct Morpher {
  enum class CalculationMode { normalized = 0, additive = 1 };

  CalculationMode calculationMode = CalculationMode::normalized;
  std::shared_ptr<const std::vector<std::shared_ptr<const Geometry>>> targets;
  std::vector<float> weights;  // one per target, 0..1
  // Morphers of other nodes of the same character that take the same weights
  // (e.g. a part that must move with the body); setWeight forwards to them.
  std::vector<std::shared_ptr<Morpher>> followers;

  std::size_t targetCount() const { return targets ? targets->size() : 0; }
  // Out-of-range indices are ignored.
  void setWeight(std::size_t index, float weight);
  float weight(std::size_t index) const;
};

struct BlendedMesh {
  std::vector<float3> positions;
  std::vector<float3> normals;  // renormalised
};

// The CPU reference blend: base + sum w * (target - base) for positions and
// normals (normals renormalised; a zero-length normal stays as blended).
// Targets with weight 0, and null targets (a part a blendshape does not
// move), are skipped.
BlendedMesh referenceBlend(const Geometry& base, const Morpher& morpher);

}  // namespace velmora
