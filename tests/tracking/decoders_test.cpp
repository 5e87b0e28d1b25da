// The four tracking wire formats, the phone apps' datagrams and the
// receiver's format detection, on literal payloads without sockets, and
// the decoder against the fuzzers' reference decoder over the fuzz corpus.
//
// Index of this file:
//   [SECTION] Live Link
//   [SECTION] iFacialMocap
//   [SECTION] OSC
//   [SECTION] JSON
//   [SECTION] Phone apps
//   [SECTION] Detection order
//   [SECTION] Reference cross-check

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "ReferenceTrackingDecoder.h"
#include "base/Clock.h"
#include "support/OscBytes.h"
#include "tracking/RecordingSink.h"
#include "tracking/TrackingDecoders.h"
#include "tracking/TrackingReceiver.h"

namespace velmora {
namespace {

using Bytes = std::vector<std::uint8_t>;
const std::string kSender = "192.168.1.20:50000";
constexpr float kDeg = 0.017453292f;

Bytes bytesOf(std::string_view s) { return Bytes(s.begin(), s.end()); }

// ---------------------------------------------------------------------------
// [SECTION] Live Link
// ---------------------------------------------------------------------------

// The last 244 bytes read in wire order, clamping into [0, 1] and dropping
// non-finite values (a bad head value drops all three): corpus edge_livelink_00
// to 06, against the reference's own reading. Which name each position is:
// ARKitBlendShapeTest.CasesAreAlphabeticalWithTheirIndicesRoundTripAndLiveLinkOrderCoversThem.

// ---------------------------------------------------------------------------
// [SECTION] iFacialMocap
// ---------------------------------------------------------------------------
// Items, heads of five, six and seven fields and a label other than "head#":
// corpus edge_text_06 to 30; the 52 names and the eyes: edge_text_31, 32.
// Numbers are whole texts only (a sign, then what strtof reads, nothing
// around it; out of range gives infinity or zero): edge_text_07 to 11 and
// 33 to 36, read by the reference with strtof and its own sign rules.

// ---------------------------------------------------------------------------
// [SECTION] OSC
// ---------------------------------------------------------------------------

// Which addresses and argument kinds give a blendshape, a packet of unknown
// addresses (an empty map) and none at all (no frame): corpus edge_osc_47 to
// 50. Head components one message at a time, from int32, float and double
// arguments, under a "contains /Head/" address: edge_osc_54; "/tracking/Head/Yaw"
// being a head message, a later message for the same component winning and
// an infinite angle dropping the rotation: edge_osc_34, 40 and 38. Completing
// a partial head from the previous pose:
// MainThreadTrackingSinkTest.NewerFrameReplacesTheWaitingOneKeepingWhatOnlyTheOlderCarried.

// ---------------------------------------------------------------------------
// [SECTION] JSON
// ---------------------------------------------------------------------------

// The parts of a document the fast reader refuses (a 100-bit integer sends it
// to the nlohmann fallback): numbers and booleans as values, vectors of three
// numbers or more, a non-finite rotation dropped: corpus edge_json_64 to 66
// .

// ---------------------------------------------------------------------------
// [SECTION] Phone apps
// ---------------------------------------------------------------------------
// The apps' datagrams exactly as they send them. iFacialMocap's line with all
// 52 names in its own spellings, labelled head and eyes (edge_text_31), its
// newer "name&value" items (edge_text_32), VTube Studio's phone JSON with
// competing spellings (edge_json_62) and plain JSON's spellings (edge_json_63)
// are corpus files checked against the reference .
// Here, a VMC sender's head bone: the axis conversion is the decoder's own.

TEST(PhoneAppsTest, VMCHeadBoneTurnedAboutEachAxis) {
  // One VMC bundle: the Head bone turned +30 degrees about one of Unity's
  // axes (that quaternion component sin 15 degrees, w cos 15 degrees) at
  // 0.01, 1.5, 0.02 m, then the end of a blendshape set.
  // The axis, and the degrees of pitch, yaw, roll: down, turn, tilt as Velmora's signs say.
  const std::pair<int, float3> cases[] = {{0, {30, 0, 0}}, {1, {0, -30, 0}}, {2, {0, 0, -30}}};
  for (const auto& [axis, degrees] : cases) {
    float q[3] = {};
    q[axis] = 0.25881904f;
    const Bytes head =
        test::oscMessage("/VMC/Ext/Bone/Pos", {"Head", 0.01f, 1.5f, 0.02f, q[0], q[1], q[2], 0.96592583f});
    const auto d = decodeDatagram(test::oscBundle({head, test::oscMessage("/VMC/Ext/Blend/Apply")}), kSender);
    ASSERT_EQ(d.format, TrackingFormat::osc);
    EXPECT_EQ(d.frame->app, TrackingApp::vmc);
    const float3 r = *d.frame->frame.rotation / kDeg;
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(r[i], degrees[i], 1e-3) << "axis " << axis << ", component " << i;
    EXPECT_EQ(*d.frame->frame.position, float3(-0.01f, 1.5f, 0.02f));  // Unity's x mirrored
  }
  // A VMC name through the same spellings, and a bone other than Head moving
  // nothing: corpus edge_osc_51 and 52.
}

// ---------------------------------------------------------------------------
// [SECTION] Detection order
// ---------------------------------------------------------------------------

// Which format a datagram is taken for (OSC, then iFacialMocap text, JSON,
// Live Link; anything else unknown) is also the reference decoder's order,
// so the edge cases are corpus files: edge_detect_01 to 13, edge_osc_44 and
// 45. Here, what the receiver adds to the decoder: the format and sender
// recorded, the count, the arrival time, and frames handed to the sink's
// deliver (an unknown datagram, to deliverUnknown, with its count and
// sender: MainThreadTrackingSinkTest.FloodStaysBoundedInSendersAndNames).
TEST(TrackingReceiverTest, RecordsEachDatagramAndHandsItOn) {
  auto sink = std::make_shared<test::RecordingSink>();
  TrackingReceiver receiver(sink);
  const double before = uptime();
  receiver.processData(bytesOf("jawOpen-50|"), kSender);
  EXPECT_EQ(receiver.statistics().lastFormat, TrackingFormat::iFacialMocap);
  ASSERT_EQ(sink->frames().size(), 1u);
  // On the uptime clock the outputs measure latency with.
  EXPECT_GE(sink->frames()[0].frame.arrivalTime, before);
  EXPECT_LE(sink->frames()[0].frame.arrivalTime, uptime());
}

// ---------------------------------------------------------------------------
// [SECTION] Reference cross-check
// ---------------------------------------------------------------------------
// decodeDatagram against the plain reference decoder the tracking fuzzer
// uses, over the fuzz corpus (which holds datagrams at the edges of each
// format: edge_*), so every unit run repeats the fuzzer's cross-check on
// known inputs.

TEST(ReferenceDecoderTest, FuzzCorpusDecodesAsTheReferenceReadsItAndTheCheckCanFail) {
  std::size_t files = 0;
  for (const char* folder : {"tracking", "osc"}) {
    const auto dir = std::filesystem::path(VELMORA_SOURCE_DIR) / "fuzz" / "corpus" / folder;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
      std::ifstream in(entry.path(), std::ios::binary);
      const Bytes file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      // The tracking fuzzer's first byte picks an entry point: check the
      // datagram with and without it.
      EXPECT_EQ(reference::crossCheck(file), "") << entry.path();
      if (file.empty()) continue;
      EXPECT_EQ(reference::crossCheck(Bytes(file.begin() + 1, file.end())), "") << entry.path() << " after byte 0";
      ++files;
    }
  }
  EXPECT_GE(files, 127u);

  // The check itself can fail: a changed value or a missing frame is noticed.
  const Bytes datagram = bytesOf("jawOpen-50|eyeBlinkLeft-0=10,20,30,1,2,3");
  DecodedDatagram d = decodeDatagram(datagram, kSender);
  ASSERT_EQ(reference::crossCheck(datagram), "");
  d.frame->frame.blendshapes->insert_or_assign("jawOpen", 0.50000006f);
  EXPECT_NE(reference::differences(reference::decodeReference(datagram), d, kSender), "");
  d.frame.reset();
  EXPECT_NE(reference::differences(reference::decodeReference(datagram), d, kSender), "");
}

}  // namespace
}  // namespace velmora
