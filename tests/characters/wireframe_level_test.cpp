// The wireframe tracker geometry: level sizes, valid segments, lines that
// respect the holes and the mouth slit, and morphing by blendshape name.
#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <tuple>

#include "MaskFeatures.h"
#include "characters/TheatricalMaskGeometry.h"
#include "characters/WireframeLevel.h"

namespace velmora {
namespace {

using G = TheatricalMaskGeometry;

// Sizes grow with detail: simple 60..100 points; standard a 17 x 15 grid
// less holes plus outline points; many every third row (65 with the last)
// and column (55), minus holes, plus the off-grid outline points. Every
// level's segments join two of its points, each on a vertex the mask draws.
TEST(WireframeLevel, SizesGrowWithDetailAndSegmentsAreValidAndAvoidHolesAndTheSlit) {
  const auto& topo = G::topology();
  std::vector<bool> used(topo.frontCount(), false);
  for (const auto i : topo.frontTriangles) used[static_cast<std::size_t>(i)] = true;
  // Detail, and the point count's bounds (exclusive).
  const std::tuple<TrackingDetail, std::size_t, std::size_t> rows[] = {
      {TrackingDetail::simple, 59, 101},
      {TrackingDetail::standard, 17 * 15, 17 * 15 + 80},
      {TrackingDetail::detailed, 0, 65 * 55 + 80},
      {TrackingDetail::many, 3300, 65 * 55 + 80}};
  std::size_t previous = 0;
  for (const auto& [detail, above, below] : rows) {
    SCOPED_TRACE(static_cast<int>(detail));
    const auto level = wireframeForDetail(detail, {});
    EXPECT_TRUE(level.points.size() > std::max(previous, above) && level.points.size() < below) << level.points.size();
    previous = level.points.size();
    ASSERT_EQ(level.points.size(), level.vertices.size());
    // One point per vertex.
    EXPECT_EQ(std::set<std::int32_t>(level.vertices.begin(), level.vertices.end()).size(), level.vertices.size());
    for (const auto v : level.vertices) ASSERT_TRUE(used[static_cast<std::size_t>(v)]);
    EXPECT_GE(level.segments.size(), level.points.size() / 2);
    const auto vertex = [&](int i) { return level.vertices[static_cast<std::size_t>(i)]; };
    const auto point = [&](int i) { return topo.gridPoints[static_cast<std::size_t>(vertex(i))]; };
    for (const auto& [a, b] : level.segments) {
      ASSERT_TRUE(std::min(a, b) >= 0 && a != b && std::max(a, b) < std::ssize(level.points)) << a << ", " << b;
      const float2 pa = point(a), pb = point(b);
      // No segment's midpoint lies inside an eye.
      ASSERT_GT(test::maskEyeRadius((pa + pb) * 0.5f), 0.9f);
      // Lines that cross the mouth slit (upper face: vertices up to 22056,
      // the last of the mouth row) would join the lips.
      ASSERT_TRUE((vertex(a) <= 22056) == (vertex(b) <= 22056) || std::fabs(pa.x) >= 0.33f || std::fabs(pb.x) >= 0.33f)
          << "segment across the mouth at x " << pa.x;
    }
  }
}

TEST(WireframeLevel, BlendshapesMoveThePoints) {
  const auto rest = wireframeForDetail(TrackingDetail::simple, {});
  // "JawOpen" in any case reaches the jawopen target; unknown names and
  // non-finite values change nothing.
  const auto open = wireframeForDetail(TrackingDetail::simple,
                                       {{"JawOpen", 1.0f}, {"tongueOut", 1.0f}, {"cheekPuff", std::nanf("")}});
  // Half a blink moves the eye outline half as far as a full one.
  const auto half = wireframeForDetail(TrackingDetail::simple, {{"eyeBlinkLeft", 0.5f}});
  const auto full = wireframeForDetail(TrackingDetail::simple, {{"eyeBlinkLeft", 1.0f}});
  ASSERT_EQ(open.points.size(), rest.points.size());
  const auto& topo = G::topology();
  int lowered = 0;
  float largest = 0.0f;
  for (std::size_t p = 0; p < rest.points.size(); ++p) {
    const float dy = open.points[p].y - rest.points[p].y;
    if (!topo.lowerJaw[static_cast<std::size_t>(rest.vertices[p])]) {
      ASSERT_EQ(open.points[p], rest.points[p]);  // the upper face stays
    } else if (dy < -0.1f) {
      ++lowered;
    }
    const float dFull = full.points[p].y - rest.points[p].y;
    ASSERT_NEAR(half.points[p].y - rest.points[p].y, 0.5f * dFull, 1e-5f);
    largest = std::max(largest, -dFull);
  }
  // The lower lip points drop; a full blink moves the eye outline.
  EXPECT_TRUE(lowered >= 5 && largest > 0.05f) << lowered << " lowered, blink " << largest;
}

}  // namespace
}  // namespace velmora
