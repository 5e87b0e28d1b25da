#pragma once
// Reads a character from a glTF 2.0 file (.glb, or .gltf with embedded or
// side-by-side buffers and images) into the character builder's contract.
//
// - Every mesh node of the default scene, its node transforms baked into the
//   vertices (skins and animations are ignored: the head moves as one node).
// - Every triangle primitive (lists, strips and fans; indexed or not):
//   POSITION, NORMAL (smooth normals computed when absent), TEXCOORD_0,
//   COLOR_0, TANGENT (computed when a normal map needs one), and morph
//   targets (POSITION and NORMAL deltas, sparse accessors included).
// - Target names from mesh.extras.targetNames, or, in VRM 0.x/1.0 files,
//   from the blend-shape groups / expressions that bind targets; a name maps
//   to a blendshape by blendShapeFromSpelling ("jawOpen", "JawOpen",
//   "jaw_open", "eyeBlink_L"). Other names are listed, never fatal.
// - Metallic-roughness materials with their textures (PNG and JPEG),
//   KHR_texture_transform, KHR_materials_unlit and
//   KHR_materials_emissive_strength.
// - Framed by CharacterFraming: the head node's region, else the box of the
//   vertices the face targets move, else the whole box; a file written by
//   Velmora's own export is already in stage units and stays as it is.
//
// Hostile input is a failure with one line ("GltfCharacterReader: FILE:
// reason"), never a crash: a missing file, broken or truncated JSON or GLB,
// accessors outside their buffers or contradicting each other, no triangle
// mesh, an image that does not decode, more than maxTriangles triangles or
// more than maxBytes of data.
//
// Pure computation over its own data: any thread (the application reads on
// a worker, never on the main thread).

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/CreateResult.h"
#include "characters/FileCharacter.h"

namespace velmora {

class GltfCharacterReader {
 public:
  static constexpr std::size_t maxTriangles = 2'000'000;
  static constexpr std::uint64_t maxBytes = 512ull * 1024 * 1024;

  static CreateResult<FileCharacter> read(const std::string& path);

  // The same over bytes in memory (a GLB, or glTF JSON); relative URIs are
  // looked for in baseDirectory. `name` stands for the file in messages.
  static CreateResult<FileCharacter> readMemory(const std::uint8_t* data, std::size_t size,
                                                const std::string& baseDirectory, const std::string& name);
};

}  // namespace velmora
