// The mask's surface, topology and shell: counts, orders, hand-computed spot
// values, mirror symmetry, hole rims and the per-vertex attributes.
//
// Index of this file:
//   [SECTION] Topology: counts, rows, jaw
//   [SECTION] Relief, occlusion and snapping
//   [SECTION] Holes, rim and assembled sources

#include <gtest/gtest.h>

#include <cmath>
#include <set>

#include "characters/TheatricalMaskGeometry.h"

namespace velmora {
namespace {

using G = TheatricalMaskGeometry;
using Snap = TheatricalMaskTopology::Snap;

// World point of eye-local coordinates (lx, ly) on the eye of side s.
float2 eyePoint(float s, float lx, float ly) {
  const float c = std::cos(G::eyeAngle);
  const float sn = s * std::sin(G::eyeAngle);
  return {c * lx - sn * ly + s * 0.4f, sn * lx + c * ly + 0.33f};
}

std::vector<bool> referenced(const std::vector<std::int32_t>& indices, std::size_t count) {
  std::vector<bool> used(count, false);
  for (const auto i : indices) used[static_cast<std::size_t>(i)] = true;
  return used;
}

// ---------------------------------------------------------------------------
// [SECTION] Topology: counts, rows, jaw
// ---------------------------------------------------------------------------

TEST(MaskGeometry, CountsAndVertexOrder) {
  const auto& topo = G::topology();
  const std::size_t n = topo.frontCount();
  const std::size_t k = topo.rimCount();
  EXPECT_EQ(n, 30832u);  // 191 x 161 grid + 81 mouth-row duplicates
  EXPECT_EQ(topo.uvs.size(), n);
  EXPECT_EQ(topo.shellDirections.size(), n);
  EXPECT_EQ(topo.lowerJaw.size(), n);
  EXPECT_GT(k, 0u);

  // Back triangles mirror the front ones with reversed winding.
  ASSERT_EQ(topo.backTriangles.size(), topo.frontTriangles.size());
  for (std::size_t t = 0; t < topo.frontTriangles.size(); t += 3) {
    const auto ni = static_cast<std::int32_t>(n);
    ASSERT_EQ(topo.backTriangles[t], ni + topo.frontTriangles[t]);
    ASSERT_EQ(topo.backTriangles[t + 1], ni + topo.frontTriangles[t + 2]);
    ASSERT_EQ(topo.backTriangles[t + 2], ni + topo.frontTriangles[t + 1]);
  }
  EXPECT_EQ(topo.allTriangles.size(),
            topo.frontTriangles.size() + topo.backTriangles.size() + topo.rimTriangles.size());
  EXPECT_EQ(topo.rimTriangles.size() % 6, 0u);

  // Every index stays below 2n + 2k and each block stays in its own range.
  const auto shell = static_cast<std::int32_t>(2 * n + 2 * k);
  for (const auto i : topo.frontTriangles) ASSERT_LT(i, static_cast<std::int32_t>(n));
  for (const auto i : topo.rimTriangles) {
    ASSERT_GE(i, static_cast<std::int32_t>(2 * n));
    ASSERT_LT(i, shell);
  }

  // The shell: positions, normals, UVs and colours all have 2n + 2k entries.
  const auto assembled = G::assemble(G::neutralFront());
  EXPECT_EQ(assembled.positions.size(), 2 * n + 2 * k);
  EXPECT_EQ(assembled.normals.size(), 2 * n + 2 * k);
  EXPECT_EQ(G::makeUVSource().vectorCount, static_cast<int>(2 * n + 2 * k));
  EXPECT_EQ(G::makeColorSource().vectorCount, static_cast<int>(2 * n + 2 * k));

  // Back = front - 0.045 * direction; rim copies repeat front and back.
  for (const std::size_t i : {std::size_t{0}, std::size_t{12345}, n - 1}) {
    const float3 d = assembled.positions[i] - assembled.positions[n + i];
    EXPECT_NEAR(glm::length(d), 0.045f, 1e-6f);
  }
  for (std::size_t j = 0; j < k; j += 97) {
    const auto r = static_cast<std::size_t>(topo.rimVertices[j]);
    EXPECT_EQ(assembled.positions[2 * n + j], assembled.positions[r]);
    EXPECT_EQ(assembled.positions[2 * n + k + j], assembled.positions[n + r]);
  }
}

TEST(MaskGeometry, GridRowsMouthSplitAndJawFlags) {
  const auto& topo = G::topology();
  // Row 136 follows the mouth curve y = -0.41 + 0.14 x^2 across the mouth.
  const float2 centre = topo.gridPoints[136 * 161 + 80];
  EXPECT_FLOAT_EQ(centre.x, 0.0f);
  EXPECT_NEAR(centre.y, -0.41f, 1e-6f);
  // The first row is at y = 1.0455 (its centre column, no bends there).
  EXPECT_NEAR(topo.gridPoints[80].y, 1.0455f, 1e-6f);
  EXPECT_FLOAT_EQ(topo.uvs[80].x, 0.5f);
  EXPECT_FLOAT_EQ(topo.uvs[80].y, 0.0f);

  // Duplicates copy the mouth-row vertices with |x| < 0.33, in column order,
  // and belong to the lower jaw; their twins do not.
  int dupCount = 0;
  std::size_t next = 30751;
  for (int j = 0; j < 161; ++j) {
    const std::size_t src = static_cast<std::size_t>(136 * 161 + j);
    if (std::fabs(topo.gridPoints[src].x) >= 0.33f) continue;
    ++dupCount;
    ASSERT_EQ(topo.gridPoints[next], topo.gridPoints[src]);
    ASSERT_EQ(topo.uvs[next], topo.uvs[src]);
    EXPECT_TRUE(topo.lowerJaw[next]);
    EXPECT_FALSE(topo.lowerJaw[src]);
    ++next;
  }
  EXPECT_EQ(dupCount, 81);
  EXPECT_FALSE(topo.lowerJaw[22056]);  // last vertex of row 136
  EXPECT_TRUE(topo.lowerJaw[22057]);   // first vertex of row 137

  EXPECT_FALSE(G::isLowerJaw({0.0f, -0.41f}));  // on the curve: not strictly below
  EXPECT_TRUE(G::isLowerJaw({0.0f, -0.4101f}));
  // At x = 0.33 the curve is at -0.41 + 0.14 * 0.1089 = -0.394754.
  EXPECT_FALSE(G::isLowerJaw({0.33f, -0.3947f}));
  EXPECT_TRUE(G::isLowerJaw({0.33f, -0.3948f}));
  EXPECT_TRUE(G::isLowerJaw({-0.33f, -0.3948f}));
}

// ---------------------------------------------------------------------------
// [SECTION] Relief, occlusion and snapping
// ---------------------------------------------------------------------------

TEST(MaskGeometry, EyeDistanceLidFoldAndOutlineSpotValues) {
  // Inside the eye (and at its centre) the distance is 0; the second result
  // is the eye-local y.
  for (const float s : {1.0f, -1.0f}) {
    EXPECT_EQ(G::eyeRadialDistance({s * 0.4f, 0.33f}).first, 0.0f);
    EXPECT_EQ(G::eyeRadialDistance(eyePoint(s, 0.1f, 0.02f)).first, 0.0f);
    EXPECT_EQ(G::eyeRadialDistance(eyePoint(s, -0.15f, -0.01f)).first, 0.0f);
    // Straight above the top of the eye: r = 0.066 / 0.046, |grad r| = 1 / 0.046,
    // so the distance is 0.02.
    const auto [d, ly] = G::eyeRadialDistance(eyePoint(s, 0.0f, 0.066f));
    EXPECT_NEAR(d, 0.02f, 2e-5f);
    EXPECT_NEAR(ly, 0.066f, 1e-6f);
    // Below the bottom (semi-axis 0.056): 0.03 out.
    EXPECT_NEAR(G::eyeRadialDistance(eyePoint(s, 0.0f, -0.086f)).first, 0.03f, 2e-5f);
  }

  // At the eye centre: d = 0, ly = 0, S = smoothstep(3/7) = 0.393586, edge 1;
  // -0.06 exp(-(0.062/0.026)^2) + 0.05 exp(-(0.108/0.035)^2) = -1.99852e-4.
  EXPECT_NEAR(G::lidFoldSculpt({0.4f, 0.33f}), 0.393586f * -1.99852e-4f, 2e-8f);
  // Far from both eyes the fold vanishes.
  EXPECT_EQ(G::lidFoldSculpt({0.0f, -0.7f}), 0.0f);

  // Outline: full half-width 0.93 at y = 0.15, floored at 0.02 beyond the
  // top (q = 0.9) and the bottom (q = -1.15).
  EXPECT_FLOAT_EQ(G::outline(0.0f, 0.15f).halfWidth, 0.93f);
  EXPECT_FLOAT_EQ(G::outline(0.0f, 1.05f).halfWidth, 0.02f);
  EXPECT_FLOAT_EQ(G::outline(0.0f, -1.0f).halfWidth, 0.02f);
  // Halfway down the lower part: t = 0.5, hw = 0.93 (1 - 0.5^2.2)^(1/2.2).
  EXPECT_NEAR(G::outline(0.0f, 0.15f - 0.575f).halfWidth,
              0.93f * std::pow(1.0f - std::pow(0.5f, 2.2f), 1.0f / 2.2f), 1e-6f);
}

// Symmetry, range and relief of the surface: height and occlusion mirror in
// x, occlusion stays in [0.12, 1] and darkens the mouth slit; the nose tip
// stands out of the cheeks, the eye sockets sink, the edge rolls off.
TEST(MaskGeometry, SurfaceIsMirrorSymmetricBoundedAndRelieved) {
  float lowest = 1.0f;
  for (float y = -1.0f; y <= 1.05f; y += 0.0137f) {
    for (float x = 0.0f; x <= 0.95f; x += 0.0211f) {
      ASSERT_EQ(G::height({x, y}), G::height({-x, y})) << x << ", " << y;
      // Occlusion sums its circle samples in angle order, so mirrored points
      // add the same values in another order: equal up to rounding.
      const float occlusion = G::occlusion({x, y});
      ASSERT_NEAR(occlusion, G::occlusion({-x, y}), 1e-5f) << x << ", " << y;
      lowest = std::min(lowest, occlusion);
    }
  }
  EXPECT_GE(lowest, 0.12f);
  // On the mouth line the slit factor is 1 - 0.75 at x = 0.
  EXPECT_LT(G::occlusion({0.0f, -0.41f}), 0.3f);
  EXPECT_GT(G::occlusion({0.0f, 0.8f}), 0.7f);
  // The grid mirrors too: column j mirrors column 160 - j (up to the
  // rounding of u = j / 160).
  const auto& topo = G::topology();
  for (int i = 0; i < 191; i += 7) {
    for (int j = 0; j < 161; j += 3) {
      const float2 a = topo.gridPoints[static_cast<std::size_t>(i * 161 + j)];
      const float2 b = topo.gridPoints[static_cast<std::size_t>(i * 161 + 160 - j)];
      ASSERT_NEAR(a.x, -b.x, 1e-6f);
      ASSERT_NEAR(a.y, b.y, 1e-6f);
    }
  }
  EXPECT_GT(G::height(G::noseTip), G::height({0.3f, -0.02f}));
  EXPECT_LT(G::height({0.4f, 0.42f}), G::height({0.4f, 0.55f}));
  EXPECT_LT(G::height({0.9f, 0.15f}), G::height({0.6f, 0.15f}) - 0.1f);
  EXPECT_EQ(G::surfacePoint({0.2f, 0.1f}), float3(0.2f, 0.1f, G::height({0.2f, 0.1f})));
}

TEST(MaskGeometry, SnapsLandOnTheEllipses) {
  for (const float s : {1.0f, -1.0f}) {
    for (float a = 0.0f; a < 6.28f; a += 0.5f) {
      const float2 p = G::snapToEye(eyePoint(s, 0.3f * std::cos(a), 0.1f * std::sin(a)));
      EXPECT_NEAR(G::eyeEllipseRadius(p), 1.0f, 1e-5f);
      const float2 q = G::snapToNostril({s * 0.063f + 0.05f * std::cos(a), -0.084f + 0.04f * std::sin(a)});
      EXPECT_NEAR(G::nostrilEllipseRadius(q), 1.0f, 1e-5f);
    }
    // The centre itself has no direction: returned unchanged.
    EXPECT_EQ(G::snapToEye({s * 0.4f, 0.33f}), float2(s * 0.4f, 0.33f));
  }

  // Topology: snapped rim vertices sit on their ellipses, and both sides
  // snap the same number.
  const auto& topo = G::topology();
  int eyes[2] = {0, 0}, nostrils[2] = {0, 0};
  for (std::size_t i = 0; i < topo.frontCount(); ++i) {
    const float2 p = topo.gridPoints[i];
    const int side = p.x >= 0.0f ? 0 : 1;
    if (topo.snapped[i] == Snap::eye) {
      ++eyes[side];
      ASSERT_NEAR(G::eyeEllipseRadius(p), 1.0f, 1e-5f);
    } else if (topo.snapped[i] == Snap::nostril) {
      ++nostrils[side];
      ASSERT_NEAR(G::nostrilEllipseRadius(p), 1.0f, 1e-5f);
    }
  }
  EXPECT_GT(eyes[0], 40);
  EXPECT_EQ(eyes[0], eyes[1]);
  EXPECT_GT(nostrils[0], 6);
  EXPECT_EQ(nostrils[0], nostrils[1]);
}

// ---------------------------------------------------------------------------
// [SECTION] Holes, rim and assembled sources
// ---------------------------------------------------------------------------

TEST(MaskGeometry, HolesAreUnreferencedAndFaceTheViewer) {
  const auto& topo = G::topology();
  const std::size_t n = topo.frontCount();
  const auto used = referenced(topo.allTriangles, topo.shellCount());
  const auto shell = G::assemble(G::neutralFront());
  int inside = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const float2 p = topo.gridPoints[i];
    if (G::eyeEllipseRadius(p) > 0.9f && G::nostrilEllipseRadius(p) > 0.9f) continue;
    ++inside;
    ASSERT_FALSE(used[i]);
    ASSERT_FALSE(used[n + i]);
    ASSERT_EQ(shell.normals[i], float3(0.0f, 0.0f, 1.0f));
    ASSERT_EQ(shell.normals[n + i], float3(0.0f, 0.0f, 1.0f));
  }
  EXPECT_GT(inside, 100);
  // Every kept front triangle is counter-clockwise and not degenerate.
  for (std::size_t t = 0; t < topo.frontTriangles.size(); t += 3) {
    const float2 a = topo.gridPoints[static_cast<std::size_t>(topo.frontTriangles[t])];
    const float2 b = topo.gridPoints[static_cast<std::size_t>(topo.frontTriangles[t + 1])];
    const float2 c = topo.gridPoints[static_cast<std::size_t>(topo.frontTriangles[t + 2])];
    ASSERT_GT((b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x), 0.0f);
  }
  // Front normals of the used vertices point towards the viewer.
  for (std::size_t i = 0; i < n; i += 17)
    if (used[i]) {
      ASSERT_GT(shell.normals[i].z, 0.0f) << i;
    }
}

TEST(MaskGeometry, RimIsTheBoundaryOfTheFront) {
  const auto& topo = G::topology();
  const std::size_t n = topo.frontCount();
  const std::size_t k = topo.rimCount();
  // Rim vertices are distinct, and every rim slot is used by the rim walls.
  std::set<std::int32_t> unique(topo.rimVertices.begin(), topo.rimVertices.end());
  EXPECT_EQ(unique.size(), k);
  const auto used = referenced(topo.rimTriangles, topo.shellCount());
  for (std::size_t j = 0; j < 2 * k; ++j) ASSERT_TRUE(used[2 * n + j]);
  // The rim holds the snapped hole rims, the mouth slit and the outer edge.
  int snappedOnRim = 0;
  for (const auto r : topo.rimVertices)
    if (topo.snapped[static_cast<std::size_t>(r)] != Snap::none) ++snappedOnRim;
  EXPECT_GT(snappedOnRim, 100);
  EXPECT_EQ(unique.count(136 * 161 + 80), 1u);  // upper lip at the centre
  EXPECT_EQ(unique.count(0), 1u);                // top-left corner of the grid
}

TEST(MaskGeometry, ColoursCarryOcclusionAndRimClasses) {
  const auto& topo = G::topology();
  const std::size_t n = topo.frontCount();
  const std::size_t k = topo.rimCount();
  const GeometrySource colors = G::makeColorSource();
  EXPECT_EQ(colors.dataStride, 16);
  for (const std::size_t i : {std::size_t{100}, std::size_t{15000}, std::size_t{22000}}) {
    const float g = std::pow(G::occlusion(topo.gridPoints[i]), 2.2f);
    EXPECT_EQ(colors.vec3(i), float3(g));
  }
  EXPECT_EQ(colors.vec3(n + 5), float3(0.12f));
  int mouth = 0, eyes = 0, outer = 0;
  for (std::size_t j = 0; j < k; ++j) {
    const float g = colors.vec3(2 * n + j).x;
    if (g == 0.02f) ++mouth;
    else if (g == 0.06f) ++eyes;
    else if (g == 0.65f) ++outer;
    else ADD_FAILURE() << "rim grey " << g;
    ASSERT_EQ(colors.vec3(2 * n + k + j).x, g * 0.5f);
  }
  EXPECT_GT(mouth, 100);  // both lips of the slit
  EXPECT_GT(eyes, 100);
  EXPECT_GT(outer, 300);
}

TEST(MaskGeometry, SourcesMaterialsAndElements) {
  const std::vector<float3> pts{{1, 2, 3}, {4, 5, 6}};
  const auto [pos, nrm] = G::makeSources(pts, pts);
  EXPECT_EQ(pos.semantic, GeometrySource::Semantic::vertex);
  EXPECT_EQ(nrm.semantic, GeometrySource::Semantic::normal);
  EXPECT_EQ(pos.dataStride, 16);
  EXPECT_EQ(pos.vectorCount, 2);
  EXPECT_EQ(pos.vec3(1), float3(4, 5, 6));

  const auto uv = G::makeUVSource();
  EXPECT_EQ(uv.dataStride, 8);
  const auto& topo = G::topology();
  EXPECT_EQ(uv.vec2(topo.frontCount() + 7), topo.uvs[7]);

  const auto materials = G::makeMaterials();
  ASSERT_EQ(materials.size(), 3u);
  EXPECT_FALSE(materials[0].doubleSided);

  const auto& elements = G::elements();
  ASSERT_EQ(elements.size(), 3u);
  EXPECT_EQ(elements[0].primitiveCount(), static_cast<int>(topo.frontTriangles.size() / 3));
  EXPECT_EQ(elements[2].primitiveCount(), static_cast<int>(topo.rimTriangles.size() / 3));
  EXPECT_EQ(elements[1].bytesPerIndex, 4);
  EXPECT_EQ(G::elements()[0].indices, elements[0].indices);  // built once, shared

  const auto wire = G::makeWireframeGeometry();
  EXPECT_EQ(wire->vertexCount(), topo.frontCount());
  ASSERT_EQ(wire->elements.size(), 1u);
  EXPECT_EQ(*wire->elements[0].indices, topo.frontTriangles);
}

TEST(MaskGeometry, SmoothNormalsWeightByAreaAndDefaultUnused) {
  // Two triangles sharing vertex 0: a big one in the x-y plane and a small
  // one in the x-z plane; vertex 4 is used by none.
  const std::vector<float3> p{{0, 0, 0}, {2, 0, 0}, {0, 2, 0}, {0, 0, -0.5f}, {9, 9, 9}};
  const std::vector<std::int32_t> idx{0, 1, 2, 0, 1, 3};
  const auto nrm = G::smoothNormals(p, idx);
  // Sum at vertex 0: (0, 0, 4) + (0, 1, 0) -> normalised (0, 1, 4) / sqrt(17).
  EXPECT_NEAR(nrm[0].y, 1.0f / std::sqrt(17.0f), 1e-6f);
  EXPECT_NEAR(nrm[0].z, 4.0f / std::sqrt(17.0f), 1e-6f);
  EXPECT_EQ(nrm[2], float3(0, 0, 1));
  EXPECT_EQ(nrm[3], float3(0, 1, 0));
  EXPECT_EQ(nrm[4], float3(0, 0, 1));
}

}  // namespace
}  // namespace velmora
