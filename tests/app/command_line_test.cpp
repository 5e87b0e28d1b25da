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

// A near miss is no switch: it is named back to the user (exit status 2),
// unless a batch switch, --help or --version wins first.
TEST(CommandLine, MatchesAreExactAndAnythingElseIsAnUnknownOption) {
  for (const char* option : {"--Run-Tests", "--run-tests=1", "--snapshot=out", "--recordings"}) {
    const auto r = CommandLine::parse({"-v", option, "x"});
    EXPECT_EQ(r.mode, Mode::usageError) << option;
    EXPECT_EQ(r.unknownOption, option);
  }
  EXPECT_EQ(CommandLine::parse({"--bogus", "--snapshot", "out"}).mode, Mode::snapshot);
  EXPECT_EQ(CommandLine::parse({"--bogus", "--help"}).mode, Mode::help);
  EXPECT_EQ(CommandLine::parse({"--version", "--help"}).mode, Mode::help);
  // A switch's own argument is not an option.
  auto r = CommandLine::parse({"--record", "--odd-name.pcap"});
  EXPECT_EQ(r.mode, Mode::interactive);
  EXPECT_EQ(r.recordFile, "--odd-name.pcap");
  // Every switch --help lists is understood.
  for (const auto& s : CommandLine::switches()) {
    std::vector<std::string> args{s.name};
    if (*s.argument) args.push_back("x");
    EXPECT_NE(CommandLine::parse(args).mode, Mode::usageError) << s.name;
    EXPECT_NE(CommandLine::helpText().find(std::string("  ") + s.name), std::string::npos) << s.name;
  }
}

TEST(CommandLine, RecordIsLookedAtOnlyForAnInteractiveRun) {
  auto r = CommandLine::parse({"--record", "show.pcap"});
  EXPECT_EQ(r.mode, Mode::interactive);
  EXPECT_EQ(r.recordFile, "show.pcap");
  // The batch switches keep their rules and win; a batch run records nothing.
  for (const auto& args : std::vector<std::vector<std::string>>{{"--record", "f", "--run-tests"},
                                                                {"--snapshot", "out", "--record", "f"},
                                                                {"--record", "--snapshot", "out"}}) {
    auto batch = CommandLine::parse(args);
    EXPECT_NE(batch.mode, Mode::interactive) << args[0];
    EXPECT_TRUE(batch.recordFile.empty()) << args[0];
  }
  // "--snapshot" as the last argument is ignored as before: an interactive
  // run, recording to the file named after "--record".
  auto last = CommandLine::parse({"--record", "f.pcap", "--snapshot"});
  EXPECT_EQ(last.mode, Mode::interactive);
  EXPECT_EQ(last.recordFile, "f.pcap");
  auto missing = CommandLine::parse({"--record"});
  EXPECT_EQ(missing.mode, Mode::interactive);
  EXPECT_TRUE(missing.recordFile.empty());
  EXPECT_TRUE(missing.recordWithoutFile);
  // "--phone HOST" alongside, in either order; without a host it is noted.
  auto phone = CommandLine::parse({"--phone", "192.168.1.7", "--record", "f.pcap"});
  EXPECT_EQ(phone.phoneHost, "192.168.1.7");
  EXPECT_EQ(phone.recordFile, "f.pcap");
  EXPECT_TRUE(CommandLine::parse({"--phone"}).phoneWithoutHost);
}

}  // namespace
}  // namespace velmora
