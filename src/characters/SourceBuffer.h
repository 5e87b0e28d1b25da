#pragma once
// Allocation of large vertex-stream arrays for the one-time character builds.
// The builds create about 100 MB of immutable arrays; touching fresh memory
// page by page costs more than computing it on a virtualised machine, so the
// pages are populated in one call before they are written. The result is the
// same std::vector<float> a GeometrySource shares; only the allocation is
// faster. Any thread.

#include <cstddef>
#include <memory>
#include <vector>

#include "stage/Geometry.h"

namespace velmora {

class SourceBuffer {
 public:
  // A zero-filled array of `floatCount` floats whose pages are already mapped.
  static std::shared_ptr<std::vector<float>> allocate(std::size_t floatCount);

  // A float3 source (stride 16: each vector in a 16-byte slot, fourth float
  // unused) of `count` vectors over a fresh array; `out` receives the array
  // to write into (4 floats per vector).
  static GeometrySource vec3Source(GeometrySource::Semantic semantic, std::size_t count, float*& out);
  // A stride-16 float3 source holding a copy of `count` vectors laid out as
  // 4 floats each at `packed` (the copy is the only write to the new pages).
  static GeometrySource vec3Source(GeometrySource::Semantic semantic, const float* packed, std::size_t count);
  // The same, filled from `values`.
  static GeometrySource vec3Source(GeometrySource::Semantic semantic, const std::vector<float3>& values);
};

}  // namespace velmora
