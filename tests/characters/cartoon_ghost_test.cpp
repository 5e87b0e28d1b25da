// The cartoon ghost: node tree and names, target map, framing limits, the
// shell, the mouth (rim, opening, cavity that follows) and the head metric.
#include <gtest/gtest.h>

#include <cctype>
#include <cmath>
#include <set>
#include <string>

#include "characters/CartoonGhost.h"
#include "stage/ARKitBlendShape.h"
#include "stage/Node.h"

namespace velmora {
namespace {

using Semantic = GeometrySource::Semantic;

// Every ARKit blendshape name but the given ones.
std::set<std::string> arkitNamesExcept(std::initializer_list<const char*> excluded) {
  std::set<std::string> names;
  for (const auto shape : allCases<ARKitBlendShape>()) names.insert(std::string(rawValue(shape)));
  for (const char* name : excluded) names.erase(name);
  return names;
}

struct Bounds {
  float3 lo{1e9f}, hi{-1e9f};
  void add(float3 p) {
    lo = glm::min(lo, p);
    hi = glm::max(hi, p);
  }
};

// World-space bounds of a node tree at rest (node transforms applied).
void addBounds(const Node& node, Bounds& b) {
  if (node.geometry) {
    const float4x4 m = node.worldTransform();
    const auto* pos = node.geometry->source(Semantic::vertex);
    for (int i = 0; i < pos->vectorCount; ++i) b.add(float3(m * float4(pos->vec3(static_cast<std::size_t>(i)), 1.0f)));
  }
  for (const auto& c : node.children()) addBounds(*c, b);
}

// Vertical extent of the mouth opening near x = 0 in a blended outer surface.
std::pair<float, float> mouthGap(const std::vector<float3>& positions) {
  const auto& body = CartoonGhost::body();
  float top = -1e9f, bottom = 1e9f;
  for (const auto i : body.mouthRim) {
    if (std::fabs(body.outer[static_cast<std::size_t>(i)].x) > 0.03f) continue;
    top = std::max(top, positions[static_cast<std::size_t>(i)].y);
    bottom = std::min(bottom, positions[static_cast<std::size_t>(i)].y);
  }
  return {bottom, top};
}

TEST(CartoonGhost, NodeTreeNamesAndEyes) {
  const auto build = createGhostNode();
  ASSERT_TRUE(build.node);
  EXPECT_EQ(build.node->name, "CartoonGhost");
  EXPECT_EQ(build.node->morpher, build.morpher);
  const auto left = build.node->find("LeftEye");
  const auto right = build.node->find("RightEye");
  const auto cavity = build.node->find("MouthCavityBacking");
  ASSERT_TRUE(left && right && cavity);
  // The "Left" eye is on the x >= 0 side; the pivot is the eye's centre, so
  // the geometry is centred on the node.
  EXPECT_FLOAT_EQ(left->position.x, 0.21f);
  EXPECT_FLOAT_EQ(right->position.x, -0.21f);
  EXPECT_NEAR(left->position.y, 0.42f, 1e-6f);
  EXPECT_GT(left->position.z, 0.25f);
  Bounds eye;
  const auto* eyePos = left->geometry->source(Semantic::vertex);
  for (int i = 0; i < eyePos->vectorCount; ++i) eye.add(eyePos->vec3(static_cast<std::size_t>(i)));
  EXPECT_NEAR(eye.hi.x - eye.lo.x, 0.09f, 1e-3f);
  EXPECT_NEAR(eye.hi.y - eye.lo.y, 0.13f, 1e-3f);
  EXPECT_NEAR(eye.hi.x + eye.lo.x, 0.0f, 1e-5f);
  EXPECT_NEAR(eye.hi.y + eye.lo.y, 0.0f, 1e-5f);
  EXPECT_LT(left->geometry->materials[0].roughness, 0.3f);  // glossy
  // A blink squash keeps the eye centred where it was.
  left->scale = float3(1.0f, 0.08f, 1.0f);
  EXPECT_EQ(float3(left->worldTransform()[3]), left->position);
}

TEST(CartoonGhost, TargetMapCoversTheListedExpressions) {
  const auto build = createGhostNode();
  const auto& map = build.targetNameToIndex;
  EXPECT_EQ(map.size(), build.morpher->targetCount());
  EXPECT_EQ(map.size(), 41u);
  // An ARKit name each, every one but gaze, blink (the eye nodes) and the tongue.
  std::set<std::string> names;
  for (const auto& entry : CartoonGhost::displacements()) names.insert(entry.name);
  EXPECT_EQ(CartoonGhost::displacements().size(), 41u);
  EXPECT_EQ(names, arkitNamesExcept({"eyeLookDownLeft", "eyeLookDownRight", "eyeLookInLeft", "eyeLookInRight", "eyeLookOutLeft",
                              "eyeLookOutRight", "eyeLookUpLeft", "eyeLookUpRight", "tongueOut", "eyeBlinkLeft", "eyeBlinkRight"}));
  // Spelled lower-case, both sides.
  for (const char* name : {"jawopen", "mouthsmileleft", "mouthsmileright", "cheekpuff", "nosesneerright"})
    EXPECT_EQ(map.count(name), 1u) << name;
  // Blink and gaze act through the eye nodes, not targets.
  EXPECT_EQ(map.count("eyeblinkleft"), 0u);
  EXPECT_EQ(map.count("eyelookupleft"), 0u);
  // Indices match the target names.
  for (const auto& [key, index] : map) {
    std::string name = (*build.morpher->targets)[static_cast<std::size_t>(index)]->name;
    for (auto& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    EXPECT_EQ(name, key);
  }
}

TEST(CartoonGhost, FitsTheFrameAtRest) {
  const auto build = createGhostNode();
  Bounds b;
  addBounds(*build.node, b);
  EXPECT_GE(b.lo.x, -0.8f);
  EXPECT_LE(b.hi.x, 0.8f);
  EXPECT_GE(b.lo.y, -1.05f);
  EXPECT_LE(b.hi.y, 1.0f);
  EXPECT_GE(b.lo.z, -0.45f);
  EXPECT_LE(b.hi.z, 0.45f);
  // And it fills it: a head near 0.95, tails near -1.0, a flared hem.
  EXPECT_GT(b.hi.y, 0.9f);
  EXPECT_LT(b.lo.y, -0.95f);
  EXPECT_GT(b.hi.x, 0.7f);
}

TEST(CartoonGhost, ShellIsClosedAndFacesOutwards) {
  const auto& body = CartoonGhost::body();
  const std::size_t n = body.outerCount();
  const std::size_t k = body.rimVertices.size();
  const auto geometry = CartoonGhost::bodyGeometry();
  EXPECT_EQ(geometry->vertexCount(), 2 * n + 2 * k);
  ASSERT_EQ(geometry->elements.size(), 3u);
  ASSERT_EQ(geometry->materials.size(), 3u);
  EXPECT_GT(geometry->materials[0].emission.x, 0.0f);  // a faint glow
  for (const auto i : body.allTriangles) ASSERT_LT(i, static_cast<std::int32_t>(2 * n + 2 * k));

  // Every outer triangle faces away from the body's axis.
  for (std::size_t t = 0; t < body.outerTriangles.size(); t += 3) {
    const float3 a = body.outer[static_cast<std::size_t>(body.outerTriangles[t])];
    const float3 b = body.outer[static_cast<std::size_t>(body.outerTriangles[t + 1])];
    const float3 c = body.outer[static_cast<std::size_t>(body.outerTriangles[t + 2])];
    const float3 centroid = (a + b + c) / 3.0f;
    const float3 out = centroid - float3(0.0f, std::min(centroid.y, 0.35f), 0.0f);
    ASSERT_GT(glm::dot(glm::cross(b - a, c - a), out), 0.0f) << t;
  }
  // The boundary is the hem ring (all columns) plus the mouth rim.
  std::set<std::int32_t> mouth(body.mouthRim.begin(), body.mouthRim.end());
  int hem = 0;
  for (const auto r : body.rimVertices) {
    if (mouth.count(r)) continue;
    ++hem;
    EXPECT_LT(body.outer[static_cast<std::size_t>(r)].y, -0.85f);
  }
  EXPECT_EQ(hem, 144);
  EXPECT_EQ(k, static_cast<std::size_t>(hem) + body.mouthRim.size());

  // Inside darker than the outside; the mouth rim darkest.
  const auto* colours = geometry->source(Semantic::color);
  ASSERT_NE(colours, nullptr);
  const float3 outside = colours->vec3(0);
  const float3 inside = colours->vec3(n);
  EXPECT_LT(inside.x + inside.y + inside.z, outside.x + outside.y + outside.z);
  EXPECT_NEAR(outside.z, 1.0f, 1e-6f);
}

TEST(CartoonGhost, MouthRimOnTheEllipseAndOpensWithTheJaw) {
  const auto& body = CartoonGhost::body();
  ASSERT_GT(body.mouthRim.size(), 20u);
  for (const auto i : body.mouthRim) {
    const float3 p = body.outer[static_cast<std::size_t>(i)];
    const float a = p.x / CartoonGhost::mouthHalfWidth;
    const float b = (p.y - CartoonGhost::mouthCentreY) / CartoonGhost::mouthHalfHeight;
    EXPECT_NEAR(std::sqrt(a * a + b * b), 1.0f, 1e-4f);
    EXPECT_GT(p.z, 0.2f);  // on the front
  }

  const auto build = createGhostNode();
  const auto rest = referenceBlend(*build.node->geometry, *build.morpher);
  const auto [restBottom, restTop] = mouthGap(rest.positions);
  EXPECT_NEAR(restTop - restBottom, 0.1f, 1e-3f);

  build.morpher->setWeight(static_cast<std::size_t>(build.targetNameToIndex.at("jawopen")), 1.0f);
  const auto open = referenceBlend(*build.node->geometry, *build.morpher);
  const auto [openBottom, openTop] = mouthGap(open.positions);
  EXPECT_NEAR(openTop, restTop, 1e-4f);           // the upper rim stays
  EXPECT_LT(openBottom, restBottom - 0.15f);      // the lower rim drops

  // The cavity follows the same weights and still backs the whole opening.
  const auto cavityNode = build.node->find("MouthCavityBacking");
  ASSERT_TRUE(cavityNode && cavityNode->morpher);
  EXPECT_EQ(cavityNode->morpher->weight(static_cast<std::size_t>(build.targetNameToIndex.at("jawopen"))), 1.0f);
  const auto cavity = referenceBlend(*cavityNode->geometry, *cavityNode->morpher);
  Bounds cb;
  for (const auto& p : cavity.positions) cb.add(p);
  EXPECT_LT(cb.lo.y, openBottom - 0.05f);
  EXPECT_GT(cb.hi.y, openTop + 0.05f);
  EXPECT_GT(cb.hi.x, CartoonGhost::mouthHalfWidth + 0.08f);
  // Behind the front surface, in front of the back of the body.
  EXPECT_LT(cb.hi.z, rest.positions[static_cast<std::size_t>(body.mouthRim[0])].z);
  EXPECT_GT(cb.lo.z, 0.0f);
}

TEST(CartoonGhost, SmileFrownAndSpookReadClearly) {
  const auto build = createGhostNode();
  const auto& body = CartoonGhost::body();
  const auto cornerHeight = [&](const char* name, float weight) {
    build.morpher->weights.assign(build.morpher->targetCount(), 0.0f);
    build.morpher->setWeight(static_cast<std::size_t>(build.targetNameToIndex.at(name)), weight);
    const auto blended = referenceBlend(*build.node->geometry, *build.morpher);
    float y = 0.0f;
    float bestX = 0.0f;
    for (const auto i : body.mouthRim) {
      const float x = body.outer[static_cast<std::size_t>(i)].x;
      if (x > bestX) bestX = x, y = blended.positions[static_cast<std::size_t>(i)].y;
    }
    return y;  // the x >= 0 ("Left") corner
  };
  const float rest = cornerHeight("mouthsmileleft", 0.0f);
  EXPECT_GT(cornerHeight("mouthsmileleft", 1.0f), rest + 0.04f);
  EXPECT_LT(cornerHeight("mouthfrownleft", 1.0f), rest - 0.04f);
  EXPECT_NEAR(cornerHeight("mouthsmileright", 1.0f), rest, 0.01f);  // the other corner

  // The spook: jawOpen 0.95 with mouthFunnel 0.7 gives a tall, rounder O.
  build.morpher->weights.assign(build.morpher->targetCount(), 0.0f);
  build.morpher->setWeight(static_cast<std::size_t>(build.targetNameToIndex.at("jawopen")), 0.95f);
  build.morpher->setWeight(static_cast<std::size_t>(build.targetNameToIndex.at("mouthfunnel")), 0.7f);
  const auto spook = referenceBlend(*build.node->geometry, *build.morpher);
  const auto [bottom, top] = mouthGap(spook.positions);
  float width = 0.0f;
  for (const auto i : body.mouthRim) width = std::max(width, std::fabs(spook.positions[static_cast<std::size_t>(i)].x));
  EXPECT_GT(top - bottom, 0.2f);
  EXPECT_LT(width, CartoonGhost::mouthHalfWidth);
}

TEST(CartoonGhost, SidesMirrorAndTheBackStaysStill) {
  const auto& table = CartoonGhost::displacements();
  const auto& body = CartoonGhost::body();
  for (std::size_t t = 0; t < table.size(); ++t) {
    const auto& name = table[t].name;
    if (name.size() < 4 || name.compare(name.size() - 4, 4, "Left") != 0) continue;
    const auto& right = table[t + 1];
    ASSERT_EQ(right.name, name.substr(0, name.size() - 4) + "Right");
    for (float y = -0.4f; y < 0.7f; y += 0.037f) {
      for (float x = 0.0f; x < 0.5f; x += 0.041f) {
        const float3 l = table[t].displacement({x, y, 0.3f});
        const float3 r = right.displacement({-x, y, 0.3f});
        ASSERT_NEAR(l.x, -r.x, 1e-6f) << name;
        ASSERT_NEAR(l.y, r.y, 1e-6f) << name;
        ASSERT_NEAR(l.z, r.z, 1e-6f) << name;
      }
    }
  }
  // Nothing on the back of the sheet moves.
  for (const auto& entry : table) {
    for (std::size_t i = 0; i < body.outerCount(); i += 53) {
      if (body.outer[i].z < 0.0f) {
        ASSERT_EQ(entry.displacement(body.outer[i]), float3(0.0f)) << entry.name;
      }
    }
  }
}

TEST(CartoonGhost, HeadTopIsARoundedDomeAndBuildsShareData) {
  const float hw = ghostHeadTopHalfWidth();
  EXPECT_GE(hw, 0.08f);
  EXPECT_LT(hw, 0.4f);
  const auto a = createGhostNode();
  const auto b = createGhostNode();
  EXPECT_NE(a.node, b.node);
  EXPECT_EQ(a.node->geometry, b.node->geometry);
  EXPECT_EQ(a.morpher->targets, b.morpher->targets);
  // Each build's cavity follows its own body morpher only.
  a.morpher->setWeight(0, 0.5f);
  EXPECT_EQ(a.node->find("MouthCavityBacking")->morpher->weight(0), 0.5f);
  EXPECT_EQ(b.node->find("MouthCavityBacking")->morpher->weight(0), 0.0f);
}

}  // namespace
}  // namespace velmora
