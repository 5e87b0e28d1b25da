// The glTF character reader on small hand-written documents: what it makes
// of a good one (names matched by spelling or by VRM's table, the rest
// listed; the framing rule), and the one line each hostile file gives.
#include <gtest/gtest.h>

#include <algorithm>
#include <ranges>
#include <string>
#include <tuple>
#include <vector>

#include "characters/GltfCharacterReader.h"

namespace velmora {
namespace {

// The buffer, 150 bytes as a data URI: bytes 0..47 four positions of a
// 2 x 2 quad (float VEC3: (-1,-1,0) (1,-1,0) (1,1,0) (-1,1,0)), 48..95 target
// 0's deltas (vertices 0 and 3, the left edge, move down 0.5), 96..143
// target 1's (vertex 3 moves 0.2 in x), 144..149 the ubyte indices 0 1 2 0 2 3.
const char* const kBuffer =
    "data:application/octet-stream;base64,"
    "AACAvwAAgL8AAAAAAACAPwAAgL8AAAAAAACAPwAAgD8AAAAAAACAvwAAgD8AAAAAAAAAAAAAAL8AAAAAAAAAAAAAAAAAAAAAAAAA"
    "AAAAAAAAAAAAAAAAAAAAAL8AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAzcxMPgAAAAAAAAAAAAECAAID";

// A quad with two morph targets; the cases change the node, the number of
// positions and of indices, and add to the document's end.
std::string document(const std::string& node = R"("mesh": 0, "name": "Face")", const std::string& count = "4",
                     const std::string& indexCount = "6", const std::string& extra = "") {
  return R"({"asset": {"version": "2.0"}, "scene": 0, "scenes": [{"nodes": [0]}],
    "nodes": [{)" + node + R"(}],
    "meshes": [{"primitives": [{"attributes": {"POSITION": 0}, "indices": 3,
                "targets": [{"POSITION": 1}, {"POSITION": 2}]}],
                "extras": {"targetNames": ["JawOpen", "Wobble"]}}],
    "buffers": [{"byteLength": 150, "uri": ")" + kBuffer + R"("}],
    "bufferViews": [{"buffer": 0, "byteOffset": 0, "byteLength": 144}, {"buffer": 0, "byteOffset": 144, "byteLength": 6}],
    "accessors": [
      {"bufferView": 0, "byteOffset": 0, "componentType": 5126, "count": )" + count + R"(, "type": "VEC3",
       "min": [-1, -1, 0], "max": [1, 1, 0]},
      {"bufferView": 0, "byteOffset": 48, "componentType": 5126, "count": 4, "type": "VEC3"},
      {"bufferView": 0, "byteOffset": 96, "componentType": 5126, "count": 4, "type": "VEC3"},
      {"bufferView": 1, "componentType": 5121, "count": )" + indexCount + R"(, "type": "SCALAR"}]
    )" + extra + "}";
}

CreateResult<FileCharacter> readText(const std::string& text) {
  return GltfCharacterReader::readMemory(reinterpret_cast<const std::uint8_t*>(text.data()), text.size(), "",
                                         "quad.gltf");
}

TEST(GltfCharacterReader, NamesTargetsBySpellingOrByVrmAndFramesByTheBestRuleItHas) {
  auto quad = readText(document());
  ASSERT_TRUE(quad) << quad.reason;
  // "JawOpen" matched; no head node: framed by the vertices the jaw target moves.
  EXPECT_EQ(std::tuple(quad.value->matchedBlendshapes, quad.value->unmatchedTargets, quad.value->triangles,
                       quad.value->build.targetNameToIndex.at("jawopen"), quad.value->framing),
            std::tuple(std::vector<std::string>{"jawOpen"}, std::vector<std::string>{"Wobble"}, 2u, 0,
                       CharacterFraming::Rule::faceTargets));

  auto head = readText(document(R"("mesh": 0, "name": "J_Bip_C_Head")"));
  ASSERT_TRUE(head) << head.reason;
  EXPECT_EQ(head.value->framing, CharacterFraming::Rule::headNode);
  // Framed to the mask's height, centred where the mask's box is.
  const auto* geometry = head.value->build.node->children()[0]->geometry.get();
  const auto [lo, hi] = std::ranges::minmax(geometry->source(GeometrySource::Semantic::vertex)->toVec3() |
                                            std::views::transform([](float3 p) { return p.y; }));
  EXPECT_LE(glm::length(float2(lo, hi) - float2(CharacterFraming::maskLow.y, CharacterFraming::maskHigh.y)), 1e-5f);

  // A VRM 1.0 expression table binds the second target as jawOpen; its names
  // win over targetNames.
  auto vrm = readText(document(R"("mesh": 0)", "4", "6", R"(, "extensionsUsed": ["VRMC_vrm"],
      "extensions": {"VRMC_vrm": {"expressions": {"custom": {"JawOpen": {"morphTargetBinds": [{"node": 0, "index": 1, "weight": 0.5}]},
                                                            "happy": {"morphTargetBinds": [{"node": 0, "index": 0, "weight": 1.0}]}}}}})"));
  ASSERT_TRUE(vrm) << vrm.reason;
  EXPECT_EQ(std::tuple(vrm.value->matchedBlendshapes, vrm.value->unmatchedTargets),
            std::tuple(std::vector<std::string>{"jawOpen"}, std::vector<std::string>{"happy"}));
}

TEST(GltfCharacterReader, HostileFilesGiveTheirOneLine) {
  const std::string good = document();
  // What, the file's text, what its line says.
  const std::tuple<const char*, std::string, const char*> cases[] = {
      {"empty", "", "quad.gltf: empty file"},
      {"truncated", good.substr(0, good.size() / 2), "broken glTF"},
      {"not JSON at all", "PK\x03\x04 a zip", "broken glTF"},
      {"more positions than the view holds", document(R"("mesh": 0)", "40"), "do not fit in buffer view 0"},
      {"streams that contradict each other", document(R"("mesh": 0)", "3"), "has 4 elements but POSITION has 3"},
      {"no mesh", document(R"("name": "Empty")"), "no mesh with triangles"},
      {"too many triangles", document(R"("mesh": 0)", "4", "7000000"), "too large"},
      {"a picture that does not decode",
       document(R"("mesh": 0)", "4", "6",
                R"(, "images": [{"uri": "data:image/png;base64,iVBORw0KGgoAAAAA"}], "textures": [{"source": 0}])"),
       "image 0"},
  };
  for (const auto& [what, text, says] : cases) {
    auto result = readText(text);  // a reason only on failure
    EXPECT_NE(result.reason.find(says), std::string::npos) << what << ": " << result.reason;
    EXPECT_EQ(result.reason.find('\n'), std::string::npos) << what;
    EXPECT_EQ(result.reason.rfind("GltfCharacterReader: quad.gltf: ", 0), 0u) << result.reason;
  }
  auto missing = GltfCharacterReader::read("/nonexistent/velmora/head.glb");
  EXPECT_EQ(missing.reason, "GltfCharacterReader: /nonexistent/velmora/head.glb: no such file");
}

}  // namespace
}  // namespace velmora
