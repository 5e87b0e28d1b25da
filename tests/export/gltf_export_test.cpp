// The glTF export read back with tinygltf and compared with the characters
// as built in memory: node tree, vertex streams in the same order, triangles,
// materials, and every morph target's deltas, float for float; the target
// names are the ARKit names each character answers to; deltas that are
// mostly zero travel sparse; a folder that cannot be made fails every file
// with one line and writes nothing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <set>
#include <unordered_map>
#include <string>
#include <tuple>
#include <vector>

#include <glm/gtc/quaternion.hpp>
#include <tiny_gltf.h>

#include "export/CharacterExport.h"
#include "export/GltfExporter.h"
#include "base/MainQueue.h"
#include "characters/CharacterBuild.h"
#include "stage/ARKitBlendShape.h"
#include "support/GltfRead.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;
using ::testing::Eq;
using ::testing::Pointwise;  // names the first index that differs

// The glTF node `index` against the scene node, recursively; target names
// also against the character's name map (`keys`: lower-cased name -> index).
void expectSameNode(const tinygltf::Model& doc, int index, const Node& node,
                    const std::unordered_map<std::string, int>& keys) {
  SCOPED_TRACE(node.name);
  const tinygltf::Node& out = doc.nodes.at(static_cast<std::size_t>(index));
  EXPECT_EQ(std::pair(out.name, out.translation.empty() ? std::vector<double>(3, 0.0) : out.translation),
            std::pair(node.name, std::vector<double>{node.position.x, node.position.y, node.position.z}));
  ASSERT_EQ(out.children.size(), node.children().size());
  for (std::size_t c = 0; c < out.children.size(); ++c) expectSameNode(doc, out.children[c], *node.children()[c], keys);

  ASSERT_EQ(out.mesh >= 0, node.geometry != nullptr);
  if (!node.geometry) return;
  const Geometry& g = *node.geometry;
  const tinygltf::Mesh& mesh = doc.meshes.at(static_cast<std::size_t>(out.mesh));
  ASSERT_EQ(mesh.primitives.size(), g.elements.size());
  using enum GeometrySource::Semantic;
  const std::pair<const char*, GeometrySource::Semantic> streams[] = {
      {"POSITION", vertex}, {"NORMAL", normal}, {"TEXCOORD_0", texcoord}, {"COLOR_0", color}};
  const std::size_t targetCount = node.morpher ? node.morpher->targetCount() : 0;
  const std::vector<std::string> names = targetCount ? test::targetNames(mesh) : std::vector<std::string>{};
  ASSERT_EQ(names.size(), targetCount);
  ASSERT_TRUE(names.empty() || names.size() == keys.size()) << names.size();

  for (std::size_t e = 0; e < g.elements.size(); ++e) {
    SCOPED_TRACE("element " + std::to_string(e));
    const tinygltf::Primitive& p = mesh.primitives[e];
    EXPECT_EQ(p.mode, TINYGLTF_MODE_TRIANGLES);
    EXPECT_EQ(test::readIndices(doc, p.indices), *g.elements[e].indices);
    for (const auto& [attribute, semantic] : streams) {
      std::vector<float> expected;  // the source's vectors, components packed
      for (int i = 0; g.source(semantic) && i < g.source(semantic)->vectorCount; ++i) {
        const GeometrySource& s = *g.source(semantic);
        const float* v = s.data->data() + static_cast<std::size_t>(i) * static_cast<std::size_t>(s.dataStride / 4);
        expected.insert(expected.end(), v, v + s.componentsPerVector);
      }
      ASSERT_EQ(p.attributes.count(attribute), expected.empty() ? 0u : 1u) << attribute;
      EXPECT_THAT(expected.empty() ? expected : test::readFloats(doc, p.attributes.at(attribute)),
                  Pointwise(Eq(), expected)) << attribute;
    }

    // The material: name, base colour, roughness, metalness, emission, sides.
    const Material& m = g.materials[std::min(e, g.materials.size() - 1)];
    const tinygltf::Material& mat = doc.materials.at(static_cast<std::size_t>(p.material));
    const auto& pbr = mat.pbrMetallicRoughness;
    EXPECT_EQ(std::tuple(mat.name, pbr.baseColorFactor, pbr.roughnessFactor, pbr.metallicFactor, mat.emissiveFactor,
                         mat.doubleSided),
              std::tuple(m.name, std::vector<double>{m.diffuse.r, m.diffuse.g, m.diffuse.b, m.diffuse.a},
                         double{m.roughness}, double{m.metalness},
                         std::vector<double>{m.emission.r, m.emission.g, m.emission.b}, m.doubleSided));

    // Every target of every primitive: the same deltas, float for float.
    ASSERT_EQ(p.targets.size(), targetCount);
    if (e > 0 && targetCount > 0) {
      EXPECT_EQ(p.targets, mesh.primitives[0].targets);  // shared streams, already compared
      continue;
    }
    for (std::size_t t = 0; t < targetCount; ++t) {
      const MorphTarget& target = *(*node.morpher->targets)[t];
      EXPECT_EQ(names[t], target.name);
      // An ARKit name, found in any letter case under this index.
      EXPECT_TRUE(fromRawValue<ARKitBlendShape>(names[t]).has_value()) << names[t];
      std::string key = names[t];
      for (auto& c : key) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      EXPECT_EQ(keys.contains(key) ? keys.at(key) : -1, static_cast<int>(t)) << names[t];
      for (const auto& [attribute, semantic] : {streams[0], streams[1]}) {
        const auto deltas =
            semantic == vertex ? target.densePositionDeltas(g.vertexCount()) : target.denseNormalDeltas(g.vertexCount());
        std::vector<float> expected;
        for (const float3& d : deltas) expected.insert(expected.end(), {d.x, d.y, d.z});
        const int index = p.targets[t].at(attribute);
        EXPECT_THAT(test::readFloats(doc, index), Pointwise(Eq(), expected)) << target.name << " " << attribute;
        // Sparse (only the non-zero deltas) when fewer than half are non-zero;
        // none at all may leave the accessor without data.
        const auto& a = doc.accessors[static_cast<std::size_t>(index)];
        const auto nonZero =
            static_cast<std::size_t>(std::ranges::count_if(deltas, [](float3 d) { return d != float3(0); }));
        EXPECT_EQ(std::pair(a.sparse.isSparse || a.bufferView < 0, a.sparse.isSparse ? a.sparse.count : int(nonZero)),
                  std::pair(2 * nonZero < deltas.size(), int(nonZero))) << target.name << " " << attribute;
      }
    }
  }
}

// Round trip: one file per character, one line each and nothing else in the
// folder; each file read back is the character in memory; its target names
// are the ARKit names the character answers to, in its index order.
TEST(CharacterExport, EachFileReadsBackAsTheCharacterInMemory) {
  test::TempDir dir;
  test::LogCapture log;
  const auto outcomes = CharacterExport::run((dir.path() / "characters").string());
  ASSERT_EQ(std::tuple(outcomes.size(), log.lines().size()), std::tuple(2u, 2u));
  for (const auto& o : outcomes) {
    SCOPED_TRACE(o.file.string());
    ASSERT_TRUE(o.written) << o.error;
    const CharacterBuild build = createCharacterNode(o.model);
    EXPECT_EQ(std::tuple(o.bytes, o.morphTargets),
              std::tuple(fs::file_size(o.file), static_cast<int>(build.morpher->targetCount())));
    EXPECT_TRUE(log.has("[export] Wrote " + o.file.string() + " (" + std::to_string(o.bytes) + " bytes, " +
                        std::to_string(o.morphTargets) + " morph targets)"));

    const tinygltf::Model doc = test::loadGlb(o.file.string());
    ASSERT_EQ(std::pair(doc.scenes.size(), doc.scenes.at(0).nodes.size()), (std::pair<std::size_t, std::size_t>(1, 1)));
    expectSameNode(doc, doc.scenes[0].nodes[0], *build.node, build.targetNameToIndex);
  }
  // No temporary file left beside them (each outcome's file was read above).
  const fs::path folder = dir.path() / "characters";
  EXPECT_EQ(std::set<fs::path>(fs::directory_iterator(folder), {}),
            (std::set<fs::path>{folder / "theatrical_mask.glb", folder / "cartoon_ghost.glb"}));
}

TEST(GltfExporter, MaterialsKeepTheirLook) {
  Material glow;  // names are compared in the round trip
  glow.diffuse = float4(0.5f, 0.25f, 1.0f, 0.5f);
  glow.emission = float3(2.0f, 1.0f, 0.5f);
  glow.constantLighting = true;
  const tinygltf::Material out = GltfExporter::material(glow);
  // glTF keeps the factor within 0..1; factor x strength is the radiance (at() throws when it is missing).
  const double strength = out.extensions.at("KHR_materials_emissive_strength").Get("emissiveStrength").GetNumberAsDouble();
  for (int c = 0; c < 3; ++c) {
    EXPECT_LE(out.emissiveFactor[static_cast<std::size_t>(c)], 1.0);
    EXPECT_FLOAT_EQ(static_cast<float>(out.emissiveFactor[static_cast<std::size_t>(c)] * strength), glow.emission[c]);
  }
  EXPECT_EQ(std::tuple(out.extensions.count("KHR_materials_unlit"), out.alphaMode), std::tuple(1u, "BLEND"));

  Material plaster;
  plaster.diffuse = float4(0.82f, 0.84f, 0.83f, 1.0f);
  plaster.emission = float3(0.26f, 0.28f, 1.0f);
  const tinygltf::Material plain = GltfExporter::material(plaster);
  EXPECT_EQ(std::tuple(plain.extensions.size(), plain.alphaMode, plain.emissiveFactor),
            std::tuple(0u, "OPAQUE", std::vector<double>{0.26f, 0.28f, 1.0f}));
}

TEST(GltfExporter, NodeTransformsMeanWhatTheSceneMeans) {
  auto root = Node::make("Root");
  auto child = Node::make("Turned");
  child->position = float3(0.1f, -0.2f, 0.3f);
  child->eulerAngles = float3(0.3f, -0.5f, 0.2f);
  child->scale = float3(1.0f, 2.0f, 0.5f);
  root->addChild(child);
  const tinygltf::Model doc = GltfExporter::document(*root);
  ASSERT_EQ(doc.nodes.size(), 2u);
  EXPECT_TRUE(doc.nodes[0].rotation.empty() && doc.nodes[0].translation.empty() && doc.nodes[0].scale.empty());
  ASSERT_EQ(doc.nodes[0].children, std::vector<int>{1});
  const tinygltf::Node& out = doc.nodes[1];
  EXPECT_EQ(std::pair(out.translation, out.scale),
            std::pair(std::vector<double>{0.1f, -0.2f, 0.3f}, std::vector<double>{1.0f, 2.0f, 0.5f}));
  // glTF's rotation is (x, y, z, w); it must turn vectors as the scene's Euler angles do (a quaternion
  // not of unit length turns them wrongly).
  ASSERT_EQ(out.rotation.size(), 4u);
  const glm::quat q(static_cast<float>(out.rotation[3]), static_cast<float>(out.rotation[0]),
                    static_cast<float>(out.rotation[1]), static_cast<float>(out.rotation[2]));
  for (const float3 v : {float3(1, 0, 0), float3(0, 1, 0), float3(0, 0, 1)})
    EXPECT_NEAR(glm::length(q * v - float3(eulerRotation(child->eulerAngles) * float4(v, 0.0f))), 0.0f, 1e-6f);
}

// Run in the background (the menu's way; the same export as run()): a
// folder that cannot be made fails every file with one line, writes nothing,
// and the outcomes arrive on the main thread.
TEST(CharacterExport, AFolderThatCannotBeCreatedFailsEveryFileWithOneLineAndWritesNothing) {
  test::TempDir dir;
  const fs::path blocker = dir.path() / "blocker";
  std::ofstream(blocker) << "a file where the folder should go\n";
  const fs::path folder = blocker / "characters";
  test::LogCapture log;
  std::vector<CharacterExport::Outcome> outcomes;
  CharacterExport::runInBackground(folder.string(), [&](std::vector<CharacterExport::Outcome> o) {
    EXPECT_TRUE(MainQueue::shared().isMainThread());
    outcomes = std::move(o);
  });
  ASSERT_TRUE(MainQueue::shared().runUntil([&] { return !outcomes.empty(); }, 30.0));
  ASSERT_EQ(std::tuple(outcomes.size(), log.lines().size()), std::tuple(2u, 2u));
  for (const auto& o : outcomes) {
    const std::string line = "[export] Could not write " + (folder / CharacterExport::fileName(o.model)).string() +
                             ": cannot create the folder " + folder.string() + ": Not a directory";
    EXPECT_TRUE(!o.written && log.has(line)) << log.lines().front();
  }
  EXPECT_EQ(std::vector<fs::path>(fs::recursive_directory_iterator(dir.path()), {}), std::vector<fs::path>{blocker});
}

}  // namespace
}  // namespace velmora
