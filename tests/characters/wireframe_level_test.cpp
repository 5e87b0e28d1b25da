// The wireframe tracker geometry: level sizes, valid segments, lines that
// respect the holes and the mouth slit, and morphing by blendshape name.
#include <gtest/gtest.h>

#include <cmath>
#include <set>

#include "characters/TheatricalMaskGeometry.h"
#include "characters/WireframeLevel.h"

namespace velmora {
namespace {

using G = TheatricalMaskGeometry;

constexpr TrackingDetail allLevels[] = {TrackingDetail::simple, TrackingDetail::standard, TrackingDetail::detailed,
                                        TrackingDetail::many};

TEST(WireframeLevel, SizesGrowWithDetail) {
  const auto simple = wireframeForDetail(TrackingDetail::simple, {});
  EXPECT_GE(simple.points.size(), 60u);
  EXPECT_LE(simple.points.size(), 100u);
  std::size_t previous = simple.points.size();
  for (const auto detail : {TrackingDetail::standard, TrackingDetail::detailed, TrackingDetail::many}) {
    const auto level = wireframeForDetail(detail, {});
    EXPECT_GT(level.points.size(), previous);
    previous = level.points.size();
  }
  // Many: every third row (65 with the last) and column (55), minus holes,
  // plus the outline points that are off that grid.
  const auto many = wireframeForDetail(TrackingDetail::many, {});
  EXPECT_GT(many.points.size(), 3300u);
  EXPECT_LT(many.points.size(), 65u * 55u + 80u);
  const auto standard = wireframeForDetail(TrackingDetail::standard, {});
  EXPECT_GT(standard.points.size(), 17u * 15u);  // 17 x 15 grid points less holes, plus outlines
  EXPECT_LT(standard.points.size(), 17u * 15u + 80u);
}

TEST(WireframeLevel, SegmentsAreValidAndAvoidHolesAndTheSlit) {
  const auto& topo = G::topology();
  std::vector<bool> used(topo.frontCount(), false);
  for (const auto i : topo.frontTriangles) used[static_cast<std::size_t>(i)] = true;
  for (const auto detail : allLevels) {
    const auto level = wireframeForDetail(detail, {});
    ASSERT_EQ(level.points.size(), level.vertices.size());
    std::set<std::int32_t> unique(level.vertices.begin(), level.vertices.end());
    EXPECT_EQ(unique.size(), level.vertices.size());  // one point per vertex
    for (const auto v : level.vertices) ASSERT_TRUE(used[static_cast<std::size_t>(v)]);
    EXPECT_GE(level.segments.size(), level.points.size() / 2);
    for (const auto& [a, b] : level.segments) {
      ASSERT_GE(a, 0);
      ASSERT_LT(static_cast<std::size_t>(a), level.points.size());
      ASSERT_LT(static_cast<std::size_t>(b), level.points.size());
      ASSERT_NE(a, b);
      // No segment's midpoint lies inside an eye or a nostril.
      const float2 mid = (topo.gridPoints[static_cast<std::size_t>(level.vertices[static_cast<std::size_t>(a)])] +
                          topo.gridPoints[static_cast<std::size_t>(level.vertices[static_cast<std::size_t>(b)])]) *
                         0.5f;
      ASSERT_GT(G::eyeEllipseRadius(mid), 0.9f);
      // Lines that cross the mouth slit would join the lips.
      const auto va = static_cast<std::size_t>(level.vertices[static_cast<std::size_t>(a)]);
      const auto vb = static_cast<std::size_t>(level.vertices[static_cast<std::size_t>(b)]);
      const bool aUpper = va <= 22056, bUpper = vb <= 22056;
      if (aUpper != bUpper) {
        const float x = topo.gridPoints[va].x;
        ASSERT_TRUE(std::fabs(x) >= G::mouthHalfWidth || std::fabs(topo.gridPoints[vb].x) >= G::mouthHalfWidth)
            << "segment across the mouth at x " << x;
      }
    }
  }
}

TEST(WireframeLevel, BlendshapesMoveThePoints) {
  const auto rest = wireframeForDetail(TrackingDetail::simple, {});
  // "JawOpen" in any case reaches the jawopen target; unknown names and
  // non-finite values change nothing.
  const auto open = wireframeForDetail(TrackingDetail::simple,
                                       {{"JawOpen", 1.0f}, {"tongueOut", 1.0f}, {"cheekPuff", std::nanf("")}});
  ASSERT_EQ(open.points.size(), rest.points.size());
  const auto& topo = G::topology();
  int lowered = 0;
  for (std::size_t p = 0; p < rest.points.size(); ++p) {
    const auto v = static_cast<std::size_t>(rest.vertices[p]);
    const float dy = open.points[p].y - rest.points[p].y;
    if (!topo.lowerJaw[v]) {
      ASSERT_EQ(open.points[p], rest.points[p]);  // the upper face stays
    } else if (dy < -0.1f) {
      ++lowered;
    }
  }
  EXPECT_GE(lowered, 5);  // the lower lip points drop
  // Half a blink moves the eye outline half as far as a full one.
  const auto half = wireframeForDetail(TrackingDetail::simple, {{"eyeBlinkLeft", 0.5f}});
  const auto full = wireframeForDetail(TrackingDetail::simple, {{"eyeBlinkLeft", 1.0f}});
  float largest = 0.0f;
  for (std::size_t p = 0; p < rest.points.size(); ++p) {
    const float dFull = full.points[p].y - rest.points[p].y;
    const float dHalf = half.points[p].y - rest.points[p].y;
    ASSERT_NEAR(dHalf, 0.5f * dFull, 1e-5f);
    largest = std::max(largest, -dFull);
  }
  EXPECT_GT(largest, 0.05f);
}

}  // namespace
}  // namespace velmora
