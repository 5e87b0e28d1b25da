// The OpenGL renderer on software GL (EGL, small frames): coverage and
// alpha, holes, GPU morphs against the CPU reference, opacity, lights and
// shadows, the mesh cache and the failure paths; then the scene manager's
// frames of the real characters.
//
// Index of this file:
//   [SECTION] Test meshes
//   [SECTION] The renderer on test meshes
//   [SECTION] The scene manager through the renderer

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <stdexcept>

#include "animation/CharacterAnimationController.h"
#include "render/RenderThread.h"
#include "render/SceneRenderer.h"
#include "render/ShaderProgram.h"
#include "scene/MaskSceneManager.h"
#include "support/StateFixture.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {
namespace {

using Semantic = GeometrySource::Semantic;
constexpr int W = 320, H = 180;

// ---------------------------------------------------------------------------
// [SECTION] Test meshes
// ---------------------------------------------------------------------------

// A plaster-like sphere (48 rings x 64 segments) centred at the origin, built
// like the characters: shared immutable arrays, counter-clockwise triangles
// seen from outside. `displace` moves each point by a function of its
// outward direction; triangles whose outward direction is within 0.16 rad
// of a hole direction are left out.
std::shared_ptr<Geometry> sphereGeometry(float radius, const std::function<float3(float3)>& displace = nullptr,
                                         const std::vector<float3>& holes = {}, float4 colour = {0.8f, 0.78f, 0.74f, 1}) {
  constexpr int rings = 48, segments = 64;
  std::vector<float3> p, n;
  for (int r = 0; r <= rings; ++r) {
    const float theta = 3.14159265f * r / rings;
    for (int s = 0; s <= segments; ++s) {
      const float phi = 2.0f * 3.14159265f * s / segments;
      const float3 d(std::sin(theta) * std::sin(phi), std::cos(theta), std::sin(theta) * std::cos(phi));
      p.push_back(d * radius + (displace ? displace(d) : float3(0.0f)));
      n.push_back(d);
    }
  }
  auto idx = std::make_shared<std::vector<std::int32_t>>();
  for (int r = 0; r < rings; ++r)
    for (int s = 0; s < segments; ++s) {
      const int a = r * (segments + 1) + s, b = a + segments + 1;
      const float3 c = glm::normalize(n[a] + n[b] + n[a + 1] + n[b + 1]);
      if (std::ranges::none_of(holes, [&](float3 h) { return glm::dot(c, glm::normalize(h)) > std::cos(0.16f); }))
        for (int i : {a, b, a + 1, a + 1, b, b + 1}) idx->push_back(i);
    }
  auto g = std::make_shared<Geometry>();
  g->sources = {GeometrySource::make(Semantic::vertex, p), GeometrySource::make(Semantic::normal, n)};
  g->elements = {GeometryElement{.indices = idx}};
  g->materials.resize(1);
  g->materials[0].diffuse = colour;
  g->materials[0].roughness = 0.85f;
  return g;
}

// A "face": a sphere of radius 0.5 with two eye holes in the upper front,
// and two morph targets sharing its index array (its node's morpher):
// 0 = lower half pushed down and forward, 1 = bulge right. The targets carry
// positions and normals only; their normals are the sphere's, rotated a
// little so the GPU has a normal delta to blend.
std::shared_ptr<Node> makeTestFace() {
  const std::vector<float3> holes = {{-0.35f, 0.3f, 1.0f}, {0.35f, 0.3f, 1.0f}};
  auto node = Node::make("TestFace");
  node->geometry = sphereGeometry(0.5f, nullptr, holes);
  const auto target = [&](const std::function<float3(float3)>& displace, float tilt) {
    auto g = sphereGeometry(0.5f, displace, holes);
    std::vector<float3> n = g->source(Semantic::normal)->toVec3();
    for (auto& v : n) v = glm::normalize(v + float3(tilt, 0.0f, 0.0f));
    g->sources[1] = GeometrySource::make(Semantic::normal, n);
    return MorphTarget::fromGeometry(*node->geometry, *g);
  };
  node->morpher = std::make_shared<Morpher>();
  node->morpher->targets = std::make_shared<MorphTargetList>(MorphTargetList{
      target([](float3 d) { return d.y < 0 && d.z > 0 ? float3(0, 0.25f * d.y * d.z, -0.15f * d.y * d.z) : float3(0); },
             0.3f),
      target([](float3 d) { return d.x > 0 ? d * (0.1f * d.x) : float3(0); }, -0.2f)});
  node->morpher->weights.assign(2, 0.0f);
  return node;
}

std::shared_ptr<Node> sphereNode(float radius, float3 position, float4 colour = {0.8f, 0.78f, 0.74f, 1.0f}) {
  auto node = Node::make("Sphere");
  node->geometry = sphereGeometry(radius, nullptr, {}, colour);
  node->position = position;
  return node;
}

std::shared_ptr<FrameDescription> frameOf(const std::vector<std::shared_ptr<Node>>& nodes,
                                          const LightingSettings& lighting = {}, float master = 1.2f) {
  auto frame = std::make_shared<FrameDescription>();
  frame->width = W;
  frame->height = H;
  frame->lights = LightRig::applied(lighting, master);
  frame->environment = MaskSceneManager::makeEnvironmentImage();
  for (const auto& n : nodes) frame->addNodes(*n);
  return frame;
}

// The rendered frame; a frame that did not render ends the test with its reason.
std::shared_ptr<const RenderedFrame> framePixels(const FrameRenderer::Result& result) {
  if (!result.frame) throw std::runtime_error("no frame: " + result.error);
  return result.frame;
}

RenderThread& renderer() {
  static RenderThread thread;
  return thread;
}

std::shared_ptr<const RenderedFrame> render(const std::shared_ptr<FrameDescription>& frame) {
  return framePixels(renderer().renderNow(frame));
}

// Where a point of the scene lands in a frame, pixels from the top left.
glm::ivec2 project(const FrameDescription& frame, const float3& p) {
  const float4 clip = frame.camera.projectionMatrix(float(frame.width) / frame.height) * frame.camera.viewMatrix() *
                      float4(p, 1.0f);
  const float3 ndc = float3(clip) / clip.w;
  return {int((ndc.x * 0.5f + 0.5f) * frame.width), int((0.5f - ndc.y * 0.5f) * frame.height)};
}

// The largest distance between corresponding points; infinite when the counts differ.
float worstGap(const std::vector<float3>& a, const std::vector<float3>& b) {
  if (a.size() != b.size()) return INFINITY;
  float worst = 0;
  for (std::size_t i = 0; i < a.size(); ++i) worst = std::max(worst, glm::length(a[i] - b[i]));
  return worst;
}

int alphaAt(const RenderedFrame& f, glm::ivec2 p) { return f.pixel(p.x, p.y)[3]; }

float luminance(const std::uint8_t* p) { return (0.0722f * p[0] + 0.7152f * p[1] + 0.2126f * p[2]) / 255.0f; }

// The fully opaque pixels (RGBA each), pointing into the frame.
std::vector<const std::uint8_t*> opaquePixels(const RenderedFrame& f) {
  std::vector<const std::uint8_t*> out;
  for (int y = 0; y < f.height; ++y)
    for (int x = 0; x < f.width; ++x)
      if (f.pixel(x, y)[3] == 255) out.push_back(f.pixel(x, y));
  return out;
}

// ---------------------------------------------------------------------------
// [SECTION] The renderer on test meshes
// ---------------------------------------------------------------------------

// A transparent background and an opaque character, even unlit; the shadow
// alpha; the same mesh twice in one frame and again in the next is uploaded
// once; failures are reported, nothing crashes, and the renderer still works.
TEST(RendererGLTest, ClearBackgroundOpaqueCharacterShadowsOneUploadAndFailuresReported) {
  auto face = makeTestFace();
  auto frame = frameOf({face});
  auto out = render(frame);
  ASSERT_EQ(std::pair(out->width, out->height), std::pair(W, H));
  for (glm::ivec2 corner : {glm::ivec2(0, 0), glm::ivec2(W - 1, 0), glm::ivec2(0, H - 1), glm::ivec2(W - 1, H - 1)})
    for (int c = 0; c < 4; ++c) EXPECT_EQ(out->pixel(corner.x, corner.y)[c], 0);
  EXPECT_EQ(alphaAt(*out, project(*frame, {0.0f, -0.2f, 0.45f})), 255);
  EXPECT_EQ(alphaAt(*out, project(*frame, {0.0f, 0.45f, 0.2f})), 255);
  // The eye holes show the background through the sphere: its far inside
  // faces away from the camera and is not drawn.
  for (float side : {-1.0f, 1.0f})
    EXPECT_EQ(alphaAt(*out, project(*frame, 0.5f * glm::normalize(float3(0.35f * side, 0.3f, 1.0f)))), 0);
  // With the master at 0 the character is black but still opaque.
  const auto black = render(frameOf({face}, {}, 0.0f));
  const auto unlit = opaquePixels(*black);
  EXPECT_GT(unlit.size(), 3000u);
  EXPECT_EQ(std::ranges::count_if(unlit, [](const std::uint8_t* p) { return p[0] + p[1] + p[2] > 0; }), 0);

  // A ball between the key light (below, in front) and the face.
  const float3 onFace(0.0f, -0.25f, 0.43f);
  auto ball = sphereNode(0.1f, onFace + 0.3f * (LightRig::initial().keyPosition - onFace));
  frame = frameOf({face, ball}, {.shadow = 0.0f});
  auto without = render(frame);
  auto with = render(frameOf({face, ball}, {.shadow = 1.0f}));
  int darker = 0, lighter = 0;
  for (std::size_t i = 0; i < with->pixels.size(); i += 4) {
    const int d = int(without->pixels[i + 1]) - int(with->pixels[i + 1]);
    darker += d > 8;
    lighter += d < -8;
  }
  EXPECT_TRUE(darker > 100 && lighter == 0) << darker << " darker, " << lighter << " lighter";
  // Where the key light does not reach anyway (the top of the head), nothing changes.
  const auto top = project(*frame, {0.0f, 0.47f, 0.1f});
  EXPECT_EQ(with->pixel(top.x, top.y)[1], without->pixel(top.x, top.y)[1]);

  face->morpher->setWeight(0, 0.5f);
  frame = frameOf({face, face});  // the same mesh twice in one frame
  ASSERT_TRUE(renderer().withRenderer([&](SceneRenderer& r) {
    r.render(*frame);
    const std::size_t first = r.meshUploadCount();
    r.render(*frame);
    EXPECT_EQ(r.meshUploadCount(), first);
  }));

  frame->width = 0;
  const auto result = renderer().renderNow(frame);
  EXPECT_TRUE(!result.frame && !result.error.empty()) << result.error;

  ASSERT_TRUE(renderer().withRenderer([&](SceneRenderer&) {
    auto program = ShaderProgram::create({"broken", "#version 330 core\nvoid main() { nonsense; }\n", "", {}});
    EXPECT_FALSE(program);
    EXPECT_NE(program.reason.find("broken vertex shader does not compile"), std::string::npos) << program.reason;
  }));

  // The renderer still works afterwards.
  frame->width = W;
  EXPECT_TRUE(renderer().renderNow(frame).frame);
  EXPECT_FALSE(renderer().renderNow(nullptr).frame);
}


// Deltas travel as half floats: well under a millimetre, and a degree; and
// the morph moved something, so it is not just the base mesh.
TEST(RendererGLTest, TheGpuMorphMatchesTheCpuReference) {
  auto face = makeTestFace();
  face->morpher->weights = {0.7f, 0.4f};
  test::StateFixture f;
  CharacterAnimationController animation;
  MaskSceneManager scene(f.state, animation, [] { return 1.0; });
  for (const char* name : {"jawOpen", "mouthSmileLeft", "browInnerUp", "eyeBlinkRight"})
    scene.morpher()->setWeight(static_cast<std::size_t>(*scene.targetIndex(name)), 0.8f);
  for (const auto& [node, positionGap] : {std::pair{face, 2e-4f}, std::pair{scene.maskNode(), 5e-4f}}) {
    SCOPED_TRACE(node->name);
    const auto frame = frameOf({node});
    BlendedMesh gpu;
    std::string error;
    ASSERT_TRUE(renderer().withRenderer([&](SceneRenderer& r) { gpu = r.morphOnGpu(frame->items[0]); }, &error)) << error;
    const BlendedMesh cpu = referenceBlend(*node->geometry, *node->morpher);
    EXPECT_LT(worstGap(gpu.positions, cpu.positions), positionGap);
    EXPECT_LT(worstGap(gpu.normals, cpu.normals), 5e-3f);
    EXPECT_GT(worstGap(gpu.positions, node->geometry->source(Semantic::vertex)->toVec3()), 0.02f);
  }
}

TEST(RendererGLTest, AFadingCharacterShowsOnlyItsFrontSurface) {
  // A front ball partly hiding a larger one behind it, both at half opacity:
  // where they overlap only the front ball may show.
  auto front = sphereNode(0.25f, {0.0f, 0.0f, 0.4f}, {0.9f, 0.2f, 0.2f, 1.0f});
  auto back = sphereNode(0.5f, {0.0f, 0.0f, -0.3f}, {0.2f, 0.2f, 0.9f, 1.0f});
  front->opacity = 0.5f;
  back->opacity = 0.5f;
  auto both = render(frameOf({front, back}));
  auto alone = render(frameOf({front}));
  front->opacity = 1.0f;
  auto opaque = render(frameOf({front}));
  const glm::ivec2 c(W / 2, H / 2);
  for (int ch = 0; ch < 4; ++ch) EXPECT_NEAR(both->pixel(c.x, c.y)[ch], alone->pixel(c.x, c.y)[ch], 2) << ch;
  EXPECT_NEAR(alone->pixel(c.x, c.y)[3], 128, 1);
  // Straight alpha: the colour is the opaque colour, only alpha changes.
  for (int ch = 0; ch < 3; ++ch) EXPECT_NEAR(alone->pixel(c.x, c.y)[ch], opaque->pixel(c.x, c.y)[ch], 2) << ch;
  EXPECT_EQ(opaque->pixel(c.x, c.y)[3], 255);
}

// ---------------------------------------------------------------------------
// [SECTION] The scene manager through the renderer
// ---------------------------------------------------------------------------

// One scene on its own render thread (software GL starts slowly), from the
// default look: the theatrical mask, theatrical lights at 1.2, opacity 1.
TEST(MaskSceneGLTest, TheMaskAtRestOpenAndRenderedLaterAndTheGhost) {
  test::StateFixture f;
  CharacterAnimationController animation;
  MaskSceneManager scene(f.state, animation, [] { return 5.0; });
  scene.setRenderer(std::make_unique<RenderThread>());
  const auto renderNow = [&](int w = W, int h = H, int samples = 1) {
    scene.updateTracking(f.state);
    return framePixels(scene.renderFrameNow(w, h, samples));
  };

  // The default look is well exposed.
  const auto exposed = renderNow(480, 270, 4);  // holds the pixels listed below
  const auto covered = opaquePixels(*exposed);
  ASSERT_GT(covered.size(), 10000u);
  double sum = 0;
  std::size_t clipped = 0, black = 0;
  for (const std::uint8_t* p : covered) {
    sum += luminance(p);
    clipped += p[0] >= 254 && p[1] >= 254 && p[2] >= 254;
    black += luminance(p) < 0.04f;
  }
  const double mean = sum / covered.size();
  EXPECT_TRUE(mean >= 0.30 && mean <= 0.65) << mean;
  // No clipped highlights, no black blotches (the mouth slit is a thin line).
  EXPECT_LE(std::max(clipped, black), covered.size() / 50) << clipped << " clipped, " << black << " black";

  // The forehead is solid; opening the jaw changes the mouth and chin and not
  // the forehead. (That the eye openings stay open: the mask's hole loop in
  // mask_geometry_test, and the test face's holes drawn clear above.)
  auto rest = renderNow();
  f.state.setBlendshapes({{"jawOpen", 1.0f}});
  auto open = renderNow();
  EXPECT_EQ(rest->pixel(W / 2, int(0.2f * H))[3], 255);
  auto changed = [&](int x0, int y0, int x1, int y1) {
    int n = 0;
    for (int y = y0; y < y1; ++y)
      for (int x = x0; x < x1; ++x)
        for (int c = 0; c < 4; ++c) n += std::abs(int(rest->pixel(x, y)[c]) - int(open->pixel(x, y)[c])) > 6;
    return n;
  };
  EXPECT_GT(changed(W * 2 / 5, H * 3 / 5, W * 3 / 5, H * 4 / 5), 50);  // mouth and chin
  EXPECT_EQ(changed(W * 2 / 5, H / 8, W * 3 / 5, H / 4), 0);          // forehead

  // Once a renderer holds the mask's GPU copy the scene lets its CPU targets
  // go; a renderer made later loads them again and draws the same picture.
  renderNow();
  EXPECT_FALSE(scene.morpher()->targets);
  RenderThread later;
  auto frame = std::const_pointer_cast<FrameDescription>(scene.makeFrameDescription(W, H));
  frame->sampleCount = 1;
  EXPECT_EQ(framePixels(later.renderNow(frame))->pixels, open->pixels);

  // The ghost renders with dark eyes and mouth. (How much of the frame it
  // covers: the snapshot run's ghost pictures, SnapshotE2ETest. Opacity 0
  // leaves the frame without items: the scene manager's tests; a frame
  // without items is the cleared background: the corners above.)
  f.state.setBlendshapes({});
  f.state.setCharacterModel(CharacterModelType::cartoonGhost);
  const auto ghost = renderNow();  // holds the pixels listed below
  const auto ghostPixels = opaquePixels(*ghost);
  EXPECT_GT(std::ranges::count_if(ghostPixels, [](const std::uint8_t* p) { return luminance(p) < 0.1f; }), 10);
}

}  // namespace
}  // namespace velmora
