#include "render/SceneRenderer.h"

// Index of this file:
//   [SECTION] Constants and draw items
//   [SECTION] Render targets
//   [SECTION] Environment
//   [SECTION] Morphing
//   [SECTION] Passes
//   [SECTION] API

#include <epoxy/gl.h>
#include <malloc.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <span>
#include <glm/gtc/matrix_inverse.hpp>
#include <glm/gtc/matrix_transform.hpp>

#include "base/Log.h"
#include "render/EnvironmentLighting.h"
#include "render/MeshCache.h"
#include "render/TextureCache.h"
#include "render/RenderedFramePool.h"
#include "render/ShaderProgram.h"
#include "render/Shaders.h"

namespace velmora {

// ---------------------------------------------------------------------------
// [SECTION] Constants and draw items
// ---------------------------------------------------------------------------

namespace {

// A well-spread set of 16 points in the unit disc for the shadow filter.
const float2 kPoisson[shaders::shadowSamples] = {
    {-0.94201624f, -0.39906216f}, {0.94558609f, -0.76890725f}, {-0.09418410f, -0.92938870f}, {0.34495938f, 0.29387760f},
    {-0.91588581f, 0.45771432f},  {-0.81544232f, -0.87912464f}, {-0.38277543f, 0.27676845f}, {0.97484398f, 0.75648379f},
    {0.44323325f, -0.97511554f},  {0.53742981f, -0.47373420f},  {-0.26496911f, -0.41893023f}, {0.79197514f, 0.19090188f},
    {-0.24188840f, 0.99706507f},  {-0.81409955f, 0.91437590f},  {0.19984126f, 0.78641367f},  {0.14383161f, -0.14100790f}};

// Texture units, fixed for the whole renderer.
constexpr int kUnitImage = 0;
constexpr int kUnitShadow = 1;
constexpr int kUnitSpecular = 2;
constexpr int kUnitDeltas = 3;
constexpr int kUnitMaterial = 4;  // 4..8: the material's five textures, in uTextures' bit order
constexpr int kUnitTargetOf = 9;

constexpr int kMorphStride = 6 * sizeof(float);  // interleaved position, normal

std::string hex(unsigned v) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%04x", v);
  return buf;
}

const Material& defaultMaterial() {
  static const Material m;
  return m;
}

const Material& materialFor(const Geometry& g, std::size_t element) {
  if (g.materials.empty()) return defaultMaterial();
  return g.materials[std::min(element, g.materials.size() - 1)];
}

// The scene is drawn into an RGBA16F colour texture (multisampled when
// samples > 1) with a depth renderbuffer of the same samples; the output
// pass reads that texture (averaging the samples itself, so no resolved copy
// is kept) and writes the RGBA8 texture the frame is read back from.
struct Targets {
  int width = 0, height = 0, samples = 0;
  GLuint sceneFbo = 0, sceneColor = 0, sceneDepth = 0;
  int refusedSamples = 0;  // the sample count asked for when the driver refused it (samples is then 1)
  GLuint outputFbo = 0, outputColor = 0;
};

// One draw item, ready to draw.
struct Prepared {
  const FrameDrawItem* item = nullptr;
  const MeshCache::Mesh* mesh = nullptr;
  GLuint morphed = 0;
  std::vector<std::pair<const MeshCache::Part*, const Material*>> parts;
  bool mirrored = false;  // negative determinant: front faces wind clockwise
  float viewDepth = 0.0f;
};

}  // namespace

// Render targets are kept for this many frame sizes at once: the outputs'
// and a live view's of another size (the projector on a monitor that is not
// 1920 x 1080), so alternating frames never rebuild them. A 1080p set with
// four samples holds about 107 MB of colour and depth on software GL.
constexpr std::size_t kTargetSizes = 2;

struct SceneRenderer::Impl {
  // texturedSurface: null until a frame shows a textured material; output
  // (for a single-sampled scene) and outputMultisampled: null until needed.
  std::unique_ptr<ShaderProgram> morph, depth, surface, texturedSurface, output, outputMultisampled;
  MeshCache cache;
  TextureCache textures;
  // Read-back memory, reused once the outputs let go. Four frames: the one
  // being read back, NDI's one in flight, the one waiting for PipeWire's loop
  // thread to copy it, and the one waiting for the projector to show it.
  RenderedFramePool frames{4};
  GLuint shadowFbo = 0, shadowDepth = 0;
  std::vector<Targets> targetSets;  // most recently used first, at most kTargetSizes
  std::vector<Prepared> items;      // this frame's draw items (the first preparedCount), reused
  std::size_t preparedCount = 0;
  std::vector<const Prepared*> translucent;
  std::vector<float> morphWeights;
  GLuint emptyVertexArray = 0;
  GLuint specularTexture = 0, blackTexture = 0;
  std::weak_ptr<const EnvironmentImage> environmentKey;
  bool hasEnvironment = false;
  EnvironmentLighting environment;
  std::vector<GLuint> morphBuffers;
  std::vector<std::size_t> morphBufferBytes;
  int maxSamples = 1;
  int maxSize = 0;
  bool reportedGlError = false;
  bool texturedFailed = false;  // the textured program did not compile (reported once)
  std::size_t uploadsAtTrim = 0;  // the cache's upload count after the last frame
  bool trimNextFrame = false;

  ~Impl() {
    for (Targets& t : targetSets) releaseTargets(t);
    glDeleteFramebuffers(1, &shadowFbo);
    glDeleteTextures(1, &shadowDepth);
    glDeleteVertexArrays(1, &emptyVertexArray);
    glDeleteTextures(1, &specularTexture);
    glDeleteTextures(1, &blackTexture);
    if (!morphBuffers.empty()) glDeleteBuffers(static_cast<GLsizei>(morphBuffers.size()), morphBuffers.data());
  }

  // -------------------------------------------------------------------------
  // [SECTION] Render targets
  // -------------------------------------------------------------------------

  static void releaseTargets(Targets& t) {
    glDeleteFramebuffers(1, &t.sceneFbo);
    glDeleteTextures(1, &t.sceneColor);
    glDeleteRenderbuffers(1, &t.sceneDepth);
    glDeleteFramebuffers(1, &t.outputFbo);
    glDeleteTextures(1, &t.outputColor);
    t = Targets{};
  }

  // A w x h colour texture (nearest filtering) and a framebuffer with it as
  // colour attachment 0; the framebuffer stays bound.
  static void makeTextureTarget(int w, int h, GLenum internalFormat, GLenum type, GLuint& texture, GLuint& fbo) {
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_2D, texture);
    glTexImage2D(GL_TEXTURE_2D, 0, static_cast<GLint>(internalFormat), w, h, 0, GL_RGBA, type, nullptr);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    glGenFramebuffers(1, &fbo);
    glBindFramebuffer(GL_FRAMEBUFFER, fbo);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture, 0);
  }

  static bool buildTargets(Targets& t, int w, int h, int samples, std::string& why) {
    releaseTargets(t);
    t.width = w;
    t.height = h;
    t.samples = samples;

    if (samples > 1) {
      // Fixed sample locations: required when a texture and a renderbuffer
      // are attached together.
      glGenTextures(1, &t.sceneColor);
      glBindTexture(GL_TEXTURE_2D_MULTISAMPLE, t.sceneColor);
      glTexImage2DMultisample(GL_TEXTURE_2D_MULTISAMPLE, samples, GL_RGBA16F, w, h, GL_TRUE);
      glGenFramebuffers(1, &t.sceneFbo);
      glBindFramebuffer(GL_FRAMEBUFFER, t.sceneFbo);
      glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D_MULTISAMPLE, t.sceneColor, 0);
    } else {
      makeTextureTarget(w, h, GL_RGBA16F, GL_FLOAT, t.sceneColor, t.sceneFbo);
    }
    glGenRenderbuffers(1, &t.sceneDepth);
    glBindRenderbuffer(GL_RENDERBUFFER, t.sceneDepth);
    glRenderbufferStorageMultisample(GL_RENDERBUFFER, samples > 1 ? samples : 0, GL_DEPTH_COMPONENT24, w, h);
    glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_DEPTH_ATTACHMENT, GL_RENDERBUFFER, t.sceneDepth);
    GLenum status = glCheckFramebufferStatus(GL_FRAMEBUFFER);
    if (status != GL_FRAMEBUFFER_COMPLETE) {
      why = samples > 1 ? std::to_string(samples) + "x multisampled target incomplete (" + hex(status) + ")"
                        : "colour target " + std::to_string(w) + "x" + std::to_string(h) + " incomplete (" +
                              hex(status) + ")";
      glBindFramebuffer(GL_FRAMEBUFFER, 0);
      return false;
    }

    makeTextureTarget(w, h, GL_RGBA8, GL_UNSIGNED_BYTE, t.outputColor, t.outputFbo);
    status = glCheckFramebufferStatus(GL_FRAMEBUFFER);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    if (status != GL_FRAMEBUFFER_COMPLETE) {
      why = "output target incomplete (" + hex(status) + ")";
      return false;
    }
    return true;
  }

  // The targets for this size, made current as targetSets.front(); null
  // (with the reason) when they cannot be made.
  const Targets* ensureTargets(int w, int h, int requestedSamples, std::string& why) {
    if (w <= 0 || h <= 0 || w > maxSize || h > maxSize) {
      why = "frame size " + std::to_string(w) + "x" + std::to_string(h) + " outside 1.." + std::to_string(maxSize);
      return nullptr;
    }
    const int samples = std::clamp(requestedSamples, 1, std::max(1, maxSamples));
    auto found = std::find_if(targetSets.begin(), targetSets.end(), [&](const Targets& t) {
      // A set built single-sampled after a refusal serves the same request again.
      return t.width == w && t.height == h && (t.samples == samples || t.refusedSamples == samples);
    });
    if (found != targetSets.end()) {
      std::rotate(targetSets.begin(), found, found + 1);
      return &targetSets.front();
    }
    Targets t;
    bool built = buildTargets(t, w, h, samples, why);
    // Some drivers refuse multisampled float targets; a single-sampled frame
    // is better than none.
    if (!built && samples > 1 && buildTargets(t, w, h, 1, why)) {
      built = true;
      t.refusedSamples = samples;
    }
    if (!built) {
      releaseTargets(t);
      return nullptr;
    }
    if (targetSets.size() >= kTargetSizes) {
      releaseTargets(targetSets.back());
      targetSets.pop_back();
    }
    targetSets.insert(targetSets.begin(), t);
    return &targetSets.front();
  }

  // -------------------------------------------------------------------------
  // [SECTION] Environment
  // -------------------------------------------------------------------------

  void ensureEnvironment(const std::shared_ptr<const EnvironmentImage>& image) {
    if (!image) {
      hasEnvironment = false;
      environmentKey.reset();
      return;
    }
    if (hasEnvironment && environmentKey.lock() == image) return;
    environment = EnvironmentLighting::compute(*image);
    environmentKey = image;
    hasEnvironment = !environment.specular.empty();
    if (!hasEnvironment) return;
    if (!specularTexture) glGenTextures(1, &specularTexture);
    glBindTexture(GL_TEXTURE_2D, specularTexture);
    const int levels = static_cast<int>(environment.specular.size());
    for (int level = 0; level < levels; ++level) {
      const auto& img = environment.specular[static_cast<std::size_t>(level)];
      glTexImage2D(GL_TEXTURE_2D, level, GL_RGB16F, img.width, img.height, 0, GL_RGB, GL_FLOAT, img.texels.data());
    }
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_BASE_LEVEL, 0);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAX_LEVEL, levels - 1);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR_MIPMAP_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_REPEAT);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    // Nothing reads the prefiltered images again (a new environment is
    // computed afresh); the irradiance coefficients stay, set every frame.
    std::vector<EnvironmentImage>().swap(environment.specular);
  }

  // -------------------------------------------------------------------------
  // [SECTION] Morphing
  // -------------------------------------------------------------------------

  // Binds the mesh's vertex array with positions and normals from the base
  // buffers, or from a morphed buffer (interleaved position, normal).
  void bindGeometry(const MeshCache::Mesh& mesh, GLuint morphed) {
    glBindVertexArray(mesh.vertexArray);
    if (morphed) {
      glBindBuffer(GL_ARRAY_BUFFER, morphed);
      glEnableVertexAttribArray(0);
      glVertexAttribPointer(0, 3, GL_FLOAT, GL_FALSE, kMorphStride, nullptr);
      glEnableVertexAttribArray(1);
      glVertexAttribPointer(1, 3, GL_FLOAT, GL_FALSE, kMorphStride, reinterpret_cast<const void*>(3 * sizeof(float)));
    } else {
      glBindBuffer(GL_ARRAY_BUFFER, mesh.positionBuffer);
      glEnableVertexAttribArray(0);
      glVertexAttribPointer(0, 3, GL_FLOAT, GL_FALSE, mesh.positionStride, nullptr);
      if (mesh.normalBuffer) {
        glBindBuffer(GL_ARRAY_BUFFER, mesh.normalBuffer);
        glEnableVertexAttribArray(1);
        glVertexAttribPointer(1, 3, GL_FLOAT, GL_FALSE, mesh.normalStride, nullptr);
      } else {
        glDisableVertexAttribArray(1);
      }
    }
    glBindBuffer(GL_ARRAY_BUFFER, 0);
  }

  // Blends the item's active targets into morph buffer `slot`; returns it.
  GLuint runMorph(std::size_t slot, const MeshCache::Mesh& mesh, const MeshCache::MorphDeltas* deltas,
                  const FrameDrawItem& item) {
    if (morphBuffers.size() <= slot) {
      const std::size_t old = morphBuffers.size();
      morphBuffers.resize(slot + 1, 0);
      morphBufferBytes.resize(slot + 1, 0);
      glGenBuffers(static_cast<GLsizei>(slot + 1 - old), morphBuffers.data() + old);
    }
    const GLuint buffer = morphBuffers[slot];
    const std::size_t bytes = static_cast<std::size_t>(mesh.vertexCount) * kMorphStride;
    glBindBuffer(GL_TRANSFORM_FEEDBACK_BUFFER, buffer);
    if (morphBufferBytes[slot] != bytes) {
      glBufferData(GL_TRANSFORM_FEEDBACK_BUFFER, static_cast<GLsizeiptr>(bytes), nullptr, GL_DYNAMIC_COPY);
      morphBufferBytes[slot] = bytes;
    }

    // One weight per target the deltas hold (valid and non-zero, else 0:
    // the program then skips the target).
    std::vector<float>& weights = morphWeights;
    weights.assign(static_cast<std::size_t>(deltas ? deltas->targetCount : 0), 0.0f);
    for (std::size_t i = 0; i < item.morphIndices.size() && i < item.morphWeights.size(); ++i) {
      const int index = item.morphIndices[i];
      const float w = item.morphWeights[i];
      if (index >= 0 && static_cast<std::size_t>(index) < weights.size() && std::isfinite(w))
        weights[static_cast<std::size_t>(index)] = w;
    }

    morph->use();
    morph->set("uVertexCount", mesh.vertexCount);
    morph->set("uTargetCount", static_cast<int>(weights.size()));
    if (!weights.empty()) morph->setArray("uMorphWeight", weights.data(), static_cast<int>(weights.size()));
    glActiveTexture(GL_TEXTURE0 + kUnitDeltas);
    glBindTexture(GL_TEXTURE_BUFFER, deltas ? deltas->texture : 0);
    glActiveTexture(GL_TEXTURE0 + kUnitTargetOf);
    glBindTexture(GL_TEXTURE_BUFFER, deltas ? deltas->targetTexture : 0);
    bindGeometry(mesh, 0);
    // Drawing needs a complete framebuffer even with rasterisation off, and
    // a surfaceless context has no default one.
    glBindFramebuffer(GL_FRAMEBUFFER, shadowFbo);
    glBindBufferBase(GL_TRANSFORM_FEEDBACK_BUFFER, 0, buffer);
    glEnable(GL_RASTERIZER_DISCARD);
    glBeginTransformFeedback(GL_POINTS);
    glDrawArrays(GL_POINTS, 0, mesh.vertexCount);
    glEndTransformFeedback();
    glDisable(GL_RASTERIZER_DISCARD);
    glBindBufferBase(GL_TRANSFORM_FEEDBACK_BUFFER, 0, 0);
    glBindTexture(GL_TEXTURE_BUFFER, 0);
    glActiveTexture(GL_TEXTURE0);
    return buffer;
  }

  // -------------------------------------------------------------------------
  // [SECTION] Passes
  // -------------------------------------------------------------------------

  // Fills `items` (reused: its parts lists keep their memory from frame to frame).
  void prepare(const FrameDescription& frame, const float4x4& view) {
    std::size_t used = 0;
    std::size_t slot = 0;
    for (const auto& item : frame.items) {
      if (!item.geometry || !(item.opacity > 0.0f)) continue;
      if (items.size() == used) items.emplace_back();
      Prepared& p = items[used];
      p.parts.clear();
      p.morphed = 0;
      p.item = &item;
      p.mesh = cache.mesh(*item.geometry);
      if (!p.mesh) continue;
      for (std::size_t e = 0; e < item.geometry->elements.size(); ++e)
        if (const auto* part = cache.part(item.geometry->elements[e])) {
          const Material& material = materialFor(*item.geometry, e);
          p.parts.emplace_back(part, &material);
          if (usesTexturedProgram(material)) ensureTexturedProgram();
        }
      if (p.parts.empty()) continue;
      bool anyWeight = false;
      for (float w : item.morphWeights) anyWeight = anyWeight || w != 0.0f;
      if (anyWeight && (item.morphTargets || item.morphSource)) {
        if (const auto* deltas = cache.deltas(*item.geometry, item.morphTargets, item.morphSource))
          p.morphed = runMorph(slot++, *p.mesh, deltas, item);
      }
      p.mirrored = glm::determinant(glm::mat3(item.worldTransform)) < 0.0f;
      p.viewDepth = (view * item.worldTransform * float4(0, 0, 0, 1)).z;
      ++used;
    }
    // Entries past `used` keep their parts' memory for a later frame.
    preparedCount = used;
  }

  // setMaterial: the surface program's per-draw uniforms. cull: back faces
  // of single-sided materials are skipped.
  void drawParts(const Prepared& p, ShaderProgram& program, bool setMaterial, bool cull,
                 bool (*select)(const Material&)) {
    bindGeometry(*p.mesh, p.morphed);
    auto setItem = [&](ShaderProgram& target) {
      target.set("uModel", p.item->worldTransform);
      if (setMaterial) {
        target.setMatrix3("uNormalMatrix", glm::inverseTranspose(float4x4(glm::mat3(p.item->worldTransform))));
        target.set("uOpacity", p.item->opacity);
      }
    };
    setItem(program);
    ShaderProgram* current = &program;
    glFrontFace(p.mirrored ? GL_CW : GL_CCW);
    for (const auto& [part, material] : p.parts) {
      if (select && !select(*material)) continue;
      if (!setMaterial && part->mode != GL_TRIANGLES) continue;  // depth passes: surfaces only
      if (setMaterial) {
        // Materials read from files take the textured variant; the
        // built-in ones the plain program as it always was.
        ShaderProgram& wanted = usesTexturedProgram(*material) && texturedSurface ? *texturedSurface : program;
        if (&wanted != current) {
          wanted.use();
          setItem(wanted);
          current = &wanted;
        }
        current->set("uBaseColor", material->diffuse);
        current->set("uRoughness", material->roughness);
        current->set("uMetalness", material->metalness);
        current->set("uEmission", material->emission);
        current->set("uUnlit", material->constantLighting ? 1 : 0);
        current->set("uDoubleSided", material->doubleSided ? 1 : 0);
        if (current == texturedSurface.get()) setTextures(*current, *material);
      }
      if (cull && !material->doubleSided) glEnable(GL_CULL_FACE);
      else glDisable(GL_CULL_FACE);
      glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, part->indexBuffer);
      glDrawElements(part->mode, part->count, GL_UNSIGNED_INT, nullptr);
    }
    glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, 0);
    if (current != &program) program.use();
  }

  // The output program for a single- or multisampled scene, compiled when
  // first needed (a renderer mostly makes one kind). Null, with the reason,
  // when it does not compile.
  ShaderProgram* outputProgram(bool multisampled, std::string& why) {
    std::unique_ptr<ShaderProgram>& program = multisampled ? outputMultisampled : output;
    if (program) return program.get();
    auto made = multisampled ? ShaderProgram::create({"multisampled output", shaders::outputVertex,
                                                      shaders::variant(shaders::outputFragment, "MULTISAMPLED"), {}})
                             : ShaderProgram::create({"output", shaders::outputVertex, shaders::outputFragment, {}});
    if (!made) {
      why = made.reason;
      return nullptr;
    }
    program = std::move(made.value);
    program->use();
    program->set("uImage", kUnitImage);
    return program.get();
  }

  // The textured program is compiled when a frame first shows such a
  // material: the built-in characters never do, and software GL spends a
  // few megabytes on each program. Should it fail to compile, those
  // materials are drawn with the plain program (their factors, no pictures).
  void ensureTexturedProgram() {
    if (texturedSurface || texturedFailed) return;
    auto made = ShaderProgram::create({"textured surface", shaders::variant(shaders::surfaceVertex, "TEXTURED"),
                                       shaders::variant(shaders::surfaceFragment, "TEXTURED"), {}});
    if (!made) {
      texturedFailed = true;
      logLine("Renderer", "SceneRenderer: textured materials are drawn without their pictures: " + made.reason);
      return;
    }
    texturedSurface = std::move(made.value);
    texturedSurface->use();
    setSurfaceUnits(*texturedSurface);
    const char* const maps[5] = {"uBaseColorMap", "uMetallicRoughnessMap", "uNormalMap", "uOcclusionMap",
                                 "uEmissiveMap"};
    for (int i = 0; i < 5; ++i) texturedSurface->set(maps[i], kUnitMaterial + i);
  }

  static void setSurfaceUnits(ShaderProgram& program) {
    program.set("uShadowMap", kUnitShadow);
    program.set("uSpecularEnvironment", kUnitSpecular);
    program.setArray("uPoisson", kPoisson, shaders::shadowSamples);
  }

  static bool usesTexturedProgram(const Material& m) {
    return m.alphaMode != Material::AlphaMode::automatic || m.baseColorTexture || m.metallicRoughnessTexture ||
           m.normalTexture || m.occlusionTexture || m.emissiveTexture;
  }

  // The material's textures on units kUnitMaterial.., their bits, transforms
  // and the alpha mode. Built-in materials have no textures: uTextures 0.
  void setTextures(ShaderProgram& program, const Material& m) {
    const std::pair<const MaterialTexture*, bool> slots[5] = {{&m.baseColorTexture, true},
                                                              {&m.metallicRoughnessTexture, false},
                                                              {&m.normalTexture, false},
                                                              {&m.occlusionTexture, false},
                                                              {&m.emissiveTexture, true}};
    int bits = 0;
    glm::mat3 transforms[5];
    for (int i = 0; i < 5; ++i) {
      const MaterialTexture& t = *slots[i].first;
      if (!t || !textures.bind(t, slots[i].second, kUnitMaterial + i)) continue;
      bits |= 1 << i;
      // KHR_texture_transform: translation * rotation * scale (columns here).
      const float c = std::cos(t.rotation), s = std::sin(t.rotation);
      transforms[i] = glm::mat3(glm::vec3(c * t.scale.x, -s * t.scale.x, 0.0f), glm::vec3(s * t.scale.y, c * t.scale.y, 0.0f),
                                glm::vec3(t.offset.x, t.offset.y, 1.0f));
    }
    glActiveTexture(GL_TEXTURE0);
    program.set("uTextures", bits);
    if (bits) {
      static const char* const names[5] = {"uUvTransform[0]", "uUvTransform[1]", "uUvTransform[2]", "uUvTransform[3]",
                                           "uUvTransform[4]"};
      for (int i = 0; i < 5; ++i) program.setMatrix3(names[i], float4x4(transforms[i]));
      program.set("uNormalScale", m.normalScale);
      program.set("uOcclusionStrength", m.occlusionStrength);
    }
    const int mode = m.alphaMode == Material::AlphaMode::opaque ? 1 : m.alphaMode == Material::AlphaMode::mask ? 2 : 0;
    program.set("uAlphaMode", mode);
    program.set("uAlphaCutoff", m.alphaCutoff);
  }

  static bool isOpaqueMaterial(const Material& m) { return !m.translucent(); }
  static bool isTranslucentMaterial(const Material& m) { return m.translucent(); }
};

// ---------------------------------------------------------------------------
// [SECTION] API
// ---------------------------------------------------------------------------

SceneRenderer::SceneRenderer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
SceneRenderer::~SceneRenderer() = default;

CreateResult<SceneRenderer> SceneRenderer::create() {
  using Result = CreateResult<SceneRenderer>;
  if (epoxy_gl_version() < 33) return Result::failure("SceneRenderer::create(): OpenGL 3.3 is not available");
  auto impl = std::make_unique<Impl>();
  struct Source {
    std::unique_ptr<ShaderProgram>* into;
    ShaderProgram::Sources sources;
  };
  const Source programs[] = {
      {&impl->morph, {"morph", shaders::morphVertex, "", {"vPosition", "vNormal"}}},
      {&impl->depth, {"depth", shaders::depthVertex, shaders::depthFragment, {}}},
      {&impl->surface, {"surface", shaders::surfaceVertex, shaders::surfaceFragment, {}}},
  };
  for (const auto& p : programs) {
    auto made = ShaderProgram::create(p.sources);
    if (!made) return Result::failure(made.reason);
    *p.into = std::move(made.value);
  }

  glGetIntegerv(GL_MAX_SAMPLES, &impl->maxSamples);
  GLint maxTexture = 0, maxRenderbuffer = 0;
  glGetIntegerv(GL_MAX_TEXTURE_SIZE, &maxTexture);
  glGetIntegerv(GL_MAX_RENDERBUFFER_SIZE, &maxRenderbuffer);
  impl->maxSize = std::min(maxTexture, maxRenderbuffer);

  // Key light shadow map: depth with hardware comparison (2x2 filtered).
  const int size = LightRig::shadowMapSize;
  glGenTextures(1, &impl->shadowDepth);
  glBindTexture(GL_TEXTURE_2D, impl->shadowDepth);
  glTexImage2D(GL_TEXTURE_2D, 0, GL_DEPTH_COMPONENT24, size, size, 0, GL_DEPTH_COMPONENT, GL_FLOAT, nullptr);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_BORDER);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_BORDER);
  const float border[4] = {1.0f, 1.0f, 1.0f, 1.0f};
  glTexParameterfv(GL_TEXTURE_2D, GL_TEXTURE_BORDER_COLOR, border);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_COMPARE_MODE, GL_COMPARE_REF_TO_TEXTURE);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_COMPARE_FUNC, GL_LEQUAL);
  glGenFramebuffers(1, &impl->shadowFbo);
  glBindFramebuffer(GL_FRAMEBUFFER, impl->shadowFbo);
  glFramebufferTexture2D(GL_FRAMEBUFFER, GL_DEPTH_ATTACHMENT, GL_TEXTURE_2D, impl->shadowDepth, 0);
  glDrawBuffer(GL_NONE);
  glReadBuffer(GL_NONE);
  const GLenum status = glCheckFramebufferStatus(GL_FRAMEBUFFER);
  glBindFramebuffer(GL_FRAMEBUFFER, 0);
  if (status != GL_FRAMEBUFFER_COMPLETE)
    return Result::failure("SceneRenderer::create(): shadow map framebuffer incomplete (" + hex(status) + ")");

  const float black[3] = {0.0f, 0.0f, 0.0f};
  glGenTextures(1, &impl->blackTexture);
  glBindTexture(GL_TEXTURE_2D, impl->blackTexture);
  glTexImage2D(GL_TEXTURE_2D, 0, GL_RGB16F, 1, 1, 0, GL_RGB, GL_FLOAT, black);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
  glBindTexture(GL_TEXTURE_2D, 0);
  glGenVertexArrays(1, &impl->emptyVertexArray);

  impl->surface->use();
  Impl::setSurfaceUnits(*impl->surface);
  impl->morph->use();
  impl->morph->set("uDeltas", kUnitDeltas);
  impl->morph->set("uTargetOf", kUnitTargetOf);
  glUseProgram(0);

  if (GLenum e = glGetError(); e != GL_NO_ERROR)
    return Result::failure("SceneRenderer::create(): GL error " + hex(e) + " while setting up");
  return Result::success(std::unique_ptr<SceneRenderer>(new SceneRenderer(std::move(impl))));
}

std::size_t SceneRenderer::meshUploadCount() const { return impl_->cache.uploadCount(); }
std::size_t SceneRenderer::textureBytes() const { return impl_->textures.bytes(); }

BlendedMesh SceneRenderer::morphOnGpu(const FrameDrawItem& item) {
  BlendedMesh out;
  Impl& s = *impl_;
  if (!item.geometry) return out;
  const auto* mesh = s.cache.mesh(*item.geometry);
  if (!mesh) return out;
  const auto* deltas = s.cache.deltas(*item.geometry, item.morphTargets, item.morphSource);
  const GLuint buffer = s.runMorph(0, *mesh, deltas, item);
  std::vector<float> data(static_cast<std::size_t>(mesh->vertexCount) * 6);
  glBindBuffer(GL_TRANSFORM_FEEDBACK_BUFFER, buffer);
  glGetBufferSubData(GL_TRANSFORM_FEEDBACK_BUFFER, 0, static_cast<GLsizeiptr>(data.size() * sizeof(float)), data.data());
  glBindBuffer(GL_TRANSFORM_FEEDBACK_BUFFER, 0);
  out.positions.resize(static_cast<std::size_t>(mesh->vertexCount));
  if (mesh->normalBuffer) out.normals.resize(out.positions.size());
  for (std::size_t v = 0; v < out.positions.size(); ++v) {
    out.positions[v] = {data[v * 6], data[v * 6 + 1], data[v * 6 + 2]};
    if (mesh->normalBuffer) out.normals[v] = {data[v * 6 + 3], data[v * 6 + 4], data[v * 6 + 5]};
  }
  return out;
}

std::shared_ptr<RenderedFrame> SceneRenderer::render(const FrameDescription& frame) {
  Impl& s = *impl_;
  std::string why;
  const Targets* targets = s.ensureTargets(frame.width, frame.height, frame.sampleCount, why);
  if (!targets) {
    logLine("Renderer", "SceneRenderer::render(): no frame: " + why);
    return nullptr;
  }
  const Targets& t = *targets;
  ShaderProgram* encode = s.outputProgram(t.samples > 1, why);
  if (!encode) {
    logLine("Renderer", "SceneRenderer::render(): no frame: " + why);
    return nullptr;
  }
  s.ensureEnvironment(frame.environment);

  const float aspect = static_cast<float>(frame.width) / static_cast<float>(frame.height);
  const float4x4 view = frame.camera.viewMatrix();
  const float4x4 viewProjection = frame.camera.projectionMatrix(aspect) * view;

  // Generic attribute values for meshes without normals or colours.
  glVertexAttrib4f(1, 0.0f, 0.0f, 1.0f, 0.0f);
  glVertexAttrib4f(3, 1.0f, 1.0f, 1.0f, 1.0f);
  glDisable(GL_SCISSOR_TEST);
  glDisable(GL_STENCIL_TEST);

  s.prepare(frame, view);
  const std::span<const Prepared> items(s.items.data(), s.preparedCount);

  // --- key light shadow map ---
  const LightRig& rig = frame.lights;
  const float exposure = exposureConstant;
  const float3 keyRadiance = rig.keyColor * std::max(rig.keyIntensity, 0.0f) * exposure;
  const float shadowAlpha = std::clamp(rig.shadowAlpha, 0.0f, 1.0f);
  float3 keyAxis = rig.keyTarget - rig.keyPosition;
  const bool keyAimed = glm::length(keyAxis) > 1e-6f;
  keyAxis = keyAimed ? glm::normalize(keyAxis) : float3(0.0f, 0.0f, -1.0f);
  const bool shadows = rig.keyCastsShadows && shadowAlpha > 0.0f && keyAimed && glm::length(keyRadiance) > 0.0f;
  float4x4 lightViewProjection(1.0f);
  if (shadows) {
    const float3 up = std::fabs(keyAxis.y) > 0.99f ? float3(0, 0, 1) : float3(0, 1, 0);
    lightViewProjection = glm::perspective(glm::radians(LightRig::keyOuterAngleDegrees), 1.0f, LightRig::shadowNear,
                                           LightRig::shadowFar) *
                          glm::lookAt(rig.keyPosition, rig.keyTarget, up);
    glBindFramebuffer(GL_FRAMEBUFFER, s.shadowFbo);
    glViewport(0, 0, LightRig::shadowMapSize, LightRig::shadowMapSize);
    glDepthMask(GL_TRUE);
    glClearDepth(1.0);
    glClear(GL_DEPTH_BUFFER_BIT);
    glEnable(GL_DEPTH_TEST);
    glDepthFunc(GL_LESS);
    glDisable(GL_BLEND);
    // Single-sided surfaces cast from their lit side only: half the
    // triangles of a thick shell, and no self-shadowing from its far side.
    glCullFace(GL_BACK);
    glEnable(GL_POLYGON_OFFSET_FILL);
    glPolygonOffset(1.5f, 4.0f);
    s.depth->use();
    s.depth->set("uViewProjection", lightViewProjection);
    for (const auto& p : items) s.drawParts(p, *s.depth, false, true, &Impl::isOpaqueMaterial);
    glDisable(GL_POLYGON_OFFSET_FILL);
  }

  // --- colour pass (linear, premultiplied) ---
  glBindFramebuffer(GL_FRAMEBUFFER, t.sceneFbo);
  glViewport(0, 0, t.width, t.height);
  glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE);
  glDepthMask(GL_TRUE);
  glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
  glClearDepth(1.0);
  glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
  glEnable(GL_DEPTH_TEST);
  glDepthFunc(GL_LESS);
  glEnable(GL_BLEND);
  glBlendFunc(GL_ONE, GL_ONE_MINUS_SRC_ALPHA);
  glCullFace(GL_BACK);

  auto direction = [](const float3& from, const float3& to) {
    const float3 d = from - to;
    return glm::length(d) > 1e-6f ? glm::normalize(d) : float3(0, 0, 1);
  };
  const float environmentIntensity = s.hasEnvironment ? std::max(rig.environmentIntensity, 0.0f) : 0.0f;
  // The same frame uniforms for both surface programs (plain and textured).
  for (ShaderProgram* program : {s.surface.get(), s.texturedSurface.get()}) {
    if (!program) continue;
    program->use();
    program->set("uViewProjection", viewProjection);
    program->set("uCameraPosition", frame.camera.position);
    program->set("uKeyPosition", rig.keyPosition);
    program->set("uKeyDirection", keyAxis);
    program->set("uKeyRadiance", keyRadiance);
    program->set("uKeyCosInner", std::cos(glm::radians(LightRig::keyInnerAngleDegrees * 0.5f)));
    program->set("uKeyCosOuter", std::cos(glm::radians(LightRig::keyOuterAngleDegrees * 0.5f)));
    program->set("uKeyShadows", shadows ? 1 : 0);
    program->set("uShadowAlpha", shadowAlpha);
    program->set("uLightViewProjection", lightViewProjection);
    program->set("uShadowTexelSize", float2(1.0f / LightRig::shadowMapSize));
    program->set("uShadowRadiusTexels", LightRig::shadowRadius);
    program->set("uShadowNormalOffset",
                2.0f * std::tan(glm::radians(LightRig::keyOuterAngleDegrees * 0.5f)) / LightRig::shadowMapSize);
    program->set("uFillDirection", direction(rig.fillPosition, rig.fillTarget));
    program->set("uFillRadiance", rig.fillColor * std::max(rig.fillIntensity, 0.0f) * exposure);
    program->set("uRimDirection", direction(rig.rimPosition, rig.rimTarget));
    program->set("uRimRadiance", rig.rimColor * std::max(rig.rimIntensity, 0.0f) * exposure);
    program->set("uEnvironmentIntensity", environmentIntensity);
    program->setArray("uIrradianceSH", s.environment.irradianceSH.data(), 9);
    program->set("uSpecularMaxLod", s.hasEnvironment ? static_cast<float>(EnvironmentLighting::specularLevels - 1) : 0.0f);
  }
  ShaderProgram& surface = *s.surface;
  surface.use();
  glActiveTexture(GL_TEXTURE0 + kUnitShadow);
  glBindTexture(GL_TEXTURE_2D, s.shadowDepth);
  glActiveTexture(GL_TEXTURE0 + kUnitSpecular);
  glBindTexture(GL_TEXTURE_2D, s.hasEnvironment ? s.specularTexture : s.blackTexture);
  glActiveTexture(GL_TEXTURE0);

  // Opaque nodes first.
  for (const auto& p : items)
    if (p.item->opacity >= 1.0f) s.drawParts(p, surface, true, true, &Impl::isOpaqueMaterial);

  // Faded nodes: depth of all of them first, then colour only where a
  // surface is the front-most, so a fading character never shows its inside
  // or its own back parts.
  bool anyFaded = false;
  for (const auto& p : items) anyFaded = anyFaded || p.item->opacity < 1.0f;
  if (anyFaded) {
    glColorMask(GL_FALSE, GL_FALSE, GL_FALSE, GL_FALSE);
    s.depth->use();
    s.depth->set("uViewProjection", viewProjection);
    for (const auto& p : items) {
      if (p.item->opacity >= 1.0f) continue;
      s.drawParts(p, *s.depth, false, true, &Impl::isOpaqueMaterial);
    }
    glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE);
    glDepthFunc(GL_LEQUAL);
    surface.use();
    for (const auto& p : items)
      if (p.item->opacity < 1.0f) s.drawParts(p, surface, true, true, &Impl::isOpaqueMaterial);
    glDepthFunc(GL_LESS);
  }

  // Translucent materials last, far to near, without writing depth.
  std::vector<const Prepared*>& translucent = s.translucent;
  translucent.clear();
  for (const auto& p : items)
    for (const auto& [part, material] : p.parts)
      if (Impl::isTranslucentMaterial(*material)) {
        translucent.push_back(&p);
        break;
      }
  if (!translucent.empty()) {
    std::stable_sort(translucent.begin(), translucent.end(),
                     [](const Prepared* a, const Prepared* b) { return a->viewDepth < b->viewDepth; });
    glDepthMask(GL_FALSE);
    glDepthFunc(GL_LEQUAL);
    surface.use();
    for (const Prepared* p : translucent) s.drawParts(*p, surface, true, true, &Impl::isTranslucentMaterial);
    glDepthMask(GL_TRUE);
    glDepthFunc(GL_LESS);
  }
  glBindVertexArray(0);
  glFrontFace(GL_CCW);
  glDisable(GL_CULL_FACE);
  glDisable(GL_BLEND);
  glDisable(GL_DEPTH_TEST);

  // --- resolve and encode, read back ---
  glBindFramebuffer(GL_FRAMEBUFFER, t.outputFbo);
  glViewport(0, 0, t.width, t.height);
  glActiveTexture(GL_TEXTURE0 + kUnitImage);
  encode->use();
  if (t.samples > 1) {
    encode->set("uSamples", t.samples);
    glBindTexture(GL_TEXTURE_2D_MULTISAMPLE, t.sceneColor);
  } else {
    glBindTexture(GL_TEXTURE_2D, t.sceneColor);
  }
  glBindVertexArray(s.emptyVertexArray);
  glDrawArrays(GL_TRIANGLES, 0, 3);
  glBindVertexArray(0);

  auto result = s.frames.acquire(t.width, t.height);
  result->time = frame.time;
  result->sequence = frame.sequence;
  result->newestArrival = frame.newestArrival;
  glBindFramebuffer(GL_READ_FRAMEBUFFER, t.outputFbo);
  glReadBuffer(GL_COLOR_ATTACHMENT0);
  glPixelStorei(GL_PACK_ALIGNMENT, 4);
  // Straight into the frame: a pixel buffer in between would only add a
  // frame-sized copy (8.3 MB at 1080p) and a memcpy, since the pixels are
  // needed at once either way.
  glReadPixels(0, 0, t.width, t.height, GL_BGRA, GL_UNSIGNED_BYTE, result->pixels.data());
  glBindFramebuffer(GL_FRAMEBUFFER, 0);
  glUseProgram(0);

  s.cache.purgeExpired();
  s.textures.purgeExpired();
  // A frame that uploaded a character follows its build (and the driver's
  // compile of new shader variants): many megabytes of temporary arrays
  // freed across the heaps of several threads, which glibc keeps resident
  // until asked. The next frame follows the release of the CPU copy that
  // the uploading frame carried. Ask on those two frames only (a trim scans
  // every heap).
  const bool uploaded = s.cache.uploadCount() != s.uploadsAtTrim;
  if (uploaded || s.trimNextFrame) malloc_trim(0);
  s.trimNextFrame = uploaded;
  s.uploadsAtTrim = s.cache.uploadCount();

  if (GLenum e = glGetError(); e != GL_NO_ERROR && !s.reportedGlError) {
    logLine("Renderer", "SceneRenderer::render(): GL error " + hex(e) + " (reported once)");
    s.reportedGlError = true;
  }
  return result;
}

}  // namespace velmora
