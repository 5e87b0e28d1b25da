// The mask's expression targets: table order and target map (and both
// characters' ARKit names), the shared weights and each target's constant at its
// anchor points, mirrored sides, what the key expressions do to the mesh, and
// the shared character data.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>
#include <string>
#include <tuple>

#include "MaskFeatures.h"
#include "characters/CartoonGhost.h"
#include "characters/MaskExpressionTargets.h"
#include "characters/TheatricalMaskGeometry.h"
#include "stage/ARKitBlendShape.h"

namespace velmora {
namespace {

using G = TheatricalMaskGeometry;
using T = MaskExpressionTargets;
using Semantic = GeometrySource::Semantic;

// The named target's displacement of every vertex (zero where it moves nothing).
std::vector<float3> targetDeltas(const CharacterBuild& build, const std::string& name) {
  return (*build.morpher->targets)[static_cast<std::size_t>(build.targetNameToIndex.at(name))]->densePositionDeltas(
      build.node->geometry->vertexCount());
}

const T::Entry& entry(const std::string& name) {
  for (const auto& e : T::blendShapeDisplacements())
    if (e.name == name) return e;
  throw std::runtime_error("no entry " + name);
}

TEST(MaskTargets, TableOrderAndBothCharactersNames) {
  const auto& table = T::blendShapeDisplacements();
  ASSERT_EQ(table.size(), 43u);  // the map's size: the export round trip (one key per target)
  const std::pair<std::size_t, const char*> order[] = {
      {0, "eyeBlinkLeft"}, {7, "jawLeft"},     {15, "mouthUpperUpLeft"},  {16, "eyeBlinkRight"}, {24, "mouthRight"},
      {31, "mouthUpperUpRight"}, {32, "browInnerUp"}, {34, "jawOpen"}, {42, "mouthShrugUpper"}};
  for (const auto& [index, name] : order) EXPECT_EQ(table[index].name, name);
  // An ARKit name each (no name twice): every one but gaze and the tongue;
  // the ghost's eyes are nodes, so it has no blinks either.
  std::set<std::string> expected, names, ghost;
  for (const auto shape : allCases<ARKitBlendShape>()) expected.insert(std::string(rawValue(shape)));
  for (const char* gone : {"eyeLookDownLeft", "eyeLookDownRight", "eyeLookInLeft", "eyeLookInRight", "eyeLookOutLeft",
                           "eyeLookOutRight", "eyeLookUpLeft", "eyeLookUpRight", "tongueOut"})
    expected.erase(gone);
  for (const auto& e : table) names.insert(e.name);
  EXPECT_EQ(names, expected);
  ASSERT_EQ(CartoonGhost::displacements().size(), 41u);
  for (const auto& e : CartoonGhost::displacements()) ghost.insert(e.name);
  for (const char* blink : {"eyeBlinkLeft", "eyeBlinkRight"}) expected.erase(blink);
  EXPECT_EQ(ghost, expected);
  // That each lower-cased key names its own target, for both characters, is
  // checked by the export round trip (CharacterExport.EachFileReadsBack...);
  // that a target is named as its table row: the fresh assembly below.
}

// The shared weights at hand-computed points, and each target's constant at
// its anchor (NaN: not checked).
TEST(MaskTargets, SharedWeightsAndConstantsAtTheirAnchors) {
  const float2 lidTop = {0.4f - 0.046f * std::sin(-0.034906585f), 0.33f + 0.046f * std::cos(-0.034906585f)};
  const struct {
    const char* what;
    float actual, expected, tolerance;
  } weights[] = {
      {"jaw off the jaw", T::jawWeight({0.0f, -0.6f}, false), 0.0f, 0.0f},
      {"jaw at the lip centre", T::jawWeight({0.0f, -0.41f}, true), 1.0f, 1e-7f},
      {"jaw below: exp(-(0.165/0.44)^4)", T::jawWeight({0.165f, -0.8f}, true), 0.980419f, 1e-6f},
      {"jaw at the lip: (1-0.5^2)^0.8", T::jawWeight({0.165f, -0.41f + 0.14f * 0.165f * 0.165f}, true), 0.794418f, 1e-5f},
      {"upper band 0.05 above", T::upperLipBand({0.0f, -0.36f}, false), 0.367879f, 1e-6f},
      {"upper band on the jaw", T::upperLipBand({0.0f, -0.36f}, true), 0.0f, 0.0f},
      {"lower band 0.06 below", T::lowerLipBand({0.0f, -0.47f}, true), 0.367879f, 1e-6f},
      {"lower band beyond the mouth", T::lowerLipBand({0.4f, -0.5f}, true), 0.0f, 0.0f},
      {"upper margin", T::eyeFrame({0.4f, 0.33f}, 1.0f).upperMargin, 0.046f, 1e-7f},
      {"lower margin", T::eyeFrame({0.4f, 0.33f}, 1.0f).lowerMargin, 0.056f, 1e-7f},
      {"margin beyond the eye", T::eyeFrame({0.7f, 0.33f}, 1.0f).upperMargin, 0.0f, 0.0f},
      {"upper lid on its margin", T::upperLidWeight(lidTop, 1.0f), 1.0f, 1e-5f},
      {"upper lid of the other eye", T::upperLidWeight(lidTop, -1.0f), 0.0f, 0.0f},
      {"lower lid on its margin", T::lowerLidWeight({0.4f, 0.33f - 0.0559f}, 1.0f), 1.0f, 1e-4f},
      {"lower lid above", T::lowerLidWeight({0.4f, 0.45f}, 1.0f), 0.0f, 0.0f},
      {"mouth corner bump", T::mouthCornerBump({0.33f, -0.394754f}, 1.0f), 1.0f, 1e-7f},
  };
  for (const auto& w : weights) EXPECT_NEAR(w.actual, w.expected, w.tolerance) << w.what;

  constexpr float N = NAN;
  const struct {
    const char* name;
    float2 p;
    bool lowerJaw;
    float3 expected;
  } anchors[] = {
      {"cheekPuff", {0.4f, -0.3f}, false, {0.04f, N, 0.09f}},  // both cheeks outwards
      {"jawOpen", {0.1f, -0.3f}, false, {0, 0, 0}},  // above the mouth curve nothing of the jaw moves
      {"jawForward", {0.1f, -0.3f}, false, {0, 0, 0}},
      {"jawLeft", {0.1f, -0.3f}, false, {0, 0, 0}},
      {"mouthClose", {0.1f, -0.3f}, false, {0, 0, 0}},
      {"jawOpen", {0.0f, -0.41f}, true, {0, -0.24f, -0.06f}},  // jaw weight 1 at the lip centre
      {"jawForward", {0.0f, -0.41f}, true, {0, 0, 0.05f}},
      {"mouthClose", {0.0f, -0.41f}, true, {0, 0.2f, 0.05f}},  // lifts the lower lip
      {"browInnerUp", {0.15f, 0.52f}, false, {0, 0.06f, 0.01f}},  // the bump centre
      {"mouthRollLower", {0.0f, -0.45f}, false, {0, 0, 0}},  // one lip each
      {"mouthRollLower", {0.0f, -0.41f}, true, {N, N, -0.022f}},
      {"mouthRollUpper", {0.0f, -0.45f}, true, {0, 0, 0}},
      {"mouthRollUpper", {0.0f, -0.45f}, false, {N, N, -0.018f}},
  };
  for (const auto& a : anchors) {
    const float3 d = entry(a.name).displacement(a.p, a.lowerJaw);
    // A NaN component compares the displacement with itself (a NaN there fails).
    for (int c = 0; c < 3; ++c) EXPECT_FLOAT_EQ(std::isnan(a.expected[c]) ? d[c] : a.expected[c], d[c]) << a.name << c;
  }
  // Pucker and funnel draw the mouth towards the midline.
  EXPECT_LT(entry("mouthPucker").displacement({0.2f, -0.41f}, false).x, 0.0f);
  EXPECT_GT(entry("mouthFunnel").displacement({-0.2f, -0.41f}, false).x, 0.0f);
}

// Left(x, y) = Right(-x, y) mirrored for the 16 sided pairs (table rows i
// and 16 + i), and every unsided field mirrors itself.
TEST(MaskTargets, TargetsAreMirrorSymmetric) {
  const auto& table = T::blendShapeDisplacements();
  for (std::size_t i = 0; i < table.size(); ++i) {
    if (i >= 16 && i < 32) continue;
    const bool sided = i < 16;
    const auto& left = table[i];
    const auto& right = sided ? table[16 + i] : left;
    ASSERT_EQ(left.name.substr(0, left.name.size() - 4 * sided), right.name.substr(0, right.name.size() - 5 * sided));
    const float tolerance = sided ? 1e-7f : 1e-6f;
    for (const bool lower : {false, true}) {
      for (float y = -0.9f; y <= 0.9f; y += 0.0617f) {
        for (float x = sided ? 0.0f : 0.0533f; x <= 0.8f; x += 0.0533f) {  // unsided: s = +1 at x = 0
          const float3 l = left.displacement({x, y}, lower);
          const float3 r = right.displacement({-x, y}, lower);
          ASSERT_LE(glm::length(l - float3(-r.x, r.y, r.z)), tolerance) << left.name << " at " << x << ", " << y;
        }
      }
    }
  }
}

// Only lower-jaw vertices move with the jaw (the mouth row splits the face);
// the lip centre's lower copy drops by the jaw's constant, front and back.
// A blink closes its eye's opening.
TEST(MaskTargets, JawOpenOpensTheSlitWhileTheUpperLipStaysAndBlinksCloseTheEyes) {
  const auto build = createTheatricalMaskNode();
  const auto& topo = G::topology();
  const std::size_t n = topo.frontCount();
  const std::size_t upper = 136 * 161 + 80;  // mouth-row vertex at x = 0
  const auto points = topo.gridPoints.begin();  // its lower-lip copy is among the duplicates from 30751
  const auto lower = static_cast<std::size_t>(std::find(points + 30751, points + n, points[upper]) - points);
  ASSERT_LT(lower, n);
  const auto jaw = targetDeltas(build, "jawopen");
  EXPECT_EQ(jaw[upper], float3(0.0f));
  for (const std::size_t v : {lower, n + lower}) EXPECT_NEAR(jaw[v].y, -0.24f, 1e-6f) << v;
  EXPECT_NEAR(jaw[lower].z, -0.06f, 1e-6f);
  int moving = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const bool moves = jaw[i] != float3(0.0f);
    ASSERT_TRUE(!moves || topo.lowerJaw[i]) << i;
    moving += moves;
  }
  EXPECT_GT(moving, 1000);

  const auto* neutral = build.node->geometry->source(Semantic::vertex);
  for (const auto& [name, s] : {std::pair<std::string, float>{"eyeblinkleft", 1.0f}, {"eyeblinkright", -1.0f}}) {
    // The snapped rim vertices closest to the top and the bottom of the eye.
    std::size_t top = 0, bottom = 0;
    float bestTop = 1.0f, bestBottom = 1.0f;
    for (std::size_t i = 0; i < n; ++i) {
      if (topo.snapped[i] != TheatricalMaskTopology::Snap::eye || topo.gridPoints[i].x * s <= 0.0f) continue;
      const float2 l = test::maskEyeLocal(topo.gridPoints[i]);
      if (l.y > 0.0f && std::fabs(l.x) < bestTop) bestTop = std::fabs(l.x), top = i;
      if (l.y < 0.0f && std::fabs(l.x) < bestBottom) bestBottom = std::fabs(l.x), bottom = i;
    }
    ASSERT_LT(std::max(bestTop, bestBottom), 0.03f);
    const float openGap = neutral->vec3(top).y - neutral->vec3(bottom).y;
    const auto blink = targetDeltas(build, name);
    const float closedGap = openGap + blink[top].y - blink[bottom].y;
    EXPECT_GT(openGap, 0.09f) << name;
    EXPECT_LT(std::fabs(closedGap), 0.01f) << name;  // the lids meet
    // The upper lid travels (down) about hu + 0.75 hl.
    EXPECT_NEAR(-blink[top].y, 0.046f + 0.75f * 0.056f, 0.006f) << name;
  }
  // The nostril shading metric (natural, but marks the openings) is checked
  // by the verification run (VelmoraE2E.RunTestsPrintsEveryCheckPassing...).
}

// Both characters: a second build shares the mesh arrays and targets but
// has its own node and weights; the mask's wireframe shares its targets. A
// target equals the literal construction: neutral front + displacement,
// assembled into a full shell (whatever thread built it).
TEST(MaskTargets, SecondBuildsAndTheWireframeShareTheMeshArraysAndTargetsMatchAFreshAssembly) {
  for (const auto make : {&createTheatricalMaskNode, &createGhostNode}) {
    const auto a = make();
    const auto b = make();
    EXPECT_NE(a.node, b.node);
    EXPECT_EQ(std::tuple(a.node->morpher, a.node->geometry, a.morpher->targets),
              std::tuple(a.morpher, b.node->geometry, b.morpher->targets));
    a.morpher->setWeight(0, 1.0f);
    EXPECT_EQ(b.morpher->weight(0), 0.0f);
  }
  // The wireframe's front-only geometry blends with the mask's own targets:
  // the entries past its vertices (back and rim) are left out. (That the jaw
  // moves its lower lip: WireframeLevel.BlendshapesMoveThePoints.)
  const auto mask = createTheatricalMaskNode();
  EXPECT_EQ(makeWireframeMorpher()->targets, mask.morpher->targets);
  EXPECT_EQ(G::makeWireframeGeometry()->vertexCount(), G::topology().frontCount());
  // With the colours: four sources.
  EXPECT_EQ(std::tuple(mask.node->name, mask.node->geometry->sources.size(), mask.morpher->calculationMode),
            std::tuple("TheatricalMask", 4u, Morpher::CalculationMode::normalized));
  const auto& table = T::blendShapeDisplacements();
  for (const std::size_t t : {std::size_t{0}, std::size_t{24}, std::size_t{33}}) {
    const auto [positions, normals] = G::assembleSources(T::displacedFront(table[t], G::neutralFront()));
    const MorphTarget& built = *(*mask.morpher->targets)[t];
    EXPECT_EQ(built.name, table[t].name);
    const Geometry& base = *mask.node->geometry;
    ASSERT_LT(built.vertices.back(), base.vertexCount());
    const auto dp = built.densePositionDeltas(base.vertexCount());
    const auto dn = built.denseNormalDeltas(base.vertexCount());
    for (std::size_t i = 0; i < base.vertexCount(); i += 101) {
      ASSERT_EQ(dp[i], positions.vec3(i) - base.source(Semantic::vertex)->vec3(i));
      ASSERT_EQ(dn[i], normals.vec3(i) - base.source(Semantic::normal)->vec3(i));
    }
  }
}

}  // namespace
}  // namespace velmora
