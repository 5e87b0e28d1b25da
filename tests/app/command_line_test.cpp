#include "app/CommandLine.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

using Mode = CommandLine::Mode;

TEST(CommandLine, SwitchesAreCheckedInOrderAndTheFirstMatchWins) {
  EXPECT_EQ(CommandLine::parse({}).mode, Mode::interactive);
  EXPECT_EQ(CommandLine::parse({"--run-tests"}).mode, Mode::runTests);
  EXPECT_EQ(CommandLine::parse({"--snapshot", "out", "--run-tests"}).mode, Mode::runTests);
  auto snap = CommandLine::parse({"--output-selftest", "a", "--snapshot", "b"});
  EXPECT_EQ(snap.mode, Mode::snapshot);
  EXPECT_EQ(snap.folder, "b");
  auto self = CommandLine::parse({"-v", "--output-selftest", "/tmp/x"});
  EXPECT_EQ(self.mode, Mode::outputSelfTest);
  EXPECT_EQ(self.folder, "/tmp/x");
  // The export is looked at last: any of the three others wins over it.
  auto exported = CommandLine::parse({"--export-gltf", "e", "--output-selftest", "o"});
  EXPECT_EQ(exported.mode, Mode::outputSelfTest);
  EXPECT_EQ(exported.folder, "o");
  exported = CommandLine::parse({"--export-gltf", "characters/"});
  EXPECT_EQ(exported.mode, Mode::exportGltf);
  EXPECT_EQ(exported.folder, "characters/");
}

TEST(CommandLine, AFolderSwitchWithNothingAfterItIsIgnored) {
  EXPECT_EQ(CommandLine::parse({"--snapshot"}).mode, Mode::interactive);
  EXPECT_EQ(CommandLine::parse({"--export-gltf"}).mode, Mode::interactive);
  auto r = CommandLine::parse({"--output-selftest", "o", "--snapshot"});
  EXPECT_EQ(r.mode, Mode::outputSelfTest);
  EXPECT_EQ(r.folder, "o");
}

TEST(CommandLine, MatchesAreExactAndCaseSensitive) {
  EXPECT_EQ(CommandLine::parse({"--Run-Tests"}).mode, Mode::interactive);
  EXPECT_EQ(CommandLine::parse({"--run-tests=1"}).mode, Mode::interactive);
  EXPECT_EQ(CommandLine::parse({"--snapshot=out"}).mode, Mode::interactive);
}

}  // namespace
}  // namespace velmora
