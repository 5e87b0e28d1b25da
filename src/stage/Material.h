#pragma once
// A physically based surface description. Colours are linear RGB.
//
// The built-in characters use the factors alone; characters read from files
// may add textures (glTF's metallic-roughness set). A texture's sampled value
// multiplies its factor, as glTF defines.

#include <memory>
#include <string>

#include "base/Math.h"
#include "stage/TextureImage.h"

namespace velmora {

// One texture of a material and how it is sampled.
struct MaterialTexture {
  std::shared_ptr<const TextureImage> image;  // none: the slot is unused
  // uv' = offset + rotate(rotation) * (scale * uv), radians (KHR_texture_transform).
  float2 offset{0.0f, 0.0f};
  float2 scale{1.0f, 1.0f};
  float rotation = 0.0f;
  bool clampS = false, clampT = false;  // else repeat
  bool nearest = false;                 // magnification without filtering

  explicit operator bool() const { return image != nullptr; }
};

struct Material {
  // automatic: translucent when diffuse.a < 1, else opaque (the built-ins).
  // The others are glTF's alpha modes: opaque ignores alpha, mask keeps a
  // fragment when its alpha reaches alphaCutoff and draws it opaque, blend
  // always draws with the translucent surfaces.
  enum class AlphaMode { automatic, opaque, mask, blend };

  std::string name;
  float4 diffuse{1.0f, 1.0f, 1.0f, 1.0f};  // base colour, alpha = coverage
  float roughness = 0.5f;                   // 0..1
  float metalness = 0.0f;                   // 0..1
  float3 emission{0.0f, 0.0f, 0.0f};        // added radiance, not lit
  bool doubleSided = false;
  bool constantLighting = false;            // unlit: diffuse (x vertex colour) + emission only
  AlphaMode alphaMode = AlphaMode::automatic;
  float alphaCutoff = 0.5f;

  MaterialTexture baseColorTexture;          // sRGB colour, alpha = coverage
  MaterialTexture metallicRoughnessTexture;  // linear: G roughness, B metalness
  MaterialTexture normalTexture;             // linear tangent-space normal
  float normalScale = 1.0f;
  MaterialTexture occlusionTexture;          // linear: R ambient occlusion
  float occlusionStrength = 1.0f;
  MaterialTexture emissiveTexture;           // sRGB colour

  bool translucent() const {
    return alphaMode == AlphaMode::blend || (alphaMode == AlphaMode::automatic && diffuse.a < 1.0f);
  }
};

}  // namespace velmora
