// The four tracking wire formats and the receiver's format detection, on
// literal payloads without sockets.
//
// Index of this file:
//   [SECTION] Live Link
//   [SECTION] iFacialMocap
//   [SECTION] OSC
//   [SECTION] JSON
//   [SECTION] Detection order

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "base/MainQueue.h"
#include "base/SettingsStore.h"
#include "osc/OSCWriter.h"
#include "support/OscBytes.h"
#include "support/TempDir.h"
#include "base/Clock.h"
#include "tracking/FaceTrackingState.h"
#include "tracking/LiveLinkNames.h"
#include "tracking/RecordingSink.h"
#include "tracking/TrackingDecoders.h"
#include "tracking/TrackingReceiver.h"

namespace velmora {
namespace {

using Bytes = std::vector<std::uint8_t>;
const std::string kSender = "192.168.1.20:50000";
constexpr float kDeg = 0.017453292f;

void putFloat(Bytes& b, std::size_t at, float v) {
  const auto bits = std::bit_cast<std::uint32_t>(v);
  b[at] = std::uint8_t(bits >> 24);
  b[at + 1] = std::uint8_t(bits >> 16);
  b[at + 2] = std::uint8_t(bits >> 8);
  b[at + 3] = std::uint8_t(bits);
}

// `header` bytes of 0xAB, then 61 big-endian floats; position p holds
// 0.01 * (p % 50) + 0.005 unless changed.
Bytes liveLinkPacket(std::size_t header = 0) {
  Bytes b(header + 244, 0xAB);
  for (std::size_t p = 0; p < 61; ++p) putFloat(b, header + 4 * p, 0.01f * float(p % 50) + 0.005f);
  return b;
}

Bytes bytesOf(std::string_view s) { return Bytes(s.begin(), s.end()); }

// ---------------------------------------------------------------------------
// [SECTION] Live Link
// ---------------------------------------------------------------------------

TEST(LiveLinkDecoderTest, ReadsTheLast244BytesInWireOrder) {
  for (std::size_t header : {0u, 1u, 37u}) {
    Bytes b = liveLinkPacket(header);
    putFloat(b, header + 208, 0.25f);  // yaw
    putFloat(b, header + 212, -0.5f);  // pitch
    putFloat(b, header + 216, 0.125f); // roll
    auto d = decodeUnrealLiveLinkBinary(b, kSender);
    ASSERT_TRUE(d) << header;
    const auto& map = *d->frame.blendshapes;
    ASSERT_EQ(map.size(), 52u);
    EXPECT_EQ(map.at("eyeBlinkLeft"), 0.005f);             // position 0
    EXPECT_EQ(map.at("jawOpen"), 0.01f * 17 + 0.005f);      // position 17
    EXPECT_EQ(map.at("browDownLeft"), 0.01f * 41 + 0.005f); // position 41
    EXPECT_EQ(map.at("tongueOut"), 0.01f * 1 + 0.005f);     // position 51
    ASSERT_TRUE(d->frame.rotation);
    EXPECT_EQ(*d->frame.rotation, float3(-0.5f, 0.25f, 0.125f));  // (pitch, yaw, roll)
    EXPECT_FALSE(d->frame.position);
    EXPECT_EQ(d->frame.sender, kSender);
  }
  EXPECT_FALSE(decodeUnrealLiveLinkBinary(Bytes(243, 0), kSender));
}

TEST(LiveLinkDecoderTest, ClampsAndDropsNonFinite) {
  Bytes b = liveLinkPacket();
  putFloat(b, 4 * 17, 1.5f);                                       // jawOpen
  putFloat(b, 4 * 0, -0.2f);                                       // eyeBlinkLeft
  putFloat(b, 4 * 43, std::numeric_limits<float>::quiet_NaN());    // browInnerUp
  putFloat(b, 4 * 46, std::numeric_limits<float>::infinity());     // cheekPuff
  putFloat(b, 216, std::numeric_limits<float>::quiet_NaN());       // roll
  auto d = decodeUnrealLiveLinkBinary(b, kSender);
  ASSERT_TRUE(d);
  const auto& map = *d->frame.blendshapes;
  EXPECT_EQ(map.size(), 50u);
  EXPECT_EQ(map.at("jawOpen"), 1.0f);
  EXPECT_EQ(map.at("eyeBlinkLeft"), 0.0f);
  EXPECT_FALSE(map.count("browInnerUp"));
  EXPECT_FALSE(map.count("cheekPuff"));
  EXPECT_FALSE(d->frame.rotation);  // one bad head value drops all three
}

// ---------------------------------------------------------------------------
// [SECTION] iFacialMocap
// ---------------------------------------------------------------------------

TEST(IFacialMocapDecoderTest, BlendshapesAndHead) {
  auto d = decodeIFacialMocap("jawOpen-50|eyeBlinkLeft-100", kSender);
  ASSERT_TRUE(d.frame.blendshapes);
  EXPECT_EQ(d.frame.blendshapes->size(), 2u);
  EXPECT_EQ(d.frame.blendshapes->at("jawOpen"), 0.5f);
  EXPECT_EQ(d.frame.blendshapes->at("eyeBlinkLeft"), 1.0f);
  EXPECT_FALSE(d.frame.rotation);
  EXPECT_FALSE(d.frame.position);

  d = decodeIFacialMocap("jawOpen-50=10,20,30,1,2,3", kSender);
  ASSERT_TRUE(d.frame.rotation);
  EXPECT_EQ(*d.frame.rotation, float3(10 * kDeg, 20 * kDeg, 30 * kDeg));
  EXPECT_EQ(*d.frame.position, float3(0.01f, 0.02f, 0.03f));
  EXPECT_EQ(d.frame.blendshapes->at("jawOpen"), 0.5f);

  // Five head fields: neither rotation nor position. Seven: the seventh ignored.
  d = decodeIFacialMocap("jawOpen-50=10,20,30,1,2", kSender);
  EXPECT_FALSE(d.frame.rotation);
  EXPECT_FALSE(d.frame.position);
  d = decodeIFacialMocap("=1,2,3,4,5,6,junk", kSender);
  ASSERT_TRUE(d.frame.position);
  EXPECT_EQ(d.frame.position->z, 0.06f);
  EXPECT_TRUE(d.frame.blendshapes && d.frame.blendshapes->empty());
}

TEST(IFacialMocapDecoderTest, ItemsAndFieldsThatDoNotParse) {
  // Negative (three parts), no dash, space in the value, empty value,
  // label: skipped. The name is taken as it is, spaces included.
  auto d = decodeIFacialMocap("a--5|b5| c-5|d- 5|e-|f-x|g-1e1|h-+7|i-2.5|", kSender);
  const auto& map = *d.frame.blendshapes;
  EXPECT_EQ(map.size(), 4u);
  EXPECT_EQ(map.at(" c"), 0.05f);
  EXPECT_EQ(map.at("g"), 0.1f);
  EXPECT_EQ(map.at("h"), 0.07f);
  EXPECT_EQ(map.at("i"), 0.025f);
  // A label other than "head#" makes its field count as 0; the rest parse,
  // the sixth up to the "|"; an eye needs three fields.
  d = decodeIFacialMocap("x-1=pose#10,20,30,1,2,3|rightEye#4", kSender);
  ASSERT_TRUE(d.frame.rotation);
  EXPECT_EQ(d.frame.rotation->x, 0.0f);
  EXPECT_EQ(d.frame.rotation->y, 20 * kDeg);
  EXPECT_EQ(d.frame.position->z, 0.03f);
  EXPECT_FALSE(d.frame.rightEyeRotation);
  // Only the piece between the first and second "=" is the head.
  d = decodeIFacialMocap("=1,2,3,4,5,6=7,8,9,10,11,12", kSender);
  EXPECT_EQ(d.frame.position->x, 0.04f);
  // A non-finite head angle drops the rotation, the position stays.
  d = decodeIFacialMocap("=nan,0,0,1,2,3", kSender);
  EXPECT_FALSE(d.frame.rotation);
  EXPECT_TRUE(d.frame.position);
}

TEST(TrackingNumberTest, WholeStringOnly) {
  EXPECT_EQ(parseTrackingNumber("50"), 50.0f);
  EXPECT_EQ(parseTrackingNumber("-0.25"), -0.25f);
  EXPECT_EQ(parseTrackingNumber("+3"), 3.0f);
  EXPECT_EQ(parseTrackingNumber("1e2"), 100.0f);
  EXPECT_EQ(parseTrackingNumber("0x1p3"), 8.0f);
  EXPECT_EQ(parseTrackingNumber("1e50"), std::numeric_limits<float>::infinity());
  EXPECT_EQ(parseTrackingNumber("-1e400"), -std::numeric_limits<float>::infinity());
  EXPECT_EQ(parseTrackingNumber("1e-60"), 0.0f);
  EXPECT_TRUE(std::isnan(*parseTrackingNumber("nan")));
  for (const char* bad : {"", " 5", "5 ", "5x", "+", "-", "+-5", "--5", "head#5", "0x", "1,5", "0xnan", "0xinf", "0x-1"}) {
    EXPECT_EQ(parseTrackingNumber(bad), std::nullopt) << bad;
  }
}

// ---------------------------------------------------------------------------
// [SECTION] OSC
// ---------------------------------------------------------------------------

using test::oscBundle;
using test::oscMessage;

Bytes withDouble(const std::string& address, double v) { return OSCWriter::message(address).d(v).bytes(); }

DecodedFrame decodeOSC(const Bytes& datagram) {
  auto d = decodeOSCPacket(datagram, kSender);
  EXPECT_TRUE(d) << "no message";
  return d ? std::move(*d) : DecodedFrame{};
}

TEST(OSCTrackingDecoderTest, AddressRules) {
  auto d = decodeOSC(oscBundle({
      oscMessage("/VMC/Ext/Blend/Val", {"jawOpen", 0.7f}),
      OSCWriter::message("/VMC/Ext/Blend/Val").s("eyeBlinkLeft").d(0.7).bytes(),  // double: skipped
      oscMessage("/VMC/Ext/Blend/Val", {0.5f, "mouthClose"}),                     // wrong order: skipped
      oscMessage("/face/BlendShapes/mouthSmileLeft", {0.3f}),                     // contains-test, last part
      oscMessage("/blendshapes/cheekPuff", {std::int32_t(-2)}),                   // integer converted, no clamping
      withDouble("/tracking/browInnerUp", 0.25),                                  // double narrowed
      oscMessage("/tracking/noValue", {"text"}),                                  // no number: skipped
      oscMessage("/other/thing", {1.0f}),                                         // no rule: ignored
      oscMessage("/VMC/Ext/Blend/Apply"),
  }));
  const auto& map = *d.frame.blendshapes;
  EXPECT_EQ(map.size(), 4u);
  EXPECT_EQ(map.at("jawOpen"), 0.7f);
  EXPECT_EQ(map.at("mouthSmileLeft"), 0.3f);
  EXPECT_EQ(map.at("cheekPuff"), -2.0f);
  EXPECT_EQ(map.at("browInnerUp"), 0.25f);
  EXPECT_FALSE(d.frame.rotation);
  EXPECT_FALSE(d.frame.position);

  // A packet of only unknown addresses still posts an empty map.
  d = decodeOSC(oscMessage("/x", {1.0f}));
  ASSERT_TRUE(d.frame.blendshapes);
  EXPECT_TRUE(d.frame.blendshapes->empty());
  // No message at all: no frame, so detection goes on to the next format.
  EXPECT_FALSE(decodeOSCPacket(bytesOf("/ab"), kSender));
  EXPECT_FALSE(decodeOSCPacket(bytesOf(std::string("#bundle\0\0\0\0\0\0\0\0\0", 16)), kSender));
}

TEST(OSCTrackingDecoderTest, HeadComponentsAndPartialUpdates) {
  auto d = decodeOSC(oscMessage("/Head/Yaw", {90.0f}));
  ASSERT_TRUE(d.frame.rotation);
  EXPECT_EQ(d.rotationSet, (std::array<bool, 3>{false, true, false}));
  EXPECT_FALSE(d.frame.position);
  const float3 raw(0.1f, -0.2f, 0.3f);
  const FaceFrame f = std::move(d).completed(raw, float3(0.0f));
  EXPECT_EQ(*f.rotation, float3(0.1f, 90.0f * kDeg, 0.3f));
  EXPECT_FLOAT_EQ(f.rotation->y, 1.5707963f);

  d = decodeOSC(oscBundle({oscMessage("/tracker/Head/Pitch", {10.0f}), oscMessage("/Head/Roll", {std::int32_t(-20)}),
                           oscMessage("/Head/X", {5.0f}), withDouble("/Head/Z", -3.0)}));
  EXPECT_EQ(d.rotationSet, (std::array<bool, 3>{true, false, true}));
  EXPECT_EQ(d.positionSet, (std::array<bool, 3>{true, false, true}));
  const FaceFrame g = std::move(d).completed(float3(7.0f), float3(8.0f));
  EXPECT_EQ(*g.rotation, float3(10.0f * kDeg, 7.0f, -20.0f * kDeg));
  EXPECT_EQ(*g.position, float3(5.0f * 0.01f, 8.0f, -3.0f * 0.01f));

  // "/tracking/Head/Yaw" is a head message (the head rules come first).
  d = decodeOSC(oscMessage("/tracking/Head/Yaw", {45.0f}));
  EXPECT_TRUE(d.frame.rotation);
  EXPECT_TRUE(d.frame.blendshapes->empty());
  // A later message for the same component wins; an infinite angle drops the rotation.
  d = decodeOSC(oscBundle({oscMessage("/Head/Yaw", {1.0f}), oscMessage("/Head/Yaw", {2.0f})}));
  EXPECT_EQ(d.frame.rotation->y, 2.0f * kDeg);
  d = decodeOSC(withDouble("/Head/Yaw", 1e300));
  EXPECT_FALSE(d.frame.rotation);
}

// ---------------------------------------------------------------------------
// [SECTION] JSON
// ---------------------------------------------------------------------------

TEST(JSONTrackingDecoderTest, Parts) {
  auto d = decodeJSON(nlohmann::json::parse(R"({"blendshapes": {"jawOpen": 0.5, "eyeBlinkLeft": 1,
      "bad": "0.5", "nested": {"a": 1}, "flag": true}, "rotation": [0.1, 0.2, 0.3, 9], "position": [1, 2, 3]})"),
                      kSender);
  const auto& map = *d.frame.blendshapes;
  EXPECT_EQ(map.size(), 3u);
  EXPECT_EQ(map.at("jawOpen"), 0.5f);
  EXPECT_EQ(map.at("eyeBlinkLeft"), 1.0f);
  EXPECT_EQ(map.at("flag"), 1.0f);
  EXPECT_EQ(*d.frame.rotation, float3(0.1f, 0.2f, 0.3f));  // no unit conversion
  EXPECT_EQ(*d.frame.position, float3(1.0f, 2.0f, 3.0f));

  d = decodeJSON(nlohmann::json::parse(R"({"blendshapes": [1, 2], "rotation": [1, 2], "position": [1, "2", 3]})"),
                 kSender);
  EXPECT_FALSE(d.frame.blendshapes);
  EXPECT_FALSE(d.frame.rotation);
  EXPECT_FALSE(d.frame.position);
  d = decodeJSON(nlohmann::json::parse(R"({"rotation": [1e300, 0, 0]})"), kSender);
  EXPECT_FALSE(d.frame.rotation);
}

TEST(JSONTrackingDecoderTest, DecodingWhileParsingMatchesTheDocument) {
  // The receiver's path (decodeJSONText) must give what parsing the whole
  // document and then decodeJSON gives, duplicate keys included.
  for (const char* text : {
           R"({"blendshapes": {"jawOpen": 0.5, "a": 1, "a": "x", "b": [1], "c": {"d": 2}, "e": null}})",
           R"({"blendshapes": {"a": 1}, "blendshapes": 5, "rotation": [1, 2, 3], "rotation": [1, 2]})",
           R"({"rotation": [1, [2], 3], "position": [1, 2, 3, {"x": 1}], "other": {"rotation": [1, 2, 3]}})",
           R"({"rotation": [0.5, -1e-3, 7], "position": [true, false, 2e3], "blendshapes": {}})",
           R"({"rotation": [1e300, 0, 0]})",
           R"({})",
       }) {
    const std::string_view view(text);
    const Bytes bytes(view.begin(), view.end());
    auto fast = decodeJSONText(bytes, kSender);
    auto reference = decodeJSON(nlohmann::json::parse(text), kSender);
    ASSERT_TRUE(fast) << text;
    EXPECT_EQ(fast->frame.blendshapes, reference.frame.blendshapes) << text;
    EXPECT_EQ(fast->frame.rotation, reference.frame.rotation) << text;
    EXPECT_EQ(fast->frame.position, reference.frame.position) << text;
  }
  for (const char* notAnObject : {"[1, 2]", "5", "\"text\"", "{\"a\": }", "{} {}", "{\"a\": 1e400}", ""}) {
    const std::string_view view(notAnObject);
    EXPECT_FALSE(decodeJSONText(Bytes(view.begin(), view.end()), kSender)) << notAnObject;
  }
  // A zero byte after the object ends the text (a C string's terminator);
  // inside the object it is an error.
  EXPECT_TRUE(decodeJSONText(bytesOf(std::string("{\"rotation\": [1, 2, 3]} \0 junk", 30)), kSender));
  EXPECT_FALSE(decodeJSONText(bytesOf(std::string("{\"a\": 1\0}", 9)), kSender));
}

// ---------------------------------------------------------------------------
// [SECTION] Detection order
// ---------------------------------------------------------------------------

class DetectionTest : public ::testing::Test {
 protected:
  std::shared_ptr<test::RecordingSink> sink = std::make_shared<test::RecordingSink>();
  TrackingReceiver receiver{sink};

  TrackingFormat detect(const Bytes& data) {
    receiver.processData(data, kSender);
    return receiver.statistics().lastFormat;
  }
};

// Every decoded frame carries the moment its datagram was read, on the
// uptime clock the outputs measure latency with.
TEST_F(DetectionTest, DecodedFramesCarryTheirArrivalTime) {
  const double before = uptime();
  receiver.processData(bytesOf("jawOpen-50|"), kSender);
  const double after = uptime();
  const auto frames = sink->frames();
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_GE(frames[0].frame.arrivalTime, before);
  EXPECT_LE(frames[0].frame.arrivalTime, after);
}

TEST_F(DetectionTest, FirstMatchWins) {
  // A valid OSC message.
  EXPECT_EQ(detect({'/', 't', 'r', 'a', 'c', 'k', 'i', 'n', 'g', '/', 'x', 0, ',', 'f', 0, 0, 0x3F, 0x80, 0, 0}),
            TrackingFormat::osc);
  // "/" payloads the OSC parser rejects fall through, in order:
  // fewer than 4 bytes, then text with "=": iFacialMocap.
  EXPECT_EQ(detect(bytesOf("/=5")), TrackingFormat::iFacialMocap);
  // An address that is not UTF-8: not text, not JSON, too short: unknown.
  EXPECT_EQ(detect({'/', 0xFF, '=', 0}), TrackingFormat::unknown);
  // The same 244 bytes and longer: Live Link.
  Bytes slash = liveLinkPacket(4);
  slash[0] = '/';
  slash[1] = 0xFF;
  EXPECT_EQ(detect(slash), TrackingFormat::liveLink);
  // A bundle that yields no message falls through to text.
  EXPECT_EQ(detect(bytesOf("#bundle|jawOpen-50")), TrackingFormat::iFacialMocap);
  EXPECT_EQ(sink->frames().back().frame.blendshapes->at("jawOpen"), 0.5f);
  // JSON with "=" or "|" inside is text first.
  EXPECT_EQ(detect(bytesOf(R"({"blendshapes": {"a|b": 1}})")), TrackingFormat::iFacialMocap);
  EXPECT_EQ(detect(bytesOf(R"({"blendshapes": {"jawOpen": 0.25}})")), TrackingFormat::json);
  // JSON that is not an object, and short text without "=" or "|": unknown.
  EXPECT_EQ(detect(bytesOf("[1, 2, 3]")), TrackingFormat::unknown);
  EXPECT_EQ(detect(bytesOf("hello phone")), TrackingFormat::unknown);
  EXPECT_EQ(detect({}), TrackingFormat::unknown);
  // Binary of 244+ bytes is Live Link; so is long plain text.
  EXPECT_EQ(detect(liveLinkPacket(20)), TrackingFormat::liveLink);
  EXPECT_EQ(detect(Bytes(300, 'a')), TrackingFormat::liveLink);
  // A bundle with a lying element size and 244+ bytes: OSC yields nothing,
  // not UTF-8, so it ends as Live Link.
  Bytes lying = liveLinkPacket(20);
  std::memcpy(lying.data(), "#bundle\0\0\0\0\0\0\0\0\0\xFF\xFF\xFF\xFF", 20);
  EXPECT_EQ(detect(lying), TrackingFormat::liveLink);

  const auto unknown = sink->unknown();
  EXPECT_EQ(unknown.size(), 4u);
  EXPECT_EQ(receiver.statistics().packetsReceived, 13u);
  EXPECT_EQ(receiver.statistics().lastSender, kSender);
}

}  // namespace
}  // namespace velmora
