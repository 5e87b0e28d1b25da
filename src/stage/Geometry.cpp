#include "stage/Geometry.h"

namespace velmora {

GeometrySource GeometrySource::make(Semantic semantic, const std::vector<float3>& values, int stride) {
  const int floatsPerVector = stride / 4;
  auto data = std::make_shared<std::vector<float>>(values.size() * static_cast<std::size_t>(floatsPerVector), 0.0f);
  for (std::size_t i = 0; i < values.size(); ++i) {
    float* out = data->data() + i * static_cast<std::size_t>(floatsPerVector);
    out[0] = values[i].x;
    out[1] = values[i].y;
    out[2] = values[i].z;
  }
  GeometrySource s;
  s.semantic = semantic;
  s.componentsPerVector = 3;
  s.dataStride = stride;
  s.vectorCount = static_cast<int>(values.size());
  s.data = std::move(data);
  return s;
}

GeometrySource GeometrySource::make(Semantic semantic, const std::vector<float2>& values) {
  auto data = std::make_shared<std::vector<float>>(values.size() * 2);
  for (std::size_t i = 0; i < values.size(); ++i) {
    (*data)[2 * i] = values[i].x;
    (*data)[2 * i + 1] = values[i].y;
  }
  GeometrySource s;
  s.semantic = semantic;
  s.componentsPerVector = 2;
  s.dataStride = 8;
  s.vectorCount = static_cast<int>(values.size());
  s.data = std::move(data);
  return s;
}

float3 GeometrySource::vec3(std::size_t i) const {
  const float* p = data->data() + i * static_cast<std::size_t>(dataStride / 4);
  return {p[0], p[1], p[2]};
}

float2 GeometrySource::vec2(std::size_t i) const {
  const float* p = data->data() + i * static_cast<std::size_t>(dataStride / 4);
  return {p[0], p[1]};
}

std::vector<float3> GeometrySource::toVec3() const {
  std::vector<float3> out(static_cast<std::size_t>(vectorCount));
  for (std::size_t i = 0; i < out.size(); ++i) out[i] = vec3(i);
  return out;
}

int GeometryElement::primitiveCount() const {
  if (!indices) return 0;
  const int n = static_cast<int>(indices->size());
  switch (primitive) {
    case Primitive::triangles: return n / 3;
    case Primitive::lines: return n / 2;
    case Primitive::points: return n;
  }
  return 0;
}

const GeometrySource* Geometry::source(GeometrySource::Semantic semantic) const {
  for (const auto& s : sources)
    if (s.semantic == semantic) return &s;
  return nullptr;
}

std::size_t Geometry::vertexCount() const {
  const auto* s = source(GeometrySource::Semantic::vertex);
  return s ? static_cast<std::size_t>(s->vectorCount) : 0;
}

}  // namespace velmora
