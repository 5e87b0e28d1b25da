// The phone apps' datagrams exactly as they send them: iFacialMocap's line
// (its own spellings, labelled head and eyes), its newer "name&value"
// items, a VMC sender's head bone, VTube Studio's phone JSON.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "support/OscBytes.h"
#include "tracking/TrackingDecoders.h"

namespace velmora {
namespace {

const std::string kSender = "192.168.1.7:49983";
constexpr float kDeg = 0.017453292f;

DecodedDatagram decode(std::string_view text) {
  return decodeDatagram({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}, kSender);
}

TEST(PhoneAppsTest, IFacialMocapLineGivesEveryNameWithItsValueAndTheHead) {
  // Every one of the 52, as the app spells them, at (case index + 1) percent.
  const std::string line =
    "browDown_L-1|browDown_R-2|browInnerUp-3|browOuterUp_L-4|browOuterUp_R-5|cheekPuff-6|cheekSquint_L-7|"
    "cheekSquint_R-8|eyeBlink_L-9|eyeBlink_R-10|eyeLookDown_L-11|eyeLookDown_R-12|eyeLookIn_L-13|eyeLookI"
    "n_R-14|eyeLookOut_L-15|eyeLookOut_R-16|eyeLookUp_L-17|eyeLookUp_R-18|eyeSquint_L-19|eyeSquint_R-20|e"
    "yeWide_L-21|eyeWide_R-22|jawForward-23|jawLeft-24|jawOpen-25|jawRight-26|mouthClose-27|mouthDimple_L"
    "-28|mouthDimple_R-29|mouthFrown_L-30|mouthFrown_R-31|mouthFunnel-32|mouthLeft-33|mouthLowerDown_L-34"
    "|mouthLowerDown_R-35|mouthPress_L-36|mouthPress_R-37|mouthPucker-38|mouthRight-39|mouthRollLower-40|"
    "mouthRollUpper-41|mouthShrugLower-42|mouthShrugUpper-43|mouthSmile_L-44|mouthSmile_R-45|mouthStretch"
    "_L-46|mouthStretch_R-47|mouthUpperUp_L-48|mouthUpperUp_R-49|noseSneer_L-50|noseSneer_R-51|tongueOut-"
    "52|=head#-21.5,-6.04,-6.6,-0.031,-0.103,-0.658|rightEye#6.03,2.44,0.26|leftEye#6.03,-1.67,-0.18|";
  const auto d = decode(line);
  ASSERT_EQ(d.format, TrackingFormat::iFacialMocap);
  const FaceFrame& f = d.frame->frame;
  EXPECT_EQ(d.frame->app, TrackingApp::iFacialMocap);
  EXPECT_EQ(f.blendshapes->size(), 52u);
  for (const auto shape : allCases<ARKitBlendShape>()) {
    const float* value = f.blendshapes->get(shape);
    ASSERT_TRUE(value) << rawValue(shape);
    EXPECT_EQ(*value, static_cast<float>(index(shape) + 1) / 100.0f) << rawValue(shape);
  }
  EXPECT_EQ(*f.rotation, float3(-21.5f, -6.04f, -6.6f) * kDeg);  // pitch from the labelled first field
  EXPECT_EQ(*f.position, float3(-0.031f, -0.103f, -0.658f) / 100.0f);  // the sixth field ends at "|"
  EXPECT_EQ(*f.rightEyeRotation, float3(6.03f, 2.44f, 0.26f) * kDeg);
  EXPECT_EQ(*f.leftEyeRotation, float3(6.03f, -1.67f, -0.18f) * kDeg);

  // Newer versions: "name&value"; names that spell none of the 52 stay as they are.
  const auto v2 = decode("eyeLookOutLeft&3|mouthPress_R&14|FM_SAD&7|=head#1,2,3,4,5,6|");
  EXPECT_EQ(*v2.frame->frame.blendshapes,
            BlendshapeMap({{"eyeLookOutLeft", 0.03f}, {"mouthPressRight", 0.14f}, {"FM_SAD", 0.07f}}));
  EXPECT_EQ(v2.frame->frame.position->z, 0.06f);
}

TEST(PhoneAppsTest, VMCHeadBoneTurnedAboutEachAxis) {
  // One VMC bundle: the Head bone turned +30 degrees about Unity's x, then
  // the end of a blendshape set.
  std::vector<std::uint8_t> bundle = {
      '#', 'b', 'u', 'n', 'd', 'l', 'e', 0, 0, 0, 0, 0, 0, 0, 0, 1,  //  0: "#bundle", time tag "now"
      0, 0, 0, 68,                                                   // 16: first element's size
      '/', 'V', 'M', 'C', '/', 'E', 'x', 't', '/', 'B', 'o', 'n',    // 20: "/VMC/Ext/Bone/Pos"
      'e', '/', 'P', 'o', 's', 0, 0, 0,                              //     and 3 zeros
      ',', 's', 'f', 'f', 'f', 'f', 'f', 'f', 'f', 0, 0, 0,          // 40: ",sfffffff"
      'H', 'e', 'a', 'd', 0, 0, 0, 0,                                // 52: "Head"
      0x3c, 0x23, 0xd7, 0x0a, 0x3f, 0xc0, 0, 0, 0x3c, 0xa3, 0xd7, 0x0a,  // 60: position 0.01, 1.5, 0.02 m
      0x3e, 0x84, 0x83, 0xee, 0, 0, 0, 0, 0, 0, 0, 0, 0x3f, 0x77, 0x46, 0xea,  // 72: quaternion x, y, z, w
      0, 0, 0, 28,                                                   // 88: second element's size
      '/', 'V', 'M', 'C', '/', 'E', 'x', 't', '/', 'B', 'l', 'e',    // 92: "/VMC/Ext/Blend/Apply"
      'n', 'd', '/', 'A', 'p', 'p', 'l', 'y', 0, 0, 0, 0,            //     and 4 zeros
      ',', 0, 0, 0,                                                  // 116: no arguments
  };
  // The quaternion's component at byte 72 + 4 * axis is sin 15 degrees.
  const struct {
    int axis;
    float3 degrees;  // pitch, yaw, roll: down, turn, tilt as Velmora's signs say
  } cases[] = {{0, {30, 0, 0}}, {1, {0, -30, 0}}, {2, {0, 0, -30}}};
  for (const auto& c : cases) {
    std::vector<std::uint8_t> datagram = bundle;
    std::memset(datagram.data() + 72, 0, 12);
    std::memcpy(datagram.data() + 72 + 4 * c.axis, bundle.data() + 72, 4);
    const auto d = decodeDatagram(datagram, kSender);
    ASSERT_EQ(d.format, TrackingFormat::osc);
    EXPECT_EQ(d.frame->app, TrackingApp::vmc);
    const float3 r = *d.frame->frame.rotation / kDeg;
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(r[i], c.degrees[i], 1e-3) << "axis " << c.axis << ", component " << i;
    EXPECT_EQ(*d.frame->frame.position, float3(-0.01f, 1.5f, 0.02f));  // Unity's x mirrored
  }
  // Names through the same mapping; another bone, or a non-Head one, moves nothing.
  const auto named = decodeDatagram(test::oscMessage("/VMC/Ext/Blend/Val", {std::string("MouthSmile_L"), 0.5f}), kSender);
  EXPECT_EQ(*named.frame->frame.blendshapes, BlendshapeMap({{"mouthSmileLeft", 0.5f}}));
  const auto hips = decodeDatagram(test::oscMessage("/VMC/Ext/Bone/Pos", {std::string("Hips"), 0.f, 0.f, 0.f, 0.3f, 0.f, 0.f, 0.9f}), kSender);
  EXPECT_FALSE(hips.frame->frame.rotation);
}

TEST(PhoneAppsTest, VTubeStudioJSON) {
  const auto d = decode(
      R"({"Timestamp":1732500000123,"Hotkey":-1,"FaceFound":false,)"
      R"("Rotation":{"x":10.0,"y":-20.0,"z":5.0},"Position":{"x":0.5,"y":-1.0,"z":2.0},)"
      R"("EyeLeft":{"x":4.0,"y":-8.0,"z":0.0},"EyeRight":{"x":4.0,"y":-7.0,"z":0.0},)"
      R"("BlendShapes":[{"k":"EyeBlinkLeft","v":0.25},{"k":"jaw_open","v":0.7},{"k":"JawOpen","v":0.5},)"
      R"({"k":"jawOpen","v":0.125},{"k":"MouthSmile_R","v":1},{"k":"CustomShape","v":0.5},{"k":"bad"}]})");
  ASSERT_EQ(d.format, TrackingFormat::json);
  const DecodedFrame& f = *d.frame;
  EXPECT_EQ(f.app, TrackingApp::vtubeStudio);
  // The exact name wins over other spellings of it.
  EXPECT_EQ(*f.frame.blendshapes, BlendshapeMap({{"eyeBlinkLeft", 0.25f},
                                                 {"jawOpen", 0.125f},
                                                 {"mouthSmileRight", 1.0f},
                                                 {"CustomShape", 0.5f}}));
  EXPECT_EQ(*f.frame.rotation, float3(10.0f, -20.0f, 5.0f) * kDeg);
  EXPECT_EQ(*f.frame.position, float3(0.5f, -1.0f, 2.0f));
  EXPECT_EQ(*f.frame.leftEyeRotation, float3(4.0f, -8.0f, 0.0f) * kDeg);
  EXPECT_FALSE(f.frame.faceFound);
  // Without the app's keys: plain JSON; spellings map there too, the first in byte order winning.
  const auto plain = decode(R"({"blendshapes":{"jaw_open":0.7,"JawOpen":0.5}})");
  EXPECT_EQ(plain.frame->app, TrackingApp::json);
  EXPECT_EQ(*plain.frame->frame.blendshapes, BlendshapeMap({{"jawOpen", 0.5f}}));
}

}  // namespace
}  // namespace velmora
