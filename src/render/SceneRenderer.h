#pragma once
// Renders frame descriptions with OpenGL 3.3 core into an offscreen
// framebuffer and reads the result back (see RenderedFrame.h for the pixel
// convention).
//
// Per frame: morph targets are blended on the GPU by transform feedback
// (once per mesh, reused by every pass); the key spot light's 2048 x 2048
// shadow map is drawn; the colour pass lights every surface with
// metallic-roughness PBR (GGX, height-correlated Smith, Schlick), the key
// spot (soft cone, 16-tap PCF shadow whose darkness is the rig's shadow
// alpha), the directional fill and rim, and image-based ambient (SH
// irradiance, prefiltered glossy map). Faded nodes draw a depth pre-pass
// first so only their front surface blends over what is behind. A final
// pass un-premultiplies, rolls off highlights, encodes sRGB and flips rows.
//
// Light units: intensity x exposureConstant = radiance (linear, 0..1 is
// the displayable range before the highlight roll-off).
//
// Threads: one thread, with the GL context current for create() and every
// call after it, including destruction.

#include <memory>
#include <string>

#include "base/CreateResult.h"
#include "scene/FrameDescription.h"
#include "scene/RenderedFrame.h"
#include "stage/Morpher.h"

namespace velmora {

class SceneRenderer {
 public:
  // Maps the rig's light intensities to radiance; the same for every preset.
  static constexpr float exposureConstant = 1.0f / 110.0f;

  static CreateResult<SceneRenderer> create();
  ~SceneRenderer();
  SceneRenderer(const SceneRenderer&) = delete;
  SceneRenderer& operator=(const SceneRenderer&) = delete;

  // Renders and reads back. Null (with one log line) when the frame cannot
  // be rendered, e.g. a size the GL implementation cannot allocate.
  std::shared_ptr<RenderedFrame> render(const FrameDescription& frame);

  // The GPU morph of one draw item, read back: what every pass of render()
  // draws for it. Positions and normals in the base mesh's vertex order.
  BlendedMesh morphOnGpu(const FrameDrawItem& item);

  // Uploads performed by the mesh cache since creation.
  std::size_t meshUploadCount() const;
  // GPU bytes of the material textures now uploaded.
  std::size_t textureBytes() const;

 private:
  struct Impl;
  explicit SceneRenderer(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace velmora
