// The snapshot batch run's CPU pieces: the contact sheet and the failure
// paths. No GL is opened.
#include <gtest/gtest.h>

#include <fstream>

#include "app/ContactSheet.h"
#include "app/MaskSnapshot.h"
#include "support/LogCapture.h"
#include "support/SolidFrame.h"
#include "support/TempDir.h"

namespace velmora {
namespace {

using test::solidFrame;

TEST(ContactSheetTest, TransparencyShowsTheCheckerboardAndOpaqueFramesCoverIt) {
  ContactSheet sheet(2, 32, 18);
  sheet.add(solidFrame(192, 108, 0, 0, 0, 0), "empty");
  sheet.add(solidFrame(192, 108, 0, 0, 255, 255), "red");
  sheet.add(solidFrame(100, 50, 255, 0, 0, 255), "a label far too long to fit under a small tile at all");
  const RenderedFrame out = sheet.compose();
  const int m = ContactSheet::margin;
  EXPECT_EQ(std::pair(out.width, out.height), std::pair(2 * (32 + m) + m, 2 * (18 + ContactSheet::labelHeight + m) + m));
  for (std::size_t i = 3; i < out.pixels.size(); i += 4) ASSERT_EQ(out.pixels[i], 255);
  // Tile 0: two different greys of the checkerboard.
  const std::uint8_t* a = out.pixel(m + 1, m + 1);
  const std::uint8_t* b = out.pixel(m + 9, m + 1);
  EXPECT_NE(a[0], b[0]);
  EXPECT_EQ(a[0], a[2]);
  // Tile 1: red.
  const std::uint8_t* red = out.pixel(m + 32 + m + 5, m + 5);
  EXPECT_EQ(std::pair(red[2], red[0]), (std::pair<std::uint8_t, std::uint8_t>(255, 0)));
  // A label was drawn below tile 0 (some bright pixels in its strip).
  int bright = 0;
  for (int y = m + 18; y < m + 18 + ContactSheet::labelHeight; ++y)
    for (int x = m; x < m + 32; ++x) bright += out.pixel(x, y)[1] > 200;
  EXPECT_GT(bright, 0);
}

TEST(MaskSnapshotTest, AFolderThatCannotBeCreatedIsReportedAndNothingIsWritten) {
  test::TempDir dir;
  const auto file = dir.path() / "a-file";
  std::ofstream(file) << "x";
  test::LogCapture log;
  EXPECT_EQ(MaskSnapshot::run((file / "inside").string()), 0);
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"[snapshot] Cannot create the folder " + (file / "inside").string() +
                                                        ": Not a directory",
                                                    "[snapshot] Wrote 0 files"}));
}

}  // namespace
}  // namespace velmora
