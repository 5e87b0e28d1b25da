#pragma once
// Reading glTF accessors back as plain arrays for tests: dense data, sparse
// substitutions and zero-initialised accessors all resolved, as a glTF
// consumer sees them.
#include <bit>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tiny_gltf.h>

namespace velmora::test {

// An index of `size` bytes (1, 2 or 4), little-endian as glTF stores it.
inline std::uint32_t readIndexAt(const unsigned char* p, std::size_t size) {
  static_assert(std::endian::native == std::endian::little);
  std::uint32_t v = 0;
  std::memcpy(&v, p, size);
  return v;
}

inline const unsigned char* viewData(const tinygltf::Model& m, int view, std::size_t offset) {
  const auto& v = m.bufferViews.at(static_cast<std::size_t>(view));
  return m.buffers.at(static_cast<std::size_t>(v.buffer)).data.data() + v.byteOffset + offset;
}

// Every float of a float accessor, components packed.
inline std::vector<float> readFloats(const tinygltf::Model& m, int index) {
  const auto& a = m.accessors.at(static_cast<std::size_t>(index));
  const auto comps = static_cast<std::size_t>(tinygltf::GetNumComponentsInType(static_cast<std::uint32_t>(a.type)));
  std::vector<float> out(a.count * comps, 0.0f);
  if (a.bufferView >= 0) {
    const auto& view = m.bufferViews[static_cast<std::size_t>(a.bufferView)];
    const std::size_t stride = view.byteStride ? view.byteStride : comps * 4;
    const unsigned char* base = viewData(m, a.bufferView, a.byteOffset);
    for (std::size_t i = 0; i < a.count; ++i) std::memcpy(&out[i * comps], base + i * stride, comps * 4);
  }
  if (a.sparse.isSparse) {
    const unsigned char* idx = viewData(m, a.sparse.indices.bufferView, static_cast<std::size_t>(a.sparse.indices.byteOffset));
    const unsigned char* val = viewData(m, a.sparse.values.bufferView, static_cast<std::size_t>(a.sparse.values.byteOffset));
    const auto indexSize = static_cast<std::size_t>(tinygltf::GetComponentSizeInBytes(static_cast<std::uint32_t>(a.sparse.indices.componentType)));
    for (std::size_t k = 0; k < static_cast<std::size_t>(a.sparse.count); ++k) {
      const std::uint32_t i = readIndexAt(idx + k * indexSize, indexSize);
      std::memcpy(&out[i * comps], val + k * comps * 4, comps * 4);
    }
  }
  return out;
}

// The values of an index accessor.
inline std::vector<std::int32_t> readIndices(const tinygltf::Model& m, int index) {
  const auto& a = m.accessors.at(static_cast<std::size_t>(index));
  const auto size = static_cast<std::size_t>(tinygltf::GetComponentSizeInBytes(static_cast<std::uint32_t>(a.componentType)));
  const unsigned char* base = viewData(m, a.bufferView, a.byteOffset);
  std::vector<std::int32_t> out(a.count);
  for (std::size_t i = 0; i < a.count; ++i) out[i] = static_cast<std::int32_t>(readIndexAt(base + i * size, size));
  return out;
}

// A .glb file read with tinygltf (a failure to read fails the test).
inline tinygltf::Model loadGlb(const std::string& file) {
  tinygltf::Model doc;
  std::string err, warn;
  EXPECT_TRUE(tinygltf::TinyGLTF().LoadBinaryFromFile(&doc, &err, &warn, file)) << file << ": " << err;
  EXPECT_EQ(warn, "") << file;
  return doc;
}

// A mesh's morph target names (extras.targetNames), in target order.
inline std::vector<std::string> targetNames(const tinygltf::Mesh& mesh) {
  std::vector<std::string> names;
  if (!mesh.extras.IsObject() || !mesh.extras.Has("targetNames")) return names;
  const tinygltf::Value& list = mesh.extras.Get("targetNames");
  for (std::size_t i = 0; i < list.ArrayLen(); ++i) names.push_back(list.Get(static_cast<int>(i)).Get<std::string>());
  return names;
}

}  // namespace velmora::test
