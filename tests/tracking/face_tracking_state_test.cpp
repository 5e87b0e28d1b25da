// FaceTrackingState: the per-frame processing (filter, range, sensitivity),
// head rotation and position, calibration, ranges, filter parameters,
// observers and the OSC switch. The pipeline alone is in
// face_pipeline_test.cpp, persistence in tracking_settings_test.cpp.
//
// Index of this file:
//   [SECTION] Fixture
//   [SECTION] Initial values and packet bookkeeping
//   [SECTION] Blendshapes
//   [SECTION] Head and calibration
//   [SECTION] Ranges
//   [SECTION] Observers and setter side effects

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

#include "base/SettingsStore.h"
#include "support/TempDir.h"
#include "tracking/EyeGaze.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {
namespace {

using Property = FaceTrackingState::Property;

constexpr float nan = std::numeric_limits<float>::quiet_NaN();
constexpr float inf = std::numeric_limits<float>::infinity();

// ---------------------------------------------------------------------------
// [SECTION] Fixture
// ---------------------------------------------------------------------------

// A state over a private settings folder with a clock the test moves.
struct Fixture {
  test::TempDir dir;
  SettingsStore store{dir.path()};
  double now = 100.0;
  std::unique_ptr<FaceTrackingState> state = std::make_unique<FaceTrackingState>(store, [this] { return now; });

  void packet(BlendshapeMap shapes, double advance = 1.0 / 60.0) {
    now += advance;
    state->ingestPacket(std::move(shapes), std::nullopt, std::nullopt, "10.0.0.9:5000");
  }
  void rotation(float3 r, double advance = 1.0 / 60.0) {
    now += advance;
    state->ingestPacket(std::nullopt, r, std::nullopt, "10.0.0.9:5000");
  }
  void neutralSensitivities() {
    state->setMouthSensitivity(1.0f);
    state->setBrowSensitivity(1.0f);
  }
};

// ---------------------------------------------------------------------------
// [SECTION] Initial values and packet bookkeeping
// ---------------------------------------------------------------------------

TEST(FaceTrackingStateTest, InitialValuesAndTexts) {
  Fixture f;
  const FaceTrackingState& s = *f.state;
  EXPECT_TRUE(s.blendshapes().empty());
  EXPECT_EQ(s.headRotation(), float3(0.0f));
  EXPECT_FALSE(s.isCalibrated());
  EXPECT_FLOAT_EQ(s.smoothing(), 0.45f);
  EXPECT_FLOAT_EQ(s.mouthSensitivity(), 1.2f);
  EXPECT_FLOAT_EQ(s.browSensitivity(), 1.2f);
  EXPECT_EQ(s.eyeSensitivity(), 1.0f);
  EXPECT_FLOAT_EQ(s.lightIntensity(), 1.2f);
  EXPECT_EQ(s.rimLightColor(), float3(0.9f, 0.95f, 1.0f));
  EXPECT_TRUE(s.isSyphonActive());
  EXPECT_EQ(s.syphonStatus(), "Syphon: starting…");
  EXPECT_EQ(s.ndiStatus(), "NDI: off");
  EXPECT_FALSE(s.localIP().empty());
  EXPECT_EQ(s.senderIP(), "Waiting for iPhone...");
  EXPECT_EQ(s.lastQLabCommand(), "None");
  EXPECT_EQ(s.oscStatus(), "OSC cues: starting…");
}

TEST(FaceTrackingStateTest, PacketBookkeepingAndRate) {
  Fixture f;
  f.now = 0.0;
  f.state = std::make_unique<FaceTrackingState>(f.store, [&f] { return f.now; });
  for (int i = 1; i <= 30; ++i) {
    f.now = i * 0.03;  // up to 0.9 s: no rate yet
    f.state->ingestPacket(std::nullopt, std::nullopt, std::nullopt, "192.168.1.20:50123");
  }
  EXPECT_EQ(f.state->incomingFPS(), 0.0);
  EXPECT_EQ(f.state->totalPacketsReceived(), 30u);
  EXPECT_TRUE(f.state->isConnected());
  EXPECT_EQ(f.state->senderIP(), "192.168.1.20:50123");
  ASSERT_TRUE(f.state->lastPacketTimestamp());
  f.now = 1.25;
  f.state->ingestPacket(std::nullopt, std::nullopt, std::nullopt, "192.168.1.21:7");
  EXPECT_DOUBLE_EQ(f.state->incomingFPS(), 31 / 1.25);
  EXPECT_EQ(f.state->senderIP(), "192.168.1.21:7");
  // The count restarts: 10 packets over the next 2 s.
  for (int i = 1; i <= 10; ++i) {
    f.now = 1.25 + i * 0.2;
    f.state->ingestPacket(std::nullopt, std::nullopt, std::nullopt, "192.168.1.21:7");
  }
  EXPECT_DOUBLE_EQ(f.state->incomingFPS(), 5 / 1.0);  // the 5 packets up to 2.25 s
  EXPECT_EQ(f.state->totalPacketsReceived(), 41u);
}

TEST(FaceTrackingStateTest, FramesCarryTheAppTheEyesAndALostFace) {
  Fixture f;
  f.neutralSensitivities();
  FaceFrame frame;
  frame.sender = "192.168.1.7:49983";
  frame.blendshapes = BlendshapeMap{{"jawOpen", 0.5f}};
  frame.leftEyeRotation = float3(0.5f * eyeLookFullTurn, -eyeLookFullTurn, 0.0f);  // down half, in fully
  f.state->ingestFrame(frame, TrackingApp::iFacialMocap);
  EXPECT_EQ(f.state->senderApp(), "iFacialMocap");
  const BlendshapeMap& out = f.state->blendshapes();  // the first sample passes the filters unchanged
  EXPECT_FLOAT_EQ(out.at("eyeLookDownLeft"), 0.5f);
  EXPECT_EQ(out.at("eyeLookUpLeft"), 0.0f);
  EXPECT_EQ(out.at("eyeLookInLeft"), 1.0f);
  EXPECT_FALSE(out.contains("eyeLookDownRight"));  // no right eye sent
  // Sent eyeLook* values win over the eye rotations.
  frame.blendshapes = BlendshapeMap{{"eyeLookUpRight", 0.25f}};
  f.now += 1.0 / 60.0;
  f.state->ingestFrame(frame, TrackingApp::vtubeStudio);
  EXPECT_EQ(f.state->rawBlendshapes().at("eyeLookInLeft"), 1.0f);  // unchanged from the first frame
  EXPECT_EQ(f.state->senderApp(), "VTube Studio");
  // A faceless frame starts the ease at the next tick, long before the timeout.
  frame.faceFound = false;
  f.now += 1.0 / 60.0;
  f.state->ingestFrame(frame, TrackingApp::vtubeStudio);
  f.now += 1.0 / 60.0;
  f.state->updateTrackingLoss();
  EXPECT_TRUE(f.state->isTrackingLost());
}

// ---------------------------------------------------------------------------
// [SECTION] Blendshapes
// ---------------------------------------------------------------------------

TEST(FaceTrackingStateTest, FilterThenRangeThenSensitivity) {
  Fixture f;
  f.state->setRange("jawOpen", 0.2f, 0.6f);
  // Steady 0.4 inside (0.2, 0.6) is 0.5, then x1.2 for the mouth.
  f.packet({{"jawOpen", 0.4f}});
  EXPECT_FLOAT_EQ(f.state->blendshapes().at("jawOpen"), 0.6f);

  // A step is filtered before the range maps it: replay the same samples
  // through a filter with the blendshape creation parameters.
  Fixture g;
  g.state->setRange("jawOpen", 0.2f, 0.6f);
  OneEuroFilter1D reference(1.5f, 0.02f, 1.0f);
  const float inputs[] = {0.0f, 1.0f, 1.0f, 0.3f};
  for (float x : inputs) {
    g.packet({{"jawOpen", x}});
    const float filtered = reference.filter(x, g.now);
    float n = (filtered - 0.2f) / 0.4f;
    n = std::clamp(n, 0.0f, 1.0f) * 1.2f;
    EXPECT_FLOAT_EQ(g.state->blendshapes().at("jawOpen"), std::min(n, 1.0f)) << x;
    EXPECT_EQ(g.state->rawBlendshapes().at("jawOpen"), x);
  }
}

TEST(FaceTrackingStateTest, NamesSeenAtDifferentTimesKeepTheirOwnTimeSteps) {
  Fixture f;
  f.neutralSensitivities();
  OneEuroFilter1D cheek(1.5f, 0.02f, 1.0f), nose(1.5f, 0.02f, 1.0f);
  const std::vector<BlendshapeMap> packets = {
      {{"cheekPuff", 0.1f}, {"noseSneerLeft", 0.9f}},
      {{"cheekPuff", 0.6f}},
      {{"cheekPuff", 0.2f}, {"noseSneerLeft", 0.1f}},
      {{"noseSneerLeft", 0.5f}, {"cheekPuff", 0.2f}},
  };
  for (std::size_t i = 0; i < packets.size(); ++i) {
    if (i == 2) {  // parameters changed midway
      f.state->setSmoothing(0.2f);
      cheek.minCutoff = nose.minCutoff = (1.0f - 0.2f) * 3.0f * 1.2f;
      cheek.beta = nose.beta = (1.0f - 0.2f) * 0.02f * 1.5f;
    }
    f.packet(packets[i], 0.02 * static_cast<double>(i + 1));
    for (const auto& [name, value] : packets[i]) {
      const float expected = (name == "cheekPuff" ? cheek : nose).filter(value, f.now);
      EXPECT_EQ(f.state->blendshapes().at(name), expected) << i << name;
    }
  }
}

TEST(FaceTrackingStateTest, NonFiniteValuesAreSkipped) {
  Fixture f;
  f.packet({{"jawOpen", 0.5f}, {"eyeBlinkLeft", nan}, {"cheekPuff", inf}});
  EXPECT_EQ(f.state->blendshapes().size(), 1u);
  EXPECT_FALSE(f.state->rawBlendshapes().contains("eyeBlinkLeft"));
  EXPECT_FALSE(f.state->blendshapeFilter("cheekPuff"));
  const float before = f.state->blendshapes().at("jawOpen");
  f.packet({{"jawOpen", -inf}});
  EXPECT_EQ(f.state->blendshapes().at("jawOpen"), before);
  EXPECT_EQ(f.state->rawBlendshapes().at("jawOpen"), 0.5f);
  f.packet({});  // an empty map changes nothing
  EXPECT_EQ(f.state->blendshapes().size(), 1u);
  EXPECT_EQ(f.state->totalPacketsReceived(), 3u);
}

// ---------------------------------------------------------------------------
// [SECTION] Head and calibration
// ---------------------------------------------------------------------------

TEST(FaceTrackingStateTest, RecentreHoldsTheCapturedPoseAtZero) {
  Fixture f;
  const float3 pose(0.3f, -0.25f, 0.1f);
  for (int i = 0; i < 20; ++i) f.rotation(pose + float3(0.001f * i));
  f.state->ingestPacket({{{"jawOpen", 0.7f}}}, pose, float3(1, 2, 3), "a:1");
  f.state->setRange("jawOpen", 0.1f, std::nullopt);
  f.state->recentreNeutralPose();
  EXPECT_TRUE(f.state->isCalibrated());
  EXPECT_EQ(f.state->zeroRotationOffset(), pose);
  EXPECT_EQ(f.state->zeroPositionOffset(), float3(1, 2, 3));
  EXPECT_FALSE(f.state->rotationFilter().x().isPrimed());
  EXPECT_EQ(f.state->range("jawOpen").floor, 0.1f);  // ranges and blendshapes untouched
  EXPECT_TRUE(f.state->blendshapeFilter("jawOpen")->isPrimed());
  for (int i = 0; i < 5; ++i) {
    f.rotation(pose);
    EXPECT_EQ(f.state->headRotation(), float3(0.0f)) << i;
  }
  // Turning away from the neutral pose moves the head by the difference.
  Fixture fresh;
  fresh.rotation(float3(0.2f, 0.0f, 0.0f));
  f.state->recenterNeutralPose();
  f.rotation(pose + float3(0.2f, 0.0f, 0.0f));
  EXPECT_NEAR(f.state->headRotation().x, fresh.state->headRotation().x, 1e-6f);

  f.state->resetCalibration();
  EXPECT_FALSE(f.state->isCalibrated());
  EXPECT_EQ(f.state->zeroRotationOffset(), float3(0.0f));
  EXPECT_EQ(f.state->zeroPositionOffset(), float3(0.0f));
  EXPECT_EQ(f.state->range("jawOpen").floor, 0.1f);
}

TEST(FaceTrackingStateTest, LockRotationEasesToZeroWhileRawFollows) {
  Fixture f;
  for (int i = 0; i < 120; ++i) f.rotation(float3(0.5f, 0.4f, -0.3f));
  EXPECT_NEAR(f.state->headRotation().x, -0.5f, 1e-3f);
  f.state->setLockRotation(true);
  float previous = std::fabs(f.state->headRotation().x);
  f.rotation(float3(0.6f, 0.4f, -0.3f));
  EXPECT_EQ(f.state->rawRotation(), float3(0.6f, 0.4f, -0.3f));
  EXPECT_GT(std::fabs(f.state->headRotation().x), 0.01f);  // eases, does not jump
  for (int i = 0; i < 300; ++i) {
    f.rotation(float3(0.6f + 0.001f * i, 0.4f, -0.3f));
    const float now = std::fabs(f.state->headRotation().x);
    EXPECT_LE(now, previous);
    previous = now;
  }
  EXPECT_NEAR(f.state->rawRotation().x, 0.899f, 1e-5f);
  EXPECT_LT(glm::length(f.state->headRotation()), 1e-3f);
}

TEST(FaceTrackingStateTest, PositionNeverMovesTheHead) {
  Fixture f;
  for (int i = 0; i < 30; ++i) {
    f.now += 1.0 / 60.0;
    const float3 p(0.1f * i, -0.2f * i, 3.0f + i);
    f.state->ingestPacket(std::nullopt, std::nullopt, p, "x:1");
    EXPECT_EQ(f.state->rawPosition(), p);
    EXPECT_EQ(f.state->headPosition(), float3(0.0f));
  }
  f.state->recentreNeutralPose();
  f.state->ingestPacket(std::nullopt, std::nullopt, float3(nan), "x:1");
  EXPECT_EQ(f.state->headPosition(), float3(0.0f));
}

TEST(FaceTrackingStateTest, FilterParametersFollowSmoothing) {
  Fixture f;
  const OneEuroFilter1D& head = f.state->rotationFilter().x();
  EXPECT_FLOAT_EQ(head.minCutoff, 1.65f);
  EXPECT_FLOAT_EQ(head.beta, 0.011f);
  EXPECT_FLOAT_EQ(f.state->positionFilter().z().minCutoff, 1.65f);
  f.packet({{"jawOpen", 0.5f}});
  // A filter created by a packet keeps its creation values until the next update.
  EXPECT_EQ(f.state->blendshapeFilter("jawOpen")->minCutoff, 1.5f);
  EXPECT_EQ(f.state->blendshapeFilter("jawOpen")->beta, 0.02f);
  f.state->setSmoothing(0.45f);
  EXPECT_FLOAT_EQ(f.state->blendshapeFilter("jawOpen")->minCutoff, 1.98f);
  EXPECT_FLOAT_EQ(f.state->blendshapeFilter("jawOpen")->beta, 0.0165f);
  EXPECT_TRUE(f.state->blendshapeFilter("jawOpen")->isPrimed());

  f.state->setSmoothing(1.0f);
  EXPECT_FLOAT_EQ(head.minCutoff, 0.2f);
  EXPECT_FLOAT_EQ(head.beta, 0.001f);
  EXPECT_FLOAT_EQ(f.state->blendshapeFilter("jawOpen")->minCutoff, 0.24f);
  EXPECT_FLOAT_EQ(f.state->blendshapeFilter("jawOpen")->beta, 0.0015f);
  f.state->setSmoothing(0.0f);
  EXPECT_FLOAT_EQ(head.minCutoff, 3.0f);
  EXPECT_FLOAT_EQ(head.beta, 0.02f);
  EXPECT_EQ(head.dCutoff, 1.0f);
  f.state->setSmoothing(nan);  // never NaN parameters
  EXPECT_FLOAT_EQ(head.minCutoff, 0.2f);
  EXPECT_FLOAT_EQ(f.state->blendshapeFilter("jawOpen")->beta, 0.0015f);
}

// ---------------------------------------------------------------------------
// [SECTION] Ranges
// ---------------------------------------------------------------------------

TEST(FaceTrackingStateTest, SetRangeLimits) {
  Fixture f;
  FaceTrackingState& s = *f.state;
  EXPECT_EQ(s.range("jawOpen"), (BlendshapeRange{0.0f, 1.0f}));

  s.setRange("jawOpen", 0.99f, std::nullopt);
  EXPECT_FLOAT_EQ(s.range("jawOpen").floor, 0.98f);
  EXPECT_EQ(s.range("jawOpen").ceiling, 1.0f);
  s.setRange("jawOpen", 0.0f, 1.0f);
  EXPECT_FALSE(s.blendshapeRanges().contains("jawOpen"));

  s.setRange("cheekPuff", std::nullopt, 0.01f);
  EXPECT_EQ(s.range("cheekPuff").floor, 0.0f);
  EXPECT_FLOAT_EQ(s.range("cheekPuff").ceiling, 0.02f);

  s.setRange("browInnerUp", -0.5f, 2.0f);  // both clamped: neutral, removed
  EXPECT_FALSE(s.blendshapeRanges().contains("browInnerUp"));
  s.setRange("browInnerUp", nan, 0.7f);
  EXPECT_EQ(s.range("browInnerUp"), (BlendshapeRange{0.0f, 0.7f}));
  s.setRange("browInnerUp", 0.69f, std::nullopt);  // limited by the stored ceiling
  EXPECT_FLOAT_EQ(s.range("browInnerUp").floor, 0.68f);
  s.setRange("browInnerUp", 0.5f, 0.3f);  // ceiling raised above the new floor
  EXPECT_FLOAT_EQ(s.range("browInnerUp").ceiling, 0.52f);
  s.setRange("browInnerUp", std::nullopt, nan);  // NaN ceiling counts as 1
  EXPECT_EQ(s.range("browInnerUp").ceiling, 1.0f);

  // Every change is persisted as [floor, ceiling] doubles.
  auto stored = f.store.dictionary("blendshapeRanges");
  ASSERT_TRUE(stored);
  EXPECT_FALSE(stored->contains("jawOpen"));
  EXPECT_EQ((*stored)["cheekPuff"], nlohmann::json::array({0.0, static_cast<double>(0.02f)}));
  EXPECT_EQ((*stored)["browInnerUp"][0].get<double>(), 0.5);

  s.resetAllRanges();
  EXPECT_TRUE(s.blendshapeRanges().empty());
  EXPECT_EQ(*f.store.dictionary("blendshapeRanges"), nlohmann::json::object());
}

TEST(FaceTrackingStateTest, RangeChangesApplyToTheNextPacket) {
  Fixture f;
  f.packet({{"cheekPuff", 0.4f}});
  EXPECT_EQ(f.state->blendshapes().at("cheekPuff"), 0.4f);
  f.state->setRange("cheekPuff", 0.2f, 0.6f);
  f.packet({{"cheekPuff", 0.4f}});
  EXPECT_FLOAT_EQ(f.state->blendshapes().at("cheekPuff"), 0.5f);
  f.state->resetAllRanges();
  f.packet({{"cheekPuff", 0.4f}});
  EXPECT_EQ(f.state->blendshapes().at("cheekPuff"), 0.4f);
  // A stored span narrower than the 0.02 minimum gap counts as that gap.
  f.state->setBlendshapeRanges({{"noseSneerLeft", {0.5f, 0.51f}}});
  f.packet({{"noseSneerLeft", 0.51f}});  // a fresh filter: passed through exactly
  EXPECT_NEAR(f.state->blendshapes().at("noseSneerLeft"), 0.5f, 1e-5f);
  f.state->resetAllRanges();
  // Replacing the published maps must not leave stale slots behind.
  f.state->setBlendshapes({});
  f.state->setRawBlendshapes({});
  f.packet({{"cheekPuff", 0.4f}});
  EXPECT_EQ(f.state->blendshapes().at("cheekPuff"), 0.4f);
  EXPECT_EQ(f.state->rawBlendshapes().at("cheekPuff"), 0.4f);
}

TEST(FaceTrackingStateTest, FloorsFromCurrentPose) {
  Fixture f;
  f.packet({{"jawOpen", 0.95f}, {"cheekPuff", 0.3f}, {"browInnerUp", 0.0f}});
  f.state->setRange("cheekPuff", std::nullopt, 0.8f);
  f.state->setFloorsFromCurrentPose();
  EXPECT_FLOAT_EQ(f.state->range("jawOpen").floor, 0.9f);
  EXPECT_EQ(f.state->range("jawOpen").ceiling, 1.0f);
  EXPECT_EQ(f.state->range("cheekPuff"), (BlendshapeRange{0.3f, 0.8f}));
  EXPECT_FALSE(f.state->blendshapeRanges().contains("browInnerUp"));
  const auto stored = f.store.dictionary("blendshapeRanges");
  ASSERT_TRUE(stored);
  EXPECT_EQ(stored->size(), 2u);
}

// ---------------------------------------------------------------------------
// [SECTION] Observers and setter side effects
// ---------------------------------------------------------------------------

TEST(FaceTrackingStateTest, ObserversHearEveryWrite) {
  Fixture f;
  std::vector<Property> heard;
  const int token = f.state->observe([&](Property p) { heard.push_back(p); });
  f.state->setMaskOpacity(0.5f);
  f.state->setMaskOpacity(0.5f);  // unchanged values notify too
  EXPECT_EQ(heard, (std::vector<Property>{Property::maskOpacity, Property::maskOpacity}));
  // Observers see the new value.
  f.state->observe([&](Property p) {
    if (p == Property::smoothing) {
      EXPECT_EQ(f.state->smoothing(), 0.7f);
    }
  });
  f.state->setSmoothing(0.7f);

  heard.clear();
  f.state->ingestPacket({{{"jawOpen", 0.5f}}}, float3(0.1f), float3(0.2f), "s:1");
  for (Property p : {Property::totalPacketsReceived, Property::lastPacketTimestamp, Property::senderIP,
                     Property::isConnected, Property::rawRotation, Property::headRotation, Property::rawPosition,
                     Property::headPosition, Property::rawBlendshapes, Property::blendshapes}) {
    EXPECT_EQ(std::count(heard.begin(), heard.end(), p), 1) << static_cast<int>(p);
  }

  heard.clear();
  f.state->recentreNeutralPose();
  f.state->setRange("jawOpen", 0.1f, std::nullopt);
  f.state->setLastQLabCommand("/velmora/recentre");
  EXPECT_EQ(heard, (std::vector<Property>{Property::zeroRotationOffset, Property::zeroPositionOffset,
                                          Property::isCalibrated, Property::blendshapeRanges,
                                          Property::lastQLabCommand}));
  f.state->unobserve(token);
  heard.clear();
  f.state->setIsSyphonActive(false);
  EXPECT_TRUE(heard.empty());
}

TEST(FaceTrackingStateTest, ObserversMayUnobserveAndObserveWhileNotified) {
  Fixture f;
  int first = 0, second = 0, late = 0;
  int firstToken = 0;
  firstToken = f.state->observe([&](Property) {
    ++first;
    f.state->unobserve(firstToken);
    f.state->observe([&](Property) { ++late; });
  });
  f.state->observe([&](Property p) {
    ++second;
    if (p == Property::maskOpacity) f.state->setLightIntensity(2.0f);  // nested write
  });
  f.state->setMaskOpacity(0.3f);
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 2);  // maskOpacity, then the nested lightIntensity
  EXPECT_EQ(late, 1);    // added during the first notification, heard the nested one
  f.state->setMaskOpacity(0.4f);
  EXPECT_EQ(first, 1);
  f.state->unobserve(12345);  // unknown tokens are ignored
}

TEST(FaceTrackingStateTest, OSCSwitchPersistsAndSetsStatusBeforeObserversHear) {
  Fixture f;
  std::vector<bool> calls;
  // The application's cue-server switch is such an observer.
  const int token = f.state->observe([&](Property p) {
    if (p != Property::isOSCEnabled) return;
    const bool enabled = f.state->isOSCEnabled();
    calls.push_back(enabled);
    // By the time observers hear of it, the flag is stored and the status written.
    EXPECT_EQ(f.store.boolean("isOSCEnabled"), enabled);
    if (!enabled) {
      EXPECT_EQ(f.state->oscStatus(), "OSC cues: disabled");
    }
  });
  f.state->setIsOSCEnabled(false);
  EXPECT_FALSE(f.state->isOSCEnabled());
  f.state->setOscStatus("OSC cues: listening on UDP 53100");
  f.state->setIsOSCEnabled(true);
  EXPECT_EQ(f.state->oscStatus(), "OSC cues: listening on UDP 53100");  // only switching off writes it
  EXPECT_EQ(calls, (std::vector<bool>{false, true}));
  f.state->unobserve(token);
  f.state->setIsOSCEnabled(false);  // nobody observing: the status is still written
  EXPECT_EQ(f.state->oscStatus(), "OSC cues: disabled");
}

TEST(FaceTrackingStateTest, CharacterModelChangeHandling) {
  Fixture f;
  int notified = 0;
  f.state->observe([&](Property p) { notified += p == Property::characterModel; });
  f.state->setCharacterModel(CharacterModelType::cartoonGhost);
  EXPECT_EQ(f.store.string("characterModel"), "cartoon_ghost");
  f.store.remove("characterModel");
  f.state->handleCharacterModelChange();  // unchanged: still persisted and notified
  EXPECT_EQ(f.store.string("characterModel"), "cartoon_ghost");
  EXPECT_EQ(notified, 2);
}

#ifndef NDEBUG
TEST(FaceTrackingStateDeathTest, WritesOffTheMainThreadAreCaught) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Fixture f;
  EXPECT_DEATH(
      {
        std::thread worker([&] { f.state->setMaskOpacity(0.5f); });
        worker.join();
      },
      "must run on the main thread");
  EXPECT_DEATH(
      {
        std::thread worker([&] { f.state->ingestPacket(std::nullopt, std::nullopt, std::nullopt, "x:1"); });
        worker.join();
      },
      "must run on the main thread");
}
#endif

}  // namespace
}  // namespace velmora
