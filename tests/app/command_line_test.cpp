#include "app/CommandLine.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

using Mode = CommandLine::Mode;

// Switches are checked in order and the first match wins; the export is
// looked at after the other batch switches; a folder switch with nothing
// after it is ignored; --record counts only for an interactive run; a near
// miss is no switch but an unknown option (exit status 2), unless a batch
// switch, --help or --version wins first.
TEST(CommandLine, ArgumentsGiveTheirModeFolderAndRecording) {
  struct Row {
    std::vector<std::string> args;
    Mode mode;
    std::string folder = "", record = "", unknown = "";
  };
  const Row rows[] = {
      {{}, Mode::interactive},
      {{"--run-tests"}, Mode::runTests},
      {{"--snapshot", "out", "--run-tests"}, Mode::runTests},
      {{"--output-selftest", "a", "--snapshot", "b"}, Mode::snapshot, "b"},
      {{"-v", "--output-selftest", "/tmp/x"}, Mode::outputSelfTest, "/tmp/x"},
      {{"--export-gltf", "e", "--output-selftest", "o"}, Mode::outputSelfTest, "o"},
      {{"--export-gltf", "characters/"}, Mode::exportGltf, "characters/"},
      {{"--snapshot"}, Mode::interactive},
      {{"--export-gltf"}, Mode::interactive},
      {{"--output-selftest", "o", "--snapshot"}, Mode::outputSelfTest, "o"},
      {{"-v", "--Run-Tests", "x"}, Mode::usageError, "", "", "--Run-Tests"},
      {{"-v", "--run-tests=1", "x"}, Mode::usageError, "", "", "--run-tests=1"},
      {{"-v", "--snapshot=out", "x"}, Mode::usageError, "", "", "--snapshot=out"},
      {{"-v", "--recordings", "x"}, Mode::usageError, "", "", "--recordings"},
      {{"--bogus", "--snapshot", "out"}, Mode::snapshot, "out"},
      {{"--bogus", "--help"}, Mode::help},
      {{"--version", "--help"}, Mode::help},
      {{"--record", "--odd-name.pcap"}, Mode::interactive, "", "--odd-name.pcap"},  // a switch's argument
      {{"--record", "show.pcap"}, Mode::interactive, "", "show.pcap"},
      {{"--record", "f", "--run-tests"}, Mode::runTests},  // a batch run records nothing
      {{"--snapshot", "out", "--record", "f"}, Mode::snapshot, "out"},
      {{"--record", "--snapshot", "out"}, Mode::snapshot, "out"},
      {{"--record", "f.pcap", "--snapshot"}, Mode::interactive, "", "f.pcap"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.args));
    const auto r = CommandLine::parse(row.args);
    EXPECT_EQ(r.mode, row.mode);
    if (!row.folder.empty()) {
      EXPECT_EQ(r.folder, row.folder);
    }
    EXPECT_EQ(r.recordFile, row.record);
    if (row.mode == Mode::usageError) {
      EXPECT_EQ(r.unknownOption, row.unknown);
    }
  }
  const auto missing = CommandLine::parse({"--record"});
  EXPECT_EQ(missing.mode, Mode::interactive);
  EXPECT_TRUE(missing.recordFile.empty());
  EXPECT_TRUE(missing.recordWithoutFile);
  // "--phone HOST" alongside, in either order; without a host it is noted.
  const auto phone = CommandLine::parse({"--phone", "192.168.1.7", "--record", "f.pcap"});
  EXPECT_EQ(phone.phoneHost, "192.168.1.7");
  EXPECT_EQ(phone.recordFile, "f.pcap");
  EXPECT_TRUE(CommandLine::parse({"--phone"}).phoneWithoutHost);
  // Every switch --help lists is understood.
  for (const auto& s : CommandLine::switches()) {
    std::vector<std::string> args{s.name};
    if (*s.argument) args.push_back("x");
    EXPECT_NE(CommandLine::parse(args).mode, Mode::usageError) << s.name;
    EXPECT_NE(CommandLine::helpText().find(std::string("  ") + s.name), std::string::npos) << s.name;
  }
}

}  // namespace
}  // namespace velmora
