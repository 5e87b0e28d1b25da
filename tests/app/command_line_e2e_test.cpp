// The built velmora's conventions as a shell user meets them: --help and
// --version print and exit 0, an option nobody knows is named with a hint in
// one line and exit status 2, and a folder switch without its folder is no
// mistake: the normal run starts, and a signal early in its start ends it
// cleanly.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <string>

#include "support/VelmoraRun.h"

namespace velmora {
namespace {

TEST(CommandLineEndToEnd, HelpVersionAndUnknownOptions) {
  struct Row {
    std::vector<std::string> args;
    int status;
    std::vector<std::string> shown;  // substrings of the output
  };
  const Row rows[] = {
      {{"--help"}, 0, {"Usage: velmora [OPTION]...", "  --output-selftest FOLDER", "  --record FILE", "VELMORA_CONFIG_DIR",
                       "VELMORA_TRACKING_PORTS", "NDI_RUNTIME_DIR_V6", "NDI_RUNTIME_DIR_V5", "/velmora/settings.json"}},
      {{"--version"}, 0, {"velmora " VELMORA_VERSION "\n"}},
      {{"--fullscreen", "--version"}, 0, {"velmora " VELMORA_VERSION}},
      {{"--fullscreen"}, 2, {"velmora: unrecognized option '--fullscreen'; try 'velmora --help'\n"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.args.front());
    std::vector<std::string> argv{test::builtProgram("velmora")};
    argv.insert(argv.end(), row.args.begin(), row.args.end());
    const test::Finished r = test::runToEnd(argv, {}, 20);
    EXPECT_EQ(r.status, row.status) << r.output;
    for (const auto& text : row.shown) EXPECT_NE(r.output.find(text), std::string::npos) << text;
    EXPECT_TRUE(row.status != 2 || std::count(r.output.begin(), r.output.end(), '\n') == 1) << r.output;
  }
}

TEST(CommandLineEndToEnd, AFolderSwitchWithoutItsFolderStartsTheNormalRun) {
  test::VelmoraRun velmora({.env = {"DISPLAY="}, .args = {"--snapshot"}});
  ASSERT_TRUE(velmora->waitForLine([](const std::string& l) { return l.starts_with("[Velmora] Settings: "); }, 30.0))
      << velmora->output();
  EXPECT_TRUE(velmora.stopsCleanly(SIGTERM)) << velmora->output();
}

}  // namespace
}  // namespace velmora
