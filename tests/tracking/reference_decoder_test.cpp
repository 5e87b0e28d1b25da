// The receiver's decoder (decodeDatagram) against the plain reference
// decoder the tracking fuzzer uses, over the fuzz corpus (which holds
// datagrams at the edges of each format: edge_*), so every unit run repeats
// the fuzzer's cross-check on known inputs.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "ReferenceTrackingDecoder.h"
#include "tracking/TrackingDecoders.h"

namespace velmora {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(ReferenceDecoderTest, FuzzCorpusDecodesAsTheReferenceReadsIt) {
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
  EXPECT_GE(files, 111u);
}

// The check itself can fail: a changed value or a missing frame is noticed.
TEST(ReferenceDecoderTest, ComparisonNoticesADifference) {
  const std::string sender = "10.0.0.2:50000", text = "jawOpen-50|eyeBlinkLeft-0=10,20,30,1,2,3";
  const Bytes datagram(text.begin(), text.end());
  DecodedDatagram d = decodeDatagram(datagram, sender);
  ASSERT_EQ(reference::crossCheck(datagram), "");
  d.frame->frame.blendshapes->insert_or_assign("jawOpen", 0.50000006f);
  EXPECT_NE(reference::differences(reference::decodeReference(datagram), d, sender), "");
  d.frame.reset();
  EXPECT_NE(reference::differences(reference::decodeReference(datagram), d, sender), "");
}

}  // namespace
}  // namespace velmora
