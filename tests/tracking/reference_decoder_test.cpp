// The receiver's decoder (decodeDatagram) against the plain reference
// decoder the tracking fuzzer uses, over the fuzz corpus and hand-made
// datagrams at the edges of each format, so every unit run repeats the
// fuzzer's cross-check on known inputs.

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include "ReferenceTrackingDecoder.h"
#include "support/OscBytes.h"
#include "tracking/TrackingDecoders.h"

namespace velmora {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes bytesOf(std::string_view s) { return Bytes(s.begin(), s.end()); }

void putFloat(Bytes& b, std::size_t at, float v) {
  const auto bits = std::bit_cast<std::uint32_t>(v);
  for (int k = 0; k < 4; ++k) b[at + static_cast<std::size_t>(k)] = std::uint8_t(bits >> (24 - 8 * k));
}

// `header` bytes of 0x11, then 61 big-endian floats of 0.5 unless changed.
Bytes liveLink(std::size_t header, std::initializer_list<std::pair<std::size_t, float>> changes = {}) {
  Bytes b(header + 244, 0x11);
  for (std::size_t p = 0; p < 61; ++p) putFloat(b, header + 4 * p, 0.5f);
  for (const auto& [p, v] : changes) putFloat(b, header + 4 * p, v);
  return b;
}

Bytes withInt(const std::string& address, std::int32_t v) { return OSCWriter::message(address).i(v).bytes(); }

Bytes withDouble(const std::string& address, double v) { return OSCWriter::message(address).d(v).bytes(); }

void expectSame(const Bytes& datagram, const std::string& label) {
  EXPECT_EQ(reference::crossCheck(datagram), "") << label;
}

TEST(ReferenceDecoderTest, FuzzCorpusDecodesAsTheReferenceReadsIt) {
  std::size_t files = 0;
  for (const char* folder : {"tracking", "osc"}) {
    const auto dir = std::filesystem::path(VELMORA_SOURCE_DIR) / "fuzz" / "corpus" / folder;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
      std::ifstream in(entry.path(), std::ios::binary);
      const Bytes file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      // The tracking fuzzer's first byte picks an entry point: check the
      // datagram with and without it.
      expectSame(file, entry.path().string());
      if (!file.empty()) expectSame(Bytes(file.begin() + 1, file.end()), entry.path().string() + " after byte 0");
      ++files;
    }
  }
  EXPECT_GE(files, 19u);
}

TEST(ReferenceDecoderTest, LiveLinkEdges) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  const float denormal = std::numeric_limits<float>::denorm_min();
  expectSame(liveLink(0), "plain");
  expectSame(liveLink(45, {{0, -0.0f}, {1, -1.0f}, {2, 1.0f}, {3, 1.0000001f}, {4, denormal}, {5, -denormal}}),
             "clamping, negative zero, denormals");
  expectSame(liveLink(7, {{17, nan}, {18, inf}, {19, -inf}, {51, nan}}), "non-finite shapes");
  expectSame(liveLink(3, {{52, nan}}), "non-finite yaw");
  expectSame(liveLink(3, {{54, inf}, {55, nan}, {60, nan}}), "non-finite roll, unused values");
  Bytes shortOne = liveLink(0);
  shortOne.pop_back();
  expectSame(shortOne, "243 bytes");
}

TEST(ReferenceDecoderTest, TextEdges) {
  for (const char* text : {
           "jawOpen-50|eyeBlinkLeft-100",
           "a--5|b5| c-5|d- 5|e-|f-x|g-1e1|h-+7|i-2.5||-3|j-0x1p3|k-0X10|l-0x|m-0x-1",
           "n-inf|o-nan|p-infinity|q-1e50|r-1e-50|s-7e-46|t--0|u-+-1|v-1e|w-.5|x-5.|y-1,5",
           "a-1|a-2|a-x",
           "z-0xinf|y-0xnan|x-0x.8|w-0X1P-2|v--0x1|u-0xg",
           "=0xnan,0xinf,0x1p3,1,2,3",
           "x-1=head#10,20,30,1,2,3|rightEye#4",
           "=1,2,3,4,5,6=7,8,9,10,11,12",
           "=nan,0,0,1,2,3",
           "=1e40,0,0,1e40,2,3",
           "=1,2,3,4,5",
           "=1,2,3,4,5,6,7,8",
           "=,,,,,",
           "|",
           "=",
           "caf\xC3\xA9-50|\xE2\x82\xAC-25=1,2,3,4,5,6",
       }) {
    expectSame(bytesOf(text), text);
  }
  expectSame(bytesOf(std::string("a-5\0|b-6", 8)), "zero byte in an item");
  expectSame(bytesOf(std::string("=1,2\0,3,4,5,6", 13)), "zero byte in a head field");
  expectSame(bytesOf("jaw\xC0\xAF-5|"), "overlong UTF-8: not text");
  expectSame(bytesOf("jaw\xED\xA0\x80-5|"), "surrogate: not text");
  expectSame(bytesOf("jaw\xF4\x90\x80\x80-5|"), "above U+10FFFF: not text");
}

TEST(ReferenceDecoderTest, OSCEdges) {
  using test::oscBundle;
    using test::oscMessage;
  const std::vector<std::pair<Bytes, const char*>> cases = {
      {oscMessage("/VMC/Ext/Blend/Val", {"jawOpen", 0.7f}), "VMC pair"},
      {oscMessage("/VMC/Ext/Blend/Val", {0.7f, "jawOpen"}), "VMC pair reversed"},
      {oscMessage("/VMC/Ext/Blend/Val", {"jawOpen"}), "VMC name only"},
      {oscMessage("/VMC/Ext/Blend/Val", {"jawOpen", 0.5f, 0.25f}), "VMC extra argument"},
      {oscMessage("/face/BlendShapes/mouthSmileLeft", {0.3f}), "BlendShapes path"},
      {oscMessage("/blendshapes/", {0.3f}), "empty blendshape name"},
      {oscMessage("/tracking/", {0.3f}), "empty tracking name"},
      {oscMessage("/tracking/Head/Yaw", {45.0f}), "head before tracking"},
      {oscMessage("/x/Head/Yawn", {45.0f}), "contains /Head/Y and /Head/Yaw"},
      {oscMessage("/Head/Z", {"5"}), "text head value"},
      {withInt("/blendshapes/cheekPuff", -7), "integer value"},
      {withDouble("/Head/Pitch", 1e300), "double beyond float"},
      {withDouble("/tracking/browInnerUp", 0.25), "double narrowed"},
      {oscBundle({oscMessage("/Head/Yaw", {1.0f}), oscMessage("/Head/Yaw", {2.0f}),
                  oscMessage("/Head/X", {std::numeric_limits<float>::infinity()})}),
       "repeated component, infinite position"},
      {oscBundle({oscBundle({oscMessage("/VMC/Ext/Blend/Val", {"a", 1.0f})}),
                  oscMessage("/VMC/Ext/Blend/Val", {"a", 2.0f})}),
       "nested bundle, last wins"},
      {oscBundle({oscMessage("/Head/Roll", {std::numeric_limits<float>::quiet_NaN()})}), "NaN roll"},
      {oscBundle({}), "empty bundle"},
      {bytesOf("#bundle|jawOpen-50"), "bundle falling through to text"},
      {bytesOf("/=5"), "short slash text"},
      {bytesOf(std::string("/ab\0", 4)), "address only"},
  };
  for (const auto& [bytes, label] : cases) expectSame(bytes, label);
}

TEST(ReferenceDecoderTest, JSONEdges) {
  for (const char* text : {
           R"({"blendshapes": {"jawOpen": 0.5, "a": 1, "a": "x", "b": [1], "c": {"d": 2}, "e": null, "f": true}})",
           R"({"blendshapes": {"a": 1}, "blendshapes": 5, "rotation": [1, 2, 3], "rotation": [1, 2]})",
           R"({"rotation": [1, [2], 3], "position": [1, 2, 3, {"x": 1}]})",
           R"({"rotation": [0.5, -1e-3, 7, 8], "position": [true, false, 2e3], "blendshapes": {}})",
           R"({"rotation": [1e300, 0, 0], "position": [1e300, 0, 0]})",
           R"({"blendshapes": {"big": 123456789012345678901234567890, "u": 18446744073709551615, "i": -9223372036854775808}})",
           R"({"blendshapes": {"caf\u00e9": 0.5, "tab\t": 1, "\ud83d\ude00": 2}})",
           "\xEF\xBB\xBF{\"blendshapes\": {\"jawOpen\": 0.25}}",
           "{}",
           "[1, 2]",
           "{\"a\": 1e400}",
       }) {
    expectSame(bytesOf(text), text);
  }
  expectSame(bytesOf(std::string("{\"rotation\": [1, 2, 3]} \0 junk", 30)), "zero byte after the object");
  expectSame(bytesOf(std::string("{\"a\": 1\0}", 9)), "zero byte inside");
  expectSame(bytesOf(std::string("{}\0\xFF", 4)), "not UTF-8 after the zero byte");
  expectSame(bytesOf(std::string(1100, '[') + std::string(1100, ']')), "deep array");
}

// The check itself must notice a difference in any part of a frame.
TEST(ReferenceDecoderTest, ComparisonNoticesEveryKindOfDifference) {
  const std::string sender = "10.0.0.2:50000";
  const Bytes datagram = bytesOf("jawOpen-50|eyeBlinkLeft-0=10,20,30,1,2,3");
  const reference::ReferenceFrame expected = reference::decodeReference(datagram);
  const DecodedDatagram good = decodeDatagram(datagram, sender);
  ASSERT_EQ(reference::differences(expected, good, sender), "");

  auto changed = [&](auto&& change) {
    DecodedDatagram d = decodeDatagram(datagram, sender);
    change(d);
    return reference::differences(expected, d, sender);
  };
  EXPECT_NE(changed([](DecodedDatagram& d) { d.format = TrackingFormat::json; }), "");
  EXPECT_NE(changed([](DecodedDatagram& d) { d.frame.reset(); }), "");
  EXPECT_NE(changed([](DecodedDatagram& d) { d.frame->frame.blendshapes.reset(); }), "");
  EXPECT_NE(changed([](DecodedDatagram& d) { d.frame->frame.blendshapes->insert_or_assign("eyeBlinkLeft", -0.0f); }),
            "");
  EXPECT_NE(changed([](DecodedDatagram& d) { d.frame->frame.blendshapes->insert_or_assign("jawOpen", 0.50000006f); }),
            "");
  EXPECT_NE(changed([](DecodedDatagram& d) { d.frame->frame.blendshapes->erase("jawOpen"); }), "");
  EXPECT_NE(changed([](DecodedDatagram& d) { d.frame->frame.blendshapes->insert_or_assign("cheekPuff", 0.0f); }), "");
  EXPECT_NE(changed([](DecodedDatagram& d) { d.frame->frame.rotation->y = std::nextafter(d.frame->frame.rotation->y, 1.0f); }),
            "");
  EXPECT_NE(changed([](DecodedDatagram& d) { d.frame->frame.position.reset(); }), "");
  EXPECT_NE(changed([](DecodedDatagram& d) { d.frame->rotationSet[1] = false; }), "");
  EXPECT_NE(changed([&](DecodedDatagram& d) { d.frame->frame.sender = "10.0.0.3:50000"; }), "");
}

}  // namespace
}  // namespace velmora
