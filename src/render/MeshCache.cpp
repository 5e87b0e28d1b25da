#include "render/MeshCache.h"

#include <epoxy/gl.h>

#include <algorithm>
#include <glm/gtc/packing.hpp>
#include <string>

#include "base/Log.h"
#include "render/Shaders.h"

namespace velmora {

namespace {

using Semantic = GeometrySource::Semantic;

// One entry of the morph program's delta buffer: position delta x, y, z and
// normal delta x, y, z as half floats, two a texel.
constexpr std::size_t kTexelsPerEntry = 3;
// Each entry's target index is one byte (R8UI).
static_assert(shaders::maxMorphTargets <= 256);

GLenum glMode(GeometryElement::Primitive p) {
  switch (p) {
    case GeometryElement::Primitive::triangles: return GL_TRIANGLES;
    case GeometryElement::Primitive::lines: return GL_LINES;
    case GeometryElement::Primitive::points: return GL_POINTS;
  }
  return GL_TRIANGLES;
}

void release(MeshCache::MorphDeltas& d) {
  glDeleteTextures(1, &d.texture);
  glDeleteBuffers(1, &d.buffer);
  glDeleteTextures(1, &d.targetTexture);
  glDeleteBuffers(1, &d.targetBuffer);
}

}  // namespace

MeshCache::~MeshCache() {
  for (auto& [key, e] : meshes_) glDeleteVertexArrays(1, &e.mesh.vertexArray);
  for (auto& [key, e] : buffers_) glDeleteBuffers(1, &e.buffer);
  for (auto& [key, e] : parts_) glDeleteBuffers(1, &e.part.indexBuffer);
  for (auto& [key, e] : deltas_) release(e.deltas);
}

unsigned MeshCache::arrayBuffer(const std::shared_ptr<const std::vector<float>>& data) {
  auto it = buffers_.find(data.get());
  // A live entry at this address is this very array: two live arrays never
  // share an address. An expired one is a freed array whose address was reused.
  if (it != buffers_.end() && !it->second.owner.expired()) return it->second.buffer;
  if (it != buffers_.end()) {
    glDeleteBuffers(1, &it->second.buffer);
    buffers_.erase(it);
  }
  GLuint buffer = 0;
  glGenBuffers(1, &buffer);
  glBindBuffer(GL_ARRAY_BUFFER, buffer);
  glBufferData(GL_ARRAY_BUFFER, static_cast<GLsizeiptr>(data->size() * sizeof(float)), data->data(), GL_STATIC_DRAW);
  buffers_[data.get()] = {data, buffer};
  ++uploads_;
  return buffer;
}

const MeshCache::Mesh* MeshCache::mesh(const Geometry& geometry) {
  // Attribute location i is order[i].
  const Semantic order[5] = {Semantic::vertex, Semantic::normal, Semantic::texcoord, Semantic::color, Semantic::tangent};
  const GeometrySource* sources[5];
  std::vector<const void*> key(5, nullptr);
  for (int i = 0; i < 5; ++i) {
    sources[i] = geometry.source(order[i]);
    if (sources[i] && (!sources[i]->data || sources[i]->vectorCount <= 0)) sources[i] = nullptr;
    if (sources[i]) key[static_cast<std::size_t>(i)] = sources[i]->data.get();
  }
  if (!sources[0]) return nullptr;

  auto it = meshes_.find(key);
  if (it != meshes_.end()) {
    bool live = true;
    for (const auto& o : it->second.owners) live = live && !o.expired();
    if (live) return &it->second.mesh;
    glDeleteVertexArrays(1, &it->second.mesh.vertexArray);
    meshes_.erase(it);
  }

  MeshEntry entry;
  Mesh& m = entry.mesh;
  glGenVertexArrays(1, &m.vertexArray);
  glBindVertexArray(m.vertexArray);
  for (int i = 0; i < 5; ++i) {
    const GLuint loc = static_cast<GLuint>(i);
    const GeometrySource* s = sources[i];
    if (!s) {
      glDisableVertexAttribArray(loc);
      continue;
    }
    entry.owners.push_back(s->data);
    const GLuint buffer = arrayBuffer(s->data);
    glBindBuffer(GL_ARRAY_BUFFER, buffer);
    glEnableVertexAttribArray(loc);
    glVertexAttribPointer(loc, s->componentsPerVector, GL_FLOAT, GL_FALSE, s->dataStride, nullptr);
    if (i == 0) {
      m.positionBuffer = buffer;
      m.positionStride = s->dataStride;
      m.vertexCount = s->vectorCount;
    } else if (i == 1) {
      m.normalBuffer = buffer;
      m.normalStride = s->dataStride;
    }
  }
  glBindVertexArray(0);
  glBindBuffer(GL_ARRAY_BUFFER, 0);
  auto [pos, inserted] = meshes_.emplace(key, std::move(entry));
  (void)inserted;
  return &pos->second.mesh;
}

const MeshCache::Part* MeshCache::part(const GeometryElement& element) {
  if (!element.indices || element.indices->empty()) return nullptr;
  const void* key = element.indices.get();
  auto it = parts_.find(key);
  if (it != parts_.end() && !it->second.owner.expired()) return &it->second.part;
  if (it != parts_.end()) {
    glDeleteBuffers(1, &it->second.part.indexBuffer);
    parts_.erase(it);
  }
  PartEntry entry;
  entry.owner = element.indices;
  glGenBuffers(1, &entry.part.indexBuffer);
  // Bound outside any vertex array so no VAO's state changes; draws bind it.
  glBindVertexArray(0);
  glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, entry.part.indexBuffer);
  glBufferData(GL_ELEMENT_ARRAY_BUFFER, static_cast<GLsizeiptr>(element.indices->size() * sizeof(std::int32_t)),
               element.indices->data(), GL_STATIC_DRAW);
  glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, 0);
  entry.part.mode = glMode(element.primitive);
  entry.part.count = static_cast<int>(element.indices->size());
  ++uploads_;
  return &(parts_[key] = std::move(entry)).part;
}

const MeshCache::MorphDeltas* MeshCache::deltas(const Geometry& base, const std::shared_ptr<const TargetList>& given,
                                                const std::shared_ptr<const MorphTargetSource>& source) {
  const GeometrySource* bp = base.source(Semantic::vertex);
  const GeometrySource* bn = base.source(Semantic::normal);
  if ((!given && !source) || !bp || !bp->data || bp->vectorCount <= 0) return nullptr;
  const std::shared_ptr<const void> owner =
      source ? std::static_pointer_cast<const void>(source) : std::static_pointer_cast<const void>(given);
  const void* key = owner.get();
  auto it = deltas_.find(key);
  if (it != deltas_.end()) {
    const DeltaEntry& e = it->second;
    const bool sameBase = e.basePositions.lock() == bp->data && (!bn || e.baseNormals.lock() == bn->data);
    if (!e.owner.expired() && sameBase) return &e.deltas;
    release(it->second.deltas);
    deltas_.erase(it);
  }
  const std::shared_ptr<const TargetList> targets = given ? given : source->load ? source->load() : nullptr;
  if (!targets || targets->empty()) return nullptr;

  const std::size_t n = static_cast<std::size_t>(bp->vectorCount);
  // The morph program weighs at most maxMorphTargets targets of one mesh;
  // characters have one per blendshape, at most 52.
  const std::size_t t = std::min(targets->size(), static_cast<std::size_t>(shaders::maxMorphTargets));
  if (t < targets->size())
    logLine("Renderer", "MeshCache: a mesh with " + std::to_string(targets->size()) + " morph targets; those past the " +
                            std::to_string(shaders::maxMorphTargets) + "th do not move");
  const std::size_t normalCount = bn && bn->data ? static_cast<std::size_t>(std::max(0, bn->vectorCount)) : 0;
  // Per vertex, the targets that move it, in target order (see the morph
  // program): only moved vertices have entries, so the mask's 43 targets
  // take about 13 MB, against 33 MB with a delta for every (target, vertex),
  // and a half keeps a 5 cm delta to 0.03 mm, far below a pixel. Same rule
  // as the CPU reference blend: vertices the target lacks do not move. The
  // entries' target indices are bytes of their own (at most 128 targets)
  // rather than a fourth 32-bit texel each: 3 MB less for the mask.
  std::vector<std::uint32_t> texels(n + 1, 0);
  for (std::size_t ti = 0; ti < t; ++ti)
    if (const MorphTarget* target = (*targets)[ti].get())
      for (const std::uint32_t v : target->vertices)
        if (v < n) ++texels[v + 1];
  for (std::size_t v = 0; v < n; ++v) texels[v + 1] += texels[v];
  std::vector<std::uint32_t> cursor(texels.begin(), texels.end() - 1);
  texels.resize(n + 1 + texels[n] * kTexelsPerEntry, 0);
  std::vector<std::uint8_t> targetOf(std::max<std::size_t>(texels[n], 1), 0);
  auto half = [](float value) { return static_cast<std::uint32_t>(glm::packHalf1x16(value)); };
  for (std::size_t ti = 0; ti < t; ++ti) {
    const MorphTarget* target = (*targets)[ti].get();
    if (!target) continue;
    for (std::size_t k = 0; k < target->vertices.size(); ++k) {
      const std::uint32_t v = target->vertices[k];
      if (v >= n) break;  // ascending
      const float3 dp = target->hasPositions ? target->positionDeltas[k] : float3(0.0f);
      const float3 dn = target->hasNormals && v < normalCount ? target->normalDeltas[k] : float3(0.0f);
      const std::uint32_t e = cursor[v]++;
      targetOf[e] = static_cast<std::uint8_t>(ti);
      std::uint32_t* out = texels.data() + n + 1 + e * kTexelsPerEntry;
      out[0] = half(dp.x) | half(dp.y) << 16;
      out[1] = half(dp.z) | half(dn.x) << 16;
      out[2] = half(dn.y) | half(dn.z) << 16;
    }
  }
  DeltaEntry entry;
  entry.owner = owner;
  if (source) source->uploaded = true;
  entry.basePositions = bp->data;
  if (bn) entry.baseNormals = bn->data;
  MorphDeltas& d = entry.deltas;
  d.targetCount = static_cast<int>(t);
  // Both read by the morph program as texture buffers.
  auto upload = [](const void* data, std::size_t bytes, GLenum format, unsigned& buffer, unsigned& texture) {
    glGenBuffers(1, &buffer);
    glBindBuffer(GL_TEXTURE_BUFFER, buffer);
    glBufferData(GL_TEXTURE_BUFFER, static_cast<GLsizeiptr>(bytes), data, GL_STATIC_DRAW);
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_BUFFER, texture);
    glTexBuffer(GL_TEXTURE_BUFFER, format, buffer);
  };
  upload(texels.data(), texels.size() * sizeof(std::uint32_t), GL_R32UI, d.buffer, d.texture);
  upload(targetOf.data(), targetOf.size(), GL_R8UI, d.targetBuffer, d.targetTexture);
  glBindTexture(GL_TEXTURE_BUFFER, 0);
  glBindBuffer(GL_TEXTURE_BUFFER, 0);
  ++uploads_;
  return &(deltas_[key] = std::move(entry)).deltas;
}

void MeshCache::purgeExpired() {
  for (auto it = meshes_.begin(); it != meshes_.end();) {
    bool live = true;
    for (const auto& o : it->second.owners) live = live && !o.expired();
    if (live) {
      ++it;
      continue;
    }
    glDeleteVertexArrays(1, &it->second.mesh.vertexArray);
    it = meshes_.erase(it);
  }
  for (auto it = buffers_.begin(); it != buffers_.end();) {
    if (!it->second.owner.expired()) {
      ++it;
      continue;
    }
    glDeleteBuffers(1, &it->second.buffer);
    it = buffers_.erase(it);
  }
  for (auto it = parts_.begin(); it != parts_.end();) {
    if (!it->second.owner.expired()) {
      ++it;
      continue;
    }
    glDeleteBuffers(1, &it->second.part.indexBuffer);
    it = parts_.erase(it);
  }
  for (auto it = deltas_.begin(); it != deltas_.end();) {
    if (!it->second.owner.expired()) {
      ++it;
      continue;
    }
    release(it->second.deltas);
    it = deltas_.erase(it);
  }
}

}  // namespace velmora
