#include "render/Shaders.h"

namespace velmora::shaders {

const char* const morphVertex = R"GLSL(#version 330 core
layout(location = 0) in vec3 aPosition;
layout(location = 1) in vec3 aNormal;
// Per vertex, the targets that move it, in target order, as R32UI texels:
// first one offset per vertex and one past the last (where the vertex's
// entries start), then three texels per entry: its deltas as half floats,
// two a texel, low half first: position x y, z and normal x, normal y z.
// uTargetOf holds each entry's target index.
uniform usamplerBuffer uDeltas;
uniform usamplerBuffer uTargetOf;
uniform int uVertexCount;
uniform int uTargetCount;         // 0: no deltas bound, nothing moves
uniform float uMorphWeight[128];  // per target; 0 leaves the target out
out vec3 vPosition;
out vec3 vNormal;
// A half float (the low 16 bits) as the float of the same value, exactly:
// what a half-float texel fetch gives.
float halfValue(uint h) {
  uint exponent = (h >> 10u) & 0x1Fu;
  uint mantissa = h & 0x3FFu;
  float magnitude = exponent == 0u ? float(mantissa) * 5.9604644775390625e-8  // subnormal: m * 2^-24
                                   : uintBitsToFloat(((exponent + 112u) << 23u) | (mantissa << 13u));
  return (h & 0x8000u) != 0u ? -magnitude : magnitude;
}
vec2 halves(uint word) { return vec2(halfValue(word & 0xFFFFu), halfValue(word >> 16u)); }
void main() {
  vec3 p = aPosition;
  vec3 n = aNormal;
  int first = 0, last = 0;
  if (uTargetCount > 0) {
    first = int(texelFetch(uDeltas, gl_VertexID).r);
    last = int(texelFetch(uDeltas, gl_VertexID + 1).r);
  }
  for (int e = first; e < last; ++e) {
    float w = uMorphWeight[texelFetch(uTargetOf, e).r];
    if (w == 0.0) continue;
    int texel = uVertexCount + 1 + 3 * e;
    vec2 pxy = halves(texelFetch(uDeltas, texel).r);
    vec2 pzNx = halves(texelFetch(uDeltas, texel + 1).r);
    vec2 nyz = halves(texelFetch(uDeltas, texel + 2).r);
    p += w * vec3(pxy, pzNx.x);
    n += w * vec3(pzNx.y, nyz);
  }
  float len = length(n);
  vNormal = len > 1e-12 ? n / len : n;
  vPosition = p;
  gl_Position = vec4(p, 1.0);
}
)GLSL";

const char* const depthVertex = R"GLSL(#version 330 core
layout(location = 0) in vec3 aPosition;
uniform mat4 uModel;
uniform mat4 uViewProjection;
invariant gl_Position;
void main() {
  vec4 world = uModel * vec4(aPosition, 1.0);
  gl_Position = uViewProjection * world;
}
)GLSL";

const char* const depthFragment = R"GLSL(#version 330 core
void main() {}
)GLSL";

const char* const surfaceVertex = R"GLSL(#version 330 core
layout(location = 0) in vec3 aPosition;
layout(location = 1) in vec3 aNormal;
layout(location = 3) in vec4 aColor;
#ifdef TEXTURED
layout(location = 2) in vec2 aTexcoord;
layout(location = 4) in vec4 aTangent;
out vec2 vTexcoord;
out vec4 vWorldTangent;
#endif
uniform mat4 uModel;
uniform mat3 uNormalMatrix;
uniform mat4 uViewProjection;
out vec3 vWorldPosition;
out vec3 vWorldNormal;
out vec4 vColor;
invariant gl_Position;
void main() {
  vec4 world = uModel * vec4(aPosition, 1.0);
  vWorldPosition = world.xyz;
  vWorldNormal = uNormalMatrix * aNormal;
  vColor = aColor;
#ifdef TEXTURED
  vTexcoord = aTexcoord;
  vWorldTangent = vec4(mat3(uModel) * aTangent.xyz, aTangent.w);
#endif
  gl_Position = uViewProjection * world;
}
)GLSL";

const char* const surfaceFragment = R"GLSL(#version 330 core
in vec3 vWorldPosition;
in vec3 vWorldNormal;
in vec4 vColor;
out vec4 fragColor;
#ifdef TEXTURED
in vec2 vTexcoord;
in vec4 vWorldTangent;
// Material textures (glTF's set). uTextures has a bit per texture present:
// 1 base colour (sRGB), 2 metallic-roughness (G roughness, B metalness),
// 4 normal (tangent space), 8 occlusion (R), 16 emissive (sRGB). Each has
// its texture-coordinate transform.
uniform int uTextures;
uniform sampler2D uBaseColorMap;
uniform sampler2D uMetallicRoughnessMap;
uniform sampler2D uNormalMap;
uniform sampler2D uOcclusionMap;
uniform sampler2D uEmissiveMap;
uniform mat3 uUvTransform[5];
uniform float uNormalScale;
uniform float uOcclusionStrength;
// 0: alpha as computed (blend); 1: opaque (alpha ignored); 2: mask (below
// uAlphaCutoff discarded, the rest opaque).
uniform int uAlphaMode;
uniform float uAlphaCutoff;
vec2 uvOf(int slot) { return (uUvTransform[slot] * vec3(vTexcoord, 1.0)).xy; }
#endif

uniform vec4 uBaseColor;
uniform float uRoughness;
uniform float uMetalness;
uniform vec3 uEmission;
uniform int uUnlit;
uniform int uDoubleSided;
uniform float uOpacity;
uniform vec3 uCameraPosition;

// Key: a spot light without distance fall-off, soft-edged cone.
uniform vec3 uKeyPosition;
uniform vec3 uKeyDirection;      // unit, from the light towards its target
uniform vec3 uKeyRadiance;       // colour x intensity x exposure
uniform float uKeyCosInner;
uniform float uKeyCosOuter;
uniform int uKeyShadows;
uniform float uShadowAlpha;      // how much of the key a full shadow removes
uniform sampler2DShadow uShadowMap;
uniform mat4 uLightViewProjection;
uniform vec2 uShadowTexelSize;
uniform float uShadowRadiusTexels;
uniform float uShadowNormalOffset; // metres per texel of the shadow map at 1 m
uniform vec2 uPoisson[16];

// Fill and rim: directional. Directions point from the surface to the light.
uniform vec3 uFillDirection;
uniform vec3 uFillRadiance;
uniform vec3 uRimDirection;
uniform vec3 uRimRadiance;

// Image-based ambient.
uniform vec3 uIrradianceSH[9];
uniform sampler2D uSpecularEnvironment;
uniform float uSpecularMaxLod;
uniform float uEnvironmentIntensity;

const float PI = 3.14159265359;

float distributionGGX(float NoH, float a) {
  float a2 = a * a;
  float f = (NoH * a2 - NoH) * NoH + 1.0;
  return a2 / (PI * f * f + 1e-7);
}

// Height-correlated Smith visibility (already divided by 4 NoL NoV).
float visibilitySmith(float NoV, float NoL, float a) {
  float a2 = a * a;
  float gv = NoL * sqrt(NoV * NoV * (1.0 - a2) + a2);
  float gl = NoV * sqrt(NoL * NoL * (1.0 - a2) + a2);
  return 0.5 / (gv + gl + 1e-7);
}

vec3 fresnelSchlick(vec3 f0, float VoH) {
  float f = pow(1.0 - VoH, 5.0);
  return f0 + (vec3(1.0) - f0) * f;
}

vec3 directLight(vec3 N, vec3 V, vec3 L, vec3 radiance, vec3 diffuseColor, vec3 f0, float a) {
  float NoL = dot(N, L);
  if (NoL <= 0.0) return vec3(0.0);
  vec3 H = normalize(V + L);
  float NoV = max(dot(N, V), 1e-4);
  float NoH = clamp(dot(N, H), 0.0, 1.0);
  float VoH = clamp(dot(V, H), 0.0, 1.0);
  vec3 specular = distributionGGX(NoH, a) * visibilitySmith(NoV, NoL, a) * fresnelSchlick(f0, VoH);
  return (diffuseColor / PI + specular) * radiance * NoL;
}

vec3 irradianceAt(vec3 n) {
  vec3 e = uIrradianceSH[0] * 0.282095
         + uIrradianceSH[1] * 0.488603 * n.y
         + uIrradianceSH[2] * 0.488603 * n.z
         + uIrradianceSH[3] * 0.488603 * n.x
         + uIrradianceSH[4] * 1.092548 * n.x * n.y
         + uIrradianceSH[5] * 1.092548 * n.y * n.z
         + uIrradianceSH[6] * 0.315392 * (3.0 * n.z * n.z - 1.0)
         + uIrradianceSH[7] * 1.092548 * n.x * n.z
         + uIrradianceSH[8] * 0.546274 * (n.x * n.x - n.y * n.y);
  return max(e, vec3(0.0));
}

vec2 equirect(vec3 d) {
  return vec2(atan(d.x, -d.z) / (2.0 * PI) + 0.5, acos(clamp(d.y, -1.0, 1.0)) / PI);
}

// Analytic fit of the split-sum environment BRDF (scale, bias on f0).
vec2 environmentBRDF(float NoV, float roughness) {
  const vec4 c0 = vec4(-1.0, -0.0275, -0.572, 0.022);
  const vec4 c1 = vec4(1.0, 0.0425, 1.04, -0.04);
  vec4 r = roughness * c0 + c1;
  float a004 = min(r.x * r.x, exp2(-9.28 * NoV)) * r.x + r.y;
  return vec2(-1.04, 1.04) * a004 + r.zw;
}

float keyShadowVisibility(vec3 N, vec3 L) {
  if (uKeyShadows == 0) return 1.0;
  // Offset along the normal, more at grazing angles, to keep the surface
  // from shadowing itself; then 16 rotated Poisson taps, each a 2x2
  // hardware comparison.
  float dist = length(uKeyPosition - vWorldPosition);
  float slope = 1.0 - clamp(dot(N, L), 0.0, 1.0);
  vec3 p = vWorldPosition + N * (uShadowNormalOffset * dist * (0.5 + 1.5 * slope));
  vec4 clip = uLightViewProjection * vec4(p, 1.0);
  if (clip.w <= 0.0) return 1.0;
  vec3 c = clip.xyz / clip.w * 0.5 + 0.5;
  if (c.x < 0.0 || c.x > 1.0 || c.y < 0.0 || c.y > 1.0 || c.z > 1.0) return 1.0;
  float angle = 6.2831853 * fract(52.9829189 * fract(dot(gl_FragCoord.xy, vec2(0.06711056, 0.00583715))));
  float s = sin(angle), co = cos(angle);
  mat2 rot = mat2(co, s, -s, co);
  float lit = 0.0;
  for (int i = 0; i < 16; ++i) {
    vec2 offset = rot * uPoisson[i] * uShadowRadiusTexels * uShadowTexelSize;
    lit += textureLod(uShadowMap, vec3(c.xy + offset, c.z), 0.0);
  }
  return lit / 16.0;
}

void main() {
  vec4 base = uBaseColor * vColor;
#ifdef TEXTURED
  if ((uTextures & 1) != 0) base *= texture(uBaseColorMap, uvOf(0));
  if (uAlphaMode == 2 && base.a < uAlphaCutoff) discard;
  if (uAlphaMode != 0) base.a = 1.0;
  vec3 emission = uEmission;
  if ((uTextures & 16) != 0) emission *= texture(uEmissiveMap, uvOf(4)).rgb;
  float roughnessValue = uRoughness;
  float metalness = uMetalness;
  if ((uTextures & 2) != 0) {
    vec4 mr = texture(uMetallicRoughnessMap, uvOf(1));
    roughnessValue *= mr.g;
    metalness *= mr.b;
  }
#define EMISSION emission
#define ROUGHNESS roughnessValue
#define METALNESS metalness
#else
// The built-in materials: the factors alone.
#define EMISSION uEmission
#define ROUGHNESS uRoughness
#define METALNESS uMetalness
#endif
  float alpha = clamp(base.a * uOpacity, 0.0, 1.0);
  vec3 color;
  if (uUnlit != 0) {
    color = base.rgb + EMISSION;
  } else {
    vec3 N = normalize(vWorldNormal);
    if (uDoubleSided != 0 && !gl_FrontFacing) N = -N;
#ifdef TEXTURED
    if ((uTextures & 4) != 0) {
      vec3 T = vWorldTangent.xyz - N * dot(N, vWorldTangent.xyz);
      if (dot(T, T) > 1e-12) {
        T = normalize(T);
        vec3 B = cross(N, T) * (vWorldTangent.w < 0.0 ? -1.0 : 1.0);
        vec3 t = texture(uNormalMap, uvOf(2)).xyz * 2.0 - 1.0;
        t.xy *= uNormalScale;
        N = normalize(mat3(T, B, N) * t);
      }
    }
#endif
    vec3 V = normalize(uCameraPosition - vWorldPosition);
    float roughness = clamp(ROUGHNESS, 0.045, 1.0);
    float a = roughness * roughness;
    vec3 diffuseColor = base.rgb * (1.0 - METALNESS);
    vec3 f0 = mix(vec3(0.04), base.rgb, METALNESS);

    vec3 toKey = uKeyPosition - vWorldPosition;
    vec3 Lk = normalize(toKey);
    float cone = smoothstep(uKeyCosOuter, uKeyCosInner, dot(-Lk, uKeyDirection));
    vec3 key = vec3(0.0);
    if (cone > 0.0) {
      float visible = keyShadowVisibility(N, Lk);
      float shadowFactor = 1.0 - uShadowAlpha * (1.0 - visible);
      key = directLight(N, V, Lk, uKeyRadiance * cone * shadowFactor, diffuseColor, f0, a);
    }
    vec3 fill = directLight(N, V, uFillDirection, uFillRadiance, diffuseColor, f0, a);
    vec3 rim = directLight(N, V, uRimDirection, uRimRadiance, diffuseColor, f0, a);

    float NoV = max(dot(N, V), 1e-4);
    vec3 R = reflect(-V, N);
    vec3 prefiltered = textureLod(uSpecularEnvironment, equirect(R), roughness * uSpecularMaxLod).rgb;
    vec2 ab = environmentBRDF(NoV, roughness);
    vec3 ambient = (diffuseColor / PI * irradianceAt(N) + prefiltered * (f0 * ab.x + ab.y)) * uEnvironmentIntensity;
#ifdef TEXTURED
    if ((uTextures & 8) != 0) ambient *= mix(1.0, texture(uOcclusionMap, uvOf(3)).r, uOcclusionStrength);
#endif

    color = key + fill + rim + ambient + EMISSION;
  }
  fragColor = vec4(color * alpha, alpha);
}
)GLSL";

const char* const outputVertex = R"GLSL(#version 330 core
void main() {
  // One triangle covering the viewport.
  vec2 p = vec2((gl_VertexID << 1) & 2, gl_VertexID & 2);
  gl_Position = vec4(p * 2.0 - 1.0, 0.0, 1.0);
}
)GLSL";

const char* const outputFragment = R"GLSL(#version 330 core
#ifdef MULTISAMPLED
uniform sampler2DMS uImage;  // linear, premultiplied, uSamples samples per pixel
uniform int uSamples;
#else
uniform sampler2D uImage;  // linear, premultiplied, one texel per pixel
#endif
out vec4 fragColor;

#ifdef MULTISAMPLED
// Half precision, rounded toward zero: 11 significant bits, or multiples of
// 2^-24 below 2^-14 (half's subnormals). Software GL stores a resolved
// half-float image this way; doing the same here keeps frames bit for bit
// what resolving into such an image gave, without that frame-sized image.
vec4 toHalf(vec4 v) {
  vec4 normal = uintBitsToFloat(floatBitsToUint(v) & ~0x1FFFu);
  vec4 subnormal = trunc(v * 16777216.0) / 16777216.0;
  return mix(normal, subnormal, lessThan(abs(v), vec4(0.00006103515625)));
}
#endif

// The pixel's colour; multisampled: the samples summed in sample order and
// scaled by 1 / samples (a resolve's average).
vec4 pixel(ivec2 p) {
#ifdef MULTISAMPLED
  vec4 sum = vec4(0.0);
  for (int i = 0; i < uSamples; ++i) sum += texelFetch(uImage, p, i);
  return toHalf(sum * (1.0 / float(uSamples)));
#else
  return texelFetch(uImage, p, 0);
#endif
}

// Linear up to 0.8, then a soft shoulder that reaches 1 only at infinity,
// so highlights roll off instead of clipping.
vec3 shoulder(vec3 x) {
  const float k = 0.8;
  vec3 over = max(x - vec3(k), vec3(0.0));
  return min(x, vec3(k)) + (1.0 - k) * (vec3(1.0) - exp(-over / (1.0 - k)));
}

vec3 encodeSRGB(vec3 c) {
  c = clamp(c, 0.0, 1.0);
  return mix(c * 12.92, 1.055 * pow(c, vec3(1.0 / 2.4)) - 0.055, step(vec3(0.0031308), c));
}

void main() {
#ifdef MULTISAMPLED
  ivec2 size = textureSize(uImage);
#else
  ivec2 size = textureSize(uImage, 0);
#endif
  ivec2 p = ivec2(gl_FragCoord.xy);
  vec4 v = pixel(ivec2(p.x, size.y - 1 - p.y));
  float a = clamp(v.a, 0.0, 1.0);
  if (a < 0.5 / 255.0) {
    fragColor = vec4(0.0);
    return;
  }
  vec3 straight = max(v.rgb, vec3(0.0)) / a;
  fragColor = vec4(encodeSRGB(shoulder(straight)), a);
}
)GLSL";

std::string variant(const char* source, const char* define) {
  std::string text(source);
  const auto line = text.find('\n');  // after "#version 330 core"
  text.insert(line + 1, std::string("#define ") + define + "\n");
  return text;
}

}  // namespace velmora::shaders
