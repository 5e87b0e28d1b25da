#pragma once
// Morph targets over a base geometry. Each target holds, for the vertices
// it moves, the displacement of position and normal from the base. In
// normalised mode the blended result is base + sum(weight_i * delta_i) for
// positions and normals; the renderer's GPU path must match
// referenceBlend() below.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "stage/Geometry.h"

namespace velmora {

// One target as the vertices it moves. Characters are built with whole
// target geometries (every vertex, in the base's order); only the moved
// vertices are kept, since a face's expressions each move a region: the
// mask's 43 targets move about a third of its 64 000 vertices and take
// about 28 MB this way instead of 88 MB as whole geometries.
struct MorphTarget {
  std::string name;
  std::vector<std::uint32_t> vertices;  // indices into the base, ascending
  // Parallel to `vertices` when present (target minus base: metres, and a
  // difference of unit normals); absent when the target has no such source,
  // and then that attribute does not move.
  std::vector<float3> positionDeltas, normalDeltas;
  bool hasPositions = false, hasNormals = false;

  // The moved vertices of `target` (its sources in `base`'s vertex order;
  // vertices beyond the shorter of the two do not move): those whose
  // position or normal differs from the base's.
  static std::shared_ptr<const MorphTarget> fromGeometry(const Geometry& base, const Geometry& target);

  // The target's displacements over all `vertexCount` vertices, zero where
  // it moves nothing (empty when the attribute is absent).
  std::vector<float3> densePositionDeltas(std::size_t vertexCount) const;
  std::vector<float3> denseNormalDeltas(std::size_t vertexCount) const;
};

using MorphTargetList = std::vector<std::shared_ptr<const MorphTarget>>;

// Where a character's targets come from again once every holder let them
// go. A character built by code keeps one for the life of the process and
// rebuilds its targets when asked after that (the mask's take about 0.3 s
// on two cores): the live character then needs only the renderer's GPU
// copy, which this object names. Threads: load() from any thread.
struct MorphTargetSource {
  std::size_t count = 0;  // targets load() gives
  std::function<std::shared_ptr<const MorphTargetList>()> load;
  // Set by a renderer once it holds its GPU copy: from then on a holder
  // that kept the targets only for the renderer may let them go.
  mutable std::atomic<bool> uploaded{false};
};

struct Morpher {
  enum class CalculationMode { normalized = 0, additive = 1 };

  CalculationMode calculationMode = CalculationMode::normalized;
  // The targets; null once let go when `source` can give them again.
  std::shared_ptr<const MorphTargetList> targets;
  std::shared_ptr<const MorphTargetSource> source;  // null: `targets` is all there is
  std::vector<float> weights;  // one per target, 0..1
  // Morphers of other nodes of the same character that take the same weights
  // (e.g. a part that must move with the body); setWeight forwards to them.
  std::vector<std::shared_ptr<Morpher>> followers;

  std::size_t targetCount() const { return targets ? targets->size() : source ? source->count : 0; }
  // The targets, loaded again from `source` when they were let go (null
  // when there are none): for the CPU's own uses of them.
  std::shared_ptr<const MorphTargetList> loadedTargets() const;
  // Out-of-range indices are ignored.
  void setWeight(std::size_t index, float weight);
  float weight(std::size_t index) const;
};

struct BlendedMesh {
  std::vector<float3> positions;
  std::vector<float3> normals;  // renormalised
};

// The CPU reference blend: base + sum w * delta for positions and
// normals (normals renormalised; a zero-length normal stays as blended).
// Targets with weight 0, and null targets (a part a blendshape does not
// move), are skipped.
BlendedMesh referenceBlend(const Geometry& base, const Morpher& morpher);

}  // namespace velmora
