#include "characters/CartoonGhost.h"

// Index of this file:
//   [SECTION] Body surface (profile, arms, tails) and its rest topology
//   [SECTION] Expression displacement fields
//   [SECTION] Shell assembly, colours, materials
//   [SECTION] Eyes and mouth cavity
//   [SECTION] Shared data and the builder

#include <algorithm>
#include <cmath>

#include "characters/ParallelFor.h"
#include "characters/ShapeMath.h"
#include "characters/ShellClosure.h"
#include "characters/SourceBuffer.h"
#include "characters/TheatricalMaskGeometry.h"
#include "stage/Morpher.h"
#include "stage/Node.h"

namespace velmora {

using shape::clamp01;
using shape::expf32;
using shape::gaussian;
using shape::smoothstep;

// ---------------------------------------------------------------------------
// [SECTION] Body surface (profile, arms, tails) and its rest topology
// ---------------------------------------------------------------------------

namespace {

constexpr float pi = 3.14159265f;
constexpr float depthRatio = 0.56f;  // z semi-axis / x semi-axis: the sheet is flattened front to back
constexpr int capRows = 40;          // dome: rows 1..40, even in angle from the top
constexpr int middleRows = 48;       // rows 41..88, even in y from 0.35 down to -0.5
constexpr int hemRows = 20;          // rows 89..108, from -0.5 down to the wavy hem
constexpr int rowCount = capRows + middleRows + hemRows;
constexpr int columnCount = 144;     // around y; column 0 faces +z, columns mirror as j <-> 144 - j
constexpr float headCentreY = 0.35f;
constexpr float headRadius = 0.6f;

// The six rounded tails: 1 at a tail's tip, 0 between tails.
float tail(float theta) { return 0.5f + 0.5f * std::cos(6.0f * theta); }
float hemY(float theta) { return -0.86f - 0.13f * tail(theta); }

// Stub arms: a bulge of the outline at the sides (|sin theta| > 0.8) at
// shoulder height; exactly 0 over the front, where the mouth is.
float arm(float theta, float y) {
  const float side = smoothstep(clamp01((std::fabs(std::sin(theta)) - 0.8f) / 0.2f));
  return 0.09f * side * gaussian(0.0f, y - 0.12f, 1.0f, 0.13f);
}

float3 pointOnBody(float theta, float y, float radius) {
  const float r = radius + arm(theta, y);
  return {r * std::sin(theta), y, depthRatio * r * std::cos(theta)};
}

float3 gridPoint(int row, int column) {
  const float theta = 2.0f * pi * static_cast<float>(column) / static_cast<float>(columnCount);
  if (row <= capRows) {
    const float phi = static_cast<float>(row) / capRows * (pi / 2.0f);
    return pointOnBody(theta, headCentreY + headRadius * std::cos(phi), headRadius * std::sin(phi));
  }
  if (row <= capRows + middleRows) {
    const float y = headCentreY - 0.85f * static_cast<float>(row - capRows) / middleRows;
    return pointOnBody(theta, y, CartoonGhost::radiusAt(y));
  }
  const float f = static_cast<float>(row - capRows - middleRows) / hemRows;
  const float y = -0.5f + (hemY(theta) + 0.5f) * f;
  return pointOnBody(theta, y, CartoonGhost::radiusAt(y) + 0.03f * tail(theta) * f * f);
}

int vertexIndex(int row, int column) {
  return row == 0 ? 0 : 1 + (row - 1) * columnCount + (column % columnCount);
}

float mouthRadius(float x, float y) {
  const float a = x / CartoonGhost::mouthHalfWidth;
  const float b = (y - CartoonGhost::mouthCentreY) / CartoonGhost::mouthHalfHeight;
  return std::sqrt(a * a + b * b);
}

// The body point on the mouth ellipse in the direction of (x, y) from the
// mouth centre.
float3 snapToMouth(float3 p) {
  const float r = mouthRadius(p.x, p.y);
  if (r <= 1e-4f) return p;
  const float x = p.x / r;
  const float y = CartoonGhost::mouthCentreY + (p.y - CartoonGhost::mouthCentreY) / r;
  const float theta = std::asin(std::clamp(x / CartoonGhost::radiusAt(y), -1.0f, 1.0f));
  return CartoonGhost::surfacePoint(theta, y);
}

GhostBodyTopology buildBody() {
  GhostBodyTopology body;
  auto& outer = body.outer;
  outer.reserve(1 + rowCount * columnCount);
  outer.push_back(gridPoint(0, 0));
  body.uvs.push_back({0.5f, 0.0f});
  for (int i = 1; i <= rowCount; ++i) {
    for (int j = 0; j < columnCount; ++j) {
      outer.push_back(gridPoint(i, j));
      body.uvs.push_back({static_cast<float>(j) / columnCount, static_cast<float>(i) / rowCount});
    }
  }
  const std::size_t n = outer.size();

  // Triangles (counter-clockwise seen from outside), the mouth cut out by
  // centroid. Diagonals mirror across x = 0.
  std::vector<bool> hole(n, false), used(n, false);
  std::vector<std::int32_t> kept;
  const auto add = [&](int a, int b, int c) {
    const float3 centroid = (outer[a] + outer[b] + outer[c]) / 3.0f;
    if (centroid.z > 0.0f && mouthRadius(centroid.x, centroid.y) < 1.0f) {
      hole[a] = hole[b] = hole[c] = true;
      return;
    }
    used[a] = used[b] = used[c] = true;
    kept.insert(kept.end(), {a, b, c});
  };
  for (int j = 0; j < columnCount; ++j) add(0, vertexIndex(1, j), vertexIndex(1, j + 1));
  for (int i = 1; i < rowCount; ++i) {
    for (int j = 0; j < columnCount; ++j) {
      const int a = vertexIndex(i, j), b = vertexIndex(i, j + 1);
      const int d = vertexIndex(i + 1, j), e = vertexIndex(i + 1, j + 1);
      if (j < columnCount / 2) {
        add(a, d, e);
        add(a, e, b);
      } else {
        add(a, d, b);
        add(b, d, e);
      }
    }
  }
  for (std::size_t i = 0; i < n; ++i) {
    if (used[i] && hole[i]) {
      outer[i] = snapToMouth(outer[i]);
      body.mouthRim.push_back(static_cast<std::int32_t>(i));
    }
  }
  for (std::size_t t = 0; t < kept.size(); t += 3) {
    const float3 c = glm::cross(outer[kept[t + 1]] - outer[kept[t]], outer[kept[t + 2]] - outer[kept[t]]);
    if (glm::length(c) > 2e-7f) body.outerTriangles.insert(body.outerTriangles.end(), {kept[t], kept[t + 1], kept[t + 2]});
  }
  body.directions = TheatricalMaskGeometry::smoothNormals(outer, body.outerTriangles);

  // Boundary (hem ring and mouth rim), inner surface and rim walls.
  ShellClosure shell = closeShell(body.outerTriangles, n);
  body.rimVertices = std::move(shell.rimVertices);
  body.innerTriangles = std::move(shell.backTriangles);
  body.rimTriangles = std::move(shell.rimTriangles);
  body.allTriangles = std::move(shell.allTriangles);
  return body;
}

// ---------------------------------------------------------------------------
// [SECTION] Expression displacement fields
// p is a rest position; weights fade to 0 towards the back so that only the
// face moves.
// ---------------------------------------------------------------------------

float frontWeight(float3 p) { return smoothstep(clamp01((p.z - 0.05f) / 0.2f)); }

// Everything below the mouth line moves with the jaw; the step sits inside
// the opening (between the rims), and the effect fades out down the body.
float jawWeight(float3 p) {
  const float step = smoothstep(clamp01((0.11f - p.y) / 0.06f));
  const float fade = 1.0f - smoothstep(clamp01((-0.05f - p.y) / 0.45f));
  return step * fade * expf32(-std::pow(std::fabs(p.x) / 0.34f, 4.0f)) * frontWeight(p);
}

// The band just above the opening (upper lip).
float upperLip(float3 p) {
  const float above = smoothstep(clamp01((p.y - 0.05f) / 0.06f));
  const float fade = 1.0f - smoothstep(clamp01((p.y - 0.2f) / 0.12f));
  return above * fade * expf32(-std::pow(std::fabs(p.x) / 0.3f, 4.0f)) * frontWeight(p);
}

// The band just below the opening (lower lip).
float lowerLip(float3 p) {
  const float below = smoothstep(clamp01((0.11f - p.y) / 0.06f));
  const float band = expf32(-(p.y * p.y) / 0.01f);
  return below * band * expf32(-std::pow(std::fabs(p.x) / 0.3f, 4.0f)) * frontWeight(p);
}

float mouthArea(float3 p) { return gaussian(p.x, p.y - CartoonGhost::mouthCentreY, 0.22f, 0.12f) * frontWeight(p); }

float corner(float3 p, float s) {
  return gaussian(p.x - s * CartoonGhost::mouthHalfWidth, p.y - CartoonGhost::mouthCentreY, 0.07f, 0.07f) * frontWeight(p);
}

float sideHalf(float x, float s) { return (std::tanh(s * x / 0.06f) + 1.0f) / 2.0f; }

float bump(float3 p, float cx, float cy, float sx, float sy) { return gaussian(p.x - cx, p.y - cy, sx, sy) * frontWeight(p); }

using Field = std::function<float3(float3)>;

std::vector<CartoonGhost::Entry> buildTable() {
  std::vector<CartoonGhost::Entry> t;
  const auto add = [&t](std::string name, Field f) { t.push_back({std::move(name), std::move(f)}); };
  const auto sided = [&add](const std::string& stem, const std::function<float3(float3, float)>& f) {
    add(stem + "Left", [f](float3 p) { return f(p, 1.0f); });
    add(stem + "Right", [f](float3 p) { return f(p, -1.0f); });
  };

  add("jawOpen", [](float3 p) {
    const float w = jawWeight(p);
    return float3(0.0f, -0.17f * w, -0.02f * w);
  });
  add("mouthClose", [](float3 p) { return float3(0.0f, 0.06f * jawWeight(p), 0.0f); });
  add("mouthFunnel", [](float3 p) {
    const float g = mouthArea(p);
    return float3(-0.35f * p.x * g, 0.03f * upperLip(p) - 0.05f * lowerLip(p), 0.04f * g);
  });
  add("mouthPucker", [](float3 p) {
    const float g = mouthArea(p);
    return float3(-0.5f * p.x * g, 0.0f, 0.06f * g);
  });
  sided("mouthSmile", [](float3 p, float s) {
    const float c = corner(p, s);
    const float cheek = bump(p, s * 0.28f, 0.18f, 0.1f, 0.08f);
    return float3(0.04f * s * c, 0.06f * c + 0.02f * cheek, 0.01f * c + 0.015f * cheek);
  });
  sided("mouthFrown", [](float3 p, float s) {
    const float c = corner(p, s);
    return float3(0.01f * s * c, -0.06f * c, 0.0f);
  });
  sided("mouthStretch", [](float3 p, float s) {
    const float c = corner(p, s);
    return float3(0.05f * s * c, -0.015f * c, 0.0f);
  });
  sided("mouthPress", [](float3 p, float s) {
    const float k = sideHalf(p.x, s);
    return float3(0.0f, (-0.012f * upperLip(p) + 0.012f * lowerLip(p)) * k, -0.006f * (upperLip(p) + lowerLip(p)) * k);
  });
  sided("mouthDimple", [](float3 p, float s) {
    const float c = corner(p, s);
    return float3(0.025f * s * c, 0.0f, -0.015f * c);
  });
  sided("mouthLowerDown", [](float3 p, float s) {
    return float3(0.0f, -0.05f * lowerLip(p) * sideHalf(p.x, s), 0.0f);
  });
  sided("mouthUpperUp", [](float3 p, float s) {
    return float3(0.0f, 0.04f * upperLip(p) * sideHalf(p.x, s), 0.0f);
  });
  add("mouthLeft", [](float3 p) { return float3(0.06f * mouthArea(p), 0.0f, 0.0f); });
  add("mouthRight", [](float3 p) { return float3(-0.06f * mouthArea(p), 0.0f, 0.0f); });
  add("mouthRollLower", [](float3 p) {
    const float w = lowerLip(p);
    return float3(0.0f, 0.015f * w, -0.02f * w);
  });
  add("mouthRollUpper", [](float3 p) {
    const float w = upperLip(p);
    return float3(0.0f, -0.012f * w, -0.02f * w);
  });
  add("mouthShrugLower", [](float3 p) {
    const float g = bump(p, 0.0f, -0.02f, 0.2f, 0.08f);
    return float3(0.0f, 0.025f * g, 0.01f * g);
  });
  add("mouthShrugUpper", [](float3 p) {
    const float g = bump(p, 0.0f, 0.16f, 0.2f, 0.06f);
    return float3(0.0f, 0.015f * g, 0.0f);
  });
  add("jawLeft", [](float3 p) { return float3(0.05f * jawWeight(p), 0.0f, 0.0f); });
  add("jawRight", [](float3 p) { return float3(-0.05f * jawWeight(p), 0.0f, 0.0f); });
  add("jawForward", [](float3 p) { return float3(0.0f, 0.0f, 0.04f * jawWeight(p)); });
  add("browInnerUp", [](float3 p) {
    const float g = gaussian(std::fabs(p.x) - 0.13f, p.y - 0.56f, 0.07f, 0.06f) * frontWeight(p);
    return float3(0.0f, 0.04f * g, 0.01f * g);
  });
  sided("browDown", [](float3 p, float s) {
    const float g = bump(p, s * 0.2f, 0.56f, 0.1f, 0.06f);
    return float3(-0.01f * s * g, -0.035f * g, 0.012f * g);
  });
  sided("browOuterUp", [](float3 p, float s) {
    const float g = bump(p, s * 0.28f, 0.57f, 0.08f, 0.06f);
    return float3(0.0f, 0.04f * g, 0.008f * g);
  });
  add("cheekPuff", [](float3 p) {
    const float g = gaussian(std::fabs(p.x) - 0.3f, p.y - 0.1f, 0.12f, 0.12f) * frontWeight(p);
    return float3(p.x >= 0.0f ? 0.05f * g : -0.05f * g, 0.0f, 0.05f * g);
  });
  sided("cheekSquint", [](float3 p, float s) {
    const float g = bump(p, s * 0.25f, 0.28f, 0.1f, 0.07f);
    return float3(0.0f, 0.03f * g, 0.015f * g);
  });
  // Around the eye the body opens (wide) or lifts from below (squint); the
  // eye itself only blinks and looks.
  sided("eyeWide", [](float3 p, float s) {
    const float dx = p.x - s * CartoonGhost::eyeX;
    const float dy = p.y - CartoonGhost::eyeY;
    const float g = gaussian(dx, dy, 0.09f, 0.11f) * frontWeight(p);
    return float3(0.15f * dx * g, 0.2f * dy * g, 0.0f);
  });
  sided("eyeSquint", [](float3 p, float s) {
    const float g = bump(p, s * CartoonGhost::eyeX, 0.33f, 0.09f, 0.05f);
    return float3(0.0f, 0.025f * g, 0.015f * g);
  });
  sided("noseSneer", [](float3 p, float s) {
    const float g = bump(p, s * 0.07f, 0.45f, 0.05f, 0.06f);
    return float3(-0.015f * s * g, 0.01f * g, 0.012f * g);
  });
  return t;
}

// ---------------------------------------------------------------------------
// [SECTION] Shell assembly, colours, materials
// ---------------------------------------------------------------------------

// Outer, inner (offset inwards along the rest normals), then the rim copies,
// written straight into new position and normal sources.
std::pair<GeometrySource, GeometrySource> assembleShell(const GhostBodyTopology& body, const std::vector<float3>& outer) {
  const std::size_t n = body.outerCount();
  const std::size_t k = body.rimVertices.size();
  std::vector<float3> pos(body.shellCount());
  for (std::size_t i = 0; i < n; ++i) {
    pos[i] = outer[i];
    pos[n + i] = outer[i] - CartoonGhost::shellThickness * body.directions[i];
  }
  for (std::size_t j = 0; j < k; ++j) {
    const auto r = static_cast<std::size_t>(body.rimVertices[j]);
    pos[2 * n + j] = pos[r];
    pos[2 * n + k + j] = pos[n + r];
  }
  const auto nrm = TheatricalMaskGeometry::smoothNormals(pos, body.allTriangles);
  return {SourceBuffer::vec3Source(GeometrySource::Semantic::vertex, pos),
          SourceBuffer::vec3Source(GeometrySource::Semantic::normal, nrm)};
}

GeometrySource bodyColours(const GhostBodyTopology& body) {
  const std::size_t n = body.outerCount();
  const std::size_t k = body.rimVertices.size();
  const float3 sheet(0.93f, 0.95f, 1.0f);  // cool white
  const float3 blush(1.0f, 0.66f, 0.74f);
  std::vector<float3> colours(body.shellCount());
  for (std::size_t i = 0; i < n; ++i) {
    const float3 p = body.outer[i];
    const float b = 0.6f * (gaussian(p.x - 0.27f, p.y - 0.29f, 0.06f, 0.04f) + gaussian(p.x + 0.27f, p.y - 0.29f, 0.06f, 0.04f)) *
                    frontWeight(p);
    colours[i] = sheet + (blush - sheet) * std::min(b, 1.0f);
    colours[n + i] = float3(0.40f, 0.42f, 0.50f);  // the inside, darker
  }
  std::vector<bool> mouth(n, false);
  for (const auto i : body.mouthRim) mouth[static_cast<std::size_t>(i)] = true;
  for (std::size_t j = 0; j < k; ++j) {
    const bool isMouth = mouth[static_cast<std::size_t>(body.rimVertices[j])];
    const float3 c = isMouth ? float3(0.16f, 0.04f, 0.06f) : float3(0.62f, 0.64f, 0.72f);
    colours[2 * n + j] = c;
    colours[2 * n + k + j] = c * 0.7f;
  }
  return GeometrySource::make(GeometrySource::Semantic::color, colours, 16);
}

std::vector<Material> bodyMaterials() {
  Material outer;
  outer.name = "GhostSheet";
  outer.diffuse = float4(1.0f);
  outer.roughness = 0.6f;
  // A soft cool glow: enough that the sheet reads as luminous under the
  // default rig and stays visible when the stage lights are low.
  outer.emission = float3(0.26f, 0.28f, 0.32f);
  Material inner = outer;
  inner.name = "GhostInside";
  inner.roughness = 0.8f;
  inner.emission = float3(0.0f);
  Material rim = inner;
  rim.name = "GhostRim";
  rim.roughness = 0.7f;
  return {outer, inner, rim};
}

std::vector<GeometryElement> triangleElements(const std::vector<const std::vector<std::int32_t>*>& lists) {
  std::vector<GeometryElement> out;
  for (const auto* list : lists) {
    GeometryElement e;
    e.indices = std::make_shared<const std::vector<std::int32_t>>(*list);
    out.push_back(std::move(e));
  }
  return out;
}

// ---------------------------------------------------------------------------
// [SECTION] Eyes and mouth cavity
// ---------------------------------------------------------------------------

// A UV ellipsoid around `centre` with the given semi-axes, appended.
void appendEllipsoid(float3 centre, float3 semi, int stacks, int slices, std::vector<float3>& pos,
                     std::vector<float3>& nrm, std::vector<std::int32_t>& idx) {
  const auto base = static_cast<std::int32_t>(pos.size());
  for (int i = 0; i <= stacks; ++i) {
    const float phi = pi * static_cast<float>(i) / stacks;  // from the top
    for (int j = 0; j <= slices; ++j) {
      const float lambda = 2.0f * pi * static_cast<float>(j) / slices;
      const float3 unit(std::sin(phi) * std::sin(lambda), std::cos(phi), std::sin(phi) * std::cos(lambda));
      pos.push_back(centre + unit * semi);
      nrm.push_back(glm::normalize(unit / semi));
    }
  }
  for (int i = 0; i < stacks; ++i) {
    for (int j = 0; j < slices; ++j) {
      const std::int32_t a = base + i * (slices + 1) + j, b = a + 1;
      const std::int32_t d = a + slices + 1, e = d + 1;
      idx.insert(idx.end(), {a, d, e, a, e, b});
    }
  }
}

std::shared_ptr<const Geometry> buildEye() {
  std::vector<float3> pos, nrm;
  std::vector<std::int32_t> eyeIdx, glintIdx;
  // 0.09 wide, 0.13 tall, 0.04 deep, centred on the node's pivot.
  appendEllipsoid(float3(0.0f), float3(0.045f, 0.065f, 0.02f), 16, 24, pos, nrm, eyeIdx);
  const std::size_t eyeVertices = pos.size();
  // A small white glint, upper left on the front of the eye.
  appendEllipsoid(float3(-0.014f, 0.026f, 0.0165f), float3(0.011f, 0.013f, 0.005f), 8, 12, pos, nrm, glintIdx);
  std::vector<float3> colours(pos.size(), float3(1.0f));
  std::fill(colours.begin(), colours.begin() + static_cast<std::ptrdiff_t>(eyeVertices), float3(0.025f, 0.025f, 0.035f));

  auto g = std::make_shared<Geometry>();
  g->name = "GhostEye";
  auto [p, n] = TheatricalMaskGeometry::makeSources(pos, nrm);
  g->sources = {std::move(p), std::move(n), GeometrySource::make(GeometrySource::Semantic::color, colours, 16)};
  g->elements = triangleElements({&eyeIdx, &glintIdx});
  Material eye;
  eye.name = "GhostEye";
  eye.diffuse = float4(1.0f);
  eye.roughness = 0.12f;  // glossy
  Material glint;
  glint.name = "GhostEyeGlint";
  glint.diffuse = float4(1.0f);
  glint.emission = float3(1.0f);
  glint.constantLighting = true;
  g->materials = {eye, glint};
  return g;
}

// The cavity patch: a piece of the body's surface pulled 0.055 inwards,
// wide and tall enough to back the mouth at its widest opening.
constexpr int cavityColumns = 25;
constexpr int cavityRows = 19;

std::vector<float3> cavityRestPositions() {
  std::vector<float3> pos;
  for (int i = 0; i < cavityRows; ++i) {
    const float y = 0.26f - 0.58f * static_cast<float>(i) / (cavityRows - 1);
    const float r = CartoonGhost::radiusAt(y);
    for (int j = 0; j < cavityColumns; ++j) {
      const float theta = -0.55f + 1.1f * static_cast<float>(j) / (cavityColumns - 1);
      pos.push_back({(r - 0.055f) * std::sin(theta), y, (depthRatio * r - 0.055f) * std::cos(theta)});
    }
  }
  return pos;
}

const std::vector<std::int32_t>& cavityTriangles() {
  static const std::vector<std::int32_t> idx = [] {
    std::vector<std::int32_t> out;
    for (int i = 0; i + 1 < cavityRows; ++i) {
      for (int j = 0; j + 1 < cavityColumns; ++j) {
        const std::int32_t a = i * cavityColumns + j, b = a + 1, d = a + cavityColumns, e = d + 1;
        out.insert(out.end(), {a, d, e, a, e, b});
      }
    }
    return out;
  }();
  return idx;
}

// ---------------------------------------------------------------------------
// [SECTION] Shared data and the builder
// ---------------------------------------------------------------------------

using TargetList = MorphTargetList;

struct GhostCache {
  std::shared_ptr<const Geometry> body, eye, cavity;
  std::shared_ptr<const TargetList> bodyTargets, cavityTargets;
};

const GhostCache& ghostCache() {
  static const GhostCache cache = [] {
    GhostCache c;
    const auto& body = CartoonGhost::body();
    const auto elements =
        triangleElements({&body.outerTriangles, &body.innerTriangles, &body.rimTriangles});
    {
      auto g = std::make_shared<Geometry>();
      g->name = "CartoonGhost";
      auto [pos, nrm] = assembleShell(body, body.outer);
      std::vector<float2> uv(body.uvs);
      uv.insert(uv.end(), body.uvs.begin(), body.uvs.end());
      for (int pass = 0; pass < 2; ++pass)
        for (const auto r : body.rimVertices) uv.push_back(body.uvs[static_cast<std::size_t>(r)]);
      g->sources = {std::move(pos), std::move(nrm), GeometrySource::make(GeometrySource::Semantic::texcoord, uv),
                    bodyColours(body)};
      g->elements = elements;
      g->materials = bodyMaterials();
      c.body = std::move(g);
    }
    c.eye = buildEye();
    const auto cavityRest = cavityRestPositions();
    const auto cavityElements = triangleElements({&cavityTriangles()});
    {
      auto g = std::make_shared<Geometry>();
      g->name = "MouthCavityBacking";
      auto [pos, nrm] = TheatricalMaskGeometry::makeSources(
          cavityRest, TheatricalMaskGeometry::smoothNormals(cavityRest, cavityTriangles()));
      g->sources = {std::move(pos), std::move(nrm),
                    GeometrySource::make(GeometrySource::Semantic::color,
                                         std::vector<float3>(cavityRest.size(), float3(0.07f, 0.015f, 0.03f)), 16)};
      g->elements = cavityElements;
      Material dark;
      dark.name = "GhostMouthCavity";
      dark.diffuse = float4(1.0f);
      dark.roughness = 1.0f;
      dark.doubleSided = true;
      dark.constantLighting = true;
      g->materials = {dark};
      c.cavity = std::move(g);
    }

    // One thread builds each target whole: identical whatever the thread count.
    const auto& table = CartoonGhost::displacements();
    auto bodyTargets = std::make_shared<TargetList>(table.size());
    auto cavityTargets = std::make_shared<TargetList>(table.size());
    parallelForEach(table.size(), [&](std::size_t t) {
      std::vector<float3> outer(body.outer.size());
      for (std::size_t i = 0; i < outer.size(); ++i) outer[i] = body.outer[i] + table[t].displacement(body.outer[i]);
      auto g = std::make_shared<Geometry>();
      g->name = table[t].name;
      auto [pos, nrm] = assembleShell(body, outer);
      g->sources = {std::move(pos), std::move(nrm)};
      g->elements = elements;
      (*bodyTargets)[t] = MorphTarget::fromGeometry(*c.body, *g);

      std::vector<float3> cavity(cavityRest.size());
      for (std::size_t i = 0; i < cavity.size(); ++i) cavity[i] = cavityRest[i] + table[t].displacement(cavityRest[i]);
      auto h = std::make_shared<Geometry>();
      h->name = table[t].name;
      auto [cp, cn] = TheatricalMaskGeometry::makeSources(cavity, TheatricalMaskGeometry::smoothNormals(cavity, cavityTriangles()));
      h->sources = {std::move(cp), std::move(cn)};
      h->elements = cavityElements;
      (*cavityTargets)[t] = MorphTarget::fromGeometry(*c.cavity, *h);
    });
    c.bodyTargets = std::move(bodyTargets);
    c.cavityTargets = std::move(cavityTargets);
    return c;
  }();
  return cache;
}

}  // namespace

float CartoonGhost::radiusAt(float y) {
  if (y >= headCentreY) {
    const float dy = y - headCentreY;
    return std::sqrt(std::max(0.0f, headRadius * headRadius - dy * dy));
  }
  return headRadius + 0.15f * smoothstep(clamp01((headCentreY - y) / 1.2f));
}

float3 CartoonGhost::surfacePoint(float theta, float y) { return pointOnBody(theta, y, radiusAt(y)); }

const GhostBodyTopology& CartoonGhost::body() {
  static const GhostBodyTopology b = buildBody();
  return b;
}

const std::vector<CartoonGhost::Entry>& CartoonGhost::displacements() {
  static const std::vector<Entry> table = buildTable();
  return table;
}

const std::unordered_map<std::string, int>& CartoonGhost::targetNameToIndex() {
  static const std::unordered_map<std::string, int> map = targetNameIndex(displacements());
  return map;
}

std::shared_ptr<const Geometry> CartoonGhost::bodyGeometry() { return ghostCache().body; }
std::shared_ptr<const Geometry> CartoonGhost::eyeGeometry() { return ghostCache().eye; }
std::shared_ptr<const Geometry> CartoonGhost::cavityGeometry() { return ghostCache().cavity; }
std::shared_ptr<const TargetList> CartoonGhost::bodyTargets() { return ghostCache().bodyTargets; }
std::shared_ptr<const TargetList> CartoonGhost::cavityTargets() { return ghostCache().cavityTargets; }

CharacterBuild createGhostNode() {
  const GhostCache& cache = ghostCache();
  CharacterBuild build;

  auto cavityMorpher = std::make_shared<Morpher>();
  cavityMorpher->targets = cache.cavityTargets;
  cavityMorpher->weights.assign(cache.cavityTargets->size(), 0.0f);
  build.morpher = std::make_shared<Morpher>();
  build.morpher->targets = cache.bodyTargets;
  build.morpher->weights.assign(cache.bodyTargets->size(), 0.0f);
  build.morpher->followers.push_back(cavityMorpher);  // the cavity moves with the mouth

  build.node = Node::make("CartoonGhost");
  build.node->geometry = cache.body;
  build.node->morpher = build.morpher;

  // Eyes sit on the front of the head, sunk a little into the sheet.
  for (const auto& [name, s] : {std::pair<const char*, float>{"LeftEye", 1.0f}, {"RightEye", -1.0f}}) {
    auto eye = Node::make(name);
    const float r = CartoonGhost::radiusAt(CartoonGhost::eyeY);
    const float3 onSurface = CartoonGhost::surfacePoint(std::asin(s * CartoonGhost::eyeX / r), CartoonGhost::eyeY);
    eye->position = float3(onSurface.x, onSurface.y, onSurface.z + 0.004f);
    eye->geometry = cache.eye;
    build.node->addChild(eye);
  }
  auto cavity = Node::make("MouthCavityBacking");
  cavity->geometry = cache.cavity;
  cavity->morpher = cavityMorpher;
  build.node->addChild(cavity);

  build.targetNameToIndex = CartoonGhost::targetNameToIndex();
  return build;
}

float ghostHeadTopHalfWidth() {
  const auto& outer = CartoonGhost::body().outer;
  float top = -1e9f;
  for (const auto& p : outer) top = std::max(top, p.y);
  float halfWidth = 0.0f;
  for (const auto& p : outer)
    if (p.y >= top - 0.06f) halfWidth = std::max(halfWidth, std::fabs(p.x));
  return halfWidth;
}

}  // namespace velmora
