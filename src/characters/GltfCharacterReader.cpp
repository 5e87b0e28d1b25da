#include "characters/GltfCharacterReader.h"

// Index of this file:
//   [SECTION] Images
//   [SECTION] Accessors
//   [SECTION] Target names
//   [SECTION] Materials
//   [SECTION] Meshes
//   [SECTION] Framing and assembly
//   [SECTION] API

#include <algorithm>
#include <cmath>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>

#include <glm/gtc/matrix_inverse.hpp>
#include <glm/gtc/quaternion.hpp>
#include <glm/gtc/type_ptr.hpp>

#include <tiny_gltf.h>

// stb_image for the materials' PNG and JPEG pictures, only those two formats.
#define STB_IMAGE_IMPLEMENTATION
#define STB_IMAGE_STATIC
#define STBI_ONLY_PNG
#define STBI_ONLY_JPEG
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
#pragma GCC diagnostic ignored "-Wunused-function"
#include <stb_image.h>
#pragma GCC diagnostic pop

#include "characters/TheatricalMaskGeometry.h"
#include "stage/ARKitBlendShape.h"

namespace velmora {

namespace {

// A failure inside the reader; caught once at the API and turned into the line.
struct ReadError {
  std::string why;
};

[[noreturn]] void fail(std::string why) { throw ReadError{std::move(why)}; }

std::string mb(std::uint64_t bytes) { return std::to_string((bytes + (1u << 19)) >> 20) + " MB"; }

// ---------------------------------------------------------------------------
// [SECTION] Images
// ---------------------------------------------------------------------------

struct ImageBudget {
  std::uint64_t used = 0;  // bytes of the file's buffers and decoded pictures so far
};

// tinygltf's image callback: decodes PNG or JPEG to 8-bit RGBA with stb_image,
// within the byte budget.
bool decodeImage(tinygltf::Image* image, const int index, std::string* err, std::string*, int, int,
                 const unsigned char* bytes, int size, void* user) {
  auto* budget = static_cast<ImageBudget*>(user);
  const std::string which = "image " + std::to_string(index) + (image->name.empty() ? "" : " (\"" + image->name + "\")");
  int w = 0, h = 0, channels = 0;
  if (!bytes || size <= 0 || !stbi_info_from_memory(bytes, size, &w, &h, &channels)) {
    if (err) *err = which + " is not a PNG or JPEG picture that can be decoded";
    return false;
  }
  const std::uint64_t decoded = static_cast<std::uint64_t>(w) * static_cast<std::uint64_t>(h) * 4;
  if (w <= 0 || h <= 0 || budget->used + decoded > GltfCharacterReader::maxBytes) {
    if (err) *err = "too large: " + which + " is " + std::to_string(w) + "x" + std::to_string(h);
    return false;
  }
  unsigned char* pixels = stbi_load_from_memory(bytes, size, &w, &h, &channels, 4);
  if (!pixels) {
    if (err) *err = which + " does not decode (" + std::string(stbi_failure_reason()) + ")";
    return false;
  }
  budget->used += decoded;
  image->width = w;
  image->height = h;
  image->component = 4;
  image->bits = 8;
  image->pixel_type = TINYGLTF_COMPONENT_TYPE_UNSIGNED_BYTE;
  image->image.assign(pixels, pixels + decoded);
  stbi_image_free(pixels);
  return true;
}

// ---------------------------------------------------------------------------
// [SECTION] Accessors
// ---------------------------------------------------------------------------

float component(const unsigned char* p, int type, bool normalized) {
  switch (type) {
    case TINYGLTF_COMPONENT_TYPE_FLOAT: {
      float f;
      std::memcpy(&f, p, 4);
      return f;
    }
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_BYTE: return normalized ? *p / 255.0f : *p;
    case TINYGLTF_COMPONENT_TYPE_BYTE: {
      const auto v = static_cast<float>(static_cast<std::int8_t>(*p));
      return normalized ? std::max(v / 127.0f, -1.0f) : v;
    }
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_SHORT: {
      std::uint16_t v;
      std::memcpy(&v, p, 2);
      return normalized ? v / 65535.0f : v;
    }
    case TINYGLTF_COMPONENT_TYPE_SHORT: {
      std::int16_t v;
      std::memcpy(&v, p, 2);
      return normalized ? std::max(v / 32767.0f, -1.0f) : static_cast<float>(v);
    }
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_INT: {
      std::uint32_t v;
      std::memcpy(&v, p, 4);
      return static_cast<float>(v);
    }
  }
  return 0.0f;
}

std::uint32_t indexValue(const unsigned char* p, int type) {
  switch (type) {
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_BYTE: return *p;
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_SHORT: {
      std::uint16_t v;
      std::memcpy(&v, p, 2);
      return v;
    }
    default: {
      std::uint32_t v;
      std::memcpy(&v, p, 4);
      return v;
    }
  }
}

int componentBytes(int type) {
  switch (type) {
    case TINYGLTF_COMPONENT_TYPE_BYTE:
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_BYTE: return 1;
    case TINYGLTF_COMPONENT_TYPE_SHORT:
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_SHORT: return 2;
    case TINYGLTF_COMPONENT_TYPE_UNSIGNED_INT:
    case TINYGLTF_COMPONENT_TYPE_FLOAT: return 4;
  }
  return 0;
}

class Accessors {
 public:
  explicit Accessors(const tinygltf::Model& m) : m_(m) {}

  const tinygltf::Accessor& get(int index, const std::string& what) const {
    if (index < 0 || static_cast<std::size_t>(index) >= m_.accessors.size())
      fail(what + " names accessor " + std::to_string(index) + ", which does not exist");
    return m_.accessors[static_cast<std::size_t>(index)];
  }

  // The bytes `count` elements of `elementBytes` read from, `stride` apart,
  // checked against the view and its buffer.
  const unsigned char* span(int viewIndex, std::uint64_t offset, std::uint64_t count, std::uint64_t elementBytes,
                            std::uint64_t& stride, const std::string& what) const {
    if (viewIndex < 0 || static_cast<std::size_t>(viewIndex) >= m_.bufferViews.size())
      fail(what + " names buffer view " + std::to_string(viewIndex) + ", which does not exist");
    const auto& view = m_.bufferViews[static_cast<std::size_t>(viewIndex)];
    if (view.buffer < 0 || static_cast<std::size_t>(view.buffer) >= m_.buffers.size())
      fail(what + ": buffer view " + std::to_string(viewIndex) + " names a buffer that does not exist");
    const auto& data = m_.buffers[static_cast<std::size_t>(view.buffer)].data;
    const std::uint64_t viewStart = view.byteOffset, viewLength = view.byteLength;
    if (viewStart > data.size() || viewLength > data.size() - viewStart)
      fail(what + ": buffer view " + std::to_string(viewIndex) + " lies outside its buffer (truncated file?)");
    stride = view.byteStride > 0 ? static_cast<std::uint64_t>(view.byteStride) : elementBytes;
    if (stride < elementBytes) fail(what + ": byte stride smaller than one element");
    if (count == 0) return data.data();
    if (offset > viewLength || (count - 1) > (viewLength - offset) / stride ||
        (count - 1) * stride + elementBytes > viewLength - offset)
      fail(what + ": " + std::to_string(count) + " elements do not fit in buffer view " + std::to_string(viewIndex) +
           " (truncated file?)");
    return data.data() + viewStart + offset;
  }

  // Accessor `index` as `components` floats per element (normalised integers
  // to 0..1 or -1..1), sparse substitutions applied.
  std::vector<float> floats(int index, int components, const std::string& what) const {
    const auto& a = get(index, what);
    const int have = tinygltf::GetNumComponentsInType(static_cast<std::uint32_t>(a.type));
    const int bytes = componentBytes(a.componentType);
    if (have != components || bytes == 0)
      fail(what + ": accessor " + std::to_string(index) + " has " + std::to_string(have) + " components of type " +
           std::to_string(a.componentType) + ", expected " + std::to_string(components));
    const auto count = static_cast<std::uint64_t>(a.count);
    if (count > (GltfCharacterReader::maxBytes / 4) / static_cast<std::uint64_t>(components))
      fail("too large: " + what + " has " + std::to_string(count) + " elements");
    std::vector<float> out(count * static_cast<std::uint64_t>(components), 0.0f);
    const std::uint64_t element = static_cast<std::uint64_t>(bytes) * static_cast<std::uint64_t>(components);
    if (a.bufferView >= 0) {
      std::uint64_t stride = 0;
      const unsigned char* p = span(a.bufferView, a.byteOffset, count, element, stride, what);
      for (std::uint64_t i = 0; i < count; ++i)
        for (int c = 0; c < components; ++c)
          out[i * static_cast<std::uint64_t>(components) + static_cast<std::uint64_t>(c)] =
              component(p + i * stride + static_cast<std::uint64_t>(c * bytes), a.componentType, a.normalized);
    }
    if (a.sparse.isSparse) {
      const auto n = static_cast<std::uint64_t>(std::max(a.sparse.count, 0));
      const int indexBytes = componentBytes(a.sparse.indices.componentType);
      if (indexBytes == 0 || a.sparse.indices.componentType == TINYGLTF_COMPONENT_TYPE_FLOAT ||
          a.sparse.indices.componentType == TINYGLTF_COMPONENT_TYPE_BYTE ||
          a.sparse.indices.componentType == TINYGLTF_COMPONENT_TYPE_SHORT)
        fail(what + ": sparse indices of an unsigned integer type expected");
      if (n > count) fail(what + ": more sparse values than elements");
      std::uint64_t indexStride = 0, valueStride = 0;
      const unsigned char* ip = span(a.sparse.indices.bufferView, static_cast<std::uint64_t>(std::max(a.sparse.indices.byteOffset, 0)), n,
                                     static_cast<std::uint64_t>(indexBytes), indexStride, what + " (sparse indices)");
      const unsigned char* vp = span(a.sparse.values.bufferView, static_cast<std::uint64_t>(std::max(a.sparse.values.byteOffset, 0)), n,
                                     element, valueStride, what + " (sparse values)");
      indexStride = static_cast<std::uint64_t>(indexBytes);  // sparse blocks are tightly packed
      valueStride = element;
      for (std::uint64_t i = 0; i < n; ++i) {
        const std::uint64_t at = indexValue(ip + i * indexStride, a.sparse.indices.componentType);
        if (at >= count) fail(what + ": sparse index " + std::to_string(at) + " beyond " + std::to_string(count) + " elements");
        for (int c = 0; c < components; ++c)
          out[at * static_cast<std::uint64_t>(components) + static_cast<std::uint64_t>(c)] =
              component(vp + i * valueStride + static_cast<std::uint64_t>(c * bytes), a.componentType, a.normalized);
      }
    }
    for (float v : out)
      if (!std::isfinite(v)) fail(what + ": a value that is not a finite number");
    return out;
  }

  std::vector<std::uint32_t> indices(int index, const std::string& what) const {
    const auto& a = get(index, what);
    if (a.type != TINYGLTF_TYPE_SCALAR ||
        (a.componentType != TINYGLTF_COMPONENT_TYPE_UNSIGNED_BYTE &&
         a.componentType != TINYGLTF_COMPONENT_TYPE_UNSIGNED_SHORT &&
         a.componentType != TINYGLTF_COMPONENT_TYPE_UNSIGNED_INT))
      fail(what + ": indices must be unsigned integer scalars");
    const auto count = static_cast<std::uint64_t>(a.count);
    if (count > 3 * static_cast<std::uint64_t>(GltfCharacterReader::maxTriangles) + 2)
      fail("too large: " + what + " has " + std::to_string(count) + " indices");
    std::vector<std::uint32_t> out(count, 0);
    if (a.bufferView >= 0) {
      std::uint64_t stride = 0;
      const auto bytes = static_cast<std::uint64_t>(componentBytes(a.componentType));
      const unsigned char* p = span(a.bufferView, a.byteOffset, count, bytes, stride, what);
      for (std::uint64_t i = 0; i < count; ++i) out[i] = indexValue(p + i * stride, a.componentType);
    }
    if (a.sparse.isSparse) {
      // Rare for indices; read through the float path (exact below 2^24).
      const auto f = floats(index, 1, what);
      for (std::size_t i = 0; i < out.size(); ++i) out[i] = static_cast<std::uint32_t>(f[i]);
    }
    return out;
  }

 private:
  const tinygltf::Model& m_;
};

// ---------------------------------------------------------------------------
// [SECTION] Target names
// ---------------------------------------------------------------------------

// What drives one morph target of one mesh: blendshapes with weights.
using Bindings = std::map<int, std::map<int, std::vector<std::pair<ARKitBlendShape, float>>>>;  // mesh -> target -> ...

struct Naming {
  Bindings bindings;
  std::vector<std::string> unmatched;
  void addUnmatched(const std::string& name) {
    if (std::find(unmatched.begin(), unmatched.end(), name) == unmatched.end()) unmatched.push_back(name);
  }
};

const tinygltf::Value* member(const tinygltf::Value& v, const char* key) {
  if (!v.IsObject() || !v.Has(key)) return nullptr;
  return &v.Get(key);
}

int intOf(const tinygltf::Value* v, int otherwise = -1) {
  return v && v->IsNumber() ? static_cast<int>(v->GetNumberAsInt()) : otherwise;
}

double numberOf(const tinygltf::Value* v, double otherwise) {
  return v && v->IsNumber() ? v->GetNumberAsDouble() : otherwise;
}

std::string stringOf(const tinygltf::Value* v) { return v && v->IsString() ? v->Get<std::string>() : std::string(); }

// VRM 0.x blend-shape groups: binds name (mesh, target index), weight 0..100.
void vrm0Bindings(const tinygltf::Value& vrm, Naming& naming) {
  const auto* master = member(vrm, "blendShapeMaster");
  const auto* groups = master ? member(*master, "blendShapeGroups") : nullptr;
  if (!groups || !groups->IsArray()) return;
  for (std::size_t g = 0; g < groups->ArrayLen(); ++g) {
    const auto& group = groups->Get(static_cast<int>(g));
    std::string name = stringOf(member(group, "name"));
    if (name.empty()) name = stringOf(member(group, "presetName"));
    const auto shape = blendShapeFromSpelling(name);
    if (!shape) {
      if (!name.empty()) naming.addUnmatched(name);
      continue;
    }
    const auto* binds = member(group, "binds");
    if (!binds || !binds->IsArray()) continue;
    for (std::size_t b = 0; b < binds->ArrayLen(); ++b) {
      const auto& bind = binds->Get(static_cast<int>(b));
      const int mesh = intOf(member(bind, "mesh")), index = intOf(member(bind, "index"));
      if (mesh < 0 || index < 0) continue;
      naming.bindings[mesh][index].emplace_back(*shape, static_cast<float>(numberOf(member(bind, "weight"), 100.0) / 100.0));
    }
  }
}

// VRM 1.0 expressions (preset and custom): binds name (node, target index), weight 0..1.
void vrm1Bindings(const tinygltf::Model& m, const tinygltf::Value& vrm, Naming& naming) {
  const auto* expressions = member(vrm, "expressions");
  if (!expressions) return;
  for (const char* kind : {"preset", "custom"}) {
    const auto* table = member(*expressions, kind);
    if (!table || !table->IsObject()) continue;
    for (const auto& name : table->Keys()) {
      const auto shape = blendShapeFromSpelling(name);
      if (!shape) {
        naming.addUnmatched(name);
        continue;
      }
      const auto* binds = member(table->Get(name), "morphTargetBinds");
      if (!binds || !binds->IsArray()) continue;
      for (std::size_t b = 0; b < binds->ArrayLen(); ++b) {
        const auto& bind = binds->Get(static_cast<int>(b));
        const int node = intOf(member(bind, "node")), index = intOf(member(bind, "index"));
        if (node < 0 || static_cast<std::size_t>(node) >= m.nodes.size() || index < 0) continue;
        const int mesh = m.nodes[static_cast<std::size_t>(node)].mesh;
        if (mesh < 0) continue;
        naming.bindings[mesh][index].emplace_back(*shape, static_cast<float>(numberOf(member(bind, "weight"), 1.0)));
      }
    }
  }
}

// VRM tables when they bind any blendshape; else mesh.extras.targetNames.
Naming targetNaming(const tinygltf::Model& m) {
  Naming vrm;
  if (auto it = m.extensions.find("VRM"); it != m.extensions.end()) vrm0Bindings(it->second, vrm);
  if (auto it = m.extensions.find("VRMC_vrm"); it != m.extensions.end()) vrm1Bindings(m, it->second, vrm);
  if (!vrm.bindings.empty()) return vrm;

  Naming naming;
  for (std::size_t mi = 0; mi < m.meshes.size(); ++mi) {
    const auto& mesh = m.meshes[mi];
    const auto* names = member(mesh.extras, "targetNames");
    std::size_t targets = 0;
    for (const auto& p : mesh.primitives) targets = std::max(targets, p.targets.size());
    for (std::size_t t = 0; t < targets; ++t) {
      std::string name;
      if (names && names->IsArray() && t < names->ArrayLen()) name = stringOf(&names->Get(static_cast<int>(t)));
      if (name.empty()) name = (mesh.name.empty() ? "mesh " + std::to_string(mi) : mesh.name) + " target " + std::to_string(t);
      if (const auto shape = blendShapeFromSpelling(name))
        naming.bindings[static_cast<int>(mi)][static_cast<int>(t)].emplace_back(*shape, 1.0f);
      else
        naming.addUnmatched(name);
    }
  }
  return naming;
}

// ---------------------------------------------------------------------------
// [SECTION] Materials
// ---------------------------------------------------------------------------

class MaterialReader {
 public:
  MaterialReader(const tinygltf::Model& m, std::size_t& textureBytes) : m_(m), textureBytes_(textureBytes) {}

  Material material(int index) {
    if (auto it = done_.find(index); it != done_.end()) return it->second;
    Material out;
    out.alphaMode = Material::AlphaMode::opaque;
    if (index >= 0 && static_cast<std::size_t>(index) < m_.materials.size()) {
      const auto& in = m_.materials[static_cast<std::size_t>(index)];
      const auto& pbr = in.pbrMetallicRoughness;
      out.name = in.name;
      if (pbr.baseColorFactor.size() == 4)
        out.diffuse = float4(static_cast<float>(pbr.baseColorFactor[0]), static_cast<float>(pbr.baseColorFactor[1]),
                             static_cast<float>(pbr.baseColorFactor[2]), static_cast<float>(pbr.baseColorFactor[3]));
      out.metalness = std::clamp(static_cast<float>(pbr.metallicFactor), 0.0f, 1.0f);
      out.roughness = std::clamp(static_cast<float>(pbr.roughnessFactor), 0.0f, 1.0f);
      float strength = 1.0f;
      if (auto it = in.extensions.find("KHR_materials_emissive_strength"); it != in.extensions.end())
        strength = static_cast<float>(numberOf(member(it->second, "emissiveStrength"), 1.0));
      if (in.emissiveFactor.size() == 3)
        out.emission = strength * float3(static_cast<float>(in.emissiveFactor[0]), static_cast<float>(in.emissiveFactor[1]),
                                         static_cast<float>(in.emissiveFactor[2]));
      out.doubleSided = in.doubleSided;
      out.constantLighting = in.extensions.count("KHR_materials_unlit") > 0;
      if (in.alphaMode == "MASK") out.alphaMode = Material::AlphaMode::mask;
      if (in.alphaMode == "BLEND") out.alphaMode = Material::AlphaMode::blend;
      out.alphaCutoff = static_cast<float>(in.alphaCutoff);
      out.baseColorTexture = texture(pbr.baseColorTexture.index, pbr.baseColorTexture.texCoord, pbr.baseColorTexture.extensions);
      out.metallicRoughnessTexture = texture(pbr.metallicRoughnessTexture.index, pbr.metallicRoughnessTexture.texCoord,
                                             pbr.metallicRoughnessTexture.extensions);
      out.normalTexture = texture(in.normalTexture.index, in.normalTexture.texCoord, in.normalTexture.extensions);
      out.normalScale = static_cast<float>(in.normalTexture.scale);
      out.occlusionTexture = texture(in.occlusionTexture.index, in.occlusionTexture.texCoord, in.occlusionTexture.extensions);
      out.occlusionStrength = static_cast<float>(in.occlusionTexture.strength);
      out.emissiveTexture = texture(in.emissiveTexture.index, in.emissiveTexture.texCoord, in.emissiveTexture.extensions);
    }
    done_[index] = out;
    return out;
  }

 private:
  MaterialTexture texture(int index, int texCoord, const tinygltf::ExtensionMap& extensions) {
    MaterialTexture out;
    if (index < 0 || static_cast<std::size_t>(index) >= m_.textures.size()) return out;
    const auto& t = m_.textures[static_cast<std::size_t>(index)];
    out.image = image(t.source);
    if (t.sampler >= 0 && static_cast<std::size_t>(t.sampler) < m_.samplers.size()) {
      const auto& s = m_.samplers[static_cast<std::size_t>(t.sampler)];
      out.clampS = s.wrapS == TINYGLTF_TEXTURE_WRAP_CLAMP_TO_EDGE;
      out.clampT = s.wrapT == TINYGLTF_TEXTURE_WRAP_CLAMP_TO_EDGE;
      out.nearest = s.magFilter == TINYGLTF_TEXTURE_FILTER_NEAREST;
    }
    if (auto it = extensions.find("KHR_texture_transform"); it != extensions.end()) {
      const auto& x = it->second;
      if (const auto* o = member(x, "offset"); o && o->IsArray() && o->ArrayLen() == 2)
        out.offset = float2(numberOf(&o->Get(0), 0.0), numberOf(&o->Get(1), 0.0));
      if (const auto* s = member(x, "scale"); s && s->IsArray() && s->ArrayLen() == 2)
        out.scale = float2(numberOf(&s->Get(0), 1.0), numberOf(&s->Get(1), 1.0));
      out.rotation = static_cast<float>(numberOf(member(x, "rotation"), 0.0));
      texCoord = intOf(member(x, "texCoord"), texCoord);
    }
    // Only the first texture coordinate set is read.
    if (texCoord != 0) out.image.reset();
    return out;
  }

  std::shared_ptr<const TextureImage> image(int index) {
    if (index < 0 || static_cast<std::size_t>(index) >= m_.images.size()) return nullptr;
    if (auto it = images_.find(index); it != images_.end()) return it->second;
    const auto& in = m_.images[static_cast<std::size_t>(index)];
    std::shared_ptr<TextureImage> out;
    if (in.width > 0 && in.height > 0 && in.component == 4 && in.bits == 8 &&
        in.image.size() == static_cast<std::size_t>(in.width) * static_cast<std::size_t>(in.height) * 4) {
      out = std::make_shared<TextureImage>();
      out->name = in.name.empty() ? in.uri : in.name;
      out->width = in.width;
      out->height = in.height;
      out->rgba = in.image;
      textureBytes_ += out->rgba.size();
    }
    images_[index] = out;
    return out;
  }

  const tinygltf::Model& m_;
  std::size_t& textureBytes_;
  std::map<int, Material> done_;
  std::map<int, std::shared_ptr<const TextureImage>> images_;
};

// ---------------------------------------------------------------------------
// [SECTION] Meshes
// ---------------------------------------------------------------------------

// One vertex set of one mesh node in file (then stage) coordinates, with its
// triangle lists and the blendshape targets it has.
struct Part {
  std::string name;
  int node = -1;
  std::vector<float3> positions, normals;
  std::vector<float2> uvs;
  std::vector<float4> colors, tangents;
  bool computedNormals = false;
  std::vector<std::vector<std::int32_t>> elements;
  std::vector<Material> materials;
  std::map<ARKitBlendShape, std::vector<float3>> targetPositions;  // absolute
  std::map<ARKitBlendShape, std::vector<float3>> targetNormals;    // absolute; absent: the base's
};

std::vector<float3> asVec3(const std::vector<float>& f) {
  std::vector<float3> out(f.size() / 3);
  for (std::size_t i = 0; i < out.size(); ++i) out[i] = float3(f[3 * i], f[3 * i + 1], f[3 * i + 2]);
  return out;
}

std::vector<float4> asVec4(const std::vector<float>& f, int components) {
  const auto c = static_cast<std::size_t>(components);
  std::vector<float4> out(f.size() / c, float4(1.0f));
  for (std::size_t i = 0; i < out.size(); ++i)
    for (std::size_t k = 0; k < c; ++k) out[i][static_cast<int>(k)] = f[c * i + k];
  return out;
}

// Triangle lists from a primitive's mode; other modes give none.
std::vector<std::uint32_t> triangleList(int mode, const std::vector<std::uint32_t>& in) {
  std::vector<std::uint32_t> out;
  if (mode == TINYGLTF_MODE_TRIANGLES || mode == -1) {
    out.assign(in.begin(), in.begin() + static_cast<std::ptrdiff_t>(in.size() / 3 * 3));
  } else if (mode == TINYGLTF_MODE_TRIANGLE_STRIP) {
    for (std::size_t i = 2; i < in.size(); ++i) {
      const bool even = (i % 2) == 0;
      out.insert(out.end(), {in[i - 2], even ? in[i - 1] : in[i], even ? in[i] : in[i - 1]});
    }
  } else if (mode == TINYGLTF_MODE_TRIANGLE_FAN) {
    for (std::size_t i = 2; i < in.size(); ++i) out.insert(out.end(), {in[0], in[i - 1], in[i]});
  }
  return out;
}

// Per-vertex tangents from texture coordinates (summed over the triangles,
// made orthogonal to the normal; w the handedness).
std::vector<float4> computeTangents(const Part& p) {
  std::vector<float3> tan(p.positions.size(), float3(0.0f)), bit(p.positions.size(), float3(0.0f));
  for (const auto& element : p.elements)
    for (std::size_t i = 0; i + 2 < element.size(); i += 3) {
      const auto a = static_cast<std::size_t>(element[i]), b = static_cast<std::size_t>(element[i + 1]),
                 c = static_cast<std::size_t>(element[i + 2]);
      const float3 e1 = p.positions[b] - p.positions[a], e2 = p.positions[c] - p.positions[a];
      const float2 d1 = p.uvs[b] - p.uvs[a], d2 = p.uvs[c] - p.uvs[a];
      const float det = d1.x * d2.y - d2.x * d1.y;
      if (std::fabs(det) < 1e-20f) continue;
      const float r = 1.0f / det;
      const float3 t = (e1 * d2.y - e2 * d1.y) * r, s = (e2 * d1.x - e1 * d2.x) * r;
      for (auto v : {a, b, c}) {
        tan[v] += t;
        bit[v] += s;
      }
    }
  std::vector<float4> out(p.positions.size(), float4(1, 0, 0, 1));
  for (std::size_t v = 0; v < out.size(); ++v) {
    const float3 n = p.normals[v];
    float3 t = tan[v] - n * glm::dot(n, tan[v]);
    if (glm::length(t) < 1e-12f) continue;
    t = glm::normalize(t);
    out[v] = float4(t, glm::dot(glm::cross(n, t), bit[v]) < 0.0f ? -1.0f : 1.0f);
  }
  return out;
}

class MeshReader {
 public:
  MeshReader(const tinygltf::Model& m, const Naming& naming, MaterialReader& materials)
      : m_(m), accessors_(m), naming_(naming), materials_(materials) {}

  std::size_t triangles = 0;
  std::uint64_t bytes = 0;  // arrays built so far

  // The mesh of node `nodeIndex` at world transform `world`, one Part per
  // set of primitives that share their vertex streams.
  void read(int nodeIndex, const float4x4& world, std::vector<Part>& out) {
    const auto& node = m_.nodes[static_cast<std::size_t>(nodeIndex)];
    if (node.mesh < 0) return;
    if (static_cast<std::size_t>(node.mesh) >= m_.meshes.size())
      fail("node " + std::to_string(nodeIndex) + " names mesh " + std::to_string(node.mesh) + ", which does not exist");
    const auto& mesh = m_.meshes[static_cast<std::size_t>(node.mesh)];
    // Primitives with the same streams and targets share one vertex set (our
    // own export writes one primitive per material over shared streams).
    std::map<std::pair<std::map<std::string, int>, std::vector<std::map<std::string, int>>>, std::size_t> groups;
    for (std::size_t pi = 0; pi < mesh.primitives.size(); ++pi) {
      const auto& prim = mesh.primitives[pi];
      if (prim.mode != -1 && prim.mode != TINYGLTF_MODE_TRIANGLES && prim.mode != TINYGLTF_MODE_TRIANGLE_STRIP &&
          prim.mode != TINYGLTF_MODE_TRIANGLE_FAN)
        continue;  // points and lines are not surfaces
      if (!prim.attributes.count("POSITION")) continue;
      const std::string what = "mesh " + std::to_string(node.mesh) + " primitive " + std::to_string(pi);
      const auto key = std::make_pair(prim.attributes, prim.targets);
      auto it = groups.find(key);
      if (it == groups.end()) {
        it = groups.emplace(key, out.size()).first;
        out.push_back(vertices(prim, node.mesh, mesh, nodeIndex, world, what));
      }
      Part& part = out[it->second];
      std::vector<std::uint32_t> raw;
      if (prim.indices >= 0) {
        raw = accessors_.indices(prim.indices, what + " indices");
      } else {
        raw.resize(part.positions.size());
        for (std::size_t i = 0; i < raw.size(); ++i) raw[i] = static_cast<std::uint32_t>(i);
      }
      const std::vector<std::uint32_t> list = triangleList(prim.mode, raw);
      triangles += list.size() / 3;
      if (triangles > GltfCharacterReader::maxTriangles)
        fail("too large: more than " + std::to_string(GltfCharacterReader::maxTriangles) + " triangles");
      std::vector<std::int32_t> element(list.size());
      for (std::size_t i = 0; i < list.size(); ++i) {
        if (list[i] >= part.positions.size())
          fail(what + ": index " + std::to_string(list[i]) + " beyond its " + std::to_string(part.positions.size()) +
               " vertices");
        element[i] = static_cast<std::int32_t>(list[i]);
      }
      if (glm::determinant(glm::mat3(world)) < 0.0f)  // a mirroring node: keep the front counter-clockwise
        for (std::size_t i = 0; i + 2 < element.size(); i += 3) std::swap(element[i + 1], element[i + 2]);
      if (element.empty()) continue;
      part.elements.push_back(std::move(element));
      part.materials.push_back(materials_.material(prim.material));
    }
    for (auto& [key, index] : groups) finish(out[index]);
  }

 private:
  void budget(std::uint64_t more) {
    bytes += more;
    if (bytes > GltfCharacterReader::maxBytes) fail("too large: more than " + mb(GltfCharacterReader::maxBytes) + " of data");
  }

  Part vertices(const tinygltf::Primitive& prim, int meshIndex, const tinygltf::Mesh& mesh, int nodeIndex,
                const float4x4& world, const std::string& what) {
    Part p;
    p.name = mesh.name.empty() ? m_.nodes[static_cast<std::size_t>(nodeIndex)].name : mesh.name;
    p.node = nodeIndex;
    const glm::mat3 linear(world);
    const glm::mat3 normalMatrix = glm::inverseTranspose(linear);
    p.positions = asVec3(accessors_.floats(prim.attributes.at("POSITION"), 3, what + " POSITION"));
    const std::size_t n = p.positions.size();
    budget(n * 64);
    for (auto& v : p.positions) v = float3(world * float4(v, 1.0f));
    auto sameCount = [&](std::size_t count, const char* name) {
      if (count != n)
        fail(what + ": " + name + " has " + std::to_string(count) + " elements but POSITION has " + std::to_string(n));
    };
    if (auto it = prim.attributes.find("NORMAL"); it != prim.attributes.end()) {
      p.normals = asVec3(accessors_.floats(it->second, 3, what + " NORMAL"));
      sameCount(p.normals.size(), "NORMAL");
      for (auto& v : p.normals) {
        v = normalMatrix * v;
        const float len = glm::length(v);
        v = len > 1e-12f ? v / len : float3(0, 0, 1);
      }
    }
    if (auto it = prim.attributes.find("TEXCOORD_0"); it != prim.attributes.end()) {
      const auto f = accessors_.floats(it->second, 2, what + " TEXCOORD_0");
      p.uvs.resize(f.size() / 2);
      for (std::size_t i = 0; i < p.uvs.size(); ++i) p.uvs[i] = float2(f[2 * i], f[2 * i + 1]);
      sameCount(p.uvs.size(), "TEXCOORD_0");
    }
    if (auto it = prim.attributes.find("COLOR_0"); it != prim.attributes.end()) {
      const auto& a = accessors_.get(it->second, what + " COLOR_0");
      const int c = a.type == TINYGLTF_TYPE_VEC3 ? 3 : 4;
      p.colors = asVec4(accessors_.floats(it->second, c, what + " COLOR_0"), c);
      sameCount(p.colors.size(), "COLOR_0");
    }
    if (auto it = prim.attributes.find("TANGENT"); it != prim.attributes.end()) {
      p.tangents = asVec4(accessors_.floats(it->second, 4, what + " TANGENT"), 4);
      sameCount(p.tangents.size(), "TANGENT");
      const float handedness = glm::determinant(linear) < 0.0f ? -1.0f : 1.0f;
      for (auto& t : p.tangents) {
        float3 d = linear * float3(t);
        const float len = glm::length(d);
        d = len > 1e-12f ? d / len : float3(1, 0, 0);
        t = float4(d, (t.w < 0.0f ? -1.0f : 1.0f) * handedness);
      }
    }

    // Morph targets: every blendshape's sum of weight x delta.
    const auto bindingsIt = naming_.bindings.find(meshIndex);
    if (bindingsIt == naming_.bindings.end()) return p;
    std::map<ARKitBlendShape, std::vector<float3>> positionDeltas, normalDeltas;
    for (const auto& [target, shapes] : bindingsIt->second) {
      if (target < 0 || static_cast<std::size_t>(target) >= prim.targets.size()) continue;
      const auto& streams = prim.targets[static_cast<std::size_t>(target)];
      const std::string tw = what + " target " + std::to_string(target);
      std::vector<float3> dp, dn;
      if (auto it = streams.find("POSITION"); it != streams.end()) {
        dp = asVec3(accessors_.floats(it->second, 3, tw + " POSITION"));
        sameCount(dp.size(), "a POSITION target");
      }
      if (auto it = streams.find("NORMAL"); it != streams.end() && !p.normals.empty()) {
        dn = asVec3(accessors_.floats(it->second, 3, tw + " NORMAL"));
        sameCount(dn.size(), "a NORMAL target");
      }
      for (const auto& [shape, weight] : shapes) {
        if (!dp.empty()) {
          auto& sum = positionDeltas[shape];
          if (sum.empty()) {
            budget(n * 24);
            sum.assign(n, float3(0.0f));
          }
          for (std::size_t i = 0; i < n; ++i) sum[i] += weight * dp[i];
        }
        if (!dn.empty()) {
          auto& sum = normalDeltas[shape];
          if (sum.empty()) sum.assign(n, float3(0.0f));
          for (std::size_t i = 0; i < n; ++i) sum[i] += weight * dn[i];
        }
      }
    }
    // Kept in file coordinates until the normals are known (finish()).
    for (auto& [shape, d] : positionDeltas) {
      std::vector<float3> abs(n);
      for (std::size_t i = 0; i < n; ++i) abs[i] = p.positions[i] + linear * d[i];
      p.targetPositions[shape] = std::move(abs);
    }
    for (auto& [shape, d] : normalDeltas) {
      if (p.normals.empty()) break;
      // Base normal in file space is normalMatrix^-1 * n' up to length; the
      // target's normal is the transformed sum, renormalised.
      const glm::mat3 back = glm::inverse(normalMatrix);
      std::vector<float3> abs(n);
      for (std::size_t i = 0; i < n; ++i) {
        const float3 fileNormal = back * p.normals[i];
        float3 v = normalMatrix * (fileNormal + d[i]);
        const float len = glm::length(v);
        abs[i] = len > 1e-12f ? v / len : p.normals[i];
      }
      p.targetNormals[shape] = std::move(abs);
    }
    return p;
  }

  // Normals and tangents the file left out.
  void finish(Part& p) {
    if (p.normals.empty()) {
      std::vector<std::int32_t> all;
      for (const auto& e : p.elements) all.insert(all.end(), e.begin(), e.end());
      p.normals = TheatricalMaskGeometry::smoothNormals(p.positions, all);
      p.computedNormals = true;
      for (auto& [shape, positions] : p.targetPositions)
        p.targetNormals[shape] = TheatricalMaskGeometry::smoothNormals(positions, all);
    }
    bool wantsTangents = false;
    for (const auto& m : p.materials) wantsTangents = wantsTangents || static_cast<bool>(m.normalTexture);
    if (wantsTangents && p.tangents.empty() && !p.uvs.empty()) p.tangents = computeTangents(p);
  }

  const tinygltf::Model& m_;
  Accessors accessors_;
  const Naming& naming_;
  MaterialReader& materials_;
};

float4x4 localMatrix(const tinygltf::Node& n) {
  if (n.matrix.size() == 16) {
    float values[16];
    for (int i = 0; i < 16; ++i) values[i] = static_cast<float>(n.matrix[static_cast<std::size_t>(i)]);
    return glm::make_mat4(values);  // column-major, as glTF stores it
  }
  float4x4 m(1.0f);
  if (n.translation.size() == 3)
    m = glm::translate(m, float3(static_cast<float>(n.translation[0]), static_cast<float>(n.translation[1]),
                                 static_cast<float>(n.translation[2])));
  if (n.rotation.size() == 4) {
    const glm::quat q(static_cast<float>(n.rotation[3]), static_cast<float>(n.rotation[0]),
                      static_cast<float>(n.rotation[1]), static_cast<float>(n.rotation[2]));
    if (glm::length(q) > 1e-12f) m *= glm::mat4_cast(glm::normalize(q));
  }
  if (n.scale.size() == 3)
    m = glm::scale(m, float3(static_cast<float>(n.scale[0]), static_cast<float>(n.scale[1]), static_cast<float>(n.scale[2])));
  return m;
}

// ---------------------------------------------------------------------------
// [SECTION] Framing and assembly
// ---------------------------------------------------------------------------

// The humanoid head bone a VRM file names, else -1.
int vrmHeadNode(const tinygltf::Model& m) {
  if (auto it = m.extensions.find("VRMC_vrm"); it != m.extensions.end()) {
    const auto* humanoid = member(it->second, "humanoid");
    const auto* bones = humanoid ? member(*humanoid, "humanBones") : nullptr;
    const auto* head = bones ? member(*bones, "head") : nullptr;
    if (const int node = intOf(head ? member(*head, "node") : nullptr); node >= 0) return node;
  }
  if (auto it = m.extensions.find("VRM"); it != m.extensions.end()) {
    const auto* humanoid = member(it->second, "humanoid");
    const auto* bones = humanoid ? member(*humanoid, "humanBones") : nullptr;
    if (bones && bones->IsArray())
      for (std::size_t i = 0; i < bones->ArrayLen(); ++i) {
        const auto& bone = bones->Get(static_cast<int>(i));
        if (stringOf(member(bone, "bone")) == "head") return intOf(member(bone, "node"));
      }
  }
  return -1;
}

void extend(CharacterFraming::Box& box, const float3& p) {
  box.lo = glm::min(box.lo, p);
  box.hi = glm::max(box.hi, p);
}

CharacterFraming::Box emptyBox() { return {float3(1e30f), float3(-1e30f)}; }

struct Scene {
  std::vector<Part> parts;
  std::map<int, float4x4> worlds;          // every node of the default scene
  std::map<int, std::vector<int>> subtree;  // node -> itself and its descendants
};

CharacterFraming::Rule frame(const tinygltf::Model& m, Scene& scene) {
  using Rule = CharacterFraming::Rule;
  if (m.asset.generator == "Velmora") return Rule::stageUnits;

  CharacterFraming::Box whole = emptyBox();
  for (const auto& p : scene.parts)
    for (const auto& v : p.positions) extend(whole, v);

  auto pick = [&]() -> std::pair<Rule, CharacterFraming::Box> {
    // 1. The head bone (VRM's humanoid table), else the first node named like a head.
    int head = vrmHeadNode(m);
    if (!scene.worlds.count(head)) head = -1;
    if (head < 0)
      for (const auto& [index, world] : scene.worlds)
        if (CharacterFraming::isHeadName(m.nodes[static_cast<std::size_t>(index)].name)) {
          head = index;
          break;
        }
    if (head >= 0) {
      // A head that carries meshes is framed by them; a bone by what lies
      // above its joint (the neck), which on a standing body is the head.
      CharacterFraming::Box box = emptyBox();
      const auto& nodes = scene.subtree[head];
      for (const auto& p : scene.parts)
        if (std::find(nodes.begin(), nodes.end(), p.node) != nodes.end())
          for (const auto& v : p.positions) extend(box, v);
      if (!box.valid()) {
        const float neck = scene.worlds[head][3].y;
        for (const auto& p : scene.parts)
          for (const auto& v : p.positions)
            if (v.y >= neck) extend(box, v);
      }
      if (box.valid() && box.hi.y > box.lo.y) return {Rule::headNode, box};
    }
    // 2. What the face targets move.
    const float eps = 1e-5f * glm::length(whole.hi - whole.lo);
    CharacterFraming::Box face = emptyBox();
    for (const auto& p : scene.parts)
      for (const auto& [shape, target] : p.targetPositions)
        for (std::size_t i = 0; i < target.size(); ++i)
          if (glm::length(target[i] - p.positions[i]) > eps) extend(face, p.positions[i]);
    if (face.valid() && face.hi.y > face.lo.y) return {Rule::faceTargets, face};
    return {Rule::wholeBox, whole};
  };
  const auto [rule, box] = pick();
  const float s = CharacterFraming::scaleFor(box);
  const float3 t = CharacterFraming::translationFor(box, s);
  for (auto& p : scene.parts) {
    for (auto& v : p.positions) v = s * v + t;
    for (auto& [shape, target] : p.targetPositions)
      for (auto& v : target) v = s * v + t;
  }
  return rule;
}

// One tightly packed source of float3 or float4 values.
template <class Vec>
GeometrySource packedSource(GeometrySource::Semantic semantic, const std::vector<Vec>& values) {
  constexpr int components = static_cast<int>(sizeof(Vec) / sizeof(float));
  GeometrySource s;
  s.semantic = semantic;
  s.componentsPerVector = components;
  s.dataStride = components * 4;
  s.vectorCount = static_cast<int>(values.size());
  auto data = std::make_shared<std::vector<float>>(values.size() * components);
  if (!values.empty()) std::memcpy(data->data(), values.data(), values.size() * sizeof(Vec));
  s.data = std::move(data);
  return s;
}

void assemble(FileCharacter& out, Scene& scene) {
  std::set<ARKitBlendShape> shapes;
  for (const auto& p : scene.parts)
    for (const auto& [shape, target] : p.targetPositions) shapes.insert(shape);
  for (const auto& p : scene.parts)
    for (const auto& [shape, target] : p.targetNormals) shapes.insert(shape);
  std::vector<ARKitBlendShape> order(shapes.begin(), shapes.end());  // vocabulary order
  for (std::size_t k = 0; k < order.size(); ++k) {
    out.matchedBlendshapes.emplace_back(rawValue(order[k]));
    out.build.targetNameToIndex[targetKey(std::string(rawValue(order[k])))] = static_cast<int>(k);
  }

  out.build.node = Node::make(out.name);
  for (auto& p : scene.parts) {
    if (p.elements.empty()) continue;
    auto g = std::make_shared<Geometry>();
    g->name = p.name;
    g->sources.push_back(packedSource(GeometrySource::Semantic::vertex, p.positions));
    g->sources.push_back(packedSource(GeometrySource::Semantic::normal, p.normals));
    if (!p.uvs.empty()) g->sources.push_back(GeometrySource::make(GeometrySource::Semantic::texcoord, p.uvs));
    if (!p.colors.empty()) g->sources.push_back(packedSource(GeometrySource::Semantic::color, p.colors));
    if (!p.tangents.empty()) g->sources.push_back(packedSource(GeometrySource::Semantic::tangent, p.tangents));
    for (auto& e : p.elements) {
      GeometryElement element;
      element.indices = std::make_shared<const std::vector<std::int32_t>>(std::move(e));
      out.triangles += element.indices->size() / 3;
      g->elements.push_back(std::move(element));
    }
    g->materials = std::move(p.materials);
    out.vertices += p.positions.size();

    auto node = Node::make(p.name);
    node->geometry = g;
    bool anyTarget = false;
    auto targets = std::make_shared<MorphTargetList>(order.size());
    const GeometrySource& baseNormals = g->sources[1];
    for (std::size_t k = 0; k < order.size(); ++k) {
      const auto pos = p.targetPositions.find(order[k]);
      const auto nrm = p.targetNormals.find(order[k]);
      if (pos == p.targetPositions.end() && nrm == p.targetNormals.end()) continue;
      auto t = std::make_shared<Geometry>();
      t->name = std::string(rawValue(order[k]));
      t->sources.push_back(pos != p.targetPositions.end() ? packedSource(GeometrySource::Semantic::vertex, pos->second)
                                                          : g->sources[0]);
      t->sources.push_back(nrm != p.targetNormals.end() ? packedSource(GeometrySource::Semantic::normal, nrm->second)
                                                        : baseNormals);
      (*targets)[k] = MorphTarget::fromGeometry(*g, *t);
      anyTarget = true;
    }
    p.targetPositions.clear();
    p.targetNormals.clear();
    if (anyTarget) {
      auto morpher = std::make_shared<Morpher>();
      morpher->targets = targets;
      morpher->weights.assign(order.size(), 0.0f);
      node->morpher = morpher;
      if (!out.build.morpher)
        out.build.morpher = morpher;
      else
        out.build.morpher->followers.push_back(morpher);  // every part takes the same weights
    }
    out.build.node->addChild(node);
  }
}

void walk(const tinygltf::Model& m, int index, const float4x4& parent, Scene& scene, std::vector<int>& path) {
  if (index < 0 || static_cast<std::size_t>(index) >= m.nodes.size())
    fail("the scene names node " + std::to_string(index) + ", which does not exist");
  if (std::find(path.begin(), path.end(), index) != path.end() || scene.worlds.count(index))
    fail("node " + std::to_string(index) + " is its own ancestor or has two parents");
  if (path.size() > 256) fail("nodes nested deeper than 256");
  const float4x4 world = parent * localMatrix(m.nodes[static_cast<std::size_t>(index)]);
  scene.worlds[index] = world;
  for (int ancestor : path) scene.subtree[ancestor].push_back(index);
  scene.subtree[index].push_back(index);
  path.push_back(index);
  for (int child : m.nodes[static_cast<std::size_t>(index)].children) walk(m, child, world, scene, path);
  path.pop_back();
}

std::string stem(const std::string& name) {
  const std::filesystem::path p(name);
  return p.stem().string().empty() ? name : p.stem().string();
}

CreateResult<FileCharacter> build(const tinygltf::Model& m, const std::string& name, std::uint64_t bytesSoFar) {
  Scene scene;
  std::vector<int> roots;
  if (!m.scenes.empty()) {
    const std::size_t s = m.defaultScene >= 0 && static_cast<std::size_t>(m.defaultScene) < m.scenes.size()
                              ? static_cast<std::size_t>(m.defaultScene) : 0;
    roots = m.scenes[s].nodes;
  } else {
    // No scene: every node that is nobody's child.
    std::vector<bool> child(m.nodes.size(), false);
    for (const auto& n : m.nodes)
      for (int c : n.children)
        if (c >= 0 && static_cast<std::size_t>(c) < child.size()) child[static_cast<std::size_t>(c)] = true;
    for (std::size_t i = 0; i < m.nodes.size(); ++i)
      if (!child[i]) roots.push_back(static_cast<int>(i));
  }
  std::vector<int> path;
  for (int r : roots) walk(m, r, float4x4(1.0f), scene, path);

  auto out = std::make_unique<FileCharacter>();
  out->name = stem(name);
  const Naming naming = targetNaming(m);
  MaterialReader materials(m, out->textureBytes);
  MeshReader meshes(m, naming, materials);
  meshes.bytes = bytesSoFar;
  for (const auto& [index, world] : scene.worlds) meshes.read(index, world, scene.parts);
  if (meshes.triangles == 0) fail("no mesh with triangles in the default scene");
  out->unmatchedTargets = naming.unmatched;
  out->framing = frame(m, scene);
  assemble(*out, scene);
  return CreateResult<FileCharacter>::success(std::move(out));
}

CreateResult<FileCharacter> load(const std::uint8_t* data, std::size_t size, const std::string& baseDirectory,
                                 const std::string& name) {
  using Result = CreateResult<FileCharacter>;
  const std::string prefix = "GltfCharacterReader: " + name + ": ";
  try {
    if (size > GltfCharacterReader::maxBytes)
      fail("too large: " + mb(size) + " (at most " + mb(GltfCharacterReader::maxBytes) + ")");
    if (size == 0) fail("empty file");
    tinygltf::TinyGLTF loader;
    ImageBudget budget;
    budget.used = size;
    loader.SetImageLoader(decodeImage, &budget);
    tinygltf::Model model;
    std::string err, warn;
    const bool binary = size >= 4 && std::memcmp(data, "glTF", 4) == 0;
    const bool ok = binary ? loader.LoadBinaryFromMemory(&model, &err, &warn, data, static_cast<unsigned>(size), baseDirectory)
                           : loader.LoadASCIIFromString(&model, &err, &warn, reinterpret_cast<const char*>(data),
                                                        static_cast<unsigned>(size), baseDirectory);
    if (!ok) {
      // tinygltf's message can run over several lines; the first says it.
      std::string first = err.substr(0, err.find('\n'));
      while (!first.empty() && (first.back() == '\r' || first.back() == ' ')) first.pop_back();
      fail((binary ? "broken GLB: " : "broken glTF: ") + (first.empty() ? std::string("unreadable") : first));
    }
    std::uint64_t bytes = budget.used;
    for (const auto& b : model.buffers) bytes += b.data.size();
    if (bytes > GltfCharacterReader::maxBytes) fail("too large: " + mb(bytes) + " of buffers and pictures");
    auto result = build(model, name, bytes);
    result.value->path = name;
    return result;
  } catch (const ReadError& e) {
    return Result::failure(prefix + e.why);
  } catch (const std::bad_alloc&) {
    return Result::failure(prefix + "too large: out of memory while reading");
  } catch (const std::exception& e) {
    return Result::failure(prefix + "broken glTF: " + e.what());
  }
}

}  // namespace

// ---------------------------------------------------------------------------
// [SECTION] API
// ---------------------------------------------------------------------------

CreateResult<FileCharacter> GltfCharacterReader::read(const std::string& path) {
  using Result = CreateResult<FileCharacter>;
  const std::string prefix = "GltfCharacterReader: " + path + ": ";
  std::error_code ec;
  if (!std::filesystem::exists(path, ec)) return Result::failure(prefix + "no such file");
  if (!std::filesystem::is_regular_file(path, ec)) return Result::failure(prefix + "not a regular file");
  const auto size = std::filesystem::file_size(path, ec);
  if (ec) return Result::failure(prefix + "cannot read: " + ec.message());
  if (size > maxBytes) return Result::failure(prefix + "too large: " + mb(size) + " (at most " + mb(maxBytes) + ")");
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(size));
  std::ifstream in(path, std::ios::binary);
  if (!in || !in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size())))
    return Result::failure(prefix + "cannot read: " + std::strerror(errno));
  const std::string base = std::filesystem::path(path).parent_path().string();
  return load(bytes.data(), bytes.size(), base, path);
}

CreateResult<FileCharacter> GltfCharacterReader::readMemory(const std::uint8_t* data, std::size_t size,
                                                           const std::string& baseDirectory, const std::string& name) {
  return load(data, size, baseDirectory, name);
}

}  // namespace velmora
