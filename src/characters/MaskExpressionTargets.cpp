#include "characters/MaskExpressionTargets.h"

// Index of this file:
//   [SECTION] Displacement fields and the cached targets
//   [SECTION] Weights
//   [SECTION] Table, targets, builders

#include <array>
#include <cmath>
#include <mutex>

#include "characters/ParallelFor.h"
#include "characters/ShapeMath.h"
#include "characters/TheatricalMaskGeometry.h"
#include "stage/Node.h"

namespace velmora {

using shape::clamp01;
using shape::expf32;
using shape::gaussian;
using shape::smoothstep;

// ---------------------------------------------------------------------------
// [SECTION] Displacement fields and the cached targets
// ---------------------------------------------------------------------------

namespace {

inline float sq(float v) { return v * v; }

// Height above the mouth curve.
inline float mouthHeight(float2 p) { return p.y - (0.14f * p.x * p.x - 0.41f); }

// (1 - a^2)^1.3 over the mouth's width, a = |x| / 0.33; 0 beyond it.
inline float lipWidthFalloff(float x) {
  const float a = std::fabs(x) / 0.33f;
  return a < 1.0f ? std::pow(1.0f - a * a, 1.3f) : 0.0f;
}

// The side's half of the mouth, a soft step across x = 0.
inline float mouthHalf(float x, float s) { return (std::tanh(s * x / 0.08f) + 1.0f) / 2.0f; }

using Displacement = std::function<float3(float2, bool)>;

// The sided displacement of one suffix for side sign s.
Displacement sided(const std::string& suffix, float s) {
  using T = MaskExpressionTargets;
  if (suffix == "eyeBlink")
    return [s](float2 p, bool) {
      const T::EyeFrame f = T::eyeFrame(p, s);
      const float wu = T::upperLidWeight(p, s);
      const float wl = T::lowerLidWeight(p, s);
      // The upper lid travels through its own margin and three quarters of
      // the lower one, the lower lid rises a quarter: they meet below centre.
      const float v = 0.25f * f.lowerMargin * wl - wu * (f.upperMargin + 0.75f * f.lowerMargin);
      const float dist = TheatricalMaskGeometry::eyeRadialDistance(p).first;
      const float fold = 0.85f * TheatricalMaskGeometry::lidFoldSculpt(p) +
                         0.6f * 0.018f * smoothstep(clamp01((f.ly + 0.03f) / 0.07f)) *
                             expf32(-sq((dist - 0.016f) / 0.02f));
      const float2 xy = f.toWorld(v);
      return float3(xy.x, xy.y, 0.006f * wu - wu * fold);
    };
  if (suffix == "eyeWide")
    return [s](float2 p, bool) {
      const T::EyeFrame f = T::eyeFrame(p, s);
      const float b = f.r < 1.0f ? std::pow(1.0f - f.r * f.r, 0.8f) : 0.0f;
      const float v = 0.035f * b * T::upperLidWeight(p, s) - 0.012f * b * T::lowerLidWeight(p, s);
      const float2 xy = f.toWorld(v);
      return float3(xy.x, xy.y, 0.0f);
    };
  if (suffix == "eyeSquint")
    return [s](float2 p, bool) {
      const T::EyeFrame f = T::eyeFrame(p, s);
      const float v = T::upperLidWeight(p, s) * (-0.2f * f.upperMargin) + T::lowerLidWeight(p, s) * (0.5f * f.lowerMargin);
      const float gs = gaussian(p.x - s * 0.42f, p.y - 0.18f, 0.15f, 0.1f);  // cheek under the eye
      const float2 xy = f.toWorld(v);
      return float3(xy.x, xy.y + 0.02f * gs, 0.01f * gs);
    };
  if (suffix == "browDown")
    return [s](float2 p, bool) {
      const float g = gaussian(p.x - s * 0.30f, p.y - 0.5f, 0.18f, 0.12f);
      return float3(-0.02f * s * g, -0.05f * g, 0.012f * g);
    };
  if (suffix == "browOuterUp")
    return [s](float2 p, bool) {
      const float g = gaussian(p.x - s * 0.52f, p.y - 0.5f, 0.15f, 0.12f);
      return float3(0.0f, 0.06f * g, 0.0f);
    };
  if (suffix == "cheekSquint")
    return [s](float2 p, bool) {
      const float g = gaussian(p.x - s * 0.44f, p.y - 0.1f, 0.16f, 0.12f);
      return float3(0.0f, 0.035f * g, 0.02f * g);
    };
  if (suffix == "noseSneer")
    return [s](float2 p, bool) {
      const float g1 = gaussian(p.x - s * 0.12f, p.y + 0.04f, 0.07f, 0.08f);
      const float g2 = gaussian(p.x - s * 0.15f, p.y - 0.48f, 0.1f, 0.08f);
      return float3(0.0f, 0.03f * g1 - 0.02f * g2, 0.01f * g1);
    };
  if (suffix == "jaw")
    return [s](float2 p, bool lower) { return float3(0.07f * s * T::jawWeight(p, lower), 0.0f, 0.0f); };
  if (suffix == "mouth")
    return [s](float2 p, bool) {
      const float g = gaussian(p.x, p.y + 0.41f, 0.35f, 0.16f);
      return float3(0.07f * s * g, 0.0f, 0.0f);
    };
  if (suffix == "mouthSmile")
    return [s](float2 p, bool) {
      const float gc = T::mouthCornerBump(p, s);
      const float g2 = gaussian(p.x - s * 0.4f, p.y + 0.1f, 0.15f, 0.14f);
      return float3(0.035f * s * gc, 0.065f * gc + 0.03f * g2, 0.01f * gc + 0.02f * g2);
    };
  if (suffix == "mouthFrown")
    return [s](float2 p, bool) {
      const float gc = T::mouthCornerBump(p, s);
      return float3(0.01f * s * gc, -0.06f * gc, 0.0f);
    };
  if (suffix == "mouthDimple")
    return [s](float2 p, bool) {
      const float gc = T::mouthCornerBump(p, s);
      return float3(0.03f * s * gc, 0.0f, -0.015f * gc);
    };
  if (suffix == "mouthStretch")
    return [s](float2 p, bool) {
      const float gc = T::mouthCornerBump(p, s);
      return float3(0.05f * s * gc, -0.02f * gc, 0.0f);
    };
  if (suffix == "mouthPress")
    return [s](float2 p, bool lower) {
      const float k = mouthHalf(p.x, s);
      return float3(0.0f, 0.0f, -0.012f * k * (T::upperLipBand(p, lower) + T::lowerLipBand(p, lower)));
    };
  if (suffix == "mouthLowerDown")
    return [s](float2 p, bool lower) {
      const float v = T::lowerLipBand(p, lower) * mouthHalf(p.x, s);
      return float3(0.0f, -0.05f * v, -0.006f * v);
    };
  // "mouthUpperUp"
  return [s](float2 p, bool lower) {
    return float3(0.0f, 0.04f * T::upperLipBand(p, lower) * mouthHalf(p.x, s), 0.0f);
  };
}

std::vector<MaskExpressionTargets::Entry> buildTable() {
  using T = MaskExpressionTargets;
  static const std::array<const char*, 16> sidedSuffixes{
      "eyeBlink",    "eyeWide",   "eyeSquint",  "browDown",    "browOuterUp",  "cheekSquint",
      "noseSneer",   "jaw",       "mouth",      "mouthSmile",  "mouthFrown",   "mouthDimple",
      "mouthStretch", "mouthPress", "mouthLowerDown", "mouthUpperUp"};
  std::vector<T::Entry> table;
  table.reserve(43);
  for (const auto& [sideName, s] : {std::pair<const char*, float>{"Left", 1.0f}, {"Right", -1.0f}})
    for (const char* suffix : sidedSuffixes) table.push_back({std::string(suffix) + sideName, sided(suffix, s)});

  table.push_back({"browInnerUp", [](float2 p, bool) {
                     const float g = gaussian(std::fabs(p.x) - 0.15f, p.y - 0.52f, 0.13f, 0.12f);
                     return float3(0.0f, 0.06f * g, 0.01f * g);
                   }});
  table.push_back({"cheekPuff", [](float2 p, bool) {
                     const float g = gaussian(std::fabs(p.x) - 0.4f, p.y + 0.3f, 0.16f, 0.16f);
                     const float outward = p.x >= 0.0f ? 0.04f * g : -0.04f * g;
                     return float3(outward, 0.0f, 0.09f * g);
                   }});
  table.push_back({"jawOpen", [](float2 p, bool lower) {
                     const float w = T::jawWeight(p, lower);
                     return float3(0.0f, -0.24f * w, -0.06f * w);
                   }});
  table.push_back({"jawForward", [](float2 p, bool lower) {
                     return float3(0.0f, 0.0f, 0.05f * T::jawWeight(p, lower));
                   }});
  table.push_back({"mouthClose", [](float2 p, bool lower) {
                     const float w = T::jawWeight(p, lower);
                     const float m = mouthHeight(p);
                     const float e = m > 0.0f ? 1.0f : expf32(m / 0.08f);
                     return float3(0.0f, 0.2f * e * w, 0.05f * e * w);
                   }});
  table.push_back({"mouthFunnel", [](float2 p, bool lower) {
                     const float gf = gaussian(p.x, p.y + 0.41f, 0.4f, 0.2f);
                     return float3(-0.42f * p.x * gf, 0.06f * T::upperLipBand(p, lower) - 0.08f * T::lowerLipBand(p, lower),
                                   0.06f * gf);
                   }});
  table.push_back({"mouthPucker", [](float2 p, bool) {
                     const float gp = gaussian(p.x, p.y + 0.41f, 0.25f, 0.12f);
                     return float3(-0.4f * p.x * gp, 0.0f, 0.07f * gp);
                   }});
  table.push_back({"mouthRollLower", [](float2 p, bool lower) {
                     if (!lower) return float3(0.0f);
                     const float f = lipWidthFalloff(p.x);
                     const float m = mouthHeight(p);
                     const float e = m > 0.0f ? 1.0f : expf32(m / 0.06f);
                     return float3(0.0f, 0.0f, -0.022f * e * f);
                   }});
  table.push_back({"mouthRollUpper", [](float2 p, bool lower) {
                     if (lower) return float3(0.0f);
                     const float f = lipWidthFalloff(p.x);
                     const float m = mouthHeight(p);
                     const float e = m < 0.0f ? 1.0f : expf32(m / -0.05f);
                     return float3(0.0f, 0.0f, -0.018f * e * f);
                   }});
  table.push_back({"mouthShrugLower", [](float2 p, bool) {
                     // The second bump sits 0.04 above the chin point.
                     const float v = gaussian(p.x, p.y + 0.45f, 0.3f, 0.1f) + 0.5f * gaussian(p.x, p.y + 0.72f, 0.2f, 0.15f);
                     return float3(0.0f, 0.025f * v, 0.01f * v);
                   }});
  table.push_back({"mouthShrugUpper", [](float2 p, bool) {
                     const float g = gaussian(p.x, p.y + 0.38f, 0.3f, 0.08f);
                     return float3(0.0f, 0.015f * g, 0.0f);
                   }});
  return table;
}

using TargetList = MorphTargetList;

const std::vector<float3>& cachedNeutralFront() {
  static const std::vector<float3> front = TheatricalMaskGeometry::neutralFront();
  return front;
}

std::shared_ptr<const Geometry> buildNeutral() {
  auto neutral = std::make_shared<Geometry>();
  neutral->name = "TheatricalMask";
  auto [pos, nrm] = TheatricalMaskGeometry::assembleSources(cachedNeutralFront());
  neutral->sources = {std::move(pos), std::move(nrm), TheatricalMaskGeometry::makeUVSource(),
                      TheatricalMaskGeometry::makeColorSource()};
  neutral->elements = TheatricalMaskGeometry::elements();
  neutral->materials = TheatricalMaskGeometry::makeMaterials();
  return neutral;
}

const std::shared_ptr<const Geometry>& cachedNeutral() {
  static const std::shared_ptr<const Geometry> neutral = buildNeutral();
  return neutral;
}

std::shared_ptr<const TargetList> buildTargets() {
  const auto& front = cachedNeutralFront();
  const auto& elements = TheatricalMaskGeometry::elements();
  const Geometry& neutral = *cachedNeutral();
  // Each target is computed whole by one thread, so the result does not
  // depend on how many threads share the work.
  const auto& table = MaskExpressionTargets::blendShapeDisplacements();
  auto list = std::make_shared<TargetList>(table.size());
  parallelForEach(table.size(), [&](std::size_t t) {
    auto [pos, nrm] = TheatricalMaskGeometry::assembleSources(MaskExpressionTargets::displacedFront(table[t], front));
    auto g = std::make_shared<Geometry>();
    g->name = table[t].name;
    g->sources = {std::move(pos), std::move(nrm)};
    g->elements = elements;
    (*list)[t] = MorphTarget::fromGeometry(neutral, *g);
  });
  return list;
}

// The targets are held only by those using them (about 28 MB): the shown
// mask needs only the renderer's GPU copy, so once its first frame took
// them they go, and whoever asks later (an export, the operator's
// wireframe, a renderer opened later) gets them rebuilt, identical.
std::mutex targetsMutex;
std::weak_ptr<const TargetList> heldTargets;

std::shared_ptr<const TargetList> sharedTargets() {
  std::lock_guard lock(targetsMutex);
  auto targets = heldTargets.lock();
  if (!targets) {
    targets = buildTargets();
    heldTargets = targets;
  }
  return targets;
}

// The targets if anyone holds them; null otherwise (nothing is built).
std::shared_ptr<const TargetList> targetsIfHeld() {
  std::lock_guard lock(targetsMutex);
  return heldTargets.lock();
}

const std::shared_ptr<const MorphTargetSource>& targetSource() {
  static const std::shared_ptr<const MorphTargetSource> source = [] {
    auto s = std::make_shared<MorphTargetSource>();
    s->count = MaskExpressionTargets::blendShapeDisplacements().size();
    s->load = sharedTargets;
    return s;
  }();
  return source;
}

}  // namespace

// ---------------------------------------------------------------------------
// [SECTION] Weights
// ---------------------------------------------------------------------------

float MaskExpressionTargets::jawWeight(float2 p, bool lower) {
  if (!lower) return 0.0f;
  const float ax = std::fabs(p.x);
  const float a = ax / 0.33f;
  const float f = a < 1.0f ? std::pow(1.0f - a * a, 0.8f) : 0.0f;
  const float g = expf32(-std::pow(ax / 0.44f, 4.0f));
  const float t = clamp01(mouthHeight(p) / -0.1f);
  const float S = smoothstep(t);
  // Mouth-shaped at the lip, full width well below the mouth.
  return (1.0f - S) * f + S * g;
}

float MaskExpressionTargets::upperLipBand(float2 p, bool lower) {
  if (lower) return 0.0f;
  const float f = lipWidthFalloff(p.x);
  const float m = mouthHeight(p);
  const float e = m < 0.0f ? 1.0f : expf32(m / -0.05f);
  return e * f;
}

float MaskExpressionTargets::lowerLipBand(float2 p, bool lower) {
  if (!lower) return 0.0f;
  const float f = lipWidthFalloff(p.x);
  const float m = mouthHeight(p);
  const float e = m > 0.0f ? 1.0f : expf32(m / 0.06f);
  return e * f;
}

MaskExpressionTargets::EyeFrame MaskExpressionTargets::eyeFrame(float2 p, float side) {
  EyeFrame f{};
  f.s = side;
  f.cosTheta = std::cos(TheatricalMaskGeometry::eyeAngle);
  f.sinTheta = side * std::sin(TheatricalMaskGeometry::eyeAngle);  // sin(s * angle), exactly mirrored
  const float dx = p.x - side * 0.4f;
  const float dy = p.y - 0.33f;
  f.lx = f.cosTheta * dx + f.sinTheta * dy;
  f.ly = f.cosTheta * dy - f.sinTheta * dx;
  f.r = std::fabs(f.lx) / 0.175f;
  if (f.r < 1.0f) {
    const float root = std::sqrt(1.0f - f.r * f.r);
    f.upperMargin = 0.046f * root;
    f.lowerMargin = 0.056f * root;
  }
  return f;
}

float MaskExpressionTargets::upperLidWeight(float2 p, float side) {
  const EyeFrame f = eyeFrame(p, side);
  if (!(f.ly > -0.005f)) return 0.0f;
  const float c = expf32(-std::pow(std::fabs(f.lx) / 0.1925f, 6.0f));
  const float h = f.r < 1.0f ? f.ly - f.upperMargin : f.ly;
  return c * expf32(-0.5f * sq(std::max(h, 0.0f) / 0.14f));
}

float MaskExpressionTargets::lowerLidWeight(float2 p, float side) {
  const EyeFrame f = eyeFrame(p, side);
  if (!(f.ly < 0.005f)) return 0.0f;
  const float c = expf32(-std::pow(std::fabs(f.lx) / 0.1925f, 6.0f));
  float h;
  if (f.r < 1.0f)
    h = std::max(-f.ly - f.lowerMargin, 0.0f);
  else
    h = f.ly <= 0.0f ? -f.ly : 0.0f;
  return c * expf32(-0.5f * sq(h / 0.06f));
}

float MaskExpressionTargets::mouthCornerBump(float2 p, float side) {
  // -0.394754 = -0.41 + 0.14 * 0.33^2, the mouth curve at the corner.
  return gaussian(p.x - 0.33f * side, p.y + 0.394754f, 0.1f, 0.09f);
}

// ---------------------------------------------------------------------------
// [SECTION] Table, targets, builders
// ---------------------------------------------------------------------------

const std::vector<MaskExpressionTargets::Entry>& MaskExpressionTargets::blendShapeDisplacements() {
  static const std::vector<Entry> table = buildTable();
  return table;
}

const std::unordered_map<std::string, int>& MaskExpressionTargets::targetNameToIndex() {
  static const std::unordered_map<std::string, int> map = targetNameIndex(blendShapeDisplacements());
  return map;
}

std::vector<float3> MaskExpressionTargets::displacedFront(const Entry& entry, const std::vector<float3>& neutralFront) {
  const auto& topo = TheatricalMaskGeometry::topology();
  std::vector<float3> out(neutralFront.size());
  for (std::size_t i = 0; i < out.size(); ++i)
    out[i] = neutralFront[i] + entry.displacement(topo.gridPoints[i], topo.lowerJaw[i]);
  return out;
}

std::shared_ptr<const Geometry> MaskExpressionTargets::neutralGeometry() { return cachedNeutral(); }

std::shared_ptr<const TargetList> MaskExpressionTargets::targets() { return sharedTargets(); }

CharacterBuild createTheatricalMaskNode() {
  CharacterBuild build;
  const auto& source = targetSource();
  build.morpher = std::make_shared<Morpher>();
  build.morpher->calculationMode = Morpher::CalculationMode::normalized;
  // Once a renderer holds its GPU copy, the mask shown again (after the
  // ghost) needs no CPU targets: it is back at once instead of 0.3 s later.
  build.morpher->targets = source->uploaded ? targetsIfHeld() : sharedTargets();
  build.morpher->source = source;
  build.morpher->weights.assign(source->count, 0.0f);
  build.node = Node::make("TheatricalMask");
  build.node->geometry = cachedNeutral();
  build.node->morpher = build.morpher;
  build.targetNameToIndex = MaskExpressionTargets::targetNameToIndex();
  return build;
}

std::shared_ptr<Morpher> makeWireframeMorpher() {
  auto morpher = std::make_shared<Morpher>();
  morpher->calculationMode = Morpher::CalculationMode::normalized;
  morpher->targets = sharedTargets();
  morpher->weights.assign(morpher->targets->size(), 0.0f);
  return morpher;
}

float maskNostrilOcclusionMetric() {
  const auto& topo = TheatricalMaskGeometry::topology();
  float sum = 0.0f;
  int count = 0;
  for (std::size_t i = 0; i < topo.frontCount(); ++i) {
    if (topo.snapped[i] != TheatricalMaskTopology::Snap::nostril) continue;
    sum += TheatricalMaskGeometry::occlusion(topo.gridPoints[i]);
    ++count;
  }
  return count > 0 ? sum / static_cast<float>(count) : 0.0f;
}

}  // namespace velmora
