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
  EXPECT_GE(files, 81u);
}

// The check itself can fail: a changed value or a missing frame is noticed.
TEST(ReferenceDecoderTest, ComparisonNoticesADifference) {
  const std::string sender = "10.0.0.2:50000";
  const std::string text = "jawOpen-50|eyeBlinkLeft-0=10,20,30,1,2,3";
  const Bytes datagram(text.begin(), text.end());
  const reference::ReferenceFrame expected = reference::decodeReference(datagram);
  DecodedDatagram d = decodeDatagram(datagram, sender);
  ASSERT_EQ(reference::differences(expected, d, sender), "");
  d.frame->frame.blendshapes->insert_or_assign("jawOpen", 0.50000006f);
  EXPECT_NE(reference::differences(expected, d, sender), "");
  d.frame.reset();
  EXPECT_NE(reference::differences(expected, d, sender), "");
}

}  // namespace
}  // namespace velmora
