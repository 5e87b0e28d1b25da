#pragma once
// A character's node tree as a glTF 2.0 document (tinygltf's Model) and as a
// GLB file's bytes. Metres, +y up, +z towards the viewer: the scene's own
// units and axes are glTF's, so nothing is converted.
//
// - One glTF node per scene node: name, translation, rotation, scale,
//   children.
// - One glTF mesh per distinct geometry (both ghost eyes share one), one
//   primitive per element; the primitives of a mesh share the vertex streams
//   POSITION, NORMAL, TEXCOORD_0 and COLOR_0, each in the geometry's own
//   vertex order, so vertex i of the file is vertex i of the character.
// - One metallic-roughness material per element: base colour, roughness,
//   metalness, emission, double-sidedness; an unlit one also carries
//   KHR_materials_unlit, an emission above 1 KHR_materials_emissive_strength.
// - A node's morpher becomes its mesh's morph targets in morpher order: the
//   POSITION and NORMAL deltas (target - base, in float) of each, named by
//   the target's blendshape name in mesh.extras.targetNames (the convention
//   Blender and three.js read). A delta stream that is mostly zero is a
//   sparse accessor holding only its non-zero deltas; one that is all zero
//   has no data at all (glTF's zero-initialised accessor).
//
// Pure computation over immutable data: any thread.

#include <string>

#include <tiny_gltf.h>

#include "stage/Material.h"
#include "stage/Node.h"

namespace velmora {

class GltfExporter {
 public:
  // The document of the tree under `root` (its one scene holds `root`).
  static tinygltf::Model document(const Node& root);
  // The GLB container of `document`: a JSON chunk and one binary chunk.
  static std::string glb(const tinygltf::Model& document);
  // One material as glTF describes it. Extension names it uses are those in
  // its `extensions` map.
  static tinygltf::Material material(const Material& material);
};

}  // namespace velmora
