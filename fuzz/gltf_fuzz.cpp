// libFuzzer target: character files through GltfCharacterReader (tinygltf
// underneath, then our own accessor, index, size and image checks). Whatever
// the bytes, the reader returns a character or one line naming the file,
// never both and never a crash; a character it returns has triangles whose
// indices stay inside their vertex arrays and a target map inside its morpher.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "characters/GltfCharacterReader.h"

namespace {

void checkNode(const velmora::Node& node) {
  if (node.geometry) {
    const std::size_t vertices = node.geometry->vertexCount();
    for (const auto& element : node.geometry->elements)
      for (std::int32_t i : *element.indices)
        if (i < 0 || static_cast<std::size_t>(i) >= vertices) std::abort();
  }
  for (const auto& child : node.children()) checkNode(*child);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // No base folder: a URI naming a side-by-side file finds nothing.
  const auto result = velmora::GltfCharacterReader::readMemory(data, size, "/nonexistent", "fuzz.glb");
  if (!result) {
    if (result.reason.find('\n') != std::string::npos || result.reason.rfind("GltfCharacterReader: fuzz.glb: ", 0) != 0)
      std::abort();
    return 0;
  }
  if (!result.reason.empty() || !result.value->build.node || result.value->triangles == 0) std::abort();
  checkNode(*result.value->build.node);
  const std::size_t targets = result.value->build.morpher ? result.value->build.morpher->targetCount() : 0;
  for (const auto& [name, index] : result.value->build.targetNameToIndex)
    if (index < 0 || static_cast<std::size_t>(index) >= targets) std::abort();
  return 0;
}
