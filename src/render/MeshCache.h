#pragma once
// The GPU copies of immutable meshes, for one GL context. Every vertex and
// index array is uploaded once and found again by the identity of its
// shared array (the pointer), so a mesh shared by several nodes, or drawn in
// every frame, costs one upload. Entries whose arrays have been freed on the
// CPU side are deleted by purgeExpired() (the weak references tell).
//
// Morph targets are uploaded as an R32UI texture buffer of deltas from the
// base mesh, per vertex: first vertexCount + 1 offsets (vertex v's entries
// are entries offset[v] .. offset[v + 1] - 1), then three texels per entry:
// six half floats two to a texel, low half first (position delta x y z,
// normal delta x y z); and an R8UI texture buffer with each entry's target
// index. Only vertices a target moves have an entry.
//
// Threads: the render thread, with the owning context current.

#include <cstddef>
#include <map>
#include <memory>
#include <vector>

#include "stage/Geometry.h"
#include "stage/Morpher.h"

namespace velmora {

class MeshCache {
 public:
  using TargetList = MorphTargetList;

  struct Mesh {
    unsigned vertexArray = 0;
    int vertexCount = 0;
    unsigned positionBuffer = 0;
    int positionStride = 0;
    unsigned normalBuffer = 0;  // 0 when the geometry has no normals
    int normalStride = 0;
  };

  struct Part {
    unsigned indexBuffer = 0;
    unsigned mode = 0;  // GL primitive
    int count = 0;      // indices
  };

  struct MorphDeltas {
    unsigned buffer = 0, texture = 0;              // offsets and deltas (R32UI)
    unsigned targetBuffer = 0, targetTexture = 0;  // each entry's target (R8UI)
    int targetCount = 0;  // the targets the program weighs (at most maxMorphTargets)
  };

  MeshCache() = default;
  ~MeshCache();
  MeshCache(const MeshCache&) = delete;
  MeshCache& operator=(const MeshCache&) = delete;

  // Null when the geometry has no vertex positions.
  const Mesh* mesh(const Geometry& geometry);
  // Null when the element has no indices.
  const Part* part(const GeometryElement& element);
  // Null when there are no targets or the base has no positions. The GPU
  // copy is found by `source` when there is one (the targets may have been
  // let go; they are loaded from it only when this context has no copy),
  // else by `targets`, and lives as long as that one does.
  const MorphDeltas* deltas(const Geometry& base, const std::shared_ptr<const TargetList>& targets,
                            const std::shared_ptr<const MorphTargetSource>& source = nullptr);

  // Deletes the GPU copies of arrays nobody holds any more.
  void purgeExpired();

  // For tests and the benchmark: uploads done since creation, and live entries.
  std::size_t uploadCount() const { return uploads_; }
  std::size_t liveBufferCount() const { return buffers_.size(); }

 private:
  struct BufferEntry {
    std::weak_ptr<const void> owner;
    unsigned buffer = 0;
  };
  struct MeshEntry {
    std::vector<std::weak_ptr<const void>> owners;
    Mesh mesh;
  };
  struct PartEntry {
    std::weak_ptr<const void> owner;
    Part part;
  };
  struct DeltaEntry {
    std::weak_ptr<const void> owner, basePositions, baseNormals;
    MorphDeltas deltas;
  };

  unsigned arrayBuffer(const std::shared_ptr<const std::vector<float>>& data);

  std::map<const void*, BufferEntry> buffers_;
  std::map<std::vector<const void*>, MeshEntry> meshes_;
  std::map<const void*, PartEntry> parts_;
  std::map<const void*, DeltaEntry> deltas_;
  std::size_t uploads_ = 0;
};

}  // namespace velmora
