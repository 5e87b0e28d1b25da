#include "characters/WireframeLevel.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <unordered_map>

#include "characters/MaskExpressionTargets.h"
#include "characters/TheatricalMaskGeometry.h"

namespace velmora {

namespace {

using G = TheatricalMaskGeometry;
using Snap = TheatricalMaskTopology::Snap;

constexpr int lastRow = G::rows - 1;        // 190
constexpr int lastColumn = G::columns - 1;  // 160

std::int32_t gridIndex(int row, int column) { return row * G::columns + column; }

// Builds a layout, giving each front vertex one point however often it is
// used.
class LayoutBuilder {
 public:
  LayoutBuilder() : referenced_(G::topology().frontCount(), false) {
    for (const auto i : G::topology().frontTriangles) referenced_[static_cast<std::size_t>(i)] = true;
  }

  bool referenced(std::int32_t v) const { return referenced_[static_cast<std::size_t>(v)]; }

  int point(std::int32_t vertex) {
    const auto found = pointOf_.find(vertex);
    if (found != pointOf_.end()) return found->second;
    const int index = static_cast<int>(layout_.vertices.size());
    layout_.vertices.push_back(vertex);
    pointOf_.emplace(vertex, index);
    return index;
  }

  void chain(const std::vector<std::int32_t>& vertices, bool closed) {
    for (std::size_t i = 0; i + 1 < vertices.size(); ++i) segment(vertices[i], vertices[i + 1]);
    if (closed && vertices.size() > 2) segment(vertices.back(), vertices.front());
  }

  void segment(std::int32_t a, std::int32_t b) {
    const int pa = point(a), pb = point(b);
    if (pa != pb) layout_.segments.push_back({pa, pb});
  }

  WireframeLayout take() { return std::move(layout_); }

 private:
  std::vector<bool> referenced_;
  std::unordered_map<std::int32_t, int> pointOf_;
  WireframeLayout layout_;
};

// The used front vertex nearest to a 2D point, optionally restricted to
// vertices snapped onto a hole rim.
std::int32_t nearestVertex(const LayoutBuilder& b, float2 target, bool requireSnap = false, Snap snap = Snap::none) {
  const auto& topo = G::topology();
  std::int32_t best = 0;
  float bestDistance = 1e30f;
  for (std::size_t i = 0; i < topo.frontCount(); ++i) {
    const auto v = static_cast<std::int32_t>(i);
    if (!b.referenced(v)) continue;
    if (requireSnap && topo.snapped[i] != snap) continue;
    const float2 d = topo.gridPoints[i] - target;
    const float distance = d.x * d.x + d.y * d.y;
    if (distance < bestDistance) bestDistance = distance, best = v;
  }
  return best;
}

// The mouth-row duplicate (lower lip) of a mouth-row column, or -1.
std::int32_t lowerTwin(int column) {
  const auto& topo = G::topology();
  const float2 p = topo.gridPoints[static_cast<std::size_t>(gridIndex(G::mouthRow, column))];
  for (std::size_t i = G::gridVertexCount; i < topo.frontCount(); ++i)
    if (topo.gridPoints[i] == p) return static_cast<std::int32_t>(i);
  return -1;
}

// Face outline, brows, eye openings, nose and mouth (80 points).
void addOutlines(LayoutBuilder& b) {
  const auto& topo = G::topology();

  // Face outline: the grid's border, 11 rows down each side.
  std::vector<std::int32_t> outline{gridIndex(0, 80)};
  for (int row = 0; row <= lastRow; row += 19) outline.push_back(gridIndex(row, lastColumn));
  outline.push_back(gridIndex(lastRow, 80));
  for (int row = lastRow; row >= 0; row -= 19) outline.push_back(gridIndex(row, 0));
  b.chain(outline, true);

  for (const float s : {1.0f, -1.0f}) {
    // Eye opening: eight rim vertices around the ellipse.
    std::vector<std::int32_t> eye;
    const float c = std::cos(G::eyeAngle), sn = s * std::sin(G::eyeAngle);
    for (int k = 0; k < 8; ++k) {
      const float a = static_cast<float>(k) * 0.7853982f;
      const float lx = G::eyeSemiX * std::cos(a);
      const float ly = (std::sin(a) >= 0.0f ? G::eyeSemiUpper : G::eyeSemiLower) * std::sin(a);
      const float2 target{c * lx - sn * ly + s * G::eyeCenter.x, sn * lx + c * ly + G::eyeCenter.y};
      eye.push_back(nearestVertex(b, target, true, Snap::eye));
    }
    b.chain(eye, true);

    // Brow: an arch over the eye from the browPoint.
    std::vector<std::int32_t> brow;
    for (int k = 0; k < 5; ++k) {
      const float x = 0.18f + 0.09f * static_cast<float>(k);
      const float u = (x - G::browPoint.x) / 0.2f;
      brow.push_back(nearestVertex(b, {s * x, G::browPoint.y - 0.03f + 0.05f * (1.0f - u * u)}));
    }
    b.chain(brow, false);

    // Nostril rim: five snapped vertices around the hole.
    std::vector<std::int32_t> nostril;
    const float nc = std::cos(G::nostrilAngle), ns = s * std::sin(G::nostrilAngle);
    for (int k = 0; k < 5; ++k) {
      const float a = static_cast<float>(k) * 1.2566371f;
      const float lx = G::nostrilSemiX * std::cos(a), ly = G::nostrilSemiY * std::sin(a);
      const float2 target{nc * lx - ns * ly + s * G::nostrilCenter.x, ns * lx + nc * ly + G::nostrilCenter.y};
      nostril.push_back(nearestVertex(b, target, true, Snap::nostril));
    }
    b.chain(nostril, true);
  }

  // Nose bridge down to the tip.
  b.chain({nearestVertex(b, {0.0f, 0.35f}), nearestVertex(b, {0.0f, 0.2f}), nearestVertex(b, {0.0f, 0.08f}),
           nearestVertex(b, G::noseTip)},
          false);

  // Mouth: the upper lip on the mouth row, the lower lip on its duplicates,
  // meeting at the corners (the first mouth-row columns not duplicated).
  int leftCorner = 0, rightCorner = lastColumn;
  for (int j = 0; j <= lastColumn; ++j) {
    if (std::fabs(topo.gridPoints[static_cast<std::size_t>(gridIndex(G::mouthRow, j))].x) < G::mouthHalfWidth) {
      leftCorner = j - 1;
      break;
    }
  }
  rightCorner = lastColumn - leftCorner;
  std::vector<std::int32_t> upper{gridIndex(G::mouthRow, leftCorner)};
  std::vector<std::int32_t> lower{gridIndex(G::mouthRow, leftCorner)};
  for (int k = -3; k <= 3; ++k) {
    const float x = 0.1f * static_cast<float>(k);
    int column = leftCorner + 1;
    float best = 1e9f;
    for (int j = leftCorner + 1; j < rightCorner; ++j) {
      const float d = std::fabs(topo.gridPoints[static_cast<std::size_t>(gridIndex(G::mouthRow, j))].x - x);
      if (d < best) best = d, column = j;
    }
    upper.push_back(gridIndex(G::mouthRow, column));
    lower.push_back(lowerTwin(column));
  }
  upper.push_back(gridIndex(G::mouthRow, rightCorner));
  lower.push_back(gridIndex(G::mouthRow, rightCorner));
  b.chain(upper, false);
  b.chain(lower, false);
}

// Every `step`th row and column (and the last ones), with lines only where
// the mesh is continuous between the two ends.
void addGrid(LayoutBuilder& b, int step) {
  std::vector<int> rows, columns;
  for (int r = 0; r <= lastRow; r += step) rows.push_back(r);
  if (rows.back() != lastRow) rows.push_back(lastRow);
  for (int c = 0; c <= lastColumn; c += step) columns.push_back(c);
  if (columns.back() != lastColumn) columns.push_back(lastColumn);

  std::vector<bool> splitColumn(G::columns, false);  // columns whose mouth-row vertex is duplicated
  for (int j = 0; j <= lastColumn; ++j) splitColumn[static_cast<std::size_t>(j)] = lowerTwin(j) >= 0;

  for (const int r : rows)
    for (const int c : columns)
      if (b.referenced(gridIndex(r, c))) b.point(gridIndex(r, c));

  for (const int r : rows) {
    for (std::size_t k = 0; k + 1 < columns.size(); ++k) {
      bool continuous = true;
      for (int c = columns[k]; c <= columns[k + 1] && continuous; ++c) continuous = b.referenced(gridIndex(r, c));
      if (continuous) b.segment(gridIndex(r, columns[k]), gridIndex(r, columns[k + 1]));
    }
  }
  for (const int c : columns) {
    for (std::size_t k = 0; k + 1 < rows.size(); ++k) {
      const int r0 = rows[k], r1 = rows[k + 1];
      if (r0 <= G::mouthRow && r1 > G::mouthRow && splitColumn[static_cast<std::size_t>(c)]) continue;  // the slit
      bool continuous = true;
      for (int r = r0; r <= r1 && continuous; ++r) continuous = b.referenced(gridIndex(r, c));
      if (continuous) b.segment(gridIndex(r0, c), gridIndex(r1, c));
    }
  }
}

WireframeLayout buildLayout(TrackingDetail detail) {
  LayoutBuilder b;
  switch (detail) {
    case TrackingDetail::simple: break;
    case TrackingDetail::standard: addGrid(b, 12); break;
    case TrackingDetail::detailed: addGrid(b, 6); break;
    case TrackingDetail::many: addGrid(b, 3); break;
  }
  addOutlines(b);
  return b.take();
}

}  // namespace

const WireframeLayout& wireframeLayout(TrackingDetail detail) {
  static const std::array<WireframeLayout, 4> layouts{buildLayout(TrackingDetail::simple),
                                                      buildLayout(TrackingDetail::standard),
                                                      buildLayout(TrackingDetail::detailed),
                                                      buildLayout(TrackingDetail::many)};
  const int index = std::clamp(rawValue(detail), 0, 3);
  return layouts[static_cast<std::size_t>(index)];
}

WireframeLevel wireframeForDetail(TrackingDetail detail, const BlendshapeMap& blendshapes) {
  const WireframeLayout& layout = wireframeLayout(detail);
  const auto geometry = G::makeWireframeGeometry();
  const auto morpher = makeWireframeMorpher();
  const auto& map = MaskExpressionTargets::targetNameToIndex();
  // The vocabulary's targets, found once; other names by their lower case.
  static const std::array<int, arkitBlendShapeCount> slotTargets = [&map] {
    std::array<int, arkitBlendShapeCount> targets{};
    for (const ARKitBlendShape shape : allCases<ARKitBlendShape>()) {
      const auto found = map.find(targetKey(std::string(rawValue(shape))));
      targets[index(shape)] = found == map.end() ? -1 : found->second;
    }
    return targets;
  }();
  blendshapes.forEachSlot([&](ARKitBlendShape shape, float value) {
    if (std::isfinite(value) && slotTargets[index(shape)] >= 0)
      morpher->setWeight(static_cast<std::size_t>(slotTargets[index(shape)]), value);
  });
  for (const auto& [name, value] : blendshapes.others()) {
    if (!std::isfinite(value)) continue;
    const auto found = map.find(targetKey(name));
    if (found != map.end()) morpher->setWeight(static_cast<std::size_t>(found->second), value);
  }

  // The reference blend (neutral + sum w (target - neutral)), evaluated at
  // the selected vertices only.
  WireframeLevel level;
  level.vertices = layout.vertices;
  level.segments = layout.segments;
  level.points.reserve(layout.vertices.size());
  const auto* base = geometry->source(GeometrySource::Semantic::vertex);
  for (const auto v : layout.vertices) level.points.push_back(base->vec3(static_cast<std::size_t>(v)));
  const auto targets = morpher->loadedTargets();
  for (std::size_t t = 0; targets && t < targets->size(); ++t) {
    const float w = morpher->weight(t);
    if (w == 0.0f || !(*targets)[t]) continue;
    const MorphTarget& target = *(*targets)[t];
    if (!target.hasPositions) continue;
    for (std::size_t p = 0; p < layout.vertices.size(); ++p) {
      const auto v = static_cast<std::uint32_t>(layout.vertices[p]);
      const auto it = std::lower_bound(target.vertices.begin(), target.vertices.end(), v);
      if (it != target.vertices.end() && *it == v)
        level.points[p] += w * target.positionDeltas[static_cast<std::size_t>(it - target.vertices.begin())];
    }
  }
  return level;
}

}  // namespace velmora
