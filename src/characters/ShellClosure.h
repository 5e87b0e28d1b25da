#pragma once
// Closing a front surface into a thin shell: the back copy of every front
// triangle (winding reversed) and a wall of two triangles along every
// boundary edge. Shared by the mask and the ghost so both shells follow one
// vertex-order contract:
//   [0, n) front, [n, 2n) back, [2n, 2n+k) front rim copies,
//   [2n+k, 2n+2k) back rim copies, with k = rimVertices.size().

#include <cstddef>
#include <cstdint>
#include <vector>

namespace velmora {

struct ShellClosure {
  std::vector<std::int32_t> rimVertices;     // front indices of boundary vertices, first-seen order
  std::vector<std::int32_t> backTriangles;   // (n+a, n+c, n+b) for each front (a, b, c)
  std::vector<std::int32_t> rimTriangles;    // two per boundary edge
  std::vector<std::int32_t> allTriangles;    // front ++ back ++ rim
};

// Boundary edges are those used by exactly one front triangle, keyed by
// min*1000000 + max, kept with their orientation in that triangle and walked
// in ascending key order; each edge's first then second vertex gets the next
// rim index when it has none yet.
ShellClosure closeShell(const std::vector<std::int32_t>& frontTriangles, std::size_t frontVertexCount);

}  // namespace velmora
