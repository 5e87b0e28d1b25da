// The mask's surface, topology and shell: the vertex-order contract, mirror
// symmetry and range of the surface, hole rims on their ellipses (checked
// against the literal feature constants), mesh validity and the sources.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <tuple>

#include "ClosedShell.h"
#include "MaskFeatures.h"
#include "characters/TheatricalMaskGeometry.h"

namespace velmora {
namespace {

using G = TheatricalMaskGeometry;
using Snap = TheatricalMaskTopology::Snap;

// Height of the front vertex nearest (x, y).
float heightNear(const std::vector<float3>& front, float x, float y) {
  return std::ranges::min(front, {}, [&](float3 p) { return glm::length(float2(p) - float2(x, y)); }).z;
}

// Counts and the vertex-order contract: the shell has 2n + 2k entries in
// every stream; back = front - 0.045 along the shell direction; the rim
// copies repeat front and back. Front triangles use front vertices; the back
// and the rim walls close the shell (the back mirrors the front with
// reversed winding). Holes: snapped vertices lie on the literal ellipses (as
// many on each side); vertices inside are used by no triangle. Kept front
// triangles are counter-clockwise and not degenerate; normals are unit
// length and the used front ones face the viewer. Colours: front grey =
// occlusion^2.2 (linear), back 0.12; the rim walls are 0.02 at the mouth,
// 0.06 at the eyes, 0.65 elsewhere, half that behind.
TEST(MaskGeometry, ShellHolesAndSources) {
  const auto& topo = G::topology();
  const std::size_t n = topo.frontCount();
  const std::size_t k = topo.rimCount();
  EXPECT_EQ(n, 30832u);  // 191 x 161 grid + 81 mouth-row duplicates
  for (const std::size_t size : {topo.uvs.size(), topo.shellDirections.size(), topo.lowerJaw.size(), topo.snapped.size()})
    EXPECT_EQ(size, n);
  for (const auto i : topo.frontTriangles) ASSERT_LT(i, static_cast<std::int32_t>(n));
  test::expectClosedShell(topo.allTriangles, topo.rimVertices, n);
  // The rim holds the mouth slit: the upper lip at the centre is a boundary vertex.
  EXPECT_EQ(std::count(topo.rimVertices.begin(), topo.rimVertices.end(), 136 * 161 + 80), 1);

  const auto [pos, normals] = G::assembleSources(G::neutralFront());
  const GeometrySource colors = G::makeColorSource();
  for (const int count : {pos.vectorCount, normals.vectorCount, G::makeUVSource().vectorCount, colors.vectorCount})
    EXPECT_EQ(count, static_cast<int>(2 * n + 2 * k));
  for (std::size_t i = 0; i < n; ++i)
    ASSERT_NEAR(glm::length(pos.vec3(i) - pos.vec3(n + i) - 0.045f * topo.shellDirections[i]), 0.0f, 1e-6f) << i;
  std::map<float, int> rims;
  for (std::size_t j = 0; j < k; ++j) {
    const auto r = static_cast<std::size_t>(topo.rimVertices[j]);
    ASSERT_EQ(pos.vec3(2 * n + j), pos.vec3(r));
    ASSERT_EQ(pos.vec3(2 * n + k + j), pos.vec3(n + r));
    ++rims[colors.vec3(2 * n + j).x];
    ASSERT_EQ(colors.vec3(2 * n + k + j).x, colors.vec3(2 * n + j).x * 0.5f);
  }
  ASSERT_EQ(rims.size(), 3u);
  // Both lips of the slit at 0.02.
  EXPECT_TRUE(rims[0.02f] > 100 && rims[0.06f] > 100 && rims[0.65f] > 300) << rims[0.02f] << ", " << rims[0.06f];
  for (std::size_t i = 0; i < n; i += 997)
    ASSERT_EQ(colors.vec3(i), float3(std::pow(G::occlusion(topo.gridPoints[i]), 2.2f))) << i;
  EXPECT_EQ(colors.vec3(n + 5), float3(0.12f));

  std::vector<bool> used(topo.shellCount(), false);
  for (const auto i : topo.allTriangles) used[static_cast<std::size_t>(i)] = true;
  int inside = 0, eyes[2] = {0, 0}, nostrils[2] = {0, 0};
  for (std::size_t i = 0; i < n; ++i) {
    ASSERT_NEAR(glm::length(normals.vec3(i)), 1.0f, 1e-5f) << i;
    ASSERT_TRUE(!used[i] || normals.vec3(i).z > 0.0f) << i;
    const float2 p = topo.gridPoints[i];
    const int side = p.x >= 0.0f ? 0 : 1;
    if (topo.snapped[i] == Snap::eye) {
      ++eyes[side];
      ASSERT_NEAR(test::maskEyeRadius(p), 1.0f, 2e-5f) << p.x << ", " << p.y;
    } else if (topo.snapped[i] == Snap::nostril) {
      ++nostrils[side];
      ASSERT_NEAR(test::maskNostrilRadius(p), 1.0f, 2e-5f) << p.x << ", " << p.y;
    }
    if (test::maskEyeRadius(p) > 0.9f && test::maskNostrilRadius(p) > 0.9f) continue;
    ++inside;
    ASSERT_FALSE(used[i] || used[n + i]);
    ASSERT_EQ(normals.vec3(i), float3(0.0f, 0.0f, 1.0f));
    ASSERT_EQ(normals.vec3(n + i), float3(0.0f, 0.0f, 1.0f));
  }
  EXPECT_GT(inside, 100);
  EXPECT_EQ(std::pair(eyes[0], nostrils[0]), std::pair(eyes[1], nostrils[1]));  // as many on each side
  EXPECT_TRUE(eyes[0] > 40 && nostrils[0] > 6) << eyes[0] << " eye, " << nostrils[0] << " nostril rim vertices";
  const auto corner = [&](std::size_t t) { return topo.gridPoints[static_cast<std::size_t>(topo.frontTriangles[t])]; };
  for (std::size_t t = 0; t < topo.frontTriangles.size(); t += 3) {
    const float2 a = corner(t), b = corner(t + 1), c = corner(t + 2);
    ASSERT_GT((b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x), 0.0f);
  }

  EXPECT_EQ(G::makeUVSource().vec2(n + 7), topo.uvs[7]);  // the back repeats the front's uvs
  ASSERT_EQ(G::makeMaterials().size(), 3u);
  EXPECT_FALSE(G::makeMaterials()[0].doubleSided);
  // The three parts (front, back, rim walls) as separate elements, built once;
  // the wireframe draws the front alone.
  const auto& elements = G::elements();
  ASSERT_EQ(elements.size(), 3u);
  EXPECT_EQ(std::tuple(*elements[0].indices, *elements[2].indices, *G::makeWireframeGeometry()->elements.at(0).indices),
            std::tuple(topo.frontTriangles, topo.rimTriangles, topo.frontTriangles));
  EXPECT_EQ(std::pair(elements[1].bytesPerIndex, G::elements()[0].indices), std::pair(4, elements[0].indices));
}

// Symmetry and range: the surface and its occlusion mirror in x (column j
// of the grid mirrors column 160 - j), occlusion stays in [0.12, 1] and
// darkens the mouth slit; the nose stands out, the eye sockets sink, the
// edge rolls off; the outline spans x within 0.93, y from -1.0 to 1.05.
TEST(MaskGeometry, NeutralSurfaceIsMirrorSymmetricBoundedAndRelieved) {
  const auto front = G::neutralFront();
  for (int i = 0; i < 191; ++i) {
    for (int j = 0; j <= 80; ++j) {
      const float3 a = front[static_cast<std::size_t>(i * 161 + j)];
      const float3 b = front[static_cast<std::size_t>(i * 161 + 160 - j)];
      ASSERT_LE(glm::length(a - float3(-b.x, b.y, b.z)), 1e-5f) << i << ", " << j;
    }
  }
  float lowest = 1.0f;
  for (float y = -1.0f; y <= 1.05f; y += 0.0137f) {
    for (float x = 0.0f; x <= 0.95f; x += 0.0211f) {
      // Circle samples summed in angle order: mirrored points add the same
      // values in another order, equal up to rounding.
      ASSERT_NEAR(G::occlusion({x, y}), G::occlusion({-x, y}), 1e-5f) << x << ", " << y;
      lowest = std::min(lowest, G::occlusion({x, y}));
    }
  }
  EXPECT_GE(lowest, 0.12f);
  EXPECT_LT(G::occlusion({0.0f, -0.41f}), 0.3f);  // slit factor 1 - 0.75 at x = 0
  EXPECT_GT(G::occlusion({0.0f, 0.8f}), 0.7f);
  EXPECT_GT(heightNear(front, 0.0f, -0.02f), heightNear(front, 0.3f, -0.02f));
  EXPECT_LT(heightNear(front, 0.4f, 0.42f), heightNear(front, 0.4f, 0.55f));
  EXPECT_LT(heightNear(front, 0.9f, 0.15f), heightNear(front, 0.6f, 0.15f) - 0.1f);
  // Widest at 0.93 (and -0.93 by the symmetry above), lowest at -1.0.
  EXPECT_NEAR(std::ranges::max(front, {}, [](float3 p) { return p.x; }).x, 0.93f, 1e-4f);
  EXPECT_NEAR(std::ranges::min(front, {}, [](float3 p) { return p.y; }).y, -1.0f, 0.011f);
  // Below y = 0.15 each row ends on the outline 0.93 (1 - t^2.2)^(1/2.2),
  // t = (0.15 - y) / 1.15.
  for (int i = 0; i < 191; ++i) {
    const float3 end = front[static_cast<std::size_t>(i * 161 + 160)];
    const float t = (0.15f - end.y) / 1.15f;
    if (t > 0.0f) {
      ASSERT_NEAR(end.x, 0.93f * std::pow(1.0f - std::pow(t, 2.2f), 1.0f / 2.2f), 2e-3f) << i;
    }
  }
  // The first row's centre is at y = 1.0455; row 136 follows the mouth
  // curve y = -0.41 + 0.14 x^2, at x = 0 on the centre column.
  EXPECT_NEAR(glm::length(float2(front[80]) - float2(0.0f, 1.0455f)), 0.0f, 1e-6f);
  EXPECT_NEAR(glm::length(float2(front[136 * 161 + 80]) - float2(0.0f, -0.41f)), 0.0f, 1e-6f);
  EXPECT_EQ(G::topology().uvs[80], float2(0.5f, 0.0f));
}

// Distance outside the eye outline (0 inside; the second result is the
// eye-local y) and the lid fold it shapes, at hand-computed points; smooth
// normals weight each triangle by its area.
TEST(MaskGeometry, EyeDistanceLidFoldAndSmoothNormalsAtHandComputedPoints) {
  for (const float s : {1.0f, -1.0f}) {
    const struct {
      float lx, ly, distance;
    } rows[] = {{0, 0, 0}, {0.1f, 0.02f, 0}, {-0.15f, -0.01f, 0},
                {0, 0.066f, 0.02f},    // above the top: r = 0.066 / 0.046, |grad r| = 1 / 0.046
                {0, -0.086f, 0.03f}};  // below the bottom (semi-axis 0.056)
    for (const auto& r : rows) {
      const auto [d, ly] = G::eyeRadialDistance(test::maskEyePoint(s, r.lx, r.ly));
      EXPECT_NEAR(d, r.distance, 2e-5f) << s << ": " << r.lx << ", " << r.ly;
      EXPECT_NEAR(ly, r.ly, 1e-6f) << s << ": " << r.lx << ", " << r.ly;
    }
  }
  // At the eye centre: S = smoothstep(3/7) = 0.393586, edge 1;
  // -0.06 exp(-(0.062/0.026)^2) + 0.05 exp(-(0.108/0.035)^2) = -1.99852e-4.
  EXPECT_NEAR(G::lidFoldSculpt({0.4f, 0.33f}), 0.393586f * -1.99852e-4f, 2e-8f);
  EXPECT_EQ(G::lidFoldSculpt({0.0f, -0.7f}), 0.0f);  // far from both eyes

  // Vertex 0 is shared by a big triangle in x-y and a small one in x-z:
  // (0, 0, 4) + (0, 1, 0); vertex 4 is used by none and gets +z.
  const auto nrm = G::smoothNormals({{0, 0, 0}, {2, 0, 0}, {0, 2, 0}, {0, 0, -0.5f}, {9, 9, 9}}, {0, 1, 2, 0, 1, 3});
  EXPECT_NEAR(glm::length(nrm[0] - float3(0, 1, 4) / std::sqrt(17.0f)), 0.0f, 1e-6f);
  EXPECT_EQ(std::pair(nrm[3], nrm[4]), std::pair(float3(0, 1, 0), float3(0, 0, 1)));
}

}  // namespace
}  // namespace velmora
