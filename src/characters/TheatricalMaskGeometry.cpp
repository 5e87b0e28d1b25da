#include "characters/TheatricalMaskGeometry.h"

// Index of this file:
//   [SECTION] Local frames of the eye and nostril ellipses
//   [SECTION] The relief: outline, eye distance, lid fold, height
//   [SECTION] Snapping, concavity, occlusion
//   [SECTION] Topology (grid, mouth split, triangles, holes, boundary)
//   [SECTION] Shell assembly, normals, geometry sources, materials, elements

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <glm/geometric.hpp>

#include "characters/ParallelFor.h"
#include "characters/ShapeMath.h"
#include "characters/ShellClosure.h"
#include "characters/SourceBuffer.h"

namespace velmora {

using shape::clamp01;
using shape::expf32;
using shape::gaussian;
using shape::sideOf;
using shape::smoothstep;

namespace {

inline float sq(float v) { return v * v; }

// ---------------------------------------------------------------------------
// [SECTION] Local frames of the eye and nostril ellipses
// ---------------------------------------------------------------------------

// A rotated ellipse frame for the side s: local = R(-angle) (p - centre).
// sin is taken of the unsigned angle and signed by s, which keeps the two
// sides exact mirror images of each other.
struct Frame {
  float c, sn, cx, cy;
  float2 toLocal(float2 p) const {
    const float dx = p.x - cx;
    const float dy = p.y - cy;
    return {c * dx + sn * dy, c * dy - sn * dx};
  }
  float2 toWorld(float2 l) const { return {c * l.x - sn * l.y + cx, sn * l.x + c * l.y + cy}; }
};

// cos/sin of the two frame angles, evaluated once (height() needs them for
// every sample).
const float eyeCos = std::cos(TheatricalMaskGeometry::eyeAngle);
const float eyeSin = std::sin(TheatricalMaskGeometry::eyeAngle);
const float nostrilCos = std::cos(TheatricalMaskGeometry::nostrilAngle);
const float nostrilSin = std::sin(TheatricalMaskGeometry::nostrilAngle);

Frame eyeFrame(float s) {
  return {eyeCos, s * eyeSin,
          s * TheatricalMaskGeometry::eyeCenter.x, TheatricalMaskGeometry::eyeCenter.y};
}

Frame nostrilFrame(float s) {
  return {nostrilCos, s * nostrilSin,
          s * TheatricalMaskGeometry::nostrilCenter.x, TheatricalMaskGeometry::nostrilCenter.y};
}

// Normalised eye radius in local coordinates; the semi-axis across the eye
// depends on the half (upper for ly >= 0).
float eyeRadiusLocal(float lx, float ly) {
  const float sy = ly >= 0.0f ? TheatricalMaskGeometry::eyeSemiUpper : TheatricalMaskGeometry::eyeSemiLower;
  const float a = lx / TheatricalMaskGeometry::eyeSemiX;
  const float b = ly / sy;
  return std::sqrt(a * a + b * b);
}

float nostrilRadiusLocal(float2 l) {
  const float a = l.x / TheatricalMaskGeometry::nostrilSemiX;
  const float b = l.y / TheatricalMaskGeometry::nostrilSemiY;
  return std::sqrt(a * a + b * b);
}

struct EyeDistance {
  float distance, lx, ly;
};

EyeDistance eyeDistance(float2 p) {
  const float2 l = eyeFrame(sideOf(p.x)).toLocal(p);
  const float r = eyeRadiusLocal(l.x, l.y);
  if (r <= 0.0001f) return {0.0f, l.x, l.y};
  const float h = 0.002f;
  const float gx = (eyeRadiusLocal(l.x + h, l.y) - eyeRadiusLocal(l.x - h, l.y)) / (2.0f * h);
  const float gy = (eyeRadiusLocal(l.x, l.y + h) - eyeRadiusLocal(l.x, l.y - h)) / (2.0f * h);
  const float g = std::sqrt(gx * gx + gy * gy);
  const float d = (r - 1.0f) / std::max(g, 0.001f);
  return {std::max(d, 0.0f), l.x, l.y};
}

float lidFold(const EyeDistance& e) {
  const float S = smoothstep(clamp01((e.ly + 0.03f) / 0.07f));
  const float edge = 1.0f - smoothstep(clamp01((std::fabs(e.lx) - 0.175f) / 0.13125f));
  return S * edge *
         (-0.06f * expf32(-sq((e.distance - 0.062f) / 0.026f)) +
          0.05f * expf32(-sq((e.distance - 0.108f) / 0.035f)));
}

// Distance from q to the segment origin + t * dir, t clamped to 0..1.
float segmentDistance(float2 q, float2 origin, float2 dir, float dirLengthSquared) {
  const float2 d = q - origin;
  const float t = clamp01((d.x * dir.x + d.y * dir.y) / dirLengthSquared);
  const float ex = d.x - t * dir.x;
  const float ey = d.y - t * dir.y;
  return std::sqrt(ex * ex + ey * ey);
}

// The outline's superellipse at q = y - 0.15 (before any lift or floor):
// exponent 2.8 over the upper 0.9, 2.2 over the lower 1.15; t is the
// normalised distance from y = 0.15.
TheatricalMaskGeometry::Outline outlineSuperellipse(float q) {
  float t, e;
  if (q >= 0.0f) {
    t = q / 0.9f;
    e = 2.8f;
  } else {
    t = q / -1.15f;
    e = 2.2f;
  }
  return {0.93f * std::pow(std::max(0.0f, 1.0f - std::pow(std::min(t, 1.0f), e)), 1.0f / e), t};
}

}  // namespace

// ---------------------------------------------------------------------------
// [SECTION] The relief: outline, eye distance, lid fold, height
// ---------------------------------------------------------------------------

float2 TheatricalMaskGeometry::eyeLocal(float2 p) { return eyeFrame(sideOf(p.x)).toLocal(p); }

float TheatricalMaskGeometry::eyeEllipseRadius(float2 p) {
  const float2 l = eyeLocal(p);
  return eyeRadiusLocal(l.x, l.y);
}

float TheatricalMaskGeometry::nostrilEllipseRadius(float2 p) {
  return nostrilRadiusLocal(nostrilFrame(sideOf(p.x)).toLocal(p));
}

bool TheatricalMaskGeometry::isLowerJaw(float2 p) { return p.y < mouthBend * p.x * p.x + mouthY; }

std::pair<float, float> TheatricalMaskGeometry::eyeRadialDistance(float2 p) {
  const EyeDistance e = eyeDistance(p);
  return {e.distance, e.ly};
}

float TheatricalMaskGeometry::lidFoldSculpt(float2 p) { return lidFold(eyeDistance(p)); }

TheatricalMaskGeometry::Outline TheatricalMaskGeometry::outline(float x, float y) {
  const float ax = std::fabs(x);
  const float lift = std::pow(ax / 0.93f, 3.0f);
  float q = y - 0.15f;
  // The grid lifts the upper outline by 0.18 (|x|/0.93)^3 smoothstep(w(q));
  // three fixed-point steps invert that lift.
  for (int iteration = 0; iteration < 3; ++iteration) {
    const float w = clamp01(((q / 0.9f) - 0.45f) / 0.55f);
    q = y - 0.18f * lift * smoothstep(w) - 0.15f;
  }
  Outline o = outlineSuperellipse(q);
  o.halfWidth = std::max(o.halfWidth, 0.02f);
  return o;
}

float TheatricalMaskGeometry::height(float2 p) {
  const float x = p.x;
  const float y = p.y;
  const float ax = std::fabs(x);
  const float s = sideOf(x);
  const auto pair = [x](float c, float dy, float sx, float sy) {
    return gaussian(x - c, dy, sx, sy) + gaussian(x + c, dy, sx, sy);
  };

  float h = 0.0f;
  // Base dome and the vertical fall-offs.
  h = h + 0.62f * std::pow(std::max(0.0f, 1.0f - sq(x / 0.97f)), 0.65f);
  h = h - 0.8f * sq(std::max(0.0f, y - 0.45f));
  h = h - 0.3f * sq(std::max(0.0f, -0.55f - y));
  h = h - 0.04f * y * y;
  // Forehead, brow ridges, glabella, temples.
  h = h + 0.04f * pair(0.28f, y - 0.8f, 0.22f, 0.2f);
  h = h + 0.07f * pair(0.36f, y - 0.5f, 0.22f, 0.075f);
  h = h + 0.03f * gaussian(x, y - 0.47f, 0.1f, 0.07f);
  h = h - 0.035f * pair(0.78f, y - 0.45f, 0.1f, 0.15f);
  // Eye sockets and the eyeball bulge.
  h = h - 0.22f * pair(0.39f, y - 0.34f, 0.17f, 0.12f);
  h = h + 0.12f * pair(0.4f, y - 0.33f, 0.14f, 0.085f);
  // Eye rim: a raised lip on the upper lid, a softer one below.
  {
    const EyeDistance e = eyeDistance(p);
    const float S = smoothstep(clamp01((e.ly + 0.03f) / 0.07f));
    const float U = 1.0f - S;
    const float d = e.distance;
    h = h + lidFold(e);
    h = h + 0.018f * (S + 0.35f * U) * expf32(-sq((d - 0.016f) / 0.02f));
    h = h + 0.008f * U * expf32(-sq((d - 0.03f) / 0.025f));
    h = h - 0.015f * U * expf32(-sq((d - 0.085f) / 0.035f));
  }
  // Cheekbones, cheeks, hollows.
  h = h + 0.06f * pair(0.47f, y - 0.1f, 0.17f, 0.11f);
  h = h + 0.045f * pair(0.36f, y + 0.12f, 0.13f, 0.13f);
  h = h - 0.025f * pair(0.62f, y + 0.2f, 0.12f, 0.15f);
  // Nasolabial fold.
  {
    const float dist = segmentDistance({ax, y}, {0.36f, -0.45f}, {0.04f, -0.17f}, 0.0305f);
    h = h - 0.015f * expf32(-0.5f * sq(dist / 0.04f));
  }
  h = h + 0.02f * pair(0.48f, y + 0.55f, 0.12f, 0.12f);
  // Nose bridge.
  {
    const float w = clamp01((0.42f - y) / 0.44f);
    const float ramp = smoothstep(clamp01((y + 0.2f) / 0.19f)) * smoothstep(clamp01((y - 0.52f) / -0.16f));
    const float sigma = 0.05f * w + 0.08f;
    h = h + expf32(-0.5f * sq(x / sigma)) * ramp * (0.085f * std::pow(w, 1.4f) + 0.04f);
    h = h + expf32(-0.5f * sq(x / (2.0f * sigma))) * w * ramp * 0.035f;
  }
  // Nose tip and nostril wings.
  h = h + 0.065f * gaussian(x, y + 0.035f, 0.1f, 0.085f);
  h = h + 0.06f * pair(0.13f, y + 0.065f, 0.06f, 0.055f);
  // Nose-side crease.
  {
    const float dist = segmentDistance({ax, y}, {0.17f, -0.06f}, {0.2f, -0.34f}, 0.1556f);
    h = h - 0.03f * expf32(-0.5f * sq(dist / 0.035f));
  }
  // Nostril flare ring.
  {
    const float a = (ax - 0.125f) / 0.075f;
    const float b = (y + 0.06f) / 0.065f;
    const float r = std::sqrt(a * a + b * b);
    h = h - 0.012f * smoothstep(clamp01((y - 0.06f) / -0.08f)) * expf32(-sq((r - 1.0f) / 0.3f));
  }
  // Nostril hole dip.
  {
    const float r = nostrilRadiusLocal(nostrilFrame(s).toLocal(p));
    h = h + -0.026f * (1.0f - smoothstep(clamp01((r - 0.15f) / 0.9f)));
    h = h + 0.003f * expf32(-sq((r - 1.15f) / 0.2f));
  }
  // Muzzle and philtrum.
  h = h + 0.09f * gaussian(x, y + 0.33f, 0.3f, 0.22f);
  h = h - 0.012f * gaussian(x, y + 0.21f, 0.035f, 0.06f);
  // Lips, measured from the mouth curve.
  const float m = y - (0.14f * x * x - 0.41f);
  {
    const float env = expf32(-std::pow((ax / 0.33f) / 1.05f, 6.0f));
    const float a = std::sqrt(std::max(0.0f, 1.0f - sq(ax / 0.33f)));
    const float tu = std::max(0.012f, 0.058f * a - 0.012f * expf32(-sq(x / 0.035f)) +
                                          0.008f * expf32(-sq((ax - 0.07f) / 0.04f)));
    h = h + 0.04f * env * expf32(-sq((m - 0.55f * tu) / (0.45f * tu))) * smoothstep(clamp01((m + 0.01f) / 0.014f));
    h = h + 0.008f * env * expf32(-sq((m - tu) / 0.012f));
    const float tl = std::max(0.015f, 0.085f * a);
    h = h + 0.065f * env * expf32(-sq((m + 0.5f * tl) / (0.45f * tl))) *
                smoothstep(clamp01((m - 0.01f) / -0.014f));
  }
  // Mouth corners, crease under the lower lip, chin.
  h = h - 0.02f * pair(0.33f, y + 0.395f, 0.04f, 0.04f);
  h = h - 0.04f * expf32(-sq((m + 0.2f) / 0.045f)) * expf32(-std::pow(ax / 0.28f, 4.0f));
  h = h + 0.11f * gaussian(x, y + 0.75f, 0.19f, 0.12f);
  // Edge roll-off towards the outline.
  {
    const Outline o = outline(x, y);
    const float a = smoothstep(clamp01((o.t - 0.78f) / 0.27f));
    const float b = smoothstep(clamp01((ax / o.halfWidth - 0.84f) / 0.18f));
    const float e = b + (1.0f - b) * a;
    h = h - 0.2f * e * e;
  }
  return h;
}

// ---------------------------------------------------------------------------
// [SECTION] Snapping, concavity, occlusion
// ---------------------------------------------------------------------------

float2 TheatricalMaskGeometry::snapToEye(float2 p) {
  const Frame f = eyeFrame(sideOf(p.x));
  const float2 l = f.toLocal(p);
  const float r = eyeRadiusLocal(l.x, l.y);
  if (r <= 0.0001f) return p;
  return f.toWorld({l.x / r, l.y / r});
}

float2 TheatricalMaskGeometry::snapToNostril(float2 p) {
  const Frame f = nostrilFrame(sideOf(p.x));
  const float2 l = f.toLocal(p);
  const float r = nostrilRadiusLocal(l);
  if (r <= 0.0001f) return p;
  return f.toWorld({l.x / r, l.y / r});
}

namespace {

// Mean height on the circle of the given radius (eight samples, 0, 45, ...,
// 315 degrees) minus the centre height hp, which the caller passes in so that
// occlusion() evaluates it once for both radii.
float concavityAround(float2 p, float radius, float hp) {
  static const auto directions = [] {
    std::array<float2, 8> d{};
    for (int k = 0; k < 8; ++k) {
      const float angle = static_cast<float>(k) * 0.7853981634f;  // 45 degrees
      d[static_cast<std::size_t>(k)] = {std::cos(angle), std::sin(angle)};
    }
    return d;
  }();
  float sum = 0.0f;
  for (const float2 d : directions) sum += TheatricalMaskGeometry::height({p.x + radius * d.x, p.y + radius * d.y});
  return sum / 8.0f - hp;
}

}  // namespace

float TheatricalMaskGeometry::concavity(float2 p, float radius) { return concavityAround(p, radius, height(p)); }

float TheatricalMaskGeometry::occlusion(float2 p) {
  const float x = p.x;
  const float y = p.y;
  const float hp = height(p);
  const float a = 9.0f * concavityAround(p, 0.03f, hp);
  const float b = 3.0f * concavityAround(p, 0.1f, hp);
  float o = (a <= 0.0f ? 1.0f : 1.0f - std::min(a, 0.3f)) - std::clamp(b, 0.0f, 0.3f);
  const EyeDistance ed = eyeDistance(p);
  const float f = -4.0f * lidFold(ed);
  o += (f <= 0.0f ? 0.0f : std::min(f, 0.15f) * 0.5f);
  const float e = smoothstep(clamp01(ed.distance / 0.02f));
  o *= 0.6f * e + 0.4f;
  o *= 1.0f - 0.2f * (gaussian(x - 0.39f, y - 0.33f, 0.2f, 0.12f) + gaussian(x + 0.39f, y - 0.33f, 0.2f, 0.12f));
  const float k = (y - (0.14f * x * x - 0.41f)) / 0.016f;
  o *= 1.0f - 0.75f * expf32(-k * k) * expf32(-std::pow(std::fabs(x) / 0.3366f, 8.0f));
  return std::max(o, 0.12f);
}

// ---------------------------------------------------------------------------
// [SECTION] Topology (grid, mouth split, triangles, holes, boundary)
// ---------------------------------------------------------------------------

namespace {

float signedArea(float2 a, float2 b, float2 c) {
  return 0.5f * ((b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x));
}

// Smallest area a kept triangle may have after snapping (float bits 0x366A8193).
float degenerateAreaLimit() {
  const std::uint32_t bits = 0x366A8193u;
  float v;
  std::memcpy(&v, &bits, sizeof v);
  return v;
}

}  // namespace

TheatricalMaskTopology TheatricalMaskGeometry::buildTopology() {
  TheatricalMaskTopology topo;
  auto& points = topo.gridPoints;
  auto& uvs = topo.uvs;
  points.reserve(gridVertexCount + columns);
  uvs.reserve(gridVertexCount + columns);
  points.resize(gridVertexCount);
  uvs.resize(gridVertexCount);

  // Grid rows from the top (y = 1.0455) to the bottom (y = -0.99425); rows
  // are independent, so they are computed in parallel.
  parallelFor(rows, [&](std::size_t rowBegin, std::size_t rowEnd) {
    for (int i = static_cast<int>(rowBegin); i < static_cast<int>(rowEnd); ++i) {
      const float v = static_cast<float>(i) / 190.0f;
      const float y = 1.0455f - 2.03975f * v;
      const float q = y - 0.15f;
      const float hw = outlineSuperellipse(q).halfWidth;
      const float gm = expf32(-sq((y + 0.41453159f) / 0.15f));
      const float sc = smoothstep(clamp01((q / 0.9f - 0.45f) / 0.55f));
      for (int j = 0; j < columns; ++j) {
        const float u = static_cast<float>(j) / 160.0f;
        const float xn = 2.0f * u - 1.0f;
        const float x = hw * xn * (0.3f * xn * xn + 0.7f);
        const float ax = std::fabs(x);
        const float yy = y + gm * (0.14f * x * x * expf32(-std::pow(ax / 0.6f, 8.0f)) + 0.00453159f) +
                         sc * 0.18f * std::pow(ax / 0.93f, 3.0f);
        points[static_cast<std::size_t>(i * columns + j)] = {x, yy};
        uvs[static_cast<std::size_t>(i * columns + j)] = {u, v};
      }
    }
  });

  // Mouth split: the lower lip gets its own copy of the mouth-row vertices.
  std::vector<int> dup(columns, -1);
  const int mouthRowStart = mouthRow * columns;
  for (int j = 0; j < columns; ++j) {
    const int src = mouthRowStart + j;
    if (std::fabs(points[src].x) < mouthHalfWidth) {
      dup[j] = static_cast<int>(points.size());
      points.push_back(points[src]);
      uvs.push_back(uvs[src]);
    }
  }
  const std::size_t n = points.size();

  // Triangles, made counter-clockwise, holes cut by centroid.
  std::vector<bool> hole(n, false), used(n, false);
  std::vector<std::int32_t> kept;
  kept.reserve(static_cast<std::size_t>(rows - 1) * (columns - 1) * 6);
  const auto addTriangle = [&](int a, int b, int c) {
    if (signedArea(points[a], points[b], points[c]) < 0.0f) std::swap(b, c);
    const float2 centroid = (points[a] + points[b] + points[c]) / 3.0f;
    if (eyeEllipseRadius(centroid) < 1.0f || nostrilEllipseRadius(centroid) < 1.0f) {
      hole[a] = hole[b] = hole[c] = true;
      return;
    }
    used[a] = used[b] = used[c] = true;
    kept.push_back(a);
    kept.push_back(b);
    kept.push_back(c);
  };
  for (int r = 0; r < rows - 1; ++r) {
    for (int c = 0; c < columns - 1; ++c) {
      int a = r * columns + c;
      int b = a + 1;
      const int d = a + columns;
      const int e = a + columns + 1;
      if (r == mouthRow) {
        if (dup[c] >= 0) a = dup[c];
        if (dup[c + 1] >= 0) b = dup[c + 1];
      }
      if (c < 80) {
        addTriangle(a, d, e);
        addTriangle(a, e, b);
      } else {
        addTriangle(a, d, b);
        addTriangle(b, d, e);
      }
    }
  }

  // Rim vertices move onto the exact hole ellipses.
  topo.snapped.assign(n, TheatricalMaskTopology::Snap::none);
  for (std::size_t i = 0; i < n; ++i) {
    if (!(used[i] && hole[i])) continue;
    if (eyeEllipseRadius(points[i]) < 1.35f) {
      points[i] = snapToEye(points[i]);
      topo.snapped[i] = TheatricalMaskTopology::Snap::eye;
    } else if (nostrilEllipseRadius(points[i]) < 1.35f) {
      points[i] = snapToNostril(points[i]);
      topo.snapped[i] = TheatricalMaskTopology::Snap::nostril;
    }
  }

  topo.lowerJaw.resize(n);
  for (std::size_t i = 0; i < n; ++i)
    topo.lowerJaw[i] = i >= static_cast<std::size_t>(gridVertexCount) || i > 22056;

  // Snapping can squash a triangle to (almost) nothing; drop those.
  const float minArea = degenerateAreaLimit();
  auto& front = topo.frontTriangles;
  front.reserve(kept.size());
  for (std::size_t t = 0; t < kept.size(); t += 3) {
    if (signedArea(points[kept[t]], points[kept[t + 1]], points[kept[t + 2]]) > minArea)
      front.insert(front.end(), {kept[t], kept[t + 1], kept[t + 2]});
  }

  // Shell directions: normals of the height field by central differences.
  topo.shellDirections.resize(n);
  parallelFor(n, [&](std::size_t begin, std::size_t end) {
    for (std::size_t i = begin; i < end; ++i) {
      const float2 p = points[i];
      const float gx = (height({p.x + 0.003f, p.y}) - height({p.x - 0.003f, p.y})) / 0.006f;
      const float gy = (height({p.x, p.y + 0.003f}) - height({p.x, p.y - 0.003f})) / 0.006f;
      topo.shellDirections[i] = glm::normalize(float3(-gx, -gy, 1.0f));
    }
  });

  // Back, rim walls and the rim vertex list.
  ShellClosure shell = closeShell(front, n);
  topo.rimVertices = std::move(shell.rimVertices);
  topo.backTriangles = std::move(shell.backTriangles);
  topo.rimTriangles = std::move(shell.rimTriangles);
  topo.allTriangles = std::move(shell.allTriangles);
  return topo;
}

const TheatricalMaskTopology& TheatricalMaskGeometry::topology() {
  static const TheatricalMaskTopology topo = buildTopology();
  return topo;
}

// ---------------------------------------------------------------------------
// [SECTION] Shell assembly, normals, geometry sources, materials, elements
// ---------------------------------------------------------------------------

std::vector<float3> TheatricalMaskGeometry::neutralFront() {
  const auto& points = topology().gridPoints;
  std::vector<float3> front(points.size());
  parallelFor(points.size(), [&](std::size_t begin, std::size_t end) {
    for (std::size_t i = begin; i < end; ++i) front[i] = surfacePoint(points[i]);
  });
  return front;
}

namespace {

static_assert(sizeof(float3) == 3 * sizeof(float), "float3 arrays are read as packed floats");

// Shell positions in the assembled order, written with `stride` floats per
// vector.
void assembleInto(const std::vector<float3>& front, float* out, std::size_t stride) {
  const auto& topo = TheatricalMaskGeometry::topology();
  const std::size_t n = topo.frontCount();
  const std::size_t k = topo.rimCount();
  const auto put = [out, stride](std::size_t i, float3 v) {
    float* o = out + i * stride;
    o[0] = v.x;
    o[1] = v.y;
    o[2] = v.z;
  };
  for (std::size_t i = 0; i < n; ++i) {
    put(i, front[i]);
    put(n + i, front[i] - TheatricalMaskGeometry::shellThickness * topo.shellDirections[i]);
  }
  for (std::size_t j = 0; j < k; ++j) {
    const auto r = static_cast<std::size_t>(topo.rimVertices[j]);
    put(2 * n + j, front[r]);
    put(2 * n + k + j, front[r] - TheatricalMaskGeometry::shellThickness * topo.shellDirections[r]);
  }
}

// Area-weighted vertex normals. `out` (stride `os`) must be zero on entry;
// it is used as the accumulator.
void smoothNormalsInto(const float* pos, std::size_t ps, std::size_t count, const std::vector<std::int32_t>& indices,
                       float* out, std::size_t os) {
  const auto at = [pos, ps](std::size_t i) {
    const float* p = pos + i * ps;
    return float3(p[0], p[1], p[2]);
  };
  for (std::size_t t = 0; t + 2 < indices.size(); t += 3) {
    const auto i0 = static_cast<std::size_t>(indices[t]);
    const auto i1 = static_cast<std::size_t>(indices[t + 1]);
    const auto i2 = static_cast<std::size_t>(indices[t + 2]);
    const float3 p0 = at(i0);
    // Unnormalised: larger triangles weigh more.
    const float3 c = glm::cross(at(i1) - p0, at(i2) - p0);
    for (const std::size_t i : {i0, i1, i2}) {
      float* o = out + i * os;
      o[0] += c.x;
      o[1] += c.y;
      o[2] += c.z;
    }
  }
  for (std::size_t i = 0; i < count; ++i) {
    float* o = out + i * os;
    float3 s(o[0], o[1], o[2]);
    const float len = glm::length(s);
    s = len > 1e-8f ? s / len : float3(0.0f, 0.0f, 1.0f);  // unused vertices face the viewer
    o[0] = s.x;
    o[1] = s.y;
    o[2] = s.z;
  }
}

}  // namespace

TheatricalMaskGeometry::Shell TheatricalMaskGeometry::assemble(const std::vector<float3>& front) {
  Shell shell;
  shell.positions.resize(topology().shellCount());
  assembleInto(front, reinterpret_cast<float*>(shell.positions.data()), 3);
  shell.normals = smoothNormals(shell.positions, topology().allTriangles);
  return shell;
}

std::vector<float3> TheatricalMaskGeometry::smoothNormals(const std::vector<float3>& positions,
                                                          const std::vector<std::int32_t>& indices) {
  std::vector<float3> normals(positions.size(), float3(0.0f));
  smoothNormalsInto(reinterpret_cast<const float*>(positions.data()), 3, positions.size(), indices,
                    reinterpret_cast<float*>(normals.data()), 3);
  return normals;
}

std::pair<GeometrySource, GeometrySource> TheatricalMaskGeometry::assembleSources(const std::vector<float3>& front) {
  const auto& topo = topology();
  const std::size_t count = topo.shellCount();
  // Worked out in scratch arrays (recently used memory, cheap to write), then
  // copied once into the shared arrays.
  std::vector<float> pos(count * 4, 0.0f), nrm(count * 4, 0.0f);
  assembleInto(front, pos.data(), 4);
  smoothNormalsInto(pos.data(), 4, count, topo.allTriangles, nrm.data(), 4);
  return {SourceBuffer::vec3Source(GeometrySource::Semantic::vertex, pos.data(), count),
          SourceBuffer::vec3Source(GeometrySource::Semantic::normal, nrm.data(), count)};
}

std::pair<GeometrySource, GeometrySource> TheatricalMaskGeometry::frontSources(const std::vector<float3>& front) {
  const auto& topo = topology();
  const std::size_t count = front.size();
  std::vector<float> pos(count * 4, 0.0f), nrm(count * 4, 0.0f);
  for (std::size_t i = 0; i < count; ++i) {
    pos[4 * i] = front[i].x;
    pos[4 * i + 1] = front[i].y;
    pos[4 * i + 2] = front[i].z;
  }
  smoothNormalsInto(pos.data(), 4, count, topo.frontTriangles, nrm.data(), 4);
  return {SourceBuffer::vec3Source(GeometrySource::Semantic::vertex, pos.data(), count),
          SourceBuffer::vec3Source(GeometrySource::Semantic::normal, nrm.data(), count)};
}

std::pair<GeometrySource, GeometrySource> TheatricalMaskGeometry::makeSources(const std::vector<float3>& positions,
                                                                              const std::vector<float3>& normals) {
  return {GeometrySource::make(GeometrySource::Semantic::vertex, positions, 16),
          GeometrySource::make(GeometrySource::Semantic::normal, normals, 16)};
}

GeometrySource TheatricalMaskGeometry::makeUVSource() {
  const auto& topo = topology();
  std::vector<float2> uv;
  uv.reserve(topo.shellCount());
  uv.insert(uv.end(), topo.uvs.begin(), topo.uvs.end());
  uv.insert(uv.end(), topo.uvs.begin(), topo.uvs.end());
  for (int pass = 0; pass < 2; ++pass)
    for (const std::int32_t r : topo.rimVertices) uv.push_back(topo.uvs[static_cast<std::size_t>(r)]);
  return GeometrySource::make(GeometrySource::Semantic::texcoord, uv);
}

GeometrySource TheatricalMaskGeometry::makeColorSource() {
  const auto& topo = topology();
  const std::size_t n = topo.frontCount();
  const std::size_t k = topo.rimCount();
  std::vector<float3> colors(topo.shellCount());
  // Baked occlusion, gamma-shaped; the expensive part (18 heights a vertex).
  parallelFor(n, [&](std::size_t begin, std::size_t end) {
    for (std::size_t i = begin; i < end; ++i) {
      const float g = std::pow(occlusion(topo.gridPoints[i]), 2.2f);
      colors[i] = float3(g);
    }
  });
  for (std::size_t i = 0; i < n; ++i) colors[n + i] = float3(0.12f);
  for (std::size_t j = 0; j < k; ++j) {
    const float2 p = topo.gridPoints[static_cast<std::size_t>(topo.rimVertices[j])];
    const float m = p.y - (0.14f * p.x * p.x - 0.41f);
    const float sm = m >= 0.0f ? 0.012f : 0.016f;
    const float a = std::fabs(p.x) / 0.33f;
    const float b = std::fabs(m) / sm;
    float g;
    if (std::sqrt(a * a + b * b) < 1.05f) {
      g = 0.02f;  // the mouth slit
    } else if (eyeEllipseRadius(p) < 1.05f) {
      g = 0.06f;  // the eye rims
    } else {
      g = 0.65f;  // outer edge and nostrils
    }
    colors[2 * n + j] = float3(g);
    colors[2 * n + k + j] = float3(g * 0.5f);
  }
  return GeometrySource::make(GeometrySource::Semantic::color, colors, 16);
}

std::vector<Material> TheatricalMaskGeometry::makeMaterials() {
  const auto plaster = [](std::string name) {
    Material m;
    m.name = std::move(name);
    m.diffuse = float4(0.82f, 0.84f, 0.83f, 1.0f);
    m.roughness = 0.4f;
    m.metalness = 0.0f;
    m.doubleSided = false;
    return m;
  };
  std::vector<Material> materials{plaster("MaskFront"), plaster("MaskBack"), plaster("MaskRim")};
  materials[2].diffuse = float4(0.5f, 0.5f, 0.5f, 1.0f);
  materials[2].roughness = 0.9f;
  return materials;
}

const std::vector<GeometryElement>& TheatricalMaskGeometry::elements() {
  static const std::vector<GeometryElement> shared = [] {
    const auto& topo = topology();
    std::vector<GeometryElement> out;
    for (const auto* list : {&topo.frontTriangles, &topo.backTriangles, &topo.rimTriangles}) {
      GeometryElement e;
      e.primitive = GeometryElement::Primitive::triangles;
      e.bytesPerIndex = 4;
      e.indices = std::make_shared<const std::vector<std::int32_t>>(*list);
      out.push_back(std::move(e));
    }
    return out;
  }();
  return shared;
}

std::shared_ptr<const Geometry> TheatricalMaskGeometry::makeWireframeGeometry() {
  static const std::shared_ptr<const Geometry> shared = [] {
    const auto& topo = topology();
    const std::vector<float3> front = neutralFront();
    auto [pos, nrm] = frontSources(front);
    auto g = std::make_shared<Geometry>();
    g->name = "TheatricalMaskWireframe";
    g->sources = {std::move(pos), std::move(nrm)};
    GeometryElement e;
    e.indices = std::make_shared<const std::vector<std::int32_t>>(topo.frontTriangles);
    g->elements.push_back(std::move(e));
    return std::shared_ptr<const Geometry>(std::move(g));
  }();
  return shared;
}

}  // namespace velmora
