#pragma once
// Immutable mesh data. Arrays are shared (std::shared_ptr<const ...>) so that
// a second node built from the same data copies nothing, and a renderer can
// cache its uploads by the arrays' identity.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/Math.h"
#include "stage/Material.h"

namespace velmora {

// One vertex attribute stream: `vectorCount` vectors of `componentsPerVector`
// 32-bit floats, each vector starting `dataStride` bytes after the previous
// one (a stride of 16 keeps each float3 in a 16-byte slot).
struct GeometrySource {
  // tangent: float4, xyz along +u, w the bitangent's sign (glTF's TANGENT).
  enum class Semantic { vertex, normal, texcoord, color, tangent };

  Semantic semantic = Semantic::vertex;
  int componentsPerVector = 3;
  int bytesPerComponent = 4;
  int dataStride = 16;
  int vectorCount = 0;
  std::shared_ptr<const std::vector<float>> data;

  static GeometrySource make(Semantic semantic, const std::vector<float3>& values, int stride = 16);
  static GeometrySource make(Semantic semantic, const std::vector<float2>& values);

  float3 vec3(std::size_t i) const;
  float2 vec2(std::size_t i) const;
  std::vector<float3> toVec3() const;
};

// One primitive list drawn with one material.
struct GeometryElement {
  enum class Primitive { triangles, lines, points };

  Primitive primitive = Primitive::triangles;
  int bytesPerIndex = 4;
  std::shared_ptr<const std::vector<std::int32_t>> indices;

  int primitiveCount() const;
};

struct Geometry {
  std::string name;
  std::vector<GeometrySource> sources;
  std::vector<GeometryElement> elements;
  std::vector<Material> materials;  // materials[i] draws elements[i] (the last one repeats)

  const GeometrySource* source(GeometrySource::Semantic semantic) const;
  std::size_t vertexCount() const;
};

}  // namespace velmora
