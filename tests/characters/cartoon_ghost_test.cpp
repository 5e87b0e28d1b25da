// The cartoon ghost: node tree and names, framing limits, the closed shell,
// what each expression does to the mouth, and mirrored sides.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <set>
#include <string>
#include <tuple>

#include "ClosedShell.h"
#include "characters/CartoonGhost.h"
#include "stage/Node.h"

namespace velmora {
namespace {

using Semantic = GeometrySource::Semantic;

// The smallest box {lo, hi} holding the points.
std::pair<float3, float3> bounds(const std::vector<float3>& points) {
  std::pair b{float3(1e9f), float3(-1e9f)};
  for (const float3& p : points) b = {glm::min(b.first, p), glm::max(b.second, p)};
  return b;
}

// The points of a node tree at rest in world space (node transforms applied).
std::vector<float3> worldPoints(const Node& node, std::vector<float3> out = {}) {
  for (std::size_t i = 0; node.geometry && i < node.geometry->vertexCount(); ++i)
    out.emplace_back(node.worldTransform() * float4(node.geometry->source(Semantic::vertex)->vec3(i), 1.0f));
  for (const auto& c : node.children()) out = worldPoints(*c, std::move(out));
  return out;
}

TEST(CartoonGhost, NodeTreeFitInTheFrameAndWhatEachExpressionDoesToTheMouth) {
  const auto build = createGhostNode();
  ASSERT_TRUE(build.node);
  EXPECT_EQ(build.node->name, "CartoonGhost");
  // The "Left" eye is on the x >= 0 side; the pivot is the eye's centre, so
  // the geometry is centred on the node (0.09 wide, 0.13 tall).
  for (const auto& [name, x] : {std::pair{"LeftEye", 0.21f}, std::pair{"RightEye", -0.21f}}) {
    const auto eye = build.node->find(name);
    ASSERT_TRUE(eye) << name;
    EXPECT_FLOAT_EQ(eye->position.x, x);
    EXPECT_NEAR(eye->position.y, 0.42f, 1e-6f);
    EXPECT_GT(eye->position.z, 0.25f);
    EXPECT_LT(eye->geometry->materials[0].roughness, 0.3f);  // glossy
    const auto [lo, hi] = bounds(worldPoints(*eye));
    EXPECT_LE(glm::length(float2(hi - lo) - float2(0.09f, 0.13f)), 1e-3f) << name;      // size
    EXPECT_LE(glm::length(float2(hi + lo) / 2.0f - float2(x, 0.42f)), 1e-5f) << name;  // centre
    // A blink squash keeps the eye centred where it was.
    eye->scale = float3(1.0f, 0.08f, 1.0f);
    EXPECT_EQ(float3(eye->worldTransform()[3]), eye->position);
  }
  // At rest the whole tree fits the frame.
  const auto [low, high] = bounds(worldPoints(*build.node));
  EXPECT_TRUE(glm::all(glm::greaterThanEqual(low, float3(-0.8f, -1.05f, -0.45f)))) << low.x << ", " << low.y;
  EXPECT_TRUE(glm::all(glm::lessThanEqual(high, float3(0.8f, 1.0f, 0.45f)))) << high.x << ", " << high.y;
  // And it fills it: a rounded head near 0.95, tails near -1.0, a flared hem.
  EXPECT_TRUE(high.y > 0.9f && low.y < -0.95f && high.x > 0.7f) << high.y << ", " << low.y << ", " << high.x;
  // The dome's half-width near the top (>= 0.08: the verification run) is not a point.
  EXPECT_LT(ghostHeadTopHalfWidth(), 0.4f);

  // The mouth at rest is the ellipse centred at y 0.08 with semi-axes 0.16 x
  // 0.05, on the front. Each row sets weights and bounds one measure of the
  // mouth rim relative to rest (infinite: no bound).
  const auto& body = CartoonGhost::body();
  ASSERT_GT(body.mouthRim.size(), 20u);
  for (const auto i : body.mouthRim) {
    const float3 p = body.outer[static_cast<std::size_t>(i)];
    EXPECT_NEAR(std::hypot(p.x / 0.16f, (p.y - 0.08f) / 0.05f), 1.0f, 1e-4f);
    EXPECT_GT(p.z, 0.2f);
  }
  // Measures: 0 rim bottom near x = 0, 1 rim top there, 2 the x >= 0
  // ("Left") corner's height, 3 the rim's half-width, 4 the opening's height.
  const auto measure = [&](const std::vector<std::pair<const char*, float>>& weights) {
    build.morpher->weights.assign(build.morpher->targetCount(), 0.0f);
    for (const auto& [name, w] : weights)
      build.morpher->setWeight(static_cast<std::size_t>(build.targetNameToIndex.at(name)), w);
    const auto blended = referenceBlend(*build.node->geometry, *build.morpher).positions;
    std::array<float, 5> m{1e9f, -1e9f, 0.0f, 0.0f, 0.0f};
    float cornerX = 0.0f;
    for (const auto i : body.mouthRim) {
      const float3 rest = body.outer[static_cast<std::size_t>(i)];
      const float3 p = blended[static_cast<std::size_t>(i)];
      if (std::fabs(rest.x) <= 0.03f) m[0] = std::min(m[0], p.y), m[1] = std::max(m[1], p.y);
      if (rest.x > cornerX) cornerX = rest.x, m[2] = p.y;
      m[3] = std::max(m[3], std::fabs(p.x));
    }
    m[4] = m[1] - m[0];
    return m;
  };
  const auto rest = measure({});
  constexpr float N = INFINITY;
  const struct {
    std::vector<std::pair<const char*, float>> weights;
    std::size_t measure;
    float lo, hi;  // bounds of (measure - rest)
  } rows[] = {
      {{{"jawopen", 1.0f}}, 1, -1e-4f, 1e-4f},  // the upper rim stays
      {{{"jawopen", 1.0f}}, 0, -N, -0.15f},     // the lower rim drops
      {{{"mouthsmileleft", 1.0f}}, 2, 0.04f, N},
      {{{"mouthfrownleft", 1.0f}}, 2, -N, -0.04f},
      {{{"mouthsmileright", 1.0f}}, 2, -0.01f, 0.01f},  // the other corner
      {{{"jawopen", 0.95f}, {"mouthfunnel", 0.7f}}, 4, 0.1f, N},  // the spook: a tall, rounder O
      {{{"jawopen", 0.95f}, {"mouthfunnel", 0.7f}}, 3, -N, 0.16f - rest[3]},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(std::string(r.weights[0].first) + " measure " + std::to_string(r.measure));
    const float delta = measure(r.weights)[r.measure] - rest[r.measure];
    EXPECT_TRUE(delta > r.lo && delta < r.hi) << delta;
  }

  // The cavity follows the body's weights (this build's only) and still
  // backs the whole opening, behind the front, in front of the back.
  const auto open = measure({{"jawopen", 1.0f}});
  const auto cavityNode = build.node->find("MouthCavityBacking");
  ASSERT_TRUE(cavityNode && cavityNode->morpher);
  const auto jaw = static_cast<std::size_t>(build.targetNameToIndex.at("jawopen"));
  EXPECT_EQ(cavityNode->morpher->weight(jaw), 1.0f);
  EXPECT_EQ(createGhostNode().node->find("MouthCavityBacking")->morpher->weight(jaw), 0.0f);
  const auto [lo, hi] = bounds(referenceBlend(*cavityNode->geometry, *cavityNode->morpher).positions);
  EXPECT_TRUE(lo.y < open[0] - 0.05f && hi.y > open[1] + 0.05f && hi.x > 0.16f + 0.08f) << lo.y << ", " << hi.y;
  EXPECT_TRUE(lo.z > 0.0f && hi.z < body.outer[static_cast<std::size_t>(body.mouthRim[0])].z) << lo.z << ", " << hi.z;
}

TEST(CartoonGhost, ShellIsClosedFacesOutwardsAndSidesMirror) {
  const auto& body = CartoonGhost::body();
  const std::size_t n = body.outerCount();
  const std::size_t k = body.rimVertices.size();
  const auto geometry = CartoonGhost::bodyGeometry();
  ASSERT_EQ(std::tuple(geometry->vertexCount(), geometry->elements.size(), geometry->materials.size()),
            std::tuple(2 * n + 2 * k, 3u, 3u));
  EXPECT_GT(geometry->materials[0].emission.x, 0.0f);  // a faint glow
  test::expectClosedShell(body.allTriangles, body.rimVertices, n);

  // Every outer triangle faces away from the body's axis.
  const auto corner = [&](std::size_t t) { return body.outer[static_cast<std::size_t>(body.outerTriangles[t])]; };
  for (std::size_t t = 0; t < body.outerTriangles.size(); t += 3) {
    const float3 a = corner(t), b = corner(t + 1), c = corner(t + 2);
    const float3 centroid = (a + b + c) / 3.0f;
    const float3 out = centroid - float3(0.0f, std::min(centroid.y, 0.35f), 0.0f);
    ASSERT_GT(glm::dot(glm::cross(b - a, c - a), out), 0.0f) << t;
  }
  // The boundary is the hem ring (all columns, each below -0.85) plus the mouth rim.
  std::set<std::int32_t> mouth(body.mouthRim.begin(), body.mouthRim.end());
  int hem = 0;
  for (const auto r : body.rimVertices) hem += !mouth.count(r) && body.outer[static_cast<std::size_t>(r)].y < -0.85f;
  EXPECT_EQ(hem, 144);
  EXPECT_EQ(k, static_cast<std::size_t>(hem) + body.mouthRim.size());
  // Inside darker than the outside.
  const auto* colours = geometry->source(Semantic::color);
  ASSERT_NE(colours, nullptr);
  const float3 outside = colours->vec3(0), inside = colours->vec3(n);
  EXPECT_LT(inside.x + inside.y + inside.z, outside.x + outside.y + outside.z);
  EXPECT_NEAR(outside.z, 1.0f, 1e-6f);

  // The sides mirror; nothing on the back of the sheet moves.
  const auto& table = CartoonGhost::displacements();
  for (std::size_t t = 0; t < table.size(); ++t) {
    const auto& name = table[t].name;
    if (!name.ends_with("Left")) continue;
    const auto& right = table[t + 1];
    ASSERT_EQ(right.name, name.substr(0, name.size() - 4) + "Right");
    for (float y = -0.4f; y < 0.7f; y += 0.037f) {
      for (float x = 0.0f; x < 0.5f; x += 0.041f) {
        const float3 l = table[t].displacement({x, y, 0.3f});
        const float3 r = right.displacement({-x, y, 0.3f});
        ASSERT_LE(glm::length(l - float3(-r.x, r.y, r.z)), 1e-6f) << name << " at " << x << ", " << y;
      }
    }
  }
  // Nothing on the back of the sheet moves.
  for (const auto& entry : table)
    for (std::size_t i = 0; i < body.outerCount(); i += 53)
      ASSERT_TRUE(body.outer[i].z >= 0.0f || entry.displacement(body.outer[i]) == float3(0.0f)) << entry.name << " " << i;
}

}  // namespace
}  // namespace velmora
