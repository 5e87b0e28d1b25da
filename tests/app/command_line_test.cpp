#include "app/CommandLine.h"

#include <gtest/gtest.h>

#include <tuple>

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
    std::string folder = "", record = "", unknown = "", phone = "";
    bool recordWithoutFile = false, phoneWithoutHost = false;  // the switch was the last argument
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
      {{"--record"}, Mode::interactive, "", "", "", "", true},
      // "--phone HOST" alongside, in either order; without a host it is noted.
      {{"--phone", "192.168.1.7", "--record", "f.pcap"}, Mode::interactive, "", "f.pcap", "", "192.168.1.7"},
      {{"--phone"}, Mode::interactive, "", "", "", "", false, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.args));
    const auto r = CommandLine::parse(row.args);
    EXPECT_EQ(std::tuple(r.mode, r.folder, r.recordFile, r.unknownOption, r.phoneHost, r.recordWithoutFile,
                         r.phoneWithoutHost),
              std::tuple(row.mode, row.folder, row.record, row.unknown, row.phone, row.recordWithoutFile,
                         row.phoneWithoutHost));
  }
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
