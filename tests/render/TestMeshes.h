#pragma once
// Small procedural meshes for the scene tests, built like the characters:
// shared immutable arrays, counter-clockwise triangles seen from outside.

#include <cmath>
#include <functional>
#include <memory>
#include <vector>

#include "stage/Geometry.h"
#include "stage/Morpher.h"
#include "stage/Node.h"

namespace velmora::test {

// A sphere of the given radius (centre at the origin) with optional holes:
// triangles whose outward direction is within holeAngle of a hole direction
// are left out.
inline std::shared_ptr<Geometry> sphereGeometry(float radius, int rings, int segments,
                                                const std::function<float3(const float3&)>& displace,
                                                const std::vector<float3>& holes, float holeAngle,
                                                const Material& material) {
  std::vector<float3> p, n;
  for (int r = 0; r <= rings; ++r) {
    const float theta = 3.14159265f * r / rings;
    for (int s = 0; s <= segments; ++s) {
      const float phi = 2.0f * 3.14159265f * s / segments;
      const float3 d(std::sin(theta) * std::sin(phi), std::cos(theta), std::sin(theta) * std::cos(phi));
      p.push_back(d * radius + (displace ? displace(d) : float3(0.0f)));
      n.push_back(d);
    }
  }
  auto idx = std::make_shared<std::vector<std::int32_t>>();
  const float cosHole = std::cos(holeAngle);
  for (int r = 0; r < rings; ++r)
    for (int s = 0; s < segments; ++s) {
      const int a = r * (segments + 1) + s, b = a + segments + 1;
      const float3 c = glm::normalize(n[a] + n[b] + n[a + 1] + n[b + 1]);
      bool hole = false;
      for (const auto& h : holes) hole = hole || glm::dot(c, glm::normalize(h)) > cosHole;
      if (hole) continue;
      for (int i : {a, b, a + 1, a + 1, b, b + 1}) idx->push_back(i);
    }
  auto g = std::make_shared<Geometry>();
  g->sources.push_back(GeometrySource::make(GeometrySource::Semantic::vertex, p));
  g->sources.push_back(GeometrySource::make(GeometrySource::Semantic::normal, n));
  GeometryElement e;
  e.indices = idx;
  g->elements.push_back(e);
  g->materials.push_back(material);
  return g;
}

inline Material plaster() {
  Material m;
  m.name = "Plaster";
  m.diffuse = {0.8f, 0.78f, 0.74f, 1.0f};
  m.roughness = 0.85f;
  return m;
}

// A "face": a sphere of radius 0.5 with two eye holes in the upper front,
// and two morph targets sharing its index array (its node's morpher):
// 0 = lower half pushed down and forward, 1 = bulge right.
inline std::shared_ptr<Node> makeTestFace() {
  const std::vector<float3> holes = {{-0.35f, 0.3f, 1.0f}, {0.35f, 0.3f, 1.0f}};
  const float holeAngle = 0.16f;
  auto base = sphereGeometry(0.5f, 48, 64, nullptr, holes, holeAngle, plaster());
  // The targets carry positions and normals only; the normals of the
  // displaced shapes are left as the sphere's, rotated a little so the GPU
  // has a normal delta to blend.
  const auto target = [&](const std::function<float3(const float3&)>& displace, float tilt) {
    auto g = sphereGeometry(0.5f, 48, 64, displace, holes, holeAngle, plaster());
    std::vector<float3> n = g->source(GeometrySource::Semantic::normal)->toVec3();
    for (auto& v : n) v = glm::normalize(v + float3(tilt, 0.0f, 0.0f));
    g->sources[1] = GeometrySource::make(GeometrySource::Semantic::normal, n);
    g->elements.clear();
    g->materials.clear();
    return g;
  };
  auto jaw = target(
      [](const float3& d) { return d.y < 0.0f && d.z > 0.0f ? float3(0.0f, 0.25f * d.y * d.z, 0.15f * d.z * -d.y) : float3(0.0f); },
      0.3f);
  auto bulge = target([](const float3& d) { return d.x > 0.0f ? d * (0.1f * d.x) : float3(0.0f); }, -0.2f);
  auto morpher = std::make_shared<Morpher>();
  morpher->targets = std::make_shared<MorphTargetList>(
      MorphTargetList{MorphTarget::fromGeometry(*base, *jaw), MorphTarget::fromGeometry(*base, *bulge)});
  morpher->weights.assign(2, 0.0f);
  auto node = Node::make("TestFace");
  node->geometry = base;
  node->morpher = morpher;
  return node;
}

}  // namespace velmora::test
