// The face pipeline alone: no settings store, no observers, and no clock but
// the times it is given. The state's own tests cover what it publishes.
#include "tracking/FacePipeline.h"

#include <gtest/gtest.h>

#include <limits>

namespace velmora {
namespace {

constexpr float nan = std::numeric_limits<float>::quiet_NaN();

// A pipeline with the state's default smoothing and sensitivities.
struct Pipe {
  Pipe() { pipeline.updateFilterParameters(0.45f); }
  FacePipeline pipeline;
  FacePipeline::Sensitivities sensitivities;
  BlendshapeRanges ranges;
  BlendshapeMap raw, out;
  double now = 100.0;

  void packet(const BlendshapeMap& shapes, double advance = 1.0 / 60.0) {
    now += advance;
    pipeline.blendshapes(shapes, now, ranges, sensitivities, {raw, out});
  }
};

TEST(FacePipelineTest, RegionalSensitivityAndClamping) {
  Pipe f;
  f.sensitivities.eye = 1.5f;
  f.packet({{"jawOpen", 0.5f},
            {"mouthSmileLeft", 0.5f},
            {"browInnerUp", 0.5f},
            {"eyeBlinkLeft", 0.5f},
            {"cheekPuff", 0.5f},
            {"tongueOut", 0.5f},
            {"someOtherName", 0.5f},
            {"mouthFunnel", 0.9f},
            {"noseSneerLeft", -0.3f}});
  const auto& b = f.out;
  EXPECT_FLOAT_EQ(b.at("jawOpen"), 0.6f);
  EXPECT_FLOAT_EQ(b.at("mouthSmileLeft"), 0.6f);
  EXPECT_FLOAT_EQ(b.at("browInnerUp"), 0.6f);
  EXPECT_FLOAT_EQ(b.at("eyeBlinkLeft"), 0.75f);
  EXPECT_EQ(b.at("cheekPuff"), 0.5f);
  EXPECT_EQ(b.at("tongueOut"), 0.5f);
  EXPECT_EQ(b.at("someOtherName"), 0.5f);  // names outside the 52 are processed alike
  EXPECT_EQ(b.at("mouthFunnel"), 1.0f);    // 1.08 clamped
  EXPECT_EQ(b.at("noseSneerLeft"), 0.0f);
  EXPECT_EQ(f.raw.at("noseSneerLeft"), -0.3f);

  f.sensitivities.global = 0.8f;
  f.packet({{"jawOpen", 0.5f}, {"cheekPuff", 0.5f}}, 0.0);
  EXPECT_FLOAT_EQ(f.out.at("jawOpen"), 0.48f);
  EXPECT_FLOAT_EQ(f.out.at("cheekPuff"), 0.4f);
  f.sensitivities.global = nan;
  f.packet({{"cheekPuff", 0.5f}}, 0.0);
  EXPECT_EQ(f.out.at("cheekPuff"), 0.0f);  // NaN clamps to 0
}

TEST(FacePipelineTest, RotationSignsScaleAndReverseFlags) {
  struct Case {
    bool upDown, leftRight, tilt;
    float scale;
    float3 expected;
  };
  const float3 received(0.1f, -0.2f, 0.3f);
  const Case cases[] = {
      {false, false, false, 1.0f, {-0.1f, 0.2f, -0.3f}},  // inverted by default
      {true, false, false, 1.0f, {0.1f, 0.2f, -0.3f}},
      {false, true, false, 1.0f, {-0.1f, -0.2f, -0.3f}},
      {false, false, true, 1.0f, {-0.1f, 0.2f, 0.3f}},
      {true, true, true, 2.0f, {0.2f, -0.4f, 0.6f}},
  };
  for (const Case& c : cases) {
    Pipe f;
    FacePipeline::HeadOptions head;
    head.reverseUpDown = c.upDown;
    head.reverseLeftRight = c.leftRight;
    head.reverseTilt = c.tilt;
    head.rotationScale = c.scale;
    // First sample: the filter passes it through.
    EXPECT_EQ(f.pipeline.rotation(received, head, f.now), c.expected) << c.upDown << c.leftRight << c.tilt;
  }
}

}  // namespace
}  // namespace velmora
