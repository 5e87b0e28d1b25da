// The built velmora's conventions as a shell user meets them: --help and
// --version print and exit 0, an option nobody knows is named with a hint
// and exit status 2, and a folder switch without its folder is no mistake:
// the normal run starts.
#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "support/ChildProcess.h"
#include "support/TempDir.h"
#include "support/UdpSocket.h"

namespace velmora {
namespace {

const std::string kVelmora = VELMORA_BINARY_DIR "/bin/velmora";

TEST(CommandLineEndToEnd, HelpVersionAndUnknownOptions) {
  test::TempDir config;
  struct Case {
    std::vector<std::string> args;
    int status;
    std::vector<std::string> shown;  // substrings of the output
  };
  const Case cases[] = {
      {{"--help"}, 0, {"Usage: velmora [OPTION]...", "  --output-selftest FOLDER", "  --record FILE", "VELMORA_CONFIG_DIR",
                       "VELMORA_TRACKING_PORTS", "NDI_RUNTIME_DIR_V6", "NDI_RUNTIME_DIR_V5", "/velmora/settings.json"}},
      {{"--version"}, 0, {"velmora " VELMORA_VERSION "\n"}},
      {{"--fullscreen", "--version"}, 0, {"velmora " VELMORA_VERSION}},
      {{"--fullscreen"}, 2, {"velmora: unrecognized option '--fullscreen'; try 'velmora --help'\n"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args.front());
    std::vector<std::string> argv{kVelmora};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    test::ChildProcess velmora(argv, {"VELMORA_CONFIG_DIR=" + config.path().string()});
    EXPECT_EQ(velmora.wait(20), c.status) << velmora.output();
    for (const auto& text : c.shown) EXPECT_NE(velmora.output().find(text), std::string::npos) << text;
  }
  // The usage error is one line, nothing else.
  test::ChildProcess unknown({kVelmora, "--bogus"}, {"VELMORA_CONFIG_DIR=" + config.path().string()});
  EXPECT_EQ(unknown.wait(20), 2);
  EXPECT_EQ(unknown.lines().size(), 1u) << unknown.output();
}

TEST(CommandLineEndToEnd, AFolderSwitchWithoutItsFolderStartsTheNormalRun) {
  test::TempDir config;
  test::ChildProcess velmora({kVelmora, "--snapshot"},
                             {"VELMORA_CONFIG_DIR=" + config.path().string(), "DISPLAY=",
                              "VELMORA_TRACKING_PORTS=" + std::to_string(test::freeUdpPort())});
  ASSERT_TRUE(velmora.waitForLine([](const std::string& l) { return l.starts_with("[Velmora] Settings: "); }, 30.0))
      << velmora.output();
  EXPECT_EQ(velmora.stop(SIGTERM, 30.0), 0) << velmora.output();
}

}  // namespace
}  // namespace velmora
