#pragma once
// GLSL 330 sources of the renderer's programs. Vertex attribute locations
// are fixed for every program: 0 position, 1 normal, 2 texture coordinate,
// 3 colour, 4 tangent.

#include <string>

namespace velmora::shaders {

inline constexpr int maxMorphTargets = 128;  // per mesh; the morph program's weight array size
inline constexpr int shadowSamples = 16;

// Transform feedback: neutral + sum w * delta for positions and normals,
// normals renormalised. Outputs vPosition, vNormal (interleaved).
extern const char* const morphVertex;
// Depth only (shadow map and the opacity depth pre-pass).
extern const char* const depthVertex;
extern const char* const depthFragment;
// The lit (and unlit) surface pass; premultiplied linear output. Compiled
// twice: as it stands for the built-in materials (factors only), and with
// TEXTURED defined (variant()) for materials read from files (textures,
// tangents, alpha modes); the first is the second with that code left out.
extern const char* const surfaceVertex;
extern const char* const surfaceFragment;
// Full-screen pass: linear premultiplied to sRGB straight alpha, flipped so
// that rows read back top first. With MULTISAMPLED defined (variant()) it
// reads a multisampled image and averages each pixel's samples itself.
extern const char* const outputVertex;
extern const char* const outputFragment;

// `source` with "#define NAME" after its #version line.
std::string variant(const char* source, const char* define);

}  // namespace velmora::shaders
