// The mask's expression targets: table order and target map, shared weights
// at hand-computed points, mirrored sides, what the key expressions do to the
// mesh, and the shared (built-once) character data.
#include <gtest/gtest.h>

#include <algorithm>

#include <cctype>
#include <cmath>
#include <set>
#include <string>

#include "characters/MaskExpressionTargets.h"
#include "characters/TheatricalMaskGeometry.h"
#include "stage/ARKitBlendShape.h"

namespace velmora {
namespace {

using G = TheatricalMaskGeometry;
using T = MaskExpressionTargets;

// Every ARKit blendshape name but the given ones.
std::set<std::string> arkitNamesExcept(std::initializer_list<const char*> excluded) {
  std::set<std::string> names;
  for (const auto shape : allCases<ARKitBlendShape>()) names.insert(std::string(rawValue(shape)));
  for (const char* name : excluded) names.erase(name);
  return names;
}

const T::Entry& entry(const std::string& name) {
  for (const auto& e : T::blendShapeDisplacements())
    if (e.name == name) return e;
  throw std::runtime_error("no entry " + name);
}

// How far the named target moves a vertex (zero where it moves nothing).
float3 targetDelta(const CharacterBuild& build, const std::string& name, std::size_t vertex) {
  const auto& target = *(*build.morpher->targets)[static_cast<std::size_t>(build.targetNameToIndex.at(name))];
  const auto it = std::find(target.vertices.begin(), target.vertices.end(), static_cast<std::uint32_t>(vertex));
  return it == target.vertices.end() ? float3(0.0f) : target.positionDeltas[static_cast<std::size_t>(it - target.vertices.begin())];
}

float3 neutralPosition(const CharacterBuild& build, std::size_t vertex) {
  return build.node->geometry->source(GeometrySource::Semantic::vertex)->vec3(vertex);
}

TEST(MaskTargets, TableOrderAndTargetMap) {
  const auto& table = T::blendShapeDisplacements();
  ASSERT_EQ(table.size(), 43u);
  EXPECT_EQ(table[0].name, "eyeBlinkLeft");
  EXPECT_EQ(table[7].name, "jawLeft");
  EXPECT_EQ(table[15].name, "mouthUpperUpLeft");
  EXPECT_EQ(table[16].name, "eyeBlinkRight");
  EXPECT_EQ(table[24].name, "mouthRight");
  EXPECT_EQ(table[32].name, "browInnerUp");
  EXPECT_EQ(table[34].name, "jawOpen");
  EXPECT_EQ(table[42].name, "mouthShrugUpper");
  // An ARKit name each (no name twice: 43 of them): every one but gaze and the tongue.
  std::set<std::string> names;
  for (const auto& e : table) names.insert(e.name);
  EXPECT_EQ(names, arkitNamesExcept({"eyeLookDownLeft", "eyeLookDownRight", "eyeLookInLeft", "eyeLookInRight", "eyeLookOutLeft",
                              "eyeLookOutRight", "eyeLookUpLeft", "eyeLookUpRight", "tongueOut"}));

  const auto build = createTheatricalMaskNode();
  const auto& map = build.targetNameToIndex;
  EXPECT_EQ(map.size(), 43u);
  for (const auto& [key, index] : map) {
    for (const char c : key) ASSERT_FALSE(std::isupper(static_cast<unsigned char>(c))) << key;
    ASSERT_EQ((*build.morpher->targets)[static_cast<std::size_t>(index)]->name.size(), key.size());
  }
  EXPECT_EQ(map.at("eyeblinkleft"), 0);
  EXPECT_EQ(map.at("jawleft"), 7);
  EXPECT_EQ(map.at("mouthright"), 24);
  EXPECT_EQ(map.at("mouthupperupright"), 31);
  EXPECT_EQ(map.at("browinnerup"), 32);
  EXPECT_EQ(map.at("mouthshrugupper"), 42);
  // No targets for gaze or the tongue.
  EXPECT_EQ(map.count("tongueout"), 0u);
  EXPECT_EQ(map.count("eyelookupleft"), 0u);
}

TEST(MaskTargets, SharedWeightSpotValues) {
  // Jaw weight: 0 off the jaw; 1 at the lip centre; the full-width Gaussian
  // well below the mouth: exp(-(0.165 / 0.44)^4) = 0.980419.
  EXPECT_EQ(T::jawWeight({0.0f, -0.6f}, false), 0.0f);
  EXPECT_FLOAT_EQ(T::jawWeight({0.0f, -0.41f}, true), 1.0f);
  EXPECT_NEAR(T::jawWeight({0.165f, -0.8f}, true), 0.980419f, 1e-6f);
  // At the lip: (1 - 0.5^2)^0.8 = 0.794418 halfway out.
  EXPECT_NEAR(T::jawWeight({0.165f, -0.41f + 0.14f * 0.165f * 0.165f}, true), 0.794418f, 1e-5f);

  // Lip bands: 0.05 above the mouth curve the upper band is e^-1.
  EXPECT_NEAR(T::upperLipBand({0.0f, -0.36f}, false), 0.367879f, 1e-6f);
  EXPECT_EQ(T::upperLipBand({0.0f, -0.36f}, true), 0.0f);
  EXPECT_FLOAT_EQ(T::upperLipBand({0.0f, -0.5f}, false), 1.0f);
  EXPECT_NEAR(T::lowerLipBand({0.0f, -0.47f}, true), 0.367879f, 1e-6f);
  EXPECT_EQ(T::lowerLipBand({0.0f, -0.47f}, false), 0.0f);
  EXPECT_EQ(T::lowerLipBand({0.4f, -0.5f}, true), 0.0f);  // beyond the mouth's width

  // Eye frame: margins 0.046 / 0.056 at the eye's middle, 0 beyond its ends.
  const auto f = T::eyeFrame({0.4f, 0.33f}, 1.0f);
  EXPECT_FLOAT_EQ(f.upperMargin, 0.046f);
  EXPECT_FLOAT_EQ(f.lowerMargin, 0.056f);
  EXPECT_EQ(T::eyeFrame({0.7f, 0.33f}, 1.0f).upperMargin, 0.0f);
  // Lid weights: 1 on the margins, 0 on the other half.
  const float2 top = {0.4f - 0.046f * std::sin(-0.034906585f), 0.33f + 0.046f * std::cos(-0.034906585f)};
  EXPECT_NEAR(T::upperLidWeight(top, 1.0f), 1.0f, 1e-5f);
  EXPECT_EQ(T::upperLidWeight({0.4f, 0.2f}, 1.0f), 0.0f);
  EXPECT_EQ(T::lowerLidWeight({0.4f, 0.45f}, 1.0f), 0.0f);
  EXPECT_NEAR(T::lowerLidWeight({0.4f, 0.33f - 0.0559f}, 1.0f), 1.0f, 1e-4f);
  // The other side's eye is out of reach.
  EXPECT_EQ(T::upperLidWeight(top, -1.0f), 0.0f);
  // Mouth corner bump peaks at the corner of the mouth curve.
  EXPECT_FLOAT_EQ(T::mouthCornerBump({0.33f, -0.394754f}, 1.0f), 1.0f);
}

// Left(x, y) = Right(-x, y) mirrored for the 16 sided pairs; every unsided
// field mirrors itself; and each target's constant at its anchor point.
TEST(MaskTargets, TargetsMirrorAndDisplaceByTheirConstants) {
  const auto& table = T::blendShapeDisplacements();
  for (std::size_t i = 0; i < table.size(); ++i) {
    if (i >= 16 && i < 32) continue;
    const auto& left = table[i];
    const auto& right = i < 16 ? table[16 + i] : left;
    if (i < 16) {
      ASSERT_EQ(left.name.substr(0, left.name.size() - 4), right.name.substr(0, right.name.size() - 5));
    }
    const float tolerance = i < 16 ? 1e-7f : 1e-6f;
    for (const bool lower : {false, true}) {
      for (float y = -0.9f; y <= 0.9f; y += 0.0617f) {
        for (float x = i < 16 ? 0.0f : 0.0533f; x <= 0.8f; x += 0.0533f) {  // unsided: s = +1 at x = 0
          const float3 l = left.displacement({x, y}, lower);
          const float3 r = right.displacement({-x, y}, lower);
          ASSERT_NEAR(l.x, -r.x, tolerance) << left.name << " at " << x << ", " << y;
          ASSERT_NEAR(l.y, r.y, tolerance) << left.name;
          ASSERT_NEAR(l.z, r.z, tolerance) << left.name;
        }
      }
    }
  }

  struct Anchor {
    const char* name;
    float2 p;
    bool lowerJaw;
    float3 expected;  // NaN: not checked
  };
  constexpr float N = NAN;
  const Anchor anchors[] = {
      {"cheekPuff", {0.4f, -0.3f}, false, {0.04f, N, 0.09f}},  // both cheeks outwards
      {"jawOpen", {0.1f, -0.3f}, false, {0, 0, 0}},  // above the mouth curve nothing of the jaw moves
      {"jawForward", {0.1f, -0.3f}, false, {0, 0, 0}},
      {"jawLeft", {0.1f, -0.3f}, false, {0, 0, 0}},
      {"jawRight", {0.1f, -0.3f}, false, {0, 0, 0}},
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
  for (const Anchor& a : anchors) {
    const float3 d = entry(a.name).displacement(a.p, a.lowerJaw);
    for (int c = 0; c < 3; ++c)
      if (!std::isnan(a.expected[c])) {
        EXPECT_FLOAT_EQ(d[c], a.expected[c]) << a.name << " " << c;
      }
  }
  // Pucker and funnel draw the mouth towards the midline.
  EXPECT_LT(entry("mouthPucker").displacement({0.2f, -0.41f}, false).x, 0.0f);
  EXPECT_GT(entry("mouthFunnel").displacement({-0.2f, -0.41f}, false).x, 0.0f);
}

TEST(MaskTargets, JawOpenOpensTheSlitWhileTheUpperLipStays) {
  const auto build = createTheatricalMaskNode();
  const auto& topo = G::topology();
  const std::size_t upper = 136 * 161 + 80;  // mouth-row vertex at x = 0
  std::size_t lower = 0;
  for (std::size_t i = 30751; i < topo.frontCount(); ++i)
    if (topo.gridPoints[i] == topo.gridPoints[upper]) lower = i;
  ASSERT_NE(lower, 0u);

  EXPECT_EQ(targetDelta(build, "jawopen", upper), float3(0.0f));
  const float3 moved = targetDelta(build, "jawopen", lower);
  EXPECT_NEAR(moved.y, -0.24f, 1e-6f);
  EXPECT_NEAR(moved.z, -0.06f, 1e-6f);
  // The back shell follows the front along the shell direction.
  const std::size_t n = topo.frontCount();
  const float3 backMoved = targetDelta(build, "jawopen", n + lower);
  EXPECT_NEAR(backMoved.y, -0.24f, 1e-6f);
  // Every upper-face vertex of the jaw targets stays put.
  for (std::size_t i = 0; i < n; i += 11) {
    if (topo.lowerJaw[i]) continue;
    ASSERT_EQ(targetDelta(build, "jawopen", i), float3(0.0f));
  }
}

TEST(MaskTargets, EyeBlinkClosesTheEyeOpening) {
  const auto build = createTheatricalMaskNode();
  const auto& topo = G::topology();
  for (const auto& [name, s] : {std::pair<std::string, float>{"eyeblinkleft", 1.0f}, {"eyeblinkright", -1.0f}}) {
    // The snapped rim vertices closest to the top and the bottom of the eye.
    std::size_t top = 0, bottom = 0;
    float bestTop = 1.0f, bestBottom = 1.0f;
    for (std::size_t i = 0; i < topo.frontCount(); ++i) {
      if (topo.snapped[i] != TheatricalMaskTopology::Snap::eye || topo.gridPoints[i].x * s <= 0.0f) continue;
      const float2 l = G::eyeLocal(topo.gridPoints[i]);
      if (l.y > 0.0f && std::fabs(l.x) < bestTop) bestTop = std::fabs(l.x), top = i;
      if (l.y < 0.0f && std::fabs(l.x) < bestBottom) bestBottom = std::fabs(l.x), bottom = i;
    }
    ASSERT_LT(bestTop, 0.03f);
    ASSERT_LT(bestBottom, 0.03f);
    const float openGap = neutralPosition(build, top).y - neutralPosition(build, bottom).y;
    const float closedGap = openGap + targetDelta(build, name, top).y - targetDelta(build, name, bottom).y;
    EXPECT_GT(openGap, 0.09f) << name;
    EXPECT_LT(std::fabs(closedGap), 0.01f) << name;  // the lids meet
    // The upper lid travels about hu + 0.75 hl.
    const float travel = -targetDelta(build, name, top).y;
    EXPECT_NEAR(travel, 0.046f + 0.75f * 0.056f, 0.006f) << name;
  }
}

TEST(MaskTargets, SecondBuildSharesTheMeshArrays) {
  const auto a = createTheatricalMaskNode();
  const auto b = createTheatricalMaskNode();
  EXPECT_EQ(a.node->name, "TheatricalMask");
  EXPECT_NE(a.node, b.node);
  EXPECT_NE(a.morpher, b.morpher);
  EXPECT_EQ(a.node->morpher, a.morpher);
  EXPECT_EQ(a.node->geometry, b.node->geometry);
  EXPECT_EQ(a.morpher->targets, b.morpher->targets);
  EXPECT_EQ(a.node->geometry->sources[0].data, b.node->geometry->sources[0].data);
  // A weight set on one character does not leak into the other.
  a.morpher->setWeight(34, 1.0f);
  EXPECT_EQ(b.morpher->weight(34), 0.0f);

  // The neutral geometry: four sources, three elements with their materials.
  const Geometry& g = *a.node->geometry;
  const auto& topo = G::topology();
  EXPECT_EQ(g.vertexCount(), topo.shellCount());
  ASSERT_EQ(g.sources.size(), 4u);
  EXPECT_NE(g.source(GeometrySource::Semantic::texcoord), nullptr);
  EXPECT_NE(g.source(GeometrySource::Semantic::color), nullptr);
  EXPECT_EQ(g.elements.size(), 3u);
  EXPECT_EQ(g.materials.size(), 3u);
  EXPECT_EQ(a.morpher->calculationMode, Morpher::CalculationMode::normalized);
  for (const auto& target : *a.morpher->targets) {
    ASSERT_TRUE(target->hasPositions && target->hasNormals);
    ASSERT_FALSE(target->vertices.empty());
    ASSERT_LT(target->vertices.back(), topo.shellCount());
  }
}

TEST(MaskTargets, TargetsMatchAFreshAssemblyAndTheReferenceBlend) {
  const auto build = createTheatricalMaskNode();
  // A target equals the literal construction: neutral front + displacement,
  // assembled into a full shell (whatever thread built it).
  const auto& table = T::blendShapeDisplacements();
  for (const std::size_t t : {std::size_t{0}, std::size_t{24}, std::size_t{33}}) {
    const auto shell = G::assemble(T::displacedFront(table[t], G::neutralFront()));
    const MorphTarget& target = *(*build.morpher->targets)[t];
    EXPECT_EQ(target.name, table[t].name);
    const auto neutral = G::assemble(G::neutralFront());
    const auto dp = target.densePositionDeltas(shell.positions.size());
    const auto dn = target.denseNormalDeltas(shell.normals.size());
    for (std::size_t i = 0; i < shell.positions.size(); i += 101) {
      ASSERT_EQ(dp[i], shell.positions[i] - neutral.positions[i]);
      ASSERT_EQ(dn[i], shell.normals[i] - neutral.normals[i]);
    }
  }

  // Weight 1 on one target reproduces it; weight 0 everywhere is neutral.
  build.morpher->setWeight(33, 1.0f);  // cheekPuff
  const auto blended = referenceBlend(*build.node->geometry, *build.morpher);
  const auto neutral = G::assemble(G::neutralFront());
  const auto puff = G::assemble(T::displacedFront(table[33], G::neutralFront()));
  for (std::size_t i = 0; i < blended.positions.size(); i += 37) {
    ASSERT_NEAR(glm::length(blended.positions[i] - puff.positions[i]), 0.0f, 1e-6f);
    ASSERT_NEAR(glm::length(blended.normals[i] - puff.normals[i]), 0.0f, 1e-5f);
  }
  build.morpher->setWeight(33, 0.0f);
  const auto rest = referenceBlend(*build.node->geometry, *build.morpher);
  EXPECT_EQ(rest.positions[1234], neutralPosition(build, 1234));
}

TEST(MaskTargets, WireframeMorpherHasFrontOnlyTargets) {
  const auto morpher = makeWireframeMorpher();
  ASSERT_EQ(morpher->targetCount(), 43u);
  EXPECT_EQ(makeWireframeMorpher()->targets, morpher->targets);  // shared
  const auto& topo = G::topology();
  const MorphTarget& open = *(*morpher->targets)[34];
  EXPECT_EQ(open.name, "jawOpen");
  EXPECT_LT(open.vertices.back(), topo.frontCount());
  const std::size_t lower = topo.frontCount() - 41;  // a mouth-row duplicate near x = 0
  const float dy = open.densePositionDeltas(topo.frontCount())[lower].y;
  EXPECT_LT(dy, -0.2f);
}

TEST(MaskTargets, NostrilMetricIsNaturalButMarksTheOpenings) {
  const float metric = maskNostrilOcclusionMetric();
  EXPECT_GT(metric, 0.5f);
  EXPECT_LT(metric, 1.0f);
}

}  // namespace
}  // namespace velmora
