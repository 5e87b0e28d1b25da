// The face pipeline alone (regional sensitivities, head signs: no settings
// store, no observers, no clock but the times it is given), then
// FaceTrackingState around it: per-frame processing (filter, range,
// sensitivity), head rotation and position, calibration, ranges, filter
// parameters, observers and the OSC switch. Persistence is in
// tracking_settings_test.cpp.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <optional>
#include <thread>
#include <tuple>
#include <vector>

#include "support/StateFixture.h"
#include "tracking/EyeGaze.h"
#include "tracking/FacePipeline.h"

namespace velmora {
namespace {

using testing::FloatEq;
using testing::Pointwise;
using Property = FaceTrackingState::Property;

constexpr float nan = std::numeric_limits<float>::quiet_NaN();
constexpr float inf = std::numeric_limits<float>::infinity();

TEST(FacePipelineTest, RegionalSensitivityAndClamping) {
  // First samples (the filters pass them through) with the default mouth and
  // brow 1.2 and an eye 1.5; names outside the 52 are processed alike.
  const std::tuple<const char*, float, float> rows[] = {
      {"jawOpen", 0.5f, 0.6f},       {"mouthSmileLeft", 0.5f, 0.6f}, {"browInnerUp", 0.5f, 0.6f},
      {"eyeBlinkLeft", 0.5f, 0.75f}, {"cheekPuff", 0.5f, 0.5f},      {"tongueOut", 0.5f, 0.5f},
      {"someOtherName", 0.5f, 0.5f}, {"mouthFunnel", 0.9f, 1.0f},  // 1.08 clamped
      {"noseSneerLeft", -0.3f, 0.0f},
  };
  FacePipeline pipeline;
  FacePipeline::Sensitivities sensitivities;  // the state's defaults
  sensitivities.eye = 1.5f;
  BlendshapeMap shapes, raw, out;
  for (const auto& [name, received, processed] : rows) shapes[name] = received;
  pipeline.blendshapes(shapes, 100.0, {}, sensitivities, {raw, out});
  for (const auto& [name, received, processed] : rows) EXPECT_FLOAT_EQ(out.at(name), processed) << name;
  EXPECT_EQ(raw.at("noseSneerLeft"), -0.3f);

  // The same values again: the filters keep them whatever their parameters.
  sensitivities.global = 0.8f;
  pipeline.blendshapes({{"jawOpen", 0.5f}, {"browInnerUp", 0.5f}, {"eyeBlinkLeft", 0.5f}, {"cheekPuff", 0.5f}},
                       100.0, {}, sensitivities, {raw, out});
  EXPECT_THAT((std::vector{out.at("jawOpen"), out.at("browInnerUp"), out.at("eyeBlinkLeft"), out.at("cheekPuff")}),
              Pointwise(FloatEq(), {0.48f, 0.48f, 0.6f, 0.4f}));
  sensitivities.global = nan;
  pipeline.blendshapes({{"cheekPuff", 0.5f}}, 100.0, {}, sensitivities, {raw, out});
  EXPECT_EQ(out.at("cheekPuff"), 0.0f);  // NaN clamps to 0
}

TEST(FacePipelineTest, RotationSignsScaleAndReverseFlags) {
  const float3 received(0.1f, -0.2f, 0.3f);
  // `.neutralRotation = {}` names the last field, which the compiler wants after designated ones.
  const std::pair<FacePipeline::HeadOptions, float3> cases[] = {
      {{}, {-0.1f, 0.2f, -0.3f}},  // inverted by default
      {{.reverseUpDown = true, .neutralRotation = {}}, {0.1f, 0.2f, -0.3f}},
      {{.reverseLeftRight = true, .neutralRotation = {}}, {-0.1f, -0.2f, -0.3f}},
      {{.reverseTilt = true, .neutralRotation = {}}, {-0.1f, 0.2f, 0.3f}},
      {{.rotationScale = 2.0f, .reverseUpDown = true, .reverseLeftRight = true, .reverseTilt = true,
        .neutralRotation = {}},
       {0.2f, -0.4f, 0.6f}},
  };
  for (const auto& [head, expected] : cases) {
    FacePipeline pipeline;
    // First sample: the filter passes it through.
    EXPECT_EQ(pipeline.rotation(received, head, 100.0), expected)
        << head.reverseUpDown << head.reverseLeftRight << head.reverseTilt;
  }
}

// A state over a private settings folder with a clock the test moves.
struct Fixture : test::StateFixture {
  explicit Fixture(double start = 100.0) : StateFixture(true, start) {}
  void packet(BlendshapeMap shapes, double advance = 1.0 / 60.0) {
    now += advance;
    state.ingestPacket(std::move(shapes), std::nullopt, std::nullopt, "10.0.0.9:5000");
  }
  void rotation(float3 r, double advance = 1.0 / 60.0) {
    now += advance;
    state.ingestPacket(std::nullopt, r, std::nullopt, "10.0.0.9:5000");
  }
};

TEST(FaceTrackingStateTest, InitialValuesThenPacketBookkeepingAndRate) {
  Fixture f(0.0);
  const FaceTrackingState& s = f.state;
  // Smoothing 0.45 and the mouth's 1.2 are pinned by the filter-parameter
  // and per-name tests, "NDI: off" by OutputSyncTest (not written again).
  EXPECT_EQ(std::tuple(s.isCalibrated(), s.browSensitivity(), s.eyeSensitivity(), s.lightIntensity(), s.rimLightColor(),
                       s.isSyphonActive(), s.syphonStatus(), s.senderIP(), s.lastQLabCommand(), s.oscStatus()),
            std::tuple(false, 1.2f, 1.0f, 1.2f, float3(0.9f, 0.95f, 1.0f), true, "Syphon: starting…",
                       "Waiting for iPhone...", "None", "OSC cues: starting…"));
  EXPECT_FALSE(s.localIP().empty());

  auto at = [&](double t, const char* sender) {
    f.now = t;
    f.state.ingestPacket(std::nullopt, std::nullopt, std::nullopt, sender);
  };
  for (int i = 1; i <= 30; ++i) at(i * 0.03, "192.168.1.20:50123");  // up to 0.9 s: no rate yet
  // The count, the newest sender and the last packet's time are shown by
  // TrackingIntakeTest's status line and the allow-list net test.
  EXPECT_EQ(std::tuple(f.state.incomingFPS(), f.state.isConnected()), std::tuple(0.0, true));
  at(1.25, "192.168.1.21:7");
  EXPECT_DOUBLE_EQ(f.state.incomingFPS(), 31 / 1.25);
  // The count restarts: 10 packets over the next 2 s.
  for (int i = 1; i <= 10; ++i) at(1.25 + i * 0.2, "192.168.1.21:7");
  EXPECT_DOUBLE_EQ(f.state.incomingFPS(), 5 / 1.0);  // the 5 packets up to 2.25 s
}

// The app's name each frame carries is shown by TrackingIntakeTest's status
// line and PhoneConnectionTest's "answered (VTube Studio)".
TEST(FaceTrackingStateTest, FramesCarryTheEyesAndALostFace) {
  Fixture f;
  FaceFrame frame;
  frame.sender = "192.168.1.7:49983";
  frame.blendshapes = BlendshapeMap{{"jawOpen", 0.5f}};
  frame.leftEyeRotation = float3(0.5f * eyeLookFullTurn, -eyeLookFullTurn, 0.0f);  // down half, in fully
  f.state.ingestFrame(frame, TrackingApp::iFacialMocap);
  const BlendshapeMap& out = f.state.blendshapes();  // the first sample passes the filters unchanged
  // No right eye sent.
  EXPECT_EQ(std::tuple(out.at("eyeLookDownLeft"), out.at("eyeLookUpLeft"), out.at("eyeLookInLeft"),
                       out.contains("eyeLookDownRight")),
            std::tuple(0.5f, 0.0f, 1.0f, false));
  // Sent eyeLook* values win over the eye rotations.
  frame.blendshapes = BlendshapeMap{{"eyeLookUpRight", 0.25f}};
  f.now += 1.0 / 60.0;
  f.state.ingestFrame(frame, TrackingApp::vtubeStudio);
  EXPECT_EQ(f.state.rawBlendshapes().at("eyeLookInLeft"), 1.0f);  // unchanged from the first frame
  // A faceless frame starts the ease at the next tick, long before the timeout.
  frame.faceFound = false;
  f.now += 1.0 / 60.0;
  f.state.ingestFrame(frame, TrackingApp::vtubeStudio);
  f.now += 1.0 / 60.0;
  f.state.updateTrackingLoss();
  EXPECT_TRUE(f.state.isTrackingLost());
}

// Each name's filter, then its range, then the regional sensitivity; names
// seen at different times keep their own time steps.
TEST(FaceTrackingStateTest, FilterThenRangeThenSensitivityPerNameWithParametersFollowingSmoothing) {
  // Replay the same samples through filters with the creation parameters; the
  // mouth's sensitivity is its default 1.2.
  Fixture f;
  f.state.setRange("jawOpen", 0.2f, 0.6f);
  f.state.setBrowSensitivity(1.0f);
  OneEuroFilter1D jaw(1.5f, 0.02f, 1.0f), brow(1.5f, 0.02f, 1.0f);
  const std::vector<BlendshapeMap> packets = {
      {{"jawOpen", 0.0f}, {"browInnerUp", 0.9f}}, {{"jawOpen", 1.0f}}, {{"jawOpen", 1.0f}, {"browInnerUp", 0.1f}},
      {{"browInnerUp", 0.5f}, {"jawOpen", 0.3f}},
  };
  for (std::size_t i = 0; i < packets.size(); ++i) {
    f.packet(packets[i], 0.02 * static_cast<double>(i + 1));
    for (const auto& [name, x] : packets[i]) {
      SCOPED_TRACE(testing::Message() << i << " " << name);
      EXPECT_EQ(f.state.rawBlendshapes().at(name), x);
      if (name == "browInnerUp") {
        EXPECT_EQ(f.state.blendshapes().at(name), brow.filter(x, f.now));
        continue;
      }
      const float n = std::clamp((jaw.filter(x, f.now) - 0.2f) / 0.4f, 0.0f, 1.0f) * 1.2f;
      EXPECT_FLOAT_EQ(f.state.blendshapes().at(name), std::min(n, 1.0f));
    }
  }

  // The filters' parameters: the head's from the start, a blendshape's from its
  // creation; a smoothing change re-parameterises them without resetting them.
  const OneEuroFilter1D& head = f.state.rotationFilter().x();
  // The default smoothing 0.45 from the start.
  EXPECT_THAT((std::vector{head.minCutoff, head.beta}), Pointwise(FloatEq(), {1.65f, 0.011f}));
  f.packet({{"jawOpen", 0.5f}});
  // A filter created by a packet keeps its creation values until the next update.
  EXPECT_EQ(std::tuple(f.state.blendshapeFilter("jawOpen")->minCutoff, f.state.blendshapeFilter("jawOpen")->beta),
            std::tuple(1.5f, 0.02f));
  // Head: (1 - s) * 3 + 0.2 * s and (1 - s) * 0.02 + 0.001 * s; blendshapes x1.2 and x1.5.
  // Smoothing, head minCutoff and beta, blendshape minCutoff and beta:
  const std::tuple<float, float, float, float, float> rows[] = {
      {0.45f, 1.65f, 0.011f, 1.98f, 0.0165f},
      {1.0f, 0.2f, 0.001f, 0.24f, 0.0015f},
      {0.0f, 3.0f, 0.02f, 3.6f, 0.03f},
      {nan, 0.2f, 0.001f, 0.24f, 0.0015f},  // never NaN parameters
  };
  for (const auto& [smoothing, headCutoff, headBeta, shapeCutoff, shapeBeta] : rows) {
    SCOPED_TRACE(smoothing);
    f.state.setSmoothing(smoothing);
    const OneEuroFilter1D shape = *f.state.blendshapeFilter("jawOpen");
    EXPECT_THAT((std::vector{head.minCutoff, head.beta, f.state.positionFilter().z().minCutoff, shape.minCutoff,
                             shape.beta}),
                Pointwise(FloatEq(), {headCutoff, headBeta, headCutoff, shapeCutoff, shapeBeta}));
    EXPECT_EQ(std::tuple(head.dCutoff, shape.isPrimed()), std::tuple(1.0f, true));
  }
}

TEST(FaceTrackingStateTest, NonFiniteValuesAreSkipped) {
  Fixture f;
  f.packet({{"jawOpen", 0.5f}, {"eyeBlinkLeft", nan}, {"cheekPuff", inf}});
  EXPECT_EQ(std::tuple(f.state.blendshapes().size(), f.state.rawBlendshapes().contains("eyeBlinkLeft"),
                       f.state.blendshapeFilter("cheekPuff").has_value()),
            std::tuple(1u, false, false));
  const float before = f.state.blendshapes().at("jawOpen");
  f.packet({{"jawOpen", -inf}});
  EXPECT_EQ(std::tuple(f.state.blendshapes().at("jawOpen"), f.state.rawBlendshapes().at("jawOpen")),
            std::tuple(before, 0.5f));
  f.packet({});  // an empty map changes nothing
  EXPECT_EQ(std::tuple(f.state.blendshapes().size(), f.state.totalPacketsReceived()), std::tuple(1u, 3u));
}

TEST(FaceTrackingStateTest, RecentreHoldsTheCapturedPoseAtZeroAndLockEasesToZero) {
  Fixture f;
  FaceTrackingState& s = f.state;
  const float3 pose(0.3f, -0.25f, 0.1f);
  for (int i = 0; i < 20; ++i) f.rotation(pose + float3(0.001f * i));
  s.ingestPacket({{{"jawOpen", 0.7f}}}, pose, float3(1, 2, 3), "a:1");
  EXPECT_EQ(s.headPosition(), float3(0.0f));  // the position never moves the head (raw: the offset below)
  s.setRange("jawOpen", 0.1f, std::nullopt);
  s.recentreNeutralPose();  // isCalibrated on and off: MenuCommandsTest
  // The head filter restarts; ranges and blendshapes are untouched.
  EXPECT_EQ(std::tuple(s.zeroRotationOffset(), s.zeroPositionOffset(), s.rotationFilter().x().isPrimed(),
                       s.range("jawOpen").floor, s.blendshapeFilter("jawOpen")->isPrimed()),
            std::tuple(pose, float3(1, 2, 3), false, 0.1f, true));
  for (int i = 0; i < 5; ++i) {
    f.rotation(pose);
    EXPECT_EQ(s.headRotation(), float3(0.0f)) << i;
  }
  s.ingestPacket(std::nullopt, std::nullopt, float3(4, 5, 6), "x:1");  // not moved by the offset either
  EXPECT_EQ(s.headPosition(), float3(0.0f));
  // Turning away from the neutral pose moves the head by the difference.
  Fixture fresh;
  fresh.rotation(float3(0.2f, 0.0f, 0.0f));
  s.recenterNeutralPose();
  f.rotation(pose + float3(0.2f, 0.0f, 0.0f));
  EXPECT_NEAR(s.headRotation().x, fresh.state.headRotation().x, 1e-6f);

  s.resetCalibration();
  EXPECT_EQ(std::tuple(s.zeroRotationOffset(), s.zeroPositionOffset(), s.range("jawOpen").floor),
            std::tuple(float3(0.0f), float3(0.0f), 0.1f));

  // Locked, the head eases to zero while the raw rotation follows the sender.
  for (int i = 0; i < 120; ++i) f.rotation(float3(0.5f, 0.4f, -0.3f));
  EXPECT_NEAR(f.state.headRotation().x, -0.5f, 1e-3f);
  f.state.setLockRotation(true);
  float previous = std::fabs(f.state.headRotation().x);
  f.rotation(float3(0.6f, 0.4f, -0.3f));
  EXPECT_GT(std::fabs(f.state.headRotation().x), 0.01f);  // eases, does not jump
  for (int i = 0; i < 300; ++i) {
    f.rotation(float3(0.6f + 0.001f * i, 0.4f, -0.3f));
    const float now = std::fabs(f.state.headRotation().x);
    EXPECT_LE(now, std::exchange(previous, now));
  }
  EXPECT_NEAR(f.state.rawRotation().x, 0.899f, 1e-5f);
  EXPECT_LT(glm::length(f.state.headRotation()), 1e-3f);
}

// Set range limits, the next packet mapped through them, and floors taken
// from the current pose, one after the other on one state.
TEST(FaceTrackingStateTest, RangesKeepTheirLimitsApplyToTheNextPacketAndTakeFloorsFromThePose) {
  Fixture f;
  FaceTrackingState& s = f.state;
  EXPECT_EQ(s.range("jawOpen"), (BlendshapeRange{0.0f, 1.0f}));
  // Applied in order; floor and ceiling stay 0.02 apart inside [0, 1]. Name, floor and
  // ceiling set, the range then, and whether it is stored (not neutral):
  const std::tuple<const char*, std::optional<float>, std::optional<float>, BlendshapeRange, bool> rows[] = {
      {"jawOpen", 0.99f, std::nullopt, {0.98f, 1.0f}, true},
      {"jawOpen", 0.0f, 1.0f, {0.0f, 1.0f}, false},
      {"cheekPuff", std::nullopt, 0.01f, {0.0f, 0.02f}, true},
      {"browInnerUp", -0.5f, 2.0f, {0.0f, 1.0f}, false},  // both clamped: neutral, removed
      {"browInnerUp", nan, 0.7f, {0.0f, 0.7f}, true},
      {"browInnerUp", 0.69f, std::nullopt, {0.68f, 0.7f}, true},  // limited by the stored ceiling
      {"browInnerUp", 0.5f, 0.3f, {0.5f, 0.52f}, true},           // ceiling raised above the new floor
      {"browInnerUp", std::nullopt, nan, {0.5f, 1.0f}, true},     // NaN ceiling counts as 1
  };
  for (const auto& [name, floor, ceiling, range, stored] : rows) {
    SCOPED_TRACE(testing::Message() << name << " " << floor.value_or(-1) << " " << ceiling.value_or(-1));
    s.setRange(name, floor, ceiling);
    EXPECT_THAT((std::vector{s.range(name).floor, s.range(name).ceiling}),
                Pointwise(FloatEq(), {range.floor, range.ceiling}));
    EXPECT_EQ(s.blendshapeRanges().contains(name), stored);
  }
  // The whole map is stored on each change (its stored form:
  // TrackingSettingsTest.SettingsSurviveARestartInTheirStoredForms).
  s.resetAllRanges();
  EXPECT_TRUE(s.blendshapeRanges().empty());
  EXPECT_EQ(*f.store.dictionary("blendshapeRanges"), nlohmann::json::object());

  s.setRange("cheekPuff", 0.2f, 0.6f);
  f.packet({{"cheekPuff", 0.4f}});
  EXPECT_FLOAT_EQ(s.blendshapes().at("cheekPuff"), 0.5f);
  s.resetAllRanges();
  f.packet({{"cheekPuff", 0.4f}});
  EXPECT_EQ(s.blendshapes().at("cheekPuff"), 0.4f);
  // A stored span narrower than the 0.02 minimum gap counts as that gap.
  s.setBlendshapeRanges({{"noseSneerLeft", {0.5f, 0.51f}}});
  f.packet({{"noseSneerLeft", 0.51f}});  // a fresh filter: passed through exactly
  EXPECT_NEAR(s.blendshapes().at("noseSneerLeft"), 0.5f, 1e-5f);
  s.resetAllRanges();
  // Replacing the published maps must not leave stale slots behind.
  s.setBlendshapes({});
  s.setRawBlendshapes({});
  f.packet({{"cheekPuff", 0.4f}});
  EXPECT_EQ(std::tuple(s.blendshapes().at("cheekPuff"), s.rawBlendshapes().at("cheekPuff")), std::tuple(0.4f, 0.4f));

  // Floors from the raw pose, at most 0.9; a 0 stays neutral.
  f.packet({{"jawOpen", 0.95f}, {"cheekPuff", 0.3f}, {"browInnerUp", 0.0f}});
  s.setRange("cheekPuff", std::nullopt, 0.8f);
  s.setFloorsFromCurrentPose();
  EXPECT_EQ(s.blendshapeRanges(), (BlendshapeRanges{{"jawOpen", {0.9f, 1.0f}}, {"cheekPuff", {0.3f, 0.8f}}}));
  EXPECT_EQ(f.store.dictionary("blendshapeRanges")->size(), 2u);
}

TEST(FaceTrackingStateTest, ObserversHearEveryWriteMayChangeWhileNotifiedAndReadTheNewValue) {
  Fixture f;
  std::vector<Property> heard;
  const int token = f.state.observe([&](Property p) { heard.push_back(p); });
  f.state.setMaskOpacity(0.5f);
  f.state.setMaskOpacity(0.5f);  // unchanged values notify too
  EXPECT_EQ(heard, (std::vector<Property>{Property::maskOpacity, Property::maskOpacity}));

  heard.clear();
  f.state.ingestPacket({{{"jawOpen", 0.5f}}}, float3(0.1f), float3(0.2f), "s:1");
  for (Property p : {Property::totalPacketsReceived, Property::lastPacketTimestamp, Property::senderIP,
                     Property::isConnected, Property::rawRotation, Property::headRotation, Property::rawPosition,
                     Property::headPosition, Property::rawBlendshapes, Property::blendshapes}) {
    EXPECT_EQ(std::count(heard.begin(), heard.end(), p), 1) << static_cast<int>(p);
  }

  heard.clear();
  f.state.recentreNeutralPose();
  f.state.setRange("jawOpen", 0.1f, std::nullopt);
  f.state.setLastQLabCommand("/velmora/recentre");
  EXPECT_EQ(heard, (std::vector<Property>{Property::zeroRotationOffset, Property::zeroPositionOffset,
                                          Property::isCalibrated, Property::blendshapeRanges,
                                          Property::lastQLabCommand}));
  f.state.unobserve(token);
  heard.clear();
  f.state.setIsSyphonActive(false);
  EXPECT_TRUE(heard.empty());

  // Observers may unobserve and observe while notified.
  int first = 0, second = 0, late = 0;
  const int firstToken = f.state.observe([&](Property) {
    ++first;
    f.state.unobserve(firstToken);
    f.state.observe([&](Property) { ++late; });
  });
  f.state.observe([&](Property p) {
    ++second;
    if (p == Property::maskOpacity) f.state.setLightIntensity(2.0f);  // nested write
  });
  f.state.setMaskOpacity(0.3f);
  // The second heard maskOpacity, then the nested lightIntensity; the late one,
  // added during the first notification, heard the nested one.
  EXPECT_EQ(std::tuple(first, second, late), std::tuple(1, 2, 1));
  f.state.setMaskOpacity(0.4f);
  EXPECT_EQ(first, 1);
  f.state.unobserve(12345);  // unknown tokens are ignored

  // The application's cue-server switch is such an observer: it reads the new
  // value, already stored, with the status written.
  std::vector<bool> calls;
  f.state.observe([&](Property p) {
    if (p != Property::isOSCEnabled) return;
    const bool enabled = f.state.isOSCEnabled();
    calls.push_back(enabled);
    // By the time observers hear of it, the flag is stored and the status written.
    EXPECT_EQ(f.store.boolean("isOSCEnabled"), enabled);
    if (!enabled) {
      EXPECT_EQ(f.state.oscStatus(), "OSC cues: disabled");
    }
  });
  f.state.setIsOSCEnabled(false);
  f.state.setOscStatus("OSC cues: listening on UDP 53100");
  f.state.setIsOSCEnabled(true);
  EXPECT_EQ(f.state.oscStatus(), "OSC cues: listening on UDP 53100");  // only switching off writes it
  EXPECT_EQ(calls, (std::vector<bool>{false, true}));
}

#ifndef NDEBUG
TEST(FaceTrackingStateDeathTest, WritesOffTheMainThreadAreCaught) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Fixture f;
  auto offMain = [](const std::function<void()>& write) { std::thread(write).join(); };
  EXPECT_DEATH(offMain([&] { f.state.setMaskOpacity(0.5f); }), "must run on the main thread");
  EXPECT_DEATH(offMain([&] { f.state.ingestPacket(std::nullopt, std::nullopt, std::nullopt, "x:1"); }),
               "must run on the main thread");
}
#endif

}  // namespace
}  // namespace velmora
