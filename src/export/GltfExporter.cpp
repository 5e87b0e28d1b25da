#include "export/GltfExporter.h"

// Index of this file:
//   [SECTION] Binary data: buffer views and accessors
//   [SECTION] Meshes and morph targets
//   [SECTION] Nodes and materials
//   [SECTION] The document and its GLB bytes

#include <algorithm>
#include <cstdint>
#include <map>
#include <set>
#include <sstream>
#include <utility>
#include <vector>

#include <glm/gtc/quaternion.hpp>

namespace velmora {

namespace {

// ---------------------------------------------------------------------------
// [SECTION] Binary data: buffer views and accessors
// ---------------------------------------------------------------------------

// Packs the streams of one document into its single buffer (the GLB's binary
// chunk), each block in its own buffer view at a 4-byte boundary, so every
// accessor is aligned for its 2- or 4-byte components.
class BufferPacker {
 public:
  explicit BufferPacker(tinygltf::Model& doc) : doc_(doc) {
    if (doc_.buffers.empty()) doc_.buffers.emplace_back();
  }

  // target: TINYGLTF_TARGET_ARRAY_BUFFER for vertex streams,
  // ..._ELEMENT_ARRAY_BUFFER for indices, 0 for sparse blocks (which glTF
  // forbids to carry a target).
  int view(const void* data, std::size_t bytes, int target) {
    auto& buffer = doc_.buffers[0].data;
    tinygltf::BufferView v;
    v.buffer = 0;
    v.byteOffset = buffer.size();
    v.byteLength = bytes;
    v.target = target;
    const auto* p = static_cast<const unsigned char*>(data);
    buffer.insert(buffer.end(), p, p + bytes);
    buffer.resize((buffer.size() + 3) & ~std::size_t{3}, 0);
    doc_.bufferViews.push_back(std::move(v));
    return static_cast<int>(doc_.bufferViews.size()) - 1;
  }

  // Makes room for `bytes` more, so the buffer grows once per mesh rather
  // than doubling through tens of MB.
  void reserveMore(std::size_t bytes) {
    auto& buffer = doc_.buffers[0].data;
    buffer.reserve(buffer.size() + bytes);
  }

  int accessor(tinygltf::Accessor a) {
    doc_.accessors.push_back(std::move(a));
    return static_cast<int>(doc_.accessors.size()) - 1;
  }

  // `components` floats per element, tightly packed. Bounds (min/max) are
  // required on positions and allowed everywhere; they are written where asked.
  int floats(const std::vector<float>& packed, int components, bool bounds, int target) {
    tinygltf::Accessor a = floatAccessor(packed.size() / static_cast<std::size_t>(components), components);
    if (bounds) setBounds(a, packed, components);
    a.bufferView = view(packed.data(), packed.size() * sizeof(float), target);
    return accessor(std::move(a));
  }

  // Indices of a primitive: 16-bit when every index fits below 65535 (the
  // value glTF reserves for primitive restart), else 32-bit.
  int indices(const std::vector<std::int32_t>& values, std::size_t vertexCount) {
    tinygltf::Accessor a;
    a.type = TINYGLTF_TYPE_SCALAR;
    a.count = values.size();
    if (vertexCount <= 65535) {
      std::vector<std::uint16_t> narrow(values.begin(), values.end());
      a.componentType = TINYGLTF_COMPONENT_TYPE_UNSIGNED_SHORT;
      a.bufferView = view(narrow.data(), narrow.size() * 2, TINYGLTF_TARGET_ELEMENT_ARRAY_BUFFER);
    } else {
      a.componentType = TINYGLTF_COMPONENT_TYPE_UNSIGNED_INT;
      a.bufferView = view(values.data(), values.size() * 4, TINYGLTF_TARGET_ELEMENT_ARRAY_BUFFER);
    }
    return accessor(std::move(a));
  }

  // Morph target deltas (3 floats each). Dense when at least half of them are
  // non-zero; sparse (only the non-zero ones, by ascending vertex index) when
  // most are zero; no data at all when every one is zero.
  int deltas(const std::vector<float>& packed, bool bounds) {
    const std::size_t count = packed.size() / 3;
    tinygltf::Accessor a = floatAccessor(count, 3);
    if (bounds) setBounds(a, packed, 3);
    std::vector<std::uint32_t> nonZero;
    for (std::size_t i = 0; i < count; ++i)
      if (packed[3 * i] != 0.0f || packed[3 * i + 1] != 0.0f || packed[3 * i + 2] != 0.0f)
        nonZero.push_back(static_cast<std::uint32_t>(i));
    if (nonZero.empty()) return accessor(std::move(a));
    if (2 * nonZero.size() >= count) {
      a.bufferView = view(packed.data(), packed.size() * sizeof(float), TINYGLTF_TARGET_ARRAY_BUFFER);
      return accessor(std::move(a));
    }
    std::vector<float> values;
    values.reserve(nonZero.size() * 3);
    for (const auto i : nonZero) values.insert(values.end(), packed.begin() + 3 * i, packed.begin() + 3 * i + 3);
    a.sparse.isSparse = true;
    a.sparse.count = static_cast<int>(nonZero.size());
    if (count <= 65536) {
      std::vector<std::uint16_t> narrow(nonZero.begin(), nonZero.end());
      a.sparse.indices.componentType = TINYGLTF_COMPONENT_TYPE_UNSIGNED_SHORT;
      a.sparse.indices.bufferView = view(narrow.data(), narrow.size() * 2, 0);
    } else {
      a.sparse.indices.componentType = TINYGLTF_COMPONENT_TYPE_UNSIGNED_INT;
      a.sparse.indices.bufferView = view(nonZero.data(), nonZero.size() * 4, 0);
    }
    a.sparse.indices.byteOffset = 0;
    a.sparse.values.bufferView = view(values.data(), values.size() * sizeof(float), 0);
    a.sparse.values.byteOffset = 0;
    return accessor(std::move(a));
  }

 private:
  static tinygltf::Accessor floatAccessor(std::size_t count, int components) {
    tinygltf::Accessor a;
    a.componentType = TINYGLTF_COMPONENT_TYPE_FLOAT;
    a.type = components == 2 ? TINYGLTF_TYPE_VEC2 : components == 4 ? TINYGLTF_TYPE_VEC4 : TINYGLTF_TYPE_VEC3;
    a.count = count;
    a.bufferView = -1;
    return a;
  }

  static void setBounds(tinygltf::Accessor& a, const std::vector<float>& packed, int components) {
    const auto c = static_cast<std::size_t>(components);
    std::vector<float> lo(c, 0.0f), hi(c, 0.0f);
    if (!packed.empty()) {
      lo.assign(packed.begin(), packed.begin() + static_cast<std::ptrdiff_t>(c));
      hi = lo;
    }
    for (std::size_t i = 0; i < packed.size(); ++i) {
      lo[i % c] = std::min(lo[i % c], packed[i]);
      hi[i % c] = std::max(hi[i % c], packed[i]);
    }
    a.minValues.assign(lo.begin(), lo.end());
    a.maxValues.assign(hi.begin(), hi.end());
  }

  tinygltf::Model& doc_;
};

// A source's vectors without the padding of its stride.
std::vector<float> packed(const GeometrySource& source) {
  const auto n = static_cast<std::size_t>(source.vectorCount);
  const auto c = static_cast<std::size_t>(source.componentsPerVector);
  const auto stride = static_cast<std::size_t>(source.dataStride) / sizeof(float);
  std::vector<float> out(n * c);
  for (std::size_t i = 0; i < n; ++i)
    std::copy_n(source.data->data() + i * stride, c, out.begin() + static_cast<std::ptrdiff_t>(i * c));
  return out;
}

// Displacements packed like a three-component base stream.
std::vector<float> packed(const std::vector<float3>& deltas) {
  std::vector<float> out;
  out.reserve(deltas.size() * 3);
  for (const float3& d : deltas) out.insert(out.end(), {d.x, d.y, d.z});
  return out;
}

// ---------------------------------------------------------------------------
// [SECTION] Meshes and morph targets
// ---------------------------------------------------------------------------

int primitiveMode(GeometryElement::Primitive p) {
  switch (p) {
    case GeometryElement::Primitive::lines: return TINYGLTF_MODE_LINE;
    case GeometryElement::Primitive::points: return TINYGLTF_MODE_POINTS;
    case GeometryElement::Primitive::triangles: break;
  }
  return TINYGLTF_MODE_TRIANGLES;
}

class DocumentBuilder {
 public:
  explicit DocumentBuilder(tinygltf::Model& doc) : doc_(doc), packer_(doc) {}

  int mesh(const Geometry& geometry, const Morpher* morpher) {
    const auto list = morpher ? morpher->loadedTargets() : nullptr;
    const auto key = std::make_pair(&geometry, list.get());
    if (auto it = meshes_.find(key); it != meshes_.end()) return it->second;

    // At most: every stream, every index as 32 bits, and two dense delta
    // streams per target (a sparse one is smaller by construction).
    std::size_t bound = 0;
    for (const auto& source : geometry.sources)
      bound += static_cast<std::size_t>(source.vectorCount) * static_cast<std::size_t>(source.componentsPerVector) * 4 + 4;
    for (const auto& element : geometry.elements) bound += element.indices ? element.indices->size() * 4 + 4 : 0;
    bound += (morpher ? morpher->targetCount() : 0) * 2 * (geometry.vertexCount() * 12 + 4);
    packer_.reserveMore(bound);

    std::map<std::string, int> attributes;
    std::vector<float> basePositions, baseNormals;
    for (const auto& source : geometry.sources) {
      if (!source.data || source.vectorCount == 0) continue;
      const std::vector<float> values = packed(source);
      switch (source.semantic) {
        case GeometrySource::Semantic::vertex:
          attributes["POSITION"] = packer_.floats(values, source.componentsPerVector, true, TINYGLTF_TARGET_ARRAY_BUFFER);
          basePositions = values;
          break;
        case GeometrySource::Semantic::normal:
          attributes["NORMAL"] = packer_.floats(values, source.componentsPerVector, false, TINYGLTF_TARGET_ARRAY_BUFFER);
          baseNormals = values;
          break;
        case GeometrySource::Semantic::texcoord:
          attributes["TEXCOORD_0"] = packer_.floats(values, source.componentsPerVector, false, TINYGLTF_TARGET_ARRAY_BUFFER);
          break;
        case GeometrySource::Semantic::color:
          attributes["COLOR_0"] = packer_.floats(values, source.componentsPerVector, false, TINYGLTF_TARGET_ARRAY_BUFFER);
          break;
        case GeometrySource::Semantic::tangent:
          attributes["TANGENT"] = packer_.floats(values, source.componentsPerVector, false, TINYGLTF_TARGET_ARRAY_BUFFER);
          break;
      }
    }

    tinygltf::Mesh mesh;
    mesh.name = geometry.name;
    std::vector<std::map<std::string, int>> targets;
    if (list) {
      tinygltf::Value::Array names;
      for (const auto& target : *list) {
        std::map<std::string, int> deltas;
        if (target->hasPositions && !basePositions.empty())
          deltas["POSITION"] = packer_.deltas(packed(target->densePositionDeltas(basePositions.size() / 3)), true);
        if (target->hasNormals && !baseNormals.empty())
          deltas["NORMAL"] = packer_.deltas(packed(target->denseNormalDeltas(baseNormals.size() / 3)), false);
        targets.push_back(std::move(deltas));
        names.emplace_back(target->name);
      }
      tinygltf::Value::Object extras;
      extras["targetNames"] = tinygltf::Value(std::move(names));
      mesh.extras = tinygltf::Value(std::move(extras));
    }

    const std::vector<int> materials = this->materials(geometry);
    for (std::size_t e = 0; e < geometry.elements.size(); ++e) {
      const GeometryElement& element = geometry.elements[e];
      if (!element.indices) continue;
      tinygltf::Primitive p;
      p.attributes = attributes;
      p.mode = primitiveMode(element.primitive);
      p.indices = packer_.indices(*element.indices, geometry.vertexCount());
      if (!materials.empty()) p.material = materials[std::min(e, materials.size() - 1)];
      p.targets = targets;
      mesh.primitives.push_back(std::move(p));
    }
    doc_.meshes.push_back(std::move(mesh));
    const int index = static_cast<int>(doc_.meshes.size()) - 1;
    meshes_[key] = index;
    return index;
  }

  // ---------------------------------------------------------------------------
  // [SECTION] Nodes and materials
  // ---------------------------------------------------------------------------

  int node(const Node& node) {
    const int index = static_cast<int>(doc_.nodes.size());
    doc_.nodes.emplace_back();  // children follow their parent
    tinygltf::Node out;
    out.name = node.name;
    if (node.position != float3(0.0f)) out.translation = {node.position.x, node.position.y, node.position.z};
    if (node.eulerAngles != float3(0.0f)) {
      const glm::quat q = glm::normalize(glm::quat_cast(glm::mat3(eulerRotation(node.eulerAngles))));
      out.rotation = {q.x, q.y, q.z, q.w};
    }
    if (node.scale != float3(1.0f)) out.scale = {node.scale.x, node.scale.y, node.scale.z};
    if (node.geometry) out.mesh = mesh(*node.geometry, node.morpher.get());
    for (const auto& child : node.children()) out.children.push_back(this->node(*child));
    doc_.nodes[static_cast<std::size_t>(index)] = std::move(out);
    return index;
  }

 private:
  std::vector<int> materials(const Geometry& geometry) {
    if (auto it = materials_.find(&geometry); it != materials_.end()) return it->second;
    std::vector<int> indices;
    for (const auto& m : geometry.materials) {
      tinygltf::Material material = GltfExporter::material(m);
      for (const auto& [name, value] : material.extensions) {
        (void)value;
        if (std::find(doc_.extensionsUsed.begin(), doc_.extensionsUsed.end(), name) == doc_.extensionsUsed.end())
          doc_.extensionsUsed.push_back(name);
      }
      doc_.materials.push_back(std::move(material));
      indices.push_back(static_cast<int>(doc_.materials.size()) - 1);
    }
    materials_[&geometry] = indices;
    return indices;
  }

  tinygltf::Model& doc_;
  BufferPacker packer_;
  std::map<std::pair<const Geometry*, const void*>, int> meshes_;
  std::map<const Geometry*, std::vector<int>> materials_;
};

}  // namespace

// ---------------------------------------------------------------------------
// [SECTION] The document and its GLB bytes
// ---------------------------------------------------------------------------

tinygltf::Material GltfExporter::material(const Material& m) {
  tinygltf::Material out;
  out.name = m.name;
  out.pbrMetallicRoughness.baseColorFactor = {m.diffuse.r, m.diffuse.g, m.diffuse.b, m.diffuse.a};
  out.pbrMetallicRoughness.roughnessFactor = m.roughness;
  out.pbrMetallicRoughness.metallicFactor = m.metalness;
  // glTF keeps the emissive factor within 0..1 and scales it by a separate
  // strength; ours is plain radiance.
  const float peak = std::max({m.emission.r, m.emission.g, m.emission.b});
  const float scale = peak > 1.0f ? peak : 1.0f;
  out.emissiveFactor = {m.emission.r / scale, m.emission.g / scale, m.emission.b / scale};
  if (scale > 1.0f) {
    tinygltf::Value::Object strength;
    strength["emissiveStrength"] = tinygltf::Value(static_cast<double>(scale));
    out.extensions["KHR_materials_emissive_strength"] = tinygltf::Value(std::move(strength));
  }
  out.doubleSided = m.doubleSided;
  out.alphaMode = m.diffuse.a < 1.0f ? "BLEND" : "OPAQUE";
  if (m.constantLighting) out.extensions["KHR_materials_unlit"] = tinygltf::Value(tinygltf::Value::Object());
  return out;
}

tinygltf::Model GltfExporter::document(const Node& root) {
  tinygltf::Model doc;
  doc.asset.version = "2.0";
  doc.asset.generator = "Velmora";
  DocumentBuilder builder(doc);
  tinygltf::Scene scene;
  scene.name = root.name;
  scene.nodes.push_back(builder.node(root));
  doc.scenes.push_back(std::move(scene));
  doc.defaultScene = 0;
  if (!doc.buffers.empty() && doc.buffers[0].data.empty()) doc.buffers.clear();
  return doc;
}

std::string GltfExporter::glb(const tinygltf::Model& document) {
  // Room for the binary chunk and a generous JSON chunk up front: the stream
  // then writes into one allocation instead of doubling through tens of MB.
  std::string storage;
  std::size_t binary = 0;
  for (const auto& b : document.buffers) binary += b.data.size();
  storage.reserve(binary + (1u << 20));
  std::ostringstream out(std::move(storage));
  tinygltf::TinyGLTF writer;
  writer.WriteGltfSceneToStream(&document, out, false, true);
  return std::move(out).str();
}

}  // namespace velmora
